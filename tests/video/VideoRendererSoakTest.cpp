// The renderer under load: a producer at 30 frames per second and a host painting at 60 Hz on
// their own threads, in push and in pull style at once, checked for frames lost, shown twice or
// held by two threads; then the same with the player's thread stopping, prefetching and
// starting the renderer all the time.
#include "LxBaseVideoRenderer.h"

#include "LxResult.h"
#include "TestManager.h"
#include "TestSupport.h"
#include "VideoTestKit.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <set>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
using lxtest::frameMark;
using lxtest::stampFrame;

/// One renderer with its producer and its painting host.
struct Stream {
    Stream(LxManager* manager, LxFormat::StreamStyle s)
        : style(s), renderer(new LxBaseVideoRenderer(manager)) {
        LxVideoFormat* f = new LxVideoFormat(64, 48, LxPixel32, style);
        if (style == LxFormat::PullStream) {
            output.initFormats(64, 48, LxPixel32, style);
            output.initConnectable(nullptr);
            output.setFormat(f);
            output.connectTo(renderer);
            renderer->connectTo(&output);
        }
        renderer->setFormat(f);
        f->unref();
    }
    ~Stream() { delete renderer; }

    void produce(Clock::time_point start, Clock::time_point end) {
        for (int k = 0;; ++k) {
            const Clock::time_point due = start + std::chrono::microseconds(k * 1000000 / 30);
            if (due >= end) {
                break;
            }
            std::this_thread::sleep_until(due);
            LxFrame* f = renderer->getEmptyFrame(LxTime(0, 100000));
            if (f == nullptr) {
                ++starved;
                continue;
            }
            if (f == hostHeld.load()) {
                ++sharedFrames;  // the host holds it: the renderer handed one frame out twice
                continue;
            }
            stampFrame(f, k);
            ++produced;
            if (style == LxFormat::PushStream) {
                renderer->putFrame(f);
            } else {
                output.queueFrame(static_cast<LxVideoFrame*>(f));
            }
        }
    }

    void paint(Clock::time_point start, Clock::time_point end) {
        for (int tick = 0;; ++tick) {
            const Clock::time_point due = start + std::chrono::microseconds(tick * 1000000 / 60);
            if (due >= end) {
                break;
            }
            std::this_thread::sleep_until(due);
            // Now and then the host misses a few paints (a slow scene): two frames queue up and
            // the older one is late when it comes back.
            if (tick % 45 >= 41) {
                continue;
            }
            const double now = std::chrono::duration<double>(Clock::now() - start).count();
            LxFrame* f = renderer->attachFrameFromTime(LxTime(now), LxTime::zero());
            if (f == nullptr) {
                continue;
            }
            hostHeld.store(f);
            const int32_t mark = frameMark(f);
            const LxTime pt = static_cast<LxVideoFrame*>(f)->getPresentationTime();
            if (mark != static_cast<int32_t>(std::lround(pt.getValue() * 30))) {
                ++torn;
            }
            if (mark <= lastShown) {
                ++shownTwice;
            }
            lastShown = mark;
            ++shown;
            // "Reading the pixels": nobody may write into the frame meanwhile.
            std::this_thread::sleep_for(std::chrono::microseconds(500));
            if (frameMark(f) != mark) {
                ++torn;
            }
            hostHeld.store(nullptr);
            renderer->releaseFrame(f);
        }
    }

    int32_t dropped() {
        return style == LxFormat::PushStream ? renderer->getDroppedFrames() : output.getDroppedFrames();
    }

    /// Takes back whatever is still queued, counting it.
    int drainQueued() {
        int n = renderer->getQueuedFrameCount();
        renderer->flush();
        if (style == LxFormat::PullStream) {
            while (LxFrame* f = output.getFrameForTime(LxTime::zero(), LxTime::maxTime(), LxTime::zero())) {
                renderer->putEmptyFrame(f);
                ++n;
            }
        }
        return n;
    }

    /// Every frame made is in the pool once: takes them all out, then puts them back.
    void expectPoolWhole() {
        std::set<LxFrame*> seen;
        std::vector<LxFrame*> taken;
        while (LxFrame* f = renderer->getEmptyFrame(LxTime::zero())) {
            EXPECT_TRUE(seen.insert(f).second) << "a frame is in the pool twice";
            taken.push_back(f);
            if (taken.size() > 16) {
                break;
            }
        }
        EXPECT_EQ(renderer->getFramesCreated(), static_cast<long>(taken.size()));
        EXPECT_LE(renderer->getFramesCreated(), 2) << "the default pool holds two frames";
        for (LxFrame* f : taken) {
            renderer->putEmptyFrame(f);
        }
    }

    const LxFormat::StreamStyle style;
    LxVideoOutputConnectable output;
    LxBaseVideoRenderer* renderer;
    std::atomic<LxFrame*> hostHeld{nullptr};
    std::atomic<int> produced{0};
    std::atomic<int> starved{0};
    std::atomic<int> sharedFrames{0};
    int shown = 0;
    int shownTwice = 0;
    int torn = 0;
    int32_t lastShown = -1;
};

class VideoRendererSoak : public ::testing::Test {
  protected:
    KtDefaultThreadManager threads;
    lxtest::TestManager manager{&threads};
};

TEST_F(VideoRendererSoak, TenSecondsAtThirtyFramesPaintedAtSixtyHertz) {
    Stream push(&manager, LxFormat::PushStream);
    Stream pull(&manager, LxFormat::PullStream);
    push.renderer->startAtTime(LxTime::zero());
    pull.renderer->startAtTime(LxTime::zero());

    const Clock::time_point start = Clock::now();
    const Clock::time_point end = start + std::chrono::seconds(10);
    std::thread threadsOf[4] = {
        std::thread([&] { push.produce(start, end); }), std::thread([&] { push.paint(start, end); }),
        std::thread([&] { pull.produce(start, end); }), std::thread([&] { pull.paint(start, end); })};
    for (std::thread& t : threadsOf) {
        t.join();
    }

    for (Stream* s : {&push, &pull}) {
        SCOPED_TRACE(s->style == LxFormat::PushStream ? "push" : "pull");
        const int remaining = s->drainQueued();
        std::printf("%s: produced %d, shown %d, dropped %d, still queued %d, producer starved %d\n",
                    s->style == LxFormat::PushStream ? "push" : "pull", s->produced.load(), s->shown,
                    static_cast<int>(s->dropped()), remaining, s->starved.load());
        EXPECT_EQ(0, s->sharedFrames.load());
        EXPECT_EQ(0, s->torn);
        EXPECT_EQ(0, s->shownTwice);
        // Every frame produced was shown, dropped as late, or is still queued: none vanished.
        EXPECT_EQ(s->produced.load(), s->shown + s->dropped() + remaining);
        EXPECT_GE(s->produced.load(), 280) << "about 300 frames in ten seconds";
        // The host paints twice per frame: most frames are seen, and its hiccups cost some.
        EXPECT_GE(s->shown, s->produced.load() * 8 / 10);
        EXPECT_GT(s->dropped(), 0);
        s->expectPoolWhole();
    }
}

TEST_F(VideoRendererSoak, StopPrefetchAndStartWhilePaintingAndProducing) {
    Stream push(&manager, LxFormat::PushStream);
    Stream pull(&manager, LxFormat::PullStream);
    const Clock::time_point start = Clock::now();
    const Clock::time_point end = start + std::chrono::seconds(2);
    auto player = [&](Stream& s) {
        while (Clock::now() < end) {
            s.renderer->stop();
            s.renderer->prefetch();
            std::this_thread::sleep_for(std::chrono::milliseconds(7));
            s.renderer->startAtTime(LxTime::zero());
            std::this_thread::sleep_for(std::chrono::milliseconds(13));
        }
        s.renderer->stop();
        // A prefetch still in progress finishes (it may wait up to a second for a frame).
        lxtest::waitUntil([&] { return s.renderer->getState() == LxNode::STOPPED; }, 3000);
    };
    std::thread all[6] = {std::thread([&] { push.produce(start, end); }),
                          std::thread([&] { push.paint(start, end); }),
                          std::thread([&] { player(push); }),
                          std::thread([&] { pull.produce(start, end); }),
                          std::thread([&] { pull.paint(start, end); }),
                          std::thread([&] { player(pull); })};
    for (std::thread& t : all) {
        t.join();
    }
    for (Stream* s : {&push, &pull}) {
        SCOPED_TRACE(s->style == LxFormat::PushStream ? "push" : "pull");
        s->drainQueued();
        EXPECT_EQ(0, s->sharedFrames.load());
        EXPECT_EQ(0, s->torn);
        EXPECT_GT(s->shown, 0);
        s->expectPoolWhole();
    }
}

}  // namespace
