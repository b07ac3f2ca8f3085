#include "auth/IAuthentication.h"

#include <cwchar>
#include <new>

#include "auth/Auth_Basic.h"
#include "auth/Auth_Basic2.h"
#include "auth/Auth_NTLM.h"
#include "auth/Auth_SDL.h"
#include "auth/Auth_SDL2.h"
#include "log/WSCLog.h"
#include "messages/WSRequest.h"
#include "soap/SoapRequest.h"
#include "soap/SoapResponse.h"
#include "transport/CSoapTrans.h"

namespace {

IAuthentication* MakeNTLM() { return new (std::nothrow) Auth_NTLM(); }
IAuthentication* MakeSDL() { return new (std::nothrow) Auth_SDL(); }
IAuthentication* MakeSDL2() { return new (std::nothrow) Auth_SDL2(); }
IAuthentication* MakeBasic() { return new (std::nothrow) Auth_Basic(); }
IAuthentication* MakeBasic2() { return new (std::nothrow) Auth_Basic2(); }

struct MechanismRow {
    const wchar_t* name;
    IAuthentication* (*make)();
};

// Compared exactly and in this order; the first match wins.
constexpr MechanismRow kMechanisms[] = {
    {L"NTLM", MakeNTLM},
    {L"SDL", MakeSDL},
    {L"SDL2", MakeSDL2},
    {L"Basic", MakeBasic},
    {L"Basic2", MakeBasic2},
};

}  // namespace

IAuthentication* CreateAuthentication(const wchar_t* authType) {
    if (!authType) return nullptr;
    for (const MechanismRow& row : kMechanisms) {
        if (std::wcscmp(authType, row.name) == 0) return row.make();
    }
    return nullptr;
}

namespace qv {

DWORD ExchangeAuthMessage(CSoapTrans* transport, WSRequest* message, const std::wstring& servicePath,
                          USHORT port, USHORT securePort, const std::wstring& address) {
    SoapRequest request(address, port, securePort, servicePath);
    DWORD result = message->Serialize(&request);
    if (result & ZEB_FAILURE_MASK) return result;

    SoapResponse response;
    result = transport->Request(&request, &response, std::wstring());
    if (result & ZEB_FAILURE_MASK) return result;

    return message->Deserialize(&response, L"");
}

DWORD AuthRequestStep(const wchar_t* className, CSoapTrans* transport, WSRequest* message,
                      const std::wstring& servicePath, USHORT port, USHORT securePort, const std::wstring& address) {
    WSCLOG(4, L"%s::Request IN", className);
    if (!message) {
        WSCLOG(1, L"%s::Request PARAMETER ZEB_ERROR = %08x", className, ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    if (!transport) {
        WSCLOG(1, L"%s::Request ZEB_ERROR_GENERAL_INVALID_INSTANCE ZEB_ERROR = %08x", className,
               ZEB_ERROR_GENERAL_INVALID_INSTANCE);
        return ZEB_ERROR_GENERAL_INVALID_INSTANCE;
    }
    DWORD result = ExchangeAuthMessage(transport, message, servicePath, port, securePort, address);
    if (result & ZEB_FAILURE_MASK) return result;
    WSCLOG(4, L"%s::Request OUT", className);
    return result;
}

std::wstring AuthInfoText(const WCHAR (&field)[64]) {
    size_t length = 0;
    while (length < 64 && field[length] != L'\0') ++length;
    return std::wstring(field, length);
}

}  // namespace qv
