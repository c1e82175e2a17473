// A WAVE clip heard end to end on the real sound engine, in real time, written to a WAV file:
// the manager's factory, the WAVE player, the default audio renderer, the mixer and the engine's
// WAV sink. The file is then compared with the clip.
//
// Mapping the file to reference time. The sound-card test at start-up opens the output and
// closes it again; what it wrote is the first F0 frames of the file. The fixture then opens the
// output itself (the mixer's initDirectSound) at a reference time t0 it reads around the call;
// from there the engine's mixing thread writes one block after another, each no earlier than its
// own start time, so frame F0 + k of the file was mixed at reference time t0 + k / 44100 (the
// time base and the engine's pacing read the same monotonic clock). A buffer that starts playing
// at time T is heard from the first block mixed after T: up to one 10 ms block late.
#include "AMPlayerRig.h"
#include "LxAudioPlayer.h"
#include "WaveFiles.h"

namespace {

using namespace rendererkit;

constexpr int kRate = amtest::kWavRate;
using amtest::sleepSeconds;

LxTime later(const LxTime& t, double seconds) {
    return LxTime(t.getValue() + seconds);
}

// No filter graph here: the factory makes the WAVE player.
class RendererWavTest : public amtest::WavScene {
  protected:
    RendererWavTest() { filterGraph = false; }

    void SetUp() override {
        if (!lxtest::haveTool("sox")) {
            GTEST_SKIP() << "sox is not installed (scripts/install-deps.sh test installs it)";
        }
        WavScene::SetUp();
    }

    /// A WAVE player on path from the manager's factory, initialised, with the default renderer
    /// and the master time base.
    LxPlayer* openPlayer(const std::string& path, lxtest::RecordingListener* listener) {
        sources.push_back(std::make_unique<LxFilenameDataSource>(path.c_str()));
        LxPlayer* p = nullptr;
        EXPECT_EQ(LX_OK, manager->createPlayer(sources.back().get(), &p));
        if (p == nullptr) {
            return nullptr;
        }
        EXPECT_NE(nullptr, dynamic_cast<LxAudioPlayer*>(p));
        p->setEventListener(listener);
        EXPECT_TRUE(lxtest::waitUntil([&] { return p->getState() == LxNode::STOPPED; }));
        EXPECT_EQ(LX_CONNECTED_AUDIO, manager->connectAllUnconnected(p));
        EXPECT_EQ(LX_OK, p->setTimeBase(timeBase));
        return p;
    }

    /// Ends the manager (which completes the file) and reads what was heard.
    void finish() {
        left = finishSound(0);
        right = finishSound(1);
    }

    /// Where the clip's first samples are heard, searched 300 ms either side of the time asked
    /// for; fails the test when the clip is not found there.
    long onsetNear(const std::vector<int16_t>& out, const std::vector<int16_t>& clip, double refSeconds) {
        const long expected = frameAtTime(refSeconds);
        double score = 0.0;
        const long at =
            bestOffset(out, clip, 2048, expected - kRate * 3 / 10, expected + kRate * 3 / 10, &score);
        EXPECT_GT(score, 0.99) << "the clip was not heard near the time asked for";
        return at;
    }

    std::vector<int16_t> left;
    std::vector<int16_t> right;
};

// A three-second clip asked to start 0.2 s from now: heard within 20 ms of that time, every
// sample once and in order (no gap, no repeated or dropped block), silence after its end; the
// player reports the end and stops.
TEST_F(RendererWavTest, AClipStartsOnTimeIsHeardWholeAndEndsInSilence) {
    const std::string path = soxClip16(dir, "noise.wav", kRate, 2, 3.0, "whitenoise");
    ASSERT_FALSE(path.empty());
    lxtest::RecordingListener events;
    LxPlayer* p = openPlayer(path, &events);
    ASSERT_NE(nullptr, p);
    const LxTime start = later(timeBase->getRefTime(), 0.2);
    ASSERT_EQ(LX_OK, p->startAtTime(start));
    ASSERT_TRUE(lxtest::waitUntil([&] { return events.count(LxEndOfMediaEventType) == 1; }, 8000))
        << "the player did not report the end";
    EXPECT_TRUE(lxtest::waitUntil([&] { return p->getState() == LxNode::STOPPED; }));
    sleepSeconds(0.8);
    finish();

    const std::vector<int16_t> clipL = samples16(path, 2, 0);
    const std::vector<int16_t> clipR = samples16(path, 2, 1);
    const long onset = onsetNear(left, clipL, start.getValue());
    const double error = (timeAtFrame(onset) - start.getValue()) * 1000.0;
    std::printf("[ measured ] onset %+.1f ms from the time asked for\n", error);
    EXPECT_NEAR(0.0, error, 20.0) << "started off time";
    long first = -1;
    EXPECT_EQ(0u, mismatches(left, onset, clipL, &first)) << "left: first wrong sample at " << first;
    EXPECT_EQ(0u, mismatches(right, onset, clipR, &first)) << "right: first wrong sample at " << first;
    const size_t end = onset + clipL.size();
    EXPECT_LE(peak(left, end, end + kRate / 2), 1) << "sound after the clip's end";
    EXPECT_GE(left.size(), end + kRate / 2) << "the file ends too early";
}

// Three periods of a looping clip follow each other without a seam; a stop in the fourth period
// silences it within 50 ms of the call.
TEST_F(RendererWavTest, ALoopRunsThreePeriodsWithoutSeamsAndAStopSilencesItAtOnce) {
    const std::string path = soxClip16(dir, "loop.wav", kRate, 1, 2.0, "whitenoise");
    ASSERT_FALSE(path.empty());
    lxtest::RecordingListener events;
    LxPlayer* p = openPlayer(path, &events);
    ASSERT_NE(nullptr, p);
    p->setLoop(1);
    const LxTime start = later(timeBase->getRefTime(), 0.2);
    ASSERT_EQ(LX_OK, p->startAtTime(start));
    sleepSeconds(start.getValue() + 6.7 - timeBase->getRefTime().getValue());
    const double stopCalled = timeBase->getRefTime().getValue();
    p->stop();
    const double stopReturned = timeBase->getRefTime().getValue();
    std::printf("[ measured ] stop() took %.1f ms\n", (stopReturned - stopCalled) * 1000.0);
    sleepSeconds(0.3);
    finish();

    const std::vector<int16_t> clip = samples16(path);
    const long onset = onsetNear(left, clip, start.getValue());
    std::vector<int16_t> periods = repeat(clip, 3);
    periods.insert(periods.end(), clip.begin(), clip.begin() + kRate / 4);  // into the fourth
    long first = -1;
    EXPECT_EQ(0u, mismatches(left, onset, periods, &first))
        << "first wrong sample at " << first << " (period " << (first < 0 ? 0 : first / clip.size() + 1)
        << ")";
    const long silentFrom = endOfSound(left, 2);
    const double late = (timeAtFrame(silentFrom) - stopCalled) * 1000.0;
    std::printf("[ measured ] sound ended %+.1f ms after stop() was called\n", late);
    EXPECT_LE(late, 50.0) << "the stop was not heard within 50 ms";
    EXPECT_GE(late, -12.0) << "the sound ended before the stop";
}

// Rate 2 plays an octave up at twice the speed (a short clip, so from a resident buffer); a clip
// given a stop time is cut at that time.
TEST_F(RendererWavTest, RateTwoPlaysAnOctaveUpAndAStopTimeCutsTheClipThere) {
    const std::string tone = soxClip16(dir, "tone.wav", kRate, 1, 1.0, "sine 440");
    const std::string noise = soxClip16(dir, "noise.wav", kRate, 1, 3.0, "whitenoise");
    ASSERT_FALSE(tone.empty());
    ASSERT_FALSE(noise.empty());
    lxtest::RecordingListener toneEvents;
    lxtest::RecordingListener noiseEvents;
    LxPlayer* fast = openPlayer(tone, &toneEvents);
    LxPlayer* cut = openPlayer(noise, &noiseEvents);
    ASSERT_NE(nullptr, fast);
    ASSERT_NE(nullptr, cut);
    float two = 2.0f;
    ASSERT_EQ(LX_OK, fast->setRate(&two));
    const LxTime toneStart = later(timeBase->getRefTime(), 0.2);
    ASSERT_EQ(LX_OK, fast->startAtTime(toneStart));
    const LxTime noiseStart = later(toneStart, 0.8);
    const LxTime noiseStop = later(noiseStart, 1.0);
    ASSERT_EQ(LX_OK, cut->stopAtTime(noiseStop));
    ASSERT_EQ(LX_OK, cut->startAtTime(noiseStart));
    ASSERT_TRUE(lxtest::waitUntil([&] { return noiseEvents.count(LxStopAtTimeEventType) == 1; }, 5000))
        << "no stop-time event";
    EXPECT_TRUE(lxtest::waitUntil([&] { return cut->getState() == LxNode::STOPPED; }));
    sleepSeconds(0.3);
    finish();

    // The tone: on time, half a second long, at 880 Hz.
    const long toneOnset = firstAbove(left, 300, frameAtTime(toneStart.getValue() - 0.1));
    ASSERT_GE(toneOnset, 0);
    std::printf("[ measured ] tone onset %+.1f ms\n",
                (timeAtFrame(toneOnset) - toneStart.getValue()) * 1000.0);
    EXPECT_NEAR(toneStart.getValue(), timeAtFrame(toneOnset), 0.02);
    const long toneEnd = endOfSound(
        std::vector<int16_t>(left.begin(), left.begin() + frameAtTime(noiseStart.getValue() - 0.05)), 300);
    EXPECT_NEAR(0.5, double(toneEnd - toneOnset) / kRate, 0.015)
        << "one second at rate 2 lasts half a second";
    EXPECT_GT(tonePower(left, toneOnset + 2205, 13230, 880.0, kRate), 0.01);
    EXPECT_LT(tonePower(left, toneOnset + 2205, 13230, 440.0, kRate), 0.0005)
        << "heard at the clip's own pitch";

    // The noise: the clip's first second, then nothing.
    const std::vector<int16_t> clip = samples16(noise);
    const long onset = onsetNear(left, clip, noiseStart.getValue());
    const long end = endOfSound(left, 2);
    const double stopError = (timeAtFrame(end) - noiseStop.getValue()) * 1000.0;
    std::printf("[ measured ] stop time heard %+.1f ms from the time asked for\n", stopError);
    EXPECT_NEAR(0.0, stopError, 20.0);
    long first = -1;
    EXPECT_EQ(
        0u, mismatches(left, onset, std::vector<int16_t>(clip.begin(), clip.begin() + (end - onset)), &first))
        << "first wrong sample at " << first;
}

}  // namespace
