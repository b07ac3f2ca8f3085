// Holders for the two COM value kinds the DOM hands out: BSTR (freed with
// SysFreeString) and VARIANT (cleared with VariantClear).
#pragma once

#include <windows.h>
#include <oleauto.h>

#include "common/Holders.h"

namespace qv {

// A BSTR copy of `text`; check with valid(), SysAllocString can fail.
inline qv::UniqueBstr MakeBstr(const wchar_t* text) noexcept {
    return qv::UniqueBstr(SysAllocString(text ? text : L""));
}

// Owns one VARIANT: initialised on construction, cleared on destruction.
// Clear() reports the result for callers that log a failed clear.
class ComVariant {
public:
    ComVariant() noexcept { VariantInit(&m_value); }
    ~ComVariant() { VariantClear(&m_value); }
    ComVariant(const ComVariant&) = delete;
    ComVariant& operator=(const ComVariant&) = delete;

    HRESULT Clear() noexcept { return VariantClear(&m_value); }
    // For out-parameters: clears the current value first.
    VARIANT* put() noexcept {
        VariantClear(&m_value);
        return &m_value;
    }
    VARIANT* get() noexcept { return &m_value; }
    const VARIANT& value() const noexcept { return m_value; }
    // The text when the variant holds a BSTR; null otherwise.
    const wchar_t* bstr() const noexcept { return m_value.vt == VT_BSTR ? m_value.bstrVal : nullptr; }

private:
    VARIANT m_value;
};

}  // namespace qv
