// Helpers shared by the test programs.
#pragma once

#include <windows.h>

#include <cstdlib>
#include <memory>
#include <string>

namespace qvtest {

// Owns a block that the code under test handed out from malloc.
struct FreeDeleter {
    void operator()(void* block) const noexcept { std::free(block); }
};
template <typename T>
using Malloced = std::unique_ptr<T, FreeDeleter>;

// A new empty folder under %TEMP%, removed with its files when destroyed.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::wstring& Path() const { return m_path; }
    std::wstring File(const std::wstring& name) const { return m_path + L"\\" + name; }

private:
    std::wstring m_path;
};

// The text with each character cut to its low byte: for paths and other
// ASCII texts that go into an ini file or a JSON string.
std::string Narrow(const std::wstring& text);

// True when every byte of the block is zero (a wiped secret).
bool AllZero(const void* data, size_t size);

// Writes `content` (UTF-8 or ANSI bytes) to `path`, replacing it.
bool WriteFileBytes(const std::wstring& path, const std::string& content);
// The whole file as bytes; empty if it cannot be read.
std::string ReadFileBytes(const std::wstring& path);

// The process's private bytes (commit charge), for checks that an operation
// did not grow memory.
SIZE_T PrivateBytes();
// The handles the process holds, for checks that nothing leaked one.
DWORD HandleCount();

}  // namespace qvtest
