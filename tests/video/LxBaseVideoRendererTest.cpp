// The video renderer: connection and formats, the bounded frame pool, frame selection by time in
// push and pull style, prefetch, stop, stop time, end of media and destruction.
#include "LxBaseVideoRenderer.h"

#include "LxLog.h"
#include "LxResult.h"
#include "TestManager.h"
#include "TestPlayer.h"
#include "TestSupport.h"
#include "VideoTestKit.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace {

using lxtest::BoundedAllocator;
using lxtest::EventRecorder;
using lxtest::frameMark;
using lxtest::frameTime;
using lxtest::stampFrame;

class VideoRendererTest : public ::testing::Test {
  protected:
    void SetUp() override {
        renderer = new LxBaseVideoRenderer(&manager);
        events = new EventRecorder(renderer);
    }
    void TearDown() override {
        delete events;
        delete renderer;
    }

    /// A push-style connection of 16 x 8 32-bit frames.
    void connectPush() {
        LxVideoFormat* f = new LxVideoFormat(16, 8, LxPixel32, LxFormat::PushStream);
        ASSERT_EQ(LX_OK, renderer->setFormat(f));
        f->unref();
    }
    /// A pull-style connection to `output`, both sides agreeing on 16 x 8 32-bit frames.
    void connectPull(LxVideoOutputConnectable& output) {
        ASSERT_EQ(LX_OK, output.initFormats(16, 8, LxPixel32, LxFormat::PullStream));
        output.initConnectable(nullptr);
        LxVideoFormat* f = new LxVideoFormat(16, 8, LxPixel32, LxFormat::PullStream);
        ASSERT_EQ(LX_OK, output.setFormat(f));
        ASSERT_EQ(LX_OK, renderer->setFormat(f));
        f->unref();
        output.connectTo(renderer);
        renderer->connectTo(&output);
    }
    /// A frame from the pool stamped as frame k and pushed in.
    LxFrame* push(int k) {
        LxFrame* f = renderer->getEmptyFrame(LxTime::zero());
        if (f != nullptr) {
            stampFrame(f, k);
            renderer->putFrame(f);
        }
        return f;
    }
    /// Every frame made is in the pool (nothing queued, pending or lost).
    void expectAllFree() {
        EXPECT_EQ(0, renderer->getQueuedFrameCount());
        EXPECT_FALSE(renderer->hasPendingFrame());
        EXPECT_EQ(renderer->getFramesCreated(), renderer->getFreeFrameCount());
    }

    KtDefaultThreadManager threads;
    lxtest::TestManager manager{&threads};
    LxBaseVideoRenderer* renderer = nullptr;
    EventRecorder* events = nullptr;
};

TEST_F(VideoRendererTest, OffersItsFormatsAndRefusesNonVideo) {
    EXPECT_EQ(LxNode::STOPPED, renderer->getState());
    LxInputConnectable* in = nullptr;
    ASSERT_EQ(LX_OK, renderer->getInputConnectable("Video", &in));
    EXPECT_EQ(static_cast<LxInputConnectable*>(renderer), in);
    EXPECT_EQ(LX_ERR_NO_CONNECTABLE, renderer->getInputConnectable("video", &in));
    char** names = nullptr;
    short n = -1;
    renderer->listOutputs(names, &n);
    EXPECT_EQ(0, n);
    EXPECT_EQ(static_cast<LxNode*>(renderer), renderer->getNode());

    LxFormat** list = nullptr;
    short count = 0;
    ASSERT_EQ(LX_OK, renderer->listFormats(list, &count));
    ASSERT_EQ(3, count);
    const LxPixelFormat_s order[3] = {LxPixel32Alt, LxPixel24Alt, LxPixel32};
    for (int i = 0; i < 3; ++i) {
        LxVideoFormat* v = static_cast<LxVideoFormat*>(list[i]);
        EXPECT_EQ(order[i], v->getPixelFormat());
        EXPECT_EQ(-1, v->getWidth());
        EXPECT_EQ(-1, v->getHeight());
        EXPECT_EQ(LxFormat::PushStream, v->getStreamStyle());
    }
    delete[] list;

    // Before a format: no frames, no selection.
    EXPECT_EQ(nullptr, renderer->getEmptyFrame(LxTime::zero()));
    EXPECT_EQ(nullptr, renderer->attachFrameFromTime(LxTime::zero(), LxTime::zero()));

    LxAudioFormat* audio = new LxAudioFormat(LxSample16, LxStereo, 44100.0f, 0, LxFormat::PushStream);
    EXPECT_EQ(LX_ERR_UNSUPPORTED, renderer->setFormat(audio));
    EXPECT_EQ(LX_ERR_UNSUPPORTED, renderer->setFormat(nullptr));
    audio->unref();
    EXPECT_EQ(nullptr, renderer->getFormat());
    EXPECT_EQ(nullptr, renderer->getEmptyFrame(LxTime::zero()));

    connectPush();
    ASSERT_NE(nullptr, renderer->getFormat());
    LxFrame* f = renderer->getEmptyFrame(LxTime::zero());
    ASSERT_NE(nullptr, f);
    EXPECT_EQ(16, static_cast<LxVideoFrame*>(f)->getWidth());
    EXPECT_EQ(8, static_cast<LxVideoFrame*>(f)->getHeight());
    renderer->putEmptyFrame(f);
}

TEST_F(VideoRendererTest, PoolIsBoundedAndAnAttachedFrameStaysWithTheHost) {
    connectPush();
    LxFrame* a = push(0);
    LxFrame* b = push(1);
    ASSERT_NE(nullptr, a);
    ASSERT_NE(nullptr, b);
    ASSERT_NE(a, b);

    LxFrame* shown = renderer->attachFrameFromTime(frameTime(0), LxTime::zero());
    EXPECT_EQ(a, shown);
    // The producer holds nothing now, but b is queued and a is with the host: no third frame.
    EXPECT_EQ(nullptr, renderer->getEmptyFrame(LxTime::zero()));
    LxFrame* second = renderer->attachFrameFromTime(frameTime(1), LxTime::zero());
    EXPECT_EQ(b, second);
    renderer->releaseFrame(second);

    // The producer takes b back; a is still attached and must not come out of the pool.
    LxFrame* producerHeld = renderer->getEmptyFrame(LxTime::zero());
    EXPECT_EQ(b, producerHeld);
    EXPECT_EQ(nullptr, renderer->getEmptyFrame(LxTime::zero()));

    // With a timeout the producer gets the frame the host gives back meanwhile.
    std::thread host([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        renderer->releaseFrame(shown);
    });
    const auto start = std::chrono::steady_clock::now();
    LxFrame* waited = renderer->getEmptyFrame(LxTime(0, 500000));
    const double ms = lxtest::msSince(start);
    host.join();
    EXPECT_EQ(a, waited);
    EXPECT_GE(ms, 80.0);
    EXPECT_LT(ms, 450.0);
    EXPECT_EQ(2, renderer->getFramesCreated());

    // The most recently returned frame is reused first.
    renderer->putEmptyFrame(producerHeld);
    renderer->putEmptyFrame(waited);
    EXPECT_EQ(a, renderer->getEmptyFrame(LxTime::zero()));
    EXPECT_EQ(b, renderer->getEmptyFrame(LxTime::zero()));
    renderer->putEmptyFrame(a);
    renderer->putEmptyFrame(b);
    expectAllFree();
}

TEST_F(VideoRendererTest, PushSelectionByTime) {
    lxtest::requireLog();
    connectPush();
    ASSERT_EQ(LX_OK, renderer->setFrameAllocator(new BoundedAllocator(8)));
    for (int k = 0; k < 5; ++k) {
        ASSERT_NE(nullptr, push(k));
    }
    // Halfway through frame 2: frames 0 and 1 are late and go back to the pool.
    LxFrame* f = renderer->attachFrameFromTime(LxTime(2.5 / 30), LxTime::zero());
    ASSERT_NE(nullptr, f);
    EXPECT_EQ(2, frameMark(f));
    EXPECT_EQ(2, renderer->getDroppedFrames());
    EXPECT_EQ(2, renderer->getFreeFrameCount());
    EXPECT_EQ(2, renderer->getQueuedFrameCount());
    EXPECT_TRUE(LxLogSink::contains("LxBVR: skipping frame, too late. Giving back.\n"));
    EXPECT_TRUE(LxLogSink::contains("LxBVR: curFrame <= curTime <= nextFrame\n"));
    renderer->releaseFrame(f);

    // A time exactly at the next frame's time belongs to the next frame.
    ASSERT_NE(nullptr, push(5));
    f = renderer->attachFrameFromTime(frameTime(4), LxTime::zero());
    ASSERT_NE(nullptr, f);
    EXPECT_EQ(4, frameMark(f));
    EXPECT_EQ(3, renderer->getDroppedFrames());
    renderer->releaseFrame(f);

    // The last queued frame is shown whatever the time.
    f = renderer->attachFrameFromTime(LxTime(50, 0), LxTime::zero());
    ASSERT_NE(nullptr, f);
    EXPECT_EQ(5, frameMark(f));
    EXPECT_TRUE(LxLogSink::contains("LxBVR: no next frame, returning current\n"));
    renderer->releaseFrame(f);
    EXPECT_EQ(nullptr, renderer->attachFrameFromTime(LxTime(50, 0), LxTime::zero()));
    EXPECT_TRUE(LxLogSink::contains("LxBVR: no frame in queue\n"));
    expectAllFree();
}

TEST_F(VideoRendererTest, PushEarlyFrameWaitsForItsTime) {
    connectPush();
    ASSERT_EQ(LX_OK, renderer->setFrameAllocator(new BoundedAllocator(4)));
    for (double t : {1.0, 1.04, 1.08}) {
        LxFrame* f = renderer->getEmptyFrame(LxTime::zero());
        static_cast<LxVideoFrame*>(f)->setPresentationTime(LxTime(t));
        renderer->putFrame(f);
    }
    EXPECT_EQ(nullptr, renderer->attachFrameFromTime(LxTime(0.5), LxTime::zero()));
    EXPECT_EQ(3, renderer->getQueuedFrameCount()) << "an early frame stays queued";
    EXPECT_EQ(0, renderer->getDroppedFrames());

    LxFrame* f = renderer->attachFrameFromTime(LxTime(1.05), LxTime::zero());
    ASSERT_NE(nullptr, f);
    EXPECT_EQ(LxTime(1.04), static_cast<LxVideoFrame*>(f)->getPresentationTime());
    EXPECT_EQ(1, renderer->getFreeFrameCount()) << "the 1.0 frame went back to the pool";
    renderer->releaseFrame(f);
}

TEST_F(VideoRendererTest, PushWaitsForAFrameUpToTheTimeout) {
    connectPush();
    std::thread producer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        push(0);
    });
    LxFrame* f = renderer->attachFrameFromTime(LxTime::zero(), LxTime(2, 0));
    producer.join();
    ASSERT_NE(nullptr, f);
    EXPECT_EQ(0, frameMark(f));
    renderer->releaseFrame(f);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(nullptr, renderer->attachFrameFromTime(LxTime::zero(), LxTime(0, 150000)));
    EXPECT_GE(lxtest::msSince(start), 130.0);
}

TEST_F(VideoRendererTest, PullSelectionThroughTheOutput) {
    LxVideoOutputConnectable output;
    connectPull(output);
    ASSERT_EQ(LX_OK, renderer->setFrameAllocator(new BoundedAllocator(6)));
    for (int k = 0; k < 4; ++k) {
        LxFrame* f = renderer->getEmptyFrame(LxTime::zero());
        ASSERT_NE(nullptr, f);
        stampFrame(f, k);
        output.queueFrame(static_cast<LxVideoFrame*>(f));
    }
    EXPECT_EQ(0, renderer->getQueuedFrameCount()) << "pull-style frames stay in the output";
    EXPECT_EQ(nullptr, renderer->attachFrameFromTime(LxTime(-1.0), LxTime::zero())) << "early";

    LxFrame* f = renderer->attachFrameFromTime(LxTime(2.2 / 30), LxTime::zero());
    ASSERT_NE(nullptr, f);
    EXPECT_EQ(2, frameMark(f));
    EXPECT_EQ(2, output.getDroppedFrames());
    EXPECT_EQ(2, renderer->getFreeFrameCount()) << "late frames come back to the renderer's pool";

    // A stop while started flushes the output's queue into the pool too.
    renderer->startAtTime(LxTime::zero());
    renderer->stop();
    EXPECT_EQ(3, renderer->getFreeFrameCount());
    renderer->releaseFrame(f);
    EXPECT_EQ(4, renderer->getFreeFrameCount());
    EXPECT_EQ(nullptr, output.getFrameForTime(LxTime::zero(), LxTime::maxTime(), LxTime::zero()));
}

TEST_F(VideoRendererTest, PrefetchTakesTheFirstFrameAheadOfStart) {
    connectPush();
    // Nothing produced yet: the renderer keeps trying until the first frame arrives.
    renderer->prefetch();
    EXPECT_EQ(LxNode::PREFETCHING, renderer->getState());
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(LxNode::PREFETCHING, renderer->getState());
    push(7);
    ASSERT_TRUE(events->sees(LxPrefetchCompleteEventType));
    EXPECT_EQ(LxNode::STOPPED, renderer->getState());
    EXPECT_TRUE(renderer->hasPendingFrame());

    // A second prefetch keeps the frame it has and takes no other.
    push(8);
    renderer->prefetch();
    ASSERT_TRUE(events->sees(LxPrefetchCompleteEventType));
    EXPECT_EQ(1, renderer->getQueuedFrameCount());

    // The pending frame comes first, whatever the time asked for.
    LxFrame* f = renderer->attachFrameFromTime(LxTime(100, 0), LxTime::zero());
    ASSERT_NE(nullptr, f);
    EXPECT_EQ(7, frameMark(f));
    EXPECT_FALSE(renderer->hasPendingFrame());
    renderer->releaseFrame(f);
    f = renderer->attachFrameFromTime(LxTime(100, 0), LxTime::zero());
    ASSERT_NE(nullptr, f);
    EXPECT_EQ(8, frameMark(f));
    renderer->releaseFrame(f);

    // Prefetch is refused unless stopped.
    renderer->startAtTime(LxTime::zero());
    renderer->prefetch();
    EXPECT_EQ(LxNode::STARTED, renderer->getState());
}

TEST_F(VideoRendererTest, PullPrefetchGivesUpOnASilentProducer) {
    LxVideoOutputConnectable output;
    connectPull(output);
    const auto start = std::chrono::steady_clock::now();
    renderer->prefetch();
    ASSERT_TRUE(events->sees(LxPrefetchCompleteEventType, 5000));
    const double ms = lxtest::msSince(start);
    EXPECT_GE(ms, 900.0);
    EXPECT_LT(ms, 2500.0);
    EXPECT_FALSE(renderer->hasPendingFrame());
    EXPECT_EQ(LxNode::STOPPED, renderer->getState());

    // With a frame there, it becomes the pending one.
    LxFrame* f = renderer->getEmptyFrame(LxTime::zero());
    stampFrame(f, 3);
    output.queueFrame(static_cast<LxVideoFrame*>(f));
    renderer->prefetch();
    ASSERT_TRUE(events->sees(LxPrefetchCompleteEventType));
    EXPECT_TRUE(renderer->hasPendingFrame());
    EXPECT_EQ(f, renderer->attachFrameFromTime(LxTime::zero(), LxTime::zero()));
    renderer->releaseFrame(f);
}

TEST_F(VideoRendererTest, StopFlushesEveryFrameBackToThePool) {
    connectPush();
    push(0);
    renderer->prefetch();
    ASSERT_TRUE(events->sees(LxPrefetchCompleteEventType));
    push(1);
    // Not started: stop leaves the frames where they are but still reports.
    renderer->stop();
    ASSERT_TRUE(events->sees(LxStopByRequestEventType));
    EXPECT_TRUE(renderer->hasPendingFrame());
    EXPECT_EQ(1, renderer->getQueuedFrameCount());

    EXPECT_EQ(LX_OK, renderer->startAtTime(LxTime::zero()));
    ASSERT_TRUE(events->sees(LxStartEventType));
    EXPECT_EQ(LxNode::STARTED, renderer->getState());
    renderer->stop();
    EXPECT_EQ(LxNode::STOPPED, renderer->getState());
    ASSERT_TRUE(events->sees(LxStopByRequestEventType));
    EXPECT_EQ(2, renderer->getFramesCreated());
    expectAllFree();
}

TEST_F(VideoRendererTest, StopTimePassedStopsAndReports) {
    lxtest::StepTimeBase tb(&manager, 100.0);
    ASSERT_EQ(LX_OK, renderer->setTimeBase(&tb));
    connectPush();
    push(0);
    push(1);
    ASSERT_EQ(LX_OK, renderer->startAtTime(LxTime(100, 0)));
    ASSERT_EQ(LX_OK, renderer->stopAtTime(LxTime(101, 0)));
    EXPECT_FALSE(events->sees(LxStopAtTimeEventType, 300));
    EXPECT_EQ(LxNode::STARTED, renderer->getState());

    tb.set(101.5);
    LxEvent* e = events->next(LxStopAtTimeEventType);
    ASSERT_NE(nullptr, e);
    LxStopAtTimeEvent* st = static_cast<LxStopAtTimeEvent*>(e);
    EXPECT_EQ(LxTime(101, 0), st->getStopTime());
    EXPECT_EQ(LxTime(1, 0), st->getTime()) << "media time stopped at the stop time";
    e->unref();
    EXPECT_EQ(LxNode::STOPPED, renderer->getState());
    expectAllFree();
    renderer->setTimeBase(nullptr);
}

TEST_F(VideoRendererTest, EndOfMediaFlushesAndReportsUnlessLooping) {
    connectPush();
    renderer->setLoop(1);
    ASSERT_EQ(LX_OK, renderer->startAtTime(LxTime::zero()));
    push(0);
    renderer->notifyEndOfMedia();
    EXPECT_FALSE(events->sees(LxEndOfMediaEventType, 300)) << "a looping renderer waits";
    EXPECT_EQ(1, renderer->getQueuedFrameCount());

    renderer->setLoop(0);
    ASSERT_TRUE(events->sees(LxEndOfMediaEventType));
    EXPECT_EQ(LxNode::STARTED, renderer->getState()) << "the player decides what follows";
    expectAllFree();

    // The flag was cleared: no second report for the same end.
    EXPECT_FALSE(events->sees(LxEndOfMediaEventType, 300));

    // An end noted while stopped is reported once the renderer starts.
    renderer->stop();
    renderer->notifyEndOfMedia();
    EXPECT_FALSE(events->sees(LxEndOfMediaEventType, 200));
    renderer->startAtTime(LxTime::zero());
    EXPECT_TRUE(events->sees(LxEndOfMediaEventType));
}

TEST_F(VideoRendererTest, ReplacingTheAllocator) {
    lxtest::requireLog();
    EXPECT_EQ(LX_ERR_GENERIC, renderer->setFrameAllocator(nullptr));
    // Without a format any allocator is taken as it is.
    EXPECT_EQ(LX_OK, renderer->setFrameAllocator(new BoundedAllocator(1)));
    connectPush();
    LxFrame* first = renderer->getEmptyFrame(LxTime::zero());
    ASSERT_NE(nullptr, first);
    EXPECT_EQ(nullptr, renderer->getEmptyFrame(LxTime::zero())) << "a pool of one";
    EXPECT_EQ(1, renderer->getFramesCreated());

    BoundedAllocator* refusing = new BoundedAllocator(8, LX_ERR_WRONG_FORMAT);
    EXPECT_EQ(LX_ERR_WRONG_FORMAT, renderer->setFrameAllocator(refusing));
    EXPECT_TRUE(
        LxLogSink::contains("LxBaseVideoRenderer: setFrameAllocator - could not set required format\n"));
    delete refusing;  // refused: still the caller's
    EXPECT_EQ(1, renderer->getFramesCreated()) << "the old allocator stays";

    EXPECT_EQ(LX_OK, renderer->setFrameAllocator(new BoundedAllocator(3)));
    EXPECT_TRUE(LxLogSink::contains("LxBaseVideoRenderer: deleting old frame factory\n"));
    EXPECT_EQ(0, renderer->getFramesCreated());
    // Frames of the old allocator stay in the pool and are used first.
    renderer->putEmptyFrame(first);
    EXPECT_EQ(first, renderer->getEmptyFrame(LxTime::zero()));
    LxFrame* made = renderer->getEmptyFrame(LxTime::zero());
    ASSERT_NE(nullptr, made);
    EXPECT_EQ(1, renderer->getFramesCreated());
    EXPECT_EQ(16, static_cast<LxVideoFrame*>(made)->getWidth()) << "made in the current format";
    renderer->putEmptyFrame(first);
    renderer->putEmptyFrame(made);
}

TEST_F(VideoRendererTest, DestructionDeletesTheFramesItHolds) {
    lxtest::requireLog();
    connectPush();
    LxFrame* a = renderer->getEmptyFrame(LxTime::zero());
    LxFrame* b = renderer->getEmptyFrame(LxTime::zero());
    renderer->putEmptyFrame(a);
    renderer->putEmptyFrame(b);
    delete events;
    events = nullptr;
    delete renderer;
    renderer = nullptr;
    EXPECT_TRUE(LxLogSink::contains("LxBaseVideoRenderer: deleted 2 frames out of 2 created\n"));

    // Pending and queued frames are the renderer's too (AddressSanitizer would report a leak).
    renderer = new LxBaseVideoRenderer(&manager);
    events = new EventRecorder(renderer);
    connectPush();
    push(0);
    renderer->prefetch();
    ASSERT_TRUE(events->sees(LxPrefetchCompleteEventType));
    push(1);
    renderer->startAtTime(LxTime::zero());
    LxLogSink::clear();
    delete events;
    events = nullptr;
    delete renderer;
    renderer = nullptr;
    EXPECT_TRUE(LxLogSink::contains("LxBaseVideoRenderer: deleted 2 frames out of 2 created\n"));
    EXPECT_TRUE(LxLogSink::contains("LxBaseVideoRenderer:  handleStop ()\n"));
}

TEST(VideoRendererWithoutThreads, WorksWithoutAThreadAndStartsOneOnRequest) {
    // A thread manager that gives no threads: frame hand-over still works, nothing hangs.
    class NoThreads : public KtDefaultThreadManager {
      public:
        KtThread* createThread(KtThreadEntry e, void* a, long s, long p, long c) override {
            return allow ? KtDefaultThreadManager::createThread(e, a, s, p, c) : nullptr;
        }
        bool allow = false;
    } threads;
    lxtest::TestManager manager(&threads);
    LxBaseVideoRenderer renderer(&manager);
    EXPECT_EQ(LX_ERR_GENERIC, renderer.startThread());
    LxVideoFormat* f = new LxVideoFormat(4, 4, LxPixel24Alt, LxFormat::PushStream);
    ASSERT_EQ(LX_OK, renderer.setFormat(f));
    f->unref();
    LxFrame* frame = renderer.getEmptyFrame(LxTime::zero());
    ASSERT_NE(nullptr, frame);
    renderer.putFrame(frame);
    EXPECT_EQ(frame, renderer.attachFrameFromTime(LxTime::zero(), LxTime::zero()));
    renderer.releaseFrame(frame);

    threads.allow = true;
    EXPECT_EQ(LX_OK, renderer.startThread());
    EventRecorder events(&renderer);
    // Push style with nothing queued: the prefetch keeps trying until the producer says it has
    // no more, then completes without a frame.
    renderer.prefetch();
    EXPECT_FALSE(events.sees(LxPrefetchCompleteEventType, 1300));
    renderer.notifyEndOfMedia();
    EXPECT_TRUE(events.sees(LxPrefetchCompleteEventType, 3000));
    EXPECT_FALSE(renderer.hasPendingFrame());
}

}  // namespace
