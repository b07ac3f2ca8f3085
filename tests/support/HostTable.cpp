#include "support/HostTable.h"

namespace qvtest {

HostTable::HostTable() {
    m_module = LoadLibraryW(L"Quorvantis.dll");
    if (!m_module) return;
    auto get = reinterpret_cast<PFN_ZEB_GetInterface>(GetProcAddress(m_module, "ZEB_GetInterface"));
    zeb = get ? get(ZEB_INTERFACE_VERSION) : nullptr;
}

HostTable::~HostTable() {
    if (m_module) FreeLibrary(m_module);
}

}  // namespace qvtest
