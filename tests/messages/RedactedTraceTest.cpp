// Each level-5 line that carries a secret, with TraceRedactSecrets 0 (the line
// as it always was) and 1 (the secret replaced by "***", the rest the same).
#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <vector>

#include "MessageTestSupport.h"
#include "Quorvantis.h"
#include "log/TraceRedaction.h"
#include "messages/GetACTRequest.h"
#include "messages/RSTR_SDL.h"
#include "messages/RST_Basic.h"
#include "messages/RST_Basic2.h"
#include "support/TraceCapture.h"

using msgtest::NewRequest;

namespace {

const std::wstring kAssertion = L"<saml:Assertion AssertionID=\"_a1\"><saml:Subject>alice</saml:Subject></saml:Assertion>";

// The message part of every captured line that starts with `start`.
std::vector<std::wstring> Messages(const qvtest::TraceCapture& trace, const std::wstring& start) {
    std::vector<std::wstring> found;
    for (const std::wstring& line : trace.Lines()) {
        const size_t at = line.find(L") : ");
        if (at == std::wstring::npos) continue;
        std::wstring message = line.substr(at + 4);
        if (message.compare(0, start.size(), start) == 0) found.push_back(message);
    }
    return found;
}

class RedactedTrace : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        AddinSettings::Current();  // loaded first: loading sets the trace from the ini
        WSCLog::Configure(5, L"");
        TraceRedaction::Configure(GetParam());
    }
    void TearDown() override {
        WSCLog::Configure(0, L"");
        TraceRedaction::Configure(false);
    }
    // The secret, or the mask when redaction is on.
    std::wstring Shown(const std::wstring& secret) const { return GetParam() ? L"***" : secret; }

    qvtest::TraceCapture trace;
};

TEST_P(RedactedTrace, Basic2Password) {
    wchar_t user[] = L"alice", password[] = L"s3cr&t", domain[] = L"DOM";
    AuthCredential credential = {user, password, domain};
    RST_Basic2 message(L"DOM", L"Basic2", &credential);
    auto request = NewRequest();
    ASSERT_EQ(message.Serialize(request.get()), 0u);
    EXPECT_EQ(Messages(trace, L"SoapRequest::SanitizeUserInputStr. Before Sanitizing = "),
              (std::vector<std::wstring>{L"SoapRequest::SanitizeUserInputStr. Before Sanitizing = DOM",
                                         L"SoapRequest::SanitizeUserInputStr. Before Sanitizing = " + Shown(L"s3cr&t"),
                                         L"SoapRequest::SanitizeUserInputStr. Before Sanitizing = alice",
                                         L"SoapRequest::SanitizeUserInputStr. Before Sanitizing = DOM"}));
    EXPECT_EQ(Messages(trace, L"SoapRequest::SanitizeUserInputStr. After Sanitizing = ")[1],
              L"SoapRequest::SanitizeUserInputStr. After Sanitizing = " + Shown(L"s3cr&amp;t"));
    const std::vector<std::wstring> body = Messages(trace, L"RST_Basic2::Serialize Soap Body =");
    ASSERT_EQ(body.size(), 1u);
    EXPECT_NE(body[0].find(L"<wls:Id>alice</wls:Id><wls:Password>" + Shown(L"s3cr&amp;t") +
                           L"</wls:Password><wls:Domain>DOM</wls:Domain>"),
              std::wstring::npos)
        << body[0].c_str();
}

TEST_P(RedactedTrace, ControlCharactersInAPasswordLogItOncePerCharacter) {
    wchar_t user[] = L"alice", password[] = L"a\tb", domain[] = L"DOM";
    AuthCredential credential = {user, password, domain};
    RST_Basic2 message(L"DOM", L"Basic2", &credential);
    auto request = NewRequest();
    ASSERT_EQ(message.Serialize(request.get()), 0u);
    EXPECT_EQ(Messages(trace, L"wcSrcStr ="), std::vector<std::wstring>{L"wcSrcStr =" + Shown(L"a\tb")});
}

TEST_P(RedactedTrace, BasicPayload) {
    RST_Basic message(L"DOM", L"Basic", L"YWxpY2U6czNjcg==");
    auto request = NewRequest();
    ASSERT_EQ(message.Serialize(request.get()), 0u);
    const std::vector<std::wstring> body = Messages(trace, L"RST_Basic::Serialize Soap Body =");
    ASSERT_EQ(body.size(), 1u);
    EXPECT_NE(body[0].find(L"<wls:AuthenticationData>" + Shown(L"YWxpY2U6czNjcg==") + L"</wls:AuthenticationData>"),
              std::wstring::npos);
}

TEST_P(RedactedTrace, ChallengeAnswerInTheBodyAndTheWholeEnvelope) {
    RSTR_SDL message(L"0a1b2c3d4e5f", L"ctx-1");
    auto request = NewRequest();
    ASSERT_EQ(message.Serialize(request.get()), 0u);
    const std::vector<std::wstring> body = Messages(trace, L"RSTR_SDL::Serialize Soap Body =");
    ASSERT_EQ(body.size(), 1u);
    const std::wstring data = L"<wls:AuthenticationData>" + Shown(L"0a1b2c3d4e5f") + L"</wls:AuthenticationData>";
    EXPECT_NE(body[0].find(data), std::wstring::npos);
    std::wstring envelope;
    request->GetSoapEnvelope(envelope, FALSE, L"");
    const std::vector<std::wstring> sent = Messages(trace, L"RequestMessage=");
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_NE(sent[0].find(data), std::wstring::npos);
    // Everything but the secret is the envelope itself.
    std::wstring expected = envelope;
    if (GetParam()) expected.replace(expected.find(L"0a1b2c3d4e5f"), 12, L"***");
    EXPECT_EQ(sent[0], L"RequestMessage=" + expected);
}

TEST_P(RedactedTrace, EncryptedKeyAndAssertionOfAGetACTRequest) {
    GetACTRequest message(kAssertion, L"printer", L"301", L"1", L"1", L"2048", L"q83vEjRWeJA=",
                          std::deque<std::wstring>{});
    auto request = NewRequest();
    ASSERT_EQ(message.Serialize(request.get()), 0u);
    const std::vector<std::wstring> header = Messages(trace, L"GetACTRequest::Serialize Soap Header =");
    const std::vector<std::wstring> body = Messages(trace, L"GetACTRequest::Serialize Soap Body =");
    ASSERT_EQ(header.size(), 1u);
    ASSERT_EQ(body.size(), 1u);
    EXPECT_NE(header[0].find(L"<wsse:Security soap:mustUnderstand=\"1\">" + Shown(kAssertion) + L"</wsse:Security>"),
              std::wstring::npos)
        << header[0].c_str();
    EXPECT_NE(body[0].find(L"<CipherData>" + Shown(L"q83vEjRWeJA=") + L"</CipherData>"), std::wstring::npos);
    EXPECT_NE(body[0].find(L"<FPName>printer</FPName>"), std::wstring::npos);
}

TEST_P(RedactedTrace, AssertionOfAnAnswer) {
    auto response = msgtest::Answer("rstr_assertion_response", R"({"assertion_id": "_a-77", "name_identifier": "alice"})");
    RST_Basic basic(L"i", L"Basic", L"d");
    ASSERT_EQ(basic.Deserialize(response.get(), L""), 0u);
    EXPECT_EQ(Messages(trace, L"RST_Basic::Deserialize GetXMLString. m_samlToken = "),
              std::vector<std::wstring>{L"RST_Basic::Deserialize GetXMLString. m_samlToken = " + Shown(basic.m_samlToken)});
    // The assertion ID is no secret.
    EXPECT_EQ(Messages(trace, L"RST_Basic::Deserialize GetXMLDataValue. m_assertionID = "),
              std::vector<std::wstring>{L"RST_Basic::Deserialize GetXMLDataValue. m_assertionID = _a-77"});
    const std::vector<std::wstring> answers = Messages(trace, L"ResponseMessage=");
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0].find(L"<saml:Assertion") == std::wstring::npos, GetParam());
    EXPECT_EQ(answers[0].find(L"<wst:RequestedSecurityToken>***</wst:RequestedSecurityToken>") != std::wstring::npos,
              GetParam());
}

INSTANTIATE_TEST_SUITE_P(TraceRedactSecrets, RedactedTrace, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) { return info.param ? "On" : "Off"; });

}  // namespace
