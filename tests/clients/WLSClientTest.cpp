#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "clients/WLSClient.h"
#include "config/AddinSettings.h"
#include "support/ScopedSettings.h"
#include "support/TestSupport.h"

namespace {

// Answers each transport open from a script and notes the address it was for.
class ScriptedClient : public WLSClient {
public:
    ScriptedClient(const std::wstring& address, std::vector<DWORD> answers)
        : WLSClient(address), m_answers(std::move(answers)) {}
    std::vector<std::wstring> addresses;

protected:
    DWORD OpenSoapTrans(CSoapTrans*, DWORD) override {
        addresses.push_back(m_wstrAddress);
        DWORD answer = m_answers.empty() ? 0 : m_answers.front();
        if (!m_answers.empty()) m_answers.erase(m_answers.begin());
        return answer;
    }

private:
    std::vector<DWORD> m_answers;
};

AuthInfo MakeAuthInfo(const wchar_t* type) {
    AuthInfo info = {};
    wcsncpy(info.AuthType, type, 63);
    return info;
}

// Points the trace log at a file of its own for the test's lifetime.
class LoggedTest : public ::testing::Test {
protected:
    std::string Log() { return qvtest::ReadFileBytes(m_settings.File(L"trace.log")); }

    qvtest::ScopedSettings m_settings{qvtest::kTraceToFile};
};

}  // namespace

TEST(WLSClientOpen, InvalidUrlIsRetriedOnceInBrackets) {
    ScriptedClient client(L"::1", {ZEB_ERROR_WINHTTP_INVALID_URL, 0});
    EXPECT_EQ(client.Open(0), 0u);
    EXPECT_EQ(client.addresses, (std::vector<std::wstring>{L"::1", L"[::1]"}));
    EXPECT_EQ(client.Address(), L"[::1]");
    EXPECT_TRUE(client.IsOpen());
}

TEST(WLSClientOpen, TheBracketedAttemptIsNotRetriedAgain) {
    ScriptedClient client(L"fe80::1", {ZEB_ERROR_WINHTTP_INVALID_URL, ZEB_ERROR_WINHTTP_INVALID_URL, 0});
    EXPECT_EQ(client.Open(0), ZEB_ERROR_WINHTTP_INVALID_URL);
    EXPECT_EQ(client.addresses, (std::vector<std::wstring>{L"fe80::1", L"[fe80::1]"}));
    EXPECT_FALSE(client.IsOpen());
}

TEST(WLSClientOpen, TheSecondResultReplacesTheFirst) {
    ScriptedClient client(L"::1", {ZEB_ERROR_WINHTTP_INVALID_URL, ZEB_ERROR_WINHTTP_CANNOT_CONNECT});
    EXPECT_EQ(client.Open(0), ZEB_ERROR_WINHTTP_CANNOT_CONNECT);
    EXPECT_FALSE(client.IsOpen());
}

TEST(WLSClientOpen, OtherFailuresAreNotRetried) {
    for (DWORD failure : {ZEB_ERROR_WINHTTP_CANNOT_CONNECT, ZEB_ERROR_WINHTTP_NAME_NOT_RESOLVED,
                          ZEB_ERROR_WINHTTP_INTERNAL_ERROR, ZEB_ERROR_OUTOFMEMORY}) {
        ScriptedClient client(L"server", {failure, 0});
        EXPECT_EQ(client.Open(0), failure);
        EXPECT_EQ(client.addresses.size(), 1u);
        EXPECT_EQ(client.Address(), L"server");
        EXPECT_FALSE(client.IsOpen());
    }
}

TEST(WLSClientOpen, SuccessOpensOnce) {
    ScriptedClient client(L"127.0.0.1", {0});
    EXPECT_EQ(client.Open(0), 0u);
    EXPECT_EQ(client.addresses.size(), 1u);
    EXPECT_TRUE(client.IsOpen());
}

TEST(WLSClient, WithoutTransportEveryOperationIsAnInvalidInstance) {
    WLSClient client(L"127.0.0.1");
    DWORD count = 7, flag = 7;
    AuthInfo* list = nullptr;
    EXPECT_EQ(client.GetPolicy(&count, &list, &flag), ZEB_ERROR_GENERAL_INVALID_INSTANCE);
    AuthInfo info = MakeAuthInfo(L"Basic2");
    wchar_t user[] = L"u", password[] = L"p", domain[] = L"d";
    AuthCredential credential = {user, password, domain};
    BYTE* output = nullptr;
    DWORD size = 0;
    EXPECT_EQ(client.Authentication(0, &info, &credential, &output, &size), ZEB_ERROR_GENERAL_INVALID_INSTANCE);
    EXPECT_EQ(client.Close(), ZEB_ERROR_GENERAL_INVALID_INSTANCE);
}

TEST(WLSClient, NullArgumentsAreInvalidParameters) {
    ScriptedClient client(L"127.0.0.1", {0});
    ASSERT_EQ(client.Open(0), 0u);
    DWORD count = 0, flag = 0;
    AuthInfo* list = nullptr;
    EXPECT_EQ(client.GetPolicy(nullptr, &list, &flag), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(client.GetPolicy(&count, nullptr, &flag), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(client.GetPolicy(&count, &list, nullptr), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(client.Request(nullptr, nullptr, L"/p"), ZEB_ERROR_INVALID_PARAMETER);
    BYTE* output = nullptr;
    DWORD size = 0;
    EXPECT_EQ(client.Authentication(0, nullptr, nullptr, &output, &size), ZEB_ERROR_INVALID_PARAMETER);
}

TEST(WLSClient, CredentialsMustFitTheAuthType) {
    ScriptedClient client(L"127.0.0.1", {0});
    ASSERT_EQ(client.Open(0), 0u);
    wchar_t user[] = L"u", password[] = L"p", domain[] = L"d";
    BYTE* output = nullptr;
    DWORD size = 0;
    AuthCredential noDomain = {user, password, nullptr};
    AuthCredential noPassword = {user, nullptr, domain};
    AuthInfo basic = MakeAuthInfo(L"Basic");
    AuthInfo basic2 = MakeAuthInfo(L"Basic2");
    AuthInfo ntlm = MakeAuthInfo(L"NTLM");
    AuthInfo sdl = MakeAuthInfo(L"SDL");
    EXPECT_EQ(client.Authentication(0, &basic, &noDomain, &output, &size), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(client.Authentication(0, &basic2, nullptr, &output, &size), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(client.Authentication(AUTH_FLAG_EXPLICIT_CREDENTIAL, &ntlm, &noDomain, &output, &size),
              ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(client.Authentication(0, &sdl, &noPassword, &output, &size), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(client.Authentication(AUTH_FLAG_RETURN_DIGEST | AUTH_FLAG_DIGEST_PASSWORD, &sdl, &noPassword, &output,
                                    nullptr),
              ZEB_ERROR_INVALID_PARAMETER);
}

TEST_F(LoggedTest, UnsupportedAuthTypeIsNamedInTheLog) {
    ScriptedClient client(L"127.0.0.1", {0});
    ASSERT_EQ(client.Open(0), 0u);
    wchar_t user[] = L"u", password[] = L"p", domain[] = L"d";
    AuthCredential credential = {user, password, domain};
    BYTE* output = nullptr;
    DWORD size = 0;
    for (const wchar_t* type : {L"ntlm", L"basic", L"Kerberos", L""}) {
        AuthInfo info = MakeAuthInfo(type);
        EXPECT_EQ(client.Authentication(0, &info, &credential, &output, &size), ZEB_ERROR_INVALID_PARAMETER);
    }
    std::string log = Log();
    EXPECT_NE(log.find("WLSClient::Authentication PARAMETER UnSupportedAuthType ZEB_ERROR = d5000057"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("WLSClient::Open IN"), std::string::npos);
    EXPECT_NE(log.find("WLSClient::Open OUT"), std::string::npos);
}

TEST_F(LoggedTest, CloseWithoutLoginSendsNothing) {
    ScriptedClient client(L"127.0.0.1", {0});
    ASSERT_EQ(client.Open(0), 0u);
    // The transport was never really opened: a cancel would fail, so 0 shows none was tried.
    EXPECT_EQ(client.Close(), 0u);
    EXPECT_EQ(Log().find("CancelRequest"), std::string::npos);
}

TEST(WLSClient, AnAuthTypeWithoutTerminatorIsUnsupported) {
    ScriptedClient client(L"127.0.0.1", {0});
    ASSERT_EQ(client.Open(0), 0u);
    AuthInfo info;
    for (wchar_t& c : info.AuthType) c = L'B';
    wchar_t user[] = L"u", password[] = L"p", domain[] = L"d";
    AuthCredential credential = {user, password, domain};
    BYTE* output = nullptr;
    DWORD size = 0;
    EXPECT_EQ(client.Authentication(0, &info, &credential, &output, &size), ZEB_ERROR_INVALID_PARAMETER);
}
