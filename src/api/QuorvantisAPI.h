// The interface entries behind the host's table, and the module's attach and
// detach handling. Each entry logs, checks its arguments, finds the session
// by handle and converts the session's results into host-owned buffers.
#pragma once

#include <windows.h>

#include "Quorvantis.h"

namespace QuorvantisAPI {

const ZEB_INTERFACE* WINAPI GetInterface(USHORT version);
DWORD WINAPI Initialize(LPCWSTR iniPath);
DWORD WINAPI Open(LPCWSTR address, DWORD* handle, DWORD openFlags);
void WINAPI Close(DWORD handle);
void WINAPI BufferFree(void* buffer);
DWORD WINAPI GetPolicy(DWORD handle, DWORD* count, AuthInfo** list, DWORD* sslFlag);
DWORD WINAPI Authentication(DWORD handle, DWORD authFlags, const AuthInfo* authInfo, AuthCredential* credential,
                            BYTE** output, DWORD* outputSize);
DWORD WINAPI GetACT(DWORD handle, LPCWSTR subject, DWORD actFlags, BYTE** hmacKey, DWORD* hmacKeySize, BYTE** act,
                    DWORD* actSize, BYTE** signature, DWORD* signatureSize);

// DllMain's work: store the module handle, count attaches, load the settings.
void OnProcessAttach(HMODULE module);
void OnProcessDetach(HMODULE module);

}  // namespace QuorvantisAPI
