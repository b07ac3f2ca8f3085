// What each message reads from answers built by the reference server's answer
// builders, including answers with parts missing and faults.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>

#include "MessageTestSupport.h"
#include "Quorvantis.h"
#include "messages/CancelRequest.h"
#include "messages/GetACTRequest.h"
#include "messages/GetPolicyRequest.h"
#include "messages/GetPublicKeyRequest.h"
#include "messages/RSTR_NTLM.h"
#include "messages/RSTR_SDL.h"
#include "messages/RST_Basic.h"
#include "messages/RST_Basic2.h"
#include "messages/RST_NTLM.h"
#include "messages/RST_SDL.h"
#include "support/TestSupport.h"

using msgtest::Answer;

namespace {

const char* const kLoginFault =
    R"({"code": "soap:Sender", "subcode": "wls:FailedAuthentication", "subcode_namespace": "urn:orvel:zeb:wls"})";
const char* const kDeviceFault =
    R"({"code": "soap:Receiver", "subcode": "zeb:GetActErrorRequestHmacKey", "subcode_namespace": "urn:orvel:zeb:drvcomm"})";

AuthInfo Record(const wchar_t* info, const wchar_t* authType, DWORD cache) {
    AuthInfo record;
    std::memset(&record, 0, sizeof(record));
    std::wcsncpy(record.Info, info, 63);
    std::wcsncpy(record.AuthType, authType, 63);
    record.bEnableCredentialCache = cache;
    return record;
}

AuthCredential* NoCredential() { return nullptr; }

}  // namespace

TEST(MessageDeserialize, GetPolicyTwoAuthInfoGivesTwoRecordsInOrder) {
    auto response = Answer("get_policy_response",
                           R"({"auth_infos": [{"Info": "Domain login", "AuthType": "NTLM", "EnableCredentialCache": "TRUE"},
                                              {"Info": "Card", "AuthType": "Basic2", "EnableCredentialCache": "yes"}]})");
    GetPolicyRequest message;
    ASSERT_EQ(message.Deserialize(response.get(), L""), 0u);
    ASSERT_EQ(message.GetAuthInfoCount(), 2u);
    qvtest::Malloced<AuthInfo> list(message.DetachAuthInfo());
    ASSERT_NE(list, nullptr);
    const AuthInfo expected[2] = {Record(L"Domain login", L"NTLM", 1), Record(L"Card", L"Basic2", 0)};
    static_assert(sizeof(expected) == 520, "two records are 520 bytes");
    EXPECT_EQ(std::memcmp(list.get(), expected, sizeof(expected)), 0);
    EXPECT_EQ(message.GetAuthInfoCount(), 0u);
    EXPECT_EQ(message.DetachAuthInfo(), nullptr);
}

TEST(MessageDeserialize, GetPolicyWithoutAuthInfoGivesNothing) {
    auto response = Answer("get_policy_response", R"({"auth_infos": []})");
    msgtest::LogCapture log;
    GetPolicyRequest message;
    EXPECT_EQ(message.Deserialize(response.get(), L""), 0u);
    EXPECT_EQ(message.GetAuthInfoCount(), 0u);
    EXPECT_EQ(message.DetachAuthInfo(), nullptr);
    EXPECT_TRUE(log.Contains("GetPolicyRequest::Deserialize GetAuthInfoList failed."));
}

TEST(MessageDeserialize, GetPolicyFaultIsReturnedAndNothingKept) {
    auto response = Answer("soap_fault", kLoginFault);
    msgtest::LogCapture log;
    GetPolicyRequest message;
    EXPECT_EQ(message.Deserialize(response.get(), L""), ZEB_ERROR_FAULT_FAILED_AUTHENTICATION);
    EXPECT_EQ(message.GetAuthInfoCount(), 0u);
    EXPECT_EQ(message.DetachAuthInfo(), nullptr);
    EXPECT_TRUE(log.Contains("GetPolicyRequest::Deserialize ERROR SoapErrorCheck = d5070102"));
}

TEST(MessageDeserialize, GetPublicKeyReadsTheFourValues) {
    auto response = Answer("get_public_key_response",
                           R"({"algorithm": "1", "strength": "2048", "length": "270", "key": "TUlJQkNn"})");
    GetPublicKeyRequest message(L"h");
    ASSERT_EQ(message.Deserialize(response.get(), L""), 0u);
    EXPECT_EQ(message.m_keyAlgorithm, L"1");
    EXPECT_EQ(message.m_keyStrength, L"2048");
    EXPECT_EQ(message.m_keyLength, L"270");
    EXPECT_EQ(message.m_key, L"TUlJQkNn");
}

TEST(MessageDeserialize, GetPublicKeyMissingElementsLeaveEmptyValues) {
    auto response = Answer("get_public_key_response", R"({"algorithm": "1", "strength": null, "length": null, "key": "QQ=="})");
    msgtest::LogCapture log;
    GetPublicKeyRequest message(L"h");
    message.m_keyStrength = L"stale";
    ASSERT_EQ(message.Deserialize(response.get(), L""), 0u);
    EXPECT_EQ(message.m_keyAlgorithm, L"1");
    EXPECT_EQ(message.m_keyStrength, L"");
    EXPECT_EQ(message.m_keyLength, L"");
    EXPECT_EQ(message.m_key, L"QQ==");
    EXPECT_TRUE(log.Contains("GetPublicKeyRequest::Deserialize GetXMLDataValue failes. ERROR = 0x"));
}

TEST(MessageDeserialize, GetPublicKeyFault) {
    auto response = Answer("soap_fault", kDeviceFault);
    GetPublicKeyRequest message(L"h");
    EXPECT_EQ(message.Deserialize(response.get(), L""), ZEB_ERROR_ACT_KEY_REQUIRED);
    EXPECT_TRUE(message.m_key.empty());
}

TEST(MessageDeserialize, GetACTReadsTokenAndSignature) {
    auto response = Answer("get_act_response", R"({"act": "QUNUOnNhbXBsZQ==", "signature": "c2lnbmF0dXJl"})");
    GetACTRequest message(L"h", L"p", L"1", L"160", L"1", L"2048", L"", std::deque<std::wstring>{});
    ASSERT_EQ(message.Deserialize(response.get(), L""), 0u);
    ASSERT_NE(message.GetACTText(), nullptr);
    EXPECT_STREQ(message.GetACTText(), L"QUNUOnNhbXBsZQ==");
    EXPECT_EQ(message.GetACTDataSize(), 16u);
    EXPECT_EQ(message.GetACTDataType(), 1u);
    ASSERT_NE(message.GetSignatureText(), nullptr);
    EXPECT_STREQ(message.GetSignatureText(), L"c2lnbmF0dXJl");
    EXPECT_EQ(message.GetSignatureDataSize(), 12u);
    EXPECT_EQ(message.GetSignatureDataType(), 1u);
    qvtest::Malloced<wchar_t> act(message.DetachACT());
    qvtest::Malloced<wchar_t> signature(message.DetachSignature());
    EXPECT_NE(act, nullptr);
    EXPECT_NE(signature, nullptr);
    EXPECT_EQ(message.GetACTText(), nullptr);
    EXPECT_EQ(message.GetSignatureText(), nullptr);
}

TEST(MessageDeserialize, GetACTWithoutSignatureGivesAnEmptySignature) {
    auto response = Answer("get_act_response", R"({"act": "QUNU"})");
    GetACTRequest message(L"h", L"p", L"1", L"160", L"1", L"2048", L"", std::deque<std::wstring>{});
    ASSERT_EQ(message.Deserialize(response.get(), L""), 0u);
    EXPECT_STREQ(message.GetACTText(), L"QUNU");
    ASSERT_NE(message.GetSignatureText(), nullptr);
    EXPECT_STREQ(message.GetSignatureText(), L"");
    EXPECT_EQ(message.GetSignatureDataSize(), 0u);
    EXPECT_EQ(message.GetSignatureDataType(), 1u);
}

TEST(MessageDeserialize, GetACTFaultTouchesNoOutput) {
    auto response = Answer("soap_fault", kDeviceFault);
    msgtest::LogCapture log;
    GetACTRequest message(L"h", L"p", L"1", L"160", L"1", L"2048", L"", std::deque<std::wstring>{});
    EXPECT_EQ(message.Deserialize(response.get(), L""), ZEB_ERROR_ACT_KEY_REQUIRED);
    EXPECT_EQ(message.GetACTText(), nullptr);
    EXPECT_EQ(message.GetSignatureText(), nullptr);
    EXPECT_EQ(message.GetACTDataSize(), 0u);
    EXPECT_EQ(message.GetACTDataType(), 0u);
    EXPECT_TRUE(log.Contains("GetACTRequest::Deserialize ERROR SoapErrorCheck = d5070404"));
}

TEST(MessageDeserialize, RST_BasicAndBasic2ReadTheAssertion) {
    auto response = Answer("rstr_assertion_response", R"({"assertion_id": "_a-77", "name_identifier": "alice"})");
    RST_Basic basic(L"i", L"Basic", L"d");
    ASSERT_EQ(basic.Deserialize(response.get(), L""), 0u);
    EXPECT_EQ(basic.m_assertionID, L"_a-77");
    EXPECT_EQ(basic.m_samlToken.rfind(L"<saml:Assertion", 0), 0u) << basic.m_samlToken.c_str();
    EXPECT_NE(basic.m_samlToken.find(L"AssertionID=\"_a-77\""), std::wstring::npos);
    EXPECT_NE(basic.m_samlToken.find(L"alice"), std::wstring::npos);

    RST_Basic2 basic2(L"i", L"Basic2", NoCredential());
    ASSERT_EQ(basic2.Deserialize(response.get(), L""), 0u);
    EXPECT_EQ(basic2.m_assertionID, L"_a-77");
    EXPECT_EQ(basic2.m_samlToken, basic.m_samlToken);
}

TEST(MessageDeserialize, RST_BasicWithoutAssertionLeavesOutputsEmpty) {
    auto response = Answer("rstr_assertion_response", R"({"assertion_id": null})");
    msgtest::LogCapture log;
    RST_Basic message(L"i", L"Basic", L"d");
    message.m_assertionID = L"stale";
    message.m_samlToken = L"stale";
    EXPECT_EQ(message.Deserialize(response.get(), L""), 0u);
    EXPECT_TRUE(message.m_assertionID.empty());
    EXPECT_TRUE(message.m_samlToken.empty());
    EXPECT_TRUE(log.Contains("RST_Basic::Deserialize GetXMLDataValue failes. ERROR = 0x"));
    EXPECT_TRUE(log.Contains("RST_Basic::Deserialize GetXMLString failes. ERROR = 0x"));
}

TEST(MessageDeserialize, RST_NTLMAndSDLReadChallengeAndContext) {
    auto response = Answer("rstr_challenge_response", R"({"challenge": "Y2hhbGxlbmdl", "context": "ctx-1"})");
    RST_NTLM ntlm(L"i", L"NTLM", L"d");
    ASSERT_EQ(ntlm.Deserialize(response.get(), L""), 0u);
    EXPECT_EQ(ntlm.m_challenge, L"Y2hhbGxlbmdl");
    EXPECT_EQ(ntlm.m_context, L"ctx-1");
    RST_SDL sdl(L"i", L"SDL", L"d");
    ASSERT_EQ(sdl.Deserialize(response.get(), L""), 0u);
    EXPECT_EQ(sdl.m_challenge, L"Y2hhbGxlbmdl");
    EXPECT_EQ(sdl.m_context, L"ctx-1");
}

TEST(MessageDeserialize, ChallengeWithoutContextGivesEmptyContext) {
    auto response = Answer("rstr_challenge_response", R"({"challenge": "Y2g="})");
    msgtest::LogCapture log;
    RST_SDL message(L"i", L"SDL", L"d");
    message.m_context = L"stale";
    EXPECT_EQ(message.Deserialize(response.get(), L""), 0u);
    EXPECT_EQ(message.m_challenge, L"Y2g=");
    EXPECT_TRUE(message.m_context.empty());
    EXPECT_TRUE(log.Contains("RST_SDL::Deserialize GetXMLDataValue failes. ERROR = 0x"));
}

TEST(MessageDeserialize, RST_LoginFaultIsReturned) {
    auto response = Answer("soap_fault", kLoginFault);
    RST_NTLM message(L"i", L"NTLM", L"d");
    EXPECT_EQ(message.Deserialize(response.get(), L""), ZEB_ERROR_FAULT_FAILED_AUTHENTICATION);
    EXPECT_TRUE(message.m_challenge.empty());
}

TEST(MessageDeserialize, RSTR_NTLMReadsAssertionAndUserName) {
    auto response = Answer("rstr_assertion_response", R"({"assertion_id": "_n1", "name_identifier": "DOM\\Alice"})");
    RSTR_NTLM message(L"d", L"c");
    ASSERT_EQ(message.Deserialize(response.get(), L""), 0u);
    EXPECT_EQ(message.m_assertionID, L"_n1");
    EXPECT_NE(message.m_samlToken.find(L"AssertionID=\"_n1\""), std::wstring::npos);
    EXPECT_EQ(message.m_wstrUserName, L"DOM\\Alice");
}

TEST(MessageDeserialize, RSTR_NTLMWithoutNameIdentifierGivesEmptyUserName) {
    auto response = Answer("rstr_assertion_response", R"({"assertion_id": "_n2"})");
    msgtest::LogCapture log;
    RSTR_NTLM message(L"d", L"c");
    EXPECT_EQ(message.Deserialize(response.get(), L""), 0u);
    EXPECT_EQ(message.m_assertionID, L"_n2");
    EXPECT_TRUE(message.m_wstrUserName.empty());
    EXPECT_TRUE(log.Contains("RSTR_NTLM::Deserialize GetXMLString. XPath = soap:Body/wst:RequestSecurityTokenResponse/"
                             "wst:RequestedSecurityToken/samlv11:Assertion/samlv11:AuthenticationStatement/"
                             "samlv11:Subject/samlv11:NameIdentifier"));
}

TEST(MessageDeserialize, RSTR_SDLReadsTheAssertionOrReturnsTheFault) {
    auto answer = Answer("rstr_assertion_response", R"({"assertion_id": "_s1", "name_identifier": "bob"})");
    RSTR_SDL message(L"d", L"c");
    ASSERT_EQ(message.Deserialize(answer.get(), L""), 0u);
    EXPECT_EQ(message.m_assertionID, L"_s1");
    EXPECT_NE(message.m_samlToken.find(L"<saml:NameIdentifier>bob</saml:NameIdentifier>"), std::wstring::npos);

    auto fault = Answer("soap_fault", kLoginFault);
    RSTR_SDL wrong(L"d", L"c");
    msgtest::LogCapture log;
    EXPECT_EQ(wrong.Deserialize(fault.get(), L""), ZEB_ERROR_FAULT_FAILED_AUTHENTICATION);
    EXPECT_TRUE(wrong.m_assertionID.empty());
    EXPECT_TRUE(log.Contains("RSTR_SDL::Deserialize ERROR SoapErrorCheck = d5070102"));
}

TEST(MessageDeserialize, CancelAnswers) {
    CancelRequest message(L"_a1", L"h");
    auto empty = Answer("cancel_response", R"({"cancelled": false})");
    EXPECT_EQ(message.Deserialize(empty.get(), L""), 0u);
    auto cancelled = Answer("cancel_response");
    EXPECT_EQ(message.Deserialize(cancelled.get(), L""), 0u);
    auto fault = Answer("soap_fault", R"({"code": "soap:Sender", "subcode": "wls:RequestFailed"})");
    EXPECT_EQ(message.Deserialize(fault.get(), L""), ZEB_ERROR_FAULT_REQUEST_FAILED);
}

TEST(MessageDeserialize, NullResponseOrBoundaryIsRefusedByEveryMessage) {
    auto response = Answer("cancel_response");
    GetPolicyRequest policy;
    GetPublicKeyRequest publicKey(L"h");
    GetACTRequest act(L"h", L"p", L"1", L"1", L"1", L"1", L"", std::deque<std::wstring>{});
    RST_Basic basic(L"i", L"Basic", L"d");
    RST_Basic2 basic2(L"i", L"Basic2", NoCredential());
    RST_NTLM ntlm(L"i", L"NTLM", L"d");
    RST_SDL sdl(L"i", L"SDL", L"d");
    RSTR_NTLM rstrNtlm(L"d", L"c");
    RSTR_SDL rstrSdl(L"d", L"c");
    CancelRequest cancel(L"a", L"h");
    WSRequest* messages[] = {&policy, &publicKey, &act, &basic, &basic2, &ntlm, &sdl, &rstrNtlm, &rstrSdl, &cancel};
    msgtest::LogCapture log;
    for (WSRequest* message : messages) {
        EXPECT_EQ(message->Deserialize(nullptr, L""), ZEB_ERROR_INVALID_PARAMETER);
        EXPECT_EQ(message->Deserialize(response.get(), nullptr), ZEB_ERROR_INVALID_PARAMETER);
    }
    const std::string text = log.Text();
    for (const char* line : {"GetPolicyRequest::Deserialize ERROR ERROR_INVALID_PARAMETER = d5000057",
                             "GetPolicyRequest::Deserialize mimeBoundary ERROR_INVALID_PARAMETER = d5000057",
                             "GetPublicKeyRequest::Deserialize pResponse ERROR_INVALID_PARAMETER = d5000057",
                             "GetACTRequest::Deserialize ERROR ERROR_INVALID_PARAMETER = d5000057",
                             "GetACTRequest::Deserialize mimeBoundary ERROR_INVALID_PARAMETER = d5000057",
                             "RST_SDL::Deserialize pResponse ERROR_INVALID_PARAMETER = d5000057",
                             "RST_SDL::Deserialize mimeBoundary ERROR_INVALID_PARAMETER = d5000057",
                             "RSTR_NTLM::Deserialize pResponse ERROR_INVALID_PARAMETER = d5000057",
                             "CancelRequest::Deserialize ERROR ERROR_INVALID_PARAMETER = d5000057",
                             "CancelRequest::Deserialize mimeBoundary ERROR_INVALID_PARAMETER = d5000057"})
        EXPECT_NE(text.find(line), std::string::npos) << line;
}
