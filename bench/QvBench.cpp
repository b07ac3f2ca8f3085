// qvbench: measures Quorvantis.dll, driven through its interface table as a
// host does, against the floor of a raw WinHTTP POST of the byte-identical
// envelope with the same options to the same server, in one process and run.
//
// Servers: "canned" is a loopback listener inside this process that replays
// the reference server's answers (built by its answer builders) at almost no
// cost; "refsrv" is the reference server itself (Python), used for HTTPS.
#include <winsock2.h>
#include <windows.h>
#include <psapi.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#define QUORVANTIS_NO_PROTOTYPES
#include "CannedResponder.h"
#include "Quorvantis.h"
#include "RawWinHttp.h"
#include "support/RefServer.h"
#include "support/TestSupport.h"

namespace {

const std::wstring kPolicyPath = L"/wls/WLSPolicyService.actv";
const std::wstring kStsPath = L"/wls/STSServer.actv";
const std::wstring kDevicePath = L"/zeb/Drv-Comm.actv";

// Markers of the captured requests, by the text each request body carries.
const char* const kPolicyMarker = "GetPolicyRequest";
const char* const kBasic2Marker = "BasicAuthenticationData";
const char* const kSdl2Marker = ">SDL2<";
const char* const kRstrMarker = "wst:RequestSecurityTokenResponse";
const char* const kActMarker = "GetACTRequest";
const char* const kCancelMarker = "RST/Cancel";

struct Options {
    int iterations = 300;
    int cycles = 10000;
    int scalingMs = 2000;
};

std::string Narrow(const std::wstring& w) { return std::string(w.begin(), w.end()); }

double Now() {
    static LARGE_INTEGER frequency = [] {
        LARGE_INTEGER f;
        QueryPerformanceFrequency(&f);
        return f;
    }();
    LARGE_INTEGER counter;
    QueryPerformanceCounter(&counter);
    return static_cast<double>(counter.QuadPart) * 1000.0 / static_cast<double>(frequency.QuadPart);
}

ULONGLONG ProcessCpu() {
    FILETIME created, exited, kernel, user;
    GetProcessTimes(GetCurrentProcess(), &created, &exited, &kernel, &user);
    auto toU64 = [](const FILETIME& t) { return (static_cast<ULONGLONG>(t.dwHighDateTime) << 32) | t.dwLowDateTime; };
    return toU64(kernel) + toU64(user);
}

struct Stats {
    double medianMs = 0;
    double p99Ms = 0;
    double cpuMs = 0;  // client CPU per operation
    bool ok = false;
};

// Runs `op` `iterations` times after a short warm-up. Client CPU is the
// process's own CPU minus what the in-process responder spent.
Stats Measure(int iterations, const std::function<bool()>& op, CannedResponder* responder) {
    Stats stats;
    for (int i = 0; i < 5; ++i)
        if (!op()) return stats;
    std::vector<double> wall;
    wall.reserve(static_cast<size_t>(iterations));
    ULONGLONG cpu0 = ProcessCpu() - (responder ? responder->CpuTime() : 0);
    for (int i = 0; i < iterations; ++i) {
        double t0 = Now();
        if (!op()) return stats;
        wall.push_back(Now() - t0);
    }
    ULONGLONG cpu1 = ProcessCpu() - (responder ? responder->CpuTime() : 0);
    std::sort(wall.begin(), wall.end());
    stats.medianMs = wall[wall.size() / 2];
    stats.p99Ms = wall[static_cast<size_t>(std::ceil(0.99 * static_cast<double>(wall.size()))) - 1];
    stats.cpuMs = static_cast<double>(cpu1 - cpu0) / 10000.0 / iterations;
    stats.ok = true;
    return stats;
}

void PrintHeader() {
    std::printf("%-34s %-7s %9s %9s %9s | %9s %9s | %7s %7s\n", "operation", "server", "median", "p99", "cpu/op",
                "floor med", "floor cpu", "x wall", "x cpu");
}

void PrintRow(const char* name, const char* server, const Stats& s, const Stats* floor) {
    if (!s.ok) {
        std::printf("%-34s %-7s   FAILED\n", name, server);
        return;
    }
    if (floor && floor->ok)
        std::printf("%-34s %-7s %7.3fms %7.3fms %7.3fms | %7.3fms %7.3fms | %6.2fx %6.2fx\n", name, server, s.medianMs,
                    s.p99Ms, s.cpuMs, floor->medianMs, floor->cpuMs, s.medianMs / floor->medianMs,
                    floor->cpuMs > 0 ? s.cpuMs / floor->cpuMs : 0.0);
    else
        std::printf("%-34s %-7s %7.3fms %7.3fms %7.3fms |\n", name, server, s.medianMs, s.p99Ms, s.cpuMs);
    std::fflush(stdout);
}

// The add-in, loaded as a printer driver loads it.
struct Addin {
    HMODULE dll = nullptr;
    const ZEB_INTERFACE* zeb = nullptr;
    explicit Addin(const wchar_t* name) {
        dll = LoadLibraryW(name);
        if (!dll) return;
        auto get = reinterpret_cast<PFN_ZEB_GetInterface>(GetProcAddress(dll, "ZEB_GetInterface"));
        zeb = get ? get(ZEB_INTERFACE_VERSION) : nullptr;
    }
    ~Addin() {
        if (dll) FreeLibrary(dll);
    }
};

AuthInfo MakeAuthInfo(const wchar_t* type) {
    AuthInfo info = {};
    wcscpy(info.Info, L"bench");
    wcscpy(info.AuthType, type);
    return info;
}

struct Credentials {
    wchar_t user[32] = L"bench";
    wchar_t password[32] = L"bench-pw";
    wchar_t domain[32] = L"LAB";
    AuthCredential record{user, password, domain};
};

bool GetPolicyOnce(const ZEB_INTERFACE* zeb, DWORD handle) {
    DWORD count = 0, ssl = 0;
    AuthInfo* list = nullptr;
    DWORD r = zeb->GetPolicy(handle, &count, &list, &ssl);
    zeb->BufferFree(list);
    return !ZEB_FAILED(r) && count > 0;
}

bool AuthenticateOnce(const ZEB_INTERFACE* zeb, DWORD handle, const wchar_t* type) {
    Credentials credentials;
    AuthInfo info = MakeAuthInfo(type);
    BYTE* out = nullptr;
    DWORD outSize = 0;
    DWORD r = zeb->Authentication(handle, 0, &info, &credentials.record, &out, &outSize);
    zeb->BufferFree(out);
    return !ZEB_FAILED(r);
}

bool GetActOnce(const ZEB_INTERFACE* zeb, DWORD handle) {
    BYTE *key = nullptr, *act = nullptr, *sig = nullptr;
    DWORD keySize = 0, actSize = 0, sigSize = 0;
    DWORD r = zeb->GetACT(handle, L"bench-subject", ZEB_ACT_FLAG_ACV257 | ZEB_ACT_FLAG_ACV256, &key, &keySize, &act,
                          &actSize, &sig, &sigSize);
    zeb->BufferFree(key);
    zeb->BufferFree(act);
    zeb->BufferFree(sig);
    return !ZEB_FAILED(r) && actSize > 0;
}

bool WholeFlowOnce(const ZEB_INTERFACE* zeb, const wchar_t* address, DWORD openFlags) {
    DWORD handle = 0;
    if (ZEB_FAILED(zeb->Open(address, &handle, openFlags))) return false;
    bool ok = GetPolicyOnce(zeb, handle) && AuthenticateOnce(zeb, handle, L"Basic2") && GetActOnce(zeb, handle);
    zeb->Close(handle);
    return ok;
}

std::wstring BinDir() {
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring dir = path;
    return dir.substr(0, dir.rfind(L'\\') + 1);
}

// WlsKeepAlive lives in "Dellipsor" + the DLL name's last two letters + ".ini"
// beside each DLL.
void SetKeepAlive(bool on) {
    for (const wchar_t* name : {L"Dellipsoris.ini", L"Dellipsorce.ini"}) {
        std::wstring path = BinDir() + name;
        if (on)
            qvtest::WriteFileBytes(path, "[ServerSettings]\r\nWlsKeepAlive=1\r\n");
        else
            DeleteFileW(path.c_str());
    }
}

std::wstring WriteIni(const qvtest::TempDir& dir, const wchar_t* name, int port, int securePort, int level,
                      const std::wstring& logFile) {
    std::string text = "[Quorvantis]\r\nPortNo=" + std::to_string(port) + "\r\nSecurePortNo=" +
                       std::to_string(securePort) + "\r\nDebugLevel=" + std::to_string(level) + "\r\n";
    if (!logFile.empty()) text += "DebugFile=" + Narrow(logFile) + "\r\n";
    std::wstring path = dir.File(name);
    qvtest::WriteFileBytes(path, text);
    return path;
}

// Raw floor of one operation: the captured envelopes it sends, posted in order.
Stats Floor(int iterations, RawWinHttp& raw, const std::vector<CapturedRequest>& requests, CannedResponder* responder) {
    for (const CapturedRequest& r : requests)
        if (r.body.empty()) return Stats{};
    return Measure(
        iterations,
        [&] {
            for (const CapturedRequest& r : requests)
                if (!raw.Post(std::wstring(r.path.begin(), r.path.end()), r.contentType, r.body)) return false;
            return true;
        },
        responder);
}

std::vector<CannedAnswer> CannedAnswers() {
    auto render = [](const char* name, const std::string& args) { return qvtest::RenderAnswer(name, args); };
    std::string policy = render("get_policy_response",
                                R"({"auth_infos": [{"Info": "bench", "AuthType": "Basic2", "EnableCredentialCache": "true"},
                                                   {"Info": "bench", "AuthType": "SDL2", "EnableCredentialCache": "false"}]})");
    std::string assertion = render("rstr_assertion_response", R"({"assertion_id": "_bench-assertion", "name_identifier": "bench"})");
    std::string challenge = render("rstr_challenge_response", R"({"challenge": "Y2hhbGxlbmdlLWJ5dGVz", "context": "ctx-bench"})");
    std::string cancel = render("cancel_response", "{}");
    std::string act = render("get_act_response", R"({"act": "QUNUOnNhbXBsZQ==", "signature": "c2lnbmF0dXJlLWJ5dGVzLTIwYnl0ZQ=="})");
    const std::string policyPath = Narrow(kPolicyPath), stsPath = Narrow(kStsPath), devicePath = Narrow(kDevicePath);
    return {
        {policyPath, "", policy},
        {stsPath, kCancelMarker, cancel},
        {stsPath, kRstrMarker, assertion},
        {stsPath, kSdl2Marker, challenge},
        {stsPath, "", assertion},
        {devicePath, kActMarker, act},
    };
}

void RunLatency(const Options& options, CannedResponder& canned, const ZEB_INTERFACE* zeb, bool keepAlive) {
    SetKeepAlive(keepAlive);
    const char* mode = keepAlive ? "reuse" : "new-conn";
    DWORD handle = 0;
    if (ZEB_FAILED(zeb->Open(L"127.0.0.1", &handle, 0))) {
        std::printf("Open failed\n");
        return;
    }
    // One pass first so every envelope has been captured.
    bool primed = GetPolicyOnce(zeb, handle) && AuthenticateOnce(zeb, handle, L"Basic2") &&
                  AuthenticateOnce(zeb, handle, L"SDL2") && GetActOnce(zeb, handle);
    if (!primed) std::printf("priming pass failed\n");
    RawWinHttp raw(L"127.0.0.1", static_cast<INTERNET_PORT>(canned.Port()), false, keepAlive, 20000);
    CapturedRequest policy = canned.Captured(kPolicyMarker), basic2 = canned.Captured(kBasic2Marker),
                    sdl2 = canned.Captured(kSdl2Marker), rstr = canned.Captured(kRstrMarker),
                    act = canned.Captured(kActMarker);

    char name[64];
    Stats floorPolicy = Floor(options.iterations, raw, {policy}, &canned);
    std::snprintf(name, sizeof(name), "GetPolicy (%s)", mode);
    PrintRow(name, "canned", Measure(options.iterations, [&] { return GetPolicyOnce(zeb, handle); }, &canned),
             &floorPolicy);

    Stats floorBasic2 = Floor(options.iterations, raw, {basic2}, &canned);
    std::snprintf(name, sizeof(name), "Authentication Basic2 (%s)", mode);
    PrintRow(name, "canned",
             Measure(options.iterations, [&] { return AuthenticateOnce(zeb, handle, L"Basic2"); }, &canned),
             &floorBasic2);

    Stats floorSdl2 = Floor(options.iterations, raw, {sdl2, rstr}, &canned);
    std::snprintf(name, sizeof(name), "Authentication SDL2 (%s)", mode);
    PrintRow(name, "canned", Measure(options.iterations, [&] { return AuthenticateOnce(zeb, handle, L"SDL2"); }, &canned),
             &floorSdl2);

    Stats floorAct = Floor(options.iterations, raw, {act}, &canned);
    std::snprintf(name, sizeof(name), "GetACT, key held (%s)", mode);
    PrintRow(name, "canned", Measure(options.iterations, [&] { return GetActOnce(zeb, handle); }, &canned), &floorAct);
    zeb->Close(handle);

    // Open to Close: policy, Basic2 login, ACT, cancel; the floor adds a new
    // WinHTTP session and connection per flow as the add-in makes one.
    CapturedRequest cancel = canned.Captured(kCancelMarker);
    Stats floorFlow = Measure(
        options.iterations / 3,
        [&] {
            RawWinHttp session(L"127.0.0.1", static_cast<INTERNET_PORT>(canned.Port()), false, keepAlive, 20000);
            for (const CapturedRequest* r : {&policy, &basic2, &act, &cancel})
                if (!session.Post(std::wstring(r->path.begin(), r->path.end()), r->contentType, r->body)) return false;
            return true;
        },
        &canned);
    std::snprintf(name, sizeof(name), "Whole flow Open..Close (%s)", mode);
    PrintRow(name, "canned",
             Measure(options.iterations / 3, [&] { return WholeFlowOnce(zeb, L"127.0.0.1", 0); }, &canned), &floorFlow);
}

void RunTracing(const Options& options, CannedResponder& canned, const qvtest::TempDir& dir) {
    std::printf("\nTracing cost, GetACT with the key held (new-conn), server canned\n");
    SetKeepAlive(false);
    struct Variant {
        const wchar_t* dll;
        int level;
        bool file;
        const char* label;
    };
    const Variant variants[] = {
        {L"Quorvantis_notrace.dll", 0, false, "no trace call sites (build)"},
        {L"Quorvantis.dll", 0, false, "DebugLevel 0"},
        {L"Quorvantis.dll", 5, true, "DebugLevel 5 with DebugFile"},
    };
    Stats base;
    for (const Variant& v : variants) {
        Addin addin(v.dll);
        if (!addin.zeb) {
            std::printf("%-34s cannot load\n", v.label);
            continue;
        }
        std::wstring log = v.file ? dir.File(L"trace.log") : std::wstring();
        addin.zeb->Initialize(WriteIni(dir, L"trace.ini", canned.Port(), 0, v.level, log).c_str());
        DWORD handle = 0;
        addin.zeb->Open(L"127.0.0.1", &handle, 0);
        Stats s = Measure(options.iterations, [&] { return GetActOnce(addin.zeb, handle); }, &canned);
        addin.zeb->Close(handle);
        addin.zeb->Initialize(WriteIni(dir, L"quiet.ini", canned.Port(), 0, 0, L"").c_str());
        if (!base.ok) base = s;
        PrintRow(v.label, "canned", s, &base);
    }
}

void RunScaling(const Options& options, CannedResponder& canned, const ZEB_INTERFACE* zeb) {
    std::printf("\nScaling: GetACT with the key held, one session per host thread (reuse), server canned\n");
    SetKeepAlive(true);
    for (int threads : {1, 2, 4, 8}) {
        std::vector<std::thread> workers;
        std::vector<long> counts(static_cast<size_t>(threads), 0);
        double deadline = Now() + options.scalingMs;
        for (int t = 0; t < threads; ++t) {
            workers.emplace_back([&, t] {
                DWORD handle = 0;
                if (ZEB_FAILED(zeb->Open(L"127.0.0.1", &handle, 0))) return;
                while (Now() < deadline && GetActOnce(zeb, handle)) counts[static_cast<size_t>(t)]++;
                zeb->Close(handle);
            });
        }
        for (std::thread& w : workers) w.join();
        long total = 0;
        for (long c : counts) total += c;
        std::printf("  %d thread(s): %8.0f GetACT/s\n", threads, total * 1000.0 / options.scalingMs);
        std::fflush(stdout);
    }
}

void RunMemory(const Options& options, const ZEB_INTERFACE* zeb) {
    std::printf("\nMemory: whole flows Open..Close (new-conn), server canned\n");
    SetKeepAlive(false);
    int done = 0;
    for (int target : {100, options.cycles}) {
        for (; done < target; ++done)
            if (!WholeFlowOnce(zeb, L"127.0.0.1", 0)) {
                std::printf("  flow %d failed\n", done);
                return;
            }
        PROCESS_MEMORY_COUNTERS_EX counters = {};
        GetProcessMemoryInfo(GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&counters),
                             sizeof(counters));
        DWORD handles = 0;
        GetProcessHandleCount(GetCurrentProcess(), &handles);
        std::printf("  after %6d flows: private bytes %8.1f KiB, handles %lu\n", target,
                    static_cast<double>(counters.PrivateUsage) / 1024.0, handles);
        std::fflush(stdout);
    }
}

void RunHttps(const Options& options, const qvtest::TempDir& dir, const ZEB_INTERFACE* zeb) {
    std::printf("\nHTTPS against the reference server (refsrv: Python, self-signed certificate)\n");
    qvtest::RefServerInstance server(
        R"({"users": {"bench": {"password": "bench-pw", "domain": "LAB"}},
            "policy": [{"Info": "bench", "AuthType": "Basic2", "EnableCredentialCache": "true"}]})");
    if (!server.Ok()) {
        std::printf("  reference server not available\n");
        return;
    }
    for (bool keepAlive : {false, true}) {
        SetKeepAlive(keepAlive);
        zeb->Initialize(WriteIni(dir, L"https.ini", server.HttpPort(), server.HttpsPort(), 0, L"").c_str());
        DWORD handle = 0;
        if (ZEB_FAILED(zeb->Open(L"127.0.0.1", &handle, ZEB_OPEN_FLAG_SSL))) {
            std::printf("  Open failed\n");
            return;
        }
        bool primed = GetPolicyOnce(zeb, handle) && AuthenticateOnce(zeb, handle, L"Basic2") && GetActOnce(zeb, handle);
        if (!primed) std::printf("  priming pass failed\n");
        std::vector<qvtest::RecordedRequest> sent = server.Requests();
        CapturedRequest policy, act;
        for (const qvtest::RecordedRequest& r : sent) {
            if (r.body.find(kPolicyMarker) != std::string::npos) policy = {r.path, r.Header("Content-Type"), r.body};
            if (r.body.find(kActMarker) != std::string::npos) act = {r.path, r.Header("Content-Type"), r.body};
        }
        RawWinHttp raw(L"127.0.0.1", static_cast<INTERNET_PORT>(server.HttpsPort()), true, keepAlive, 20000);
        const char* mode = keepAlive ? "reuse" : "new-conn";
        char name[64];
        Stats floorPolicy = Floor(options.iterations / 3, raw, {policy}, nullptr);
        std::snprintf(name, sizeof(name), "GetPolicy https (%s)", mode);
        PrintRow(name, "refsrv", Measure(options.iterations / 3, [&] { return GetPolicyOnce(zeb, handle); }, nullptr),
                 &floorPolicy);
        Stats floorAct = Floor(options.iterations / 3, raw, {act}, nullptr);
        std::snprintf(name, sizeof(name), "GetACT https, key held (%s)", mode);
        PrintRow(name, "refsrv", Measure(options.iterations / 3, [&] { return GetActOnce(zeb, handle); }, nullptr),
                 &floorAct);
        zeb->Close(handle);
    }
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--iterations") == 0) options.iterations = std::atoi(argv[i + 1]);
        if (std::strcmp(argv[i], "--cycles") == 0) options.cycles = std::atoi(argv[i + 1]);
        if (std::strcmp(argv[i], "--scaling-ms") == 0) options.scalingMs = std::atoi(argv[i + 1]);
    }
    SYSTEM_INFO system;
    GetSystemInfo(&system);
    std::printf("qvbench: %d iterations per figure, %lu logical processors\n", options.iterations,
                system.dwNumberOfProcessors);

    CannedResponder canned(CannedAnswers());
    canned.SetCaptureMarkers({kPolicyMarker, kBasic2Marker, kSdl2Marker, kRstrMarker, kActMarker, kCancelMarker});
    if (!canned.Start()) {
        std::printf("cannot start the canned responder\n");
        return 1;
    }
    qvtest::TempDir dir;
    Addin addin(L"Quorvantis.dll");
    if (!addin.zeb) {
        std::printf("cannot load Quorvantis.dll\n");
        return 1;
    }
    const ZEB_INTERFACE* zeb = addin.zeb;
    zeb->Initialize(WriteIni(dir, L"bench.ini", canned.Port(), 0, 0, L"").c_str());

    std::printf("\nLatency and client CPU per operation; floor = raw WinHTTP POST of the same bytes\n");
    PrintHeader();
    RunLatency(options, canned, zeb, false);
    RunLatency(options, canned, zeb, true);
    RunTracing(options, canned, dir);
    zeb->Initialize(WriteIni(dir, L"bench.ini", canned.Port(), 0, 0, L"").c_str());
    RunScaling(options, canned, zeb);
    RunMemory(options, zeb);
    RunHttps(options, dir, zeb);
    SetKeepAlive(false);
    canned.Stop();
    return 0;
}
