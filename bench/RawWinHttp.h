// The floor: a raw WinHTTP POST of given bytes with the same session, time-out,
// security and disable-feature options and the same headers as the add-in's
// channel, so that whatever the add-in spends beyond it is its own.
#pragma once

#include <windows.h>
#include <winhttp.h>

#include <string>

class RawWinHttp {
public:
    RawWinHttp(const std::wstring& host, INTERNET_PORT port, bool secure, bool keepAlive, DWORD timeoutMs);
    ~RawWinHttp();
    bool Ok() const { return m_connect != nullptr; }
    // One exchange: POST `body` to `path` with the Content-Type header line the
    // add-in sent; reads the whole answer. False on any failure.
    bool Post(const std::wstring& path, const std::string& contentType, const std::string& body);

private:
    HINTERNET m_session = nullptr;
    HINTERNET m_connect = nullptr;
    bool m_secure;
    bool m_keepAlive;
};
