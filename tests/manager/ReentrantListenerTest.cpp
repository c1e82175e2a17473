// Listeners that call back into the manager and the scene support from their event threads
// (verify, create and destroy players, set fields, destroy their own player) while host threads
// destroy players, with fewer channels than sounds so that the arbitration works. Nothing may hang,
// and nothing may stay registered or hold a channel.
#include "EveryKindRig.h"
#include "LxEvent.h"
#include "LxTimeBase.h"
#include "LxVrmlSupport.h"
#include "graph/LxEventPoster.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

namespace {

constexpr int kHosts = 3, kClipsPerHost = 20, kClips = kHosts * kClipsPerHost, kMaxPlain = 20;

class Reentrant;

/// The listener of one clip's player. Its handler runs on that player's event thread, one event
/// at a time, so its random source needs no lock.
class Listener : public LxEventListener {
  public:
    void handleEvent(LxEvent* event) override;
    Reentrant* test = nullptr;
    LxVrmlSupport* scene = nullptr;
    std::mt19937 rng;
};

class Reentrant : public everykind::Rig {
  public:
    /// A player made by a listener, with no scene support: whoever takes it from the pool destroys it.
    void makePlain(std::mt19937& rng) {
        if (closing || plainMade.fetch_add(1) >= kMaxPlain) {
            return;
        }
        LxPlayer* p = make(static_cast<everykind::Kind>(rng() % everykind::kKinds));
        std::lock_guard<std::mutex> guard(poolLock);
        pool.push_back(p);
    }
    void destroyPlain() {
        LxPlayer* p = nullptr;
        {
            std::lock_guard<std::mutex> guard(poolLock);
            if (!pool.empty()) {
                p = pool.back();
                pool.pop_back();
            }
        }
        if (p != nullptr) {
            manager->destroyPlayer(p);
        }
    }
    LxVrmlSupport* anyScene(std::mt19937& rng) { return scenes[rng() % kClips]; }

    LxVrmlSupport* scenes[kClips] = {};
    Listener listeners[kClips];
    std::atomic<bool> closing{false};
    std::atomic<int> plainMade{0};
    std::atomic<int> calls{0}, destroyedOwn{0}, destroyedOther{0};
    std::mutex poolLock;
    std::vector<LxPlayer*> pool;
};

void Listener::handleEvent(LxEvent* event) {
    LxManager* manager = test->manager;
    ++test->calls;
    if (event->getEventType() == LxInitializedEventType) {
        // What a host's scene node does on this event: connect, take the fields and start.
        scene->finishInitializingPlayer();
        scene->beginChangingFields(manager->getMasterTimeBase()->getRefTime());
        scene->setLoop(static_cast<char>(rng() % 2));
        scene->setStartTime(manager->getMasterTimeBase()->getRefTime());
        scene->doneChangingFields();
    }
    // What a listener may do from its handler, one picked at random each time.
    const std::function<void()> actions[] = {
        [&] { manager->verifyPlayer(test->anyScene(rng)->getPlayer()); },
        [&] { test->makePlain(rng); },
        [&] { test->destroyPlain(); },
        [&] {
            LxVrmlSupport* other = test->anyScene(rng);
            other->setRate(rng() % 2 ? 1.0f : 2.0f);
            other->setStopTime(LxTime::zero());
        },
        [&] { test->anyScene(rng)->stop(); },
        [&] { test->destroyedOther += rng() % 4 == 0 && test->anyScene(rng)->destroyPlayer() == LX_OK; },
        [&] {
            if (rng() % 4 == 0 && scene->getPlayer() != nullptr) {
                scene->destroyPlayer();  // its own: the handler returns to a poster that ends
                ++test->destroyedOwn;
            }
        },
        [] {},
    };
    actions[rng() % 8]();
}

TEST_F(Reentrant, ListenersCallingBackWhileHostsDestroyNeverHang) {
    const unsigned seed = lxtest::testSeed();  // a hang ends in the test's timeout, after the seed is printed
    SCOPED_TRACE("LORVEX_SEED=" + std::to_string(seed));
    const int posters = LxEventPoster::alive();
    manager->setMaxAudioChannels(4);
    for (int i = 0; i < kClips; ++i) {
        scenes[i] = new LxVrmlSupport(manager);
        listeners[i].test = this;
        listeners[i].scene = scenes[i];
        listeners[i].rng.seed(seed + 100 + i);
    }
    std::vector<std::thread> hosts;
    for (int h = 0; h < kHosts; ++h) {
        hosts.emplace_back([&, h] {
            std::mt19937 rng(seed + h);
            for (int c = h * kClipsPerHost; c < (h + 1) * kClipsPerHost; ++c) {
                LxPlayer* p = make(static_cast<everykind::Kind>(rng() % everykind::kKinds));
                // The listener first: once the scene has the player, another scene's listener may
                // destroy it, and this thread must not touch it after that.
                p->setEventListener(&listeners[c]);
                scenes[c]->setPlayer(p);
                // Pacing, not synchronisation: the scene plays a while before the next change.
                std::this_thread::sleep_for(std::chrono::milliseconds(rng() % 100));
                if (rng() % 2 == 0) {
                    anyScene(rng)->destroyPlayer();
                }
                destroyPlain();
            }
        });
    }
    for (std::thread& t : hosts) {
        t.join();
    }
    closing = true;
    for (LxVrmlSupport* s : scenes) {
        s->destroyPlayer();
    }
    // Players destroyed on their own event threads leave posters that end by themselves.
    EXPECT_TRUE(lxtest::waitUntil([&] { return LxEventPoster::alive() == posters; }, 30000));
    for (int i = 0; i < kMaxPlain; ++i) {
        destroyPlain();
    }
    std::printf(
        "[ measured ] %d handler calls, %d own players destroyed from them, %d destroys of others asked, %d "
        "made\n",
        calls.load(), destroyedOwn.load(), destroyedOther.load(), std::min(plainMade.load(), kMaxPlain));
    EXPECT_EQ(0, manager->players());
    EXPECT_EQ("0/0/0/0 0/0/0/0 ", manager->channels()) << "active/held/waiting/idle ports per type";
    for (LxVrmlSupport* s : scenes) {
        delete s;
    }
}

}  // namespace
