// Ordinary checks of the platform-independent units: known answers, every
// row of the tables, and seeded round trips through the same properties the
// fuzzer checks. Exit code 0 when all hold.
#include <random>

#include "Quorvantis.h"
#include "Units.h"

namespace {

int g_failures = 0;

void Check(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "CHECK FAILED: %s\n", what);
    ++g_failures;
}

std::string EncodeText(const char* text) {
    return native::Encode(reinterpret_cast<const uint8_t*>(text), static_cast<uint32_t>(std::strlen(text)));
}

std::string DecodeText(const char* text) {
    const std::vector<uint8_t> bytes = native::Decode(text);
    return std::string(bytes.begin(), bytes.end());
}

void Base64KnownAnswers() {
    // RFC 4648, section 10.
    Check(EncodeText("f") == "Zg==", "f");
    Check(EncodeText("fo") == "Zm8=", "fo");
    Check(EncodeText("foo") == "Zm9v", "foo");
    Check(EncodeText("foob") == "Zm9vYg==", "foob");
    Check(EncodeText("fooba") == "Zm9vYmE=", "fooba");
    Check(EncodeText("foobar") == "Zm9vYmFy", "foobar");
    // 57 bytes fill one line exactly: it ends in CR LF; one byte more starts a second line.
    const std::string line(57, 'a');
    const std::string one = EncodeText(line.c_str());
    Check(one.size() == 78 && one.compare(76, 2, "\r\n") == 0, "a complete line ends in CR LF");
    const std::string two = EncodeText((line + "a").c_str());
    Check(two.size() == 82 && two.compare(76, 2, "\r\n") == 0 && two.substr(78) == "YQ==", "a second line");
    // The decoder skips what is not in the alphabet and keeps partial groups.
    Check(DecodeText("Zm9v\r\nYmFy") == "foobar", "line breaks skipped");
    Check(DecodeText(" Z!m*9-v ") == "foo", "stray characters skipped");
    Check(DecodeText("Zg") == "f", "two characters give one byte");
    Check(DecodeText("Zm8") == "fo", "three characters give two bytes");
    Check(DecodeText("Z").empty() && DecodeText("====").empty(), "nothing decodable");
    uint32_t length = 0;
    Check(!qv::EncodedLength(0x20000000u, &length), "EncodedLength refuses sizes past INT_MAX / 4");
}

void EscapeKnownAnswers() {
    size_t blanked = 9;
    Check(qv::EscapeUserInput(L"a<b>&\"'\x01\x7f\x1f", &blanked) == L"a&lt;b&gt;&amp;&quot;&#39;   ", "escapes");
    Check(blanked == 2, "two control characters blanked");
    Check(qv::EscapeUserInput(L"", nullptr).empty(), "empty");
    Check(qv::EscapeUserInput(L"\u00e9\u65e5", nullptr) == L"\u00e9\u65e5", "other characters unchanged");
}

void FaultTableRows() {
    size_t count = 0;
    const qv::SubcodeRow* rows = qv::SubcodeRows(&count);
    Check(count == 39, "39 subcode rows");
    for (size_t i = 0; i < count; ++i) {
        const qv::SubcodeRow& row = rows[i];
        const std::wstring prefix = row.service == qv::FaultService::Login ? L"wls:" : L"zeb:";
        const qv::SubcodeRow* found = qv::FindSubcode(prefix + row.name, L"wls:", L"zeb:");
        if (row.alsoEquals) {
            Check(found != &row, "a row with a second text never matches");
            continue;
        }
        Check(found == &row, "each row is found by its own subcode");
        Check((row.result & 0xD5000000u) == 0xD5000000u, "each row maps to a failure");
    }
    Check(qv::FindSubcode(L"wls:BadRequest", L"wls:", L"zeb:") == nullptr, "wls:BadRequest stays unmatched");
    Check(qv::FindSubcode(L"zeb:FailedAuthentication", L"wls:", L"zeb:") == nullptr, "a login name under the device prefix");
    Check(qv::FindSubcode(L"wls:GetActError", L"wls:", L"zeb:") == nullptr, "a device name under the login prefix");
    Check(qv::ClassifyCode(L"env:Receiver") == ZEB_ERROR_SOAP_RECEIVER, "Receiver by substring");
    Check(qv::ClassifyCode(L"x:MustUnderstandSender") == ZEB_ERROR_SOAP_MUST_UNDERSTAND, "first code in table order");
    Check(qv::ClassifyCode(L"soap:Unknown") == 0, "unknown code");
}

void ActFlagRows() {
    Check(qv::ActValuesForFlags(0) == std::vector<int>{0}, "no flag");
    const std::vector<int> all = {257, 258, 256, 513, 514, 515, 516, 517, 512, 769, 770, 768};
    Check(qv::ActValuesForFlags(0xFFFFFFFFu) == all, "every flag, in wire order");
    Check(qv::ActValuesForFlags(ZEB_ACT_FLAG_ACV256 | ZEB_ACT_FLAG_ACV257) == (std::vector<int>{257, 256}), "257 before 256");
    Check(qv::ActValuesForFlags(0x80000000u).empty(), "unknown bits only");
}

void HexKnownAnswers() {
    const uint8_t bytes[] = {0x00, 0xAB, 0xFF, 0x10};
    char* hex = qv::HexText(bytes, 4);
    Check(hex && std::string(hex) == "00abff10", "HexText");
    std::free(hex);
    uint8_t out[3] = {9, 9, 9};
    qv::HexPairsToBytes("7xx7AF", 3, out);
    Check(out[0] == 7 && out[1] == 0 && out[2] == 0xAF, "pairs read as numbers");
}

void SeededRoundTrips() {
    std::mt19937 rng(20261121);
    for (int n = 0; n < 3000; ++n) {
        std::vector<uint8_t> bytes(1 + rng() % 400);
        for (uint8_t& b : bytes) b = static_cast<uint8_t>(rng());
        native::Base64RoundTrip(bytes.data(), bytes.size());
        native::Base64DecodeAny(bytes.data(), bytes.size());
        native::HexProperties(bytes.data(), bytes.size());
        native::EscapeProperties(native::Units16(bytes.data(), bytes.size()));
        native::ActFlagProperties(static_cast<uint32_t>(rng()));
    }
}

}  // namespace

int main() {
    Base64KnownAnswers();
    EscapeKnownAnswers();
    FaultTableRows();
    ActFlagRows();
    HexKnownAnswers();
    SeededRoundTrips();
    std::printf("native checks: %s\n", g_failures ? "FAILED" : "all hold");
    return g_failures ? 1 : 0;
}
