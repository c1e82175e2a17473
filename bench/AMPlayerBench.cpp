// The filter-graph player on GStreamer, per kind of clip.
//
// init: from createPlayer to the player's initialized state (graph built, renderers connected,
// duration read): what a scene waits before a clip can be cued.
//
// seek_to_frame: a stopped, connected player is sent to a new media time and cued (setMediaTime,
// prefetch); timed until the prefetch-complete event and, with video, until the video renderer
// hands the host a picture for that time. Positions step through the clip so that most seeks
// land between key frames.
//
// Clips are made with ffmpeg on first use in ./bench-clips (160x120 at 25 fps, 440 Hz stereo).
#include "LxAMPlayer.h"
#include "LxDataSource.h"
#include "LxEvent.h"
#include "LxPlatformGraph.h"
#include "LxPlatformSound.h"
#include "LxResult.h"
#include "LxTimeBase.h"
#include "LxVideoRenderer.h"
#include "LxWin32Manager.h"

#include <benchmark/benchmark.h>

#include <sys/stat.h>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <string>
#include <thread>

namespace {

struct ClipKind {
    const char* name;
    const char* file;
    const char* encode;  // ffmpeg output options
    bool video;
    bool audio;
};

const ClipKind kClips[] = {
    {"mpeg1", "counter.mpg", "-c:v mpeg1video -q:v 2 -g 12 -c:a mp2 -b:a 192k -f mpeg", true, true},
    {"mp3", "tone.mp3", "-vn -c:a libmp3lame -b:a 128k -f mp3", false, true},
    {"mov", "counter.mov", "-an -c:v mpeg4 -q:v 2 -g 12 -f mov", true, false},
    {"mp4", "counter.mp4", "-c:v mpeg4 -q:v 2 -g 12 -c:a aac -b:a 128k -f mp4", true, true},
};

std::string clipPath(const ClipKind& k) {
    ::mkdir("bench-clips", 0755);
    const std::string path = std::string("bench-clips/") + k.file;
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) {
        const std::string cmd =
            std::string("ffmpeg -nostdin -v error -y -f lavfi -i testsrc=s=160x120:r=25:d=4 ") +
            "-f lavfi -i sine=frequency=440:sample_rate=44100:duration=4 -ac 2 " + k.encode + " '" + path +
            "'";
        if (std::system(cmd.c_str()) != 0) {
            return std::string();
        }
    }
    return path;
}

class Listener : public LxEventListener {
  public:
    void handleEvent(LxEvent* e) override {
        if (e->getEventType() == LxPrefetchCompleteEventType) {
            ++prefetched;
        }
    }
    std::atomic<int> prefetched{0};
};

/// One manager for the whole run: audio to the null output, video to the default renderer.
struct Scene {
    Scene() {
        LxPlatformSound::useNullOutput();
        LxPlatformGraph::useGStreamer();
        manager = LxManager::createManager(&threads);
        manager->setWindow(&window);
        ok = manager->initSubSystem(INIT_TIMERS | INIT_AUDIO | INIT_VIDEO) == LX_OK &&
             static_cast<LxWin32Manager*>(manager)->isDirectShowAvailable();
    }
    KtDefaultThreadManager threads;
    LxWin32Window window{reinterpret_cast<LxHwnd>(0x1234)};
    LxManager* manager = nullptr;
    bool ok = false;
};

Scene& scene() {
    static Scene* s = new Scene();  // kept to the end of the run, as a browser keeps its manager
    return *s;
}

template <class F>
bool waitFor(F done, double seconds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

void BM_init(benchmark::State& state) {
    const ClipKind& kind = kClips[state.range(0)];
    state.SetLabel(kind.name);
    const std::string path = clipPath(kind);
    if (path.empty() || !scene().ok) {
        state.SkipWithError("no ffmpeg or no GStreamer");
        return;
    }
    for (auto _ : state) {
        LxFilenameDataSource source(path.c_str());
        LxPlayer* p = nullptr;
        const auto start = std::chrono::steady_clock::now();
        if (scene().manager->createPlayer(&source, &p) != LX_OK ||
            !waitFor([&] { return p->getState() == LxNode::STOPPED; }, 15.0)) {
            state.SkipWithError("the player did not initialise");
            return;
        }
        state.SetIterationTime(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        scene().manager->destroyPlayer(p);
    }
}

void BM_seek_to_frame(benchmark::State& state) {
    const ClipKind& kind = kClips[state.range(0)];
    state.SetLabel(kind.name);
    const std::string path = clipPath(kind);
    if (path.empty() || !scene().ok) {
        state.SkipWithError("no ffmpeg or no GStreamer");
        return;
    }
    LxManager* m = scene().manager;
    LxFilenameDataSource source(path.c_str());
    LxPlayer* p = nullptr;
    Listener events;
    if (m->createPlayer(&source, &p) != LX_OK ||
        !waitFor([&] { return p->getState() == LxNode::STOPPED; }, 15.0)) {
        state.SkipWithError("the player did not initialise");
        return;
    }
    p->setEventListener(&events);
    m->connectAllUnconnected(p);
    p->setTimeBase(m->getMasterTimeBase());
    LxVideoRenderer* video = nullptr;
    p->getVideoRenderer(&video);
    int step = 0;
    for (auto _ : state) {
        const double target = 0.28 + (step++ % 9) * 0.4;  // 0.28 s to 3.48 s, mostly between key frames
        const int before = events.prefetched.load();
        const auto start = std::chrono::steady_clock::now();
        p->setMediaTime(LxTime(target));
        p->prefetch();
        bool ok = waitFor([&] { return events.prefetched.load() > before; }, 10.0);
        if (ok && video != nullptr) {
            ok = waitFor(
                [&] {
                    // The picture of the new position, not one left from before the seek.
                    LxFrame* f = video->attachFrameFromTime(LxTime(target), LxTime::zero());
                    LxVideoFrame* v = dynamic_cast<LxVideoFrame*>(f);
                    const bool there =
                        v != nullptr && std::fabs(v->getPresentationTime().getValue() - target) < 0.04;
                    if (f != nullptr) {
                        video->releaseFrame(f);
                    }
                    return there;
                },
                10.0);
        }
        if (!ok) {
            state.SkipWithError("the cue did not complete");
            break;
        }
        state.SetIterationTime(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        p->stop();
    }
    m->destroyPlayer(p);
}

void clips(benchmark::internal::Benchmark* b) {
    for (int i = 0; i < static_cast<int>(sizeof kClips / sizeof kClips[0]); ++i) {
        b->Arg(i);
    }
}

BENCHMARK(BM_init)->Apply(clips)->UseManualTime()->Iterations(10)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_seek_to_frame)->Apply(clips)->UseManualTime()->Iterations(18)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
