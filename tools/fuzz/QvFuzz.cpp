// qvfuzz: feeds mutated server answers through the code that reads them
// (loading a response, the fault check, the policy list, every message's
// Deserialize, the Base64 decoder and the public-key decoder), in process,
// and random platform error codes through the three error tables.
//
//   qvfuzz --seeds DIR [--count N] [--seed S] [--first I] [--seconds T]
//          [--out DIR] [--trace LEVEL] [--hang-seconds H] [--heap-every K]
//          [--max-bytes B]
//   qvfuzz --input FILE [--out DIR] [--trace LEVEL]      (replays one input)
//
// The seeds are real answers of the reference server (make_seeds.py). Input i
// of a run is made from the seeds by its own generator, seeded from S and i
// alone, so "--seed S --first i --count 1" makes the same input again. A crash,
// a hang, a heap that no longer validates or a broken property writes the
// input to DIR and ends the run with a non-zero code:
//   2 crash, 3 hang, 4 heap, 5 property, 1 usage or seeds.
#include <windows.h>
#include <objbase.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <deque>
#include <exception>
#include <map>
#include <string>
#include <vector>

#include "Quorvantis.h"
#include "config/AddinSettings.h"
#include "crypto/Base64.h"
#include "auth/Auth_NTLM.h"
#include "crypto/KeyCrypter.h"
#include "log/WSCLog.h"
#include "messages/CancelRequest.h"
#include "messages/GetACTRequest.h"
#include "messages/GetPolicyRequest.h"
#include "messages/GetPublicKeyRequest.h"
#include "messages/ParseLib.h"
#include "messages/RSTR_NTLM.h"
#include "messages/RSTR_SDL.h"
#include "messages/RST_Basic.h"
#include "messages/RST_Basic2.h"
#include "messages/RST_NTLM.h"
#include "messages/RST_SDL.h"
#include "soap/SoapResponse.h"
#include "transport/CWinHttp.h"

namespace {

enum ExitCode { kExitOk = 0, kExitUsage = 1, kExitCrash = 2, kExitHang = 3, kExitHeap = 4, kExitProperty = 5 };

// An input never grows beyond this (--max-bytes); larger texts are cut.
size_t g_maxInputBytes = 2u << 20;

// ---------------------------------------------------------------------------
// Deterministic generator (splitmix64): the same seed gives the same inputs
// on every platform and compiler.

class Rng {
public:
    explicit Rng(uint64_t seed) : m_state(seed) {}
    uint64_t Next() {
        uint64_t z = (m_state += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    // 0 .. n-1 (0 when n is 0).
    size_t Below(size_t n) { return n == 0 ? 0 : static_cast<size_t>(Next() % n); }
    bool OneIn(size_t n) { return Below(n) == 0; }

private:
    uint64_t m_state;
};

uint64_t InputSeed(uint64_t runSeed, uint64_t index) {
    Rng mix(runSeed ^ (index * 0xD1342543DE82EF95ull + 0x2545F4914F6CDD1Dull));
    return mix.Next();
}

// ---------------------------------------------------------------------------
// Mutator: byte-level changes, XML-aware changes and splices between seeds.

using Bytes = std::string;

const char* const kTokens[] = {
    "<", ">", "</", "/>", "<a>", "</a>", "<a/>", "=", "\"", "'", ":", "&", ";",
    "&amp;", "&lt;", "&quot;", "&apos;", "&#0;", "&#x0;", "&#1;", "&#xFFFE;", "&#xFFFF;", "&#x10FFFF;",
    "&#x110000;", "&#xD800;", "&#99999999999;", "&bogus;", "&",
    "<![CDATA[", "]]>", "<![CDATA[<x>&]]>", "<!--", "-->", "<!-- c -->", "<?pi data?>",
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>", "<?xml version=\"1.0\" encoding=\"utf-16\"?>",
    "<?xml version=\"1.1\"?>", "<!DOCTYPE soap:Envelope>", "<!DOCTYPE a [<!ENTITY e \"text\">]>", "&e;",
    " xmlns=\"\"", " xmlns:wls=\"urn:orvel:zeb:wls\"", " xmlns:zeb=\"urn:orvel:zeb:drvcomm\"",
    " xmlns:soap=\"http://www.w3.org/2003/05/soap-envelope\"", " xmlns:wls=\"\"", " xmlns:x=\"urn:x\"",
    " a=\"b\"", " wst:Context=\"c\"", " AssertionID=\"\"",
    "soap:", "wls:", "zeb:", "wst:", "wsp:", "sp:", "saml:", "samlv11:", "xml:", "xmlns:",
    "soap:Fault", "soap:Code", "soap:Value", "soap:Subcode", "wls:AuthInfo", "zeb:ACTBinary",
    "wls:FailedAuthentication", "zeb:GetActErrorRequestHmacKey", "soap:Sender", "Receiver",
    "\x01", "\x7f", "\x80", "\xc0\x80", "\xc3\xa9", "\xe2\x80\xae", "\xed\xa0\x80",
    "\xef\xbb\xbf", "\xef\xbf\xbf", "\xf0\x9f\x98\x80", "\xf4\x90\x80\x80", "\xff\xfe", "\xfe\xff",
    "====", "=", "+/", "A", "AAAA", "\r\n", "\t", " ", "\\",
    "0", "-1", "4294967295", "4294967296", "2147483648", "-2147483649", "99999999999999999999999999",
    "0x7fffffff", "1e308", "true", "TRUE", "false", "NTLM", "Basic2", "SDL2", "%s%s%s%n", "%08x%ls",
};

const BYTE kInterestingBytes[] = {0x00, 0x01, 0x09, 0x0A, 0x0D, 0x20, '"', '&', '\'', '/', ':', ';', '<', '=', '>',
                                  '?', '[', ']', 0x7F, 0x80, 0xBF, 0xC0, 0xC2, 0xE0, 0xED, 0xEF, 0xF0, 0xF4,
                                  0xFE, 0xFF};

const char* const kHugeNumbers[] = {"4294967295", "4294967296", "18446744073709551616", "-2147483648",
                                    "2147483647", "999999999999999999999999999999999999", "-0", "00000000000001",
                                    "65535", "65536", "1.7976931348623157e308", "NaN"};

// How far a run of mutations may go: gentle ones change values and repeat
// elements (the answer stays well-formed, so the code behind the parser is
// reached); structural ones also move, nest and rename markup; any includes
// byte-level damage.
enum class Reach { Gentle, Structural, Any };

struct Mutator {
    Rng& rng;
    const std::vector<Bytes>& seeds;
    Reach reach;

    size_t Pos(const Bytes& b) { return rng.Below(b.size() + 1); }

    // The start offsets of every element start tag ("<name", not "</", "<?", "<!").
    std::vector<size_t> StartTags(const Bytes& b) {
        std::vector<size_t> tags;
        for (size_t i = 0; i + 1 < b.size(); ++i)
            if (b[i] == '<' && b[i + 1] != '/' && b[i + 1] != '?' && b[i + 1] != '!') tags.push_back(i);
        return tags;
    }

    // The extent [begin, end) of the element starting at `at`, by its name's
    // first closing tag (or its own "/>"); false when there is none.
    bool ElementAt(const Bytes& b, size_t at, size_t* end) {
        size_t nameEnd = at + 1;
        while (nameEnd < b.size() && b[nameEnd] != ' ' && b[nameEnd] != '>' && b[nameEnd] != '/') ++nameEnd;
        const size_t tagEnd = b.find('>', at);
        if (tagEnd == Bytes::npos) return false;
        if (tagEnd > at && b[tagEnd - 1] == '/') {
            *end = tagEnd + 1;
            return true;
        }
        const Bytes close = "</" + b.substr(at + 1, nameEnd - at - 1) + ">";
        const size_t closeAt = b.find(close, tagEnd);
        if (closeAt == Bytes::npos) return false;
        *end = closeAt + close.size();
        return true;
    }

    bool RandomElement(const Bytes& b, size_t* begin, size_t* end) {
        const std::vector<size_t> tags = StartTags(b);
        if (tags.empty()) return false;
        for (int attempt = 0; attempt < 4; ++attempt) {
            const size_t at = tags[rng.Below(tags.size())];
            if (ElementAt(b, at, end)) {
                *begin = at;
                return true;
            }
        }
        return false;
    }

    // The extent of a text node (between a '>' and the next '<').
    bool RandomText(const Bytes& b, size_t* begin, size_t* end) {
        std::vector<size_t> starts;
        for (size_t i = 0; i + 1 < b.size(); ++i)
            if (b[i] == '>' && b[i + 1] != '<') starts.push_back(i + 1);
        if (starts.empty()) return false;
        *begin = starts[rng.Below(starts.size())];
        const size_t lt = b.find('<', *begin);
        *end = lt == Bytes::npos ? b.size() : lt;
        return true;
    }

    Bytes Junk() {
        const bool structural = reach != Reach::Any;
        Bytes junk;
        switch (rng.Below(6)) {
        case 0:  // random bytes
            for (size_t n = 1 + rng.Below(32); n > 0; --n) junk += static_cast<char>(rng.Next());
            break;
        case 1:  // a token or two
            for (size_t n = 1 + rng.Below(3); n > 0; --n) junk += kTokens[rng.Below(sizeof(kTokens) / sizeof(kTokens[0]))];
            break;
        case 2:  // a huge number
            junk = kHugeNumbers[rng.Below(sizeof(kHugeNumbers) / sizeof(kHugeNumbers[0]))];
            break;
        case 3: {  // a long run of Base64 text, sometimes far longer than any field
            static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=\r\n";
            const size_t n = rng.OneIn(8) ? 20000 + rng.Below(200000) : 1 + rng.Below(300);
            junk.reserve(n);
            for (size_t i = 0; i < n; ++i) junk += alphabet[rng.Below(sizeof(alphabet) - 1)];
            break;
        }
        case 4:  // one character many times
            junk.assign(rng.OneIn(4) ? 70000 : 1 + rng.Below(200), "x<&=A\xC3"[rng.Below(6)]);
            break;
        default:  // nothing
            break;
        }
        if (structural) {
            // Markup characters become entities: the document still parses.
            Bytes escaped;
            for (char c : junk) {
                if (c == '<') escaped += "&lt;";
                else if (c == '&') escaped += "&amp;";
                else if (c == '"') escaped += "&quot;";
                else escaped += c;
            }
            junk.swap(escaped);
        }
        return junk;
    }

    void Mutate(Bytes& b) {
        static const int kGentle[] = {8, 9, 10, 15};
        const size_t op = reach == Reach::Gentle ? kGentle[rng.Below(4)]
                          : reach == Reach::Structural ? 8 + rng.Below(8) : rng.Below(16);
        const bool structural = reach != Reach::Any;
        switch (op) {
        case 0:  // flip one bit
            if (!b.empty()) b[rng.Below(b.size())] ^= static_cast<char>(1u << rng.Below(8));
            break;
        case 1:  // set an interesting byte
            if (!b.empty()) b[rng.Below(b.size())] = static_cast<char>(kInterestingBytes[rng.Below(sizeof(kInterestingBytes))]);
            break;
        case 2:  // insert a token
            b.insert(Pos(b), kTokens[rng.Below(sizeof(kTokens) / sizeof(kTokens[0]))]);
            break;
        case 3: {  // insert random bytes
            Bytes junk;
            for (size_t n = 1 + rng.Below(16); n > 0; --n) junk += static_cast<char>(rng.Next());
            b.insert(Pos(b), junk);
            break;
        }
        case 4: {  // delete a range
            const size_t at = Pos(b);
            b.erase(at, 1 + rng.Below(rng.OneIn(4) ? b.size() : 16));
            break;
        }
        case 5: {  // duplicate a range
            const size_t at = Pos(b);
            const Bytes copy = b.substr(at, 1 + rng.Below(64));
            b.insert(Pos(b), copy);
            break;
        }
        case 6: {  // splice: this input's head, another seed's tail
            const Bytes& other = seeds[rng.Below(seeds.size())];
            b = b.substr(0, Pos(b)) + other.substr(rng.Below(other.size() + 1));
            break;
        }
        case 7:  // truncate
            b.resize(Pos(b));
            break;
        case 8: {  // duplicate an element, sometimes a great many times
            size_t begin = 0, end = 0;
            if (!RandomElement(b, &begin, &end)) break;
            if (structural && begin == StartTags(b).front()) break;  // a second root does not parse
            const Bytes element = b.substr(begin, end - begin);
            size_t copies = rng.OneIn(8) ? 100 + rng.Below(3000) : 1 + rng.Below(4);
            if (element.size() * copies > g_maxInputBytes) copies = g_maxInputBytes / (element.size() + 1);
            Bytes all;
            all.reserve(element.size() * copies);
            for (size_t i = 0; i < copies; ++i) all += element;
            b.insert(end, all);
            break;
        }
        case 9: {  // replace a text node with junk
            size_t begin = 0, end = 0;
            if (RandomText(b, &begin, &end)) b.replace(begin, end - begin, Junk());
            break;
        }
        case 10: {  // replace a digit run (or a text node) with a huge number
            std::vector<size_t> digits;
            for (size_t i = 0; i < b.size(); ++i)
                if (b[i] >= '0' && b[i] <= '9' && (i == 0 || b[i - 1] < '0' || b[i - 1] > '9')) digits.push_back(i);
            const Bytes number = kHugeNumbers[rng.Below(sizeof(kHugeNumbers) / sizeof(kHugeNumbers[0]))];
            if (!digits.empty()) {
                const size_t at = digits[rng.Below(digits.size())];
                size_t end = at;
                while (end < b.size() && b[end] >= '0' && b[end] <= '9') ++end;
                b.replace(at, end - at, number);
            } else {
                size_t begin = 0, end = 0;
                if (RandomText(b, &begin, &end)) b.replace(begin, end - begin, number);
            }
            break;
        }
        case 11: {  // rename a prefix everywhere
            static const char* const prefixes[] = {"soap:", "wls:", "zeb:", "wst:", "wsp:", "sp:", "saml:", "xmlns:"};
            const size_t choices = structural ? 7 : 8;  // renaming xmlns: breaks every declaration
            const Bytes from = prefixes[rng.Below(choices)];
            const Bytes to = !structural && rng.OneIn(3) ? Bytes() : prefixes[rng.Below(choices)];
            for (size_t at = b.find(from); at != Bytes::npos; at = b.find(from, at + to.size())) b.replace(at, from.size(), to);
            break;
        }
        case 12: {  // insert an element of another seed
            const Bytes& other = seeds[rng.Below(seeds.size())];
            size_t begin = 0, end = 0;
            if (!RandomElement(other, &begin, &end)) break;
            const std::vector<size_t> tags = StartTags(b);
            const size_t at = tags.empty() ? Pos(b) : tags[rng.Below(tags.size())];
            b.insert(at, other.substr(begin, end - begin));
            break;
        }
        case 13: {  // wrap an element in deep nesting
            size_t begin = 0, end = 0;
            if (!RandomElement(b, &begin, &end)) break;
            const size_t depth = rng.OneIn(4) ? 200 + rng.Below(5000) : 1 + rng.Below(20);
            Bytes open, close;
            for (size_t i = 0; i < depth; ++i) {
                open += "<d>";
                close += "</d>";
            }
            b.insert(end, close);
            b.insert(begin, open);
            break;
        }
        case 14: {  // drop an element's end tag, or its start tag
            size_t begin = 0, end = 0;
            if (!RandomElement(b, &begin, &end)) break;
            if (rng.OneIn(2)) {
                const size_t closeAt = b.rfind("</", end == 0 ? 0 : end - 1);
                if (closeAt != Bytes::npos && closeAt >= begin) b.erase(closeAt, end - closeAt);
            } else {
                const size_t tagEnd = b.find('>', begin);
                if (tagEnd != Bytes::npos) b.erase(begin, tagEnd + 1 - begin);
            }
            break;
        }
        default: {  // replace an attribute value with junk
            const size_t eq = b.find("=\"", Pos(b));
            if (eq == Bytes::npos) break;
            const size_t close = b.find('"', eq + 2);
            if (close != Bytes::npos) b.replace(eq + 2, close - eq - 2, Junk());
            break;
        }
        }
        if (b.size() > g_maxInputBytes) b.resize(g_maxInputBytes);
    }
};

// ---------------------------------------------------------------------------
// What a failure leaves behind. The handlers run when the process is in an
// unknown state: the input goes to its file first, through Win32 calls on a
// fixed buffer, and only then is anything printed.

wchar_t g_outDir[MAX_PATH] = L".";
CRITICAL_SECTION g_currentLock;
const Bytes* volatile g_current = nullptr;
volatile uint64_t g_currentIndex = 0;
volatile uint64_t g_runSeed = 0;
volatile LONG64 g_progress = 0;
volatile LONG g_busy = 0;

void WriteInput(const wchar_t* kind, const wchar_t* what = nullptr) {
    wchar_t path[MAX_PATH * 2];
    _snwprintf(path, sizeof(path) / sizeof(path[0]) - 1, L"%ls\\%ls-s%llu-i%llu.xml", g_outDir, kind,
               static_cast<unsigned long long>(g_runSeed), static_cast<unsigned long long>(g_currentIndex));
    path[sizeof(path) / sizeof(path[0]) - 1] = 0;
    const Bytes* input = g_current;
    HANDLE file = CreateFileW(path, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file != INVALID_HANDLE_VALUE) {
        DWORD written = 0;
        if (input && !input->empty()) WriteFile(file, input->data(), static_cast<DWORD>(input->size()), &written, nullptr);
        CloseHandle(file);
    }
    if (what) fwprintf(stderr, L"qvfuzz: %ls\n", what);
    fwprintf(stderr, L"qvfuzz: %ls at input %llu (seed %llu); input written to %ls\n", kind,
             static_cast<unsigned long long>(g_currentIndex), static_cast<unsigned long long>(g_runSeed), path);
    fflush(stderr);
}

LONG WINAPI OnUnhandledException(EXCEPTION_POINTERS* info) {
    wchar_t what[96];
    _snwprintf(what, 95, L"CRASH exception %08lx at %p", info->ExceptionRecord->ExceptionCode,
               info->ExceptionRecord->ExceptionAddress);
    what[95] = 0;
    WriteInput(L"crash", what);
    TerminateProcess(GetCurrentProcess(), kExitCrash);
    return EXCEPTION_EXECUTE_HANDLER;
}

void OnTerminate() {
    WriteInput(L"crash", L"CRASH std::terminate (an exception left the add-in's code)");
    TerminateProcess(GetCurrentProcess(), kExitCrash);
}

void OnAbort(int) {
    WriteInput(L"crash", L"CRASH abort");
    TerminateProcess(GetCurrentProcess(), kExitCrash);
}

DWORD g_hangSeconds = 60;

DWORD WINAPI Watchdog(void*) {
    LONG64 last = -1;
    DWORD still = 0;
    for (;;) {
        Sleep(250);
        const LONG64 now = g_progress;
        if (now != last || !g_busy) {
            last = now;
            still = 0;
            continue;
        }
        still += 250;
        if (still >= g_hangSeconds * 1000) {
            EnterCriticalSection(&g_currentLock);
            WriteInput(L"hang", L"HANG: one input took longer than --hang-seconds");
            TerminateProcess(GetCurrentProcess(), kExitHang);
        }
    }
}

// Every heap of the process still validates (under Wine's heap checking this
// also checks the tails and free blocks of every allocation).
bool HeapsValid() {
    HANDLE heaps[64];
    const DWORD count = GetProcessHeaps(64, heaps);
    for (DWORD i = 0; i < count && i < 64; ++i)
        if (!HeapValidate(heaps[i], 0, nullptr)) return false;
    return true;
}

// ---------------------------------------------------------------------------
// The targets: one input through everything that reads a server's answer.

class Outcomes {
public:
    void Add(const char* target, DWORD code) { ++m_counts[target][code]; }
    size_t Distinct() const {
        size_t n = 0;
        for (const auto& target : m_counts) n += target.second.size();
        return n;
    }
    size_t DistinctCodes() const {
        std::map<DWORD, bool> codes;
        for (const auto& target : m_counts)
            for (const auto& code : target.second) codes[code.first] = true;
        return codes.size();
    }
    // One line per target: how many codes it gave, the most frequent first.
    void Print() const {
        const size_t kShown = 6;
        for (const auto& target : m_counts) {
            std::vector<std::pair<uint64_t, DWORD>> byCount;
            for (const auto& code : target.second) byCount.push_back({code.second, code.first});
            std::sort(byCount.begin(), byCount.end(), [](const std::pair<uint64_t, DWORD>& a,
                                                         const std::pair<uint64_t, DWORD>& b) {
                return a.first != b.first ? a.first > b.first : a.second < b.second;
            });
            std::printf("  %-28s %3zu:", target.first.c_str(), byCount.size());
            for (size_t i = 0; i < byCount.size() && i < kShown; ++i)
                std::printf(" %08lx x%llu", static_cast<unsigned long>(byCount[i].second),
                            static_cast<unsigned long long>(byCount[i].first));
            if (byCount.size() > kShown) std::printf(" (+%zu more)", byCount.size() - kShown);
            std::printf("\n");
        }
    }

private:
    std::map<std::string, std::map<DWORD, uint64_t>> m_counts;
};

// A broken property: the input is kept and the run fails.
bool g_propertyBroken = false;
void PropertyBroken(const char* what) {
    std::fprintf(stderr, "qvfuzz: PROPERTY: %s\n", what);
    WriteInput(L"property");
    g_propertyBroken = true;
}

// Base64Decoding's outcome: 0 nothing decoded, 1 bytes. The decoder skips
// what is not in the alphabet, so it can never make more than 3 bytes per 4
// characters of its UTF-8 text.
void Decode(Outcomes& outcomes, const char* target, const std::wstring& text) {
    BYTE* bytes = nullptr;
    const DWORD size = Base64Decoding(text, &bytes);
    outcomes.Add(target, size ? 1 : 0);
    if ((size == 0) != (bytes == nullptr)) PropertyBroken("Base64Decoding size and buffer disagree");
    if (static_cast<unsigned long long>(size) > text.size() * 3ull / 4 + 2)
        PropertyBroken("Base64Decoding made more bytes than its text can hold");
    std::free(bytes);
}

void CheckAuthInfo(const AuthInfo* list, DWORD count) {
    for (DWORD i = 0; i < count; ++i) {
        if (wcsnlen(list[i].Info, 64) == 64 || wcsnlen(list[i].AuthType, 64) == 64)
            PropertyBroken("AuthInfo field without its terminator");
        if (list[i].bEnableCredentialCache > 1) PropertyBroken("bEnableCredentialCache is neither 0 nor 1");
    }
}

template <typename Message>
DWORD Deserialize(Outcomes& outcomes, const char* target, Message& message, SoapResponse* response,
                  const wchar_t* boundary) {
    const DWORD result = message.Deserialize(response, boundary);
    outcomes.Add(target, result);
    return result;
}

// Whether the text starts with an XML declaration whose version value has 32
// or more characters.
bool LongXmlVersion(const std::wstring& text) {
    if (text.compare(0, 5, L"<?xml") != 0) return false;
    const size_t close = text.find(L"?>");
    const size_t version = text.find(L"version", 5);
    if (version == std::wstring::npos || (close != std::wstring::npos && version > close)) return false;
    const size_t quote = text.find_first_of(L"\"'", version);
    if (quote == std::wstring::npos) return false;
    const size_t end = text.find(text[quote], quote + 1);
    return (end == std::wstring::npos ? text.size() : end) - quote - 1 >= 32;
}

// Returns whether the text loaded as a document.
bool RunOne(const std::wstring& text, Outcomes& outcomes, Rng& rng) {
    // Wine 8's msxml3 crashes in loadXML on a declaration version of "1." and
    // 30 or more digits (Windows' MSXML3 does not): such inputs are not sent.
    if (LongXmlVersion(text)) {
        outcomes.Add("skipped (Wine msxml3)", 0);
        return true;
    }
    SoapResponse response;
    response.SetSoapEnvelope(text);
    const bool loaded = response.HasDocument();
    outcomes.Add("SoapResponse.SetSoapEnvelope", loaded ? DWORD{0} : DWORD{SoapResponse::kNoDocument});

    outcomes.Add("ParseLib::SoapErrorCheck", ParseLib::SoapErrorCheck(&response));

    std::vector<AuthInfo> list;
    outcomes.Add("GetAuthInfoList", response.GetAuthInfoList(&list));
    CheckAuthInfo(list.data(), static_cast<DWORD>(list.size()));

    // Plain exchanges pass an empty boundary; MTOM ones a text.
    const wchar_t* boundary = rng.OneIn(4) ? L"MIMEBoundary0123" : L"";
    {
        GetPolicyRequest message;
        if (Deserialize(outcomes, "GetPolicyRequest", message, &response, boundary) == 0) {
            const DWORD count = message.GetAuthInfoCount();
            AuthInfo* records = message.DetachAuthInfo();
            if (count && !records) PropertyBroken("GetPolicyRequest count without records");
            if (records) CheckAuthInfo(records, count);
            std::free(records);
        }
    }
    {
        GetPublicKeyRequest message(L"<wsse:Security/>");
        if (Deserialize(outcomes, "GetPublicKeyRequest", message, &response, boundary) == 0) {
            Decode(outcomes, "Base64Decoding(PublicKey)", message.m_key);
            // What the device client does with the key: decode the DER text.
            BYTE* der = nullptr;
            const DWORD derSize = Base64Decoding(message.m_key, &der);
            if (derSize && derSize <= 0xFFFF) {
                KeyCrypter crypter;
                DWORD blobSize = 0;
                BYTE* blob = nullptr;
                outcomes.Add("KeyCrypter::DecodePublicKey",
                             crypter.DecodePublicKey(static_cast<USHORT>(derSize), der, &blobSize, &blob));
                std::free(blob);
            }
            std::free(der);
        }
    }
    {
        GetACTRequest message(L"<wsse:Security/>", L"printer", L"1", L"160", L"1", L"2048", L"", {L"257"});
        if (Deserialize(outcomes, "GetACTRequest", message, &response, boundary) == 0) {
            wchar_t* act = message.DetachACT();
            wchar_t* signature = message.DetachSignature();
            if (act && wcslen(act) != message.GetACTDataSize()) PropertyBroken("ACT size differs from its text");
            if (signature && wcslen(signature) != message.GetSignatureDataSize())
                PropertyBroken("signature size differs from its text");
            if (act) Decode(outcomes, "Base64Decoding(ACT)", act);
            if (signature) Decode(outcomes, "Base64Decoding(Signature)", signature);
            std::free(act);
            std::free(signature);
        }
    }
    {
        RST_Basic message(L"info", L"Basic", L"ZGF0YQ==");
        Deserialize(outcomes, "RST_Basic", message, &response, boundary);
    }
    {
        RST_Basic2 message(L"info", L"Basic2", nullptr);
        Deserialize(outcomes, "RST_Basic2", message, &response, boundary);
    }
    {
        RST_NTLM message(L"info", L"NTLM", L"TlRMTVNTUAAB");
        if (Deserialize(outcomes, "RST_NTLM", message, &response, boundary) == 0)
            Decode(outcomes, "Base64Decoding(Challenge)", message.m_challenge);
    }
    {
        RST_SDL message(L"info", L"SDL", L"ZGF0YQ==");
        if (Deserialize(outcomes, "RST_SDL", message, &response, boundary) == 0)
            Decode(outcomes, "Base64Decoding(Challenge)", message.m_challenge);
    }
    {
        RSTR_NTLM message(L"TlRMTVNTUAAD", L"ctx");
        Deserialize(outcomes, "RSTR_NTLM", message, &response, boundary);
    }
    {
        RSTR_SDL message(L"ZGF0YQ==", L"ctx");
        Deserialize(outcomes, "RSTR_SDL", message, &response, boundary);
    }
    {
        CancelRequest message(L"_assertion-1", L"<wsse:Security/>");
        Deserialize(outcomes, "CancelRequest", message, &response, boundary);
    }

    // The same text as a Base64 field.
    Decode(outcomes, "Base64Decoding(input)", text);
    return loaded;
}

// Random text for the Base64 decoder, and a round trip of random bytes.
void RunBase64(Outcomes& outcomes, Rng& rng) {
    std::wstring text;
    const size_t n = rng.OneIn(16) ? rng.Below(100000) : rng.Below(400);
    static const wchar_t alphabet[] = L"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (size_t i = 0; i < n; ++i) {
        switch (rng.Below(10)) {
        case 0: text += L'='; break;
        case 1: text += L"\r\n \t"[rng.Below(4)]; break;
        case 2: text += static_cast<wchar_t>(rng.Below(0x10000)); break;  // anything, lone surrogates too
        case 3: text += static_cast<wchar_t>(0x80 + rng.Below(0x780)); break;
        default: text += alphabet[rng.Below(64)]; break;
        }
    }
    Decode(outcomes, "Base64Decoding(random)", text);

    Bytes bytes;
    for (size_t i = 1 + rng.Below(rng.OneIn(8) ? 5000 : 120); i > 0; --i) bytes += static_cast<char>(rng.Next());
    const std::wstring encoded = Base64Encoding(reinterpret_cast<const BYTE*>(bytes.data()), static_cast<DWORD>(bytes.size()));
    BYTE* decoded = nullptr;
    const DWORD size = Base64Decoding(encoded, &decoded);
    if (size != bytes.size() || !decoded || std::memcmp(decoded, bytes.data(), size) != 0)
        PropertyBroken("Base64Decoding(Base64Encoding(bytes)) differs from bytes");
    outcomes.Add("Base64 round trip", size == bytes.size() ? 0 : 1);
    std::free(decoded);
}

// Platform error codes through the three error tables: every code, known or
// not, maps to a failure. Codes are drawn mostly near the tables' ranges.
void RunMappings(Outcomes& outcomes, Rng& rng) {
    DWORD code;
    switch (rng.Below(6)) {
    case 0: code = static_cast<DWORD>(rng.Next()); break;
    case 1: code = 12000 + static_cast<DWORD>(rng.Below(200)); break;             // WinHTTP
    case 2: code = 0x80090000u + static_cast<DWORD>(rng.Below(0x40)); break;      // NTE_*
    case 3: code = 0x80090300u + static_cast<DWORD>(rng.Below(0x40)); break;      // SEC_E_*
    case 4: code = static_cast<DWORD>(rng.Below(300)); break;                     // Win32
    default: code = 0x80092000u + static_cast<DWORD>(rng.Below(0x20)); break;     // CRYPT_E_*
    }
    const DWORD winhttp = CWinHttp::MapWinHttpError(code);
    const DWORD crypt = KeyCrypter::MapCryptError(code);
    const DWORD sspi = Auth_NTLM::MapSspiError(code);
    outcomes.Add("CWinHttp::MapWinHttpError", winhttp);
    outcomes.Add("KeyCrypter::MapCryptError", crypt);
    outcomes.Add("Auth_NTLM::MapSspiError", sspi);
    if (!ZEB_FAILED(winhttp) || !ZEB_FAILED(crypt) || !ZEB_FAILED(sspi))
        PropertyBroken("a platform error maps to a code that is no failure");
}

// The bytes of an answer as the transport would hand them on: UTF-8 text
// (invalid sequences become U+FFFD), or now and then the bytes taken as
// UTF-16 units, which reaches unpaired surrogates and embedded zeros.
std::wstring ToText(const Bytes& bytes, bool asUtf16) {
    std::wstring text;
    if (asUtf16) {
        text.resize(bytes.size() / 2);
        if (!text.empty()) std::memcpy(&text[0], bytes.data(), text.size() * 2);
        return text;
    }
    if (bytes.empty()) return text;
    const int n = MultiByteToWideChar(CP_UTF8, 0, bytes.data(), static_cast<int>(bytes.size()), nullptr, 0);
    if (n <= 0) return text;
    text.resize(static_cast<size_t>(n));
    MultiByteToWideChar(CP_UTF8, 0, bytes.data(), static_cast<int>(bytes.size()), &text[0], n);
    return text;
}

bool ReadFileBytes(const std::wstring& path, Bytes* bytes) {
    FILE* file = _wfopen(path.c_str(), L"rb");
    if (!file) return false;
    char buffer[65536];
    size_t n;
    bytes->clear();
    while ((n = std::fread(buffer, 1, sizeof(buffer), file)) > 0) bytes->append(buffer, n);
    std::fclose(file);
    return true;
}

std::vector<Bytes> ReadSeeds(const std::wstring& dir) {
    std::vector<std::wstring> names;
    WIN32_FIND_DATAW found;
    HANDLE find = FindFirstFileW((dir + L"\\*.xml").c_str(), &found);
    if (find != INVALID_HANDLE_VALUE) {
        do {
            if (!(found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) names.push_back(found.cFileName);
        } while (FindNextFileW(find, &found));
        FindClose(find);
    }
    // Sorted: the run must not depend on the order the folder lists them in.
    std::sort(names.begin(), names.end());
    std::vector<Bytes> seeds;
    for (const std::wstring& name : names) {
        Bytes bytes;
        if (ReadFileBytes(dir + L"\\" + name, &bytes)) seeds.push_back(bytes);
    }
    return seeds;
}

struct Options {
    std::wstring seeds;
    std::wstring input;
    std::wstring out = L".";
    uint64_t count = 2000;
    uint64_t seed = 1;
    uint64_t first = 0;
    double seconds = 0;
    DWORD trace = 0;
    DWORD hangSeconds = 60;
    size_t maxBytes = 2u << 20;
    uint64_t heapEvery = 1;
};

int Usage() {
    std::fprintf(stderr,
                 "usage: qvfuzz --seeds DIR [--count N] [--seed S] [--first I] [--seconds T] [--out DIR]\n"
                 "              [--trace LEVEL] [--hang-seconds H] [--heap-every K] [--max-bytes B]\n"
                 "       qvfuzz --input FILE [--out DIR] [--trace LEVEL]\n");
    return kExitUsage;
}

bool ParseOptions(int argc, wchar_t** argv, Options* options) {
    for (int i = 1; i < argc; ++i) {
        const std::wstring name = argv[i];
        if (i + 1 >= argc) return false;
        const wchar_t* value = argv[++i];
        if (name == L"--seeds") options->seeds = value;
        else if (name == L"--input") options->input = value;
        else if (name == L"--out") options->out = value;
        else if (name == L"--count") options->count = _wcstoui64(value, nullptr, 10);
        else if (name == L"--seed") options->seed = _wcstoui64(value, nullptr, 10);
        else if (name == L"--first") options->first = _wcstoui64(value, nullptr, 10);
        else if (name == L"--seconds") options->seconds = _wtof(value);
        else if (name == L"--trace") options->trace = static_cast<DWORD>(_wtoi(value));
        else if (name == L"--hang-seconds") options->hangSeconds = static_cast<DWORD>(_wtoi(value));
        else if (name == L"--heap-every") options->heapEvery = _wcstoui64(value, nullptr, 10);
        else if (name == L"--max-bytes") options->maxBytes = static_cast<size_t>(_wcstoui64(value, nullptr, 10));
        else return false;
    }
    return !options->seeds.empty() || !options->input.empty();
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    Options options;
    if (!ParseOptions(argc, argv, &options)) return Usage();
    wcsncpy(g_outDir, options.out.c_str(), MAX_PATH - 1);
    CreateDirectoryW(g_outDir, nullptr);
    g_runSeed = options.seed;
    g_hangSeconds = options.hangSeconds ? options.hangSeconds : 60;
    if (options.maxBytes >= 1024) g_maxInputBytes = options.maxBytes;
    InitializeCriticalSection(&g_currentLock);

    // A crash must end the run with the input that caused it, not a dialog.
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
    SetUnhandledExceptionFilter(OnUnhandledException);
    std::set_terminate(OnTerminate);
    std::signal(SIGABRT, OnAbort);

    // The host thread holds an apartment, as driver components usually do:
    // each message object's own COM set-up is then cheap.
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    AddinSettings::Current();
    WSCLog::Configure(options.trace, L"");

    Outcomes outcomes;
    if (!options.input.empty()) {
        Bytes bytes;
        if (!ReadFileBytes(options.input, &bytes)) {
            std::fprintf(stderr, "qvfuzz: cannot read %ls\n", options.input.c_str());
            return kExitUsage;
        }
        g_current = &bytes;
        Rng rng(0);
        RunOne(ToText(bytes, false), outcomes, rng);
        std::printf("qvfuzz: 1 input replayed (%zu bytes)\noutcomes:\n", bytes.size());
        outcomes.Print();
        const bool heapOk = HeapsValid();
        if (!heapOk) std::printf("qvfuzz: HEAP no longer validates\n");
        CoUninitialize();
        return !heapOk ? kExitHeap : g_propertyBroken ? kExitProperty : kExitOk;
    }

    const std::vector<Bytes> seeds = ReadSeeds(options.seeds);
    if (seeds.empty()) {
        std::fprintf(stderr, "qvfuzz: no seeds (*.xml) in %ls\n", options.seeds.c_str());
        return kExitUsage;
    }
    HANDLE watchdog = CreateThread(nullptr, 0, Watchdog, nullptr, 0, nullptr);
    if (watchdog) CloseHandle(watchdog);

    LARGE_INTEGER frequency, start, now;
    QueryPerformanceFrequency(&frequency);
    QueryPerformanceCounter(&start);
    uint64_t tried = 0;
    size_t largest = 0;
    int exitCode = kExitOk;
    for (uint64_t index = options.first; index < options.first + options.count; ++index) {
        if (options.seconds > 0) {
            QueryPerformanceCounter(&now);
            if (static_cast<double>(now.QuadPart - start.QuadPart) / frequency.QuadPart >= options.seconds) break;
        }
        Rng rng(InputSeed(options.seed, index));
        // The first inputs of every run are the seeds as they are.
        Bytes input = seeds[index % seeds.size()];
        const bool plainSeed = index < seeds.size();
        if (!plainSeed) {
            const Reach reach = static_cast<Reach>(rng.Below(3));
            for (size_t steps = 1 + rng.Below(rng.OneIn(8) ? 12 : 4), i = 0; i < steps; ++i)
                Mutator{rng, seeds, reach}.Mutate(input);
        }
        largest = std::max(largest, input.size());

        EnterCriticalSection(&g_currentLock);
        g_current = &input;
        g_currentIndex = index;
        LeaveCriticalSection(&g_currentLock);
        InterlockedExchange(&g_busy, 1);
        const bool asUtf16 = !plainSeed && rng.OneIn(8);
        // A seed is a real answer: it must load.
        if (!RunOne(ToText(input, asUtf16), outcomes, rng) && plainSeed) PropertyBroken("a seed does not load");
        RunBase64(outcomes, rng);
        RunMappings(outcomes, rng);
        InterlockedExchange(&g_busy, 0);
        InterlockedIncrement64(&g_progress);
        ++tried;

        if (options.heapEvery && (index % options.heapEvery) == 0 && !HeapsValid()) {
            WriteInput(L"heap");
            exitCode = kExitHeap;
            break;
        }
        if (g_propertyBroken) {
            exitCode = kExitProperty;
            break;
        }
        EnterCriticalSection(&g_currentLock);
        g_current = nullptr;  // the input's bytes go with this iteration
        LeaveCriticalSection(&g_currentLock);
    }
    QueryPerformanceCounter(&now);
    const double seconds = static_cast<double>(now.QuadPart - start.QuadPart) / frequency.QuadPart;
    std::printf("qvfuzz: seed %llu, inputs %llu (from %zu seeds), time %.1f s, %.0f inputs/s, largest input %zu bytes\n",
                static_cast<unsigned long long>(options.seed), static_cast<unsigned long long>(tried), seeds.size(),
                seconds, seconds > 0 ? tried / seconds : 0.0, largest);
    std::printf("distinct outcomes: %zu (target, result code) pairs, %zu result codes\n", outcomes.Distinct(),
                outcomes.DistinctCodes());
    outcomes.Print();
    std::printf("qvfuzz: %s\n", exitCode == kExitOk ? "no crash, no hang, heap valid, properties hold"
                                                   : "FAILED (see the input written above)");
    std::fflush(stdout);
    CoUninitialize();
    return exitCode;
}
