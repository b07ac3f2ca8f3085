// StrictServerCertificate through the interface table only: an HTTPS session
// to the reference server (self-signed certificate for another name) fails
// GetPolicy with the certificate refusal, and the handle stays usable.
#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#define QUORVANTIS_NO_PROTOTYPES
#include "Quorvantis.h"
#include "support/RefServer.h"
#include "support/HostTable.h"
#include "support/TestSupport.h"

namespace {

const char* kConfig =
    R"({"users": {"alice": {"password": "pw", "domain": "LAB"}},)"
    R"( "policy": [{"Info": "i", "AuthType": "Basic2", "EnableCredentialCache": "true"}]})";
const char* kPolicyPath = "/wls/WLSPolicyService.actv";

bool RunningUnderWine() {
    HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    return ntdll && GetProcAddress(ntdll, "wine_get_version") != nullptr;
}

// Windows fails the send with 12175 (mapped to the secure failure); Wine's
// WinHTTP fails an untrusted certificate with 12157, which the table leaves unknown.
DWORD CertificateRefusalCode() {
    return RunningUnderWine() ? ZEB_ERROR_WINHTTP_UNKNOWN : ZEB_ERROR_WINHTTP_SECURE_FAILURE;
}

size_t Count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

class StrictCertificateFlowTest : public ::testing::Test {
protected:
    void SetUp() override {
        zeb = m_host.zeb;
        ASSERT_NE(zeb, nullptr);
        ASSERT_TRUE(server.Ok());
    }
    void TearDown() override {
        if (zeb) {
            // Back to the defaults for whatever runs next in this process.
            std::wstring absent = m_dir.File(L"absent.ini");
            zeb->Initialize(absent.c_str());
        }
    }

    void Initialize(const std::string& extra) {
        ASSERT_EQ(qvtest::InitializeWithIni(zeb, m_dir,
                                            qvtest::ServerKeys(server) + "Timeout=10000\r\n" +
                                                qvtest::TraceKeys(m_dir.File(L"trace.log")) + extra),
                  0u);
    }

    DWORD GetPolicy(DWORD handle, DWORD* count) {
        AuthInfo* list = nullptr;
        DWORD ssl = 0;
        *count = 0;
        DWORD result = zeb->GetPolicy(handle, count, &list, &ssl);
        zeb->BufferFree(list);
        return result;
    }

    std::string Trace() {
        std::string text;
        for (char c : qvtest::ReadFileBytes(m_dir.File(L"trace.log")))
            if (c != '\0') text.push_back(c);
        return text;
    }

    size_t PolicyRequests() {
        size_t n = 0;
        for (auto& r : server.Requests())
            if (r.path == kPolicyPath) ++n;
        return n;
    }

    const ZEB_INTERFACE* zeb = nullptr;
    qvtest::RefServerInstance server{kConfig};
    qvtest::TempDir m_dir;

private:
    qvtest::HostTable m_host;
};

}  // namespace

TEST_F(StrictCertificateFlowTest, SslOpenFailsGetPolicyAndTheHandleStaysUsable) {
    Initialize("StrictServerCertificate=1\r\n");
    DWORD handle = 0;
    ASSERT_EQ(zeb->Open(L"127.0.0.1", &handle, ZEB_OPEN_FLAG_SSL), 0u);
    DWORD count = 99;
    EXPECT_EQ(GetPolicy(handle, &count), CertificateRefusalCode());
    EXPECT_EQ(count, 0u);
    // The handle is still the host's: the same call fails the same way again.
    EXPECT_EQ(GetPolicy(handle, &count), CertificateRefusalCode());
    EXPECT_EQ(PolicyRequests(), 0u);
    std::string trace = Trace();
    EXPECT_EQ(Count(trace, "CWinHttp::Request StrictServerCertificate: server certificate or secure channel refused"), 2u) << trace;
    EXPECT_EQ(Count(trace, "WINHTTP_OPTION_SECURITY_FLAGS"), 0u);
    zeb->Close(handle);

    // Strict trust does not concern plain HTTP: a session without the flag works.
    ASSERT_EQ(zeb->Open(L"127.0.0.1", &handle, 0), 0u);
    EXPECT_EQ(GetPolicy(handle, &count), 0u);
    EXPECT_EQ(count, 1u);
    zeb->Close(handle);

    // Default settings again: the same HTTPS server is trusted as before.
    Initialize("");
    ASSERT_EQ(zeb->Open(L"127.0.0.1", &handle, ZEB_OPEN_FLAG_SSL), 0u);
    EXPECT_EQ(GetPolicy(handle, &count), 0u);
    EXPECT_EQ(count, 1u);
    zeb->Close(handle);
    auto requests = server.Requests();
    ASSERT_EQ(PolicyRequests(), 2u);
    EXPECT_TRUE(requests.back().tls);
}
