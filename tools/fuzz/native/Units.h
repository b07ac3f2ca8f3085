// The platform-independent units under test, and the properties that hold
// for any input. Shared by the libFuzzer target and the ordinary checks.
#pragma once

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

#include "auth/HexDigest.h"
#include "clients/ActFlagTable.h"
#include "crypto/Base64Codec.h"
#include "messages/SoapFaultTable.h"
#include "soap/UserInputEscape.h"

namespace native {

// A broken property: say which and stop (libFuzzer keeps the input).
[[noreturn]] inline void Broken(const char* what) {
    std::fprintf(stderr, "PROPERTY BROKEN: %s\n", what);
    std::abort();
}
inline void Require(bool holds, const char* what) {
    if (!holds) Broken(what);
}

// Base64 text of bytes through the codec, as Base64Encoding sizes it.
inline std::string Encode(const uint8_t* data, uint32_t size) {
    uint32_t length = 0;
    Require(qv::EncodedLength(size, &length), "EncodedLength refuses a small size");
    std::vector<char> text(static_cast<size_t>(length) + 1, '\0');
    Require(qv::Base64Encode(data, size, text.data(), length), "Base64Encode overflows EncodedLength");
    return std::string(text.data());
}

inline std::vector<uint8_t> Decode(const std::string& text) {
    std::vector<uint8_t> out(text.size() + 1);
    const uint32_t n = qv::Base64Decode(text.c_str(), static_cast<uint32_t>(text.size()), out.data());
    Require(n <= text.size() * 3 / 4 + 2, "Base64Decode made more bytes than its text holds");
    out.resize(n);
    return out;
}

// Encoding then decoding gives the bytes back; the text is the alphabet,
// '=' and CR LF after every complete 76-character line only.
inline void Base64RoundTrip(const uint8_t* data, size_t size) {
    if (size == 0) return;
    const std::string text = Encode(data, static_cast<uint32_t>(size));
    Require(text.size() == (size + 2) / 3 * 4 + (((size + 2) / 3 * 4) / 76) * 2, "Base64 text length");
    size_t column = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '\r') {
            Require(column == 76 && i + 1 < text.size() && text[i + 1] == '\n', "CR LF only after 76 characters");
            column = 0;
            ++i;
            continue;
        }
        Require(std::isalnum(static_cast<unsigned char>(c)) || c == '+' || c == '/' || c == '=', "Base64 alphabet");
        Require(column < 76, "Base64 line longer than 76");
        ++column;
    }
    const std::vector<uint8_t> back = Decode(text);
    Require(back.size() == size && std::memcmp(back.data(), data, size) == 0, "Base64 round trip");
}

// Decoding any text never reads or writes out of bounds (ASan watches) and
// gives what the alphabet characters in it say, whatever else is around.
inline void Base64DecodeAny(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    const std::vector<uint8_t> decoded = Decode(text);
    std::string clean;
    for (char c : text) {
        if (c == '\0') break;
        if (std::isalnum(static_cast<unsigned char>(c)) || c == '+' || c == '/') clean += c;
    }
    Require(Decode(clean) == decoded, "Base64Decode depends on characters outside the alphabet");
}

// What the escaping makes, read back as XML text, is the input with every
// control character blanked; the output has no markup character of its own.
inline void EscapeProperties(const std::wstring& input) {
    size_t blanked = 0;
    const std::wstring out = qv::EscapeUserInput(input, &blanked);
    size_t controls = 0;
    std::wstring expected;
    for (wchar_t c : input) {
        const unsigned long unit = static_cast<unsigned long>(c);
        if (unit < 0x20) ++controls;
        expected += (unit < 0x20 || unit == 0x7F) ? L' ' : c;
    }
    Require(blanked == controls, "EscapeUserInput counts the blanked control characters");
    std::wstring unescaped;
    for (size_t i = 0; i < out.size(); ++i) {
        const wchar_t c = out[i];
        const unsigned long unit = static_cast<unsigned long>(c);
        Require(unit >= 0x20 && unit != 0x7F, "no control character survives");
        Require(c != L'<' && c != L'>' && c != L'"' && c != L'\'', "no markup character survives");
        if (c != L'&') {
            unescaped += c;
            continue;
        }
        static const struct { const wchar_t* entity; wchar_t c; } kEntities[] = {
            {L"&quot;", L'"'}, {L"&amp;", L'&'}, {L"&#39;", L'\''}, {L"&lt;", L'<'}, {L"&gt;", L'>'}};
        bool known = false;
        for (const auto& e : kEntities) {
            const size_t n = std::wcslen(e.entity);
            if (out.compare(i, n, e.entity) == 0) {
                unescaped += e.c;
                i += n - 1;
                known = true;
                break;
            }
        }
        Require(known, "an & starts one of the five entities");
    }
    Require(unescaped == expected, "unescaping gives the input back");
}

// Any fault texts map to 0/nullptr or to a code of the tables; a subcode
// that is exactly "<prefix>:<name>" of a row finds a row with that name.
inline void FaultTableProperties(const std::wstring& code, const std::wstring& subcode, const std::wstring& login,
                                 const std::wstring& device) {
    const DWORD result = qv::ClassifyCode(code);
    Require(result == 0 || (result & 0xFFFF0000u) == 0xD5060000u, "ClassifyCode gives a SOAP fault code");
    size_t count = 0;
    const qv::SubcodeRow* rows = qv::SubcodeRows(&count);
    const qv::SubcodeRow* row = qv::FindSubcode(subcode, login, device);
    if (row) {
        Require(row >= rows && row < rows + count, "FindSubcode gives a row of the table");
        const std::wstring& prefix = row->service == qv::FaultService::Login ? login : device;
        Require(subcode == prefix + row->name, "FindSubcode's row spells the subcode");
    }
}

// The values are those of the rows whose bits are set, each once, in table
// order; no flag gives the single value 0.
inline void ActFlagProperties(uint32_t flags) {
    const std::vector<int> values = qv::ActValuesForFlags(flags);
    if (flags == 0) {
        Require(values.size() == 1 && values[0] == 0, "no flag asks for ACV 0");
        return;
    }
    static const uint32_t kKnown = 0x00000007u | 0x00003F00u | 0x00070000u;
    size_t bits = 0;
    for (uint32_t f = flags & kKnown; f; f &= f - 1) ++bits;
    Require(values.size() == bits, "one ACV per known flag");
    for (size_t i = 0; i < values.size(); ++i)
        for (size_t j = i + 1; j < values.size(); ++j) Require(values[i] != values[j], "each ACV once");
}

// Hex text of bytes reads back as the bytes; any text reads without
// overrunning its pairs.
inline void HexProperties(const uint8_t* data, size_t size) {
    char* hex = qv::HexText(data, static_cast<uint32_t>(size));
    Require(hex != nullptr, "HexText");
    Require(std::strlen(hex) == size * 2, "HexText length");
    for (size_t i = 0; i < size * 2; ++i)
        Require((hex[i] >= '0' && hex[i] <= '9') || (hex[i] >= 'a' && hex[i] <= 'f'), "lowercase hex");
    std::vector<uint8_t> back(size + 1);
    qv::HexPairsToBytes(hex, static_cast<uint32_t>(size), back.data());
    Require(std::memcmp(back.data(), data, size) == 0, "hex round trip");
    std::free(hex);
    std::vector<uint8_t> any(size / 2 + 1);
    qv::HexPairsToBytes(reinterpret_cast<const char*>(data), static_cast<uint32_t>(size / 2), any.data());
}

// UTF-16 code units of the input (wchar_t is 32 bits here; the add-in only
// ever sees 16-bit units).
inline std::wstring Units16(const uint8_t* data, size_t size) {
    std::wstring text;
    for (size_t i = 0; i + 1 < size; i += 2) text += static_cast<wchar_t>(data[i] | (data[i + 1] << 8));
    return text;
}

inline std::wstring Ascii(const uint8_t* data, size_t size) {
    std::wstring text;
    for (size_t i = 0; i < size; ++i) text += static_cast<wchar_t>(data[i]);
    return text;
}

// One input: its first byte picks the unit, the rest is the unit's input.
inline void RunInput(const uint8_t* data, size_t size) {
    if (size == 0) return;
    const uint8_t selector = data[0];
    ++data;
    --size;
    switch (selector % 6) {
    case 0: Base64RoundTrip(data, size); break;
    case 1: Base64DecodeAny(data, size); break;
    case 2: EscapeProperties(Units16(data, size)); break;
    case 3: {
        // Four texts separated by '|': code, subcode, login and device prefix.
        std::wstring parts[4];
        size_t part = 0;
        for (size_t i = 0; i < size; ++i) {
            if (data[i] == '|' && part < 3) ++part;
            else parts[part] += static_cast<wchar_t>(data[i]);
        }
        FaultTableProperties(parts[0], parts[1], parts[2], parts[3]);
        break;
    }
    case 4: {
        uint32_t flags = 0;
        std::memcpy(&flags, data, size < 4 ? size : 4);
        ActFlagProperties(flags);
        break;
    }
    default: HexProperties(data, size); break;
    }
}

}  // namespace native
