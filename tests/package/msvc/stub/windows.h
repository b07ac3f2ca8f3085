/* The few Windows SDK types Quorvantis.h uses, as the SDK defines them for
 * x64 C code, for the MSVC-ABI host test (tests/package/msvc). The SDK is not
 * on a Linux machine, and the MinGW-w64 headers are made for the GNU target:
 * compiled for x86_64-pc-windows-msvc (where _MSC_VER is defined) their
 * intrinsics declarations clash with clang's own. */
#ifndef QV_TEST_STUB_WINDOWS_H
#define QV_TEST_STUB_WINDOWS_H
typedef unsigned long DWORD;   /* 32 bits under the LLP64 model, as the SDK's */
typedef unsigned short USHORT;
typedef unsigned char BYTE;
typedef unsigned short WCHAR;  /* the SDK's wchar_t in C */
typedef WCHAR* LPWSTR;
typedef const WCHAR* LPCWSTR;
#define WINAPI __stdcall
#endif
