#include "auth/Auth_NTLM.h"

#include <cstring>

#include "common/HeapBuffer.h"
#include "crypto/Base64.h"
#include "log/WSCLog.h"
#include "messages/RSTR_NTLM.h"
#include "messages/RST_NTLM.h"

namespace {

wchar_t kNtlmPackage[] = L"NTLM";

// Same name apart from letter case, kana type and character width.
constexpr DWORD kLooseCompareFlags = NORM_IGNORECASE | NORM_IGNOREKANATYPE | NORM_IGNOREWIDTH;
static_assert(kLooseCompareFlags == 0x30001, "case, kana and width only");

// A user name in the SAM-compatible form and the domain found for it.
constexpr DWORD kNameCapacity = 256;

struct SspiErrorRow {
    DWORD platform;
    DWORD result;
};

constexpr SspiErrorRow kSspiErrors[] = {
    {static_cast<DWORD>(SEC_E_INSUFFICIENT_MEMORY), ZEB_ERROR_SSPI_INSUFFICIENT_MEMORY},
    {static_cast<DWORD>(SEC_E_INTERNAL_ERROR), ZEB_ERROR_SSPI_INTERNAL_ERROR},
    {static_cast<DWORD>(SEC_E_NO_CREDENTIALS), ZEB_ERROR_SSPI_NO_CREDENTIALS},
    {static_cast<DWORD>(SEC_E_NOT_OWNER), ZEB_ERROR_SSPI_NOT_OWNER},
    {static_cast<DWORD>(SEC_E_SECPKG_NOT_FOUND), ZEB_ERROR_SSPI_SECPKG_NOT_FOUND},
    {static_cast<DWORD>(SEC_E_UNKNOWN_CREDENTIALS), ZEB_ERROR_SSPI_UNKNOWN_CREDENTIALS},
    {static_cast<DWORD>(SEC_E_INVALID_HANDLE), ZEB_ERROR_SSPI_INVALID_HANDLE},
    {static_cast<DWORD>(SEC_E_INVALID_TOKEN), ZEB_ERROR_SSPI_INVALID_TOKEN},
    {static_cast<DWORD>(SEC_E_LOGON_DENIED), ZEB_ERROR_SSPI_LOGON_DENIED},
    {static_cast<DWORD>(SEC_E_NO_AUTHENTICATING_AUTHORITY), ZEB_ERROR_SSPI_NO_AUTHENTICATING_AUTHORITY},
    {static_cast<DWORD>(SEC_E_TARGET_UNKNOWN), ZEB_ERROR_SSPI_TARGET_UNKNOWN},
    {static_cast<DWORD>(SEC_E_UNSUPPORTED_FUNCTION), ZEB_ERROR_SSPI_UNSUPPORTED_FUNCTION},
    {static_cast<DWORD>(SEC_E_WRONG_PRINCIPAL), ZEB_ERROR_SSPI_WRONG_PRINCIPAL},
};

// A failed SSPI call: the thread's last error mapped, logged for the call
// site and returned.
#define QV_SSPI_FAILED(format) QV_LAST_ERROR(&Auth_NTLM::MapSspiError, format)

}  // namespace

DWORD Auth_NTLM::MapSspiError(DWORD error) {
    for (const SspiErrorRow& row : kSspiErrors) {
        if (row.platform == error) return row.result;
    }
    return ZEB_ERROR_SSPI_GENERAL_ERROR;
}

Auth_NTLM::Auth_NTLM()
    : m_pSoapTrans(nullptr),
      m_cbMaxToken(0),
      m_identity(),
      m_pfnInitializeSecurityContext(&::InitializeSecurityContextW) {
    WSCLOG(4, L"Auth_NTLM constructor IN");
    WSCLOG(4, L"Auth_NTLM constructor OUT");
}

Auth_NTLM::~Auth_NTLM() {
    WSCLOG(4, L"Auth_NTLM destructor IN");
    EndExchange();
    m_packageInfo.reset();
    m_pSoapTrans = nullptr;
    WSCLOG(4, L"Auth_NTLM destructor OUT");
}

void Auth_NTLM::EndExchange() {
    m_context.reset();
    m_credentials.reset();
    // The record points into the caller's strings, password included.
    SecureZeroMemory(&m_identity, sizeof(m_identity));
}

DWORD Auth_NTLM::Authentication(CSoapTrans* transport, DWORD flags, const AuthInfo* authInfo,
                                AuthCredential* credential, std::wstring servicePath, USHORT port,
                                USHORT securePort, std::wstring address, std::wstring* assertionId,
                                std::wstring* samlToken, BYTE** digest, DWORD* digestSize) {
    WSCLOG(4, L"Auth_NTLM::Authentication IN");
    const bool explicitCredential = (flags & AUTH_FLAG_EXPLICIT_CREDENTIAL) != 0;
    // The record is needed even for the logged-on user: the user ID
    // correction after the login reads it.
    if (!transport || !authInfo || !credential || !assertionId || !samlToken || !digest || !digestSize ||
        (explicitCredential && (!credential->UserID || !credential->Password || !credential->Domain))) {
        WSCLOG(1, L"Auth_NTLM::Authentication PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    m_pSoapTrans = transport;

    std::wstring payload;
    DWORD result = MakeRstData(flags, credential, &payload);
    if (ZEB_FAILED(result)) return result;

    std::wstring domain;
    if (explicitCredential) {
        domain = credential->Domain;
    } else {
        result = GetLogonUserDomain(&domain);
        if (ZEB_FAILED(result)) {
            EndExchange();
            return result;
        }
    }

    RST_NTLM negotiate(domain, qv::AuthInfoText(authInfo->AuthType), payload);
    result = Request(&negotiate, servicePath, port, securePort, address);
    if (ZEB_FAILED(result)) {
        EndExchange();
        return result;
    }

    std::wstring answer;
    result = MakeRstrData(negotiate.m_challenge, &answer);
    if (ZEB_FAILED(result)) return result;

    RSTR_NTLM authenticate(answer, negotiate.m_context);
    result = Request(&authenticate, servicePath, port, securePort, address);
    if (ZEB_FAILED(result)) return result;

    *assertionId = authenticate.m_assertionID;
    *samlToken = authenticate.m_samlToken;
    CorrectUserId(credential, authenticate.m_wstrUserName);
    WSCLOG(4, L"Auth_NTLM::Authentication OUT");
    return 0;
}

void Auth_NTLM::CorrectUserId(AuthCredential* credential, const std::wstring& serverUserName) {
    if (!credential || !credential->UserID || serverUserName.empty()) return;
    if (CompareStringW(LOCALE_SYSTEM_DEFAULT, 0, credential->UserID, -1, serverUserName.c_str(), -1) ==
        CSTR_EQUAL) {
        return;
    }
    if (CompareStringW(LOCALE_SYSTEM_DEFAULT, kLooseCompareFlags, credential->UserID, -1, serverUserName.c_str(),
                       -1) != CSTR_EQUAL) {
        return;
    }
    // Only a same-length rewrite fits the caller's buffer.
    const size_t length = static_cast<size_t>(lstrlenW(credential->UserID));
    if (length != serverUserName.size()) return;
    WSCLOG(3, L"Auth_NTLM::Authentication, replace (%s) with (%s)", credential->UserID, serverUserName.c_str());
    std::memcpy(credential->UserID, serverUserName.c_str(), (length + 1) * sizeof(wchar_t));
}

DWORD Auth_NTLM::MakeRstData(DWORD flags, const AuthCredential* credential, std::wstring* payload) {
    WSCLOG(4, L"Auth_NTLM::MakeRstData IN");
    const bool explicitCredential = (flags & AUTH_FLAG_EXPLICIT_CREDENTIAL) != 0;
    if (!payload || (explicitCredential && (!credential || !credential->UserID || !credential->Password ||
                                            !credential->Domain))) {
        WSCLOG(1, L"Auth_NTLM::MakeRstData PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    // A second call starts a new exchange.
    EndExchange();

    PSecPkgInfoW packageInfo = nullptr;
    SECURITY_STATUS status = QuerySecurityPackageInfoW(kNtlmPackage, &packageInfo);
    // Here and below the thread's last error is what gets mapped, not the status.
    if (status != SEC_E_OK)
        return QV_SSPI_FAILED(L"Auth_NTLM::MakeRstData QuerySecurityPackageInfo Error = %08x, ZEB_ERROR = %08x");
    m_packageInfo.reset(packageInfo);
    m_cbMaxToken = packageInfo->cbMaxToken;

    PVOID identity = nullptr;
    if (explicitCredential) {
        m_identity.User = reinterpret_cast<unsigned short*>(credential->UserID);
        m_identity.UserLength = static_cast<unsigned long>(lstrlenW(credential->UserID));
        m_identity.Domain = reinterpret_cast<unsigned short*>(credential->Domain);
        m_identity.DomainLength = static_cast<unsigned long>(lstrlenW(credential->Domain));
        m_identity.Password = reinterpret_cast<unsigned short*>(credential->Password);
        m_identity.PasswordLength = static_cast<unsigned long>(lstrlenW(credential->Password));
        m_identity.Flags = SEC_WINNT_AUTH_IDENTITY_UNICODE;
        identity = &m_identity;
    }

    TimeStamp expiry;
    qv::SspiHandle* credentials = m_credentials.put();
    status = AcquireCredentialsHandleW(nullptr, kNtlmPackage, SECPKG_CRED_OUTBOUND, nullptr, identity, nullptr,
                                       nullptr, &credentials->handle, &expiry);
    if (status != SEC_E_OK) {
        const DWORD code = QV_SSPI_FAILED(L"Auth_NTLM::MakeRstData AcquireCredentialsHandle Error = %08x, ZEB_ERROR = %08x");
        EndExchange();
        return code;
    }
    credentials->valid = true;

    qv::ByteBuffer token;
    if (!token.allocate(m_cbMaxToken)) {
        WSCLOG(1, L"Auth_NTLM::MakeRstData malloc ob ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
        EndExchange();
        return ZEB_ERROR_OUTOFMEMORY;
    }
    SecBuffer outBuffer = {m_cbMaxToken, SECBUFFER_TOKEN, token.get()};
    SecBufferDesc outDescription = {SECBUFFER_VERSION, 1, &outBuffer};

    qv::SspiHandle credentialsValue = m_credentials.get();
    qv::SspiHandle* context = m_context.put();
    ULONG attributes = 0;
    status = m_pfnInitializeSecurityContext(&credentialsValue.handle, nullptr, nullptr, 0, 0,
                                            SECURITY_NATIVE_DREP, nullptr, 0, &context->handle, &outDescription,
                                            &attributes, &expiry);
    DWORD error = GetLastError();
    // Any success status leaves a context behind that must be deleted.
    context->valid = status >= 0;
    if (status != SEC_I_CONTINUE_NEEDED) {
        WSCLOG(1, L"Auth_NTLM::MakeRstData InitializeSecurityContext SECURITY_STATUS = %08x",
               static_cast<DWORD>(status));
        const DWORD code = QV_FAILURE(error, &MapSspiError,
                                      L"Auth_NTLM::MakeRstData InitializeSecurityContext Error = %08x, ZEB_ERROR = %08x");
        EndExchange();
        return code;
    }

    *payload = Base64Encoding(token.get(), outBuffer.cbBuffer);
    if (payload->empty()) {
        WSCLOG(1, L"Auth_NTLM::MakeRstData Base64Encoding ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
        EndExchange();
        return ZEB_ERROR_OUTOFMEMORY;
    }
    WSCLOG(4, L"Auth_NTLM::MakeRstData OUT");
    return 0;
}

DWORD Auth_NTLM::MakeRstrData(const std::wstring& challenge, std::wstring* payload) {
    WSCLOG(4, L"Auth_NTLM::MakeRstrData IN");
    if (!payload) {
        WSCLOG(1, L"Auth_NTLM::MakeRstrData PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
        EndExchange();
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    if (!m_context.valid()) {
        WSCLOG(1, L"Auth_NTLM::MakeRstrData ZEB_ERROR_GENERAL_INVALID_INSTANCE ZEB_ERROR = %08x",
               ZEB_ERROR_GENERAL_INVALID_INSTANCE);
        EndExchange();
        return ZEB_ERROR_GENERAL_INVALID_INSTANCE;
    }

    qv::ByteBuffer challengeBytes;
    DWORD challengeSize = 0;
    challengeSize = Base64Decoding(challenge, qv::out_param(challengeBytes, challengeSize));
    if (challengeSize == 0 || !challengeBytes) {
        WSCLOG(1, L"Auth_NTLM::MakeRstrData Base64Decoding challenge ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
        EndExchange();
        return ZEB_ERROR_OUTOFMEMORY;
    }
    qv::ByteBuffer token;
    if (!token.allocate(m_cbMaxToken)) {
        WSCLOG(1, L"Auth_NTLM::MakeRstrData malloc ob ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
        EndExchange();
        return ZEB_ERROR_OUTOFMEMORY;
    }

    SecBuffer inBuffer = {challengeSize, SECBUFFER_TOKEN, challengeBytes.get()};
    SecBufferDesc inDescription = {SECBUFFER_VERSION, 1, &inBuffer};
    SecBuffer outBuffer = {m_cbMaxToken, SECBUFFER_TOKEN, token.get()};
    SecBufferDesc outDescription = {SECBUFFER_VERSION, 1, &outBuffer};

    // The context is both input and output of the call; the holder keeps it
    // whatever the call does to it.
    qv::SspiHandle context = m_context.release();
    ULONG attributes = 0;
    TimeStamp expiry;
    SECURITY_STATUS status =
        m_pfnInitializeSecurityContext(nullptr, &context.handle, nullptr, 0, 0, SECURITY_NATIVE_DREP,
                                       &inDescription, 0, &context.handle, &outDescription, &attributes, &expiry);
    DWORD error = GetLastError();
    m_context.reset(context);
    if (status != SEC_E_OK) {
        // The first words are those of the first leg: the text as it has always been.
        WSCLOG(1, L"Auth_NTLM::MakeRstData InitializeSecurityContext SECURITY_STATUS = %08x",
               static_cast<DWORD>(status));
        const DWORD code = QV_FAILURE(error, &MapSspiError,
                                      L"Auth_NTLM::MakeRstrData InitializeSecurityContext Error = %08x, ZEB_ERROR = %08x");
        EndExchange();
        return code;
    }

    *payload = Base64Encoding(token.get(), outBuffer.cbBuffer);
    EndExchange();
    if (payload->empty())
        return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"Auth_NTLM::MakeRstrData Base64Encoding ob ZEB_ERROR = %08x");
    WSCLOG(4, L"Auth_NTLM::MakeRstrData OUT");
    return 0;
}

DWORD Auth_NTLM::GetLogonUserDomain(std::wstring* domain) {
    WSCLOG(4, L"Auth_NTLM::GetLogonUserDomain IN");
    if (!domain)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"Auth_NTLM::GetLogonUserDomain PARAMETER ZEB_ERROR = %08x");
    domain->clear();

    qv::WideBuffer userName;
    if (!userName.allocate((kNameCapacity + 1) * sizeof(wchar_t)))
        return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"GetLogonUserDomain malloc pUserName ZEB_ERROR = %08x");
    // Failures of the platform calls leave the name or domain empty; the
    // server then decides.
    ULONG userNameSize = kNameCapacity;
    GetUserNameExW(NameSamCompatible, userName.get(), &userNameSize);

    DWORD sidSize = 0;
    DWORD domainSize = 0;
    SID_NAME_USE use = SidTypeUnknown;
    LookupAccountNameW(nullptr, userName.get(), nullptr, &sidSize, nullptr, &domainSize, &use);

    qv::WideBuffer domainName;
    if (!domainName.allocate((kNameCapacity + 1) * sizeof(wchar_t)))
        return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"GetLogonUserDomain malloc pDomain ZEB_ERROR = %08x");
    qv::ByteBuffer sid;
    if (!sid.allocate(sidSize))
        return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"GetLogonUserDomain malloc pSid ZEB_ERROR = %08x");
    domainSize = kNameCapacity;
    LookupAccountNameW(nullptr, userName.get(), sid.get(), &sidSize, domainName.get(), &domainSize, &use);

    *domain = domainName.get();
    WSCLOG(4, L"Auth_NTLM::GetLogonUserDomain OUT");
    return 0;
}

DWORD Auth_NTLM::Request(WSRequest* message, const std::wstring& servicePath, USHORT port, USHORT securePort,
                         const std::wstring& address) {
    return qv::AuthRequestStep(L"Auth_NTLM", m_pSoapTrans, message, servicePath, port, securePort, address);
}
