#include "auth/Auth_Basic2.h"

#include "log/WSCLog.h"
#include "messages/RST_Basic2.h"

Auth_Basic2::Auth_Basic2() : m_pSoapTrans(nullptr) {
    WSCLOG(4, L"Auth_Basic2 constructor IN");
    WSCLOG(4, L"Auth_Basic2 constructor OUT");
}

Auth_Basic2::~Auth_Basic2() {
    WSCLOG(4, L"Auth_Basic2 destructor IN");
    m_pSoapTrans = nullptr;
    WSCLOG(4, L"Auth_Basic2 destructor OUT");
}

DWORD Auth_Basic2::Authentication(CSoapTrans* transport, DWORD /*flags*/, const AuthInfo* authInfo,
                                  AuthCredential* credential, std::wstring servicePath, USHORT port,
                                  USHORT securePort, std::wstring address, std::wstring* assertionId,
                                  std::wstring* samlToken, BYTE** digest, DWORD* digestSize) {
    WSCLOG(4, L"Auth_Basic2::Authentication IN");
    // The digest outputs are never written here, but every mechanism demands
    // them so that the caller's contract does not depend on the type name.
    if (!transport || !authInfo || !credential || !credential->UserID || !credential->Password ||
        !credential->Domain || !assertionId || !samlToken || !digest || !digestSize) {
        WSCLOG(1, L"Auth_Basic2::Authentication PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    m_pSoapTrans = transport;

    // The message reads ID, password and domain from the record when it
    // serialises; the record stays the caller's.
    RST_Basic2 message(credential->Domain, qv::AuthInfoText(authInfo->AuthType), credential);
    DWORD result = Request(&message, servicePath, port, securePort, address);
    if (ZEB_FAILED(result)) return result;

    *assertionId = message.m_assertionID;
    *samlToken = message.m_samlToken;
    WSCLOG(4, L"Auth_Basic2::Authentication OUT");
    return 0;
}

DWORD Auth_Basic2::Request(WSRequest* message, const std::wstring& servicePath, USHORT port, USHORT securePort,
                           const std::wstring& address) {
    return qv::AuthRequestStep(L"Auth_Basic2", m_pSoapTrans, message, servicePath, port, securePort, address);
}
