// A host can attach its listener only once createPlayer has returned, while the player is already
// initialising on its own thread: the listener must still hear the duration and the initialized
// event, each exactly once, whoever wins that race.
#include "EveryKindRig.h"
#include "LxEvent.h"
#include "TestNodes.h"

#include <atomic>
#include <chrono>
#include <random>
#include <set>
#include <thread>
#include <vector>

namespace {

using everykind::Kind;
using lxtest::RecordingListener;

class LateListener : public everykind::Rig {};

// Each listener is attached at a random moment: before the clip can be read, at once after, a
// little later, or once the player answers STOPPED (by then the initialized event was certainly
// posted before it came).
TEST_F(LateListener, ThousandStartsFromFourThreadsLoseNoInitialisation) {
    const unsigned seed = lxtest::testSeed();
    SCOPED_TRACE("LORVEX_SEED=" + std::to_string(seed));
    constexpr int kStarts = 1000, kThreads = 4;
    std::atomic<int> next{0}, lost{0}, doubled{0}, misordered{0};
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> hosts;
    for (int w = 0; w < kThreads; ++w) {
        hosts.emplace_back([&, w] {
            std::mt19937 rng(seed + w);
            while (lost.load() == 0 && next.fetch_add(1) < kStarts) {  // one loss is enough
                lxtest::GatedFileSource* gate = nullptr;
                LxPlayer* p = make(static_cast<Kind>(rng() % everykind::kKinds), &gate);
                if (p == nullptr) {
                    ++lost;
                    continue;
                }
                RecordingListener listener;
                const unsigned when = rng() % 4;
                if (when == 0) {
                    p->setEventListener(&listener);
                }
                gate->open();
                for (unsigned i = when == 2 ? rng() % 20000 : 0; i > 0; --i) {
                    std::this_thread::yield();
                }
                if (when == 3 &&
                    !lxtest::waitUntil([&] { return p->getState() == LxNode::STOPPED; }, 20000)) {
                    ++lost;
                }
                if (when != 0) {
                    p->setEventListener(&listener);
                }
                if (!lxtest::waitUntil([&] { return listener.count(LxInitializedEventType) > 0; }, 20000)) {
                    ++lost;
                }
                // The same event twice, looked for while the events heard are still kept by the node
                // (once it is destroyed, a freed event's address may come again).
                std::set<LxEvent*> seen;
                const auto heard = listener.entries();
                for (const auto& e : heard) {
                    doubled += seen.insert(e.event).second ? 0 : 1;
                }
                misordered += heard.size() >= 2 && heard[0].type == LxDurationChangedEventType &&
                                      heard[1].type == LxInitializedEventType
                                  ? 0
                                  : 1;
                if (manager->destroyPlayer(p) != LX_OK) {  // its poster has ended: the listener may go
                    ++lost;
                }
                doubled += listener.count(LxInitializedEventType) > 1 ? 1 : 0;
            }
        });
    }
    for (std::thread& t : hosts) {
        t.join();
    }
    std::printf("[ measured ] %d starts from %d threads: %d lost, %d events twice, %d out of order, %.1f s\n",
                kStarts, kThreads, lost.load(), doubled.load(), misordered.load(),
                lxtest::msSince(start) / 1000.0);
    EXPECT_EQ(0, lost.load());
    EXPECT_EQ(0, doubled.load());
    EXPECT_EQ(0, misordered.load()) << "not the duration, then the initialized event";
    EXPECT_EQ(0, manager->players());
}

}  // namespace
