// Helpers of the SOAP model tests: trace-line capture and the namespace URIs
// written out literally, so that the tests do not just echo the product's
// own constants back.
#pragma once

#include <gtest/gtest.h>
#include <windows.h>

#include <string>
#include <vector>

#include "config/AddinSettings.h"
#include "log/WSCLog.h"

namespace soaptest {

constexpr const wchar_t* kSoapUri = L"http://www.w3.org/2003/05/soap-envelope";

inline std::vector<std::wstring>& CapturedLines() {
    static std::vector<std::wstring> lines;
    return lines;
}
inline void CaptureWide(const wchar_t* line) { CapturedLines().push_back(line); }
inline void CaptureNarrow(const char* line) {
    std::wstring wide;
    for (const char* p = line; *p; ++p) wide += static_cast<wchar_t>(static_cast<unsigned char>(*p));
    CapturedLines().push_back(wide);
}

// Captures every trace line (all levels) for the life of the test.
class LoggedTest : public ::testing::Test {
protected:
    void SetUp() override {
        // Building the settings on first use configures the trace log from
        // them; do it first so that it does not undo the level set below.
        AddinSettings::Current();
        CapturedLines().clear();
        WSCLog::SetDebugSinksForTest(CaptureWide, CaptureNarrow);
        WSCLog::Configure(5, L"");
    }
    void TearDown() override {
        WSCLog::Configure(0, L"");
        WSCLog::SetDebugSinksForTest(nullptr, nullptr);
        CapturedLines().clear();
    }
    // True when some captured line ends with `text` (trace lines carry a
    // time and call-site prefix before the message).
    static bool Logged(const std::wstring& text) {
        for (const std::wstring& line : CapturedLines())
            if (line.size() >= text.size() && line.compare(line.size() - text.size(), text.size(), text) == 0)
                return true;
        return false;
    }
    static bool LoggedContaining(const std::wstring& text) {
        for (const std::wstring& line : CapturedLines())
            if (line.find(text) != std::wstring::npos) return true;
        return false;
    }
};

// Wine's msxml3 indents the `xml` of an element whose children are all
// elements (CR LF and tabs); Windows returns the markup as parsed.
inline std::wstring Unindented(const std::wstring& markup) {
    std::wstring text;
    for (wchar_t c : markup)
        if (c != L'\r' && c != L'\n' && c != L'\t') text += c;
    return text;
}

// A SOAP 1.2 envelope around `body` (the inside of soap:Body).
inline std::wstring Envelope(const std::wstring& body, const std::wstring& extraDeclarations = L"") {
    return std::wstring(L"<soap:Envelope xmlns:soap=\"") + kSoapUri + L"\"" + extraDeclarations +
           L"><soap:Body>" + body + L"</soap:Body></soap:Envelope>";
}

}  // namespace soaptest
