#include "CannedResponder.h"

#include <ws2tcpip.h>

#include <cstdlib>
#include <cstring>

namespace {

ULONGLONG ThreadCpu(HANDLE thread) {
    FILETIME created, exited, kernel, user;
    if (!GetThreadTimes(thread, &created, &exited, &kernel, &user)) return 0;
    auto toU64 = [](const FILETIME& t) { return (static_cast<ULONGLONG>(t.dwHighDateTime) << 32) | t.dwLowDateTime; };
    return toU64(kernel) + toU64(user);
}

HANDLE CurrentThreadHandle() {
    HANDLE handle = nullptr;
    DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), &handle, 0, FALSE,
                    DUPLICATE_SAME_ACCESS);
    return handle;
}

}  // namespace

CannedResponder::CannedResponder(std::vector<CannedAnswer> answers) : m_answers(std::move(answers)) {
    for (const CannedAnswer& a : m_answers) {
        m_replies.push_back("HTTP/1.1 200 OK\r\nContent-Type: application/soap+xml; charset=utf-8\r\nContent-Length: " +
                            std::to_string(a.answer.size()) + "\r\n\r\n" + a.answer);
    }
}

CannedResponder::~CannedResponder() { Stop(); }

bool CannedResponder::Start() {
    WSADATA wsa;
    if (WSAStartup(MAKEWORD(2, 2), &wsa) != 0) return false;
    m_listener = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (m_listener == INVALID_SOCKET) return false;
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    if (bind(m_listener, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) return false;
    if (listen(m_listener, SOMAXCONN) != 0) return false;
    int length = sizeof(addr);
    getsockname(m_listener, reinterpret_cast<sockaddr*>(&addr), &length);
    m_port = ntohs(addr.sin_port);
    m_acceptThread = std::thread([this] { AcceptLoop(); });
    return true;
}

void CannedResponder::Stop() {
    if (m_stopping.exchange(true)) return;
    if (m_listener != INVALID_SOCKET) closesocket(m_listener);
    if (m_acceptThread.joinable()) m_acceptThread.join();
    // Connections end when their clients close them; wait for the last one.
    for (int i = 0; i < 500 && m_liveWorkers.load() > 0; ++i) Sleep(10);
    for (HANDLE h : m_threads) CloseHandle(h);
    m_threads.clear();
    WSACleanup();
}

void CannedResponder::AcceptLoop() {
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_threads.push_back(CurrentThreadHandle());
    }
    for (;;) {
        SOCKET client = accept(m_listener, nullptr, nullptr);
        if (client == INVALID_SOCKET) return;
        BOOL noDelay = TRUE;
        setsockopt(client, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&noDelay), sizeof(noDelay));
        // Detached: a joinable thread object would keep its handle open and
        // the benchmark counts the process's handles.
        m_liveWorkers++;
        std::thread([this, client] { Serve(client); }).detach();
    }
}

const CannedAnswer* CannedResponder::Match(const std::string& path, const std::string& body) const {
    for (const CannedAnswer& a : m_answers)
        if (a.path == path && (a.bodyContains.empty() || body.find(a.bodyContains) != std::string::npos)) return &a;
    return nullptr;
}

void CannedResponder::Serve(SOCKET client) {
    HANDLE self = CurrentThreadHandle();
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_threads.push_back(self);
    }
    std::string buffer;
    char chunk[16384];
    for (;;) {
        size_t headerEnd;
        while ((headerEnd = buffer.find("\r\n\r\n")) == std::string::npos) {
            int n = recv(client, chunk, sizeof(chunk), 0);
            if (n <= 0) goto done;
            buffer.append(chunk, static_cast<size_t>(n));
        }
        {
            std::string head = buffer.substr(0, headerEnd);
            size_t firstSpace = head.find(' ');
            size_t secondSpace = head.find(' ', firstSpace + 1);
            std::string path = head.substr(firstSpace + 1, secondSpace - firstSpace - 1);
            size_t bodyLength = 0;
            std::string contentType;
            size_t lineStart = head.find("\r\n");
            while (lineStart != std::string::npos && lineStart < head.size()) {
                size_t lineEnd = head.find("\r\n", lineStart + 2);
                std::string line = head.substr(lineStart + 2, (lineEnd == std::string::npos ? head.size() : lineEnd) -
                                                                   lineStart - 2);
                size_t colon = line.find(':');
                if (colon != std::string::npos) {
                    std::string name = line.substr(0, colon);
                    std::string value = line.substr(colon + 1);
                    while (!value.empty() && value[0] == ' ') value.erase(0, 1);
                    if (_stricmp(name.c_str(), "Content-Length") == 0) bodyLength = std::strtoul(value.c_str(), nullptr, 10);
                    if (_stricmp(name.c_str(), "Content-Type") == 0) contentType = value;
                }
                lineStart = lineEnd;
            }
            size_t total = headerEnd + 4 + bodyLength;
            while (buffer.size() < total) {
                int n = recv(client, chunk, sizeof(chunk), 0);
                if (n <= 0) goto done;
                buffer.append(chunk, static_cast<size_t>(n));
            }
            std::string body = buffer.substr(headerEnd + 4, bodyLength);
            buffer.erase(0, total);
            m_requests++;
            const CannedAnswer* answer = Match(path, body);
            {
                std::lock_guard<std::mutex> guard(m_lock);
                for (const std::string& marker : m_markers)
                    if (body.find(marker) != std::string::npos) m_captured[marker] = CapturedRequest{path, contentType, body};
            }
            static const std::string kNotFound = "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n";
            const std::string& reply = answer ? m_replies[static_cast<size_t>(answer - m_answers.data())] : kNotFound;
            if (send(client, reply.data(), static_cast<int>(reply.size()), 0) <= 0) goto done;
        }
    }
done:
    closesocket(client);
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_finishedCpu += ThreadCpu(self);
        for (size_t i = 0; i < m_threads.size(); ++i)
            if (m_threads[i] == self) {
                m_threads.erase(m_threads.begin() + static_cast<long>(i));
                break;
            }
        CloseHandle(self);
    }
    m_liveWorkers--;
}

CapturedRequest CannedResponder::Captured(const std::string& marker) {
    std::lock_guard<std::mutex> guard(m_lock);
    auto it = m_captured.find(marker);
    return it == m_captured.end() ? CapturedRequest{} : it->second;
}

ULONGLONG CannedResponder::CpuTime() {
    std::lock_guard<std::mutex> guard(m_lock);
    ULONGLONG total = m_finishedCpu;
    for (HANDLE h : m_threads) total += ThreadCpu(h);
    return total;
}
