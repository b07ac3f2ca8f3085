// The add-in as a driver sees it: Quorvantis.dll loaded by name from the
// program's folder, and the interface table its one export hands out.
#pragma once

#include <windows.h>

#ifndef QUORVANTIS_NO_PROTOTYPES
#define QUORVANTIS_NO_PROTOTYPES
#endif
#include "Quorvantis.h"

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

}  // namespace qvtest
