// A loopback HTTP/1.1 listener inside the test or benchmark process that answers every
// request with a fixed answer chosen by path and body, in one write, with
// TCP_NODELAY: it costs next to nothing, so the figures show the client's cost.
// One thread serves every connection (a poll loop), so its CPU time is one
// long-lived thread's and can be taken out of the process's own accounting.
// It also keeps the last request of each kind, so the raw-WinHTTP floor can
// send byte-identical envelopes and the benchmark can check that it did.
#pragma once

#include <winsock2.h>
#include <windows.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <vector>

struct CannedAnswer {
    std::string path;          // request path it answers
    std::string bodyContains;  // "" matches any body on that path
    std::string answer;        // SOAP text sent with 200 and application/soap+xml
};

struct CapturedRequest {
    std::string path;
    std::string contentType;
    std::string head;  // request line and header lines, as received
    std::string body;
};

class CannedResponder {
public:
    explicit CannedResponder(std::vector<CannedAnswer> answers);
    ~CannedResponder();

    // Requests whose body contains one of these are kept (see Captured).
    void SetCaptureMarkers(std::vector<std::string> markers) { m_markers = std::move(markers); }
    bool Start();  // listens on 127.0.0.1, a free port
    void Stop();
    int Port() const { return m_port; }
    // The last request whose body contained `marker`.
    CapturedRequest Captured(const std::string& marker);
    // CPU time (100 ns units) spent by the responder's thread so far.
    ULONGLONG CpuTime() const;
    unsigned long long Requests() const { return m_requests.load(); }

private:
    struct Connection {
        SOCKET socket;
        std::string buffer;
    };
    static DWORD WINAPI LoopThread(void* self);
    void Loop();
    // Answers every complete request in the buffer; false when the
    // connection is to be closed.
    bool ServeBuffered(Connection& connection);
    const CannedAnswer* Match(const std::string& path, const std::string& body) const;

    std::vector<CannedAnswer> m_answers;
    std::vector<std::string> m_replies;  // full HTTP replies, prebuilt
    std::vector<std::string> m_markers;
    SOCKET m_listener = INVALID_SOCKET;
    int m_port = 0;
    HANDLE m_thread = nullptr;
    std::mutex m_lock;  // guards m_captured
    std::map<std::string, CapturedRequest> m_captured;
    std::atomic<bool> m_stopping{false};
    std::atomic<unsigned long long> m_requests{0};
    bool m_started = false;
};
