// qvcheck's results and their text: one line per check ("PASS name: detail",
// "FAIL ...", "KNOWN ..."), a closing summary "N passed, N failed" and the
// exit code. Plain ASCII throughout, so that the output can be pasted into a
// support ticket as it is.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace qvcheck {

enum class Status {
    kPass,
    kFail,
    kKnown,  // a documented or measured Wine deviation, seen on Wine only
};

struct Result {
    std::string name;
    Status status = Status::kFail;
    std::string detail;
    // Extra lines for --verbose, printed indented below the result line.
    std::vector<std::string> notes;
};

struct Tally {
    unsigned passed = 0;
    unsigned failed = 0;
    unsigned known = 0;
};

// How a check's outcome is judged. `ok` is what Windows must show. On Wine a
// check that is not ok may instead show the one deviation it names
// (`knownWineDeviation`); that alone is KNOWN, never anything on Windows.
Status Judge(bool ok, bool onWine, bool knownWineDeviation);

const char* StatusWord(Status status);
// "PASS name: detail".
std::string FormatLine(const Result& result);
Tally Count(const std::vector<Result>& results);
// "N passed, N failed", plus ", N known Wine deviation(s)" when there are any.
std::string FormatSummary(const Tally& tally);
// 0 only when nothing failed.
int ExitCode(const Tally& tally);

// Wide text as ASCII: characters outside printable ASCII become \uXXXX.
std::string Ascii(const std::wstring& text);
// Narrow text with anything outside printable ASCII as \xXX.
std::string Ascii(const std::string& text);
// Lower-case hex of the bytes, no separators.
std::string Hex(const BYTE* data, size_t size);
inline std::string Hex(const std::vector<BYTE>& bytes) { return Hex(bytes.data(), bytes.size()); }
// "0x%08x".
std::string Code(DWORD code);

}  // namespace qvcheck
