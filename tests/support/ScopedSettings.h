// Settings of a test's own: the add-in's settings read from a temporary ini
// for as long as the holder lives, then the earlier ones back.
#pragma once

#include <windows.h>

#include <memory>
#include <string>

#include "config/AddinSettings.h"
#include "support/TestSupport.h"

namespace qvtest {

// Makes settings read from an ini (section "Quorvantis", the given lines)
// current; the settings that were current come back when it is destroyed.
// "{dir}" in the lines stands for the ini's own temporary folder.
class ScopedSettings {
public:
    explicit ScopedSettings(std::string keyLines) : m_previous(AddinSettings::Current()) {
        const std::string dir = Narrow(m_dir.Path());
        for (size_t at = keyLines.find("{dir}"); at != std::string::npos; at = keyLines.find("{dir}"))
            keyLines.replace(at, 5, dir);
        std::wstring ini = m_dir.File(L"Quorvantis.ini");
        WriteFileBytes(ini, "[Quorvantis]\r\n" + keyLines);
        AddinSettings::Replace(std::make_shared<const AddinSettings>(ini.c_str()));
    }
    std::wstring File(const std::wstring& name) const { return m_dir.File(name); }
    ~ScopedSettings() { AddinSettings::Replace(m_previous); }
    ScopedSettings(const ScopedSettings&) = delete;
    ScopedSettings& operator=(const ScopedSettings&) = delete;

private:
    TempDir m_dir;
    std::shared_ptr<const AddinSettings> m_previous;
};

// The ini lines that write every trace line to trace.log in the settings'
// own folder (read it back with File(L"trace.log")).
constexpr const char* kTraceToFile = "DebugLevel=5\r\nDebugFile={dir}\\trace.log\r\n";

}  // namespace qvtest
