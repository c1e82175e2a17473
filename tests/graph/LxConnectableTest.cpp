// Output connectables: format acceptance, push and pull delivery, flush, and video frame
// selection by time.
#include "LxConnectable.h"

#include "LxNode.h"
#include "LxResult.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace {

// The consumer side: records what it is handed and owns it afterwards.
class FakeInput : public LxInputConnectable {
  public:
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
    void putEmptyFrame(LxFrame* frame) override { keep(returned, frame); }
    void notifyEndOfMedia() override {}
    void putFrame(LxFrame* frame) override { keep(pushed, frame); }

    std::mutex mutex;
    LxOutputConnectable* output = nullptr;
    std::vector<std::unique_ptr<LxFrame>> pushed, returned;

  private:
    void keep(std::vector<std::unique_ptr<LxFrame>>& where, LxFrame* frame) {
        std::lock_guard<std::mutex> lock(mutex);
        where.emplace_back(frame);
    }
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

double pt(const std::unique_ptr<LxFrame>& f) {
    return static_cast<LxVideoFrame*>(f.get())->getPresentationTime().getValue();
}
int tag(const std::unique_ptr<LxFrame>& f) {
    return static_cast<LxAudioFrame*>(f.get())->filled;
}

void setUpAudio(LxAudioOutputConnectable& out, LxFormat::StreamStyle style) {
    out.initFormats(LxSample16, LxStereo, 44100.0f, 4, style, 0);
    out.initConnectable(nullptr);
}

TEST(OutputConnectables, AcceptOnlyTheFormatTheyOfferAndKeepTheirOwn) {
    LxAudioOutputConnectable audio;
    setUpAudio(audio, LxFormat::PullStream);
    LxVideoOutputConnectable video;
    ASSERT_EQ(LX_OK, video.initFormats(320, 240, LxPixel24, LxFormat::PullStream));
    const LxFormat::StreamStyle pull = LxFormat::PullStream;
    const struct {
        LxOutputConnectable* out;
        LxFormat* format;
        KtResult result;
    } cases[] = {
        {&audio, new LxVideoFormat(LxPixel32), LX_ERR_WRONG_FORMAT},
        {&audio, new LxAudioFormat(LxSample16, LxStereo, 22050.0f, 0, pull), LX_ERR_WRONG_FORMAT},
        {&audio, new LxAudioFormat(LxSample16, LxStereo, 44100.0f, 1, pull), LX_OK},  // streaming or not
        {&video, new LxAudioFormat(LxSample16, LxStereo, 44100.0f, 0, pull), LX_ERR_WRONG_FORMAT},
        {&video, new LxVideoFormat(320, 200, LxPixel24, pull), LX_ERR_GENERIC},
        {&video, new LxVideoFormat(320, 240, LxPixel24, pull), LX_OK},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.result, c.out->setFormat(c.format)) << "case " << &c - cases;
        EXPECT_EQ(1u, c.format->refCount()) << "the argument is not kept";
        LxFormat* kept = c.out->getFormat();
        EXPECT_EQ(c.result == LX_OK, kept != nullptr);
        EXPECT_NE(c.format, kept);
        c.format->unref();
    }
    ASSERT_NE(nullptr, video.getFormat());
    EXPECT_EQ(240, static_cast<LxVideoFormat*>(video.getFormat())->getHeight()) << "a copy of the match";
}

// Push style hands a frame straight to the input; pull style queues it, hands out the oldest and
// flushes the rest back to the input's pool.
TEST(LxAudioOutputConnectable, PushHandsOverAndPullQueuesHandsOutOldestAndFlushesToThePool) {
    FakeInput in;
    {
        LxAudioOutputConnectable push;
        setUpAudio(push, LxFormat::PushStream);
        ASSERT_EQ(LX_OK, push.connectTo(&in));
        LxAudioFrame* f = audioFrame(1);
        push.queueFrame(f);
        ASSERT_EQ(1u, in.pushed.size());
        EXPECT_EQ(f, in.pushed[0].get());
        EXPECT_EQ(nullptr, push.getFrameForTime(LxTime(), LxTime()));
        push.flush();
        EXPECT_TRUE(in.returned.empty());
        LxAudioOutputConnectable out;
        setUpAudio(out, LxFormat::PullStream);
        out.flush();  // nothing connected: nothing happens
        ASSERT_EQ(LX_OK, out.connectTo(&in));
        for (int i = 1; i <= 4; ++i) {
            out.queueFrame(audioFrame(i));
        }
        EXPECT_EQ(1u, in.pushed.size());
        std::unique_ptr<LxFrame> first(out.getFrameForTime(LxTime(100, 0), LxTime(1, 0)));  // times ignored
        ASSERT_NE(nullptr, first);
        EXPECT_EQ(1, tag(first));
        out.flush();
        ASSERT_EQ(3u, in.returned.size());
        EXPECT_EQ(2, tag(in.returned[0]));
        EXPECT_EQ(4, tag(in.returned[2]));
        EXPECT_EQ(nullptr, out.getFrameForTime(LxTime(), LxTime()));
        out.queueFrame(audioFrame(5));  // destroyed with the output (no leak), not given back
    }
    EXPECT_EQ(3u, in.returned.size());
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
    // The time of the frame selected for t (deleted again), or -1 for none.
    double take(double t, LxTime timeout = LxTime()) {
        std::unique_ptr<LxFrame> f(out.getFrameForTime(LxTime(t), timeout));
        return f != nullptr ? pt(f) : -1.0;
    }

    FakeInput in;  // declared first: outlives the output, which may still hand it frames
    LxVideoOutputConnectable out;
};

// Frame selection by time is checked through the video renderer (pull style); here only what its
// tests do not reach.
TEST_F(VideoSelection, ALoneFrameIsShownHoweverEarlyAWaitEndsWithAnArrivalAndADropGoesBack) {
    queue({0.0, 0.1, 0.2});
    EXPECT_DOUBLE_EQ(0.1, take(0.15));
    ASSERT_EQ(1u, in.returned.size());
    EXPECT_DOUBLE_EQ(0.0, pt(in.returned[0])) << "the late frame goes back to its consumer's pool";
    EXPECT_EQ(LxTime(0.15), out.getLastRequestedFrameTime());
    EXPECT_DOUBLE_EQ(0.2, take(0.9));
    queue({5.0});
    EXPECT_DOUBLE_EQ(5.0, take(0.0));

    // On an empty queue no timeout answers at once; a frame arriving during a wait ends it early.
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(-1.0, take(1.0));
    std::thread producer([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));  // pacing: likely mid-wait
        out.queueFrame(videoFrame(0.5));
    });
    EXPECT_DOUBLE_EQ(0.5, take(1.0, LxTime(30, 0)));
    EXPECT_LT(lxtest::msSince(start), 20000.0);
    producer.join();
    EXPECT_EQ(LX_OK, out.dropFrame());  // nothing to drop
    queue({0.25, 0.5});
    EXPECT_EQ(LX_OK, out.dropFrame());
    ASSERT_EQ(2u, in.returned.size());
    EXPECT_DOUBLE_EQ(0.25, pt(in.returned[1]));
    EXPECT_EQ(2, out.getDroppedFrames()) << "the late frame and the dropped one";
}

// A producer appends and drops while a consumer selects: every frame ends in exactly one place.
TEST_F(VideoSelection, ProducerAndConsumerNeverLoseAFrame) {
    constexpr int kFrames = 2000;
    std::atomic<bool> done{false};
    std::vector<std::unique_ptr<LxFrame>> shown;
    std::thread consumer([&] {
        double now = 0.0;
        while (!done.load()) {
            if (LxFrame* f = out.getFrameForTime(LxTime(now), LxTime(0, 1000))) {
                shown.emplace_back(f);
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
}

}  // namespace
