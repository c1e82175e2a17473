// What a WAVE clip sounds like through the renderer on the simulated sound card: every sample
// once and in order, silence after the end, looping without seams, stopping, stop times, rate.
#include "AudioRendererSimKit.h"

#include "LxLog.h"

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
