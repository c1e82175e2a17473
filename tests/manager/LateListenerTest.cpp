// A host can attach its listener only once createPlayer has returned, while the player is already
// initialising on its own thread: the listener must still hear the duration and the initialized
// event, each exactly once, whoever wins that race.
#include "EveryKindRig.h"
#include "LxEvent.h"
#include "LxTimeBase.h"
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

std::vector<LxEventType_s> types(RecordingListener& l) {
    std::vector<LxEventType_s> out;
    for (const auto& e : l.entries()) {
        out.push_back(e.type);
    }
    return out;
}

class LateListener : public everykind::Rig {};

TEST_F(LateListener, AttachedAfterInitialisingHearsWhatOneAttachedBeforeHeard) {
    for (Kind kind : {everykind::Wave, everykind::Midi, everykind::AudioVideo}) {
        SCOPED_TRACE("kind " + std::to_string(kind));
        lxtest::GatedFileSource* gate = nullptr;
        LxPlayer* p = make(kind, &gate);
        ASSERT_NE(nullptr, p);
        RecordingListener early, late;
        p->setEventListener(&early);
        gate->open();
        // The initialized event is posted before the state leaves INITIALIZING, so once the
        // player answers STOPPED the late listener has missed it for certain.
        ASSERT_TRUE(lxtest::waitUntil([&] { return p->getState() == LxNode::STOPPED; }, 20000));
        p->setEventListener(&late);
        p->stop();  // a last event, after which nothing more is due
        for (RecordingListener* l : {&early, &late}) {
            ASSERT_TRUE(lxtest::waitUntil([&] { return l->count(LxStopByRequestEventType) == 1; }, 20000));
        }
        ASSERT_EQ((std::vector<LxEventType_s>{LxDurationChangedEventType, LxInitializedEventType,
                                              LxStopByRequestEventType}),
                  types(late));
        EXPECT_EQ(types(early), types(late));
        const auto e = early.entries(), l = late.entries();
        EXPECT_EQ(e[0].event, l[0].event) << "the very events, not copies";
        EXPECT_EQ(e[1].result, l[1].result);
        EXPECT_EQ(e[0].newDuration, l[0].newDuration);
        EXPECT_NE(e[0].thread, std::this_thread::get_id()) << "delivered on the poster thread";
        EXPECT_EQ(l[0].thread, l[2].thread);
        EXPECT_EQ(LX_OK, manager->destroyPlayer(p));
    }
}

// A thousand players of every kind made from four host threads, each listener attached at a random
// moment (before the clip can be read, at once after, or a little later); every listener hears the
// initialized event exactly once and no event twice, and the registry is empty afterwards. (Players
// that play while others come and go are the re-entrant listener test's.)
TEST_F(LateListener, ThousandStartsFromFourThreadsLoseNoInitialisation) {
    const unsigned seed = lxtest::testSeed();
    SCOPED_TRACE("LORVEX_SEED=" + std::to_string(seed));
    constexpr int kStarts = 1000, kThreads = 4;
    std::atomic<int> next{0}, lost{0}, doubled{0};
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
                const unsigned when = rng() % 3;
                if (when == 0) {
                    p->setEventListener(&listener);
                }
                gate->open();
                for (unsigned i = when == 2 ? rng() % 20000 : 0; i > 0; --i) {
                    std::this_thread::yield();
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
                for (const auto& e : listener.entries()) {
                    doubled += seen.insert(e.event).second ? 0 : 1;
                }
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
    std::printf("[ measured ] %d starts from %d threads: %d lost, %d events twice, %.1f s\n", kStarts,
                kThreads, lost.load(), doubled.load(), lxtest::msSince(start) / 1000.0);
    EXPECT_EQ(0, lost.load());
    EXPECT_EQ(0, doubled.load());
    EXPECT_EQ(0, manager->players());
}

}  // namespace
