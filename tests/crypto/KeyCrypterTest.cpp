#include <gtest/gtest.h>
#include <windows.h>
#include <wincrypt.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Quorvantis.h"
#include "common/HeapBuffer.h"
#include "crypto/KeyCrypter.h"
#include "log/WSCLog.h"
#include "support/TestSupport.h"

namespace {

using Bytes = std::vector<BYTE>;

std::string Hex(const BYTE* data, size_t size) {
    std::string text;
    char piece[3];
    for (size_t i = 0; i < size; ++i) {
        std::snprintf(piece, sizeof(piece), "%02x", data[i]);
        text += piece;
    }
    return text;
}

Bytes FromText(const char* text) { return Bytes(text, text + std::strlen(text)); }

// Sends the trace log of this program to a temporary file at level 5 while alive.
class LogCapture {
public:
    LogCapture() : m_previous(WSCLog::Threshold()), m_file(m_dir.File(L"trace.log")) { WSCLog::Configure(5, m_file); }
    ~LogCapture() { WSCLog::Configure(m_previous, L""); }
    std::string Text() const { return qvtest::ReadFileBytes(m_file); }
    bool Contains(const std::string& text) const { return Text().find(text) != std::string::npos; }

private:
    qvtest::TempDir m_dir;
    DWORD m_previous;
    std::wstring m_file;
};

// ---- A scripted CryptAcquireContextW for the container fallbacks ----------

struct AcquireCall {
    std::wstring container;
    DWORD type;
    DWORD flags;
};

struct AcquireScript {
    std::vector<AcquireCall> calls;
    std::vector<DWORD> refusedFlags;  // acquisitions with these flags fail
    DWORD refusalError = static_cast<DWORD>(NTE_BAD_KEYSET);
    bool deleteSucceeds = true;
    DWORD deleteError = ERROR_ACCESS_DENIED;
};
AcquireScript g_script;

BOOL WINAPI ScriptedAcquire(HCRYPTPROV* provider, LPCWSTR container, LPCWSTR providerName, DWORD type, DWORD flags) {
    g_script.calls.push_back({container ? container : L"", type, flags});
    if (flags & CRYPT_DELETEKEYSET) {
        *provider = 0;
        if (g_script.deleteSucceeds) return TRUE;
        SetLastError(g_script.deleteError);
        return FALSE;
    }
    for (DWORD refused : g_script.refusedFlags) {
        if (refused == flags) {
            SetLastError(g_script.refusalError);
            return FALSE;
        }
    }
    // Any accepted acquisition hands out a real (verify-only) context, so
    // that the object works afterwards.
    return CryptAcquireContextW(provider, nullptr, providerName, type, CRYPT_VERIFYCONTEXT);
}

// Installs the scripted acquire call for one test.
class ScriptedProvider {
public:
    ScriptedProvider() {
        g_script = AcquireScript();
        KeyCrypter::SetAcquireContextForTest(&ScriptedAcquire);
    }
    ~ScriptedProvider() { KeyCrypter::SetAcquireContextForTest(nullptr); }
};

std::wstring ExpectedContainerName() {
    wchar_t name[64] = {};
    _snwprintf(name, 63, L"DCI_5A147B9F-72E9-4c79-905A-23635FDB8106-%08x", GetCurrentThreadId());
    return name;
}

// ---- An RSA key pair of the test's own, for the public-key encryption -----

class RsaKeyPair {
public:
    RsaKeyPair() {
        if (!CryptAcquireContextW(&m_prov, nullptr, nullptr, PROV_RSA_SCHANNEL, CRYPT_VERIFYCONTEXT)) return;
        if (!CryptGenKey(m_prov, CALG_RSA_KEYX, (2048u << 16) | CRYPT_EXPORTABLE, &m_key)) return;
        DWORD blobSize = 0;
        if (!CryptExportKey(m_key, 0, PUBLICKEYBLOB, 0, nullptr, &blobSize)) return;
        Bytes blob(blobSize);
        if (!CryptExportKey(m_key, 0, PUBLICKEYBLOB, 0, blob.data(), &blobSize)) return;
        DWORD derSize = 0;
        const DWORD encoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
        if (!CryptEncodeObject(encoding, RSA_CSP_PUBLICKEYBLOB, blob.data(), nullptr, &derSize)) return;
        m_der.resize(derSize);
        if (!CryptEncodeObject(encoding, RSA_CSP_PUBLICKEYBLOB, blob.data(), m_der.data(), &derSize)) {
            m_der.clear();
            return;
        }
        m_der.resize(derSize);
    }
    ~RsaKeyPair() {
        if (m_key) CryptDestroyKey(m_key);
        if (m_prov) CryptReleaseContext(m_prov, 0);
    }
    const Bytes& PublicDer() const { return m_der; }
    // Decrypts a little-endian CryptoAPI block with the private half.
    Bytes Decrypt(Bytes block) const {
        DWORD size = static_cast<DWORD>(block.size());
        if (!CryptDecrypt(m_key, 0, TRUE, 0, block.data(), &size)) return Bytes();
        block.resize(size);
        return block;
    }

private:
    HCRYPTPROV m_prov = 0;
    HCRYPTKEY m_key = 0;
    Bytes m_der;
};

// ---- Initialize / Clear ---------------------------------------------------

TEST(KeyCrypterInitialize, VerifyContextIsTheFirstChoice) {
    KeyCrypter crypter;
    EXPECT_EQ(crypter.Provider(), 0u);
    ASSERT_EQ(crypter.Initialize(CALG_MD5, 0), 0u);
    EXPECT_NE(crypter.Provider(), 0u);
    EXPECT_EQ(crypter.State(), static_cast<DWORD>(KeyCrypter::kVerifyContext));
    EXPECT_EQ(crypter.Clear(), 0u);
    EXPECT_EQ(crypter.Provider(), 0u);
}

TEST(KeyCrypterInitialize, AllThreeAlgorithmsAreAccepted) {
    for (ALG_ID algorithm : {CALG_3DES, CALG_MD5, CALG_RSA_KEYX}) {
        KeyCrypter crypter;
        EXPECT_EQ(crypter.Initialize(algorithm, 0), 0u) << algorithm;
        EXPECT_EQ(crypter.Clear(), 0u);
    }
}

TEST(KeyCrypterInitialize, SecondInitializeFailsAndKeepsTheFirstProvider) {
    LogCapture log;
    KeyCrypter crypter;
    ASSERT_EQ(crypter.Initialize(CALG_MD5, 0), 0u);
    const HCRYPTPROV first = crypter.Provider();
    EXPECT_EQ(crypter.Initialize(CALG_MD5, 0), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(crypter.Provider(), first);
    EXPECT_TRUE(log.Contains("CKeyCrypter::Initialize Initialized Before ZEB_ERROR = d5000057"));
    // The first provider is still usable.
    qv::ByteBuffer hash;
    DWORD hashSize = 0;
    EXPECT_EQ(crypter.GetHashData(reinterpret_cast<const BYTE*>("abc"), 3, qv::out_param(hash, hashSize), &hashSize),
              0u);
}

TEST(KeyCrypterInitialize, UnsupportedAlgorithmIsTheGeneralError) {
    LogCapture log;
    for (ALG_ID algorithm : {static_cast<ALG_ID>(CALG_SHA1), static_cast<ALG_ID>(CALG_RC4), static_cast<ALG_ID>(0)}) {
        KeyCrypter crypter;
        EXPECT_EQ(crypter.Initialize(algorithm, 0), ZEB_ERROR_CRYPT_GENERAL_ERROR);
        EXPECT_EQ(crypter.Provider(), 0u);
    }
    EXPECT_TRUE(log.Contains("CKeyCrypter::Initialize UnsupportedProvider ZEB_ERROR = d503ffff"));
}

TEST(KeyCrypterInitialize, SharedProviderIsReferencedNotReplaced) {
    HCRYPTPROV shared = 0;
    ASSERT_TRUE(CryptAcquireContextW(&shared, nullptr, nullptr, PROV_RSA_SCHANNEL, CRYPT_VERIFYCONTEXT));
    {
        KeyCrypter crypter;
        ASSERT_EQ(crypter.Initialize(CALG_RSA_KEYX, shared), 0u);
        EXPECT_EQ(crypter.Provider(), shared);
        EXPECT_EQ(crypter.State(), static_cast<DWORD>(KeyCrypter::kSharedProvider));
        EXPECT_EQ(crypter.Clear(), 0u);
    }
    // Clear dropped only the reference it added: the caller's handle still works.
    BYTE random[8] = {};
    EXPECT_TRUE(CryptGenRandom(shared, sizeof(random), random));
    EXPECT_TRUE(CryptReleaseContext(shared, 0));
}

TEST(KeyCrypterInitialize, ClearTwiceIsHarmless) {
    LogCapture log;
    KeyCrypter crypter;
    ASSERT_EQ(crypter.Initialize(CALG_3DES, 0), 0u);
    EXPECT_EQ(crypter.Clear(), 0u);
    EXPECT_EQ(crypter.Clear(), 0u);
    EXPECT_EQ(crypter.Provider(), 0u);
    EXPECT_TRUE(log.Contains("KeyCrypter::Clear m_hProv == NULL"));
    // Initialize works again after Clear.
    EXPECT_EQ(crypter.Initialize(CALG_MD5, 0), 0u);
}

TEST(KeyCrypterInitialize, UserContainerWhenVerifyContextIsRefused) {
    LogCapture log;
    ScriptedProvider scripted;
    g_script.refusedFlags = {CRYPT_VERIFYCONTEXT, 0};
    KeyCrypter crypter;
    ASSERT_EQ(crypter.Initialize(CALG_MD5, 0), 0u);
    EXPECT_EQ(crypter.State(), static_cast<DWORD>(KeyCrypter::kUserKeySet));
    const std::wstring expected = ExpectedContainerName();
    EXPECT_EQ(expected.size(), 49u);
    EXPECT_EQ(std::wstring(crypter.ContainerName()), expected);

    ASSERT_EQ(g_script.calls.size(), 3u);
    EXPECT_EQ(g_script.calls[0].flags, static_cast<DWORD>(CRYPT_VERIFYCONTEXT));
    EXPECT_TRUE(g_script.calls[0].container.empty());
    EXPECT_EQ(g_script.calls[1].flags, 0u);
    EXPECT_EQ(g_script.calls[1].container, expected);
    EXPECT_EQ(g_script.calls[2].flags, static_cast<DWORD>(CRYPT_NEWKEYSET));
    for (const AcquireCall& call : g_script.calls) EXPECT_EQ(call.type, static_cast<DWORD>(PROV_RSA_SCHANNEL));

    EXPECT_EQ(crypter.Clear(), 0u);
    ASSERT_EQ(g_script.calls.size(), 4u);
    EXPECT_EQ(g_script.calls[3].flags, static_cast<DWORD>(CRYPT_DELETEKEYSET));
    EXPECT_EQ(g_script.calls[3].container, expected);
    // The state survives Clear.
    EXPECT_EQ(crypter.State(), static_cast<DWORD>(KeyCrypter::kUserKeySet));

    EXPECT_TRUE(log.Contains("CKeyCrypter::Initialize CryptAcquireContext (original return code = 80090016)"));
    std::string narrowName(expected.begin(), expected.end());
    EXPECT_TRUE(log.Contains("CKeyCrypter::Initialize m_tszKeyContainerName = " + narrowName));
}

TEST(KeyCrypterInitialize, MachineContainerAfterTheUserKeySet) {
    LogCapture log;
    ScriptedProvider scripted;
    g_script.refusedFlags = {CRYPT_VERIFYCONTEXT, 0, CRYPT_NEWKEYSET};
    g_script.deleteSucceeds = false;
    g_script.deleteError = static_cast<DWORD>(NTE_BAD_KEYSET);
    KeyCrypter crypter;
    ASSERT_EQ(crypter.Initialize(CALG_MD5, 0), 0u);
    EXPECT_EQ(crypter.State(), static_cast<DWORD>(KeyCrypter::kMachineKeySet));
    ASSERT_EQ(g_script.calls.size(), 4u);
    EXPECT_EQ(g_script.calls[3].flags, static_cast<DWORD>(CRYPT_MACHINE_KEYSET));

    // A failed delete is only logged.
    EXPECT_EQ(crypter.Clear(), 0u);
    EXPECT_EQ(crypter.Provider(), 0u);
    ASSERT_EQ(g_script.calls.size(), 5u);
    EXPECT_EQ(g_script.calls[4].flags, static_cast<DWORD>(CRYPT_DELETEKEYSET | CRYPT_MACHINE_KEYSET));
    std::wstring name = ExpectedContainerName();
    EXPECT_TRUE(log.Contains("(containaer name = " + std::string(name.begin(), name.end()) +
                             ") could not delete (original return code = 80090016)"));
}

TEST(KeyCrypterInitialize, CreatedMachineContainerIsTheLastTry) {
    ScriptedProvider scripted;
    g_script.refusedFlags = {CRYPT_VERIFYCONTEXT, 0, CRYPT_NEWKEYSET, CRYPT_MACHINE_KEYSET};
    KeyCrypter crypter;
    ASSERT_EQ(crypter.Initialize(CALG_3DES, 0), 0u);
    EXPECT_EQ(crypter.State(), static_cast<DWORD>(KeyCrypter::kMachineKeySet));
    ASSERT_EQ(g_script.calls.size(), 5u);
    EXPECT_EQ(g_script.calls[4].flags, static_cast<DWORD>(CRYPT_MACHINE_KEYSET | CRYPT_NEWKEYSET));
}

TEST(KeyCrypterInitialize, AllRefusedGivesTheMappedLastError) {
    LogCapture log;
    ScriptedProvider scripted;
    g_script.refusedFlags = {CRYPT_VERIFYCONTEXT, 0, CRYPT_NEWKEYSET, CRYPT_MACHINE_KEYSET,
                             CRYPT_MACHINE_KEYSET | CRYPT_NEWKEYSET};
    g_script.refusalError = static_cast<DWORD>(NTE_BAD_KEYSET);
    KeyCrypter crypter;
    EXPECT_EQ(crypter.Initialize(CALG_MD5, 0), ZEB_ERROR_CRYPT_BAD_KEYSET);
    EXPECT_EQ(crypter.Provider(), 0u);
    // Only access denied leads to the delete attempt.
    EXPECT_EQ(g_script.calls.size(), 5u);
    EXPECT_TRUE(log.Contains("CKeyCrypter::Initialize CryptAcquireContext ZEB_ERROR = d5030002"));
}

TEST(KeyCrypterInitialize, AccessDeniedDeletesTheMachineContainer) {
    LogCapture log;
    ScriptedProvider scripted;
    g_script.refusedFlags = {CRYPT_VERIFYCONTEXT, 0, CRYPT_NEWKEYSET, CRYPT_MACHINE_KEYSET,
                             CRYPT_MACHINE_KEYSET | CRYPT_NEWKEYSET};
    g_script.refusalError = ERROR_ACCESS_DENIED;
    g_script.deleteSucceeds = true;
    KeyCrypter crypter;
    // Access denied is not in the table: the general code, either way.
    EXPECT_EQ(crypter.Initialize(CALG_MD5, 0), ZEB_ERROR_CRYPT_GENERAL_ERROR);
    ASSERT_EQ(g_script.calls.size(), 6u);
    EXPECT_EQ(g_script.calls[5].flags, static_cast<DWORD>(CRYPT_DELETEKEYSET | CRYPT_MACHINE_KEYSET));
    EXPECT_EQ(g_script.calls[5].container, ExpectedContainerName());
    EXPECT_TRUE(
        log.Contains("CKeyCrypter::Initialize CryptAcquireContext(CRYPT_DELETEKEYSET | CRYPT_MACHINE_KEYSET) success"));

    g_script.calls.clear();
    g_script.deleteSucceeds = false;
    g_script.deleteError = ERROR_ACCESS_DENIED;
    EXPECT_EQ(crypter.Initialize(CALG_MD5, 0), ZEB_ERROR_CRYPT_GENERAL_ERROR);
    EXPECT_EQ(g_script.calls.size(), 6u);
    EXPECT_TRUE(log.Contains("CKeyCrypter::Initialize CryptAcquireContext(CRYPT_DELETEKEYSET | CRYPT_MACHINE_KEYSET) "
                             "not success (return code = 00000005), but continue anyway."));
    EXPECT_TRUE(log.Contains("ZEB_ERROR_CRYPT_GENERAL_ERROR (original error code = 00000005)"));
}

TEST(KeyCrypterInitialize, RealUserContainerRoundTrip) {
    // Forward everything but the verify-only context to the platform, so that
    // a real per-thread container is made and deleted.
    struct Forward {
        static BOOL WINAPI Acquire(HCRYPTPROV* provider, LPCWSTR container, LPCWSTR name, DWORD type, DWORD flags) {
            if (flags == CRYPT_VERIFYCONTEXT) {
                SetLastError(static_cast<DWORD>(NTE_BAD_KEYSET));
                return FALSE;
            }
            return CryptAcquireContextW(provider, container, name, type, flags);
        }
    };
    KeyCrypter::SetAcquireContextForTest(&Forward::Acquire);
    KeyCrypter crypter;
    DWORD result = crypter.Initialize(CALG_MD5, 0);
    EXPECT_EQ(result, 0u);
    if (result == 0) {
        EXPECT_EQ(crypter.State(), static_cast<DWORD>(KeyCrypter::kUserKeySet));
        BYTE random[16] = {};
        EXPECT_EQ(crypter.Next(random, sizeof(random)), 0u);
        EXPECT_EQ(crypter.Clear(), 0u);
        // Deleted: opening it without CRYPT_NEWKEYSET fails now.
        HCRYPTPROV again = 0;
        EXPECT_FALSE(CryptAcquireContextW(&again, crypter.ContainerName(), nullptr, PROV_RSA_SCHANNEL, 0));
        if (again) CryptReleaseContext(again, 0);
    }
    KeyCrypter::SetAcquireContextForTest(nullptr);
}

// ---- Next -------------------------------------------------------------------

TEST(KeyCrypterNext, FillsTheBuffer) {
    KeyCrypter crypter;
    ASSERT_EQ(crypter.Initialize(CALG_3DES, 0), 0u);
    Bytes first(32, 0), second(32, 0);
    EXPECT_EQ(crypter.Next(first.data(), 32), 0u);
    EXPECT_EQ(crypter.Next(second.data(), 32), 0u);
    EXPECT_NE(first, Bytes(32, 0));
    EXPECT_NE(first, second);
}

TEST(KeyCrypterNext, WithoutProviderIsTheGeneralError) {
    LogCapture log;
    KeyCrypter crypter;
    BYTE buffer[4] = {};
    EXPECT_EQ(crypter.Next(buffer, sizeof(buffer)), ZEB_ERROR_CRYPT_GENERAL_ERROR);
    EXPECT_TRUE(log.Contains("ZEB_ERROR_CRYPT_GENERAL_ERROR (original error code = d5000006)"));
}

TEST(KeyCrypterNext, NullBufferIsAnInvalidParameter) {
    KeyCrypter crypter;
    ASSERT_EQ(crypter.Initialize(CALG_3DES, 0), 0u);
    EXPECT_EQ(crypter.Next(nullptr, 4), ZEB_ERROR_INVALID_PARAMETER);
}

// ---- GetHashData ------------------------------------------------------------

TEST(KeyCrypterGetHashData, Md5OfAbc) {
    KeyCrypter crypter;
    ASSERT_EQ(crypter.Initialize(CALG_MD5, 0), 0u);
    qv::ByteBuffer hash;
    DWORD hashSize = 0;
    ASSERT_EQ(crypter.GetHashData(reinterpret_cast<const BYTE*>("abc"), 3, qv::out_param(hash, hashSize), &hashSize),
              0u);
    ASSERT_NE(hash.get(), nullptr);
    EXPECT_EQ(hashSize, 16u);
    EXPECT_EQ(Hex(hash.get(), hashSize), "900150983cd24fb0d6963f7d28e17f72");
}

TEST(KeyCrypterGetHashData, OtherAlgorithmsFail) {
    LogCapture log;
    for (ALG_ID algorithm : {CALG_3DES, CALG_RSA_KEYX}) {
        KeyCrypter crypter;
        ASSERT_EQ(crypter.Initialize(algorithm, 0), 0u);
        BYTE* hash = reinterpret_cast<BYTE*>(1);
        DWORD hashSize = 7;
        const DWORD result = crypter.GetHashData(reinterpret_cast<const BYTE*>("abc"), 3, &hash, &hashSize);
        // Windows refuses a non-hash algorithm at CryptCreateHash (NTE_BAD_ALGID);
        // Wine's rsaenh accepts it there and fails the 16-byte CryptGetHashParam
        // with ERROR_MORE_DATA instead.
        EXPECT_TRUE(result == ZEB_ERROR_CRYPT_BAD_ALGID || result == ZEB_ERROR_CRYPT_MORE_DATA)
            << std::hex << algorithm << " " << result;
        EXPECT_EQ(hash, nullptr);
        EXPECT_EQ(hashSize, 0u);
    }
    const bool atCreate =
        log.Contains("KeyCrypter::GetHashData CryptCreateHash Error = 80090008 ZEB_ERROR = d5030012");
    const bool atGetParam =
        log.Contains("KeyCrypter::GetHashData CryptGetHashParam Error = 000000ea ZEB_ERROR = d5030021");
    EXPECT_TRUE(atCreate || atGetParam);
}

TEST(KeyCrypterGetHashData, BadArguments) {
    KeyCrypter crypter;
    BYTE* hash = nullptr;
    DWORD hashSize = 0;
    EXPECT_EQ(crypter.GetHashData(reinterpret_cast<const BYTE*>("abc"), 3, &hash, &hashSize),
              ZEB_ERROR_INVALID_HANDLE);
    ASSERT_EQ(crypter.Initialize(CALG_MD5, 0), 0u);
    EXPECT_EQ(crypter.GetHashData(nullptr, 3, &hash, &hashSize), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(crypter.GetHashData(reinterpret_cast<const BYTE*>("abc"), 3, nullptr, &hashSize),
              ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(crypter.GetHashData(reinterpret_cast<const BYTE*>("abc"), 3, &hash, nullptr),
              ZEB_ERROR_INVALID_PARAMETER);
}

// ---- CreateHMAC -------------------------------------------------------------

struct HmacVector {
    ALG_ID algorithm;
    Bytes key;
    Bytes data;
    const char* expected;
};

std::string RunHmac(KeyCrypter& crypter, ALG_ID algorithm, const Bytes& key, const Bytes& data, DWORD* result) {
    USHORT size = 0;
    qv::ByteBuffer value;
    *result = crypter.CreateHMAC(algorithm, static_cast<USHORT>(key.size()), key.empty() ? nullptr : key.data(),
                                 static_cast<DWORD>(data.size()), data.data(), &size, qv::out_param(value, size));
    std::string hex = value ? Hex(value.get(), size) : std::string();
    return hex;
}

TEST(KeyCrypterCreateHMAC, Rfc2202Vectors) {
    const HmacVector vectors[] = {
        {CALG_MD5, Bytes(16, 0x0b), FromText("Hi There"), "9294727a3638bb1c13f48ef8158bfc9d"},
        {CALG_MD5, FromText("Jefe"), FromText("what do ya want for nothing?"), "750c783e6ab0b503eaa86e310a5db738"},
        {CALG_MD5, Bytes(16, 0xaa), Bytes(50, 0xdd), "56be34521d144c88dbb8c733f0e8b3f6"},
        {CALG_SHA1, Bytes(20, 0x0b), FromText("Hi There"), "b617318655057264e28bc0b6fb378c8ef146be00"},
        {CALG_SHA1, FromText("Jefe"), FromText("what do ya want for nothing?"),
         "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79"},
        {CALG_SHA1, Bytes(20, 0xaa), Bytes(50, 0xdd), "125d7342b9ac11cd91a39af48aa17b4f63f175d3"},
    };
    KeyCrypter crypter;
    ASSERT_EQ(crypter.Initialize(CALG_3DES, 0), 0u);
    for (const HmacVector& v : vectors) {
        DWORD result = 1;
        EXPECT_EQ(RunHmac(crypter, v.algorithm, v.key, v.data, &result), v.expected);
        EXPECT_EQ(result, 0u);
    }
}

TEST(KeyCrypterCreateHMAC, KeyOfTwentyFourBytesIsTheLimit) {
    KeyCrypter crypter;
    ASSERT_EQ(crypter.Initialize(CALG_3DES, 0), 0u);
    Bytes key24;
    for (BYTE i = 1; i <= 24; ++i) key24.push_back(i);
    DWORD result = 1;
    EXPECT_EQ(RunHmac(crypter, CALG_MD5, key24, FromText("Hi There"), &result), "fc58e9eb5bed6624ffcecf007d6e9fc8");
    EXPECT_EQ(result, 0u);

    Bytes key25 = key24;
    key25.push_back(25);
    LogCapture log;
    USHORT size = 9;
    BYTE* value = reinterpret_cast<BYTE*>(1);
    Bytes data = FromText("Hi There");
    EXPECT_EQ(crypter.CreateHMAC(CALG_MD5, 25, key25.data(), static_cast<DWORD>(data.size()), data.data(), &size,
                                 &value),
              ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_TRUE(log.Contains("in_usHMACKeyLength"));
}

TEST(KeyCrypterCreateHMAC, EmptyKeyIsAllowed) {
    KeyCrypter crypter;
    ASSERT_EQ(crypter.Initialize(CALG_MD5, 0), 0u);
    DWORD result = 1;
    EXPECT_EQ(RunHmac(crypter, CALG_MD5, Bytes(), FromText("Hi There"), &result), "72c33c78cac0b7a581ac263a344ed01d");
    EXPECT_EQ(result, 0u);
    EXPECT_EQ(RunHmac(crypter, CALG_SHA1, Bytes(), FromText("Hi There"), &result),
              "69536cc84eee5fe51c5b051aff8485f5c9ef0b58");
    EXPECT_EQ(result, 0u);
}

TEST(KeyCrypterCreateHMAC, BadArguments) {
    const Bytes key = FromText("Jefe");
    const Bytes data = FromText("data");
    USHORT size = 0;
    BYTE* value = nullptr;
    {
        KeyCrypter crypter;  // no provider
        EXPECT_EQ(crypter.CreateHMAC(CALG_MD5, 4, key.data(), 4, data.data(), &size, &value), ZEB_ERROR_INVALID_HANDLE);
    }
    KeyCrypter crypter;
    ASSERT_EQ(crypter.Initialize(CALG_MD5, 0), 0u);
    EXPECT_EQ(crypter.CreateHMAC(CALG_SHA_256, 4, key.data(), 4, data.data(), &size, &value),
              ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(crypter.CreateHMAC(CALG_MD5, 4, nullptr, 4, data.data(), &size, &value), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(crypter.CreateHMAC(CALG_MD5, 4, key.data(), 0, data.data(), &size, &value), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(crypter.CreateHMAC(CALG_MD5, 4, key.data(), 4, nullptr, &size, &value), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(crypter.CreateHMAC(CALG_MD5, 4, key.data(), 4, data.data(), nullptr, &value),
              ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(crypter.CreateHMAC(CALG_MD5, 4, key.data(), 4, data.data(), &size, nullptr),
              ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(value, nullptr);
}

// ---- EncryptWithPublicKey ---------------------------------------------------

TEST(KeyCrypterEncryptWithPublicKey, OutputIsTheReversedBlockOfModulusLength) {
    RsaKeyPair pair;
    ASSERT_FALSE(pair.PublicDer().empty());
    KeyCrypter crypter;
    ASSERT_EQ(crypter.Initialize(CALG_3DES, 0), 0u);

    Bytes secret(20);
    ASSERT_EQ(crypter.Next(secret.data(), 20), 0u);
    DWORD size = 0;
    qv::ByteBuffer encrypted;
    ASSERT_EQ(crypter.EncryptWithPublicKey(static_cast<USHORT>(pair.PublicDer().size()), pair.PublicDer().data(),
                                           20, secret.data(), &size, qv::out_param(encrypted, size)),
              0u);
    ASSERT_NE(encrypted.get(), nullptr);
    EXPECT_EQ(size, 256u);  // a 2048-bit modulus

    // Back to CryptoAPI's least-significant-first order, then decrypt.
    Bytes littleEndian(encrypted.get(), encrypted.get() + size);
    std::reverse(littleEndian.begin(), littleEndian.end());
    EXPECT_EQ(pair.Decrypt(littleEndian), secret);
    // Unreversed, it is not a valid block for this key.
    Bytes asSent(encrypted.get(), encrypted.get() + size);
    EXPECT_NE(pair.Decrypt(asSent), secret);
}

TEST(KeyCrypterEncryptWithPublicKey, BadArguments) {
    RsaKeyPair pair;
    ASSERT_FALSE(pair.PublicDer().empty());
    const Bytes& der = pair.PublicDer();
    const USHORT derSize = static_cast<USHORT>(der.size());
    const Bytes data = FromText("0123456789abcdefghij");
    DWORD size = 5;
    BYTE* encrypted = nullptr;
    {
        KeyCrypter crypter;
        EXPECT_EQ(crypter.EncryptWithPublicKey(derSize, der.data(), 20, data.data(), &size, &encrypted),
                  ZEB_ERROR_INVALID_HANDLE);
    }
    KeyCrypter crypter;
    ASSERT_EQ(crypter.Initialize(CALG_3DES, 0), 0u);
    EXPECT_EQ(crypter.EncryptWithPublicKey(0, der.data(), 20, data.data(), &size, &encrypted),
              ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(crypter.EncryptWithPublicKey(derSize, nullptr, 20, data.data(), &size, &encrypted),
              ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(crypter.EncryptWithPublicKey(derSize, der.data(), 0, data.data(), &size, &encrypted),
              ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(crypter.EncryptWithPublicKey(derSize, der.data(), 20, nullptr, &size, &encrypted),
              ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(encrypted, nullptr);

    // Not DER: the decoder's error, in the CryptoAPI family.
    const Bytes garbage = FromText("not a public key");
    DWORD result = crypter.EncryptWithPublicKey(static_cast<USHORT>(garbage.size()), garbage.data(), 20, data.data(),
                                                &size, &encrypted);
    EXPECT_EQ(result & 0xFFFF0000u, 0xD5030000u) << std::hex << result;
    EXPECT_EQ(encrypted, nullptr);
    EXPECT_EQ(size, 0u);
}

TEST(KeyCrypterEncryptWithPublicKey, DecodePublicKeyGivesACspBlob) {
    RsaKeyPair pair;
    ASSERT_FALSE(pair.PublicDer().empty());
    KeyCrypter crypter;
    DWORD blobSize = 0;
    qv::ByteBuffer blob;
    ASSERT_EQ(crypter.DecodePublicKey(static_cast<USHORT>(pair.PublicDer().size()), pair.PublicDer().data(),
                                      &blobSize, qv::out_param(blob, blobSize)),
              0u);
    ASSERT_NE(blob.get(), nullptr);
    const BLOBHEADER* header = reinterpret_cast<const BLOBHEADER*>(blob.get());
    EXPECT_EQ(header->bType, PUBLICKEYBLOB);
    const RSAPUBKEY* rsa = reinterpret_cast<const RSAPUBKEY*>(blob.get() + sizeof(BLOBHEADER));
    EXPECT_EQ(rsa->bitlen, 2048u);
    EXPECT_EQ(blobSize, sizeof(BLOBHEADER) + sizeof(RSAPUBKEY) + 256u);
}

TEST(KeyCrypterReverse, ReversesIntoANewBuffer) {
    const BYTE input[] = {1, 2, 3, 4, 5};
    qvtest::Malloced<BYTE> out(KeyCrypter::Reverse(5, input));
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(Bytes(out.get(), out.get() + 5), (Bytes{5, 4, 3, 2, 1}));
    EXPECT_EQ(KeyCrypter::Reverse(0, input), nullptr);
    EXPECT_EQ(KeyCrypter::Reverse(5, nullptr), nullptr);
}

// ---- The error mapping ------------------------------------------------------

TEST(KeyCrypterMapCryptError, EveryRow) {
    struct Row {
        DWORD platform;
        DWORD result;
    };
    const Row rows[] = {
        {0x80090009, 0xD5030001}, {0x80090016, 0xD5030002}, {0x8009001F, 0xD5030003}, {0x80090014, 0xD5030004},
        {0x80090006, 0xD5030005}, {0x8009000F, 0xD5030006}, {0x8009001A, 0xD5030007}, {0x80090019, 0xD5030008},
        {0x8009000E, 0xD5030009}, {0x8009001E, 0xD503000A}, {0x80090018, 0xD503000B}, {0x8009001B, 0xD503000C},
        {0x80090017, 0xD503000D}, {0x8009001D, 0xD503000E}, {0x8009001C, 0xD503000F}, {0x80090001, 0xD5030010},
        {0x80090020, 0xD5030011}, {0x80090008, 0xD5030012}, {0x80090005, 0xD5030013}, {0x8009000A, 0xD5030014},
        {0x80090007, 0xD5030015}, {0x80090003, 0xD5030016}, {0x80090002, 0xD5030017}, {0x8009000C, 0xD5030018},
        {0x80090004, 0xD5030019}, {0x80090012, 0xD503001A}, {0x80092002, 0xD503001B}, {6, 0xD503001C},
        {170, 0xD503001D},        {87, 0xD503001E},         {8, 0xD503001F},         {2, 0xD5030020},
        {234, 0xD5030021},        {0x8009000B, 0xD5030022}, {0x80090022, 0xD5030023},
    };
    for (const Row& row : rows) EXPECT_EQ(KeyCrypter::MapCryptError(row.platform), row.result) << std::hex << row.platform;
}

TEST(KeyCrypterMapCryptError, UnlistedCodesAreGeneralAndLogged) {
    LogCapture log;
    // NTE_NO_KEY, NTE_PERM, NTE_NOT_FOUND, NTE_BAD_PROVIDER, NTE_BAD_PUBLIC_KEY,
    // NTE_SYS_ERR, access denied, success and a module code.
    const DWORD unlisted[] = {0x8009000D, 0x80090010, 0x80090011, 0x80090013, 0x80090015,
                              0x80090021, 5,          0,          0xD5000006};
    for (DWORD code : unlisted) EXPECT_EQ(KeyCrypter::MapCryptError(code), ZEB_ERROR_CRYPT_GENERAL_ERROR) << code;
    EXPECT_TRUE(log.Contains("ZEB_ERROR_CRYPT_GENERAL_ERROR (original error code = 8009000d)"));
    EXPECT_TRUE(log.Contains("ZEB_ERROR_CRYPT_GENERAL_ERROR (original error code = 80090021)"));
}

}  // namespace
