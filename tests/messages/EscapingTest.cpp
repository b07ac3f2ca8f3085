// Which inserted values each message escapes: user-supplied ones (the domain
// in Info, the Basic2 credentials, FPName) are; ready-made texts are not.
#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <string>

#include "MessageTestSupport.h"
#include "Quorvantis.h"
#include "messages/CancelRequest.h"
#include "messages/GetACTRequest.h"
#include "messages/GetPublicKeyRequest.h"
#include "messages/RSTR_NTLM.h"
#include "messages/RSTR_SDL.h"
#include "messages/RST_Basic.h"
#include "messages/RST_Basic2.h"
#include "messages/RST_NTLM.h"
#include "messages/RST_SDL.h"

namespace {

// Every character the escaping treats specially, and a non-ASCII one that it
// copies: less-than, greater-than, ampersand, double quote, apostrophe, tab,
// DEL, e-acute.
const std::wstring kSpecial = L"a<b>&\"c'\td\x7F" L"\u00e9";
const std::wstring kEscaped = L"a&lt;b&gt;&amp;&quot;c&#39; d \u00e9";

// Header and body text of a message serialized with `value` in one field.
using Serializer = std::function<std::wstring(const std::wstring& value)>;

template <typename Message>
std::wstring Texts(Message& message) {
    auto request = msgtest::NewRequest();
    EXPECT_EQ(message.Serialize(request.get()), 0u);
    return request->GetSoapHeader() + request->GetSoapBody();
}

std::wstring Act(int field, const std::wstring& v) {
    auto pick = [&](int i) { return field == i ? v : std::wstring(L"x"); };
    GetACTRequest message(pick(0), pick(1), pick(2), pick(3), pick(4), pick(5), pick(6),
                          std::deque<std::wstring>{pick(7)});
    return Texts(message);
}

std::wstring Basic2(int field, const std::wstring& v) {
    std::wstring id = field == 2 ? v : L"x", password = field == 3 ? v : L"x", domain = field == 4 ? v : L"x";
    AuthCredential credential = {&id[0], &password[0], &domain[0]};
    RST_Basic2 message(field == 0 ? v : L"x", field == 1 ? v : L"x", &credential);
    return Texts(message);
}

template <typename Message>
std::wstring ThreeInputs(int field, const std::wstring& v) {
    auto pick = [&](int i) { return field == i ? v : std::wstring(L"x"); };
    Message message(pick(0), pick(1), pick(2));
    return Texts(message);
}

template <typename Message>
std::wstring TwoInputs(int field, const std::wstring& v) {
    Message message(field == 0 ? v : L"x", field == 1 ? v : L"x");
    return Texts(message);
}

std::wstring PublicKey(const std::wstring& v) {
    GetPublicKeyRequest message(v);
    return Texts(message);
}

struct EscapeRow {
    const char* field;
    Serializer serialize;
    const wchar_t* before;  // the text just before the value
    const wchar_t* after;   // and just after it
    bool escaped;
};

using namespace std::placeholders;

const EscapeRow kRows[] = {
    {"GetPublicKeyRequest security header", PublicKey, L"<wsse:Security soap:mustUnderstand=\"1\">",
     L"</wsse:Security>", false},
    {"GetACTRequest security header", std::bind(Act, 0, _1), L"<wsse:Security soap:mustUnderstand=\"1\">",
     L"</wsse:Security>", false},
    {"GetACTRequest FPName", std::bind(Act, 1, _1), L"<FPName>", L"</FPName>", true},
    {"GetACTRequest HMACAlgorithm", std::bind(Act, 2, _1), L"<HMACAlgorithm>", L"</HMACAlgorithm>", false},
    {"GetACTRequest HMACKeyStrength", std::bind(Act, 3, _1), L"<HMACKeyStrength>", L"</HMACKeyStrength>", false},
    {"GetACTRequest PublicKeyAlgorithm", std::bind(Act, 4, _1), L"<PublicKeyAlgorithm>", L"</PublicKeyAlgorithm>",
     false},
    {"GetACTRequest PublicKeyStrength", std::bind(Act, 5, _1), L"<PublicKeyStrength>", L"</PublicKeyStrength>",
     false},
    {"GetACTRequest CipherData", std::bind(Act, 6, _1), L"<CipherData>", L"</CipherData>", false},
    {"GetACTRequest ACV value", std::bind(Act, 7, _1), L"<ACVValue>", L"</ACVValue>", false},
    {"RST_Basic Info", std::bind(ThreeInputs<RST_Basic>, 0, _1), L"<wls:Info>", L"</wls:Info>", true},
    {"RST_Basic AuthType", std::bind(ThreeInputs<RST_Basic>, 1, _1), L"<wls:AuthType>", L"</wls:AuthType>", false},
    {"RST_Basic data", std::bind(ThreeInputs<RST_Basic>, 2, _1), L"<wls:AuthenticationData>",
     L"</wls:AuthenticationData>", false},
    {"RST_Basic2 Info", std::bind(Basic2, 0, _1), L"<wls:Info>", L"</wls:Info>", true},
    {"RST_Basic2 AuthType", std::bind(Basic2, 1, _1), L"<wls:AuthType>", L"</wls:AuthType>", false},
    {"RST_Basic2 Id", std::bind(Basic2, 2, _1), L"<wls:Id>", L"</wls:Id>", true},
    {"RST_Basic2 Password", std::bind(Basic2, 3, _1), L"<wls:Password>", L"</wls:Password>", true},
    {"RST_Basic2 Domain", std::bind(Basic2, 4, _1), L"<wls:Domain>", L"</wls:Domain>", true},
    {"RST_NTLM Info", std::bind(ThreeInputs<RST_NTLM>, 0, _1), L"<wls:Info>", L"</wls:Info>", true},
    {"RST_NTLM AuthType", std::bind(ThreeInputs<RST_NTLM>, 1, _1), L"<wls:AuthType>", L"</wls:AuthType>", false},
    {"RST_NTLM data", std::bind(ThreeInputs<RST_NTLM>, 2, _1), L"<wls:AuthenticationData>",
     L"</wls:AuthenticationData>", false},
    {"RST_SDL Info", std::bind(ThreeInputs<RST_SDL>, 0, _1), L"<wls:Info>", L"</wls:Info>", false},
    {"RST_SDL AuthType", std::bind(ThreeInputs<RST_SDL>, 1, _1), L"<wls:AuthType>", L"</wls:AuthType>", false},
    {"RST_SDL data", std::bind(ThreeInputs<RST_SDL>, 2, _1), L"<wls:AuthenticationData>",
     L"</wls:AuthenticationData>", false},
    {"RSTR_SDL data", std::bind(TwoInputs<RSTR_SDL>, 0, _1), L"<wls:AuthenticationData>",
     L"</wls:AuthenticationData>", false},
    {"RSTR_SDL context", std::bind(TwoInputs<RSTR_SDL>, 1, _1), L" wst:Context=\"", L"\">", false},
    {"RSTR_NTLM data", std::bind(TwoInputs<RSTR_NTLM>, 0, _1), L"<wls:AuthenticationData>",
     L"</wls:AuthenticationData>", false},
    {"RSTR_NTLM context", std::bind(TwoInputs<RSTR_NTLM>, 1, _1), L" wst:Context=\"", L"\" xmlns:wls=", false},
    {"CancelRequest assertion id", std::bind(TwoInputs<CancelRequest>, 0, _1), L"#Base64Binary\">",
     L"</wsse:KeyIdentifier>", false},
    {"CancelRequest security header", std::bind(TwoInputs<CancelRequest>, 1, _1),
     L"<wsse:Security soap:mustUnderstand=\"1\">", L"</wsse:Security>", false},
};

}  // namespace

TEST(MessageEscaping, EachInsertedValueFollowsItsClassRule) {
    for (const EscapeRow& row : kRows) {
        const std::wstring text = row.serialize(kSpecial);
        const std::wstring expected = row.before + (row.escaped ? kEscaped : kSpecial) + row.after;
        EXPECT_NE(text.find(expected), std::wstring::npos) << row.field;
    }
}

TEST(MessageEscaping, AnInfoHoldingLessThanIsEscapedExceptBySDL) {
    const std::wstring escaped = L"<wls:Info>&lt;</wls:Info>";
    const std::wstring raw = L"<wls:Info><</wls:Info>";
    EXPECT_NE(ThreeInputs<RST_Basic>(0, L"<").find(escaped), std::wstring::npos);
    EXPECT_NE(Basic2(0, L"<").find(escaped), std::wstring::npos);
    EXPECT_NE(ThreeInputs<RST_NTLM>(0, L"<").find(escaped), std::wstring::npos);
    EXPECT_NE(ThreeInputs<RST_SDL>(0, L"<").find(raw), std::wstring::npos);
}
