// The transport session's retry loops on the scripted WinHTTP with Windows'
// own time-out code (12002; Wine reports 10060 for a silent server).
#include <gtest/gtest.h>

#include "transport/TransportTestSupport.h"

#include <memory>
#include <string>

#include "Quorvantis.h"
#include "soap/SoapRequest.h"
#include "soap/SoapResponse.h"
#include "support/FakeWinHttp.h"
#include "transport/CSoapTrans.h"

using qvtest::FakeWinHttp;

namespace {

const wchar_t kStsPath[] = L"/wls/STSServer.actv";
const char kOk[] =
    "<soap:Envelope xmlns:soap=\"http://www.w3.org/2003/05/soap-envelope\"><soap:Body><pong>ok</pong>"
    "</soap:Body></soap:Envelope>";

class CSoapTransOnWindows : public ::testing::Test {
protected:
    DWORD Exchange(const std::string& settingsLines) {
        settings.reset(new qvtest::ScopedSettings(settingsLines));
        CSoapTrans trans(L"srv", 8000, 8443);
        EXPECT_EQ(trans.Open(FALSE), 0u);
        EXPECT_EQ(trans.SetUrl(kStsPath), 0u);
        SoapRequest request(L"srv", 8000, 8443, kStsPath);
        request.SetSoapHeader(L"<soap:Header><wsa:Action>urn:test</wsa:Action><wsa:To></wsa:To></soap:Header>");
        request.SetSoapBody(L"<soap:Body><ping/></soap:Body>");
        request.SetAction(L"urn:test");
        return trans.Request(&request, &response, L"");
    }
    std::vector<bool> SecureSends() const {
        std::vector<bool> secure;
        for (const FakeWinHttp::Request& r : fake.Requests()) secure.push_back((r.openFlags & WINHTTP_FLAG_SECURE) != 0);
        return secure;
    }

    std::unique_ptr<qvtest::ScopedSettings> settings;
    FakeWinHttp fake;
    SoapResponse response;
};

TEST_F(CSoapTransOnWindows, ATimeOutIsRetriedThenSucceeds) {
    fake.Queue(FakeWinHttp::ReceiveFails(ERROR_WINHTTP_TIMEOUT));
    fake.Queue(FakeWinHttp::Body(kOk));
    EXPECT_EQ(Exchange("RetryCount=1\r\n"), 0u);
    EXPECT_EQ(fake.SendAttempts(), 2u);
}

TEST_F(CSoapTransOnWindows, RetryCountZeroGivesTheTimeOutAfterOneAttempt) {
    fake.Repeat(FakeWinHttp::ReceiveFails(ERROR_WINHTTP_TIMEOUT));
    EXPECT_EQ(Exchange(""), ZEB_ERROR_WINHTTP_TIMEOUT);
    EXPECT_EQ(fake.SendAttempts(), 1u);
}

// After a redirect the secure channel has a retry loop of its own; a time-out
// that survives it goes back to the first loop, which may send once more.
TEST_F(CSoapTransOnWindows, TimeOutsAfterARedirectUseBothLoops) {
    fake.Queue(FakeWinHttp::Redirect(L"https://srv:8443/wls/STSServer.actv"));
    fake.Repeat(FakeWinHttp::ReceiveFails(ERROR_WINHTTP_TIMEOUT));
    EXPECT_EQ(Exchange("RetryCount=1\r\n"), ZEB_ERROR_WINHTTP_TIMEOUT);
    EXPECT_EQ(fake.SendAttempts(), 4u);
    EXPECT_EQ(SecureSends(), (std::vector<bool>{false, true, true, true}));
}

TEST_F(CSoapTransOnWindows, AResetIsNeverRetried) {
    fake.Repeat(FakeWinHttp::ReceiveFails(ERROR_WINHTTP_CONNECTION_ERROR));
    EXPECT_EQ(Exchange("RetryCount=3\r\n"), ZEB_ERROR_WINHTTP_CONNECTION_ERROR);
    EXPECT_EQ(fake.SendAttempts(), 1u);
}

}  // namespace
