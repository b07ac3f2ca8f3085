// One MSXML3 DOM document (DOMDocument30) with XPath queries relative to its
// root element. Each object initialises COM for its own lifetime and is used
// on the thread that made it. Results are the small values below, not the
// module's 0xD5 codes.
#pragma once

#include <windows.h>
#include <msxml2.h>

#include <string>

#include "common/ComPtr.h"

class SoapMessage {
public:
    enum : DWORD {
        kOk = 0,
        kComUnavailable = 1,   // COM not available on this thread
        kNoDocument = 7,       // "XML status is invalid."
        kInvalidArgument = 8,  // "invalid local params"
        kComError = 9,         // a COM error was raised and caught
        kBufferTooSmall = 10,
        kDomFailure = 11,
    };

    SoapMessage();
    virtual ~SoapMessage();
    SoapMessage(const SoapMessage&) = delete;
    SoapMessage& operator=(const SoapMessage&) = delete;

    DWORD SetXMLData(const wchar_t* xml, const wchar_t* selectionNamespaces);
    // A query that matches nothing answers kOk with an empty output.
    DWORD GetXMLNode(const wchar_t* xpath, qv::ComPtr<IXMLDOMNode>& node);
    DWORD GetXMLNodeList(const wchar_t* xpath, qv::ComPtr<IXMLDOMNodeList>& nodes);
    DWORD GetXMLDataValue(const wchar_t* xpath, std::wstring& value);
    DWORD GetXMLString(const wchar_t* xpath, std::wstring& markup);
    // The value of the node's first text child (left as it was if none).
    DWORD GetXMLDataValueFromNode(IXMLDOMNode* node, std::wstring& value);
    DWORD GetXMLDataValueFromNode(IXMLDOMNode* node, wchar_t* buffer, int capacity);
    DWORD GetXMLStringFromNode(IXMLDOMNode* node, std::wstring& markup);

    bool HasDocument() const { return static_cast<bool>(m_pDocumentElement); }
    BOOL ComAvailable() const { return m_bComAvailable; }
    BOOL ComToRelease() const { return m_bComRelease; }

protected:
    // The checks every operation starts with (arguments given, a document
    // loaded), logged; CheckQuery adds the XPath's own.
    DWORD CheckReady(bool argumentsGiven) const;
    DWORD CheckQuery(const wchar_t* xpath) const;

    BOOL m_bComRelease;
    BOOL m_bComAvailable;
    qv::ComPtr<IXMLDOMDocument2> m_pDocument;
    qv::ComPtr<IXMLDOMElement> m_pDocumentElement;
};
