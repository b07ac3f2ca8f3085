// The whole host flow through the interface table only, as a driver uses it:
// ZEB_GetInterface -> Initialize -> Open -> GetPolicy -> Authentication ->
// GetACT -> BufferFree -> Close, against the reference server.
#include <gtest/gtest.h>
#include <windows.h>
#include <wincrypt.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#define QUORVANTIS_NO_PROTOTYPES
#include "Quorvantis.h"
#include "support/Json.h"
#include "support/HostTable.h"
#include "support/RefServer.h"
#include "support/TestSupport.h"

namespace {

using Bytes = std::vector<BYTE>;

const char* kBasic2Config =
    R"({"users": {"alice": {"password": "pw", "domain": "LAB"}, "bob": {"password": "secret", "domain": "LAB"}},)"
    R"( "policy": [{"Info": "i", "AuthType": "Basic2", "EnableCredentialCache": "true"}]})";
const char* kBasicConfig =
    R"({"users": {"alice": {"password": "pw", "domain": "LAB"}},)"
    R"( "policy": [{"Info": "basic login", "AuthType": "Basic", "EnableCredentialCache": "false"}]})";
const char* kDrvCommPath = "/zeb/Drv-Comm.actv";
const char* kPolicyPath = "/wls/WLSPolicyService.actv";

Bytes Sha1(const Bytes& data) {
    Bytes digest(20);
    HCRYPTPROV prov = 0;
    HCRYPTHASH hash = 0;
    DWORD size = 20;
    if (CryptAcquireContextW(&prov, nullptr, nullptr, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT)) {
        if (CryptCreateHash(prov, CALG_SHA1, 0, 0, &hash)) {
            if (!CryptHashData(hash, data.data(), static_cast<DWORD>(data.size()), 0) ||
                !CryptGetHashParam(hash, HP_HASHVAL, digest.data(), &size, 0))
                digest.clear();
            CryptDestroyHash(hash);
        } else {
            digest.clear();
        }
        CryptReleaseContext(prov, 0);
    } else {
        digest.clear();
    }
    return digest;
}

// RFC 2104 over CryptoAPI's SHA-1.
Bytes HmacSha1(Bytes key, const Bytes& data) {
    const size_t block = 64;
    if (key.size() > block) key = Sha1(key);
    key.resize(block, 0);
    Bytes inner(block), outer(block);
    for (size_t i = 0; i < block; ++i) {
        inner[i] = key[i] ^ 0x36;
        outer[i] = key[i] ^ 0x5c;
    }
    inner.insert(inner.end(), data.begin(), data.end());
    Bytes innerDigest = Sha1(inner);
    outer.insert(outer.end(), innerDigest.begin(), innerDigest.end());
    return Sha1(outer);
}

Bytes FromBase64(const std::string& text) {
    DWORD size = 0;
    if (!CryptStringToBinaryA(text.c_str(), 0, CRYPT_STRING_BASE64, nullptr, &size, nullptr, nullptr)) return {};
    Bytes out(size);
    if (!CryptStringToBinaryA(text.c_str(), 0, CRYPT_STRING_BASE64, out.data(), &size, nullptr, nullptr)) return {};
    out.resize(size);
    return out;
}

qvtest::JsonValue State(qvtest::RefServerInstance& srv, const std::string& field) {
    qvtest::JsonValue value;
    qvtest::ParseJson(srv.StateJson(field), &value);
    return value;
}

using qvtest::HostTable;

using qvtest::ActResult;

class FlowTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(m_host.zeb, nullptr); }

    // Initializes the add-in for `srv` with the trace log in the test's folder.
    void Initialize(qvtest::RefServerInstance& srv, const std::string& extra = "") {
        ASSERT_TRUE(srv.Ok());
        ASSERT_EQ(qvtest::InitializeWithIni(zeb(), m_dir,
                                            qvtest::ServerKeys(srv) + "Timeout=10000\r\n" +
                                                qvtest::TraceKeys(m_dir.File(L"trace.log")) + extra),
                  0u);
    }

    const ZEB_INTERFACE* zeb() { return m_host.zeb; }
    std::string Log() { return qvtest::ReadFileBytes(m_dir.File(L"trace.log")); }

    DWORD Open(DWORD* handle, DWORD flags = 0) { return zeb()->Open(L"127.0.0.1", handle, flags); }

    DWORD GetPolicy(DWORD handle, std::vector<AuthInfo>* entries, DWORD* sslFlag) {
        return qvtest::CallGetPolicy(zeb(), handle, entries, sslFlag);
    }

    DWORD Login(DWORD handle, const AuthInfo& info, const wchar_t* user, const wchar_t* password,
                const wchar_t* domain = L"LAB") {
        std::vector<BYTE> output;
        const DWORD result = qvtest::CallAuthentication(zeb(), handle, 0, info, user, password, domain, &output);
        EXPECT_TRUE(output.empty());  // no digest asked for
        return result;
    }

    ActResult GetACT(DWORD handle, DWORD actFlags, const wchar_t* subject = L"printer-01") {
        return qvtest::CallGetACT(zeb(), handle, subject, actFlags);
    }

    // Open -> GetPolicy -> Authentication with the policy's first entry.
    void OpenAndLogin(qvtest::RefServerInstance& /*srv*/, DWORD* handle, const wchar_t* expectedType,
                      DWORD openFlags = 0) {
        ASSERT_EQ(Open(handle, openFlags), 0u);
        std::vector<AuthInfo> entries;
        DWORD ssl = 0;
        ASSERT_EQ(GetPolicy(*handle, &entries, &ssl), 0u);
        ASSERT_EQ(entries.size(), 1u);
        ASSERT_STREQ(entries[0].AuthType, expectedType);
        ASSERT_EQ(Login(*handle, entries[0], L"alice", L"pw"), 0u);
    }

    static std::vector<qvtest::RecordedRequest> ActRequests(qvtest::RefServerInstance& srv) {
        std::vector<qvtest::RecordedRequest> out;
        for (auto& r : srv.Requests())
            if (r.path == kDrvCommPath && r.body.find("GetACTRequest") != std::string::npos) out.push_back(r);
        return out;
    }

    static std::string Between(const std::string& text, const std::string& open, const std::string& close) {
        size_t begin = text.find(open);
        if (begin == std::string::npos) return "<none>";
        begin += open.size();
        size_t end = text.find(close, begin);
        return end == std::string::npos ? "<none>" : text.substr(begin, end - begin);
    }

    qvtest::TempDir m_dir;
    HostTable m_host;
};

Bytes ActBytes(qvtest::RefServerInstance& srv) { return FromBase64(State(srv, "act_bytes").AsString()); }

}  // namespace

TEST_F(FlowTest, Basic2OverHttp) {
    qvtest::RefServerInstance srv(kBasic2Config);
    ASSERT_NO_FATAL_FAILURE(Initialize(srv));
    DWORD handle = 0;
    ASSERT_EQ(Open(&handle), 0u);
    EXPECT_NE(handle, 0u);

    std::vector<AuthInfo> entries;
    DWORD ssl = 0;
    ASSERT_EQ(GetPolicy(handle, &entries, &ssl), 0u);
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_STREQ(entries[0].Info, L"i");
    EXPECT_STREQ(entries[0].AuthType, L"Basic2");
    EXPECT_EQ(entries[0].bEnableCredentialCache, 1u);
    EXPECT_EQ(ssl, 0u);

    ASSERT_EQ(Login(handle, entries[0], L"alice", L"pw"), 0u);

    // The server holds no key for this login yet: the first GetACT sends one.
    ActResult first = GetACT(handle, 0);
    ASSERT_EQ(first.code, 0u);
    ASSERT_EQ(first.key.size(), 20u);
    EXPECT_EQ(first.act, ActBytes(srv));
    EXPECT_EQ(first.signature, HmacSha1(first.key, first.act));
    const qvtest::JsonValue keys = State(srv, "hmac_keys");
    ASSERT_EQ(keys.Size(), 1u);
    EXPECT_EQ(FromBase64(keys.members[0].second.AsString()), first.key);

    // Then the key is known: success at the first attempt, no new key.
    ActResult second = GetACT(handle, 0);
    ASSERT_EQ(second.code, 0u);
    EXPECT_TRUE(second.keyNull);
    EXPECT_TRUE(second.key.empty());
    EXPECT_EQ(second.act, ActBytes(srv));
    EXPECT_EQ(second.signature, HmacSha1(first.key, second.act));

    // Wire: GetACT without a key, GetPublicKey, GetACT with the encrypted key, GetACT without.
    std::vector<std::string> drv;
    for (auto& r : srv.Requests())
        if (r.path == kDrvCommPath) drv.push_back(r.body);
    ASSERT_EQ(drv.size(), 4u);
    EXPECT_NE(drv[0].find("<CipherData/>"), std::string::npos);
    EXPECT_NE(drv[1].find("GetPublicKeyRequest"), std::string::npos);
    EXPECT_NE(drv[2].find("<CipherData>"), std::string::npos);
    EXPECT_EQ(Between(drv[2], "<HMACAlgorithm>", "</HMACAlgorithm>"), "301");
    EXPECT_EQ(Between(drv[2], "<HMACKeyStrength>", "</HMACKeyStrength>"), "1");
    EXPECT_NE(drv[3].find("<CipherData/>"), std::string::npos);
    EXPECT_EQ(Between(drv[3], "<HMACAlgorithm>", "</HMACAlgorithm>"), "0");

    zeb()->Close(handle);
    const qvtest::JsonValue cancels = State(srv, "cancels");
    ASSERT_EQ(cancels.Size(), 1u);
    EXPECT_FALSE(State(srv, "assertions")[cancels[0].AsString()].IsNull());
    // The handle is gone.
    std::vector<AuthInfo> none;
    EXPECT_EQ(GetPolicy(handle, &none, &ssl), ZEB_ERROR_INVALID_HANDLE);
}

TEST_F(FlowTest, BasicOverHttp) {
    qvtest::RefServerInstance srv(kBasicConfig);
    ASSERT_NO_FATAL_FAILURE(Initialize(srv));
    DWORD handle = 0;
    ASSERT_EQ(Open(&handle), 0u);
    std::vector<AuthInfo> entries;
    DWORD ssl = 0;
    ASSERT_EQ(GetPolicy(handle, &entries, &ssl), 0u);
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_STREQ(entries[0].Info, L"basic login");
    EXPECT_STREQ(entries[0].AuthType, L"Basic");
    EXPECT_EQ(entries[0].bEnableCredentialCache, 0u);
    ASSERT_EQ(Login(handle, entries[0], L"alice", L"pw"), 0u);
    ActResult act = GetACT(handle, 0x3);
    ASSERT_EQ(act.code, 0u);
    ASSERT_EQ(act.key.size(), 20u);
    EXPECT_EQ(act.act, ActBytes(srv));
    EXPECT_EQ(act.signature, HmacSha1(act.key, act.act));
    zeb()->Close(handle);
    EXPECT_EQ(State(srv, "cancels").Size(), 1u);
}

TEST_F(FlowTest, Basic2AfterARedirectToHttps) {
    qvtest::RefServerInstance srv(kBasic2Config);
    ASSERT_NO_FATAL_FAILURE(Initialize(srv));
    ASSERT_TRUE(srv.AddFaults(R"({"path": ")" + std::string(kPolicyPath) + R"(", "location": "https://127.0.0.1:)" +
                              std::to_string(srv.HttpsPort()) + kPolicyPath + R"("})"));
    DWORD handle = 0;
    ASSERT_EQ(Open(&handle), 0u);
    std::vector<AuthInfo> entries;
    DWORD ssl = 0;
    ASSERT_EQ(GetPolicy(handle, &entries, &ssl), 0u);
    EXPECT_EQ(ssl, 1u);
    ASSERT_EQ(entries.size(), 1u);
    ASSERT_EQ(Login(handle, entries[0], L"alice", L"pw"), 0u);
    ActResult act = GetACT(handle, 0);
    ASSERT_EQ(act.code, 0u);
    EXPECT_EQ(act.signature, HmacSha1(act.key, act.act));
    zeb()->Close(handle);
    EXPECT_EQ(State(srv, "cancels").Size(), 1u);

    // The first request was plain and redirected; all later ones went secure.
    std::vector<qvtest::RecordedRequest> requests = srv.Requests();
    ASSERT_GE(requests.size(), 6u);
    EXPECT_FALSE(requests[0].tls);
    for (size_t i = 1; i < requests.size(); ++i) EXPECT_TRUE(requests[i].tls) << i << " " << requests[i].path;
    EXPECT_NE(requests[1].body.find("https://"), std::string::npos);
}

TEST_F(FlowTest, BasicAfterARedirectToHttps) {
    qvtest::RefServerInstance srv(kBasicConfig);
    ASSERT_NO_FATAL_FAILURE(Initialize(srv));
    ASSERT_TRUE(srv.AddFaults(R"({"path": ")" + std::string(kPolicyPath) + R"(", "location": "https://127.0.0.1:)" +
                              std::to_string(srv.HttpsPort()) + kPolicyPath + R"("})"));
    DWORD handle = 0;
    ASSERT_NO_FATAL_FAILURE(OpenAndLogin(srv, &handle, L"Basic"));
    ActResult act = GetACT(handle, 0);
    ASSERT_EQ(act.code, 0u);
    EXPECT_EQ(act.signature, HmacSha1(act.key, act.act));
    zeb()->Close(handle);
    for (auto& r : srv.Requests()) {
        if (r.path != kPolicyPath) {
            EXPECT_TRUE(r.tls) << r.path;
        }
    }
}

TEST_F(FlowTest, SslOpenReportsTheSslFlag) {
    qvtest::RefServerInstance srv(kBasic2Config);
    ASSERT_NO_FATAL_FAILURE(Initialize(srv));
    DWORD handle = 0;
    ASSERT_EQ(Open(&handle, ZEB_OPEN_FLAG_SSL), 0u);
    std::vector<AuthInfo> entries;
    DWORD ssl = 0;
    ASSERT_EQ(GetPolicy(handle, &entries, &ssl), 0u);
    EXPECT_EQ(ssl, 1u);
    zeb()->Close(handle);
    for (auto& r : srv.Requests()) EXPECT_TRUE(r.tls);
}

TEST_F(FlowTest, ActFlagsAsSeenOnTheWire) {
    qvtest::RefServerInstance srv(kBasic2Config);
    ASSERT_NO_FATAL_FAILURE(Initialize(srv));
    DWORD handle = 0;
    ASSERT_NO_FATAL_FAILURE(OpenAndLogin(srv, &handle, L"Basic2"));

    ASSERT_EQ(GetACT(handle, 0).code, 0u);  // key exchange: two GetACT requests
    std::vector<qvtest::RecordedRequest> acts = ActRequests(srv);
    ASSERT_EQ(acts.size(), 2u);
    for (auto& r : acts) EXPECT_EQ(Between(r.body, "<ACVArray>", "</ACVArray>"), "<ACVValue>0</ACVValue>");

    ASSERT_EQ(GetACT(handle, 0x3).code, 0u);
    acts = ActRequests(srv);
    ASSERT_EQ(acts.size(), 3u);
    EXPECT_EQ(Between(acts[2].body, "<ACVArray>", "</ACVArray>"),
              "<ACVValue>257</ACVValue><ACVValue>256</ACVValue>");

    ActResult none = GetACT(handle, 0x80000000);
    EXPECT_EQ(none.code, ZEB_ERROR_GENERAL_INVALID_INSTANCE);
    EXPECT_TRUE(none.keyNull && none.actNull && none.signatureNull);
    EXPECT_EQ(ActRequests(srv).size(), 3u);

    zeb()->Close(handle);
    std::string log = Log();
    EXPECT_NE(log.find("WSDrvCommClient::GetACT ConvertFlagToValue UnsupportedValues = -2147483648 ZEB_ERROR = d5010001"),
              std::string::npos);
}

TEST_F(FlowTest, UnsignedActGivesANullSignature) {
    qvtest::RefServerInstance srv(kBasic2Config);
    ASSERT_TRUE(srv.Configure(R"({"sign_act": false})"));
    ASSERT_NO_FATAL_FAILURE(Initialize(srv));
    DWORD handle = 0;
    ASSERT_NO_FATAL_FAILURE(OpenAndLogin(srv, &handle, L"Basic2"));
    ActResult first = GetACT(handle, 0);
    ASSERT_EQ(first.code, 0u);
    EXPECT_EQ(first.key.size(), 20u);
    EXPECT_EQ(first.act, ActBytes(srv));
    EXPECT_TRUE(first.signatureNull);
    EXPECT_TRUE(first.signature.empty());
    ActResult second = GetACT(handle, 0);
    ASSERT_EQ(second.code, 0u);
    EXPECT_TRUE(second.keyNull);
    EXPECT_TRUE(second.signatureNull);
    zeb()->Close(handle);
}

TEST_F(FlowTest, LoginFaults) {
    qvtest::RefServerInstance srv(kBasic2Config);
    ASSERT_NO_FATAL_FAILURE(Initialize(srv));
    DWORD handle = 0;
    ASSERT_EQ(Open(&handle), 0u);
    std::vector<AuthInfo> entries;
    DWORD ssl = 0;
    ASSERT_EQ(GetPolicy(handle, &entries, &ssl), 0u);
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(Login(handle, entries[0], L"alice", L"wrong"), ZEB_ERROR_FAULT_FAILED_AUTHENTICATION);
    EXPECT_EQ(Login(handle, entries[0], L"nobody", L"pw"), ZEB_ERROR_FAULT_FAILED_AUTHENTICATION);
    // Without a login the device service refuses the ACT, and nothing is to be cancelled.
    ActResult act = GetACT(handle, 0);
    EXPECT_TRUE(ZEB_FAILED(act.code));
    EXPECT_TRUE(act.keyNull && act.actNull && act.signatureNull);
    zeb()->Close(handle);
    EXPECT_EQ(State(srv, "cancels").Size(), 0u);
}

TEST_F(FlowTest, CloseWithoutLoginSendsNoCancel) {
    qvtest::RefServerInstance srv(kBasic2Config);
    ASSERT_NO_FATAL_FAILURE(Initialize(srv));
    DWORD handle = 0;
    ASSERT_EQ(Open(&handle), 0u);
    std::vector<AuthInfo> entries;
    DWORD ssl = 0;
    ASSERT_EQ(GetPolicy(handle, &entries, &ssl), 0u);
    zeb()->Close(handle);
    EXPECT_EQ(State(srv, "cancels").Size(), 0u);
    for (auto& r : srv.Requests()) EXPECT_EQ(r.path, kPolicyPath);
}

TEST_F(FlowTest, CloseCancelsExactlyOnce) {
    qvtest::RefServerInstance srv(kBasic2Config);
    ASSERT_NO_FATAL_FAILURE(Initialize(srv));
    DWORD handle = 0;
    ASSERT_NO_FATAL_FAILURE(OpenAndLogin(srv, &handle, L"Basic2"));
    zeb()->Close(handle);
    zeb()->Close(handle);  // unknown by now: ignored
    EXPECT_EQ(State(srv, "cancels").Size(), 1u);
    size_t cancelRequests = 0;
    for (auto& r : srv.Requests())
        if (r.body.find("/RST/Cancel") != std::string::npos) ++cancelRequests;
    EXPECT_EQ(cancelRequests, 1u);
}

TEST_F(FlowTest, HandlesGrowByOne) {
    qvtest::RefServerInstance srv(kBasic2Config);
    ASSERT_NO_FATAL_FAILURE(Initialize(srv));
    DWORD a = 0, b = 0;
    ASSERT_EQ(Open(&a), 0u);
    ASSERT_EQ(Open(&b), 0u);
    EXPECT_EQ(b, a + 1);
    zeb()->Close(a);
    zeb()->Close(b);
}

TEST_F(FlowTest, SeveralHostThreadsEachWithItsOwnSession) {
    qvtest::RefServerInstance srv(kBasic2Config);
    ASSERT_NO_FATAL_FAILURE(Initialize(srv));
    const int kThreads = 4;
    std::atomic<int> succeeded{0};
    std::vector<std::thread> threads;
    std::vector<std::string> failures(kThreads);
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            const ZEB_INTERFACE* z = zeb();
            std::string& failure = failures[i];
            DWORD handle = 0;
            DWORD result = z->Open(L"127.0.0.1", &handle, 0);
            if (result) { failure = "Open " + std::to_string(result); return; }
            DWORD count = 0, ssl = 0;
            AuthInfo* list = nullptr;
            result = z->GetPolicy(handle, &count, &list, &ssl);
            if (result || count != 1) { failure = "GetPolicy " + std::to_string(result); z->Close(handle); return; }
            std::wstring user = (i % 2) ? L"bob" : L"alice", password = (i % 2) ? L"secret" : L"pw", domain = L"LAB";
            AuthCredential credential = {&user[0], &password[0], &domain[0]};
            BYTE* output = nullptr;
            DWORD outputSize = 0;
            result = z->Authentication(handle, 0, &list[0], &credential, &output, &outputSize);
            z->BufferFree(list);
            if (result) { failure = "Authentication " + std::to_string(result); z->Close(handle); return; }
            Bytes key;
            for (int round = 0; round < 2; ++round) {
                BYTE *k = nullptr, *act = nullptr, *sig = nullptr;
                DWORD kSize = 0, actSize = 0, sigSize = 0;
                result = z->GetACT(handle, L"printer", 0, &k, &kSize, &act, &actSize, &sig, &sigSize);
                if (k) key.assign(k, k + kSize);
                bool verified = act && sig && Bytes(sig, sig + sigSize) == HmacSha1(key, Bytes(act, act + actSize));
                z->BufferFree(k);
                z->BufferFree(act);
                z->BufferFree(sig);
                if (result || !verified) {
                    failure = "GetACT round " + std::to_string(round) + " " + std::to_string(result);
                    z->Close(handle);
                    return;
                }
            }
            z->Close(handle);
            ++succeeded;
        });
    }
    for (auto& t : threads) t.join();
    for (int i = 0; i < kThreads; ++i) EXPECT_EQ(failures[i], "") << "thread " << i;
    EXPECT_EQ(succeeded.load(), kThreads);
    EXPECT_EQ(State(srv, "cancels").Size(), static_cast<size_t>(kThreads));
    EXPECT_EQ(State(srv, "hmac_keys").Size(), static_cast<size_t>(kThreads));
}

TEST_F(FlowTest, LoginFaultsFromTheServer) {
    qvtest::RefServerInstance srv(kBasic2Config);
    ASSERT_NO_FATAL_FAILURE(Initialize(srv));
    DWORD handle = 0;
    ASSERT_EQ(Open(&handle), 0u);
    std::vector<AuthInfo> entries;
    DWORD ssl = 0;
    ASSERT_EQ(GetPolicy(handle, &entries, &ssl), 0u);
    ASSERT_EQ(entries.size(), 1u);
    const struct {
        const char* subcode;
        DWORD code;
    } rows[] = {
        {"wls:FailedAuthentication", ZEB_ERROR_FAULT_FAILED_AUTHENTICATION},
        {"wls:NoSuchAccount", ZEB_ERROR_FAULT_NO_SUCH_ACCOUNT},
        {"wls:MaxSession", ZEB_ERROR_FAULT_MAX_SESSION},
        {"wls:LockOutError", ZEB_ERROR_FAULT_LOCK_OUT_ERROR},
    };
    for (const auto& row : rows) {
        std::string fault = qvtest::RenderAnswer(
            "soap_fault", R"({"code": "soap:Sender", "subcode": ")" + std::string(row.subcode) + R"("})");
        ASSERT_TRUE(srv.AddFaults(R"({"path": "/wls/STSServer.actv", "status": 500, "body": )" +
                                  qvtest::JsonQuote(fault) + "}"));
        EXPECT_EQ(Login(handle, entries[0], L"alice", L"pw"), row.code) << row.subcode;
    }
    // None of them left a token behind; a real login then works and is cancelled once.
    ASSERT_EQ(Login(handle, entries[0], L"alice", L"pw"), 0u);
    zeb()->Close(handle);
    EXPECT_EQ(State(srv, "cancels").Size(), 1u);
}

TEST_F(FlowTest, MtomActExchange) {
    qvtest::RefServerInstance srv(kBasic2Config);
    ASSERT_NO_FATAL_FAILURE(Initialize(srv, "EnableMTOM=1\r\n"));
    DWORD handle = 0;
    ASSERT_NO_FATAL_FAILURE(OpenAndLogin(srv, &handle, L"Basic2"));
    ActResult act = GetACT(handle, 0);
    ASSERT_EQ(act.code, 0u);
    EXPECT_EQ(act.act, ActBytes(srv));
    EXPECT_EQ(act.signature, HmacSha1(act.key, act.act));
    zeb()->Close(handle);
    std::vector<qvtest::RecordedRequest> acts = ActRequests(srv);
    ASSERT_EQ(acts.size(), 2u);
    for (auto& r : acts) {
        EXPECT_NE(r.Header("Content-Type").find("multipart/related"), std::string::npos) << r.Header("Content-Type");
        EXPECT_NE(r.Header("Content-Type").find("01234567890123456789"), std::string::npos);
    }
    // Only GetACT goes as MTOM; the public key is fetched plainly.
    for (auto& r : srv.Requests()) {
        if (r.body.find("GetPublicKeyRequest") != std::string::npos) {
            EXPECT_EQ(r.Header("Content-Type").find("multipart/related"), std::string::npos);
        }
    }
}
