#include "support/TestSupport.h"

#include <psapi.h>

#include <vector>

namespace qvtest {

TempDir::TempDir() {
    wchar_t base[MAX_PATH + 1] = {};
    GetTempPathW(MAX_PATH, base);
    static LONG counter = 0;
    wchar_t name[MAX_PATH + 64] = {};
    swprintf(name, MAX_PATH + 64, L"%lsqvtest_%lu_%ld", base, GetCurrentProcessId(), InterlockedIncrement(&counter));
    CreateDirectoryW(name, nullptr);
    m_path = name;
}

TempDir::~TempDir() {
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW((m_path + L"\\*").c_str(), &data);
    if (find != INVALID_HANDLE_VALUE) {
        do {
            std::wstring name = data.cFileName;
            if (name != L"." && name != L"..") DeleteFileW((m_path + L"\\" + name).c_str());
        } while (FindNextFileW(find, &data));
        FindClose(find);
    }
    RemoveDirectoryW(m_path.c_str());
}

bool WriteFileBytes(const std::wstring& path, const std::string& content) {
    HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    DWORD written = 0;
    BOOL ok = WriteFile(file, content.data(), static_cast<DWORD>(content.size()), &written, nullptr);
    CloseHandle(file);
    return ok && written == content.size();
}

std::string ReadFileBytes(const std::wstring& path) {
    HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return std::string();
    std::string content;
    char chunk[4096];
    DWORD read = 0;
    while (ReadFile(file, chunk, sizeof(chunk), &read, nullptr) && read > 0) content.append(chunk, read);
    CloseHandle(file);
    return content;
}

SIZE_T PrivateBytes() {
    PROCESS_MEMORY_COUNTERS_EX counters = {};
    counters.cb = sizeof(counters);
    if (!GetProcessMemoryInfo(GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&counters),
                              sizeof(counters)))
        return 0;
    return counters.PrivateUsage;
}

}  // namespace qvtest
