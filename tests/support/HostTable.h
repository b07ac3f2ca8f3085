// The add-in as a driver sees it: Quorvantis.dll loaded by name from the
// program's folder, and the interface table its one export hands out.
#pragma once

#include <windows.h>

#ifndef QUORVANTIS_NO_PROTOTYPES
#define QUORVANTIS_NO_PROTOTYPES
#endif
#include "Quorvantis.h"

#include <string>
#include <vector>

namespace qvtest {

class RefServerInstance;
class TempDir;

class HostTable {
public:
    HostTable();
    ~HostTable();
    HostTable(const HostTable&) = delete;
    HostTable& operator=(const HostTable&) = delete;

    // Null when the DLL or its export could not be had.
    const ZEB_INTERFACE* zeb = nullptr;

private:
    HMODULE m_module = nullptr;
};

// What one GetACT gave the host, copied out of the add-in's buffers (which
// are then handed back with BufferFree).
struct ActResult {
    DWORD code = 0;
    bool keyNull = true, actNull = true, signatureNull = true;
    std::vector<BYTE> key, act, signature;
};

// Calls GetACT through the table; the sizes must match what was handed out.
ActResult CallGetACT(const ZEB_INTERFACE* zeb, DWORD handle, const wchar_t* subject, DWORD actFlags);

// The add-in's ini file as an administrator writes it: "[Quorvantis]" and
// `keys` (lines of "Key=value"), as Quorvantis.ini in `dir`, then Initialize
// with it. The result of Initialize.
DWORD InitializeWithIni(const ZEB_INTERFACE* zeb, const TempDir& dir, const std::string& keys);
// The ini lines that point the add-in at a reference-server instance.
std::string ServerKeys(const RefServerInstance& server);
// The ini lines that write the trace log to `file` at `level`.
std::string TraceKeys(const std::wstring& file, int level = 5);

// GetPolicy through the table: the list copied into `entries` and handed
// back. The add-in always gets an SSL flag set to 0 first, and a count of 77;
// `sslFlag` and `count` (either may be null) get what it left in them.
DWORD CallGetPolicy(const ZEB_INTERFACE* zeb, DWORD handle, std::vector<AuthInfo>* entries, DWORD* sslFlag = nullptr,
                    DWORD* count = nullptr);
// Authentication through the table with a credential of the three texts;
// what it hands out goes into `output` (when given) and is handed back.
DWORD CallAuthentication(const ZEB_INTERFACE* zeb, DWORD handle, DWORD flags, const AuthInfo& info,
                         const wchar_t* user, const wchar_t* password, const wchar_t* domain,
                         std::vector<BYTE>* output = nullptr);

}  // namespace qvtest
