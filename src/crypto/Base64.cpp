#include "crypto/Base64.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>

#include "common/HeapBuffer.h"
#include "log/StringConv.h"
#include "log/WSCLog.h"

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr DWORD kLineChars = 76;
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

// The text length the encoder may need for `size` bytes, line ends included
// (the sum is generous for short last lines). False when size x 4 would not
// fit a signed 32-bit count.
bool EncodedLength(DWORD size, DWORD* length) {
    if (static_cast<unsigned long long>(size) * 4 > static_cast<unsigned long long>(INT_MAX)) return false;
    DWORD n = size * 4 / 3 + size % 3;
    const DWORD rest = n % kLineChars;
    if (rest != 0 && rest % 4 != 0) n += 4 - rest % 4;
    n += 2 * (n / kLineChars + 1);
    *length = n;
    return true;
}

// Writes the Base64 text of `data` into `out` (capacity `capacity` bytes,
// terminator not counted) with CR LF after every complete 76-character line.
// False if the text would not fit.
bool Base64Encode(const BYTE* data, DWORD size, char* out, DWORD capacity) {
    DWORD written = 0;
    DWORD lineChars = 0;
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
    DWORD i = 0;
    for (; i + 3 <= size; i += 3) {
        const DWORD group = (static_cast<DWORD>(data[i]) << 16) | (static_cast<DWORD>(data[i + 1]) << 8) | data[i + 2];
        if (!putChar(kAlphabet[(group >> 18) & 0x3F]) || !putChar(kAlphabet[(group >> 12) & 0x3F]) ||
            !putChar(kAlphabet[(group >> 6) & 0x3F]) || !putChar(kAlphabet[group & 0x3F]))
            return false;
    }
    const DWORD left = size - i;
    if (left != 0) {
        DWORD group = static_cast<DWORD>(data[i]) << 16;
        if (left == 2) group |= static_cast<DWORD>(data[i + 1]) << 8;
        if (!putChar(kAlphabet[(group >> 18) & 0x3F]) || !putChar(kAlphabet[(group >> 12) & 0x3F]) ||
            !putChar(left == 2 ? kAlphabet[(group >> 6) & 0x3F] : '=') || !putChar('='))
            return false;
    }
    return true;
}

// Decodes `text` (stopping at its end or a zero byte) into `out`, which holds
// at least `length` bytes; characters outside the alphabet are skipped.
DWORD Base64Decode(const char* text, DWORD length, BYTE* out) {
    DWORD written = 0;
    DWORD group = 0;
    int count = 0;
    for (DWORD i = 0; i < length && text[i] != '\0'; ++i) {
        const signed char v = kDecode.value[static_cast<unsigned char>(text[i])];
        if (v == kNotInAlphabet) continue;
        group = (group << 6) | static_cast<DWORD>(v);
        if (++count == 4) {
            out[written++] = static_cast<BYTE>(group >> 16);
            out[written++] = static_cast<BYTE>(group >> 8);
            out[written++] = static_cast<BYTE>(group);
            group = 0;
            count = 0;
        }
    }
    // A trailing group of two or three characters holds one or two bytes; a
    // single character holds fewer than eight bits and gives nothing.
    if (count == 2) {
        out[written++] = static_cast<BYTE>(group >> 4);
    } else if (count == 3) {
        out[written++] = static_cast<BYTE>(group >> 10);
        out[written++] = static_cast<BYTE>(group >> 2);
    }
    return written;
}

}  // namespace

std::wstring Base64Encoding(const BYTE* data, DWORD size) {
    WSCLOG(4, L"Base64Encoding IN");
    std::wstring result;
    if (!data) {
        WSCLOG(1, L"Base64Encoding pData ERROR_INVALID_PARAMETER");
        return result;
    }
    if (size == 0) {
        WSCLOG(1, L"Base64Encoding size ERROR_INVALID_PARAMETER");
        return result;
    }
    // The text may carry a key or a password: wiped before it is freed.
    DWORD length = 0;
    qv::SecretChars text;
    if (!EncodedLength(size, &length) || !text.allocate(static_cast<size_t>(length) + 1)) {
        WSCLOG(1, L"Base64Encoding malloc ZEB_ERROR_OUTOFMEMORY");
        return result;
    }
    if (!Base64Encode(data, size, text.get(), length)) {
        WSCLOG(1, L"Base64Encoding Base64Encode");
        return result;
    }
    try {
        result = qv::Utf8ToWide(text.get(), std::strlen(text.get()));
    } catch (const std::bad_alloc&) {
        WSCLOG(1, L"Base64Encoding malloc ZEB_ERROR_OUTOFMEMORY");
        return std::wstring();
    }
    if (result.empty()) {
        WSCLOG(1, L"Base64Encoding Base64Encode");
        return result;
    }
    WSCLOG(4, L"Base64Encoding OUT");
    return result;
}

DWORD Base64Decoding(const std::wstring& text, BYTE** data) {
    WSCLOG(4, L"Base64Decoding IN");
    if (data) *data = nullptr;
    if (text.empty()) {
        WSCLOG(1, L"Base64Decoding base64String ERROR_INVALID_PARAMETER");
        return 0;
    }
    if (!data) {
        WSCLOG(1, L"Base64Decoding &pData ERROR_INVALID_PARAMETER");
        return 0;
    }
    DWORD utf8Length = 0;
    char* converted = ConvertWideToMulti(text.c_str(), CP_UTF8, &utf8Length);
    // Both the text and the bytes may be secrets: wiped before they are freed.
    qv::SecretChars utf8(converted, converted ? utf8Length : 0);
    if (!utf8) {
        WSCLOG(1, L"Base64Decoding malloc ZEB_ERROR_OUTOFMEMORY");
        return 0;
    }
    const DWORD length = static_cast<DWORD>(std::strlen(utf8.get()));
    qv::SecretBytes bytes;
    if (!bytes.allocate(length)) {
        WSCLOG(1, L"Base64Decoding malloc ZEB_ERROR_OUTOFMEMORY");
        return 0;
    }
    const DWORD decoded = Base64Decode(utf8.get(), length, bytes.get());
    if (decoded == 0) {
        // Nothing decodable (only padding or stray characters): no buffer
        // survives.
        WSCLOG(1, L"Base64Decoding Base64Decode");
        return 0;
    }
    *data = bytes.release();
    WSCLOG(4, L"Base64Decoding OUT");
    return decoded;
}
