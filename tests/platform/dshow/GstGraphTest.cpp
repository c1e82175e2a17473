// The GStreamer filter graph on real clips: render outcomes, duration and frames, the cue on pause,
// accurate seeks, rate, end of stream, broken files.
#include "LxPlatformGraph.h"
#include "platform/com/LxpCom.h"

#include "GraphTestKit.h"

#include <dirent.h>
#include <glib.h>
#include <cmath>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace lxp;
using lxtest::Clip;
using lxtest::GraphRig;

class GstGraph : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { registered_ = lxtest::registerFilterLibrary(); }

    void SetUp() override {
        if (!LxPlatformGraph::gstreamerAvailable()) {
            GTEST_SKIP() << "GStreamer is not available";
        }
        if (!lxtest::haveTool("ffmpeg")) {
            GTEST_SKIP() << "ffmpeg is needed to make the clips";
        }
        ASSERT_TRUE(registered_);
        LxPlatformGraph::useGStreamer();
        ASSERT_TRUE(SUCCEEDED(CoInitialize(nullptr)));
    }
    void TearDown() override { CoUninitialize(); }

    static double seconds(REFERENCE_TIME t) { return static_cast<double>(t) / UNITS; }

    static bool registered_;
};

bool GstGraph::registered_ = false;

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

TEST_F(GstGraph, EachClipConnectsTheRenderersItHasStreamsForWithItsDurationAndFrames) {
    struct Case {
        Clip clip;
        bool audio;
        bool video;
    };
    const Case cases[] = {{lxtest::mpeg1Clip(), true, true},
                          {lxtest::mp3Clip(), true, false},
                          {lxtest::movVideoClip(), false, true}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.clip.path);
        GraphRig rig;
        ASSERT_TRUE(rig.create());
        EXPECT_EQ(S_OK, rig.render(c.clip.path));
        EXPECT_EQ(c.audio, GraphRig::isConnected(rig.audio));
        EXPECT_EQ(c.video, GraphRig::isConnected(rig.video));
        LONGLONG duration = 0;
        ASSERT_EQ(S_OK, rig.seeking->GetDuration(&duration));
        EXPECT_NEAR(c.clip.seconds, seconds(duration), 0.1);
        EXPECT_EQ(c.video ? S_OK : S_FALSE, rig.seeking->IsFormatSupported(&TIME_FORMAT_FRAME));
        EXPECT_EQ(c.video ? S_OK : E_INVALIDARG, rig.seeking->SetTimeFormat(&TIME_FORMAT_FRAME));
        if (c.video) {
            ASSERT_EQ(S_OK, rig.seeking->GetDuration(&duration));
            EXPECT_NEAR(c.clip.frames, duration, 1);
        } else {
            EXPECT_EQ(S_OK, rig.graph->RemoveFilter(rig.video)) << "an unconnected renderer leaves";
        }
        if (!c.audio || !c.video) {
            continue;
        }
        // The formats the renderers agreed on.
        LxpAudioSpec audio;
        LxpVideoSpec video;
        ILxpRendererSinkHost* host = nullptr;
        rig.audio->QueryInterface(IID_ILxpRendererSinkHost, reinterpret_cast<void**>(&host));
        ASSERT_EQ(S_OK, host->GetAudioSpec(&audio));
        host->Release();
        EXPECT_EQ(16, audio.bitsPerSample);
        EXPECT_EQ(2, audio.channels);
        EXPECT_EQ(44100, audio.samplesPerSecond);
        rig.video->QueryInterface(IID_ILxpRendererSinkHost, reinterpret_cast<void**>(&host));
        ASSERT_EQ(S_OK, host->GetVideoSpec(&video));
        host->Release();
        EXPECT_EQ(160, video.width);
        EXPECT_EQ(120, video.height);
        EXPECT_EQ(LxPixel32Alt, video.pixelFormat);
        EXPECT_EQ(640, video.stride);
        EXPECT_EQ(400000, video.frameDuration);
    }
    // A video clip in a graph with only an audio renderer renders (the stream is discarded, as
    // DirectShow would give it to a default renderer), but connects nothing.
    GraphRig audioOnly;
    ASSERT_TRUE(audioOnly.create(true, false));
    EXPECT_TRUE(SUCCEEDED(audioOnly.render(lxtest::movVideoClip().path)));
    EXPECT_FALSE(GraphRig::isConnected(audioOnly.audio));
}

TEST_F(GstGraph, BrokenFilesFailCleanlyAndQuicklyAndATruncatedStreamPlaysToItsEnd) {
    const std::string files[] = {lxtest::corruptClip().path, lxtest::truncatedMovClip().path};
    for (const std::string& path : files) {
        SCOPED_TRACE(path);
        GraphRig rig;
        ASSERT_TRUE(rig.create());
        const auto start = std::chrono::steady_clock::now();
        const HRESULT hr = rig.render(path);
        EXPECT_TRUE(hr == VFW_E_UNKNOWN_FILE_TYPE || hr == VFW_E_CANNOT_RENDER) << std::hex << hr;
        EXPECT_LT(lxtest::msSince(start), 8000);
        EXPECT_FALSE(GraphRig::isConnected(rig.audio));
        EXPECT_FALSE(GraphRig::isConnected(rig.video));
        EXPECT_EQ(VFW_E_WRONG_STATE, rig.control->Pause());
    }
    GraphRig rig;
    ASSERT_TRUE(rig.create());
    IBaseFilter* source = nullptr;
    EXPECT_EQ(HRESULT_FILE_NOT_FOUND,
              rig.graph->AddSourceFilter(L"/nonexistent/clip.mpg", L"FilterSource", &source));
    EXPECT_EQ(nullptr, source);

    GraphRig truncated;
    ASSERT_TRUE(truncated.create());
    ASSERT_TRUE(SUCCEEDED(truncated.render(lxtest::truncatedMpegClip().path)));
    ASSERT_TRUE(SUCCEEDED(truncated.control->Run()));
    EXPECT_GT(truncated.waitComplete(5000), 0);
    EXPECT_GT(truncated.videoSink.pictureCount(), 10u);
}

TEST_F(GstGraph, SeeksInAnMpegSystemStreamLandOnTheFrameDespiteTheMuxDelay) {
    // The stream's time stamps start at the mux delay (about half a second) and its demuxer seeks
    // by the system clock, which runs ahead of the pictures; media time 0 is still frame 0.
    GraphRig rig;
    ASSERT_TRUE(rig.open(lxtest::mpeg1Clip().path));
    ASSERT_TRUE(SUCCEEDED(rig.control->Pause()));
    ASSERT_TRUE(rig.videoSink.waitFor([&] { return !rig.videoSink.picturesLocked().empty(); }));
    EXPECT_EQ(0, rig.videoSink.pictures()[0].start);
    EXPECT_EQ(0, rig.videoSink.pictures()[0].counter);
    const double targets[] = {1.5, 0.3, 1.0, 1.96, 0.0};
    for (double t : targets) {
        SCOPED_TRACE(t);
        rig.videoSink.clear();
        rig.audioSink.clear();
        ASSERT_EQ(S_OK, rig.seekTo(t));
        ASSERT_TRUE(rig.videoSink.waitFor([&] { return !rig.videoSink.picturesLocked().empty(); }));
        const lxtest::RecordingSink::Picture p = rig.videoSink.pictures()[0];
        EXPECT_EQ(static_cast<int>(t * 25 + 1e-6), p.counter);
        EXPECT_NEAR(std::floor(t * 25 + 1e-6) / 25, seconds(p.start), 0.001);
        if (t < 1.9) {
            ASSERT_TRUE(rig.audioSink.waitFor([&] { return !rig.audioSink.audioLocked().empty(); }));
            EXPECT_NEAR(t, seconds(rig.audioSink.audio()[0].start), 0.0005) << "audio starts at the position";
        }
    }
}

TEST_F(GstGraph, PauseCuesOneFrameAfterTheGateOpensAndSeeksLandOnTheFrame) {
    const Clip clip = lxtest::mp4CounterClip();
    GraphRig rig;
    ASSERT_TRUE(rig.open(clip.path));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(0u, rig.videoSink.pictureCount()) << "a stopped graph delivers nothing";

    // The player closes its gate around Pause: the cue waits for the gate, Pause does not.
    std::atomic<bool> gateOpen{false};
    std::atomic<int> gateWaits{0};
    rig.videoSink.gate = [&] {
        ++gateWaits;
        lxtest::waitUntil([&] { return gateOpen.load(); }, 1000);
        return gateOpen.load();
    };
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(SUCCEEDED(rig.control->Pause()));
    EXPECT_LT(lxtest::msSince(start), 500);
    ASSERT_TRUE(lxtest::waitUntil([&] { return gateWaits.load() > 0; }, 3000));
    EXPECT_EQ(0u, rig.videoSink.pictureCount());
    gateOpen = true;
    ASSERT_TRUE(rig.videoSink.waitFor([&] { return rig.videoSink.picturesLocked().size() == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    std::vector<lxtest::RecordingSink::Picture> pictures = rig.videoSink.pictures();
    ASSERT_EQ(1u, pictures.size()) << "a paused graph holds after the cue";
    EXPECT_EQ(0, pictures[0].counter);
    EXPECT_EQ(0, pictures[0].start);
    OAFilterState state = -1;
    EXPECT_EQ(S_OK, rig.control->GetState(2000, &state));
    EXPECT_EQ(State_Paused, state);

    // Accurate seeks: the frame at the position, not the key frame before it.
    const double targets[] = {1.2, 0.52, 3.96};
    for (double t : targets) {
        SCOPED_TRACE(t);
        rig.videoSink.clear();
        ASSERT_EQ(S_OK, rig.seekTo(t));
        ASSERT_TRUE(rig.videoSink.waitFor([&] { return !rig.videoSink.picturesLocked().empty(); }));
        pictures = rig.videoSink.pictures();
        const int frame = static_cast<int>(std::lround(t * 25));
        EXPECT_EQ(frame, pictures[0].counter);
        EXPECT_NEAR(t, seconds(pictures[0].start), 0.001);
        EXPECT_NEAR(t, seconds(rig.position()), 0.001);
    }

    // Frame units: frame 77 is 3.08 s.
    ASSERT_EQ(S_OK, rig.seeking->SetTimeFormat(&TIME_FORMAT_FRAME));
    rig.videoSink.clear();
    LONGLONG frame = 77;
    ASSERT_EQ(S_OK, rig.seeking->SetPositions(&frame, AM_SEEKING_AbsolutePositioning, nullptr,
                                              AM_SEEKING_NoPositioning));
    ASSERT_TRUE(rig.videoSink.waitFor([&] { return !rig.videoSink.picturesLocked().empty(); }));
    EXPECT_EQ(77, rig.videoSink.pictures()[0].counter);
    LONGLONG now = 0;
    EXPECT_EQ(S_OK, rig.seeking->GetCurrentPosition(&now));
    EXPECT_EQ(77, now);
}

TEST_F(GstGraph, RunDeliversFramesOnTimeAndEndsWithOneCompleteThenLoops) {
    GraphRig rig;
    ASSERT_TRUE(rig.open(lxtest::movVideoClip().path));
    ASSERT_TRUE(SUCCEEDED(rig.control->Pause()));
    OAFilterState state = -1;
    rig.control->GetState(2000, &state);
    int32_t code = 0;
    EXPECT_EQ(E_ABORT, rig.nextEvent(&code, 0));
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(SUCCEEDED(rig.control->Run()));
    const double completeMs = rig.waitComplete(6000);
    EXPECT_GT(completeMs, 1700);
    EXPECT_LT(completeMs, 3500);
    EXPECT_NEAR(2.0, seconds(rig.position()), 0.05);
    std::vector<lxtest::RecordingSink::Picture> pictures = rig.videoSink.pictures();
    ASSERT_GE(pictures.size(), 45u);
    for (size_t i = 0; i < pictures.size(); ++i) {
        EXPECT_EQ(std::lround(seconds(pictures[i].start) * 25), pictures[i].counter) << i;
        if (i > 0) {
            EXPECT_GT(pictures[i].start, pictures[i - 1].start);
        }
    }
    EXPECT_EQ(E_ABORT, rig.nextEvent(&code, 200)) << "one EC_COMPLETE per end";
    EXPECT_LT(lxtest::msSince(start), 4000);

    // Looping as the player does: pause, back to 0, run.
    ASSERT_TRUE(SUCCEEDED(rig.control->Pause()));
    rig.videoSink.clear();
    ASSERT_EQ(S_OK, rig.seekTo(0));
    ASSERT_TRUE(SUCCEEDED(rig.control->Run()));
    EXPECT_GT(rig.waitComplete(6000), 1500);
    pictures = rig.videoSink.pictures();
    ASSERT_FALSE(pictures.empty());
    EXPECT_EQ(0, pictures.front().counter);
    EXPECT_EQ(49, pictures.back().counter);
}

TEST_F(GstGraph, RateChangeKeepsThePositionAndSpeedsUpThePictures) {
    GraphRig rig;
    ASSERT_TRUE(rig.open(lxtest::mp4CounterClip().path));
    ASSERT_TRUE(SUCCEEDED(rig.control->Run()));
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    const double before = seconds(rig.position());
    EXPECT_NEAR(1.0, before, 0.25);
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(S_OK, rig.seeking->SetRate(2.0));
    double rate = 0;
    EXPECT_EQ(S_OK, rig.seeking->GetRate(&rate));
    EXPECT_EQ(2.0, rate);
    EXPECT_NEAR(before, seconds(rig.position()), 0.1);
    const double completeMs = rig.waitComplete(6000);
    // About three seconds of clip at double speed.
    EXPECT_GT(completeMs, 1100);
    EXPECT_LT(completeMs, 2300);
    const std::vector<lxtest::RecordingSink::Picture> pictures = rig.videoSink.pictures();
    ASSERT_FALSE(pictures.empty());  // from the rate change on (the sink forgets at the flush)
    EXPECT_NEAR(before * 25, pictures[0].counter, 4) << "the rate change did not restart the clip";
    EXPECT_EQ(99, pictures.back().counter);
    EXPECT_LT(lxtest::msSince(start), 3000);
    EXPECT_EQ(E_INVALIDARG, rig.seeking->SetRate(0.0));
    EXPECT_EQ(E_INVALIDARG, rig.seeking->SetRate(-1.0));
}

TEST_F(GstGraph, AudioArrivesContiguouslyAndSeeksWhileRunningRestartAtThePosition) {
    GraphRig rig;
    ASSERT_TRUE(rig.open(lxtest::mpeg1Clip().path));
    ASSERT_TRUE(SUCCEEDED(rig.control->Run()));
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    rig.videoSink.clear();
    rig.audioSink.clear();
    ASSERT_EQ(S_OK, rig.seekTo(1.5));
    EXPECT_GE(rig.videoSink.flushCount(), 1);
    EXPECT_GT(rig.waitComplete(4000), 300);
    const std::vector<lxtest::RecordingSink::Picture> pictures = rig.videoSink.pictures();
    ASSERT_FALSE(pictures.empty());
    EXPECT_NEAR(1.5, seconds(pictures[0].start), 0.041);
    for (const auto& p : pictures) {
        EXPECT_EQ(std::lround(seconds(p.start) * 25), p.counter);
    }
    const std::vector<lxtest::RecordingSink::Audio> audio = rig.audioSink.audio();
    ASSERT_GT(audio.size(), 3u);
    EXPECT_NEAR(1.5, seconds(audio[0].start), 0.03);
    EXPECT_TRUE(audio[0].discontinuity);
    for (size_t i = 1; i < audio.size(); ++i) {
        const REFERENCE_TIME expected =
            audio[i - 1].start + static_cast<REFERENCE_TIME>(audio[i - 1].bytes / 4) * UNITS / 44100;
        EXPECT_NEAR(expected, audio[i].start, 300) << i;  // 30 us
    }
    EXPECT_EQ(1, rig.audioSink.eosCount());
    EXPECT_EQ(1, rig.videoSink.eosCount());
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
            std::this_thread::sleep_for(std::chrono::milliseconds(200 + 100 * i));
            if (i == 2) {
                rig.control->Pause();
            }
        }
        EXPECT_LT(lxtest::msSince(start), 3000);
    }
    // GStreamer's streaming threads end with the last graph (GLib may take a moment).
    EXPECT_TRUE(lxtest::waitUntil([&] { return graphThreads().size() <= before.size(); }, 3000))
        << "before: " << joined(before) << "after: " << joined(graphThreads());
}

}  // namespace
