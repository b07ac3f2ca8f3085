// CryptoAPI wrapper: provider acquisition with per-thread container fallbacks,
// random bytes, hashes, HMAC through an RSA-wrapped key blob, RSA encryption
// with a DER public key, and the CryptoAPI error mapping.
#include "crypto/KeyCrypter.h"

#include <cstdlib>
#include <cstring>

#include "Quorvantis.h"
#include "common/HeapBuffer.h"
#include "common/Holders.h"
#include "log/WSCLog.h"

namespace {

// The provider type of every context this class opens; the default provider
// name (null) is used with it.
constexpr DWORD kProviderType = PROV_RSA_SCHANNEL;

// Prefix of the per-thread key container; the thread identifier follows, so
// that concurrent threads never share one container.
constexpr const wchar_t kKeyContainerBase[] = L"DCI_5A147B9F-72E9-4c79-905A-23635FDB8106";
constexpr size_t kKeyContainerChars = 50;

// The HMAC key travels as a 3DES key in a SIMPLEBLOB: 24 bytes, zero-padded.
constexpr USHORT kHmacKeyBufferBytes = 24;
// BLOBHEADER (type, version, reserved, key algorithm) + the wrapping algorithm.
constexpr DWORD kSimpleBlobHeaderBytes = 12;
constexpr BYTE kSimpleBlobType = 1;     // SIMPLEBLOB
constexpr BYTE kSimpleBlobVersion = 2;  // CUR_BLOB_VERSION

// GetHashData always hands out an MD5-sized buffer, whatever the algorithm.
constexpr DWORD kHashOutputBytes = 16;

constexpr DWORD kAsnEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

// Fallback order when a verify-only context is refused: user key set (open,
// then create), then machine key set (open, then create).
struct AcquireAttempt {
    DWORD flags;
    DWORD state;
};
constexpr AcquireAttempt kContainerAttempts[] = {
    {0, KeyCrypter::kUserKeySet},
    {CRYPT_NEWKEYSET, KeyCrypter::kUserKeySet},
    {CRYPT_MACHINE_KEYSET, KeyCrypter::kMachineKeySet},
    {CRYPT_MACHINE_KEYSET | CRYPT_NEWKEYSET, KeyCrypter::kMachineKeySet},
};

// CryptoAPI / Win32 error -> result code. NTE_NO_KEY, NTE_PERM, NTE_NOT_FOUND,
// NTE_BAD_PROVIDER, NTE_BAD_PUBLIC_KEY and NTE_SYS_ERR are left out on purpose:
// they fall to the general code.
struct CryptErrorRow {
    DWORD platform;
    DWORD result;
};
constexpr CryptErrorRow kCryptErrors[] = {
    {static_cast<DWORD>(NTE_BAD_FLAGS), ZEB_ERROR_CRYPT_BAD_FLAGS},
    {static_cast<DWORD>(NTE_BAD_KEYSET), ZEB_ERROR_CRYPT_BAD_KEYSET},
    {static_cast<DWORD>(NTE_BAD_KEYSET_PARAM), ZEB_ERROR_CRYPT_BAD_KEYSET_PARAM},
    {static_cast<DWORD>(NTE_BAD_PROV_TYPE), ZEB_ERROR_CRYPT_BAD_PROV_TYPE},
    {static_cast<DWORD>(NTE_BAD_SIGNATURE), ZEB_ERROR_CRYPT_BAD_SIGNATURE},
    {static_cast<DWORD>(NTE_EXISTS), ZEB_ERROR_CRYPT_EXISTS},
    {static_cast<DWORD>(NTE_KEYSET_ENTRY_BAD), ZEB_ERROR_CRYPT_KEYSET_ENTRY_BAD},
    {static_cast<DWORD>(NTE_KEYSET_NOT_DEF), ZEB_ERROR_CRYPT_KEYSET_NOT_DEF},
    {static_cast<DWORD>(NTE_NO_MEMORY), ZEB_ERROR_CRYPT_NO_MEMORY},
    {static_cast<DWORD>(NTE_PROV_DLL_NOT_FOUND), ZEB_ERROR_CRYPT_PROV_DLL_NOT_FOUND},
    {static_cast<DWORD>(NTE_PROV_TYPE_ENTRY_BAD), ZEB_ERROR_CRYPT_PROV_TYPE_ENTRY_BAD},
    {static_cast<DWORD>(NTE_PROV_TYPE_NO_MATCH), ZEB_ERROR_CRYPT_PROV_TYPE_NO_MATCH},
    {static_cast<DWORD>(NTE_PROV_TYPE_NOT_DEF), ZEB_ERROR_CRYPT_PROV_TYPE_NOT_DEF},
    {static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL), ZEB_ERROR_CRYPT_PROVIDER_DLL_FAIL},
    {static_cast<DWORD>(NTE_SIGNATURE_FILE_BAD), ZEB_ERROR_CRYPT_SIGNATURE_FILE_BAD},
    {static_cast<DWORD>(NTE_BAD_UID), ZEB_ERROR_CRYPT_BAD_UID},
    {static_cast<DWORD>(NTE_FAIL), ZEB_ERROR_CRYPT_FAIL},
    {static_cast<DWORD>(NTE_BAD_ALGID), ZEB_ERROR_CRYPT_BAD_ALGID},
    {static_cast<DWORD>(NTE_BAD_DATA), ZEB_ERROR_CRYPT_BAD_DATA},
    {static_cast<DWORD>(NTE_BAD_TYPE), ZEB_ERROR_CRYPT_BAD_TYPE},
    {static_cast<DWORD>(NTE_BAD_VER), ZEB_ERROR_CRYPT_BAD_VER},
    {static_cast<DWORD>(NTE_BAD_KEY), ZEB_ERROR_CRYPT_BAD_KEY},
    {static_cast<DWORD>(NTE_BAD_HASH), ZEB_ERROR_CRYPT_BAD_HASH},
    {static_cast<DWORD>(NTE_BAD_HASH_STATE), ZEB_ERROR_CRYPT_BAD_HASH_STATE},
    {static_cast<DWORD>(NTE_BAD_LEN), ZEB_ERROR_CRYPT_BAD_LEN},
    {static_cast<DWORD>(NTE_DOUBLE_ENCRYPT), ZEB_ERROR_CRYPT_DOUBLE_ENCRYPT},
    {static_cast<DWORD>(CRYPT_E_BAD_ENCODE), ZEB_ERROR_CRYPT_BAD_ENCODE},
    // Plain Win32 codes some CryptoAPI calls report through GetLastError.
    {ERROR_INVALID_HANDLE, ZEB_ERROR_CRYPT_INVALID_HANDLE},
    {ERROR_BUSY, ZEB_ERROR_CRYPT_BUSY},
    {ERROR_INVALID_PARAMETER, ZEB_ERROR_CRYPT_INVALID_PARAMETER},
    {ERROR_NOT_ENOUGH_MEMORY, ZEB_ERROR_CRYPT_NOT_ENOUGH_MEMORY},
    {ERROR_FILE_NOT_FOUND, ZEB_ERROR_CRYPT_FILE_NOT_FOUND},
    {ERROR_MORE_DATA, ZEB_ERROR_CRYPT_MORE_DATA},
    // Numbered after the Win32 rows: added later than the rest of the NTE family.
    {static_cast<DWORD>(NTE_BAD_KEY_STATE), ZEB_ERROR_CRYPT_BAD_KEY_STATE},
    {static_cast<DWORD>(NTE_SILENT_CONTEXT), ZEB_ERROR_CRYPT_SILENT_CONTEXT},
};

bool IsSupportedAlgorithm(ALG_ID algorithm) {
    return algorithm == CALG_3DES || algorithm == CALG_MD5 || algorithm == CALG_RSA_KEYX;
}

KeyCrypter::AcquireContextFn g_acquireContext = &CryptAcquireContextW;

// A failed CryptoAPI call: its last error mapped, logged for the call site
// and returned.
#define QV_CRYPT_FAILED(format) QV_LAST_ERROR(&KeyCrypter::MapCryptError, format)

}  // namespace

KeyCrypter::AcquireContextFn KeyCrypter::SetAcquireContextForTest(AcquireContextFn fn) {
    AcquireContextFn previous = g_acquireContext;
    g_acquireContext = fn ? fn : &CryptAcquireContextW;
    return previous;
}

DWORD KeyCrypter::MapCryptError(DWORD error) {
    for (const CryptErrorRow& row : kCryptErrors) {
        if (row.platform == error) return row.result;
    }
    WSCLOG(5, L"ZEB_ERROR_CRYPT_GENERAL_ERROR (original error code = %08x)", error);
    return ZEB_ERROR_CRYPT_GENERAL_ERROR;
}

KeyCrypter::KeyCrypter() : m_algId(0), m_tszKeyContainerName{}, m_dwProviderState(0) {}

KeyCrypter::~KeyCrypter() { Clear(); }

DWORD KeyCrypter::Initialize(ALG_ID algorithm, HCRYPTPROV sharedProvider) {
    WSCLOG(4, L"KeyCrypter::Initialize IN");
    if (m_hProv)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"CKeyCrypter::Initialize Initialized Before ZEB_ERROR = %08x");
    if (!IsSupportedAlgorithm(algorithm))
        return QV_FAIL(ZEB_ERROR_CRYPT_GENERAL_ERROR, L"CKeyCrypter::Initialize UnsupportedProvider ZEB_ERROR = %08x");

    if (sharedProvider) {
        if (!CryptContextAddRef(sharedProvider, nullptr, 0))
            return QV_CRYPT_FAILED(L"CKeyCrypter::Initialize CryptContextAddRef Error = %08x ZEB_ERROR = %08x");
        m_hProv.reset(sharedProvider);
        m_dwProviderState = kSharedProvider;
        m_algId = algorithm;
        WSCLOG(4, L"KeyCrypter::Initialize OUT");
        return 0;
    }

    if (g_acquireContext(m_hProv.put(), nullptr, nullptr, kProviderType, CRYPT_VERIFYCONTEXT)) {
        m_dwProviderState = kVerifyContext;
        m_algId = algorithm;
        WSCLOG(4, L"KeyCrypter::Initialize OUT");
        return 0;
    }
    DWORD error = GetLastError();
    WSCLOG(2, L"CKeyCrypter::Initialize CryptAcquireContext (original return code = %08x)", error);

    // 49 characters: the buffer of 50 holds it with its terminator exactly.
    _snwprintf(m_tszKeyContainerName, kKeyContainerChars, L"%s-%08x", kKeyContainerBase, GetCurrentThreadId());
    m_tszKeyContainerName[kKeyContainerChars - 1] = L'\0';
    WSCLOG(5, L"CKeyCrypter::Initialize m_tszKeyContainerName = %s", m_tszKeyContainerName);

    for (const AcquireAttempt& attempt : kContainerAttempts) {
        if (g_acquireContext(m_hProv.put(), m_tszKeyContainerName, nullptr, kProviderType, attempt.flags)) {
            m_dwProviderState = attempt.state;
            m_algId = algorithm;
            WSCLOG(3, L"CKeyCrypter::Initialize CryptAcquireContext(flags = %08x) success", attempt.flags);
            WSCLOG(4, L"KeyCrypter::Initialize OUT");
            return 0;
        }
        error = GetLastError();
        WSCLOG(2, L"CKeyCrypter::Initialize CryptAcquireContext(flags = %08x) (original return code = %08x)",
               attempt.flags, error);
    }

    DWORD result = MapCryptError(error);
    WSCLOG(1, L"CKeyCrypter::Initialize CryptAcquireContext ZEB_ERROR = %08x", result);
    if (error == ERROR_ACCESS_DENIED) {
        // A machine container left behind by another account blocks ours;
        // remove it so that the next attempt can succeed.
        HCRYPTPROV unused = 0;
        if (g_acquireContext(&unused, m_tszKeyContainerName, nullptr, kProviderType,
                             CRYPT_DELETEKEYSET | CRYPT_MACHINE_KEYSET)) {
            WSCLOG(3, L"CKeyCrypter::Initialize CryptAcquireContext(CRYPT_DELETEKEYSET | CRYPT_MACHINE_KEYSET) success");
        } else {
            WSCLOG(2,
                   L"CKeyCrypter::Initialize CryptAcquireContext(CRYPT_DELETEKEYSET | CRYPT_MACHINE_KEYSET) not "
                   L"success (return code = %08x), but continue anyway.",
                   GetLastError());
        }
    }
    return result;
}

DWORD KeyCrypter::Clear() {
    WSCLOG(4, L"KeyCrypter::Clear IN");
    if (!m_hProv) {
        WSCLOG(3, L"KeyCrypter::Clear m_hProv == NULL");
        WSCLOG(4, L"KeyCrypter::Clear OUT");
        return 0;
    }
    m_hProv.reset();
    if (!IsSupportedAlgorithm(m_algId))
        return QV_FAIL(ZEB_ERROR_CRYPT_GENERAL_ERROR, L"KeyCrypter::Clear UnsupportedProvider ZEB_ERROR = %08x");
    HCRYPTPROV unused = 0;
    if (m_dwProviderState == kUserKeySet) {
        if (!g_acquireContext(&unused, m_tszKeyContainerName, nullptr, kProviderType, CRYPT_DELETEKEYSET)) {
            WSCLOG(2,
                   L"CKeyCrypter::Clear CryptAcquireContext(CRYPT_DELETEKEYSET)(containaer name = %s) could not "
                   L"delete (original return code = %08x)",
                   m_tszKeyContainerName, GetLastError());
        }
    } else if (m_dwProviderState == kMachineKeySet) {
        if (!g_acquireContext(&unused, m_tszKeyContainerName, nullptr, kProviderType,
                              CRYPT_DELETEKEYSET | CRYPT_MACHINE_KEYSET)) {
            WSCLOG(2,
                   L"CKeyCrypter::Clear CryptAcquireContext(CRYPT_DELETEKEYSET | CRYPT_MACHINE_KEYSET)(containaer "
                   L"name = %s) could not delete (original return code = %08x)",
                   m_tszKeyContainerName, GetLastError());
        }
    }
    m_algId = 0;
    WSCLOG(4, L"KeyCrypter::Clear OUT");
    return 0;
}

DWORD KeyCrypter::Next(BYTE* buffer, DWORD count) {
    WSCLOG(4, L"KeyCrypter::Next IN");
    if (!buffer && count)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"KeyCrypter::Next buffer ERROR_INVALID_PARAMETER ZEB_ERROR = %08x");
    if (!m_hProv) {
        // The invalid-handle code is not a CryptoAPI code: the mapping turns
        // it into the general one.
        DWORD result = MapCryptError(ZEB_ERROR_INVALID_HANDLE);
        WSCLOG(1, L"KeyCrypter::Next m_hProv ZEB_ERROR = %08x", result);
        return result;
    }
    if (!CryptGenRandom(m_hProv.get(), count, buffer))
        return QV_CRYPT_FAILED(L"CKeyCrypter::Next CryptGenRandom Error = %08x ZEB_ERROR = %08x");
    WSCLOG(4, L"KeyCrypter::Next OUT");
    return 0;
}

DWORD KeyCrypter::GetHashData(const BYTE* data, DWORD size, BYTE** outHash, DWORD* outHashSize) {
    WSCLOG(4, L"KeyCrypter::GetHashData IN");
    if (!data && size)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"KeyCrypter::GetHashData in_pbyData ERROR_INVALID_PARAMETER ZEB_ERROR = %08x");
    if (!outHash || !outHashSize)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"KeyCrypter::GetHashData out_ppbyHash ERROR_INVALID_PARAMETER ZEB_ERROR = %08x");
    *outHash = nullptr;
    *outHashSize = 0;
    if (!m_hProv) return QV_FAIL(ZEB_ERROR_INVALID_HANDLE, L"KeyCrypter::GetHashData m_hProv ZEB_ERROR = %08x");

    qv::UniqueCryptHash hash;
    if (!CryptCreateHash(m_hProv.get(), m_algId, 0, 0, hash.put()))
        return QV_CRYPT_FAILED(L"KeyCrypter::GetHashData CryptCreateHash Error = %08x ZEB_ERROR = %08x");
    if (!CryptHashData(hash.get(), data, size, 0))
        return QV_CRYPT_FAILED(L"KeyCrypter::GetHashData CryptHashData Error = %08x ZEB_ERROR = %08x");
    qv::SecretBytes value;
    if (!value.allocate(kHashOutputBytes))
        return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"KeyCrypter::GetHashData malloc ZEB_ERROR = %08x");
    DWORD valueSize = kHashOutputBytes;
    if (!CryptGetHashParam(hash.get(), HP_HASHVAL, value.get(), &valueSize, 0))
        return QV_CRYPT_FAILED(L"KeyCrypter::GetHashData CryptGetHashParam Error = %08x ZEB_ERROR = %08x");
    hash.reset();
    *outHash = value.release();
    *outHashSize = kHashOutputBytes;
    WSCLOG(4, L"KeyCrypter::GetHashData OUT");
    return 0;
}

DWORD KeyCrypter::CreateHMAC(ALG_ID algorithm, USHORT keyLength, const BYTE* key, DWORD dataSize, const BYTE* data,
                             USHORT* outHMACLength, BYTE** outHMAC) {
    WSCLOG(4, L"KeyCrypter::CreateHMAC IN");
    if (!m_hProv) return QV_FAIL(ZEB_ERROR_INVALID_HANDLE, L"KeyCrypter::CreateHMAC m_hProv ZEB_ERROR = %08x");
    if (algorithm != CALG_MD5 && algorithm != CALG_SHA1)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"KeyCrypter::CreateHMAC in_AlgID ERROR_INVALID_PARAMETER ZEB_ERROR = %08x");
    if (keyLength > 0 && !key)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"KeyCrypter::CreateHMAC in_pbyHMACKey ERROR_INVALID_PARAMETER ZEB_ERROR = %08x");
    if (dataSize == 0 || !data)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"KeyCrypter::CreateHMAC in_pbySourceData ERROR_INVALID_PARAMETER ZEB_ERROR = %08x");
    if (!outHMACLength || !outHMAC)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"KeyCrypter::CreateHMAC out_ppbyHMACValue ERROR_INVALID_PARAMETER ZEB_ERROR = %08x");
    if (keyLength > kHmacKeyBufferBytes)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"KeyCrypter::CreateHMAC in_usHMACKeyLength ERROR_INVALID_PARAMETER ZEB_ERROR = %08x");
    *outHMACLength = 0;
    *outHMAC = nullptr;

    // Zero padding to the 3DES key size does not change an HMAC.
    BYTE paddedKey[kHmacKeyBufferBytes] = {};
    const auto wipePaddedKey = qv::scope_exit([&] { qv::SecureWipe(paddedKey, sizeof(paddedKey)); });
    if (keyLength) std::memcpy(paddedKey, key, keyLength);

    qv::UniqueCryptKey hmacKey;
    {
        // The provider takes no plain HMAC key: wrap it under a temporary
        // exchange key and import it as a SIMPLEBLOB.
        qv::UniqueCryptKey exchangeKey;
        if (!CryptGenKey(m_hProv.get(), CALG_RSA_KEYX, 0, exchangeKey.put()))
            return QV_CRYPT_FAILED(L"KeyCrypter::CreateHMAC CryptGenKey Error = %08x ZEB_ERROR = %08x");
        DWORD blockSize = 0;
        if (!CryptEncrypt(exchangeKey.get(), 0, TRUE, 0, nullptr, &blockSize, 0))
            return QV_CRYPT_FAILED(L"KeyCrypter::CreateHMAC CryptEncrypt Error = %08x ZEB_ERROR = %08x");
        if (blockSize < kHmacKeyBufferBytes) blockSize = kHmacKeyBufferBytes;
        const DWORD blobSize = kSimpleBlobHeaderBytes + blockSize;
        qv::SecretBytes blob;
        if (!blob.allocate(blobSize))
            return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"KeyCrypter::CreateHMAC malloc ZEB_ERROR = %08x");
        BYTE* wrapped = blob.get() + kSimpleBlobHeaderBytes;
        std::memcpy(wrapped, paddedKey, kHmacKeyBufferBytes);
        DWORD wrappedSize = kHmacKeyBufferBytes;
        if (!CryptEncrypt(exchangeKey.get(), 0, TRUE, 0, wrapped, &wrappedSize, blockSize))
            return QV_CRYPT_FAILED(L"KeyCrypter::CreateHMAC CryptEncrypt Error = %08x ZEB_ERROR = %08x");
        // BLOBHEADER then the wrapping algorithm, little-endian as CryptoAPI reads it.
        BYTE* header = blob.get();
        header[0] = kSimpleBlobType;
        header[1] = kSimpleBlobVersion;
        header[2] = 0;
        header[3] = 0;
        const DWORD keyAlgorithm = CALG_3DES;
        const DWORD wrapAlgorithm = CALG_RSA_KEYX;
        for (int i = 0; i < 4; ++i) {
            header[4 + i] = static_cast<BYTE>(keyAlgorithm >> (8 * i));
            header[8 + i] = static_cast<BYTE>(wrapAlgorithm >> (8 * i));
        }
        if (!CryptImportKey(m_hProv.get(), blob.get(), kSimpleBlobHeaderBytes + wrappedSize, exchangeKey.get(),
                            CRYPT_EXPORTABLE, hmacKey.put()))
            return QV_CRYPT_FAILED(L"KeyCrypter::CreateHMAC CryptImportKey Error = %08x ZEB_ERROR = %08x");
    }

    qv::UniqueCryptHash hash;
    if (!CryptCreateHash(m_hProv.get(), CALG_HMAC, hmacKey.get(), 0, hash.put()))
        return QV_CRYPT_FAILED(L"KeyCrypter::CreateHMAC CryptCreateHash Error = %08x ZEB_ERROR = %08x");
    HMAC_INFO info = {};
    info.HashAlgid = algorithm;  // default inner and outer strings
    if (!CryptSetHashParam(hash.get(), HP_HMAC_INFO, reinterpret_cast<const BYTE*>(&info), 0))
        return QV_CRYPT_FAILED(L"KeyCrypter::CreateHMAC CryptSetHashParam Error = %08x ZEB_ERROR = %08x");
    if (!CryptHashData(hash.get(), data, dataSize, 0))
        return QV_CRYPT_FAILED(L"KeyCrypter::CreateHMAC CryptHashData Error = %08x ZEB_ERROR = %08x");
    DWORD hashSize = 0;
    DWORD paramSize = sizeof(hashSize);
    if (!CryptGetHashParam(hash.get(), HP_HASHSIZE, reinterpret_cast<BYTE*>(&hashSize), &paramSize, 0))
        return QV_CRYPT_FAILED(L"KeyCrypter::CreateHMAC CryptGetHashParam Error = %08x ZEB_ERROR = %08x");
    if (!CryptGetHashParam(hash.get(), HP_HASHVAL, nullptr, &hashSize, 0))
        return QV_CRYPT_FAILED(L"KeyCrypter::CreateHMAC CryptGetHashParam Error = %08x ZEB_ERROR = %08x");
    qv::SecretBytes value;
    if (hashSize == 0 || hashSize > 0xFFFF || !value.allocate(hashSize < 8 ? 8 : hashSize))
        return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"KeyCrypter::CreateHMAC malloc ZEB_ERROR = %08x");
    std::memset(value.get(), 0, 8);
    if (!CryptGetHashParam(hash.get(), HP_HASHVAL, value.get(), &hashSize, 0))
        return QV_CRYPT_FAILED(L"KeyCrypter::CreateHMAC CryptGetHashParam Error = %08x ZEB_ERROR = %08x");
    hash.reset();
    hmacKey.reset();
    *outHMACLength = static_cast<USHORT>(hashSize);
    *outHMAC = value.release();
    WSCLOG(4, L"KeyCrypter::CreateHMAC OUT");
    return 0;
}

DWORD KeyCrypter::EncryptWithPublicKey(USHORT publicKeyLength, const BYTE* publicKey, DWORD dataSize,
                                       const BYTE* data, DWORD* outSize, BYTE** outEncrypted) {
    WSCLOG(4, L"KeyCrypter::EncryptWithPublicKey IN");
    if (!m_hProv)
        return QV_FAIL(ZEB_ERROR_INVALID_HANDLE, L"KeyCrypter::EncryptWithPublicKey m_hProv ZEB_ERROR = %08x");
    if (publicKeyLength == 0 || !publicKey)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"KeyCrypter::EncryptWithPublicKey in_pbyPublicKey ERROR_INVALID_PARAMETER ZEB_ERROR = %08x");
    if (dataSize == 0 || !data)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"KeyCrypter::EncryptWithPublicKey in_pbySourceData ERROR_INVALID_PARAMETER ZEB_ERROR = %08x");
    if (!outSize || !outEncrypted)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"KeyCrypter::EncryptWithPublicKey out_ppbyEncrypted ERROR_INVALID_PARAMETER ZEB_ERROR = %08x");
    *outSize = 0;
    *outEncrypted = nullptr;

    DWORD blobSize = 0;
    qv::ByteBuffer blob;
    DWORD result = DecodePublicKey(publicKeyLength, publicKey, &blobSize, qv::out_param(blob, blobSize));
    if (ZEB_FAILED(result)) return result;

    qv::UniqueCryptKey rsaKey;
    if (!CryptImportKey(m_hProv.get(), blob.get(), blobSize, 0, CRYPT_EXPORTABLE, rsaKey.put()))
        return QV_CRYPT_FAILED(L"KeyCrypter::EncryptWithPublicKey CryptImportKey Error = %08x ZEB_ERROR = %08x");

    DWORD encryptedSize = 0;
    qv::SecretBytes littleEndian;
    result = EncryptData(rsaKey.get(), dataSize, data, &encryptedSize, qv::out_param(littleEndian, encryptedSize));
    if (ZEB_FAILED(result)) return result;

    // CryptoAPI writes the block least significant byte first; the service
    // reads the big-endian RSA block.
    BYTE* reversed = Reverse(encryptedSize, littleEndian.get());
    if (reversed) {
        *outEncrypted = reversed;
        *outSize = encryptedSize;
    } else {
        // Reported as success with a null output, as built: callers check the pointer.
        WSCLOG(1, L"CKeyCrypter::EncryptWithPublicKey Reverse ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
    }
    WSCLOG(4, L"KeyCrypter::EncryptWithPublicKey OUT");
    return 0;
}

DWORD KeyCrypter::DecodePublicKey(USHORT publicKeyLength, const BYTE* publicKey, DWORD* outBlobSize,
                                  BYTE** outBlob) {
    WSCLOG(4, L"KeyCrypter DecodePublicKey IN");
    if (publicKeyLength == 0 || !publicKey || !outBlobSize || !outBlob)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"KeyCrypter DecodePublicKey ERROR_INVALID_PARAMETER ZEB_ERROR = %08x");
    *outBlobSize = 0;
    *outBlob = nullptr;

    DWORD size = 0;
    if (!CryptDecodeObject(kAsnEncoding, RSA_CSP_PUBLICKEYBLOB, publicKey, publicKeyLength, 0, nullptr, &size))
        return QV_CRYPT_FAILED(L"KeyCrypter DecodePublicKey CryptDecodeObject Error = %08x ZEB_ERROR = %08x");
    qv::ByteBuffer blob;
    if (!blob.allocate(size))
        return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"KeyCrypter DecodePublicKey malloc ZEB_ERROR = %08x");
    if (!CryptDecodeObject(kAsnEncoding, RSA_CSP_PUBLICKEYBLOB, publicKey, publicKeyLength, 0, blob.get(), &size))
        return QV_CRYPT_FAILED(L"KeyCrypter DecodePublicKey CryptDecodeObject Error = %08x ZEB_ERROR = %08x");
    *outBlobSize = size;
    *outBlob = blob.release();
    WSCLOG(4, L"KeyCrypter DecodePublicKey OUT");
    return 0;
}

DWORD KeyCrypter::EncryptData(HCRYPTKEY key, DWORD dataSize, const BYTE* data, DWORD* outSize,
                              BYTE** outEncrypted) {
    WSCLOG(4, L"KeyCrypter EncryptData IN");
    if (!key || dataSize == 0 || !data || !outSize || !outEncrypted)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"KeyCrypter EncryptData ERROR_INVALID_PARAMETER ZEB_ERROR = %08x");
    *outSize = 0;
    *outEncrypted = nullptr;

    // The data is usually key material: every copy is wiped on release.
    qv::SecretBytes buffer;
    if (!buffer.allocate(dataSize))
        return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"KeyCrypter EncryptData malloc ZEB_ERROR = %08x");
    std::memcpy(buffer.get(), data, dataSize);
    DWORD length = dataSize;
    if (!CryptEncrypt(key, 0, TRUE, 0, buffer.get(), &length, dataSize)) {
        const DWORD error = GetLastError();
        if (error != ERROR_MORE_DATA)
            return QV_FAILURE(error, &MapCryptError, L"CKeyCrypter EncryptData CryptEncrypt Error = %08x ZEB_ERROR = %08x");
        // `length` now holds the size the block needs. Wine's rsaenh leaves it
        // unchanged; then ask with a null buffer, which both platforms answer.
        if (length <= dataSize) {
            length = dataSize;
            if (!CryptEncrypt(key, 0, TRUE, 0, nullptr, &length, 0))
                return QV_CRYPT_FAILED(L"CKeyCrypter EncryptData CryptEncrypt Error = %08x ZEB_ERROR = %08x");
        }
        const DWORD needed = length;
        if (needed < dataSize || !buffer.allocate(needed))
            return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"KeyCrypter EncryptData malloc ZEB_ERROR = %08x");
        std::memcpy(buffer.get(), data, dataSize);
        length = dataSize;
        if (!CryptEncrypt(key, 0, TRUE, 0, buffer.get(), &length, needed))
            return QV_CRYPT_FAILED(L"CKeyCrypter EncryptData CryptEncrypt Error = %08x ZEB_ERROR = %08x");
    }
    *outSize = length;
    *outEncrypted = buffer.release();
    WSCLOG(4, L"KeyCrypter EncryptData OUT");
    return 0;
}

BYTE* KeyCrypter::Reverse(DWORD size, const BYTE* buffer) {
    WSCLOG(4, L"KeyCrypter Reverse IN");
    if (size == 0 || !buffer) {
        WSCLOG(1, L"KeyCrypter Reverse ERROR_INVALID_PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    BYTE* reversed = static_cast<BYTE*>(std::malloc(size));
    if (!reversed) {
        WSCLOG(1, L"KeyCrypter Reverse malloc ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
        return nullptr;
    }
    for (DWORD i = 0; i < size; ++i) reversed[i] = buffer[size - 1 - i];
    WSCLOG(4, L"KeyCrypter Reverse OUT");
    return reversed;
}
