// Turns a SOAP 1.2 fault in an answer into the module's result code: the
// Code by substring, then the Subcode against the table of both services.
#pragma once

#include <windows.h>

class SoapResponse;

namespace ParseLib {
// 0 when the answer holds no fault, else the fault's result code.
DWORD SoapErrorCheck(SoapResponse* response);
}  // namespace ParseLib
