// A login mechanism: runs the WS-Trust exchange with the token service and
// hands back the assertion ID and the SAML assertion (SDL/SDL2 may also hand
// back the password digest). One object per authentication.
#pragma once

#include <windows.h>

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
// name or a failed allocation gives nullptr. The caller deletes the object.
IAuthentication* CreateAuthentication(const wchar_t* authType);

namespace qv {

// The exchange every mechanism's Request step performs once its own argument
// checks passed: an envelope addressed to address/port/securePort/servicePath,
// the message serialised into it, one plain SOAP round trip through the
// transport and the answer read back into the message. Codes of each stage
// are returned unchanged.
DWORD ExchangeAuthMessage(CSoapTrans* transport, WSRequest* message, const std::wstring& servicePath,
                          USHORT port, USHORT securePort, const std::wstring& address);

// The Request step of every mechanism, logged under className: a missing
// message or a mechanism without transport is refused, else
// ExchangeAuthMessage; OUT is logged when that did not fail.
DWORD AuthRequestStep(const wchar_t* className, CSoapTrans* transport, WSRequest* message,
                      const std::wstring& servicePath, USHORT port, USHORT securePort, const std::wstring& address);

// A fixed-size AuthInfo text field as a string, stopping at its terminator or
// at the end of the field when the host left it unterminated.
std::wstring AuthInfoText(const WCHAR (&field)[64]);

}  // namespace qv
