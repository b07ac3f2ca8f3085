// The settings record read from ini files.
#include <gtest/gtest.h>
#include <windows.h>

#include <memory>
#include <string>

#include "config/AddinSettings.h"
#include "log/WSCLog.h"
#include "support/TestSupport.h"

namespace {

class AddinSettingsTest : public ::testing::Test {
protected:
    std::wstring WriteIni(const std::string& body) {
        std::wstring path = m_dir.File(L"Quorvantis.ini");
        EXPECT_TRUE(qvtest::WriteFileBytes(path, body));
        return path;
    }
    qvtest::TempDir m_dir;
};

void ExpectDefaults(const AddinSettings& s) {
    EXPECT_EQ(s.dwDebugLevel, 0u);
    EXPECT_EQ(s.wstrDebugFile, L"");
    EXPECT_EQ(s.wstrPolicyServiceUrl, L"/wls/WLSPolicyService.actv");
    EXPECT_EQ(s.wstrSTSUrl, L"/wls/STSServer.actv");
    EXPECT_EQ(s.wstrDrvCommUrl, L"/zeb/Drv-Comm.actv");
    EXPECT_EQ(s.wstrWebProxy, L"");
    EXPECT_EQ(s.usPortNo, 8000);
    EXPECT_EQ(s.usSecurePortNo, 8443);
    EXPECT_EQ(s.dwTimeout, 20000u);
    EXPECT_EQ(s.dwRetryCount, 0u);
    EXPECT_EQ(s.dwEnableMTOM, 0u);
    EXPECT_EQ(s.dwStrictServerCertificate, 0u);
    EXPECT_EQ(s.wstrWlsNamespace, AddinSettings::kDefaultWlsNamespace);
    EXPECT_EQ(s.wstrZebNamespace, AddinSettings::kDefaultZebNamespace);
}

TEST_F(AddinSettingsTest, MissingFileGivesAllDefaults) {
    std::wstring path = m_dir.File(L"absent.ini");
    AddinSettings settings(path.c_str());
    ExpectDefaults(settings);
    EXPECT_EQ(settings.wstrIniPath, path);
}

TEST_F(AddinSettingsTest, NullPathGivesAllDefaults) {
    AddinSettings settings(nullptr);
    ExpectDefaults(settings);
    EXPECT_EQ(settings.wstrIniPath, L"");
}

TEST_F(AddinSettingsTest, EveryKeyIsRead) {
    std::wstring path = WriteIni(
        "[Quorvantis]\r\n"
        "DebugLevel=5\r\n"
        "DebugFile=C:\\logs\\trace.log\r\n"
        "PolicyServiceUrl=/p\r\n"
        "STSUrl=/s\r\n"
        "DrvCommUrl=/d\r\n"
        "WebProxy=proxy:3128\r\n"
        "PortNo=8080\r\n"
        "SecurePortNo=9443\r\n"
        "Timeout=1500\r\n"
        "RetryCount=3\r\n"
        "EnableMTOM=1\r\n"
        "StrictServerCertificate=1\r\n"
        "WlsNamespace=urn:test:wls\r\n"
        "ZebNamespace=urn:test:zeb\r\n");
    AddinSettings s(path.c_str());
    EXPECT_EQ(s.dwDebugLevel, 5u);
    EXPECT_EQ(s.wstrDebugFile, L"C:\\logs\\trace.log");
    EXPECT_EQ(s.wstrPolicyServiceUrl, L"/p");
    EXPECT_EQ(s.wstrSTSUrl, L"/s");
    EXPECT_EQ(s.wstrDrvCommUrl, L"/d");
    EXPECT_EQ(s.wstrWebProxy, L"proxy:3128");
    EXPECT_EQ(s.usPortNo, 8080);
    EXPECT_EQ(s.usSecurePortNo, 9443);
    EXPECT_EQ(s.dwTimeout, 1500u);
    EXPECT_EQ(s.dwRetryCount, 3u);
    EXPECT_EQ(s.dwEnableMTOM, 1u);
    EXPECT_EQ(s.dwStrictServerCertificate, 1u);
    EXPECT_EQ(s.wstrWlsNamespace, L"urn:test:wls");
    EXPECT_EQ(s.wstrZebNamespace, L"urn:test:zeb");
    EXPECT_EQ(s.wstrIniPath, path);
}

TEST_F(AddinSettingsTest, PortsAreTruncatedTo16Bits) {
    std::wstring path = WriteIni("[Quorvantis]\nPortNo=70000\nSecurePortNo=65979\n");
    AddinSettings s(path.c_str());
    EXPECT_EQ(s.usPortNo, 4464);  // 70000 modulo 65536
    EXPECT_EQ(s.usSecurePortNo, 443);
}

TEST_F(AddinSettingsTest, EmptyValuesKeepTheirDefaults) {
    std::wstring path = WriteIni(
        "[Quorvantis]\nPolicyServiceUrl=\nSTSUrl=\nDrvCommUrl=\nDebugFile=\nWebProxy=\nWlsNamespace=\n");
    AddinSettings s(path.c_str());
    EXPECT_EQ(s.wstrPolicyServiceUrl, L"/wls/WLSPolicyService.actv");
    EXPECT_EQ(s.wstrSTSUrl, L"/wls/STSServer.actv");
    EXPECT_EQ(s.wstrDrvCommUrl, L"/zeb/Drv-Comm.actv");
    EXPECT_EQ(s.wstrDebugFile, L"");
    EXPECT_EQ(s.wstrWebProxy, L"");
    EXPECT_EQ(s.wstrWlsNamespace, AddinSettings::kDefaultWlsNamespace);
}

TEST_F(AddinSettingsTest, NegativeAndGarbageNumbers) {
    std::wstring path = WriteIni(
        "[Quorvantis]\nDebugLevel=-1\nTimeout=-5\nRetryCount=abc\nPortNo=-1\nEnableMTOM=7x\nSecurePortNo=\n");
    AddinSettings s(path.c_str());
    EXPECT_EQ(s.dwDebugLevel, 0xFFFFFFFFu);
    EXPECT_EQ(s.dwTimeout, static_cast<DWORD>(-5));
    EXPECT_EQ(s.dwRetryCount, 0u);  // not a number: the reader gives 0
    EXPECT_EQ(s.usPortNo, 65535);
    EXPECT_EQ(s.dwEnableMTOM, 7u);  // digits up to the first other character
    EXPECT_EQ(s.usSecurePortNo, 8443);  // present but empty: the reader's default
}

TEST_F(AddinSettingsTest, StrictServerCertificateIsReadLikeTheOtherNumbers) {
    struct Case {
        const char* line;
        DWORD expected;
    };
    const Case cases[] = {
        {"", 0},                                          // absent: lenient
        {"StrictServerCertificate=0\n", 0},
        {"StrictServerCertificate=1\n", 1},
        {"StrictServerCertificate=\n", 0},                // present but empty: the default
        {"StrictServerCertificate=2\n", 2},               // any non-zero value is strict
        {"StrictServerCertificate=-1\n", 0xFFFFFFFFu},
        {"StrictServerCertificate=1x\n", 1},              // digits up to the first other character
        {"StrictServerCertificate=yes\n", 0},             // not a number: the reader gives 0
        {"strictservercertificate=1\n", 1},               // key names ignore case
    };
    for (const Case& c : cases) {
        std::wstring path = WriteIni(std::string("[Quorvantis]\n") + c.line);
        AddinSettings s(path.c_str());
        EXPECT_EQ(s.dwStrictServerCertificate, c.expected) << c.line;
    }
}

TEST_F(AddinSettingsTest, LongValuesAreCutTo259Characters) {
    std::string longPath(400, 'x');
    std::wstring path = WriteIni("[Quorvantis]\nSTSUrl=/" + longPath + "\n");
    AddinSettings s(path.c_str());
    EXPECT_EQ(s.wstrSTSUrl.size(), 259u);
    EXPECT_EQ(s.wstrSTSUrl.substr(0, 3), L"/xx");
}

TEST_F(AddinSettingsTest, OtherSectionsAreIgnored) {
    std::wstring path = WriteIni("[Other]\nPortNo=1\nSTSUrl=/other\n[Quorvantis]\nTimeout=2\n");
    AddinSettings s(path.c_str());
    EXPECT_EQ(s.usPortNo, 8000);
    EXPECT_EQ(s.wstrSTSUrl, L"/wls/STSServer.actv");
    EXPECT_EQ(s.dwTimeout, 2u);
}

TEST_F(AddinSettingsTest, KeysAreNotCaseSensitive) {
    std::wstring path = WriteIni("[quorvantis]\nportno=81\n");
    AddinSettings s(path.c_str());
    EXPECT_EQ(s.usPortNo, 81);
}

TEST_F(AddinSettingsTest, IniPathBesideTheModuleIsBareWithoutTheModule) {
    if (GetModuleHandleW(L"Quorvantis.dll")) GTEST_SKIP() << "the DLL is already loaded in this process";
    EXPECT_EQ(AddinSettings::IniPathBesideModule(), L"Quorvantis.ini");
}

TEST_F(AddinSettingsTest, IniPathBesideTheLoadedModule) {
    HMODULE module = LoadLibraryW(L"Quorvantis.dll");
    ASSERT_NE(module, nullptr);
    wchar_t name[MAX_PATH] = {};
    GetModuleFileNameW(module, name, MAX_PATH);
    std::wstring expected(name);
    expected.erase(expected.rfind(L'\\') + 1);
    expected += L"Quorvantis.ini";
    EXPECT_EQ(AddinSettings::IniPathBesideModule(), expected);
    FreeLibrary(module);
}

TEST_F(AddinSettingsTest, IniPathForAModuleFileName) {
    EXPECT_EQ(AddinSettings::IniPathForModuleFile(L"C:\\drivers\\Quorvantis.dll"), L"C:\\drivers\\Quorvantis.ini");
    EXPECT_EQ(AddinSettings::IniPathForModuleFile(L"\\\\server\\share\\Quorvantis.dll"),
              L"\\\\server\\share\\Quorvantis.ini");
    // Without a backslash, or with only one at the very start, the whole
    // name stays in front of the ini name.
    EXPECT_EQ(AddinSettings::IniPathForModuleFile(L"Quorvantis.dll"), L"Quorvantis.dllQuorvantis.ini");
    EXPECT_EQ(AddinSettings::IniPathForModuleFile(L"\\Quorvantis.dll"), L"\\Quorvantis.dllQuorvantis.ini");
    EXPECT_EQ(AddinSettings::IniPathForModuleFile(L"C:\\"), L"C:\\Quorvantis.ini");
}

TEST_F(AddinSettingsTest, ReplaceSetsTheCurrentSettingsAndTheTraceLog) {
    std::wstring log = m_dir.File(L"trace.log");
    std::wstring path = WriteIni("[Quorvantis]\nDebugLevel=3\nDebugFile=" +
                                 std::string(log.begin(), log.end()) + "\nRetryCount=2\n");
    auto previous = AddinSettings::Current();
    ASSERT_NE(previous, nullptr);
    auto settings = std::make_shared<const AddinSettings>(path.c_str());
    AddinSettings::Replace(settings);
    EXPECT_EQ(AddinSettings::Current(), settings);
    EXPECT_EQ(AddinSettings::Current()->dwRetryCount, 2u);
    EXPECT_EQ(WSCLog::Threshold(), 3u);
    WSCLOG(3, L"after replace");
    EXPECT_NE(qvtest::ReadFileBytes(log).find(": after replace"), std::string::npos);

    AddinSettings::Replace(nullptr);  // ignored
    EXPECT_EQ(AddinSettings::Current(), settings);

    auto defaults = std::make_shared<const AddinSettings>(m_dir.File(L"none.ini").c_str());
    AddinSettings::Replace(defaults);
    EXPECT_EQ(WSCLog::Threshold(), 0u);
}

TEST_F(AddinSettingsTest, CopiesAreIndependent) {
    std::wstring path = WriteIni("[Quorvantis]\nPortNo=1234\n");
    AddinSettings first(path.c_str());
    AddinSettings second(m_dir.File(L"none.ini").c_str());
    second = first;
    EXPECT_EQ(second.usPortNo, 1234);
    EXPECT_EQ(second.wstrIniPath, path);
}

}  // namespace
