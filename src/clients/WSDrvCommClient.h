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

    // How a GetACT answer delivers the ACT and the signature.
    enum ActDataType : DWORD {
        kActDataText = 1,    // the element's Base64 text, taken as it is
        kActDataBinary = 2,  // raw bytes, Base64-encoded here
    };
    // Turns an answer's ACT and signature into Base64 text; any other data type
    // fails with ZEB_ERROR_GENERAL_INVALID_INSTANCE and leaves both outputs as
    // they were. Text sizes are in UTF-16 code units, binary sizes in bytes.
    static DWORD ActInfoToText(DWORD actType, const void* actData, DWORD actSize, DWORD signatureType,
                               const void* signatureData, DWORD signatureSize, std::wstring* act,
                               std::wstring* signature);

private:
    std::wstring m_wstrDrvCommUrl;
};
