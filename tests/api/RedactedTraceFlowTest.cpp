// TraceRedactSecrets=1 through the interface table: a whole flow with each
// mechanism, at DebugLevel 5, against the reference server, leaves no secret
// in the trace file in any encoding — the password, what the add-in sent in
// its place (payload, challenge answers, digests), the HMAC key, the
// encrypted key and the SAML assertion. Each secret is first looked for in a
// trace written with redaction off, so the search can fail.
#include <gtest/gtest.h>
#include <windows.h>
#include <wincrypt.h>

#include <regex>
#include <string>
#include <vector>

#define QUORVANTIS_NO_PROTOTYPES
#include "Quorvantis.h"
#include "support/HostTable.h"
#include "support/RefServer.h"
#include "support/TestSupport.h"

namespace {

// One secret, as the bytes of each form it could take in an ANSI trace.
struct Secret {
    std::string name;
    std::vector<std::string> forms;
};

std::string Bytes(const std::wstring& text, UINT codePage) {
    if (text.empty()) return std::string();
    int n = WideCharToMultiByte(codePage, 0, text.c_str(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
    std::string out(static_cast<size_t>(n), '\0');
    WideCharToMultiByte(codePage, 0, text.c_str(), static_cast<int>(text.size()), &out[0], n, nullptr, nullptr);
    return out;
}

std::string Base64(const std::string& bytes) {
    DWORD chars = 0;
    const BYTE* data = reinterpret_cast<const BYTE*>(bytes.data());
    CryptBinaryToStringA(data, static_cast<DWORD>(bytes.size()), CRYPT_STRING_BASE64 | CRYPT_STRING_NOCRLF, nullptr,
                         &chars);
    std::string out(chars, '\0');
    CryptBinaryToStringA(data, static_cast<DWORD>(bytes.size()), CRYPT_STRING_BASE64 | CRYPT_STRING_NOCRLF, &out[0],
                         &chars);
    out.resize(chars);
    return out;
}

std::string Hex(const std::string& bytes) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : bytes) {
        out += kDigits[c >> 4];
        out += kDigits[c & 15];
    }
    return out;
}

// The Base64 characters that encode `bytes` wherever they sit in a longer
// text: for each of the three alignments, the part not touched by neighbours.
std::vector<std::string> Base64Inside(const std::string& bytes) {
    std::vector<std::string> parts;
    for (size_t lead = 0; lead < 3; ++lead) {
        std::string encoded = Base64(std::string(lead, '\0') + bytes + std::string(3, '\0'));
        const size_t from = (lead * 4 + 2) / 3 + 1;
        const size_t to = ((lead + bytes.size()) / 3) * 4;
        if (to > from + 4) parts.push_back(encoded.substr(from, to - from));
    }
    return parts;
}

// Every form of a text secret: UTF-16LE, UTF-8, Latin-1, the ANSI code page,
// and Base64 of its UTF-8 and Latin-1 bytes.
Secret TextSecret(const std::string& name, const std::wstring& text) {
    Secret s{name, {}};
    const std::wstring wide = text;
    s.forms.push_back(std::string(reinterpret_cast<const char*>(wide.data()), wide.size() * sizeof(wchar_t)));
    for (UINT cp : {static_cast<UINT>(CP_UTF8), 28591u, static_cast<UINT>(CP_ACP)}) {
        std::string bytes = Bytes(text, cp);
        s.forms.push_back(bytes);
        for (const std::string& part : Base64Inside(bytes)) s.forms.push_back(part);
    }
    return s;
}

Secret ByteSecret(const std::string& name, const std::string& bytes) {
    Secret s{name, {bytes, Hex(bytes), Base64(bytes)}};
    for (const std::string& part : Base64Inside(bytes)) s.forms.push_back(part);
    return s;
}

std::wstring Widen(const std::string& text) {
    std::wstring out;
    for (char c : text) out += static_cast<wchar_t>(static_cast<unsigned char>(c));
    return out;
}

// The content of each `element` in the requests the server received.
std::vector<std::string> Contents(const std::vector<qvtest::RecordedRequest>& requests, const std::string& element) {
    std::vector<std::string> found;
    std::regex pattern("<" + element + "[^>]*>([^<]+)</" + element + ">");
    for (const qvtest::RecordedRequest& r : requests)
        for (std::sregex_iterator it(r.body.begin(), r.body.end(), pattern), end; it != end; ++it)
            found.push_back((*it)[1].str());
    return found;
}

class RedactedTraceFlow : public ::testing::TestWithParam<const wchar_t*> {
protected:
    // A password with a character outside ASCII, so its encodings differ.
    const std::wstring m_password = L"Pw\u00e9-7q2Zk9vR4";

    // One whole flow with the mechanism; the trace file's bytes, and the
    // secrets it handled.
    std::string Flow(bool redact, std::vector<Secret>* secrets) {
        qvtest::RefServerInstance server(
            R"({"users": {"keeper": {"password": "Pw\u00e9-7q2Zk9vR4", "domain": "LAB"}},)"
            R"( "policy": [{"Info": "i", "AuthType": "NTLM", "EnableCredentialCache": "false"},)"
            R"(             {"Info": "i", "AuthType": "SDL", "EnableCredentialCache": "false"},)"
            R"(             {"Info": "i", "AuthType": "SDL2", "EnableCredentialCache": "false"},)"
            R"(             {"Info": "i", "AuthType": "Basic", "EnableCredentialCache": "false"},)"
            R"(             {"Info": "i", "AuthType": "Basic2", "EnableCredentialCache": "false"}]})");
        EXPECT_TRUE(server.Ok());
        qvtest::HostTable host;
        const ZEB_INTERFACE* zeb = host.zeb;
        EXPECT_NE(zeb, nullptr);
        if (!zeb || !server.Ok()) return std::string();
        qvtest::TempDir dir;
        EXPECT_EQ(qvtest::InitializeWithIni(zeb, dir,
                                            qvtest::ServerKeys(server) + "Timeout=10000\r\n" +
                                                qvtest::TraceKeys(dir.File(L"trace.log")) +
                                                "TraceRedactSecrets=" + (redact ? "1" : "0") + "\r\n"),
                  0u);

        const std::wstring type = GetParam();
        std::wstring user = L"keeper", password = m_password, domain = L"LAB";
        AuthCredential credential = {&user[0], &password[0], &domain[0]};
        DWORD flags = type == L"NTLM" ? AUTH_FLAG_EXPLICIT_CREDENTIAL : 0;
        if (type == L"SDL" || type == L"SDL2") flags |= AUTH_FLAG_RETURN_DIGEST;
        AuthInfo info = {};
        wcscpy(info.Info, L"i");
        wcscpy(info.AuthType, type.c_str());

        DWORD handle = 0;
        EXPECT_EQ(zeb->Open(L"127.0.0.1", &handle, 0), 0u);
        BYTE* output = nullptr;
        DWORD outputSize = 0;
        EXPECT_EQ(zeb->Authentication(handle, flags, &info, &credential, &output, &outputSize), 0u);
        if (output && outputSize >= 2) {
            secrets->push_back(TextSecret("password digest", reinterpret_cast<const wchar_t*>(output)));
            secrets->push_back(ByteSecret("password digest (bytes)", std::string(reinterpret_cast<char*>(output), outputSize)));
        }
        zeb->BufferFree(output);
        qvtest::ActResult act = qvtest::CallGetACT(zeb, handle, L"printer-1", ZEB_ACT_FLAG_ACV256);
        EXPECT_EQ(act.code, 0u);
        EXPECT_EQ(act.key.size(), 20u) << "the server asked for a key";
        if (!act.key.empty()) secrets->push_back(ByteSecret("HMAC key", std::string(act.key.begin(), act.key.end())));
        zeb->Close(handle);

        secrets->push_back(TextSecret("password", m_password));
        const std::vector<qvtest::RecordedRequest> requests = server.Requests();
        for (const char* element : {"wls:Password", "wls:AuthenticationData", "CipherData"})
            for (const std::string& value : Contents(requests, element))
                if (value.size() >= 8) secrets->push_back(TextSecret(element, Widen(value)));
        // The assertion, as the add-in sends it back and as the server made it.
        secrets->push_back(Secret{"SAML assertion", {"<saml:Assertion", "<saml:Conditions NotBefore=", "am:password"}});
        return qvtest::ReadFileBytes(dir.File(L"trace.log"));
    }
};

TEST_P(RedactedTraceFlow, NoSecretInAnyEncoding) {
    std::vector<Secret> plainSecrets;
    const std::string plain = Flow(false, &plainSecrets);
    ASSERT_FALSE(plain.empty());
    // Without redaction the trace shows the secrets the flow sent: the search works.
    size_t seen = 0;
    for (const Secret& s : plainSecrets)
        for (const std::string& form : s.forms)
            if (!form.empty() && plain.find(form) != std::string::npos) {
                ++seen;
                break;
            }
    EXPECT_GE(seen, 3u);

    std::vector<Secret> secrets;
    const std::string redacted = Flow(true, &secrets);
    ASSERT_FALSE(redacted.empty());
    ASSERT_GE(secrets.size(), 4u);
    for (const Secret& s : secrets)
        for (const std::string& form : s.forms)
            EXPECT_TRUE(form.empty() || redacted.find(form) == std::string::npos)
                << s.name << " found in the redacted trace as \"" << form << "\"";
    EXPECT_NE(redacted.find("***"), std::string::npos);
    // What is not secret is still there.
    EXPECT_NE(redacted.find("GetACT OUT"), std::string::npos);
    EXPECT_NE(redacted.find("m_assertionID = _"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(EachMechanism, RedactedTraceFlow,
                         ::testing::Values(L"Basic", L"Basic2", L"SDL", L"SDL2", L"NTLM"),
                         [](const ::testing::TestParamInfo<const wchar_t*>& info) {
                             std::string name;
                             for (const wchar_t* p = info.param; *p; ++p) name += static_cast<char>(*p);
                             return name;
                         });

}  // namespace
