// PLACEHOLDER: replaced by the transport session implementation.
#include "transport/CSoapTrans.h"
CSoapTrans::CSoapTrans(const std::wstring& h, USHORT p, USHORT s) : m_wstrHostName(h), m_usPort(p), m_usSecurePort(s), m_bSSLMode(FALSE) {}
CSoapTrans::~CSoapTrans() = default;
