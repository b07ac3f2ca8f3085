#include "messages/ParseLib.h"

#include <new>
#include <string>

#include "Quorvantis.h"
#include "log/WSCLog.h"
#include "soap/SoapRequest.h"
#include "soap/SoapResponse.h"

namespace {

constexpr const wchar_t* kCodeXPath = L"soap:Body/soap:Fault/soap:Code/soap:Value";
constexpr const wchar_t* kReasonXPath = L"soap:Body/soap:Fault/soap:Reason/soap:Text";
constexpr const wchar_t* kDetailXPath = L"soap:Body/soap:Fault/soap:Detail";
constexpr const wchar_t* kSubcodeXPath = L"soap:Body/soap:Fault/soap:Code/soap:Subcode/soap:Value";

// The SOAP 1.2 fault codes, tested by substring in this order: the first one
// found anywhere in the Code value wins, whatever its prefix.
struct CodeRow {
    const wchar_t* fragment;
    DWORD result;
};

constexpr CodeRow kCodeTable[] = {
    {L"VersionMismatch", ZEB_ERROR_SOAP_VERSION_MISMATCH},
    {L"MustUnderstand", ZEB_ERROR_SOAP_MUST_UNDERSTAND},
    {L"DataEncodingUnknown", ZEB_ERROR_SOAP_DATA_ENCODING_UNKNOWN},
    {L"Sender", ZEB_ERROR_SOAP_SENDER},
    {L"Receiver", ZEB_ERROR_SOAP_RECEIVER},
};

// Which service's prefix a subcode name is qualified with.
enum class Service { Login, Device };

// One known subcode: compared as a whole with "<prefix>:<name>". A row with
// alsoEquals set must equal that text as well.
struct SubcodeRow {
    const wchar_t* name;
    Service service;
    DWORD result;
    const wchar_t* alsoEquals;
};

constexpr SubcodeRow kSubcodeTable[] = {
    {L"BadReques", Service::Login, ZEB_ERROR_FAULT_BAD_REQUEST, nullptr},  // no final "t": wls:BadRequest stays unmatched
    {L"FailedAuthentication", Service::Login, ZEB_ERROR_FAULT_FAILED_AUTHENTICATION, nullptr},
    {L"NoSuchAccount", Service::Login, ZEB_ERROR_FAULT_NO_SUCH_ACCOUNT, nullptr},
    {L"NetworkAccessError", Service::Login, ZEB_ERROR_FAULT_NETWORK_ACCESS_ERROR, nullptr},
    {L"IllegalArgument", Service::Login, ZEB_ERROR_FAULT_ILLEGAL_ARGUMENT, nullptr},
    {L"InvalidRequest", Service::Login, ZEB_ERROR_FAULT_INVALID_REQUEST, nullptr},
    {L"InvalidSecurityToken", Service::Login, ZEB_ERROR_FAULT_INVALID_SECURITY_TOKEN, nullptr},  // 0x108 before 0x107, on purpose
    {L"InvalidSecurity", Service::Login, ZEB_ERROR_FAULT_INVALID_SECURITY, nullptr},  // 0x107 after 0x108, on purpose
    {L"InvalidTimeRange", Service::Login, ZEB_ERROR_FAULT_INVALID_TIME_RANGE, nullptr},
    {L"RequestFailed", Service::Login, ZEB_ERROR_FAULT_REQUEST_FAILED, nullptr},
    {L"SecurityTokenUnavailable", Service::Login, ZEB_ERROR_FAULT_SECURITY_TOKEN_UNAVAILABLE, nullptr},
    {L"UnableToRenew", Service::Login, ZEB_ERROR_FAULT_UNABLE_TO_RENEW, nullptr},
    {L"UnableToRetrievePolicy", Service::Login, ZEB_ERROR_FAULT_UNABLE_TO_RETRIEVE_POLICY, nullptr},
    {L"UnsupportedAlgorithm", Service::Login, ZEB_ERROR_FAULT_UNSUPPORTED_ALGORITHM, nullptr},
    {L"UnsupportedSecurityToken", Service::Login, ZEB_ERROR_FAULT_UNSUPPORTED_SECURITY_TOKEN, nullptr},
    {L"ElementDoesNotExist", Service::Login, ZEB_ERROR_FAULT_ELEMENT_DOES_NOT_EXIST, nullptr},
    {L"ElementExist", Service::Login, ZEB_ERROR_FAULT_ELEMENT_EXIST, nullptr},
    {L"General", Service::Login, ZEB_ERROR_FAULT_GENERAL, nullptr},
    {L"MaxSession", Service::Login, ZEB_ERROR_FAULT_MAX_SESSION, nullptr},
    {L"AuthenticationBusy", Service::Login, ZEB_ERROR_FAULT_AUTHENTICATION_BUSY, nullptr},
    {L"UnknownException", Service::Login, ZEB_ERROR_FAULT_UNKNOWN_EXCEPTION, nullptr},
    {L"ISORequired", Service::Login, ZEB_ERROR_FAULT_ISO_REQUIRED, nullptr},
    {L"Policy", Service::Login, ZEB_ERROR_FAULT_POLICY, nullptr},
    {L"AuthenticationBadElements", Service::Login, ZEB_ERROR_FAULT_AUTHENTICATION_BAD_ELEMENTS, nullptr},
    {L"ExpiredData", Service::Login, ZEB_ERROR_FAULT_EXPIRED_DATA, nullptr},
    {L"InvalidScope", Service::Login, ZEB_ERROR_FAULT_INVALID_SCOPE, nullptr},
    {L"RenewNeeded", Service::Login, ZEB_ERROR_FAULT_RENEW_NEEDED, nullptr},
    {L"LockOutError", Service::Login, ZEB_ERROR_FAULT_LOCK_OUT_ERROR, nullptr},
    // Can never match (no subcode equals both texts), so 0xD5070201 is never returned; kept as it has always been.
    {L"SoapRequestMessageError", Service::Login, ZEB_ERROR_FAULT_LOGIN_SOAP_REQUEST_MESSAGE_ERROR, L"SoapRequestMessage is NULL"},
    {L"LoginServiceError", Service::Login, ZEB_ERROR_FAULT_LOGIN_SERVICE_ERROR, nullptr},
    {L"SoapRequestMessageError", Service::Device, ZEB_ERROR_FAULT_SOAP_REQUEST_MESSAGE_ERROR, nullptr},
    {L"SoapResponseMessageError", Service::Device, ZEB_ERROR_FAULT_SOAP_RESPONSE_MESSAGE_ERROR, nullptr},
    {L"RoleMappingDataError", Service::Device, ZEB_ERROR_FAULT_ROLE_MAPPING_DATA_ERROR, nullptr},
    {L"DriverLogicError", Service::Device, ZEB_ERROR_FAULT_DRIVER_LOGIC_ERROR, nullptr},
    {L"IllegalActParameter", Service::Device, ZEB_ERROR_FAULT_ILLEGAL_ACT_PARAMETER, nullptr},
    {L"GetActErrorNotZebMode", Service::Device, ZEB_ERROR_FAULT_GET_ACT_ERROR_NOT_ZEB_MODE, nullptr},
    {L"InvalidContext", Service::Device, ZEB_ERROR_FAULT_INVALID_CONTEXT, nullptr},
    {L"GetActErrorRequestHmacKey", Service::Device, ZEB_ERROR_ACT_KEY_REQUIRED, nullptr},
    {L"GetActError", Service::Device, ZEB_ERROR_FAULT_GET_ACT_ERROR, nullptr},
};
static_assert(sizeof(kSubcodeTable) / sizeof(kSubcodeTable[0]) == 39, "the subcode table has 39 rows");

DWORD ClassifyCode(const std::wstring& code) {
    for (const CodeRow& row : kCodeTable)
        if (code.find(row.fragment) != std::wstring::npos) return row.result;
    return 0;
}

// The first row equal to the whole subcode, or nullptr.
const SubcodeRow* FindSubcode(const std::wstring& subcode, const std::wstring& loginPrefix,
                              const std::wstring& devicePrefix) {
    for (const SubcodeRow& row : kSubcodeTable) {
        const std::wstring& prefix = row.service == Service::Login ? loginPrefix : devicePrefix;
        if (subcode != prefix + row.name) continue;
        if (row.alsoEquals && subcode != row.alsoEquals) continue;
        return &row;
    }
    return nullptr;
}

DWORD Check(SoapResponse* response) {
    std::wstring code;
    if (response->GetXMLDataValue(kCodeXPath, code) != 0) {
        WSCLOG(4, L"ParseLib SoapErrorCheck No Error OUT");
        return 0;
    }

    DWORD result = ClassifyCode(code);
    if (result == 0) {
        result = ZEB_ERROR_INVALID_PARAMETER;
        WSCLOG(1, L"ParseLib SoapFault unknown.");
    }
    WSCLOG(1, L"ParseLib SoapFault %s = %s", kCodeXPath, code.c_str());
    WSCLOG(1, L"ParseLib SoapFault Result = %08x", result);

    // Reason and detail are only logged; a missing one logs empty.
    std::wstring reason;
    response->GetXMLDataValue(kReasonXPath, reason);
    WSCLOG(1, L"ParseLib SoapErrorCheck %s = %s", kReasonXPath, reason.c_str());
    std::wstring detail;
    response->GetXMLDataValue(kDetailXPath, detail);
    WSCLOG(1, L"ParseLib SoapErrorCheck %s = %s", kDetailXPath, detail.c_str());

    std::wstring subcode;
    response->GetXMLDataValue(kSubcodeXPath, subcode);
    WSCLOG(1, L"ParseLib SoapErrorCheck %s = %s", kSubcodeXPath, subcode.c_str());

    const std::wstring loginPrefix = SoapRequest::GetWlsSoapFaultPrefix(response) + L":";
    const std::wstring devicePrefix = SoapRequest::GetZebSoapFaultPrefix(response) + L":";
    const SubcodeRow* row = FindSubcode(subcode, loginPrefix, devicePrefix);
    if (row)
        result = row->result;
    else
        WSCLOG(1, L"ParseLib SoapFault Subcode unmatched.");

    WSCLOG(1, L"ParseLib SoapFault SubCode Text = %s", subcode.c_str());
    WSCLOG(1, L"ParseLib SoapFault Result = %08x", result);
    WSCLOG(4, L"ParseLib SoapErrorCheck OUT");
    return result;
}

}  // namespace

namespace ParseLib {

DWORD SoapErrorCheck(SoapResponse* response) {
    WSCLOG(4, L"ParseLib SoapErrorCheck IN");
    if (!response) {
        WSCLOG(1, L"ParseLib SoapErrorCheck ERROR ERROR_INVALID_PARAMETER = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    try {
        return Check(response);
    } catch (const std::bad_alloc&) {
        WSCLOG(1, L"ParseLib SoapErrorCheck ERROR ZEB_ERROR_OUTOFMEMORY = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
}

}  // namespace ParseLib
