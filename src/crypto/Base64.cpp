#include "crypto/Base64.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "common/HeapBuffer.h"
#include "crypto/Base64Codec.h"
#include "log/StringConv.h"
#include "log/WSCLog.h"

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
    uint32_t length = 0;
    qv::SecretChars text;
    if (!qv::EncodedLength(size, &length) || !text.allocate(static_cast<size_t>(length) + 1)) {
        WSCLOG(1, L"Base64Encoding malloc ZEB_ERROR_OUTOFMEMORY");
        return result;
    }
    if (!qv::Base64Encode(data, size, text.get(), length)) {
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
    const DWORD decoded = qv::Base64Decode(utf8.get(), length, bytes.get());
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
