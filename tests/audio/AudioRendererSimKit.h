// The audio renderer over the simulated sound card: a concrete manager, WAVE players on sox
// clips, and an output the test advances itself, so that what is heard can be compared sample by
// sample while the renderer and player threads run in real time.
#ifndef LORVEX_TESTS_AUDIO_RENDERER_SIM_KIT_H
#define LORVEX_TESTS_AUDIO_RENDERER_SIM_KIT_H

#include "LxAudioPlayer.h"
#include "LxDataSource.h"
#include "LxPlatformMidi.h"
#include "LxPlatformProbe.h"
#include "LxResult.h"
#include "LxTimeBase.h"
#include "LxVersionDetection.h"
#include "LxWin32AudioOutputPort.h"
#include "LxWin32AudioRenderer.h"
#include "LxWin32Manager.h"
#include "LxWin32Mixer.h"
#include "RendererTestKit.h"
#include "TestNodes.h"
#include "TestSupport.h"
#include "platform/LxpDuplex.h"
#include "platform/com/LxpCom.h"
#include "platform/dshow/LxpGraphIds.h"
#include "platform/kt/KtRecordingThreadManager.h"
#include "platform/midi/LxpMidiSim.h"
#include "platform/sound/LxpSimulatedSound.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

namespace rendererkit {

/// The renderer with its fields readable under its own lock.
class ProbeRenderer : public LxWin32AudioRenderer {
  public:
    using LxWin32AudioRenderer::LxWin32AudioRenderer;
    using LxWin32AudioRenderer::setDuration;

    struct Fields {
        int32_t bufferSize, frameBytes, bytesPerSecond, bytesPerFrame, lowWaterMark;
        char isResident, residentDone, residentStarted, eomDone, draining, tailPending, hasWritten,
            silentPacing, resetPending;
        int16_t portCount, framesCreated;
        LxNodeState state;
    };
    Fields fields() {
        waitNotify.lock();
        Fields f{bufferSize,   frameBytes,      bytesPerSecond, bytesPerFrame, lowWaterMark,     isResident,
                 residentDone, residentStarted, eomDone,        draining,      tailPending,      hasWritten,
                 silentPacing, resetPending,    portCount,      framesCreated, getCurrentState()};
        waitNotify.unlock();
        return f;
    }
    LxWin32AudioOutputPort* port(int i) {
        waitNotify.lock();
        LxWin32AudioOutputPort* p = i < portCount ? ports[i] : nullptr;
        waitNotify.unlock();
        return p;
    }
    LxWin32AudioPortConfig config() {
        waitNotify.lock();
        LxWin32AudioPortConfig c = portConfig != nullptr ? *portConfig : LxWin32AudioPortConfig();
        waitNotify.unlock();
        return c;
    }
    char threadIsRunning() {
        waitNotify.lock();
        const char r = threadRunning;
        waitNotify.unlock();
        return r;
    }
};

/// A producer the test drives by hand: a pull-style 16-bit mono output at 22050 Hz connected to
/// a renderer of its own, fed with half-second frames of a ramp that does not repeat within a test.
struct ManualProducer {
    ManualProducer(LxManager* manager, LxWin32Mixer* mixer, LxTimeBase* timeBase) : node(manager) {
        out.initFormats(LxSample16, LxMono, 22050.0f, 2, LxFormat::PullStream, 0);
        out.initConnectable(&node);
        renderer = std::make_unique<ProbeRenderer>(manager, mixer);
        EXPECT_EQ(LX_OK, manager->connect(&out, renderer.get()));
        EXPECT_EQ(LX_OK, renderer->setTimeBase(timeBase));
        renderer->setDuration(LxTime(-1, 0));
    }
    ~ManualProducer() { renderer.reset(); }  // the renderer goes before the output it pulls from

    static int16_t rampAt(int i) { return static_cast<int16_t>(1000 + (i % 20000)); }
    void feed(int frames) {
        for (int i = 0; i < frames; ++i) {
            auto* f = static_cast<LxAudioFrame*>(renderer->getEmptyFrame(LxTime(1, 0)));
            ASSERT_NE(nullptr, f);
            auto* s = reinterpret_cast<int16_t*>(f->data);
            for (int k = 0; k < f->fillable; ++k, ++next) {
                s[k] = rampAt(next);
            }
            f->filled = f->fillable;
            out.queueFrame(f);
        }
    }

    lxtest::TestNode node;
    LxAudioOutputConnectable out;
    std::unique_ptr<ProbeRenderer> renderer;
    int next = 0;
};

/// The concrete manager, with the arbitration's registration refusable at will.
class RefusingManager : public LxWin32Manager {
  public:
    using LxWin32Manager::LxWin32Manager;
    long requestPortChannel(LxAudioOutputPort* port, const LxTime& time) override {
        return refuse.load() ? LX_ERR_CHANNEL_TYPE_UNAVAILABLE
                             : LxWin32Manager::requestPortChannel(port, time);
    }
    std::atomic<bool> refuse{false};
};

/// A fresh simulated platform (sound card with a manual output, MIDI recorder, no filter graph)
/// and a started manager.
class RendererSimTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!lxtest::haveTool("sox")) {
            GTEST_SKIP() << "sox is not installed (scripts/install-deps.sh test installs it)";
        }
        LxPlatformSetMidiBackend(LX_MIDI_SIMULATED);
        lxp::midisim::reset();
        lxp::duplex::reset();
        lxp::comtest::reset();
        lxp::comtest::failCreate(lxp::CLSID_FilterGraph, -1);
        lxp::simsound::Config sound;
        sound.syncToClock = false;
        lxp::simsound::use(sound);
        LxPlatformProbe::useSimulated(LxSimulatedPlatform());
        LxResetDXAndWin32VersionCache();
        LxWin32Mixer::resetClassStateForTests();
        LxWin32Manager::resetExclusivityForTests();
        manager = win32 = new RefusingManager(&threads);
        manager->setWindow(&window);
        ASSERT_EQ(LX_OK, manager->initSubSystem(INIT_TIMERS | INIT_AUDIO));
        mixer = static_cast<LxWin32Mixer*>(manager->getMixer());
        timeBase = manager->getMasterTimeBase();
    }

    void TearDown() override {
        if (manager != nullptr) {
            manager->closeManager();
            manager = nullptr;
        }
        EXPECT_EQ(0, lxp::simsound::liveBuffers()) << "sound buffers outlived the manager";
        EXPECT_EQ(0, threads.liveThreads()) << "threads outlived the manager";
        sources.clear();
        LxPlatformProbe::useSystem();
        LxResetDXAndWin32VersionCache();
        LxPlatformSetMidiBackend(LX_MIDI_FLUIDSYNTH);
        lxp::comtest::reset();
    }

    /// A 16-bit clip in the test's folder; fails the test when sox cannot make it.
    std::string clip(const std::string& name, int rate, int channels, double seconds,
                     const std::string& effect) {
        const std::string path = soxClip16(dir, name, rate, channels, seconds, effect);
        EXPECT_FALSE(path.empty()) << "sox could not make " << name;
        return path;
    }

    /// A WAVE player on path through the manager's factory, initialised, heard by listener.
    LxPlayer* openPlayer(const std::string& path, lxtest::RecordingListener* listener = nullptr) {
        sources.push_back(std::make_unique<LxFilenameDataSource>(path.c_str()));
        LxPlayer* p = nullptr;
        EXPECT_EQ(LX_OK, manager->createPlayer(sources.back().get(), &p));
        if (p == nullptr) {
            return nullptr;
        }
        EXPECT_NE(nullptr, dynamic_cast<LxAudioPlayer*>(p)) << "the factory should make the WAVE player";
        if (listener != nullptr) {
            p->setEventListener(listener);
        }
        EXPECT_TRUE(lxtest::waitUntil([&] { return p->getState() == LxNode::STOPPED; }));
        return p;
    }

    /// Connects a ProbeRenderer to the player's "Audio" output, then gives the player the master
    /// time base (which makes the renderer set itself up).
    ProbeRenderer* attachProbe(LxPlayer* p) {
        LxOutputConnectable* out = nullptr;
        EXPECT_EQ(LX_OK, p->getOutputConnectable("Audio", &out));
        auto* r = new ProbeRenderer(manager, mixer);
        EXPECT_EQ(LX_OK, manager->connect(out, r));
        EXPECT_EQ(LX_CONNECTED_AUDIO, manager->connectAllUnconnected(p)) << "no second renderer";
        EXPECT_EQ(LX_OK, p->setTimeBase(timeBase));
        return r;
    }

    /// Renders ms of output in steps of 10 ms; before each step the renderer must have refilled
    /// its buffer to keep at least ahead of what plays (or have nothing left to write), so the
    /// comparison judges the renderer's data path and not the test's pace.
    void play(ProbeRenderer* r, int ms, double ahead = 0.3) {
        play(std::vector<ProbeRenderer*>{r}, ms, ahead);
    }
    void play(const std::vector<ProbeRenderer*>& renderers, int ms, double ahead = 0.3) {
        for (int t = 0; t < ms; t += 10) {
            for (ProbeRenderer* r : renderers) {
                ASSERT_TRUE(lxtest::waitUntil([&] { return ready(r, ahead); }))
                    << "the renderer did not keep its buffer filled";
            }
            lxp::simsound::advanceMs(10);
        }
    }
    static bool ready(ProbeRenderer* r, double ahead) {
        const ProbeRenderer::Fields f = r->fields();
        if (f.isResident) {
            // A resident clip is read in a few passes; it must all be in before it plays.
            return f.residentDone || f.state != LxNode::STARTED;
        }
        if (f.state != LxNode::STARTED || f.draining || f.eomDone) {
            return true;
        }
        // A buffer never written reports itself full: only a written one has a level.
        return f.hasWritten && r->port(0)->getFilled() >= static_cast<long>(ahead * f.bytesPerSecond);
    }

    /// Starts p now and waits until its renderer has written its first samples.
    void startNow(LxPlayer* p, ProbeRenderer* r) {
        ASSERT_EQ(LX_OK, p->startAtTime(timeBase->getRefTime()));
        ASSERT_TRUE(lxtest::waitUntil([&] {
            const ProbeRenderer::Fields f = r->fields();
            return f.hasWritten || f.residentStarted || f.residentDone;
        })) << "nothing was written";
    }

    /// The output so far as 16-bit samples of one channel.
    std::vector<int16_t> heard(int channel = 0) { return toInt16(lxp::simsound::outputChannel(channel)); }

    KtRecordingThreadManager threads;
    LxWin32Window window{reinterpret_cast<LxHwnd>(0x1234)};
    LxManager* manager = nullptr;
    RefusingManager* win32 = nullptr;
    LxWin32Mixer* mixer = nullptr;
    LxTimeBase* timeBase = nullptr;
    lxtest::TempDir dir;
    std::vector<std::unique_ptr<LxFilenameDataSource>> sources;
};

}  // namespace rendererkit

#endif
