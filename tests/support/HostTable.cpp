#include "support/HostTable.h"

#include <gtest/gtest.h>

#include "support/RefServer.h"
#include "support/TestSupport.h"

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

DWORD InitializeWithIni(const ZEB_INTERFACE* zeb, const TempDir& dir, const std::string& keys) {
    const std::wstring ini = dir.File(L"Quorvantis.ini");
    if (!WriteFileBytes(ini, "[Quorvantis]\r\n" + keys)) {
        ADD_FAILURE() << "cannot write " << Narrow(ini);
        return ~0u;
    }
    return zeb->Initialize(ini.c_str());
}

std::string ServerKeys(const RefServerInstance& server) {
    return "PortNo=" + std::to_string(server.HttpPort()) + "\r\nSecurePortNo=" + std::to_string(server.HttpsPort()) +
           "\r\n";
}

std::string TraceKeys(const std::wstring& file, int level) {
    return "DebugLevel=" + std::to_string(level) + "\r\nDebugFile=" + Narrow(file) + "\r\n";
}

DWORD CallGetPolicy(const ZEB_INTERFACE* zeb, DWORD handle, std::vector<AuthInfo>* entries, DWORD* sslFlag,
                    DWORD* count) {
    DWORD listed = 77, ssl = 0;
    AuthInfo* list = nullptr;
    const DWORD result = zeb->GetPolicy(handle, &listed, &list, &ssl);
    if (sslFlag) *sslFlag = ssl;
    if (count) *count = listed;
    entries->clear();
    if (list) entries->assign(list, list + listed);
    zeb->BufferFree(list);
    return result;
}

DWORD CallAuthentication(const ZEB_INTERFACE* zeb, DWORD handle, DWORD flags, const AuthInfo& info,
                         const wchar_t* user, const wchar_t* password, const wchar_t* domain,
                         std::vector<BYTE>* output) {
    std::wstring u = user, p = password, d = domain;
    AuthCredential credential = {&u[0], &p[0], &d[0]};
    BYTE* bytes = nullptr;
    DWORD size = 0;
    const DWORD result = zeb->Authentication(handle, flags, &info, &credential, &bytes, &size);
    if (output) output->assign(bytes, bytes ? bytes + size : bytes);
    zeb->BufferFree(bytes);
    return result;
}

}  // namespace qvtest
