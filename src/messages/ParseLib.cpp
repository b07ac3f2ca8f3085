#include "messages/ParseLib.h"

#include <new>
#include <string>

#include "Quorvantis.h"
#include "log/WSCLog.h"
#include "messages/SoapFaultTable.h"
#include "soap/SoapRequest.h"
#include "soap/SoapResponse.h"

namespace {

constexpr const wchar_t* kCodeXPath = L"soap:Body/soap:Fault/soap:Code/soap:Value";
constexpr const wchar_t* kReasonXPath = L"soap:Body/soap:Fault/soap:Reason/soap:Text";
constexpr const wchar_t* kDetailXPath = L"soap:Body/soap:Fault/soap:Detail";
constexpr const wchar_t* kSubcodeXPath = L"soap:Body/soap:Fault/soap:Code/soap:Subcode/soap:Value";

DWORD Check(SoapResponse* response) {
    std::wstring code;
    if (response->GetXMLDataValue(kCodeXPath, code) != 0) {
        WSCLOG(4, L"ParseLib SoapErrorCheck No Error OUT");
        return 0;
    }

    DWORD result = qv::ClassifyCode(code);
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
    const qv::SubcodeRow* row = qv::FindSubcode(subcode, loginPrefix, devicePrefix);
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
    if (!response)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"ParseLib SoapErrorCheck ERROR ERROR_INVALID_PARAMETER = %08x");
    try {
        return Check(response);
    } catch (const std::bad_alloc&) {
        WSCLOG(1, L"ParseLib SoapErrorCheck ERROR ZEB_ERROR_OUTOFMEMORY = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
}

}  // namespace ParseLib
