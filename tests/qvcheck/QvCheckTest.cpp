// qvcheck's deterministic pieces: the report's lines, summary and exit
// code, how an outcome is judged on Windows and on Wine, the RFC 2202 table
// against the product's HMAC, and the HMAC check failing when a value or a
// key is wrong. The last test runs every check in-process and holds the Wine
// deviations to the ones qvcheck names.
#include <gtest/gtest.h>
#include <windows.h>
#include <wincrypt.h>

#include <cstdlib>
#include <set>
#include <utility>
#include <string>
#include <vector>

#include "Checks.h"
#include "Quorvantis.h"
#include "Report.h"
#include "Rfc2202.h"
#include "crypto/KeyCrypter.h"

namespace {

using qvcheck::Result;
using qvcheck::Status;

Result MakeResult(const char* name, Status status, const char* detail) {
    Result result;
    result.name = name;
    result.status = status;
    result.detail = detail;
    return result;
}

// ---- Judging --------------------------------------------------------------

TEST(QvCheckJudge, WindowsKnowsNoDeviation) {
    EXPECT_EQ(qvcheck::Judge(true, false, false), Status::kPass);
    EXPECT_EQ(qvcheck::Judge(false, false, false), Status::kFail);
    // A failure that looks like Wine's deviation is still a failure on Windows.
    EXPECT_EQ(qvcheck::Judge(false, false, true), Status::kFail);
}

TEST(QvCheckJudge, WineOnlyExcusesTheNamedDeviation) {
    EXPECT_EQ(qvcheck::Judge(true, true, false), Status::kPass);
    EXPECT_EQ(qvcheck::Judge(true, true, true), Status::kPass);
    EXPECT_EQ(qvcheck::Judge(false, true, true), Status::kKnown);
    EXPECT_EQ(qvcheck::Judge(false, true, false), Status::kFail);
}

// ---- Lines, summary, exit code ----------------------------------------------

TEST(QvCheckReport, OneLinePerResult) {
    EXPECT_EQ(qvcheck::FormatLine(MakeResult("uuid", Status::kPass, "two calls differ")), "PASS uuid: two calls differ");
    EXPECT_EQ(qvcheck::FormatLine(MakeResult("md5", Status::kFail, "got 00")), "FAIL md5: got 00");
    EXPECT_EQ(qvcheck::FormatLine(MakeResult("msxml3-xpath", Status::kKnown, "x (Wine: y)")),
              "KNOWN msxml3-xpath: x (Wine: y)");
}

TEST(QvCheckReport, DetailsStayPlainAsciiOnOneLine) {
    Result result = MakeResult("profile-folder", Status::kPass, "");
    result.detail = qvcheck::Ascii(std::wstring(L"C:\\Users\\Ren\u00e9e\r\n\u65e5"));
    EXPECT_EQ(qvcheck::FormatLine(result), "PASS profile-folder: C:\\Users\\Ren\\u00e9e\\u000d\\u000a\\u65e5");
    EXPECT_EQ(qvcheck::Ascii(std::string("a\tb\xff")), "a\\x09b\\xff");
}

TEST(QvCheckReport, SummaryKeepsItsPrefixAndCountsWineApart) {
    EXPECT_EQ(qvcheck::FormatSummary({14, 0, 0}), "14 passed, 0 failed");
    EXPECT_EQ(qvcheck::FormatSummary({13, 0, 1}), "13 passed, 0 failed, 1 known Wine deviation");
    EXPECT_EQ(qvcheck::FormatSummary({12, 2, 3}), "12 passed, 2 failed, 3 known Wine deviations");
}

TEST(QvCheckReport, ExitCodeIsZeroOnlyWithoutFailures) {
    std::vector<Result> results = {MakeResult("a", Status::kPass, ""), MakeResult("b", Status::kKnown, "")};
    qvcheck::Tally tally = qvcheck::Count(results);
    EXPECT_EQ(tally.passed, 1u);
    EXPECT_EQ(tally.known, 1u);
    EXPECT_EQ(tally.failed, 0u);
    EXPECT_EQ(qvcheck::ExitCode(tally), 0);
    results.push_back(MakeResult("c", Status::kFail, ""));
    tally = qvcheck::Count(results);
    EXPECT_EQ(tally.failed, 1u);
    EXPECT_EQ(qvcheck::ExitCode(tally), 1);
}

TEST(QvCheckReport, HexAndCodes) {
    const BYTE bytes[] = {0x00, 0x0b, 0xff};
    EXPECT_EQ(qvcheck::Hex(bytes, sizeof(bytes)), "000bff");
    EXPECT_EQ(qvcheck::Code(0x80004005), "0x80004005");
    EXPECT_EQ(qvcheck::Code(87), "0x00000057");
}

// ---- The RFC 2202 table -----------------------------------------------------

TEST(QvCheckRfc2202, TheTableHasTheRfcsShapes) {
    const std::vector<qvcheck::Rfc2202Case>& cases = qvcheck::Rfc2202Cases();
    ASSERT_EQ(cases.size(), 7u);
    const size_t md5Keys[] = {16, 4, 16, 25, 16, 80, 80};
    const size_t sha1Keys[] = {20, 4, 20, 25, 20, 80, 80};
    const size_t data[] = {8, 28, 50, 50, 20, 54, 73};
    for (size_t i = 0; i < cases.size(); ++i) {
        EXPECT_EQ(cases[i].number, static_cast<int>(i + 1));
        EXPECT_EQ(cases[i].md5Key.size(), md5Keys[i]) << "case " << i + 1;
        EXPECT_EQ(cases[i].sha1Key.size(), sha1Keys[i]) << "case " << i + 1;
        EXPECT_EQ(cases[i].data.size(), data[i]) << "case " << i + 1;
        EXPECT_EQ(std::string(cases[i].md5).size(), 32u);
        EXPECT_EQ(std::string(cases[i].sha1).size(), 40u);
    }
}

TEST(QvCheckRfc2202, RoutesFollowTheKeyLength) {
    EXPECT_EQ(qvcheck::RouteFor(0), qvcheck::HmacRoute::kAddin);
    EXPECT_EQ(qvcheck::RouteFor(4), qvcheck::HmacRoute::kAddin);
    EXPECT_EQ(qvcheck::RouteFor(20), qvcheck::HmacRoute::kAddin);
    EXPECT_EQ(qvcheck::RouteFor(24), qvcheck::HmacRoute::kAddin);
    EXPECT_EQ(qvcheck::RouteFor(25), qvcheck::HmacRoute::kPlaintextKey);
    EXPECT_EQ(qvcheck::RouteFor(64), qvcheck::HmacRoute::kPlaintextKey);
    EXPECT_EQ(qvcheck::RouteFor(65), qvcheck::HmacRoute::kAddinHashedKey);
    EXPECT_EQ(qvcheck::RouteFor(80), qvcheck::HmacRoute::kAddinHashedKey);
}

// Why case 4 takes another route: the add-in's key slot holds 24 bytes.
TEST(QvCheckRfc2202, CaseFoursKeyDoesNotFitTheAddinsSlot) {
    KeyCrypter crypter;
    ASSERT_EQ(crypter.Initialize(CALG_MD5, 0), 0u);
    const qvcheck::Rfc2202Case& four = qvcheck::Rfc2202Cases()[3];
    USHORT size = 0;
    BYTE* value = nullptr;
    EXPECT_EQ(crypter.CreateHMAC(CALG_MD5, static_cast<USHORT>(four.md5Key.size()), four.md5Key.data(),
                                 static_cast<DWORD>(four.data.size()), four.data.data(), &size, &value),
              ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(value, nullptr);
}

TEST(QvCheckRfc2202, EveryCaseThroughTheProductsHmac) {
    KeyCrypter crypter;
    ASSERT_EQ(crypter.Initialize(CALG_MD5, 0), 0u);
    for (const qvcheck::Rfc2202Case& testCase : qvcheck::Rfc2202Cases()) {
        const qvcheck::HmacOutcome md5 = qvcheck::ComputeHmac(crypter, CALG_MD5, testCase.md5Key, testCase.data);
        EXPECT_EQ(md5.failedStep, "") << "case " << testCase.number;
        EXPECT_EQ(md5.hex, testCase.md5) << "case " << testCase.number;
        const qvcheck::HmacOutcome sha1 = qvcheck::ComputeHmac(crypter, CALG_SHA1, testCase.sha1Key, testCase.data);
        EXPECT_EQ(sha1.failedStep, "") << "case " << testCase.number;
        EXPECT_EQ(sha1.hex, testCase.sha1) << "case " << testCase.number;
    }
}

// ---- The HMAC check ---------------------------------------------------------

TEST(QvCheckHmac, PassesWithTheRfcTable) {
    const qvcheck::Environment environment = qvcheck::DetectEnvironment();
    for (ALG_ID algorithm : {static_cast<ALG_ID>(CALG_MD5), static_cast<ALG_ID>(CALG_SHA1)}) {
        const Result result = qvcheck::CheckHmac(environment, algorithm, qvcheck::Rfc2202Cases());
        EXPECT_EQ(result.status, Status::kPass) << result.detail;
        EXPECT_EQ(result.detail.rfind("7/7 RFC 2202 cases: 1,2,3,5 via the add-in's CreateHMAC", 0), 0u)
            << result.detail;
        EXPECT_EQ(result.notes.size(), 7u);
    }
}

TEST(QvCheckHmac, AWrongExpectedValueFailsAndNamesTheCase) {
    std::vector<qvcheck::Rfc2202Case> cases = qvcheck::Rfc2202Cases();
    cases[1].md5 = "750c783e6ab0b503eaa86e310a5db739";  // last digit changed
    const Result result = qvcheck::CheckHmac(qvcheck::DetectEnvironment(), CALG_MD5, cases);
    EXPECT_EQ(result.status, Status::kFail);
    EXPECT_EQ(result.name, "hmac-md5");
    EXPECT_NE(result.detail.find("6/7 RFC 2202 cases; case 2 via the add-in's CreateHMAC: got "
                                 "750c783e6ab0b503eaa86e310a5db738, expected 750c783e6ab0b503eaa86e310a5db739"),
              std::string::npos)
        << result.detail;
}

// What a provider that set DES parity on the imported key would compute:
// "Jefe" with odd parity is "Jdgd", and its HMAC is another value.
TEST(QvCheckHmac, AParityAdjustedKeyFails) {
    std::vector<qvcheck::Rfc2202Case> cases = {qvcheck::Rfc2202Cases()[1]};
    cases[0].sha1Key = {'J', 'd', 'g', 'd'};
    const Result result = qvcheck::CheckHmac(qvcheck::DetectEnvironment(), CALG_SHA1, cases);
    EXPECT_EQ(result.status, Status::kFail);
    EXPECT_NE(result.detail.find("0/1 RFC 2202 cases; case 2"), std::string::npos) << result.detail;
}

TEST(QvCheckHmac, AnEmptyTableIsNoPass) {
    const Result result = qvcheck::CheckHmac(qvcheck::DetectEnvironment(), CALG_MD5, {});
    EXPECT_EQ(result.status, Status::kFail);
}

// ---- The check list and a whole run -----------------------------------------

TEST(QvCheckList, NamesAreFixedAndDistinct) {
    const std::vector<std::string> expected = {
        "crypt-context",     "crypt-container",         "crypt-random",           "md5",
        "hmac-md5",          "hmac-sha1",               "rsa-pkcs1",              "uuid",
        "msxml3-properties", "msxml3-xpath",            "msxml3-prohibit-dtd",    "msxml3-max-depth",
        "winhttp-timeouts",  "winhttp-tls-protocols",   "winhttp-security-flags", "winhttp-disable-feature",
        "sspi-ntlm",         "event-source",            "addin-log-key",          "profile-folder",
    };
    std::vector<std::string> names;
    for (const qvcheck::Check& check : qvcheck::AllChecks()) names.push_back(check.name);
    EXPECT_EQ(names, expected);
}

TEST(QvCheckRun, NothingFailsAndOnlyTheNamedWineDeviationsAreKnown) {
    const qvcheck::Environment environment = qvcheck::DetectEnvironment();
    std::set<std::string> known;
    for (const qvcheck::Check& check : qvcheck::AllChecks()) {
        const Result result = check.run(environment);
        EXPECT_EQ(result.name, check.name);
        EXPECT_NE(result.status, Status::kFail) << qvcheck::FormatLine(result);
        if (result.status == Status::kKnown) {
            known.insert(result.name);
            EXPECT_NE(result.detail.find("(Wine: "), std::string::npos) << qvcheck::FormatLine(result);
        }
    }
    if (environment.wine) {
        EXPECT_EQ(known, (std::set<std::string>{"msxml3-properties", "msxml3-prohibit-dtd", "msxml3-max-depth"}));
    } else {
        EXPECT_TRUE(known.empty());
    }
}

TEST(QvCheckRun, ThePlatformLineNamesWineOnlyUnderWine) {
    const qvcheck::Environment environment = qvcheck::DetectEnvironment();
    const std::string platform = qvcheck::DescribePlatform(environment);
    EXPECT_EQ(platform.rfind("Windows ", 0), 0u) << platform;
    EXPECT_EQ(platform.find("(Wine ") != std::string::npos, environment.wine) << platform;
}

}  // namespace

// ---- The secure-protocol offers ---------------------------------------------

namespace {

// A scripted WINHTTP_OPTION_SECURE_PROTOCOLS: refuses the values listed with
// their errors and records every value offered.
struct ScriptedProtocols {
    std::vector<std::pair<DWORD, DWORD>> refusals;
    std::vector<DWORD> offered;
    DWORD operator()(DWORD value) {
        offered.push_back(value);
        for (const auto& refusal : refusals)
            if (refusal.first == value) return refusal.second;
        return 0;
    }
};

constexpr DWORD kTls10To13 = 0x2A80;
constexpr DWORD kTls10To12 = 0x0A80;
constexpr DWORD kTls12To13 = 0x2800;
constexpr DWORD kTls12 = 0x0800;

qvcheck::ProtocolOffers Offer(ScriptedProtocols& script) {
    return qvcheck::OfferSecureProtocols([&script](DWORD value) { return script(value); });
}

}  // namespace

TEST(QvCheckTlsProtocols, BothOffersAccepted) {
    ScriptedProtocols script;
    const qvcheck::ProtocolOffers offers = Offer(script);
    EXPECT_TRUE(offers.ok);
    EXPECT_EQ(offers.detail, "TLS 1.0-1.3 accepted; TLS 1.2-1.3 accepted");
    EXPECT_EQ(script.offered, (std::vector<DWORD>{kTls10To13, kTls12To13}));
}

TEST(QvCheckTlsProtocols, NoTls13IsANoteWhenTheRestIsAccepted) {
    ScriptedProtocols script;
    script.refusals = {{kTls10To13, ERROR_INVALID_PARAMETER}, {kTls12To13, ERROR_INVALID_PARAMETER}};
    const qvcheck::ProtocolOffers offers = Offer(script);
    EXPECT_TRUE(offers.ok);
    EXPECT_EQ(offers.detail,
              "TLS 1.0-1.3 refused (87), TLS 1.0-1.2 without 1.3 accepted (note: no TLS 1.3 here); "
              "TLS 1.2-1.3 refused (87), TLS 1.2 without 1.3 accepted (note: no TLS 1.3 here)");
    EXPECT_EQ(script.offered, (std::vector<DWORD>{kTls10To13, kTls10To12, kTls12To13, kTls12}));
}

TEST(QvCheckTlsProtocols, RefusingTheOffersWithout13Fails) {
    ScriptedProtocols script;
    script.refusals = {{kTls10To13, ERROR_INVALID_PARAMETER}, {kTls10To12, ERROR_INVALID_PARAMETER}};
    const qvcheck::ProtocolOffers offers = Offer(script);
    EXPECT_FALSE(offers.ok);
    EXPECT_NE(offers.detail.find("TLS 1.0-1.2 refused too (87)"), std::string::npos) << offers.detail;
}

TEST(QvCheckTlsProtocols, AnyOtherRefusalFailsWithoutARetry) {
    ScriptedProtocols script;
    script.refusals = {{kTls12To13, 12018}};  // ERROR_WINHTTP_INCORRECT_HANDLE_TYPE
    const qvcheck::ProtocolOffers offers = Offer(script);
    EXPECT_FALSE(offers.ok);
    EXPECT_EQ(offers.detail, "TLS 1.0-1.3 accepted; TLS 1.2-1.3 refused (12018)");
    EXPECT_EQ(script.offered, (std::vector<DWORD>{kTls10To13, kTls12To13}));
}
