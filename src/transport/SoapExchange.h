// One message through a transport session, as every client and mechanism
// sends one: the message serialised into an envelope addressed to one
// service path, sent, and the answer read back into the message. The codes
// of serialisation and transport come back as they are; only the device
// service's callers go on after a server error (0xD50001F4), so that the
// message reads the fault the answer carries.
#pragma once

#include <windows.h>

#include <string>

class CSoapTrans;
class WSRequest;

class SoapExchange {
public:
    enum class ServerError { Return, ReadFault };

    SoapExchange(const std::wstring& address, USHORT port, USHORT securePort, const std::wstring& servicePath)
        : m_address(address), m_port(port), m_securePort(securePort), m_servicePath(servicePath) {}

    // An empty mtom asks for a plain SOAP exchange. *answered says whether the
    // message got to read an answer (its own result is then returned).
    DWORD Run(CSoapTrans& transport, WSRequest& message, const std::wstring& mtom, ServerError onServerError,
              bool* answered) const;

private:
    const std::wstring& m_address;
    USHORT m_port;
    USHORT m_securePort;
    const std::wstring& m_servicePath;
};
