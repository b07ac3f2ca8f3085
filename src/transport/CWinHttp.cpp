#include "transport/CWinHttp.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>
#include <vector>

#include "Quorvantis.h"
#include "common/HeapBuffer.h"
#include "config/AddinSettings.h"
#include "log/AddinLog.h"
#include "log/ModuleFiles.h"
#include "log/StringConv.h"
#include "log/WSCLog.h"
#include "soap/Namespaces.h"

namespace {

// One row per platform error the channel knows; everything else is unknown.
struct WinHttpErrorRow {
    DWORD error;
    DWORD result;
};

constexpr WinHttpErrorRow kWinHttpErrors[] = {
    {12002, ZEB_ERROR_WINHTTP_TIMEOUT},                  // ERROR_WINHTTP_TIMEOUT
    // WSAETIMEDOUT: how Wine's WinHTTP reports a silent server; retried like 12002.
    {10060, ZEB_ERROR_WINHTTP_TIMEOUT},
    {12004, ZEB_ERROR_WINHTTP_INTERNAL_ERROR},           // ERROR_WINHTTP_INTERNAL_ERROR
    {12005, ZEB_ERROR_WINHTTP_INVALID_URL},              // ERROR_WINHTTP_INVALID_URL
    {12006, ZEB_ERROR_WINHTTP_UNRECOGNIZED_SCHEME},      // ERROR_WINHTTP_UNRECOGNIZED_SCHEME
    {12007, ZEB_ERROR_WINHTTP_NAME_NOT_RESOLVED},        // ERROR_WINHTTP_NAME_NOT_RESOLVED
    {12009, ZEB_ERROR_WINHTTP_INVALID_OPTION},           // ERROR_WINHTTP_INVALID_OPTION
    {12011, ZEB_ERROR_WINHTTP_OPTION_NOT_SETTABLE},      // ERROR_WINHTTP_OPTION_NOT_SETTABLE
    {12012, ZEB_ERROR_WINHTTP_SHUTDOWN},                 // ERROR_WINHTTP_SHUTDOWN
    {12015, ZEB_ERROR_WINHTTP_LOGIN_FAILURE},            // ERROR_WINHTTP_LOGIN_FAILURE
    {12017, ZEB_ERROR_WINHTTP_OPERATION_CANCELLED},      // ERROR_WINHTTP_OPERATION_CANCELLED
    {12018, ZEB_ERROR_WINHTTP_INCORRECT_HANDLE_TYPE},    // ERROR_WINHTTP_INCORRECT_HANDLE_TYPE
    {12019, ZEB_ERROR_WINHTTP_INCORRECT_HANDLE_STATE},   // ERROR_WINHTTP_INCORRECT_HANDLE_STATE
    {12029, ZEB_ERROR_WINHTTP_CANNOT_CONNECT},           // ERROR_WINHTTP_CANNOT_CONNECT
    {12030, ZEB_ERROR_WINHTTP_CONNECTION_ERROR},         // ERROR_WINHTTP_CONNECTION_ERROR
    {12032, ZEB_ERROR_WINHTTP_RESEND_REQUEST},           // ERROR_WINHTTP_RESEND_REQUEST
    {12044, ZEB_ERROR_WINHTTP_CLIENT_AUTH_CERT_NEEDED},  // ERROR_WINHTTP_CLIENT_AUTH_CERT_NEEDED
    {12150, ZEB_ERROR_WINHTTP_HEADER_NOT_FOUND},         // ERROR_WINHTTP_HEADER_NOT_FOUND
    {12152, ZEB_ERROR_WINHTTP_INVALID_SERVER_RESPONSE},  // ERROR_WINHTTP_INVALID_SERVER_RESPONSE
    {12156, ZEB_ERROR_WINHTTP_REDIRECT_FAILED},          // ERROR_WINHTTP_REDIRECT_FAILED
    {12175, ZEB_ERROR_WINHTTP_SECURE_FAILURE},           // ERROR_WINHTTP_SECURE_FAILURE
    {12181, ZEB_ERROR_WINHTTP_12181},
    {12182, ZEB_ERROR_WINHTTP_12182},
    {12183, ZEB_ERROR_WINHTTP_12183},
    {12184, ZEB_ERROR_WINHTTP_12184},
    {8, ZEB_ERROR_WINHTTP_NOT_ENOUGH_MEMORY},             // ERROR_NOT_ENOUGH_MEMORY
    {87, ZEB_ERROR_WINHTTP_INVALID_PARAMETER},            // ERROR_INVALID_PARAMETER
    {122, ZEB_ERROR_WINHTTP_INSUFFICIENT_BUFFER},         // ERROR_INSUFFICIENT_BUFFER
    // Already a result code (the content-type refusal): passed through.
    {ZEB_ERROR_WINHTTP_UNKNOWN_CONTENT_TYPE, ZEB_ERROR_WINHTTP_UNKNOWN_CONTENT_TYPE},
};

constexpr const wchar_t* kUserAgent = L"ZEBWSCLINET";
constexpr const wchar_t* kPolicyIniName = L"Dellipsor.ini";
constexpr DWORD kPolicyIniNameLength = 13;
constexpr DWORD kPathChars = 260;
// Server trust is deliberately lenient: unknown CA, wrong name, expired.
constexpr DWORD kIgnoreCertificateFlags = SECURITY_FLAG_IGNORE_UNKNOWN_CA | SECURITY_FLAG_IGNORE_CERT_CN_INVALID |
                                          SECURITY_FLAG_IGNORE_CERT_DATE_INVALID;  // 0x00003100
// Drops SECURITY_FLAG_SECURE and the strength bits, which cannot be written.
constexpr DWORD kWritableSecurityFlagsMask = 0x8FFFFFFE;

constexpr const wchar_t* kSendQueryHeadersFailure =
    L"CWinHttp::_SendRequest WinHttpQueryHeaders Error = %08x, ZEB_ERROR = %08x";
constexpr const wchar_t* kSendMallocFailure = L"CWinHttp::_SendRequest malloc ZEB_ERROR = %08x";

// A failed WinHTTP call: its last error mapped, logged for the call site
// (at level 1, or 2 for what the channel gets over) and returned.
#define QV_WINHTTP_FAILED(format) QV_LAST_ERROR(&CWinHttp::MapWinHttpError, format)
#define QV_WINHTTP_WARNING(format) QV_LAST_ERROR_WARNING(&CWinHttp::MapWinHttpError, format)

// Every WinHTTP call goes through the installed table.
const WinHttpApi& Api() { return WinHttpApi::Current(); }

#ifndef WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_3
#define WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_3 0x00002000
#endif
constexpr DWORD kModernProtocols = WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_2 | WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_3;
constexpr DWORD kLegacyProtocols = WINHTTP_FLAG_SECURE_PROTOCOL_TLS1 | WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_1;

// The errors a refused server certificate can surface as, when no
// certificate error is ignored.
constexpr DWORD kSecureChannelRefusals[] = {
    12175,  // ERROR_WINHTTP_SECURE_FAILURE: what WinHttpSendRequest reports on Windows
    12157,  // ERROR_WINHTTP_SECURE_CHANNEL_ERROR: the handshake itself failed
    12037,  // ERROR_WINHTTP_SECURE_CERT_DATE_INVALID
    12038,  // ERROR_WINHTTP_SECURE_CERT_CN_INVALID
    12045,  // ERROR_WINHTTP_SECURE_INVALID_CA
    12169,  // ERROR_WINHTTP_SECURE_INVALID_CERT
    12170,  // ERROR_WINHTTP_SECURE_CERT_REVOKED
    12179,  // ERROR_WINHTTP_SECURE_CERT_WRONG_USAGE
};

bool IsSecureChannelRefusal(DWORD error) {
    for (DWORD refusal : kSecureChannelRefusals)
        if (refusal == error) return true;
    return false;
}

}  // namespace

CWinHttp::CWinHttp(const std::wstring& hostName, USHORT port, USHORT securePort)
    : m_wstrHostName(hostName),
      m_usPort(port),
      m_usSecurePort(securePort),
      m_bSSLMode(FALSE),
      m_bPolicyRead(FALSE),
      m_usKeepAlivePolicy(0) {
    WSCLOG(4, L"CWinHttp constructor IN");
    std::shared_ptr<const AddinSettings> settings = AddinSettings::Current();
    if (settings) {
        m_wstrWebProxy = settings->wstrWebProxy;
        m_dwTimeout = settings->dwTimeout;
        m_dwStrictServerCertificate = settings->dwStrictServerCertificate;
    }
    WSCLOG(4, L"CWinHttp constructor OUT");
}

CWinHttp::~CWinHttp() {
    WSCLOG(4, L"CWinHttp destructor IN");
    Close();
    WSCLOG(4, L"CWinHttp destructor OUT");
}

DWORD CWinHttp::MapWinHttpError(DWORD error) {
    for (const WinHttpErrorRow& row : kWinHttpErrors)
        if (row.error == error) return row.result;
    return ZEB_ERROR_WINHTTP_UNKNOWN;
}

std::wstring CWinHttp::BuildProxyList(const std::wstring& webProxy) {
    if (webProxy.empty()) return std::wstring();
    return L"http=" + webProxy + L";" + L"https=" + webProxy;
}

DWORD CWinHttp::Open() {
    WSCLOG(4, L"CWinHttp::Open IN");
    m_wstrProxyList = BuildProxyList(m_wstrWebProxy);
    if (m_wstrProxyList.empty()) {
        m_hSession.reset(Api().Open(kUserAgent, WINHTTP_ACCESS_TYPE_NO_PROXY, WINHTTP_NO_PROXY_NAME,
                                     WINHTTP_NO_PROXY_BYPASS, 0));
    } else {
        m_hSession.reset(Api().Open(kUserAgent, WINHTTP_ACCESS_TYPE_NAMED_PROXY, m_wstrProxyList.c_str(),
                                     WINHTTP_NO_PROXY_BYPASS, 0));
    }
    if (!m_hSession)
        return QV_WINHTTP_FAILED(L"CWinHttp::Open WinHttpOpen Error = %08x, ZEB_ERROR = %08x");

    // One time-out bounds connect, send and receive alike. The wait for the
    // response headers gets the same bound: its own default is far longer,
    // and Wine's receive time-out does not cover that wait at all. That last
    // option is ours, not required: a platform that refuses it costs a
    // warning, never the session.
    struct TimeoutOption {
        DWORD option;
        bool required;
        const wchar_t* failure;
    };
    static constexpr TimeoutOption kTimeouts[] = {
        {WINHTTP_OPTION_CONNECT_TIMEOUT, true,
         L"CWinHttp::Open WinHttpSetOption WINHTTP_OPTION_CONNECT_TIMEOUT Error = %08x, ZEB_ERROR = %08x"},
        {WINHTTP_OPTION_SEND_TIMEOUT, true,
         L"CWinHttp::Open WinHttpSetOption WINHTTP_OPTION_SEND_TIMEOUT Error = %08x, ZEB_ERROR = %08x"},
        {WINHTTP_OPTION_RECEIVE_TIMEOUT, true,
         L"CWinHttp::Open WinHttpSetOption WINHTTP_OPTION_RECEIVE_TIMEOUT Error = %08x, ZEB_ERROR = %08x"},
        {WINHTTP_OPTION_RECEIVE_RESPONSE_TIMEOUT, false,
         L"CWinHttp::Open WinHttpSetOption WINHTTP_OPTION_RECEIVE_RESPONSE_TIMEOUT Error = %08x, ZEB_ERROR = %08x"},
    };
    for (const TimeoutOption& timeout : kTimeouts) {
        DWORD value = m_dwTimeout;
        if (!Api().SetOption(m_hSession.get(), timeout.option, &value, sizeof(value))) {
            if (!timeout.required) {
                QV_WINHTTP_WARNING(timeout.failure);
                continue;
            }
            return QV_WINHTTP_FAILED(timeout.failure);
        }
    }
    OfferSecureProtocols();

    USHORT port = m_usPort;
    if (m_bSSLMode) {
        WSCLOG(3, L"CWinHttp::Open SSL Mode");
        port = m_usSecurePort;
    }
    m_hConnect.reset(Api().Connect(m_hSession.get(), m_wstrHostName.c_str(), port, 0));
    if (!m_hConnect)
        return QV_WINHTTP_FAILED(L"CWinHttp::Open WinHttpConnect Error = %08x, ZEB_ERROR = %08x");
    WSCLOG(4, L"CWinHttp::Open OUT");
    return 0;
}

DWORD CWinHttp::SecureProtocols(bool strictServerCertificate) {
    return strictServerCertificate ? kModernProtocols : (kLegacyProtocols | kModernProtocols);
}

// Windows 7 and 8 offer only SSL 3.0 and TLS 1.0 unless told otherwise, so
// a server that requires TLS 1.2 would fail in the handshake. Windows before
// 11 refuses the TLS 1.3 bit (87): the same set goes again without it. A
// platform that refuses both keeps its own default, with a warning: which
// versions are offered never fails the session.
void CWinHttp::OfferSecureProtocols() {
    const DWORD wanted = SecureProtocols(m_dwStrictServerCertificate != 0);
    const DWORD attempts[] = {wanted, wanted & ~static_cast<DWORD>(WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_3)};
    for (DWORD protocols : attempts) {
        WSCLOG(5, L"CWinHttp::Open WinHttpSetOption WINHTTP_OPTION_SECURE_PROTOCOLS dwFlags = 0x%08x", protocols);
        if (Api().SetOption(m_hSession.get(), WINHTTP_OPTION_SECURE_PROTOCOLS, &protocols, sizeof(protocols)))
            return;
        QV_WINHTTP_WARNING(L"CWinHttp::Open WinHttpSetOption WINHTTP_OPTION_SECURE_PROTOCOLS Error = %08x, ZEB_ERROR = %08x");
    }
}

void CWinHttp::Close() {
    WSCLOG(4, L"CWinHttp::Close IN");
    m_hRequest.reset();
    m_hConnect.reset();
    m_hSession.reset();
    WSCLOG(4, L"CWinHttp::Close OUT");
}

BOOL CWinHttp::GetPolicyInfo() {
    WSCLOG(4, L"CWinHttp::GetPolicyInfo IN");
    AddinLogScope scope(L"GetPolicyInfo");
    wchar_t path[kPathChars] = {};
    if (!GetFilePathOnMyDir(path, kPathChars, kPolicyIniName, kPolicyIniNameLength)) {
        scope.Write(AddinLog::kError, L"GetFilePathOnMyDir failed.\n");
        scope.Write(AddinLog::kEnd, L"return %d\n", 0);
        return FALSE;
    }
    wchar_t localized[kPathChars] = {};
    DWORD localizedChars = kPathChars;
    if (!GetLocalizeDllName(path, localized, &localizedChars)) {
        scope.Write(AddinLog::kError, L"LocalizeDllName failed.\n");
        return FALSE;
    }
    m_usKeepAlivePolicy =
        static_cast<USHORT>(GetPrivateProfileIntW(L"ServerSettings", L"WlsKeepAlive", 0, localized));
    WSCLOG(4, L"CWinHttp::GetPolicyInfo OUT");
    return TRUE;
}

DWORD CWinHttp::SendRequest(const std::wstring& action, const std::wstring& envelope,
                            std::wstring* responseContent, BYTE** responsByteData, DWORD* responsByteDataSize,
                            const std::wstring& mtomId) {
    WSCLOG(4, L"CWinHttp::SendRequest IN");
    if (!responseContent)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"CWinHttp::SendRequest &responseContent ZEB_ERROR = %08x");
    if (!responsByteData)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"CWinHttp::SendRequest &responsByteData ZEB_ERROR = %08x");
    if (!responsByteDataSize)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"CWinHttp::SendRequest &responsByteDataSize ZEB_ERROR = %08x");
    m_hRequest.reset();
    DWORD code = _SendRequest(action, envelope, responseContent, responsByteData, responsByteDataSize, mtomId);
    m_hRequest.reset();
    WSCLOG(4, L"CWinHttp::SendRequest OUT");
    return code;
}

// The two-step header query: size first (122 expected), then the text.
DWORD CWinHttp::QueryHeaderText(DWORD infoLevel, const wchar_t* queryFailure, const wchar_t* mallocFailure,
                                std::wstring* text) {
    text->clear();
    DWORD bytes = 0;
    if (!Api().QueryHeaders(m_hRequest.get(), infoLevel, WINHTTP_HEADER_NAME_BY_INDEX, WINHTTP_NO_OUTPUT_BUFFER,
                             &bytes, WINHTTP_NO_HEADER_INDEX)) {
        const DWORD error = GetLastError();
        if (error != ERROR_INSUFFICIENT_BUFFER) return QV_FAILURE(error, &MapWinHttpError, queryFailure);
    }
    qv::WideBuffer buffer;
    if (!buffer.allocate(bytes + sizeof(wchar_t))) {
        WSCLOG(1, mallocFailure, ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    if (!Api().QueryHeaders(m_hRequest.get(), infoLevel, WINHTTP_HEADER_NAME_BY_INDEX, buffer.get(), &bytes,
                             WINHTTP_NO_HEADER_INDEX))
        return QV_WINHTTP_FAILED(queryFailure);
    *text = buffer.get();
    return 0;
}

DWORD CWinHttp::_SendRequest(const std::wstring& action, const std::wstring& envelope,
                             std::wstring* responseContent, BYTE** responsByteData, DWORD* responsByteDataSize,
                             const std::wstring& mtomId) {
    WSCLOG(4, L"CWinHttp::_SendRequest IN");
    if (!responseContent)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"CWinHttp::_SendRequest &responseContent ZEB_ERROR = %08x");
    if (!responsByteData)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"CWinHttp::_SendRequest &responsByteData ZEB_ERROR = %08x");
    if (!responsByteDataSize)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"CWinHttp::_SendRequest &responsByteDataSize ZEB_ERROR = %08x");
    responseContent->clear();
    *responsByteData = nullptr;
    *responsByteDataSize = 0;

    DWORD code = OpenRequestHandle();
    if (ZEB_FAILED(code)) return code;
    code = SetServerTrust();
    if (ZEB_FAILED(code)) return code;
    code = SetRequestFeatures();
    if (ZEB_FAILED(code)) return code;
    code = AddContentTypeHeader(action, mtomId);
    if (ZEB_FAILED(code)) return code;
    code = SendEnvelope(envelope);
    if (ZEB_FAILED(code)) return code;
    code = CheckStatus();
    if (ZEB_FAILED(code)) return code;
    code = CheckContentType();
    if (ZEB_FAILED(code)) return code;
    // ReadBody hands nothing out unless it succeeds.
    code = ReadBody(!mtomId.empty(), responseContent, responsByteData, responsByteDataSize);
    if (ZEB_FAILED(code)) {
        WSCLOG(4, L"DataReceive ERROR");
        return code;
    }
    WSCLOG(4, L"CWinHttp::_SendRequest OUT");
    return 0;
}

// The steps of one exchange, in order; each logs its own failure.

DWORD CWinHttp::OpenRequestHandle() {
    DWORD openFlags = WINHTTP_FLAG_BYPASS_PROXY_CACHE;
    if (m_bSSLMode) openFlags |= WINHTTP_FLAG_SECURE;
    m_hRequest.reset(Api().OpenRequest(m_hConnect.get(), L"POST", m_wstrObjectPath.c_str(), nullptr,
                                        WINHTTP_NO_REFERER, WINHTTP_DEFAULT_ACCEPT_TYPES, openFlags));
    if (!m_hRequest)
        return QV_WINHTTP_FAILED(L"CWinHttp::_SendRequest WinHttpOpenRequest Error = %08x, ZEB_ERROR = %08x");
    return 0;
}

// Certificate leniency, on every request, plain or secure, unless the
// settings ask for strict server trust.
DWORD CWinHttp::SetServerTrust() {
    if (!m_dwStrictServerCertificate) return SetLenientSecurityFlags();
    // Strict: the security flags are left exactly as WinHTTP made them. A new
    // request handle carries none of the ignore bits, so every certificate
    // check (authority, name, date, usage) applies. Writing the value back
    // with the ignore bits cleared would change nothing when it works, and its
    // fallback (a fixed value) exists only to get the ignore bits in, so the
    // whole step is skipped.
    WSCLOG(5, L"CWinHttp::_SendRequest StrictServerCertificate: no certificate error is ignored");
    return 0;
}

DWORD CWinHttp::SetRequestFeatures() {
    // A missing policy file is looked for again on the next request.
    if (!m_bPolicyRead) m_bPolicyRead = GetPolicyInfo();
    DWORD feature = DisableFeatureValue();
    if (!Api().SetOption(m_hRequest.get(), WINHTTP_OPTION_DISABLE_FEATURE, &feature, sizeof(feature)))
        return QV_WINHTTP_FAILED(L"CWinHttp::_SendRequest WinHttpSetOption WINHTTP_OPTION_DISABLE_FEATURE Error = %08x, ZEB_ERROR = %08x");
    return 0;
}

DWORD CWinHttp::AddContentTypeHeader(const std::wstring& action, const std::wstring& mtomId) {
    const std::wstring header = ContentTypeHeader(action, mtomId);
    if (!Api().AddRequestHeaders(m_hRequest.get(), header.c_str(), static_cast<DWORD>(-1L),
                                  WINHTTP_ADDREQ_FLAG_ADD | WINHTTP_ADDREQ_FLAG_REPLACE))
        return QV_WINHTTP_FAILED(L"CWinHttp::_SendRequest WinHttpAddRequestHeaders Error = %08x, ZEB_ERROR = %08x");
    return 0;
}

// The envelope as UTF-8, without a terminating zero, through Request.
DWORD CWinHttp::SendEnvelope(const std::wstring& envelope) {
    DWORD bodyLength = 0;
    // The envelope of a login carries the password or an answer made from it.
    qv::SecretChars body;
    // The length is known only once the conversion has run: two statements,
    // so that the holder wipes every byte.
    char* converted = ConvertWideToMulti(envelope.c_str(), CP_UTF8, &bodyLength);
    body.reset(converted, static_cast<size_t>(bodyLength) + 1);
    if (!body) return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"CWinHttp::_SendRequest ConvertWideToMulti ZEB_ERROR = %08x");
    return Request(m_hRequest.get(), reinterpret_cast<const BYTE*>(body.get()), bodyLength);
}

// 0 when the answer is to be read, else the exchange's result.
DWORD CWinHttp::CheckStatus() {
    std::wstring statusText;
    DWORD code = QueryHeaderText(WINHTTP_QUERY_STATUS_CODE, kSendQueryHeadersFailure, kSendMallocFailure, &statusText);
    if (ZEB_FAILED(code)) return code;
    WSCLOG(4, L"StatusCode: %s\n", statusText.c_str());
    const DWORD status = static_cast<DWORD>(wcstoul(statusText.c_str(), nullptr, 10));
    // 2xx carries the answer; a SOAP fault rides on 400 and 500, and the
    // message layer reads it.
    if ((status >= 200 && status <= 299) || status == 400 || status == 500) return 0;
    if (status == 404)
        return QV_FAIL(ZEB_ERROR_WINHTTP_CONNECTED_FAILURE, L"CWinHttp::_SendRequest Connected failure ZEB_ERROR = %08x");
    if (status == 302) {
        code = InitRedirect();
        if (ZEB_FAILED(code)) return QV_FAIL(code, L"CWinHttp::_SendRequest InitRedirect ZEB_ERROR = %08x");
        WSCLOG(4, L"CWinHttp::_SendRequest Connection Redirect ZEB_ERROR = %08x", ZEB_ERROR_WINHTTP_REDIRECT);
        return ZEB_ERROR_WINHTTP_REDIRECT;
    }
    // Any other status: the last error as the status query left it.
    return QV_WINHTTP_FAILED(kSendQueryHeadersFailure);
}

DWORD CWinHttp::CheckContentType() {
    std::wstring contentType;
    const DWORD code =
        QueryHeaderText(WINHTTP_QUERY_CONTENT_TYPE, kSendQueryHeadersFailure, kSendMallocFailure, &contentType);
    if (ZEB_FAILED(code)) return code;
    WSCLOG(4, L"ContentType: %s", contentType.c_str());
    if (!IsAcceptedContentType(contentType))
        return QV_FAIL(ZEB_ERROR_WINHTTP_UNKNOWN_CONTENT_TYPE, L"CWinHttp::_SendRequest ContentType ERROR UNKNOWN ContentType ZEB_ERROR = %08x");
    return 0;
}


// The deliberate server trust of the default settings: self-signed,
// mismatched and expired server certificates are accepted.
DWORD CWinHttp::SetLenientSecurityFlags() {
    DWORD dwFlags = 0;
    DWORD flagsSize = sizeof(dwFlags);
    if (!Api().QueryOption(m_hRequest.get(), WINHTTP_OPTION_SECURITY_FLAGS, &dwFlags, &flagsSize))
        return QV_WINHTTP_FAILED(L"CWinHttp::_SendRequest WinHttpQueryOption WINHTTP_OPTION_SECURITY_FLAGS Error = %08x, ZEB_ERROR = %08x");
    dwFlags |= kIgnoreCertificateFlags;
    dwFlags &= kWritableSecurityFlagsMask;
    WSCLOG(5, L"CWinHttp::_SendRequest WinHttpSetOption WINHTTP_OPTION_SECURITY_FLAGS dwFlags = 0x%08x", dwFlags);
    if (!Api().SetOption(m_hRequest.get(), WINHTTP_OPTION_SECURITY_FLAGS, &dwFlags, sizeof(dwFlags))) {
        QV_WINHTTP_WARNING(L"CWinHttp::_SendRequest WinHttpSetOption WINHTTP_OPTION_SECURITY_FLAGS Error = %08x, ZEB_ERROR = %08x");
        dwFlags = kIgnoreCertificateFlags;
        WSCLOG(5, L"CWinHttp::_SendRequest WinHttpSetOption WINHTTP_OPTION_SECURITY_FLAGS dwFlags = 0x%08x", dwFlags);
        if (!Api().SetOption(m_hRequest.get(), WINHTTP_OPTION_SECURITY_FLAGS, &dwFlags, sizeof(dwFlags)))
            return QV_WINHTTP_FAILED(L"CWinHttp::_SendRequest WinHttpSetOption WINHTTP_OPTION_SECURITY_FLAGS Error = %08x, ZEB_ERROR = %08x");
    }
    return 0;
}

DWORD CWinHttp::ReadBody(bool mtom, std::wstring* responseContent, BYTE** responsByteData,
                         DWORD* responsByteDataSize) {
    // MTOM bytes travel in blocks of exactly what each read gave, in order;
    // the text is converted chunk by chunk.
    std::vector<qv::ByteBuffer> blocks;
    DWORD total = 0;
    std::wstring text;
    DWORD available = 0;
    do {
        available = 0;
        if (!Api().QueryDataAvailable(m_hRequest.get(), &available))
            return QV_WINHTTP_FAILED(L"CWinHttp::_SendRequest WinHttpQueryDataAvailable Error = %08x, ZEB_ERROR = %08x");
        qv::CharBuffer chunk;
        if (!chunk.allocate(static_cast<size_t>(available) + 1))
            return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"CWinHttp::_SendRequest MTOM or Data Get malloc ZEB_ERROR = %08x");
        if (available > 0) {
            DWORD read = 0;
            if (!Api().ReadData(m_hRequest.get(), chunk.get(), available, &read))
                return QV_WINHTTP_FAILED(L"CWinHttp::_SendRequest WinHttpReadData Error = %08x, ZEB_ERROR = %08x");
            if (mtom && read > 0) {
                qv::ByteBuffer block;
                if (!block.allocate(read) || !PushBlock(&blocks, &block))
                    return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"CWinHttp::_SendRequest MTOM malloc ZEB_ERROR = %08x");
                std::memcpy(blocks.back().get(), chunk.get(), read);
                total += read;
            }
        }
        if (chunk.get()[0] != '\0') {
            qv::WideBuffer wide(ConvertMultiToWide(chunk.get()), 0);
            if (!wide || !AppendText(&text, wide.get()))
                return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"CWinHttp::_SendRequest ConvertMultiToWide ZEB_ERROR = %08x");
        }
    } while (available > 0);

    if (mtom && total > 0) {
        qv::ByteBuffer whole;
        if (!whole.allocate(total))
            return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"CWinHttp::_SendRequest MTOM malloc ZEB_ERROR = %08x");
        size_t offset = 0;
        for (qv::ByteBuffer& block : blocks) {
            std::memcpy(whole.get() + offset, block.get(), block.bytes());
            offset += block.bytes();
            block.reset();
        }
        *responsByteDataSize = total;
        *responsByteData = whole.release();
    }
    responseContent->swap(text);
    return 0;
}

bool CWinHttp::PushBlock(std::vector<qv::ByteBuffer>* blocks, qv::ByteBuffer* block) {
    try {
        blocks->push_back(std::move(*block));
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

bool CWinHttp::AppendText(std::wstring* text, const wchar_t* piece) {
    try {
        text->append(piece);
    } catch (const std::bad_alloc&) {
        return false;
    } catch (const std::length_error&) {
        return false;
    }
    return true;
}

DWORD CWinHttp::DisableFeatureValue() const {
    // Redirects are never followed by WinHTTP itself; keep-alive only when
    // the policy asks for it.
    return m_usKeepAlivePolicy == 1 ? WINHTTP_DISABLE_REDIRECTS
                                    : (WINHTTP_DISABLE_REDIRECTS | WINHTTP_DISABLE_KEEP_ALIVE);
}

std::wstring CWinHttp::ContentTypeHeader(const std::wstring& action, const std::wstring& mtomId) {
    std::wstring header;
    if (mtomId.empty()) {
        header = L"Content-Type: application/soap+xml; charset=utf-8;";
        if (!action.empty()) header += L" action=" + action;
        return header;
    }
    // The lower-case "content-Type" and the unquoted boundary are what the
    // servers in the field have always been sent.
    header = L"content-Type: multipart/related; type=\"application/xop+xml\"; boundary=--MIMEBoundary";
    header += mtomId;
    header += L"; ";
    header += L"start=\"<0.";
    header += mtomId;
    header += L"@";
    header += ns::kMtomDomain;
    header += L">\"; ";
    header += L"start-info=\"application/soap+xml; charset=utf-8\"";
    return header;
}

bool CWinHttp::IsAcceptedContentType(const std::wstring& contentType) {
    if (contentType.find(L"text/xml") != std::wstring::npos) return true;
    if (contentType.find(L"application/soap+xml; charset=utf-8") != std::wstring::npos) return true;
    return contentType.find(L"multipart/related") != std::wstring::npos &&
           contentType.find(L"application/soap+xml") != std::wstring::npos;
}

DWORD CWinHttp::Request(HINTERNET hRequest, const BYTE* pBuffer, DWORD dwNumberOfBytesToWrite) {
    WSCLOG(4, L"CWinHttp::Request IN");
    if (!hRequest) return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"CWinHttp::Request hRequest ZEB_ERROR = %08x");
    if (!pBuffer) return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"CWinHttp::Request pBuffer ZEB_ERROR = %08x");
    if (dwNumberOfBytesToWrite == 0)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"CWinHttp::Request dwNumberOfBytesToWrite ZEB_ERROR = %08x");
    // Errors include 12029 (refused), 12002 (connect time-out), 12007 (name)
    // and, with strict server trust, 12175 (certificate refused).
    // Nothing is written after a failed send.
    if (!Api().SendRequest(hRequest, WINHTTP_NO_ADDITIONAL_HEADERS, 0, WINHTTP_NO_REQUEST_DATA, 0,
                            dwNumberOfBytesToWrite, 0)) {
        const DWORD error = GetLastError();
        const DWORD code = QV_FAILURE(error, &MapWinHttpError, L"CWinHttp::Request WinHttpSendRequest Error = %08x, ZEB_ERROR = %08x");
        // Tells the administrator why strict trust stopped the exchange; the
        // code stays the table's, the same in either trust mode.
        if (m_dwStrictServerCertificate && m_bSSLMode && IsSecureChannelRefusal(error))
            WSCLOG(1, L"CWinHttp::Request StrictServerCertificate: server certificate or secure channel refused Error = %08x, ZEB_ERROR = %08x",
                   error, code);
        return code;
    }
    DWORD sent = 0;
    while (sent < dwNumberOfBytesToWrite) {
        DWORD written = 0;
        if (!Api().WriteData(hRequest, pBuffer + sent, dwNumberOfBytesToWrite - sent, &written) || written == 0)
            return QV_WINHTTP_FAILED(L"CWinHttp::Request WinHttpWriteData Error = %08x, ZEB_ERROR = %08x");
        sent += written;
    }
    // Errors include 12002 and, under Wine, 10060 for a silent server.
    if (!Api().ReceiveResponse(hRequest, nullptr))
        return QV_WINHTTP_FAILED(L"CWinHttp::Request WinHttpReceiveResponse Error = %08x, ZEB_ERROR = %08x");
    WSCLOG(4, L"CWinHttp::Request OUT");
    return 0;
}

DWORD CWinHttp::InitRedirect() {
    WSCLOG(4, L"CWinHttp::InitRedirect IN");
    if (!m_hRequest) return QV_FAIL(ZEB_ERROR_INVALID_HANDLE, L"CWinHttp::InitRedirect ZEB_ERROR = %08x");
    std::wstring location;
    DWORD code = QueryHeaderText(WINHTTP_QUERY_LOCATION, L"CWinHttp::InitRedirect WinHttpQueryHeaders Error = %08x, ZEB_ERROR = %08x",
                                 L"CWinHttp::InitRedirect malloc ZEB_ERROR = %08x", &location);
    if (ZEB_FAILED(code)) return code;
    WSCLOG(5, L"Redirect Url: %s", location.c_str());

    URL_COMPONENTS parts = {};
    parts.dwStructSize = sizeof(parts);
    parts.dwSchemeLength = static_cast<DWORD>(-1L);
    parts.dwHostNameLength = static_cast<DWORD>(-1L);
    parts.dwUrlPathLength = static_cast<DWORD>(-1L);
    parts.dwExtraInfoLength = static_cast<DWORD>(-1L);
    if (!Api().CrackUrl(location.c_str(), static_cast<DWORD>(location.size()), 0, &parts))
        return QV_WINHTTP_FAILED(L"CWinHttp::InitRedirect WinHttpCrackUrl Error = %08x, ZEB_ERROR = %08x");

    // Only "https://" + this host + ":" + the secure port + this path is
    // followed; anything more (another port, a query) is refused.
    m_bSSLMode = FALSE;
    if (parts.nScheme == INTERNET_SCHEME_HTTPS && parts.lpszHostName) {
        std::wstring expected = m_wstrHostName + L":" + std::to_wstring(m_usSecurePort) + m_wstrObjectPath;
        if (_wcsicmp(expected.c_str(), parts.lpszHostName) == 0) m_bSSLMode = TRUE;
    }
    if (!m_bSSLMode)
        return QV_FAIL(ZEB_ERROR_WINHTTP_DIFFERENT_REDIRECT_URL, L"CWinHttp::InitRedirect Different Redirect URL = %08x");
    WSCLOG(4, L"CWinHttp::InitRedirect OUT");
    return 0;
}
