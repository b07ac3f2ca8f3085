// qvhost: a command-line host that loads Quorvantis.dll the way a printer
// driver does and drives it through the interface table only:
//   ZEB_GetInterface -> Initialize -> Open -> GetPolicy -> Authentication
//   -> GetACT -> BufferFree -> Close
// Each step is printed with its result code and the code's name; the ACT's
// signature is checked with the HMAC key the host received.
#include <windows.h>
#include <wincrypt.h>

#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <string>
#include <vector>

#define QUORVANTIS_NO_PROTOTYPES
#include "Quorvantis.h"

namespace {

struct CodeName {
    DWORD code;
    const char* name;
};
#define CODE_ROW(name) {name, #name}
// Every result code of Quorvantis.h, by its header name.
constexpr CodeName kCodeNames[] = {
    CODE_ROW(ZEB_SUCCESS),
    {1, "ZEB_SUCCESS"},  // lower layers may report 1, which counts as success
    CODE_ROW(ZEB_ERROR_INVALID_HANDLE),
    CODE_ROW(ZEB_ERROR_OUTOFMEMORY),
    CODE_ROW(ZEB_ERROR_INVALID_PARAMETER),
    CODE_ROW(ZEB_ERROR_WINHTTP_REDIRECT),
    CODE_ROW(ZEB_ERROR_HTTP_SERVER_ERROR),
    CODE_ROW(ZEB_ERROR_GENERAL_INVALID_INSTANCE),
    CODE_ROW(ZEB_ERROR_WINHTTP_TIMEOUT),
    CODE_ROW(ZEB_ERROR_WINHTTP_INTERNAL_ERROR),
    CODE_ROW(ZEB_ERROR_WINHTTP_INVALID_URL),
    CODE_ROW(ZEB_ERROR_WINHTTP_UNRECOGNIZED_SCHEME),
    CODE_ROW(ZEB_ERROR_WINHTTP_NAME_NOT_RESOLVED),
    CODE_ROW(ZEB_ERROR_WINHTTP_INVALID_OPTION),
    CODE_ROW(ZEB_ERROR_WINHTTP_OPTION_NOT_SETTABLE),
    CODE_ROW(ZEB_ERROR_WINHTTP_SHUTDOWN),
    CODE_ROW(ZEB_ERROR_WINHTTP_LOGIN_FAILURE),
    CODE_ROW(ZEB_ERROR_WINHTTP_OPERATION_CANCELLED),
    CODE_ROW(ZEB_ERROR_WINHTTP_INCORRECT_HANDLE_TYPE),
    CODE_ROW(ZEB_ERROR_WINHTTP_INCORRECT_HANDLE_STATE),
    CODE_ROW(ZEB_ERROR_WINHTTP_CANNOT_CONNECT),
    CODE_ROW(ZEB_ERROR_WINHTTP_CONNECTION_ERROR),
    CODE_ROW(ZEB_ERROR_WINHTTP_RESEND_REQUEST),
    CODE_ROW(ZEB_ERROR_WINHTTP_CLIENT_AUTH_CERT_NEEDED),
    CODE_ROW(ZEB_ERROR_WINHTTP_HEADER_NOT_FOUND),
    CODE_ROW(ZEB_ERROR_WINHTTP_INVALID_SERVER_RESPONSE),
    CODE_ROW(ZEB_ERROR_WINHTTP_REDIRECT_FAILED),
    CODE_ROW(ZEB_ERROR_WINHTTP_SECURE_FAILURE),
    CODE_ROW(ZEB_ERROR_WINHTTP_12181),
    CODE_ROW(ZEB_ERROR_WINHTTP_12182),
    CODE_ROW(ZEB_ERROR_WINHTTP_12183),
    CODE_ROW(ZEB_ERROR_WINHTTP_12184),
    CODE_ROW(ZEB_ERROR_WINHTTP_NOT_ENOUGH_MEMORY),
    CODE_ROW(ZEB_ERROR_WINHTTP_INVALID_PARAMETER),
    CODE_ROW(ZEB_ERROR_WINHTTP_INSUFFICIENT_BUFFER),
    CODE_ROW(ZEB_ERROR_WINHTTP_UNKNOWN_CONTENT_TYPE),
    CODE_ROW(ZEB_ERROR_WINHTTP_DIFFERENT_REDIRECT_URL),
    CODE_ROW(ZEB_ERROR_WINHTTP_CONNECTED_FAILURE),
    CODE_ROW(ZEB_ERROR_WINHTTP_UNKNOWN),
    CODE_ROW(ZEB_ERROR_CRYPT_BAD_KEYSET),
    CODE_ROW(ZEB_ERROR_CRYPT_BAD_KEYSET_PARAM),
    CODE_ROW(ZEB_ERROR_CRYPT_BAD_PROV_TYPE),
    CODE_ROW(ZEB_ERROR_CRYPT_BAD_SIGNATURE),
    CODE_ROW(ZEB_ERROR_CRYPT_EXISTS),
    CODE_ROW(ZEB_ERROR_CRYPT_KEYSET_ENTRY_BAD),
    CODE_ROW(ZEB_ERROR_CRYPT_KEYSET_NOT_DEF),
    CODE_ROW(ZEB_ERROR_CRYPT_NO_MEMORY),
    CODE_ROW(ZEB_ERROR_CRYPT_PROV_DLL_NOT_FOUND),
    CODE_ROW(ZEB_ERROR_CRYPT_PROV_TYPE_ENTRY_BAD),
    CODE_ROW(ZEB_ERROR_CRYPT_PROV_TYPE_NO_MATCH),
    CODE_ROW(ZEB_ERROR_CRYPT_PROV_TYPE_NOT_DEF),
    CODE_ROW(ZEB_ERROR_CRYPT_PROVIDER_DLL_FAIL),
    CODE_ROW(ZEB_ERROR_CRYPT_SIGNATURE_FILE_BAD),
    CODE_ROW(ZEB_ERROR_CRYPT_BAD_UID),
    CODE_ROW(ZEB_ERROR_CRYPT_FAIL),
    CODE_ROW(ZEB_ERROR_CRYPT_BAD_ALGID),
    CODE_ROW(ZEB_ERROR_CRYPT_BAD_DATA),
    CODE_ROW(ZEB_ERROR_CRYPT_BAD_TYPE),
    CODE_ROW(ZEB_ERROR_CRYPT_BAD_VER),
    CODE_ROW(ZEB_ERROR_CRYPT_BAD_KEY),
    CODE_ROW(ZEB_ERROR_CRYPT_BAD_HASH),
    CODE_ROW(ZEB_ERROR_CRYPT_BAD_HASH_STATE),
    CODE_ROW(ZEB_ERROR_CRYPT_BAD_LEN),
    CODE_ROW(ZEB_ERROR_CRYPT_DOUBLE_ENCRYPT),
    CODE_ROW(ZEB_ERROR_CRYPT_BAD_ENCODE),
    CODE_ROW(ZEB_ERROR_CRYPT_INVALID_HANDLE),
    CODE_ROW(ZEB_ERROR_CRYPT_BUSY),
    CODE_ROW(ZEB_ERROR_CRYPT_INVALID_PARAMETER),
    CODE_ROW(ZEB_ERROR_CRYPT_NOT_ENOUGH_MEMORY),
    CODE_ROW(ZEB_ERROR_CRYPT_FILE_NOT_FOUND),
    CODE_ROW(ZEB_ERROR_CRYPT_MORE_DATA),
    CODE_ROW(ZEB_ERROR_CRYPT_BAD_KEY_STATE),
    CODE_ROW(ZEB_ERROR_CRYPT_SILENT_CONTEXT),
    CODE_ROW(ZEB_ERROR_CRYPT_GENERAL_ERROR),
    CODE_ROW(ZEB_ERROR_SSPI_INSUFFICIENT_MEMORY),
    CODE_ROW(ZEB_ERROR_SSPI_INTERNAL_ERROR),
    CODE_ROW(ZEB_ERROR_SSPI_NO_CREDENTIALS),
    CODE_ROW(ZEB_ERROR_SSPI_NOT_OWNER),
    CODE_ROW(ZEB_ERROR_SSPI_SECPKG_NOT_FOUND),
    CODE_ROW(ZEB_ERROR_SSPI_UNKNOWN_CREDENTIALS),
    CODE_ROW(ZEB_ERROR_SSPI_INVALID_HANDLE),
    CODE_ROW(ZEB_ERROR_SSPI_INVALID_TOKEN),
    CODE_ROW(ZEB_ERROR_SSPI_LOGON_DENIED),
    CODE_ROW(ZEB_ERROR_SSPI_NO_AUTHENTICATING_AUTHORITY),
    CODE_ROW(ZEB_ERROR_SSPI_TARGET_UNKNOWN),
    CODE_ROW(ZEB_ERROR_SSPI_UNSUPPORTED_FUNCTION),
    CODE_ROW(ZEB_ERROR_SSPI_WRONG_PRINCIPAL),
    CODE_ROW(ZEB_ERROR_SSPI_GENERAL_ERROR),
    CODE_ROW(ZEB_ERROR_SOAP_VERSION_MISMATCH),
    CODE_ROW(ZEB_ERROR_SOAP_MUST_UNDERSTAND),
    CODE_ROW(ZEB_ERROR_SOAP_DATA_ENCODING_UNKNOWN),
    CODE_ROW(ZEB_ERROR_SOAP_SENDER),
    CODE_ROW(ZEB_ERROR_SOAP_RECEIVER),
    CODE_ROW(ZEB_ERROR_FAULT_BAD_REQUEST),
    CODE_ROW(ZEB_ERROR_FAULT_FAILED_AUTHENTICATION),
    CODE_ROW(ZEB_ERROR_FAULT_NO_SUCH_ACCOUNT),
    CODE_ROW(ZEB_ERROR_FAULT_NETWORK_ACCESS_ERROR),
    CODE_ROW(ZEB_ERROR_FAULT_ILLEGAL_ARGUMENT),
    CODE_ROW(ZEB_ERROR_FAULT_INVALID_REQUEST),
    CODE_ROW(ZEB_ERROR_FAULT_INVALID_SECURITY),
    CODE_ROW(ZEB_ERROR_FAULT_INVALID_SECURITY_TOKEN),
    CODE_ROW(ZEB_ERROR_FAULT_INVALID_TIME_RANGE),
    CODE_ROW(ZEB_ERROR_FAULT_REQUEST_FAILED),
    CODE_ROW(ZEB_ERROR_FAULT_SECURITY_TOKEN_UNAVAILABLE),
    CODE_ROW(ZEB_ERROR_FAULT_UNABLE_TO_RENEW),
    CODE_ROW(ZEB_ERROR_FAULT_UNABLE_TO_RETRIEVE_POLICY),
    CODE_ROW(ZEB_ERROR_FAULT_UNSUPPORTED_ALGORITHM),
    CODE_ROW(ZEB_ERROR_FAULT_UNSUPPORTED_SECURITY_TOKEN),
    CODE_ROW(ZEB_ERROR_FAULT_ELEMENT_DOES_NOT_EXIST),
    CODE_ROW(ZEB_ERROR_FAULT_ELEMENT_EXIST),
    CODE_ROW(ZEB_ERROR_FAULT_GENERAL),
    CODE_ROW(ZEB_ERROR_FAULT_MAX_SESSION),
    CODE_ROW(ZEB_ERROR_FAULT_AUTHENTICATION_BUSY),
    CODE_ROW(ZEB_ERROR_FAULT_UNKNOWN_EXCEPTION),
    CODE_ROW(ZEB_ERROR_FAULT_ISO_REQUIRED),
    CODE_ROW(ZEB_ERROR_FAULT_POLICY),
    CODE_ROW(ZEB_ERROR_FAULT_AUTHENTICATION_BAD_ELEMENTS),
    CODE_ROW(ZEB_ERROR_FAULT_EXPIRED_DATA),
    CODE_ROW(ZEB_ERROR_FAULT_INVALID_SCOPE),
    CODE_ROW(ZEB_ERROR_FAULT_RENEW_NEEDED),
    CODE_ROW(ZEB_ERROR_FAULT_LOCK_OUT_ERROR),
    CODE_ROW(ZEB_ERROR_FAULT_LOGIN_SOAP_REQUEST_MESSAGE_ERROR),
    CODE_ROW(ZEB_ERROR_FAULT_LOGIN_SERVICE_ERROR),
    CODE_ROW(ZEB_ERROR_FAULT_SOAP_REQUEST_MESSAGE_ERROR),
    CODE_ROW(ZEB_ERROR_FAULT_SOAP_RESPONSE_MESSAGE_ERROR),
    CODE_ROW(ZEB_ERROR_FAULT_ROLE_MAPPING_DATA_ERROR),
    CODE_ROW(ZEB_ERROR_FAULT_DRIVER_LOGIC_ERROR),
    CODE_ROW(ZEB_ERROR_FAULT_ILLEGAL_ACT_PARAMETER),
    CODE_ROW(ZEB_ERROR_FAULT_GET_ACT_ERROR_NOT_ZEB_MODE),
    CODE_ROW(ZEB_ERROR_FAULT_INVALID_CONTEXT),
    CODE_ROW(ZEB_ERROR_ACT_KEY_REQUIRED),
    CODE_ROW(ZEB_ERROR_FAULT_GET_ACT_ERROR),
};
#undef CODE_ROW

const char* CodeNameOf(DWORD code) {
    for (const CodeName& row : kCodeNames)
        if (row.code == code) return row.name;
    return "unknown code";
}

void PrintStep(const wchar_t* step, DWORD code) {
    wprintf(L"%-16ls -> 0x%08lx %hs\n", step, static_cast<unsigned long>(code), CodeNameOf(code));
}

using Bytes = std::vector<BYTE>;

Bytes Sha1(const Bytes& data) {
    Bytes digest;
    HCRYPTPROV prov = 0;
    if (!CryptAcquireContextW(&prov, nullptr, nullptr, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT)) return digest;
    HCRYPTHASH hash = 0;
    if (CryptCreateHash(prov, CALG_SHA1, 0, 0, &hash)) {
        DWORD size = 20;
        Bytes value(size);
        if (CryptHashData(hash, data.data(), static_cast<DWORD>(data.size()), 0) &&
            CryptGetHashParam(hash, HP_HASHVAL, value.data(), &size, 0))
            digest.assign(value.begin(), value.begin() + size);
        CryptDestroyHash(hash);
    }
    CryptReleaseContext(prov, 0);
    return digest;
}

// HMAC-SHA1 (RFC 2104) over CryptoAPI's SHA-1.
Bytes HmacSha1(Bytes key, const Bytes& data) {
    const size_t block = 64;
    if (key.size() > block) key = Sha1(key);
    key.resize(block, 0);
    Bytes inner(block), outer(block);
    for (size_t i = 0; i < block; ++i) {
        inner[i] = key[i] ^ 0x36;
        outer[i] = key[i] ^ 0x5c;
    }
    inner.insert(inner.end(), data.begin(), data.end());
    Bytes innerDigest = Sha1(inner);
    if (innerDigest.empty()) return innerDigest;
    outer.insert(outer.end(), innerDigest.begin(), innerDigest.end());
    return Sha1(outer);
}

std::wstring FullPath(const wchar_t* path) {
    wchar_t full[MAX_PATH] = {};
    DWORD n = GetFullPathNameW(path, MAX_PATH, full, nullptr);
    return (n && n < MAX_PATH) ? std::wstring(full) : std::wstring(path);
}

// An ini for Initialize: the given one, or an empty one, with the ports given
// on the command line written into a copy.
std::wstring PrepareIni(const wchar_t* ini, const wchar_t* port, const wchar_t* securePort, bool* temporary) {
    *temporary = false;
    if (!port && !securePort) return ini ? FullPath(ini) : std::wstring();
    wchar_t folder[MAX_PATH] = {}, file[MAX_PATH] = {};
    GetTempPathW(MAX_PATH, folder);
    if (!GetTempFileNameW(folder, L"qvh", 0, file)) return std::wstring();
    if (ini && !CopyFileW(FullPath(ini).c_str(), file, FALSE)) {
        DeleteFileW(file);
        return std::wstring();
    }
    if (port) WritePrivateProfileStringW(L"Quorvantis", L"PortNo", port, file);
    if (securePort) WritePrivateProfileStringW(L"Quorvantis", L"SecurePortNo", securePort, file);
    WritePrivateProfileStringW(nullptr, nullptr, nullptr, file);  // flush the profile cache
    *temporary = true;
    return file;
}

DWORD Number(const wchar_t* text) { return static_cast<DWORD>(std::wcstoul(text, nullptr, 0)); }

void Usage() {
    fwprintf(stderr,
             L"usage: qvhost [--dll PATH] [--ini PATH] [--address HOST] [--port N] [--secure-port N]\n"
             L"              [--flags OPENFLAGS] [--mech Basic|Basic2|SDL|SDL2|NTLM] [--user ID]\n"
             L"              [--password PW] [--domain DOMAIN] [--auth-flags N] [--subject TEXT]\n"
             L"              [--act-flags N] [--act-count N]\n");
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    const wchar_t* dll = L"Quorvantis.dll";
    const wchar_t* ini = nullptr;
    const wchar_t* address = L"127.0.0.1";
    const wchar_t* port = nullptr;
    const wchar_t* securePort = nullptr;
    const wchar_t* mech = L"Basic2";
    const wchar_t* user = nullptr;
    const wchar_t* password = nullptr;
    const wchar_t* domain = L"";
    const wchar_t* subject = L"qvhost";
    DWORD openFlags = 0, authFlags = 0, actFlags = 0, actCount = 2;
    for (int i = 1; i < argc; i += 2) {
        const wchar_t* option = argv[i];
        if (i + 1 >= argc) {
            Usage();
            return 2;
        }
        const wchar_t* value = argv[i + 1];
        if (wcscmp(option, L"--dll") == 0) dll = value;
        else if (wcscmp(option, L"--ini") == 0) ini = value;
        else if (wcscmp(option, L"--address") == 0) address = value;
        else if (wcscmp(option, L"--port") == 0) port = value;
        else if (wcscmp(option, L"--secure-port") == 0) securePort = value;
        else if (wcscmp(option, L"--flags") == 0) openFlags = Number(value);
        else if (wcscmp(option, L"--mech") == 0) mech = value;
        else if (wcscmp(option, L"--user") == 0) user = value;
        else if (wcscmp(option, L"--password") == 0) password = value;
        else if (wcscmp(option, L"--domain") == 0) domain = value;
        else if (wcscmp(option, L"--auth-flags") == 0) authFlags = Number(value);
        else if (wcscmp(option, L"--subject") == 0) subject = value;
        else if (wcscmp(option, L"--act-flags") == 0) actFlags = Number(value);
        else if (wcscmp(option, L"--act-count") == 0) actCount = Number(value);
        else {
            Usage();
            return 2;
        }
    }

    HMODULE module = LoadLibraryW(dll);
    if (!module) {
        fwprintf(stderr, L"cannot load %ls (error %lu)\n", dll, GetLastError());
        return 2;
    }
    auto getInterface = reinterpret_cast<PFN_ZEB_GetInterface>(GetProcAddress(module, "ZEB_GetInterface"));
    const ZEB_INTERFACE* zeb = getInterface ? getInterface(ZEB_INTERFACE_VERSION) : nullptr;
    if (!zeb) {
        fwprintf(stderr, L"ZEB_GetInterface(0x%04x) gave no table (error %lu)\n", ZEB_INTERFACE_VERSION,
                 GetLastError());
        FreeLibrary(module);
        return 2;
    }
    wprintf(L"ZEB_GetInterface -> interface table 0x%04x\n", ZEB_INTERFACE_VERSION);

    int exitCode = 1;
    bool temporaryIni = false;
    std::wstring iniPath = PrepareIni(ini, port, securePort, &temporaryIni);
    DWORD handle = 0;
    bool opened = false;
    do {
        if (!iniPath.empty()) {
            DWORD result = zeb->Initialize(iniPath.c_str());
            PrintStep(L"Initialize", result);
            if (ZEB_FAILED(result)) break;
        } else if (ini || port || securePort) {
            fwprintf(stderr, L"cannot prepare the ini file\n");
            break;
        }

        DWORD result = zeb->Open(address, &handle, openFlags);
        PrintStep(L"Open", result);
        wprintf(L"    address %ls, open flags 0x%lx, handle %lu\n", address, static_cast<unsigned long>(openFlags),
                static_cast<unsigned long>(handle));
        if (ZEB_FAILED(result)) break;
        opened = true;

        DWORD count = 0, sslFlag = 0;
        AuthInfo* policy = nullptr;
        result = zeb->GetPolicy(handle, &count, &policy, &sslFlag);
        PrintStep(L"GetPolicy", result);
        if (ZEB_FAILED(result)) break;
        wprintf(L"    %lu entries, SSL flag %lu\n", static_cast<unsigned long>(count),
                static_cast<unsigned long>(sslFlag));
        AuthInfo chosen = {};
        bool offered = false;
        for (DWORD i = 0; i < count; ++i) {
            wprintf(L"    [%lu] Info \"%ls\"  AuthType \"%ls\"  EnableCredentialCache %lu\n", static_cast<unsigned long>(i),
                    policy[i].Info, policy[i].AuthType, static_cast<unsigned long>(policy[i].bEnableCredentialCache));
            if (!offered && wcscmp(policy[i].AuthType, mech) == 0) {
                chosen = policy[i];
                offered = true;
            }
        }
        zeb->BufferFree(policy);
        wprintf(L"BufferFree       (policy list)\n");
        if (!offered) {
            wprintf(L"    the policy does not offer %ls; asking for it anyway\n", mech);
            wcsncpy(chosen.AuthType, mech, 63);
        }

        std::wstring userText = user ? user : L"", passwordText = password ? password : L"", domainText = domain;
        AuthCredential credential = {user ? &userText[0] : nullptr, password ? &passwordText[0] : nullptr,
                                     &domainText[0]};
        BYTE* output = nullptr;
        DWORD outputSize = 0;
        result = zeb->Authentication(handle, authFlags, &chosen, &credential, &output, &outputSize);
        PrintStep(L"Authentication", result);
        wprintf(L"    mechanism %ls, user \"%ls\", auth flags 0x%lx, output %lu bytes\n", chosen.AuthType,
                userText.c_str(), static_cast<unsigned long>(authFlags), static_cast<unsigned long>(outputSize));
        if (output) {
            zeb->BufferFree(output);
            wprintf(L"BufferFree       (authentication output)\n");
        }
        if (ZEB_FAILED(result)) break;

        Bytes hmacKey;
        bool allVerified = true;
        for (DWORD round = 0; round < actCount; ++round) {
            BYTE *key = nullptr, *act = nullptr, *signature = nullptr;
            DWORD keySize = 0, actSize = 0, signatureSize = 0;
            result = zeb->GetACT(handle, subject, actFlags, &key, &keySize, &act, &actSize, &signature,
                                 &signatureSize);
            PrintStep(L"GetACT", result);
            wprintf(L"    subject \"%ls\", ACT flags 0x%lx: key %lu bytes, ACT %lu bytes, signature %lu bytes\n",
                    subject, static_cast<unsigned long>(actFlags), static_cast<unsigned long>(keySize),
                    static_cast<unsigned long>(actSize), static_cast<unsigned long>(signatureSize));
            if (key) hmacKey.assign(key, key + keySize);
            if (!ZEB_FAILED(result)) {
                if (!key) wprintf(L"    no new key: the server still holds the one received before\n");
                if (!signature) {
                    wprintf(L"    the ACT is not signed\n");
                } else {
                    Bytes expected = HmacSha1(hmacKey, Bytes(act, act + actSize));
                    bool verified = !hmacKey.empty() && expected == Bytes(signature, signature + signatureSize);
                    wprintf(verified ? L"    signature verified\n" : L"    signature NOT verified\n");
                    allVerified = allVerified && verified;
                }
            }
            if (key) SecureZeroMemory(key, keySize);
            zeb->BufferFree(key);
            zeb->BufferFree(act);
            zeb->BufferFree(signature);
            wprintf(L"BufferFree       (key, ACT, signature)\n");
            if (ZEB_FAILED(result)) break;
        }
        if (!hmacKey.empty()) SecureZeroMemory(hmacKey.data(), hmacKey.size());
        if (ZEB_FAILED(result) || !allVerified) break;
        exitCode = 0;
    } while (false);

    if (opened) {
        zeb->Close(handle);
        wprintf(L"Close            (handle %lu)\n", static_cast<unsigned long>(handle));
    }
    if (temporaryIni) DeleteFileW(iniPath.c_str());
    FreeLibrary(module);
    wprintf(exitCode == 0 ? L"done\n" : L"failed\n");
    return exitCode;
}
