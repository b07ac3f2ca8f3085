// qvbench: measures Quorvantis.dll, driven through its interface table as a
// host does, against the floor of a raw WinHTTP POST of the byte-identical
// envelope with the same options to the same server, in one process and run.
//
// Servers: "canned" is a loopback listener inside this process that replays
// the reference server's answers (built by its answer builders) at almost no
// cost; "native" serves the same answers from a native Linux process
// (bench/native/canned_responder, started by scripts/bench, --native-port N)
// and is used for the connection-reuse rows; "refsrv" is the reference server
// itself (Python), used for HTTPS.
#include <winsock2.h>
#include <windows.h>
#include <objbase.h>
#include <psapi.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#define QUORVANTIS_NO_PROTOTYPES
#include "support/CannedResponder.h"
#include "NativeResponder.h"
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
    bool hostCom = false;
    // Comma-separated sections to run (latency, tracing, scaling, memory,
    // https, baseline); empty: all.
    std::string sections;
    // Another build of the DLL, measured against this one in alternating rounds.
    std::wstring baseline;
    // Port of the native responder on loopback; 0: none, the reuse rows use
    // the in-process one.
    int nativePort = 0;
    bool Runs(const char* section) const {
        if (sections.empty()) return true;
        const std::string list = "," + sections + ",";
        return list.find("," + std::string(section) + ",") != std::string::npos;
    }
};

std::string Narrow(const std::wstring& w) { return std::string(w.begin(), w.end()); }

std::string ProcessorName() {
    char name[128] = {};
    DWORD size = sizeof(name) - 1;
    if (RegGetValueA(HKEY_LOCAL_MACHINE, "HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0", "ProcessorNameString",
                     RRF_RT_REG_SZ, nullptr, name, &size) != ERROR_SUCCESS)
        return "unknown processor";
    std::string text = name;
    while (!text.empty() && text.back() == ' ') text.pop_back();
    return text;
}

// "Wine <version>" when running under Wine, else the Windows build.
std::string PlatformName() {
    using WineVersion = const char*(CDECL*)();
    HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    auto wine = ntdll ? reinterpret_cast<WineVersion>(GetProcAddress(ntdll, "wine_get_version")) : nullptr;
    if (wine) return std::string("Wine ") + wine();
    OSVERSIONINFOW version = {sizeof(version)};
    using RtlGetVersionFn = LONG(WINAPI*)(OSVERSIONINFOW*);
    auto rtl = ntdll ? reinterpret_cast<RtlGetVersionFn>(GetProcAddress(ntdll, "RtlGetVersion")) : nullptr;
    if (rtl) rtl(&version);
    return "Windows " + std::to_string(version.dwMajorVersion) + "." + std::to_string(version.dwMinorVersion) + "." +
           std::to_string(version.dwBuildNumber);
}

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

// The server of a figure. The in-process responder's thread CPU is taken out
// of the client figures; the native responder is another process, so its CPU
// is not in them anyway.
struct Server {
    const char* name;  // "canned" or "native", as the rows say
    int port;
    CannedResponder* inProcess;  // nullptr for the native responder
    NativeResponder* native;
    CapturedRequest Captured(const std::string& marker) const {
        return inProcess ? inProcess->Captured(marker) : native->Captured(marker);
    }
};

// One envelope of an operation, with the marker that finds it again.
struct FloorRequest {
    const char* marker;
    CapturedRequest request;
};

// Whether the raw floor sent what the add-in sent: the same request line,
// header lines and body bytes (the responder kept the floor's last copy).
bool SameBytes(const CapturedRequest& addin, const CapturedRequest& floor) {
    return !addin.body.empty() && addin.head == floor.head && addin.body == floor.body;
}

// Raw floor of one operation: the captured envelopes it sends, posted in
// order. With a responder, afterwards checks that the floor's requests were
// byte-identical to the add-in's and says so when they were not.
Stats Floor(int iterations, RawWinHttp& raw, const std::vector<FloorRequest>& requests, const Server* server) {
    for (const FloorRequest& r : requests)
        if (r.request.body.empty()) {
            std::printf("  (no captured request for %s)\n", r.marker);
            return Stats{};
        }
    Stats stats = Measure(
        iterations,
        [&] {
            for (const FloorRequest& r : requests)
                if (!raw.Post(std::wstring(r.request.path.begin(), r.request.path.end()), r.request.contentType,
                              r.request.body))
                    return false;
            return true;
        },
        server ? server->inProcess : nullptr);
    if (server)
        for (const FloorRequest& r : requests)
            if (!SameBytes(r.request, server->Captured(r.marker))) {
                std::printf("  floor request for %s differs from the add-in's:\n--- add-in\n%s\n--- floor\n%s\n",
                            r.marker, r.request.head.c_str(), server->Captured(r.marker).head.c_str());
                stats.ok = false;
            }
    return stats;
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

void RunLatency(const Options& options, const Server& server, const ZEB_INTERFACE* zeb, bool keepAlive) {
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
    RawWinHttp raw(L"127.0.0.1", static_cast<INTERNET_PORT>(server.port), false, keepAlive, 20000);
    CapturedRequest policy = server.Captured(kPolicyMarker), basic2 = server.Captured(kBasic2Marker),
                    sdl2 = server.Captured(kSdl2Marker), rstr = server.Captured(kRstrMarker),
                    act = server.Captured(kActMarker);

    char name[64];
    Stats floorPolicy = Floor(options.iterations, raw, {{kPolicyMarker, policy}}, &server);
    std::snprintf(name, sizeof(name), "GetPolicy (%s)", mode);
    PrintRow(name, server.name,
             Measure(options.iterations, [&] { return GetPolicyOnce(zeb, handle); }, server.inProcess),
             &floorPolicy);

    Stats floorBasic2 = Floor(options.iterations, raw, {{kBasic2Marker, basic2}}, &server);
    std::snprintf(name, sizeof(name), "Authentication Basic2 (%s)", mode);
    PrintRow(name, server.name,
             Measure(options.iterations, [&] { return AuthenticateOnce(zeb, handle, L"Basic2"); }, server.inProcess),
             &floorBasic2);

    Stats floorSdl2 = Floor(options.iterations, raw, {{kSdl2Marker, sdl2}, {kRstrMarker, rstr}}, &server);
    std::snprintf(name, sizeof(name), "Authentication SDL2 (%s)", mode);
    PrintRow(name, server.name,
             Measure(options.iterations, [&] { return AuthenticateOnce(zeb, handle, L"SDL2"); }, server.inProcess),
             &floorSdl2);

    Stats floorAct = Floor(options.iterations, raw, {{kActMarker, act}}, &server);
    std::snprintf(name, sizeof(name), "GetACT, key held (%s)", mode);
    PrintRow(name, server.name, Measure(options.iterations, [&] { return GetActOnce(zeb, handle); }, server.inProcess),
             &floorAct);
    zeb->Close(handle);

    // Open to Close: policy, Basic2 login, ACT, cancel; the floor adds a new
    // WinHTTP session and connection per flow as the add-in makes one.
    CapturedRequest cancel = server.Captured(kCancelMarker);
    Stats floorFlow = Measure(
        options.iterations / 3,
        [&] {
            RawWinHttp session(L"127.0.0.1", static_cast<INTERNET_PORT>(server.port), false, keepAlive, 20000);
            for (const CapturedRequest* r : {&policy, &basic2, &act, &cancel})
                if (!session.Post(std::wstring(r->path.begin(), r->path.end()), r->contentType, r->body)) return false;
            return true;
        },
        server.inProcess);
    std::snprintf(name, sizeof(name), "Whole flow Open..Close (%s)", mode);
    PrintRow(name, server.name,
             Measure(options.iterations / 3, [&] { return WholeFlowOnce(zeb, L"127.0.0.1", 0); }, server.inProcess),
             &floorFlow);
}

// Samples of one variant gathered over several rounds.
struct Samples {
    std::vector<double> wall;
    ULONGLONG cpu = 0;
    int ops = 0;
    bool ok = true;
    Stats ToStats() const {
        Stats stats;
        if (!ok || wall.empty()) return stats;
        std::vector<double> sorted = wall;
        std::sort(sorted.begin(), sorted.end());
        stats.medianMs = sorted[sorted.size() / 2];
        stats.p99Ms = sorted[static_cast<size_t>(std::ceil(0.99 * static_cast<double>(sorted.size()))) - 1];
        stats.cpuMs = static_cast<double>(cpu) / 10000.0 / ops;
        stats.ok = true;
        return stats;
    }
};

// `count` operations into `samples`; client CPU as in Measure.
void Sample(int count, const std::function<bool()>& op, CannedResponder* responder, Samples& samples) {
    ULONGLONG cpu0 = ProcessCpu() - (responder ? responder->CpuTime() : 0);
    for (int i = 0; i < count && samples.ok; ++i) {
        double t0 = Now();
        if (!op()) samples.ok = false;
        samples.wall.push_back(Now() - t0);
    }
    ULONGLONG cpu1 = ProcessCpu() - (responder ? responder->CpuTime() : 0);
    samples.cpu += cpu1 - cpu0;
    samples.ops += count;
}

void RunTracing(const Options& options, CannedResponder& canned, const qvtest::TempDir& dir) {
    std::printf("\nTracing cost, GetACT with the key held (new-conn), server canned\n");
    SetKeepAlive(false);
    // The two DebugLevel-0 variants run in alternating rounds, so that drift
    // of a shared machine falls on both alike.
    Addin notrace(L"Quorvantis_notrace.dll");
    Addin traced(L"Quorvantis.dll");
    if (!notrace.zeb || !traced.zeb) {
        std::printf("  cannot load both DLL variants\n");
        return;
    }
    notrace.zeb->Initialize(WriteIni(dir, L"notrace.ini", canned.Port(), 0, 0, L"").c_str());
    traced.zeb->Initialize(WriteIni(dir, L"quiet.ini", canned.Port(), 0, 0, L"").c_str());
    DWORD notraceHandle = 0, tracedHandle = 0;
    notrace.zeb->Open(L"127.0.0.1", &notraceHandle, 0);
    traced.zeb->Open(L"127.0.0.1", &tracedHandle, 0);
    Samples base, quiet;
    const int rounds = 10;
    const int perRound = std::max(1, options.iterations / rounds);
    for (int i = 0; i < 5; ++i) {
        GetActOnce(notrace.zeb, notraceHandle);
        GetActOnce(traced.zeb, tracedHandle);
    }
    for (int round = 0; round < rounds; ++round) {
        Sample(perRound, [&] { return GetActOnce(notrace.zeb, notraceHandle); }, &canned, base);
        Sample(perRound, [&] { return GetActOnce(traced.zeb, tracedHandle); }, &canned, quiet);
    }
    notrace.zeb->Close(notraceHandle);
    traced.zeb->Close(tracedHandle);
    Stats baseStats = base.ToStats();
    PrintRow("no trace call sites (build)", "canned", baseStats, &baseStats);
    PrintRow("DebugLevel 0", "canned", quiet.ToStats(), &baseStats);

    std::wstring log = dir.File(L"trace.log");
    traced.zeb->Initialize(WriteIni(dir, L"trace.ini", canned.Port(), 0, 5, log).c_str());
    DWORD handle = 0;
    traced.zeb->Open(L"127.0.0.1", &handle, 0);
    Stats verbose = Measure(options.iterations, [&] { return GetActOnce(traced.zeb, handle); }, &canned);
    traced.zeb->Close(handle);
    traced.zeb->Initialize(WriteIni(dir, L"quiet.ini", canned.Port(), 0, 0, L"").c_str());
    PrintRow("DebugLevel 5 with DebugFile", "canned", verbose, &baseStats);
}

// This build against another (--baseline FILE: a copy of the other build's
// DLL under another name), GetPolicy and GetACT with the key held, new-conn,
// in alternating rounds with the floor so that drift of a shared machine
// falls on all three alike.
void RunBaseline(const Options& options, CannedResponder& canned, const qvtest::TempDir& dir,
                 const ZEB_INTERFACE* zeb) {
    std::printf("\nThis build against %ls (new-conn), server canned, alternating rounds\n", options.baseline.c_str());
    SetKeepAlive(false);
    Addin base(options.baseline.c_str());
    if (!base.zeb) {
        std::printf("  cannot load the baseline DLL\n");
        return;
    }
    base.zeb->Initialize(WriteIni(dir, L"baseline.ini", canned.Port(), 0, 0, L"").c_str());
    DWORD baseHandle = 0, handle = 0;
    base.zeb->Open(L"127.0.0.1", &baseHandle, 0);
    zeb->Open(L"127.0.0.1", &handle, 0);
    bool primed = GetPolicyOnce(zeb, handle) && GetActOnce(zeb, handle) && GetPolicyOnce(base.zeb, baseHandle) &&
                  GetActOnce(base.zeb, baseHandle);
    if (!primed) {
        std::printf("  priming pass failed\n");
        base.zeb->Close(baseHandle);
        zeb->Close(handle);
        return;
    }
    RawWinHttp raw(L"127.0.0.1", static_cast<INTERNET_PORT>(canned.Port()), false, false, 20000);
    const CapturedRequest policy = canned.Captured(kPolicyMarker), act = canned.Captured(kActMarker);
    auto post = [&](const CapturedRequest& r) {
        return raw.Post(std::wstring(r.path.begin(), r.path.end()), r.contentType, r.body);
    };
    struct Operation {
        const char* name;
        std::function<bool(const ZEB_INTERFACE*, DWORD)> run;
        const CapturedRequest* request;
    };
    const Operation operations[] = {
        {"GetPolicy", [](const ZEB_INTERFACE* z, DWORD h) { return GetPolicyOnce(z, h); }, &policy},
        {"GetACT, key held", [](const ZEB_INTERFACE* z, DWORD h) { return GetActOnce(z, h); }, &act},
    };
    const int rounds = 10;
    const int perRound = std::max(1, options.iterations / rounds);
    for (const Operation& operation : operations) {
        Samples floor, before, after;
        for (int round = 0; round < rounds; ++round) {
            Sample(perRound, [&] { return post(*operation.request); }, &canned, floor);
            Sample(perRound, [&] { return operation.run(base.zeb, baseHandle); }, &canned, before);
            Sample(perRound, [&] { return operation.run(zeb, handle); }, &canned, after);
        }
        const Stats floorStats = floor.ToStats();
        char name[64];
        std::snprintf(name, sizeof(name), "%s, baseline", operation.name);
        PrintRow(name, "canned", before.ToStats(), &floorStats);
        std::snprintf(name, sizeof(name), "%s, this build", operation.name);
        PrintRow(name, "canned", after.ToStats(), &floorStats);
    }
    base.zeb->Close(baseHandle);
    zeb->Close(handle);
}

void RunScaling(const Options& options, CannedResponder& canned, const ZEB_INTERFACE* zeb) {
    std::printf("\nScaling: GetACT with the key held, one session per host thread (new-conn, the default), server canned\n");
    SetKeepAlive(false);
    for (int threads : {1, 2, 4, 8}) {
        std::vector<std::thread> workers;
        std::vector<long> counts(static_cast<size_t>(threads), 0);
        std::atomic<int> ready{0};
        std::atomic<bool> go{false};
        std::atomic<bool> stop{false};
        std::atomic<bool> failed{false};
        for (int t = 0; t < threads; ++t) {
            workers.emplace_back([&, t] {
                DWORD handle = 0;
                bool open = !ZEB_FAILED(zeb->Open(L"127.0.0.1", &handle, 0)) && GetActOnce(zeb, handle);
                if (!open) failed = true;
                ready++;
                while (!go.load()) Sleep(0);
                while (open && !stop.load()) {
                    if (!GetActOnce(zeb, handle)) {
                        failed = true;
                        break;
                    }
                    counts[static_cast<size_t>(t)]++;
                }
                zeb->Close(handle);
            });
        }
        while (ready.load() < threads) Sleep(1);
        ULONGLONG cpu0 = ProcessCpu() - canned.CpuTime();
        double t0 = Now();
        go = true;
        Sleep(static_cast<DWORD>(options.scalingMs));
        stop = true;
        double elapsed = Now() - t0;
        ULONGLONG cpu1 = ProcessCpu() - canned.CpuTime();
        for (std::thread& w : workers) w.join();
        long total = 0;
        for (long c : counts) total += c;
        double cpuMs = static_cast<double>(cpu1 - cpu0) / 10000.0;
        std::printf("  %d thread(s): %8.0f GetACT/s, client CPU %5.2f cores, %6.3f ms CPU per GetACT%s\n", threads,
                    total * 1000.0 / elapsed, cpuMs / elapsed, total ? cpuMs / total : 0.0,
                    failed.load() ? "  (FAILED calls)" : "");
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
        PROCESS_MEMORY_COUNTERS counters = {};
        counters.cb = sizeof(counters);
        GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof(counters));
        const SIZE_T privateBytes = qvtest::PrivateBytes();
        std::printf("  after %6d flows: private bytes %9.1f KiB, working set %9.1f KiB, handles %lu\n", target,
                    static_cast<double>(privateBytes) / 1024.0, static_cast<double>(counters.WorkingSetSize) / 1024.0,
                    qvtest::HandleCount());
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
        if (sent.empty()) std::printf("  the reference server recorded no requests\n");

        CapturedRequest policy, act;
        for (const qvtest::RecordedRequest& r : sent) {
            if (policy.body.empty() && r.body.find(kPolicyMarker) != std::string::npos)
                policy = {r.path, r.Header("Content-Type"), std::string(), r.body};
            // The first GetACT is the key-held form (the later one carries a new key).
            if (act.body.empty() && r.body.find(kActMarker) != std::string::npos)
                act = {r.path, r.Header("Content-Type"), std::string(), r.body};
        }
        RawWinHttp raw(L"127.0.0.1", static_cast<INTERNET_PORT>(server.HttpsPort()), true, keepAlive, 20000);
        const char* mode = keepAlive ? "reuse" : "new-conn";
        char name[64];
        Stats floorPolicy = Floor(options.iterations / 3, raw, {{kPolicyMarker, policy}}, nullptr);
        std::snprintf(name, sizeof(name), "GetPolicy https (%s)", mode);
        PrintRow(name, "refsrv", Measure(options.iterations / 3, [&] { return GetPolicyOnce(zeb, handle); }, nullptr),
                 &floorPolicy);
        Stats floorAct = Floor(options.iterations / 3, raw, {{kActMarker, act}}, nullptr);
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
        if (std::strcmp(argv[i], "--host-com") == 0) options.hostCom = std::atoi(argv[i + 1]) != 0;
        if (std::strcmp(argv[i], "--sections") == 0) options.sections = argv[i + 1];
        if (std::strcmp(argv[i], "--native-port") == 0) options.nativePort = std::atoi(argv[i + 1]);
        if (std::strcmp(argv[i], "--baseline") == 0) {
            const std::string file = argv[i + 1];
            options.baseline.assign(file.begin(), file.end());
        }
    }
    // A host whose thread already holds a COM apartment (as many driver
    // components do) spares the add-in's messages setting one up per call.
    if (options.hostCom) CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    SYSTEM_INFO system;
    GetSystemInfo(&system);
    std::printf("qvbench: %d iterations per figure, %d flows for memory, %d ms per scaling step\n",
                options.iterations, options.cycles, options.scalingMs);
    std::printf("machine: %s, %lu logical processors, %s\n", ProcessorName().c_str(), system.dwNumberOfProcessors,
                PlatformName().c_str());
    std::printf("servers: canned = in-process responder%s\n",
                options.nativePort ? "; native = native Linux responder (TCP_NODELAY, TCP_QUICKACK), reuse rows"
                                   : "; no native responder (--native-port), reuse rows on canned");

    CannedResponder canned(CannedAnswers());
    const std::vector<std::string> markers = {kPolicyMarker, kBasic2Marker, kSdl2Marker,
                                              kRstrMarker,   kActMarker,    kCancelMarker};
    canned.SetCaptureMarkers(markers);
    if (!canned.Start()) {
        std::printf("cannot start the canned responder\n");
        return 1;
    }
    const Server cannedServer{"canned", canned.Port(), &canned, nullptr};
    NativeResponder native(options.nativePort);
    const Server nativeServer{"native", options.nativePort, nullptr, &native};
    if (options.nativePort && !native.Load(CannedAnswers(), markers)) {
        std::printf("cannot hand the answers to the native responder on port %d\n", options.nativePort);
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
    if (options.Runs("latency")) {
        RunLatency(options, cannedServer, zeb, false);
        // Connection reuse against the native responder when there is one:
        // the in-process one cannot answer Wine's delayed ACK at once.
        const Server& reuse = options.nativePort ? nativeServer : cannedServer;
        zeb->Initialize(WriteIni(dir, L"reuse.ini", reuse.port, 0, 0, L"").c_str());
        RunLatency(options, reuse, zeb, true);
        zeb->Initialize(WriteIni(dir, L"bench.ini", canned.Port(), 0, 0, L"").c_str());
    }
    if (!options.baseline.empty() && options.Runs("baseline")) RunBaseline(options, canned, dir, zeb);
    if (options.Runs("tracing")) RunTracing(options, canned, dir);
    zeb->Initialize(WriteIni(dir, L"bench.ini", canned.Port(), 0, 0, L"").c_str());
    if (options.Runs("scaling")) RunScaling(options, canned, zeb);
    if (options.Runs("memory")) RunMemory(options, zeb);
    if (options.Runs("https")) RunHttps(options, dir, zeb);
    SetKeepAlive(false);
    canned.Stop();
    return 0;
}
