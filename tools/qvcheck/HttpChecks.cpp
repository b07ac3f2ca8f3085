// WinHTTP options on the handles where the add-in's HTTP channel sets them:
// the time-outs on the session, certificate leniency and the disabled
// features on each request. Requests are opened on a connection to a
// loopback name and never sent: WinHttpConnect and WinHttpOpenRequest make no
// connection, so nothing goes on the network.
#include <windows.h>
#include <winhttp.h>

#include <functional>
#include <string>

#include "CheckGroups.h"
#include "Holders.h"
#include "transport/CWinHttp.h"

namespace qvcheck {
namespace {

// The values of the add-in's HTTP channel (src/transport/CWinHttp.cpp).
constexpr const wchar_t* kUserAgent = L"ZEBWSCLINET";
constexpr DWORD kDefaultTimeout = 20000;  // the Timeout setting's default, ms
constexpr DWORD kIgnoreCertificateFlags = SECURITY_FLAG_IGNORE_UNKNOWN_CA | SECURITY_FLAG_IGNORE_CERT_CN_INVALID |
                                          SECURITY_FLAG_IGNORE_CERT_DATE_INVALID;  // 0x00003100
constexpr DWORD kWritableSecurityFlagsMask = 0x8FFFFFFE;
constexpr DWORD kDisableRedirects = WINHTTP_DISABLE_REDIRECTS;                               // 2: WlsKeepAlive=1
constexpr DWORD kDisableRedirectsAndKeepAlive = WINHTTP_DISABLE_REDIRECTS | WINHTTP_DISABLE_KEEP_ALIVE;  // 10
constexpr const wchar_t* kLoopbackName = L"localhost";
constexpr INTERNET_PORT kPort = 8000;
constexpr INTERNET_PORT kSecurePort = 8443;
constexpr const wchar_t* kServicePath = L"/wls/WLSPolicyService.actv";

// Declared in the order that closes request, connection, session.
struct Channel {
    UniqueInternet session;
    UniqueInternet connect;
    DWORD error = 0;
    std::string failedStep;
};

// A session as the add-in opens one without a proxy.
bool OpenSession(Channel* channel) {
    channel->session.reset(
        WinHttpOpen(kUserAgent, WINHTTP_ACCESS_TYPE_NO_PROXY, WINHTTP_NO_PROXY_NAME, WINHTTP_NO_PROXY_BYPASS, 0));
    if (!channel->session) {
        channel->error = GetLastError();
        channel->failedStep = "WinHttpOpen";
        return false;
    }
    return true;
}

bool OpenConnection(Channel* channel, INTERNET_PORT port) {
    if (!OpenSession(channel)) return false;
    channel->connect.reset(WinHttpConnect(channel->session.get(), kLoopbackName, port, 0));
    if (!channel->connect) {
        channel->error = GetLastError();
        channel->failedStep = "WinHttpConnect";
        return false;
    }
    return true;
}

// A POST request as the add-in opens one; never sent.
UniqueInternet OpenRequest(const Channel& channel, bool secure) {
    DWORD flags = WINHTTP_FLAG_BYPASS_PROXY_CACHE;
    if (secure) flags |= WINHTTP_FLAG_SECURE;
    return UniqueInternet(WinHttpOpenRequest(channel.connect.get(), L"POST", kServicePath, nullptr,
                                             WINHTTP_NO_REFERER, WINHTTP_DEFAULT_ACCEPT_TYPES, flags));
}

bool SetDword(HINTERNET handle, DWORD option, DWORD value) {
    return WinHttpSetOption(handle, option, &value, sizeof(value)) != FALSE;
}

bool QueryDword(HINTERNET handle, DWORD option, DWORD* value) {
    DWORD size = sizeof(*value);
    return WinHttpQueryOption(handle, option, value, &size) != FALSE && size == sizeof(*value);
}

std::string Failed(const Channel& channel) { return channel.failedStep + " " + Code(channel.error); }

}  // namespace

Result CheckHttpTimeouts(const Environment&) {
    const char* name = "winhttp-timeouts";
    Channel channel;
    if (!OpenSession(&channel)) return Make(name, Status::kFail, Failed(channel));
    struct Option {
        DWORD option;
        const char* text;
    };
    // In the add-in's order; the last bounds the wait for response headers.
    static const Option kOptions[] = {
        {WINHTTP_OPTION_CONNECT_TIMEOUT, "CONNECT_TIMEOUT"},
        {WINHTTP_OPTION_SEND_TIMEOUT, "SEND_TIMEOUT"},
        {WINHTTP_OPTION_RECEIVE_TIMEOUT, "RECEIVE_TIMEOUT"},
        {WINHTTP_OPTION_RECEIVE_RESPONSE_TIMEOUT, "RECEIVE_RESPONSE_TIMEOUT"},
    };
    for (const Option& option : kOptions) {
        if (!SetDword(channel.session.get(), option.option, kDefaultTimeout)) {
            const DWORD error = GetLastError();
            return Make(name, Status::kFail,
                        std::string("WinHttpSetOption(session, WINHTTP_OPTION_") + option.text + ") " + Code(error));
        }
        DWORD value = 0;
        if (!QueryDword(channel.session.get(), option.option, &value) || value != kDefaultTimeout)
            return Make(name, Status::kFail,
                        std::string("WINHTTP_OPTION_") + option.text + " reads back " + std::to_string(value) +
                            " instead of 20000");
    }
    return Make(name, Status::kPass,
                "CONNECT, SEND, RECEIVE and RECEIVE_RESPONSE time-outs set to 20000 ms on the session and read back");
}

ProtocolOffers OfferSecureProtocols(const std::function<DWORD(DWORD)>& setProtocols) {
    struct Offer {
        DWORD value;
        const char* text;
        const char* withoutTls13;
    };
    static const Offer kOffers[] = {
        {WINHTTP_FLAG_SECURE_PROTOCOL_TLS1 | WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_1 | WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_2 |
             WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_3,
         "TLS 1.0-1.3", "TLS 1.0-1.2"},
        {WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_2 | WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_3, "TLS 1.2-1.3", "TLS 1.2"},
    };
    ProtocolOffers offers;
    for (const Offer& offer : kOffers) {
        if (!offers.detail.empty()) offers.detail += "; ";
        const DWORD error = setProtocols(offer.value);
        if (error == 0) {
            offers.detail += std::string(offer.text) + " accepted";
            continue;
        }
        offers.detail += std::string(offer.text) + " refused (" + std::to_string(error) + ")";
        if (error != ERROR_INVALID_PARAMETER) {
            offers.ok = false;
            continue;
        }
        // No TLS 1.3 in this WinHTTP: a note, provided the rest is taken.
        const DWORD without = offer.value & ~static_cast<DWORD>(WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_3);
        const DWORD refusal = setProtocols(without);
        if (refusal == 0) {
            offers.detail += std::string(", ") + offer.withoutTls13 + " without 1.3 accepted (note: no TLS 1.3 here)";
        } else {
            offers.detail += std::string(", ") + offer.withoutTls13 + " refused too (" + std::to_string(refusal) + ")";
            offers.ok = false;
        }
    }
    return offers;
}

Result CheckHttpTlsProtocols(const Environment&) {
    const char* name = "winhttp-tls-protocols";
    // This build of the add-in does not set the option: the check tells
    // whether the platform takes the two offers a secure session would
    // make, and what it takes instead when it has no TLS 1.3 to offer.
    Channel channel;
    if (!OpenSession(&channel)) return Make(name, Status::kFail, Failed(channel));
    const ProtocolOffers offers = OfferSecureProtocols([&channel](DWORD protocols) -> DWORD {
        return SetDword(channel.session.get(), WINHTTP_OPTION_SECURE_PROTOCOLS, protocols) ? 0 : GetLastError();
    });
    return Make(name, offers.ok ? Status::kPass : Status::kFail,
                "WINHTTP_OPTION_SECURE_PROTOCOLS on the session: " + offers.detail);
}

Result CheckHttpSecurityFlags(const Environment&) {
    const char* name = "winhttp-security-flags";
    std::string detail;
    for (bool secure : {false, true}) {
        Channel channel;
        if (!OpenConnection(&channel, secure ? kSecurePort : kPort)) return Make(name, Status::kFail, Failed(channel));
        UniqueInternet request = OpenRequest(channel, secure);
        if (!request) return Make(name, Status::kFail, "WinHttpOpenRequest " + Code(GetLastError()));
        const char* kind = secure ? "secure" : "plain";
        DWORD flags = 0;
        if (!QueryDword(request.get(), WINHTTP_OPTION_SECURITY_FLAGS, &flags)) {
            const DWORD error = GetLastError();
            return Make(name, Status::kFail,
                        std::string("WinHttpQueryOption(") + kind + " request, SECURITY_FLAGS) " + Code(error));
        }
        // The add-in's way: its ignore bits added, unwritable bits dropped;
        // when that is refused, exactly the ignore bits.
        DWORD value = (flags | kIgnoreCertificateFlags) & kWritableSecurityFlagsMask;
        bool fallback = false;
        if (!SetDword(request.get(), WINHTTP_OPTION_SECURITY_FLAGS, value)) {
            fallback = true;
            value = kIgnoreCertificateFlags;
            if (!SetDword(request.get(), WINHTTP_OPTION_SECURITY_FLAGS, value)) {
                const DWORD error = GetLastError();
                return Make(name, Status::kFail,
                            std::string("WinHttpSetOption(") + kind + " request, SECURITY_FLAGS 0x00003100) " +
                                Code(error));
            }
        }
        DWORD readBack = 0;
        if (!QueryDword(request.get(), WINHTTP_OPTION_SECURITY_FLAGS, &readBack) ||
            (readBack & kIgnoreCertificateFlags) != kIgnoreCertificateFlags)
            return Make(name, Status::kFail,
                        std::string(kind) + " request: SECURITY_FLAGS read back " + Code(readBack) + " without 0x3100");
        if (!detail.empty()) detail += "; ";
        detail += std::string(kind) + " request read " + Code(flags) + ", set " + Code(value) +
                  (fallback ? " (after the first value was refused)" : "") + ", read back " + Code(readBack);
    }
    return Make(name, Status::kPass, detail);
}

Result CheckHttpDisableFeature(const Environment&) {
    const char* name = "winhttp-disable-feature";
    for (bool secure : {false, true}) {
        Channel channel;
        if (!OpenConnection(&channel, secure ? kSecurePort : kPort)) return Make(name, Status::kFail, Failed(channel));
        for (DWORD value : {kDisableRedirects, kDisableRedirectsAndKeepAlive}) {
            // A fresh request for each value, as each exchange has.
            UniqueInternet request = OpenRequest(channel, secure);
            if (!request) return Make(name, Status::kFail, "WinHttpOpenRequest " + Code(GetLastError()));
            if (!SetDword(request.get(), WINHTTP_OPTION_DISABLE_FEATURE, value)) {
                const DWORD error = GetLastError();
                return Make(name, Status::kFail,
                            std::string("WinHttpSetOption(") + (secure ? "secure" : "plain") +
                                " request, DISABLE_FEATURE " + std::to_string(value) + ") " + Code(error));
            }
        }
    }
    return Make(name, Status::kPass,
                "WINHTTP_OPTION_DISABLE_FEATURE 2 (redirects) and 10 (redirects, keep-alive) accepted on plain and "
                "secure requests");
}

}  // namespace qvcheck
