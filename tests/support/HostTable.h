// The add-in as a driver sees it: Quorvantis.dll loaded by name from the
// program's folder, and the interface table its one export hands out.
#pragma once

#include <windows.h>

#ifndef QUORVANTIS_NO_PROTOTYPES
#define QUORVANTIS_NO_PROTOTYPES
#endif
#include "Quorvantis.h"

#include <vector>

namespace qvtest {

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

}  // namespace qvtest
