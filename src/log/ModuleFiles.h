// Names of files that live beside the add-in module (qv::ThisModule(); the
// running program when that is null, as in unit tests).
#pragma once

#include <windows.h>

// "<module folder>\<fileName>" into `buffer` (bufferChars characters); 1 on
// success, 0 on failure.
BOOL GetFilePathOnMyDir(wchar_t* buffer, DWORD bufferChars, const wchar_t* fileName, DWORD fileNameLength);
// `fileName` with the module's own two-letter name ending put before its
// extension (Dellipsor.ini -> DellipsorXY.ini for abcXY.dll). *bufferChars is
// the buffer's size in, the new length out; 1 on success, 0 on failure.
BOOL GetLocalizeDllName(const wchar_t* fileName, wchar_t* buffer, DWORD* bufferChars);
