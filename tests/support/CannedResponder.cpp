#include "support/CannedResponder.h"

#include <ws2tcpip.h>

#include <cstdlib>
#include <cstring>

namespace {

ULONGLONG ThreadCpu(HANDLE thread) {
    FILETIME created, exited, kernel, user;
    if (!thread || !GetThreadTimes(thread, &created, &exited, &kernel, &user)) return 0;
    auto toU64 = [](const FILETIME& t) { return (static_cast<ULONGLONG>(t.dwHighDateTime) << 32) | t.dwLowDateTime; };
    return toU64(kernel) + toU64(user);
}

const std::string kNotFound = "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n";

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
    m_started = true;
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
    m_thread = CreateThread(nullptr, 0, LoopThread, this, 0, nullptr);
    return m_thread != nullptr;
}

void CannedResponder::Stop() {
    if (m_stopping.exchange(true)) return;
    if (m_thread) {
        WaitForSingleObject(m_thread, INFINITE);
        CloseHandle(m_thread);
        m_thread = nullptr;
    }
    if (m_listener != INVALID_SOCKET) closesocket(m_listener);
    m_listener = INVALID_SOCKET;
    if (m_started) WSACleanup();
}

DWORD WINAPI CannedResponder::LoopThread(void* self) {
    static_cast<CannedResponder*>(self)->Loop();
    return 0;
}

void CannedResponder::Loop() {
    std::vector<Connection> connections;
    std::vector<WSAPOLLFD> polls;
    char chunk[16384];
    while (!m_stopping.load()) {
        polls.clear();
        polls.push_back(WSAPOLLFD{m_listener, POLLRDNORM, 0});
        for (const Connection& c : connections) polls.push_back(WSAPOLLFD{c.socket, POLLRDNORM, 0});
        int ready = WSAPoll(polls.data(), static_cast<ULONG>(polls.size()), 100);
        if (ready <= 0) continue;
        // Connections first (their indexes match polls[1..]), then new ones.
        std::vector<Connection> kept;
        kept.reserve(connections.size() + 1);
        for (size_t i = 0; i < connections.size(); ++i) {
            Connection& c = connections[i];
            bool open = true;
            if (polls[i + 1].revents & (POLLRDNORM | POLLHUP | POLLERR)) {
                int n = recv(c.socket, chunk, sizeof(chunk), 0);
                if (n <= 0) {
                    open = false;
                } else {
                    c.buffer.append(chunk, static_cast<size_t>(n));
                    open = ServeBuffered(c);
                }
            }
            if (open)
                kept.push_back(std::move(c));
            else
                closesocket(c.socket);
        }
        connections.swap(kept);
        if (polls[0].revents & POLLRDNORM) {
            SOCKET client = accept(m_listener, nullptr, nullptr);
            if (client != INVALID_SOCKET) {
                BOOL noDelay = TRUE;
                setsockopt(client, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&noDelay),
                           sizeof(noDelay));
                connections.push_back(Connection{client, std::string()});
            }
        }
    }
    for (Connection& c : connections) closesocket(c.socket);
}

const CannedAnswer* CannedResponder::Match(const std::string& path, const std::string& body) const {
    for (const CannedAnswer& a : m_answers)
        if (a.path == path && (a.bodyContains.empty() || body.find(a.bodyContains) != std::string::npos)) return &a;
    return nullptr;
}

bool CannedResponder::ServeBuffered(Connection& connection) {
    std::string& buffer = connection.buffer;
    for (;;) {
        size_t headerEnd = buffer.find("\r\n\r\n");
        if (headerEnd == std::string::npos) return true;
        std::string head = buffer.substr(0, headerEnd);
        size_t firstSpace = head.find(' ');
        size_t secondSpace = head.find(' ', firstSpace + 1);
        if (firstSpace == std::string::npos || secondSpace == std::string::npos) return false;
        std::string path = head.substr(firstSpace + 1, secondSpace - firstSpace - 1);
        size_t bodyLength = 0;
        std::string contentType;
        size_t lineStart = head.find("\r\n");
        while (lineStart != std::string::npos && lineStart < head.size()) {
            size_t lineEnd = head.find("\r\n", lineStart + 2);
            std::string line =
                head.substr(lineStart + 2, (lineEnd == std::string::npos ? head.size() : lineEnd) - lineStart - 2);
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
        if (buffer.size() < total) return true;  // the rest of the body is still on its way
        std::string body = buffer.substr(headerEnd + 4, bodyLength);
        buffer.erase(0, total);
        m_requests++;
        const CannedAnswer* answer = Match(path, body);
        for (const std::string& marker : m_markers)
            if (body.find(marker) != std::string::npos) {
                std::lock_guard<std::mutex> guard(m_lock);
                m_captured[marker] = CapturedRequest{path, contentType, head, body};
            }
        const std::string& reply = answer ? m_replies[static_cast<size_t>(answer - m_answers.data())] : kNotFound;
        size_t sent = 0;
        while (sent < reply.size()) {
            int n = send(connection.socket, reply.data() + sent, static_cast<int>(reply.size() - sent), 0);
            if (n <= 0) return false;
            sent += static_cast<size_t>(n);
        }
    }
}

CapturedRequest CannedResponder::Captured(const std::string& marker) {
    std::lock_guard<std::mutex> guard(m_lock);
    auto it = m_captured.find(marker);
    return it == m_captured.end() ? CapturedRequest{} : it->second;
}

ULONGLONG CannedResponder::CpuTime() const { return ThreadCpu(m_thread); }
