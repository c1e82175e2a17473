// The video renderer's frame hand-over: what one attachFrameFromTime/releaseFrame costs the
// painting thread, and how many 640 x 480 32-bit frames a second pass from a producer thread
// through the renderer's two-frame pool to a host thread.
#include "LxBaseVideoRenderer.h"
#include "LxConnectable.h"
#include "LxManager.h"
#include "LxResult.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

namespace {

constexpr short kWidth = 640;
constexpr short kHeight = 480;
constexpr size_t kFrameBytes = static_cast<size_t>(kWidth) * kHeight * 4;

// Only what a renderer needs from its manager: the thread services.
class BenchManager : public LxManager {
  public:
    explicit BenchManager(KtThreadManager* tm) : LxManager(tm) {}
    ~BenchManager() override {
        delete channelLock;
        delete playerListLock;
    }
    long createPlayer(LxDataSource*, LxPlayer**) override { return LX_ERR_GENERIC; }
    long getDiagnostics(LxDiagnostics&) override { return LX_ERR_GENERIC; }
    long addDefaultAudioRenderer(LxPlayer*) override { return LX_ERR_GENERIC; }
    long addDefaultVideoRenderer(LxPlayer*) override { return LX_ERR_GENERIC; }

  protected:
    long initTimers() override { return LX_ERR_GENERIC; }
    long initAudio() override { return LX_ERR_GENERIC; }
    long initVideo() override { return LX_ERR_GENERIC; }
    long startupChannelType(LxAudioChannelType_s) override { return LX_ERR_GENERIC; }
    long shutdownChannelType(LxAudioChannelType_s) override { return LX_ERR_GENERIC; }
};

LxTime frameTime(int64_t k) {
    return LxTime(static_cast<int32_t>(k / 30), static_cast<int32_t>((k % 30) * 1000000 / 30));
}

/// A renderer connected in push style, or in pull style to an output of its own.
struct Connection {
    Connection(LxManager* m, bool pull) : pullStyle(pull), renderer(m) {
        const LxFormat::StreamStyle style = pull ? LxFormat::PullStream : LxFormat::PushStream;
        LxVideoFormat* f = new LxVideoFormat(kWidth, kHeight, LxPixel32, style);
        if (pull) {
            output.initFormats(kWidth, kHeight, LxPixel32, style);
            output.initConnectable(nullptr);
            output.setFormat(f);
            output.connectTo(&renderer);
            renderer.connectTo(&output);
        }
        renderer.setFormat(f);
        f->unref();
    }
    void deliver(LxFrame* frame) {
        if (pullStyle) {
            output.queueFrame(static_cast<LxVideoFrame*>(frame));
        } else {
            renderer.putFrame(frame);
        }
    }

    const bool pullStyle;
    // The output goes after the renderer: the renderer may still read from it while it stops.
    LxVideoOutputConnectable output;
    LxBaseVideoRenderer renderer;
};

// One frame through the whole hand-over on one thread: the producer's getEmptyFrame and delivery,
// the host's attachFrameFromTime and releaseFrame.
void BM_FrameCycle(benchmark::State& state) {
    KtDefaultThreadManager threads;
    BenchManager manager(&threads);
    Connection c(&manager, state.range(0) != 0);
    int64_t k = 0;
    for (auto _ : state) {
        LxFrame* f = c.renderer.getEmptyFrame(LxTime::zero());
        static_cast<LxVideoFrame*>(f)->setPresentationTime(frameTime(k));
        c.deliver(f);
        LxFrame* shown = c.renderer.attachFrameFromTime(frameTime(k), LxTime::zero());
        benchmark::DoNotOptimize(shown);
        c.renderer.releaseFrame(shown);
        ++k;
    }
    state.SetLabel(state.range(0) != 0 ? "pull" : "push");
}
BENCHMARK(BM_FrameCycle)->Arg(0)->Arg(1);

// Makes small frames, as many as asked: the hand-over never touches pixels, so the host's side
// can be timed over a long queue without gigabytes of 640 x 480 frames.
class ManyFramesAllocator : public LxFrameAllocator {
  public:
    KtResult allocateFrame(LxFrame** out) override {
        *out = new LxVideoFrame(16, 16, LxPixel32);
        ++created;
        return LX_OK;
    }
    KtResult setFormat(LxFormat*) override { return LX_OK; }
    long getFramesCreated() override { return created; }
    long created = 0;
};

// The host's side alone: attachFrameFromTime of the current time and releaseFrame. A batch of
// frames is queued with the timer paused; each call then selects between the oldest frame and
// the one behind it, as when frames arrive between paints.
void BM_AttachRelease(benchmark::State& state) {
    constexpr int kBatch = 256;
    KtDefaultThreadManager threads;
    BenchManager manager(&threads);
    Connection c(&manager, state.range(0) != 0);
    c.renderer.setFrameAllocator(new ManyFramesAllocator());
    int64_t queued = 0;
    int64_t shown = 0;
    while (state.KeepRunningBatch(kBatch)) {
        state.PauseTiming();
        while (queued < shown + kBatch + 1) {
            LxFrame* f = c.renderer.getEmptyFrame(LxTime::zero());
            static_cast<LxVideoFrame*>(f)->setPresentationTime(frameTime(queued++));
            c.deliver(f);
        }
        state.ResumeTiming();
        for (int i = 0; i < kBatch; ++i) {
            LxFrame* f = c.renderer.attachFrameFromTime(frameTime(shown++), LxTime::zero());
            benchmark::DoNotOptimize(f);
            c.renderer.releaseFrame(f);
        }
    }
    c.renderer.flush();
    state.SetLabel(state.range(0) != 0 ? "pull" : "push");
}
BENCHMARK(BM_AttachRelease)->Arg(0)->Arg(1);

// A paint that finds no new frame (the host paints faster than the clip's frame rate).
void BM_AttachNothingQueued(benchmark::State& state) {
    KtDefaultThreadManager threads;
    BenchManager manager(&threads);
    Connection c(&manager, state.range(0) != 0);
    for (auto _ : state) {
        benchmark::DoNotOptimize(c.renderer.attachFrameFromTime(LxTime(1, 0), LxTime::zero()));
    }
    state.SetLabel(state.range(0) != 0 ? "pull" : "push");
}
BENCHMARK(BM_AttachNothingQueued)->Arg(0)->Arg(1);

// Frames per second from a producer thread to the host (this thread) through the two-frame pool,
// every frame shown in order (the host asks for the time of the next frame). range(0): pull
// style; range(1): the producer writes every pixel and the host reads every pixel (into a texture
// buffer), as a decoder and a texture upload would; without it only the hand-over is measured.
void BM_Throughput(benchmark::State& state) {
    KtDefaultThreadManager threads;
    BenchManager manager(&threads);
    Connection c(&manager, state.range(0) != 0);
    const bool touchPixels = state.range(1) != 0;
    std::atomic<bool> stop{false};
    std::thread producer([&] {
        int64_t k = 0;
        while (!stop.load(std::memory_order_relaxed)) {
            LxFrame* f = c.renderer.getEmptyFrame(LxTime(0, 100000));
            if (f == nullptr) {
                continue;
            }
            LxVideoFrame* v = static_cast<LxVideoFrame*>(f);
            if (touchPixels) {
                std::memset(v->getPixelData(), static_cast<int>(k & 0xFF), kFrameBytes);
            }
            v->setPresentationTime(frameTime(k++));
            c.deliver(f);
        }
    });
    std::vector<unsigned char> texture(touchPixels ? kFrameBytes : 1);
    int64_t k = 0;
    int64_t misses = 0;
    for (auto _ : state) {
        LxFrame* f = nullptr;
        while ((f = c.renderer.attachFrameFromTime(frameTime(k), LxTime(1, 0))) == nullptr) {
            ++misses;
        }
        if (touchPixels) {
            std::memcpy(texture.data(), static_cast<LxVideoFrame*>(f)->getPixelData(), kFrameBytes);
        }
        benchmark::DoNotOptimize(texture.data());
        c.renderer.releaseFrame(f);
        ++k;
    }
    stop.store(true);
    producer.join();
    c.renderer.flush();
    state.SetItemsProcessed(state.iterations());
    state.counters["dropped"] =
        static_cast<double>(c.pullStyle ? c.output.getDroppedFrames() : c.renderer.getDroppedFrames());
    state.counters["misses"] = static_cast<double>(misses);
    state.SetLabel(std::string(c.pullStyle ? "pull" : "push") +
                   (touchPixels ? ", pixels written and read" : ""));
}
BENCHMARK(BM_Throughput)->Args({0, 0})->Args({1, 0})->Args({0, 1})->Args({1, 1})->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
