// Output connectables: format acceptance, push and pull delivery, flush, and video frame
// selection by time.
#include "LxConnectable.h"

#include "LxLog.h"
#include "LxNode.h"
#include "LxResult.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <mutex>
#include <thread>
#include <vector>

namespace {

// The consumer side: records what it is handed and owns it afterwards.
class FakeInput : public LxInputConnectable {
public:
    ~FakeInput() override {
        for (LxFrame* f : pushed) {
            delete f;
        }
        for (LxFrame* f : returned) {
            delete f;
        }
    }
    KtResult setFormat(LxFormat*) override { return LX_OK; }
    LxFormat* getFormat() override { return nullptr; }
    KtResult listFormats(LxFormat**& list, short* count) override {
        list = nullptr;
        *count = 0;
        return LX_OK;
    }
    LxNode* getNode() override { return nullptr; }
    void flush() override {}
    KtResult connectTo(LxOutputConnectable* o) override {
        output = o;
        return LX_OK;
    }
    LxOutputConnectable* connectedTo() override { return output; }
    LxFrame* getEmptyFrame(const LxTime&) override { return nullptr; }
    void putEmptyFrame(LxFrame* frame) override {
        std::lock_guard<std::mutex> lock(mutex);
        returned.push_back(frame);
    }
    void notifyEndOfMedia() override { ++eoms; }
    void putFrame(LxFrame* frame) override {
        std::lock_guard<std::mutex> lock(mutex);
        pushed.push_back(frame);
    }

    std::mutex mutex;
    LxOutputConnectable* output = nullptr;
    std::vector<LxFrame*> pushed;
    std::vector<LxFrame*> returned;
    int eoms = 0;
};

LxAudioFrame* audioFrame(int tag) {
    auto* f = new LxAudioFrame();
    f->filled = tag;
    return f;
}

LxVideoFrame* videoFrame(double t) {
    auto* f = new LxVideoFrame(2, 2, LxPixel32);
    f->setPresentationTime(LxTime(t));
    return f;
}

double pt(LxFrame* f) {
    return static_cast<LxVideoFrame*>(f)->getPresentationTime().getValue();
}

void setUpAudio(LxAudioOutputConnectable& out, LxFormat::StreamStyle style, LxNode* node = nullptr) {
    out.initFormats(LxSample16, LxStereo, 44100.0f, 4, style, 0);
    out.initConnectable(node);
}

TEST(LxAudioOutputConnectable, OffersItsFormatAndAcceptsOnlyThatOne) {
    LxAudioOutputConnectable out;
    LxFormat** list = nullptr;
    short count = -1;
    EXPECT_EQ(LX_OK, out.listFormats(list, &count));  // before initConnectable: nothing offered
    EXPECT_EQ(0, count);
    EXPECT_EQ(nullptr, list[0]);
    delete[] list;

    LxNode* owner = reinterpret_cast<LxNode*>(0x50);
    setUpAudio(out, LxFormat::PullStream, owner);
    EXPECT_EQ(owner, out.getNode());
    EXPECT_EQ(4, out.getBytesPerSample());
    ASSERT_EQ(LX_OK, out.listFormats(list, &count));
    ASSERT_EQ(1, count);
    auto* offered = static_cast<LxAudioFormat*>(list[0]);
    EXPECT_EQ(LxSample16, offered->getSampleFormat());
    EXPECT_EQ(LxStereo, offered->getChannels());
    EXPECT_EQ(44100.0f, offered->getSamplingRate());
    EXPECT_EQ(LxFormat::PullStream, offered->getStreamStyle());
    delete[] list;
    EXPECT_EQ(nullptr, out.getFormat());

    LxVideoFormat* v = new LxVideoFormat(LxPixel32);
    EXPECT_EQ(LX_ERR_WRONG_FORMAT, out.setFormat(v));
    v->unref();
    LxAudioFormat* otherRate = new LxAudioFormat(LxSample16, LxStereo, 22050.0f, 0, LxFormat::PullStream);
    EXPECT_EQ(LX_ERR_WRONG_FORMAT, out.setFormat(otherRate));
    EXPECT_EQ(1u, otherRate->refCount());
    otherRate->unref();
    EXPECT_EQ(nullptr, out.getFormat());

    // Another streaming flag is still the same format.
    LxAudioFormat* streaming = new LxAudioFormat(LxSample16, LxStereo, 44100.0f, 1, LxFormat::PullStream);
    EXPECT_EQ(LX_OK, out.setFormat(streaming));
    EXPECT_EQ(1u, streaming->refCount());  // not kept
    streaming->unref();
    EXPECT_EQ(offered, out.getFormat());

    EXPECT_EQ(LX_ERR_GENERIC, out.setSuggestedFrameRate(25.0f));
    out.setActive(1);
    EXPECT_EQ(0, out.isActive());
}

TEST(LxAudioOutputConnectable, PushStyleHandsFramesStraightToTheInput) {
    LxAudioOutputConnectable out;
    setUpAudio(out, LxFormat::PushStream);
    FakeInput in;
    ASSERT_EQ(LX_OK, out.connectTo(&in));
    LxAudioFrame* f = audioFrame(1);
    out.queueFrame(f);
    ASSERT_EQ(1u, in.pushed.size());
    EXPECT_EQ(f, in.pushed[0]);
    EXPECT_EQ(nullptr, out.getFrameForTime(LxTime(), LxTime()));
    out.flush();
    EXPECT_TRUE(in.returned.empty());
}

TEST(LxAudioOutputConnectable, PullStyleQueuesHandsOutOldestAndFlushesToThePool) {
    lxtest::requireLog();
    FakeInput in;
    {
        LxAudioOutputConnectable out;
        setUpAudio(out, LxFormat::PullStream);
        out.flush();  // nothing connected: nothing happens
        ASSERT_EQ(LX_OK, out.connectTo(&in));
        for (int i = 1; i <= 4; ++i) {
            out.queueFrame(audioFrame(i));
        }
        EXPECT_TRUE(in.pushed.empty());
        LxFrame* first = out.getFrameForTime(LxTime(100, 0), LxTime(1, 0));  // times are ignored
        ASSERT_NE(nullptr, first);
        EXPECT_EQ(1, static_cast<LxAudioFrame*>(first)->filled);
        delete first;
        EXPECT_EQ(nullptr, out.getFrameForTime(LxTime(), LxTime(), LxTime(1, 0)));

        out.flush();
        ASSERT_EQ(3u, in.returned.size());
        EXPECT_EQ(2, static_cast<LxAudioFrame*>(in.returned[0])->filled);
        EXPECT_EQ(4, static_cast<LxAudioFrame*>(in.returned[2])->filled);
        EXPECT_EQ(nullptr, out.getFrameForTime(LxTime(), LxTime()));

        // Frames still queued when the output goes are destroyed with it (no leak).
        out.queueFrame(audioFrame(5));
        out.queueFrame(audioFrame(6));
    }
    EXPECT_TRUE(LxLogSink::contains("LxAudioOutputConnectable:  flushing fullFrameQueue\n"));
    EXPECT_EQ(3u, in.returned.size());
}

TEST(OutputConnectables, ConnectOnceAndKeepTheFirstInput) {
    lxtest::requireLog();
    FakeInput first, second;
    LxAudioOutputConnectable audio;
    EXPECT_EQ(LX_OK, audio.connectTo(&first));
    EXPECT_EQ(LX_ERR_GENERIC, audio.connectTo(&second));
    EXPECT_EQ(&first, audio.connectedTo());
    EXPECT_TRUE(
        LxLogSink::contains("LxAudioOutputConnectable:  trying to connect after already connected!\n"));

    LxVideoOutputConnectable video;
    EXPECT_EQ(LX_OK, video.connectTo(&first));
    EXPECT_EQ(LX_ERR_GENERIC, video.connectTo(&second));
    EXPECT_EQ(&first, video.connectedTo());
    EXPECT_TRUE(
        LxLogSink::contains("LxVideoOutputConnectable:  trying to connect after already connected!\n"));
}

TEST(LxVideoOutputConnectable, FormatIsACopyOfAnExactMatch) {
    LxVideoOutputConnectable out;
    LxFormat** list = nullptr;
    short count = -1;
    ASSERT_EQ(LX_OK, out.listFormats(list, &count));
    EXPECT_EQ(0, count);
    delete[] list;

    ASSERT_EQ(LX_OK, out.initFormats(320, 240, LxPixel24, LxFormat::PullStream));
    ASSERT_EQ(LX_OK, out.listFormats(list, &count));
    ASSERT_EQ(1, count);
    EXPECT_EQ(320, static_cast<LxVideoFormat*>(list[0])->getWidth());
    delete[] list;

    LxAudioFormat* a = new LxAudioFormat(LxSample16, LxStereo, 44100.0f, 0, LxFormat::PullStream);
    EXPECT_EQ(LX_ERR_WRONG_FORMAT, out.setFormat(a));
    a->unref();
    LxVideoFormat* wrongSize = new LxVideoFormat(320, 200, LxPixel24, LxFormat::PullStream);
    EXPECT_EQ(LX_ERR_GENERIC, out.setFormat(wrongSize));
    wrongSize->unref();
    EXPECT_EQ(nullptr, out.getFormat());

    LxVideoFormat* exact = new LxVideoFormat(320, 240, LxPixel24, LxFormat::PullStream);
    EXPECT_EQ(LX_OK, out.setFormat(exact));
    EXPECT_EQ(1u, exact->refCount());
    LxFormat* cur = out.getFormat();
    ASSERT_NE(nullptr, cur);
    EXPECT_NE(exact, cur);
    EXPECT_EQ(240, static_cast<LxVideoFormat*>(cur)->getHeight());
    exact->unref();

    EXPECT_EQ(LX_OK, out.setSuggestedFrameRate(12.5f));
    EXPECT_EQ(12.5f, out.getSuggestedFrameRate());
    out.setActive(1);
    EXPECT_EQ(1, out.isActive());
}

class VideoSelection : public ::testing::Test {
protected:
    void SetUp() override {
        out.initFormats(2, 2, LxPixel32, LxFormat::PullStream);
        out.connectTo(&in);
    }
    void queue(std::initializer_list<double> times) {
        for (double t : times) {
            out.queueFrame(videoFrame(t));
        }
    }

    FakeInput in;  // declared first: outlives the output, which may still hand it frames
    LxVideoOutputConnectable out;
};

TEST_F(VideoSelection, LateFramesGoBackAndTheCoveringFrameIsReturned) {
    lxtest::requireLog();
    queue({0.0, 0.1, 0.2});
    LxFrame* f = out.getFrameForTime(LxTime(0.15), LxTime());
    ASSERT_NE(nullptr, f);
    EXPECT_DOUBLE_EQ(0.1, pt(f));
    ASSERT_EQ(1u, in.returned.size());
    EXPECT_DOUBLE_EQ(0.0, pt(in.returned[0]));
    EXPECT_EQ(1, out.getDroppedFrames());
    EXPECT_EQ(LxTime(0.15), out.getLastRequestedFrameTime());
    EXPECT_TRUE(LxLogSink::contains("LxVOC: skipping frame, too late. Giving back.\n"));
    EXPECT_TRUE(LxLogSink::contains("LxVOC: curFrame <= curTime <= nextFrame\n"));
    delete f;
    // 0.2 stayed queued.
    LxFrame* g = out.getFrameForTime(LxTime(), LxTime(), LxTime());
    ASSERT_NE(nullptr, g);
    EXPECT_DOUBLE_EQ(0.2, pt(g));
    delete g;
}

TEST_F(VideoSelection, PastTheLastFrameTheLastIsReturnedWhateverItsTime) {
    lxtest::requireLog();
    queue({0.0, 0.1, 0.2});
    LxFrame* f = out.getFrameForTime(LxTime(0.25), LxTime());
    ASSERT_NE(nullptr, f);
    EXPECT_DOUBLE_EQ(0.2, pt(f));
    EXPECT_EQ(2, out.getDroppedFrames());
    EXPECT_EQ(2u, in.returned.size());
    EXPECT_TRUE(LxLogSink::contains("LxVOC: no next frame, returning current\n"));
    delete f;

    // A lone frame is returned even when it is early.
    queue({5.0});
    f = out.getFrameForTime(LxTime(0.0), LxTime());
    ASSERT_NE(nullptr, f);
    EXPECT_DOUBLE_EQ(5.0, pt(f));
    delete f;
}

TEST_F(VideoSelection, CurTimeExactlyOnTheNextFrameSkipsToIt) {
    queue({0.0, 0.1, 0.2});
    LxFrame* f = out.getFrameForTime(LxTime(0, 100000), LxTime());
    ASSERT_NE(nullptr, f);
    EXPECT_DOUBLE_EQ(0.1, pt(f));
    EXPECT_EQ(1, out.getDroppedFrames());
    delete f;
    // And exactly on the taken frame's own time it is the one shown.
    f = out.getFrameForTime(LxTime(0, 200000), LxTime());
    ASSERT_NE(nullptr, f);
    EXPECT_DOUBLE_EQ(0.2, pt(f));
    delete f;
}

TEST_F(VideoSelection, AnEarlyFrameStaysQueuedForItsTime) {
    lxtest::requireLog();
    queue({1.0, 1.1});
    EXPECT_EQ(nullptr, out.getFrameForTime(LxTime(0.5), LxTime()));
    EXPECT_TRUE(LxLogSink::contains("LxVOC: frame is early, keeping it queued\n"));
    EXPECT_EQ(0, out.getDroppedFrames());
    EXPECT_TRUE(in.returned.empty());
    // Its time comes: it is shown, and the order behind it is unchanged.
    LxFrame* f = out.getFrameForTime(LxTime(1.05), LxTime());
    ASSERT_NE(nullptr, f);
    EXPECT_DOUBLE_EQ(1.0, pt(f));
    delete f;
    f = out.getFrameForTime(LxTime(2.0), LxTime());
    ASSERT_NE(nullptr, f);
    EXPECT_DOUBLE_EQ(1.1, pt(f));
    delete f;
}

TEST_F(VideoSelection, TimeoutsOnAnEmptyQueue) {
    lxtest::requireLog();
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(nullptr, out.getFrameForTime(LxTime(1.0), LxTime()));
    EXPECT_LT(lxtest::msSince(start), 100.0);
    EXPECT_TRUE(LxLogSink::contains("LxVOC: no frame in queue\n"));

    start = std::chrono::steady_clock::now();
    EXPECT_EQ(nullptr, out.getFrameForTime(LxTime(1.0), LxTime(0, 300000)));
    const double waited = lxtest::msSince(start);
    EXPECT_GE(waited, 280.0);
    EXPECT_LT(waited, 5000.0);

    // A frame arriving during the wait ends it early.
    std::thread producer([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        out.queueFrame(videoFrame(0.5));
    });
    start = std::chrono::steady_clock::now();
    LxFrame* f = out.getFrameForTime(LxTime(1.0), LxTime(10, 0));
    producer.join();
    ASSERT_NE(nullptr, f);
    EXPECT_LT(lxtest::msSince(start), 5000.0);
    delete f;
}

TEST_F(VideoSelection, DropFrameGivesTheOldestBack) {
    lxtest::requireLog();
    EXPECT_EQ(LX_OK, out.dropFrame());
    EXPECT_TRUE(LxLogSink::contains("LxVOC: dropFrame found no frame to drop\n"));
    queue({0.25, 0.5});
    EXPECT_EQ(LX_OK, out.dropFrame());
    ASSERT_EQ(1u, in.returned.size());
    EXPECT_DOUBLE_EQ(0.25, pt(in.returned[0]));
    EXPECT_EQ(1, out.getDroppedFrames());
    EXPECT_TRUE(LxLogSink::contains("LxVOC: dropping frame for time    0.250\n"));
}

// A producer appends and drops while a consumer selects: every frame ends in exactly one place.
TEST_F(VideoSelection, ProducerAndConsumerNeverLoseAFrame) {
    constexpr int kFrames = 2000;
    std::atomic<bool> done{false};
    std::vector<LxFrame*> shown;
    std::thread consumer([&] {
        double now = 0.0;
        while (!done.load()) {
            if (LxFrame* f = out.getFrameForTime(LxTime(now), LxTime(0, 1000))) {
                shown.push_back(f);
            }
            now += 0.004;
        }
    });
    for (int i = 0; i < kFrames; ++i) {
        out.queueFrame(videoFrame(i * 0.005));
        if (i % 7 == 0) {
            out.dropFrame();
        }
    }
    done = true;
    consumer.join();
    size_t left = 0;
    while (LxFrame* f = out.getFrameForTime(LxTime(), LxTime(), LxTime())) {
        delete f;
        ++left;
    }
    EXPECT_EQ(size_t{kFrames}, shown.size() + in.returned.size() + left);
    EXPECT_EQ(static_cast<size_t>(out.getDroppedFrames()), in.returned.size());
    for (LxFrame* f : shown) {
        delete f;
    }
}

}  // namespace
