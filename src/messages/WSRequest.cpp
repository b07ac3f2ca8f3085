#include "messages/WSRequest.h"

DWORD WSRequest::Serialize(SoapRequest*) { return 0; }
DWORD WSRequest::Deserialize(SoapResponse*, const wchar_t*) { return 0; }
