// Just enough of <windows.h> for the host interface header (Quorvantis.h)
// to compile natively, so that the platform-independent units that use its
// result codes can be fuzzed on Linux. Only the native fuzz build sees this.
#pragma once

#include <cstdint>

typedef uint32_t DWORD;
typedef uint16_t USHORT;
typedef uint16_t WORD;
typedef uint8_t BYTE;
typedef int BOOL;
typedef char16_t WCHAR;
typedef WCHAR* LPWSTR;
typedef const WCHAR* LPCWSTR;
typedef void* HANDLE;
typedef void* HMODULE;
#define WINAPI
