// Text conversions between UTF-16 and 8-bit code pages. Each returns a new
// zero-filled malloc'd buffer that the caller frees (free()), or nullptr on a
// null or empty input or a failed conversion.
#pragma once

#include <windows.h>

#include <string>

// UTF-8 to UTF-16 (code page 65001).
wchar_t* ConvertMultiToWide(const char* source);
// UTF-16 to the system ANSI code page (code page 0).
char* ConvertWideToAnsi(const wchar_t* source);
// UTF-16 to `codePage`; `outLength` receives the byte count without the
// terminator (0 first, and on failure).
char* ConvertWideToMulti(const wchar_t* source, UINT codePage, DWORD* outLength);
char* ConvertWideToMulti(const wchar_t* source, UINT codePage);

namespace qv {
// std::string conveniences over the same conversions; empty on failure.
std::wstring Utf8ToWide(const char* source, size_t length);
std::string WideToUtf8(const std::wstring& source);
}  // namespace qv
