// An incoming answer: the response text loaded with the module's fixed
// prefix bindings (soap, zeb, wls, wst, wsp, sp, samlv11) for XPath queries,
// and for MTOM exchanges the raw bytes of the whole HTTP body.
#pragma once

#include <string>
#include <vector>

#include "Quorvantis.h"
#include "common/HeapBuffer.h"
#include "soap/SoapMessage.h"

class SoapResponse : public SoapMessage {
public:
    SoapResponse();
    ~SoapResponse() override;

    // Loads the text; a text that does not parse leaves no document (later
    // queries answer kNoDocument).
    void SetSoapEnvelope(const std::wstring& text);
    // Takes ownership of a malloc'd buffer (and frees one set before).
    void SetMTOMData(BYTE* data, DWORD size);
    const BYTE* GetMTOMData() const { return m_pMTOMData.get(); }
    DWORD GetMTOMDataSize() const { return static_cast<DWORD>(m_pMTOMData.bytes()); }

    // The wls:AuthInfo entries of a GetPolicy answer, in document order.
    DWORD GetAuthInfoList(std::vector<AuthInfo>* list);

    // The SelectionNamespaces value: seven declarations, 34 blanks apart.
    static std::wstring SelectionNamespaces();

private:
    qv::ByteBuffer m_pMTOMData;
};
