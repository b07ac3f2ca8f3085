#include "soap/UserInputEscape.h"

namespace {

// One entity per character that XML text and attribute values must not carry
// verbatim; control characters are handled apart (they become a blank).
struct Escape {
    wchar_t character;
    const wchar_t* entity;
};
constexpr Escape kEscapes[] = {
    {L'"', L"&quot;"},
    {L'&', L"&amp;"},
    {L'\'', L"&#39;"},
    {L'<', L"&lt;"},
    {L'>', L"&gt;"},
};

const wchar_t* EntityFor(wchar_t c) {
    for (const Escape& row : kEscapes)
        if (row.character == c) return row.entity;
    return nullptr;
}

}  // namespace

namespace qv {

std::wstring EscapeUserInput(const std::wstring& text, size_t* blanked) {
    // The text may be a password: the result is sized exactly first, so that
    // it never moves to a larger block and leaves a partial copy behind.
    size_t length = 0;
    for (wchar_t c : text) {
        const wchar_t* entity = static_cast<unsigned long>(c) < 0x20 ? nullptr : EntityFor(c);
        length += entity ? std::char_traits<wchar_t>::length(entity) : 1;
    }
    size_t controls = 0;
    std::wstring result;
    result.reserve(length);
    for (wchar_t c : text) {
        // wchar_t is unsigned on Windows but may be signed elsewhere: compare
        // the code unit's value.
        const unsigned long unit = static_cast<unsigned long>(c);
        if (unit < 0x20) {
            ++controls;
            result += L' ';
        } else if (const wchar_t* entity = EntityFor(c)) {
            result += entity;
        } else if (unit == 0x7F) {
            result += L' ';
        } else {
            result += c;
        }
    }
    if (blanked) *blanked = controls;
    return result;
}

}  // namespace qv
