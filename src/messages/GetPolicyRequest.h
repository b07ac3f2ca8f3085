#pragma once

#include <string>

#include "Quorvantis.h"
#include "messages/WSRequest.h"

// The login policy: the list of accepted authentication mechanisms.
class GetPolicyRequest : public WSRequest {
public:
    GetPolicyRequest();
    ~GetPolicyRequest();
    DWORD Serialize(SoapRequest* request) override;
    DWORD Deserialize(SoapResponse* response, const wchar_t* mimeBoundary) override;

    DWORD GetAuthInfoCount() const { return m_dwAuthInfoCount; }
    // Hands the malloc'd array over to the caller (who frees it with free()).
    AuthInfo* DetachAuthInfo();

private:
    DWORD m_dwAuthInfoCount;
    AuthInfo* m_pAuthInfo;
};
