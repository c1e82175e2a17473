// The manager's default video renderer: one per video output, handed out by the player, and none
// left behind when the formats do not agree.
#include "LxBaseVideoRenderer.h"

#include "LxManager.h"
#include "LxResult.h"
#include "TestPlayer.h"

#include <gtest/gtest.h>

namespace {

using lxtest::TestPlayer;

class DefaultVideoRendererTest : public ::testing::Test {
  protected:
    void SetUp() override {
        manager = LxManager::createManager(&threads);
        ASSERT_EQ(LX_OK, manager->initSubSystem(INIT_TIMERS));
    }
    void TearDown() override { manager->closeManager(); }  // destroys the players and their renderers

    /// A registered player whose one output is "Video" in that stream style.
    TestPlayer* videoPlayer(LxFormat::StreamStyle style) {
        TestPlayer::Options options;
        options.audioOutput = false;
        options.startThread = false;
        TestPlayer* player = new TestPlayer(manager, options);
        output = new LxVideoOutputConnectable();
        output->initFormats(640, 480, LxPixel32, style);
        output->initConnectable(player);
        player->adoptOutput("Video", output);
        player->startThread(&TestPlayer::entry);
        manager->addPlayer(player);
        return player;
    }

    KtDefaultThreadManager threads;
    LxManager* manager = nullptr;
    LxVideoOutputConnectable* output = nullptr;
};

TEST_F(DefaultVideoRendererTest, OneRendererPerVideoOutputAndNoneLeftWhenTheFormatsDisagree) {
    TestPlayer* player = videoPlayer(LxFormat::PushStream);
    EXPECT_EQ(LX_CONNECTED_VIDEO, manager->connectAllUnconnected(player));
    LxVideoRenderer* vr = nullptr;
    ASSERT_EQ(LX_OK, player->getVideoRenderer(&vr));
    LxBaseVideoRenderer* renderer = dynamic_cast<LxBaseVideoRenderer*>(vr);
    ASSERT_NE(nullptr, renderer);
    EXPECT_EQ(static_cast<LxOutputConnectable*>(output), renderer->connectedTo());
    ASSERT_NE(nullptr, renderer->getFormat());

    EXPECT_EQ(LX_ERR_GENERIC, manager->addDefaultVideoRenderer(player)) << "already connected";
    EXPECT_EQ(LX_CONNECTED_VIDEO, manager->connectAllUnconnected(player));
    LxVideoRenderer* again = nullptr;
    player->getVideoRenderer(&again);
    EXPECT_EQ(vr, again);

    // The renderer takes push style only. The one made for a pull-style output is destroyed again
    // (AddressSanitizer reports a leak otherwise).
    TestPlayer* pull = videoPlayer(LxFormat::PullStream);
    EXPECT_EQ(LX_ERR_NO_COMMON_FORMAT, manager->addDefaultVideoRenderer(pull));
    EXPECT_EQ(nullptr, output->connectedTo());
    EXPECT_EQ(LX_ERR_CONNECT_OUTPUTS, manager->connectAllUnconnected(pull));
    TestPlayer::Options options;
    options.audioOutput = false;
    TestPlayer* none = new TestPlayer(manager, options);
    manager->addPlayer(none);
    EXPECT_EQ(LX_ERR_GENERIC, manager->addDefaultVideoRenderer(none)) << "no Video output";
}

}  // namespace
