// The transport session against the reference server: retries, the redirect
// to the secure port and what reaches the response.
#include <gtest/gtest.h>

#include "transport/TransportTestSupport.h"

#include <string>

#include "Quorvantis.h"
#include "soap/SoapRequest.h"
#include "soap/SoapResponse.h"
#include "support/RefServer.h"
#include "transport/CSoapTrans.h"

using qvtest::RefServerInstance;

namespace {

const wchar_t kStsPath[] = L"/wls/STSServer.actv";
const char kStsPathA[] = "/wls/STSServer.actv";
const wchar_t kHeader[] =
    L"<soap:Header><wsa:Action>urn:test:issue</wsa:Action><wsa:To></wsa:To></soap:Header>";
const wchar_t kBody[] = L"<soap:Body><ping/></soap:Body>";
const char kFault[] =
    "<soap:Envelope xmlns:soap=\\\"http://www.w3.org/2003/05/soap-envelope\\\"><soap:Body><soap:Fault>"
    "<soap:Code><soap:Value>soap:Sender</soap:Value></soap:Code>"
    "<soap:Reason><soap:Text>denied</soap:Text></soap:Reason></soap:Fault></soap:Body></soap:Envelope>";
const char kOk[] =
    "<soap:Envelope xmlns:soap=\\\"http://www.w3.org/2003/05/soap-envelope\\\"><soap:Body><pong>ok</pong>"
    "</soap:Body></soap:Envelope>";

bool StartsWith(const std::string& text, const std::string& start) { return text.compare(0, start.size(), start) == 0; }

class CSoapTransTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(server.Ok()); }

    // A session on the server's ports, opened on the STS path.
    void OpenSession(const std::string& settingsLines) {
        settings.reset(new qvtest::ScopedSettings(settingsLines));
        trans.reset(new CSoapTrans(L"127.0.0.1", HttpPort(), HttpsPort()));
        ASSERT_EQ(trans->Open(FALSE), 0u);
        ASSERT_EQ(trans->SetUrl(kStsPath), 0u);
    }
    std::unique_ptr<SoapRequest> MakeRequest() {
        std::unique_ptr<SoapRequest> request(new SoapRequest(L"127.0.0.1", HttpPort(), HttpsPort(), kStsPath));
        request->SetSoapHeader(kHeader);
        request->SetSoapBody(kBody);
        request->SetAction(L"urn:test:issue");
        return request;
    }
    USHORT HttpPort() const { return static_cast<USHORT>(server.HttpPort()); }
    USHORT HttpsPort() const { return static_cast<USHORT>(server.HttpsPort()); }
    std::string PlainTo() const { return "<wsa:To>http://127.0.0.1:" + std::to_string(server.HttpPort()) + kStsPathA + "</wsa:To>"; }
    std::string SecureTo() const { return "<wsa:To>https://127.0.0.1:" + std::to_string(server.HttpsPort()) + kStsPathA + "</wsa:To>"; }

    RefServerInstance server;
    std::unique_ptr<qvtest::ScopedSettings> settings;
    std::unique_ptr<CSoapTrans> trans;
};

}  // namespace

TEST(CSoapTransState, ClosedSessionRefusesWork) {
    CSoapTrans trans(L"127.0.0.1", 8000, 8443);
    SoapRequest request(L"127.0.0.1", 8000, 8443, kStsPath);
    SoapResponse response;
    EXPECT_EQ(trans.Request(&request, &response, L""), ZEB_ERROR_GENERAL_INVALID_INSTANCE);
    EXPECT_EQ(trans.SetUrl(kStsPath), ZEB_ERROR_GENERAL_INVALID_INSTANCE);
    EXPECT_EQ(trans.Request(nullptr, &response, L""), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(trans.Request(&request, nullptr, L""), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(trans.GetChannel(), nullptr);
    EXPECT_FALSE(trans.GetSSLMode());
    EXPECT_TRUE(trans.GetServicePath().empty());

    // Closing twice is harmless; after Close the session refuses work again.
    ASSERT_EQ(trans.Open(FALSE), 0u);
    EXPECT_EQ(trans.SetUrl(kStsPath), 0u);
    EXPECT_EQ(trans.GetServicePath(), kStsPath);
    trans.Close();
    trans.Close();
    EXPECT_EQ(trans.SetUrl(kStsPath), ZEB_ERROR_GENERAL_INVALID_INSTANCE);
}

TEST_F(CSoapTransTest, SendsTheEnvelopeAndLoadsTheAnswer) {
    OpenSession("Timeout=3000\r\n");
    ASSERT_TRUE(server.AddFaults(std::string(R"({"status": 200, "body": ")") + kOk + "\"}"));
    auto request = MakeRequest();
    SoapResponse response;
    ASSERT_EQ(trans->Request(request.get(), &response, L""), 0u);
    std::wstring value;
    EXPECT_EQ(response.GetXMLDataValue(L"soap:Body/pong", value), 0u);
    EXPECT_EQ(value, L"ok");

    auto requests = server.Requests();
    ASSERT_EQ(requests.size(), 1u);
    const auto& r = requests[0];
    EXPECT_EQ(r.Header("Content-Type"), "application/soap+xml; charset=utf-8; action=urn:test:issue");
    EXPECT_EQ(r.Header("User-Agent"), "ZEBWSCLINET");
    EXPECT_TRUE(StartsWith(r.body, "<?xml version=\"1.0\" encoding=\"utf-8\"?><soap:Envelope ")) << r.body;
    EXPECT_NE(r.body.find(PlainTo()), std::string::npos) << r.body;
}

TEST_F(CSoapTransTest, FaultIn500IsSuccessWithTheFaultInTheResponse) {
    OpenSession("Timeout=3000\r\n");
    ASSERT_TRUE(server.AddFaults(std::string(R"({"status": 500, "body": ")") + kFault + "\"}"));
    auto request = MakeRequest();
    SoapResponse response;
    ASSERT_EQ(trans->Request(request.get(), &response, L""), 0u);
    std::wstring reason;
    EXPECT_EQ(response.GetXMLDataValue(L"soap:Body/soap:Fault/soap:Reason/soap:Text", reason), 0u);
    EXPECT_EQ(reason, L"denied");
}

TEST_F(CSoapTransTest, TimeoutWithoutRetriesCostsOneAttempt) {
    OpenSession("Timeout=400\r\nRetryCount=0\r\n");
    ASSERT_TRUE(server.AddFaults(R"({"delay_ms": 3000, "times": 0, "status": 200, "body": "<late/>"})"));
    auto request = MakeRequest();
    SoapResponse response;
    DWORD start = GetTickCount();
    EXPECT_EQ(trans->Request(request.get(), &response, L""), ZEB_ERROR_WINHTTP_TIMEOUT);
    DWORD elapsed = GetTickCount() - start;
    EXPECT_LT(elapsed, 2500u);
    EXPECT_EQ(server.Requests().size(), 1u);
    EXPECT_FALSE(response.HasDocument());
}

TEST_F(CSoapTransTest, TimeoutIsRetriedRetryCountTimes) {
    OpenSession("Timeout=400\r\nRetryCount=2\r\n");
    ASSERT_TRUE(server.AddFaults(R"({"delay_ms": 3000, "times": 0, "status": 200, "body": "<late/>"})"));
    auto request = MakeRequest();
    SoapResponse response;
    DWORD start = GetTickCount();
    EXPECT_EQ(trans->Request(request.get(), &response, L""), ZEB_ERROR_WINHTTP_TIMEOUT);
    DWORD elapsed = GetTickCount() - start;
    EXPECT_GE(elapsed, 1000u);  // three bounded waits of 400 ms
    EXPECT_LT(elapsed, 4000u);
    EXPECT_EQ(server.Requests().size(), 3u);
}

TEST_F(CSoapTransTest, TimeoutThenAnswerSucceedsOnTheRetry) {
    OpenSession("Timeout=400\r\nRetryCount=2\r\n");
    ASSERT_TRUE(server.AddFaults(std::string(R"([{"delay_ms": 3000, "status": 200, "body": "<late/>"},
                                                 {"status": 200, "body": ")") + kOk + "\"}]"));
    auto request = MakeRequest();
    SoapResponse response;
    EXPECT_EQ(trans->Request(request.get(), &response, L""), 0u);
    EXPECT_EQ(server.Requests().size(), 2u);
    EXPECT_TRUE(response.HasDocument());
}

TEST_F(CSoapTransTest, RefusedConnectionIsNotRetried) {
    settings.reset(new qvtest::ScopedSettings("Timeout=3000\r\nRetryCount=2\r\n"));
    trans.reset(new CSoapTrans(L"127.0.0.1", static_cast<USHORT>(qvtest::ClosedPort()), HttpsPort()));
    ASSERT_EQ(trans->Open(FALSE), 0u);
    ASSERT_EQ(trans->SetUrl(kStsPath), 0u);
    auto request = MakeRequest();
    SoapResponse response;
    DWORD start = GetTickCount();
    EXPECT_EQ(trans->Request(request.get(), &response, L""), ZEB_ERROR_WINHTTP_CANNOT_CONNECT);
    EXPECT_LT(GetTickCount() - start, 2500u);
    EXPECT_TRUE(server.Requests().empty());
}

TEST_F(CSoapTransTest, RedirectToTheSecurePortResendsWithSecureAddressing) {
    OpenSession("Timeout=3000\r\n");
    std::string location = "https://127.0.0.1:" + std::to_string(server.HttpsPort()) + "/WLS/STSSERVER.actv";
    ASSERT_TRUE(server.AddFaults(R"([{"status": 302, "body": "", "location": ")" + location + R"("},
                                     {"status": 200, "times": 2, "body": ")" + kOk + "\"}]"));
    auto request = MakeRequest();
    SoapResponse response;
    ASSERT_EQ(trans->Request(request.get(), &response, L""), 0u);
    EXPECT_TRUE(response.HasDocument());
    EXPECT_TRUE(trans->GetSSLMode());

    // The session stays secure: the next exchange goes straight to TLS.
    SoapResponse second;
    ASSERT_EQ(trans->Request(request.get(), &second, L""), 0u);

    auto requests = server.Requests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_FALSE(requests[0].tls);
    EXPECT_NE(requests[0].body.find(PlainTo()), std::string::npos);
    for (size_t i = 1; i < 3; ++i) {
        EXPECT_TRUE(requests[i].tls) << i;
        EXPECT_EQ(requests[i].path, kStsPathA) << i;
        EXPECT_NE(requests[i].body.find(SecureTo()), std::string::npos) << requests[i].body;
    }
}

TEST_F(CSoapTransTest, SecondRedirectIsNotFollowed) {
    OpenSession("Timeout=3000\r\n");
    std::string location = "https://127.0.0.1:" + std::to_string(server.HttpsPort()) + kStsPathA;
    ASSERT_TRUE(server.AddFaults(R"({"status": 302, "body": "", "times": 2, "location": ")" + location + "\"}"));
    auto request = MakeRequest();
    SoapResponse response;
    EXPECT_EQ(trans->Request(request.get(), &response, L""), ZEB_ERROR_WINHTTP_REDIRECT);
    EXPECT_EQ(server.Requests().size(), 2u);
    EXPECT_FALSE(response.HasDocument());
}

TEST_F(CSoapTransTest, RefusedRedirectLeavesTheSessionPlain) {
    OpenSession("Timeout=3000\r\n");
    std::string location = "https://127.0.0.1:" + std::to_string(server.HttpsPort()) + kStsPathA + "?again";
    ASSERT_TRUE(server.AddFaults(R"({"status": 302, "body": "", "location": ")" + location + "\"}"));
    auto request = MakeRequest();
    SoapResponse response;
    EXPECT_EQ(trans->Request(request.get(), &response, L""), ZEB_ERROR_WINHTTP_DIFFERENT_REDIRECT_URL);
    EXPECT_FALSE(trans->GetSSLMode());
    ASSERT_NE(trans->GetChannel(), nullptr);
    EXPECT_FALSE(trans->GetChannel()->GetSSLMode());
    EXPECT_EQ(server.Requests().size(), 1u);
}

TEST_F(CSoapTransTest, MtomExchangeHandsTheBytesToTheResponse) {
    OpenSession("Timeout=3000\r\n");
    ASSERT_TRUE(server.AddFaults(std::string(R"({"status": 200, "body": ")") + kOk +
                                 R"(", "mtom": {"boundary": "B1"}, "chunks": [30, 30], "chunk_delay_ms": 100})"));
    auto request = MakeRequest();
    SoapResponse response;
    ASSERT_EQ(trans->Request(request.get(), &response, L"01234567890123456789"), 0u);
    ASSERT_NE(response.GetMTOMData(), nullptr);
    EXPECT_GT(response.GetMTOMDataSize(), 60u);

    auto requests = server.Requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_TRUE(StartsWith(requests[0].body, "\r\n----MIMEBoundary01234567890123456789\r\n")) << requests[0].body;
}

TEST_F(CSoapTransTest, TraceNamesEachTimeoutAndTheMappedError) {
    OpenSession("Timeout=400\r\nRetryCount=1\r\nDebugLevel=5\r\nDebugFile={dir}\\trace.log\r\n");
    ASSERT_TRUE(server.AddFaults(R"({"delay_ms": 3000, "times": 0, "status": 200, "body": "<late/>"})"));
    auto request = MakeRequest();
    SoapResponse response;
    EXPECT_EQ(trans->Request(request.get(), &response, L""), ZEB_ERROR_WINHTTP_TIMEOUT);
    trans.reset();
    std::string trace = qvtest::ReadFileBytes(settings->File(L"trace.log"));
    std::string wide;  // the file may hold UTF-16 text: keep the low bytes
    for (char c : trace)
        if (c != '\0') wide.push_back(c);
    auto count = [&](const std::string& text) {
        size_t n = 0;
        for (size_t at = wide.find(text); at != std::string::npos; at = wide.find(text, at + 1)) ++n;
        return n;
    };
    EXPECT_EQ(count("CSoapTrans::Request IN"), 1u) << wide;
    EXPECT_EQ(count("CWinHttp::SendRequest IN"), 2u);
    EXPECT_EQ(count("ZEB_ERROR_WINHTTP_TIMEOUT"), 2u);
    EXPECT_EQ(count("dwFlags = 0x00003100"), 2u);
    // Windows reports 12002 here, Wine 10060 (WSAETIMEDOUT); both map to the time-out.
    EXPECT_EQ(count("CWinHttp::Request WinHttpReceiveResponse Error = 00002ee2, ZEB_ERROR = d5020001") +
                  count("CWinHttp::Request WinHttpReceiveResponse Error = 0000274c, ZEB_ERROR = d5020001"),
              2u);
    EXPECT_EQ(count("CWinHttp::Open IN"), 1u);
}
