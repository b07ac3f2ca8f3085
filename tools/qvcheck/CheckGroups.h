// The checks of each group, listed in order by AllChecks (Checks.cpp).
#pragma once

#include "Checks.h"

namespace qvcheck {

// CryptoChecks.cpp
Result CheckCryptContext(const Environment& environment);
Result CheckCryptContainer(const Environment& environment);
Result CheckCryptRandom(const Environment& environment);
Result CheckMd5(const Environment& environment);
Result CheckHmacMd5(const Environment& environment);
Result CheckHmacSha1(const Environment& environment);
Result CheckRsaPkcs1(const Environment& environment);

// XmlChecks.cpp
Result CheckXmlProperties(const Environment& environment);
Result CheckXmlXPath(const Environment& environment);
Result CheckXmlProhibitDtd(const Environment& environment);
Result CheckXmlMaxDepth(const Environment& environment);

// HttpChecks.cpp
Result CheckHttpTimeouts(const Environment& environment);
Result CheckHttpTlsProtocols(const Environment& environment);
Result CheckHttpSecurityFlags(const Environment& environment);
Result CheckHttpDisableFeature(const Environment& environment);

// SystemChecks.cpp
Result CheckNtlm(const Environment& environment);
Result CheckUuid(const Environment& environment);
Result CheckEventSource(const Environment& environment);
Result CheckAddinLogKey(const Environment& environment);
Result CheckProfileFolder(const Environment& environment);

// A result with its name and status set.
inline Result Make(const char* name, Status status, const std::string& detail) {
    Result result;
    result.name = name;
    result.status = status;
    result.detail = detail;
    return result;
}

}  // namespace qvcheck
