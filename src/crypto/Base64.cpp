// PLACEHOLDER: replaced by the Base64 implementation.
#include "crypto/Base64.h"
std::wstring Base64Encoding(const BYTE*, DWORD) { return std::wstring(); }
DWORD Base64Decoding(const std::wstring&, BYTE** data) { if (data) *data = nullptr; return 0; }
