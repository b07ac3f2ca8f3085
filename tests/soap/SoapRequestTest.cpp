// SoapRequest: the exact envelope text (plain and MTOM), wsa:To addressing,
// escaping of user input and the fault-prefix look-up.
#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "soap/Namespaces.h"
#include "soap/SoapRequest.h"
#include "soap/SoapResponse.h"
#include "SoapTestSupport.h"

using soaptest::Envelope;
using soaptest::kSoapUri;

namespace {

constexpr const wchar_t* kEnvelopeStart =
    L"<soap:Envelope xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\" "
    L"xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
    L"xmlns:soap=\"http://www.w3.org/2003/05/soap-envelope\" "
    L"xmlns:wsse=\"http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-secext-1.0.xsd\" "
    L"xmlns:wsu=\"http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-utility-1.0.xsd\" "
    L"xmlns:wsa=\"http://schemas.xmlsoap.org/ws/2004/08/addressing\">";
constexpr const wchar_t* kDeclaration = L"<?xml version=\"1.0\" encoding=\"utf-8\"?>";
constexpr const wchar_t* kHeader = L"<soap:Header><wsa:To></wsa:To><wsa:Action>urn:a</wsa:Action></soap:Header>";
constexpr const wchar_t* kBody = L"<soap:Body><m/></soap:Body>";
constexpr const wchar_t* kStsPath = L"/wls/STSServer.actv";

class SoapRequestTest : public soaptest::LoggedTest {};

std::wstring Build(SoapRequest& request, BOOL ssl, const std::wstring& mtomId = L"") {
    std::wstring out;
    std::wstring returned = request.GetSoapEnvelope(out, ssl, mtomId);
    EXPECT_EQ(returned, out);
    return out;
}

TEST_F(SoapRequestTest, PlainEnvelopeIsExact) {
    SoapRequest request(L"srv", 8000, 8443, kStsPath);
    request.SetSoapHeader(kHeader);
    request.SetSoapBody(kBody);
    const std::wstring expected =
        std::wstring(kDeclaration) + kEnvelopeStart +
        L"<soap:Header><wsa:To>http://srv:8000/wls/STSServer.actv</wsa:To><wsa:Action>urn:a</wsa:Action>"
        L"</soap:Header><soap:Body><m/></soap:Body></soap:Envelope>";
    EXPECT_EQ(Build(request, FALSE), expected);
    EXPECT_TRUE(Logged(L"RequestMessage=" + expected));
    EXPECT_TRUE(Logged(L"SoapRequest::GetSoapEnvelope IN"));
    EXPECT_TRUE(Logged(L"SoapRequest::GetSoapEnvelope OUT"));
}

TEST_F(SoapRequestTest, SslModeAddressesTheSecurePort) {
    SoapRequest request(L"srv", 8000, 8443, kStsPath);
    request.SetSoapHeader(kHeader);
    request.SetSoapBody(kBody);
    const std::wstring text = Build(request, TRUE);
    EXPECT_NE(text.find(L"<wsa:To>https://srv:8443/wls/STSServer.actv</wsa:To>"), std::wstring::npos);
    EXPECT_EQ(text.find(L"http://srv"), std::wstring::npos);
}

TEST_F(SoapRequestTest, RebuildingInSslModeChangesOnlyTheAddress) {
    SoapRequest request(L"srv", 8000, 8443, kStsPath);
    request.SetSoapHeader(kHeader);
    request.SetSoapBody(kBody);
    std::wstring plain = Build(request, FALSE);
    std::wstring secure = Build(request, TRUE);
    const std::wstring from = L"http://srv:8000";
    plain.replace(plain.find(from), from.size(), L"https://srv:8443");
    EXPECT_EQ(plain, secure);
}

TEST_F(SoapRequestTest, OtherPortsAndPathsAreWrittenInDecimal) {
    SoapRequest request(L"10.0.0.7", 1, 65535, L"/zeb/Drv-Comm.actv");
    request.SetSoapBody(L"<soap:Body><wsa:To></wsa:To></soap:Body>");
    EXPECT_NE(Build(request, FALSE).find(L"<wsa:To>http://10.0.0.7:1/zeb/Drv-Comm.actv</wsa:To>"),
              std::wstring::npos);
    EXPECT_NE(Build(request, TRUE).find(L"<wsa:To>https://10.0.0.7:65535/zeb/Drv-Comm.actv</wsa:To>"),
              std::wstring::npos);
}

TEST_F(SoapRequestTest, OnlyTheFirstEmptyWsaToIsFilled) {
    SoapRequest request(L"srv", 8000, 8443, kStsPath);
    request.SetSoapBody(L"<soap:Body><wsa:To></wsa:To><x/><wsa:To></wsa:To></soap:Body>");
    const std::wstring text = Build(request, FALSE);
    EXPECT_NE(text.find(L"<soap:Body><wsa:To>http://srv:8000/wls/STSServer.actv</wsa:To><x/><wsa:To></wsa:To>"
                        L"</soap:Body>"),
              std::wstring::npos);
}

TEST_F(SoapRequestTest, AFilledWsaToIsLeftAloneAndTheEmptyOneAfterItFilled) {
    SoapRequest request(L"srv", 8000, 8443, kStsPath);
    request.SetSoapHeader(L"<soap:Header><wsa:To>urn:given</wsa:To></soap:Header>");
    request.SetSoapBody(L"<soap:Body><wsa:To></wsa:To></soap:Body>");
    const std::wstring text = Build(request, FALSE);
    EXPECT_NE(text.find(L"<wsa:To>urn:given</wsa:To>"), std::wstring::npos);
    EXPECT_NE(text.find(L"<soap:Body><wsa:To>http://srv:8000/wls/STSServer.actv</wsa:To>"), std::wstring::npos);
}

TEST_F(SoapRequestTest, WithoutAnEmptyWsaToNothingIsInserted) {
    SoapRequest request(L"srv", 8000, 8443, kStsPath);
    request.SetSoapHeader(L"<soap:Header/>");
    request.SetSoapBody(kBody);
    EXPECT_EQ(Build(request, FALSE),
              std::wstring(kDeclaration) + kEnvelopeStart + L"<soap:Header/>" + kBody + L"</soap:Envelope>");
}

TEST_F(SoapRequestTest, MtomEnvelopeIsTheRootMimePart) {
    const std::wstring id = L"urn:uuid:4b3c5c1e-1111-2222-3333-444455556666";
    SoapRequest request(L"srv", 8000, 8443, kStsPath);
    request.SetSoapHeader(kHeader);
    request.SetSoapBody(kBody);
    const std::wstring text = Build(request, FALSE, id);
    const std::wstring expected =
        L"\r\n----MIMEBoundary" + id + L"\r\n" + L"content-id: <0." + id + L"@" + ns::kMtomDomain + L">\r\n" +
        L"content-type: application/xop+xml; charset=utf-8; type=\"application/soap+xml; charset=utf-8\"\r\n"
        L"content-transfer-encoding: binary\r\n"
        L"\r\n" +
        kEnvelopeStart +
        L"<soap:Header><wsa:To>http://srv:8000/wls/STSServer.actv</wsa:To><wsa:Action>urn:a</wsa:Action>"
        L"</soap:Header><soap:Body><m/></soap:Body></soap:Envelope>" +
        L"\r\n----MIMEBoundary" + id + L"--\r\n";
    EXPECT_EQ(text, expected);
    EXPECT_EQ(text.compare(0, 18, L"\r\n----MIMEBoundary"), 0);
    const std::wstring tail = id + L"--\r\n";
    ASSERT_GE(text.size(), tail.size());
    EXPECT_EQ(text.compare(text.size() - tail.size(), tail.size(), tail), 0);
    // No XML declaration in the MIME part.
    EXPECT_EQ(text.find(L"<?xml"), std::wstring::npos);
}

TEST_F(SoapRequestTest, PlainEnvelopeBeginsWithTheDeclarationAndParses) {
    SoapRequest request(L"srv", 8000, 8443, kStsPath);
    request.SetSoapHeader(kHeader);
    request.SetSoapBody(kBody);
    const std::wstring text = Build(request, FALSE);
    EXPECT_EQ(text.compare(0, wcslen(kDeclaration), kDeclaration), 0);

    SoapResponse parsed;
    parsed.SetSoapEnvelope(text);
    ASSERT_TRUE(parsed.HasDocument());
    std::wstring markup;
    EXPECT_EQ(parsed.GetXMLString(L"soap:Body", markup), SoapMessage::kOk);
    EXPECT_EQ(soaptest::Unindented(markup), L"<soap:Body><m/></soap:Body>");
}

TEST_F(SoapRequestTest, AccessorsKeepTheirValues) {
    SoapRequest request(L"srv", 8000, 8443, kStsPath);
    request.SetAction(L"http://schemas.xmlsoap.org/ws/2005/02/trust/RST/Issue");
    request.SetSoapHeader(kHeader);
    request.SetSoapBody(kBody);
    EXPECT_EQ(request.GetAction(), L"http://schemas.xmlsoap.org/ws/2005/02/trust/RST/Issue");
    EXPECT_EQ(request.GetSoapHeader(), kHeader);
    EXPECT_EQ(request.GetSoapBody(), kBody);
}

TEST_F(SoapRequestTest, SanitizeEscapesMarkupAndBlanksControlCharacters) {
    const std::wstring input = L"a<b>&\"c'\td";
    EXPECT_EQ(SoapRequest::SanitizeUserInputStr(input), L"a&lt;b&gt;&amp;&quot;c&#39; d");
    EXPECT_TRUE(Logged(L"SoapRequest::SanitizeUserInputStr. Before Sanitizing = " + input));
    EXPECT_TRUE(Logged(L"SoapRequest::SanitizeUserInputStr. After Sanitizing = a&lt;b&gt;&amp;&quot;c&#39; d"));
    EXPECT_TRUE(Logged(L"wcSrcStr =" + input));
}

TEST_F(SoapRequestTest, SanitizeHandlesEveryControlCharacterAndDelete) {
    std::wstring input;
    for (wchar_t c = 1; c < 0x20; ++c) input += c;
    input += static_cast<wchar_t>(0x7F);
    EXPECT_EQ(SoapRequest::SanitizeUserInputStr(input), std::wstring(0x20, L' '));
    EXPECT_EQ(SoapRequest::SanitizeUserInputStr(L"x\r\ny"), L"x  y");
}

TEST_F(SoapRequestTest, SanitizeCopiesEverythingElse) {
    const std::wstring input = L" !#$%;=?@[]{}~\u00e9\u00df\u65e5\u672c\u0080\u00a0\xd83d\xde00";
    EXPECT_EQ(SoapRequest::SanitizeUserInputStr(input), input);
    EXPECT_EQ(SoapRequest::SanitizeUserInputStr(L""), L"");
    EXPECT_EQ(SoapRequest::SanitizeUserInputStr(L"&amp;"), L"&amp;amp;");
}

TEST_F(SoapRequestTest, SanitizedInputStaysTextInTheEnvelope) {
    const std::wstring input = L"<x a='1'>&\"\x01z";
    SoapRequest request(L"srv", 8000, 8443, kStsPath);
    request.SetSoapBody(L"<soap:Body><v>" + SoapRequest::SanitizeUserInputStr(input) + L"</v></soap:Body>");
    std::wstring text = Build(request, FALSE);
    SoapResponse parsed;
    parsed.SetSoapEnvelope(text);
    std::wstring value;
    ASSERT_EQ(parsed.GetXMLDataValue(L"soap:Body/v", value), SoapMessage::kOk);
    EXPECT_EQ(value, L"<x a='1'>&\" z");
}

// A fault whose subcode value element carries `valueAttributes` and whose
// envelope carries `envelopeAttributes`.
std::wstring Fault(const std::wstring& valueAttributes, const std::wstring& envelopeAttributes = L"") {
    return Envelope(L"<soap:Fault><soap:Code><soap:Value>soap:Sender</soap:Value><soap:Subcode>"
                    L"<soap:Value" +
                        valueAttributes +
                        L">x:SomeError</soap:Value></soap:Subcode></soap:Code></soap:Fault>",
                    envelopeAttributes);
}

TEST_F(SoapRequestTest, FaultPrefixDeclaredOnTheValueElementIsFound) {
    SoapResponse response;
    response.SetSoapEnvelope(Fault(L" xmlns:x=\"" + ns::Wls() + L"\""));
    ASSERT_TRUE(response.HasDocument());
    EXPECT_EQ(SoapRequest::GetWlsSoapFaultPrefix(&response), L"x");
    EXPECT_TRUE(Logged(L"SoapRequest::GetWlsSoapFaultPrefix IN"));
    EXPECT_TRUE(Logged(L"SoapRequest::GetWlsSoapFaultPrefix OUT wstrRet = x"));
    EXPECT_EQ(SoapRequest::GetZebSoapFaultPrefix(&response), L"");
    EXPECT_TRUE(Logged(L"SoapRequest::GetZebSoapFaultPrefix OUT wstrRet = "));
}

TEST_F(SoapRequestTest, FaultPrefixOfTheDeviceServiceIsFound) {
    SoapResponse response;
    response.SetSoapEnvelope(Fault(L" xmlns:zz=\"" + ns::Zeb() + L"\""));
    EXPECT_EQ(SoapRequest::GetZebSoapFaultPrefix(&response), L"zz");
    EXPECT_EQ(SoapRequest::GetWlsSoapFaultPrefix(&response), L"");
}

TEST_F(SoapRequestTest, FaultPrefixDeclaredOnAnAncestorIsNotLookedAt) {
    SoapResponse response;
    response.SetSoapEnvelope(Fault(L"", L" xmlns:x=\"" + ns::Wls() + L"\""));
    ASSERT_TRUE(response.HasDocument());
    EXPECT_EQ(SoapRequest::GetWlsSoapFaultPrefix(&response), L"");
}

TEST_F(SoapRequestTest, FaultPrefixAmongSeveralAttributes) {
    // Wine repeats a declaration when an element carries two or more xmlns
    // declarations and nothing else; the ordinary attribute avoids that.
    SoapResponse response;
    response.SetSoapEnvelope(Fault(L" a=\"" + ns::Wls() + L"x\" xmlns:other=\"urn:other\" xmlns:w=\"" + ns::Wls() +
                                   L"\" xmlns:d=\"" + ns::Zeb() + L"\""));
    ASSERT_TRUE(response.HasDocument());
    EXPECT_EQ(SoapRequest::GetWlsSoapFaultPrefix(&response), L"w");
    EXPECT_EQ(SoapRequest::GetZebSoapFaultPrefix(&response), L"d");
}

TEST_F(SoapRequestTest, FaultPrefixMatchesTheUriExactly) {
    SoapResponse response;
    response.SetSoapEnvelope(Fault(L" xmlns:x=\"" + ns::Wls() + L"/\""));
    EXPECT_EQ(SoapRequest::GetWlsSoapFaultPrefix(&response), L"");
}

TEST_F(SoapRequestTest, FaultPrefixIsEmptyWithoutAFault) {
    SoapResponse ok;
    ok.SetSoapEnvelope(Envelope(L"<m/>"));
    EXPECT_EQ(SoapRequest::GetWlsSoapFaultPrefix(&ok), L"");
    SoapResponse unloaded;
    unloaded.SetSoapEnvelope(L"not xml");
    EXPECT_EQ(SoapRequest::GetWlsSoapFaultPrefix(&unloaded), L"");
    EXPECT_EQ(SoapRequest::GetZebSoapFaultPrefix(nullptr), L"");
}

}  // namespace
