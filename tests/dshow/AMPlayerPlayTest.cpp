// The filter-graph player playing on the simulated graph in real time: starts at the clock's time,
// every sample once and in order, the picture of the media time, rates, suspend, loops, the end.
#include "GraphKit.h"

#include <cmath>

namespace {

using Rig = lxtest::SimPlayerRig;
using lxp::simgraph::Outcome;
using lxp::simgraph::Script;
using lxtest::RecordingListener;

constexpr double kFps = 25.0;
constexpr int kRate = 22050;

Script clipOf(Outcome outcome, double seconds) {
    Script s;
    s.outcome = outcome;
    s.durationSeconds = seconds;
    s.frameCount = static_cast<int>(std::lround(seconds * kFps));
    return s;
}

class AMPlayerPlay : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(rig.registered); }
    LxAMPlayer* play(Outcome outcome, double seconds) {
        return rig.play(clipOf(outcome, seconds), &listener);
    }
    /// Starts p now and pulls for ms.
    void startNow(LxAMPlayer* p, int ms) {
        ASSERT_EQ(LX_OK, p->startAtTime(LxTime(rig.now())));
        pullFor(ms);
    }
    /// Pulls the test renderer's audio every few milliseconds for ms.
    void pullFor(int ms) {
        const auto start = std::chrono::steady_clock::now();
        while (lxtest::msSince(start) < ms) {
            rig.audio->pull();
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    /// Pulls until the end of media is heard.
    bool pullToEnd() {
        return lxtest::waitUntil([&] {
            rig.audio->pull();
            return listener.count(LxEndOfMediaEventType) == 1;
        });
    }
    /// The reference time at which the call c first appears in the log after mark (polled).
    double whenLogged(const std::string& c, size_t mark) {
        double at = -1.0;
        lxtest::waitUntil(
            [&] {
                const bool logged = Rig::find(c, mark) >= 0;
                at = logged ? rig.now() : -1.0;
                return logged;
            },
            20000);
        return at;
    }
    std::vector<int> heard() { return lxtest::channel0(rig.audio->received()); }

    RecordingListener listener;  // outlives the rig's players
    Rig rig;
};

TEST_F(AMPlayerPlay, ACueAndAStartAheadRunTheGraphAtTheStartWithEveryPictureAndSampleInPlace) {
    LxAMPlayer* p = play(Outcome::AudioVideo, 3.0);

    p->prefetch();
    ASSERT_TRUE(lxtest::waitUntil([&] { return listener.count(LxPrefetchCompleteEventType) == 1; }));
    EXPECT_EQ(LxNode::PREFETCHED, p->getState());
    EXPECT_GE(Rig::find("Pause"), 0);
    EXPECT_TRUE(rig.video->hasPendingFrame()) << "the cue reached the video renderer";
    EXPECT_EQ(0, rig.frameAt(0.0));

    const size_t mark = Rig::callCount();
    const double start = rig.now() + 1.5;
    ASSERT_EQ(LX_OK, p->startAtTime(LxTime(start)));
    EXPECT_EQ(-1, Rig::find("Run", mark)) << "not before the start time";
    const double ranAt = whenLogged("Run", mark);
    EXPECT_GE(ranAt, start - 0.005);
    EXPECT_LT(ranAt, start + 0.5) << "a bound for a loaded machine; measured: " << ranAt - start;
    ASSERT_TRUE(lxtest::waitUntil([&] { return listener.count(LxActiveEventType) == 1; }));

    // (Which picture a host painting after the start is shown: the end-to-end tests on real clips.)
    pullFor(1250);
    const std::vector<int> samples = heard();
    ASSERT_GT(samples.size(), static_cast<size_t>(kRate));
    EXPECT_EQ(0, samples.front());
    EXPECT_EQ(-1, lxtest::firstBreak(samples, false)) << "every sample once, in order";
}

// A graph of sound alone runs shortly before a start asked for ahead, so that the renderer has the
// first samples to set for the start's exact sample; the player still goes active at the start.
TEST_F(AMPlayerPlay, ASoundOnlyGraphRunsJustAheadOfItsStartGoesActiveAtItAndEnds) {
    LxAMPlayer* p = play(Outcome::AudioOnly, 2.0);
    const size_t mark = Rig::callCount();
    const double start = rig.now() + 1.0;
    ASSERT_EQ(LX_OK, p->startAtTime(LxTime(start)));
    const double ranAt = whenLogged("Run", mark);
    EXPECT_EQ(0, listener.count(LxActiveEventType)) << "active before the start";
    EXPECT_GE(ranAt, start - 0.15) << "run before the renderer prepares the start";
    EXPECT_LT(ranAt, start) << "run at the start: its first samples come too late to be set for it";
    double firstAt = -1.0;
    ASSERT_TRUE(lxtest::waitUntil([&] {
        rig.audio->pull();
        firstAt = rig.now();
        return !rig.audio->received().empty();
    }));
    EXPECT_LT(firstAt, start) << "the first samples reached the renderer after the start";
    ASSERT_TRUE(lxtest::waitUntil([&] { return listener.count(LxActiveEventType) == 1; }));
    EXPECT_GE(rig.now(), start - 0.005) << "active ahead of the start";
    // With its video renderer out of the graph, the end comes on the sound alone.
    ASSERT_TRUE(pullToEnd());
    EXPECT_EQ(LxNode::STOPPED, p->getState());
}

TEST_F(AMPlayerPlay, RateZeroAndSuspendHoldTheGraphAndALaterRateOrResumeRunsItAgain) {
    LxAMPlayer* p = play(Outcome::AudioVideo, 4.0);
    startNow(p, 300);

    size_t mark = Rig::callCount();
    float zero = 0.0f;
    ASSERT_EQ(LX_OK, p->setRate(&zero));
    EXPECT_GE(whenLogged("Pause", mark), 0.0);
    EXPECT_EQ(-1, Rig::find("SetRate(0.000)", mark));
    EXPECT_EQ(LxNode::STARTED, p->getState());
    pullFor(60);
    const long held = rig.frameAt(1000.0);
    pullFor(200);
    EXPECT_EQ(held, rig.frameAt(1000.0)) << "no pictures while the clock stands";

    mark = Rig::callCount();
    float one = 1.0f;
    ASSERT_EQ(LX_OK, p->setRate(&one));
    EXPECT_GE(Rig::find("SetRate(1.000)", mark), 0);
    EXPECT_GE(whenLogged("Run", mark), 0.0);
    pullFor(200);
    EXPECT_GT(rig.frameAt(1000.0), held);

    // Suspended, the graph pauses; resumed, it goes to the clock's time and runs.
    mark = Rig::callCount();
    p->suspend();
    EXPECT_GE(whenLogged("Pause", mark), 0.0);
    const size_t actives = listener.count(LxActiveEventType);
    mark = Rig::callCount();
    p->resume();
    const long run = static_cast<long>(whenLogged("Run", mark) >= 0 ? Rig::find("Run", mark) : -1);
    ASSERT_GE(run, 0);
    const std::vector<std::string> calls = lxp::simgraph::calls();
    EXPECT_EQ(0u, calls[static_cast<size_t>(run) - 1].rfind("SetPositions(", 0)) << "a seek comes first";
    EXPECT_EQ(actives, listener.count(LxActiveEventType)) << "resuming is not a new start";
}

TEST_F(AMPlayerPlay, LoopsRestartInsideTheGraphWithoutEndOfMediaUntilLoopIsCleared) {
    LxAMPlayer* p = play(Outcome::AudioVideo, 0.5);
    p->setLoop(1);
    const size_t mark = Rig::callCount();
    startNow(p, 1400);

    const long firstLoop = Rig::find("SetPositions(0,-)", mark);
    ASSERT_GE(firstLoop, 0);
    EXPECT_GE(Rig::find("SetPositions(0,-)", static_cast<size_t>(firstLoop) + 1), 0) << "two loops at least";
    EXPECT_EQ(0u, listener.count(LxEndOfMediaEventType));
    EXPECT_EQ(LxNode::STARTED, p->getState());
    EXPECT_EQ(1u, listener.count(LxActiveEventType));
    const std::vector<int> samples = heard();
    EXPECT_EQ(-1, lxtest::firstBreak(samples, true));
    const int last = static_cast<int>(0.5 * kRate) - 1;
    int passes = 0;
    for (size_t i = 1; i < samples.size(); ++i) {
        if (samples[i] == 0) {
            EXPECT_EQ(last, samples[i - 1]) << "each pass ends with the clip's last sample";
            ++passes;
        }
    }
    EXPECT_GE(passes, 2);

    p->setLoop(0);
    ASSERT_TRUE(pullToEnd());
    EXPECT_EQ(LxNode::STOPPED, p->getState());
}

TEST_F(AMPlayerPlay, TheEndStopsAtTheDurationAndAStopResumesWhereTheClockStood) {
    LxAMPlayer* p = play(Outcome::AudioVideo, 2.0);
    startNow(p, 500);

    const size_t mark = Rig::callCount();
    p->stop();
    EXPECT_EQ(LxNode::STOPPED, p->getState());
    const LxTime at = p->getMediaTime();
    const int64_t units = (static_cast<int64_t>(at.sec()) * 1000000 + at.usec()) * 10;
    const long pause = Rig::find("Pause", mark);
    const long seek = Rig::find("SetPositions(" + std::to_string(units) + ",-)", mark);
    ASSERT_GE(pause, 0);
    EXPECT_GT(seek, pause) << "paused, then sought to the clock's media time";

    // What the renderers hold now is the cue of that position, nothing from before the stop.
    rig.audio->clearReceived();
    ASSERT_TRUE(lxtest::waitUntil([&] { return rig.audio->pull() > 0; }, 20000));
    const std::vector<int> cue = heard();
    EXPECT_EQ(static_cast<int>(units * kRate / 10000000) & 0x7FFF, cue.front());
    // The cue's picture comes on the graph's own thread, like its samples.
    const long expected = static_cast<long>(std::floor(at.getValue() * kFps + 1e-9));
    EXPECT_TRUE(lxtest::waitUntil([&] { return rig.frameAt(at.getValue()) == expected; }, 20000))
        << "shows " << rig.frameAt(at.getValue()) << ", not " << expected;

    // Started again, it goes on from there to the end, which stops it at the duration.
    const double restart = rig.now();
    ASSERT_EQ(LX_OK, p->startAtTime(LxTime(restart)));
    ASSERT_TRUE(pullToEnd());
    const double ended = rig.now();
    EXPECT_NEAR(2.0 - at.getValue(), ended - restart, 0.3);
    EXPECT_EQ(LxNode::STOPPED, p->getState());
    EXPECT_EQ(LxTime(2, 0), p->getMediaTime());
    const std::vector<int> rest = heard();
    EXPECT_EQ(-1, lxtest::firstBreak(rest, false));
    EXPECT_EQ((2 * kRate - 1) & 0x7FFF, rest.back()) << "the last sample arrived";
}

TEST_F(AMPlayerPlay, ARateChangeWhilePlayingNeitherRepeatsNorLosesAudio) {
    LxAMPlayer* p = play(Outcome::AudioVideo, 2.0);
    startNow(p, 400);
    const size_t mark = Rig::callCount();
    float two = 2.0f;
    ASSERT_EQ(LX_OK, p->setRate(&two));
    EXPECT_GE(Rig::find("SetRate(2.000)", mark), 0);
    ASSERT_TRUE(pullToEnd());  // (the pictures at twice the rate: the end-to-end tests on real clips)
    const std::vector<int> samples = heard();
    EXPECT_EQ(-1, lxtest::firstBreak(samples, false))
        << "the graph's repeat after the rate change is skipped";
    EXPECT_EQ((2 * kRate - 1) & 0x7FFF, samples.back());
}

}  // namespace
