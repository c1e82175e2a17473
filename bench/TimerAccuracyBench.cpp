// Timer accuracy of LxWin32TimeBase: a few hundred timers with delays of 1 to 20 ms, each firing
// compared with its deadline on the time base's own reference time.
#include "LxTimeBase.h"

#include "TestManager.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <thread>
#include <vector>

namespace {

struct Shot {
    LxTimeBase* tb;
    double deadline;
    double firedAt;
    std::atomic<bool> done{false};
};

void fire(unsigned long, void* user) {
    auto* s = static_cast<Shot*>(user);
    s->firedAt = s->tb->getRefTime().getValue();
    s->done = true;
}

double percentile(std::vector<double> v, double p) {
    std::sort(v.begin(), v.end());
    const size_t i = std::min(v.size() - 1, static_cast<size_t>(p * (v.size() - 1) + 0.5));
    return v[i];
}

void BM_TimerAccuracy(benchmark::State& state) {
    KtDefaultThreadManager threads;
    lxtest::TestManager manager(&threads);
    const int timers = static_cast<int>(state.range(0));
    std::vector<double> lateMs;  // positive: late, negative: early
    for (auto _ : state) {
        LxWin32TimeBase tb(&manager);
        std::mt19937 rng(42);
        std::vector<Shot> shots(static_cast<size_t>(timers));
        // Timers are set a few at a time, as players do, rather than all at once.
        for (int i = 0; i < timers; ++i) {
            Shot& s = shots[static_cast<size_t>(i)];
            s.tb = &tb;
            const int delayUs = 1000 + static_cast<int>(rng() % 19001);
            unsigned long id = 0;
            const double now = tb.getRefTime().getValue();
            tb.setTimer(fire, LxTime(0, delayUs), &id, &s);
            s.deadline = now + delayUs * 1e-6;
            if (i % 8 == 7) {
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
            }
        }
        for (Shot& s : shots) {
            while (!s.done.load()) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
            lateMs.push_back((s.firedAt - s.deadline) * 1000.0);
        }
    }
    std::vector<double> late;
    std::vector<double> early;
    for (double d : lateMs) {
        (d >= 0 ? late : early).push_back(d >= 0 ? d : -d);
    }
    state.counters["median_ms"] = percentile(lateMs, 0.5);
    state.counters["late_p99_ms"] = late.empty() ? 0 : percentile(late, 0.99);
    state.counters["late_worst_ms"] = late.empty() ? 0 : *std::max_element(late.begin(), late.end());
    state.counters["early_p99_ms"] = early.empty() ? 0 : percentile(early, 0.99);
    state.counters["early_worst_ms"] = early.empty() ? 0 : *std::max_element(early.begin(), early.end());
    state.counters["early_share"] = static_cast<double>(early.size()) / lateMs.size();
}
BENCHMARK(BM_TimerAccuracy)->Arg(300)->Iterations(3)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
