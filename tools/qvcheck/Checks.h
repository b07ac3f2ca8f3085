// The platform checks of qvcheck: one per assumption the add-in makes about
// the Windows it runs on. Each check uses the add-in's own routine where the
// product library offers one (KeyCrypter, DocumentFactory, SoapMessage, the
// add-in log's settings reader, the message-identifier maker) and otherwise
// repeats the product's calls with the product's values. Nothing goes on the
// network. Checks run one after another on the calling thread.
#pragma once

#include <windows.h>
#include <wincrypt.h>

#include <functional>
#include <string>
#include <vector>

#include "Report.h"
#include "Rfc2202.h"

class KeyCrypter;

namespace qvcheck {

struct Environment {
    bool wine = false;
    std::string wineVersion;  // empty on Windows
};

// Wine is told by ntdll's export wine_get_version.
Environment DetectEnvironment();
// "Windows 10.0.19045, x64 process" and, under Wine, "(Wine 8.0)".
std::string DescribePlatform(const Environment& environment);

struct Check {
    const char* name;
    Result (*run)(const Environment& environment);
};
// Every check, in the order qvcheck runs and prints them.
const std::vector<Check>& AllChecks();

// --- Pieces the unit tests reach -------------------------------------------

// How one HMAC is computed on the platform.
enum class HmacRoute {
    kAddin,           // KeyCrypter::CreateHMAC as it stands (keys up to 24 bytes)
    kAddinHashedKey,  // the same, with a key longer than the 64-byte hash block hashed first (RFC 2104)
    kPlaintextKey,    // keys of 25 to 64 bytes, which no 24-byte 3DES key carries: the same
                      // CALG_HMAC hash with the key imported as a PLAINTEXTKEYBLOB
                      // (CRYPT_IPSEC_HMAC_KEY)
};
HmacRoute RouteFor(size_t keyBytes);
const char* RouteText(HmacRoute route);

struct HmacOutcome {
    HmacRoute route = HmacRoute::kAddin;
    DWORD code = 0;           // a 0xD5 result code of the product, or a Win32/CryptoAPI error
    std::string failedStep;   // empty when the value was computed
    std::string hex;          // the HMAC value
};
// One HMAC through `crypter` (initialised), algorithm CALG_MD5 or CALG_SHA1.
HmacOutcome ComputeHmac(KeyCrypter& crypter, ALG_ID algorithm, const std::vector<BYTE>& key,
                        const std::vector<BYTE>& data);

// The HMAC check over a table of cases (the RFC 2202 table in qvcheck).
Result CheckHmac(const Environment& environment, ALG_ID algorithm, const std::vector<Rfc2202Case>& cases);

// The secure-protocol offers of the TLS check: TLS 1.0-1.3, then TLS
// 1.2-1.3, each through `setProtocols` (0 or the Win32 error). A refusal with
// ERROR_INVALID_PARAMETER is retried without TLS 1.3 and is only a note when
// that is accepted; any other refusal fails.
struct ProtocolOffers {
    bool ok = true;
    std::string detail;
};
ProtocolOffers OfferSecureProtocols(const std::function<DWORD(DWORD)>& setProtocols);

}  // namespace qvcheck
