// The concrete manager over the simulated platform: audio start-up, the once-per-process
// sound-card test, diagnostics and shutdown.
#include "LxWin32Manager.h"

#include "LxDiagnostics.h"
#include "LxLog.h"
#include "platform/LxpDuplex.h"
#include "platform/midi/LxpMidiSim.h"
#include "platform/sound/LxpSimulatedSound.h"

#include "EveryKindRig.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

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
        everykind::restoreDevices();
    }
    // Fresh simulated devices, no failures, and no saved sound-card test.
    static void reset() {
        simsound::use();
        lxp::duplex::reset();
        everykind::simulateDevices();
        if (LxLogSink::enabled()) {
            LxLogSink::clear();
        }
    }

    KtDefaultThreadManager threads;
    LxWin32Window window;
};

// A limit set before audio starts is applied then; a second start makes no second time base or mixer.
TEST_F(Win32ManagerTest, AudioStartsOnceWithTheTimersAndTheLimitSetBefore) {
    ProbeManager* m = new ProbeManager(&threads);
    LxDiagnostics d;
    EXPECT_EQ(LX_ERR_NO_MIXER, m->getDiagnostics(d));
    m->setMaxAudioChannels(8);
    ASSERT_EQ(LX_OK, m->initSubSystem(INIT_AUDIO));
    EXPECT_EQ(8, m->info(LxRawChannel).maxChannels);
    LxTimeBase* tb = m->getMasterTimeBase();
    LxMixer* mixer = m->getMixer();
    ASSERT_NE(nullptr, tb) << "audio starts the timers first";
    ASSERT_NE(nullptr, mixer);
    EXPECT_EQ(LX_OK, m->initSubSystem(INIT_TIMERS | INIT_AUDIO | INIT_VIDEO));
    EXPECT_EQ(tb, m->getMasterTimeBase());
    EXPECT_EQ(mixer, m->getMixer());
    ASSERT_EQ(LX_OK, m->getDiagnostics(d));
    EXPECT_EQ(1, d.midiCapable);
    m->closeManager();
}

TEST_F(Win32ManagerTest, TheSoundCardTestSetsTheChannelsOfEachKindOfCard) {
    const struct {
        const char* card;
        bool halfDuplex, noMidi, noSampled;
        uint32_t exclusivity;
        short raw, midi;
        int excludes;  // both ways; -1: not checked
    } cases[] = {
        {"full duplex", false, false, false, 0x111u, 64, 1, 0},
        {"half duplex", true, false, false, 0x011u, 64, 1, 1},
        {"no MIDI", false, true, false, 0x001u, 64, 0, -1},
        {"no sampled audio", false, false, true, 0x110u, 0, 1, -1},
        {"neither", false, true, true, 0u, 0, 0, -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.card);
        reset();
        lxp::duplex::setHalfDuplex(c.halfDuplex);
        if (c.noMidi) {
            midisim::failNext(midisim::Open, lxp::MIDIERR_NODEVICE, 2);
        }
        if (c.noSampled) {
            simsound::failNext(lxp::sound::Op::DirectSoundCreate, -1);
            simsound::failNext(lxp::sound::Op::Initialize, -1);
        }
        ProbeManager* m = new ProbeManager(&threads);
        m->setWindow(&window);
        EXPECT_EQ(LX_OK, m->initSubSystem(INIT_TIMERS | INIT_AUDIO));
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

// Managers started at once on a half-duplex card test it once; the others take the saved result.
TEST_F(Win32ManagerTest, ConcurrentManagersTestTheCardOnce) {
    lxtest::requireLog();
    lxp::duplex::setHalfDuplex(true);
    std::vector<std::thread> threadsStarting;
    for (int i = 0; i < 3; ++i) {
        threadsStarting.emplace_back([this] {
            ProbeManager* m = new ProbeManager(&threads);
            EXPECT_EQ(LX_OK, m->initSubSystem(INIT_TIMERS | INIT_AUDIO));
            EXPECT_EQ(64, m->info(LxRawChannel).maxChannels);
            EXPECT_EQ(1, m->info(LxRawChannel).excludes[LxMidiChannel]);
            EXPECT_EQ(1, m->info(LxMidiChannel).excludes[LxRawChannel]);
            m->closeManager();
        });
    }
    for (auto& t : threadsStarting) {
        t.join();
    }
    EXPECT_EQ(1u, LxLogSink::count("couldn't open midi stream"));
    EXPECT_EQ(2u, LxLogSink::count("already checked"));
}

}  // namespace
