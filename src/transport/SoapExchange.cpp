#include "transport/SoapExchange.h"

#include "Quorvantis.h"
#include "messages/WSRequest.h"
#include "soap/SoapRequest.h"
#include "soap/SoapResponse.h"
#include "transport/CSoapTrans.h"

DWORD SoapExchange::Run(CSoapTrans& transport, WSRequest& message, const std::wstring& mtom,
                        ServerError onServerError, bool* answered) const {
    *answered = false;
    SoapRequest request(m_address, m_port, m_securePort, m_servicePath);
    DWORD result = message.Serialize(&request);
    if (ZEB_FAILED(result)) return result;

    SoapResponse response;
    result = transport.Request(&request, &response, mtom);
    const bool readFault = onServerError == ServerError::ReadFault && result == ZEB_ERROR_HTTP_SERVER_ERROR;
    if (ZEB_FAILED(result) && !readFault) return result;

    *answered = true;
    return message.Deserialize(&response, mtom.c_str());
}
