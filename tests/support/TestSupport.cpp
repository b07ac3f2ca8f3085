#include "support/TestSupport.h"

#include <psapi.h>

#include <algorithm>
#include <vector>

namespace qvtest {

namespace {

// Removes a folder with everything below it.
void RemoveTree(const std::wstring& path) {
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW((path + L"\\*").c_str(), &data);
    if (find != INVALID_HANDLE_VALUE) {
        do {
            const std::wstring name = data.cFileName;
            if (name == L"." || name == L"..") continue;
            const std::wstring child = path + L"\\" + name;
            if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
                RemoveTree(child);
            else
                DeleteFileW(child.c_str());
        } while (FindNextFileW(find, &data));
        FindClose(find);
    }
    RemoveDirectoryW(path.c_str());
}

}  // namespace

std::string Narrow(const std::wstring& text) {
    std::string out;
    out.reserve(text.size());
    for (wchar_t c : text) out += static_cast<char>(c);
    return out;
}

bool AllZero(const void* data, size_t size) {
    const BYTE* bytes = static_cast<const BYTE*>(data);
    for (size_t i = 0; i < size; ++i)
        if (bytes[i]) return false;
    return true;
}

// A folder no other test has: Wine hands out small process ids again soon,
// so a name made of the id and a counter can meet a folder an earlier test
// process left behind (with its files). Only a folder this call created is
// taken.
TempDir::TempDir() {
    wchar_t base[MAX_PATH + 1] = {};
    GetTempPathW(MAX_PATH, base);
    static LONG counter = 0;
    for (;;) {
        LARGE_INTEGER now = {};
        QueryPerformanceCounter(&now);
        wchar_t name[MAX_PATH + 96] = {};
        swprintf(name, MAX_PATH + 96, L"%lsqvtest_%lu_%ld_%llx", base, GetCurrentProcessId(),
                 InterlockedIncrement(&counter), static_cast<unsigned long long>(now.QuadPart));
        if (CreateDirectoryW(name, nullptr) || GetLastError() != ERROR_ALREADY_EXISTS) {
            m_path = name;
            return;
        }
    }
}

TempDir::~TempDir() { RemoveTree(m_path); }

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
    // Wine leaves PrivateUsage 0; its PagefileUsage is the same commit charge.
    return counters.PrivateUsage ? counters.PrivateUsage : counters.PagefileUsage;
}

// Handles the process holds. Wine answers GetProcessHandleCount with 0, so
// then the system handle table (SystemHandleInformation) is counted.
DWORD HandleCount() {
    DWORD handles = 0;
    if (GetProcessHandleCount(GetCurrentProcess(), &handles) && handles) return handles;
    struct Entry {
        ULONG ownerPid;
        BYTE objectType;
        BYTE flags;
        USHORT handle;
        PVOID object;
        ACCESS_MASK access;
    };
    using QuerySystem = LONG(WINAPI*)(ULONG, PVOID, ULONG, PULONG);
    auto query =
        reinterpret_cast<QuerySystem>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation"));
    if (!query) return 0;
    std::vector<BYTE> buffer(1 << 20);
    for (int attempt = 0; attempt < 6; ++attempt) {
        ULONG needed = 0;
        LONG status = query(16 /* SystemHandleInformation */, buffer.data(), static_cast<ULONG>(buffer.size()), &needed);
        if (status == 0) {
            ULONG count = *reinterpret_cast<ULONG*>(buffer.data());
            const Entry* entries = reinterpret_cast<const Entry*>(buffer.data() + sizeof(ULONG_PTR));
            DWORD mine = 0;
            for (ULONG i = 0; i < count; ++i)
                if (entries[i].ownerPid == GetCurrentProcessId()) ++mine;
            return mine;
        }
        buffer.resize(std::max<size_t>(buffer.size() * 2, needed + 4096));
    }
    return 0;
}

}  // namespace qvtest
