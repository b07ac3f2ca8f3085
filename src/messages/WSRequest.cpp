#include "messages/WSRequest.h"

#include <rpc.h>

DWORD WSRequest::Serialize(SoapRequest*) { return 0; }
DWORD WSRequest::Deserialize(SoapResponse*, const wchar_t*) { return 0; }

WSRequest::MessageIdStatus WSRequest::NewMessageId(std::wstring& id) {
    UUID uuid;
    // RPC_S_UUID_LOCAL_ONLY is refused too: only a full UUID names a message.
    if (UuidCreate(&uuid) != RPC_S_OK) return MessageIdStatus::CreateFailed;
    RPC_WSTR text = nullptr;
    if (UuidToStringW(&uuid, &text) != RPC_S_OK || !text) return MessageIdStatus::ToStringFailed;
    try {
        id = reinterpret_cast<const wchar_t*>(text);
    } catch (...) {
        RpcStringFreeW(&text);
        throw;
    }
    RpcStringFreeW(&text);
    return MessageIdStatus::Ok;
}
