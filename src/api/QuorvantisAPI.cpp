#include "api/QuorvantisAPI.h"

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <cwchar>
#include <memory>
#include <new>
#include <string>

#include "common/AuSSSection.h"
#include "common/HeapBuffer.h"
#include "common/Module.h"
#include "config/AddinSettings.h"
#include "auth/IAuthentication.h"
#include "crypto/Base64.h"
#include "crypto/KeyCrypter.h"
#include "device/CDevice.h"
#include "device/CDeviceList.h"
#include "clients/WSDrvCommClient.h"
#include "log/WSCLog.h"

namespace QuorvantisAPI {
namespace {

const ZEB_INTERFACE kInterface0100 = {
    ::ZEB_GetInterface, Initialize, Open, Close, BufferFree, GetPolicy, Authentication, GetACT,
};

// Sorted by version; looked up with a lower-bound search.
struct InterfaceRecord {
    const ZEB_INTERFACE* table;
    USHORT version;
};
const InterfaceRecord kInterfaces[] = {
    {&kInterface0100, 0x0100},
};

LONG g_attachCount = 0;

// The handle counter and the device list each have their own lock, never
// held together and never held while a session talks to its server.
AuSSSection g_handleLock;
DWORD g_lastHandle = 0;
CDeviceList g_devices;

constexpr DWORD kHmacKeyBytes = WSDrvCommClient::kHmacKeyBytes;

}  // namespace

void OnProcessAttach(HMODULE module) {
    qv::SetThisModule(module);
    LONG count = InterlockedIncrement(&g_attachCount);
    try {
        AddinSettings::Replace(std::make_shared<const AddinSettings>());
    } catch (...) {
        // Out of memory: the settings are built on first use instead.
    }
    WSCLOG(3, L"DllMain DLL_PROCESS_ATTACH hModule = %08X  %d", static_cast<unsigned>(reinterpret_cast<UINT_PTR>(module)),
           static_cast<int>(count));
}

void OnProcessDetach(HMODULE module) {
    LONG count = InterlockedDecrement(&g_attachCount);
    WSCLOG(3, L"DllMain DLL_PROCESS_DETACH hModule = %08X %d", static_cast<unsigned>(reinterpret_cast<UINT_PTR>(module)),
           static_cast<int>(count));
}

}  // namespace QuorvantisAPI

// The only export; also the table's first slot, so a host holding the table
// can ask for another version.
extern "C" const ZEB_INTERFACE* WINAPI ZEB_GetInterface(USHORT version) {
    return QuorvantisAPI::GetInterface(version);
}

namespace QuorvantisAPI {

const ZEB_INTERFACE* WINAPI GetInterface(USHORT version) {
    const InterfaceRecord* end = kInterfaces + sizeof(kInterfaces) / sizeof(kInterfaces[0]);
    const InterfaceRecord* found = std::lower_bound(
        kInterfaces, end, version, [](const InterfaceRecord& r, USHORT v) { return r.version < v; });
    if (found != end && found->version == version) return found->table;
    SetLastError(RPC_S_INTERFACE_NOT_FOUND);
    return nullptr;
}

DWORD WINAPI Initialize(LPCWSTR iniPath) {
    WSCLOG(4, L"Initialize IN");
    if (!iniPath) return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"Initialize PARAMETER ZEB_ERROR = %08x");
    try {
        AddinSettings::Replace(std::make_shared<const AddinSettings>(iniPath));
    } catch (...) {
        // Out of memory: the previous settings stay current.
    }
    WSCLOG(4, L"Initialize OUT");
    return 0;
}

DWORD WINAPI Open(LPCWSTR address, DWORD* handle, DWORD openFlags) {
    WSCLOG(4, L"Open IN");
    if (!address || !*address || !handle)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"Open PARAMETER ZEB_ERROR = %08x");
    DWORD newHandle;
    {
        AuSSLock lock(g_handleLock);
        newHandle = ++g_lastHandle;
        *handle = newHandle;
    }
    // The session is ours until Close; the list only finds it.
    std::unique_ptr<CDevice> device;
    try {
        device.reset(new (std::nothrow) CDevice(address, newHandle));
    } catch (...) {
    }
    if (!device || !g_devices.Add(device.get()))
        return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"Open new CDevice ZEB_ERROR = %08x");
    DWORD result;
    try {
        result = device->Open(openFlags);
    } catch (...) {
        result = ZEB_ERROR_OUTOFMEMORY;
    }
    if (ZEB_FAILED(result)) {
        g_devices.Remove(device.get());
        return result;
    }
    static_cast<void>(device.release());  // the table owns it now; Close destroys it
    WSCLOG(4, L"Open OUT");
    return result;
}

void WINAPI Close(DWORD handle) {
    WSCLOG(4, L"Close IN");
    std::unique_ptr<CDevice> device(g_devices.GetCDevice(handle));
    if (device) {
        g_devices.Remove(device.get());
        try {
            device->Close();
        } catch (...) {
        }
    }
    WSCLOG(4, L"Close OUT");
}

void WINAPI BufferFree(void* buffer) {
    WSCLOG(4, L"BufferFree IN");
    // The host returns HMAC keys and password digests here as well: every
    // block is wiped, whole, before it is freed.
    if (buffer) qv::FreeSecret(buffer, _msize(buffer));
    WSCLOG(4, L"BufferFree OUT");
}

DWORD WINAPI GetPolicy(DWORD handle, DWORD* count, AuthInfo** list, DWORD* sslFlag) {
    WSCLOG(4, L"GetPolicy IN");
    if (!count || !list || !sslFlag)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"GetPolicy PARAMETER ZEB_ERROR = %08x");
    CDevice* device = g_devices.GetCDevice(handle);
    if (!device) return QV_FAIL(ZEB_ERROR_INVALID_HANDLE, L"GetPolicy CDeviceList::GetCDevice ZEB_ERROR = %08x");
    // The session fills outputs of our own, so a failure never frees whatever
    // the host left in its list pointer.
    DWORD policyCount = 0;
    AuthInfo* policyList = nullptr;
    DWORD result;
    try {
        result = device->GetPolicy(&policyCount, &policyList, sslFlag);
    } catch (...) {
        result = ZEB_ERROR_OUTOFMEMORY;
    }
    if (ZEB_FAILED(result)) {
        std::free(policyList);
        *count = 0;
        *list = nullptr;
        return result;
    }
    *count = policyCount;
    *list = policyList;
    WSCLOG(4, L"GetPolicy OUT");
    return result;
}


DWORD WINAPI Authentication(DWORD handle, DWORD authFlags, const AuthInfo* authInfo, AuthCredential* credential,
                            BYTE** output, DWORD* outputSize) {
    WSCLOG(4, L"Authentication IN");
    if (!authInfo || qv::CheckCredentials(authFlags, *authInfo, credential, output, outputSize) != qv::CredentialFit::Fits)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"Authentication ERROR_INVALID_PARAMETER ZEB_ERROR = %08x");
    CDevice* device = g_devices.GetCDevice(handle);
    if (!device) return QV_FAIL(ZEB_ERROR_INVALID_HANDLE, L"Authentication CDeviceList::GetCDevice ZEB_ERROR = %08x");
    // The session always gets outputs of its own; the host sees them only
    // when it asked for the digest.
    BYTE* buffer = nullptr;
    DWORD size = 0;
    DWORD result;
    try {
        result = device->Authentication(authFlags, authInfo, credential, &buffer, &size);
    } catch (...) {
        result = ZEB_ERROR_OUTOFMEMORY;
    }
    if (ZEB_FAILED(result)) {
        qv::FreeSecret(buffer, size);
        return result;
    }
    // Only SDL and SDL2 require both outputs with the return-digest flag; the
    // other mechanisms pass the checks without them, and then nothing can be
    // handed over.
    if ((authFlags & AUTH_FLAG_RETURN_DIGEST) && output && outputSize) {
        *output = buffer;
        *outputSize = size;
    } else {
        qv::FreeSecret(buffer, size);
    }
    WSCLOG(4, L"Authentication OUT");
    return result;
}

namespace {

// Frees what GetACT handed out so far and zeroes the host's outputs.
void ClearActOutputs(BYTE** hmacKey, DWORD* hmacKeySize, BYTE** act, DWORD* actSize, BYTE** signature,
                     DWORD* signatureSize) {
    // The key buffer is always kHmacKeyBytes long, also before its size is
    // reported, so all of it is wiped.
    qv::FreeSecret(*hmacKey, kHmacKeyBytes);
    std::free(*act);
    std::free(*signature);
    *hmacKey = *act = *signature = nullptr;
    *hmacKeySize = *actSize = *signatureSize = 0;
}

// A fresh 20-byte HMAC key in *hmacKey (size in *hmacKeySize), made with a
// short-lived key container; on failure nothing is left behind.
DWORD MakeHmacKey(BYTE** hmacKey, DWORD* hmacKeySize) {
    *hmacKey = static_cast<BYTE*>(std::calloc(kHmacKeyBytes, 1));
    if (!*hmacKey) return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"GetACT malloc ppHMACKey ZEB_ERROR = %08x");
    KeyCrypter crypter;
    DWORD result = crypter.Initialize(KeyCrypter::kKeyExchangeAlgorithm, 0);
    if (!ZEB_FAILED(result)) {
        result = crypter.Next(*hmacKey, kHmacKeyBytes);
        if (!ZEB_FAILED(result)) {
            *hmacKeySize = kHmacKeyBytes;
            result = crypter.Clear();
        }
    }
    if (ZEB_FAILED(result)) {
        crypter.Clear();
        qv::FreeSecret(*hmacKey, kHmacKeyBytes);
        *hmacKey = nullptr;
        *hmacKeySize = 0;
    }
    return result;
}

// The server holds no usable key for this client: fetch its public key, make
// a new HMAC key (handed to the host in *hmacKey) and fill the key fields of
// the second attempt with both.
DWORD OfferNewKey(CDevice* device, ActKeyFields* key, BYTE** hmacKey, DWORD* hmacKeySize) {
    WSCLOG(4, L"GetPublicKey IN");
    std::wstring keyLength;  // not passed on
    key->publicKeyAlgorithm.clear();
    key->publicKeyStrength.clear();
    key->publicKey.clear();
    DWORD result = device->GetPublicKey(&key->publicKeyAlgorithm, &key->publicKeyStrength, &keyLength,
                                        &key->publicKey);
    if (ZEB_FAILED(result)) return result;
    WSCLOG(4, L"GetPublicKey OUT");

    key->hmacAlgorithm = std::to_wstring(WSDrvCommClient::kHmacAlgorithm);
    key->hmacKeyStrength = std::to_wstring(WSDrvCommClient::kHmacKeyStrength);
    result = MakeHmacKey(hmacKey, hmacKeySize);
    if (ZEB_FAILED(result)) return result;
    key->hmacKey = Base64Encoding(*hmacKey, kHmacKeyBytes);
    if (key->hmacKey.empty())
        return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"GetACT Base64Encoding ppHMACKey ZEB_ERROR = %08x");
    return result;
}

DWORD RunGetAct(CDevice* device, LPCWSTR subject, DWORD actFlags, BYTE** hmacKey, DWORD* hmacKeySize, BYTE** act,
                DWORD* actSize, BYTE** signature, DWORD* signatureSize) {
    *hmacKey = *act = *signature = nullptr;
    *hmacKeySize = *actSize = *signatureSize = 0;

    ActKeyFields key;  // the first attempt names no key
    std::wstring actText;
    std::wstring signatureText;
    DWORD result = device->GetACT(subject, actFlags, key, &actText, &signatureText);
    if (ZEB_FAILED(result) && result != ZEB_ERROR_ACT_KEY_REQUIRED) return result;

    if (result == ZEB_ERROR_ACT_KEY_REQUIRED) {
        result = OfferNewKey(device, &key, hmacKey, hmacKeySize);
        if (!ZEB_FAILED(result)) {
            actText.clear();
            signatureText.clear();
            result = device->GetACT(subject, actFlags, key, &actText, &signatureText);
        }
        if (ZEB_FAILED(result)) {
            ClearActOutputs(hmacKey, hmacKeySize, act, actSize, signature, signatureSize);
            return result;
        }
    }

    *actSize = Base64Decoding(actText, act);
    if (!signatureText.empty()) *signatureSize = Base64Decoding(signatureText, signature);
    if (!*act || (!signatureText.empty() && !*signature)) {
        ClearActOutputs(hmacKey, hmacKeySize, act, actSize, signature, signatureSize);
        WSCLOG(1, L"GetACT Base64Decoding ppAct or ppSignature ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    WSCLOG(4, L"GetACT OUT");
    return result;
}

}  // namespace

DWORD WINAPI GetACT(DWORD handle, LPCWSTR subject, DWORD actFlags, BYTE** hmacKey, DWORD* hmacKeySize, BYTE** act,
                    DWORD* actSize, BYTE** signature, DWORD* signatureSize) {
    WSCLOG(4, L"GetACT IN");
    if (!subject || !hmacKey || !hmacKeySize || !act || !actSize || !signature || !signatureSize)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"GetACT ERROR_INVALID_PARAMETER ZEB_ERROR = %08x");
    CDevice* device = g_devices.GetCDevice(handle);
    if (!device) return QV_FAIL(ZEB_ERROR_INVALID_HANDLE, L"GetACT CDeviceList::GetCDevice ZEB_ERROR = %08x");
    try {
        return RunGetAct(device, subject, actFlags, hmacKey, hmacKeySize, act, actSize, signature,
                              signatureSize);
    } catch (...) {
        ClearActOutputs(hmacKey, hmacKeySize, act, actSize, signature, signatureSize);
        return ZEB_ERROR_OUTOFMEMORY;
    }
}

}  // namespace QuorvantisAPI
