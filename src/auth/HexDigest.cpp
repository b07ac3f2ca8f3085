#include "auth/HexDigest.h"

#include <cstdlib>

namespace {

int HexDigitValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

namespace qv {

char* HexText(const uint8_t* data, uint32_t size) {
    auto* hex = static_cast<char*>(std::calloc(static_cast<size_t>(size) * 2 + 1, 1));
    if (!hex) return nullptr;
    static const char kHexDigits[] = "0123456789abcdef";
    // Offsets in size_t: 2 * size does not fit 32 bits for every size.
    for (size_t i = 0; i < size; ++i) {
        hex[2 * i] = kHexDigits[data[i] >> 4];
        hex[2 * i + 1] = kHexDigits[data[i] & 0x0F];
    }
    return hex;
}

void HexPairsToBytes(const char* text, uint32_t pairs, uint8_t* out) {
    for (size_t i = 0; i < pairs; ++i) {
        int high = HexDigitValue(text[2 * i]);
        int low = HexDigitValue(text[2 * i + 1]);
        uint8_t value = 0;
        if (high >= 0) value = static_cast<uint8_t>(low >= 0 ? high * 16 + low : high);
        out[i] = value;
    }
}

}  // namespace qv
