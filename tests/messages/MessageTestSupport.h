// Helpers of the message tests: answers rendered by the reference server's
// answer builders, loaded into a SoapResponse, and a trace-log capture.
#pragma once

#include <gtest/gtest.h>
#include <windows.h>

#include <memory>
#include <string>

#include "config/AddinSettings.h"
#include "log/StringConv.h"
#include "log/WSCLog.h"
#include "soap/SoapRequest.h"
#include "soap/SoapResponse.h"
#include "support/RefServer.h"
#include "support/TestSupport.h"

namespace msgtest {

// The namespaces of the default settings, as the expected texts spell them.
constexpr const wchar_t* kWls = L"urn:orvel:zeb:wls";
constexpr const wchar_t* kZeb = L"urn:orvel:zeb:drvcomm";

// An answer of tools/refserver/answers.py, rendered through the control port.
inline std::wstring Render(const std::string& name, const std::string& argsJson = "{}") {
    const std::string text = qvtest::RenderAnswer(name, argsJson);
    return qv::Utf8ToWide(text.data(), text.size());
}

// A response holding the rendered answer; fails the test if it does not load.
inline std::unique_ptr<SoapResponse> Answer(const std::string& name, const std::string& argsJson = "{}") {
    const std::wstring text = Render(name, argsJson);
    EXPECT_FALSE(text.empty()) << "no answer rendered for " << name << " " << argsJson;
    std::unique_ptr<SoapResponse> response(new SoapResponse());
    response->SetSoapEnvelope(text);
    EXPECT_TRUE(response->HasDocument()) << name << " " << argsJson;
    return response;
}

inline std::unique_ptr<SoapRequest> NewRequest() {
    return std::unique_ptr<SoapRequest>(new SoapRequest(L"srv", 8000, 8443, L"/wls/STSServer.actv"));
}

// Sends the trace log at level 5 to a file for the capture's lifetime. The
// settings are loaded first: loading them sets the log from the ini.
class LogCapture {
public:
    LogCapture() : m_file(m_dir.File(L"trace.log")) {
        AddinSettings::Current();
        WSCLog::Configure(5, m_file);
    }
    ~LogCapture() { WSCLog::Configure(0, L""); }
    std::string Text() const { return qvtest::ReadFileBytes(m_file); }
    bool Contains(const std::string& fragment) const { return Text().find(fragment) != std::string::npos; }

private:
    qvtest::TempDir m_dir;
    std::wstring m_file;
};

}  // namespace msgtest
