// A login mechanism: runs the WS-Trust exchange with the token service and
// hands back the assertion ID and the SAML assertion (SDL/SDL2 may also hand
// back the password digest). One object per authentication.
#pragma once

#include <windows.h>

#include <string>

#include "Quorvantis.h"

class CSoapTrans;

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
