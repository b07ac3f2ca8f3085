// An outgoing SOAP 1.2 message: header and body text written by a service
// message, its action and the server address; GetSoapEnvelope makes the exact
// text the transport sends (plain, or the root part of an MTOM message).
#pragma once

#include <string>

#include "common/HeapBuffer.h"
#include "soap/SoapMessage.h"

class SoapRequest : public SoapMessage {
public:
    SoapRequest(const std::wstring& hostName, USHORT port, USHORT securePort, const std::wstring& servicePath);
    ~SoapRequest() override;

    void SetSoapHeader(const std::wstring& header) { m_wstrSoapHeader = header; }
    // The body may carry a secret: a body it replaces is wiped first, and the
    // destructor wipes the last one.
    void SetSoapBody(const std::wstring& body) {
        qv::SecureWipe(m_wstrSoapBody);
        m_wstrSoapBody = body;
    }
    void SetAction(const std::wstring& action) { m_wstrAction = action; }
    std::wstring GetAction() const { return m_wstrAction; }
    const std::wstring& GetSoapHeader() const { return m_wstrSoapHeader; }
    const std::wstring& GetSoapBody() const { return m_wstrSoapBody; }

    // Builds the envelope with "http://" (or, in SSL mode, "https://")
    // addressing in the first empty wsa:To; an MTOM id wraps it as a MIME part.
    std::wstring GetSoapEnvelope(std::wstring& envelope, BOOL sslMode, const std::wstring& mtomId);

    // Escapes user input for XML: " & ' < > become entities; control
    // characters and 0x7F become a blank. A secret (a password) is logged
    // as TraceRedactSecrets says.
    static std::wstring SanitizeUserInputStr(const std::wstring& text, bool secret = false);
    // The prefix the fault's soap:Value declares for the login-service /
    // device-service namespace; empty when it declares none.
    static std::wstring GetWlsSoapFaultPrefix(SoapMessage* response);
    static std::wstring GetZebSoapFaultPrefix(SoapMessage* response);

private:
    std::wstring m_wstrSoapHeader;
    std::wstring m_wstrSoapBody;
    std::wstring m_wstrAction;
    std::wstring m_wstrHostName;
    USHORT m_usPort;
    USHORT m_usSecurePort;
    std::wstring m_wstrServicePath;
};
