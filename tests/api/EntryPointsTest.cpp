// The eight entries driven through the table only, as a printer driver does:
// argument checks in their order with their codes and trace lines, handle
// numbering, unknown handles, and the trace log the host switches on.
#include <gtest/gtest.h>
#include <windows.h>

#include <algorithm>
#include <regex>
#include <set>
#include <string>
#include <vector>

#define QUORVANTIS_NO_PROTOTYPES
#include "Quorvantis.h"
#include "support/HostTable.h"
#include "support/TestSupport.h"

namespace {

class EntryPoints : public ::testing::Test {
protected:
    void SetUp() override {
        m_api = m_host.zeb;
        ASSERT_NE(m_api, nullptr);
        m_trace = m_dir.File(L"trace.log");
        InitializeWith(qvtest::TraceKeys(m_trace, 5));
    }
    void TearDown() override {
        // Back to defaults, so that nothing writes into the folder being removed.
        if (m_api) m_api->Initialize(m_dir.File(L"absent.ini").c_str());
    }
    void InitializeWith(const std::string& keys) {
        ASSERT_EQ(qvtest::InitializeWithIni(m_api, m_dir, keys), 0u);
    }
    std::string Trace() const { return qvtest::ReadFileBytes(m_trace); }
    // Each trace entry ends with its message; true when one ends with `text`.
    bool Traced(const std::string& text) const {
        std::string log = Trace();
        for (size_t at = log.find(" : " + text); at != std::string::npos; at = log.find(" : " + text, at + 1)) {
            size_t end = at + 3 + text.size();
            if (end == log.size() || log[end] == '\n') return true;
        }
        return false;
    }
    DWORD OpenAny(DWORD* handle) { return m_api->Open(L"127.0.0.1", handle, 0); }
    void CloseIfOpen(DWORD result, DWORD handle) {
        if (!ZEB_FAILED(result)) m_api->Close(handle);
    }

    qvtest::HostTable m_host;
    const ZEB_INTERFACE* m_api = nullptr;
    qvtest::TempDir m_dir;
    std::wstring m_trace;
};

TEST_F(EntryPoints, InitializeRejectsANullPath) {
    EXPECT_EQ(m_api->Initialize(nullptr), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_TRUE(Traced("Initialize IN"));
    EXPECT_TRUE(Traced("Initialize PARAMETER ZEB_ERROR = d5000057"));
}

TEST_F(EntryPoints, InitializeAcceptsAMissingFileAndMayBeCalledAgain) {
    EXPECT_EQ(m_api->Initialize(m_dir.File(L"absent.ini").c_str()), 0u);
    // Level 0 now: nothing more is traced.
    std::string before = Trace();
    m_api->Initialize(nullptr);
    EXPECT_EQ(Trace(), before);
    InitializeWith(qvtest::TraceKeys(m_trace, 4));
    EXPECT_TRUE(Traced("Initialize OUT"));
}

TEST_F(EntryPoints, TraceLinesHaveTheirFormat) {
    m_api->Initialize(nullptr);
    static const std::regex kLine(
        "\n Time\\(H\\d{2}:M\\d{2}:S\\d{2}:[ \\d]{2,3}\\), Thread\\(\\d+\\), FILE\\(   QuorvantisAPI\\.cpp\\), "
        "LINE\\([ \\d]{3}\\d\\) : Initialize PARAMETER ZEB_ERROR = d5000057");
    EXPECT_TRUE(std::regex_search(Trace(), kLine)) << Trace();
}

TEST_F(EntryPoints, TraceThresholdZeroWritesNothing) {
    std::wstring quiet = m_dir.File(L"quiet.log");
    InitializeWith(qvtest::TraceKeys(quiet, 0));
    m_api->Initialize(nullptr);
    DWORD handle = 0;
    m_api->Open(nullptr, &handle, 0);
    EXPECT_EQ(GetFileAttributesW(quiet.c_str()), INVALID_FILE_ATTRIBUTES);
}

TEST_F(EntryPoints, TraceThresholdFourKeepsInOutButNoDetail) {
    std::wstring four = m_dir.File(L"four.log");
    InitializeWith(qvtest::TraceKeys(four, 4));
    m_api->GetPolicy(0xFFFFFFF0u, nullptr, nullptr, nullptr);
    std::string log = qvtest::ReadFileBytes(four);
    EXPECT_NE(log.find(" : GetPolicy IN"), std::string::npos);
    EXPECT_NE(log.find(" : GetPolicy PARAMETER ZEB_ERROR = d5000057"), std::string::npos);
}

TEST_F(EntryPoints, OpenChecksItsArguments) {
    DWORD handle = 0xDEADBEEF;
    EXPECT_EQ(m_api->Open(nullptr, &handle, 0), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(m_api->Open(L"", &handle, 0), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(handle, 0xDEADBEEFu);  // no handle written
    EXPECT_EQ(m_api->Open(L"127.0.0.1", nullptr, 0), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_TRUE(Traced("Open IN"));
    EXPECT_TRUE(Traced("Open PARAMETER ZEB_ERROR = d5000057"));
}

TEST_F(EntryPoints, HandlesAreConsecutiveAndFailedOpensUseThemUp) {
    DWORD first = 0, second = 0, third = 0;
    DWORD r1 = OpenAny(&first);
    DWORD r2 = OpenAny(&second);
    // A rejected argument takes no number.
    DWORD unused = 0;
    EXPECT_EQ(m_api->Open(L"", &unused, 0), ZEB_ERROR_INVALID_PARAMETER);
    // An address the client cannot use fails after its number was taken.
    DWORD r3 = m_api->Open(L"bad host name with blanks", &third, 0);
    DWORD fourth = 0;
    DWORD r4 = OpenAny(&fourth);
    EXPECT_NE(first, 0u);
    EXPECT_EQ(second, first + 1);
    EXPECT_EQ(third, first + 2);
    EXPECT_EQ(fourth, first + 3);
    CloseIfOpen(r1, first);
    CloseIfOpen(r2, second);
    CloseIfOpen(r3, third);
    CloseIfOpen(r4, fourth);
}

TEST_F(EntryPoints, ClosedHandlesAreNotReused) {
    DWORD first = 0, second = 0;
    DWORD r1 = OpenAny(&first);
    CloseIfOpen(r1, first);
    DWORD r2 = OpenAny(&second);
    EXPECT_EQ(second, first + 1);
    CloseIfOpen(r2, second);
    // The closed handle is unknown from now on.
    DWORD count = 0, flag = 0;
    AuthInfo* list = nullptr;
    EXPECT_EQ(m_api->GetPolicy(first, &count, &list, &flag), ZEB_ERROR_INVALID_HANDLE);
}

TEST_F(EntryPoints, CloseAndBufferFreeIgnoreWhatTheyDoNotKnow) {
    m_api->Close(0);
    m_api->Close(0xFFFFFFFFu);
    m_api->BufferFree(nullptr);
    EXPECT_TRUE(Traced("Close IN"));
    EXPECT_TRUE(Traced("Close OUT"));
    EXPECT_TRUE(Traced("BufferFree OUT"));
}

TEST_F(EntryPoints, GetPolicyChecksOutputsThenHandle) {
    DWORD count = 7, flag = 7;
    AuthInfo* list = reinterpret_cast<AuthInfo*>(0x1234);
    EXPECT_EQ(m_api->GetPolicy(0xFFFFFFF0u, nullptr, &list, &flag), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(m_api->GetPolicy(0xFFFFFFF0u, &count, nullptr, &flag), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(m_api->GetPolicy(0xFFFFFFF0u, &count, &list, nullptr), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_TRUE(Traced("GetPolicy PARAMETER ZEB_ERROR = d5000057"));
    EXPECT_EQ(m_api->GetPolicy(0xFFFFFFF0u, &count, &list, &flag), ZEB_ERROR_INVALID_HANDLE);
    EXPECT_TRUE(Traced("GetPolicy CDeviceList::GetCDevice ZEB_ERROR = d5000006"));
}

AuthInfo Info(const wchar_t* type) {
    AuthInfo info = {};
    wcscpy(info.Info, L"policy entry");
    wcsncpy(info.AuthType, type, 63);
    return info;
}

struct AuthCase {
    const char* name;
    const wchar_t* type;
    DWORD flags;
    bool credentials;  // pass the credential record at all
    bool user, password, domain;
    bool output, outputSize;
    DWORD expected;
};

// Each row either fails the argument checks or passes them and meets the
// unknown handle.
constexpr DWORD kParam = ZEB_ERROR_INVALID_PARAMETER;
constexpr DWORD kHandle = ZEB_ERROR_INVALID_HANDLE;
const AuthCase kAuthCases[] = {
    {"ntlm lower case", L"ntlm", 0, true, true, true, true, true, true, kParam},
    {"NTLM logged-on user", L"NTLM", 0, false, false, false, false, false, false, kHandle},
    {"NTLM explicit, no record", L"NTLM", 1, false, false, false, false, true, true, kParam},
    {"NTLM explicit, no domain", L"NTLM", 1, true, true, true, false, true, true, kParam},
    {"NTLM explicit, no password", L"NTLM", 1, true, true, false, true, true, true, kParam},
    {"NTLM explicit, all three", L"NTLM", 1, true, true, true, true, false, false, kHandle},
    {"SDL no record", L"SDL", 0, false, false, false, false, true, true, kParam},
    {"SDL no user", L"SDL", 0, true, false, true, true, true, true, kParam},
    {"SDL no password", L"SDL", 0, true, true, false, true, true, true, kParam},
    {"SDL digest needs no password", L"SDL", 2, true, true, false, false, false, false, kHandle},
    {"SDL flag 4, no size", L"SDL", 4, true, true, true, true, true, false, kParam},
    {"SDL flag 4, no output", L"SDL", 4, true, true, true, true, false, true, kParam},
    {"SDL flag 4, both outputs", L"SDL", 4, true, true, true, false, true, true, kHandle},
    {"SDL2 no password", L"SDL2", 0, true, true, false, true, true, true, kParam},
    {"SDL2 flag 6, no password", L"SDL2", 6, true, true, false, true, true, true, kHandle},
    {"Basic no domain", L"Basic", 0, true, true, true, false, true, true, kParam},
    {"Basic all three", L"Basic", 0, true, true, true, true, false, false, kHandle},
    {"Basic2 no user", L"Basic2", 0, true, false, true, true, true, true, kParam},
    {"Basic2 all three", L"Basic2", 0, true, true, true, true, true, true, kHandle},
    {"unknown type", L"Kerberos", 0, true, true, true, true, true, true, kParam},
    {"empty type", L"", 0, true, true, true, true, true, true, kParam},
    {"prefix of a type", L"SD", 0, true, true, true, true, true, true, kParam},
    {"type with a blank", L"Basic ", 0, true, true, true, true, true, true, kParam},
};

TEST_F(EntryPoints, AuthenticationChecksInTheirOrder) {
    wchar_t user[] = L"user", password[] = L"secret", domain[] = L"DOMAIN";
    for (const AuthCase& c : kAuthCases) {
        AuthInfo info = Info(c.type);
        AuthCredential credential = {c.user ? user : nullptr, c.password ? password : nullptr,
                                     c.domain ? domain : nullptr};
        BYTE* output = nullptr;
        DWORD outputSize = 0;
        DWORD result = m_api->Authentication(0xFFFFFFF0u, c.flags, &info, c.credentials ? &credential : nullptr,
                                             c.output ? &output : nullptr, c.outputSize ? &outputSize : nullptr);
        EXPECT_EQ(result, c.expected) << c.name;
        EXPECT_EQ(output, nullptr) << c.name;
    }
    EXPECT_TRUE(Traced("Authentication ERROR_INVALID_PARAMETER ZEB_ERROR = d5000057"));
    EXPECT_TRUE(Traced("Authentication CDeviceList::GetCDevice ZEB_ERROR = d5000006"));
}

TEST_F(EntryPoints, AuthenticationRejectsANullRecordAndAnUnterminatedType) {
    EXPECT_EQ(m_api->Authentication(1, 0, nullptr, nullptr, nullptr, nullptr), ZEB_ERROR_INVALID_PARAMETER);
    AuthInfo info = {};
    std::fill(std::begin(info.AuthType), std::end(info.AuthType), L'B');
    info.bEnableCredentialCache = 0x00410041;  // no terminator in reach either
    AuthCredential credential = {};
    EXPECT_EQ(m_api->Authentication(1, 0, &info, &credential, nullptr, nullptr), ZEB_ERROR_INVALID_PARAMETER);
}

TEST_F(EntryPoints, GetActChecksEveryPointerThenTheHandle) {
    BYTE *key = nullptr, *act = nullptr, *signature = nullptr;
    DWORD keySize = 0, actSize = 0, signatureSize = 0;
    const DWORD h = 0xFFFFFFF0u;
    EXPECT_EQ(m_api->GetACT(h, nullptr, 0, &key, &keySize, &act, &actSize, &signature, &signatureSize), kParam);
    EXPECT_EQ(m_api->GetACT(h, L"s", 0, nullptr, &keySize, &act, &actSize, &signature, &signatureSize), kParam);
    EXPECT_EQ(m_api->GetACT(h, L"s", 0, &key, nullptr, &act, &actSize, &signature, &signatureSize), kParam);
    EXPECT_EQ(m_api->GetACT(h, L"s", 0, &key, &keySize, nullptr, &actSize, &signature, &signatureSize), kParam);
    EXPECT_EQ(m_api->GetACT(h, L"s", 0, &key, &keySize, &act, nullptr, &signature, &signatureSize), kParam);
    EXPECT_EQ(m_api->GetACT(h, L"s", 0, &key, &keySize, &act, &actSize, nullptr, &signatureSize), kParam);
    EXPECT_EQ(m_api->GetACT(h, L"s", 0, &key, &keySize, &act, &actSize, &signature, nullptr), kParam);
    EXPECT_TRUE(Traced("GetACT ERROR_INVALID_PARAMETER ZEB_ERROR = d5000057"));
    EXPECT_EQ(m_api->GetACT(h, L"s", 0, &key, &keySize, &act, &actSize, &signature, &signatureSize), kHandle);
    EXPECT_TRUE(Traced("GetACT CDeviceList::GetCDevice ZEB_ERROR = d5000006"));
    // An empty subject is not a null one: it meets the handle check.
    EXPECT_EQ(m_api->GetACT(h, L"", 0, &key, &keySize, &act, &actSize, &signature, &signatureSize), kHandle);
    EXPECT_EQ(key, nullptr);
    EXPECT_EQ(act, nullptr);
    EXPECT_EQ(signature, nullptr);
}

TEST_F(EntryPoints, UnknownHandlesAnswerInvalidHandle) {
    DWORD count = 0, flag = 0;
    AuthInfo* list = nullptr;
    EXPECT_EQ(m_api->GetPolicy(0, &count, &list, &flag), kHandle);
    AuthInfo info = Info(L"NTLM");
    EXPECT_EQ(m_api->Authentication(0, 0, &info, nullptr, nullptr, nullptr), kHandle);
    BYTE *key = nullptr, *act = nullptr, *signature = nullptr;
    DWORD keySize = 0, actSize = 0, signatureSize = 0;
    EXPECT_EQ(m_api->GetACT(0, L"s", 0, &key, &keySize, &act, &actSize, &signature, &signatureSize), kHandle);
}

struct OpenWork {
    const ZEB_INTERFACE* api;
    std::vector<DWORD> handles;
    std::vector<DWORD> results;
};

DWORD WINAPI OpenAndClose(LPVOID parameter) {
    auto* work = static_cast<OpenWork*>(parameter);
    for (int i = 0; i < 25; ++i) {
        DWORD handle = 0;
        DWORD result = work->api->Open(L"127.0.0.1", &handle, 0);
        work->handles.push_back(handle);
        work->results.push_back(result);
        if (!ZEB_FAILED(result)) work->api->Close(handle);
    }
    return 0;
}

TEST_F(EntryPoints, ConcurrentOpensGetUniqueHandles) {
    InitializeWith("DebugLevel=0\n");
    OpenWork work[4];
    HANDLE threads[4];
    for (int i = 0; i < 4; ++i) {
        work[i].api = m_api;
        threads[i] = CreateThread(nullptr, 0, OpenAndClose, &work[i], 0, nullptr);
        ASSERT_NE(threads[i], nullptr);
    }
    ASSERT_EQ(WaitForMultipleObjects(4, threads, TRUE, 100000), WAIT_OBJECT_0);
    for (HANDLE thread : threads) CloseHandle(thread);
    std::set<DWORD> all;
    for (const OpenWork& w : work) {
        ASSERT_EQ(w.handles.size(), 25u);
        for (DWORD h : w.handles) EXPECT_TRUE(all.insert(h).second) << "handle " << h << " given twice";
        // Within one thread the numbers only grow.
        EXPECT_TRUE(std::is_sorted(w.handles.begin(), w.handles.end()));
    }
    EXPECT_EQ(all.size(), 100u);
    EXPECT_EQ(*all.rbegin() - *all.begin(), 99u);  // no gaps either
}

}  // namespace
