/*
 * Quorvantis.h - host interface of the Quorvantis printer-driver add-in.
 *
 * A printer driver (the host) loads Quorvantis.dll, calls its only export
 * ZEB_GetInterface(ZEB_INTERFACE_VERSION) and from then on calls the add-in
 * through the returned table:
 *
 *   Initialize -> Open -> GetPolicy -> Authentication -> GetACT
 *              -> BufferFree (for every returned buffer) -> Close
 *
 * Every function returns a 32-bit result code: 0 (or 1) is success, and a
 * value is a failure exactly when ZEB_FAILED(code) is true. Buffers handed to
 * the host belong to the add-in's heap and go back through BufferFree only.
 * Entries may be called from several threads, but one handle must not be used
 * from two threads at once.
 */
#ifndef QUORVANTIS_H
#define QUORVANTIS_H

#include <windows.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Release version -----------------------------------------------------
 * The version of the release this header belongs to (the DLL's VERSIONINFO
 * carries the same numbers). It is not the interface version: a host asks
 * for the table with ZEB_INTERFACE_VERSION below. */

#define QUORVANTIS_VERSION_MAJOR  1
#define QUORVANTIS_VERSION_MINOR  0
#define QUORVANTIS_VERSION_PATCH  0
#define QUORVANTIS_VERSION_STRING "1.0.0"

/* ---- Interface version ------------------------------------------------- */

#define ZEB_INTERFACE_VERSION 0x0100

/* ---- Result codes --------------------------------------------------------
 * 0xD5 in the top byte, a facility in the second, a number in the low word. */

#define ZEB_FAILURE_MASK 0xD5000000u
#define ZEB_FAILED(code) ((((DWORD)(code)) & ZEB_FAILURE_MASK) != 0)
/* BEGIN RESULT CODES: made from tools/codes/result_codes.json by tools/codes/gen_codes.py */
#define ZEB_SUCCESS 0x00000000u

/* Module-wide codes. 0xD5000057 is written ERROR_INVALID_PARAMETER in the
 * add-in's logs; it carries the ZEB_ prefix here because <winerror.h>
 * already defines ERROR_INVALID_PARAMETER as 87. */
#define ZEB_ERROR_INVALID_HANDLE              0xD5000006u
#define ZEB_ERROR_OUTOFMEMORY                 0xD500000Eu
#define ZEB_ERROR_INVALID_PARAMETER           0xD5000057u
#define ZEB_ERROR_WINHTTP_REDIRECT            0xD500012Eu
#define ZEB_ERROR_HTTP_SERVER_ERROR           0xD50001F4u
#define ZEB_ERROR_GENERAL_INVALID_INSTANCE    0xD5010001u

/* HTTP channel (WinHTTP and Win32 errors, content type, redirect). */
#define ZEB_ERROR_WINHTTP_TIMEOUT                  0xD5020001u /* 12002, the only one retried */
#define ZEB_ERROR_WINHTTP_INTERNAL_ERROR           0xD5020002u /* 12004 */
#define ZEB_ERROR_WINHTTP_INVALID_URL              0xD5020003u /* 12005 */
#define ZEB_ERROR_WINHTTP_UNRECOGNIZED_SCHEME      0xD5020004u /* 12006 */
#define ZEB_ERROR_WINHTTP_NAME_NOT_RESOLVED        0xD5020005u /* 12007 */
#define ZEB_ERROR_WINHTTP_INVALID_OPTION           0xD5020006u /* 12009 */
#define ZEB_ERROR_WINHTTP_OPTION_NOT_SETTABLE      0xD5020007u /* 12011 */
#define ZEB_ERROR_WINHTTP_SHUTDOWN                 0xD5020008u /* 12012 */
#define ZEB_ERROR_WINHTTP_LOGIN_FAILURE            0xD5020009u /* 12015 */
#define ZEB_ERROR_WINHTTP_OPERATION_CANCELLED      0xD502000Au /* 12017 */
#define ZEB_ERROR_WINHTTP_INCORRECT_HANDLE_TYPE    0xD502000Bu /* 12018 */
#define ZEB_ERROR_WINHTTP_INCORRECT_HANDLE_STATE   0xD502000Cu /* 12019 */
#define ZEB_ERROR_WINHTTP_CANNOT_CONNECT           0xD502000Du /* 12029 */
#define ZEB_ERROR_WINHTTP_CONNECTION_ERROR         0xD502000Eu /* 12030 */
#define ZEB_ERROR_WINHTTP_RESEND_REQUEST           0xD502000Fu /* 12032 */
#define ZEB_ERROR_WINHTTP_CLIENT_AUTH_CERT_NEEDED  0xD5020010u /* 12044 */
#define ZEB_ERROR_WINHTTP_HEADER_NOT_FOUND         0xD5020011u /* 12150 */
#define ZEB_ERROR_WINHTTP_INVALID_SERVER_RESPONSE  0xD5020012u /* 12152 */
#define ZEB_ERROR_WINHTTP_REDIRECT_FAILED          0xD5020013u /* 12156 */
#define ZEB_ERROR_WINHTTP_SECURE_FAILURE           0xD5020014u /* 12175 */
#define ZEB_ERROR_WINHTTP_12181                    0xD5020015u
#define ZEB_ERROR_WINHTTP_12182                    0xD5020016u
#define ZEB_ERROR_WINHTTP_12183                    0xD5020017u
#define ZEB_ERROR_WINHTTP_12184                    0xD5020018u
#define ZEB_ERROR_WINHTTP_NOT_ENOUGH_MEMORY        0xD5020019u /* 8 */
#define ZEB_ERROR_WINHTTP_INVALID_PARAMETER        0xD502001Au /* 87 */
#define ZEB_ERROR_WINHTTP_INSUFFICIENT_BUFFER      0xD502001Bu /* 122 */
#define ZEB_ERROR_WINHTTP_UNKNOWN_CONTENT_TYPE     0xD502001Cu
#define ZEB_ERROR_WINHTTP_DIFFERENT_REDIRECT_URL   0xD502001Du
#define ZEB_ERROR_WINHTTP_CONNECTED_FAILURE        0xD502001Eu /* HTTP 404 */
#define ZEB_ERROR_WINHTTP_UNKNOWN                  0xD502FFFFu

/* CryptoAPI. */
#define ZEB_ERROR_CRYPT_BAD_FLAGS              0xD5030001u
#define ZEB_ERROR_CRYPT_BAD_KEYSET             0xD5030002u
#define ZEB_ERROR_CRYPT_BAD_KEYSET_PARAM       0xD5030003u
#define ZEB_ERROR_CRYPT_BAD_PROV_TYPE          0xD5030004u
#define ZEB_ERROR_CRYPT_BAD_SIGNATURE          0xD5030005u
#define ZEB_ERROR_CRYPT_EXISTS                 0xD5030006u
#define ZEB_ERROR_CRYPT_KEYSET_ENTRY_BAD       0xD5030007u
#define ZEB_ERROR_CRYPT_KEYSET_NOT_DEF         0xD5030008u
#define ZEB_ERROR_CRYPT_NO_MEMORY              0xD5030009u
#define ZEB_ERROR_CRYPT_PROV_DLL_NOT_FOUND     0xD503000Au
#define ZEB_ERROR_CRYPT_PROV_TYPE_ENTRY_BAD    0xD503000Bu
#define ZEB_ERROR_CRYPT_PROV_TYPE_NO_MATCH     0xD503000Cu
#define ZEB_ERROR_CRYPT_PROV_TYPE_NOT_DEF      0xD503000Du
#define ZEB_ERROR_CRYPT_PROVIDER_DLL_FAIL      0xD503000Eu
#define ZEB_ERROR_CRYPT_SIGNATURE_FILE_BAD     0xD503000Fu
#define ZEB_ERROR_CRYPT_BAD_UID                0xD5030010u
#define ZEB_ERROR_CRYPT_FAIL                   0xD5030011u
#define ZEB_ERROR_CRYPT_BAD_ALGID              0xD5030012u
#define ZEB_ERROR_CRYPT_BAD_DATA               0xD5030013u
#define ZEB_ERROR_CRYPT_BAD_TYPE               0xD5030014u
#define ZEB_ERROR_CRYPT_BAD_VER                0xD5030015u
#define ZEB_ERROR_CRYPT_BAD_KEY                0xD5030016u
#define ZEB_ERROR_CRYPT_BAD_HASH               0xD5030017u
#define ZEB_ERROR_CRYPT_BAD_HASH_STATE         0xD5030018u
#define ZEB_ERROR_CRYPT_BAD_LEN                0xD5030019u
#define ZEB_ERROR_CRYPT_DOUBLE_ENCRYPT         0xD503001Au
#define ZEB_ERROR_CRYPT_BAD_ENCODE             0xD503001Bu
#define ZEB_ERROR_CRYPT_INVALID_HANDLE         0xD503001Cu
#define ZEB_ERROR_CRYPT_BUSY                   0xD503001Du
#define ZEB_ERROR_CRYPT_INVALID_PARAMETER      0xD503001Eu
#define ZEB_ERROR_CRYPT_NOT_ENOUGH_MEMORY      0xD503001Fu
#define ZEB_ERROR_CRYPT_FILE_NOT_FOUND         0xD5030020u
#define ZEB_ERROR_CRYPT_MORE_DATA              0xD5030021u
#define ZEB_ERROR_CRYPT_BAD_KEY_STATE          0xD5030022u
#define ZEB_ERROR_CRYPT_SILENT_CONTEXT         0xD5030023u
#define ZEB_ERROR_CRYPT_GENERAL_ERROR          0xD503FFFFu

/* SSPI (NTLM). */
#define ZEB_ERROR_SSPI_INSUFFICIENT_MEMORY            0xD5040001u
#define ZEB_ERROR_SSPI_INTERNAL_ERROR                 0xD5040002u
#define ZEB_ERROR_SSPI_NO_CREDENTIALS                 0xD5040003u
#define ZEB_ERROR_SSPI_NOT_OWNER                      0xD5040004u
#define ZEB_ERROR_SSPI_SECPKG_NOT_FOUND               0xD5040005u
#define ZEB_ERROR_SSPI_UNKNOWN_CREDENTIALS            0xD5040006u
#define ZEB_ERROR_SSPI_INVALID_HANDLE                 0xD5040007u
#define ZEB_ERROR_SSPI_INVALID_TOKEN                  0xD5040008u
#define ZEB_ERROR_SSPI_LOGON_DENIED                   0xD5040009u
#define ZEB_ERROR_SSPI_NO_AUTHENTICATING_AUTHORITY    0xD504000Au
#define ZEB_ERROR_SSPI_TARGET_UNKNOWN                 0xD504000Bu
#define ZEB_ERROR_SSPI_UNSUPPORTED_FUNCTION           0xD504000Cu
#define ZEB_ERROR_SSPI_WRONG_PRINCIPAL                0xD504000Du
#define ZEB_ERROR_SSPI_GENERAL_ERROR                  0xD504FFFFu

/* SOAP fault codes. */
#define ZEB_ERROR_SOAP_VERSION_MISMATCH        0xD5060001u
#define ZEB_ERROR_SOAP_MUST_UNDERSTAND         0xD5060002u
#define ZEB_ERROR_SOAP_DATA_ENCODING_UNKNOWN   0xD5060003u
#define ZEB_ERROR_SOAP_SENDER                  0xD5060004u
#define ZEB_ERROR_SOAP_RECEIVER                0xD5060005u

/* SOAP fault subcodes: login service (0xD50701xx, 0xD50702xx). */
#define ZEB_ERROR_FAULT_BAD_REQUEST                      0xD5070101u
#define ZEB_ERROR_FAULT_FAILED_AUTHENTICATION            0xD5070102u
#define ZEB_ERROR_FAULT_NO_SUCH_ACCOUNT                  0xD5070103u
#define ZEB_ERROR_FAULT_NETWORK_ACCESS_ERROR             0xD5070104u
#define ZEB_ERROR_FAULT_ILLEGAL_ARGUMENT                 0xD5070105u
#define ZEB_ERROR_FAULT_INVALID_REQUEST                  0xD5070106u
#define ZEB_ERROR_FAULT_INVALID_SECURITY                 0xD5070107u
#define ZEB_ERROR_FAULT_INVALID_SECURITY_TOKEN           0xD5070108u
#define ZEB_ERROR_FAULT_INVALID_TIME_RANGE               0xD5070109u
#define ZEB_ERROR_FAULT_REQUEST_FAILED                   0xD507010Au
#define ZEB_ERROR_FAULT_SECURITY_TOKEN_UNAVAILABLE       0xD507010Bu
#define ZEB_ERROR_FAULT_UNABLE_TO_RENEW                  0xD507010Cu
#define ZEB_ERROR_FAULT_UNABLE_TO_RETRIEVE_POLICY        0xD507010Du
#define ZEB_ERROR_FAULT_UNSUPPORTED_ALGORITHM            0xD507010Eu
#define ZEB_ERROR_FAULT_UNSUPPORTED_SECURITY_TOKEN       0xD507010Fu
#define ZEB_ERROR_FAULT_ELEMENT_DOES_NOT_EXIST           0xD5070110u
#define ZEB_ERROR_FAULT_ELEMENT_EXIST                    0xD5070111u
#define ZEB_ERROR_FAULT_GENERAL                          0xD5070112u
#define ZEB_ERROR_FAULT_MAX_SESSION                      0xD5070113u
#define ZEB_ERROR_FAULT_AUTHENTICATION_BUSY              0xD5070114u
#define ZEB_ERROR_FAULT_UNKNOWN_EXCEPTION                0xD5070115u
#define ZEB_ERROR_FAULT_ISO_REQUIRED                     0xD5070116u
#define ZEB_ERROR_FAULT_POLICY                           0xD5070117u
#define ZEB_ERROR_FAULT_AUTHENTICATION_BAD_ELEMENTS      0xD5070118u
#define ZEB_ERROR_FAULT_EXPIRED_DATA                     0xD5070119u
#define ZEB_ERROR_FAULT_INVALID_SCOPE                    0xD507011Au
#define ZEB_ERROR_FAULT_RENEW_NEEDED                     0xD507011Bu
#define ZEB_ERROR_FAULT_LOCK_OUT_ERROR                   0xD507011Cu
#define ZEB_ERROR_FAULT_LOGIN_SOAP_REQUEST_MESSAGE_ERROR 0xD5070201u
#define ZEB_ERROR_FAULT_LOGIN_SERVICE_ERROR              0xD5070202u
/* SOAP fault subcodes: device service (0xD50703xx messages, 0xD50704xx ACT). */
#define ZEB_ERROR_FAULT_SOAP_REQUEST_MESSAGE_ERROR       0xD5070301u
#define ZEB_ERROR_FAULT_SOAP_RESPONSE_MESSAGE_ERROR      0xD5070302u
#define ZEB_ERROR_FAULT_ROLE_MAPPING_DATA_ERROR          0xD5070303u
#define ZEB_ERROR_FAULT_DRIVER_LOGIC_ERROR               0xD5070304u
#define ZEB_ERROR_FAULT_ILLEGAL_ACT_PARAMETER            0xD5070401u
#define ZEB_ERROR_FAULT_GET_ACT_ERROR_NOT_ZEB_MODE       0xD5070402u
#define ZEB_ERROR_FAULT_INVALID_CONTEXT                  0xD5070403u
#define ZEB_ERROR_ACT_KEY_REQUIRED                       0xD5070404u /* handled inside GetACT */
#define ZEB_ERROR_FAULT_GET_ACT_ERROR                    0xD5070405u
/* END RESULT CODES */

/* ---- Open flags ----------------------------------------------------------- */

#define ZEB_OPEN_FLAG_SSL 0x1u /* talk HTTPS to the secure port from the start */

/* ---- Authentication ------------------------------------------------------- */

/* NTLM: use the given user ID, password and domain (else the logged-on user). */
#define AUTH_FLAG_EXPLICIT_CREDENTIAL 0x1u
/* SDL/SDL2: the password field holds the hex digest returned earlier. */
#define AUTH_FLAG_DIGEST_PASSWORD     0x2u
/* SDL/SDL2: hand the password digest back (66-byte wide hex text). */
#define AUTH_FLAG_RETURN_DIGEST       0x4u

/* One login-policy entry, as GetPolicy returns them (260 bytes, packed). */
#pragma pack(push, 1)
typedef struct AuthInfo {
    WCHAR Info[64];                /* zero-terminated */
    WCHAR AuthType[64];            /* "NTLM", "SDL", "SDL2", "Basic" or "Basic2" */
    DWORD bEnableCredentialCache;  /* 1 or 0 */
} AuthInfo;
#pragma pack(pop)
typedef char ZEB_AuthInfo_must_be_260_bytes[(sizeof(AuthInfo) == 260) ? 1 : -1];

/* The credentials of Authentication, owned by the host. NTLM may rewrite the
 * letter case of UserID in place to the spelling the server returns. */
typedef struct AuthCredential {
    LPWSTR UserID;
    LPWSTR Password;
    LPWSTR Domain;
} AuthCredential;

/* ---- ACT flags -------------------------------------------------------------
 * Each bit asks the device service for one access-control value (ACV). */

#define ZEB_ACT_FLAG_ACV256 0x00000001u
#define ZEB_ACT_FLAG_ACV257 0x00000002u
#define ZEB_ACT_FLAG_ACV258 0x00000004u
#define ZEB_ACT_FLAG_ACV512 0x00000100u
#define ZEB_ACT_FLAG_ACV513 0x00000200u
#define ZEB_ACT_FLAG_ACV514 0x00000400u
#define ZEB_ACT_FLAG_ACV515 0x00000800u
#define ZEB_ACT_FLAG_ACV516 0x00001000u
#define ZEB_ACT_FLAG_ACV517 0x00002000u
#define ZEB_ACT_FLAG_ACV768 0x00010000u
#define ZEB_ACT_FLAG_ACV769 0x00020000u
#define ZEB_ACT_FLAG_ACV770 0x00040000u

/* ---- The interface table ---------------------------------------------------- */

typedef struct ZEB_INTERFACE ZEB_INTERFACE;

typedef const ZEB_INTERFACE* (WINAPI *PFN_ZEB_GetInterface)(USHORT version);
typedef DWORD (WINAPI *PFN_ZEB_Initialize)(LPCWSTR iniPath);
typedef DWORD (WINAPI *PFN_ZEB_Open)(LPCWSTR address, DWORD* handle, DWORD openFlags);
typedef void  (WINAPI *PFN_ZEB_Close)(DWORD handle);
typedef void  (WINAPI *PFN_ZEB_BufferFree)(void* buffer);
typedef DWORD (WINAPI *PFN_ZEB_GetPolicy)(DWORD handle, DWORD* count, AuthInfo** list,
                                          DWORD* sslFlag);
typedef DWORD (WINAPI *PFN_ZEB_Authentication)(DWORD handle, DWORD authFlags,
                                               const AuthInfo* authInfo,
                                               AuthCredential* credential,
                                               BYTE** output, DWORD* outputSize);
typedef DWORD (WINAPI *PFN_ZEB_GetACT)(DWORD handle, LPCWSTR subject, DWORD actFlags,
                                       BYTE** hmacKey, DWORD* hmacKeySize,
                                       BYTE** act, DWORD* actSize,
                                       BYTE** signature, DWORD* signatureSize);

struct ZEB_INTERFACE {
    PFN_ZEB_GetInterface   ZEB_GetInterface;  /* slot 1 */
    PFN_ZEB_Initialize     Initialize;        /* slot 2 */
    PFN_ZEB_Open           Open;              /* slot 3 */
    PFN_ZEB_Close          Close;             /* slot 4 */
    PFN_ZEB_BufferFree     BufferFree;        /* slot 5 */
    PFN_ZEB_GetPolicy      GetPolicy;         /* slot 6 */
    PFN_ZEB_Authentication Authentication;    /* slot 7 */
    PFN_ZEB_GetACT         GetACT;            /* slot 8 */
};

/* The only export. Any version but ZEB_INTERFACE_VERSION returns NULL and
 * sets the thread's last error to 1759 (RPC_S_INTERFACE_NOT_FOUND). */
#ifndef QUORVANTIS_NO_PROTOTYPES
const ZEB_INTERFACE* WINAPI ZEB_GetInterface(USHORT version);
#endif

#ifdef __cplusplus
}
#endif

#endif /* QUORVANTIS_H */
