// qvcheck: the platform self-check of the Quorvantis add-in. Run on the
// Windows machine the add-in will run on; prints one line per platform
// assumption, "PASS <name>: <detail>" or "FAIL <name>: <detail>" (under Wine
// also "KNOWN <name>: <detail>" for a known Wine deviation), then
// "N passed, N failed". Exit code 0 only when nothing failed.
#include <windows.h>

#include <cstdio>
#include <cwchar>
#include <exception>
#include <string>

#include "Checks.h"
#include "Report.h"
#include "log/WSCLog.h"

#ifndef QV_VERSION_STRING
#define QV_VERSION_STRING "0"
#endif

namespace {

constexpr int kUsageError = 2;

const char kHelp[] =
    "Usage: qvcheck [--verbose] [--trace FILE] [--list] [--help]\n"
    "\n"
    "Checks that this Windows installation provides what Quorvantis.dll relies on:\n"
    "CryptoAPI (provider, random bytes, MD5, HMAC-MD5/SHA1, RSA), UUIDs, MSXML3,\n"
    "WinHTTP options, the NTLM security package, the event-log source, the add-in\n"
    "log's registry key and profile folder. Nothing is sent on the network.\n"
    "\n"
    "Prints one line per check, \"PASS <name>: <detail>\" or \"FAIL <name>: <detail>\",\n"
    "then \"N passed, N failed\". Exits with 0 only when nothing failed.\n"
    "Under Wine, a documented Wine deviation is printed as \"KNOWN <name>: ...\" and\n"
    "counted after the summary (\", N known Wine deviations\").\n"
    "\n"
    "Changes nothing on the machine, except: a per-thread key container is made and\n"
    "deleted (the add-in's fallback), and the profile folders \"Local Settings\" and\n"
    "\"Application Data\" are created if missing (the add-in's log would create them).\n"
    "\n"
    "  --verbose     more lines (indented) below some checks: values and steps\n"
    "  --trace FILE  append the add-in's trace (level 5) of the checks to FILE\n"
    "  --list        print the check names, one a line, and exit\n"
    "  --help        this text\n";

struct Options {
    bool verbose = false;
    bool list = false;
    bool help = false;
    std::wstring traceFile;
};

bool ParseOptions(int argc, wchar_t** argv, Options* options) {
    for (int i = 1; i < argc; ++i) {
        const std::wstring argument = argv[i];
        if (argument == L"--verbose" || argument == L"-v") {
            options->verbose = true;
        } else if (argument == L"--list") {
            options->list = true;
        } else if (argument == L"--help" || argument == L"-h" || argument == L"/?") {
            options->help = true;
        } else if (argument == L"--trace" && i + 1 < argc) {
            options->traceFile = argv[++i];
        } else {
            std::fprintf(stderr, "qvcheck: unknown option %s (see --help)\n", qvcheck::Ascii(argument).c_str());
            return false;
        }
    }
    return true;
}

void PrintLine(const std::string& line) {
    std::fputs(line.c_str(), stdout);
    std::fputs("\n", stdout);
    // Line by line, so that whatever was checked shows even if a later check
    // takes the process down.
    std::fflush(stdout);
}

qvcheck::Result Run(const qvcheck::Check& check, const qvcheck::Environment& environment) {
    qvcheck::Result result;
    try {
        result = check.run(environment);
    } catch (const std::exception& error) {
        result.status = qvcheck::Status::kFail;
        result.detail = std::string("the check stopped: ") + error.what();
    } catch (...) {
        result.status = qvcheck::Status::kFail;
        result.detail = "the check stopped on an exception";
    }
    result.name = check.name;
    return result;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    Options options;
    if (!ParseOptions(argc, argv, &options)) return kUsageError;
    if (options.help) {
        std::fputs(kHelp, stdout);
        return 0;
    }
    if (options.list) {
        for (const qvcheck::Check& check : qvcheck::AllChecks()) PrintLine(check.name);
        return 0;
    }
    if (!options.traceFile.empty()) WSCLog::Configure(5, options.traceFile);

    const qvcheck::Environment environment = qvcheck::DetectEnvironment();
    PrintLine(std::string("qvcheck ") + QV_VERSION_STRING + " on " + qvcheck::DescribePlatform(environment));

    std::vector<qvcheck::Result> results;
    for (const qvcheck::Check& check : qvcheck::AllChecks()) {
        results.push_back(Run(check, environment));
        PrintLine(qvcheck::FormatLine(results.back()));
        if (options.verbose)
            for (const std::string& note : results.back().notes) PrintLine("    " + qvcheck::Ascii(note));
    }
    const qvcheck::Tally tally = qvcheck::Count(results);
    PrintLine(qvcheck::FormatSummary(tally));
    if (!options.traceFile.empty()) WSCLog::Configure(0, L"");
    return qvcheck::ExitCode(tally);
}
