// Many host threads, each running whole flows on sessions of its own at once:
// Open -> GetPolicy -> Authentication (Basic2) -> GetACT -> BufferFree ->
// Close, with Open and Close racing on the module's handle counter and device
// list. The server is the benchmark's in-process canned responder (answers
// rendered once by the reference server's answer builders, then replayed), so
// the run measures the add-in and not a Python server.
//
// The default size (16 threads x 200 flows) fits the CI budget. A longer run,
// for the figures, outside ctest and its time-out: scripts/stress --flows 1000.
// Each run prints its figures.
#include "support/CannedResponder.h"

#include <gtest/gtest.h>
#include <windows.h>
#include <psapi.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#define QUORVANTIS_NO_PROTOTYPES
#include "Quorvantis.h"
#include "support/HostTable.h"
#include "support/RefServer.h"
#include "support/TestSupport.h"

namespace {

const char* const kPolicyPath = "/wls/WLSPolicyService.actv";
const char* const kStsPath = "/wls/STSServer.actv";
const char* const kDevicePath = "/zeb/Drv-Comm.actv";

int EnvInt(const char* name, int fallback) {
    char value[32] = {};
    DWORD n = GetEnvironmentVariableA(name, value, sizeof(value));
    if (n == 0 || n >= sizeof(value)) return fallback;
    int parsed = std::atoi(value);
    return parsed > 0 ? parsed : fallback;
}

// User + kernel time of the whole process (the responder's thread included),
// in seconds.
double ProcessCpuSeconds() {
    FILETIME created, exited, kernel, user;
    if (!GetProcessTimes(GetCurrentProcess(), &created, &exited, &kernel, &user)) return 0;
    auto toU64 = [](const FILETIME& t) { return (static_cast<ULONGLONG>(t.dwHighDateTime) << 32) | t.dwLowDateTime; };
    return static_cast<double>(toU64(kernel) + toU64(user)) / 1e7;
}

using qvtest::HostTable;

// What the threads of one run saw.
struct RunTally {
    std::vector<std::vector<DWORD>> handles;  // per thread, every handle Open gave
    std::atomic<long> failedCalls{0};
    std::atomic<DWORD> firstFailure{0};
    std::atomic<long> flows{0};
};

void NoteFailure(RunTally& tally, DWORD code) {
    tally.failedCalls++;
    DWORD none = 0;
    tally.firstFailure.compare_exchange_strong(none, code);
}

// One whole flow on a session of its own; every result code is checked.
void WholeFlow(const ZEB_INTERFACE* zeb, RunTally& tally, std::vector<DWORD>& handles) {
    DWORD handle = 0;
    DWORD r = zeb->Open(L"127.0.0.1", &handle, 0);
    handles.push_back(handle);
    if (ZEB_FAILED(r)) {
        NoteFailure(tally, r);
        return;
    }

    DWORD count = 0, ssl = 0;
    AuthInfo* policy = nullptr;
    r = zeb->GetPolicy(handle, &count, &policy, &ssl);
    if (ZEB_FAILED(r) || count == 0 || !policy) {
        NoteFailure(tally, r ? r : 0xFFFFFFFFu);
        zeb->BufferFree(policy);
        zeb->Close(handle);
        return;
    }

    WCHAR user[] = L"stress", password[] = L"stress-pw", domain[] = L"LAB";
    AuthCredential credential = {user, password, domain};
    BYTE* digest = nullptr;
    DWORD digestSize = 0;
    r = zeb->Authentication(handle, 0, &policy[0], &credential, &digest, &digestSize);
    zeb->BufferFree(policy);
    zeb->BufferFree(digest);
    if (ZEB_FAILED(r)) {
        NoteFailure(tally, r);
        zeb->Close(handle);
        return;
    }

    BYTE *key = nullptr, *act = nullptr, *signature = nullptr;
    DWORD keySize = 0, actSize = 0, signatureSize = 0;
    r = zeb->GetACT(handle, L"stress-subject", ZEB_ACT_FLAG_ACV257 | ZEB_ACT_FLAG_ACV256, &key, &keySize, &act,
                    &actSize, &signature, &signatureSize);
    if (ZEB_FAILED(r) || !act || actSize == 0) NoteFailure(tally, r ? r : 0xFFFFFFFEu);
    zeb->BufferFree(key);
    zeb->BufferFree(act);
    zeb->BufferFree(signature);
    zeb->Close(handle);
    if (!ZEB_FAILED(r)) tally.flows++;
}

// `threads` host threads, started together, each running `flows` flows.
void RunFlows(const ZEB_INTERFACE* zeb, int threads, int flows, RunTally& tally) {
    tally.handles.assign(static_cast<size_t>(threads), {});
    std::atomic<int> ready{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            std::vector<DWORD>& mine = tally.handles[static_cast<size_t>(t)];
            mine.reserve(static_cast<size_t>(flows));
            ready++;
            while (!go.load()) Sleep(0);
            for (int i = 0; i < flows; ++i) WholeFlow(zeb, tally, mine);
        });
    }
    while (ready.load() < threads) Sleep(1);
    go = true;
    for (std::thread& w : workers) w.join();
}

std::vector<CannedAnswer> CannedAnswers() {
    std::string policy = qvtest::RenderAnswer(
        "get_policy_response",
        R"({"auth_infos": [{"Info": "stress", "AuthType": "Basic2", "EnableCredentialCache": "true"}]})");
    std::string assertion = qvtest::RenderAnswer(
        "rstr_assertion_response", R"({"assertion_id": "_stress-assertion", "name_identifier": "stress"})");
    std::string cancel = qvtest::RenderAnswer("cancel_response", "{}");
    std::string act = qvtest::RenderAnswer(
        "get_act_response", R"({"act": "QUNUOnN0cmVzcw==", "signature": "c2lnbmF0dXJlLWJ5dGVzLTIwYnl0ZQ=="})");
    if (policy.empty() || assertion.empty() || cancel.empty() || act.empty()) return {};
    return {
        {kPolicyPath, "", policy},
        {kStsPath, "RST/Cancel", cancel},
        {kStsPath, "", assertion},
        {kDevicePath, "GetACTRequest", act},
    };
}

TEST(Stress, ConcurrentWholeFlowsLeaveNothingBehind) {
    const int threads = EnvInt("QV_STRESS_THREADS", 16);
    const int flows = EnvInt("QV_STRESS_FLOWS", 200);

    std::vector<CannedAnswer> answers = CannedAnswers();
    ASSERT_FALSE(answers.empty()) << "the reference server did not render the answers";
    CannedResponder server(answers);
    ASSERT_TRUE(server.Start());

    HostTable host;
    ASSERT_NE(host.zeb, nullptr);
    const ZEB_INTERFACE* zeb = host.zeb;
    qvtest::TempDir dir;
    ASSERT_EQ(qvtest::InitializeWithIni(zeb, dir,
                                        "PortNo=" + std::to_string(server.Port()) + "\r\nTimeout=20000\r\nDebugLevel=0\r\n"),
              0u);

    // The first handle of this test: every later one is above it.
    DWORD first = 0;
    ASSERT_EQ(zeb->Open(L"127.0.0.1", &first, 0), 0u);
    zeb->Close(first);

    // Warm-up at full width: thread-local COM and MSXML state, WinHTTP's and
    // the heap's own growth settle before the baseline is taken.
    RunTally warm;
    RunFlows(zeb, threads, 4, warm);
    ASSERT_EQ(warm.failedCalls.load(), 0) << "first failure " << std::hex << warm.firstFailure.load();
    Sleep(200);
    const SIZE_T privateBefore = qvtest::PrivateBytes();
    const DWORD handlesBefore = qvtest::HandleCount();

    RunTally tally;
    const double cpu0 = ProcessCpuSeconds();
    const auto t0 = std::chrono::steady_clock::now();
    RunFlows(zeb, threads, flows, tally);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    const double cpuSeconds = ProcessCpuSeconds() - cpu0;
    Sleep(200);
    const SIZE_T privateAfter = qvtest::PrivateBytes();
    const DWORD handlesAfter = qvtest::HandleCount();

    std::printf("stress: %d threads x %d flows = %ld whole flows (%s exchanges in all) in %.1f s, %.0f flows/s, "
                "process CPU %.1f s (%.2f ms per flow)\n",
                threads, flows, tally.flows.load(), std::to_string(server.Requests()).c_str(), seconds,
                seconds > 0 ? tally.flows.load() / seconds : 0.0, cpuSeconds,
                tally.flows.load() ? cpuSeconds * 1000.0 / tally.flows.load() : 0.0);
    std::printf("stress: private bytes %.1f KiB before, %.1f KiB after; handles %lu before, %lu after\n",
                privateBefore / 1024.0, privateAfter / 1024.0, handlesBefore, handlesAfter);
    std::fflush(stdout);

    // Every call returned, and with success against this well-behaved server.
    EXPECT_EQ(tally.failedCalls.load(), 0) << "first failure " << std::hex << tally.firstFailure.load();
    EXPECT_EQ(tally.flows.load(), static_cast<long>(threads) * flows);

    // Every handle distinct over the whole run (warm-up included), all above
    // the first one of this test.
    std::vector<DWORD> all;
    for (const RunTally* t : {&warm, &tally})
        for (const std::vector<DWORD>& perThread : t->handles) all.insert(all.end(), perThread.begin(), perThread.end());
    std::sort(all.begin(), all.end());
    EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end()) << "a handle was issued twice";
    ASSERT_FALSE(all.empty());
    EXPECT_GT(all.front(), first);
    const DWORD last = all.back();

    // The device list is empty again: no handle issued since this test began
    // (handles are never reused, so that is every one of them) still names
    // a session.
    long stillKnown = 0;
    for (DWORD h = first; h <= last; ++h) {
        DWORD count = 7, ssl = 0;
        AuthInfo* list = nullptr;
        if (zeb->GetPolicy(h, &count, &list, &ssl) != ZEB_ERROR_INVALID_HANDLE) ++stillKnown;
        zeb->BufferFree(list);
    }
    EXPECT_EQ(stillKnown, 0) << "sessions left in the device list";

    // Memory and handles back at their level. Allowances cover the heap's and
    // Wine's own noise; a leak of even one small block per flow would pass
    // them over a run of this size.
    const SIZE_T privateSlack = std::max<SIZE_T>(2 * 1024 * 1024, privateBefore / 10);
    EXPECT_LE(privateAfter, privateBefore + privateSlack);
    EXPECT_LE(handlesAfter, handlesBefore + 16u);

    server.Stop();
}

}  // namespace
