// The audio renderer on the simulated sound card under a real manager and WAVE players: the test
// advances the output itself, so what is heard compares sample for sample with the clip.
#include "LxAudioPlayer.h"
#include "LxDataSource.h"
#include "LxLog.h"
#include "LxPlatformMidi.h"
#include "LxPlatformProbe.h"
#include "LxTimeBase.h"
#include "LxVersionDetection.h"
#include "LxWin32AudioOutputPort.h"
#include "LxWin32AudioRenderer.h"
#include "LxWin32Manager.h"
#include "LxWin32Mixer.h"
#include "RendererKit.h"
#include "TestNodes.h"
#include "platform/com/LxpCom.h"
#include "platform/dshow/LxpGraphIds.h"
#include "platform/kt/KtRecordingThreadManager.h"
#include "platform/midi/LxpMidiSim.h"
#include "platform/sound/LxpSimulatedSound.h"

#include <gtest/gtest.h>

#include <memory>
#include <numeric>

namespace {

using namespace rendererkit;
namespace simsound = lxp::simsound;

/// The renderer with its fields readable under its own lock.
class ProbeRenderer : public LxWin32AudioRenderer {
  public:
    using LxWin32AudioRenderer::LxWin32AudioRenderer;
    using LxWin32AudioRenderer::setDuration;
    ~ProbeRenderer() override { stopThread(); }
    struct Fields {
        int32_t bufferSize, frameBytes, bytesPerSecond, lowWaterMark;
        char isResident, residentDone, residentStarted, eomDone, draining, hasWritten, silentPacing,
            resetPending;
        int16_t framesCreated;
        LxNodeState state;
    };
    Fields fields() {
        KtScopedLock<KtWaitNotify> guard(waitNotify);
        return Fields{bufferSize,   frameBytes,      bytesPerSecond, lowWaterMark,     isResident,
                      residentDone, residentStarted, eomDone,        draining,         hasWritten,
                      silentPacing, resetPending,    framesCreated,  getCurrentState()};
    }
    LxWin32AudioOutputPort* port(int i) {
        KtScopedLock<KtWaitNotify> guard(waitNotify);
        return i < portCount ? ports[i] : nullptr;
    }
};

struct Clip {
    std::string path;
    std::unique_ptr<LxFilenameDataSource> source;
    lxtest::RecordingListener events;
    LxPlayer* p = nullptr;
    ProbeRenderer* r = nullptr;
};

class AudioRendererTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!lxtest::haveTool("sox")) {
            GTEST_SKIP() << "sox is not installed (scripts/install-deps.sh test installs it)";
        }
        LxPlatformSetMidiBackend(LX_MIDI_SIMULATED);
        lxp::midisim::reset();
        lxp::comtest::reset();
        lxp::comtest::failCreate(lxp::CLSID_FilterGraph, -1);  // the factory makes the WAVE player
        simsound::Config sound;
        sound.syncToClock = false;
        simsound::use(sound);
        LxPlatformProbe::useSimulated(LxSimulatedPlatform());
        LxResetDXAndWin32VersionCache();
        LxWin32Mixer::resetClassStateForTests();
        LxWin32Manager::resetExclusivityForTests();
        manager = new LxWin32Manager(&threads);
        manager->setWindow(&window);
        ASSERT_EQ(LX_OK, manager->initSubSystem(INIT_TIMERS | INIT_AUDIO));
        mixer = static_cast<LxWin32Mixer*>(manager->getMixer());
        timeBase = manager->getMasterTimeBase();
    }
    void TearDown() override {
        if (manager != nullptr) {
            manager->closeManager();
        }
        EXPECT_EQ(0, simsound::liveBuffers()) << "sound buffers outlived the manager";
        EXPECT_EQ(0, threads.liveThreads()) << "threads outlived the manager";
        LxPlatformProbe::useSystem();
        LxResetDXAndWin32VersionCache();
        LxPlatformSetMidiBackend(LX_MIDI_FLUIDSYNTH);
        lxp::comtest::reset();
    }

    /// A renderer given a pull-style format, then the duration (which sets it up).
    std::unique_ptr<ProbeRenderer> renderer(LxSampleFormat_s sf, LxAudioChannels_s ch, float rate,
                                            char streaming, double seconds) {
        auto r = std::make_unique<ProbeRenderer>(manager, mixer);
        LxAudioFormat* format = new LxAudioFormat(sf, ch, rate, streaming, LxFormat::PullStream);
        EXPECT_EQ(LX_OK, r->setFormat(format));
        format->unref();  // the renderer holds its own reference
        r->setDuration(LxTime(seconds));
        return r;
    }
    /// A WAVE player from the factory on a 44.1 kHz sox clip ("sine 440", "whitenoise"),
    /// initialised, with a ProbeRenderer behind its "Audio" and the master time base (which sets
    /// the renderer up). The manager closes it before its listener goes.
    Clip& load(const std::string& name, int channels, double seconds, const std::string& effect) {
        clips.push_back(std::make_unique<Clip>());
        Clip& c = *clips.back();
        c.path = soxClip16(dir, name, 44100, channels, seconds, effect);
        EXPECT_FALSE(c.path.empty());
        c.source = std::make_unique<LxFilenameDataSource>(c.path.c_str());
        EXPECT_EQ(LX_OK, manager->createPlayer(c.source.get(), &c.p));
        EXPECT_NE(nullptr, dynamic_cast<LxAudioPlayer*>(c.p));
        c.p->setEventListener(&c.events);
        EXPECT_TRUE(lxtest::waitUntil([&] { return c.p->getState() == LxNode::STOPPED; }));
        LxOutputConnectable* out = nullptr;
        c.p->getOutputConnectable("Audio", &out);
        c.r = new ProbeRenderer(manager, mixer);
        EXPECT_EQ(LX_OK, manager->connect(out, c.r));
        EXPECT_EQ(LX_CONNECTED_AUDIO, manager->connectAllUnconnected(c.p)) << "no second renderer";
        EXPECT_EQ(LX_OK, c.p->setTimeBase(timeBase));
        return c;
    }
    /// Starts a clip now; returns once its renderer has written its first samples, loaded its
    /// resident clip, or started a loaded one again.
    void start(Clip& c) {
        const bool replay = c.r->fields().residentDone;
        ASSERT_EQ(LX_OK, c.p->startAtTime(timeBase->getRefTime()));
        ASSERT_TRUE(lxtest::waitUntil([&] {
            const ProbeRenderer::Fields f = c.r->fields();
            return replay ? f.residentStarted != 0 : f.hasWritten || f.residentDone;
        }));
    }
    /// Renders ms of output 10 ms at a time, each step once every renderer has kept ahead of the
    /// output (a buffer never written reports itself full, so only a written one counts): the
    /// comparison then judges the renderer's data path, not the test's pace.
    void play(std::vector<ProbeRenderer*> rs, int ms) {
        for (int t = 0; t < ms; t += 10) {
            for (ProbeRenderer* r : rs) {
                ASSERT_TRUE(lxtest::waitUntil([&] {
                    const ProbeRenderer::Fields f = r->fields();
                    if (f.isResident || f.state != LxNode::STARTED || f.draining || f.eomDone) {
                        return !f.isResident || f.residentDone || f.state != LxNode::STARTED;
                    }
                    return f.hasWritten && r->port(0)->getFilled() >= f.bytesPerSecond * 3 / 10;
                })) << "the renderer did not keep its buffer filled";
            }
            simsound::advanceMs(10);
        }
    }
    static std::vector<int16_t> heard(int ch = 0) {
        std::vector<int16_t> out;
        for (float f : simsound::outputChannel(ch)) {
            out.push_back(
                static_cast<int16_t>(std::lround(std::max(-32768.0f, std::min(32767.0f, f * 32768.0f)))));
        }
        return out;
    }
    /// The output is ref, from its first sample, then at least `silence` samples of silence.
    static void expectClipThenSilence(const std::vector<int16_t>& out, const std::vector<int16_t>& ref,
                                      size_t silence) {
        long first = -1;
        EXPECT_EQ(0u, mismatches(out, 0, ref, &first))
            << "first wrong sample at " << first << " of " << ref.size();
        EXPECT_GE(out.size(), ref.size() + silence);
        EXPECT_LE(peak(out, ref.size(), ref.size() + silence), 1) << "sound after the clip's end";
    }

    KtRecordingThreadManager threads;
    LxWin32Window window{reinterpret_cast<LxHwnd>(0x1234)};
    LxWin32Manager* manager = nullptr;
    LxWin32Mixer* mixer = nullptr;
    LxTimeBase* timeBase = nullptr;
    lxtest::TempDir dir;
    std::vector<std::unique_ptr<Clip>> clips;
};

TEST_F(AudioRendererTest, BuffersAndFramesAreSizedFromTheClipOnce) {
    struct {
        LxSampleFormat_s sf;
        LxAudioChannels_s ch;
        float rate;
        char streaming;
        double seconds;
        char resident;
        int32_t bufferSize, frameBytes, lowWaterMark;
    } const cases[] = {
        {LxSample16, LxStereo, 44100, 0, 1.0, 1, 176400, 88200, 13230},   // exactly the clip
        {LxSample16, LxStereo, 44100, 0, 2.0, 0, 264600, 88200, 13230},   // 2 s streams: 1.5 s
        {LxSample16, LxStereo, 44100, 0, -1.0, 0, 264600, 88200, 13230},  // unknown length streams
        {LxSample8, LxMono, 11025, 0, 3.0, 0, 16538, 5513, 826},          // 16537.5 rounds up
        {LxSample16, LxMono, 11025, 0, 3.0, 0, 33076, 11026, 1653},       // whole sample frames
        {LxSample16, LxStereo, 1, 0, 3.0, 0, 8, 4, 0},                    // 1 Hz: a frame holds one
        {LxSample8, LxStereo, 8000, 0, 1.9, 1, 30400, 8000, 1200},        // 1.9 s is inexact
        {LxSample16, LxStereo, 22050, 1, 10.0, 0, 529200, 44100, 6615},   // a streaming source: 6 s
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.rate << " Hz, " << c.seconds << " s");
        auto r = renderer(c.sf, c.ch, c.rate, c.streaming, c.seconds);
        r->setDuration(LxTime(c.seconds + 5.0));  // a later duration changes nothing of the set-up
        const ProbeRenderer::Fields f = r->fields();
        EXPECT_EQ(c.resident, f.isResident);
        EXPECT_EQ(c.bufferSize, f.bufferSize);
        EXPECT_EQ(c.frameBytes, f.frameBytes);
        EXPECT_EQ(c.lowWaterMark, f.lowWaterMark);
        EXPECT_EQ(6, f.framesCreated);
        EXPECT_EQ(1, simsound::liveBuffers()) << "one master port and buffer";
    }
}

// Streaming (2.5 s) and resident (1 s) clips: every sample once, in order, then silence; the
// player reports the end and stops. A resident clip started again plays from its buffer.
TEST_F(AudioRendererTest, StreamingAndResidentClipsAreHeardWholeThenSilence) {
    for (const double seconds : {2.5, 1.0}) {
        SCOPED_TRACE(seconds);
        simsound::clearOutput();
        Clip& c = load(seconds > 2 ? "long.wav" : "short.wav", 2, seconds, "whitenoise");
        EXPECT_EQ(seconds < 2 ? 1 : 0, c.r->fields().isResident);
        start(c);
        play({c.r}, static_cast<int>(seconds * 1000) + 600);
        EXPECT_TRUE(lxtest::waitUntil([&] { return c.events.count(LxEndOfMediaEventType) == 1; }));
        EXPECT_TRUE(lxtest::waitUntil([&] { return c.p->getState() == LxNode::STOPPED; }));
        for (int ch = 0; ch < 2; ++ch) {
            expectClipThenSilence(heard(ch), samples16(c.path, 2, ch), 22050);
        }
        if (seconds < 2) {
            simsound::clearOutput();
            start(c);
            play({c.r}, 1200);
            expectClipThenSilence(heard(0), samples16(c.path, 2, 0), 4410);
        }
        manager->destroyPlayer(c.p);
    }
}

// isSounding(): 1 from the start (even one still ahead) until the clip's last sample has been
// mixed, although end of media comes earlier (a resident clip's once it is loaded, a streaming
// clip's 300 ms before its last sample, whatever the output's pace); 0 at once after a stop, and
// at a stop time that comes while a resident clip plays out alone (though the output stands).
TEST_F(AudioRendererTest, APortIsSoundingFromItsStartUntilItsLastSampleIsMixed) {
    struct {
        double seconds;
        float rate;
        double ahead;
        bool stopEarly;
        double stopAt;
    } const cases[] = {{1.0, 1.0f, 0.3, false, 0},
                       {2.5, 1.0f, 0.0, false, 0},
                       {1.0, 0.5f, 0.0, false, 0},
                       {2.5, 1.0f, 0.0, true, 0},
                       {1.0, 1.0f, 0.0, false, 0.4}};
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.seconds << " s at rate " << c.rate
                                          << (c.stopEarly ? ", stop" : "") << " stop time " << c.stopAt);
        simsound::clearOutput();
        Clip& k = load(c.seconds > 2 ? "s.wav" : "r.wav", 1, c.seconds, "sine 440");
        LxPlayer* p = k.p;
        LxAudioOutputPort* port = nullptr;
        ASSERT_EQ(LX_OK, p->getNewAudioPort(&port));
        EXPECT_EQ(0, port->isSounding()) << "before the start";
        float rate = c.rate;
        ASSERT_EQ(LX_OK, p->setRate(&rate));
        const double at = timeBase->getRefTime().getValue() + c.ahead;
        if (c.stopAt > 0) {
            ASSERT_EQ(LX_OK, p->stopAtTime(LxTime(at + c.stopAt)));
        }
        ASSERT_EQ(LX_OK, p->startAtTime(LxTime(at)));
        EXPECT_EQ(1, port->isSounding()) << "scheduled";
        if (c.stopAt > 0) {
            ASSERT_TRUE(lxtest::waitUntil([&] {
                return k.events.count(LxEndOfMediaEventType) == 1 && port->isSounding() == 0;
            })) << "the stop time was ignored";
            EXPECT_GE(timeBase->getRefTime().getValue(), at + c.stopAt - 0.002) << "silenced early";
            continue;
        }
        if (c.stopEarly) {
            play({k.r}, 300);
            p->stop();
            EXPECT_EQ(0, port->isSounding()) << "after a stop";
            continue;
        }
        const double lengthMs = c.seconds * 1000.0 / c.rate;
        const double start = simsound::renderedMs();
        auto feeding = [&] {
            const ProbeRenderer::Fields f = k.r->fields();
            return f.state == LxNode::STARTED && !f.draining;
        };
        while (feeding() && simsound::renderedMs() - start < lengthMs + 500) {
            play({k.r}, 10);
        }
        ASSERT_TRUE(lxtest::waitUntil([&] { return k.events.count(LxEndOfMediaEventType) == 1; }));
        // The output holds still: what is left is not heard yet, however long the clock runs on.
        const double eom = timeBase->getRefTime().getValue();
        ASSERT_TRUE(lxtest::waitUntil([&] { return timeBase->getRefTime().getValue() > eom + 0.4; }));
        EXPECT_EQ(1, port->isSounding()) << "the rest of the clip is not heard yet";
        double fall = -1;
        while (fall < 0 && simsound::renderedMs() - start < lengthMs + 2000) {
            simsound::advanceMs(10);
            // Near the end the renderer's thread gets a moment to see the cursor pass.
            const bool nearEnd = simsound::renderedMs() - start > lengthMs - 20;
            if (lxtest::waitUntil([&] { return port->isSounding() == 0; }, nearEnd ? 100 : 0)) {
                fall = simsound::renderedMs() - start;
            }
        }
        const double endMs = endOfSound(heard(), 300) / 44.1;
        EXPECT_NEAR(lengthMs, endMs, lengthMs * 0.02) << "not heard for the clip's length";
        EXPECT_GE(fall, endMs - 1) << "stopped sounding before the last sample";
        EXPECT_LE(fall, endMs + 120) << "still sounding long after the last sample";
    }
}

// A looping resident clip repeats from its buffer (the producer's frames are not needed any more);
// a stop silences it before stop() returns.
TEST_F(AudioRendererTest, AResidentClipLoopsFromItsBufferAndStopsAtOnce) {
    lxtest::requireLog();
    Clip& c = load("beat.wav", 1, 0.5, "whitenoise");
    c.p->setLoop(1);
    start(c);
    play({c.r}, 1600);
    EXPECT_TRUE(lxtest::waitUntil([] { return LxLogSink::contains("LxAR:  pull and toss\n"); }));
    c.p->stop();
    play({c.r}, 200);
    const std::vector<int16_t> out = heard();
    long first = -1;
    EXPECT_EQ(0u, mismatches(out, 0, repeat(samples16(c.path), 3), &first)) << "first wrong at " << first;
    EXPECT_LE(peak(out, 44100 * 16 / 10 + 441, out.size()), 1) << "heard after stop()";
}

// A stop silences a streaming clip before stop() returns; a restart at another media time plays
// from there.
TEST_F(AudioRendererTest, AStreamingStopSilencesAtOnceAndARestartPlaysFromTheNewPosition) {
    Clip& c = load("stop.wav", 1, 4.0, "whitenoise");
    start(c);
    play({c.r}, 1000);
    c.p->stop();
    play({c.r}, 300);
    const std::vector<int16_t> all = samples16(c.path);
    std::vector<int16_t> out = heard();
    long first = -1;
    EXPECT_EQ(0u, mismatches(out, 0, std::vector<int16_t>(all.begin(), all.begin() + 44100), &first));
    EXPECT_LE(peak(out, 44100, out.size()), 1) << "heard after stop()";

    simsound::clearOutput();
    ASSERT_EQ(LX_OK, c.p->setMediaTime(LxTime(2, 500000)));
    start(c);
    play({c.r}, 2000);
    expectClipThenSilence(heard(), std::vector<int16_t>(all.begin() + 110250, all.end()), 4410);
}

// A producer that falls behind: once the level is below the low-water mark the renderer pads
// with silence, so the buffer never plays its old samples again; late frames follow the gap whole.
TEST_F(AudioRendererTest, AnUnderRunIsPaddedWithSilenceAndLateFramesFollowTheGap) {
    lxtest::TestNode node(manager);
    LxAudioOutputConnectable out;
    out.initFormats(LxSample16, LxMono, 22050.0f, 2, LxFormat::PullStream, 0);
    out.initConnectable(&node);
    auto r = std::make_unique<ProbeRenderer>(manager, mixer);
    ASSERT_EQ(LX_OK, manager->connect(&out, r.get()));
    ASSERT_EQ(LX_OK, r->setTimeBase(timeBase));
    r->setDuration(LxTime(-1, 0));
    int next = 0;
    auto feed = [&](int frames) {
        for (int i = 0; i < frames; ++i) {
            auto* f = static_cast<LxAudioFrame*>(r->getEmptyFrame(LxTime(1, 0)));
            for (int k = 0; k < f->fillable; ++k, ++next) {
                reinterpret_cast<int16_t*>(f->data)[k] = static_cast<int16_t>(1000 + next);
            }
            f->filled = f->fillable;
            out.queueFrame(f);
        }
    };
    // The output moves on only while the renderer keeps three quarters of its low-water mark:
    // a missed pass on a loaded machine must not fail the test, a renderer that never pads must.
    const long keep = r->fields().lowWaterMark * 3 / 4;
    auto advance = [&](int ms) {
        for (int t = 0; t < ms; t += 10) {
            ASSERT_TRUE(lxtest::waitUntil([&] { return r->port(0)->getFilled() > keep; })) << "ran dry";
            simsound::advanceMs(10);
        }
    };
    feed(2);
    ASSERT_EQ(LX_OK, r->startAtTime(timeBase->getRefTime()));
    ASSERT_TRUE(lxtest::waitUntil([&] { return r->fields().hasWritten != 0; }));
    advance(2200);
    feed(2);
    ASSERT_TRUE(lxtest::waitUntil([&] { return r->port(0)->getFilled() > 11025; }));
    advance(1200);
    r->stop();

    ASSERT_EQ(22050u, simsound::outputFormat().rate) << "the output follows the clip: samples compare 1:1";
    const std::vector<int16_t> heardOut = heard();
    std::vector<int16_t> ramp(44100);
    std::iota(ramp.begin(), ramp.end(), int16_t{1000});
    long first = -1;
    EXPECT_EQ(0u, mismatches(heardOut, 0, std::vector<int16_t>(ramp.begin(), ramp.begin() + 22050), &first));
    const long resumed = firstAbove(heardOut, 500, 22050);
    EXPECT_GT(resumed, 22050 + 11025) << "no gap while the producer was late";
    EXPECT_LE(peak(heardOut, 22050, resumed), 1) << "old buffer contents heard in the gap";
    EXPECT_EQ(0u,
              mismatches(heardOut, resumed, std::vector<int16_t>(ramp.begin() + 22050, ramp.end()), &first))
        << "the late frames are not heard whole; first wrong sample at " << first;
}

// A backward clock has a negative lead until it starts: waited for by its size, the clip starts
// on time (read as an unsigned count it would be weeks; taken as none, at once).
TEST_F(AudioRendererTest, ABackwardClockIsWaitedForUntilItsStart) {
    auto r = renderer(LxSample16, LxMono, 22050, 0, 3.0);
    ASSERT_EQ(LX_OK, r->setTimeBase(timeBase));
    float back = -1.0f;
    ASSERT_EQ(LX_OK, r->setRate(&back));
    const LxTime at(timeBase->getRefTime().getValue() + 0.3);
    ASSERT_EQ(LX_OK, r->startAtTime(at));
    r->notifyEndOfMedia();  // nothing to play: the end is reached as soon as the clock starts
    ASSERT_TRUE(lxtest::waitUntil([&] { return r->fields().eomDone != 0; }, 20000)) << "never started";
    EXPECT_GE(timeBase->getRefTime().getValue(), at.getValue() - 0.005) << "went on before the start";
}

// One channel, two resident clips: the weaker waits silently, counting as sounding, while the
// stronger is heard whole (its end of media, posted once it is loaded, gives nothing up), and
// gets the channel once the stronger one's last sample has played.
TEST_F(AudioRendererTest, AWaitingResidentClipSoundsAndComesInOnceTheStrongerHasBeenHeard) {
    ASSERT_EQ(LX_OK, manager->setMaxAudioChannels(1));
    Clip* c[2];
    LxAudioOutputPort* port[2];
    for (int i = 0; i < 2; ++i) {
        c[i] = &load(i ? "weak.wav" : "strong.wav", 1, i ? 1.9 : 0.5, i ? "sine 660" : "sine 440");
        ASSERT_EQ(LX_OK, c[i]->p->getNewAudioPort(&port[i]));
        port[i]->setPriority(i ? 0.1f : 0.9f);
        start(*c[i]);
    }
    ASSERT_TRUE(lxtest::waitUntil([&] { return c[1]->events.count(LxEndOfMediaEventType) == 1; }));
    play({c[0]->r, c[1]->r}, 450);
    EXPECT_TRUE(port[0]->hasChannel() && !port[1]->hasChannel()) << "the channel changed hands early";
    EXPECT_EQ(1, port[1]->isSounding()) << "a clip waiting for a channel lets its host stop";
    play({c[0]->r, c[1]->r}, 150);
    EXPECT_GT(tonePower(heard(), 17640, 4410, 440.0, 44100.0), 0.01) << "the stronger clip was cut";
    EXPECT_LT(tonePower(heard(), 0, 22050, 660.0, 44100.0), 0.0001) << "heard beyond the channel limit";
    EXPECT_TRUE(lxtest::waitUntil([&] { return port[1]->hasChannel() && port[0]->isSounding() == 0; }))
        << "the channel did not go on once the stronger clip had been heard";
}

// destroyPlayer on a playing clip: silent at once; its buffer and threads are gone when it returns,
// and its channel goes to the clip that waits.
TEST_F(AudioRendererTest, DestroyingAPlayingPlayerSilencesItAndGivesEverythingBack) {
    ASSERT_EQ(LX_OK, manager->setMaxAudioChannels(1));
    Clip& first = load("a.wav", 1, 3.0, "sine 440");
    Clip& second = load("b.wav", 1, 3.0, "sine 660");
    start(first);
    start(second);
    play({first.r, second.r}, 300);
    const int buffers = simsound::liveBuffers();
    const int threadCount = threads.liveThreads();
    ASSERT_EQ(LX_OK, manager->destroyPlayer(first.p));
    EXPECT_EQ(buffers - 1, simsound::liveBuffers());
    EXPECT_EQ(threadCount - 3, threads.liveThreads())
        << "the player's, its renderer's and its event poster's";
    simsound::clearOutput();
    simsound::advanceMs(30);  // the waiting clip may come in already; the destroyed one is gone
    EXPECT_LT(tonePower(heard(), 0, 1323, 440.0, 44100.0), 0.005) << "still heard";
    ProbeRenderer* r = second.r;
    ASSERT_TRUE(lxtest::waitUntil([&] { return r->port(0)->hasChannel() && !r->fields().silentPacing; }));
    ASSERT_TRUE(lxtest::waitUntil([&] { return !r->fields().resetPending; }));
    simsound::clearOutput();
    play({r}, 400);
    EXPECT_GT(tonePower(heard(), 4410, 13230, 660.0, 44100.0), 0.01) << "the freed channel was not given on";
}

// Two sound sources of one clip, far left at full gain and far right at half gain: both output
// channels hold the clip, one at twice the level of the other. The first port is the master,
// further ones duplicates with channels of their own, up to 32 in all; none outlives the player.
TEST_F(AudioRendererTest, PortsOfOneClipSoundAtTheirOwnPlacesAndGainsUpToThirtyTwo) {
    ASSERT_EQ(LX_OK, manager->setSpatializeSounds(1));  // duplicates need buffers with 3D control
    Clip& c = load("noise.wav", 1, 2.5, "whitenoise");
    LxAudioOutputPort* a = nullptr;
    LxAudioOutputPort* b = nullptr;
    ASSERT_EQ(LX_OK, c.p->getNewAudioPort(&a));
    ASSERT_EQ(LX_OK, c.p->getNewAudioPort(&b));
    EXPECT_EQ(c.r->port(0), a);
    const float left[3] = {-5.0f, 0.0f, 0.0f};
    const float right[3] = {5.0f, 0.0f, 0.0f};
    a->setSoundLocation(left);
    b->setSoundLocation(right);
    b->setGain(0.5f);
    start(c);
    play({c.r}, 1500);
    const std::vector<int16_t> mono = samples16(c.path);
    double scores[2];
    int peaks[2];
    for (int ch = 0; ch < 2; ++ch) {
        EXPECT_EQ(0, bestOffset(heard(ch), mono, 4096, 0, 64, &scores[ch]));
        EXPECT_GT(scores[ch], 0.99) << "channel " << ch << " does not hold the clip";
        peaks[ch] = peak(heard(ch), 0, 44100);
    }
    EXPECT_NEAR(2.0, double(std::max(peaks[0], peaks[1])) / std::max(1, std::min(peaks[0], peaks[1])), 0.15);

    for (int i = 3; i <= LxWin32AudioRenderer::kMaxPorts; ++i) {
        LxAudioOutputPort* dup = nullptr;
        ASSERT_EQ(LX_OK, c.p->getNewAudioPort(&dup)) << "port " << i;
        EXPECT_TRUE(dup != a && dup->hasChannel()) << "port " << i;
    }
    EXPECT_EQ(LX_ERR_GENERIC, c.p->getNewAudioPort(&a)) << "a 33rd port";
    EXPECT_EQ(32, simsound::liveBuffers());
    manager->destroyPlayer(c.p);
    EXPECT_EQ(0, simsound::liveBuffers()) << "the renderer's ports kept their buffers";
}

}  // namespace
