// The concrete manager over the simulated platform: audio start-up, the once-per-process
// sound-card test, diagnostics and shutdown.
#include "LxWin32Manager.h"

#include "LxDiagnostics.h"
#include "LxLog.h"
#include "LxPlatformMidi.h"
#include "LxPlatformProbe.h"
#include "LxResult.h"
#include "LxVersionDetection.h"
#include "LxWin32Mixer.h"
#include "platform/LxpDuplex.h"
#include "platform/midi/LxpMidiSim.h"
#include "platform/sound/LxpSimulatedSound.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

using lxp::midisim::Operation;
namespace midisim = lxp::midisim;
namespace simsound = lxp::simsound;

class ProbeManager : public LxWin32Manager {
  public:
    using LxWin32Manager::LxWin32Manager;
    const LxChannelInfo& info(int type) const { return channelInfo[type]; }
};

class Win32ManagerTest : public ::testing::Test {
  protected:
    void SetUp() override { reset(); }
    void TearDown() override {
        lxp::duplex::reset();
        LxPlatformProbe::useSystem();
        LxPlatformSetMidiBackend(LX_MIDI_FLUIDSYNTH);
    }
    // Fresh simulated devices, no failures, and no saved sound-card test.
    static void reset() {
        simsound::use();
        LxPlatformSetMidiBackend(LX_MIDI_SIMULATED);
        midisim::reset();
        lxp::duplex::reset();
        LxPlatformProbe::useSimulated(LxSimulatedPlatform());
        LxResetDXAndWin32VersionCache();
        LxWin32Mixer::resetClassStateForTests();
        LxWin32Manager::resetExclusivityForTests();
        if (LxLogSink::enabled()) {
            LxLogSink::clear();
        }
    }

    ProbeManager* startAudio(long expected = LX_OK) {
        ProbeManager* m = new ProbeManager(&threads);
        m->setWindow(&window);
        EXPECT_EQ(expected, m->initSubSystem(INIT_TIMERS | INIT_AUDIO));
        return m;
    }

    KtDefaultThreadManager threads;
    LxWin32Window window;
};

TEST_F(Win32ManagerTest, CreationStartsTheTimersAndTheMixerOnce) {
    LxManager* m = LxManager::createManager(&threads);
    ASSERT_NE(nullptr, m);
    LxDiagnostics early;
    EXPECT_EQ(LX_ERR_NO_MIXER, m->getDiagnostics(early));
    EXPECT_EQ(LX_OK, m->initSubSystem(INIT_TIMERS | INIT_AUDIO));
    LxTimeBase* tb = m->getMasterTimeBase();
    LxMixer* mixer = m->getMixer();
    ASSERT_NE(nullptr, tb);
    ASSERT_NE(nullptr, mixer);
    EXPECT_EQ(LX_OK, m->initSubSystem(INIT_TIMERS | INIT_AUDIO | INIT_VIDEO));
    EXPECT_EQ(tb, m->getMasterTimeBase()) << "one time base and one mixer";
    EXPECT_EQ(mixer, m->getMixer());
    LxDiagnostics d;
    ASSERT_EQ(LX_OK, m->getDiagnostics(d));
    EXPECT_STREQ("Simulated Sound Card", d.soundDevice);
    EXPECT_EQ(1, d.midiCapable);
    m->closeManager();
}

TEST_F(Win32ManagerTest, TheSoundCardTestSetsTheChannelsOfEachKindOfCard) {
    const struct {
        const char* card;
        void (*arrange)();
        uint32_t exclusivity;
        short raw, midi;
        int excludes;  // both ways; -1: not checked
    } cases[] = {
        {"full duplex", [] {}, 0x111u, 64, 1, 0},
        {"half duplex", [] { lxp::duplex::setHalfDuplex(true); }, 0x011u, 64, 1, 1},
        {"no MIDI", [] { midisim::failNext(midisim::Open, lxp::MIDIERR_NODEVICE, 2); }, 0x001u, 64, 0, -1},
        {"no sampled audio",
         [] {
             simsound::failNext(lxp::sound::Op::DirectSoundCreate, -1);
             simsound::failNext(lxp::sound::Op::Initialize, -1);
         },
         0x110u, 0, 1, -1},
        {"neither",
         [] {
             simsound::failNext(lxp::sound::Op::DirectSoundCreate, -1);
             simsound::failNext(lxp::sound::Op::Initialize, -1);
             midisim::failNext(midisim::Open, lxp::MIDIERR_NODEVICE, 2);
         },
         0u, 0, 0, -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.card);
        reset();
        c.arrange();
        ProbeManager* m = startAudio();
        EXPECT_EQ(c.exclusivity, LxWin32Manager::exclusivityProperties);
        EXPECT_EQ(c.raw, m->info(LxRawChannel).maxChannels);
        EXPECT_EQ(c.midi, m->info(LxMidiChannel).maxChannels);
        if (c.excludes >= 0) {
            EXPECT_EQ(c.excludes, m->info(LxRawChannel).excludes[LxMidiChannel]);
            EXPECT_EQ(c.excludes, m->info(LxMidiChannel).excludes[LxRawChannel]);
        }
        if (c.raw == 0) {
            EXPECT_EQ(0, m->getMaxAudioChannels()) << "no sampled audio: the channel limit becomes 0";
        }
        EXPECT_EQ(0, m->info(LxRawChannel).started) << "the test leaves the sound device closed";
        EXPECT_EQ(0, lxp::duplex::openCount(lxp::duplex::SampledAudio));
        m->closeManager();
    }
    simsound::clearFailures();
}

TEST_F(Win32ManagerTest, SecondManagerReusesTheSavedResult) {
    lxtest::requireLog();
    lxp::duplex::setHalfDuplex(true);
    ProbeManager* first = startAudio();
    first->closeManager();
    simsound::clearCalls();
    LxLogSink::clear();

    ProbeManager* second = startAudio();
    for (const std::string& call : simsound::calls()) {
        EXPECT_EQ(std::string::npos, call.find("DirectSoundCreate")) << "no sound device opened again";
    }
    EXPECT_FALSE(LxLogSink::contains("couldn't open midi stream")) << "nor the MIDI stream";
    EXPECT_EQ(1, second->info(LxRawChannel).excludes[LxMidiChannel]);
    EXPECT_EQ(1, second->info(LxMidiChannel).excludes[LxRawChannel]);
    second->closeManager();
}

TEST_F(Win32ManagerTest, ConcurrentManagersTestTheCardOnce) {
    lxtest::requireLog();
    std::vector<std::thread> threadsStarting;
    for (int i = 0; i < 3; ++i) {
        threadsStarting.emplace_back([this] {
            ProbeManager* m = new ProbeManager(&threads);
            EXPECT_EQ(LX_OK, m->initSubSystem(INIT_TIMERS | INIT_AUDIO));
            EXPECT_EQ(64, m->info(LxRawChannel).maxChannels);
            m->closeManager();
        });
    }
    for (auto& t : threadsStarting) {
        t.join();
    }
    EXPECT_EQ(1u, LxLogSink::count("LxWin32Manager:  capable of simultaneous audio/MIDI\n"));
    EXPECT_EQ(2u, LxLogSink::count("already checked"));
}

TEST_F(Win32ManagerTest, MaxChannelsAtAudioStart) {
    ProbeManager* m = new ProbeManager(&threads);
    m->setMaxAudioChannels(8);
    ASSERT_EQ(LX_OK, m->initSubSystem(INIT_AUDIO));
    EXPECT_EQ(8, m->info(LxRawChannel).maxChannels);
    EXPECT_NE(nullptr, m->getMasterTimeBase()) << "audio starts the timers first";
    m->closeManager();
}

}  // namespace
