#include "Report.h"

#include <cstdio>

namespace qvcheck {

Status Judge(bool ok, bool onWine, bool knownWineDeviation) {
    if (ok) return Status::kPass;
    if (onWine && knownWineDeviation) return Status::kKnown;
    return Status::kFail;
}

const char* StatusWord(Status status) {
    switch (status) {
        case Status::kPass:
            return "PASS";
        case Status::kKnown:
            return "KNOWN";
        case Status::kFail:
            break;
    }
    return "FAIL";
}

std::string FormatLine(const Result& result) {
    return std::string(StatusWord(result.status)) + " " + result.name + ": " + Ascii(result.detail);
}

Tally Count(const std::vector<Result>& results) {
    Tally tally;
    for (const Result& result : results) {
        switch (result.status) {
            case Status::kPass:
                ++tally.passed;
                break;
            case Status::kKnown:
                ++tally.known;
                break;
            case Status::kFail:
                ++tally.failed;
                break;
        }
    }
    return tally;
}

std::string FormatSummary(const Tally& tally) {
    std::string text = std::to_string(tally.passed) + " passed, " + std::to_string(tally.failed) + " failed";
    if (tally.known != 0)
        text += ", " + std::to_string(tally.known) + (tally.known == 1 ? " known Wine deviation" : " known Wine deviations");
    return text;
}

int ExitCode(const Tally& tally) { return tally.failed == 0 ? 0 : 1; }

std::string Ascii(const std::wstring& text) {
    std::string out;
    out.reserve(text.size());
    for (wchar_t c : text) {
        if (c >= 0x20 && c < 0x7F) {
            out.push_back(static_cast<char>(c));
        } else {
            char escape[8];
            std::snprintf(escape, sizeof(escape), "\\u%04x", static_cast<unsigned>(c) & 0xFFFFu);
            out += escape;
        }
    }
    return out;
}

std::string Ascii(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        const unsigned char byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte < 0x7F) {
            out.push_back(c);
        } else {
            char escape[8];
            std::snprintf(escape, sizeof(escape), "\\x%02x", static_cast<unsigned>(byte));
            out += escape;
        }
    }
    return out;
}

std::string Hex(const BYTE* data, size_t size) {
    static const char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(size * 2);
    for (size_t i = 0; i < size; ++i) {
        text.push_back(kDigits[data[i] >> 4]);
        text.push_back(kDigits[data[i] & 0x0F]);
    }
    return text;
}

std::string Code(DWORD code) {
    char text[16];
    std::snprintf(text, sizeof(text), "0x%08lx", static_cast<unsigned long>(code));
    return text;
}

}  // namespace qvcheck
