// A hostile or broken server, seen through the interface table only: refused
// and reset connections, slow and stalled answers, huge answers, bad XML,
// DTDs, Base64 garbage, SOAP faults with parts missing and redirect games.
// Each case checks the result code and the trace line of its path, then
// shows that the same session still works once the server behaves again.
#include <gtest/gtest.h>
#include <windows.h>

#include <memory>
#include <string>
#include <vector>

#define QUORVANTIS_NO_PROTOTYPES
#include "Quorvantis.h"
#include "support/Json.h"
#include "support/HostTable.h"
#include "support/RefServer.h"
#include "support/TestSupport.h"

namespace {

using Bytes = std::vector<BYTE>;

const char* kConfig =
    R"({"users": {"alice": {"password": "pw", "domain": "LAB"}},)"
    R"( "policy": [{"Info": "i", "AuthType": "Basic2", "EnableCredentialCache": "true"}]})";
const char* kPolicyPath = "/wls/WLSPolicyService.actv";
const char* kStsPath = "/wls/STSServer.actv";
const char* kDrvCommPath = "/zeb/Drv-Comm.actv";
const char* kZebNamespace = "urn:orvel:zeb:drvcomm";
// Generous for answers that come, so that a loaded machine never turns them
// into time-outs; the cases about time-outs set a short one of their own.
const int kTimeoutMs = 10000;
// Short enough that a stalled answer costs about a second per attempt.
const int kShortTimeoutMs = 1000;

std::string ToBase64(const std::string& bytes) {
    static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    size_t i = 0;
    for (; i + 2 < bytes.size(); i += 3) {
        unsigned v = (static_cast<unsigned char>(bytes[i]) << 16) | (static_cast<unsigned char>(bytes[i + 1]) << 8) |
                     static_cast<unsigned char>(bytes[i + 2]);
        for (int k = 3; k >= 0; --k) out += kAlphabet[(v >> (6 * k)) & 63];
    }
    if (i < bytes.size()) {
        unsigned v = static_cast<unsigned char>(bytes[i]) << 16;
        if (i + 1 < bytes.size()) v |= static_cast<unsigned char>(bytes[i + 1]) << 8;
        out += kAlphabet[(v >> 18) & 63];
        out += kAlphabet[(v >> 12) & 63];
        out += i + 1 < bytes.size() ? kAlphabet[(v >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

std::string Hex8(DWORD value) {
    char text[16];
    snprintf(text, sizeof(text), "%08x", static_cast<unsigned>(value));
    return text;
}

std::string Replace(std::string text, const std::string& from, const std::string& to) {
    size_t at = text.find(from);
    if (at != std::string::npos) text.replace(at, from.size(), to);
    return text;
}

using qvtest::HostTable;

using qvtest::ActResult;

class HostileServerTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(m_host.zeb, nullptr); }

    void TearDown() override {
        if (m_handle) zeb()->Close(m_handle);
    }

    // A server of the test's own, the add-in initialised for it with the
    // given time-out and one retry, and a session opened on it.
    void Start(int debugLevel = 5, int timeoutMs = kTimeoutMs) {
        m_srv.reset(new qvtest::RefServerInstance(kConfig));
        ASSERT_TRUE(m_srv->Ok());
        ASSERT_EQ(qvtest::InitializeWithIni(zeb(), m_dir,
                                            qvtest::ServerKeys(*m_srv) + "Timeout=" + std::to_string(timeoutMs) +
                                                "\r\nRetryCount=1\r\n" +
                                                qvtest::TraceKeys(m_dir.File(L"trace.log"), debugLevel)),
                  0u);
        ASSERT_EQ(zeb()->Open(L"127.0.0.1", &m_handle, 0), 0u);
    }

    // Start, then log in with Basic2 so that device calls can be made.
    void StartLoggedIn() {
        ASSERT_NO_FATAL_FAILURE(Start());
        std::vector<AuthInfo> entries;
        ASSERT_EQ(GetPolicy(&entries), 0u);
        ASSERT_EQ(entries.size(), 1u);
        ASSERT_EQ(Login(entries[0]), 0u);
    }

    const ZEB_INTERFACE* zeb() { return m_host.zeb; }
    qvtest::RefServerInstance& srv() { return *m_srv; }
    std::string Log() { return qvtest::ReadFileBytes(m_dir.File(L"trace.log")); }
    bool Logged(const std::string& text) { return Log().find(text) != std::string::npos; }
    // "<line> ZEB_ERROR = <code>" as the trace writes a failure.
    bool LoggedFailure(const std::string& line, DWORD code) { return Logged(line + " ZEB_ERROR = " + Hex8(code)); }

    // With no list the count must be 0.
    DWORD GetPolicy(std::vector<AuthInfo>* entries, DWORD* sslFlag = nullptr) {
        DWORD count = 0;
        const DWORD result = qvtest::CallGetPolicy(zeb(), m_handle, entries, sslFlag, &count);
        if (entries->empty()) EXPECT_EQ(count, 0u);
        return result;
    }

    DWORD Login(const AuthInfo& info, const wchar_t* user = L"alice", const wchar_t* password = L"pw",
                DWORD flags = 0) {
        return qvtest::CallAuthentication(zeb(), m_handle, flags, info, user, password, L"LAB");
    }

    static AuthInfo Mechanism(const wchar_t* type) {
        AuthInfo info = {};
        wcscpy(info.Info, L"i");
        wcscpy(info.AuthType, type);
        return info;
    }

    ActResult GetACT() {
        return qvtest::CallGetACT(zeb(), m_handle, L"printer-01", 0);
    }

    // A failed GetACT hands nothing out.
    static void ExpectNothingHandedOut(const ActResult& r) {
        EXPECT_TRUE(r.keyNull && r.actNull && r.signatureNull);
    }

    // One rule: `rule` is the JSON object's members after the opening brace.
    void Fault(const std::string& members) { ASSERT_TRUE(srv().AddFaults("{" + members + "}")); }
    // Answers the next request on `path` (whose body contains `contains`,
    // when given) with `body`.
    void Answer(const char* path, const std::string& body, int status = 200, const std::string& contains = "",
                const std::string& more = "") {
        std::string rule = R"("path": ")" + std::string(path) + R"(", "status": )" + std::to_string(status) +
                           R"(, "body": )" + qvtest::JsonQuote(body);
        if (!contains.empty()) rule += R"(, "contains": )" + qvtest::JsonQuote(contains);
        Fault(rule + more);
    }
    void AnswerAct(const std::string& body, int status = 200) { Answer(kDrvCommPath, body, status, "GetACTRequest"); }

    static std::string PolicyAnswer(const std::string& info = "i") {
        return qvtest::RenderAnswer("get_policy_response", R"({"auth_infos": [{"Info": )" + qvtest::JsonQuote(info) +
                                                               R"(, "AuthType": "Basic2", "EnableCredentialCache": "true"}]})");
    }
    static std::string ActAnswer(const std::string& act, const std::string& signature) {
        return qvtest::RenderAnswer("get_act_response",
                                    R"({"act": )" + qvtest::JsonQuote(act) + R"(, "signature": )" + qvtest::JsonQuote(signature) + "}");
    }
    static std::string DeviceFault(const std::string& args) { return qvtest::RenderAnswer("soap_fault", args); }

    // The server behaves again: the same session gets its policy.
    void ExpectPolicyWorks() {
        ASSERT_TRUE(srv().ClearFaults());
        std::vector<AuthInfo> entries;
        EXPECT_EQ(GetPolicy(&entries), 0u);
        ASSERT_EQ(entries.size(), 1u);
        EXPECT_STREQ(entries[0].AuthType, L"Basic2");
    }
    // ... and, logged in, gets an ACT.
    void ExpectActWorks() {
        ASSERT_TRUE(srv().ClearFaults());
        ActResult r = GetACT();
        EXPECT_EQ(r.code, 0u);
        EXPECT_FALSE(r.actNull);
        EXPECT_FALSE(r.signatureNull);
    }

    size_t RequestsOn(const char* path) {
        size_t n = 0;
        for (auto& r : srv().Requests())
            if (r.path == path) ++n;
        return n;
    }

    qvtest::TempDir m_dir;
    HostTable m_host;
    std::unique_ptr<qvtest::RefServerInstance> m_srv;
    DWORD m_handle = 0;
};

}  // namespace

// ---------------------------------------------------------------------------
// Connections

TEST_F(HostileServerTest, ConnectionRefused) {
    ASSERT_NO_FATAL_FAILURE(Start());
    ASSERT_TRUE(srv().Configure(R"({"listening": {"http": false}})"));
    std::vector<AuthInfo> entries;
    EXPECT_EQ(GetPolicy(&entries), ZEB_ERROR_WINHTTP_CANNOT_CONNECT);
    EXPECT_TRUE(LoggedFailure("CWinHttp::Request WinHttpSendRequest Error = 00002efd,", ZEB_ERROR_WINHTTP_CANNOT_CONNECT));
    // Not a time-out: one attempt only, whatever RetryCount says.
    EXPECT_EQ(Log().find("ZEB_ERROR_WINHTTP_TIMEOUT"), std::string::npos);
    ASSERT_TRUE(srv().Configure(R"({"listening": {"http": true}})"));
    ExpectPolicyWorks();
}

// How a connection reset shows: Windows reports 12030. Wine's WinHTTP reports
// WSAECONNRESET (10054, unknown to the mapping) or, when it takes the reset for
// an end of stream, 12152 before the headers.
struct ResetReport {
    DWORD code;
    const char* line;
};
const ResetReport kResetReports[] = {
    {ZEB_ERROR_WINHTTP_CONNECTION_ERROR, "Error = 00002f0e, ZEB_ERROR = d502000e"},
    {ZEB_ERROR_WINHTTP_UNKNOWN, "Error = 00002746, ZEB_ERROR = d502ffff"},
    {ZEB_ERROR_WINHTTP_INVALID_SERVER_RESPONSE, "Error = 00002f78, ZEB_ERROR = d5020012"},
};

TEST_F(HostileServerTest, ResetBeforeTheHeaders) {
    ASSERT_NO_FATAL_FAILURE(Start());
    Fault(R"("path": ")" + std::string(kPolicyPath) + R"(", "reset": true)");
    std::vector<AuthInfo> entries;
    DWORD result = GetPolicy(&entries);
    EXPECT_TRUE(entries.empty());
    bool reported = false;
    for (const ResetReport& report : kResetReports)
        if (result == report.code) reported = Logged("CWinHttp::Request WinHttpReceiveResponse " + std::string(report.line));
    EXPECT_TRUE(reported) << std::hex << result;
    EXPECT_EQ(RequestsOn(kPolicyPath), 1u);
    ExpectPolicyWorks();
}

TEST_F(HostileServerTest, ResetInTheMiddleOfTheBody) {
    ASSERT_NO_FATAL_FAILURE(Start());
    // The headers (about 150 bytes) and part of the body, then a reset.
    Answer(kPolicyPath, PolicyAnswer(std::string(20000, 'x')), 200, "", R"(, "close_after": 8000, "reset": true)");
    std::vector<AuthInfo> entries;
    DWORD result = GetPolicy(&entries);
    EXPECT_TRUE(entries.empty());
    if (result == 7) {
        // Wine's WinHTTP may also end the body at a reset as at a close: the cut XML then does not load.
        EXPECT_TRUE(Logged("loadXML failed."));
        EXPECT_TRUE(Logged("GetPolicyRequest::Deserialize GetAuthInfoList failed."));
    } else {
        // From the body read, or from the header wait when the reset overtakes the headers.
        bool reported = false;
        for (const ResetReport& report : kResetReports)
            if (result == report.code) reported = Logged(report.line);
        EXPECT_TRUE(reported) << std::hex << result;
    }
    ExpectPolicyWorks();
}

TEST_F(HostileServerTest, AnswerTrickledByteByByteWithinTheTimeOut) {
    ASSERT_NO_FATAL_FAILURE(Start(5, 2000));
    // The service's own answer, one byte per write, 1 ms apart: each gap is
    // far inside the time-out, the whole answer is not.
    Fault(R"("path": ")" + std::string(kPolicyPath) + R"(", "trickle_ms": 1)");
    std::vector<AuthInfo> entries;
    EXPECT_EQ(GetPolicy(&entries), 0u);
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_STREQ(entries[0].Info, L"i");
    EXPECT_STREQ(entries[0].AuthType, L"Basic2");
    EXPECT_EQ(Log().find("ZEB_ERROR_WINHTTP_TIMEOUT"), std::string::npos);
    ExpectPolicyWorks();
}

TEST_F(HostileServerTest, AnswerStallingPastTheTimeOutIsRetriedOnceThenFails) {
    ASSERT_NO_FATAL_FAILURE(Start(5, kShortTimeoutMs));
    // Headers and part of the body, then silence for longer than the time-out.
    Answer(kPolicyPath, PolicyAnswer(std::string(2000, 'x')), 200, "",
           R"(, "stall_after": 1000, "stall_ms": 5000, "times": 2)");
    std::vector<AuthInfo> entries;
    EXPECT_EQ(GetPolicy(&entries), ZEB_ERROR_WINHTTP_TIMEOUT);
    // Windows reports 12002 (00002ee2); Wine's WinHTTP reports a stalled body as WSAETIMEDOUT (0000271c).
    EXPECT_TRUE(Logged("CWinHttp::_SendRequest WinHttpQueryDataAvailable Error = ") ||
                Logged("CWinHttp::_SendRequest WinHttpReadData Error = "));
    EXPECT_TRUE(Logged(", ZEB_ERROR = d5020001"));
    EXPECT_TRUE(Logged("ZEB_ERROR_WINHTTP_TIMEOUT"));
    EXPECT_EQ(RequestsOn(kPolicyPath), 2u);  // RetryCount=1: two attempts
    ExpectPolicyWorks();
}

TEST_F(HostileServerTest, ServerSilentBeforeTheHeadersTimesOut) {
    ASSERT_NO_FATAL_FAILURE(Start(5, kShortTimeoutMs));
    Fault(R"("path": ")" + std::string(kPolicyPath) + R"(", "delay_ms": 5000, "times": 2)");
    std::vector<AuthInfo> entries;
    EXPECT_EQ(GetPolicy(&entries), ZEB_ERROR_WINHTTP_TIMEOUT);
    EXPECT_TRUE(Logged("CWinHttp::Request WinHttpReceiveResponse Error = "));
    EXPECT_TRUE(Logged(", ZEB_ERROR = d5020001"));
    EXPECT_EQ(RequestsOn(kPolicyPath), 2u);
    ExpectPolicyWorks();
}

TEST_F(HostileServerTest, TwentyMegabyteAnswer) {
    ASSERT_NO_FATAL_FAILURE(Start());
    // A policy whose Info is 20 MB long, made by the server from its size.
    Answer(kPolicyPath, PolicyAnswer("@FILL@"), 200, "", R"(, "fill": {"size": 20971520})");
    const SIZE_T before = qvtest::PrivateBytes();
    std::vector<AuthInfo> entries;
    EXPECT_EQ(GetPolicy(&entries), 0u);
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(std::wstring(entries[0].Info), std::wstring(63, L'A'));  // cut to the field
    EXPECT_STREQ(entries[0].AuthType, L"Basic2");
    EXPECT_TRUE(Logged("StringCchCopy failed."));
    // Nothing of the answer is kept once the call is over.
    EXPECT_LT(qvtest::PrivateBytes(), before + 32u * 1024 * 1024);
    ExpectPolicyWorks();
}

// ---------------------------------------------------------------------------
// XML

TEST_F(HostileServerTest, MalformedXml) {
    ASSERT_NO_FATAL_FAILURE(StartLoggedIn());
    const std::string broken = "<?xml version=\"1.0\"?><soap:Envelope><soap:Body></soap:Envelop>";
    // A policy that does not parse has no entries: the list read answers 7
    // ("XML status is invalid"), which is not a failure code.
    Answer(kPolicyPath, broken);
    std::vector<AuthInfo> entries;
    EXPECT_EQ(GetPolicy(&entries), 7u);
    EXPECT_TRUE(entries.empty());
    EXPECT_TRUE(Logged("XML load error. "));
    EXPECT_TRUE(Logged("loadXML failed."));
    EXPECT_TRUE(Logged("GetPolicyRequest::Deserialize GetAuthInfoList failed."));
    // An ACT answer that does not parse has no ACT to decode.
    AnswerAct(broken);
    ActResult r = GetACT();
    EXPECT_EQ(r.code, ZEB_ERROR_OUTOFMEMORY);
    ExpectNothingHandedOut(r);
    EXPECT_TRUE(LoggedFailure("GetACT Base64Decoding ppAct or ppSignature", ZEB_ERROR_OUTOFMEMORY));
    ExpectPolicyWorks();
    ExpectActWorks();
}

TEST_F(HostileServerTest, TruncatedXml) {
    ASSERT_NO_FATAL_FAILURE(StartLoggedIn());
    std::string whole = PolicyAnswer();
    Answer(kPolicyPath, whole.substr(0, whole.size() / 2));
    std::vector<AuthInfo> entries;
    EXPECT_EQ(GetPolicy(&entries), 7u);
    EXPECT_TRUE(Logged("loadXML failed."));
    std::string act = ActAnswer("QUNU", "U0lH");
    AnswerAct(act.substr(0, act.size() - 30));
    ActResult r = GetACT();
    EXPECT_EQ(r.code, ZEB_ERROR_OUTOFMEMORY);
    ExpectNothingHandedOut(r);
    ExpectPolicyWorks();
    ExpectActWorks();
}

TEST_F(HostileServerTest, Utf16AnswerIsNotReadAsText) {
    ASSERT_NO_FATAL_FAILURE(Start());
    // The body is read as UTF-8 text: UTF-16 bytes stop at their first zero byte.
    std::string text = Replace(PolicyAnswer(), "encoding=\"utf-8\"", "encoding=\"UTF-16\"");
    std::string bytes = "\xFF\xFE";
    for (char c : text) {
        bytes += c;
        bytes += '\0';
    }
    Fault(R"("path": ")" + std::string(kPolicyPath) + R"(", "status": 200, "body_b64": ")" + ToBase64(bytes) + "\"");
    std::vector<AuthInfo> entries;
    EXPECT_EQ(GetPolicy(&entries), 7u);
    EXPECT_TRUE(Logged("loadXML failed."));
    ExpectPolicyWorks();
}

TEST_F(HostileServerTest, Latin1DeclaredAnswer) {
    ASSERT_NO_FATAL_FAILURE(Start());
    // Declared ISO-8859-1, with one byte that is not UTF-8 (0xE9).
    std::string text = Replace(PolicyAnswer("caf@"), "encoding=\"utf-8\"", "encoding=\"ISO-8859-1\"");
    text = Replace(text, "caf@", "caf\xE9");
    Fault(R"("path": ")" + std::string(kPolicyPath) + R"(", "status": 200, "body_b64": ")" + ToBase64(text) + "\"");
    std::vector<AuthInfo> entries;
    DWORD result = GetPolicy(&entries);
    EXPECT_FALSE(ZEB_FAILED(result));
    if (result == 0) {
        // The body is read as UTF-8 whatever it declares: the Latin-1 byte is a replacement character.
        ASSERT_EQ(entries.size(), 1u);
        EXPECT_STREQ(entries[0].AuthType, L"Basic2");
        EXPECT_EQ(std::wstring(entries[0].Info), L"caf\xFFFD");
    } else {
        EXPECT_EQ(result, 7u);
        EXPECT_TRUE(Logged("loadXML failed."));
    }
    ExpectPolicyWorks();
}

TEST_F(HostileServerTest, AnswerWithADocumentTypeDeclaration) {
    ASSERT_NO_FATAL_FAILURE(StartLoggedIn());
    const std::string doctype = "<!DOCTYPE soap:Envelope [<!ENTITY t \"Basic2\">]>";
    std::string policy = Replace(PolicyAnswer(), "?>", "?>" + doctype);
    Answer(kPolicyPath, Replace(policy, ">Basic2<", ">&t;<"));
    std::vector<AuthInfo> entries;
    EXPECT_EQ(GetPolicy(&entries), 7u);
    EXPECT_TRUE(entries.empty());
    EXPECT_TRUE(Logged("loadXML failed."));
    AnswerAct(Replace(ActAnswer("QUNU", "U0lH"), "?>", "?>" + doctype));
    ActResult r = GetACT();
    EXPECT_EQ(r.code, ZEB_ERROR_OUTOFMEMORY);
    ExpectNothingHandedOut(r);
    ExpectPolicyWorks();
    ExpectActWorks();
}

TEST_F(HostileServerTest, EntityExpansionCannotGrowMemory) {
    ASSERT_NO_FATAL_FAILURE(StartLoggedIn());
    std::string declarations = "<!ENTITY a0 \"laugh laugh laugh laugh laugh laugh laugh laugh laugh laugh\">";
    for (int i = 1; i <= 9; ++i) {
        declarations += "<!ENTITY a" + std::to_string(i) + " \"";
        for (int j = 0; j < 10; ++j) declarations += "&a" + std::to_string(i - 1) + ";";
        declarations += "\">";
    }
    std::string act = Replace(ActAnswer("@ACT@", "U0lH"), "?>", "?><!DOCTYPE soap:Envelope [" + declarations + "]>");
    AnswerAct(Replace(act, "@ACT@", "&a9;"));
    const SIZE_T before = qvtest::PrivateBytes();
    ActResult r = GetACT();
    // Fully expanded, the ACT text would be 6 * 10^9 characters.
    EXPECT_LT(qvtest::PrivateBytes(), before + 64u * 1024 * 1024);
    EXPECT_EQ(r.code, ZEB_ERROR_OUTOFMEMORY);
    ExpectNothingHandedOut(r);
    EXPECT_TRUE(Logged("loadXML failed."));
    ExpectActWorks();
}

TEST_F(HostileServerTest, ThousandsOfAuthInfoEntries) {
    // Errors only: at the entry/exit level every entry costs several trace
    // lines, and this case is about the list, not the trace.
    ASSERT_NO_FATAL_FAILURE(Start(1));
    const int kEntries = 3000;
    std::string infos;
    for (int i = 0; i < kEntries; ++i) {
        if (i) infos += ", ";
        infos += R"({"Info": "entry )" + std::to_string(i) + R"(", "AuthType": "Basic2", "EnableCredentialCache": ")" +
                 (i % 2 ? "true" : "false") + "\"}";
    }
    Answer(kPolicyPath, qvtest::RenderAnswer("get_policy_response", R"({"auth_infos": [)" + infos + "]}"));
    std::vector<AuthInfo> entries;
    EXPECT_EQ(GetPolicy(&entries), 0u);
    ASSERT_EQ(entries.size(), static_cast<size_t>(kEntries));
    for (int i : {0, 1, 1234, kEntries - 1}) {
        EXPECT_EQ(std::wstring(entries[i].Info), L"entry " + std::to_wstring(i));
        EXPECT_EQ(entries[i].bEnableCredentialCache, static_cast<DWORD>(i % 2));
    }
    EXPECT_EQ(Log().find("ZEB_ERROR"), std::string::npos);  // no failure line
    ExpectPolicyWorks();
}

// ---------------------------------------------------------------------------
// Base64 fields

TEST_F(HostileServerTest, Base64GarbageInTheAct) {
    ASSERT_NO_FATAL_FAILURE(StartLoggedIn());
    AnswerAct(ActAnswer("%%%% ****", "U0lH"));
    ActResult r = GetACT();
    EXPECT_EQ(r.code, ZEB_ERROR_OUTOFMEMORY);
    ExpectNothingHandedOut(r);
    EXPECT_TRUE(LoggedFailure("GetACT Base64Decoding ppAct or ppSignature", ZEB_ERROR_OUTOFMEMORY));
    ExpectActWorks();
}

TEST_F(HostileServerTest, Base64GarbageInTheSignature) {
    ASSERT_NO_FATAL_FAILURE(StartLoggedIn());
    AnswerAct(ActAnswer("QUNU", "!!!!"));
    ActResult r = GetACT();
    EXPECT_EQ(r.code, ZEB_ERROR_OUTOFMEMORY);
    ExpectNothingHandedOut(r);
    EXPECT_TRUE(LoggedFailure("GetACT Base64Decoding ppAct or ppSignature", ZEB_ERROR_OUTOFMEMORY));
    ExpectActWorks();
}

TEST_F(HostileServerTest, Base64GarbageInThePublicKey) {
    ASSERT_NO_FATAL_FAILURE(StartLoggedIn());
    Answer(kDrvCommPath, qvtest::RenderAnswer("get_public_key_response", R"({"key": "#### ****", "length": "9"})"), 200,
           "GetPublicKeyRequest");
    ActResult r = GetACT();  // the server asks for a key, its public key is garbage
    EXPECT_EQ(r.code, ZEB_ERROR_OUTOFMEMORY);
    ExpectNothingHandedOut(r);
    EXPECT_TRUE(LoggedFailure("WSDrvCommClient::GetACT Base64Decoding pPublicKey", ZEB_ERROR_OUTOFMEMORY));
    ExpectActWorks();
}

TEST_F(HostileServerTest, PublicKeyThatIsNoKey) {
    ASSERT_NO_FATAL_FAILURE(StartLoggedIn());
    // Valid Base64 ("ABC"), but no DER-encoded RSA key.
    Answer(kDrvCommPath, qvtest::RenderAnswer("get_public_key_response", R"({"key": "QUJD", "length": "3"})"), 200,
           "GetPublicKeyRequest");
    ActResult r = GetACT();
    // CryptDecodeObject fails with an ASN.1 error (CRYPT_E_ASN1_BADTAG), which the mapping leaves general.
    EXPECT_EQ(r.code, ZEB_ERROR_CRYPT_GENERAL_ERROR);
    EXPECT_TRUE(Logged("KeyCrypter DecodePublicKey CryptDecodeObject Error = 8009310b ZEB_ERROR = d503ffff"));
    ExpectNothingHandedOut(r);
    ExpectActWorks();
}

TEST_F(HostileServerTest, Base64GarbageInTheSdl2Challenge) {
    ASSERT_NO_FATAL_FAILURE(Start());
    Answer(kStsPath, qvtest::RenderAnswer("rstr_challenge_response", R"({"challenge": "%%%%", "context": "c-1"})"));
    EXPECT_EQ(Login(Mechanism(L"SDL2")), ZEB_ERROR_OUTOFMEMORY);
    EXPECT_TRUE(LoggedFailure("Auth_SDL2::MakeRstrData Base64Decoding challenge", ZEB_ERROR_OUTOFMEMORY));
    ASSERT_TRUE(srv().ClearFaults());
    EXPECT_EQ(Login(Mechanism(L"Basic2")), 0u);
}

TEST_F(HostileServerTest, Base64GarbageInTheSdlChallenge) {
    ASSERT_NO_FATAL_FAILURE(Start());
    Answer(kStsPath, qvtest::RenderAnswer("rstr_challenge_response", R"({"challenge": "%%%%", "context": "c-1"})"));
    EXPECT_EQ(Login(Mechanism(L"SDL")), ZEB_ERROR_OUTOFMEMORY);
    EXPECT_TRUE(LoggedFailure("Auth_SDL::MakeRstrData Base64Decoding challenge", ZEB_ERROR_OUTOFMEMORY));
    ASSERT_TRUE(srv().ClearFaults());
    EXPECT_EQ(Login(Mechanism(L"Basic2")), 0u);
}

TEST_F(HostileServerTest, Base64GarbageInTheNtlmChallenge) {
    ASSERT_NO_FATAL_FAILURE(Start());
    Answer(kStsPath, qvtest::RenderAnswer("rstr_challenge_response", R"({"challenge": "%%%%", "context": "c-1"})"));
    EXPECT_EQ(Login(Mechanism(L"NTLM"), L"alice", L"pw", AUTH_FLAG_EXPLICIT_CREDENTIAL), ZEB_ERROR_OUTOFMEMORY);
    EXPECT_TRUE(LoggedFailure("Auth_NTLM::MakeRstrData Base64Decoding challenge", ZEB_ERROR_OUTOFMEMORY));
    ASSERT_TRUE(srv().ClearFaults());
    EXPECT_EQ(Login(Mechanism(L"Basic2")), 0u);
}

TEST_F(HostileServerTest, OneMegabyteActAndSignature) {
    ASSERT_NO_FATAL_FAILURE(StartLoggedIn());
    // Both fields 1 MiB of "A": each decodes to 786432 zero bytes.
    Answer(kDrvCommPath, ActAnswer("@FILL@", "@FILL@"), 200, "GetACTRequest", R"(, "fill": {"size": 1048576})");
    ActResult r = GetACT();
    EXPECT_EQ(r.code, 0u);
    EXPECT_TRUE(r.keyNull);  // no key was asked for
    EXPECT_EQ(r.act, Bytes(786432, 0));
    EXPECT_EQ(r.signature, Bytes(786432, 0));
    ExpectActWorks();
}

// ---------------------------------------------------------------------------
// SOAP faults with parts missing (on GetACT, whose empty answer is a failure)

TEST_F(HostileServerTest, FaultWithoutCodeIsNoFault) {
    ASSERT_NO_FATAL_FAILURE(StartLoggedIn());
    std::string fault = DeviceFault(R"({"code": "soap:Receiver"})");
    size_t begin = fault.find("<soap:Code>"), end = fault.find("</soap:Code>");
    ASSERT_NE(end, std::string::npos);
    AnswerAct(fault.erase(begin, end + 12 - begin), 500);
    ActResult r = GetACT();
    EXPECT_EQ(r.code, ZEB_ERROR_OUTOFMEMORY);  // no fault, and no ACT either
    ExpectNothingHandedOut(r);
    EXPECT_TRUE(Logged("ParseLib SoapErrorCheck No Error OUT"));
    EXPECT_TRUE(LoggedFailure("GetACT Base64Decoding ppAct or ppSignature", ZEB_ERROR_OUTOFMEMORY));
    ExpectActWorks();
}

TEST_F(HostileServerTest, FaultCodeWithoutValueIsNoFault) {
    ASSERT_NO_FATAL_FAILURE(StartLoggedIn());
    std::string fault = DeviceFault(R"({"code": "soap:Receiver", "subcode": "zeb:GetActError", "subcode_namespace": ")" +
                                    std::string(kZebNamespace) + "\"}");
    AnswerAct(Replace(fault, "<soap:Value>soap:Receiver</soap:Value>", ""), 500);
    ActResult r = GetACT();
    EXPECT_EQ(r.code, ZEB_ERROR_OUTOFMEMORY);
    ExpectNothingHandedOut(r);
    EXPECT_TRUE(Logged("ParseLib SoapErrorCheck No Error OUT"));
    ExpectActWorks();
}

TEST_F(HostileServerTest, FaultWithAnEmptyCodeValue) {
    ASSERT_NO_FATAL_FAILURE(StartLoggedIn());
    std::string fault = DeviceFault(R"({"code": "soap:Receiver"})");
    AnswerAct(Replace(fault, "<soap:Value>soap:Receiver</soap:Value>", "<soap:Value/>"), 500);
    ActResult r = GetACT();
    EXPECT_EQ(r.code, ZEB_ERROR_INVALID_PARAMETER);
    ExpectNothingHandedOut(r);
    EXPECT_TRUE(Logged("ParseLib SoapFault unknown."));
    EXPECT_TRUE(Logged("ParseLib SoapFault Result = d5000057"));
    ExpectActWorks();
}

TEST_F(HostileServerTest, FaultWithoutSubcode) {
    ASSERT_NO_FATAL_FAILURE(StartLoggedIn());
    AnswerAct(DeviceFault(R"({"code": "soap:Receiver"})"), 500);
    ActResult r = GetACT();
    EXPECT_EQ(r.code, ZEB_ERROR_SOAP_RECEIVER);
    ExpectNothingHandedOut(r);
    EXPECT_TRUE(Logged("ParseLib SoapFault Subcode unmatched."));
    EXPECT_TRUE(Logged("ParseLib SoapFault Result = d5060005"));
    EXPECT_TRUE(Logged("GetACTRequest::Deserialize ERROR SoapErrorCheck = d5060005"));
    ExpectActWorks();
}

TEST_F(HostileServerTest, FaultSubcodeWithoutValue) {
    ASSERT_NO_FATAL_FAILURE(StartLoggedIn());
    std::string fault = DeviceFault(R"({"code": "soap:Sender", "subcode": "zeb:GetActError", "subcode_namespace": ")" +
                                    std::string(kZebNamespace) + "\"}");
    size_t begin = fault.find("<soap:Value xmlns:zeb"), end = fault.find("</soap:Value></soap:Subcode>");
    ASSERT_NE(begin, std::string::npos);
    ASSERT_NE(end, std::string::npos);
    AnswerAct(fault.erase(begin, end + 13 - begin), 500);
    ActResult r = GetACT();
    EXPECT_EQ(r.code, ZEB_ERROR_SOAP_SENDER);
    ExpectNothingHandedOut(r);
    EXPECT_TRUE(Logged("ParseLib SoapFault Subcode unmatched."));
    ExpectActWorks();
}

TEST_F(HostileServerTest, FaultWithoutReasonOrDetail) {
    ASSERT_NO_FATAL_FAILURE(StartLoggedIn());
    AnswerAct(DeviceFault(R"({"code": "soap:Sender", "subcode": "zeb:GetActError", "reason": null, "subcode_namespace": ")" +
                          std::string(kZebNamespace) + "\"}"),
              500);
    ActResult r = GetACT();
    EXPECT_EQ(r.code, ZEB_ERROR_FAULT_GET_ACT_ERROR);
    ExpectNothingHandedOut(r);
    EXPECT_TRUE(Logged("ParseLib SoapErrorCheck soap:Body/soap:Fault/soap:Reason/soap:Text = \n"));
    EXPECT_TRUE(Logged("ParseLib SoapFault Result = d5070405"));
    ExpectActWorks();
}

TEST_F(HostileServerTest, KeyRequestWithAnUndeclaredPrefixIsNotAKeyRequest) {
    ASSERT_NO_FATAL_FAILURE(StartLoggedIn());
    AnswerAct(DeviceFault(R"({"code": "soap:Receiver", "subcode": "zeb:GetActErrorRequestHmacKey", "declare_on": "none"})"),
              500);
    ActResult r = GetACT();
    EXPECT_EQ(r.code, ZEB_ERROR_SOAP_RECEIVER);
    ExpectNothingHandedOut(r);
    EXPECT_TRUE(Logged("ParseLib SoapFault Subcode unmatched."));
    EXPECT_EQ(RequestsOn(kDrvCommPath), 1u);  // no key exchange was started
    ExpectActWorks();
}

TEST_F(HostileServerTest, KeyDemandedAgainAfterItWasSent) {
    ASSERT_NO_FATAL_FAILURE(StartLoggedIn());
    // The second GetACT carries the encrypted key; the server asks again.
    Answer(kDrvCommPath,
           DeviceFault(R"({"code": "soap:Receiver", "subcode": "zeb:GetActErrorRequestHmacKey", "subcode_namespace": ")" +
                       std::string(kZebNamespace) + "\"}"),
           500, "<CipherData>");
    ActResult r = GetACT();
    EXPECT_EQ(r.code, ZEB_ERROR_ACT_KEY_REQUIRED);
    ExpectNothingHandedOut(r);
    EXPECT_EQ(RequestsOn(kDrvCommPath), 3u);  // GetACT, GetPublicKey, GetACT: no loop
    ExpectActWorks();
}

// ---------------------------------------------------------------------------
// Redirects

TEST_F(HostileServerTest, RedirectLoopIsFollowedOnceOnly) {
    ASSERT_NO_FATAL_FAILURE(Start());
    const std::string secure = "https://127.0.0.1:" + std::to_string(srv().HttpsPort()) + kPolicyPath;
    Fault(R"("path": ")" + std::string(kPolicyPath) + R"(", "location": ")" + secure + R"(", "times": 0)");
    std::vector<AuthInfo> entries;
    EXPECT_EQ(GetPolicy(&entries), ZEB_ERROR_WINHTTP_REDIRECT);
    EXPECT_TRUE(LoggedFailure("CWinHttp::_SendRequest Connection Redirect", ZEB_ERROR_WINHTTP_REDIRECT));
    std::vector<qvtest::RecordedRequest> requests = srv().Requests();
    ASSERT_EQ(requests.size(), 2u);  // the plain request and one secure one
    EXPECT_FALSE(requests[0].tls);
    EXPECT_TRUE(requests[1].tls);
    // The session stays secure after the redirect it followed.
    ASSERT_TRUE(srv().ClearFaults());
    DWORD ssl = 0;
    EXPECT_EQ(GetPolicy(&entries, &ssl), 0u);
    EXPECT_EQ(entries.size(), 1u);
    EXPECT_EQ(ssl, 1u);
    EXPECT_TRUE(srv().Requests().back().tls);
}

TEST_F(HostileServerTest, PlainRedirectLoopIsRefused) {
    ASSERT_NO_FATAL_FAILURE(Start());
    const std::string self = "http://127.0.0.1:" + std::to_string(srv().HttpPort()) + kPolicyPath;
    Fault(R"("path": ")" + std::string(kPolicyPath) + R"(", "location": ")" + self + R"(", "times": 0)");
    std::vector<AuthInfo> entries;
    EXPECT_EQ(GetPolicy(&entries), ZEB_ERROR_WINHTTP_DIFFERENT_REDIRECT_URL);
    EXPECT_TRUE(Logged("CWinHttp::InitRedirect Different Redirect URL = d502001d"));
    EXPECT_TRUE(LoggedFailure("CWinHttp::_SendRequest InitRedirect", ZEB_ERROR_WINHTTP_DIFFERENT_REDIRECT_URL));
    EXPECT_EQ(RequestsOn(kPolicyPath), 1u);
    ExpectPolicyWorks();
}

TEST_F(HostileServerTest, RedirectToAnotherHostIsRefused) {
    ASSERT_NO_FATAL_FAILURE(Start());
    const std::string other = "https://other.example:" + std::to_string(srv().HttpsPort()) + kPolicyPath;
    Fault(R"("path": ")" + std::string(kPolicyPath) + R"(", "location": ")" + other + "\"");
    std::vector<AuthInfo> entries;
    EXPECT_EQ(GetPolicy(&entries), ZEB_ERROR_WINHTTP_DIFFERENT_REDIRECT_URL);
    EXPECT_TRUE(Logged("CWinHttp::InitRedirect Different Redirect URL = d502001d"));
    EXPECT_EQ(srv().Requests().size(), 1u);
    DWORD ssl = 5;
    ASSERT_TRUE(srv().ClearFaults());
    EXPECT_EQ(GetPolicy(&entries, &ssl), 0u);
    EXPECT_EQ(ssl, 0u);  // still plain
    EXPECT_FALSE(srv().Requests().back().tls);
}
