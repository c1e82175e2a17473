// The renderer's ports in the manager's channel arbitration and in space: clips beyond the
// channel limit wait silently and come in when a channel is freed, a destroyed player gives
// everything back at once, and the ports of one clip sound at their own places and gains.
#include "AudioRendererSimKit.h"

#include "LxLog.h"

namespace {

using namespace rendererkit;
namespace simsound = lxp::simsound;

class RendererChannelTest : public RendererSimTest {
  protected:
    /// A three-second tone clip, started now, with its master port at priority.
    struct Voice {
        LxPlayer* player = nullptr;
        ProbeRenderer* renderer = nullptr;
        LxAudioOutputPort* port = nullptr;
    };
    Voice voice(const std::string& name, int hz, float priority) {
        Voice v;
        v.player = openPlayer(clip(name, 44100, 1, 3.0, "sine " + std::to_string(hz)));
        v.renderer = attachProbe(v.player);
        EXPECT_EQ(LX_OK, v.player->getNewAudioPort(&v.port));
        EXPECT_EQ(v.renderer->port(0), v.port) << "the first port is the master";
        v.port->setPriority(priority);
        return v;
    }
    /// Waits until v's renderer has written into the channel it holds (its buffer's level from
    /// before the channel was lost means nothing until then).
    static bool sounding(const Voice& v) {
        return lxtest::waitUntil([&] {
            const ProbeRenderer::Fields f = v.renderer->fields();
            return v.port->hasChannel() && !f.silentPacing && !f.resetPending;
        });
    }
    /// Tone power of the last 300 ms of output.
    double power(int hz) {
        const std::vector<int16_t> out = heard(0);
        return out.size() < 13230 ? 0.0 : tonePower(out, out.size() - 13230, 13230, hz, 44100.0);
    }
};

constexpr double kHeard = 0.01;  // a tone of amplitude 0.5 gives about 0.06
constexpr double kSilent = 0.0001;

TEST_F(RendererChannelTest, TheWeakestOfThreeClipsWaitsSilentlyAndComesInWhenAStrongerOneStops) {
    ASSERT_EQ(LX_OK, manager->setMaxAudioChannels(2));
    Voice strong = voice("a.wav", 440, 0.9f);
    Voice middle = voice("b.wav", 660, 0.6f);
    Voice weak = voice("c.wav", 990, 0.3f);
    startNow(strong.player, strong.renderer);
    startNow(weak.player, weak.renderer);  // started before middle: it must still give way to it
    startNow(middle.player, middle.renderer);
    EXPECT_TRUE(strong.port->hasChannel());
    EXPECT_TRUE(middle.port->hasChannel());
    EXPECT_FALSE(weak.port->hasChannel());

    play({strong.renderer, middle.renderer, weak.renderer}, 500);
    EXPECT_GT(power(440), kHeard);
    EXPECT_GT(power(660), kHeard);
    EXPECT_LT(power(990), kSilent) << "the weakest clip is heard beyond the channel limit";

    strong.player->stop();
    ASSERT_TRUE(sounding(weak)) << "the freed channel did not go to the waiting clip";
    simsound::clearOutput();
    play({middle.renderer, weak.renderer}, 500);
    EXPECT_LT(power(440), kSilent) << "the stopped clip is still heard";
    EXPECT_GT(power(660), kHeard);
    EXPECT_GT(power(990), kHeard) << "the waiting clip did not come in";
}

// destroyPlayer while the clip plays: silence at once, and the clip's channel, mixer port,
// sound buffer and threads are gone when it returns (the channel going to the clip that waits).
TEST_F(RendererChannelTest, DestroyingAPlayingPlayerSilencesItAndGivesBackChannelPortAndBuffer) {
    ASSERT_EQ(LX_OK, manager->setMaxAudioChannels(1));
    Voice first = voice("a.wav", 440, 0.9f);
    Voice second = voice("b.wav", 660, 0.3f);
    startNow(first.player, first.renderer);
    startNow(second.player, second.renderer);
    EXPECT_FALSE(second.port->hasChannel());
    play({first.renderer, second.renderer}, 300);
    EXPECT_GT(power(440), kHeard);

    const int buffers = simsound::liveBuffers();
    const int threadsBefore = threads.liveThreads();
    ASSERT_EQ(LX_OK, manager->destroyPlayer(first.player));
    EXPECT_EQ(buffers - 1, simsound::liveBuffers()) << "the clip's sound buffer outlived it";
    EXPECT_EQ(threadsBefore - 2, threads.liveThreads()) << "the player and renderer threads end with it";
    EXPECT_EQ(LX_ERR_UNKNOWN_PLAYER, manager->verifyPlayer(first.player));

    // The next 30 ms: the waiting clip may already come in, the destroyed one must be gone.
    simsound::clearOutput();
    simsound::advanceMs(30);
    EXPECT_LT(tonePower(heard(0), 0, 1323, 440.0, 44100.0), 0.005) << "the destroyed clip was still heard";
    ASSERT_TRUE(sounding(second)) << "the destroyed clip's channel was not freed";
    simsound::clearOutput();
    play(second.renderer, 400);
    EXPECT_GT(power(660), kHeard);
    EXPECT_LT(power(440), kSilent);
}

// Two sound sources of one clip: the second port duplicates the first's buffer, each has its own
// place and gain. One port sits far left at full gain, the other as far right at half gain, so
// one output channel holds the clip at twice the level of the other.
TEST_F(RendererChannelTest, TwoPortsOfOneClipSoundAtTheirOwnPlacesAndGains) {
    lxtest::requireLog();
    ASSERT_EQ(LX_OK, manager->setSpatializeSounds(1));  // duplicates need buffers with 3D control
    const std::string path = clip("noise.wav", 44100, 1, 2.5, "whitenoise");
    LxPlayer* p = openPlayer(path);
    ProbeRenderer* r = attachProbe(p);
    LxAudioOutputPort* a = nullptr;
    LxAudioOutputPort* b = nullptr;
    ASSERT_EQ(LX_OK, p->getNewAudioPort(&a));
    ASSERT_EQ(LX_OK, p->getNewAudioPort(&b));
    ASSERT_NE(a, b);
    EXPECT_TRUE(
        LxLogSink::contains("LxWin32AudioRenderer:  Created a total of 2 ports for this audio clip\n"));
    EXPECT_TRUE(b->hasChannel()) << "the duplicate did not get a channel of its own";
    const float left[3] = {-5.0f, 0.0f, 0.0f};
    const float right[3] = {5.0f, 0.0f, 0.0f};
    EXPECT_EQ(LX_OK, a->setSoundLocation(left));
    EXPECT_EQ(LX_OK, b->setSoundLocation(right));
    EXPECT_EQ(LX_OK, b->setGain(0.5f));

    startNow(p, r);
    play(r, 1500);
    const std::vector<int16_t> mono = samples16(path);
    const std::vector<int16_t> l = heard(0);
    const std::vector<int16_t> rr = heard(1);
    double scoreL = 0.0;
    double scoreR = 0.0;
    EXPECT_EQ(0, bestOffset(l, mono, 4096, 0, 64, &scoreL));
    EXPECT_EQ(0, bestOffset(rr, mono, 4096, 0, 64, &scoreR));
    EXPECT_GT(scoreL, 0.99) << "the left channel does not hold the clip";
    EXPECT_GT(scoreR, 0.99) << "the right channel does not hold the clip";
    const double peakL = peak(l, 0, 44100);
    const double peakR = peak(rr, 0, 44100);
    const double ratio = std::max(peakL, peakR) / std::max(1.0, std::min(peakL, peakR));
    EXPECT_NEAR(2.0, ratio, 0.15) << "left " << peakL << ", right " << peakR;
}

// Without spatialisation the mixer's buffers have no 3D control and cannot be duplicated: the
// extra port is refused with the mixer's code, nothing of it is left behind, and the clip still
// plays through its master port.
TEST_F(RendererChannelTest, AFailedExtraPortLeavesNothingBehindAndTheClipStillPlays) {
    lxtest::requireLog();
    const std::string path = clip("noise.wav", 44100, 1, 2.5, "whitenoise");
    LxPlayer* p = openPlayer(path);
    ProbeRenderer* r = attachProbe(p);
    LxAudioOutputPort* a = nullptr;
    LxAudioOutputPort* b = nullptr;
    ASSERT_EQ(LX_OK, p->getNewAudioPort(&a));
    const int buffers = simsound::liveBuffers();
    EXPECT_EQ(LX_ERR_NO_3D_BUFFER, p->getNewAudioPort(&b));
    EXPECT_EQ(nullptr, b);
    EXPECT_TRUE(
        LxLogSink::contains("LxWin32AudioRenderer:  Unable to open an additional port to the mixer\n"));
    EXPECT_EQ(buffers, simsound::liveBuffers()) << "the refused port's buffer was kept";
    EXPECT_EQ(1, r->fields().portCount);

    startNow(p, r);
    play(r, 500);
    double score = 0.0;
    EXPECT_EQ(0, bestOffset(heard(0), samples16(path), 4096, 0, 64, &score));
    EXPECT_GT(score, 0.99);
}

}  // namespace
