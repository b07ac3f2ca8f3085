#include "crypto/Base64Codec.h"

#include <climits>

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr uint32_t kLineChars = 76;
constexpr signed char kNotInAlphabet = -1;

// The value of each byte in the alphabet, or kNotInAlphabet.
struct DecodeTable {
    signed char value[256];
    constexpr DecodeTable() : value() {
        for (int i = 0; i < 256; ++i) value[i] = kNotInAlphabet;
        for (int i = 0; i < 64; ++i) value[static_cast<unsigned char>(kAlphabet[i])] = static_cast<signed char>(i);
    }
};
constexpr DecodeTable kDecode;

}  // namespace

namespace qv {

bool EncodedLength(uint32_t size, uint32_t* length) {
    if (static_cast<unsigned long long>(size) * 4 > static_cast<unsigned long long>(INT_MAX)) return false;
    uint32_t n = size * 4 / 3 + size % 3;
    const uint32_t rest = n % kLineChars;
    if (rest != 0 && rest % 4 != 0) n += 4 - rest % 4;
    n += 2 * (n / kLineChars + 1);
    *length = n;
    return true;
}

bool Base64Encode(const uint8_t* data, uint32_t size, char* out, uint32_t capacity) {
    uint32_t written = 0;
    uint32_t lineChars = 0;
    auto put = [&](char c) {
        if (written >= capacity) return false;
        out[written++] = c;
        return true;
    };
    auto putChar = [&](char c) {
        if (!put(c)) return false;
        if (++lineChars == kLineChars) {
            lineChars = 0;
            return put('\r') && put('\n');
        }
        return true;
    };
    uint32_t i = 0;
    for (; i + 3 <= size; i += 3) {
        const uint32_t group =
            (static_cast<uint32_t>(data[i]) << 16) | (static_cast<uint32_t>(data[i + 1]) << 8) | data[i + 2];
        if (!putChar(kAlphabet[(group >> 18) & 0x3F]) || !putChar(kAlphabet[(group >> 12) & 0x3F]) ||
            !putChar(kAlphabet[(group >> 6) & 0x3F]) || !putChar(kAlphabet[group & 0x3F]))
            return false;
    }
    const uint32_t left = size - i;
    if (left != 0) {
        uint32_t group = static_cast<uint32_t>(data[i]) << 16;
        if (left == 2) group |= static_cast<uint32_t>(data[i + 1]) << 8;
        if (!putChar(kAlphabet[(group >> 18) & 0x3F]) || !putChar(kAlphabet[(group >> 12) & 0x3F]) ||
            !putChar(left == 2 ? kAlphabet[(group >> 6) & 0x3F] : '=') || !putChar('='))
            return false;
    }
    return true;
}

uint32_t Base64Decode(const char* text, uint32_t length, uint8_t* out) {
    uint32_t written = 0;
    uint32_t group = 0;
    int count = 0;
    for (uint32_t i = 0; i < length && text[i] != '\0'; ++i) {
        const signed char v = kDecode.value[static_cast<unsigned char>(text[i])];
        if (v == kNotInAlphabet) continue;
        group = (group << 6) | static_cast<uint32_t>(v);
        if (++count == 4) {
            out[written++] = static_cast<uint8_t>(group >> 16);
            out[written++] = static_cast<uint8_t>(group >> 8);
            out[written++] = static_cast<uint8_t>(group);
            group = 0;
            count = 0;
        }
    }
    // A trailing group of two or three characters holds one or two bytes; a
    // single character holds fewer than eight bits and gives nothing.
    if (count == 2) {
        out[written++] = static_cast<uint8_t>(group >> 4);
    } else if (count == 3) {
        out[written++] = static_cast<uint8_t>(group >> 10);
        out[written++] = static_cast<uint8_t>(group >> 2);
    }
    return written;
}

}  // namespace qv
