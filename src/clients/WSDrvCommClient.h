// Client of the device-communication service: the login client plus the
// public-key and ACT operations. Encrypts the HMAC key made by the interface
// layer with the server's public key before sending it.
#pragma once

#include <deque>
#include <string>

#include "clients/WLSClient.h"

class WSDrvCommClient : public WLSClient {
public:
    explicit WSDrvCommClient(const std::wstring& address);
    ~WSDrvCommClient() override;

    DWORD Request(WSRequest* message, const std::wstring& mtom);
    DWORD GetPublicKey(std::wstring* algorithm, std::wstring* strength, std::wstring* length,
                       std::wstring* publicKey);
    // ACT and signature come back as Base64 text.
    DWORD GetACT(const std::wstring& subject, DWORD actFlags, const std::wstring& hmacAlgorithm,
                 const std::wstring& hmacKeyStrength, const std::wstring& hmacKey,
                 const std::wstring& publicKeyAlgorithm, const std::wstring& publicKeyStrength,
                 const std::wstring& publicKey, std::wstring* act, std::wstring* signature);
    // ACT flags -> the ACV values the request carries, in the wire order.
    static void ConvertFlagToValue(DWORD actFlags, std::deque<std::wstring>* values);

private:
    std::wstring m_wstrDrvCommUrl;
};
