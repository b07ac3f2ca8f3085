// What a trace line shows in place of a secret when TraceRedactSecrets is on:
// "***" for passwords, challenge answers and digests, the Basic payload, the
// encrypted HMAC key and the SAML assertion. Every other text of a line stays
// as it is. The masked text is built only for lines that are written, and
// never holds a copy of a secret.
#pragma once

#include <atomic>
#include <string>

class TraceRedaction {
public:
    static constexpr const wchar_t* kMask = L"***";

    // What a text is, for the trace.
    enum class Text {
        Plain,     // shown as it is
        Secret,    // shown as the mask
        Request,   // an envelope (or its header or body) the add-in sends
        Response,  // an answer of the server
    };

    // The text a log call shows: the text itself (no copy) while redaction
    // is off or the text is plain, else its masked form. Lives until the end
    // of the log call's full expression.
    class Shown {
    public:
        Shown(const std::wstring& text, Text kind);
        const wchar_t* c_str() const { return m_masked ? m_shown.c_str() : m_text->c_str(); }

    private:
        const std::wstring* m_text;
        bool m_masked = false;
        std::wstring m_shown;
    };
    static Shown Show(const std::wstring& text, Text kind) { return Shown(text, kind); }

    // Set with the trace level and file from the current settings.
    static void Configure(bool on) { s_on.store(on, std::memory_order_relaxed); }
    static bool On() { return s_on.load(std::memory_order_relaxed); }

    // An envelope with the content of every wls:Password,
    // wls:AuthenticationData and CipherData element, and every SAML assertion
    // whole, replaced by the mask.
    static std::wstring MaskRequest(const std::wstring& xml);
    // An answer with every SAML assertion replaced by the mask; the challenge
    // a server sends is no secret and stays.
    static std::wstring MaskResponse(const std::wstring& xml);

private:
    enum class Mask { Content, Element };
    struct SecretElement {
        const wchar_t* localName;  // after any prefix
        Mask mask;
    };
    static std::wstring Masked(const std::wstring& xml, const SecretElement* secrets, size_t count);

    static std::atomic<bool> s_on;
};
