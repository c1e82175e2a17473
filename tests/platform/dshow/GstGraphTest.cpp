// The GStreamer filter graph on real clips: seeks in a system stream, and graphs that go away with
// their threads. (What each clip renders to and how it plays: the player's tests in tests/e2e.)
#include "GraphKit.h"

#include <dirent.h>
#include <glib.h>
#include <cmath>
#include <fstream>
#include <string>

namespace {

using namespace lxp;
using lxtest::GraphRig;
using lxtest::RecordingSink;
using Record = RecordingSink::Record;

class GstGraph : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!LxPlatformGraph::gstreamerAvailable()) {
            GTEST_SKIP() << "GStreamer is not available";
        }
        if (!lxtest::haveTool("ffmpeg")) {
            GTEST_SKIP() << "ffmpeg is needed to make the clips";
        }
        ASSERT_TRUE(lxtest::registerFilterLibrary());
        LxPlatformGraph::useGStreamer();
        ASSERT_TRUE(SUCCEEDED(CoInitialize(nullptr)));
    }
    void TearDown() override { CoUninitialize(); }

    static double seconds(REFERENCE_TIME t) { return static_cast<double>(t) / UNITS; }
};

/// This process's threads, less the services GLib and GStreamer start once and keep (the system
/// clock's wait thread, GLib's worker, its shared pool's idle threads, which keep the name of the
/// last streaming task they ran: GLib is asked to end those first).
size_t graphThreads(std::string* names) {
    g_thread_pool_stop_unused_threads();
    size_t count = 0;
    DIR* d = opendir("/proc/self/task");
    while (struct dirent* e = readdir(d)) {
        std::ifstream comm(std::string("/proc/self/task/") + e->d_name + "/comm");
        std::string name;
        std::getline(comm, name);
        if (e->d_name[0] != '.' && name != "GstSystemClock" && name != "gmain" &&
            name.rfind("pool-", 0) != 0) {
            *names += name + " ";
            ++count;
        }
    }
    closedir(d);
    return count;
}

TEST_F(GstGraph, SeeksInAnMpegSystemStreamLandOnTheFrameDespiteTheMuxDelay) {
    // The stream's time stamps start at the mux delay (about half a second) and its demuxer seeks
    // by the system clock, which runs ahead of the pictures; media time 0 is still frame 0.
    GraphRig rig;
    ASSERT_TRUE(rig.open(lxtest::mpeg1Clip().path));
    ASSERT_TRUE(SUCCEEDED(rig.control->Pause()));
    const RecordingSink::Picture first = rig.videoSink.firstPicture();
    EXPECT_EQ(0, first.start);
    EXPECT_EQ(0, first.counter);
    const double targets[] = {1.5, 0.3, 1.0, 1.96, 0.0};
    for (double t : targets) {
        SCOPED_TRACE(t);
        rig.videoSink.clear();
        rig.audioSink.clear();
        ASSERT_EQ(S_OK, rig.seekTo(t));
        const RecordingSink::Picture p = rig.videoSink.firstPicture();
        EXPECT_EQ(static_cast<int>(t * 25 + 1e-6), p.counter);
        EXPECT_NEAR(std::floor(t * 25 + 1e-6) / 25, seconds(p.start), 0.001);
        if (t < 1.9) {
            ASSERT_TRUE(rig.audioSink.waitFor([](const Record& r) { return !r.audio.empty(); }));
            EXPECT_NEAR(t, seconds(rig.audioSink.got().audio[0].start), 0.0005)
                << "audio starts at the position";
        }
    }
}

TEST_F(GstGraph, GraphsReleasedWhilePlayingOrBlockedGoAwayQuicklyWithTheirThreads) {
    std::string named;
    const size_t before = graphThreads(&named);
    for (int i = 0; i < 3; ++i) {
        const auto start = std::chrono::steady_clock::now();
        {
            GraphRig rig;
            ASSERT_TRUE(rig.open(lxtest::mp4CounterClip().path));
            if (i == 1) {
                rig.videoSink.hold(true);  // a consumer that never frees a frame
                rig.audioSink.hold(true);
            }
            ASSERT_TRUE(SUCCEEDED(rig.control->Run()));
            RecordingSink& sink = rig.videoSink;
            ASSERT_TRUE(
                lxtest::waitUntil([&] { return sink.blocked > 0 || sink.got().video.size() > 3; }, 20000))
                << "released while playing";
            if (i == 2) {
                rig.control->Pause();
            }
        }
        EXPECT_LT(lxtest::msSince(start), 10000);
    }
    // GStreamer's streaming threads end with the last graph (GLib may take a moment).
    std::string after;
    EXPECT_TRUE(lxtest::waitUntil(
        [&] {
            after.clear();
            return graphThreads(&after) <= before;
        },
        20000))
        << "before: " << named << "after: " << after;
}

}  // namespace
