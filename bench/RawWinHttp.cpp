#include "RawWinHttp.h"

#include <vector>

RawWinHttp::RawWinHttp(const std::wstring& host, INTERNET_PORT port, bool secure, bool keepAlive, DWORD timeoutMs)
    : m_secure(secure), m_keepAlive(keepAlive) {
    m_session = WinHttpOpen(L"ZEBWSCLINET", WINHTTP_ACCESS_TYPE_NO_PROXY, WINHTTP_NO_PROXY_NAME,
                            WINHTTP_NO_PROXY_BYPASS, 0);
    if (!m_session) return;
    for (DWORD option : {WINHTTP_OPTION_CONNECT_TIMEOUT, WINHTTP_OPTION_SEND_TIMEOUT, WINHTTP_OPTION_RECEIVE_TIMEOUT,
                         WINHTTP_OPTION_RECEIVE_RESPONSE_TIMEOUT})
        WinHttpSetOption(m_session, option, &timeoutMs, sizeof(timeoutMs));
    m_connect = WinHttpConnect(m_session, host.c_str(), port, 0);
}

RawWinHttp::~RawWinHttp() {
    if (m_connect) WinHttpCloseHandle(m_connect);
    if (m_session) WinHttpCloseHandle(m_session);
}

bool RawWinHttp::Post(const std::wstring& path, const std::string& contentType, const std::string& body) {
    DWORD flags = WINHTTP_FLAG_BYPASS_PROXY_CACHE | (m_secure ? WINHTTP_FLAG_SECURE : 0);
    HINTERNET request = WinHttpOpenRequest(m_connect, L"POST", path.c_str(), nullptr, WINHTTP_NO_REFERER,
                                           WINHTTP_DEFAULT_ACCEPT_TYPES, flags);
    if (!request) return false;
    bool ok = false;
    do {
        DWORD security = 0, size = sizeof(security);
        WinHttpQueryOption(request, WINHTTP_OPTION_SECURITY_FLAGS, &security, &size);
        security = (security | 0x00003100) & 0x8FFFFFFE;
        if (!WinHttpSetOption(request, WINHTTP_OPTION_SECURITY_FLAGS, &security, sizeof(security))) break;
        DWORD disable = m_keepAlive ? WINHTTP_DISABLE_REDIRECTS : (WINHTTP_DISABLE_REDIRECTS | WINHTTP_DISABLE_KEEP_ALIVE);
        if (!WinHttpSetOption(request, WINHTTP_OPTION_DISABLE_FEATURE, &disable, sizeof(disable))) break;
        std::wstring header = L"Content-Type: " + std::wstring(contentType.begin(), contentType.end());
        if (!WinHttpAddRequestHeaders(request, header.c_str(), static_cast<DWORD>(-1),
                                      WINHTTP_ADDREQ_FLAG_ADD | WINHTTP_ADDREQ_FLAG_REPLACE))
            break;
        if (!WinHttpSendRequest(request, WINHTTP_NO_ADDITIONAL_HEADERS, 0, WINHTTP_NO_REQUEST_DATA, 0,
                                static_cast<DWORD>(body.size()), 0))
            break;
        DWORD written = 0, offset = 0;
        bool writeOk = true;
        while (offset < body.size()) {
            if (!WinHttpWriteData(request, body.data() + offset, static_cast<DWORD>(body.size() - offset), &written)) {
                writeOk = false;
                break;
            }
            offset += written;
        }
        if (!writeOk || !WinHttpReceiveResponse(request, nullptr)) break;
        DWORD status = 0;
        size = sizeof(status);
        WinHttpQueryHeaders(request, WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER, WINHTTP_HEADER_NAME_BY_INDEX,
                            &status, &size, WINHTTP_NO_HEADER_INDEX);
        wchar_t type[256];
        size = sizeof(type);
        WinHttpQueryHeaders(request, WINHTTP_QUERY_CONTENT_TYPE, WINHTTP_HEADER_NAME_BY_INDEX, type, &size,
                            WINHTTP_NO_HEADER_INDEX);
        std::vector<char> chunk;
        DWORD available = 0;
        do {
            if (!WinHttpQueryDataAvailable(request, &available)) break;
            if (available == 0) break;
            chunk.resize(available);
            DWORD read = 0;
            if (!WinHttpReadData(request, chunk.data(), available, &read)) break;
        } while (available > 0);
        ok = status >= 200 && status < 300;
    } while (false);
    WinHttpCloseHandle(request);
    return ok;
}
