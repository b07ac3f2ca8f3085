#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <vector>

#include "clients/WSDrvCommClient.h"

namespace {

std::vector<std::wstring> Values(DWORD flags) {
    std::deque<std::wstring> values;
    WSDrvCommClient::ConvertFlagToValue(flags, &values);
    return std::vector<std::wstring>(values.begin(), values.end());
}

using V = std::vector<std::wstring>;

// A client whose transport "opens" without any network, so that the checks in
// front of the first exchange can be reached.
class OfflineClient : public WSDrvCommClient {
public:
    OfflineClient() : WSDrvCommClient(L"127.0.0.1") {}

protected:
    DWORD OpenSoapTrans(CSoapTrans*, DWORD) override { return 0; }
};

}  // namespace

TEST(ConvertFlagToValue, ZeroGivesTheSingleValueZero) { EXPECT_EQ(Values(0), V({L"0"})); }

TEST(ConvertFlagToValue, EachBitGivesItsValue) {
    const struct {
        DWORD flag;
        const wchar_t* value;
    } rows[] = {
        {0x00000001, L"256"}, {0x00000002, L"257"}, {0x00000004, L"258"}, {0x00000100, L"512"},
        {0x00000200, L"513"}, {0x00000400, L"514"}, {0x00000800, L"515"}, {0x00001000, L"516"},
        {0x00002000, L"517"}, {0x00010000, L"768"}, {0x00020000, L"769"}, {0x00040000, L"770"},
    };
    for (const auto& row : rows) EXPECT_EQ(Values(row.flag), V({row.value})) << std::hex << row.flag;
}

TEST(ConvertFlagToValue, AllBitsComeInTheWireOrder) {
    EXPECT_EQ(Values(0x00073F07), V({L"257", L"258", L"256", L"513", L"514", L"515", L"516", L"517", L"512",
                                     L"769", L"770", L"768"}));
}

TEST(ConvertFlagToValue, ReadBeforeOneWithinEachGroup) {
    EXPECT_EQ(Values(0x3), V({L"257", L"256"}));
    EXPECT_EQ(Values(0x00000300), V({L"513", L"512"}));
    EXPECT_EQ(Values(0x00030000), V({L"769", L"768"}));
}

TEST(ConvertFlagToValue, UnknownBitsAreIgnored) {
    EXPECT_TRUE(Values(0x80000000).empty());
    EXPECT_TRUE(Values(0x00000008).empty());
    EXPECT_EQ(Values(0x80000001), V({L"256"}));
}

TEST(ConvertFlagToValue, ReplacesWhatTheListHeld) {
    std::deque<std::wstring> values = {L"stale"};
    WSDrvCommClient::ConvertFlagToValue(0x4, &values);
    EXPECT_EQ(std::vector<std::wstring>(values.begin(), values.end()), V({L"258"}));
}

TEST(ActInfoToText, TextIsTakenAsItIs) {
    const wchar_t act[] = L"QUNU";
    const wchar_t sig[] = L"c2ln";
    std::wstring actText, sigText;
    EXPECT_EQ(WSDrvCommClient::ActInfoToText(1, act, 4, 1, sig, 4, &actText, &sigText), 0u);
    EXPECT_EQ(actText, L"QUNU");
    EXPECT_EQ(sigText, L"c2ln");
}

TEST(ActInfoToText, BinaryIsBase64Encoded) {
    const BYTE act[] = {'A', 'C', 'T'};
    const BYTE sig[] = {0x00};
    std::wstring actText, sigText;
    EXPECT_EQ(WSDrvCommClient::ActInfoToText(2, act, 3, 2, sig, 1, &actText, &sigText), 0u);
    EXPECT_EQ(actText, L"QUNU");
    EXPECT_EQ(sigText, L"AA==");
}

TEST(ActInfoToText, EmptyBinarySignatureIsAnEmptyText) {
    const BYTE act[] = {'A', 'C', 'T'};
    std::wstring actText, sigText = L"old";
    EXPECT_EQ(WSDrvCommClient::ActInfoToText(2, act, 3, 2, nullptr, 0, &actText, &sigText), 0u);
    EXPECT_EQ(actText, L"QUNU");
    EXPECT_EQ(sigText, L"");
}

TEST(ActInfoToText, EmptyTextSignatureIsAnEmptyText) {
    const wchar_t act[] = L"QUNU";
    std::wstring actText, sigText = L"old";
    EXPECT_EQ(WSDrvCommClient::ActInfoToText(1, act, 4, 1, nullptr, 0, &actText, &sigText), 0u);
    EXPECT_EQ(sigText, L"");
}

TEST(ActInfoToText, UnknownTypesFailAndLeaveTheOutputs) {
    const wchar_t act[] = L"QUNU";
    std::wstring actText = L"a", sigText = L"s";
    EXPECT_EQ(WSDrvCommClient::ActInfoToText(3, act, 4, 1, act, 4, &actText, &sigText),
              ZEB_ERROR_GENERAL_INVALID_INSTANCE);
    EXPECT_EQ(WSDrvCommClient::ActInfoToText(1, act, 4, 0, act, 4, &actText, &sigText),
              ZEB_ERROR_GENERAL_INVALID_INSTANCE);
    EXPECT_EQ(actText, L"a");
    EXPECT_EQ(sigText, L"s");
}

TEST(WSDrvCommClientGetACT, NullOutputsAreInvalidParameters) {
    WSDrvCommClient client(L"127.0.0.1");
    std::wstring text;
    EXPECT_EQ(client.GetACT(L"s", 0, ActKeyFields(), nullptr, &text), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(client.GetACT(L"s", 0, ActKeyFields(), &text, nullptr), ZEB_ERROR_INVALID_PARAMETER);
}

TEST(WSDrvCommClientGetACT, WithoutTransportIsAnInvalidInstance) {
    WSDrvCommClient client(L"127.0.0.1");
    std::wstring act, sig;
    EXPECT_EQ(client.GetACT(L"s", 0, ActKeyFields(), &act, &sig),
              ZEB_ERROR_GENERAL_INVALID_INSTANCE);
    std::wstring a, b, c, d;
    EXPECT_EQ(client.GetPublicKey(&a, &b, &c, &d), ZEB_ERROR_GENERAL_INVALID_INSTANCE);
    EXPECT_EQ(client.GetPublicKey(nullptr, &b, &c, &d), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(client.Request(nullptr, L""), ZEB_ERROR_INVALID_PARAMETER);
}

TEST(WSDrvCommClientGetACT, FlagsWithoutKnownBitsSendNothing) {
    OfflineClient client;
    ASSERT_EQ(client.Open(0), 0u);
    std::wstring act = L"a", sig = L"s";
    EXPECT_EQ(client.GetACT(L"s", 0x80000000, ActKeyFields(), &act, &sig),
              ZEB_ERROR_GENERAL_INVALID_INSTANCE);
    EXPECT_EQ(act, L"a");
    EXPECT_EQ(sig, L"s");
}

TEST(WSDrvCommClientGetACT, AKeyThatIsNoBase64FailsBeforeSending) {
    OfflineClient client;
    ASSERT_EQ(client.Open(0), 0u);
    std::wstring act, sig;
    // Both algorithms named: the key must be encrypted, and "" decodes to nothing.
    ActKeyFields noKey;
    noKey.hmacAlgorithm = L"301";
    noKey.hmacKeyStrength = L"1";
    noKey.publicKeyAlgorithm = L"1";
    noKey.publicKeyStrength = L"2048";
    noKey.publicKey = L"AAAA";
    EXPECT_EQ(client.GetACT(L"s", 0, noKey, &act, &sig), ZEB_ERROR_OUTOFMEMORY);
    ActKeyFields noPublicKey;
    noPublicKey.hmacAlgorithm = L"301";
    noPublicKey.hmacKeyStrength = L"1";
    noPublicKey.hmacKey = L"AAAA";
    noPublicKey.publicKeyAlgorithm = L"1";
    noPublicKey.publicKeyStrength = L"2048";
    EXPECT_EQ(client.GetACT(L"s", 0, noPublicKey, &act, &sig), ZEB_ERROR_OUTOFMEMORY);
}
