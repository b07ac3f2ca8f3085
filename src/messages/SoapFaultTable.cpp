#include "messages/SoapFaultTable.h"

namespace qv {

namespace {

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

constexpr SubcodeRow kSubcodeTable[] = {
    {L"BadReques", FaultService::Login, ZEB_ERROR_FAULT_BAD_REQUEST, nullptr},  // no final "t": wls:BadRequest stays unmatched
    {L"FailedAuthentication", FaultService::Login, ZEB_ERROR_FAULT_FAILED_AUTHENTICATION, nullptr},
    {L"NoSuchAccount", FaultService::Login, ZEB_ERROR_FAULT_NO_SUCH_ACCOUNT, nullptr},
    {L"NetworkAccessError", FaultService::Login, ZEB_ERROR_FAULT_NETWORK_ACCESS_ERROR, nullptr},
    {L"IllegalArgument", FaultService::Login, ZEB_ERROR_FAULT_ILLEGAL_ARGUMENT, nullptr},
    {L"InvalidRequest", FaultService::Login, ZEB_ERROR_FAULT_INVALID_REQUEST, nullptr},
    {L"InvalidSecurityToken", FaultService::Login, ZEB_ERROR_FAULT_INVALID_SECURITY_TOKEN, nullptr},  // 0x108 before 0x107, on purpose
    {L"InvalidSecurity", FaultService::Login, ZEB_ERROR_FAULT_INVALID_SECURITY, nullptr},  // 0x107 after 0x108, on purpose
    {L"InvalidTimeRange", FaultService::Login, ZEB_ERROR_FAULT_INVALID_TIME_RANGE, nullptr},
    {L"RequestFailed", FaultService::Login, ZEB_ERROR_FAULT_REQUEST_FAILED, nullptr},
    {L"SecurityTokenUnavailable", FaultService::Login, ZEB_ERROR_FAULT_SECURITY_TOKEN_UNAVAILABLE, nullptr},
    {L"UnableToRenew", FaultService::Login, ZEB_ERROR_FAULT_UNABLE_TO_RENEW, nullptr},
    {L"UnableToRetrievePolicy", FaultService::Login, ZEB_ERROR_FAULT_UNABLE_TO_RETRIEVE_POLICY, nullptr},
    {L"UnsupportedAlgorithm", FaultService::Login, ZEB_ERROR_FAULT_UNSUPPORTED_ALGORITHM, nullptr},
    {L"UnsupportedSecurityToken", FaultService::Login, ZEB_ERROR_FAULT_UNSUPPORTED_SECURITY_TOKEN, nullptr},
    {L"ElementDoesNotExist", FaultService::Login, ZEB_ERROR_FAULT_ELEMENT_DOES_NOT_EXIST, nullptr},
    {L"ElementExist", FaultService::Login, ZEB_ERROR_FAULT_ELEMENT_EXIST, nullptr},
    {L"General", FaultService::Login, ZEB_ERROR_FAULT_GENERAL, nullptr},
    {L"MaxSession", FaultService::Login, ZEB_ERROR_FAULT_MAX_SESSION, nullptr},
    {L"AuthenticationBusy", FaultService::Login, ZEB_ERROR_FAULT_AUTHENTICATION_BUSY, nullptr},
    {L"UnknownException", FaultService::Login, ZEB_ERROR_FAULT_UNKNOWN_EXCEPTION, nullptr},
    {L"ISORequired", FaultService::Login, ZEB_ERROR_FAULT_ISO_REQUIRED, nullptr},
    {L"Policy", FaultService::Login, ZEB_ERROR_FAULT_POLICY, nullptr},
    {L"AuthenticationBadElements", FaultService::Login, ZEB_ERROR_FAULT_AUTHENTICATION_BAD_ELEMENTS, nullptr},
    {L"ExpiredData", FaultService::Login, ZEB_ERROR_FAULT_EXPIRED_DATA, nullptr},
    {L"InvalidScope", FaultService::Login, ZEB_ERROR_FAULT_INVALID_SCOPE, nullptr},
    {L"RenewNeeded", FaultService::Login, ZEB_ERROR_FAULT_RENEW_NEEDED, nullptr},
    {L"LockOutError", FaultService::Login, ZEB_ERROR_FAULT_LOCK_OUT_ERROR, nullptr},
    // Can never match (no subcode equals both texts), so 0xD5070201 is never returned; kept as it has always been.
    {L"SoapRequestMessageError", FaultService::Login, ZEB_ERROR_FAULT_LOGIN_SOAP_REQUEST_MESSAGE_ERROR, L"SoapRequestMessage is NULL"},
    {L"LoginServiceError", FaultService::Login, ZEB_ERROR_FAULT_LOGIN_SERVICE_ERROR, nullptr},
    {L"SoapRequestMessageError", FaultService::Device, ZEB_ERROR_FAULT_SOAP_REQUEST_MESSAGE_ERROR, nullptr},
    {L"SoapResponseMessageError", FaultService::Device, ZEB_ERROR_FAULT_SOAP_RESPONSE_MESSAGE_ERROR, nullptr},
    {L"RoleMappingDataError", FaultService::Device, ZEB_ERROR_FAULT_ROLE_MAPPING_DATA_ERROR, nullptr},
    {L"DriverLogicError", FaultService::Device, ZEB_ERROR_FAULT_DRIVER_LOGIC_ERROR, nullptr},
    {L"IllegalActParameter", FaultService::Device, ZEB_ERROR_FAULT_ILLEGAL_ACT_PARAMETER, nullptr},
    {L"GetActErrorNotZebMode", FaultService::Device, ZEB_ERROR_FAULT_GET_ACT_ERROR_NOT_ZEB_MODE, nullptr},
    {L"InvalidContext", FaultService::Device, ZEB_ERROR_FAULT_INVALID_CONTEXT, nullptr},
    {L"GetActErrorRequestHmacKey", FaultService::Device, ZEB_ERROR_ACT_KEY_REQUIRED, nullptr},
    {L"GetActError", FaultService::Device, ZEB_ERROR_FAULT_GET_ACT_ERROR, nullptr},
};
static_assert(sizeof(kSubcodeTable) / sizeof(kSubcodeTable[0]) == 39, "the subcode table has 39 rows");

}  // namespace

DWORD ClassifyCode(const std::wstring& code) {
    for (const CodeRow& row : kCodeTable)
        if (code.find(row.fragment) != std::wstring::npos) return row.result;
    return 0;
}

const SubcodeRow* FindSubcode(const std::wstring& subcode, const std::wstring& loginPrefix,
                              const std::wstring& devicePrefix) {
    for (const SubcodeRow& row : kSubcodeTable) {
        const std::wstring& prefix = row.service == FaultService::Login ? loginPrefix : devicePrefix;
        if (subcode != prefix + row.name) continue;
        if (row.alsoEquals && subcode != row.alsoEquals) continue;
        return &row;
    }
    return nullptr;
}

const SubcodeRow* SubcodeRows(size_t* count) {
    *count = sizeof(kSubcodeTable) / sizeof(kSubcodeTable[0]);
    return kSubcodeTable;
}

}  // namespace qv
