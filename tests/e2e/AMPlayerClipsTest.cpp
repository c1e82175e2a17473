// Real clips through the manager's factory on GStreamer: what each initialises to, and broken
// files ending in the load failure code without hanging.
#include "GraphKit.h"

namespace {

using lxtest::AMPlayerE2E;
using lxtest::RecordingListener;

struct Expect {
    const char* name;
    lxtest::Clip clip;
    long code;  // 0: a broken file
    double seconds;
    long frames;  // -1: no frame count (audio only)
    long connected;
    // A program stream's length is estimated from its timestamps; containers with an index say it.
    double slack;
};

// A broken file ends in one catastrophic error, the load failure, and the player dead.
TEST_F(AMPlayerE2E, EachClipInitialisesWithWhatItHasAndBrokenFilesFailWithoutHanging) {
    const Expect clips[] = {
        {"MPEG-1 system stream", lxtest::mpeg1Clip(), 0xE3, 2.0, 50, LX_CONNECTED_AUDIO_VIDEO, 1.0},
        {"MP3", lxtest::mp3Clip(), 0xE1, 3.0, -1, LX_CONNECTED_AUDIO, 0.0},
        {"QuickTime, video only", lxtest::movVideoClip(), 0xE2, 2.0, 50, LX_CONNECTED_VIDEO, 0.0},
        {"MP4 with AAC", lxtest::mp4CounterClip(), 0xE3, 4.0, 100, LX_CONNECTED_AUDIO_VIDEO, 0.0},
        {"corrupt", lxtest::corruptClip(), 0, 0, 0, 0, 0},
        {"truncated QuickTime", lxtest::truncatedMovClip(), 0, 0, 0, 0, 0},
    };
    for (const Expect& e : clips) {
        SCOPED_TRACE(e.name);
        ASSERT_FALSE(e.clip.path.empty());
        RecordingListener listener;
        const auto start = std::chrono::steady_clock::now();
        LxPlayer* p = open(e.clip.path, &listener, false);
        ASSERT_NE(nullptr, p);
        std::printf("[ measured ] %s initialised or failed in %.0f ms\n", e.name, lxtest::msSince(start));
        if (e.code == 0) {
            EXPECT_EQ(0u, listener.count(LxInitializedEventType));
            ASSERT_EQ(1u, listener.count(LxCatastrophicErrorEventType));
            EXPECT_EQ(LX_ERR_UNSUPPORTED, listener.resultOf(LxCatastrophicErrorEventType))
                << "the source's pin could not be rendered";
            EXPECT_EQ(LxNode::DEAD, p->getState());
        } else {
            EXPECT_EQ(e.code, listener.resultOf(LxInitializedEventType));
            EXPECT_NEAR(e.seconds, p->getDuration().getValue(), 0.05 + e.slack * 0.05);
            EXPECT_NEAR(e.frames, p->getNumFrames(), e.slack);
            EXPECT_EQ(e.connected, manager->connectAllUnconnected(p));
        }
        manager->destroyPlayer(p);
        EXPECT_LT(lxtest::msSince(start), 20000.0);
    }

    // A clip cut short plays what it has and ends.
    RecordingListener listener;
    LxPlayer* p = open(lxtest::truncatedMpegClip().path, &listener);
    ASSERT_NE(nullptr, p);
    ASSERT_EQ(1u, listener.count(LxInitializedEventType));
    ASSERT_EQ(LX_OK, p->startAtTime(timeBase->getRefTime()));
    EXPECT_TRUE(lxtest::waitUntil([&] { return listener.count(LxEndOfMediaEventType) == 1; }, 20000));
}

}  // namespace
