// The simulated graph with the filter library's renderers: pacing in virtual time, seeks, rate,
// EC_COMPLETE bookkeeping and the pixel layout delivered. (What each scripted outcome renders to, and
// how it plays, stops and is released, is checked through the player in tests/dshow.)
#include "LxPlatformGraph.h"
#include "platform/clock/LxpClock.h"
#include "platform/dshow/LxpSimGraph.h"

#include "GraphKit.h"

namespace {

using namespace lxp;
using lxtest::GraphRig;
using Record = lxtest::RecordingSink::Record;
namespace sim = lxp::simgraph;

class SimGraph : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(lxtest::registerFilterLibrary());
        LxPlatformGraph::useSimulated();
        sim::reset();
        ASSERT_TRUE(SUCCEEDED(CoInitialize(nullptr)));
        setClock(&clock_);
    }
    void TearDown() override {
        clock_.setAutoAdvanceOnSleep(true);  // a stream thread still waiting on the clock ends
        rig.reset();
        setClock(nullptr);
        CoUninitialize();
        sim::reset();
        LxPlatformGraph::useGStreamer();
        LxPlatformGraph::setVideoPixelFormat(LxPixel32Alt);
    }
    /// Opens a clip of 2 s, 50 frames of 8x6 (as changed by tweak) in rig.
    bool open(sim::Outcome outcome, const std::function<void(sim::Script&)>& tweak = nullptr) {
        sim::Script s;
        s.outcome = outcome;
        s.durationSeconds = 2.0;
        s.frameCount = 50;
        s.width = 8;
        s.height = 6;
        if (tweak) {
            tweak(s);
        }
        sim::setScript(s);
        const std::string clip = dir_.file("clip.mpg");
        lxtest::writeFile(clip, "any bytes: the simulated graph does not read them");
        rig = std::make_unique<GraphRig>();
        return rig->open(clip);
    }
    /// Advances the virtual clock once the stream thread sleeps on it: a thread that read the time
    /// but has not gone to sleep yet would sleep its whole interval from the advanced time.
    void advanceMs(int ms) {
        ASSERT_TRUE(lxtest::waitUntil([&] { return clock_.sleepers() > 0; }, 20000));
        clock_.advanceMs(ms);
    }
    bool lastPictureIs(uint32_t n) {
        return rig->videoSink.waitFor(
            [&](const Record& r) { return !r.video.empty() && r.video.back().simulated == n; });
    }

    lxtest::TempDir dir_;
    ManualClock clock_;
    std::unique_ptr<GraphRig> rig;
};

TEST_F(SimGraph, TheTestClockPacesTheStreamAndRateScalesIt) {
    clock_.setAutoAdvanceOnSleep(false);
    ASSERT_TRUE(open(sim::Outcome::VideoOnly));
    ASSERT_TRUE(SUCCEEDED(rig->control->Run()));
    advanceMs(500);
    ASSERT_TRUE(lastPictureIs(12)) << "frames 0..12 start at or before 0.5 s";
    EXPECT_EQ(13u, rig->videoSink.got().video.size());
    EXPECT_EQ(5000000, rig->position());

    ASSERT_EQ(S_OK, rig->seeking->SetRate(2.0));
    EXPECT_EQ(5000000, rig->position()) << "a rate change keeps the position";
    advanceMs(250);
    EXPECT_EQ(10000000, rig->position());
    ASSERT_TRUE(lastPictureIs(25));
    // Paused, the clock moves but the clip does not.
    ASSERT_TRUE(SUCCEEDED(rig->control->Pause()));
    clock_.advanceMs(1000);
    EXPECT_EQ(10000000, rig->position());
}

TEST_F(SimGraph, SeeksFlushAndRestartAtThePositionAndAStaleCompleteIsWithdrawn) {
    ASSERT_TRUE(open(sim::Outcome::AudioVideo));
    ASSERT_TRUE(SUCCEEDED(rig->control->Run()));
    ASSERT_TRUE(rig->waitComplete());

    // Ended and paused at the end, a seek cues the new position.
    ASSERT_TRUE(SUCCEEDED(rig->control->Pause()));
    rig->videoSink.clear();
    ASSERT_EQ(S_OK, rig->seekTo(1.0));
    EXPECT_EQ(25u, rig->videoSink.firstPicture().simulated);
    EXPECT_GE(rig->videoSink.got().flushes, 1);

    // Run to the end again and seek before reading the complete: whether it is queued already or
    // still on its way, it must not reach the caller, who would take it for the new position's end.
    // (Once both streams have ended, the stream thread waits for the seek, not on the clock.)
    rig->audioSink.clear();
    ASSERT_TRUE(SUCCEEDED(rig->control->Run()));
    ASSERT_TRUE(lxtest::waitUntil(
        [&] { return rig->videoSink.got().eos == 1 && rig->audioSink.got().eos == 1; }, 20000));
    clock_.setAutoAdvanceOnSleep(false);
    rig->videoSink.clear();
    ASSERT_EQ(S_OK, rig->seekTo(0.5));
    EXPECT_EQ(12u, rig->videoSink.firstPicture().simulated);
    EXPECT_EQ(E_ABORT, rig->nextEvent());
    EXPECT_EQ(5000000, rig->position());
    clock_.setAutoAdvanceOnSleep(true);
    EXPECT_TRUE(rig->waitComplete());
    EXPECT_EQ(49u, rig->videoSink.got().video.back().simulated);
    EXPECT_EQ(E_ABORT, rig->nextEvent()) << "one complete only";
}

TEST_F(SimGraph, CompleteWaitsForEveryRendererStillDelivering) {
    ASSERT_TRUE(open(sim::Outcome::AudioVideo, [](sim::Script& s) { s.audioBufferSeconds = 0.5; }));
    // A renderer still delivering its last frame holds EC_COMPLETE back, whatever the others did.
    std::atomic<bool> release{false};
    rig->videoSink.gate = [&] {
        if (rig->videoSink.got().video.size() == 49) {
            lxtest::waitUntil([&] { return release.load(); }, 20000);
        }
        return true;
    };
    ASSERT_TRUE(SUCCEEDED(rig->control->Run()));
    ASSERT_TRUE(lxtest::waitUntil([&] { return rig->audioSink.got().eos == 1; }, 20000));
    EXPECT_EQ(E_ABORT, rig->nextEvent());
    release = true;
    EXPECT_TRUE(rig->waitComplete());
}

TEST_F(SimGraph, TheVideoRendererDeliversTheChosenPixelLayout) {
    EXPECT_FALSE(LxPlatformGraph::setVideoPixelFormat(LxPixel16));
    EXPECT_EQ(LxPixel32Alt, LxPlatformGraph::videoPixelFormat());
    ASSERT_TRUE(LxPlatformGraph::setVideoPixelFormat(LxPixel24Alt));
    ASSERT_TRUE(open(sim::Outcome::VideoOnly, [](sim::Script& s) {
        s.width = 7;
        s.height = 2;
    }));
    ASSERT_TRUE(SUCCEEDED(rig->control->Pause()));
    const LxpVideoSpec spec = rig->videoSink.firstPicture().spec;
    EXPECT_EQ(LxPixel24Alt, spec.pixelFormat);
    EXPECT_EQ(3, spec.bytesPerPixel);
    EXPECT_EQ(24, spec.stride);  // 21 bytes of pixels padded to 24
}

}  // namespace
