// The GStreamer filter graph on real clips: seeks in a system stream, and graphs that go away with
// their threads. What each clip renders to, accurate seeks in an MP4, broken files, rate, loops and
// the sound are checked through the player in tests/e2e; the gate and frame units on the simulated
// graph.
#include "LxPlatformGraph.h"
#include "platform/com/LxpCom.h"

#include "GraphKit.h"

#include <dirent.h>
#include <glib.h>
#include <cmath>
#include <fstream>
#include <string>
#include <vector>

namespace {

using namespace lxp;
using lxtest::Clip;
using lxtest::GraphRig;
using lxtest::RecordingSink;

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

/// Names of this process's threads, leaving out the services GLib and GStreamer start once and
/// keep for the life of the process (the system clock's wait thread, GLib's worker and the idle
/// threads of its shared pool): those are not a graph's threads and may appear in any test. An
/// idle pool thread keeps the name of the last streaming task it ran, so GLib is asked to end
/// the idle ones first.
std::vector<std::string> graphThreads() {
    g_thread_pool_stop_unused_threads();
    std::vector<std::string> names;
    DIR* d = opendir("/proc/self/task");
    while (struct dirent* e = readdir(d)) {
        if (e->d_name[0] == '.') {
            continue;
        }
        std::ifstream comm(std::string("/proc/self/task/") + e->d_name + "/comm");
        std::string name;
        std::getline(comm, name);
        if (name == "GstSystemClock" || name == "gmain" || name == "pool-spawner" ||
            name.rfind("pool-", 0) == 0) {
            continue;
        }
        names.push_back(name);
    }
    closedir(d);
    return names;
}

std::string joined(const std::vector<std::string>& names) {
    std::string all;
    for (const std::string& n : names) {
        all += n + " ";
    }
    return all;
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
            ASSERT_TRUE(
                rig.audioSink.waitFor([](const RecordingSink::Record& r) { return !r.audio.empty(); }));
            EXPECT_NEAR(t, seconds(rig.audioSink.got().audio[0].start), 0.0005)
                << "audio starts at the position";
        }
    }
}

TEST_F(GstGraph, GraphsReleasedWhilePlayingOrBlockedGoAwayQuicklyWithTheirThreads) {
    const std::vector<std::string> before = graphThreads();
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
    EXPECT_TRUE(lxtest::waitUntil([&] { return graphThreads().size() <= before.size(); }, 20000))
        << "before: " << joined(before) << "after: " << joined(graphThreads());
}

}  // namespace
