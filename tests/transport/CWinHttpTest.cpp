// The HTTP channel against the reference server over real loopback sockets.
#include <gtest/gtest.h>

#include "transport/TransportTestSupport.h"

#include <cstdlib>
#include <string>

#include "Quorvantis.h"
#include "common/HeapBuffer.h"
#include "support/RefServer.h"
#include "transport/CWinHttp.h"

using qvtest::RefServerInstance;
using qvtest::Wide;

namespace {

const wchar_t kStsPath[] = L"/wls/STSServer.actv";
const char kStsPathA[] = "/wls/STSServer.actv";
const wchar_t kEnvelope[] =
    L"<?xml version=\"1.0\" encoding=\"utf-8\"?><soap:Envelope "
    L"xmlns:soap=\"http://www.w3.org/2003/05/soap-envelope\"><soap:Body>caf\u00e9</soap:Body></soap:Envelope>";
const char kFault[] =
    "<soap:Envelope xmlns:soap=\\\"http://www.w3.org/2003/05/soap-envelope\\\"><soap:Body><soap:Fault>"
    "<soap:Reason><soap:Text>denied</soap:Text></soap:Reason></soap:Fault></soap:Body></soap:Envelope>";

// One exchange's outputs.
struct Exchange {
    std::wstring text;
    qv::ByteBuffer bytes;
    DWORD byteCount = 0;
    DWORD Send(CWinHttp& channel, const std::wstring& action = L"", const std::wstring& mtomId = L"",
               const std::wstring& envelope = kEnvelope) {
        return channel.SendRequest(action, envelope, &text, qv::out_param(bytes, byteCount), &byteCount, mtomId);
    }
};

class CWinHttpTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(server.Ok()); }

    // An open channel on the plain (or secure) port with the STS path.
    void OpenChannel(BOOL ssl = FALSE) {
        channel.reset(new CWinHttp(L"127.0.0.1", static_cast<USHORT>(server.HttpPort()),
                                   static_cast<USHORT>(server.HttpsPort())));
        channel->SetSSLMode(ssl);
        ASSERT_EQ(channel->Open(), 0u);
        channel->SetObjectPath(kStsPath);
    }

    void Answer(const std::string& rule) { ASSERT_TRUE(server.AddFaults(rule)); }

    qvtest::ScopedSettings settings{"Timeout=3000\r\nRetryCount=0\r\n"};
    RefServerInstance server;
    std::unique_ptr<CWinHttp> channel;
};

}  // namespace

TEST(CWinHttpMapping, OneTableGivesEveryCode) {
    EXPECT_EQ(CWinHttp::MapWinHttpError(12002), ZEB_ERROR_WINHTTP_TIMEOUT);
    EXPECT_EQ(CWinHttp::MapWinHttpError(10060), ZEB_ERROR_WINHTTP_TIMEOUT);
    EXPECT_EQ(CWinHttp::MapWinHttpError(12004), 0xD5020002u);
    EXPECT_EQ(CWinHttp::MapWinHttpError(12029), ZEB_ERROR_WINHTTP_CANNOT_CONNECT);
    EXPECT_EQ(CWinHttp::MapWinHttpError(12175), 0xD5020014u);
    EXPECT_EQ(CWinHttp::MapWinHttpError(12184), 0xD5020018u);
    EXPECT_EQ(CWinHttp::MapWinHttpError(8), 0xD5020019u);
    EXPECT_EQ(CWinHttp::MapWinHttpError(87), 0xD502001Au);
    EXPECT_EQ(CWinHttp::MapWinHttpError(122), 0xD502001Bu);
    EXPECT_EQ(CWinHttp::MapWinHttpError(0xD502001C), 0xD502001Cu);
    EXPECT_EQ(CWinHttp::MapWinHttpError(0), ZEB_ERROR_WINHTTP_UNKNOWN);
    EXPECT_EQ(CWinHttp::MapWinHttpError(12157), ZEB_ERROR_WINHTTP_UNKNOWN);
}

TEST(CWinHttpHeaders, PlainAndMtomContentTypeTexts) {
    EXPECT_EQ(CWinHttp::ContentTypeHeader(L"", L""), L"Content-Type: application/soap+xml; charset=utf-8;");
    EXPECT_EQ(CWinHttp::ContentTypeHeader(L"urn:a", L""),
              L"Content-Type: application/soap+xml; charset=utf-8; action=urn:a");
    EXPECT_EQ(CWinHttp::ContentTypeHeader(L"urn:a", L"ID1"),
              L"content-Type: multipart/related; type=\"application/xop+xml\"; boundary=--MIMEBoundaryID1; "
              L"start=\"<0.ID1@example.org>\"; start-info=\"application/soap+xml; charset=utf-8\"");
    EXPECT_TRUE(CWinHttp::IsAcceptedContentType(L"text/xml; charset=utf-8"));
    EXPECT_TRUE(CWinHttp::IsAcceptedContentType(L"application/soap+xml; charset=utf-8"));
    EXPECT_TRUE(CWinHttp::IsAcceptedContentType(L"multipart/related; start-info=\"application/soap+xml\""));
    EXPECT_FALSE(CWinHttp::IsAcceptedContentType(L"multipart/related; boundary=x"));
    EXPECT_FALSE(CWinHttp::IsAcceptedContentType(L"application/json"));
    EXPECT_FALSE(CWinHttp::IsAcceptedContentType(L"Text/XML"));
}

TEST(CWinHttpProxy, ListNamesTheProxyForBothSchemes) {
    EXPECT_EQ(CWinHttp::BuildProxyList(L""), L"");
    EXPECT_EQ(CWinHttp::BuildProxyList(L"proxy:8080"), L"http=proxy:8080;https=proxy:8080");
    {
        qvtest::ScopedSettings settings("WebProxy=proxy:8080\r\n");
        CWinHttp channel(L"127.0.0.1", 8000, 8443);
        // Only the list is checked: Wine cannot use the per-scheme list form.
        ASSERT_EQ(channel.Open(), 0u);
        EXPECT_EQ(channel.ProxyList(), L"http=proxy:8080;https=proxy:8080");
    }
    qvtest::ScopedSettings settings("Timeout=2000\r\n");
    CWinHttp direct(L"127.0.0.1", 8000, 8443);
    ASSERT_EQ(direct.Open(), 0u);
    EXPECT_EQ(direct.ProxyList(), L"");
}

TEST(CWinHttpArguments, MissingOutputsAreRefused) {
    CWinHttp channel(L"127.0.0.1", 8000, 8443);
    std::wstring text;
    BYTE* bytes = nullptr;
    DWORD count = 0;
    EXPECT_EQ(channel.SendRequest(L"", kEnvelope, nullptr, &bytes, &count, L""), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(channel.SendRequest(L"", kEnvelope, &text, nullptr, &count, L""), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(channel.SendRequest(L"", kEnvelope, &text, &bytes, nullptr, L""), ZEB_ERROR_INVALID_PARAMETER);
}

TEST_F(CWinHttpTest, PostsUtf8EnvelopeWithExactHeaders) {
    OpenChannel();
    Answer(R"({"status": 200, "content_type": "text/xml; charset=utf-8", "body": "<ok>\u00e9</ok>"})");
    Exchange ex;
    ASSERT_EQ(ex.Send(*channel, L"urn:test:action"), 0u);
    EXPECT_EQ(ex.text, L"<ok>\u00e9</ok>");
    EXPECT_EQ(ex.bytes.get(), nullptr);  // plain exchange: no byte copy
    EXPECT_EQ(ex.byteCount, 0u);

    auto requests = server.Requests();
    ASSERT_EQ(requests.size(), 1u);
    const auto& r = requests[0];
    EXPECT_EQ(r.method, "POST");
    EXPECT_EQ(r.path, kStsPathA);
    EXPECT_FALSE(r.tls);
    EXPECT_EQ(r.Header("Content-Type"), "application/soap+xml; charset=utf-8; action=urn:test:action");
    EXPECT_EQ(r.Header("User-Agent"), "ZEBWSCLINET");
    EXPECT_EQ(r.body, qvtest::Utf8(kEnvelope));
    EXPECT_EQ(r.Header("Content-Length"), std::to_string(qvtest::Utf8(kEnvelope).size()));
}

TEST_F(CWinHttpTest, ServerFaultsIn400And500AreReadAsSuccess) {
    OpenChannel();
    for (int status : {500, 400}) {
        Answer(std::string(R"({"status": )") + std::to_string(status) + R"(, "body": ")" + kFault + "\"}");
        Exchange ex;
        EXPECT_EQ(ex.Send(*channel), 0u) << status;
        EXPECT_NE(ex.text.find(L"<soap:Text>denied</soap:Text>"), std::wstring::npos) << status;
    }
}

TEST_F(CWinHttpTest, NotFoundFailsWithoutReadingTheBody) {
    OpenChannel();
    // The body would take 10 s: the answer must come back long before.
    Answer(R"({"status": 404, "body": "missing", "content_type": "text/plain", "body_delay_ms": 10000})");
    Exchange ex;
    DWORD start = GetTickCount();
    EXPECT_EQ(ex.Send(*channel), ZEB_ERROR_WINHTTP_CONNECTED_FAILURE);
    EXPECT_LT(GetTickCount() - start, 2500u);
    EXPECT_TRUE(ex.text.empty());
}

TEST_F(CWinHttpTest, OtherStatusGivesTheMappedLastError) {
    OpenChannel();
    Answer(R"({"status": 401, "body": "no"})");
    Exchange ex;
    DWORD code = ex.Send(*channel);
    // Whatever the last error was, it goes through the channel's mapping.
    EXPECT_EQ(code & 0xFFFF0000u, 0xD5020000u);
    EXPECT_NE(code, ZEB_ERROR_WINHTTP_CONNECTED_FAILURE);
    EXPECT_TRUE(ex.text.empty());
}

TEST_F(CWinHttpTest, ContentTypesOutsideTheListAreRefused) {
    OpenChannel();
    Answer(R"([{"status": 200, "body": "{}", "content_type": "application/json"},
               {"status": 200, "body": "<a/>", "content_type": "multipart/related; boundary=x"},
               {"status": 200, "body": "<a/>", "content_type": "text/xml; charset=utf-8"}])");
    Exchange ex;
    EXPECT_EQ(ex.Send(*channel), ZEB_ERROR_WINHTTP_UNKNOWN_CONTENT_TYPE);
    EXPECT_TRUE(ex.text.empty());
    EXPECT_EQ(ex.Send(*channel), ZEB_ERROR_WINHTTP_UNKNOWN_CONTENT_TYPE);
    EXPECT_EQ(ex.Send(*channel), 0u);
    EXPECT_EQ(ex.text, L"<a/>");
}

TEST_F(CWinHttpTest, MtomAnswerInSeveralChunksComesBackAsOneBuffer) {
    OpenChannel();
    const std::string answer =
        R"("status": 200, "body": "<soap:Envelope xmlns:soap=\"http://www.w3.org/2003/05/soap-envelope\"/>",
           "mtom": {"boundary": "MIMEBoundaryX", "start": "<0.X@example.org>",
                    "parts": [{"content_id": "<bin>", "body_b64": "AAECAwQFBgcICQ=="}]})";
    // The same answer in one piece, then chunked with pauses so that each
    // chunk is a read of its own.
    Answer("[{" + answer + "}, {" + answer + R"(, "chunks": [40, 60, 80], "chunk_delay_ms": 150}])");
    Exchange whole;
    ASSERT_EQ(whole.Send(*channel, L"urn:a", L"0123-4567"), 0u);
    Exchange chunked;
    ASSERT_EQ(chunked.Send(*channel, L"urn:a", L"0123-4567"), 0u);

    auto requests = server.Requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].Header("Content-Type"),
              "multipart/related; type=\"application/xop+xml\"; boundary=--MIMEBoundary0123-4567; "
              "start=\"<0.0123-4567@example.org>\"; start-info=\"application/soap+xml; charset=utf-8\"");

    ASSERT_NE(whole.bytes.get(), nullptr);
    ASSERT_NE(chunked.bytes.get(), nullptr);
    std::string one(reinterpret_cast<const char*>(whole.bytes.get()), whole.byteCount);
    std::string assembled(reinterpret_cast<const char*>(chunked.bytes.get()), chunked.byteCount);
    EXPECT_GT(chunked.byteCount, 180u);  // three sized chunks and the rest
    EXPECT_EQ(assembled, one);           // the sum of the chunks, in arrival order
    EXPECT_EQ(one.substr(0, 19), "\r\n--MIMEBoundaryX\r\n");
    EXPECT_NE(one.find(std::string("\x00\x01\x02\x03\x04\x05\x06\x07\x08\x09", 10)), std::string::npos);
    EXPECT_EQ(one.substr(one.size() - 19), "--MIMEBoundaryX--\r\n");
    // The text is converted chunk by chunk and stops at a chunk's first zero byte.
    EXPECT_NE(chunked.text.find(L"<0.X@example.org>"), std::wstring::npos);
}

TEST_F(CWinHttpTest, RedirectToTheSecurePortInAnyCaseIsAccepted) {
    OpenChannel();
    std::string location = "HTTPS://127.0.0.1:" + std::to_string(server.HttpsPort()) + "/WLS/stsserver.ACTV";
    Answer(R"({"status": 302, "body": "", "location": ")" + location + "\"}");
    Exchange ex;
    EXPECT_EQ(ex.Send(*channel), ZEB_ERROR_WINHTTP_REDIRECT);
    EXPECT_TRUE(channel->GetSSLMode());
}

TEST_F(CWinHttpTest, OtherRedirectsAreRefusedAndLeaveSslModeClear) {
    std::string https = "https://127.0.0.1:" + std::to_string(server.HttpsPort());
    const std::string refused[] = {
        "https://127.0.0.1:" + std::to_string(server.HttpPort()) + kStsPathA,  // other port
        "http://127.0.0.1:" + std::to_string(server.HttpsPort()) + kStsPathA,  // plain scheme
        https + "/wls/WLSPolicyService.actv",                                  // other path
        https + kStsPathA + "?x=1",                                            // query string
        "https://127.0.0.2:" + std::to_string(server.HttpsPort()) + kStsPathA,  // other host
    };
    for (const std::string& location : refused) {
        OpenChannel();
        Answer(R"({"status": 302, "body": "", "location": ")" + location + "\"}");
        Exchange ex;
        EXPECT_EQ(ex.Send(*channel), ZEB_ERROR_WINHTTP_DIFFERENT_REDIRECT_URL) << location;
        EXPECT_FALSE(channel->GetSSLMode()) << location;
    }
    // A refusal on a secure channel clears its SSL mode as well.
    OpenChannel(TRUE);
    Answer(R"({"status": 302, "body": "", "location": "http://127.0.0.1/"})");
    Exchange ex;
    EXPECT_EQ(ex.Send(*channel), ZEB_ERROR_WINHTTP_DIFFERENT_REDIRECT_URL);
    EXPECT_FALSE(channel->GetSSLMode());
    auto requests = server.Requests();
    ASSERT_FALSE(requests.empty());
    EXPECT_TRUE(requests.back().tls);
}

TEST_F(CWinHttpTest, SecureExchangeTrustsTheSelfSignedCertificate) {
    OpenChannel(TRUE);
    Answer(R"({"status": 200, "body": "<ok/>"})");
    Exchange ex;
    ASSERT_EQ(ex.Send(*channel), 0u);
    EXPECT_EQ(ex.text, L"<ok/>");
    auto requests = server.Requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_TRUE(requests[0].tls);
}

TEST_F(CWinHttpTest, RefusedConnectionIsCannotConnect) {
    channel.reset(new CWinHttp(L"127.0.0.1", static_cast<USHORT>(qvtest::ClosedPort()), 1));
    ASSERT_EQ(channel->Open(), 0u);
    channel->SetObjectPath(kStsPath);
    Exchange ex;
    EXPECT_EQ(ex.Send(*channel), ZEB_ERROR_WINHTTP_CANNOT_CONNECT);
}

TEST_F(CWinHttpTest, KeepAlivePolicyDecidesConnectionReuse) {
    // The policy ini sits beside the running program, named with the last two
    // letters of its base name (Dellipsor.ini -> DellipsorXY.ini).
    wchar_t program[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    std::wstring path = program;
    size_t slash = path.find_last_of(L'\\');
    size_t dot = path.find_last_of(L'.');
    ASSERT_TRUE(slash != std::wstring::npos && dot != std::wstring::npos && dot >= slash + 3);
    std::wstring ini = path.substr(0, slash + 1) + L"Dellipsor" + path.substr(dot - 2, 2) + L".ini";
    DeleteFileW(ini.c_str());

    auto exchangeTwice = [&]() {
        OpenChannel();
        Answer(R"({"status": 200, "body": "<a/>", "times": 2})");
        Exchange ex;
        EXPECT_EQ(ex.Send(*channel), 0u);
        EXPECT_EQ(ex.Send(*channel), 0u);
        auto requests = server.Requests();
        EXPECT_GE(requests.size(), 2u);
        return requests.size() >= 2 && requests[requests.size() - 1].connection == requests[requests.size() - 2].connection;
    };

    // No policy file: keep-alive is off, every exchange has its own connection.
    EXPECT_FALSE(exchangeTwice());
    EXPECT_EQ(channel->DisableFeatureValue(), static_cast<DWORD>(WINHTTP_DISABLE_REDIRECTS | WINHTTP_DISABLE_KEEP_ALIVE));

    ASSERT_TRUE(qvtest::WriteFileBytes(ini, "[ServerSettings]\r\nWlsKeepAlive=1\r\n"));
    bool reused = exchangeTwice();
    USHORT policy = channel->KeepAlivePolicy();
    DWORD feature = channel->DisableFeatureValue();
    DeleteFileW(ini.c_str());
    EXPECT_TRUE(reused);
    EXPECT_EQ(policy, 1u);
    EXPECT_EQ(feature, static_cast<DWORD>(WINHTTP_DISABLE_REDIRECTS));
}
