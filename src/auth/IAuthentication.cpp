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
#include "transport/SoapExchange.h"

namespace {

template <typename Mechanism>
std::unique_ptr<IAuthentication> Make() {
    return std::unique_ptr<IAuthentication>(new (std::nothrow) Mechanism());
}

struct MechanismRow {
    const wchar_t* name;
    std::unique_ptr<IAuthentication> (*make)();
};

// Compared exactly and in this order; the first match wins.
constexpr MechanismRow kMechanisms[] = {
    {L"NTLM", Make<Auth_NTLM>},
    {L"SDL", Make<Auth_SDL>},
    {L"SDL2", Make<Auth_SDL2>},
    {L"Basic", Make<Auth_Basic>},
    {L"Basic2", Make<Auth_Basic2>},
};

}  // namespace

std::unique_ptr<IAuthentication> CreateAuthentication(const wchar_t* authType) {
    if (!authType) return nullptr;
    for (const MechanismRow& row : kMechanisms) {
        if (std::wcscmp(authType, row.name) == 0) return row.make();
    }
    return nullptr;
}

namespace qv {

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
    bool answered = false;
    const DWORD result = SoapExchange(address, port, securePort, servicePath)
                             .Run(*transport, *message, std::wstring(), SoapExchange::ServerError::Return, &answered);
    if (ZEB_FAILED(result)) return result;
    WSCLOG(4, L"%s::Request OUT", className);
    return result;
}

CredentialFit CheckCredentials(DWORD flags, const AuthInfo& authInfo, const AuthCredential* credential,
                               BYTE* const* output, const DWORD* outputSize) {
    const size_t typeChars = sizeof(authInfo.AuthType) / sizeof(authInfo.AuthType[0]);
    if (wcsnlen(authInfo.AuthType, typeChars) == typeChars) return CredentialFit::UnknownType;
    const std::wstring type = authInfo.AuthType;
    const bool allThree = credential && credential->UserID && credential->Password && credential->Domain;
    bool fits;
    if (type == L"NTLM") {
        // Without explicit credentials the logged-on user logs in.
        fits = !(flags & AUTH_FLAG_EXPLICIT_CREDENTIAL) || allThree;
    } else if (type == L"SDL" || type == L"SDL2") {
        fits = credential && credential->UserID && ((flags & AUTH_FLAG_DIGEST_PASSWORD) || credential->Password) &&
               (!(flags & AUTH_FLAG_RETURN_DIGEST) || (output && outputSize));
    } else if (type == L"Basic" || type == L"Basic2") {
        fits = allThree;
    } else {
        return CredentialFit::UnknownType;
    }
    return fits ? CredentialFit::Fits : CredentialFit::Misfit;
}

std::wstring AuthInfoText(const WCHAR (&field)[64]) {
    size_t length = 0;
    while (length < 64 && field[length] != L'\0') ++length;
    return std::wstring(field, length);
}

}  // namespace qv
