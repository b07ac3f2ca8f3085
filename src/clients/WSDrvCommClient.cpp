// PLACEHOLDER: replaced by the device-communication client implementation.
#include "clients/WSDrvCommClient.h"
WSDrvCommClient::WSDrvCommClient(const std::wstring& address) : WLSClient(address) {}
WSDrvCommClient::~WSDrvCommClient() = default;
DWORD WSDrvCommClient::Request(WSRequest*, const std::wstring&) { return ZEB_ERROR_GENERAL_INVALID_INSTANCE; }
DWORD WSDrvCommClient::GetPublicKey(std::wstring*, std::wstring*, std::wstring*, std::wstring*) { return ZEB_ERROR_GENERAL_INVALID_INSTANCE; }
DWORD WSDrvCommClient::GetACT(const std::wstring&, DWORD, const std::wstring&, const std::wstring&, const std::wstring&, const std::wstring&, const std::wstring&, const std::wstring&, std::wstring*, std::wstring*) { return ZEB_ERROR_GENERAL_INVALID_INSTANCE; }
void WSDrvCommClient::ConvertFlagToValue(DWORD, std::deque<std::wstring>*) {}
