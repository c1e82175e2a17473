// The manager's default video renderer, and the renderer as a node of a player's graph: the
// player prefetches it, starts it and stops it, and hands it to the host.
#include "LxBaseVideoRenderer.h"

#include "LxManager.h"
#include "LxResult.h"
#include "LxTimeBase.h"
#include "TestPlayer.h"
#include "TestSupport.h"
#include "VideoTestKit.h"

#include <gtest/gtest.h>

namespace {

using lxtest::EventRecorder;
using lxtest::frameMark;
using lxtest::stampFrame;
using lxtest::TestPlayer;

class DefaultVideoRendererTest : public ::testing::Test {
  protected:
    void SetUp() override {
        manager = LxManager::createManager(&threads);
        ASSERT_NE(nullptr, manager);
        ASSERT_EQ(LX_OK, manager->initSubSystem(INIT_TIMERS));
    }
    void TearDown() override { manager->closeManager(); }

    /// A registered player whose only output is a "Video" output of that stream style.
    TestPlayer* videoPlayer(LxFormat::StreamStyle style, LxVideoOutputConnectable** out) {
        TestPlayer::Options options;
        options.audioOutput = false;
        options.startThread = false;
        TestPlayer* player = new TestPlayer(manager, options);
        LxVideoOutputConnectable* video = new LxVideoOutputConnectable();
        video->initFormats(640, 480, LxPixel32, style);
        video->initConnectable(player);
        player->adoptOutput("Video", video);
        player->startThread(&TestPlayer::entry);
        manager->addPlayer(player);
        *out = video;
        return player;
    }

    KtDefaultThreadManager threads;
    LxManager* manager = nullptr;
};

TEST_F(DefaultVideoRendererTest, ConnectsAVideoOutputOnceAndThePlayerHandsItOut) {
    LxVideoOutputConnectable* out = nullptr;
    TestPlayer* player = videoPlayer(LxFormat::PushStream, &out);
    EXPECT_EQ(LX_CONNECTED_VIDEO, manager->connectAllUnconnected(player));

    LxVideoRenderer* vr = nullptr;
    ASSERT_EQ(LX_OK, player->getVideoRenderer(&vr));
    LxBaseVideoRenderer* renderer = dynamic_cast<LxBaseVideoRenderer*>(vr);
    ASSERT_NE(nullptr, renderer);
    EXPECT_EQ(static_cast<LxInputConnectable*>(renderer), out->connectedTo());
    EXPECT_EQ(static_cast<LxOutputConnectable*>(out), renderer->connectedTo());
    LxVideoFormat* f = static_cast<LxVideoFormat*>(renderer->getFormat());
    ASSERT_NE(nullptr, f);
    EXPECT_EQ(640, f->getWidth());
    EXPECT_EQ(480, f->getHeight());
    EXPECT_EQ(LxPixel32, f->getPixelFormat());
    EXPECT_EQ(LxFormat::PushStream, f->getStreamStyle());

    // Connected outputs get no second renderer.
    EXPECT_EQ(LX_ERR_GENERIC, manager->addDefaultVideoRenderer(player));
    EXPECT_EQ(LX_CONNECTED_VIDEO, manager->connectAllUnconnected(player));
    LxVideoRenderer* again = nullptr;
    ASSERT_EQ(LX_OK, player->getVideoRenderer(&again));
    EXPECT_EQ(vr, again);
    // The renderer goes with the player (closeManager destroys both).
}

TEST_F(DefaultVideoRendererTest, NoRendererWithoutACommonFormatOrAVideoOutput) {
    LxVideoOutputConnectable* out = nullptr;
    // The renderer accepts push style only: a pull-style output finds no common format, and the
    // renderer made for it is not left behind (AddressSanitizer reports a leak otherwise).
    TestPlayer* player = videoPlayer(LxFormat::PullStream, &out);
    EXPECT_EQ(LX_ERR_NO_COMMON_FORMAT, manager->addDefaultVideoRenderer(player));
    EXPECT_EQ(nullptr, out->connectedTo());
    EXPECT_EQ(LX_ERR_CONNECT_OUTPUTS, manager->connectAllUnconnected(player));
    LxVideoRenderer* vr = reinterpret_cast<LxVideoRenderer*>(1);
    EXPECT_EQ(LX_ERR_GENERIC, player->getVideoRenderer(&vr)) << "the output dangles";
    EXPECT_EQ(nullptr, vr);

    TestPlayer::Options options;
    options.audioOutput = false;
    TestPlayer* silent = new TestPlayer(manager, options);
    manager->addPlayer(silent);
    EXPECT_EQ(LX_ERR_GENERIC, manager->addDefaultVideoRenderer(silent));
    EXPECT_EQ(LX_ERR_GENERIC, manager->addDefaultVideoRenderer(nullptr));
    ASSERT_EQ(LX_OK, silent->getVideoRenderer(&vr));
    EXPECT_EQ(nullptr, vr);
}

TEST_F(DefaultVideoRendererTest, PlayerPrefetchesStartsAndStopsTheRenderer) {
    LxVideoOutputConnectable* out = nullptr;
    TestPlayer* player = videoPlayer(LxFormat::PushStream, &out);
    ASSERT_EQ(LX_CONNECTED_VIDEO, manager->connectAllUnconnected(player));
    LxVideoRenderer* vr = nullptr;
    ASSERT_EQ(LX_OK, player->getVideoRenderer(&vr));
    LxBaseVideoRenderer* renderer = static_cast<LxBaseVideoRenderer*>(vr);
    ASSERT_TRUE(lxtest::waitUntil([&] { return player->getState() == LxNode::STOPPED; }));
    LxTimeBase* tb = manager->getMasterTimeBase();
    ASSERT_EQ(LX_OK, player->setTimeBase(tb));
    EventRecorder events(player);

    // The producer hands the first 640 x 480 frame in through its output.
    player->prefetch();
    LxFrame* first = renderer->getEmptyFrame(LxTime::zero());
    ASSERT_NE(nullptr, first);
    stampFrame(first, 0);
    out->queueFrame(static_cast<LxVideoFrame*>(first));
    ASSERT_TRUE(lxtest::waitUntil([&] { return player->flagsOf(renderer).prefetched; }));
    EXPECT_TRUE(renderer->hasPendingFrame()) << "the first frame is there before the start";
    EXPECT_EQ(LxNode::STOPPED, renderer->getState());

    // startAtTime returns once the renderer has confirmed its start.
    ASSERT_EQ(LX_OK, player->startAtTime(tb->getRefTime()));
    EXPECT_EQ(LxNode::STARTED, renderer->getState());
    EXPECT_TRUE(player->flagsOf(renderer).started);
    LxFrame* shown = renderer->attachFrameFromTime(LxTime(5, 0), LxTime::zero());
    EXPECT_EQ(first, shown);
    EXPECT_EQ(0, frameMark(shown));
    renderer->releaseFrame(shown);

    // A frame pushed and never shown goes back to the pool when the player stops.
    LxFrame* second = renderer->getEmptyFrame(LxTime::zero());
    ASSERT_NE(nullptr, second);
    stampFrame(second, 1);
    out->queueFrame(static_cast<LxVideoFrame*>(second));
    player->stop();
    EXPECT_TRUE(events.sees(LxStopByRequestEventType));
    EXPECT_EQ(LxNode::STOPPED, renderer->getState());
    EXPECT_EQ(0, renderer->getQueuedFrameCount());
    EXPECT_EQ(first, second) << "the frame released last is reused first";
    EXPECT_EQ(1, renderer->getFramesCreated());
    EXPECT_EQ(1, renderer->getFreeFrameCount());
}

}  // namespace
