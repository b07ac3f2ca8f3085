// The channel's Windows paths, on the scripted WinHTTP that plays what
// Windows documents where Wine does otherwise (support/FakeWinHttp.h).
#include <gtest/gtest.h>

#include "transport/TransportTestSupport.h"

#include <cstdlib>
#include <memory>
#include <string>

#include "Quorvantis.h"
#include "common/HeapBuffer.h"
#include "support/FakeWinHttp.h"
#include "support/TraceCapture.h"
#include "transport/CWinHttp.h"

using qvtest::FakeWinHttp;

namespace {

constexpr DWORD kTls10To12 =
    WINHTTP_FLAG_SECURE_PROTOCOL_TLS1 | WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_1 | WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_2;
constexpr DWORD kTls13 = 0x00002000;
const char kSoap[] =
    "<soap:Envelope xmlns:soap=\"http://www.w3.org/2003/05/soap-envelope\"><soap:Body/></soap:Envelope>";

// The accepted values of one session option, in the order they were set.
std::vector<DWORD> Accepted(const FakeWinHttp& fake, DWORD option) {
    std::vector<DWORD> values;
    for (const auto& set : fake.SessionOptions())
        if (set.first == option) values.push_back(set.second);
    return values;
}

size_t Refusals(const FakeWinHttp& fake, DWORD option) {
    size_t n = 0;
    for (DWORD refused : fake.RefusedSessionOptions())
        if (refused == option) ++n;
    return n;
}

class CWinHttpOnWindows : public ::testing::Test {
protected:
    // The channel on the fake platform (created after it, so destroyed first).
    DWORD OpenChannel(BOOL ssl = FALSE) {
        channel.reset(new CWinHttp(L"srv", 8000, 8443));
        channel->SetSSLMode(ssl);
        DWORD code = channel->Open();
        channel->SetObjectPath(L"/wls/STSServer.actv");
        return code;
    }
    DWORD Send() {
        return channel->SendRequest(L"urn:action", L"<e/>", &text, qv::out_param(bytes, byteCount), &byteCount, L"");
    }
    // The old settings go back first: a new ScopedSettings restores, when it
    // goes, whatever was current when it came.
    void UseSettings(const std::string& lines) {
        settings.reset();
        settings.reset(new qvtest::ScopedSettings(lines));
    }
    void TearDown() override {
        channel.reset();
        bytes.reset();
    }

    std::unique_ptr<qvtest::ScopedSettings> settings{new qvtest::ScopedSettings("Timeout=3000\r\n")};
    FakeWinHttp fake;
    std::unique_ptr<CWinHttp> channel;
    std::wstring text;
    qv::ByteBuffer bytes;
    DWORD byteCount = 0;
};

// Windows 7 and 8 offer only SSL 3.0 and TLS 1.0 unless the session says
// otherwise; under Wine (GnuTLS) TLS 1.2 is negotiated without the option.
TEST_F(CWinHttpOnWindows, OffersTls10To13OnTheSession) {
    fake.SetSupportedProtocols(FakeWinHttp::kWindows11Protocols);
    ASSERT_EQ(OpenChannel(), 0u);
    EXPECT_EQ(Accepted(fake, WINHTTP_OPTION_SECURE_PROTOCOLS), std::vector<DWORD>{kTls10To12 | kTls13});
    EXPECT_EQ(CWinHttp::SecureProtocols(false), kTls10To12 | kTls13);
}

TEST_F(CWinHttpOnWindows, WithoutTls13TheSameSetGoesAgainWithoutIt) {
    fake.SetSupportedProtocols(FakeWinHttp::kWindows10Protocols);
    qvtest::TraceCapture trace;
    UseSettings("Timeout=3000\r\nDebugLevel=5\r\n");
    ASSERT_EQ(OpenChannel(), 0u);
    EXPECT_EQ(Refusals(fake, WINHTTP_OPTION_SECURE_PROTOCOLS), 1u);
    EXPECT_EQ(Accepted(fake, WINHTTP_OPTION_SECURE_PROTOCOLS), std::vector<DWORD>{kTls10To12});
    EXPECT_EQ(trace.Count(L"CWinHttp::Open WinHttpSetOption WINHTTP_OPTION_SECURE_PROTOCOLS Error = 00000057, "
                          L"ZEB_ERROR = d502001a"),
              1u);
}

TEST_F(CWinHttpOnWindows, StrictTrustOffersTls12And13Only) {
    UseSettings("Timeout=3000\r\nStrictServerCertificate=1\r\n");
    fake.SetSupportedProtocols(FakeWinHttp::kWindows10Protocols);
    ASSERT_EQ(OpenChannel(), 0u);
    EXPECT_EQ(Accepted(fake, WINHTTP_OPTION_SECURE_PROTOCOLS),
              std::vector<DWORD>{static_cast<DWORD>(WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_2)});
    EXPECT_EQ(CWinHttp::SecureProtocols(true), static_cast<DWORD>(WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_2) | kTls13);
}

TEST_F(CWinHttpOnWindows, APlatformThatRefusesEveryNewVersionStillOpens) {
    fake.SetSupportedProtocols(FakeWinHttp::kWindows7Protocols);
    ASSERT_EQ(OpenChannel(), 0u);
    EXPECT_EQ(Refusals(fake, WINHTTP_OPTION_SECURE_PROTOCOLS), 2u);
    EXPECT_TRUE(Accepted(fake, WINHTTP_OPTION_SECURE_PROTOCOLS).empty());
    fake.Queue(FakeWinHttp::Body(kSoap));
    EXPECT_EQ(Send(), 0u);
}

// The response time-out is our own addition: a platform that refuses it
// costs a warning, not the session.
TEST_F(CWinHttpOnWindows, ARefusedResponseTimeoutIsAWarning) {
    UseSettings("Timeout=3000\r\nDebugLevel=2\r\n");
    fake.RefuseReceiveResponseTimeout(ERROR_WINHTTP_INCORRECT_HANDLE_TYPE);
    qvtest::TraceCapture trace;
    ASSERT_EQ(OpenChannel(), 0u);
    EXPECT_EQ(trace.Count(L"CWinHttp::Open WinHttpSetOption WINHTTP_OPTION_RECEIVE_RESPONSE_TIMEOUT Error = 00002ef2, "
                          L"ZEB_ERROR = d502000b"),
              1u);
    EXPECT_EQ(Accepted(fake, WINHTTP_OPTION_CONNECT_TIMEOUT), std::vector<DWORD>{3000});
    EXPECT_EQ(Accepted(fake, WINHTTP_OPTION_SEND_TIMEOUT), std::vector<DWORD>{3000});
    EXPECT_EQ(Accepted(fake, WINHTTP_OPTION_RECEIVE_TIMEOUT), std::vector<DWORD>{3000});
    fake.Queue(FakeWinHttp::Body(kSoap));
    EXPECT_EQ(Send(), 0u);
}

// Any status outside the handled ones is mapped from the last error as the
// status query left it: on Windows the 122 of the size probe, because a
// successful call does not clear it (Wine's WinHTTP does: 0xD502FFFF).
// Neither trace output nor its file may change that code.
TEST_F(CWinHttpOnWindows, OtherStatusesGiveTheSizeProbesCodeWithTracingOnOrOff) {
    for (const char* trace : {"", "DebugLevel=5\r\nDebugFile={dir}\\trace.log\r\n"}) {
        UseSettings(std::string("Timeout=3000\r\n") + trace);
        // An existing file: opening it again sets ERROR_ALREADY_EXISTS.
        qvtest::WriteFileBytes(settings->File(L"trace.log"), "earlier\r\n");
        ASSERT_EQ(OpenChannel(), 0u);
        for (DWORD status : {401u, 403u, 407u, 502u, 503u, 504u}) {
            fake.Queue(FakeWinHttp::Status(status));
            SetLastError(ERROR_ALREADY_EXISTS);
            EXPECT_EQ(Send(), ZEB_ERROR_WINHTTP_INSUFFICIENT_BUFFER) << "status " << status << " trace " << trace;
            EXPECT_TRUE(text.empty());
        }
        channel.reset();
    }
}

TEST_F(CWinHttpOnWindows, WindowsOwnCodesThroughTheChannel) {
    struct Row {
        FakeWinHttp::Answer answer;
        DWORD code;
    } rows[] = {
        {FakeWinHttp::ReceiveFails(ERROR_WINHTTP_TIMEOUT), ZEB_ERROR_WINHTTP_TIMEOUT},
        {FakeWinHttp::ReceiveFails(ERROR_WINHTTP_CONNECTION_ERROR), ZEB_ERROR_WINHTTP_CONNECTION_ERROR},
        {FakeWinHttp::SendFails(ERROR_WINHTTP_CANNOT_CONNECT), ZEB_ERROR_WINHTTP_CANNOT_CONNECT},
        {FakeWinHttp::SendFails(ERROR_WINHTTP_TIMEOUT), ZEB_ERROR_WINHTTP_TIMEOUT},
        {FakeWinHttp::SendFails(ERROR_WINHTTP_NAME_NOT_RESOLVED), ZEB_ERROR_WINHTTP_NAME_NOT_RESOLVED},
        {FakeWinHttp::SendFails(ERROR_WINHTTP_SECURE_FAILURE), ZEB_ERROR_WINHTTP_SECURE_FAILURE},
    };
    ASSERT_EQ(OpenChannel(), 0u);
    for (Row& row : rows) {
        fake.Queue(row.answer);
        EXPECT_EQ(Send(), row.code);
        EXPECT_TRUE(text.empty());
    }
    // A reset in the middle of the body: nothing of the answer survives.
    FakeWinHttp::Answer cut = FakeWinHttp::Body("<soap:Envelope");
    cut.bodyError = ERROR_WINHTTP_CONNECTION_ERROR;
    fake.Queue(cut);
    EXPECT_EQ(Send(), ZEB_ERROR_WINHTTP_CONNECTION_ERROR);
    EXPECT_TRUE(text.empty());
    EXPECT_EQ(bytes.get(), nullptr);
}

// The lenient default ignores an unknown authority, a name mismatch and an
// expired certificate; Windows still refuses a wrong usage or a weak
// signature (12175). Strict trust ignores nothing.
TEST_F(CWinHttpOnWindows, WhichCertificateProblemsTheDefaultAccepts) {
    ASSERT_EQ(OpenChannel(TRUE), 0u);
    struct Row {
        DWORD problems;
        DWORD code;
    } rows[] = {
        {FakeWinHttp::kUnknownCa | FakeWinHttp::kNameMismatch | FakeWinHttp::kExpired, 0},
        {FakeWinHttp::kWrongUsage, ZEB_ERROR_WINHTTP_SECURE_FAILURE},
        {FakeWinHttp::kWeakSignature, ZEB_ERROR_WINHTTP_SECURE_FAILURE},
    };
    for (const Row& row : rows) {
        FakeWinHttp::Answer answer = FakeWinHttp::Body(kSoap);
        answer.certificateProblems = row.problems;
        fake.Queue(answer);
        EXPECT_EQ(Send(), row.code) << std::hex << row.problems;
    }
    ASSERT_FALSE(fake.Requests().empty());
    EXPECT_EQ(fake.Requests()[0].securityFlags, 0x3100u);

    channel.reset();
    UseSettings("Timeout=3000\r\nStrictServerCertificate=1\r\nDebugLevel=1\r\n");
    qvtest::TraceCapture trace;
    ASSERT_EQ(OpenChannel(TRUE), 0u);
    FakeWinHttp::Answer selfSigned = FakeWinHttp::Body(kSoap);
    selfSigned.certificateProblems = FakeWinHttp::kUnknownCa;
    fake.Queue(selfSigned);
    EXPECT_EQ(Send(), ZEB_ERROR_WINHTTP_SECURE_FAILURE);
    EXPECT_EQ(trace.Count(L"CWinHttp::Request StrictServerCertificate: server certificate or secure channel "
                          L"refused Error = 00002f8f, ZEB_ERROR = d5020014"),
              1u);
}

TEST_F(CWinHttpOnWindows, RedirectLocationForms) {
    struct Row {
        const wchar_t* location;
        DWORD code;
        BOOL ssl;
    } rows[] = {
        {L"https://srv:8443/wls/STSServer.actv", ZEB_ERROR_WINHTTP_REDIRECT, TRUE},
        {L"HTTPS://SRV:8443/WLS/STSSERVER.ACTV", ZEB_ERROR_WINHTTP_REDIRECT, TRUE},
        {L"https://srv:443/wls/STSServer.actv", ZEB_ERROR_WINHTTP_DIFFERENT_REDIRECT_URL, FALSE},
        {L"https://srv/wls/STSServer.actv", ZEB_ERROR_WINHTTP_DIFFERENT_REDIRECT_URL, FALSE},
        {L"http://srv:8443/wls/STSServer.actv", ZEB_ERROR_WINHTTP_DIFFERENT_REDIRECT_URL, FALSE},
        {L"https://other:8443/wls/STSServer.actv", ZEB_ERROR_WINHTTP_DIFFERENT_REDIRECT_URL, FALSE},
        {L"https://srv:8443/wls/STSServer.actv?next=1", ZEB_ERROR_WINHTTP_DIFFERENT_REDIRECT_URL, FALSE},
        {L"https://srv:8443/other.actv", ZEB_ERROR_WINHTTP_DIFFERENT_REDIRECT_URL, FALSE},
    };
    for (const Row& row : rows) {
        ASSERT_EQ(OpenChannel(), 0u);
        fake.Queue(FakeWinHttp::Redirect(row.location));
        EXPECT_EQ(Send(), row.code) << std::string(row.location, row.location + wcslen(row.location));
        EXPECT_EQ(channel->GetSSLMode(), row.ssl);
        channel.reset();
    }
    // No Location at all: the header query's own code.
    ASSERT_EQ(OpenChannel(), 0u);
    fake.Queue(FakeWinHttp::Status(302));
    EXPECT_EQ(Send(), ZEB_ERROR_WINHTTP_HEADER_NOT_FOUND);
    // A Location without a scheme cannot be cracked: refused, in the channel's family.
    fake.Queue(FakeWinHttp::Redirect(L"/wls/STSServer.actv"));
    DWORD code = Send();
    EXPECT_TRUE(ZEB_FAILED(code));
    EXPECT_EQ(code & 0xFFFF0000u, 0xD5020000u);
    EXPECT_FALSE(channel->GetSSLMode());
}

TEST_F(CWinHttpOnWindows, EveryHandleIsClosedAfterEachExchange) {
    ASSERT_EQ(OpenChannel(), 0u);
    EXPECT_EQ(fake.OpenHandles(), 2u);  // session and connection
    fake.Queue(FakeWinHttp::Body(kSoap));
    fake.Queue(FakeWinHttp::ReceiveFails(ERROR_WINHTTP_TIMEOUT));
    fake.Queue(FakeWinHttp::Status(503));
    for (int i = 0; i < 3; ++i) {
        Send();
        EXPECT_EQ(fake.OpenHandles(), 2u);
    }
    channel.reset();
    EXPECT_EQ(fake.OpenHandles(), 0u);
}

}  // namespace
