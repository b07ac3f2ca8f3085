// CryptoAPI for what the add-in needs: random bytes, RSA encryption with the
// device service's public key, MD5 hashes and HMAC, and the mapping of
// CryptoAPI errors to result codes. Use on one thread: Initialize, use, Clear
// (the destructor clears too). Buffers returned are malloc'd; free() them.
#pragma once

#include <windows.h>
#include <wincrypt.h>

#include "common/Holders.h"

class KeyCrypter {
public:
    // How the provider handle was obtained.
    enum ProviderState : DWORD {
        kSharedProvider = 0,   // given by the caller, AddRef'd
        kVerifyContext = 1,    // CRYPT_VERIFYCONTEXT
        kUserKeySet = 2,       // per-thread container in the user key set
        kMachineKeySet = 3,    // per-thread container in the machine key set
    };

    // What Initialize is given for the key exchange's container: the 3DES
    // algorithm (26115), which makes a container good for RSA encryption.
    static constexpr ALG_ID kKeyExchangeAlgorithm = CALG_3DES;

    KeyCrypter();
    virtual ~KeyCrypter();
    KeyCrypter(const KeyCrypter&) = delete;
    KeyCrypter& operator=(const KeyCrypter&) = delete;

    // algorithm: CALG_3DES, CALG_MD5 or CALG_RSA_KEYX; sharedProvider may be 0.
    DWORD Initialize(ALG_ID algorithm, HCRYPTPROV sharedProvider);
    DWORD Clear();
    DWORD Next(BYTE* buffer, DWORD count);
    DWORD GetHashData(const BYTE* data, DWORD size, BYTE** outHash, DWORD* outHashSize);
    DWORD CreateHMAC(ALG_ID algorithm, USHORT keyLength, const BYTE* key, DWORD dataSize, const BYTE* data,
                     USHORT* outHMACLength, BYTE** outHMAC);
    // publicKey: DER PKCS #1 RSAPublicKey. Output: the big-endian RSA block.
    DWORD EncryptWithPublicKey(USHORT publicKeyLength, const BYTE* publicKey, DWORD dataSize, const BYTE* data,
                               DWORD* outSize, BYTE** outEncrypted);
    DWORD DecodePublicKey(USHORT publicKeyLength, const BYTE* publicKey, DWORD* outBlobSize, BYTE** outBlob);
    DWORD EncryptData(HCRYPTKEY key, DWORD dataSize, const BYTE* data, DWORD* outSize, BYTE** outEncrypted);
    // A new buffer with the bytes in reverse order, or nullptr.
    static BYTE* Reverse(DWORD size, const BYTE* buffer);

    // CryptoAPI / Win32 error -> result code (ZEB_ERROR_CRYPT_GENERAL_ERROR if unknown).
    static DWORD MapCryptError(DWORD error);

    // The call Initialize and Clear use to acquire and delete contexts
    // (CryptAcquireContextW). Tests swap it to reach the container fallbacks;
    // null restores the default. Returns the previous one.
    using AcquireContextFn = BOOL(WINAPI*)(HCRYPTPROV*, LPCWSTR, LPCWSTR, DWORD, DWORD);
    static AcquireContextFn SetAcquireContextForTest(AcquireContextFn fn);

    // For tests and diagnostics.
    HCRYPTPROV Provider() const { return m_hProv.get(); }
    DWORD State() const { return m_dwProviderState; }
    const wchar_t* ContainerName() const { return m_tszKeyContainerName; }

private:
    qv::UniqueCryptProv m_hProv;
    ALG_ID m_algId;
    wchar_t m_tszKeyContainerName[50];
    DWORD m_dwProviderState;
};
