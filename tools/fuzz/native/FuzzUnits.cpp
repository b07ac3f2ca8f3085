// libFuzzer target over the platform-independent units (Base64, the escaping
// of user input, the SOAP fault tables, the ACT-flag table, the hex digest).
#include "Units.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    native::RunInput(data, size);
    return 0;
}
