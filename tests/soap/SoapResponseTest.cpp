// SoapResponse: the module's prefix bindings, the auth-info list of a login
// policy answer and the MTOM body it keeps.
#include <gtest/gtest.h>
#include <windows.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "soap/Namespaces.h"
#include "soap/SoapResponse.h"
#include "SoapTestSupport.h"

using soaptest::kSoapUri;

namespace {

class SoapResponseTest : public soaptest::LoggedTest {};

// A GetPolicy answer with `entries` as the children of wls:LoginAppInfo;
// `wls` is the prefix the server uses for the login-service namespace.
std::wstring PolicyAnswer(const std::wstring& entries, const std::wstring& wls = L"wls") {
    const std::wstring p = wls + L":";
    return std::wstring(L"<?xml version=\"1.0\" encoding=\"utf-8\"?>") + L"<soap:Envelope xmlns:soap=\"" + kSoapUri +
           L"\" xmlns:" + wls + L"=\"" + ns::Wls() +
           L"\" xmlns:wsp=\"http://schemas.xmlsoap.org/ws/2004/09/policy\""
           L" xmlns:sp=\"http://schemas.xmlsoap.org/ws/2005/07/securitypolicy\"><soap:Body>"
           L"<" + p + L"GetPolicyResponse><" + p + L"Policy><" + p + L"LoginAppCustomPolicy><wsp:Policy><wsp:ExactlyOne>"
           L"<sp:SamlToken><wsp:Policy><" + p + L"Claims><" + p + L"LoginAppInfo>" +
           entries +
           L"</" + p + L"LoginAppInfo></" + p + L"Claims></wsp:Policy></sp:SamlToken></wsp:ExactlyOne></wsp:Policy></" +
           p + L"LoginAppCustomPolicy></" + p + L"Policy></" + p + L"GetPolicyResponse></soap:Body></soap:Envelope>";
}

std::wstring Entry(const std::wstring& info, const std::wstring& type, const std::wstring* cache,
                   const std::wstring& wls = L"wls") {
    const std::wstring p = wls + L":";
    std::wstring text = L"<" + p + L"AuthInfo><" + p + L"Info>" + info + L"</" + p + L"Info><" + p + L"AuthType>" +
                        type + L"</" + p + L"AuthType>";
    if (cache) text += L"<" + p + L"EnableCredentialCache>" + *cache + L"</" + p + L"EnableCredentialCache>";
    return text + L"</" + p + L"AuthInfo>";
}

std::vector<AuthInfo> Read(const std::wstring& answer, DWORD expected = SoapMessage::kOk) {
    SoapResponse response;
    response.SetSoapEnvelope(answer);
    std::vector<AuthInfo> list;
    EXPECT_EQ(response.GetAuthInfoList(&list), expected);
    return list;
}

TEST_F(SoapResponseTest, SelectionNamespacesAreSevenBindingsThirtyFourBlanksApart) {
    const std::wstring gap(34, L' ');
    const std::wstring expected =
        L"xmlns:soap='http://www.w3.org/2003/05/soap-envelope'" + gap + L"xmlns:zeb='" + ns::Zeb() + L"'" + gap +
        L"xmlns:wls='" + ns::Wls() + L"'" + gap + L"xmlns:wst='http://schemas.xmlsoap.org/ws/2005/02/trust'" + gap +
        L"xmlns:wsp='http://schemas.xmlsoap.org/ws/2004/09/policy'" + gap +
        L"xmlns:sp='http://schemas.xmlsoap.org/ws/2005/07/securitypolicy'" + gap +
        L"xmlns:samlv11='urn:oasis:names:tc:SAML:1.0:assertion'";
    EXPECT_EQ(SoapResponse::SelectionNamespaces(), expected);
}

TEST_F(SoapResponseTest, TheBoundPrefixesAnswerQueries) {
    const std::wstring answer =
        std::wstring(L"<s:Envelope xmlns:s=\"") + kSoapUri + L"\"><s:Body><d:R xmlns:d=\"" + ns::Zeb() +
        L"\"><t:T xmlns:t=\"http://schemas.xmlsoap.org/ws/2005/02/trust\">tok</t:T>"
        L"<a:Assertion xmlns:a=\"urn:oasis:names:tc:SAML:1.0:assertion\" AssertionID=\"id1\"/></d:R></s:Body></s:Envelope>";
    SoapResponse response;
    response.SetSoapEnvelope(answer);
    std::wstring value;
    EXPECT_EQ(response.GetXMLDataValue(L"soap:Body/zeb:R/wst:T", value), SoapMessage::kOk);
    EXPECT_EQ(value, L"tok");
    qv::ComPtr<IXMLDOMNode> node;
    EXPECT_EQ(response.GetXMLNode(L"soap:Body/zeb:R/samlv11:Assertion", node), SoapMessage::kOk);
    EXPECT_TRUE(node);
    EXPECT_TRUE(Logged(L"ResponseMessage=" + answer));
    EXPECT_TRUE(Logged(L"SoapResponse::SetSoapEnvelope IN"));
    EXPECT_TRUE(Logged(L"SoapResponse::SetSoapEnvelope OUT"));
}

TEST_F(SoapResponseTest, AuthInfoEntriesInDocumentOrder) {
    const std::wstring yes = L"true";
    const std::wstring no = L"false";
    const auto list = Read(PolicyAnswer(Entry(L"Windows logon", L"NTLM", &yes) + Entry(L"Card", L"Basic2", &no)));
    ASSERT_EQ(list.size(), 2u);
    EXPECT_STREQ(list[0].Info, L"Windows logon");
    EXPECT_STREQ(list[0].AuthType, L"NTLM");
    EXPECT_EQ(list[0].bEnableCredentialCache, 1u);
    EXPECT_STREQ(list[1].Info, L"Card");
    EXPECT_STREQ(list[1].AuthType, L"Basic2");
    EXPECT_EQ(list[1].bEnableCredentialCache, 0u);
    EXPECT_TRUE(Logged(L"SoapResponse::GetAuthInfoList IN"));
    EXPECT_TRUE(Logged(L"SoapResponse::GetAuthInfoList OUT"));
}

TEST_F(SoapResponseTest, CredentialCacheFlagIsTrueIgnoringCaseOnly) {
    const std::wstring upper = L"TRUE";
    const std::wstring mixed = L"tRuE";
    const std::wstring yes = L"yes";
    const std::wstring one = L"1";
    const std::wstring padded = L" true";
    const auto list = Read(PolicyAnswer(Entry(L"a", L"SDL", &upper) + Entry(L"b", L"SDL", &mixed) +
                                        Entry(L"c", L"SDL", &yes) + Entry(L"d", L"SDL", &one) +
                                        Entry(L"e", L"SDL", &padded) + Entry(L"f", L"SDL", nullptr)));
    ASSERT_EQ(list.size(), 6u);
    EXPECT_EQ(list[0].bEnableCredentialCache, 1u);
    EXPECT_EQ(list[1].bEnableCredentialCache, 1u);
    EXPECT_EQ(list[2].bEnableCredentialCache, 0u);
    EXPECT_EQ(list[3].bEnableCredentialCache, 0u);
    EXPECT_EQ(list[4].bEnableCredentialCache, 0u);
    EXPECT_EQ(list[5].bEnableCredentialCache, 0u);
}

TEST_F(SoapResponseTest, LongValuesAreCutToSixtyThreeCharacters) {
    std::wstring info64;
    for (int i = 0; i < 64; ++i) info64 += static_cast<wchar_t>(L'a' + i % 26);
    const std::wstring info100(100, L'Z');
    const std::wstring yes = L"true";
    const auto list = Read(PolicyAnswer(Entry(info64, info100, &yes)));
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(std::wstring(list[0].Info), info64.substr(0, 63));
    EXPECT_EQ(std::wstring(list[0].AuthType), info100.substr(0, 63));
    EXPECT_EQ(list[0].Info[63], L'\0');
    EXPECT_EQ(list[0].bEnableCredentialCache, 1u);
}

TEST_F(SoapResponseTest, RecordsAreZeroFilled) {
    const auto list = Read(PolicyAnswer(L"<wls:AuthInfo><wls:AuthType>NTLM</wls:AuthType></wls:AuthInfo>"));
    ASSERT_EQ(list.size(), 1u);
    AuthInfo expected;
    std::memset(&expected, 0, sizeof(expected));
    wcscpy_s(expected.AuthType, L"NTLM");
    EXPECT_EQ(std::memcmp(&list[0], &expected, sizeof(AuthInfo)), 0);
}

TEST_F(SoapResponseTest, ChildrenAreMatchedByLocalNameExactly) {
    const std::wstring answer = PolicyAnswer(
        L"<wls:AuthInfo xmlns:o=\"urn:other\"><o:Info>other prefix</o:Info><wls:authtype>lower</wls:authtype>"
        L"<wls:Unknown>skip</wls:Unknown><!-- note --><wls:AuthType>SDL2</wls:AuthType>"
        L"<wls:AuthType>Basic</wls:AuthType></wls:AuthInfo>");
    const auto list = Read(answer);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_STREQ(list[0].Info, L"other prefix");
    // A repeated child overwrites the first.
    EXPECT_STREQ(list[0].AuthType, L"Basic");
}

TEST_F(SoapResponseTest, ServerPrefixForTheLoginNamespaceDoesNotMatter) {
    const std::wstring yes = L"True";
    const auto list = Read(PolicyAnswer(Entry(L"Info x", L"SDL", &yes, L"x"), L"x"));
    ASSERT_EQ(list.size(), 1u);
    EXPECT_STREQ(list[0].Info, L"Info x");
    EXPECT_STREQ(list[0].AuthType, L"SDL");
    EXPECT_EQ(list[0].bEnableCredentialCache, 1u);
}

TEST_F(SoapResponseTest, ADifferentNamespaceUnderTheSamePrefixIsNotMatched) {
    std::wstring answer = PolicyAnswer(Entry(L"i", L"NTLM", nullptr));
    const std::wstring uri = L"\"" + ns::Wls() + L"\"";
    answer.replace(answer.find(uri), uri.size(), L"\"urn:someone:else\"");
    EXPECT_TRUE(Read(answer).empty());
}

TEST_F(SoapResponseTest, AnswerWithoutAuthInfoGivesAnEmptyList) {
    EXPECT_TRUE(Read(PolicyAnswer(L"")).empty());
    SoapResponse response;
    response.SetSoapEnvelope(std::wstring(L"<soap:Envelope xmlns:soap=\"") + kSoapUri +
                             L"\"><soap:Body/></soap:Envelope>");
    std::vector<AuthInfo> list(3);
    EXPECT_EQ(response.GetAuthInfoList(&list), SoapMessage::kOk);
    EXPECT_TRUE(list.empty());
}

TEST_F(SoapResponseTest, NonXmlAnswerLeavesNoDocument) {
    SoapResponse response;
    response.SetSoapEnvelope(L"<html><body>502 Bad Gateway</body>");
    EXPECT_FALSE(response.HasDocument());
    std::vector<AuthInfo> list;
    EXPECT_EQ(response.GetAuthInfoList(&list), SoapMessage::kNoDocument);
    EXPECT_TRUE(list.empty());
    EXPECT_TRUE(LoggedContaining(L"GetXMLNodeList fails, XPath = soap:Body/wls:GetPolicyResponse/wls:Policy/"
                                 L"wls:LoginAppCustomPolicy/wsp:Policy/wsp:ExactlyOne/sp:SamlToken/wsp:Policy/"
                                 L"wls:Claims/wls:LoginAppInfo/wls:AuthInfo"));

    SoapResponse empty;
    empty.SetSoapEnvelope(L"");
    EXPECT_EQ(empty.GetAuthInfoList(&list), SoapMessage::kNoDocument);
}

TEST_F(SoapResponseTest, NullListGivesInvalidArgument) {
    SoapResponse response;
    response.SetSoapEnvelope(PolicyAnswer(Entry(L"i", L"NTLM", nullptr)));
    EXPECT_EQ(response.GetAuthInfoList(nullptr), SoapMessage::kInvalidArgument);
    EXPECT_TRUE(Logged(L"invalid local params\n"));
}

TEST_F(SoapResponseTest, MtomDataIsKeptUntilDestruction) {
    SoapResponse response;
    EXPECT_EQ(response.GetMTOMData(), nullptr);
    EXPECT_EQ(response.GetMTOMDataSize(), 0u);
    BYTE* body = static_cast<BYTE*>(std::malloc(16));
    ASSERT_NE(body, nullptr);
    std::memset(body, 0xAB, 16);
    response.SetMTOMData(body, 16);
    EXPECT_EQ(response.GetMTOMData(), body);
    EXPECT_EQ(response.GetMTOMDataSize(), 16u);
    // The destructor frees it; a leak or double free shows under the heap checker.
}

TEST_F(SoapResponseTest, DestroyingAResponseWithoutMtomDataIsFine) {
    SoapResponse* response = new SoapResponse();
    response->SetSoapEnvelope(PolicyAnswer(L""));
    delete response;
    SoapMessage* asBase = new SoapResponse();
    delete asBase;
    SUCCEED();
}

}  // namespace
