#include "auth/Auth_Basic.h"

#include <cstdlib>

#include "common/HeapBuffer.h"
#include "common/SecretString.h"
#include "crypto/Base64.h"
#include "log/StringConv.h"
#include "log/WSCLog.h"
#include "messages/RST_Basic.h"

Auth_Basic::Auth_Basic() : m_pSoapTrans(nullptr) {
    WSCLOG(4, L"Auth_Basic constructor IN");
    WSCLOG(4, L"Auth_Basic constructor OUT");
}

Auth_Basic::~Auth_Basic() {
    WSCLOG(4, L"Auth_Basic destructor IN");
    m_pSoapTrans = nullptr;
    WSCLOG(4, L"Auth_Basic destructor OUT");
}

DWORD Auth_Basic::Authentication(CSoapTrans* transport, DWORD /*flags*/, const AuthInfo* authInfo,
                                 AuthCredential* credential, std::wstring servicePath, USHORT port,
                                 USHORT securePort, std::wstring address, std::wstring* assertionId,
                                 std::wstring* samlToken, BYTE** digest, DWORD* digestSize) {
    WSCLOG(4, L"Auth_Basic::Authentication IN");
    // The digest outputs are never written here, but every mechanism demands
    // them so that the caller's contract does not depend on the type name.
    if (!transport || !authInfo || !credential || !credential->UserID || !credential->Password ||
        !credential->Domain || !assertionId || !samlToken || !digest || !digestSize) {
        WSCLOG(1, L"Auth_Basic::Authentication PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    m_pSoapTrans = transport;

    std::wstring payload;
    DWORD result = MakeRstData(credential, &payload);
    if (ZEB_FAILED(result)) return result;

    RST_Basic message(credential->Domain, qv::AuthInfoText(authInfo->AuthType), payload);
    qv::SecureWipe(payload);
    result = Request(&message, servicePath, port, securePort, address);
    if (ZEB_FAILED(result)) return result;

    *assertionId = message.m_assertionID;
    *samlToken = message.m_samlToken;
    WSCLOG(4, L"Auth_Basic::Authentication OUT");
    return 0;
}

DWORD Auth_Basic::MakeRstData(const AuthCredential* credential, std::wstring* payload) {
    WSCLOG(4, L"Auth_Basic::MakeRstData IN");
    if (!credential || !credential->UserID || !credential->Password || !credential->Domain || !payload)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"Auth_Basic::MakeRstData PARAMETER ZEB_ERROR = %08x");

    // The values go in verbatim: the fragment travels Base64-encoded and this
    // side never parses it, so nothing in it needs escaping. It holds the
    // password: every block it grows out of is wiped when it moves.
    qv::SecretWString fragment;
    fragment.append(L"<wls:ID>").append(credential->UserID).append(L"</wls:ID>");
    fragment.append(L"<wls:PASSWORD>").append(credential->Password).append(L"</wls:PASSWORD>");
    fragment.append(L"<wls:Domain>").append(credential->Domain).append(L"</wls:Domain>");

    DWORD utf8Length = 0;
    char* utf8 = ConvertWideToMulti(fragment.c_str(), CP_UTF8, &utf8Length);
    qv::SecureWipe(fragment);
    if (!utf8) return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"Auth_Basic::MakeRstData ConvertWideToMulti ZEB_ERROR = %08x");

    *payload = Base64Encoding(reinterpret_cast<const BYTE*>(utf8), utf8Length);
    qv::FreeSecret(utf8, utf8Length);
    if (payload->empty())
        return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"Auth_Basic::MakeRstData Base64Encoding ZEB_ERROR = %08x");
    WSCLOG(4, L"Auth_Basic::MakeRstData OUT");
    return 0;
}

DWORD Auth_Basic::Request(WSRequest* message, const std::wstring& servicePath, USHORT port, USHORT securePort,
                          const std::wstring& address) {
    return qv::AuthRequestStep(L"Auth_Basic", m_pSoapTrans, message, servicePath, port, securePort, address);
}
