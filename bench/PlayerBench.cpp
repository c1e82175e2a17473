// A player request with a reply, from a host thread to the player thread and back.
#include "LxManager.h"
#include "LxPlayer.h"
#include "LxQueue.h"
#include "LxResult.h"

#include <benchmark/benchmark.h>

namespace {

// Only what a player needs from its manager: the thread services.
class BenchManager : public LxManager {
  public:
    explicit BenchManager(KtThreadManager* tm) : LxManager(tm) {}
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

// The smallest player that follows the thread contract: it initialises at once and then only
// serves its queues.
class BenchPlayer : public LxPlayer {
  public:
    explicit BenchPlayer(LxManager* m) : LxPlayer(m, nullptr) {
        state = STOPPED;
        startThread(&BenchPlayer::entry);
    }
    ~BenchPlayer() override { waitAndShutdown(); }

  protected:
    static long entry(void* p) {
        static_cast<BenchPlayer*>(p)->run();
        return 0;
    }
    void run() override {
        for (;;) {
            if (!beginPass(KT_INFINITE)) {
                break;
            }
        }
        endRun();
    }
};

struct Fixture {
    KtDefaultThreadManager threads;
    BenchManager* manager = new BenchManager(&threads);
    BenchPlayer* player = new BenchPlayer(manager);
    ~Fixture() {
        delete player;
        manager->closeManager();
    }
};

// GET_STATE: request, reply queue, handling on the player thread, reply, release.
void BM_PlayerGetStateRoundTrip(benchmark::State& state) {
    Fixture f;
    for (auto _ : state) {
        benchmark::DoNotOptimize(f.player->getState());
    }
}
BENCHMARK(BM_PlayerGetStateRoundTrip)->UseRealTime();

// SET_MEDIA_TIME: the same round trip with the player's own work (clock, flush) in it.
void BM_PlayerSetMediaTimeRoundTrip(benchmark::State& state) {
    Fixture f;
    int32_t s = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(f.player->setMediaTime(LxTime(s++ & 0xFF, 0)));
    }
}
BENCHMARK(BM_PlayerSetMediaTimeRoundTrip)->UseRealTime();

// A getter: no request at all when the queue is empty, only the signal. For comparison.
void BM_PlayerGetRate(benchmark::State& state) {
    Fixture f;
    for (auto _ : state) {
        benchmark::DoNotOptimize(f.player->getRate());
    }
}
BENCHMARK(BM_PlayerGetRate)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
