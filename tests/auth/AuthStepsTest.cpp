// The mechanisms' steps one at a time, without a server.
#include <gtest/gtest.h>

#include <windows.h>
#include <wincrypt.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "AuthTestAccess.h"
#include "auth/Auth_Basic.h"
#include "auth/Auth_Basic2.h"
#include "auth/Auth_NTLM.h"
#include "auth/Auth_SDL.h"
#include "auth/Auth_SDL2.h"
#include "auth/IAuthentication.h"
#include "common/HeapBuffer.h"
#include "transport/CSoapTrans.h"

namespace {

// Challenge bytes and the answers to it, computed beforehand with Python's
// hashlib/hmac/base64 for user "jsmith":
//   SDL2: b64(("jsmith " + hmac(md5(pw), ch, md5).hexdigest()).encode())
//   SDL:  b64(md5(md5(pw).hexdigest().encode() + ch).hexdigest().encode())
const BYTE kChallenge[] = {0x01, 0x02, 'c', 'h', 'a', 'l', 'l', 'e', 'n', 'g',
                           'e',  '-',  0xff, 0x00, 0x10, 'x', 'y', 'z'};
const wchar_t kChallengeB64[] = L"AQJjaGFsbGVuZ2Ut/wAQeHl6";
const wchar_t kSdl2AnswerAbc[] = L"anNtaXRoIDljYjQyMmVlOWU3ODU3ODU0ZDZhNDk2ODI1ZDdlZDM1";
const wchar_t kSdl2AnswerEmpty[] = L"anNtaXRoIGE5YmY3MTg1ZTM5M2I5ZDIyNDVjMWEwZDI5NTU0ZTM0";
const wchar_t kSdlAnswerAbc[] = L"YjkzYWYzMTkzMDkwNTc5ZWE2ZmVhMDU0OGNhNmI4YzU=";
const wchar_t kSdlAnswerEmpty[] = L"N2I4M2MwMjAyYThiMzFmMmY0MzM0NDA3OGM4ODk4Zjk=";
const wchar_t kChallengeRequestJsmith[] = L"U0RMQ2hhbGxlbmdlUmVxdWVzdGpzbWl0aA==";
const wchar_t kMd5Abc[] = L"900150983cd24fb0d6963f7d28e17f72";

// Independent Base64 decoding through crypt32 (CR LF and padding tolerated).
std::string DecodeB64(const std::wstring& text) {
    DWORD size = 0;
    if (!CryptStringToBinaryW(text.c_str(), static_cast<DWORD>(text.size()), CRYPT_STRING_BASE64, nullptr, &size,
                              nullptr, nullptr))
        return std::string();
    std::string bytes(size, '\0');
    if (!CryptStringToBinaryW(text.c_str(), static_cast<DWORD>(text.size()), CRYPT_STRING_BASE64,
                              reinterpret_cast<BYTE*>(&bytes[0]), &size, nullptr, nullptr))
        return std::string();
    bytes.resize(size);
    return bytes;
}

std::string Md5Hex(const std::string& data) {
    HCRYPTPROV prov = 0;
    HCRYPTHASH hash = 0;
    std::string hex;
    if (!CryptAcquireContextW(&prov, nullptr, nullptr, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT)) return hex;
    if (CryptCreateHash(prov, CALG_MD5, 0, 0, &hash)) {
        CryptHashData(hash, reinterpret_cast<const BYTE*>(data.data()), static_cast<DWORD>(data.size()), 0);
        BYTE value[16];
        DWORD size = sizeof(value);
        if (CryptGetHashParam(hash, HP_HASHVAL, value, &size, 0)) {
            static const char digits[] = "0123456789abcdef";
            for (BYTE b : value) {
                hex.push_back(digits[b >> 4]);
                hex.push_back(digits[b & 15]);
            }
        }
        CryptDestroyHash(hash);
    }
    CryptReleaseContext(prov, 0);
    return hex;
}

std::wstring Wide(const BYTE* data, DWORD bytes) {
    return std::wstring(reinterpret_cast<const wchar_t*>(data), bytes / sizeof(wchar_t));
}

AuthInfo MakeAuthInfo(const wchar_t* info, const wchar_t* type) {
    AuthInfo record = {};
    wcsncpy(record.Info, info, 63);
    wcsncpy(record.AuthType, type, 63);
    record.bEnableCredentialCache = 1;
    return record;
}

}  // namespace

// ---- Factory -----------------------------------------------------------------

TEST(AuthFactory, MakesEachMechanismByItsExactName) {
    struct Row {
        const wchar_t* name;
        bool (*is)(IAuthentication*);
    };
    const Row rows[] = {
        {L"NTLM", [](IAuthentication* a) { return dynamic_cast<Auth_NTLM*>(a) != nullptr; }},
        {L"SDL", [](IAuthentication* a) { return dynamic_cast<Auth_SDL*>(a) != nullptr; }},
        {L"SDL2", [](IAuthentication* a) { return dynamic_cast<Auth_SDL2*>(a) != nullptr; }},
        {L"Basic", [](IAuthentication* a) { return dynamic_cast<Auth_Basic*>(a) != nullptr; }},
        {L"Basic2", [](IAuthentication* a) { return dynamic_cast<Auth_Basic2*>(a) != nullptr; }},
    };
    for (const Row& row : rows) {
        std::unique_ptr<IAuthentication> auth = CreateAuthentication(row.name);
        ASSERT_NE(auth, nullptr) << row.name;
        EXPECT_TRUE(row.is(auth.get())) << row.name;
    }
}

TEST(AuthFactory, SdlIsNotSdl2) {
    std::unique_ptr<IAuthentication> auth = CreateAuthentication(L"SDL");
    ASSERT_NE(auth, nullptr);
    EXPECT_EQ(dynamic_cast<Auth_SDL2*>(auth.get()), nullptr);
    EXPECT_NE(dynamic_cast<Auth_SDL*>(auth.get()), nullptr);
}

TEST(AuthFactory, OtherNamesMakeNothing) {
    for (const wchar_t* name : {L"ntlm", L"basic", L"sdl", L"BASIC2", L"SDL3", L"Basic ", L"", L"Kerberos"}) {
        EXPECT_EQ(CreateAuthentication(name), nullptr) << name;
    }
    EXPECT_EQ(CreateAuthentication(nullptr), nullptr);
}

// ---- Basic ---------------------------------------------------------------------

TEST(AuthBasic, FragmentKeepsValuesVerbatim) {
    Auth_Basic auth;
    wchar_t user[] = L"jsmith";
    wchar_t password[] = L"a&b</wls:PASSWORD><x>";
    wchar_t domain[] = L"CORP";
    AuthCredential credential = {user, password, domain};
    std::wstring payload;
    ASSERT_EQ(Auth_BasicTest::MakeRstData(auth, &credential, &payload), 0u);
    EXPECT_EQ(DecodeB64(payload),
              "<wls:ID>jsmith</wls:ID><wls:PASSWORD>a&b</wls:PASSWORD><x></wls:PASSWORD>"
              "<wls:Domain>CORP</wls:Domain>");
}

TEST(AuthBasic, FragmentIsUtf8) {
    Auth_Basic auth;
    wchar_t user[] = L"j\x00e9r\x00f4me";  // jérôme
    wchar_t password[] = L"\x20ac";         // euro sign
    wchar_t domain[] = L"";
    AuthCredential credential = {user, password, domain};
    std::wstring payload;
    ASSERT_EQ(Auth_BasicTest::MakeRstData(auth, &credential, &payload), 0u);
    EXPECT_EQ(DecodeB64(payload),
              "<wls:ID>j\xc3\xa9r\xc3\xb4me</wls:ID><wls:PASSWORD>\xe2\x82\xac</wls:PASSWORD>"
              "<wls:Domain></wls:Domain>");
}

TEST(AuthBasic, LongCredentialBreaksBase64LinesWithCrLf) {
    Auth_Basic auth;
    std::wstring longUser(60, L'u');
    std::wstring longPassword(60, L'p');
    wchar_t domain[] = L"CORP";
    AuthCredential credential = {&longUser[0], &longPassword[0], domain};
    std::wstring payload;
    ASSERT_EQ(Auth_BasicTest::MakeRstData(auth, &credential, &payload), 0u);
    ASSERT_GT(payload.size(), 76u);
    EXPECT_EQ(payload.substr(76, 2), L"\r\n");
    EXPECT_EQ(payload.find(L"\r\n"), 76u);
    std::string fragment = DecodeB64(payload);
    EXPECT_NE(fragment.find("<wls:ID>" + std::string(60, 'u') + "</wls:ID>"), std::string::npos);
}

TEST(AuthBasic, NullDomainIsRefusedEmptyDomainIsNot) {
    Auth_Basic auth;
    wchar_t user[] = L"jsmith";
    wchar_t password[] = L"pw";
    wchar_t empty[] = L"";
    AuthCredential noDomain = {user, password, nullptr};
    std::wstring payload;
    EXPECT_EQ(Auth_BasicTest::MakeRstData(auth, &noDomain, &payload), 0xD5000057u);
    AuthCredential emptyDomain = {user, password, empty};
    EXPECT_EQ(Auth_BasicTest::MakeRstData(auth, &emptyDomain, &payload), 0u);
    AuthCredential noPassword = {user, nullptr, empty};
    EXPECT_EQ(Auth_BasicTest::MakeRstData(auth, &noPassword, &payload), 0xD5000057u);
    EXPECT_EQ(Auth_BasicTest::MakeRstData(auth, nullptr, &payload), 0xD5000057u);
    EXPECT_EQ(Auth_BasicTest::MakeRstData(auth, &emptyDomain, nullptr), 0xD5000057u);
}

TEST(AuthBasic, AuthenticationChecksEveryArgumentBeforeSending) {
    CSoapTrans transport(L"127.0.0.1", 1, 2);  // never opened: nothing may be sent
    AuthInfo info = MakeAuthInfo(L"", L"Basic");
    wchar_t user[] = L"jsmith";
    wchar_t password[] = L"pw";
    wchar_t domain[] = L"CORP";
    AuthCredential credential = {user, password, domain};
    AuthCredential noDomain = {user, password, nullptr};
    std::wstring id = L"keep-id", token = L"keep-token";
    BYTE* digest = nullptr;
    DWORD digestSize = 0;
    for (int mechanism = 0; mechanism < 2; ++mechanism) {
        std::unique_ptr<IAuthentication> auth = CreateAuthentication(mechanism == 0 ? L"Basic" : L"Basic2");
        ASSERT_NE(auth, nullptr);
        // The digest outputs are never written by Basic, but must be given.
        EXPECT_EQ(auth->Authentication(&transport, 0, &info, &credential, L"/wls/STSServer.actv", 8000, 8443,
                                       L"127.0.0.1", &id, &token, nullptr, &digestSize),
                  0xD5000057u);
        EXPECT_EQ(auth->Authentication(&transport, 0, &info, &credential, L"/wls/STSServer.actv", 8000, 8443,
                                       L"127.0.0.1", &id, &token, &digest, nullptr),
                  0xD5000057u);
        EXPECT_EQ(auth->Authentication(&transport, 0, &info, &noDomain, L"/wls/STSServer.actv", 8000, 8443,
                                       L"127.0.0.1", &id, &token, &digest, &digestSize),
                  0xD5000057u);
        EXPECT_EQ(auth->Authentication(nullptr, 0, &info, &credential, L"/wls/STSServer.actv", 8000, 8443,
                                       L"127.0.0.1", &id, &token, &digest, &digestSize),
                  0xD5000057u);
        EXPECT_EQ(auth->Authentication(&transport, 0, nullptr, &credential, L"/wls/STSServer.actv", 8000, 8443,
                                       L"127.0.0.1", &id, &token, &digest, &digestSize),
                  0xD5000057u);
        EXPECT_EQ(auth->Authentication(&transport, 0, &info, &credential, L"/wls/STSServer.actv", 8000, 8443,
                                       L"127.0.0.1", nullptr, &token, &digest, &digestSize),
                  0xD5000057u);
    }
    EXPECT_EQ(id, L"keep-id");
    EXPECT_EQ(token, L"keep-token");
}

TEST(AuthBasic, RequestRefusesANullMessage) {
    Auth_Basic auth;
    EXPECT_EQ(Auth_BasicTest::Request(auth, nullptr), 0xD5000057u);
}

// ---- SDL and SDL2: what both do alike ------------------------------------------

// The two challenge mechanisms differ in how the answer is made from the
// password digest and the challenge; everything around it is the same.
struct Sdl {
    using Mechanism = Auth_SDL;
    using Access = Auth_SDLTest;
    static constexpr const wchar_t* kType = L"SDL";
    static constexpr const wchar_t* kAnswerAbc = kSdlAnswerAbc;
    static constexpr const wchar_t* kAnswerEmpty = kSdlAnswerEmpty;
};
struct Sdl2 {
    using Mechanism = Auth_SDL2;
    using Access = Auth_SDL2Test;
    static constexpr const wchar_t* kType = L"SDL2";
    static constexpr const wchar_t* kAnswerAbc = kSdl2AnswerAbc;
    static constexpr const wchar_t* kAnswerEmpty = kSdl2AnswerEmpty;
};
struct SdlName {
    template <typename T>
    static std::string GetName(int) {
        return std::is_same<T, Sdl>::value ? "SDL" : "SDL2";
    }
};

template <typename T>
class AuthSdlFamily : public ::testing::Test {
protected:
    using Access = typename T::Access;
    typename T::Mechanism auth;
    wchar_t user[7] = L"jsmith";
};
using SdlMechanisms = ::testing::Types<Sdl, Sdl2>;
TYPED_TEST_SUITE(AuthSdlFamily, SdlMechanisms, SdlName);

TYPED_TEST(AuthSdlFamily, ChallengeRequestIsUserIdAfterFixedWord) {
    using Access = typename TestFixture::Access;
    AuthCredential credential = {this->user, nullptr, nullptr};
    std::wstring payload;
    ASSERT_EQ(Access::MakeRstData(this->auth, &credential, &payload), 0u);
    EXPECT_EQ(payload, kChallengeRequestJsmith);
    AuthCredential noUser = {nullptr, nullptr, nullptr};
    EXPECT_EQ(Access::MakeRstData(this->auth, &noUser, &payload), 0xD5000057u);
    EXPECT_EQ(Access::MakeRstData(this->auth, nullptr, &payload), 0xD5000057u);
    EXPECT_EQ(Access::MakeRstData(this->auth, &credential, nullptr), 0xD5000057u);
}

TYPED_TEST(AuthSdlFamily, PasswordGivesReturnDigestAndAnswer) {
    using Access = typename TestFixture::Access;
    wchar_t password[] = L"abc";
    AuthCredential credential = {this->user, password, nullptr};
    std::wstring payload;
    qv::ByteBuffer digest;
    DWORD digestSize = 0;
    ASSERT_EQ(Access::MakeRstrData(this->auth, AUTH_FLAG_RETURN_DIGEST, kChallengeB64, &credential, &payload,
                                   qv::out_param(digest, digestSize), &digestSize),
              0u);
    EXPECT_EQ(payload, TypeParam::kAnswerAbc);
    ASSERT_NE(digest.get(), nullptr);
    EXPECT_EQ(digestSize, 66u);
    EXPECT_EQ(Wide(digest.get(), digestSize - 2), kMd5Abc);
    EXPECT_EQ(reinterpret_cast<wchar_t*>(digest.get())[32], L'\0');
}

TYPED_TEST(AuthSdlFamily, StoredDigestGivesSameAnswerAndNoReturnDigest) {
    using Access = typename TestFixture::Access;
    std::wstring stored = kMd5Abc;
    AuthCredential credential = {this->user, &stored[0], nullptr};
    std::wstring payload;
    BYTE* digest = reinterpret_cast<BYTE*>(1);  // must come back null
    DWORD digestSize = 7;
    ASSERT_EQ(Access::MakeRstrData(this->auth, AUTH_FLAG_DIGEST_PASSWORD, kChallengeB64, &credential, &payload,
                                   &digest, &digestSize),
              0u);
    EXPECT_EQ(payload, TypeParam::kAnswerAbc);
    EXPECT_EQ(digest, nullptr);
    EXPECT_EQ(digestSize, 0u);
}

// SDL2 keys its HMAC with nothing; SDL hashes the challenge alone.
TYPED_TEST(AuthSdlFamily, EmptyPasswordGivesItsOwnAnswerAndNoDigest) {
    using Access = typename TestFixture::Access;
    wchar_t password[] = L"";
    AuthCredential credential = {this->user, password, nullptr};
    std::wstring payload;
    qv::ByteBuffer digest;
    DWORD digestSize = 0;
    ASSERT_EQ(Access::MakeRstrData(this->auth, 0, kChallengeB64, &credential, &payload,
                                   qv::out_param(digest, digestSize), &digestSize),
              0u);
    EXPECT_EQ(payload, TypeParam::kAnswerEmpty);
    EXPECT_EQ(digest.get(), nullptr);
    EXPECT_EQ(digestSize, 0u);
}

TYPED_TEST(AuthSdlFamily, AuthenticationRequiresPasswordWithoutStoredDigest) {
    CSoapTrans transport(L"127.0.0.1", 1, 2);  // never opened: nothing may be sent
    AuthInfo info = MakeAuthInfo(L"realm", TypeParam::kType);
    AuthCredential credential = {this->user, nullptr, nullptr};
    std::wstring id, token;
    BYTE* digest = nullptr;
    DWORD digestSize = 0;
    EXPECT_EQ(this->auth.Authentication(&transport, 0, &info, &credential, L"/wls/STSServer.actv", 8000, 8443,
                                        L"127.0.0.1", &id, &token, &digest, &digestSize),
              0xD5000057u);
    EXPECT_EQ(this->auth.Authentication(&transport, AUTH_FLAG_DIGEST_PASSWORD, &info, &credential,
                                        L"/wls/STSServer.actv", 8000, 8443, L"127.0.0.1", &id, &token, nullptr,
                                        &digestSize),
              0xD5000057u);
    EXPECT_EQ(digest, nullptr);
}

// ---- SDL2 alone --------------------------------------------------------------------

TEST(AuthSdl2, OddLengthStoredDigestIsRefused) {
    Auth_SDL2 auth;
    wchar_t user[] = L"jsmith";
    wchar_t stored[] = L"900150983cd24fb0d6963f7d28e17f7";  // 31 characters
    AuthCredential credential = {user, stored, nullptr};
    std::wstring payload;
    BYTE* digest = nullptr;
    DWORD digestSize = 0;
    EXPECT_EQ(Auth_SDL2Test::MakeRstrData(auth, AUTH_FLAG_DIGEST_PASSWORD, kChallengeB64, &credential, &payload,
                                          &digest, &digestSize),
              0xD5000057u);
    EXPECT_EQ(digest, nullptr);
    EXPECT_EQ(digestSize, 0u);
    EXPECT_TRUE(payload.empty());
}

TEST(AuthSdl2, UserIdOfMoreThan32CharactersIsRefused) {
    Auth_SDL2 auth;
    const BYTE key[16] = {};
    std::wstring payload;
    std::wstring user32(32, L'u');
    std::wstring user33(33, L'u');
    EXPECT_EQ(Auth_SDL2Test::MakeChallengeResponseData(auth, user32.c_str(), key, 16, kChallenge, sizeof(kChallenge),
                                                       &payload),
              0u);
    EXPECT_EQ(DecodeB64(payload).substr(0, 33), std::string(32, 'u') + " ");
    EXPECT_EQ(Auth_SDL2Test::MakeChallengeResponseData(auth, user33.c_str(), key, 16, kChallenge, sizeof(kChallenge),
                                                       &payload),
              0xD5000057u);

    // Refused before anything is sent: the transport is never opened.
    CSoapTrans transport(L"127.0.0.1", 1, 2);
    AuthInfo info = MakeAuthInfo(L"realm", L"SDL2");
    wchar_t password[] = L"abc";
    AuthCredential credential = {&user33[0], password, nullptr};
    std::wstring id, token;
    BYTE* digest = nullptr;
    DWORD digestSize = 0;
    EXPECT_EQ(auth.Authentication(&transport, 0, &info, &credential, L"/wls/STSServer.actv", 8000, 8443,
                                  L"127.0.0.1", &id, &token, &digest, &digestSize),
              0xD5000057u);
}

TEST(AuthSdl2, PasswordDigestUsesIso88591Bytes) {
    Auth_SDL2 auth;
    wchar_t user[] = L"jsmith";
    wchar_t password[] = L"\x00e9";  // é: one byte 0xE9 in ISO-8859-1, two in UTF-8
    AuthCredential credential = {user, password, nullptr};
    qv::ByteBuffer digest;
    DWORD digestSize = 0;
    ASSERT_EQ(Auth_SDL2Test::MakePasswordDigest(auth, 0, &credential, qv::out_param(digest, digestSize), &digestSize),
              0u);
    ASSERT_EQ(digestSize, 16u);
    qv::CharBuffer hex;
    DWORD hexSize = 0;
    ASSERT_EQ(Auth_SDL2Test::ToHexString(auth, digest.get(), digestSize, qv::out_param(hex, hexSize), &hexSize), 0u);
    EXPECT_EQ(std::string(hex.get(), hexSize), "3406877694691ddd1dfb0aca54681407");  // md5(b"\xe9")
    EXPECT_NE(std::string(hex.get(), hexSize), "66ddcd97cfdeabb2f6fb8a999b4bc76f");  // md5 of the UTF-8 form
}

TEST(AuthSdl2, PasswordOutsideIso88591IsHashedAfterPlatformConversion) {
    Auth_SDL2 auth;
    wchar_t user[] = L"jsmith";
    wchar_t password[] = L"p\x0101\x4e2d";  // ā and a CJK character
    AuthCredential credential = {user, password, nullptr};
    qv::ByteBuffer digest;
    DWORD digestSize = 0;
    ASSERT_EQ(Auth_SDL2Test::MakePasswordDigest(auth, 0, &credential, qv::out_param(digest, digestSize), &digestSize),
              0u);
    char converted[16] = {};
    int length = WideCharToMultiByte(28591, 0, password, -1, converted, sizeof(converted), nullptr, nullptr);
    ASSERT_GT(length, 1);
    qv::CharBuffer hex;
    DWORD hexSize = 0;
    ASSERT_EQ(Auth_SDL2Test::ToHexString(auth, digest.get(), digestSize, qv::out_param(hex, hexSize), &hexSize), 0u);
    EXPECT_EQ(std::string(hex.get(), hexSize), Md5Hex(std::string(converted, length - 1)));
    EXPECT_NE(std::string(hex.get(), hexSize), Md5Hex("p\xc4\x81\xe4\xb8\xad"));
}

TEST(AuthSdl2, HexConversionsRoundTrip) {
    Auth_SDL2 auth;
    const BYTE bytes[] = {0x00, 0x0f, 0xa5, 0xff};
    qv::CharBuffer hex;
    DWORD hexSize = 0;
    ASSERT_EQ(Auth_SDL2Test::ToHexString(auth, bytes, 4, qv::out_param(hex, hexSize), &hexSize), 0u);
    EXPECT_EQ(hexSize, 8u);
    EXPECT_STREQ(hex.get(), "000fa5ff");
    qv::ByteBuffer back;
    DWORD backSize = 0;
    ASSERT_EQ(Auth_SDL2Test::ToByteArray(auth, hex.get(), hexSize, qv::out_param(back, backSize), &backSize), 0u);
    ASSERT_EQ(backSize, 4u);
    EXPECT_EQ(std::memcmp(back.get(), bytes, 4), 0);
    EXPECT_EQ(Auth_SDL2Test::ToByteArray(auth, "ABC", 3, qv::out_param(back, backSize), &backSize), 0xD5000057u);
    ASSERT_EQ(Auth_SDL2Test::ToByteArray(auth, "A5ff", 4, qv::out_param(back, backSize), &backSize), 0u);
    EXPECT_EQ(back.get()[0], 0xA5);
    EXPECT_EQ(back.get()[1], 0xFF);

    qv::ByteBuffer wide;
    DWORD wideSize = 0;
    ASSERT_EQ(Auth_SDL2Test::MakeReturnDigest(auth, bytes, 4, qv::out_param(wide, wideSize), &wideSize), 0u);
    EXPECT_EQ(wideSize, 18u);
    EXPECT_STREQ(reinterpret_cast<wchar_t*>(wide.get()), L"000fa5ff");
}

TEST(AuthSdl2, UndecodableChallengeIsOutOfMemory) {
    Auth_SDL2 auth;
    wchar_t user[] = L"jsmith";
    wchar_t password[] = L"abc";
    AuthCredential credential = {user, password, nullptr};
    std::wstring payload;
    BYTE* digest = nullptr;
    DWORD digestSize = 0;
    EXPECT_EQ(Auth_SDL2Test::MakeRstrData(auth, 0, L"", &credential, &payload, &digest, &digestSize), 0xD500000Eu);
    EXPECT_EQ(digest, nullptr);
    EXPECT_EQ(digestSize, 0u);
}

TEST(AuthSdl2, PasswordRequiredUnlessStoredDigest) {
    Auth_SDL2 auth;
    wchar_t user[] = L"jsmith";
    AuthCredential credential = {user, nullptr, nullptr};
    std::wstring payload;
    BYTE* digest = nullptr;
    DWORD digestSize = 0;
    EXPECT_EQ(Auth_SDL2Test::MakeRstrData(auth, 0, kChallengeB64, &credential, &payload, &digest, &digestSize),
              0xD5000057u);
    // With a stored digest a missing one counts as empty.
    EXPECT_EQ(Auth_SDL2Test::MakeRstrData(auth, AUTH_FLAG_DIGEST_PASSWORD, kChallengeB64, &credential, &payload,
                                          &digest, &digestSize),
              0u);
    EXPECT_EQ(payload, kSdl2AnswerEmpty);
    EXPECT_EQ(Auth_SDL2Test::MakeRstrData(auth, 0, kChallengeB64, &credential, &payload, nullptr, &digestSize),
              0xD5000057u);
}

// ---- SDL alone ---------------------------------------------------------------------

TEST(AuthSdl, Md5IsLowercaseHexText) {
    Auth_SDL auth;
    qv::CharBuffer hex;
    DWORD size = 0;
    ASSERT_EQ(Auth_SDLTest::MakeMD5(auth, reinterpret_cast<const BYTE*>("abc"), 3, qv::out_param(hex, size), &size),
              0u);
    EXPECT_EQ(size, 32u);
    EXPECT_EQ(std::string(hex.get(), size), "900150983cd24fb0d6963f7d28e17f72");
}

TEST(AuthSdl, PasswordDigestUsesIso88591Bytes) {
    Auth_SDL auth;
    wchar_t user[] = L"jsmith";
    wchar_t password[] = L"\x00e9";
    AuthCredential credential = {user, password, nullptr};
    qv::CharBuffer digest;
    DWORD digestSize = 0;
    ASSERT_EQ(Auth_SDLTest::MakePasswordDigest(auth, 0, &credential, qv::out_param(digest, digestSize), &digestSize),
              0u);
    EXPECT_EQ(std::string(digest.get(), digestSize), "3406877694691ddd1dfb0aca54681407");
}

// ---- NTLM --------------------------------------------------------------------------

TEST(AuthNtlm, SspiErrorTable) {
    struct Row {
        DWORD platform;
        DWORD result;
    };
    const Row rows[] = {
        {0x80090300, 0xD5040001}, {0x80090304, 0xD5040002}, {0x8009030E, 0xD5040003}, {0x80090306, 0xD5040004},
        {0x80090305, 0xD5040005}, {0x8009030D, 0xD5040006}, {0x80090301, 0xD5040007}, {0x80090308, 0xD5040008},
        {0x8009030C, 0xD5040009}, {0x80090311, 0xD504000A}, {0x80090303, 0xD504000B}, {0x80090302, 0xD504000C},
        {0x80090322, 0xD504000D},
    };
    for (const Row& row : rows) EXPECT_EQ(Auth_NTLM::MapSspiError(row.platform), row.result) << std::hex << row.platform;
    for (DWORD other : {0u, 5u, 87u, 0x80090312u, 0x00090312u, 0x80090320u}) {
        EXPECT_EQ(Auth_NTLM::MapSspiError(other), 0xD504FFFFu) << std::hex << other;
    }
}

TEST(AuthNtlm, ExplicitCredentialNeedsAllThreeFields) {
    Auth_NTLM auth;
    wchar_t user[] = L"jsmith";
    wchar_t password[] = L"pw";
    AuthCredential noDomain = {user, password, nullptr};
    std::wstring payload;
    EXPECT_EQ(Auth_NTLMTest::MakeRstData(auth, AUTH_FLAG_EXPLICIT_CREDENTIAL, &noDomain, &payload), 0xD5000057u);
    EXPECT_EQ(Auth_NTLMTest::MakeRstData(auth, AUTH_FLAG_EXPLICIT_CREDENTIAL, nullptr, &payload), 0xD5000057u);

    CSoapTrans transport(L"127.0.0.1", 1, 2);
    AuthInfo info = MakeAuthInfo(L"", L"NTLM");
    std::wstring id, token;
    BYTE* digest = nullptr;
    DWORD digestSize = 0;
    EXPECT_EQ(auth.Authentication(&transport, AUTH_FLAG_EXPLICIT_CREDENTIAL, &info, &noDomain, L"/wls/STSServer.actv",
                                  8000, 8443, L"127.0.0.1", &id, &token, &digest, &digestSize),
              0xD5000057u);
    // The record itself is always required, even for the logged-on user.
    EXPECT_EQ(auth.Authentication(&transport, 0, &info, nullptr, L"/wls/STSServer.actv", 8000, 8443, L"127.0.0.1",
                                  &id, &token, &digest, &digestSize),
              0xD5000057u);
    EXPECT_EQ(auth.Authentication(&transport, 0, &info, &noDomain, L"/wls/STSServer.actv", 8000, 8443, L"127.0.0.1",
                                  &id, &token, &digest, nullptr),
              0xD5000057u);
}

TEST(AuthNtlm, FirstLegMakesNegotiateTokenFromCallersStrings) {
    Auth_NTLM auth;
    wchar_t user[] = L"jsmith";
    wchar_t password[] = L"Secret-1";
    wchar_t domain[] = L"CORP";
    AuthCredential credential = {user, password, domain};
    std::wstring payload;
    ASSERT_EQ(Auth_NTLMTest::MakeRstData(auth, AUTH_FLAG_EXPLICIT_CREDENTIAL, &credential, &payload), 0u);
    std::string token = DecodeB64(payload);
    ASSERT_GE(token.size(), 12u);
    EXPECT_EQ(token.substr(0, 8), std::string("NTLMSSP\0", 8));
    EXPECT_EQ(token[8], 1);  // negotiate message
    const SEC_WINNT_AUTH_IDENTITY_W& identity = Auth_NTLMTest::Identity(auth);
    EXPECT_EQ(reinterpret_cast<wchar_t*>(identity.User), user);
    EXPECT_EQ(identity.UserLength, 6u);
    EXPECT_EQ(reinterpret_cast<wchar_t*>(identity.Domain), domain);
    EXPECT_EQ(identity.DomainLength, 4u);
    EXPECT_EQ(reinterpret_cast<wchar_t*>(identity.Password), password);
    EXPECT_EQ(identity.PasswordLength, 8u);
    EXPECT_EQ(identity.Flags, static_cast<unsigned long>(SEC_WINNT_AUTH_IDENTITY_UNICODE));
    EXPECT_TRUE(Auth_NTLMTest::HasContext(auth));
    EXPECT_TRUE(Auth_NTLMTest::HasCredentials(auth));
}

namespace {

int g_iscCalls = 0;
SECURITY_STATUS g_secondLegStatus = SEC_I_CONTINUE_NEEDED;

// First leg: the real package; second leg: the status under test.
SECURITY_STATUS SEC_ENTRY ScriptedInitializeSecurityContext(PCredHandle credential, PCtxtHandle context,
                                                            SEC_WCHAR* target, unsigned long requirements,
                                                            unsigned long reserved1, unsigned long representation,
                                                            PSecBufferDesc input, unsigned long reserved2,
                                                            PCtxtHandle newContext, PSecBufferDesc output,
                                                            unsigned long* attributes, PTimeStamp expiry) {
    if (g_iscCalls++ == 0) {
        return InitializeSecurityContextW(credential, context, target, requirements, reserved1, representation,
                                          input, reserved2, newContext, output, attributes, expiry);
    }
    if (output && output->cBuffers > 0 && output->pBuffers[0].cbBuffer >= 3) {
        std::memcpy(output->pBuffers[0].pvBuffer, "abc", 3);
        output->pBuffers[0].cbBuffer = 3;
    }
    return g_secondLegStatus;
}

// Both legs through the real package, but the first leg reports completion.
SECURITY_STATUS SEC_ENTRY CompletingFirstLeg(PCredHandle credential, PCtxtHandle context, SEC_WCHAR* target,
                                             unsigned long requirements, unsigned long reserved1,
                                             unsigned long representation, PSecBufferDesc input,
                                             unsigned long reserved2, PCtxtHandle newContext, PSecBufferDesc output,
                                             unsigned long* attributes, PTimeStamp expiry) {
    SECURITY_STATUS status = InitializeSecurityContextW(credential, context, target, requirements, reserved1,
                                                        representation, input, reserved2, newContext, output,
                                                        attributes, expiry);
    return status == SEC_I_CONTINUE_NEEDED ? SEC_E_OK : status;
}

bool AllZero(const void* data, size_t size) {
    const BYTE* bytes = static_cast<const BYTE*>(data);
    for (size_t i = 0; i < size; ++i)
        if (bytes[i]) return false;
    return true;
}

}  // namespace

TEST(AuthNtlm, SecondLegContinueNeededIsAFailure) {
    Auth_NTLM auth;
    g_iscCalls = 0;
    g_secondLegStatus = SEC_I_CONTINUE_NEEDED;
    Auth_NTLMTest::SetInitializeSecurityContext(auth, &ScriptedInitializeSecurityContext);
    wchar_t user[] = L"jsmith";
    wchar_t password[] = L"Secret-1";
    wchar_t domain[] = L"CORP";
    AuthCredential credential = {user, password, domain};
    std::wstring payload;
    ASSERT_EQ(Auth_NTLMTest::MakeRstData(auth, AUTH_FLAG_EXPLICIT_CREDENTIAL, &credential, &payload), 0u);
    std::wstring answer;
    DWORD result = Auth_NTLMTest::MakeRstrData(auth, kChallengeB64, &answer);
    EXPECT_EQ(g_iscCalls, 2);
    EXPECT_TRUE(ZEB_FAILED(result)) << std::hex << result;
    EXPECT_EQ(result & 0xFFFF0000u, 0xD5040000u) << std::hex << result;
    EXPECT_TRUE(answer.empty());
    // The exchange is over: identity wiped (all 48 bytes), handles released.
    static_assert(sizeof(SEC_WINNT_AUTH_IDENTITY_W) == 48, "x64 identity record");
    EXPECT_TRUE(AllZero(&Auth_NTLMTest::Identity(auth), sizeof(SEC_WINNT_AUTH_IDENTITY_W)));
    EXPECT_FALSE(Auth_NTLMTest::HasContext(auth));
    EXPECT_FALSE(Auth_NTLMTest::HasCredentials(auth));
    EXPECT_STREQ(password, L"Secret-1");  // the caller's strings are left alone
}

TEST(AuthNtlm, SecondLegOkGivesTokenAndEndsExchange) {
    Auth_NTLM auth;
    g_iscCalls = 0;
    g_secondLegStatus = SEC_E_OK;
    Auth_NTLMTest::SetInitializeSecurityContext(auth, &ScriptedInitializeSecurityContext);
    wchar_t user[] = L"jsmith";
    wchar_t password[] = L"Secret-1";
    wchar_t domain[] = L"CORP";
    AuthCredential credential = {user, password, domain};
    std::wstring payload;
    ASSERT_EQ(Auth_NTLMTest::MakeRstData(auth, AUTH_FLAG_EXPLICIT_CREDENTIAL, &credential, &payload), 0u);
    std::wstring answer;
    ASSERT_EQ(Auth_NTLMTest::MakeRstrData(auth, kChallengeB64, &answer), 0u);
    EXPECT_EQ(answer, L"YWJj");  // "abc"
    EXPECT_TRUE(AllZero(&Auth_NTLMTest::Identity(auth), sizeof(SEC_WINNT_AUTH_IDENTITY_W)));
    EXPECT_FALSE(Auth_NTLMTest::HasContext(auth));
}

TEST(AuthNtlm, FirstLegMustAskToContinue) {
    Auth_NTLM auth;
    Auth_NTLMTest::SetInitializeSecurityContext(auth, &CompletingFirstLeg);
    wchar_t user[] = L"jsmith";
    wchar_t password[] = L"Secret-1";
    wchar_t domain[] = L"CORP";
    AuthCredential credential = {user, password, domain};
    std::wstring payload;
    DWORD result = Auth_NTLMTest::MakeRstData(auth, AUTH_FLAG_EXPLICIT_CREDENTIAL, &credential, &payload);
    EXPECT_EQ(result & 0xFFFF0000u, 0xD5040000u) << std::hex << result;
    EXPECT_TRUE(payload.empty());
    EXPECT_FALSE(Auth_NTLMTest::HasContext(auth));
}

TEST(AuthNtlm, SecondLegWithoutFirstLegIsRefused) {
    Auth_NTLM auth;
    std::wstring answer;
    EXPECT_EQ(Auth_NTLMTest::MakeRstrData(auth, kChallengeB64, &answer), 0xD5010001u);
}

TEST(AuthNtlm, UndecodableChallengeIsOutOfMemory) {
    Auth_NTLM auth;
    wchar_t user[] = L"jsmith";
    wchar_t password[] = L"Secret-1";
    wchar_t domain[] = L"CORP";
    AuthCredential credential = {user, password, domain};
    std::wstring payload;
    ASSERT_EQ(Auth_NTLMTest::MakeRstData(auth, AUTH_FLAG_EXPLICIT_CREDENTIAL, &credential, &payload), 0u);
    std::wstring answer;
    EXPECT_EQ(Auth_NTLMTest::MakeRstrData(auth, L"", &answer), 0xD500000Eu);
    EXPECT_TRUE(AllZero(&Auth_NTLMTest::Identity(auth), sizeof(SEC_WINNT_AUTH_IDENTITY_W)));
}

TEST(AuthNtlm, UserIdCorrectedOnlyForSameLengthCaseVariant) {
    Auth_NTLM auth;
    wchar_t user[] = L"jsmith";
    AuthCredential credential = {user, nullptr, nullptr};
    Auth_NTLMTest::CorrectUserId(auth, &credential, L"JSMITH");
    EXPECT_STREQ(user, L"JSMITH");

    wchar_t user2[] = L"jsmith2";
    AuthCredential credential2 = {user2, nullptr, nullptr};
    Auth_NTLMTest::CorrectUserId(auth, &credential2, L"JSMITH");
    EXPECT_STREQ(user2, L"jsmith2");

    wchar_t user3[] = L"jsmith";
    AuthCredential credential3 = {user3, nullptr, nullptr};
    Auth_NTLMTest::CorrectUserId(auth, &credential3, L"");
    EXPECT_STREQ(user3, L"jsmith");
    Auth_NTLMTest::CorrectUserId(auth, &credential3, L"jsmith");
    EXPECT_STREQ(user3, L"jsmith");
    Auth_NTLMTest::CorrectUserId(auth, &credential3, L"JSMITHS");
    EXPECT_STREQ(user3, L"jsmith");

    AuthCredential noUser = {nullptr, nullptr, nullptr};
    Auth_NTLMTest::CorrectUserId(auth, &noUser, L"JSMITH");  // nothing to correct, no crash
}

TEST(AuthNtlm, LogonUserDomainAnswersWithoutFailing) {
    Auth_NTLM auth;
    std::wstring domain = L"stale";
    // The platform calls' own failures leave the domain empty, not an error.
    EXPECT_EQ(Auth_NTLMTest::GetLogonUserDomain(auth, &domain), 0u);
    EXPECT_NE(domain, L"stale");
    EXPECT_EQ(Auth_NTLMTest::GetLogonUserDomain(auth, nullptr), 0xD5000057u);
}
