#include "soap/SoapResponse.h"

#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <memory>
#include <new>

#include "common/ComString.h"
#include "config/AddinSettings.h"
#include "log/TraceRedaction.h"
#include "log/WSCLog.h"
#include "soap/Namespaces.h"

namespace {

constexpr const wchar_t* kAuthInfoXPath =
    L"soap:Body/wls:GetPolicyResponse/wls:Policy/wls:LoginAppCustomPolicy/wsp:Policy/wsp:ExactlyOne/"
    L"sp:SamlToken/wsp:Policy/wls:Claims/wls:LoginAppInfo/wls:AuthInfo";

// The separator between two prefix bindings of the selection namespaces.
constexpr size_t kBindingGapBlanks = 34;
constexpr int kAuthInfoChars = 64;

}  // namespace

SoapResponse::SoapResponse() {
    WSCLOG(4, L"SoapResponse::SoapResponse IN");
    WSCLOG(4, L"SoapResponse::SoapResponse OUT");
}

SoapResponse::~SoapResponse() {
    WSCLOG(4, L"SoapResponse::~SoapResponse IN");
    m_pMTOMData.reset();
    WSCLOG(4, L"SoapResponse::~SoapResponse OUT");
}

namespace {

// The bindings text of the settings it was built from; rebuilt only when
// Initialize has made other settings current.
SRWLOCK g_bindingsLock = SRWLOCK_INIT;
std::shared_ptr<const AddinSettings> g_bindingsSettings;
std::wstring g_bindings;

std::wstring BuildSelectionNamespaces(const AddinSettings& settings) {
    struct Binding {
        const wchar_t* prefix;
        const std::wstring& uri;
    };
    const std::wstring soap = ns::kSoap, wst = ns::kWst, wsp = ns::kWsp, sp = ns::kSp, saml = ns::kSaml11;
    const Binding bindings[] = {
        {L"soap", soap}, {L"zeb", settings.wstrZebNamespace}, {L"wls", settings.wstrWlsNamespace}, {L"wst", wst},
        {L"wsp", wsp},   {L"sp", sp},                         {L"samlv11", saml},
    };
    std::wstring text;
    text.reserve(512);
    for (const Binding& binding : bindings) {
        if (!text.empty()) text.append(kBindingGapBlanks, L' ');
        text += L"xmlns:";
        text += binding.prefix;
        text += L"='";
        text += binding.uri;
        text += L"'";
    }
    return text;
}

}  // namespace

std::wstring SoapResponse::SelectionNamespaces() {
    std::shared_ptr<const AddinSettings> settings = AddinSettings::Current();
    {
        qv::SrwShared hold(g_bindingsLock);
        if (g_bindingsSettings == settings) return g_bindings;
    }
    std::wstring text = BuildSelectionNamespaces(*settings);
    qv::SrwExclusive hold(g_bindingsLock);
    g_bindingsSettings = settings;
    g_bindings = text;
    return text;
}

void SoapResponse::SetSoapEnvelope(const std::wstring& text) {
    WSCLOG(4, L"SoapResponse::SetSoapEnvelope IN");
    WSCLOG(5, L"ResponseMessage=%s", TraceRedaction::Show(text, TraceRedaction::Text::Response).c_str());
    // A text that does not parse leaves no document; later queries say so.
    SetXMLData(text.c_str(), SelectionNamespaces().c_str());
    WSCLOG(4, L"SoapResponse::SetSoapEnvelope OUT");
}

void SoapResponse::SetMTOMData(BYTE* data, DWORD size) {
    WSCLOG(4, L"SoapResponse::SetMTOMData IN");
    m_pMTOMData.reset(data, data ? size : 0);
    WSCLOG(4, L"SoapResponse::SetMTOMData OUT");
}

DWORD SoapResponse::GetAuthInfoList(std::vector<AuthInfo>* list) {
    WSCLOG(4, L"SoapResponse::GetAuthInfoList IN");
    DWORD ret = kOk;
    [&] {
        if (!list) {
            WSCLOG(1, L"invalid local params\n");
            ret = kInvalidArgument;
            return;
        }
        list->clear();
        qv::ComPtr<IXMLDOMNodeList> entries;
        ret = GetXMLNodeList(kAuthInfoXPath, entries);
        if (ret != kOk) {
            WSCLOG(1, L"GetXMLNodeList fails, XPath = %s", kAuthInfoXPath);
            return;
        }
        if (!entries) return;  // no AuthInfo at all: an empty list
        long entryCount = 0;
        if (FAILED(entries->get_length(&entryCount))) {
            WSCLOG(1, L"paAuthInfoNode->get_length failed.\n");
            ret = kDomFailure;
            return;
        }
        for (long i = 0; i < entryCount; ++i) {
            qv::ComPtr<IXMLDOMNode> entry;
            if (FAILED(entries->get_item(i, entry.put())) || !entry) {
                WSCLOG(1, L"paAuthInfoNode->get_item failed.\n");
                ret = kDomFailure;
                return;
            }
            qv::ComPtr<IXMLDOMNodeList> claims;
            if (FAILED(entry->get_childNodes(claims.put())) || !claims) {
                WSCLOG(1, L"paAuthInfoNode->get_childNodes failed.\n");
                ret = kDomFailure;
                return;
            }
            long claimCount = 0;
            if (FAILED(claims->get_length(&claimCount))) {
                WSCLOG(1, L"paClaimNode->get_length failed.\n");
                ret = kDomFailure;
                return;
            }
            AuthInfo record;
            std::memset(&record, 0, sizeof(record));
            for (long j = 0; j < claimCount; ++j) {
                qv::ComPtr<IXMLDOMNode> claim;
                if (FAILED(claims->get_item(j, claim.put())) || !claim) {
                    WSCLOG(1, L"paClaimNode->get_item failed.\n");
                    ret = kDomFailure;
                    return;
                }
                qv::UniqueBstr name;
                if (FAILED(claim->get_baseName(name.put()))) {
                    WSCLOG(1, L"paClaimNode->get_baseName failed.\n");
                    ret = kDomFailure;
                    return;
                }
                if (!name) continue;  // text and comment children have no name
                // The value reads are not checked: a value too long for its
                // field arrives cut, and the record is kept.
                if (wcscmp(name.get(), L"Info") == 0) {
                    GetXMLDataValueFromNode(claim.get(), record.Info, kAuthInfoChars);
                } else if (wcscmp(name.get(), L"AuthType") == 0) {
                    GetXMLDataValueFromNode(claim.get(), record.AuthType, kAuthInfoChars);
                } else if (wcscmp(name.get(), L"EnableCredentialCache") == 0) {
                    wchar_t flag[kAuthInfoChars] = {};
                    GetXMLDataValueFromNode(claim.get(), flag, kAuthInfoChars);
                    record.bEnableCredentialCache = _wcsicmp(flag, L"true") == 0 ? 1 : 0;
                }
            }
            try {
                list->push_back(record);
            } catch (const std::bad_alloc&) {
                WSCLOG(1, L"SoapResponse::GetAuthInfoList ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
                ret = ZEB_ERROR_OUTOFMEMORY;
                return;
            }
        }
    }();
    WSCLOG(4, L"SoapResponse::GetAuthInfoList OUT");
    return ret;
}
