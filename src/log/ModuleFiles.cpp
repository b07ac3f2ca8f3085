#include "log/ModuleFiles.h"

#include <strsafe.h>

#include <cwchar>

#include "common/Module.h"
#include "log/AddinLog.h"

namespace {

constexpr DWORD kModulePathChars = MAX_PATH;

// The module's full file name into `path` (kModulePathChars characters);
// false, with the API failure logged, when it cannot be had.
bool ModulePath(AddinLogScope& scope, wchar_t* path) {
    DWORD length = GetModuleFileNameW(qv::ThisModule(), path, kModulePathChars);
    if (length == 0 || length >= kModulePathChars) {
        scope.WriteApiFailure(L"GetModuleFileName");
        return false;
    }
    return true;
}

BOOL LocalizeName(AddinLogScope& scope, const wchar_t* fileName, wchar_t* buffer, DWORD* bufferChars,
                  wchar_t* modulePath) {
    if (!fileName || !buffer || !bufferChars || *bufferChars == 0) {
        scope.Write(AddinLog::kDebug, L"invalid params.\n");
        return FALSE;
    }
    buffer[0] = L'\0';
    if (!ModulePath(scope, modulePath)) return FALSE;

    // The last two letters of the module's base name, e.g. "XY" of abcXY.dll.
    const wchar_t* moduleDot = wcsrchr(modulePath, L'.');
    wchar_t ending[3] = {};
    if (!moduleDot || moduleDot - modulePath < 2 || FAILED(StringCchCopyNW(ending, 3, moduleDot - 2, 2))) {
        scope.Write(AddinLog::kFatal, L"StringCchCopyN");
        return FALSE;
    }

    const DWORD capacity = *bufferChars;
    const wchar_t* extension = wcsrchr(fileName, L'.');
    // A name without an extension has nowhere to put the ending.
    if (!extension) {
        scope.Write(AddinLog::kFatal, L"_tcsrchr");
        return FALSE;
    }
    if (FAILED(StringCchCopyW(buffer, capacity, fileName))) {
        scope.Write(AddinLog::kFatal, L"StringCchCopy");
        buffer[0] = L'\0';
        return FALSE;
    }
    buffer[extension - fileName] = L'\0';
    if (FAILED(StringCchCatW(buffer, capacity, ending)) || FAILED(StringCchCatW(buffer, capacity, extension))) {
        scope.Write(AddinLog::kFatal, L"StringCchCat");
        buffer[0] = L'\0';
        return FALSE;
    }
    *bufferChars = static_cast<DWORD>(wcslen(buffer));
    scope.Write(AddinLog::kDebug, L"lpszLocalizeDllName=%s.\n", buffer);
    return TRUE;
}

BOOL PathOnMyDir(AddinLogScope& scope, wchar_t* buffer, DWORD bufferChars, const wchar_t* fileName,
                 DWORD fileNameLength, wchar_t* modulePath) {
    if (!buffer || !fileName || bufferChars == 0) {
        scope.Write(AddinLog::kDebug, L"invalid params.\n");
        return FALSE;
    }
    buffer[0] = L'\0';
    if (!ModulePath(scope, modulePath)) return FALSE;

    const wchar_t* slash = wcsrchr(modulePath, L'\\');
    if (!slash) {
        scope.Write(AddinLog::kFatal, L"_tcsrchr");
        return FALSE;
    }
    const size_t folderLength = static_cast<size_t>(slash - modulePath);
    if (FAILED(StringCchCopyNW(buffer, bufferChars, modulePath, folderLength))) {
        scope.Write(AddinLog::kFatal, L"StringCchCopyN");
        buffer[0] = L'\0';
        return FALSE;
    }
    if (bufferChars < folderLength + fileNameLength + 2) {
        scope.Write(AddinLog::kDebug, L"full path size is longer than the buffer size.\n");
        buffer[0] = L'\0';
        return FALSE;
    }
    if (FAILED(StringCchCatW(buffer, bufferChars, L"\\"))) {
        scope.Write(AddinLog::kFatal, L"StringCchCat[1]");
        buffer[0] = L'\0';
        return FALSE;
    }
    if (FAILED(StringCchCatNW(buffer, bufferChars, fileName, fileNameLength))) {
        scope.Write(AddinLog::kFatal, L"StringCchCat[2]");
        buffer[0] = L'\0';
        return FALSE;
    }
    scope.Write(AddinLog::kDebug, L"pFilePath=%s.\n", buffer);
    return TRUE;
}

}  // namespace

BOOL GetLocalizeDllName(const wchar_t* fileName, wchar_t* buffer, DWORD* bufferChars) {
    AddinLogScope scope(L"GetLocalizeDllName");
    wchar_t modulePath[kModulePathChars] = {};
    BOOL result = LocalizeName(scope, fileName, buffer, bufferChars, modulePath);
    SecureZeroMemory(modulePath, sizeof(modulePath));
    scope.Write(AddinLog::kEnd, L"return %d\n", result);
    return result;
}

BOOL GetFilePathOnMyDir(wchar_t* buffer, DWORD bufferChars, const wchar_t* fileName, DWORD fileNameLength) {
    AddinLogScope scope(L"GetFilePathOnMyDir");
    wchar_t modulePath[kModulePathChars] = {};
    BOOL result = PathOnMyDir(scope, buffer, bufferChars, fileName, fileNameLength, modulePath);
    SecureZeroMemory(modulePath, sizeof(modulePath));
    scope.Write(AddinLog::kEnd, L"return %d\n", result);
    return result;
}
