// The holder template and its aliases, the SRW lock guards and scope_exit.
#include <gtest/gtest.h>
#include <windows.h>

#include <utility>
#include <vector>

#include "common/Holders.h"

namespace {

// A handle kind of the test's own: closing records the value.
std::vector<int>& Closed() {
    static std::vector<int> closed;
    return closed;
}
void CloseTestHandle(int value) noexcept { Closed().push_back(value); }
int NoTestHandle() noexcept { return -1; }
using UniqueTestHandle = qv::UniqueAny<int, &CloseTestHandle, &NoTestHandle>;

class Holders : public ::testing::Test {
protected:
    void SetUp() override { Closed().clear(); }
};

TEST_F(Holders, StartsEmptyAndClosesWhatItHoldsOnce) {
    {
        UniqueTestHandle none;
        EXPECT_FALSE(none.valid());
        EXPECT_EQ(none.get(), -1);
        UniqueTestHandle held(7);
        EXPECT_TRUE(held);
    }
    EXPECT_EQ(Closed(), std::vector<int>{7});
}

TEST_F(Holders, ZeroIsAValueWhenNoneIsSomethingElse) {
    { UniqueTestHandle zero(0); }
    EXPECT_EQ(Closed(), std::vector<int>{0});
}

TEST_F(Holders, ResetClosesTheOldValueAfterTakingTheNew) {
    UniqueTestHandle held(1);
    held.reset(2);
    EXPECT_EQ(Closed(), std::vector<int>{1});
    EXPECT_EQ(held.get(), 2);
    held.reset();
    EXPECT_EQ(Closed(), (std::vector<int>{1, 2}));
    EXPECT_FALSE(held.valid());
}

TEST_F(Holders, ReleaseHandsTheValueOverWithoutClosing) {
    UniqueTestHandle held(3);
    EXPECT_EQ(held.release(), 3);
    EXPECT_FALSE(held.valid());
    held.reset();
    EXPECT_TRUE(Closed().empty());
}

TEST_F(Holders, PutClosesFirstAddressofDoesNot) {
    UniqueTestHandle held(4);
    *held.put() = 5;
    EXPECT_EQ(Closed(), std::vector<int>{4});
    EXPECT_EQ(held.get(), 5);
    *held.addressof() = 6;  // 5 is now the caller's to close
    EXPECT_EQ(Closed(), std::vector<int>{4});
    EXPECT_EQ(held.get(), 6);
}

TEST_F(Holders, MovingHandsOverAndClosesTheTargetsOldValue) {
    UniqueTestHandle source(8);
    UniqueTestHandle target(std::move(source));
    EXPECT_FALSE(source.valid());
    EXPECT_EQ(target.get(), 8);
    UniqueTestHandle other(9);
    other = std::move(target);
    EXPECT_EQ(Closed(), std::vector<int>{9});
    EXPECT_EQ(other.get(), 8);
}

TEST_F(Holders, AFileHolderTakesInvalidHandleValueAsNone) {
    qv::UniqueFile file;
    EXPECT_EQ(file.get(), INVALID_HANDLE_VALUE);
    EXPECT_FALSE(file.valid());
    file.reset(CreateEventW(nullptr, TRUE, FALSE, nullptr));  // any kernel handle
    ASSERT_TRUE(file.valid());
    HANDLE raw = file.get();
    file.reset();
    DWORD flags = 0;
    EXPECT_FALSE(GetHandleInformation(raw, &flags));  // closed
}

TEST_F(Holders, ACryptProviderIsReleasedByItsHolder) {
    qv::UniqueCryptProv provider;
    ASSERT_TRUE(CryptAcquireContextW(provider.put(), nullptr, nullptr, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT));
    qv::UniqueCryptHash hash;
    EXPECT_TRUE(CryptCreateHash(provider.get(), CALG_MD5, 0, 0, hash.put()));
    EXPECT_TRUE(hash.valid());
}

TEST(SrwGuards, HoldTheLockForTheirScope) {
    SRWLOCK lock = SRWLOCK_INIT;
    {
        qv::SrwExclusive exclusive(lock);
        EXPECT_FALSE(TryAcquireSRWLockShared(&lock));
    }
    {
        qv::SrwShared shared(lock);
        EXPECT_FALSE(TryAcquireSRWLockExclusive(&lock));
        ASSERT_TRUE(TryAcquireSRWLockShared(&lock));  // readers share it
        ReleaseSRWLockShared(&lock);
    }
    ASSERT_TRUE(TryAcquireSRWLockExclusive(&lock));
    ReleaseSRWLockExclusive(&lock);
}

TEST(ScopeExit, RunsOnceAtTheEndOfItsScopeUnlessReleased) {
    int runs = 0;
    {
        auto cleanup = qv::scope_exit([&] { ++runs; });
        EXPECT_EQ(runs, 0);
    }
    EXPECT_EQ(runs, 1);
    {
        auto cleanup = qv::scope_exit([&] { ++runs; });
        cleanup.release();
    }
    EXPECT_EQ(runs, 1);
}

}  // namespace
