// A loopback HTTP/1.1 listener inside the benchmark process that answers every
// request with a fixed answer chosen by path and body, in one write, with
// TCP_NODELAY: it costs next to nothing, so the figures show the client's cost.
// It also keeps the last request of each kind, so the raw-WinHTTP floor can
// send byte-identical envelopes.
#pragma once

#include <winsock2.h>
#include <windows.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct CannedAnswer {
    std::string path;          // request path it answers
    std::string bodyContains;  // "" matches any body on that path
    std::string answer;        // SOAP text sent with 200 and application/soap+xml
};

struct CapturedRequest {
    std::string path;
    std::string contentType;
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
    // CPU time (100 ns units) spent by the responder's threads so far.
    ULONGLONG CpuTime();
    unsigned long long Requests() const { return m_requests.load(); }

private:
    void AcceptLoop();
    void Serve(SOCKET client);
    const CannedAnswer* Match(const std::string& path, const std::string& body) const;

    std::vector<CannedAnswer> m_answers;
    std::vector<std::string> m_replies;  // full HTTP replies, prebuilt
    std::vector<std::string> m_markers;
    SOCKET m_listener = INVALID_SOCKET;
    int m_port = 0;
    std::thread m_acceptThread;
    std::mutex m_lock;
    std::vector<HANDLE> m_threads;  // live responder threads, for CPU accounting
    std::atomic<int> m_liveWorkers{0};
    std::map<std::string, CapturedRequest> m_captured;
    std::atomic<bool> m_stopping{false};
    std::atomic<unsigned long long> m_requests{0};
    ULONGLONG m_finishedCpu = 0;
};
