// The renderer under load: a producer at 30 frames per second and a host painting at 60 Hz on
// their own threads, push and pull style side by side, checked for frames lost, shown twice or
// written while the host reads them; then the same with stop, prefetch and start all the time.
#include "LxBaseVideoRenderer.h"

#include "TestManager.h"
#include "VideoTestKit.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <set>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Load {
    Load(LxManager* m, LxFormat::StreamStyle style) : rig(m, style) {}

    void produce(Clock::time_point start, Clock::time_point end) {
        for (int k = 0; start + std::chrono::microseconds(k * 33333) < end; ++k) {
            std::this_thread::sleep_until(start + std::chrono::microseconds(k * 33333));
            produced += rig.produce(k, -1, LxTime(0, 100000)) != nullptr ? 1 : 0;
        }
    }
    void paint(Clock::time_point start, Clock::time_point end) {
        for (int tick = 0; start + std::chrono::microseconds(tick * 16667) < end; ++tick) {
            std::this_thread::sleep_until(start + std::chrono::microseconds(tick * 16667));
            // Now and then the host misses a few paints, so frames queue up and some are late.
            const double now = std::chrono::duration<double>(Clock::now() - start).count();
            LxFrame* f =
                tick % 45 >= 41 ? nullptr : rig.renderer->attachFrameFromTime(LxTime(now), LxTime::zero());
            if (f == nullptr) {
                continue;
            }
            const int32_t mark = lxtest::frameMark(f);
            shownTwice += mark <= lastShown ? 1 : 0;
            lastShown = mark;
            ++shown;
            std::this_thread::sleep_for(std::chrono::microseconds(500));  // reading the pixels
            overwritten += lxtest::frameMark(f) != mark ? 1 : 0;
            rig.renderer->releaseFrame(f);
        }
    }
    /// Every frame made is in the pool exactly once after a flush.
    void expectPoolWhole() {
        rig.renderer->flush();
        std::set<LxFrame*> seen;
        while (LxFrame* f = rig.renderer->getEmptyFrame(LxTime::zero())) {
            if (!seen.insert(f).second) {
                ADD_FAILURE() << "a frame is in the pool twice";
                break;
            }
        }
        EXPECT_EQ(rig.renderer->getFramesCreated(), static_cast<long>(seen.size()));
        EXPECT_LE(seen.size(), 2u);
        for (LxFrame* f : seen) {
            rig.renderer->putEmptyFrame(f);
        }
    }

    lxtest::VideoRig rig;
    std::atomic<int> produced{0};
    int shown = 0, shownTwice = 0, overwritten = 0;
    int32_t lastShown = -1;
};

/// Push and pull side by side for `seconds`; with storm, a player thread keeps stopping,
/// prefetching and starting each renderer meanwhile (frames then also leave through flushes).
void soak(int seconds, bool storm) {
    KtDefaultThreadManager threads;
    lxtest::TestManager manager(&threads);
    Load push(&manager, LxFormat::PushStream), pull(&manager, LxFormat::PullStream);
    const Clock::time_point start = Clock::now(), end = start + std::chrono::seconds(seconds);
    std::vector<std::thread> all;
    for (Load* l : {&push, &pull}) {
        l->rig.renderer->startAtTime(LxTime::zero());
        all.emplace_back([=] { l->produce(start, end); });
        all.emplace_back([=] { l->paint(start, end); });
        all.emplace_back([=] {
            while (storm && Clock::now() < end) {
                l->rig.renderer->stop();
                l->rig.renderer->prefetch();
                std::this_thread::sleep_for(std::chrono::milliseconds(7));
                l->rig.renderer->startAtTime(LxTime::zero());
                std::this_thread::sleep_for(std::chrono::milliseconds(13));
            }
        });
    }
    for (std::thread& t : all) {
        t.join();
    }
    if (storm) {
        // A prefetch may still wait for a frame (up to a second): it must finish before the count.
        std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    }
    for (Load* l : {&push, &pull}) {
        SCOPED_TRACE(l == &push ? "push" : "pull");
        EXPECT_EQ(0, l->overwritten);
        EXPECT_GT(l->shown, 0);
        if (!storm) {
            // Whatever is still queued: the last frame is shown, the ones before it are dropped.
            const int left = l->rig.show(100) >= 0 ? 1 : 0;
            EXPECT_EQ(0, l->shownTwice);
            // Each frame was shown, dropped as late, or was still queued: none vanished.
            EXPECT_EQ(l->produced.load(), l->shown + l->rig.dropped() + left);
            EXPECT_GE(l->produced.load(), 290);
            EXPECT_GT(l->rig.dropped(), 0);
        }
        l->expectPoolWhole();
    }
}

TEST(VideoRendererSoak, TenSecondsAtThirtyFramesPaintedAtSixtyHertz) {
    soak(10, false);
}

TEST(VideoRendererSoak, StopPrefetchAndStartWhilePaintingAndProducing) {
    soak(2, true);
}

}  // namespace
