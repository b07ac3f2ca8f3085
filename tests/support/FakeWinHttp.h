// A scripted WinHTTP for the channel, the transport and the interface table,
// playing what Windows documents where Wine, on which the tests run, does
// otherwise:
// - a successful call leaves the thread's last error as it found it (Wine's
//   WinHTTP clears it), so a code read after a success is whatever came
//   before, such as the 122 of a header size probe;
// - WinHttpConnect refuses a server name it cannot take as it stands (an
//   unbracketed IPv6 literal, a name with blanks) with 12005 (Wine's takes
//   any name and fails only the first request);
// - the platform's own codes, scripted per exchange: 12002 for a time-out
//   (Wine: 10060), 12030 for a reset (Wine: 10054), 12175 for a refused
//   certificate (Wine: 12157), 12029 for a refused connection;
// - a server certificate's problems are refused at WinHttpSendRequest with
//   12175 unless the request's security flags ignore each of them; a wrong
//   usage or a weak signature is ignored by no flag the add-in sets;
// - WINHTTP_OPTION_SECURE_PROTOCOLS refuses bits the Windows version does
//   not know with 87 (the TLS 1.3 bit before Windows 11; TLS 1.1 and 1.2 on
//   Windows 7 without its update).
// One fake at a time; it is installed for its lifetime. Create it before the
// channel that uses it and destroy it after.
#pragma once

#include <windows.h>
#include <winhttp.h>

#include <deque>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "transport/WinHttpApi.h"

namespace qvtest {

class FakeWinHttp {
public:
    // Certificate problems of a scripted server, as the security flag that
    // would ignore each; kWeakSignature has no such flag.
    static constexpr DWORD kUnknownCa = SECURITY_FLAG_IGNORE_UNKNOWN_CA;
    static constexpr DWORD kWrongUsage = SECURITY_FLAG_IGNORE_CERT_WRONG_USAGE;
    static constexpr DWORD kNameMismatch = SECURITY_FLAG_IGNORE_CERT_CN_INVALID;
    static constexpr DWORD kExpired = SECURITY_FLAG_IGNORE_CERT_DATE_INVALID;
    static constexpr DWORD kWeakSignature = 0x80000000u;

    // The TLS bits of WINHTTP_OPTION_SECURE_PROTOCOLS each Windows takes.
    static constexpr DWORD kWindows7Protocols = WINHTTP_FLAG_SECURE_PROTOCOL_SSL2 |
                                                WINHTTP_FLAG_SECURE_PROTOCOL_SSL3 | WINHTTP_FLAG_SECURE_PROTOCOL_TLS1;
    static constexpr DWORD kWindows10Protocols =
        kWindows7Protocols | WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_1 | WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_2;
    static constexpr DWORD kWindows11Protocols = kWindows10Protocols | 0x00002000;  // TLS 1.3

    // What the network and the server do with one request.
    struct Answer {
        DWORD sendError = 0;     // WinHttpSendRequest fails with it
        DWORD receiveError = 0;  // WinHttpReceiveResponse fails with it
        DWORD bodyError = 0;     // WinHttpQueryDataAvailable fails with it after the chunks
        DWORD certificateProblems = 0;  // k* above; secure requests only
        DWORD status = 200;
        std::wstring contentType = L"application/soap+xml; charset=utf-8";
        std::wstring location;            // a Location header when not empty
        std::vector<std::string> chunks;  // the body, one read each
    };
    static Answer Body(const std::string& body, DWORD status = 200);
    static Answer Status(DWORD status);
    static Answer Redirect(const std::wstring& location);
    static Answer SendFails(DWORD error);
    static Answer ReceiveFails(DWORD error);

    // What one request carried.
    struct Request {
        std::wstring host;
        INTERNET_PORT port = 0;
        std::wstring path;
        DWORD openFlags = 0;
        DWORD securityFlags = 0;
        DWORD disableFeature = 0;
        std::wstring headers;
        std::string body;
    };

    FakeWinHttp();
    ~FakeWinHttp();
    FakeWinHttp(const FakeWinHttp&) = delete;
    FakeWinHttp& operator=(const FakeWinHttp&) = delete;

    // Answers in order; once they are used up, every request gets the one
    // given to Repeat, or, without one, a refused connection and a test failure.
    void Queue(Answer answer);
    void Repeat(Answer answer);

    // The platform: the TLS bits it takes, and an error for the optional
    // response time-out (0: taken).
    void SetSupportedProtocols(DWORD protocols) { m_supportedProtocols = protocols; }
    void RefuseReceiveResponseTimeout(DWORD error) { m_receiveResponseTimeoutError = error; }

    // What the add-in did.
    std::vector<std::wstring> Connects() const;           // "name:port", refused ones too
    std::vector<std::pair<DWORD, DWORD>> SessionOptions() const;  // option, value, accepted ones
    std::vector<DWORD> RefusedSessionOptions() const;
    std::vector<Request> Requests() const;                 // sent ones
    size_t SendAttempts() const;
    size_t OpenHandles() const;

private:
    struct Handle;
    static FakeWinHttp* s_installed;
    static const WinHttpApi kTable;

    Handle* NewHandle(int kind, Handle* parent);
    bool Known(HINTERNET h, int kind, Handle** out);
    Answer NextAnswer();

    static HINTERNET WINAPI Open(LPCWSTR, DWORD, LPCWSTR, LPCWSTR, DWORD);
    static BOOL WINAPI SetOption(HINTERNET, DWORD, LPVOID, DWORD);
    static BOOL WINAPI QueryOption(HINTERNET, DWORD, LPVOID, LPDWORD);
    static HINTERNET WINAPI Connect(HINTERNET, LPCWSTR, INTERNET_PORT, DWORD);
    static HINTERNET WINAPI OpenRequest(HINTERNET, LPCWSTR, LPCWSTR, LPCWSTR, LPCWSTR, LPCWSTR*, DWORD);
    static BOOL WINAPI AddRequestHeaders(HINTERNET, LPCWSTR, DWORD, DWORD);
    static BOOL WINAPI SendRequest(HINTERNET, LPCWSTR, DWORD, LPVOID, DWORD, DWORD, DWORD_PTR);
    static BOOL WINAPI WriteData(HINTERNET, LPCVOID, DWORD, LPDWORD);
    static BOOL WINAPI ReceiveResponse(HINTERNET, LPVOID);
    static BOOL WINAPI QueryHeaders(HINTERNET, DWORD, LPCWSTR, LPVOID, LPDWORD, LPDWORD);
    static BOOL WINAPI QueryDataAvailable(HINTERNET, LPDWORD);
    static BOOL WINAPI ReadData(HINTERNET, LPVOID, DWORD, LPDWORD);
    static BOOL WINAPI CrackUrl(LPCWSTR, DWORD, DWORD, LPURL_COMPONENTS);
    static BOOL WINAPI CloseHandle(HINTERNET);

    mutable std::recursive_mutex m_lock;
    std::deque<Answer> m_queue;
    bool m_hasRepeat = false;
    Answer m_repeat;
    DWORD m_supportedProtocols = kWindows10Protocols;
    DWORD m_receiveResponseTimeoutError = 0;
    std::vector<std::wstring> m_connects;
    std::vector<std::pair<DWORD, DWORD>> m_sessionOptions;
    std::vector<DWORD> m_refusedSessionOptions;
    std::vector<Request> m_requests;
    size_t m_sendAttempts = 0;
    std::set<Handle*> m_handles;
};

}  // namespace qvtest
