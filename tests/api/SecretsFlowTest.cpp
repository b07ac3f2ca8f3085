// Secrets through the interface table: after whole flows with Basic2 (and a
// new HMAC key), with SDL2 (handing back the password digest) and with Basic
// (the password inside a Base64 payload), and after
// the host has returned every buffer and closed its sessions, no copy of the
// password, the digest or the key is found in the C runtime's heap, in use or
// free. The add-in's own allocations all come from that heap.
//
// The password holds a non-ASCII character and reaches the reference server
// escaped in JSON, so that the test's own control-port texts never hold any
// form searched for. See support/HeapScan.h for what the scan cannot see; a
// positive control at the end shows that it does find a freed, unwiped copy.
#include <gtest/gtest.h>
#include <windows.h>
#include <wincrypt.h>

#include <cstdlib>
#include <string>
#include <vector>

#define QUORVANTIS_NO_PROTOTYPES
#include "Quorvantis.h"
#include "support/HeapScan.h"
#include "support/HostTable.h"
#include "support/RefServer.h"
#include "support/TestSupport.h"

namespace {

constexpr size_t kRandomHex = 24;
constexpr size_t kTailChars = 14;  // searched for: the end of a secret (see HeapScan.h)

using qvtest::HostTable;

// Fills `hex` (kRandomHex characters, in the arena) with random digits.
bool RandomHex(wchar_t* hex) {
    BYTE random[kRandomHex / 2] = {};
    HCRYPTPROV prov = 0;
    if (!CryptAcquireContextW(&prov, nullptr, nullptr, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT)) return false;
    const bool ok = CryptGenRandom(prov, sizeof(random), random) != FALSE;
    CryptReleaseContext(prov, 0);
    static const wchar_t kDigits[] = L"0123456789abcdef";
    for (size_t i = 0; i < sizeof(random); ++i) {
        hex[2 * i] = kDigits[random[i] >> 4];
        hex[2 * i + 1] = kDigits[random[i] & 0x0F];
    }
    SecureZeroMemory(random, sizeof(random));
    return ok;
}

// The last `chars` characters of a wide text, as UTF-16LE, UTF-8 or one code
// page's bytes, copied into the arena.
qvtest::Needle Tail(qvtest::SecretArena& arena, const char* name, const wchar_t* text, size_t chars, UINT codePage) {
    const size_t length = wcslen(text);
    const wchar_t* tail = text + (length > chars ? length - chars : 0);
    const int tailChars = static_cast<int>(wcslen(tail));
    if (codePage == 0) {
        const size_t bytes = static_cast<size_t>(tailChars) * sizeof(wchar_t);
        BYTE* copy = static_cast<BYTE*>(arena.Take(bytes));
        if (copy) memcpy(copy, tail, bytes);
        return {name, copy, copy ? bytes : 0};
    }
    const int bytes = WideCharToMultiByte(codePage, 0, tail, tailChars, nullptr, 0, nullptr, nullptr);
    BYTE* copy = static_cast<BYTE*>(arena.Take(static_cast<size_t>(bytes)));
    if (!copy) return {name, nullptr, 0};
    WideCharToMultiByte(codePage, 0, tail, tailChars, reinterpret_cast<char*>(copy), bytes, nullptr, nullptr);
    return {name, copy, static_cast<size_t>(bytes)};
}

TEST(SecretsFlow, NoCopyOfPasswordDigestOrKeyIsLeftInTheHeap) {
    qvtest::SecretArena arena;
    ASSERT_TRUE(arena.Ok());

    // Password: "qv" U+00E9 <24 random hex digits> U+00E9 "x", only ever in the arena.
    wchar_t* password = arena.TakeWide(kRandomHex + 8);
    password[0] = L'q';
    password[1] = L'v';
    password[2] = 0x00E9;
    ASSERT_TRUE(RandomHex(password + 3));
    password[3 + kRandomHex] = 0x00E9;
    password[4 + kRandomHex] = L'x';
    // The same password as JSON text, its U+00E9 escaped: a form never searched for.
    std::wstring json = L"qv\\u00e9" + std::wstring(password + 3, kRandomHex) + L"\\u00e9x";
    qvtest::RefServerInstance server(
        R"({"users": {"keeper": {"password": ")" + qvtest::Narrow(json) + R"(", "domain": "LAB"}},)"
        R"( "policy": [{"Info": "i", "AuthType": "Basic2", "EnableCredentialCache": "true"},)"
        R"(             {"Info": "i", "AuthType": "SDL2", "EnableCredentialCache": "true"},)"
        R"(             {"Info": "i", "AuthType": "Basic", "EnableCredentialCache": "true"}]})");
    ASSERT_TRUE(server.Ok());

    HostTable host;
    ASSERT_NE(host.zeb, nullptr);
    const ZEB_INTERFACE* zeb = host.zeb;
    qvtest::TempDir dir;
    ASSERT_EQ(qvtest::InitializeWithIni(zeb, dir, qvtest::ServerKeys(server) + "Timeout=10000\r\n"), 0u);

    wchar_t* user = arena.TakeWide(16);
    wcscpy(user, L"keeper");
    wchar_t* domain = arena.TakeWide(16);
    wcscpy(domain, L"LAB");
    AuthCredential credential = {user, password, domain};

    std::vector<qvtest::Needle> passwordNeedles = {
        Tail(arena, "password (UTF-16)", password, kTailChars, 0),
        Tail(arena, "password (UTF-8)", password, kTailChars, CP_UTF8),
        Tail(arena, "password (ISO-8859-1)", password, kTailChars, 28591),
    };
    // Each flow is scanned for at once: later flows reuse the blocks of
    // earlier ones (the envelopes are alike), which would hide what they left.
    auto scan = [](std::vector<qvtest::Needle> needles, const char* flow) {
        for (const qvtest::Needle& n : needles) ASSERT_NE(n.size, 0u) << n.name;
        std::vector<qvtest::HeapHit> hits;
        hits.reserve(32);
        EXPECT_EQ(qvtest::ScanCrtHeap(needles, hits), 0u) << flow << ":\n" << qvtest::DescribeHits(hits);
    };

    // Basic2, then GetACT: the server holds no key yet, so a new one is made.
    BYTE* key = static_cast<BYTE*>(arena.Take(20));
    {
        DWORD handle = 0;
        ASSERT_EQ(zeb->Open(L"127.0.0.1", &handle, 0), 0u);
        AuthInfo basic2 = {L"i", L"Basic2", 1};
        BYTE* output = nullptr;
        DWORD outputSize = 0;
        EXPECT_EQ(zeb->Authentication(handle, 0, &basic2, &credential, &output, &outputSize), 0u);
        zeb->BufferFree(output);
        BYTE *hmacKey = nullptr, *act = nullptr, *signature = nullptr;
        DWORD hmacKeySize = 0, actSize = 0, signatureSize = 0;
        EXPECT_EQ(zeb->GetACT(handle, L"printer-1", ZEB_ACT_FLAG_ACV256, &hmacKey, &hmacKeySize, &act, &actSize,
                              &signature, &signatureSize),
                  0u);
        EXPECT_EQ(hmacKeySize, 20u);
        if (hmacKey && hmacKeySize == 20) memcpy(key, hmacKey, 20);
        zeb->BufferFree(hmacKey);
        zeb->BufferFree(act);
        zeb->BufferFree(signature);
        zeb->Close(handle);
    }
    // The key's Base64 text as the add-in makes it (no line end for 20 bytes).
    DWORD base64Chars = 0;
    ASSERT_TRUE(CryptBinaryToStringW(key, 20, CRYPT_STRING_BASE64 | CRYPT_STRING_NOCRLF, nullptr, &base64Chars));
    wchar_t* keyText = arena.TakeWide(base64Chars + 1);
    ASSERT_TRUE(CryptBinaryToStringW(key, 20, CRYPT_STRING_BASE64 | CRYPT_STRING_NOCRLF, keyText, &base64Chars));
    std::vector<qvtest::Needle> keyNeedles = passwordNeedles;
    keyNeedles.push_back(Tail(arena, "HMAC key Base64 (UTF-16)", keyText, 20, 0));
    keyNeedles.push_back(Tail(arena, "HMAC key Base64 (ASCII)", keyText, 20, CP_UTF8));
    keyNeedles.push_back({"HMAC key bytes", key + 4, 16});
    scan(keyNeedles, "Basic2 and GetACT");

    // SDL2, handing back the password digest.
    wchar_t* digest = arena.TakeWide(40);
    {
        DWORD handle = 0;
        ASSERT_EQ(zeb->Open(L"127.0.0.1", &handle, 0), 0u);
        AuthInfo sdl2 = {L"i", L"SDL2", 0};
        BYTE* output = nullptr;
        DWORD outputSize = 0;
        EXPECT_EQ(zeb->Authentication(handle, AUTH_FLAG_RETURN_DIGEST, &sdl2, &credential, &output, &outputSize),
                  0u);
        EXPECT_EQ(outputSize, 66u);
        if (output && outputSize == 66) memcpy(digest, output, 64);
        zeb->BufferFree(output);
        zeb->Close(handle);
    }
    ASSERT_EQ(wcslen(digest), 32u);
    std::vector<qvtest::Needle> digestNeedles = passwordNeedles;
    digestNeedles.push_back(Tail(arena, "digest text (UTF-16)", digest, 24, 0));
    digestNeedles.push_back(Tail(arena, "digest text (ASCII)", digest, 24, CP_UTF8));
    scan(digestNeedles, "SDL2");

    // Basic: the password travels inside a Base64 payload. Its characters 52
    // to 75 encode bytes 39 to 56 of the fragment: random digits of the
    // password (which starts at byte 37), before the first line end.
    const wchar_t* parts[] = {L"<wls:ID>", user, L"</wls:ID><wls:PASSWORD>", password,
                              L"</wls:PASSWORD><wls:Domain>", domain, L"</wls:Domain>"};
    wchar_t* fragment = arena.TakeWide(256);
    for (const wchar_t* part : parts) wcscat(fragment, part);
    char* fragmentUtf8 = static_cast<char*>(arena.Take(512));
    const int fragmentBytes = WideCharToMultiByte(CP_UTF8, 0, fragment, -1, fragmentUtf8, 512, nullptr, nullptr) - 1;
    ASSERT_GT(fragmentBytes, 57);
    DWORD payloadChars = 0;
    ASSERT_TRUE(CryptBinaryToStringW(reinterpret_cast<const BYTE*>(fragmentUtf8), static_cast<DWORD>(fragmentBytes),
                                     CRYPT_STRING_BASE64 | CRYPT_STRING_NOCRLF, nullptr, &payloadChars));
    wchar_t* payload = arena.TakeWide(payloadChars + 1);
    ASSERT_TRUE(CryptBinaryToStringW(reinterpret_cast<const BYTE*>(fragmentUtf8), static_cast<DWORD>(fragmentBytes),
                                     CRYPT_STRING_BASE64 | CRYPT_STRING_NOCRLF, payload, &payloadChars));
    payload[76] = L'\0';
    std::vector<qvtest::Needle> basicNeedles = passwordNeedles;
    basicNeedles.push_back(Tail(arena, "Basic payload (UTF-16)", payload, 24, 0));
    basicNeedles.push_back(Tail(arena, "Basic payload (ASCII)", payload, 24, CP_UTF8));
    {
        DWORD handle = 0;
        ASSERT_EQ(zeb->Open(L"127.0.0.1", &handle, 0), 0u);
        AuthInfo basic = {L"i", L"Basic", 1};
        BYTE* output = nullptr;
        DWORD outputSize = 0;
        EXPECT_EQ(zeb->Authentication(handle, 0, &basic, &credential, &output, &outputSize), 0u);
        zeb->BufferFree(output);
        zeb->Close(handle);
    }
    scan(basicNeedles, "Basic");
    const std::vector<qvtest::Needle>& needles = basicNeedles;

    // Positive control: a copy freed without wiping is found. Everything the
    // scan needs is allocated first, so that nothing reuses the freed block.
    const std::vector<qvtest::Needle> probe = {needles[0]};
    std::vector<qvtest::HeapHit> control;
    control.reserve(4);
    void* leaked = std::malloc(probe[0].size + 64);
    ASSERT_NE(leaked, nullptr);
    memcpy(static_cast<BYTE*>(leaked) + 32, probe[0].bytes, probe[0].size);
    std::free(leaked);
    EXPECT_GE(qvtest::ScanCrtHeap(probe, control), 1u) << "the scan cannot see a freed block here";
}

}  // namespace
