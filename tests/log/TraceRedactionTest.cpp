// What the trace shows of a secret with TraceRedactSecrets on: the mask in
// its place, every other character as it was.
#include <gtest/gtest.h>

#include <string>

#include "log/TraceRedaction.h"

namespace {

using Text = TraceRedaction::Text;

class TraceRedactionTest : public ::testing::Test {
protected:
    void TearDown() override { TraceRedaction::Configure(false); }
};

TEST_F(TraceRedactionTest, RequestSecretsAreMaskedAndTheRestIsKept) {
    const std::wstring body =
        L"<soap:Body><wls:BasicAuthenticationData><wls:Id>alice</wls:Id><wls:Password>pw&amp;1</wls:Password>"
        L"<wls:Domain>LAB</wls:Domain></wls:BasicAuthenticationData>"
        L"<wls:AuthenticationData>YWxpY2U6cHc=</wls:AuthenticationData>"
        L"<CipherInfo><CipherData>q83vEjRW</CipherData></CipherInfo></soap:Body>";
    EXPECT_EQ(TraceRedaction::MaskRequest(body),
              L"<soap:Body><wls:BasicAuthenticationData><wls:Id>alice</wls:Id><wls:Password>***</wls:Password>"
              L"<wls:Domain>LAB</wls:Domain></wls:BasicAuthenticationData>"
              L"<wls:AuthenticationData>***</wls:AuthenticationData>"
              L"<CipherInfo><CipherData>***</CipherData></CipherInfo></soap:Body>");
}

TEST_F(TraceRedactionTest, AnAssertionGoesWholeInRequestsAndAnswers) {
    const std::wstring header =
        L"<soap:Header><wsa:To></wsa:To><wsse:Security soap:mustUnderstand=\"1\"><saml:Assertion "
        L"xmlns:saml=\"urn:oasis:names:tc:SAML:1.0:assertion\" AssertionID=\"_a1\"><saml:Subject>alice</saml:Subject>"
        L"</saml:Assertion></wsse:Security></soap:Header>";
    const std::wstring masked =
        L"<soap:Header><wsa:To></wsa:To><wsse:Security soap:mustUnderstand=\"1\">***</wsse:Security></soap:Header>";
    EXPECT_EQ(TraceRedaction::MaskRequest(header), masked);
    EXPECT_EQ(TraceRedaction::MaskResponse(header), masked);
    // The server's challenge is no secret: answers keep it.
    const std::wstring challenge = L"<wls:AuthenticationData>TlRMTVNTUAAC</wls:AuthenticationData>";
    EXPECT_EQ(TraceRedaction::MaskResponse(challenge), challenge);
    EXPECT_EQ(TraceRedaction::MaskRequest(challenge), L"<wls:AuthenticationData>***</wls:AuthenticationData>");
}

TEST_F(TraceRedactionTest, EdgesOfTheMarkup) {
    // Empty elements hold nothing; similar names are not secrets; a text cut
    // inside a secret shows nothing after its start.
    EXPECT_EQ(TraceRedaction::MaskRequest(L"<wls:Password/><wls:Password></wls:Password>"),
              L"<wls:Password/><wls:Password>***</wls:Password>");
    EXPECT_EQ(TraceRedaction::MaskRequest(L"<PasswordHint>h</PasswordHint><x:CipherDataType>1</x:CipherDataType>"),
              L"<PasswordHint>h</PasswordHint><x:CipherDataType>1</x:CipherDataType>");
    EXPECT_EQ(TraceRedaction::MaskRequest(L"<a><CipherData>abc"), L"<a><CipherData>***");
    EXPECT_EQ(TraceRedaction::MaskRequest(L"<a><saml:Assertion ID=\"1"), L"<a>***");
    EXPECT_EQ(TraceRedaction::MaskRequest(L"no markup at all"), L"no markup at all");
    EXPECT_EQ(TraceRedaction::MaskRequest(L""), L"");
}

TEST_F(TraceRedactionTest, OffShowsTheTextItself) {
    const std::wstring secret = L"<wls:Password>pw</wls:Password>";
    TraceRedaction::Configure(false);
    EXPECT_EQ(TraceRedaction::Show(secret, Text::Request).c_str(), secret.c_str());  // no copy
    EXPECT_EQ(TraceRedaction::Show(secret, Text::Secret).c_str(), secret.c_str());
    TraceRedaction::Configure(true);
    EXPECT_EQ(std::wstring(TraceRedaction::Show(secret, Text::Request).c_str()), L"<wls:Password>***</wls:Password>");
    EXPECT_EQ(std::wstring(TraceRedaction::Show(secret, Text::Secret).c_str()), L"***");
    EXPECT_EQ(TraceRedaction::Show(secret, Text::Plain).c_str(), secret.c_str());
}

}  // namespace
