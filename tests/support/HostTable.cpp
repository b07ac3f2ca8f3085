#include "support/HostTable.h"

#include <gtest/gtest.h>

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

ActResult CallGetACT(const ZEB_INTERFACE* zeb, DWORD handle, const wchar_t* subject, DWORD actFlags) {
    ActResult r;
    BYTE *key = nullptr, *act = nullptr, *signature = nullptr;
    DWORD keySize = 99, actSize = 99, signatureSize = 99;
    r.code = zeb->GetACT(handle, subject, actFlags, &key, &keySize, &act, &actSize, &signature, &signatureSize);
    r.keyNull = key == nullptr;
    r.actNull = act == nullptr;
    r.signatureNull = signature == nullptr;
    if (key) r.key.assign(key, key + keySize);
    if (act) r.act.assign(act, act + actSize);
    if (signature) r.signature.assign(signature, signature + signatureSize);
    EXPECT_EQ(keySize, r.key.size());
    EXPECT_EQ(actSize, r.act.size());
    EXPECT_EQ(signatureSize, r.signature.size());
    zeb->BufferFree(key);
    zeb->BufferFree(act);
    zeb->BufferFree(signature);
    return r;
}

}  // namespace qvtest
