#include "log/TraceRedaction.h"

std::atomic<bool> TraceRedaction::s_on{false};

namespace {

bool EndsName(wchar_t c) { return c == L'>' || c == L'/' || c == L' ' || c == L'\t' || c == L'\r' || c == L'\n'; }

}  // namespace

TraceRedaction::Shown::Shown(const std::wstring& text, Text kind) : m_text(&text) {
    if (kind == Text::Plain || !On()) return;
    m_masked = true;
    switch (kind) {
        case Text::Request:
            m_shown = MaskRequest(text);
            break;
        case Text::Response:
            m_shown = MaskResponse(text);
            break;
        default:
            m_shown = kMask;
            break;
    }
}

std::wstring TraceRedaction::MaskRequest(const std::wstring& xml) {
    static const SecretElement kSecrets[] = {
        {L"Password", Mask::Content},
        {L"AuthenticationData", Mask::Content},
        {L"CipherData", Mask::Content},
        {L"Assertion", Mask::Element},
    };
    return Masked(xml, kSecrets, sizeof(kSecrets) / sizeof(kSecrets[0]));
}

std::wstring TraceRedaction::MaskResponse(const std::wstring& xml) {
    static const SecretElement kSecrets[] = {{L"Assertion", Mask::Element}};
    return Masked(xml, kSecrets, 1);
}

// Copies the text piece by piece, leaving the secrets out, so that no buffer
// of the result ever held one.
std::wstring TraceRedaction::Masked(const std::wstring& xml, const SecretElement* secrets, size_t count) {
    std::wstring out;
    size_t copied = 0;  // xml[0, copied) is accounted for in `out`
    size_t at = 0;
    while ((at = xml.find(L'<', at)) != std::wstring::npos) {
        size_t nameEnd = at + 1;
        while (nameEnd < xml.size() && !EndsName(xml[nameEnd])) ++nameEnd;
        const std::wstring name = xml.substr(at + 1, nameEnd - at - 1);
        const size_t colon = name.find(L':');
        const std::wstring local = colon == std::wstring::npos ? name : name.substr(colon + 1);
        const SecretElement* secret = nullptr;
        for (size_t i = 0; i < count && !name.empty() && name[0] != L'/'; ++i)
            if (local == secrets[i].localName) secret = &secrets[i];
        const size_t tagEnd = secret ? xml.find(L'>', nameEnd) : std::wstring::npos;
        if (!secret || (tagEnd != std::wstring::npos && xml[tagEnd - 1] == L'/')) {
            ++at;  // not a secret, or an empty element that holds nothing
            continue;
        }
        if (tagEnd == std::wstring::npos) {  // cut off inside the start tag
            out.append(xml, copied, at - copied);
            out += kMask;
            return out;
        }
        const std::wstring endTag = L"</" + name + L">";
        const size_t close = xml.find(endTag, tagEnd + 1);
        if (secret->mask == Mask::Element) {
            out.append(xml, copied, at - copied);
            copied = close == std::wstring::npos ? xml.size() : close + endTag.size();
        } else {
            out.append(xml, copied, tagEnd + 1 - copied);
            copied = close == std::wstring::npos ? xml.size() : close;
        }
        out += kMask;
        at = copied;
    }
    out.append(xml, copied, std::wstring::npos);
    return out;
}
