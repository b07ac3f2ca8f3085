// A login mechanism: runs the WS-Trust exchange with the token service and
// hands back the assertion ID and the SAML assertion (SDL/SDL2 may also hand
// back the password digest). One object per authentication.
#pragma once

#include <windows.h>

#include <memory>
#include <string>

#include "Quorvantis.h"

class CSoapTrans;
class WSRequest;

class IAuthentication {
public:
    // servicePath, port, securePort and address are passed unchanged to each
    // request envelope. All four outputs must be given, whatever the mechanism.
    virtual DWORD Authentication(CSoapTrans* transport, DWORD flags, const AuthInfo* authInfo,
                                 AuthCredential* credential, std::wstring servicePath, USHORT port,
                                 USHORT securePort, std::wstring address, std::wstring* assertionId,
                                 std::wstring* samlToken, BYTE** digest, DWORD* digestSize) = 0;
    virtual ~IAuthentication() = default;
};

// "NTLM", "SDL", "SDL2", "Basic" or "Basic2" (exact, case-sensitive); any other
// name or a failed allocation gives nullptr.
std::unique_ptr<IAuthentication> CreateAuthentication(const wchar_t* authType);

namespace qv {

// The Request step of every mechanism, logged under className: a missing
// message or a mechanism without transport is refused, else one plain SOAP
// exchange (SoapExchange); OUT is logged when that did not fail.
DWORD AuthRequestStep(const wchar_t* className, CSoapTrans* transport, WSRequest* message,
                      const std::wstring& servicePath, USHORT port, USHORT securePort, const std::wstring& address);

// Whether a login's record and credentials fit together, as both the
// interface entry and the login client check before any session work: the
// record must name one of the five mechanisms (a name filling the whole
// fixed array has no terminator and names none), and the credential fields
// that mechanism needs, by the flags, must be there.
enum class CredentialFit { Fits, Misfit, UnknownType };
CredentialFit CheckCredentials(DWORD flags, const AuthInfo& authInfo, const AuthCredential* credential,
                               BYTE* const* output, const DWORD* outputSize);

// A fixed-size AuthInfo text field as a string, stopping at its terminator or
// at the end of the field when the host left it unterminated.
std::wstring AuthInfoText(const WCHAR (&field)[64]);

}  // namespace qv
