// qvhost: a command-line host that loads Quorvantis.dll the way a printer
// driver does and drives it through the interface table only:
//   ZEB_GetInterface -> Initialize -> Open -> GetPolicy -> Authentication
//   -> GetACT -> BufferFree -> Close
// Each step is printed with its result code and the code's name; the ACT's
// signature is checked with the HMAC key the host received. With --threads N
// the flow after Initialize runs on N threads at once, each with a session of
// its own (as a print server with several queues does); each thread's output
// is printed as one block, prefixed with its number, when all have ended.
#include <windows.h>
#include <wincrypt.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <string>
#include <thread>
#include <vector>

#define QUORVANTIS_NO_PROTOTYPES
#include "Quorvantis.h"

namespace {

struct CodeName {
    DWORD code;
    const char* name;
};
#define CODE_ROW(name) {name, #name}
// Every result code of Quorvantis.h, by its header name. The rows are made
// from tools/codes/result_codes.json by tools/codes/gen_codes.py.
constexpr CodeName kCodeNames[] = {
#include "ResultCodeNames.inc"
};
#undef CODE_ROW

const char* CodeNameOf(DWORD code) {
    for (const CodeName& row : kCodeNames)
        if (row.code == code) return row.name;
    return "unknown code";
}

// Output of the flow: straight to stdout, or, on a thread of a --threads
// run, into that thread's block so that lines of threads do not interleave.
thread_local std::wstring* t_block = nullptr;

void Out(const wchar_t* format, ...) {
    wchar_t line[2048];
    va_list args;
    va_start(args, format);
    _vsnwprintf(line, 2047, format, args);
    va_end(args);
    line[2047] = L'\0';
    if (t_block)
        t_block->append(line);
    else
        fputws(line, stdout);
}

void PrintStep(const wchar_t* step, DWORD code) {
    Out(L"%-16ls -> 0x%08lx %hs\n", step, static_cast<unsigned long>(code), CodeNameOf(code));
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
             L"              [--act-flags N] [--act-count N] [--threads N]\n");
}

// What one flow needs from the command line.
struct FlowOptions {
    const wchar_t* address = L"127.0.0.1";
    const wchar_t* mech = L"Basic2";
    const wchar_t* user = nullptr;
    const wchar_t* password = nullptr;
    const wchar_t* domain = L"";
    const wchar_t* subject = L"qvhost";
    DWORD openFlags = 0, authFlags = 0, actFlags = 0, actCount = 2;
};

// Open -> GetPolicy -> Authentication -> GetACT (act-count times) -> Close on
// a session of its own; 0 when every call succeeded and every ACT verified.
int RunFlow(const ZEB_INTERFACE* zeb, const FlowOptions& o) {
    int exitCode = 1;
    DWORD handle = 0;
    bool opened = false;
    do {
        DWORD result = zeb->Open(o.address, &handle, o.openFlags);
        PrintStep(L"Open", result);
        Out(L"    address %ls, open flags 0x%lx, handle %lu\n", o.address, static_cast<unsigned long>(o.openFlags),
            static_cast<unsigned long>(handle));
        if (ZEB_FAILED(result)) break;
        opened = true;

        DWORD count = 0, sslFlag = 0;
        AuthInfo* policy = nullptr;
        result = zeb->GetPolicy(handle, &count, &policy, &sslFlag);
        PrintStep(L"GetPolicy", result);
        if (ZEB_FAILED(result)) break;
        Out(L"    %lu entries, SSL flag %lu\n", static_cast<unsigned long>(count), static_cast<unsigned long>(sslFlag));
        AuthInfo chosen = {};
        bool offered = false;
        for (DWORD i = 0; i < count; ++i) {
            Out(L"    [%lu] Info \"%ls\"  AuthType \"%ls\"  EnableCredentialCache %lu\n", static_cast<unsigned long>(i),
                policy[i].Info, policy[i].AuthType, static_cast<unsigned long>(policy[i].bEnableCredentialCache));
            if (!offered && wcscmp(policy[i].AuthType, o.mech) == 0) {
                chosen = policy[i];
                offered = true;
            }
        }
        zeb->BufferFree(policy);
        Out(L"BufferFree       (policy list)\n");
        if (!offered) {
            Out(L"    the policy does not offer %ls; asking for it anyway\n", o.mech);
            wcsncpy(chosen.AuthType, o.mech, 63);
        }

        std::wstring userText = o.user ? o.user : L"", passwordText = o.password ? o.password : L"",
                     domainText = o.domain;
        AuthCredential credential = {o.user ? &userText[0] : nullptr, o.password ? &passwordText[0] : nullptr,
                                     &domainText[0]};
        BYTE* output = nullptr;
        DWORD outputSize = 0;
        result = zeb->Authentication(handle, o.authFlags, &chosen, &credential, &output, &outputSize);
        PrintStep(L"Authentication", result);
        Out(L"    mechanism %ls, user \"%ls\", auth flags 0x%lx, output %lu bytes\n", chosen.AuthType,
            userText.c_str(), static_cast<unsigned long>(o.authFlags), static_cast<unsigned long>(outputSize));
        if (output) {
            zeb->BufferFree(output);
            Out(L"BufferFree       (authentication output)\n");
        }
        if (ZEB_FAILED(result)) break;

        Bytes hmacKey;
        bool allVerified = true;
        for (DWORD round = 0; round < o.actCount; ++round) {
            BYTE *key = nullptr, *act = nullptr, *signature = nullptr;
            DWORD keySize = 0, actSize = 0, signatureSize = 0;
            result = zeb->GetACT(handle, o.subject, o.actFlags, &key, &keySize, &act, &actSize, &signature,
                                 &signatureSize);
            PrintStep(L"GetACT", result);
            Out(L"    subject \"%ls\", ACT flags 0x%lx: key %lu bytes, ACT %lu bytes, signature %lu bytes\n",
                o.subject, static_cast<unsigned long>(o.actFlags), static_cast<unsigned long>(keySize),
                static_cast<unsigned long>(actSize), static_cast<unsigned long>(signatureSize));
            if (key) hmacKey.assign(key, key + keySize);
            if (!ZEB_FAILED(result)) {
                if (!key) Out(L"    no new key: the server still holds the one received before\n");
                if (!signature) {
                    Out(L"    the ACT is not signed\n");
                } else {
                    Bytes expected = HmacSha1(hmacKey, Bytes(act, act + actSize));
                    bool verified = !hmacKey.empty() && expected == Bytes(signature, signature + signatureSize);
                    Out(verified ? L"    signature verified\n" : L"    signature NOT verified\n");
                    allVerified = allVerified && verified;
                }
            }
            if (key) SecureZeroMemory(key, keySize);
            zeb->BufferFree(key);
            zeb->BufferFree(act);
            zeb->BufferFree(signature);
            Out(L"BufferFree       (key, ACT, signature)\n");
            if (ZEB_FAILED(result)) break;
        }
        if (!hmacKey.empty()) SecureZeroMemory(hmacKey.data(), hmacKey.size());
        if (ZEB_FAILED(result) || !allVerified) break;
        exitCode = 0;
    } while (false);

    if (opened) {
        zeb->Close(handle);
        Out(L"Close            (handle %lu)\n", static_cast<unsigned long>(handle));
    }
    return exitCode;
}

// N flows at once, one thread each; 0 when every flow succeeded. Each
// thread's output is printed after all have ended, in thread order.
int RunFlowsInParallel(const ZEB_INTERFACE* zeb, const FlowOptions& o, DWORD threadCount) {
    std::vector<std::wstring> blocks(threadCount);
    std::vector<int> results(threadCount, 1);
    std::vector<std::thread> threads;
    for (DWORD i = 0; i < threadCount; ++i) {
        threads.emplace_back([&, i] {
            t_block = &blocks[i];
            results[i] = RunFlow(zeb, o);
            t_block = nullptr;
        });
    }
    for (std::thread& t : threads) t.join();
    int exitCode = 0;
    for (DWORD i = 0; i < threadCount; ++i) {
        size_t start = 0;
        while (start < blocks[i].size()) {
            size_t end = blocks[i].find(L'\n', start);
            if (end == std::wstring::npos) end = blocks[i].size();
            wprintf(L"[%lu] %ls\n", static_cast<unsigned long>(i + 1), blocks[i].substr(start, end - start).c_str());
            start = end + 1;
        }
        if (results[i] != 0) exitCode = 1;
    }
    return exitCode;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    const wchar_t* dll = L"Quorvantis.dll";
    const wchar_t* ini = nullptr;
    const wchar_t* port = nullptr;
    const wchar_t* securePort = nullptr;
    FlowOptions o;
    DWORD threadCount = 1;
    for (int i = 1; i < argc; i += 2) {
        const wchar_t* option = argv[i];
        if (i + 1 >= argc) {
            Usage();
            return 2;
        }
        const wchar_t* value = argv[i + 1];
        if (wcscmp(option, L"--dll") == 0) dll = value;
        else if (wcscmp(option, L"--ini") == 0) ini = value;
        else if (wcscmp(option, L"--address") == 0) o.address = value;
        else if (wcscmp(option, L"--port") == 0) port = value;
        else if (wcscmp(option, L"--secure-port") == 0) securePort = value;
        else if (wcscmp(option, L"--flags") == 0) o.openFlags = Number(value);
        else if (wcscmp(option, L"--mech") == 0) o.mech = value;
        else if (wcscmp(option, L"--user") == 0) o.user = value;
        else if (wcscmp(option, L"--password") == 0) o.password = value;
        else if (wcscmp(option, L"--domain") == 0) o.domain = value;
        else if (wcscmp(option, L"--auth-flags") == 0) o.authFlags = Number(value);
        else if (wcscmp(option, L"--subject") == 0) o.subject = value;
        else if (wcscmp(option, L"--act-flags") == 0) o.actFlags = Number(value);
        else if (wcscmp(option, L"--act-count") == 0) o.actCount = Number(value);
        else if (wcscmp(option, L"--threads") == 0) threadCount = Number(value);
        else {
            Usage();
            return 2;
        }
    }
    if (threadCount < 1 || threadCount > 64) {
        Usage();
        return 2;
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
    bool initialized = true;
    if (!iniPath.empty()) {
        DWORD result = zeb->Initialize(iniPath.c_str());
        PrintStep(L"Initialize", result);
        initialized = !ZEB_FAILED(result);
    } else if (ini || port || securePort) {
        fwprintf(stderr, L"cannot prepare the ini file\n");
        initialized = false;
    }
    if (initialized) exitCode = threadCount == 1 ? RunFlow(zeb, o) : RunFlowsInParallel(zeb, o, threadCount);

    if (temporaryIni) DeleteFileW(iniPath.c_str());
    FreeLibrary(module);
    wprintf(exitCode == 0 ? L"done\n" : L"failed\n");
    return exitCode;
}
