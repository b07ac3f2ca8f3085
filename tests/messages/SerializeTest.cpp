// The exact header, body and action text each message writes.
#include <gtest/gtest.h>

#include <cwctype>
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
#include "soap/Namespaces.h"

using msgtest::NewRequest;

namespace {

const std::wstring kIssueHeader =
    L"<soap:Header><wsa:Action>http://schemas.xmlsoap.org/ws/2005/02/trust/RST/Issue</wsa:Action>"
    L"<wsa:To></wsa:To></soap:Header>";

const std::wstring kRstStart =
    L"<soap:Body><wst:RequestSecurityToken xmlns:wst=\"http://schemas.xmlsoap.org/ws/2005/02/trust\" "
    L"xmlns:wsse=\"http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-secext-1.0.xsd\" "
    L"xmlns:wls=\"urn:orvel:zeb:wls\">"
    L"<wst:RequestType>http://schemas.xmlsoap.org/ws/2005/02/trust/Issue</wst:RequestType>"
    L"<wst:TokenType>http://docs.oasis-open.org/wss/oasis-wss-saml-token-profile-1.1#SAMLV1.1</wst:TokenType>";

const std::wstring kSecurityHeader = L"<saml:Assertion AssertionID=\"_a1\">x</saml:Assertion>";

// Serializes an issue request and checks its header, its body (kRstStart,
// then authInfoAndData, then the closing tags) and its action.
void ExpectIssueRequest(WSRequest& message, const std::wstring& authInfoAndData) {
    auto request = NewRequest();
    ASSERT_EQ(message.Serialize(request.get()), 0u);
    EXPECT_EQ(request->GetSoapHeader(), kIssueHeader);
    EXPECT_EQ(request->GetSoapBody(), kRstStart + authInfoAndData + L"</wst:RequestSecurityToken></soap:Body>");
    EXPECT_EQ(request->GetAction(), L"http://schemas.xmlsoap.org/ws/2005/02/trust/RST/Issue");
}

// Serializes an answer to a challenge and checks its header, its body (the
// opening tag ends with attributes) and its action.
void ExpectIssueResponse(WSRequest& message, const std::wstring& attributes, const std::wstring& data) {
    auto request = NewRequest();
    ASSERT_EQ(message.Serialize(request.get()), 0u);
    EXPECT_EQ(request->GetSoapHeader(),
              L"<soap:Header><wsa:Action>http://schemas.xmlsoap.org/ws/2005/02/trust/RSTR/Issue</wsa:Action>"
              L"<wsa:To></wsa:To></soap:Header>");
    EXPECT_EQ(request->GetSoapBody(),
              L"<soap:Body><wst:RequestSecurityTokenResponse xmlns:wst=\"http://schemas.xmlsoap.org/ws/2005/02/trust\" "
              L"xmlns:wsse=\"http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-secext-1.0.xsd\" " +
                  attributes +
                  L">"
                  L"<wst:RequestType>http://schemas.xmlsoap.org/ws/2005/02/trust/Issue</wst:RequestType>"
                  L"<wls:AuthenticationData>" +
                  data + L"</wls:AuthenticationData></wst:RequestSecurityTokenResponse></soap:Body>");
    EXPECT_EQ(request->GetAction(), L"http://schemas.xmlsoap.org/ws/2005/02/trust/RSTR/Issue");
}

// The 36-character lower-case UUID after wsu:Id="Action-, or "" when absent.
std::wstring MessageId(const std::wstring& header) {
    const std::wstring marker = L"<wsa:Action wsu:Id=\"Action-";
    const size_t at = header.find(marker);
    if (at == std::wstring::npos || header.size() < at + marker.size() + 36) return L"";
    std::wstring id = header.substr(at + marker.size(), 36);
    for (size_t i = 0; i < id.size(); ++i) {
        const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? id[i] != L'-' : !(std::iswdigit(id[i]) || (id[i] >= L'a' && id[i] <= L'f'))) return L"";
    }
    return id;
}

}  // namespace

TEST(MessageSerialize, DefaultNamespacesAreInEffect) {
    // The expected texts below are written with the default namespaces.
    EXPECT_EQ(ns::Wls(), msgtest::kWls);
    EXPECT_EQ(ns::Zeb(), msgtest::kZeb);
}

TEST(MessageSerialize, GetPolicyRequestText) {
    auto request = NewRequest();
    GetPolicyRequest message;
    ASSERT_EQ(message.Serialize(request.get()), 0u);
    EXPECT_EQ(request->GetSoapHeader(),
              L"<soap:Header><wsa:Action>urn:orvel:zeb:wls/GetPolicy</wsa:Action><wsa:To></wsa:To></soap:Header>");
    EXPECT_EQ(request->GetSoapBody(),
              L"<soap:Body><GetPolicyRequest xmlns=\"urn:orvel:zeb:wls\"><WsEndPoint></WsEndPoint>"
              L"</GetPolicyRequest></soap:Body>");
    EXPECT_EQ(request->GetAction(), L"urn:orvel:zeb:wls/GetPolicy");
}

TEST(MessageSerialize, GetPublicKeyRequestText) {
    auto request = NewRequest();
    GetPublicKeyRequest message(kSecurityHeader);
    ASSERT_EQ(message.Serialize(request.get()), 0u);
    const std::wstring id = MessageId(request->GetSoapHeader());
    ASSERT_FALSE(id.empty()) << request->GetSoapHeader().c_str();
    EXPECT_EQ(request->GetSoapHeader(),
              L"<soap:Header><wsa:Action wsu:Id=\"Action-" + id +
                  L"\">urn:orvel:zeb:drvcomm/GetPublicKey</wsa:Action><wsa:To></wsa:To>"
                  L"<wsse:Security soap:mustUnderstand=\"1\"><saml:Assertion AssertionID=\"_a1\">x</saml:Assertion>"
                  L"</wsse:Security></soap:Header>");
    EXPECT_EQ(request->GetSoapBody(), L"<soap:Body><GetPublicKeyRequest xmlns=\"urn:orvel:zeb:drvcomm\" /></soap:Body>");
    EXPECT_EQ(request->GetAction(), L"urn:orvel:zeb:drvcomm/GetPublicKey");
}

TEST(MessageSerialize, EachSerializeMakesANewMessageId) {
    auto first = NewRequest();
    auto second = NewRequest();
    GetPublicKeyRequest message(kSecurityHeader);
    ASSERT_EQ(message.Serialize(first.get()), 0u);
    ASSERT_EQ(message.Serialize(second.get()), 0u);
    EXPECT_NE(MessageId(first->GetSoapHeader()), MessageId(second->GetSoapHeader()));
}

TEST(MessageSerialize, GetACTRequestText) {
    auto request = NewRequest();
    GetACTRequest message(kSecurityHeader, L"printer-1", L"1", L"160", L"1", L"2048", L"Q0lQSEVS",
                          std::deque<std::wstring>{L"ACV1", L"ACV2", L"ACV3"});
    ASSERT_EQ(message.Serialize(request.get()), 0u);
    const std::wstring id = MessageId(request->GetSoapHeader());
    ASSERT_FALSE(id.empty()) << request->GetSoapHeader().c_str();
    EXPECT_EQ(request->GetSoapHeader(),
              L"<soap:Header><wsa:Action wsu:Id=\"Action-" + id +
                  L"\">urn:orvel:zeb:drvcomm/GetACT</wsa:Action><wsa:To></wsa:To>"
                  L"<wsse:Security soap:mustUnderstand=\"1\"><saml:Assertion AssertionID=\"_a1\">x</saml:Assertion>"
                  L"</wsse:Security></soap:Header>");
    EXPECT_EQ(request->GetSoapBody(),
              L"<soap:Body><GetACTRequest xmlns=\"urn:orvel:zeb:drvcomm\"><ACTParameter>"
              L"<FPIDType>0</FPIDType><FPName>printer-1</FPName>"
              L"<CryptoInfo><HMACInfo><HMACAlgorithm>1</HMACAlgorithm><HMACKeyStrength>160</HMACKeyStrength></HMACInfo>"
              L"<EncryptKeyInfo><EncryptKeyAlgorithm>0</EncryptKeyAlgorithm><EncryptKeyStrength>0</EncryptKeyStrength>"
              L"</EncryptKeyInfo>"
              L"<PublicKeyInfo><PublicKeyAlgorithm>1</PublicKeyAlgorithm><PublicKeyStrength>2048</PublicKeyStrength>"
              L"</PublicKeyInfo>"
              L"<CipherDataInfo><CipherData>Q0lQSEVS</CipherData></CipherDataInfo></CryptoInfo>"
              L"<SecurityInfoCreationMode>1</SecurityInfoCreationMode>"
              L"<UserExtraInfoCreationMode>0</UserExtraInfoCreationMode>"
              L"<LegacyDeviceValidMode>1</LegacyDeviceValidMode>"
              L"<ACVArray><ACVValue>ACV1</ACVValue><ACVValue>ACV2</ACVValue><ACVValue>ACV3</ACVValue></ACVArray>"
              L"</ACTParameter></GetACTRequest></soap:Body>");
    EXPECT_EQ(request->GetAction(), L"urn:orvel:zeb:drvcomm/GetACT");
    EXPECT_TRUE(message.AcvValues().empty());
}

TEST(MessageSerialize, GetACTRequestSecondSerializeSendsEmptyACVArray) {
    auto first = NewRequest();
    auto second = NewRequest();
    GetACTRequest message(kSecurityHeader, L"p", L"1", L"160", L"1", L"2048", L"",
                          std::deque<std::wstring>{L"ACV1", L"ACV2", L"ACV3"});
    ASSERT_EQ(message.Serialize(first.get()), 0u);
    ASSERT_EQ(message.Serialize(second.get()), 0u);
    EXPECT_NE(first->GetSoapBody().find(
                  L"<ACVArray><ACVValue>ACV1</ACVValue><ACVValue>ACV2</ACVValue><ACVValue>ACV3</ACVValue></ACVArray>"),
              std::wstring::npos);
    EXPECT_NE(second->GetSoapBody().find(L"<ACVArray></ACVArray>"), std::wstring::npos);
    EXPECT_TRUE(message.AcvValues().empty());
}

TEST(MessageSerialize, GetACTRequestEmptyCipherDataIsSelfClosing) {
    auto request = NewRequest();
    GetACTRequest message(kSecurityHeader, L"p", L"0", L"0", L"0", L"0", L"", std::deque<std::wstring>{});
    ASSERT_EQ(message.Serialize(request.get()), 0u);
    EXPECT_NE(request->GetSoapBody().find(L"<CipherDataInfo><CipherData/></CipherDataInfo>"), std::wstring::npos);
    EXPECT_NE(request->GetSoapBody().find(L"<ACVArray></ACVArray>"), std::wstring::npos);
}

TEST(MessageSerialize, RST_BasicText) {
    RST_Basic message(L"DOM", L"Basic", L"dXNlcjpwYXNz");
    ExpectIssueRequest(message,
                       L"<wls:AuthInfo><wls:Info>DOM</wls:Info><wls:AuthType>Basic</wls:AuthType></wls:AuthInfo>"
                       L"<wls:AuthenticationData>dXNlcjpwYXNz</wls:AuthenticationData>");
}

TEST(MessageSerialize, RST_Basic2Text) {
    wchar_t user[] = L"alice", password[] = L"secret", domain[] = L"DOM";
    AuthCredential credential = {user, password, domain};
    RST_Basic2 message(L"DOM", L"Basic2", &credential);
    ExpectIssueRequest(message,
                       L"<wls:AuthInfo><wls:Info>DOM</wls:Info><wls:AuthType>Basic2</wls:AuthType></wls:AuthInfo>"
                       L"<wls:BasicAuthenticationData><wls:Id>alice</wls:Id><wls:Password>secret</wls:Password>"
                       L"<wls:Domain>DOM</wls:Domain></wls:BasicAuthenticationData>");
}

TEST(MessageSerialize, RST_NTLMText) {
    RST_NTLM message(L"DOM", L"NTLM", L"TlRMTVNTUAAB");
    ExpectIssueRequest(message,
                       L"<wls:AuthInfo><wls:Info>DOM</wls:Info><wls:AuthType>NTLM</wls:AuthType></wls:AuthInfo>"
                       L"<wls:AuthenticationData>TlRMTVNTUAAB</wls:AuthenticationData>");
}

TEST(MessageSerialize, RST_SDLText) {
    RST_SDL message(L"policy-info", L"SDL2", L"first");
    ExpectIssueRequest(message,
                       L"<wls:AuthInfo><wls:Info>policy-info</wls:Info><wls:AuthType>SDL2</wls:AuthType></wls:AuthInfo>"
                       L"<wls:AuthenticationData>first</wls:AuthenticationData>");
}

TEST(MessageSerialize, RSTR_SDLTextDeclaresWlsBeforeTheContext) {
    RSTR_SDL message(L"digest", L"ctx-1");
    ExpectIssueResponse(message, L"xmlns:wls=\"urn:orvel:zeb:wls\" wst:Context=\"ctx-1\"", L"digest");
}

TEST(MessageSerialize, RSTR_NTLMTextDeclaresWlsAfterTheContext) {
    RSTR_NTLM message(L"TlRMTVNTUAAD", L"ctx-1");
    ExpectIssueResponse(message, L"wst:Context=\"ctx-1\" xmlns:wls=\"urn:orvel:zeb:wls\"", L"TlRMTVNTUAAD");
}

TEST(MessageSerialize, CancelRequestText) {
    auto request = NewRequest();
    CancelRequest message(L"_a1", kSecurityHeader);
    ASSERT_EQ(message.Serialize(request.get()), 0u);
    EXPECT_EQ(request->GetSoapHeader(),
              L"<soap:Header><wsa:Action>http://schemas.xmlsoap.org/ws/2005/02/trust/RST/Cancel</wsa:Action>"
              L"<wsa:To></wsa:To><wsse:Security soap:mustUnderstand=\"1\">"
              L"<saml:Assertion AssertionID=\"_a1\">x</saml:Assertion></wsse:Security></soap:Header>");
    EXPECT_EQ(request->GetSoapBody(),
              L"<soap:Body><wst:RequestSecurityToken xmlns:wst=\"http://schemas.xmlsoap.org/ws/2005/02/trust\">"
              L"<wst:RequestType>http://schemas.xmlsoap.org/ws/2005/02/trust/Cancel</wst:RequestType>"
              L"<wst:CancelTarget><wsse:SecurityTokenReference>"
              L"<wsse:KeyIdentifier ValueType=\"http://docs.oasis-open.org/wss/2004/XX/"
              L"oasis-2004XX-wss-saml-token-profile-1.0#SAMLAssertionID\" "
              L"EncodingType=\"http://docs.oasis-open.org/wss/2004/01/"
              L"oasis-200401-wss-soap-message-security-1.0#Base64Binary\">_a1</wsse:KeyIdentifier>"
              L"</wsse:SecurityTokenReference></wst:CancelTarget></wst:RequestSecurityToken></soap:Body>");
    EXPECT_EQ(request->GetAction(), L"http://schemas.xmlsoap.org/ws/2005/02/trust/RST/Cancel");
}

TEST(MessageSerialize, RST_Basic2RefusesAMissingCredentialPart) {
    wchar_t user[] = L"alice", password[] = L"secret";
    AuthCredential noDomain = {user, password, nullptr};
    AuthCredential noUser = {nullptr, password, user};
    AuthCredential noPassword = {user, nullptr, user};
    const AuthCredential* cases[] = {&noDomain, &noUser, &noPassword, nullptr};
    for (const AuthCredential* credential : cases) {
        msgtest::LogCapture log;
        auto request = NewRequest();
        RST_Basic2 message(L"DOM", L"Basic2", credential);
        EXPECT_EQ(message.Serialize(request.get()), ZEB_ERROR_INVALID_PARAMETER);
        EXPECT_TRUE(request->GetSoapHeader().empty());
        EXPECT_TRUE(request->GetSoapBody().empty());
        EXPECT_TRUE(request->GetAction().empty());
        EXPECT_TRUE(log.Contains("RST_Basic2::Serialize PARAMETER ZEB_ERROR = d5000057"));
    }
}

TEST(MessageSerialize, NullRequestIsRefusedByEveryMessage) {
    wchar_t x[] = L"x";
    AuthCredential credential = {x, x, x};
    GetPolicyRequest policy;
    GetPublicKeyRequest publicKey(L"h");
    GetACTRequest act(L"h", L"p", L"1", L"1", L"1", L"1", L"", std::deque<std::wstring>{L"A"});
    RST_Basic basic(L"i", L"Basic", L"d");
    RST_Basic2 basic2(L"i", L"Basic2", &credential);
    RST_NTLM ntlm(L"i", L"NTLM", L"d");
    RST_SDL sdl(L"i", L"SDL", L"d");
    RSTR_NTLM rstrNtlm(L"d", L"c");
    RSTR_SDL rstrSdl(L"d", L"c");
    CancelRequest cancel(L"a", L"h");
    msgtest::LogCapture log;
    EXPECT_EQ(policy.Serialize(nullptr), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(publicKey.Serialize(nullptr), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(act.Serialize(nullptr), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(act.AcvValues().size(), 1u);
    EXPECT_EQ(basic.Serialize(nullptr), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(basic2.Serialize(nullptr), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(ntlm.Serialize(nullptr), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(sdl.Serialize(nullptr), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(rstrNtlm.Serialize(nullptr), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(rstrSdl.Serialize(nullptr), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(cancel.Serialize(nullptr), ZEB_ERROR_INVALID_PARAMETER);
    const std::string text = log.Text();
    for (const char* line : {"GetPolicyRequest::Serialize ERROR ERROR_INVALID_PARAMETER = d5000057",
                             "GetACTRequest::Serialize ERROR ERROR_INVALID_PARAMETER = d5000057",
                             "RST_SDL::Serialize ERROR ERROR_INVALID_PARAMETER = d5000057",
                             "RST_Basic::Serialize ERROR ERROR_INVALID_PARAMETER = d5000057",
                             "RSTR_SDL::Serialize ERROR ERROR_INVALID_PARAMETER = d5000057",
                             "RSTR_NTLM::Serialize ERROR ERROR_INVALID_PARAMETER = d5000057",
                             "CancelRequest::Serialize ERROR ERROR_INVALID_PARAMETER = d5000057"})
        EXPECT_NE(text.find(line), std::string::npos) << line;
}

TEST(MessageSerialize, LogsInOutAndTheFinishedTexts) {
    msgtest::LogCapture log;
    auto request = NewRequest();
    GetACTRequest message(L"h", L"p", L"1", L"1", L"1", L"1", L"", std::deque<std::wstring>{});
    ASSERT_EQ(message.Serialize(request.get()), 0u);
    const std::string text = log.Text();
    EXPECT_NE(text.find("GetACTRequest::Serialize IN"), std::string::npos);
    EXPECT_NE(text.find("GetACTRequest::Serialize Soap Header =<soap:Header>"), std::string::npos);
    EXPECT_NE(text.find("GetACTRequest::Serialize Soap Body =<soap:Body>"), std::string::npos);
    EXPECT_NE(text.find("GetACTRequest::Serialize OUT"), std::string::npos);
}
