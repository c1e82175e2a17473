// One clip of every kind a scene can hold, end to end as a browser plays it: the manager's
// factory picks the player, LxVrmlSupport connects it to the default renderers and applies the
// node's fields, a Sound-node stand-in takes the audio port, and a host thread paints the video.
// What reached the WAV file and the pictures the host was given are checked against the clips.
// And with no usable filter graph a WAVE clip still plays, through the WAVE player.
#include "AMPlayerRig.h"

#include "LxAudioPlayer.h"
#include "LxVrmlSupport.h"
#include "LxWin32MidiPlayer.h"

#include "../midi/MidiFiles.h"

#include <sys/stat.h>
#include <typeinfo>

namespace {

using amtest::AMPlayerE2E;
using amtest::Painted;

constexpr double kRate = amtest::kWavRate;

/// A Sound node at full intensity (ports come silent until their node sets its gain).
class SoundNode : public LxSoundNodeNotifier {
  public:
    void audioPortChanged(LxAudioOutputPort* p) override {
        if (p != nullptr) {
            p->setGain(1.0f);
        }
        port.store(p);
    }
    std::atomic<LxAudioOutputPort*> port{nullptr};
};

/// What one clip did.
struct Played {
    std::string player;  // the class the factory made
    double start = 0.0;  // reference time of its startTime
    double lead = 0.0;   // the media time it starts at
    bool ended = false;
    bool hadPort = false;
    std::vector<Painted> painted;  // pictures taken at the player's media time
};

class EveryKind : public AMPlayerE2E {
  protected:
    EveryKind() { synthesizer = true; }

    /// Plays path once from now + 0.3 s through the factory and LxVrmlSupport, to its end.
    Played play(const std::string& path, double seconds) {
        Played out;
        sources.push_back(std::make_unique<LxFilenameDataSource>(path.c_str()));
        LxPlayer* p = nullptr;
        EXPECT_EQ(LX_OK, manager->createPlayer(sources.back().get(), &p));
        if (p == nullptr) {
            return out;
        }
        out.player = typeid(*p).name();
        lxtest::RecordingListener events;
        p->setEventListener(&events);
        LxVrmlSupport support(p, manager);
        SoundNode node;
        support.addSoundNode(&node);
        EXPECT_TRUE(lxtest::waitUntil([&] { return events.count(LxInitializedEventType) > 0; }, 15000));
        EXPECT_EQ(LX_OK, support.finishInitializingPlayer());
        out.hadPort = node.port.load() != nullptr;

        // The host paints at the scene's time. A clip started ahead begins the manager's start-up
        // latency into its media (which covers the devices' own start), unless it is shorter
        // than 2 s: those always start from their beginning.
        out.start = now() + 0.3;
        out.lead = p->getDuration().getValue() < 2.0 ? 0.0 : manager->getStartUpLatency().getValue();
        setMap({out.start, out.lead, 1.0, 0.0});
        const bool video = support.getVideoRenderer() != nullptr;
        if (video) {
            startPainting(p);
        }
        support.beginChangingFields(LxTime(now()));
        support.setStartTime(LxTime(out.start));
        support.doneChangingFields();
        out.ended = lxtest::waitUntil([&] { return events.count(LxEndOfMediaEventType) > 0; },
                                      static_cast<int>((seconds + 6.0) * 1000));
        // The end of media comes while the last of the sound is still playing; a browser keeps
        // the clip until then, and so does this host.
        amtest::sleepSeconds(out.start + seconds + 0.3 - now());
        if (video) {
            stopPainting();
            out.painted = paintedBetween(out.start - 1.0, now());
        }
        EXPECT_EQ(LX_OK, support.destroyPlayer());
        return out;
    }

    /// Where sound first rises above threshold within 0.2 s either side of a reference time.
    long onsetNear(const std::vector<int16_t>& heard, double ref, int threshold = 1000) {
        const long at = rendererkit::firstAbove(heard, threshold, frameAtTime(ref - 0.2));
        return at >= 0 && at < frameAtTime(ref + 0.2) ? at : -1;
    }
    /// Seconds of sound from onset until a 20 ms stretch of silence.
    double soundLength(const std::vector<int16_t>& heard, long onset) {
        long end = onset;
        const long quiet = static_cast<long>(kRate / 50);
        while (end + quiet < static_cast<long>(heard.size()) &&
               rendererkit::peak(heard, end, end + quiet) > 200) {
            end += quiet / 4;
        }
        return (end - onset) / kRate;
    }
    /// The largest distance in frames between the counter painted and the frame of its media time,
    /// judged from settle seconds after the start to the clip's last frame.
    static int worstFrame(const Played& p, double settle, double seconds, size_t* judged) {
        int worst = 0;
        *judged = 0;
        for (const Painted& s : p.painted) {
            if (s.ref < p.start + settle || s.counter < 0 || s.media >= seconds - 0.04) {
                continue;
            }
            worst =
                std::max(worst, std::abs(s.counter - static_cast<int>(std::floor(s.media * 25.0 + 1e-6))));
            ++*judged;
        }
        return worst;
    }
    /// A 440 Hz tone stands out: ten times the power of its neighbours a fifth away.
    static bool isTone(const std::vector<int16_t>& heard, long from, double hz) {
        const size_t n = static_cast<size_t>(kRate / 5);
        const double at = rendererkit::tonePower(heard, static_cast<size_t>(from), n, hz, kRate);
        return at > 10.0 * rendererkit::tonePower(heard, static_cast<size_t>(from), n, hz * 1.5, kRate) &&
               at > 10.0 * rendererkit::tonePower(heard, static_cast<size_t>(from), n, hz / 1.5, kRate);
    }
};

TEST_F(EveryKind, WaveMidiMp3MpegAndQuickTimeClipsPlayThroughTheSceneSupport) {
    struct stat st;
    const bool synth = ::stat(LX_MIDI_DEFAULT_SOUNDFONT, &st) == 0;
    // Sampled sound: 1 s of noise, recognisable sample for sample.
    const std::string wave = dir.file("noise.wav");
    ASSERT_EQ(0, lxtest::run("sox -q -n -r 44100 -c 2 -b 16 " + wave + " synth 1 whitenoise vol 0.5"));
    // MIDI: the ocarina (a near-sine voice) on middle C for 0.6 s.
    const std::string midi = dir.file("note.mid");
    ASSERT_TRUE(lxtest::writeFile(
        midi,
        miditest::smf(0, 96,
                      {miditest::track(miditest::tempoEvent(0, 500000) + std::string("\x00\xC0\x4F", 3) +
                                       miditest::noteOn(0, 0, 60, 110) + miditest::noteOff(115, 0, 60))})));
    const lxtest::Clip mp3 = lxtest::mp3Clip();
    const lxtest::Clip mpeg = lxtest::mpeg1Clip();
    const lxtest::Clip mov = lxtest::movVideoClip();
    ASSERT_FALSE(mp3.path.empty() || mpeg.path.empty() || mov.path.empty());

    const Played w = play(wave, 1.0);
    Played m;
    if (synth) {
        m = play(midi, 0.6);
    }
    const Played a = play(mp3.path, mp3.seconds);
    const Played v = play(mpeg.path, mpeg.seconds);
    const Played q = play(mov.path, mov.seconds);
    const std::vector<int16_t> heard = finishSound();

    // The factory's choices, and every clip reached its end.
    EXPECT_EQ(typeid(LxAMPlayer).name(), w.player) << "WAVE goes to the filter graph while it is usable";
    EXPECT_EQ(typeid(LxAMPlayer).name(), a.player);
    EXPECT_EQ(typeid(LxAMPlayer).name(), v.player);
    EXPECT_EQ(typeid(LxAMPlayer).name(), q.player);
    for (const Played* p : {&w, &a, &v, &q}) {
        EXPECT_TRUE(p->ended) << p->player;
    }
    EXPECT_TRUE(w.hadPort && a.hadPort && v.hadPort) << "clips with sound give the Sound node a port";
    EXPECT_FALSE(q.hadPort) << "a clip without sound has no port to give";

    // WAVE: the clip's own samples from its start time, for its length.
    const std::vector<int16_t> source = rendererkit::samples16(wave, 2, 0);
    const long wOn = onsetNear(heard, w.start);
    ASSERT_GE(wOn, 0) << "the WAVE clip was not heard near its start time";
    EXPECT_NEAR(w.start, timeAtFrame(wOn), 0.030);
    double score = 0.0;
    const long matched = rendererkit::bestOffset(heard, source, 1024, wOn - 200, wOn + 200, &score);
    EXPECT_GT(score, 0.99);
    long firstBad = -1;
    EXPECT_EQ(0u, rendererkit::mismatches(heard, static_cast<size_t>(matched), source, &firstBad))
        << "first differs at " << firstBad;
    EXPECT_NEAR(1.0, soundLength(heard, wOn), 0.030);

    // MIDI: middle C from its start time (with the synthesizer's look-ahead), for about its length.
    if (synth) {
        EXPECT_EQ(typeid(LxWin32MidiPlayer).name(), m.player);
        EXPECT_TRUE(m.ended);
        const long mOn = onsetNear(heard, m.start + 0.1, 300);
        ASSERT_GE(mOn, 0) << "the MIDI clip was not heard near its start time";
        std::printf("[ measured ] MIDI note heard %.1f ms after its start time\n",
                    (timeAtFrame(mOn) - m.start) * 1000);
        EXPECT_NEAR(m.start + 0.05, timeAtFrame(mOn), 0.1);
        EXPECT_TRUE(isTone(heard, mOn + static_cast<long>(kRate / 10), 261.63)) << "middle C";
    }

    // MP3: a 440 Hz tone from its start time to its end (3 s less the start-up lead).
    const long aOn = onsetNear(heard, a.start);
    ASSERT_GE(aOn, 0) << "the MP3 clip was not heard near its start time";
    EXPECT_NEAR(a.start, timeAtFrame(aOn), 0.040);
    EXPECT_TRUE(isTone(heard, aOn + static_cast<long>(kRate), 440.0));
    EXPECT_NEAR(mp3.seconds - a.lead, soundLength(heard, aOn), 0.05);

    // MPEG-1 system stream: its tone, and each picture shows the frame of its media time.
    const long vOn = onsetNear(heard, v.start);
    ASSERT_GE(vOn, 0) << "the MPEG clip's sound was not heard near its start time";
    EXPECT_NEAR(v.start, timeAtFrame(vOn), 0.040);
    EXPECT_TRUE(isTone(heard, vOn + static_cast<long>(kRate / 2), 440.0));
    size_t judged = 0;
    EXPECT_LE(worstFrame(v, 0.15, mpeg.seconds, &judged), 1);
    EXPECT_GT(judged, 25u) << "the host was given pictures";

    // QuickTime, video only: pictures in step, and nothing heard.
    EXPECT_LE(worstFrame(q, 0.15, mov.seconds, &judged), 1);
    EXPECT_GT(judged, 25u);
    EXPECT_LT(rendererkit::peak(heard, static_cast<size_t>(frameAtTime(q.start)),
                                static_cast<size_t>(frameAtTime(q.start + 1.5))),
              200);
}

class WithoutFilterGraph : public EveryKind {
  protected:
    WithoutFilterGraph() { filterGraph = false; }
};

TEST_F(WithoutFilterGraph, AWaveClipStillPlaysThroughTheWavePlayer) {
    const std::string wave = dir.file("noise.wav");
    ASSERT_EQ(0, lxtest::run("sox -q -n -r 22050 -c 1 -b 16 " + wave + " synth 0.5 whitenoise vol 0.5"));
    const Played w = play(wave, 0.5);
    const std::vector<int16_t> heard = finishSound();
    EXPECT_EQ(typeid(LxAudioPlayer).name(), w.player);
    EXPECT_TRUE(w.ended);
    const long on = onsetNear(heard, w.start);
    ASSERT_GE(on, 0) << "not heard near its start time";
    EXPECT_NEAR(w.start, timeAtFrame(on), 0.030);
    EXPECT_NEAR(0.5, soundLength(heard, on), 0.030);
}

}  // namespace
