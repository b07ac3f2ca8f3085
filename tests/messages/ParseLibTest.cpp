// SOAP fault mapping: the Code by substring, then the Subcode against the
// table of both services, under the prefixes the fault itself declares.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "MessageTestSupport.h"
#include "Quorvantis.h"
#include "config/AddinSettings.h"
#include "messages/ParseLib.h"

using msgtest::Answer;

namespace {

const std::string kWlsUri = "urn:orvel:zeb:wls";
const std::string kZebUri = "urn:orvel:zeb:drvcomm";

std::string Json(const std::string& text) { return "\"" + text + "\""; }

// A fault with the given code and subcode; the subcode's prefix is bound to
// `uri` on the subcode's soap:Value (or where `declareOn` says).
std::unique_ptr<SoapResponse> Fault(const std::string& code, const std::string& subcode, const std::string& uri,
                                    const std::string& declareOn = "value") {
    std::string args = "{\"code\": " + Json(code) + ", \"declare_on\": " + Json(declareOn);
    args += ", \"subcode\": " + (subcode.empty() ? std::string("null") : Json(subcode));
    args += ", \"subcode_namespace\": " + (uri.empty() ? std::string("null") : Json(uri));
    args += ", \"reason\": \"reason text\", \"detail\": \"detail text\"}";
    return Answer("soap_fault", args);
}

DWORD Check(const std::string& code, const std::string& subcode, const std::string& uri,
            const std::string& declareOn = "value") {
    auto response = Fault(code, subcode, uri, declareOn);
    return ParseLib::SoapErrorCheck(response.get());
}

struct SubcodeCase {
    const char* subcode;  // as the server writes it
    bool device;          // prefix bound to the device-service namespace
    DWORD expected;       // with Code soap:Sender
};

// One case per row of the subcode table, in its order.
const SubcodeCase kSubcodeCases[] = {
    {"wls:BadReques", false, ZEB_ERROR_FAULT_BAD_REQUEST},  // the row's name lacks the final "t"
    {"wls:FailedAuthentication", false, ZEB_ERROR_FAULT_FAILED_AUTHENTICATION},
    {"wls:NoSuchAccount", false, ZEB_ERROR_FAULT_NO_SUCH_ACCOUNT},
    {"wls:NetworkAccessError", false, ZEB_ERROR_FAULT_NETWORK_ACCESS_ERROR},
    {"wls:IllegalArgument", false, ZEB_ERROR_FAULT_ILLEGAL_ARGUMENT},
    {"wls:InvalidRequest", false, ZEB_ERROR_FAULT_INVALID_REQUEST},
    {"wls:InvalidSecurityToken", false, 0xD5070108u},  // codes of rows 7 and 8 are crossed over
    {"wls:InvalidSecurity", false, 0xD5070107u},
    {"wls:InvalidTimeRange", false, ZEB_ERROR_FAULT_INVALID_TIME_RANGE},
    {"wls:RequestFailed", false, ZEB_ERROR_FAULT_REQUEST_FAILED},
    {"wls:SecurityTokenUnavailable", false, ZEB_ERROR_FAULT_SECURITY_TOKEN_UNAVAILABLE},
    {"wls:UnableToRenew", false, ZEB_ERROR_FAULT_UNABLE_TO_RENEW},
    {"wls:UnableToRetrievePolicy", false, ZEB_ERROR_FAULT_UNABLE_TO_RETRIEVE_POLICY},
    {"wls:UnsupportedAlgorithm", false, ZEB_ERROR_FAULT_UNSUPPORTED_ALGORITHM},
    {"wls:UnsupportedSecurityToken", false, ZEB_ERROR_FAULT_UNSUPPORTED_SECURITY_TOKEN},
    {"wls:ElementDoesNotExist", false, ZEB_ERROR_FAULT_ELEMENT_DOES_NOT_EXIST},
    {"wls:ElementExist", false, ZEB_ERROR_FAULT_ELEMENT_EXIST},
    {"wls:General", false, ZEB_ERROR_FAULT_GENERAL},
    {"wls:MaxSession", false, ZEB_ERROR_FAULT_MAX_SESSION},
    {"wls:AuthenticationBusy", false, ZEB_ERROR_FAULT_AUTHENTICATION_BUSY},
    {"wls:UnknownException", false, ZEB_ERROR_FAULT_UNKNOWN_EXCEPTION},
    {"wls:ISORequired", false, ZEB_ERROR_FAULT_ISO_REQUIRED},
    {"wls:Policy", false, ZEB_ERROR_FAULT_POLICY},
    {"wls:AuthenticationBadElements", false, ZEB_ERROR_FAULT_AUTHENTICATION_BAD_ELEMENTS},
    {"wls:ExpiredData", false, ZEB_ERROR_FAULT_EXPIRED_DATA},
    {"wls:InvalidScope", false, ZEB_ERROR_FAULT_INVALID_SCOPE},
    {"wls:RenewNeeded", false, ZEB_ERROR_FAULT_RENEW_NEEDED},
    {"wls:LockOutError", false, ZEB_ERROR_FAULT_LOCK_OUT_ERROR},
    {"wls:SoapRequestMessageError", false, ZEB_ERROR_SOAP_SENDER},  // the login row can never match
    {"wls:LoginServiceError", false, ZEB_ERROR_FAULT_LOGIN_SERVICE_ERROR},
    {"zeb:SoapRequestMessageError", true, ZEB_ERROR_FAULT_SOAP_REQUEST_MESSAGE_ERROR},
    {"zeb:SoapResponseMessageError", true, ZEB_ERROR_FAULT_SOAP_RESPONSE_MESSAGE_ERROR},
    {"zeb:RoleMappingDataError", true, ZEB_ERROR_FAULT_ROLE_MAPPING_DATA_ERROR},
    {"zeb:DriverLogicError", true, ZEB_ERROR_FAULT_DRIVER_LOGIC_ERROR},
    {"zeb:IllegalActParameter", true, ZEB_ERROR_FAULT_ILLEGAL_ACT_PARAMETER},
    {"zeb:GetActErrorNotZebMode", true, ZEB_ERROR_FAULT_GET_ACT_ERROR_NOT_ZEB_MODE},
    {"zeb:InvalidContext", true, ZEB_ERROR_FAULT_INVALID_CONTEXT},
    {"zeb:GetActErrorRequestHmacKey", true, ZEB_ERROR_ACT_KEY_REQUIRED},
    {"zeb:GetActError", true, ZEB_ERROR_FAULT_GET_ACT_ERROR},
};
static_assert(sizeof(kSubcodeCases) / sizeof(kSubcodeCases[0]) == 39, "one case per table row");

// Makes both service namespaces the same URI for one test, so both prefix
// look-ups answer the same prefix.
class SameNamespaces {
public:
    SameNamespaces() : m_saved(AddinSettings::Current()) {
        std::shared_ptr<AddinSettings> settings = std::make_shared<AddinSettings>(*m_saved);
        settings->wstrZebNamespace = settings->wstrWlsNamespace;
        AddinSettings::Replace(settings);
    }
    ~SameNamespaces() { AddinSettings::Replace(m_saved); }

private:
    std::shared_ptr<const AddinSettings> m_saved;
};

}  // namespace

TEST(SoapErrorCheck, EverySubcodeRow) {
    for (const SubcodeCase& row : kSubcodeCases) {
        EXPECT_EQ(Check("soap:Sender", row.subcode, row.device ? kZebUri : kWlsUri), row.expected) << row.subcode;
    }
}

TEST(SoapErrorCheck, NoFaultIsZeroWithoutErrorLines) {
    auto response = Answer("get_act_response", R"({"act": "QUNU"})");
    msgtest::LogCapture log;
    EXPECT_EQ(ParseLib::SoapErrorCheck(response.get()), 0u);
    const std::string text = log.Text();
    EXPECT_NE(text.find("ParseLib SoapErrorCheck No Error OUT"), std::string::npos);
    EXPECT_EQ(text.find("ParseLib SoapFault"), std::string::npos);
}

TEST(SoapErrorCheck, CodeClassification) {
    EXPECT_EQ(Check("soap:VersionMismatch", "", ""), ZEB_ERROR_SOAP_VERSION_MISMATCH);
    EXPECT_EQ(Check("soap:MustUnderstand", "", ""), ZEB_ERROR_SOAP_MUST_UNDERSTAND);
    EXPECT_EQ(Check("soap:DataEncodingUnknown", "", ""), ZEB_ERROR_SOAP_DATA_ENCODING_UNKNOWN);
    EXPECT_EQ(Check("soap:Sender", "", ""), ZEB_ERROR_SOAP_SENDER);
    EXPECT_EQ(Check("soap:Receiver", "", ""), ZEB_ERROR_SOAP_RECEIVER);
    EXPECT_EQ(Check("env:Sender", "", ""), ZEB_ERROR_SOAP_SENDER);
}

TEST(SoapErrorCheck, EarlierCodeSubstringWins) {
    EXPECT_EQ(Check("x:MustUnderstandSender", "", ""), ZEB_ERROR_SOAP_MUST_UNDERSTAND);
}

TEST(SoapErrorCheck, UnknownCodeIsInvalidParameterUnlessASubcodeMatches) {
    {
        msgtest::LogCapture log;
        EXPECT_EQ(Check("soap:Strange", "", ""), ZEB_ERROR_INVALID_PARAMETER);
        EXPECT_TRUE(log.Contains("ParseLib SoapFault unknown."));
    }
    EXPECT_EQ(Check("soap:Strange", "wls:NoSuchAccount", kWlsUri), ZEB_ERROR_FAULT_NO_SUCH_ACCOUNT);
}

TEST(SoapErrorCheck, BadRequestWithItsFinalLetterIsUnmatched) {
    msgtest::LogCapture log;
    EXPECT_EQ(Check("soap:Sender", "wls:BadRequest", kWlsUri), ZEB_ERROR_SOAP_SENDER);
    EXPECT_TRUE(log.Contains("ParseLib SoapFault Subcode unmatched."));
}

TEST(SoapErrorCheck, InvalidSecurityAndInvalidSecurityTokenKeepTheirCrossedCodes) {
    EXPECT_EQ(Check("soap:Sender", "wls:InvalidSecurity", kWlsUri), 0xD5070107u);
    EXPECT_EQ(Check("soap:Sender", "wls:InvalidSecurityToken", kWlsUri), 0xD5070108u);
}

TEST(SoapErrorCheck, LoginSoapRequestMessageErrorIsNeverItsOwnCode) {
    EXPECT_EQ(Check("soap:Sender", "wls:SoapRequestMessageError", kWlsUri), ZEB_ERROR_SOAP_SENDER);
    EXPECT_EQ(Check("soap:Receiver", "x:SoapRequestMessageError", kWlsUri), ZEB_ERROR_SOAP_RECEIVER);
}

TEST(SoapErrorCheck, LoginSoapRequestMessageErrorReachesTheDeviceRowWhenBothPrefixesAreTheSame) {
    // Neither namespace declared: both prefixes are empty.
    EXPECT_EQ(Check("soap:Sender", ":SoapRequestMessageError", "", "none"), ZEB_ERROR_FAULT_SOAP_REQUEST_MESSAGE_ERROR);
    // Both namespaces the same URI: both look-ups find the one declaration.
    SameNamespaces same;
    EXPECT_EQ(Check("soap:Sender", "x:SoapRequestMessageError", kWlsUri), ZEB_ERROR_FAULT_SOAP_REQUEST_MESSAGE_ERROR);
}

TEST(SoapErrorCheck, OnlyADeclarationOnTheSubcodeValueCounts) {
    EXPECT_EQ(Check("soap:Sender", "wls:FailedAuthentication", kWlsUri, "value"),
              ZEB_ERROR_FAULT_FAILED_AUTHENTICATION);
    EXPECT_EQ(Check("soap:Sender", "wls:FailedAuthentication", kWlsUri, "envelope"), ZEB_ERROR_SOAP_SENDER);
}

TEST(SoapErrorCheck, AnyPrefixBoundToTheServiceNamespaceMatches) {
    EXPECT_EQ(Check("soap:Sender", "x:FailedAuthentication", kWlsUri), ZEB_ERROR_FAULT_FAILED_AUTHENTICATION);
    EXPECT_EQ(Check("soap:Receiver", "d:GetActErrorRequestHmacKey", kZebUri), ZEB_ERROR_ACT_KEY_REQUIRED);
}

TEST(SoapErrorCheck, DeviceSubcodeUnderTheLoginNamespaceIsUnmatched) {
    msgtest::LogCapture log;
    EXPECT_EQ(Check("soap:Receiver", "d:GetActErrorRequestHmacKey", kWlsUri), ZEB_ERROR_SOAP_RECEIVER);
    EXPECT_TRUE(log.Contains("ParseLib SoapFault Subcode unmatched."));
}

TEST(SoapErrorCheck, LogsTheFault) {
    msgtest::LogCapture log;
    EXPECT_EQ(Check("soap:Receiver", "d:GetActErrorRequestHmacKey", kZebUri), ZEB_ERROR_ACT_KEY_REQUIRED);
    const std::string text = log.Text();
    for (const char* line :
         {"ParseLib SoapFault soap:Body/soap:Fault/soap:Code/soap:Value = soap:Receiver",
          "ParseLib SoapFault Result = d5060005",
          "ParseLib SoapErrorCheck soap:Body/soap:Fault/soap:Reason/soap:Text = reason text",
          "ParseLib SoapErrorCheck soap:Body/soap:Fault/soap:Detail = detail text",
          "ParseLib SoapErrorCheck soap:Body/soap:Fault/soap:Code/soap:Subcode/soap:Value = d:GetActErrorRequestHmacKey",
          "ParseLib SoapFault SubCode Text = d:GetActErrorRequestHmacKey", "ParseLib SoapFault Result = d5070404",
          "ParseLib SoapErrorCheck OUT"})
        EXPECT_NE(text.find(line), std::string::npos) << line;
    EXPECT_EQ(text.find("Subcode unmatched."), std::string::npos);
}

TEST(SoapErrorCheck, MissingReasonDetailAndSubcodeOnlyEmptyTheLog) {
    auto response = Answer("soap_fault", R"({"code": "soap:Sender", "reason": null, "detail": null})");
    msgtest::LogCapture log;
    EXPECT_EQ(ParseLib::SoapErrorCheck(response.get()), ZEB_ERROR_SOAP_SENDER);
    EXPECT_TRUE(log.Contains("ParseLib SoapFault SubCode Text = "));
    EXPECT_TRUE(log.Contains("ParseLib SoapFault Subcode unmatched."));
}

TEST(SoapErrorCheck, NullResponse) { EXPECT_EQ(ParseLib::SoapErrorCheck(nullptr), ZEB_ERROR_INVALID_PARAMETER); }
