// Shared helpers of the transport tests: settings from a temporary ini for the
// duration of a test, and small conversions.
#pragma once

#include <winsock2.h>
#include <windows.h>

#include <memory>
#include <string>

#include "config/AddinSettings.h"
#include "support/TestSupport.h"

namespace qvtest {

// Makes settings read from an ini (section "Quorvantis", the given lines)
// current; the settings that were current come back when it is destroyed.
// "{dir}" in the lines stands for the ini's own temporary folder.
class ScopedSettings {
public:
    explicit ScopedSettings(std::string keyLines) : m_previous(AddinSettings::Current()) {
        std::string dir;
        for (wchar_t c : m_dir.Path()) dir.push_back(static_cast<char>(c));
        for (size_t at = keyLines.find("{dir}"); at != std::string::npos; at = keyLines.find("{dir}"))
            keyLines.replace(at, 5, dir);
        std::wstring ini = m_dir.File(L"Quorvantis.ini");
        WriteFileBytes(ini, "[Quorvantis]\r\n" + keyLines);
        AddinSettings::Replace(std::make_shared<const AddinSettings>(ini.c_str()));
    }
    std::wstring File(const std::wstring& name) const { return m_dir.File(name); }
    ~ScopedSettings() { AddinSettings::Replace(m_previous); }
    ScopedSettings(const ScopedSettings&) = delete;
    ScopedSettings& operator=(const ScopedSettings&) = delete;

private:
    TempDir m_dir;
    std::shared_ptr<const AddinSettings> m_previous;
};

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
