// The interface table over the scripted WinHTTP that plays Windows where
// Wine differs (support/FakeWinHttp.h): the table of the add-in's code
// linked into this program, so the fake can stand in for the platform.
#include <gtest/gtest.h>
#include <windows.h>

#include <memory>
#include <string>

#include "Quorvantis.h"
#include "api/QuorvantisAPI.h"
#include "config/AddinSettings.h"
#include "support/FakeWinHttp.h"
#include "support/HostTable.h"
#include "support/RefServer.h"
#include "support/TestSupport.h"
#include "support/TraceCapture.h"

using qvtest::FakeWinHttp;

namespace {

const wchar_t kPolicyPath[] = L"/wls/WLSPolicyService.actv";

class WindowsPaths : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(zeb, nullptr); }
    void TearDown() override { AddinSettings::Replace(m_previous); }

    // Settings of this test (section "Quorvantis", the given lines).
    void Initialize(const std::string& lines = "") {
        ASSERT_EQ(qvtest::InitializeWithIni(zeb, m_dir, "Timeout=1000\r\n" + lines), 0u);
    }

    static std::string Policy() {
        return qvtest::RenderAnswer(
            "get_policy_response",
            R"({"auth_infos": [{"Info": "i", "AuthType": "Basic2", "EnableCredentialCache": "true"}]})");
    }

    struct PolicyResult {
        DWORD code = 0;
        DWORD count = 0;
        bool listNull = true;
        DWORD ssl = 0;
    };
    PolicyResult GetPolicy(DWORD handle, DWORD sslBefore = 0) {
        PolicyResult r;
        AuthInfo* list = nullptr;
        r.ssl = sslBefore;
        r.code = zeb->GetPolicy(handle, &r.count, &list, &r.ssl);
        r.listNull = list == nullptr;
        zeb->BufferFree(list);
        return r;
    }

    const ZEB_INTERFACE* zeb = QuorvantisAPI::GetInterface(ZEB_INTERFACE_VERSION);
    FakeWinHttp fake;

private:
    std::shared_ptr<const AddinSettings> m_previous = AddinSettings::Current();
    qvtest::TempDir m_dir;
};

TEST_F(WindowsPaths, AResponseTimeOutIsRetriedRetryCountTimes) {
    ASSERT_NO_FATAL_FAILURE(Initialize("RetryCount=2\r\nDebugLevel=2\r\n"));
    qvtest::TraceCapture trace;
    fake.Repeat(FakeWinHttp::ReceiveFails(ERROR_WINHTTP_TIMEOUT));
    DWORD handle = 0;
    ASSERT_EQ(zeb->Open(L"srv", &handle, 0), 0u);
    PolicyResult r = GetPolicy(handle);
    EXPECT_EQ(r.code, ZEB_ERROR_WINHTTP_TIMEOUT);
    EXPECT_EQ(r.count, 0u);
    EXPECT_TRUE(r.listNull);
    EXPECT_EQ(fake.SendAttempts(), 3u);
    EXPECT_EQ(trace.Count(L"ZEB_ERROR_WINHTTP_TIMEOUT"), 3u);
    zeb->Close(handle);
}

TEST_F(WindowsPaths, OtherNetworkFailuresAreNotRetried) {
    ASSERT_NO_FATAL_FAILURE(Initialize("RetryCount=2\r\n"));
    struct Row {
        FakeWinHttp::Answer answer;
        DWORD code;
    } rows[] = {
        {FakeWinHttp::ReceiveFails(ERROR_WINHTTP_CONNECTION_ERROR), ZEB_ERROR_WINHTTP_CONNECTION_ERROR},
        {FakeWinHttp::SendFails(ERROR_WINHTTP_CANNOT_CONNECT), ZEB_ERROR_WINHTTP_CANNOT_CONNECT},
        {FakeWinHttp::SendFails(ERROR_WINHTTP_NAME_NOT_RESOLVED), ZEB_ERROR_WINHTTP_NAME_NOT_RESOLVED},
    };
    DWORD handle = 0;
    ASSERT_EQ(zeb->Open(L"srv", &handle, 0), 0u);
    size_t attempts = 0;
    for (Row& row : rows) {
        fake.Queue(row.answer);
        EXPECT_EQ(GetPolicy(handle).code, row.code);
        EXPECT_EQ(fake.SendAttempts(), ++attempts);
    }
    zeb->Close(handle);
}

TEST_F(WindowsPaths, StrictTrustRefusesASelfSignedCertificateWithWindowsCode) {
    ASSERT_NO_FATAL_FAILURE(Initialize("StrictServerCertificate=1\r\n"));
    FakeWinHttp::Answer answer = FakeWinHttp::Body(Policy());
    answer.certificateProblems = FakeWinHttp::kUnknownCa;
    fake.Queue(answer);
    DWORD handle = 0;
    ASSERT_EQ(zeb->Open(L"srv", &handle, ZEB_OPEN_FLAG_SSL), 0u);
    PolicyResult r = GetPolicy(handle);
    EXPECT_EQ(r.code, ZEB_ERROR_WINHTTP_SECURE_FAILURE);
    EXPECT_EQ(r.ssl, 0u);
    zeb->Close(handle);
}

TEST_F(WindowsPaths, UnexpectedStatusesGiveTheSameCodeWithTracingOnOrOff) {
    for (const char* trace : {"", "DebugLevel=5\r\n"}) {
        ASSERT_NO_FATAL_FAILURE(Initialize(trace));
        DWORD handle = 0;
        ASSERT_EQ(zeb->Open(L"srv", &handle, 0), 0u);
        for (DWORD status : {401u, 403u, 407u, 502u, 503u, 504u}) {
            fake.Queue(FakeWinHttp::Status(status));
            PolicyResult r = GetPolicy(handle);
            EXPECT_EQ(r.code, ZEB_ERROR_WINHTTP_INSUFFICIENT_BUFFER) << status << " " << trace;
            EXPECT_TRUE(r.listNull);
        }
        zeb->Close(handle);
    }
}

TEST_F(WindowsPaths, ARedirectToTheSecurePortIsFollowed) {
    ASSERT_NO_FATAL_FAILURE(Initialize());
    fake.Queue(FakeWinHttp::Redirect(L"https://SRV:8443/wls/WLSPolicyService.actv"));
    fake.Queue(FakeWinHttp::Body(Policy()));
    DWORD handle = 0;
    ASSERT_EQ(zeb->Open(L"srv", &handle, 0), 0u);
    PolicyResult r = GetPolicy(handle);
    EXPECT_EQ(r.code, 0u);
    EXPECT_EQ(r.count, 1u);
    EXPECT_EQ(r.ssl, 1u);
    std::vector<FakeWinHttp::Request> sent = fake.Requests();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].port, 8000);
    EXPECT_EQ(sent[0].openFlags & WINHTTP_FLAG_SECURE, 0u);
    EXPECT_EQ(sent[1].port, 8443);
    EXPECT_EQ(sent[1].openFlags & WINHTTP_FLAG_SECURE, static_cast<DWORD>(WINHTTP_FLAG_SECURE));
    EXPECT_EQ(sent[1].path, kPolicyPath);
    zeb->Close(handle);
}

TEST_F(WindowsPaths, OtherRedirectsAreRefusedAndASecondOneIsReturned) {
    ASSERT_NO_FATAL_FAILURE(Initialize());
    DWORD handle = 0;
    ASSERT_EQ(zeb->Open(L"srv", &handle, 0), 0u);
    for (const wchar_t* location :
         {L"https://srv:443/wls/WLSPolicyService.actv", L"http://srv:8443/wls/WLSPolicyService.actv",
          L"https://elsewhere:8443/wls/WLSPolicyService.actv", L"https://srv:8443/wls/WLSPolicyService.actv?a=b"}) {
        fake.Queue(FakeWinHttp::Redirect(location));
        PolicyResult r = GetPolicy(handle, 7);
        EXPECT_EQ(r.code, ZEB_ERROR_WINHTTP_DIFFERENT_REDIRECT_URL);
        EXPECT_EQ(r.ssl, 7u);  // left as it was
    }
    // Followed once; a second 302 on the secure connection goes back to the caller.
    fake.Queue(FakeWinHttp::Redirect(L"https://srv:8443/wls/WLSPolicyService.actv"));
    fake.Queue(FakeWinHttp::Redirect(L"https://srv:8443/wls/WLSPolicyService.actv"));
    EXPECT_EQ(GetPolicy(handle).code, ZEB_ERROR_WINHTTP_REDIRECT);
    zeb->Close(handle);
}

// Windows' WinHttpConnect refuses an IPv6 literal without brackets (12005);
// the session then tries once more with the brackets. Wine's takes any name,
// so over Wine's WinHTTP this path never runs.
TEST_F(WindowsPaths, AnUnbracketedIpv6AddressIsRetriedInBrackets) {
    ASSERT_NO_FATAL_FAILURE(Initialize());
    fake.Queue(FakeWinHttp::Body(Policy()));
    DWORD handle = 0;
    ASSERT_EQ(zeb->Open(L"fd00::1", &handle, 0), 0u);
    EXPECT_EQ(fake.Connects(), (std::vector<std::wstring>{L"fd00::1:8000", L"[fd00::1]:8000"}));
    PolicyResult r = GetPolicy(handle);
    EXPECT_EQ(r.code, 0u);
    EXPECT_EQ(r.count, 1u);
    ASSERT_EQ(fake.Requests().size(), 1u);
    EXPECT_EQ(fake.Requests()[0].host, L"[fd00::1]");
    zeb->Close(handle);
}

TEST_F(WindowsPaths, AFailedOpenStillUsesUpAHandle) {
    ASSERT_NO_FATAL_FAILURE(Initialize());
    DWORD before = 0;
    ASSERT_EQ(zeb->Open(L"srv", &before, 0), 0u);
    zeb->Close(before);
    DWORD failed = 0;
    EXPECT_EQ(zeb->Open(L"no such host name", &failed, 0), ZEB_ERROR_WINHTTP_INVALID_URL);
    EXPECT_EQ(failed, before + 1);
    // Tried as it stands, then once in brackets; nothing more.
    std::vector<std::wstring> connects = fake.Connects();
    ASSERT_EQ(connects.size(), 3u);
    EXPECT_EQ(connects[1], L"no such host name:8000");
    EXPECT_EQ(connects[2], L"[no such host name]:8000");
    DWORD after = 0;
    ASSERT_EQ(zeb->Open(L"srv", &after, 0), 0u);
    EXPECT_EQ(after, before + 2);
    zeb->Close(after);
    EXPECT_EQ(GetPolicy(failed).code, ZEB_ERROR_INVALID_HANDLE);
    EXPECT_EQ(fake.OpenHandles(), 0u);
}

// A policy answer that is no XML: neither success nor failure comes back,
// and the secure-mode flag is left as the host set it.
TEST_F(WindowsPaths, APolicyThatIsNoXmlLeavesTheSslFlagAlone) {
    ASSERT_NO_FATAL_FAILURE(Initialize());
    FakeWinHttp::Answer answer = FakeWinHttp::Body("this is not XML");
    answer.contentType = L"text/xml";
    fake.Queue(answer);
    DWORD handle = 0;
    ASSERT_EQ(zeb->Open(L"srv", &handle, ZEB_OPEN_FLAG_SSL), 0u);
    PolicyResult r = GetPolicy(handle, 0);
    EXPECT_FALSE(ZEB_FAILED(r.code));
    EXPECT_NE(r.code, 0u);
    EXPECT_NE(r.code, 1u);
    EXPECT_EQ(r.ssl, 0u);
    EXPECT_EQ(r.count, 0u);
    EXPECT_TRUE(r.listNull);
    zeb->Close(handle);
}

}  // namespace
