// What a WAVE clip sounds like through the renderer on the simulated sound card: every sample
// once and in order, silence after the end, looping without seams, stopping, stop times, rate.
#include "AudioRendererSimKit.h"

#include "LxLog.h"

#include <chrono>
#include <thread>

namespace {

using namespace rendererkit;
namespace simsound = lxp::simsound;

class RendererPlayTest : public RendererSimTest {};

// Plays the whole clip and checks the output against it: the clip must appear once, sample for
// sample, from the first sample the output holds, followed by silence.
void expectClipThenSilence(const std::vector<int16_t>& out, const std::vector<int16_t>& clip,
                           size_t silence) {
    ASSERT_GE(out.size(), clip.size() + silence) << "not enough output rendered";
    long first = -1;
    const size_t bad = mismatches(out, 0, clip, 1, &first);
    EXPECT_EQ(0u, bad) << "first wrong sample at " << first << " of " << clip.size();
    EXPECT_LE(peak(out, clip.size(), clip.size() + silence), 1) << "sound after the clip's end";
}

TEST_F(RendererPlayTest, StreamingClipIsHeardOnceInOrderThenSilenceAndEndsThePlayer) {
    lxtest::requireLog();
    const std::string path = clip("long.wav", 44100, 2, 2.5, "whitenoise");
    lxtest::RecordingListener events;
    LxPlayer* p = openPlayer(path, &events);
    ProbeRenderer* r = attachProbe(p);
    const ProbeRenderer::Fields f = r->fields();
    EXPECT_EQ(0, f.isResident) << "2.5 s streams";
    EXPECT_EQ(264600, f.bufferSize) << "1.5 s of 16-bit stereo at 44100 Hz";
    EXPECT_EQ(88200, f.frameBytes);
    EXPECT_EQ(13230, f.lowWaterMark);
    EXPECT_TRUE(
        LxLogSink::contains("LxWin32AudioRenderer:  creating streaming audio buffer of size 264600\n"));

    startNow(p, r);
    play(r, 3200);
    ASSERT_TRUE(events.waitForCount(1)) << "no event";
    ASSERT_TRUE(lxtest::waitUntil([&] { return events.count(LxEndOfMediaEventType) == 1; }))
        << "the player did not report the end";
    EXPECT_TRUE(lxtest::waitUntil([&] { return p->getState() == LxNode::STOPPED; }));

    const std::vector<int16_t> data = samples16(path);
    expectClipThenSilence(heard(0), channelOf(data, 2, 0), 44100 / 2);
    expectClipThenSilence(heard(1), channelOf(data, 2, 1), 44100 / 2);
    EXPECT_FALSE(LxLogSink::contains("quarts low")) << "an under-run was padded";
    EXPECT_TRUE(LxLogSink::contains("LxWin32AudioRenderer:  posting EOM event\n"));
}

}  // namespace

namespace {

TEST_F(RendererPlayTest, ResidentClipIsLoadedWholeAndHeardOnceThenSilence) {
    const std::string path = clip("short.wav", 44100, 2, 1.0, "whitenoise");
    lxtest::RecordingListener events;
    LxPlayer* p = openPlayer(path, &events);
    ProbeRenderer* r = attachProbe(p);
    const ProbeRenderer::Fields f = r->fields();
    EXPECT_EQ(1, f.isResident);
    EXPECT_EQ(176400, f.bufferSize) << "exactly the clip";
    EXPECT_EQ(88200, f.frameBytes);
    EXPECT_EQ(13230, f.lowWaterMark);

    startNow(p, r);
    play(r, 1500);
    const std::vector<int16_t> data = samples16(path);
    expectClipThenSilence(heard(0), channelOf(data, 2, 0), 44100 / 2);
    expectClipThenSilence(heard(1), channelOf(data, 2, 1), 44100 / 2);
    EXPECT_TRUE(lxtest::waitUntil([&] { return events.count(LxEndOfMediaEventType) == 1; }));
    EXPECT_TRUE(lxtest::waitUntil([&] { return p->getState() == LxNode::STOPPED; }));

    // Started again, the clip plays from its buffer (nothing is read twice) from its first sample.
    simsound::clearOutput();
    startNow(p, r);
    play(r, 1200);
    expectClipThenSilence(heard(0), channelOf(data, 2, 0), 44100 / 10);
    EXPECT_TRUE(lxtest::waitUntil([&] { return events.count(LxEndOfMediaEventType) == 2; }));
}

// Looping: the producer goes back to the start of the file and the renderer carries on; the
// periods must follow each other without a seam (no sample lost, doubled or padded at the joins).
TEST_F(RendererPlayTest, StreamingLoopJoinsThePeriodsSeamlesslyUntilStopped) {
    const std::string path = clip("loop.wav", 44100, 1, 2.0, "whitenoise");
    LxPlayer* p = openPlayer(path);
    ProbeRenderer* r = attachProbe(p);
    ASSERT_EQ(0, r->fields().isResident) << "2.0 s streams";
    p->setLoop(1);
    startNow(p, r);
    play(r, 6000);
    p->stop();
    play(r, 500);

    const std::vector<int16_t> one = samples16(path);
    std::vector<int16_t> three;
    for (int i = 0; i < 3; ++i) {
        three.insert(three.end(), one.begin(), one.end());
    }
    const std::vector<int16_t> out = heard(0);
    long first = -1;
    EXPECT_EQ(0u, mismatches(out, 0, three, 1, &first))
        << "first wrong sample at " << first << " (period " << (first < 0 ? 0 : first / one.size()) << ")";
    EXPECT_LE(peak(out, three.size() + 441, out.size()), 1) << "still sounding after stop()";
}

TEST_F(RendererPlayTest, ResidentLoopRepeatsFromTheBufferAndTossesTheProducersFrames) {
    lxtest::requireLog();
    const std::string path = clip("beat.wav", 44100, 1, 0.5, "whitenoise");
    LxPlayer* p = openPlayer(path);
    ProbeRenderer* r = attachProbe(p);
    ASSERT_EQ(1, r->fields().isResident);
    p->setLoop(1);
    startNow(p, r);
    play(r, 1600);
    EXPECT_TRUE(lxtest::waitUntil([] { return LxLogSink::contains("LxAR:  pull and toss\n"); }))
        << "the looping producer's frames are not needed any more";
    p->stop();
    play(r, 200);

    const std::vector<int16_t> one = samples16(path);
    std::vector<int16_t> three;
    for (int i = 0; i < 3; ++i) {
        three.insert(three.end(), one.begin(), one.end());
    }
    const std::vector<int16_t> out = heard(0);
    long first = -1;
    EXPECT_EQ(0u, mismatches(out, 0, three, 1, &first)) << "first wrong sample at " << first;
    EXPECT_LE(peak(out, 44100 * 16 / 10 + 441, out.size()), 1) << "still sounding after stop()";
}

// A stop silences the buffer before stop() returns, and a new start at another media time plays
// from there: nothing of the old buffer or the frames read ahead is heard.
TEST_F(RendererPlayTest, StopSilencesAtOnceAndARestartPlaysFromTheNewPosition) {
    const std::string path = clip("stop.wav", 44100, 2, 4.0, "whitenoise");
    lxtest::RecordingListener events;
    LxPlayer* p = openPlayer(path, &events);
    ProbeRenderer* r = attachProbe(p);
    startNow(p, r);
    play(r, 1000);
    p->stop();
    EXPECT_EQ(LxNode::STOPPED, r->fields().state);
    const size_t stoppedAt = simsound::outputFrames();
    play(r, 300);
    const std::vector<int16_t> data = samples16(path);
    const std::vector<int16_t> left = channelOf(data, 2, 0);
    std::vector<int16_t> out = heard(0);
    EXPECT_EQ(44100u, stoppedAt);
    long first = -1;
    EXPECT_EQ(0u, mismatches(out, 0, std::vector<int16_t>(left.begin(), left.begin() + 44100), 1, &first));
    EXPECT_LE(peak(out, stoppedAt, out.size()), 1) << "sound after stop()";
    EXPECT_EQ(1u, events.count(LxStopByRequestEventType));

    simsound::clearOutput();
    ASSERT_EQ(LX_OK, p->setMediaTime(LxTime(2, 500000)));
    startNow(p, r);
    play(r, 2000);
    out = heard(0);
    const std::vector<int16_t> rest(left.begin() + 110250, left.end());
    EXPECT_EQ(0u, mismatches(out, 0, rest, 1, &first)) << "first wrong sample at " << first;
    EXPECT_LE(peak(out, rest.size(), out.size()), 1);
}

// Rate 2 is the ports' tempo: the buffer plays at twice its rate, an octave up in half the time.
TEST_F(RendererPlayTest, RateTwoPlaysAnOctaveUpInHalfTheTime) {
    const std::string path = clip("tone.wav", 44100, 1, 2.0, "sine 440");
    LxPlayer* p = openPlayer(path);
    ProbeRenderer* r = attachProbe(p);
    float two = 2.0f;
    ASSERT_EQ(LX_OK, p->setRate(&two));
    EXPECT_FLOAT_EQ(2.0f, r->port(0)->getTempo());
    startNow(p, r);
    play(r, 1500);
    const std::vector<int16_t> out = heard(0);
    const long end = endOfSound(out, 200);
    EXPECT_NEAR(44100, end, 441) << "two seconds at rate 2 last one second";
    const double octave = tonePower(out, 4410, 22050, 880.0, 44100.0);
    const double unison = tonePower(out, 4410, 22050, 440.0, 44100.0);
    EXPECT_GT(octave, 0.01);
    EXPECT_GT(octave, 100.0 * unison) << "heard at 440 Hz, not 880 Hz";
}

// When the producer falls behind, the buffer must not play its old contents again: the renderer
// pads with silence once the level is below its low-water mark, and frames that come late are
// heard in full after the gap.
TEST_F(RendererPlayTest, AnUnderRunIsPaddedWithSilenceAndLateFramesFollowTheGap) {
    lxtest::requireLog();
    ManualProducer producer(manager, mixer, timeBase);
    ProbeRenderer* r = producer.renderer.get();
    ASSERT_EQ(0, r->fields().isResident) << "an unknown length streams";
    auto feed = [&](int frames) { producer.feed(frames); };
    feed(2);
    ASSERT_EQ(LX_OK, r->startAtTime(timeBase->getRefTime()));
    ASSERT_TRUE(lxtest::waitUntil([&] { return r->fields().hasWritten != 0; }));
    // One second of data, then 1.2 s of nothing from the producer. The output advances 10 ms at a
    // time, and only once the renderer has kept three quarters of its low-water mark queued: a
    // sound card's clock would not wait, but a renderer pass missed on a loaded test machine
    // must not make the test fail.
    const long keep = static_cast<long>(0.75 * r->fields().lowWaterMark);
    auto advance = [&](int ms) {
        for (int t = 0; t < ms; t += 10) {
            ASSERT_TRUE(lxtest::waitUntil([&] { return r->port(0)->getFilled() > keep; }))
                << "the renderer let the buffer run dry";
            simsound::advanceMs(10);
        }
    };
    advance(2200);
    EXPECT_TRUE(LxLogSink::contains("quarts low #1")) << "the under-run was not noticed";
    feed(2);
    ASSERT_TRUE(lxtest::waitUntil([&] { return r->port(0)->getFilled() > 11025; }));
    advance(1200);
    r->stop();

    // The output follows the clip's rate, so the samples compare one for one: the first second
    // of the ramp, then silence only (not one sample of the old data), then the rest of the ramp.
    ASSERT_EQ(22050u, simsound::outputFormat().rate);
    const std::vector<int16_t> heardOut = toInt16(simsound::outputChannel(0));
    std::vector<int16_t> ramp(44100);
    for (int k = 0; k < 44100; ++k) {
        ramp[k] = ManualProducer::rampAt(k);
    }
    long first = -1;
    EXPECT_EQ(0u,
              mismatches(heardOut, 0, std::vector<int16_t>(ramp.begin(), ramp.begin() + 22050), 1, &first))
        << "first wrong sample at " << first;
    const long resumed = firstAbove(heardOut, 500, 22050);
    ASSERT_NE(-1, resumed) << "the late frames were not heard";
    EXPECT_GT(resumed, 22050 + 11025) << "the gap is shorter than the producer's delay";
    EXPECT_LE(peak(heardOut, 22050, resumed), 1) << "old buffer contents heard in the gap";
    EXPECT_EQ(
        0u, mismatches(heardOut, resumed, std::vector<int16_t>(ramp.begin() + 22050, ramp.end()), 1, &first))
        << "the late frames are not heard whole; first wrong sample at " << first;
}

}  // namespace
