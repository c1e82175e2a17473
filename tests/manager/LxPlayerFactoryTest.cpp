// The player factory: content names to player classes, the optional plug-in, and the fallback to
// the WAVE player when no filter graph can be used.
#include "LxAMPlayer.h"
#include "LxDataSource.h"
#include "LxLog.h"
#include "LxTimeBase.h"
#include "LxWin32MidiPlayer.h"
#include "platform/LxpDuplex.h"
#include "platform/dshow/LxpGraphConfig.h"
#include "platform/dshow/LxpRendererFilter.h"
#include "platform/sound/LxpSimulatedSound.h"

#include "EveryKindRig.h"
#include "TestSupport.h"
#include "WaveFiles.h"

#include <gtest/gtest.h>

namespace {

// A source that names any content type, over a file that is not there.
struct NamedSource : lxtest::GatedFileSource {
    explicit NamedSource(const char* contentName) : GatedFileSource("/nonexistent/clip", true) {
        setContentName(contentName);
    }
};

class FactoryTest : public ::testing::Test {
  protected:
    void SetUp() override {
        lxp::simsound::use();
        lxp::duplex::reset();
        everykind::simulateDevices();
        KtWin32Library::clearSearchDirectories();
        // The simulated graph keeps GStreamer (and GLib's threads) out of this threaded test.
        LxPlatformGraph::useSimulated();
    }
    void TearDown() override {
        lxp::graphtest::simulateGStreamerMissing(false);
        lxp::graphtest::refuseFilterRegistration(false);
        everykind::restoreDevices();
        KtWin32Library::clearSearchDirectories();
    }

    LxWin32Manager* startManager() {
        LxWin32Manager* m = static_cast<LxWin32Manager*>(LxManager::createManager(&threads));
        EXPECT_EQ(LX_OK, m->initSubSystem(INIT_TIMERS | INIT_AUDIO));
        return m;
    }

    // The class the factory picks for a content name (the player is destroyed again).
    template <class Expected>
    bool makes(LxWin32Manager* m, const char* contentName) {
        NamedSource source(contentName);
        LxPlayer* player = nullptr;
        if (m->createPlayer(&source, &player) != LX_OK || player == nullptr) {
            return false;
        }
        const bool right = dynamic_cast<Expected*>(player) != nullptr;
        EXPECT_EQ(LX_OK, m->verifyPlayer(player)) << "the factory registers what it makes";
        m->destroyPlayer(player);
        return right;
    }

    KtDefaultThreadManager threads;
};

TEST_F(FactoryTest, ContentNamesReachTheirPlayers) {
    LxWin32Manager* m = startManager();
    ASSERT_TRUE(m->isDirectShowAvailable());
    EXPECT_TRUE(makes<LxWin32MidiPlayer>(m, "music/midi"));
    EXPECT_TRUE(makes<LxWin32MidiPlayer>(m, "x-music/x-midi"));
    EXPECT_TRUE(makes<LxAMPlayer>(m, "audio/wav")) << "WAVE goes to the filter graph when it is usable";
    EXPECT_TRUE(makes<LxAMPlayer>(m, "text/html")) << "video and unknown content go to a general player";
    EXPECT_TRUE(makes<LxAMPlayer>(m, "MUSIC/MIDI")) << "names compare case-sensitively";
    m->closeManager();
}

TEST_F(FactoryTest, WithoutAFilterGraphEverythingButMidiGoesToTheWavePlayer) {
    LxPlatformGraph::useGStreamer();
    lxp::graphtest::simulateGStreamerMissing(true);
    LxWin32Manager* m = startManager();
    EXPECT_FALSE(m->isDirectShowAvailable());
    EXPECT_TRUE(makes<LxAudioPlayer>(m, "video/mpeg"));
    EXPECT_TRUE(makes<LxWin32MidiPlayer>(m, "music/midi"));
    m->closeManager();
}

TEST_F(FactoryTest, FilterLibraryThatRefusesToRegisterMeansNoFilterGraph) {
    lxtest::requireLog();
    lxp::unregisterClass(lxp::CLSID_LxAudioRenderer);  // as if this process never registered it
    lxp::unregisterClass(lxp::CLSID_LxVideoRenderer);
    lxp::graphtest::refuseFilterRegistration(true);
    LxWin32Manager* m = startManager();
    EXPECT_TRUE(LxLogSink::contains("LxWin32Manager: failed to register qlm13_dshow.dll\n"));
    EXPECT_FALSE(m->isDirectShowAvailable());
    EXPECT_TRUE(makes<LxAudioPlayer>(m, "audio/x-wav"));
    m->closeManager();

    lxp::graphtest::refuseFilterRegistration(false);
    LxResetDXAndWin32VersionCache();
    LxWin32Manager::resetExclusivityForTests();
    m = startManager();
    EXPECT_TRUE(LxLogSink::contains("LxWin32Manager: registered qlm13_dshow.dll\n"));
    EXPECT_TRUE(m->isDirectShowAvailable());
    m->closeManager();
}

// Absent, the plug-in's content is refused and the out parameter left alone; present, it plays.
TEST_F(FactoryTest, PluginMakesAWorkingPlayerOnlyWhenPresent) {
    LxWin32Manager* m = startManager();
    NamedSource source("application/x-sva");
    LxPlayer* player = reinterpret_cast<LxPlayer*>(0x1234);
    EXPECT_EQ(LX_ERR_GENERIC, m->createPlayer(&source, &player));
    EXPECT_EQ(reinterpret_cast<LxPlayer*>(0x1234), player);

    KtWin32Library::addSearchDirectory(LORVEX_TEST_PLUGIN_DIR);  // looked for at each creation
    ASSERT_EQ(LX_OK, m->createPlayer(&source, &player));
    EXPECT_EQ(LX_OK, m->verifyPlayer(player));
    ASSERT_TRUE(lxtest::waitUntil([&] { return player->getState() == LxNode::STOPPED; }, 20000));
    EXPECT_EQ(LX_OK, player->setTimeBase(m->getMasterTimeBase()));
    EXPECT_EQ(LX_OK, player->startAtTime(m->getMasterTimeBase()->getRefTime()));
    EXPECT_EQ(LxNode::STARTED, player->getState());
    EXPECT_EQ(LX_OK, m->destroyPlayer(player));
    m->closeManager();
}

}  // namespace
