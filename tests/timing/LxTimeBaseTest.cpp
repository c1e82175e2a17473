#include "LxTimeBase.h"

#include "LxResult.h"
#include "platform/clock/LxpClock.h"
#include "platform/kt/KtRecordingThreadManager.h"

#include "SettableTimeBase.h"
#include "TestManager.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using lxtest::SettableTimeBase;

// Records the order in which timers fire.
struct FireLog {
    std::mutex mutex;
    std::vector<unsigned long> ids;
    static void callback(unsigned long id, void* user) {
        auto* log = static_cast<FireLog*>(user);
        std::lock_guard<std::mutex> guard(log->mutex);
        log->ids.push_back(id);
    }
    std::vector<unsigned long> snapshot() {
        std::lock_guard<std::mutex> guard(mutex);
        return ids;
    }
    size_t size() { return snapshot().size(); }
};

class TimeBaseTest : public ::testing::Test {
  protected:
    KtDefaultThreadManager threads;
    lxtest::TestManager manager{&threads};
    FireLog log;  // outlives the time bases that call into it
    LxWin32TimeBase tb{&manager};
    unsigned long id = 0;
};

TEST_F(TimeBaseTest, TimersFireInDeadlineOrderAndEqualDeadlinesInSetOrder) {
    // Reference time stands still while the timers are set, so their deadlines are exact.
    SettableTimeBase tb(&manager);
    unsigned long a = 0, b = 0, c = 0, d = 0;
    ASSERT_EQ(LX_OK, tb.setTimer(FireLog::callback, LxTime(0, 60000), &a, &log));
    ASSERT_EQ(LX_OK, tb.setTimer(FireLog::callback, LxTime(0, 20000), &b, &log));
    ASSERT_EQ(LX_OK, tb.setTimer(FireLog::callback, LxTime(0, 40000), &c, &log));
    ASSERT_EQ(LX_OK, tb.setTimer(FireLog::callback, LxTime(0, 90000), &d, &log));
    ASSERT_EQ(LX_OK, tb.rescheduleTimer(c, LxTime(0, 90000)));  // d's deadline, set later
    tb.advance(1.0);
    ASSERT_TRUE(lxtest::waitUntil([&] { return log.size() == 4; }, 20000));
    EXPECT_EQ((std::vector<unsigned long>{b, a, d, c}), log.snapshot());
}

TEST_F(TimeBaseTest, TimerSetEarlierThanTheOneWaitedForFiresFirst) {
    SettableTimeBase tb(&manager);
    unsigned long late = 0, early = 0;
    ASSERT_EQ(LX_OK, tb.setTimer(FireLog::callback, LxTime(60, 0), &late, &log));
    ASSERT_TRUE(lxtest::waitUntil([&] { return tb.timerThreadReads() > 0; }, 20000));  // waits for `late`
    ASSERT_EQ(LX_OK, tb.setTimer(FireLog::callback, LxTime(0, 50000), &early, &log));
    // Both deadlines passed at once: a thread still asleep for `late` would sleep a minute.
    tb.advance(61.0);
    ASSERT_TRUE(lxtest::waitUntil([&] { return log.size() == 2; }, 20000))
        << "not woken for the earlier timer";
    EXPECT_EQ((std::vector<unsigned long>{early, late}), log.snapshot());
}

TEST_F(TimeBaseTest, ZeroAndNegativeDelaysFireAtOnceAtAnyTempo) {
    for (float tempo : {1.0f, 0.0f, 3.0f}) {
        SettableTimeBase tb(&manager);
        ASSERT_EQ(LX_OK, tb.setTempo(tempo));
        const size_t fired = log.size();
        ASSERT_EQ(LX_OK, tb.setTimer(FireLog::callback, LxTime::zero(), &id, &log));
        ASSERT_EQ(LX_OK, tb.setTimer(FireLog::callback, LxTime(-5, 0), &id, &log));
        EXPECT_TRUE(lxtest::waitUntil([&] { return log.size() == fired + 2; }, 20000)) << "tempo " << tempo;
    }
}

TEST_F(TimeBaseTest, FiredTimerIsDormantUntilRescheduledAndUnknownIdsAreRefused) {
    SettableTimeBase tb(&manager);
    ASSERT_EQ(LX_OK, tb.setTimer(FireLog::callback, LxTime::zero(), &id, &log));
    ASSERT_TRUE(lxtest::waitUntil([&] { return log.size() == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(1u, log.size()) << "a timer fires once";
    ASSERT_EQ(LX_OK, tb.rescheduleTimer(id, LxTime::zero()));
    ASSERT_TRUE(lxtest::waitUntil([&] { return log.size() == 2; }));
    EXPECT_EQ(LX_ERR_NO_TIMER, tb.rescheduleTimer(id + 100, LxTime::zero()));
    EXPECT_EQ(LX_ERR_NO_TIMER, tb.killTimer(id + 100));
    EXPECT_EQ(LX_OK, tb.killTimer(id)) << "a dormant timer is killed without waiting";
    EXPECT_EQ(LX_ERR_NO_TIMER, tb.killTimer(id));
    EXPECT_EQ(LX_ERR_NEGATIVE_TEMPO, tb.setTempo(-0.5f));
    EXPECT_FLOAT_EQ(1.0f, tb.getTempo());
    // The lock is re-entrant, so only another thread sees one a refusal left held: the timer
    // thread must still be able to take it and fire a new timer.
    ASSERT_EQ(LX_OK, tb.setTimer(FireLog::callback, LxTime::zero(), &id, &log));
    EXPECT_TRUE(lxtest::waitUntil([&] { return log.size() == 3; })) << "a refusal kept the lock";
}

TEST_F(TimeBaseTest, TempoChangesTheRateWithoutAJumpAndZeroFreezes) {
    SettableTimeBase tb(&manager);
    EXPECT_DOUBLE_EQ(100.0, tb.getRefTime().getValue());
    tb.setTimeOfDay(110.0);
    ASSERT_EQ(LX_OK, tb.setTempo(2.0f));
    EXPECT_DOUBLE_EQ(110.0, tb.getRefTime().getValue()) << "no jump at the change";
    tb.setTimeOfDay(111.5);
    EXPECT_DOUBLE_EQ(113.0, tb.getRefTime().getValue());
    ASSERT_EQ(LX_OK, tb.setTempo(0.0f));
    tb.setTimeOfDay(500.0);
    EXPECT_DOUBLE_EQ(113.0, tb.getRefTime().getValue());
    ASSERT_EQ(LX_OK, tb.setTempo(1.0f));
    tb.setTimeOfDay(501.0);
    EXPECT_DOUBLE_EQ(114.0, tb.getRefTime().getValue());
}

TEST_F(TimeBaseTest, FrozenTimeHoldsPendingTimersUntilTheTempoReturns) {
    // A deadline far enough ahead that the freeze comes first even on a loaded machine.
    ASSERT_EQ(LX_OK, tb.setTimer(FireLog::callback, LxTime(1, 0), &id, &log));
    ASSERT_EQ(LX_OK, tb.setTempo(0.0f));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(0u, log.size()) << "reference time stands still, so the deadline is never reached";
    ASSERT_EQ(LX_OK, tb.setTempo(1.0f));
    EXPECT_TRUE(lxtest::waitUntil([&] { return log.size() == 1; }));
}

TEST_F(TimeBaseTest, RescheduledLaterWhileWaitedForFiresAtBothDeadlines) {
    SettableTimeBase tb(&manager);
    ASSERT_EQ(LX_OK, tb.setTimer(FireLog::callback, LxTime(0, 100000), &id, &log));
    ASSERT_TRUE(lxtest::waitUntil([&] { return tb.timerThreadReads() > 0; }, 20000));
    ASSERT_EQ(LX_OK, tb.rescheduleTimer(id, LxTime(0, 300000)));
    tb.advance(0.15);
    ASSERT_TRUE(lxtest::waitUntil([&] { return log.size() == 1; }, 20000)) << "the deadline waited for";
    tb.advance(0.2);
    EXPECT_TRUE(lxtest::waitUntil([&] { return log.size() == 2; }, 20000)) << "the new deadline";
}

// Kill protocol: after killTimer returns on another thread the callback is not running and will
// never start again; a callback can kill its own timer without waiting for itself.
struct KillProbe {
    LxTimeBase* killsItself = nullptr;
    std::atomic<int> inCallback{0}, fired{0};
    std::atomic<long> ownKill{0};
    static void callback(unsigned long id, void* user) {
        auto* p = static_cast<KillProbe*>(user);
        ++p->inCallback;
        if (p->killsItself != nullptr) {
            p->ownKill = p->killsItself->killTimer(id);
        } else {
            std::this_thread::sleep_for(std::chrono::microseconds(300));
        }
        ++p->fired;
        --p->inCallback;
    }
};

TEST_F(TimeBaseTest, AKillWaitsForARunningCallbackUnlessTheCallbackKillsItsOwnTimer) {
    KillProbe self;
    self.killsItself = &tb;
    ASSERT_EQ(LX_OK, tb.setTimer(KillProbe::callback, LxTime::zero(), &id, &self));
    ASSERT_TRUE(lxtest::waitUntil([&] { return self.fired.load() == 1; }));
    ASSERT_TRUE(lxtest::waitUntil([&] { return tb.rescheduleTimer(id, LxTime::zero()) == LX_ERR_NO_TIMER; }));
    EXPECT_EQ(LX_OK, self.ownKill.load());
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(1, self.fired.load());

    for (int round = 0; round < 50; ++round) {
        KillProbe probe;
        ASSERT_EQ(LX_OK, tb.setTimer(KillProbe::callback, LxTime::zero(), &id, &probe));
        ASSERT_TRUE(lxtest::waitUntil([&] { return probe.inCallback.load() > 0 || probe.fired.load() > 0; }));
        EXPECT_EQ(LX_OK, tb.killTimer(id));
        EXPECT_EQ(0, probe.inCallback.load()) << "round " << round;
        EXPECT_EQ(LX_ERR_NO_TIMER, tb.rescheduleTimer(id, LxTime::zero()));
    }
}

// One timer thread per time base, made when a timer is set (again at the next set when none could
// be made) and joined when the time base goes with timers still pending.
TEST_F(TimeBaseTest, TheTimerThreadIsRetriedWhenRefusedAndJoinedAtTheEnd) {
    KtRecordingThreadManager recording;
    lxtest::TestManager mgr(&recording);
    recording.refuseThreads(1);
    {
        LxWin32TimeBase tb(&mgr);
        ASSERT_EQ(LX_OK, tb.setTimer(FireLog::callback, LxTime::zero(), &id, &log));
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        EXPECT_EQ(0u, log.size());
        for (int i = 0; i < 5; ++i) {
            tb.setTimer(FireLog::callback, LxTime(60, 0), &id, &log);
        }
        ASSERT_EQ(LX_OK, tb.setTimer(FireLog::callback, LxTime::zero(), &id, &log));
        ASSERT_TRUE(lxtest::waitUntil([&] { return log.size() == 2; }));
        EXPECT_EQ(1, recording.liveThreads()) << "one timer thread per time base";
    }
    EXPECT_EQ(0, recording.liveThreads());
}

TEST(LxWin32TimeBase, FollowsTheCalendarClockWithOrWithoutACounter) {
    KtDefaultThreadManager threads;
    lxtest::TestManager manager(&threads);
    lxp::ManualClock clock(1700000000.25);
    lxp::setClock(&clock);
    {
        LxWin32TimeBase withCounter(&manager);
        EXPECT_NEAR(1700000000.25, withCounter.getRefTime().getValue(), 1e-6);
        clock.advanceMicros(1500000);
        EXPECT_NEAR(1700000001.75, withCounter.getRefTime().getValue(), 1e-6);
    }
    clock.setCounterAvailable(false);
    {
        LxWin32TimeBase fallback(&manager);
        EXPECT_NEAR(1700000001.75, fallback.getRefTime().getValue(), 0.001);
        clock.advanceMicros(250000);
        EXPECT_NEAR(1700000002.0, fallback.getRefTime().getValue(), 0.001);
    }
    lxp::setClock(nullptr);
}

}  // namespace
