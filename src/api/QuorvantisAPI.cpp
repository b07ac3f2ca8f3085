#include "api/QuorvantisAPI.h"

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <cwchar>
#include <new>
#include <string>

#include "common/AuSSSection.h"
#include "common/HeapBuffer.h"
#include "common/Module.h"
#include "config/AddinSettings.h"
#include "crypto/Base64.h"
#include "crypto/KeyCrypter.h"
#include "device/CDevice.h"
#include "device/CDeviceList.h"
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

constexpr DWORD kHmacKeyBytes = 20;
constexpr ALG_ID kKeyCrypterAlgorithm = 26115;  // CALG_3DES

std::wstring DecimalText(DWORD value) {
    wchar_t text[20] = {};
    _ultow(value, text, 10);
    return text;
}

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
    if (!iniPath) {
        WSCLOG(1, L"Initialize PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
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
    if (!address || !*address || !handle) {
        WSCLOG(1, L"Open PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    DWORD newHandle;
    {
        AuSSLock lock(g_handleLock);
        newHandle = ++g_lastHandle;
        *handle = newHandle;
    }
    CDevice* device = nullptr;
    try {
        device = new (std::nothrow) CDevice(address, newHandle);
    } catch (...) {
        device = nullptr;
    }
    if (!device) {
        WSCLOG(1, L"Open new CDevice ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    if (!g_devices.Add(device)) {
        delete device;
        WSCLOG(1, L"Open new CDevice ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    DWORD result;
    try {
        result = device->Open(openFlags);
    } catch (...) {
        result = ZEB_ERROR_OUTOFMEMORY;
    }
    if (ZEB_FAILED(result)) {
        g_devices.Remove(device);
        delete device;
        return result;
    }
    WSCLOG(4, L"Open OUT");
    return result;
}

void WINAPI Close(DWORD handle) {
    WSCLOG(4, L"Close IN");
    CDevice* device = g_devices.GetCDevice(handle);
    if (device) {
        g_devices.Remove(device);
        try {
            device->Close();
        } catch (...) {
        }
        delete device;
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
    if (!count || !list || !sslFlag) {
        WSCLOG(1, L"GetPolicy PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    CDevice* device = g_devices.GetCDevice(handle);
    if (!device) {
        WSCLOG(1, L"GetPolicy CDeviceList::GetCDevice ZEB_ERROR = %08x", ZEB_ERROR_INVALID_HANDLE);
        return ZEB_ERROR_INVALID_HANDLE;
    }
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

namespace {

// The credential fields each mechanism needs, checked before any session work.
bool CredentialsFit(DWORD flags, const AuthInfo* authInfo, const AuthCredential* credential, BYTE** output,
                    DWORD* outputSize) {
    // AuthType is a fixed array: a name filling all of it has no terminator
    // and matches nothing.
    const size_t typeChars = sizeof(authInfo->AuthType) / sizeof(authInfo->AuthType[0]);
    if (wcsnlen(authInfo->AuthType, typeChars) == typeChars) return false;
    const wchar_t* type = authInfo->AuthType;
    auto allThree = [&] { return credential && credential->UserID && credential->Password && credential->Domain; };
    if (wcscmp(type, L"NTLM") == 0) return !(flags & AUTH_FLAG_EXPLICIT_CREDENTIAL) || allThree();
    if (wcscmp(type, L"SDL") == 0 || wcscmp(type, L"SDL2") == 0) {
        if (!credential || !credential->UserID) return false;
        if (!(flags & AUTH_FLAG_DIGEST_PASSWORD) && !credential->Password) return false;
        if ((flags & AUTH_FLAG_RETURN_DIGEST) && (!output || !outputSize)) return false;
        return true;
    }
    if (wcscmp(type, L"Basic") == 0 || wcscmp(type, L"Basic2") == 0) return allThree();
    return false;
}

}  // namespace

DWORD WINAPI Authentication(DWORD handle, DWORD authFlags, const AuthInfo* authInfo, AuthCredential* credential,
                            BYTE** output, DWORD* outputSize) {
    WSCLOG(4, L"Authentication IN");
    if (!authInfo || !CredentialsFit(authFlags, authInfo, credential, output, outputSize)) {
        WSCLOG(1, L"Authentication ERROR_INVALID_PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    CDevice* device = g_devices.GetCDevice(handle);
    if (!device) {
        WSCLOG(1, L"Authentication CDeviceList::GetCDevice ZEB_ERROR = %08x", ZEB_ERROR_INVALID_HANDLE);
        return ZEB_ERROR_INVALID_HANDLE;
    }
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
    if (!*hmacKey) {
        WSCLOG(1, L"GetACT malloc ppHMACKey ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    KeyCrypter crypter;
    DWORD result = crypter.Initialize(kKeyCrypterAlgorithm, 0);
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

DWORD RunGetAct(CDevice* device, LPCWSTR subject, DWORD actFlags, BYTE** hmacKey, DWORD* hmacKeySize, BYTE** act,
                     DWORD* actSize, BYTE** signature, DWORD* signatureSize) {
    *hmacKey = *act = *signature = nullptr;
    *hmacKeySize = *actSize = *signatureSize = 0;

    std::wstring hmacAlgorithm = DecimalText(0);
    std::wstring hmacKeyStrength = DecimalText(0);
    std::wstring hmacKeyText;
    // The key's Base64 text is as secret as the key: wiped on every way out.
    struct WipeOnExit {
        std::wstring& text;
        ~WipeOnExit() { qv::SecureWipe(text); }
    } wipeKeyText{hmacKeyText};
    std::wstring publicKeyAlgorithm = DecimalText(0);
    std::wstring publicKeyStrength = DecimalText(0);
    std::wstring publicKey;
    std::wstring actText;
    std::wstring signatureText;

    DWORD result = device->GetACT(subject, actFlags, hmacAlgorithm, hmacKeyStrength, hmacKeyText, publicKeyAlgorithm,
                                  publicKeyStrength, publicKey, &actText, &signatureText);
    if (ZEB_FAILED(result) && result != ZEB_ERROR_ACT_KEY_REQUIRED) return result;

    if (result == ZEB_ERROR_ACT_KEY_REQUIRED) {
        // The server holds no usable key for this client: send it a new one,
        // encrypted with its public key.
        WSCLOG(4, L"GetPublicKey IN");
        std::wstring keyLength;
        publicKeyAlgorithm.clear();
        publicKeyStrength.clear();
        publicKey.clear();
        result = device->GetPublicKey(&publicKeyAlgorithm, &publicKeyStrength, &keyLength, &publicKey);
        if (ZEB_FAILED(result)) return result;
        WSCLOG(4, L"GetPublicKey OUT");

        hmacAlgorithm = DecimalText(301);
        hmacKeyStrength = DecimalText(1);
        result = MakeHmacKey(hmacKey, hmacKeySize);
        if (ZEB_FAILED(result)) return result;

        hmacKeyText = Base64Encoding(*hmacKey, kHmacKeyBytes);
        if (hmacKeyText.empty()) {
            ClearActOutputs(hmacKey, hmacKeySize, act, actSize, signature, signatureSize);
            WSCLOG(1, L"GetACT Base64Encoding ppHMACKey ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
            return ZEB_ERROR_OUTOFMEMORY;
        }
        actText.clear();
        signatureText.clear();
        result = device->GetACT(subject, actFlags, hmacAlgorithm, hmacKeyStrength, hmacKeyText, publicKeyAlgorithm,
                                publicKeyStrength, publicKey, &actText, &signatureText);
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
    if (!subject || !hmacKey || !hmacKeySize || !act || !actSize || !signature || !signatureSize) {
        WSCLOG(1, L"GetACT ERROR_INVALID_PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    CDevice* device = g_devices.GetCDevice(handle);
    if (!device) {
        WSCLOG(1, L"GetACT CDeviceList::GetCDevice ZEB_ERROR = %08x", ZEB_ERROR_INVALID_HANDLE);
        return ZEB_ERROR_INVALID_HANDLE;
    }
    try {
        return RunGetAct(device, subject, actFlags, hmacKey, hmacKeySize, act, actSize, signature,
                              signatureSize);
    } catch (...) {
        ClearActOutputs(hmacKey, hmacKeySize, act, actSize, signature, signatureSize);
        return ZEB_ERROR_OUTOFMEMORY;
    }
}

}  // namespace QuorvantisAPI
