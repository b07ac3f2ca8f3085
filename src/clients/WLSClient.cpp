// PLACEHOLDER: replaced by the login-service client implementation.
#include "clients/WLSClient.h"
#include "transport/CSoapTrans.h"
WLSClient::WLSClient(const std::wstring& address) : m_wstrAddress(address), m_usPort(0), m_usSecurePort(0) {}
WLSClient::~WLSClient() = default;
DWORD WLSClient::Open(DWORD) { return ZEB_ERROR_GENERAL_INVALID_INSTANCE; }
DWORD WLSClient::OpenIPv6(DWORD) { return ZEB_ERROR_GENERAL_INVALID_INSTANCE; }
DWORD WLSClient::GetPolicy(DWORD*, AuthInfo**, DWORD*) { return ZEB_ERROR_GENERAL_INVALID_INSTANCE; }
DWORD WLSClient::Authentication(DWORD, const AuthInfo*, AuthCredential*, BYTE**, DWORD*) { return ZEB_ERROR_GENERAL_INVALID_INSTANCE; }
DWORD WLSClient::Request(CSoapTrans*, WSRequest*, const std::wstring&) { return ZEB_ERROR_GENERAL_INVALID_INSTANCE; }
DWORD WLSClient::Close() { return ZEB_ERROR_GENERAL_INVALID_INSTANCE; }
