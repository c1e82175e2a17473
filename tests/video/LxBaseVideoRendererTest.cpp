// The video renderer: the bounded pool, selection by time in push and pull style, prefetch, stop,
// stop time, end of media, allocator replacement and destruction.
#include "LxBaseVideoRenderer.h"

#include "TestManager.h"
#include "TestNodes.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <thread>

namespace {

// Makes up to `limit` frames, then refuses as the default allocator does once its pool is spent.
struct BoundedAllocator : LxFrameAllocator {
    explicit BoundedAllocator(int n, KtResult formatResult = LX_OK) : limit(n), result(formatResult) {}
    KtResult allocateFrame(LxFrame** out) override {
        if (created >= limit) {
            return LX_ERR_ALREADY_TAKEN;
        }
        *out = new LxVideoFrame(16, 8, LxPixel32);
        ++created;
        return LX_OK;
    }
    KtResult setFormat(LxFormat*) override { return result; }
    long getFramesCreated() override { return created; }
    const int limit;
    const KtResult result;
    int created = 0;
};

// A renderer with 16 x 8 32-bit frames; in pull style connected to an output of its own. Frame k
// carries k in its first pixel bytes and is stamped k / 30 s unless told otherwise.
struct VideoRig {
    VideoRig(LxManager* manager, LxFormat::StreamStyle s)
        : style(s), renderer(new LxBaseVideoRenderer(manager)) {
        renderer->setEventListener(&events);
        LxVideoFormat* f = new LxVideoFormat(16, 8, LxPixel32, style);
        if (style == LxFormat::PullStream) {
            output.initFormats(16, 8, LxPixel32, style);
            output.setFormat(f);
            output.connectTo(renderer);
            renderer->connectTo(&output);
        }
        renderer->setFormat(f);
        f->unref();
    }
    ~VideoRig() { delete renderer; }  // before the output it may read from and the listener
    // Hands frame k in; null when the pool has none free.
    LxFrame* produce(int k, double t = -1) {
        auto* f = static_cast<LxVideoFrame*>(renderer->getEmptyFrame(LxTime::zero()));
        if (f != nullptr) {
            std::memcpy(f->getPixelData(), &k, sizeof(k));
            f->setPresentationTime(LxTime(t < 0 ? k / 30.0 : t));
            if (style == LxFormat::PullStream) {
                output.queueFrame(f);
            } else {
                renderer->putFrame(f);
            }
        }
        return f;
    }
    // The mark of the frame shown at t seconds (released again), or -1 for none.
    int show(double t) {
        LxFrame* f = renderer->attachFrameFromTime(LxTime(t), LxTime::zero());
        int32_t mark = -1;
        if (f != nullptr) {
            std::memcpy(&mark, static_cast<LxVideoFrame*>(f)->getPixelData(), sizeof(mark));
        }
        renderer->releaseFrame(f);
        return mark;
    }
    int32_t dropped() {
        return style == LxFormat::PushStream ? renderer->getDroppedFrames() : output.getDroppedFrames();
    }
    // Whether one more event of that type than seen so far comes within ms.
    bool sees(LxEventType_s type, int ms = 3000) {
        const size_t n = seen[type] + 1;
        const bool came = lxtest::waitUntil([&] { return events.count(type) >= n; }, ms);
        seen[type] += came;
        return came;
    }
    // Every frame made is back in the pool, nothing queued or pending.
    bool allFree() {
        LxFrame* left = output.getFrameForTime(LxTime::zero(), LxTime::maxTime(), LxTime::zero());
        renderer->putEmptyFrame(left);
        return left == nullptr && renderer->getQueuedFrameCount() == 0 && !renderer->hasPendingFrame() &&
               renderer->getFreeFrameCount() == renderer->getFramesCreated();
    }

    const LxFormat::StreamStyle style;
    lxtest::RecordingListener events;
    std::map<LxEventType_s, size_t> seen;
    LxVideoOutputConnectable output;
    LxBaseVideoRenderer* renderer;
};

class VideoRendererTest : public ::testing::TestWithParam<LxFormat::StreamStyle> {
  protected:
    KtDefaultThreadManager threads;
    lxtest::TestManager manager{&threads};
};

TEST_F(VideoRendererTest, FormatsAllocatorsRefusedAndABoundedPoolThatNeverHandsOutAnAttachedFrame) {
    LxBaseVideoRenderer bare(&manager);
    LxAudioFormat* audio = new LxAudioFormat(LxSample16, LxStereo, 44100.0f, 0, LxFormat::PushStream);
    EXPECT_EQ(LX_ERR_UNSUPPORTED, bare.setFormat(audio));
    audio->unref();
    EXPECT_EQ(nullptr, bare.getFormat());
    EXPECT_EQ(nullptr, bare.getEmptyFrame(LxTime::zero())) << "no frames before a format";

    VideoRig rig(&manager, LxFormat::PushStream);
    LxFrameAllocator* refusing = new BoundedAllocator(8, LX_ERR_WRONG_FORMAT);
    EXPECT_EQ(LX_ERR_WRONG_FORMAT, rig.renderer->setFrameAllocator(refusing));
    delete refusing;  // refused, so still ours; the default pool of two below is still in place
    EXPECT_EQ(LX_ERR_GENERIC, rig.renderer->setFrameAllocator(nullptr));
    LxFrame* a = rig.produce(0);
    LxFrame* b = rig.produce(1);
    ASSERT_TRUE(a != nullptr && b != nullptr && a != b);
    EXPECT_EQ(a, rig.renderer->attachFrameFromTime(LxTime::zero(), LxTime::zero()));
    EXPECT_EQ(nullptr, rig.renderer->getEmptyFrame(LxTime::zero())) << "two frames at most";
    EXPECT_EQ(1, rig.show(1.0 / 30));
    EXPECT_EQ(b, rig.renderer->getEmptyFrame(LxTime::zero()));
    EXPECT_EQ(nullptr, rig.renderer->getEmptyFrame(LxTime::zero())) << "a is still with the host";

    std::thread host([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        rig.renderer->releaseFrame(a);
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(a, rig.renderer->getEmptyFrame(LxTime(0, 500000)));
    EXPECT_GE(lxtest::msSince(start), 80.0);
    host.join();
    rig.renderer->putEmptyFrame(b);
    rig.renderer->putEmptyFrame(a);
    EXPECT_EQ(2, rig.renderer->getFramesCreated());
    EXPECT_TRUE(rig.allFree());
}

TEST_P(VideoRendererTest, SelectsTheFrameWhoseIntervalHoldsTheTime) {
    VideoRig rig(&manager, GetParam());
    ASSERT_EQ(LX_OK, rig.renderer->setFrameAllocator(new BoundedAllocator(8)));
    for (int k = 0; k < 5; ++k) {
        rig.produce(k);
    }
    EXPECT_EQ(-1, rig.show(-0.5)) << "early: the oldest frame waits for its time";
    EXPECT_EQ(2, rig.show(2.5 / 30));
    EXPECT_EQ(2, rig.dropped()) << "frames 0 and 1 were late";
    EXPECT_EQ(3, rig.renderer->getFreeFrameCount()) << "late frames went back to the pool";
    rig.produce(5);
    EXPECT_EQ(4, rig.show(4.0 / 30)) << "the next frame's own time belongs to it";
    EXPECT_EQ(3, rig.dropped());
    EXPECT_EQ(5, rig.show(99)) << "the last frame is shown however late";
    EXPECT_EQ(-1, rig.show(99));

    // Uneven stamps: of 1.0, 1.04 and 1.08, the time 1.05 s shows 1.04.
    rig.produce(10, 1.0);
    rig.produce(11, 1.04);
    rig.produce(12, 1.08);
    EXPECT_EQ(11, rig.show(1.05));
    EXPECT_EQ(12, rig.show(1.2));
}

TEST_P(VideoRendererTest, PrefetchHandsOutTheFirstFrameBeforeStart) {
    VideoRig rig(&manager, GetParam());
    rig.renderer->prefetch();
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    rig.produce(7);
    ASSERT_TRUE(rig.sees(LxPrefetchCompleteEventType));
    EXPECT_EQ(LxNode::STOPPED, rig.renderer->getState());
    EXPECT_TRUE(rig.renderer->hasPendingFrame());
    // A second prefetch keeps its frame rather than taking the next over it.
    rig.produce(8);
    rig.renderer->prefetch();
    ASSERT_TRUE(rig.sees(LxPrefetchCompleteEventType));
    EXPECT_EQ(7, rig.show(50)) << "the pending frame first, whatever the time";
    EXPECT_EQ(8, rig.show(50));
    // A stop while started gives the pending frame never shown, and the one queued behind it in
    // either place, back to the pool.
    rig.produce(9);
    rig.renderer->prefetch();
    ASSERT_TRUE(rig.sees(LxPrefetchCompleteEventType));
    ASSERT_NE(nullptr, rig.produce(10));
    rig.renderer->startAtTime(LxTime::zero());
    rig.renderer->stop();
    EXPECT_TRUE(rig.sees(LxStopByRequestEventType));
    EXPECT_TRUE(rig.allFree());
}

INSTANTIATE_TEST_SUITE_P(BothStyles, VideoRendererTest,
                         ::testing::Values(LxFormat::PushStream, LxFormat::PullStream));

TEST_F(VideoRendererTest, PrefetchDoesNotHoldThePlayerUpWithoutFrames) {
    // Pull style gives up after a second; push style once the producer has said it is done.
    VideoRig pull(&manager, LxFormat::PullStream);
    VideoRig push(&manager, LxFormat::PushStream);
    pull.renderer->prefetch();
    push.renderer->prefetch();
    EXPECT_TRUE(pull.sees(LxPrefetchCompleteEventType, 2500));
    EXPECT_FALSE(push.sees(LxPrefetchCompleteEventType, 100));
    push.renderer->notifyEndOfMedia();
    EXPECT_TRUE(push.sees(LxPrefetchCompleteEventType, 2500));
    EXPECT_FALSE(pull.renderer->hasPendingFrame() || push.renderer->hasPendingFrame());
    // A host that paints the cue before the renderer's thread takes it completes the prefetch too
    // (a paused graph sends no second cue).
    VideoRig painted(&manager, LxFormat::PushStream);
    painted.renderer->prefetch();
    painted.produce(3);
    ASSERT_TRUE(lxtest::waitUntil([&] { return painted.show(0) == 3; }, 20000));
    EXPECT_TRUE(painted.sees(LxPrefetchCompleteEventType, 20000));
}

TEST_F(VideoRendererTest, StopTimeAndEndOfMediaAreReportedByTheRenderersThread) {
    VideoRig rig(&manager, LxFormat::PushStream);
    lxtest::StepTimeBase tb(&manager, 100.0);
    ASSERT_EQ(LX_OK, rig.renderer->setTimeBase(&tb));
    rig.produce(0);
    ASSERT_EQ(LX_OK, rig.renderer->startAtTime(LxTime(100, 0)));
    EXPECT_TRUE(rig.sees(LxStartEventType));
    rig.renderer->stopAtTime(LxTime(101, 0));
    EXPECT_FALSE(rig.sees(LxStopAtTimeEventType, 250));
    tb.set(101.5);
    ASSERT_TRUE(rig.sees(LxStopAtTimeEventType));
    EXPECT_EQ(LxNode::STOPPED, rig.renderer->getState());
    EXPECT_EQ(LxTime(1, 0), rig.renderer->getMediaTime()) << "the clock stopped at the stop time";
    EXPECT_TRUE(rig.allFree());

    rig.renderer->stopAtTime(LxTime::maxTime());
    rig.renderer->setLoop(1);
    rig.renderer->notifyEndOfMedia();
    rig.renderer->startAtTime(LxTime(101, 500000));
    rig.produce(1);
    EXPECT_FALSE(rig.sees(LxEndOfMediaEventType, 250)) << "a looping renderer goes on";
    rig.renderer->setLoop(0);
    ASSERT_TRUE(rig.sees(LxEndOfMediaEventType));
    EXPECT_EQ(LxNode::STARTED, rig.renderer->getState()) << "the player decides what follows";
    EXPECT_TRUE(rig.allFree());
    EXPECT_FALSE(rig.sees(LxEndOfMediaEventType, 250)) << "one report per end";
    rig.renderer->stop();
    rig.renderer->setTimeBase(nullptr);
}

// Frames left in the pool, queued or pending go with the renderer, whichever allocator made them
// (LeakSanitizer and AddressSanitizer watch).
TEST_F(VideoRendererTest, AllocatorReplacementAndDestructionAccountForEveryFrame) {
    VideoRig* rig = new VideoRig(&manager, LxFormat::PushStream);
    LxFrame* old = rig->renderer->getEmptyFrame(LxTime::zero());
    ASSERT_EQ(LX_OK, rig->renderer->setFrameAllocator(new BoundedAllocator(1)));
    rig->renderer->putEmptyFrame(old);
    rig->produce(0);
    EXPECT_NE(nullptr, rig->produce(1)) << "the new allocator's one frame";
    EXPECT_EQ(nullptr, rig->produce(2));
    rig->renderer->prefetch();
    EXPECT_TRUE(rig->sees(LxPrefetchCompleteEventType));
    delete rig;
}

}  // namespace
