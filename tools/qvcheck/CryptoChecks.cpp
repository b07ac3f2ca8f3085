// CryptoAPI as the add-in uses it: the provider context and its fallback
// container, random bytes, MD5, HMAC-MD5/HMAC-SHA1 and RSA PKCS #1 v1.5
// encryption with a DER public key. Every check goes through the product's
// KeyCrypter where it can.
#include <windows.h>
#include <wincrypt.h>

#include <algorithm>
#include <cstring>

#include "CheckGroups.h"
#include "Holders.h"
#include "Quorvantis.h"
#include "common/HeapBuffer.h"
#include "crypto/KeyCrypter.h"

namespace qvcheck {
namespace {

// The provider type of every context the add-in opens.
constexpr DWORD kProviderType = PROV_RSA_SCHANNEL;
// The add-in's HMAC key slot: one 3DES key, 24 bytes.
constexpr size_t kAddinKeySlotBytes = 24;
// MD5 and SHA-1 hash in blocks of 64 bytes; a longer HMAC key is hashed first.
constexpr size_t kHashBlockBytes = 64;
// The add-in's HMAC key for the device service, and the exchange key size
// qvcheck encrypts it with.
constexpr DWORD kHmacKeyBytes = 20;
constexpr DWORD kRsaBits = 2048;
constexpr DWORD kAsnEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

// Frees a buffer the product handed out (malloc'd).
using ProductBuffer = qv::ByteBuffer;

bool AllZero(const BYTE* data, size_t size) {
    for (size_t i = 0; i < size; ++i)
        if (data[i] != 0) return false;
    return true;
}

std::string StateText(DWORD state) {
    switch (state) {
        case KeyCrypter::kVerifyContext:
            return "verify-only context (CRYPT_VERIFYCONTEXT)";
        case KeyCrypter::kUserKeySet:
            return "per-thread container in the user key set";
        case KeyCrypter::kMachineKeySet:
            return "per-thread container in the machine key set";
        default:
            return "shared context";
    }
}

// The provider's name (PP_NAME), for the support ticket.
std::string ProviderName(HCRYPTPROV provider) {
    char name[256] = {};
    DWORD size = sizeof(name) - 1;
    if (!CryptGetProvParam(provider, PP_NAME, reinterpret_cast<BYTE*>(name), &size, 0)) return "unnamed provider";
    return name;
}

// A plain hash of `data` on `provider`.
bool PlainHash(HCRYPTPROV provider, ALG_ID algorithm, const std::vector<BYTE>& data, std::vector<BYTE>* value,
               DWORD* error) {
    UniqueCryptHash hash;
    if (!CryptCreateHash(provider, algorithm, 0, 0, hash.put()) ||
        !CryptHashData(hash.get(), data.data(), static_cast<DWORD>(data.size()), 0)) {
        *error = GetLastError();
        return false;
    }
    DWORD size = 0;
    DWORD sizeBytes = sizeof(size);
    if (!CryptGetHashParam(hash.get(), HP_HASHSIZE, reinterpret_cast<BYTE*>(&size), &sizeBytes, 0)) {
        *error = GetLastError();
        return false;
    }
    value->assign(size, 0);
    if (!CryptGetHashParam(hash.get(), HP_HASHVAL, value->data(), &size, 0)) {
        *error = GetLastError();
        return false;
    }
    value->resize(size);
    return true;
}

// HMAC with the key imported as a PLAINTEXTKEYBLOB (BLOBHEADER, key length,
// key) under CRYPT_IPSEC_HMAC_KEY, which lets an RC2-typed key exceed 16
// bytes; then the same CALG_HMAC hash with HMAC_INFO as the add-in's.
HmacOutcome PlaintextKeyHmac(HCRYPTPROV provider, ALG_ID algorithm, const std::vector<BYTE>& key,
                             const std::vector<BYTE>& data) {
    HmacOutcome outcome;
    outcome.route = HmacRoute::kPlaintextKey;
    BLOBHEADER header = {};
    header.bType = PLAINTEXTKEYBLOB;
    header.bVersion = CUR_BLOB_VERSION;
    header.aiKeyAlg = CALG_RC2;
    const DWORD keySize = static_cast<DWORD>(key.size());
    std::vector<BYTE> blob(sizeof(header) + sizeof(keySize) + key.size());
    std::memcpy(blob.data(), &header, sizeof(header));
    std::memcpy(blob.data() + sizeof(header), &keySize, sizeof(keySize));
    std::memcpy(blob.data() + sizeof(header) + sizeof(keySize), key.data(), key.size());

    UniqueCryptKey hmacKey;
    if (!CryptImportKey(provider, blob.data(), static_cast<DWORD>(blob.size()), 0, CRYPT_IPSEC_HMAC_KEY,
                        hmacKey.put())) {
        outcome.code = GetLastError();
        outcome.failedStep = "CryptImportKey(PLAINTEXTKEYBLOB)";
        return outcome;
    }
    UniqueCryptHash hash;
    if (!CryptCreateHash(provider, CALG_HMAC, hmacKey.get(), 0, hash.put())) {
        outcome.code = GetLastError();
        outcome.failedStep = "CryptCreateHash(CALG_HMAC)";
        return outcome;
    }
    HMAC_INFO info = {};
    info.HashAlgid = algorithm;
    if (!CryptSetHashParam(hash.get(), HP_HMAC_INFO, reinterpret_cast<const BYTE*>(&info), 0) ||
        !CryptHashData(hash.get(), data.data(), static_cast<DWORD>(data.size()), 0)) {
        outcome.code = GetLastError();
        outcome.failedStep = "CryptSetHashParam/CryptHashData";
        return outcome;
    }
    BYTE value[64] = {};
    DWORD size = sizeof(value);
    if (!CryptGetHashParam(hash.get(), HP_HASHVAL, value, &size, 0)) {
        outcome.code = GetLastError();
        outcome.failedStep = "CryptGetHashParam(HP_HASHVAL)";
        return outcome;
    }
    outcome.hex = Hex(value, size);
    return outcome;
}

// Refuses verify-only contexts and passes everything else to the platform:
// KeyCrypter then takes the fallback it takes when a machine refuses them.
BOOL WINAPI AcquireWithoutVerifyContext(HCRYPTPROV* provider, LPCWSTR container, LPCWSTR providerName, DWORD type,
                                        DWORD flags) {
    if (flags & CRYPT_VERIFYCONTEXT) {
        SetLastError(static_cast<DWORD>(NTE_BAD_FLAGS));
        return FALSE;
    }
    return CryptAcquireContextW(provider, container, providerName, type, flags);
}

// Installs KeyCrypter's acquire call for one scope (the seam its own tests
// use for the same purpose) and restores the platform's at the end.
class VerifyContextRefused {
public:
    VerifyContextRefused() { KeyCrypter::SetAcquireContextForTest(&AcquireWithoutVerifyContext); }
    ~VerifyContextRefused() { KeyCrypter::SetAcquireContextForTest(nullptr); }
    VerifyContextRefused(const VerifyContextRefused&) = delete;
    VerifyContextRefused& operator=(const VerifyContextRefused&) = delete;
};

bool VerifyContextWorks() {
    UniqueCryptProv provider;
    return CryptAcquireContextW(provider.put(), nullptr, nullptr, kProviderType, CRYPT_VERIFYCONTEXT) != FALSE;
}

}  // namespace

HmacRoute RouteFor(size_t keyBytes) {
    if (keyBytes <= kAddinKeySlotBytes) return HmacRoute::kAddin;
    if (keyBytes > kHashBlockBytes) return HmacRoute::kAddinHashedKey;
    return HmacRoute::kPlaintextKey;
}

const char* RouteText(HmacRoute route) {
    switch (route) {
        case HmacRoute::kAddin:
            return "the add-in's CreateHMAC";
        case HmacRoute::kAddinHashedKey:
            return "CreateHMAC with the long key hashed first";
        case HmacRoute::kPlaintextKey:
            break;
    }
    return "a PLAINTEXTKEYBLOB HMAC key";
}

HmacOutcome ComputeHmac(KeyCrypter& crypter, ALG_ID algorithm, const std::vector<BYTE>& key,
                        const std::vector<BYTE>& data) {
    HmacOutcome outcome;
    outcome.route = RouteFor(key.size());
    if (outcome.route == HmacRoute::kPlaintextKey) return PlaintextKeyHmac(crypter.Provider(), algorithm, key, data);

    std::vector<BYTE> effectiveKey = key;
    if (outcome.route == HmacRoute::kAddinHashedKey) {
        // RFC 2104: a key longer than the hash's block is replaced by its
        // hash, which gives the same HMAC and fits the add-in's key slot.
        DWORD error = 0;
        if (!PlainHash(crypter.Provider(), algorithm, key, &effectiveKey, &error)) {
            outcome.code = error;
            outcome.failedStep = "hashing the long key";
            return outcome;
        }
    }
    USHORT size = 0;
    BYTE* value = nullptr;
    outcome.code = crypter.CreateHMAC(algorithm, static_cast<USHORT>(effectiveKey.size()),
                                      effectiveKey.empty() ? nullptr : effectiveKey.data(),
                                      static_cast<DWORD>(data.size()), data.data(), &size, &value);
    ProductBuffer holder(value, size);
    if (ZEB_FAILED(outcome.code) || !value) {
        outcome.failedStep = "KeyCrypter::CreateHMAC";
        return outcome;
    }
    outcome.hex = Hex(value, size);
    return outcome;
}

Result CheckHmac(const Environment&, ALG_ID algorithm, const std::vector<Rfc2202Case>& cases) {
    const bool md5 = algorithm == CALG_MD5;
    const char* name = md5 ? "hmac-md5" : "hmac-sha1";
    // As the SDL2 login does: a context made for MD5, then CreateHMAC.
    KeyCrypter crypter;
    const DWORD initialized = crypter.Initialize(CALG_MD5, 0);
    if (ZEB_FAILED(initialized)) return Make(name, Status::kFail, "KeyCrypter::Initialize " + Code(initialized));

    Result result = Make(name, Status::kFail, "");
    size_t matched = 0;
    std::string firstFailure;
    std::string byRoute[3];
    std::string unchecked;
    for (const Rfc2202Case& testCase : cases) {
        const std::vector<BYTE>& key = md5 ? testCase.md5Key : testCase.sha1Key;
        const std::string expected = md5 ? testCase.md5 : testCase.sha1;
        const HmacOutcome outcome = ComputeHmac(crypter, algorithm, key, testCase.data);
        const bool ok = outcome.failedStep.empty() && outcome.hex == expected;
        const std::string number = std::to_string(testCase.number);
        // Case 4's 25-byte key fits no route of the add-in's: a provider that
        // takes no plaintext HMAC key says nothing about the add-in.
        if (outcome.route == HmacRoute::kPlaintextKey && outcome.failedStep == "CryptImportKey(PLAINTEXTKEYBLOB)") {
            unchecked += (unchecked.empty() ? "" : ",") + number;
            result.notes.push_back("case " + number + " not checked: the provider refuses a plaintext HMAC key " +
                                   Code(outcome.code) + ", which the add-in never imports");
            continue;
        }
        std::string& list = byRoute[static_cast<int>(outcome.route)];
        list += (list.empty() ? "" : ",") + number;
        std::string what = outcome.failedStep.empty() ? "got " + outcome.hex
                                                      : outcome.failedStep + " failed " + Code(outcome.code);
        result.notes.push_back("case " + number + " (" + std::to_string(key.size()) + "-byte key, " +
                               RouteText(outcome.route) + "): " + (ok ? outcome.hex : what + ", expected " + expected));
        if (ok) {
            ++matched;
        } else if (firstFailure.empty()) {
            firstFailure = "; case " + number + " via " + RouteText(outcome.route) + ": " + what + ", expected " +
                           expected;
        }
    }
    crypter.Clear();

    const size_t checked = cases.size() - (unchecked.empty() ? 0 : 1 + std::count(unchecked.begin(), unchecked.end(), ','));
    const bool ok = matched == checked && checked != 0;
    std::string detail = std::to_string(matched) + "/" + std::to_string(checked) + " RFC 2202 cases";
    if (ok) {
        const HmacRoute routes[] = {HmacRoute::kAddin, HmacRoute::kAddinHashedKey, HmacRoute::kPlaintextKey};
        const char* separator = ": ";
        for (HmacRoute route : routes) {
            const std::string& list = byRoute[static_cast<int>(route)];
            if (list.empty()) continue;
            detail += separator + list + " via " + RouteText(route);
            separator = "; ";
        }
    } else {
        detail += firstFailure;
    }
    if (!unchecked.empty()) detail += "; case " + unchecked + " not checked (no plaintext HMAC key import)";
    result.status = ok ? Status::kPass : Status::kFail;
    result.detail = detail;
    return result;
}

Result CheckCryptContext(const Environment&) {
    KeyCrypter crypter;
    const DWORD code = crypter.Initialize(CALG_3DES, 0);
    if (ZEB_FAILED(code))
        return Make("crypt-context", Status::kFail,
                    "KeyCrypter::Initialize found no PROV_RSA_SCHANNEL context, verify-only or container: " + Code(code));
    std::string detail = "PROV_RSA_SCHANNEL \"" + ProviderName(crypter.Provider()) + "\", " + StateText(crypter.State());
    if (crypter.State() != KeyCrypter::kVerifyContext) detail += " " + Ascii(std::wstring(crypter.ContainerName()));
    crypter.Clear();
    return Make("crypt-context", Status::kPass, detail);
}

Result CheckCryptContainer(const Environment&) {
    DWORD code = 0;
    DWORD state = 0;
    std::wstring container;
    DWORD random = 0;
    {
        VerifyContextRefused refused;
        KeyCrypter crypter;
        code = crypter.Initialize(CALG_3DES, 0);
        if (!ZEB_FAILED(code)) {
            state = crypter.State();
            container = crypter.ContainerName();
            BYTE bytes[kHmacKeyBytes] = {};
            random = crypter.Next(bytes, sizeof(bytes));
            code = crypter.Clear();
        }
    }
    if (ZEB_FAILED(code) || ZEB_FAILED(random)) {
        const DWORD failure = ZEB_FAILED(code) ? code : random;
        // Only a fallback: the add-in never needs it while verify-only contexts work.
        if (VerifyContextWorks())
            return Make("crypt-container", Status::kPass,
                        "the per-thread container fallback fails (" + Code(failure) +
                            "); not needed, since this machine grants verify-only contexts");
        return Make("crypt-container", Status::kFail,
                    "neither a verify-only context nor the per-thread container fallback: " + Code(failure));
    }
    // Clear deletes the container; a second look must not find it.
    const DWORD keySet = state == KeyCrypter::kMachineKeySet ? CRYPT_MACHINE_KEYSET : 0;
    UniqueCryptProv leftOver;
    if (CryptAcquireContextW(leftOver.put(), container.c_str(), nullptr, kProviderType, keySet)) {
        leftOver.reset();
        HCRYPTPROV unused = 0;
        CryptAcquireContextW(&unused, container.c_str(), nullptr, kProviderType, keySet | CRYPT_DELETEKEYSET);
        return Make("crypt-container", Status::kFail,
                    "container " + Ascii(container) + " was left behind after KeyCrypter::Clear (qvcheck deleted it)");
    }
    return Make("crypt-container", Status::kPass,
                "with verify-only contexts refused, KeyCrypter made, used and deleted a " + StateText(state) +
                    " " + Ascii(container));
}

Result CheckCryptRandom(const Environment&) {
    // As the add-in makes an HMAC key: a 3DES context, then 20 random bytes.
    KeyCrypter crypter;
    DWORD code = crypter.Initialize(CALG_3DES, 0);
    if (ZEB_FAILED(code)) return Make("crypt-random", Status::kFail, "KeyCrypter::Initialize " + Code(code));
    BYTE first[kHmacKeyBytes] = {};
    BYTE second[kHmacKeyBytes] = {};
    code = crypter.Next(first, sizeof(first));
    if (!ZEB_FAILED(code)) code = crypter.Next(second, sizeof(second));
    crypter.Clear();
    if (ZEB_FAILED(code)) return Make("crypt-random", Status::kFail, "KeyCrypter::Next (CryptGenRandom) " + Code(code));
    const bool ok = !AllZero(first, sizeof(first)) && !AllZero(second, sizeof(second)) &&
                    std::memcmp(first, second, sizeof(first)) != 0;
    SecureZeroMemory(first, sizeof(first));
    SecureZeroMemory(second, sizeof(second));
    return Make("crypt-random", ok ? Status::kPass : Status::kFail,
                ok ? "CryptGenRandom on PROV_RSA_SCHANNEL gave two distinct, non-zero 20-byte keys"
                   : "CryptGenRandom gave zero or repeated 20-byte keys");
}

Result CheckMd5(const Environment&) {
    struct Vector {
        const char* text;
        const char* md5;
    };
    // RFC 1321, appendix A.5.
    static const Vector kVectors[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
    };
    KeyCrypter crypter;
    DWORD code = crypter.Initialize(CALG_MD5, 0);
    if (ZEB_FAILED(code)) return Make("md5", Status::kFail, "KeyCrypter::Initialize " + Code(code));
    Result result = Make("md5", Status::kPass, "");
    size_t matched = 0;
    for (const Vector& vector : kVectors) {
        BYTE* hash = nullptr;
        DWORD size = 0;
        code = crypter.GetHashData(reinterpret_cast<const BYTE*>(vector.text), static_cast<DWORD>(std::strlen(vector.text)),
                                   &hash, &size);
        ProductBuffer holder(hash, size);
        const std::string got = ZEB_FAILED(code) || !hash ? "error " + Code(code) : Hex(hash, size);
        result.notes.push_back("MD5(\"" + std::string(vector.text) + "\") = " + got);
        if (got == vector.md5) {
            ++matched;
        } else if (result.status == Status::kPass) {
            result.status = Status::kFail;
            result.detail = "MD5(\"" + std::string(vector.text) + "\"): got " + got + ", expected " + vector.md5;
        }
    }
    crypter.Clear();
    if (result.status == Status::kPass)
        result.detail = std::to_string(matched) + "/3 RFC 1321 vectors through the add-in's KeyCrypter::GetHashData";
    return result;
}

Result CheckHmacMd5(const Environment& environment) { return CheckHmac(environment, CALG_MD5, Rfc2202Cases()); }

Result CheckHmacSha1(const Environment& environment) { return CheckHmac(environment, CALG_SHA1, Rfc2202Cases()); }

Result CheckRsaPkcs1(const Environment&) {
    const char* name = "rsa-pkcs1";
    // A key pair of qvcheck's own stands in for the device service's.
    UniqueCryptProv provider;
    if (!CryptAcquireContextW(provider.put(), nullptr, nullptr, kProviderType, CRYPT_VERIFYCONTEXT))
        return Make(name, Status::kFail, "CryptAcquireContext(CRYPT_VERIFYCONTEXT) " + Code(GetLastError()));
    UniqueCryptKey pair;
    if (!CryptGenKey(provider.get(), CALG_RSA_KEYX, kRsaBits << 16, pair.put()))
        return Make(name, Status::kFail, "CryptGenKey(CALG_RSA_KEYX, 2048 bits) " + Code(GetLastError()));
    DWORD blobSize = 0;
    if (!CryptExportKey(pair.get(), 0, PUBLICKEYBLOB, 0, nullptr, &blobSize))
        return Make(name, Status::kFail, "CryptExportKey(PUBLICKEYBLOB) " + Code(GetLastError()));
    std::vector<BYTE> blob(blobSize);
    if (!CryptExportKey(pair.get(), 0, PUBLICKEYBLOB, 0, blob.data(), &blobSize))
        return Make(name, Status::kFail, "CryptExportKey(PUBLICKEYBLOB) " + Code(GetLastError()));
    DWORD derSize = 0;
    if (!CryptEncodeObject(kAsnEncoding, RSA_CSP_PUBLICKEYBLOB, blob.data(), nullptr, &derSize))
        return Make(name, Status::kFail, "CryptEncodeObject(RSA_CSP_PUBLICKEYBLOB) " + Code(GetLastError()));
    std::vector<BYTE> der(derSize);
    if (!CryptEncodeObject(kAsnEncoding, RSA_CSP_PUBLICKEYBLOB, blob.data(), der.data(), &derSize))
        return Make(name, Status::kFail, "CryptEncodeObject(RSA_CSP_PUBLICKEYBLOB) " + Code(GetLastError()));
    der.resize(derSize);

    // The add-in's way from here: a 3DES context, the DER key decoded with
    // CryptDecodeObject(RSA_CSP_PUBLICKEYBLOB), imported, and the key
    // encrypted (PKCS #1 v1.5) into a big-endian block.
    KeyCrypter crypter;
    DWORD code = crypter.Initialize(CALG_3DES, 0);
    if (ZEB_FAILED(code)) return Make(name, Status::kFail, "KeyCrypter::Initialize " + Code(code));
    BYTE* decoded = nullptr;
    DWORD decodedSize = 0;
    code = crypter.DecodePublicKey(static_cast<USHORT>(der.size()), der.data(), &decodedSize, &decoded);
    ProductBuffer decodedHolder(decoded, decodedSize);
    if (ZEB_FAILED(code) || !decoded || decodedSize < sizeof(BLOBHEADER) + sizeof(RSAPUBKEY))
        return Make(name, Status::kFail, "KeyCrypter::DecodePublicKey (CryptDecodeObject) " + Code(code));
    RSAPUBKEY rsa = {};
    std::memcpy(&rsa, decoded + sizeof(BLOBHEADER), sizeof(rsa));
    const DWORD modulusBytes = rsa.bitlen / 8;

    BYTE secret[kHmacKeyBytes] = {};
    code = crypter.Next(secret, sizeof(secret));
    if (ZEB_FAILED(code)) return Make(name, Status::kFail, "KeyCrypter::Next " + Code(code));
    BYTE* encrypted = nullptr;
    DWORD encryptedSize = 0;
    code = crypter.EncryptWithPublicKey(static_cast<USHORT>(der.size()), der.data(), sizeof(secret), secret,
                                        &encryptedSize, &encrypted);
    ProductBuffer encryptedHolder(encrypted, encryptedSize);
    crypter.Clear();
    if (ZEB_FAILED(code) || !encrypted) {
        SecureZeroMemory(secret, sizeof(secret));
        return Make(name, Status::kFail, "KeyCrypter::EncryptWithPublicKey (import, CryptEncrypt) " + Code(code));
    }
    if (encryptedSize != modulusBytes || modulusBytes != kRsaBits / 8) {
        SecureZeroMemory(secret, sizeof(secret));
        return Make(name, Status::kFail,
                    "encrypted block of " + std::to_string(encryptedSize) + " bytes for a modulus of " +
                        std::to_string(modulusBytes) + " bytes");
    }

    // Back to CryptoAPI's least-significant-first order, then the private half.
    std::vector<BYTE> block(encrypted, encrypted + encryptedSize);
    std::reverse(block.begin(), block.end());
    DWORD plainSize = static_cast<DWORD>(block.size());
    const bool decrypted = CryptDecrypt(pair.get(), 0, TRUE, 0, block.data(), &plainSize) != FALSE;
    const DWORD decryptError = decrypted ? 0 : GetLastError();
    const bool same = decrypted && plainSize == sizeof(secret) && std::memcmp(block.data(), secret, sizeof(secret)) == 0;
    SecureZeroMemory(secret, sizeof(secret));
    SecureZeroMemory(block.data(), block.size());
    if (!decrypted) return Make(name, Status::kFail, "CryptDecrypt with the private key " + Code(decryptError));
    if (!same) return Make(name, Status::kFail, "the private key decrypts the block to something else");
    return Make(name, Status::kPass,
                std::to_string(kRsaBits) + "-bit public key as DER (" + std::to_string(der.size()) +
                    " bytes) decoded and imported by KeyCrypter; a 20-byte key encrypted to " +
                    std::to_string(encryptedSize) + " bytes (the modulus length), big-endian, and decrypted by the private key");
}

}  // namespace qvcheck
