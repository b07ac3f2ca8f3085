// Reaches the private steps of the login mechanisms, one at a time.
#pragma once

#include <windows.h>

#include <string>

#include "auth/Auth_Basic.h"
#include "auth/Auth_NTLM.h"
#include "auth/Auth_SDL.h"
#include "auth/Auth_SDL2.h"

struct Auth_BasicTest {
    static DWORD MakeRstData(Auth_Basic& auth, const AuthCredential* credential, std::wstring* payload) {
        return auth.MakeRstData(credential, payload);
    }
    static DWORD Request(Auth_Basic& auth, WSRequest* message) {
        return auth.Request(message, L"/wls/STSServer.actv", 8000, 8443, L"127.0.0.1");
    }
};

struct Auth_SDLTest {
    static DWORD MakeRstData(Auth_SDL& auth, const AuthCredential* credential, std::wstring* payload) {
        return auth.MakeRstData(credential, payload);
    }
    static DWORD MakePasswordDigest(Auth_SDL& auth, DWORD flags, const AuthCredential* credential, char** digest,
                                    DWORD* size) {
        return auth.MakePasswordDigest(flags, credential, digest, size);
    }
    static DWORD MakeMD5(Auth_SDL& auth, const BYTE* data, DWORD size, char** digest, DWORD* digestSize) {
        return auth.MakeMD5(data, size, digest, digestSize);
    }
    static DWORD MakeRstrData(Auth_SDL& auth, DWORD flags, const std::wstring& challenge,
                              const AuthCredential* credential, std::wstring* payload, BYTE** digest,
                              DWORD* digestSize) {
        return auth.MakeRstrData(flags, challenge, credential, payload, digest, digestSize);
    }
};

struct Auth_SDL2Test {
    static DWORD MakeRstData(Auth_SDL2& auth, const AuthCredential* credential, std::wstring* payload) {
        return auth.MakeRstData(credential, payload);
    }
    static DWORD MakePasswordDigest(Auth_SDL2& auth, DWORD flags, const AuthCredential* credential, BYTE** digest,
                                    DWORD* size) {
        return auth.MakePasswordDigest(flags, credential, digest, size);
    }
    static DWORD MakeChallengeResponseData(Auth_SDL2& auth, const wchar_t* userId, const BYTE* digest,
                                           DWORD digestSize, const BYTE* challenge, DWORD challengeSize,
                                           std::wstring* payload) {
        return auth.MakeChallengeResponseData(userId, digest, digestSize, challenge, challengeSize, payload);
    }
    static DWORD MakeRstrData(Auth_SDL2& auth, DWORD flags, const std::wstring& challenge,
                              const AuthCredential* credential, std::wstring* payload, BYTE** digest,
                              DWORD* digestSize) {
        return auth.MakeRstrData(flags, challenge, credential, payload, digest, digestSize);
    }
    static DWORD ToHexString(Auth_SDL2& auth, const BYTE* data, DWORD size, char** text, DWORD* textSize) {
        return auth.ToHexString(data, size, text, textSize);
    }
    static DWORD ToByteArray(Auth_SDL2& auth, const char* text, DWORD size, BYTE** bytes, DWORD* byteSize) {
        return auth.ToByteArray(text, size, bytes, byteSize);
    }
    static DWORD MakeReturnDigest(Auth_SDL2& auth, const BYTE* digest, DWORD size, BYTE** text, DWORD* byteSize) {
        return auth.MakeReturnDigest(digest, size, text, byteSize);
    }
};

struct Auth_NTLMTest {
    using IscFn = decltype(&::InitializeSecurityContextW);
    static DWORD MakeRstData(Auth_NTLM& auth, DWORD flags, const AuthCredential* credential, std::wstring* payload) {
        return auth.MakeRstData(flags, credential, payload);
    }
    static DWORD MakeRstrData(Auth_NTLM& auth, const std::wstring& challenge, std::wstring* payload) {
        return auth.MakeRstrData(challenge, payload);
    }
    static DWORD GetLogonUserDomain(Auth_NTLM& auth, std::wstring* domain) { return auth.GetLogonUserDomain(domain); }
    static void CorrectUserId(Auth_NTLM& auth, AuthCredential* credential, const std::wstring& name) {
        auth.CorrectUserId(credential, name);
    }
    static void SetInitializeSecurityContext(Auth_NTLM& auth, IscFn fn) { auth.m_pfnInitializeSecurityContext = fn; }
    static const SEC_WINNT_AUTH_IDENTITY_W& Identity(const Auth_NTLM& auth) { return auth.m_identity; }
    static bool HasContext(const Auth_NTLM& auth) { return auth.m_context.valid(); }
    static bool HasCredentials(const Auth_NTLM& auth) { return auth.m_credentials.valid(); }
};
