// PLACEHOLDER: replaced by the CryptoAPI implementation.
#include "crypto/KeyCrypter.h"
#include "Quorvantis.h"
KeyCrypter::KeyCrypter() : m_hProv(0), m_algId(0), m_tszKeyContainerName{}, m_dwProviderState(0) {}
KeyCrypter::~KeyCrypter() = default;
DWORD KeyCrypter::Initialize(ALG_ID, HCRYPTPROV) { return ZEB_ERROR_CRYPT_GENERAL_ERROR; }
DWORD KeyCrypter::Clear() { return 0; }
DWORD KeyCrypter::Next(BYTE*, DWORD) { return ZEB_ERROR_CRYPT_GENERAL_ERROR; }
