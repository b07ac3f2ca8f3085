/* A host of the package's consumer test: links Quorvantis.dll through its
 * import library (the CMake target Quorvantis::Quorvantis) and runs the
 * short flow against a server:
 *   ZEB_GetInterface, Initialize, Open, GetPolicy, Authentication (Basic2),
 *   GetACT, BufferFree, Close
 * usage: app <ini> <user> <password> <domain>; the ini names the ports.
 * Prints each step with its result code; exit status 0 when every step
 * succeeded and the answers have the expected shape. */
#include <windows.h>
#include <stdio.h>
#include <string.h>
#include <wchar.h>

#include <Quorvantis.h>

static int failures = 0;

static void Step(const char* name, DWORD code)
{
    printf("%-16s -> 0x%08lx\n", name, (unsigned long)code);
    if (ZEB_FAILED(code))
        failures++;
}

static void Expect(int condition, const char* what)
{
    printf("%s %s\n", condition ? "ok  " : "FAIL", what);
    if (!condition)
        failures++;
}

static WCHAR* Wide(const char* text)
{
    static WCHAR buffers[4][MAX_PATH];
    static int next = 0;
    WCHAR* out = buffers[next++ % 4];
    if (!MultiByteToWideChar(CP_ACP, 0, text, -1, out, MAX_PATH))
        out[0] = 0;
    return out;
}

int main(int argc, char** argv)
{
    const ZEB_INTERFACE* zeb;
    DWORD handle = 0, count = 0, ssl = 0, i, code;
    AuthInfo* policy = NULL;
    const AuthInfo* basic2 = NULL;
    AuthCredential credential;
    BYTE *output = NULL, *key = NULL, *act = NULL, *signature = NULL;
    DWORD outputSize = 0, keySize = 0, actSize = 0, signatureSize = 0;

    if (argc != 5) {
        fprintf(stderr, "usage: app <ini> <user> <password> <domain>\n");
        return 2;
    }
    printf("Quorvantis.h %s\n", QUORVANTIS_VERSION_STRING);

    zeb = ZEB_GetInterface(ZEB_INTERFACE_VERSION);
    Expect(zeb != NULL, "ZEB_GetInterface(ZEB_INTERFACE_VERSION) gives the table");
    if (!zeb)
        return 1;
    Expect(ZEB_GetInterface(0x0200) == NULL && GetLastError() == 1759, "another version gives NULL, last error 1759");

    Step("Initialize", zeb->Initialize(Wide(argv[1])));
    code = zeb->Open(L"127.0.0.1", &handle, 0);
    Step("Open", code);
    if (ZEB_FAILED(code))
        return 1;

    code = zeb->GetPolicy(handle, &count, &policy, &ssl);
    Step("GetPolicy", code);
    for (i = 0; !ZEB_FAILED(code) && i < count; ++i)
        if (wcscmp(policy[i].AuthType, L"Basic2") == 0)
            basic2 = &policy[i];
    Expect(basic2 != NULL, "the policy offers Basic2");

    if (basic2) {
        credential.UserID = Wide(argv[2]);
        credential.Password = Wide(argv[3]);
        credential.Domain = Wide(argv[4]);
        Step("Authentication", zeb->Authentication(handle, 0, basic2, &credential, &output, &outputSize));

        Step("GetACT", zeb->GetACT(handle, L"package-consumer", ZEB_ACT_FLAG_ACV257 | ZEB_ACT_FLAG_ACV256,
                                   &key, &keySize, &act, &actSize, &signature, &signatureSize));
        Expect(key != NULL && keySize == 20, "GetACT hands out a new 20-byte HMAC key");
        Expect(act != NULL && actSize > 0, "GetACT hands out the ACT");
        Expect(signature != NULL && signatureSize == 20, "GetACT hands out a 20-byte signature");
    }

    if (output) zeb->BufferFree(output);
    if (key) zeb->BufferFree(key);
    if (act) zeb->BufferFree(act);
    if (signature) zeb->BufferFree(signature);
    if (policy) zeb->BufferFree(policy);
    zeb->Close(handle);
    printf("Close\n");

    printf("%s\n", failures ? "flow FAILED" : "flow ok");
    return failures ? 1 : 0;
}
