#include "device/CDevice.h"

#include <new>

#include "clients/WSDrvCommClient.h"
#include "log/WSCLog.h"

CDevice::CDevice(const wchar_t* address, DWORD handle) : m_dwHandle(handle), m_wstrAddress(address ? address : L"") {
    WSCLOG(4, L"CDevice constructor IN");
    WSCLOG(4, L"CDevice constructor OUT");
}

CDevice::~CDevice() {
    WSCLOG(4, L"CDevice destructor IN");
    if (m_pClient) {
        m_pClient->Close();
        m_pClient.reset();
    }
    WSCLOG(4, L"CDevice destructor OUT");
}

DWORD CDevice::Open(DWORD flags) {
    WSCLOG(4, L"CDevice::Open IN");
    m_pClient.reset(new (std::nothrow) WSDrvCommClient(m_wstrAddress));
    if (!m_pClient) return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"CDevice::Open new WSDrvCommClient ZEB_ERROR = %08x");
    DWORD result = m_pClient->Open(flags);
    if (ZEB_FAILED(result)) {
        // The client has logged the failure; a session without a client
        // answers every later call with an invalid instance.
        m_pClient.reset();
        return result;
    }
    WSCLOG(4, L"CDevice::Open OUT");
    return result;
}

DWORD CDevice::Close() {
    WSCLOG(4, L"CDevice::Close IN");
    DWORD result = 0;
    if (m_pClient) {
        result = m_pClient->Close();
        m_pClient.reset();
    }
    WSCLOG(4, L"CDevice::Close OUT");
    return result;
}

DWORD CDevice::GetPolicy(DWORD* count, AuthInfo** list, DWORD* flag) {
    WSCLOG(4, L"CDevice::GetPolicy IN");
    if (!count || !list) return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"CDevice::GetPolicy PARAMETER ZEB_ERROR = %08x");
    if (!m_pClient)
        return QV_FAIL(ZEB_ERROR_GENERAL_INVALID_INSTANCE, L"CDevice::GetPolicy ZEB_ERROR_GENERAL_INVALID_INSTANCE ZEB_ERROR = %08x");
    DWORD result = m_pClient->GetPolicy(count, list, flag);
    WSCLOG(4, L"CDevice::GetPolicy OUT");
    return result;
}

DWORD CDevice::Authentication(DWORD flags, const AuthInfo* authInfo, AuthCredential* credential, BYTE** output,
                              DWORD* outputSize) {
    WSCLOG(4, L"CDevice::Authentication IN");
    if (!authInfo) return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"CDevice::Authentication PARAMETER ZEB_ERROR = %08x");
    if (!m_pClient)
        return QV_FAIL(ZEB_ERROR_GENERAL_INVALID_INSTANCE, L"CDevice::Authentication ZEB_ERROR_GENERAL_INVALID_INSTANCE ZEB_ERROR = %08x");
    DWORD result = m_pClient->Authentication(flags, authInfo, credential, output, outputSize);
    WSCLOG(4, L"CDevice::Authentication OUT");
    return result;
}

DWORD CDevice::GetPublicKey(std::wstring* algorithm, std::wstring* strength, std::wstring* length,
                            std::wstring* publicKey) {
    WSCLOG(4, L"CDevice::GetPublicKey IN");
    if (!algorithm || !strength || !length || !publicKey) {
        // Logged as a parameter error but answered as a missing instance:
        // hosts have always seen 0xD5010001 here.
        WSCLOG(1, L"CDevice::GetPublicKey PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_GENERAL_INVALID_INSTANCE;
    }
    if (!m_pClient)
        return QV_FAIL(ZEB_ERROR_GENERAL_INVALID_INSTANCE, L"CDevice::GetPublicKey ZEB_ERROR_GENERAL_INVALID_INSTANCE ZEB_ERROR = %08x");
    DWORD result = m_pClient->GetPublicKey(algorithm, strength, length, publicKey);
    WSCLOG(4, L"CDevice::GetPublicKey OUT");
    return result;
}

DWORD CDevice::GetACT(const std::wstring& subject, DWORD actFlags, const ActKeyFields& key, std::wstring* act,
                      std::wstring* signature) {
    WSCLOG(4, L"CDevice::GetACT IN");
    if (!act || !signature) return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"CDevice::GetACT PARAMETER ZEB_ERROR = %08x");
    if (!m_pClient)
        return QV_FAIL(ZEB_ERROR_GENERAL_INVALID_INSTANCE, L"CDevice::GetACT ZEB_ERROR_GENERAL_INVALID_INSTANCE ZEB_ERROR = %08x");
    DWORD result = m_pClient->GetACT(subject, actFlags, key, act, signature);
    WSCLOG(4, L"CDevice::GetACT OUT");
    return result;
}
