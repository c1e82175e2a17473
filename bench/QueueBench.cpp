// LxQueue between two threads: a request/reply round trip, and one-way throughput.
#include "LxQueue.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <thread>

namespace {

void* const kStop = reinterpret_cast<void*>(-1);

// A host thread sends a request carrying a private reply queue; the server thread receives it,
// replies on that queue, and the host receives the reply: the pattern of every player request.
void BM_QueueRoundTrip(benchmark::State& state) {
    LxQueue* requests = new LxQueue();
    LxQueue* replies = new LxQueue();
    std::thread server([&] {
        for (;;) {
            void* m = requests->receive(1, LxTime::maxTime());
            if (m == kStop) {
                break;
            }
            static_cast<LxQueue*>(m)->send(m);
        }
    });
    for (auto _ : state) {
        requests->send(replies);
        benchmark::DoNotOptimize(replies->receive(1, LxTime::maxTime()));
    }
    requests->send(kStop);
    server.join();
    requests->unref();
    replies->unref();
}
BENCHMARK(BM_QueueRoundTrip)->UseRealTime();

// One producer sends as fast as it can; one consumer receives. Messages per second.
void BM_QueueThroughput(benchmark::State& state) {
    const int64_t batch = state.range(0);
    for (auto _ : state) {
        LxQueue* q = new LxQueue();
        std::thread consumer([&] {
            for (int64_t i = 0; i < batch; ++i) {
                benchmark::DoNotOptimize(q->receive(1, LxTime::maxTime()));
            }
        });
        for (int64_t i = 0; i < batch; ++i) {
            q->send(reinterpret_cast<void*>(i + 1));
        }
        consumer.join();
        q->unref();
    }
    state.SetItemsProcessed(state.iterations() * batch);
}
BENCHMARK(BM_QueueThroughput)->Arg(100000)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
