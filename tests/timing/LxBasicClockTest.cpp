#include "LxClock.h"
#include "LxResult.h"

#include "SettableTimeBase.h"
#include "TestManager.h"

#include <gtest/gtest.h>

namespace {

class ClockTest : public ::testing::Test {
  protected:
    KtDefaultThreadManager threads;
    lxtest::TestManager manager{&threads};
    lxtest::SettableTimeBase timeBase{&manager};  // reference time = time of day, from 100 s
    LxBasicClock clock;

    void SetUp() override { ASSERT_EQ(LX_OK, clock.setTimeBase(&timeBase)); }
    void at(double t) { timeBase.setTimeOfDay(t); }
    double media() { return clock.getMediaTime().getValue(); }
    double sync() { return clock.getSyncTime().getValue(); }
};

TEST_F(ClockTest, MapsReferenceTimeFromOriginClampsBeforeTheStartAndRefusesChangesWhileRunning) {
    ASSERT_EQ(LX_OK, clock.setMediaTime(LxTime(5, 0)));
    ASSERT_EQ(LX_OK, clock.startAtTime(LxTime(110, 0)));
    at(110.0);
    EXPECT_DOUBLE_EQ(5.0, media());
    at(112.0);
    EXPECT_DOUBLE_EQ(7.0, media());
    at(109.0);
    EXPECT_DOUBLE_EQ(5.0, media()) << "before its start a clock reports its origin";
    EXPECT_DOUBLE_EQ(4.0, sync()) << "the sync time is not clamped";

    // A running clock refuses changes until it is stopped.
    float r = 2.0f;
    EXPECT_EQ(LX_ERR_CLOCK_RUNNING, clock.startAtTime(LxTime(100, 0)));
    EXPECT_EQ(LX_ERR_CLOCK_RUNNING, clock.setRate(&r));
    EXPECT_EQ(LX_ERR_CLOCK_RUNNING, clock.setMediaTime(LxTime(1, 0)));
    EXPECT_EQ(LX_ERR_CLOCK_RUNNING, clock.setTimeBase(nullptr));
    EXPECT_FLOAT_EQ(1.0f, clock.getRate());
    at(112.0);
    clock.stop();
    EXPECT_DOUBLE_EQ(7.0, media()) << "stop now keeps the media time reached";
    EXPECT_EQ(LX_OK, clock.setRate(&r));
}

// A forward rate's scaling is checked through the player, which runs on this clock.
TEST_F(ClockTest, NegativeRatesClampFromAboveAndZeroHolds) {
    float back = -1.0f;
    ASSERT_EQ(LX_OK, clock.setRate(&back));
    ASSERT_EQ(LX_OK, clock.setMediaTime(LxTime(10, 0)));
    ASSERT_EQ(LX_OK, clock.startAtTime(LxTime(102, 0)));
    at(104.0);
    EXPECT_DOUBLE_EQ(8.0, media());
    at(101.0);
    EXPECT_DOUBLE_EQ(10.0, media()) << "a backward clock clamps at its origin from above";
    EXPECT_DOUBLE_EQ(11.0, sync());

    // stop() keeps the origin when media time did not move past it in the clock's direction.
    clock.stop();
    EXPECT_DOUBLE_EQ(10.0, media());

    // Rate zero holds the origin, and stop keeps it.
    float zero = 0.0f;
    ASSERT_EQ(LX_OK, clock.setRate(&zero));
    ASSERT_EQ(LX_OK, clock.setMediaTime(LxTime(3, 0)));
    ASSERT_EQ(LX_OK, clock.startAtTime(LxTime(100, 0)));
    at(150.0);
    EXPECT_DOUBLE_EQ(3.0, media());
    clock.stop();
    EXPECT_DOUBLE_EQ(3.0, media());
}

TEST_F(ClockTest, StopTimeInTheFutureStopsTheClockByItself) {
    ASSERT_EQ(LX_OK, clock.startAtTime(LxTime(100, 0)));
    ASSERT_EQ(LX_OK, clock.stopAtTime(LxTime(103, 0)));
    at(102.0);
    EXPECT_DOUBLE_EQ(2.0, media());
    at(105.0);
    EXPECT_DOUBLE_EQ(3.0, media()) << "frozen at origin + 3 s x rate";
    at(200.0);
    EXPECT_DOUBLE_EQ(3.0, media());
    EXPECT_EQ(LxTime(103, 0), clock.getStopTime()) << "the stop time stays set";

    // Nobody read the clock since this stop time passed: a change first lets it stop the clock.
    ASSERT_EQ(LX_OK, clock.setMediaTime(LxTime::zero()));
    ASSERT_EQ(LX_OK, clock.stopAtTime(LxTime(201, 0)));
    ASSERT_EQ(LX_OK, clock.startAtTime(LxTime(200, 0)));
    at(250.0);
    float r = 0.5f;
    EXPECT_EQ(LX_OK, clock.setRate(&r));
    EXPECT_DOUBLE_EQ(1.0, media());
}

TEST_F(ClockTest, StopTimeInThePastStopsAtOnceWithTheCurrentMediaTime) {
    ASSERT_EQ(LX_OK, clock.startAtTime(LxTime(100, 0)));
    at(104.0);
    ASSERT_EQ(LX_OK, clock.stopAtTime(LxTime(102, 0)));
    EXPECT_DOUBLE_EQ(4.0, media()) << "stopped now, at the media time reached (not rewound)";
    at(110.0);
    EXPECT_DOUBLE_EQ(4.0, media());
    float r = 2.0f;
    EXPECT_EQ(LX_OK, clock.setRate(&r));
}

TEST_F(ClockTest, MaxTimeKeepsARunningStopTimeAndClearsAStoppedOne) {
    ASSERT_EQ(LX_OK, clock.startAtTime(LxTime(100, 0)));
    ASSERT_EQ(LX_OK, clock.stopAtTime(LxTime(103, 0)));
    ASSERT_EQ(LX_OK, clock.stopAtTime(LxTime::maxTime()));
    EXPECT_EQ(LxTime(103, 0), clock.getStopTime());
    at(104.0);
    EXPECT_DOUBLE_EQ(3.0, media()) << "the earlier stop time still applies";

    ASSERT_EQ(LX_OK, clock.stopAtTime(LxTime::maxTime()));  // stopped clock: clears it
    ASSERT_EQ(LX_OK, clock.setMediaTime(LxTime::zero()));
    ASSERT_EQ(LX_OK, clock.startAtTime(LxTime(104, 0)));
    at(200.0);
    EXPECT_DOUBLE_EQ(96.0, media()) << "no stop time any more";
}

}  // namespace
