// One device session: a host handle bound to one server address, owning the
// device-communication client through which every call for the handle goes.
#pragma once

#include <memory>
#include <string>

#include "Quorvantis.h"

class WSDrvCommClient;
struct ActKeyFields;

class CDevice {
public:
    CDevice(const wchar_t* address, DWORD handle);
    ~CDevice();
    CDevice(const CDevice&) = delete;
    CDevice& operator=(const CDevice&) = delete;

    DWORD Handle() const { return m_dwHandle; }
    const std::wstring& Address() const { return m_wstrAddress; }
    bool HasClient() const { return static_cast<bool>(m_pClient); }

    DWORD Open(DWORD flags);
    DWORD Close();
    DWORD GetPolicy(DWORD* count, AuthInfo** list, DWORD* flag);
    DWORD Authentication(DWORD flags, const AuthInfo* authInfo, AuthCredential* credential, BYTE** output,
                         DWORD* outputSize);
    DWORD GetPublicKey(std::wstring* algorithm, std::wstring* strength, std::wstring* length,
                       std::wstring* publicKey);
    DWORD GetACT(const std::wstring& subject, DWORD actFlags, const ActKeyFields& key, std::wstring* act,
                 std::wstring* signature);

private:
    const DWORD m_dwHandle;
    std::wstring m_wstrAddress;
    std::unique_ptr<WSDrvCommClient> m_pClient;
};
