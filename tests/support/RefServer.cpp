#include "support/RefServer.h"

#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include <cstdlib>
#include <string>

#include "support/Json.h"

namespace qvtest {

namespace {

// The control port written by scripts/refserver-ctl to <build>/refserver.port;
// QV_BUILD_DIR is a Unix path, reached through Wine's Z: drive.
int ControlPort() {
    const char* build = std::getenv("QV_BUILD_DIR");
    if (!build || !*build) return 0;
    std::string path = std::string("Z:") + build + "/refserver.port";
    for (char& c : path)
        if (c == '/') c = '\\';
    HANDLE file = CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                              nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return 0;
    char text[32] = {};
    DWORD read = 0;
    ReadFile(file, text, sizeof(text) - 1, &read, nullptr);
    CloseHandle(file);
    return std::atoi(text);
}

bool WinsockReady() {
    static bool ready = [] {
        WSADATA data;
        return WSAStartup(MAKEWORD(2, 2), &data) == 0;
    }();
    return ready;
}


JsonValue ControlJson(const std::string& method, const std::string& path, const std::string& body,
                      int* status = nullptr) {
    JsonValue value;
    int code = 0;
    std::string text = ControlCall(method, path, body, &code);
    if (status) *status = code;
    if (code != 200 || !ParseJson(text, &value)) return JsonValue();
    return value;
}

}  // namespace

std::string Base64Decode(const std::string& in) {
    // A table rather than a search per character: request bodies of several
    // megabytes come through here.
    static const struct Table {
        signed char value[256];
        Table() {
            const char* alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
            for (int i = 0; i < 256; ++i) value[i] = -1;
            for (int i = 0; i < 64; ++i) value[static_cast<unsigned char>(alphabet[i])] = static_cast<signed char>(i);
        }
    } kTable;
    std::string out;
    out.reserve(in.size() / 4 * 3);
    unsigned long acc = 0;
    int bits = 0;
    for (char c : in) {
        int v = kTable.value[static_cast<unsigned char>(c)];
        if (v < 0) continue;  // '=' and blanks
        acc = (acc << 6) | static_cast<unsigned long>(v);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out.push_back(static_cast<char>((acc >> bits) & 0xFF));
        }
    }
    return out;
}

std::string RecordedRequest::Header(const std::string& name) const {
    for (const auto& header : headers)
        if (_stricmp(header.first.c_str(), name.c_str()) == 0) return header.second;
    return std::string();
}

std::string ControlCall(const std::string& method, const std::string& path, const std::string& body, int* status) {
    if (status) *status = 0;
    int port = ControlPort();
    if (port <= 0 || !WinsockReady()) return std::string();
    SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (s == INVALID_SOCKET) return std::string();
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<u_short>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string response;
    if (connect(s, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0) {
        std::string request = method + " " + path + " HTTP/1.0\r\nHost: 127.0.0.1\r\n" +
                              "Content-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
                              "\r\n\r\n" + body;
        size_t sent = 0;
        while (sent < request.size()) {
            int n = send(s, request.data() + sent, static_cast<int>(request.size() - sent), 0);
            if (n <= 0) break;
            sent += static_cast<size_t>(n);
        }
        char chunk[8192];
        int n = 0;
        while ((n = recv(s, chunk, sizeof(chunk), 0)) > 0) response.append(chunk, static_cast<size_t>(n));
    }
    closesocket(s);
    size_t headEnd = response.find("\r\n\r\n");
    if (headEnd == std::string::npos) return std::string();
    size_t space = response.find(' ');
    if (status && space != std::string::npos && space < headEnd) *status = std::atoi(response.c_str() + space + 1);
    return response.substr(headEnd + 4);
}

RefServerInstance::RefServerInstance(const std::string& configJson) {
    JsonValue reply = ControlJson("POST", "/instances", configJson);
    if (reply["id"].type != JsonValue::Type::Number) return;
    m_id = reply["id"].AsInt(-1);
    m_httpPort = reply["http_port"].AsInt();
    m_httpsPort = reply["https_port"].AsInt();
}

RefServerInstance::~RefServerInstance() {
    if (m_id >= 0) ControlCall("DELETE", "/instances/" + std::to_string(m_id), std::string());
}

bool RefServerInstance::AddFaults(const std::string& faultsJson) {
    int status = 0;
    ControlCall("POST", "/instances/" + std::to_string(m_id) + "/faults", faultsJson, &status);
    return status == 200;
}

bool RefServerInstance::ClearFaults() {
    int status = 0;
    ControlCall("DELETE", "/instances/" + std::to_string(m_id) + "/faults", std::string(), &status);
    return status == 200;
}

bool RefServerInstance::Configure(const std::string& configJson) {
    int status = 0;
    ControlCall("POST", "/instances/" + std::to_string(m_id) + "/config", configJson, &status);
    return status == 200;
}

std::vector<RecordedRequest> RefServerInstance::Requests() {
    std::vector<RecordedRequest> out;
    JsonValue list = ControlJson("GET", "/instances/" + std::to_string(m_id) + "/requests", std::string());
    for (const JsonValue& item : list.items) {
        RecordedRequest r;
        r.method = item["method"].AsString();
        r.path = item["path"].AsString();
        for (const JsonValue& h : item["headers"].items) r.headers.emplace_back(h[0].AsString(), h[1].AsString());
        r.body = Base64Decode(item["body"].AsString());
        r.tls = item["tls"].boolean;
        r.connection = item["connection"].AsInt();
        out.push_back(r);
    }
    return out;
}

std::string RefServerInstance::StateJson(const std::string& field) {
    return ControlCall("GET", "/instances/" + std::to_string(m_id) + "/state/" + field, std::string());
}

std::string RenderAnswer(const std::string& name, const std::string& argsJson) {
    return ControlCall("POST", "/render", "{\"answer\": " + JsonQuote(name) + ", \"args\": " + argsJson + "}");
}

}  // namespace qvtest
