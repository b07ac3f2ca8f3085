// Device sessions without a client, and the list that finds them by handle.
#include <gtest/gtest.h>
#include <windows.h>

#include <string>
#include <vector>

#include "Quorvantis.h"
#include "config/AddinSettings.h"
#include "clients/WSDrvCommClient.h"
#include "device/CDevice.h"
#include "device/CDeviceList.h"
#include "log/WSCLog.h"

namespace {

std::vector<std::wstring> g_lines;
void Capture(const wchar_t* line) { g_lines.push_back(line); }

bool Logged(const std::wstring& text) {
    for (const std::wstring& line : g_lines)
        if (line.size() >= text.size() && line.compare(line.size() - text.size(), text.size(), text) == 0) return true;
    return false;
}

class CDeviceTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_lines.clear();
        // The first use of the settings configures the trace log from them:
        // have that happen before the level is raised here.
        AddinSettings::Current();
        WSCLog::Configure(5, L"");
        WSCLog::SetDebugSinksForTest(Capture, nullptr);
    }
    void TearDown() override {
        WSCLog::Configure(0, L"");
        WSCLog::SetDebugSinksForTest(nullptr, nullptr);
    }
};

TEST_F(CDeviceTest, ConstructionCopiesAddressAndHandle) {
    std::wstring address = L"server.example";
    CDevice device(address.c_str(), 7);
    address[0] = L'X';
    EXPECT_EQ(device.Handle(), 7u);
    EXPECT_EQ(device.Address(), L"server.example");
    EXPECT_FALSE(device.HasClient());
    EXPECT_TRUE(Logged(L"CDevice constructor IN"));
    EXPECT_TRUE(Logged(L"CDevice constructor OUT"));
}

TEST_F(CDeviceTest, NullAddressBecomesEmpty) {
    CDevice device(nullptr, 1);
    EXPECT_EQ(device.Address(), L"");
}

TEST_F(CDeviceTest, DestructionIsLogged) {
    { CDevice device(L"a", 1); }
    EXPECT_TRUE(Logged(L"CDevice destructor IN"));
    EXPECT_TRUE(Logged(L"CDevice destructor OUT"));
}

TEST_F(CDeviceTest, CloseWithoutClientReturnsZero) {
    CDevice device(L"a", 1);
    EXPECT_EQ(device.Close(), 0u);
    EXPECT_EQ(device.Close(), 0u);
    EXPECT_FALSE(device.HasClient());
}

TEST_F(CDeviceTest, GetPolicyChecksItsOutputsFirst) {
    CDevice device(L"a", 1);
    DWORD count = 0;
    AuthInfo* list = nullptr;
    DWORD flag = 0;
    EXPECT_EQ(device.GetPolicy(nullptr, &list, &flag), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(device.GetPolicy(&count, nullptr, &flag), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_TRUE(Logged(L"CDevice::GetPolicy PARAMETER ZEB_ERROR = d5000057"));
    // The flag may be left out.
    EXPECT_EQ(device.GetPolicy(&count, &list, nullptr), ZEB_ERROR_GENERAL_INVALID_INSTANCE);
    EXPECT_EQ(device.GetPolicy(&count, &list, &flag), ZEB_ERROR_GENERAL_INVALID_INSTANCE);
    EXPECT_TRUE(Logged(L"CDevice::GetPolicy ZEB_ERROR_GENERAL_INVALID_INSTANCE ZEB_ERROR = d5010001"));
    EXPECT_TRUE(Logged(L"CDevice::GetPolicy IN"));
}

TEST_F(CDeviceTest, AuthenticationChecksRecordThenClient) {
    CDevice device(L"a", 1);
    AuthInfo info = {};
    wcscpy(info.AuthType, L"Basic");
    BYTE* output = nullptr;
    DWORD size = 0;
    EXPECT_EQ(device.Authentication(0, nullptr, nullptr, &output, &size), ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(device.Authentication(0, &info, nullptr, &output, &size), ZEB_ERROR_GENERAL_INVALID_INSTANCE);
    EXPECT_TRUE(Logged(L"CDevice::Authentication ZEB_ERROR_GENERAL_INVALID_INSTANCE ZEB_ERROR = d5010001"));
    EXPECT_EQ(output, nullptr);
}

TEST_F(CDeviceTest, GetPublicKeyAnswersInvalidInstanceForANullOutput) {
    CDevice device(L"a", 1);
    std::wstring a, b, c, d;
    EXPECT_EQ(device.GetPublicKey(nullptr, &b, &c, &d), ZEB_ERROR_GENERAL_INVALID_INSTANCE);
    EXPECT_EQ(device.GetPublicKey(&a, nullptr, &c, &d), ZEB_ERROR_GENERAL_INVALID_INSTANCE);
    EXPECT_EQ(device.GetPublicKey(&a, &b, nullptr, &d), ZEB_ERROR_GENERAL_INVALID_INSTANCE);
    EXPECT_EQ(device.GetPublicKey(&a, &b, &c, nullptr), ZEB_ERROR_GENERAL_INVALID_INSTANCE);
    // Logged as a parameter error all the same.
    EXPECT_TRUE(Logged(L"CDevice::GetPublicKey PARAMETER ZEB_ERROR = d5000057"));
    g_lines.clear();
    EXPECT_EQ(device.GetPublicKey(&a, &b, &c, &d), ZEB_ERROR_GENERAL_INVALID_INSTANCE);
    EXPECT_TRUE(Logged(L"CDevice::GetPublicKey ZEB_ERROR_GENERAL_INVALID_INSTANCE ZEB_ERROR = d5010001"));
}

TEST_F(CDeviceTest, GetActChecksOutputsThenClient) {
    CDevice device(L"a", 1);
    std::wstring act, signature;
    const ActKeyFields none;
    EXPECT_EQ(device.GetACT(L"s", 0, none, nullptr, &signature),
              ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(device.GetACT(L"s", 0, none, &act, nullptr),
              ZEB_ERROR_INVALID_PARAMETER);
    EXPECT_TRUE(Logged(L"CDevice::GetACT PARAMETER ZEB_ERROR = d5000057"));
    EXPECT_EQ(device.GetACT(L"s", 0, none, &act, &signature),
              ZEB_ERROR_GENERAL_INVALID_INSTANCE);
    EXPECT_TRUE(Logged(L"CDevice::GetACT ZEB_ERROR_GENERAL_INVALID_INSTANCE ZEB_ERROR = d5010001"));
    EXPECT_TRUE(Logged(L"CDevice::GetACT IN"));
}

TEST_F(CDeviceTest, OpenKeepsTheClientOnlyOnSuccessAndCloseDropsIt) {
    CDevice device(L"127.0.0.1", 3);
    DWORD result = device.Open(0);
    EXPECT_EQ(device.HasClient(), !ZEB_FAILED(result));
    EXPECT_TRUE(Logged(L"CDevice::Open IN"));
    EXPECT_EQ(Logged(L"CDevice::Open OUT"), !ZEB_FAILED(result));
    device.Close();
    EXPECT_FALSE(device.HasClient());
    EXPECT_EQ(device.Close(), 0u);
}

TEST(CDeviceList, EmptyListFindsNothing) {
    CDeviceList list;
    EXPECT_EQ(list.GetCDevice(1), nullptr);
    EXPECT_EQ(list.GetCDevice(0), nullptr);
}

TEST(CDeviceList, FindsEachSessionAndKeepsTheOtherAfterARemove) {
    CDeviceList list;
    CDevice first(L"a", 1);
    CDevice second(L"b", 2);
    EXPECT_TRUE(list.Add(&first));
    EXPECT_TRUE(list.Add(&second));
    EXPECT_EQ(list.GetCDevice(1), &first);
    EXPECT_EQ(list.GetCDevice(2), &second);
    EXPECT_EQ(list.GetCDevice(3), nullptr);
    list.Remove(&first);
    EXPECT_EQ(list.GetCDevice(1), nullptr);
    EXPECT_EQ(list.GetCDevice(2), &second);
    list.Remove(&second);
    EXPECT_EQ(list.GetCDevice(2), nullptr);
}

TEST(CDeviceList, NullAndUnknownAreIgnored) {
    CDeviceList list;
    CDevice device(L"a", 1);
    CDevice stranger(L"b", 1);
    EXPECT_FALSE(list.Add(nullptr));
    list.Remove(nullptr);
    list.Remove(&stranger);  // same handle, other session: not removed
    EXPECT_TRUE(list.Add(&device));
    list.Remove(&stranger);
    EXPECT_EQ(list.GetCDevice(1), &device);
}

TEST(CDeviceList, FirstOfEqualHandlesWinsAndRemoveGoesByIdentity) {
    CDeviceList list;
    CDevice first(L"a", 5);
    CDevice second(L"b", 5);
    list.Add(&first);
    list.Add(&second);
    EXPECT_EQ(list.GetCDevice(5), &first);
    list.Remove(&first);
    EXPECT_EQ(list.GetCDevice(5), &second);
    list.Remove(&second);
}

struct ListWork {
    CDeviceList* list;
    DWORD base;
};

DWORD WINAPI AddFindRemove(LPVOID parameter) {
    auto* work = static_cast<ListWork*>(parameter);
    for (DWORD i = 0; i < 200; ++i) {
        CDevice device(L"t", work->base + i);
        work->list->Add(&device);
        if (work->list->GetCDevice(work->base + i) != &device) return 1;
        work->list->Remove(&device);
    }
    return 0;
}

TEST(CDeviceList, ConcurrentUseKeepsTheListConsistent) {
    CDeviceList list;
    ListWork work[4] = {{&list, 1000}, {&list, 2000}, {&list, 3000}, {&list, 4000}};
    HANDLE threads[4];
    for (int i = 0; i < 4; ++i) threads[i] = CreateThread(nullptr, 0, AddFindRemove, &work[i], 0, nullptr);
    WaitForMultipleObjects(4, threads, TRUE, 60000);
    for (HANDLE thread : threads) {
        DWORD code = 99;
        GetExitCodeThread(thread, &code);
        EXPECT_EQ(code, 0u);
        CloseHandle(thread);
    }
    EXPECT_EQ(list.GetCDevice(1000), nullptr);
}

}  // namespace
