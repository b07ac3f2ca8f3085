// PLACEHOLDER: replaced by the WinHTTP channel implementation.
#include "transport/CWinHttp.h"
CWinHttp::CWinHttp(const std::wstring& h, USHORT p, USHORT s) : m_wstrHostName(h), m_usPort(p), m_usSecurePort(s), m_bSSLMode(FALSE), m_bPolicyRead(FALSE), m_usKeepAlivePolicy(0) {}
CWinHttp::~CWinHttp() = default;
