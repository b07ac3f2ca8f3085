// Client of the device-communication service: the login client plus the
// public-key and ACT operations. Encrypts the HMAC key made by the interface
// layer with the server's public key before sending it.
#pragma once

#include <deque>
#include <string>

#include "clients/WLSClient.h"

// The key-exchange fields of a GetACT request, as text. The first attempt
// names no key (algorithms "0", no texts); once the server asked for a key,
// they name the new HMAC key (Base64) and the server's public key (Base64),
// which encrypts it. The key text is wiped when the fields go.
struct ActKeyFields {
    std::wstring hmacAlgorithm = L"0";
    std::wstring hmacKeyStrength = L"0";
    std::wstring hmacKey;
    std::wstring publicKeyAlgorithm = L"0";
    std::wstring publicKeyStrength = L"0";
    std::wstring publicKey;

    ActKeyFields() = default;
    ~ActKeyFields();
    ActKeyFields(const ActKeyFields&) = delete;
    ActKeyFields& operator=(const ActKeyFields&) = delete;
};

class WSDrvCommClient : public WLSClient {
public:
    // The device service's names of the key the add-in makes for it.
    static constexpr DWORD kHmacAlgorithm = 301;
    static constexpr DWORD kHmacKeyStrength = 1;
    static constexpr DWORD kHmacKeyBytes = 20;

    explicit WSDrvCommClient(const std::wstring& address);
    ~WSDrvCommClient() override;

    DWORD Request(WSRequest* message, const std::wstring& mtom);
    DWORD GetPublicKey(std::wstring* algorithm, std::wstring* strength, std::wstring* length,
                       std::wstring* publicKey);
    // ACT and signature come back as Base64 text.
    DWORD GetACT(const std::wstring& subject, DWORD actFlags, const ActKeyFields& key, std::wstring* act,
                 std::wstring* signature);
    // ACT flags -> the ACV values the request carries, in the wire order.
    static void ConvertFlagToValue(DWORD actFlags, std::deque<std::wstring>* values);

    // Turns an answer's ACT and signature into Base64 text: the text of
    // GetACTRequest::kDataText as it is, the bytes of kDataBinary encoded
    // here; any other data type
    // fails with ZEB_ERROR_GENERAL_INVALID_INSTANCE and leaves both outputs as
    // they were. Text sizes are in UTF-16 code units, binary sizes in bytes.
    static DWORD ActInfoToText(DWORD actType, const void* actData, DWORD actSize, DWORD signatureType,
                               const void* signatureData, DWORD signatureSize, std::wstring* act,
                               std::wstring* signature);

private:
    std::wstring m_wstrDrvCommUrl;
};
