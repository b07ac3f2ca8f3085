#include "NativeResponder.h"

#include <ws2tcpip.h>

#include <cstdlib>
#include <cstring>

namespace {

// Record fields: "<decimal length>\n" and that many bytes.
void AppendField(std::string& out, const std::string& field) {
    out += std::to_string(field.size());
    out += '\n';
    out += field;
}

bool NextField(const std::string& in, size_t& at, std::string& field) {
    size_t newline = in.find('\n', at);
    if (newline == std::string::npos) return false;
    size_t length = std::strtoul(in.c_str() + at, nullptr, 10);
    if (length > in.size() - newline - 1) return false;
    field = in.substr(newline + 1, length);
    at = newline + 1 + length;
    return true;
}

bool SendAll(SOCKET s, const std::string& data) {
    size_t sent = 0;
    while (sent < data.size()) {
        int n = send(s, data.data() + sent, static_cast<int>(data.size() - sent), 0);
        if (n <= 0) return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

NativeResponder::NativeResponder(int port) : m_port(port) {
    WSADATA wsa;
    m_started = WSAStartup(MAKEWORD(2, 2), &wsa) == 0;
}

NativeResponder::~NativeResponder() {
    if (m_started) WSACleanup();
}

bool NativeResponder::Control(const char* name, const std::string& body, std::string& answer) {
    SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (s == INVALID_SOCKET) return false;
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<u_short>(m_port));
    bool ok = connect(s, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0 &&
              SendAll(s, std::string("POST /.qvbench/") + name + " HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: " +
                             std::to_string(body.size()) + "\r\n\r\n" + body);
    std::string reply;
    size_t headerEnd = std::string::npos, total = 0;
    char chunk[16384];
    while (ok) {
        int n = recv(s, chunk, sizeof(chunk), 0);
        if (n <= 0) {
            ok = false;
            break;
        }
        reply.append(chunk, static_cast<size_t>(n));
        if (headerEnd == std::string::npos) {
            headerEnd = reply.find("\r\n\r\n");
            if (headerEnd == std::string::npos) continue;
            size_t length = reply.find("Content-Length: ");
            if (length == std::string::npos || length > headerEnd) {
                ok = false;
                break;
            }
            total = headerEnd + 4 + std::strtoul(reply.c_str() + length + 16, nullptr, 10);
        }
        if (reply.size() >= total) break;
    }
    closesocket(s);
    if (!ok || reply.compare(0, 15, "HTTP/1.1 200 OK") != 0) return false;
    answer = reply.substr(headerEnd + 4, total - headerEnd - 4);
    return true;
}

bool NativeResponder::Load(const std::vector<CannedAnswer>& answers, const std::vector<std::string>& markers) {
    if (!m_started) return false;
    std::string records, ignored;
    for (const CannedAnswer& a : answers) {
        AppendField(records, a.path);
        AppendField(records, a.bodyContains);
        AppendField(records, a.answer);
    }
    std::string markerRecords;
    for (const std::string& marker : markers) AppendField(markerRecords, marker);
    return Control("answers", records, ignored) && Control("markers", markerRecords, ignored);
}

CapturedRequest NativeResponder::Captured(const std::string& marker) {
    std::string answer;
    CapturedRequest request;
    size_t at = 0;
    if (Control("captured", marker, answer) && NextField(answer, at, request.path) &&
        NextField(answer, at, request.contentType) && NextField(answer, at, request.head) &&
        NextField(answer, at, request.body))
        return request;
    return CapturedRequest{};
}
