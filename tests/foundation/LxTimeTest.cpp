// Times in seconds and microseconds: the normal form each operation leaves, milliseconds, the
// limits; and the reference count shared by the library's objects.
#include "LxTime.h"

#include <gtest/gtest.h>

#include <thread>
#include <utility>
#include <vector>

namespace {

// A macro, so that a failure names the line of its case.
#define EXPECT_TIME(t, s, us) \
    EXPECT_EQ(std::make_pair(int32_t{s}, int32_t{us}), std::make_pair((t).sec(), (t).usec()))

TEST(LxTime, DoubleConstructorRoundsToNormalFormAndSetValueTruncatesToSignAndMagnitude) {
    EXPECT_TIME(LxTime(-0.25), -1, 750000);
    EXPECT_TIME(LxTime(1.0000004), 1, 0);
    EXPECT_TIME(LxTime(1.0000005), 1, 1);
    EXPECT_TIME(LxTime(2.5), 2, 500000);
    // No carry: a fraction that rounds up to a whole second stays in the microseconds.
    EXPECT_TIME(LxTime(1.9999996), 1, 1000000);
    EXPECT_TIME(LxTime(-1.5), -2, 500000);
    EXPECT_DOUBLE_EQ(-0.25, LxTime(-0.25).getValue());
    // setValue truncates into sign-and-magnitude form instead.
    LxTime t;
    t.setValue(-0.25);
    EXPECT_TIME(t, 0, -250000);
    EXPECT_DOUBLE_EQ(-0.25, t.getValue());
    EXPECT_FALSE(t == LxTime(-0.25)) << "the two forms of one value compare unequal";
    t.setValue(1.0000009);
    EXPECT_TIME(t, 1, 0);
    t.setValue(-1.5);
    EXPECT_TIME(t, -1, -500000);
    t.setValue(7, -3);  // stored as given
    EXPECT_TIME(t, 7, -3);
}

TEST(LxTime, MillisecondsTruncateAndWrapIn32Bits) {
    EXPECT_EQ(2999u, LxTime(2, 999999).getMsecValue());
    EXPECT_EQ(static_cast<uint32_t>(-250), LxTime(-1, 750000).getMsecValue());
    EXPECT_EQ(static_cast<uint32_t>(-250), LxTime(0, -250000).getMsecValue());
    EXPECT_EQ(0xFFFFFFFFu, LxTime::maxTime().getMsecValue());
    EXPECT_EQ(0u, LxTime(0, 999).getMsecValue());
    EXPECT_EQ(LxTime::zero(), LxTime());
}

TEST(LxTime, SubtractionBorrowStopsAtZeroSecondsAndNegationGivesNormalForm) {
    EXPECT_TIME(LxTime(0, 0) - LxTime(0, 500000), 0, -500000);
    EXPECT_TIME(LxTime(1, 0) - LxTime(2, 500000), -1, -500000);
    EXPECT_TIME(LxTime(2, 0) - LxTime(0, 500000), 1, 500000);
    EXPECT_TIME(LxTime(5, 100) - LxTime(2, 200), 2, 999900);
    EXPECT_DOUBLE_EQ(-1.5, (LxTime(1, 0) - LxTime(2, 500000)).getValue());
    EXPECT_TIME(-LxTime(3, 0), -3, 0);
    EXPECT_TIME(-LxTime(3, 1), -4, 999999);
    EXPECT_TIME(-LxTime(0, 250000), -1, 750000);
    EXPECT_TIME(-(-LxTime(3, 1)), 3, 1);
}

TEST(LxTime, SumsCarryOnceProductsGoThroughSecondsAndComparisonIsOnSignedFields) {
    EXPECT_TIME(LxTime(1, 500000) + LxTime(0, 700000), 2, 200000);
    EXPECT_TIME(LxTime(1, 999999) + LxTime(1, 999999), 3, 999998);
    EXPECT_TIME(LxTime(2, 0) + LxTime(0, -250000), 2, -250000);  // a negative sum is left alone
    EXPECT_TIME(2.0 * LxTime(1, 500000), 3, 0);
    EXPECT_TIME(LxTime(1, 0) * -0.25, -1, 750000);
    EXPECT_TIME(LxTime(1, 0) / 3.0, 0, 333333);
    EXPECT_TRUE(LxTime::maxTime() > LxTime(2147483646, 999999));
    EXPECT_TRUE(LxTime::maxTime() >= LxTime(2147483647, 5));
    EXPECT_TRUE(LxTime(-1, 999999) < LxTime(0, 0));
    EXPECT_TRUE(LxTime(0, -1) < LxTime(0, 0));
    // maxTime() + 1 s wraps around as 32-bit fields do; it must not be undefined behaviour.
    const LxTime sum = LxTime::maxTime() + LxTime(1, 0);
    EXPECT_EQ(-2147483647 - 1, sum.sec());
    EXPECT_TIME(LxTime(1e12), 2147483647, 999999);  // saturates instead of wrapping to the past
    const LxTime neg = -LxTime(-2147483647 - 1, 0);
    EXPECT_EQ(-2147483647 - 1, neg.sec());
}

class Counted : public LxRefCount {
  public:
    explicit Counted(int* destroyed) : destroyed_(destroyed) {}
    Counted(const Counted& other) : LxRefCount(other), destroyed_(other.destroyed_) {}

  protected:
    ~Counted() override { ++*destroyed_; }

  private:
    int* destroyed_;
};

// The last unref destroying exactly once: every leak and double-release check of the suite.
TEST(LxRefCount, ACopyStartsWithTheSourcesCountAndConcurrentUnrefsDestroyExactlyOnce) {
    int copies = 0;
    Counted* a = new Counted(&copies);
    EXPECT_EQ(2u, a->ref());
    Counted* b = new Counted(*a);
    EXPECT_EQ(2u, b->refCount());
    for (Counted* c : {a, a, b, b}) {
        c->unref();
    }
    EXPECT_EQ(2, copies);
    for (int round = 0; round < 50; ++round) {
        int destroyed = 0;
        Counted* obj = new Counted(&destroyed);
        constexpr int kThreads = 4, kHolds = 250;
        for (int i = 0; i < kThreads * kHolds; ++i) {
            obj->ref();
        }
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([obj] {
                for (int i = 0; i < kHolds; ++i) {
                    obj->ref();
                    obj->unref();
                    obj->unref();
                }
            });
        }
        for (auto& t : threads) {
            t.join();
        }
        ASSERT_EQ(0, destroyed);
        EXPECT_EQ(0u, obj->unref());
        ASSERT_EQ(1, destroyed);
    }
}

}  // namespace
