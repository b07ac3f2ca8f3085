#include "clients/WSDrvCommClient.h"

#include <cstdio>
#include <cstdlib>
#include <cwchar>

#include "clients/ActFlagTable.h"
#include "common/HeapBuffer.h"
#include "config/AddinSettings.h"
#include "crypto/Base64.h"
#include "crypto/KeyCrypter.h"
#include "log/WSCLog.h"
#include "messages/GetACTRequest.h"
#include "messages/GetPublicKeyRequest.h"
#include "soap/SoapRequest.h"
#include "soap/SoapResponse.h"
#include "transport/CSoapTrans.h"
#include "transport/SoapExchange.h"

namespace {

// The MTOM argument is a constant on purpose: the exchange needs only some id.
constexpr const wchar_t* kMtomArgument = L"01234567890123456789";

long DecimalValue(const std::wstring& text) { return std::wcstol(text.c_str(), nullptr, 10); }

// hmacKey encrypted with the DER public key, as Base64 text in *cipherText.
DWORD EncryptHmacKey(const std::wstring& hmacKey, const std::wstring& publicKey, std::wstring* cipherText) {
    qv::SecretBytes keyBytes;
    DWORD keySize = 0;
    keySize = Base64Decoding(hmacKey, qv::out_param(keyBytes, keySize));
    if (!keySize || !keyBytes)
        return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"WSDrvCommClient::GetACT Base64Decoding pSrcData ZEB_ERROR = %08x");
    qv::ByteBuffer publicKeyBytes;
    DWORD publicKeySize = 0;
    publicKeySize = Base64Decoding(publicKey, qv::out_param(publicKeyBytes, publicKeySize));
    if (!publicKeySize || !publicKeyBytes)
        return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"WSDrvCommClient::GetACT Base64Decoding pPublicKey ZEB_ERROR = %08x");
    if (publicKeySize > 0xFFFF) {
        // KeyCrypter takes a 16-bit key length; no RSA key of ours comes near it.
        WSCLOG(1, L"WSDrvCommClient::GetACT PublicKeyLength = %u ZEB_ERROR = %08x", publicKeySize,
               ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }

    KeyCrypter crypter;
    qv::ByteBuffer cipherBytes;
    DWORD cipherSize = 0;
    DWORD result = crypter.Initialize(KeyCrypter::kKeyExchangeAlgorithm, 0);
    if (!ZEB_FAILED(result)) {
        result = crypter.EncryptWithPublicKey(static_cast<USHORT>(publicKeySize), publicKeyBytes.get(), keySize,
                                              keyBytes.get(), &cipherSize, qv::out_param(cipherBytes, cipherSize));
        // EncryptWithPublicKey reports success even when its last step (the
        // byte reversal) failed and left no output.
        if (!ZEB_FAILED(result) && !cipherBytes) {
            WSCLOG(1, L"WSDrvCommClient::GetACT EncryptWithPublicKey pbyCipherData ZEB_ERROR = %08x",
                   ZEB_ERROR_OUTOFMEMORY);
            result = ZEB_ERROR_OUTOFMEMORY;
        }
        if (!ZEB_FAILED(result)) result = crypter.Clear();
    }
    if (ZEB_FAILED(result)) {
        crypter.Clear();
        return result;
    }

    *cipherText = Base64Encoding(cipherBytes.get(), cipherSize);
    if (cipherText->empty())
        return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"WSDrvCommClient::GetACT Base64Encoding pbyCipherData ZEB_ERROR = %08x");
    return result;
}

}  // namespace

ActKeyFields::~ActKeyFields() { qv::SecureWipe(hmacKey); }

WSDrvCommClient::WSDrvCommClient(const std::wstring& address) : WLSClient(address) {
    WSCLOG(4, L"WSDrvCommClient constructor IN");
    m_wstrDrvCommUrl = AddinSettings::Current()->wstrDrvCommUrl;
    WSCLOG(4, L"WSDrvCommClient constructor OUT");
}

WSDrvCommClient::~WSDrvCommClient() {
    WSCLOG(4, L"WSDrvCommClient destructor IN");
    WSCLOG(4, L"WSDrvCommClient destructor OUT");
}

void WSDrvCommClient::ConvertFlagToValue(DWORD actFlags, std::deque<std::wstring>* values) {
    WSCLOG(4, L"WSDrvCommClient::ConvertFlagToValue IN");
    if (!values) return;
    values->clear();
    wchar_t text[128];
    for (int value : qv::ActValuesForFlags(actFlags)) {
        // An int in decimal always fits the 128 characters.
        (void)swprintf(text, 128, L"%d", value);
        values->push_back(text);
    }
    WSCLOG(4, L"WSDrvCommClient::ConvertFlagToValue OUT");
}

DWORD WSDrvCommClient::Request(WSRequest* message, const std::wstring& mtom) {
    WSCLOG(4, L"WSDrvCommClient::Request IN");
    if (!message) return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"WSDrvCommClient::Request PARAMETER ZEB_ERROR = %08x");
    if (!m_pSoapTrans)
        return QV_FAIL(ZEB_ERROR_GENERAL_INVALID_INSTANCE, L"WSDrvCommClient::Request ZEB_ERROR_GENERAL_INVALID_INSTANCE ZEB_ERROR = %08x");
    // A server error still carries a SOAP fault worth reading: the message
    // turns it into its own code.
    bool answered = false;
    const DWORD result = SoapExchange(m_wstrAddress, m_usPort, m_usSecurePort, m_wstrDrvCommUrl)
                             .Run(*m_pSoapTrans, *message, mtom, SoapExchange::ServerError::ReadFault, &answered);
    if (!answered) return result;
    WSCLOG(4, L"WSDrvCommClient::Request OUT");
    return result;
}

DWORD WSDrvCommClient::GetPublicKey(std::wstring* algorithm, std::wstring* strength, std::wstring* length,
                                    std::wstring* publicKey) {
    WSCLOG(4, L"WSDrvCommClient::GetPublicKey IN");
    if (!algorithm || !strength || !length || !publicKey)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"WSDrvCommClient::GetPublicKey PARAMETER ZEB_ERROR = %08x");
    if (!m_pSoapTrans)
        return QV_FAIL(ZEB_ERROR_GENERAL_INVALID_INSTANCE, L"WSDrvCommClient::GetPublicKey ZEB_ERROR_GENERAL_INVALID_INSTANCE ZEB_ERROR = %08x");
    GetPublicKeyRequest message(m_wstrSecurityToken);
    DWORD result = m_pSoapTrans->SetUrl(m_wstrDrvCommUrl);
    if (ZEB_FAILED(result)) return result;
    result = Request(&message, std::wstring());
    if (ZEB_FAILED(result)) return result;

    *algorithm = message.m_keyAlgorithm;
    *strength = message.m_keyStrength;
    *length = message.m_keyLength;
    *publicKey = message.m_key;
    WSCLOG(4, L"WSDrvCommClient::GetPublicKey OUT");
    return result;
}

DWORD WSDrvCommClient::ActInfoToText(DWORD actType, const void* actData, DWORD actSize, DWORD signatureType,
                                     const void* signatureData, DWORD signatureSize, std::wstring* act,
                                     std::wstring* signature) {
    std::wstring actText;
    if (actType == GetACTRequest::kDataText) {
        if (actData) actText.assign(static_cast<const wchar_t*>(actData), actSize);
    } else if (actType == GetACTRequest::kDataBinary) {
        actText = Base64Encoding(static_cast<const BYTE*>(actData), actSize);
    } else {
        WSCLOG(1, L"WSDrvCommClient::GetACT UnknownActInfoDataType ZEB_ERROR = %08x",
               ZEB_ERROR_GENERAL_INVALID_INSTANCE);
        return ZEB_ERROR_GENERAL_INVALID_INSTANCE;
    }
    std::wstring signatureText;
    if (signatureType == GetACTRequest::kDataText) {
        if (signatureData) signatureText.assign(static_cast<const wchar_t*>(signatureData), signatureSize);
    } else if (signatureType == GetACTRequest::kDataBinary) {
        // An unsigned ACT comes as zero bytes: no signature, not an error.
        if (signatureSize) signatureText = Base64Encoding(static_cast<const BYTE*>(signatureData), signatureSize);
    } else {
        WSCLOG(1, L"WSDrvCommClient::GetACT UnknownSignatureInfoDataType ZEB_ERROR = %08x",
               ZEB_ERROR_GENERAL_INVALID_INSTANCE);
        return ZEB_ERROR_GENERAL_INVALID_INSTANCE;
    }
    act->swap(actText);
    signature->swap(signatureText);
    return 0;
}

DWORD WSDrvCommClient::GetACT(const std::wstring& subject, DWORD actFlags, const ActKeyFields& key,
                              std::wstring* act, std::wstring* signature) {
    WSCLOG(4, L"WSDrvCommClient::GetACT IN");
    if (!act || !signature)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"WSDrvCommClient::GetACT PARAMETER ZEB_ERROR = %08x");
    if (!m_pSoapTrans)
        return QV_FAIL(ZEB_ERROR_GENERAL_INVALID_INSTANCE, L"WSDrvCommClient::GetACT ZEB_ERROR_GENERAL_INVALID_INSTANCE ZEB_ERROR = %08x");

    // Only the second attempt (both algorithms named) carries a key; it goes
    // out encrypted with the server's public key.
    std::wstring cipherText;
    if (DecimalValue(key.hmacAlgorithm) != 0 && DecimalValue(key.publicKeyAlgorithm) != 0) {
        DWORD result = EncryptHmacKey(key.hmacKey, key.publicKey, &cipherText);
        if (ZEB_FAILED(result)) return result;
    }

    std::deque<std::wstring> values;
    ConvertFlagToValue(actFlags, &values);
    if (values.empty()) {
        WSCLOG(1, L"WSDrvCommClient::GetACT ConvertFlagToValue UnsupportedValues = %d ZEB_ERROR = %08x",
               static_cast<int>(actFlags), ZEB_ERROR_GENERAL_INVALID_INSTANCE);
        return ZEB_ERROR_GENERAL_INVALID_INSTANCE;
    }

    GetACTRequest message(m_wstrSecurityToken, subject, key.hmacAlgorithm, key.hmacKeyStrength,
                          key.publicKeyAlgorithm, key.publicKeyStrength, cipherText, std::move(values));
    std::wstring mtom;
    if (AddinSettings::Current()->dwEnableMTOM) mtom = kMtomArgument;

    DWORD result = m_pSoapTrans->SetUrl(m_wstrDrvCommUrl);
    if (ZEB_FAILED(result)) return result;
    result = Request(&message, mtom);
    if (ZEB_FAILED(result)) return result;

    // Type 1 sizes count UTF-16 code units, type 2 sizes bytes of the same buffer.
    DWORD converted = ActInfoToText(message.GetACTDataType(), message.GetACTText(), message.GetACTDataSize(),
                                    message.GetSignatureDataType(), message.GetSignatureText(),
                                    message.GetSignatureDataSize(), act, signature);
    if (ZEB_FAILED(converted)) return converted;
    WSCLOG(4, L"WSDrvCommClient::GetACT OUT");
    return result;
}
