// Shared helpers of the transport tests: small conversions and a closed port
// (settings from a temporary ini come from support/ScopedSettings.h).
#pragma once

#include <winsock2.h>
#include <windows.h>

#include <memory>
#include <string>

#include "support/ScopedSettings.h"
#include "support/TestSupport.h"

namespace qvtest {

inline std::wstring Wide(const std::string& s) {
    std::wstring out;
    for (char c : s) out.push_back(static_cast<wchar_t>(static_cast<unsigned char>(c)));
    return out;
}

inline std::string Utf8(const std::wstring& s) {
    if (s.empty()) return std::string();
    int n = WideCharToMultiByte(CP_UTF8, 0, s.c_str(), static_cast<int>(s.size()), nullptr, 0, nullptr, nullptr);
    std::string out(static_cast<size_t>(n), '\0');
    WideCharToMultiByte(CP_UTF8, 0, s.c_str(), static_cast<int>(s.size()), &out[0], n, nullptr, nullptr);
    return out;
}

// A loopback port with nothing listening on it.
inline int ClosedPort() {
    WSADATA data;
    WSAStartup(MAKEWORD(2, 2), &data);
    SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    int len = sizeof(addr);
    getsockname(s, reinterpret_cast<sockaddr*>(&addr), &len);
    closesocket(s);
    return ntohs(addr.sin_port);
}

}  // namespace qvtest
