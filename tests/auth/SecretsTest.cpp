// Secrets are wiped before their memory is freed. What these tests can look
// at, and how (the wiping string allocator and SecureWipe have their own
// tests, tests/common/SecretStringTest.cpp):
// - the NTLM identity record: in the object's own storage after the
//   destructor ran (the object is built in a buffer the test owns);
// - the Basic2 login message and its request envelope: by scanning the C
//   runtime's heap, busy and free blocks, for the password once every object
//   is gone (support/HeapScan.h says what such a scan cannot see).
// Copies made by the platform (WinHTTP, CryptoAPI, SSPI) and stack frames are
// out of reach here.
#include <gtest/gtest.h>
#include <windows.h>
#include <wincrypt.h>

#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "auth/Auth_NTLM.h"
#include "auth/AuthTestAccess.h"
#include "auth/SdlSteps.h"
#include "common/HeapBuffer.h"
#include "common/SecretString.h"
#include "messages/RST_Basic2.h"
#include "soap/SoapRequest.h"
#include "support/HeapScan.h"
#include "support/TestSupport.h"

namespace {

using qvtest::AllZero;

// The NTLM identity record points into the caller's strings, password
// included: an exchange abandoned after its first leg (the login client
// deletes the mechanism whatever happened) is wiped by the destructor.
TEST(Secrets, NtlmIdentityIsWipedByTheDestructor) {
    alignas(Auth_NTLM) unsigned char storage[sizeof(Auth_NTLM)];
    Auth_NTLM* auth = new (storage) Auth_NTLM();
    wchar_t user[] = L"jsmith";
    wchar_t password[] = L"Secret-1";
    wchar_t domain[] = L"CORP";
    AuthCredential credential = {user, password, domain};
    std::wstring payload;
    ASSERT_EQ(Auth_NTLMTest::MakeRstData(*auth, AUTH_FLAG_EXPLICIT_CREDENTIAL, &credential, &payload), 0u);
    const SEC_WINNT_AUTH_IDENTITY_W& identity = Auth_NTLMTest::Identity(*auth);
    ASSERT_EQ(reinterpret_cast<wchar_t*>(identity.Password), password);
    const size_t offset = reinterpret_cast<const unsigned char*>(&identity) - storage;
    ASSERT_LE(offset + sizeof(SEC_WINNT_AUTH_IDENTITY_W), sizeof(storage));

    auth->~Auth_NTLM();
    // The storage is the test's own: the record's bytes are still readable.
    EXPECT_TRUE(AllZero(storage + offset, sizeof(SEC_WINNT_AUTH_IDENTITY_W)));
    EXPECT_STREQ(password, L"Secret-1");  // the caller's strings are the caller's
}

// Random hex digits into `out` (count characters).
bool RandomHex(wchar_t* out, size_t count) {
    HCRYPTPROV prov = 0;
    if (!CryptAcquireContextW(&prov, nullptr, nullptr, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT)) return false;
    bool ok = true;
    static const wchar_t kDigits[] = L"0123456789abcdef";
    for (size_t i = 0; i < count && ok; ++i) {
        BYTE b = 0;
        ok = CryptGenRandom(prov, 1, &b) != FALSE;
        out[i] = kDigits[b & 0x0F];
        SecureZeroMemory(&b, 1);
    }
    CryptReleaseContext(prov, 0);
    return ok;
}

// The Basic2 message escapes the password into its body; the body goes into
// the request, and the request makes the envelope the transport sends. Once
// the message and the request are gone (and the envelope texts were wiped, as
// the transport does), no copy of the password is left in the heap: not of
// the text as given, not of its escaped form, not of a partial copy left
// when a string grew.
TEST(Secrets, Basic2EnvelopeLeavesNoCopyOfThePassword) {
    qvtest::SecretArena arena;
    ASSERT_TRUE(arena.Ok());
    // <12 hex>&<"<16 hex>: the escaping makes the text grow.
    wchar_t* password = arena.TakeWide(40);
    ASSERT_TRUE(RandomHex(password, 12));
    wcscpy(password + 12, L"&<\"");
    ASSERT_TRUE(RandomHex(password + 15, 16));
    wchar_t* user = arena.TakeWide(16);
    wcscpy(user, L"keeper");
    wchar_t* domain = arena.TakeWide(16);
    wcscpy(domain, L"LAB");
    AuthCredential credential = {user, password, domain};

    // The last 14 characters: both the given and the escaped text end so.
    BYTE* tail = static_cast<BYTE*>(arena.Take(14 * sizeof(wchar_t)));
    std::memcpy(tail, password + 17, 14 * sizeof(wchar_t));
    const std::vector<qvtest::Needle> needles = {{"password tail (UTF-16)", tail, 14 * sizeof(wchar_t)}};
    std::vector<qvtest::HeapHit> hits;
    hits.reserve(16);

    {
        SoapRequest request(L"127.0.0.1", 8000, 8443, L"/wls/STSServer.actv");
        {
            RST_Basic2 message(L"LAB", L"Basic2", &credential);
            ASSERT_EQ(message.Serialize(&request), 0u);
        }
        // While the request lives, its body holds the escaped password.
        ASSERT_NE(request.GetSoapBody().find(L"&amp;&lt;&quot;"), std::wstring::npos);
        std::wstring envelope;
        std::wstring returned = request.GetSoapEnvelope(envelope, FALSE, L"");
        ASSERT_NE(envelope.find(L"<wls:Password>"), std::wstring::npos);
        qv::SecureWipe(returned);
        qv::SecureWipe(envelope);
    }
    EXPECT_EQ(qvtest::ScanCrtHeap(needles, hits), 0u) << qvtest::DescribeHits(hits);
}

}  // namespace

// The holder of a converted password knows every byte it holds: a size read
// before the conversion ran (an argument order the compiler may choose) would
// leave all of them unwiped when the holder frees the block.
TEST(Secrets, PasswordBytesAreHeldWithTheirSizeSoAllAreWiped) {
    wchar_t user[] = L"u", password[] = L"p\u00e4ssword-12", domain[] = L"d";
    AuthCredential credential = {user, password, domain};
    for (DWORD flags : {DWORD{0}, DWORD{AUTH_FLAG_DIGEST_PASSWORD}}) {
        qv::SecretChars bytes;
        DWORD size = 0;
        ASSERT_EQ(qv::PasswordFieldBytes(L"Auth_SDL", flags, &credential, bytes, &size), 0u);
        EXPECT_GE(size, 11u);
        EXPECT_EQ(bytes.bytes(), static_cast<size_t>(size)) << "flags " << flags;
    }
}
