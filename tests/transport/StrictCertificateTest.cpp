// The channel's server trust: lenient by default (the security flags get the
// ignore bits), strict with StrictServerCertificate=1 (nothing is ignored, so
// the reference server's self-signed certificate for another name is refused).
#include <gtest/gtest.h>

#include "transport/TransportTestSupport.h"

#include <wincrypt.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "Quorvantis.h"
#include "common/HeapBuffer.h"
#include "support/Json.h"
#include "support/RefServer.h"
#include "transport/CWinHttp.h"

using qvtest::RefServerInstance;

namespace {

const wchar_t kStsPath[] = L"/wls/STSServer.actv";
const wchar_t kEnvelope[] =
    L"<?xml version=\"1.0\" encoding=\"utf-8\"?><soap:Envelope "
    L"xmlns:soap=\"http://www.w3.org/2003/05/soap-envelope\"><soap:Body/></soap:Envelope>";
const char kTrace[] = "DebugLevel=5\r\nDebugFile={dir}\\trace.log\r\n";

bool RunningUnderWine() {
    HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    return ntdll && GetProcAddress(ntdll, "wine_get_version") != nullptr;
}

// Windows fails the send with 12175 (mapped to the secure failure); Wine's
// WinHTTP fails an untrusted certificate with 12157, which the table leaves unknown.
DWORD CertificateRefusalCode() {
    return RunningUnderWine() ? ZEB_ERROR_WINHTTP_UNKNOWN : ZEB_ERROR_WINHTTP_SECURE_FAILURE;
}

// The trace file's text with the zero bytes of UTF-16 dropped.
std::string TraceText(const qvtest::ScopedSettings& settings) {
    std::string bytes = qvtest::ReadFileBytes(settings.File(L"trace.log"));
    std::string text;
    for (char c : bytes)
        if (c != '\0') text.push_back(c);
    return text;
}

size_t Count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

// The certificate of a reference server instance made with
// "certificate_names", trusted as a root of the machine while this lives.
// That needs an administrator on Windows; the tests that use it run under
// Wine only.
class TrustedRoot {
public:
    explicit TrustedRoot(RefServerInstance& srv) {
        qvtest::JsonValue extra;
        if (!qvtest::ParseJson(srv.StateJson("extra"), &extra)) return;
        const std::string& pem = extra["certificate_pem"].AsString();
        DWORD size = 0;
        if (pem.empty() || !CryptStringToBinaryA(pem.c_str(), 0, CRYPT_STRING_BASE64HEADER, nullptr, &size, nullptr,
                                                 nullptr))
            return;
        std::vector<BYTE> der(size);
        if (!CryptStringToBinaryA(pem.c_str(), 0, CRYPT_STRING_BASE64HEADER, der.data(), &size, nullptr, nullptr))
            return;
        m_store = CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_LOCAL_MACHINE, L"Root");
        if (!m_store) return;
        if (!CertAddEncodedCertificateToStore(m_store, X509_ASN_ENCODING, der.data(), size,
                                              CERT_STORE_ADD_REPLACE_EXISTING, &m_cert))
            return;
        // Wine keeps registry-store changes until a commit or close; WinHTTP
        // reads the roots when it checks its first chain.
        CertControlStore(m_store, 0, CERT_STORE_CTRL_COMMIT, nullptr);
    }
    ~TrustedRoot() {
        if (m_cert) CertDeleteCertificateFromStore(m_cert);  // also frees the context
        if (m_store) {
            CertControlStore(m_store, 0, CERT_STORE_CTRL_COMMIT, nullptr);
            CertCloseStore(m_store, 0);
        }
    }
    TrustedRoot(const TrustedRoot&) = delete;
    TrustedRoot& operator=(const TrustedRoot&) = delete;
    bool Ok() const { return m_cert != nullptr; }

private:
    HCERTSTORE m_store = nullptr;
    PCCERT_CONTEXT m_cert = nullptr;
};

class StrictCertificateTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(server.Ok()); }

    // One exchange on a new channel made under the settings current now.
    DWORD Exchange(BOOL ssl, std::wstring* text = nullptr, bool* strict = nullptr) {
        return ExchangeWith(server, ssl, text, strict);
    }
    DWORD ExchangeWith(RefServerInstance& srv, BOOL ssl, std::wstring* text = nullptr, bool* strict = nullptr) {
        CWinHttp channel(L"127.0.0.1", static_cast<USHORT>(srv.HttpPort()), static_cast<USHORT>(srv.HttpsPort()));
        if (strict) *strict = channel.StrictServerCertificate();
        channel.SetSSLMode(ssl);
        DWORD code = channel.Open();
        if (code != 0) return code;
        channel.SetObjectPath(kStsPath);
        std::wstring body;
        qv::ByteBuffer bytes;
        DWORD byteCount = 0;
        code = channel.SendRequest(L"", kEnvelope, &body, qv::out_param(bytes, byteCount), &byteCount, L"");
        if (text) *text = body;
        return code;
    }

    void Answer(int times) {
        ASSERT_TRUE(server.AddFaults(R"({"status": 200, "body": "<ok/>", "times": )" + std::to_string(times) + "}"));
    }

    // Default trust unless a test says otherwise.
    qvtest::ScopedSettings defaults{"Timeout=5000\r\n"};
    RefServerInstance server;
};

}  // namespace

TEST_F(StrictCertificateTest, DefaultModeWritesTheLenientFlagsOnPlainAndSecureRequests) {
    qvtest::ScopedSettings settings(std::string("Timeout=5000\r\n") + kTrace);
    Answer(2);
    bool strict = true;
    std::wstring text;
    EXPECT_EQ(Exchange(FALSE, &text, &strict), 0u);
    EXPECT_FALSE(strict);
    EXPECT_EQ(Exchange(TRUE, &text), 0u);
    EXPECT_EQ(text, L"<ok/>");
    std::string trace = TraceText(settings);
    EXPECT_EQ(Count(trace, "CWinHttp::_SendRequest WinHttpSetOption WINHTTP_OPTION_SECURITY_FLAGS dwFlags = 0x00003100"),
              2u)
        << trace;
    EXPECT_EQ(Count(trace, "StrictServerCertificate"), 0u);
    auto requests = server.Requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_FALSE(requests[0].tls);
    EXPECT_TRUE(requests[1].tls);
}

TEST_F(StrictCertificateTest, StrictModeRefusesTheSelfSignedCertificateThenDefaultModeStillTrustsIt) {
    Answer(2);
    {
        qvtest::ScopedSettings settings(std::string("Timeout=5000\r\nStrictServerCertificate=1\r\n") + kTrace);
        bool strict = false;
        std::wstring text = L"left over";
        EXPECT_EQ(Exchange(TRUE, &text, &strict), CertificateRefusalCode());
        EXPECT_TRUE(strict);
        EXPECT_EQ(text, L"");
        std::string trace = TraceText(settings);
        // The security flags are not touched at all, and the refusal is named.
        EXPECT_EQ(Count(trace, "WINHTTP_OPTION_SECURITY_FLAGS"), 0u) << trace;
        EXPECT_EQ(Count(trace, "CWinHttp::_SendRequest StrictServerCertificate: no certificate error is ignored"), 1u);
        EXPECT_EQ(Count(trace, "CWinHttp::Request StrictServerCertificate: server certificate or secure channel refused Error = "), 1u);
        EXPECT_EQ(Count(trace, "CWinHttp::Request WinHttpWriteData"), 0u);
        // Nothing reached the server: the handshake failed before the request.
        EXPECT_TRUE(server.Requests().empty());
    }
    // The same server, default settings: the exchange goes through.
    std::wstring text;
    EXPECT_EQ(Exchange(TRUE, &text), 0u);
    EXPECT_EQ(text, L"<ok/>");
    auto requests = server.Requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_TRUE(requests[0].tls);
}

TEST_F(StrictCertificateTest, StrictModeLeavesPlainHttpExchangesAlone) {
    qvtest::ScopedSettings settings(std::string("Timeout=5000\r\nStrictServerCertificate=1\r\n") + kTrace);
    Answer(1);
    std::wstring text;
    EXPECT_EQ(Exchange(FALSE, &text), 0u);
    EXPECT_EQ(text, L"<ok/>");
    std::string trace = TraceText(settings);
    EXPECT_EQ(Count(trace, "WINHTTP_OPTION_SECURITY_FLAGS"), 0u) << trace;
    EXPECT_EQ(Count(trace, "secure channel refused"), 0u);
}

TEST_F(StrictCertificateTest, AnyNonZeroValueIsStrict) {
    qvtest::ScopedSettings settings("Timeout=5000\r\nStrictServerCertificate=2\r\n");
    bool strict = false;
    EXPECT_EQ(Exchange(TRUE, nullptr, &strict), CertificateRefusalCode());
    EXPECT_TRUE(strict);
}

// The platform reads its trusted roots once per process, when it checks its
// first chain: this test adds its roots first, so it runs in a process of its
// own (as ctest runs every test) and under Wine only.
TEST_F(StrictCertificateTest, StrictModeChecksTheNameOfATrustedCertificate) {
    if (!RunningUnderWine()) GTEST_SKIP() << "adds trusted root certificates to the machine";
    if (::testing::GTEST_FLAG(filter) != "StrictCertificateTest.StrictModeChecksTheNameOfATrustedCertificate")
        GTEST_SKIP() << "needs a process of its own";
    RefServerInstance matching(R"({"certificate_names": ["127.0.0.1"]})");
    RefServerInstance other(R"({"certificate_names": ["printer-server.invalid"]})");
    ASSERT_TRUE(matching.Ok());
    ASSERT_TRUE(other.Ok());
    TrustedRoot matchingRoot(matching);
    TrustedRoot otherRoot(other);
    ASSERT_TRUE(matchingRoot.Ok());
    ASSERT_TRUE(otherRoot.Ok());
    ASSERT_TRUE(matching.AddFaults(R"({"status": 200, "body": "<ok/>"})"));
    ASSERT_TRUE(other.AddFaults(R"({"status": 200, "body": "<ok/>"})"));
    {
        qvtest::ScopedSettings settings(std::string("Timeout=5000\r\nStrictServerCertificate=1\r\n") + kTrace);
        // A trusted certificate for the name the channel connects to passes.
        std::wstring text;
        EXPECT_EQ(ExchangeWith(matching, TRUE, &text), 0u);
        EXPECT_EQ(text, L"<ok/>");
        // Trusted as well, but for another name: refused.
        EXPECT_EQ(ExchangeWith(other, TRUE), CertificateRefusalCode());
        std::string trace = TraceText(settings);
        EXPECT_EQ(Count(trace, "StrictServerCertificate: server certificate or secure channel refused"), 1u) << trace;
        EXPECT_TRUE(other.Requests().empty());
    }
    // Default trust ignores the name, as before.
    std::wstring text;
    EXPECT_EQ(ExchangeWith(other, TRUE, &text), 0u);
    EXPECT_EQ(text, L"<ok/>");
}
