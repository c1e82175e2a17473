// The outputs a renderer filter makes for the player, fed through the filter's sink: how audio is
// gathered into the consumer's frames, how pictures are unpadded and stamped, and that a stopped
// filter has left its consumer alone.
#include "FakeSample.h"
#include "LxBaseVideoRenderer.h"
#include "LxConnectable.h"
#include "TestNodes.h"
#include "TestRenderer.h"
#include "TestSupport.h"
#include "filterlib/LxpConnectableSink.h"
#include "filterlib/LxpRenderer.h"
#include "platform/dshow/LxpGraphBase.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace lxp;

/// A test audio renderer that counts the producer threads inside getEmptyFrame.
class CountingRenderer : public lxtest::TestRendererNode {
  public:
    CountingRenderer(LxManager* m, int frames, int bytes) : TestRendererNode(m, frames, bytes) {}
    LxFrame* getEmptyFrame(const LxTime& timeout) override {
        ++inside;
        LxFrame* f = TestRendererNode::getEmptyFrame(timeout);
        --inside;
        return f;
    }
    std::atomic<int> inside{0};
};

/// The real video renderer, counting the ends of media it is told of.
class EndCountingVideoRenderer : public LxBaseVideoRenderer {
  public:
    using LxBaseVideoRenderer::LxBaseVideoRenderer;
    void notifyEndOfMedia() override {
        LxBaseVideoRenderer::notifyEndOfMedia();
        ++ends;
    }
    std::atomic<int> ends{0};
};

class Outputs : public ::testing::Test {
  protected:
    void SetUp() override {
        upstream = new BasicFilter(L"Upstream");
        out = upstream->addPin(L"Out", PINDIR_OUTPUT);
    }
    void TearDown() override {
        // Consumers first (the outputs' frames are theirs), then the outputs, then the filters.
        for (LxNode* n : consumers) {
            delete n;
        }
        for (LxOutputConnectable* o : outputs) {
            delete o;
        }
        for (RendererFilter* f : filters) {
            f->Stop();
            f->Release();
        }
        upstream->Release();
    }

    /// A running filter connected with a complete type, and its output.
    LxOutputConnectable* output(RendererFilter* f, AM_MEDIA_TYPE type, RendererFilter** filter) {
        EXPECT_EQ(S_OK, f->receiveConnection(out, &type));
        FreeMediaType(type);
        filters.push_back(f);
        char* name = nullptr;
        LxOutputConnectable* o = nullptr;
        EXPECT_EQ(S_OK, f->GetOutputConnectable(nullptr, &name, &o));
        outputs.push_back(o);
        f->Run(0);
        *filter = f;
        return o;
    }
    LxOutputConnectable* audioOutput(const LxpAudioSpec& spec, RendererFilter** filter) {
        return output(new RendererFilter(RendererKind::Audio, LxPixel32Alt), audioMediaType(spec), filter);
    }
    LxOutputConnectable* videoOutput(const LxpVideoSpec& spec, RendererFilter** filter) {
        return output(new RendererFilter(RendererKind::Video, spec.pixelFormat), videoMediaType(spec),
                      filter);
    }
    static void send(RendererFilter* f, std::vector<uint8_t> bytes, REFERENCE_TIME start,
                     REFERENCE_TIME end) {
        auto* s = new lxtest::FakeSample(std::move(bytes), start, end);
        EXPECT_EQ(S_OK, f->receive(s));
        s->Release();
    }
    /// Takes every queued frame off an audio output: (first byte, sample frames, time stamp).
    struct Taken {
        int first;
        int32_t filled;
        double stamp;
    };
    static std::vector<Taken> take(LxOutputConnectable* o) {
        std::vector<Taken> got;
        while (LxFrame* f = o->getFrameForTime(LxTime(), LxTime())) {
            LxAudioFrame* a = static_cast<LxAudioFrame*>(f);
            got.push_back({a->data[0], a->filled, a->timeStamp.getValue()});
            o->connectedTo()->putEmptyFrame(f);
        }
        return got;
    }

    KtDefaultThreadManager threads;
    lxtest::ScopedTestManager manager{&threads};
    BasicFilter* upstream = nullptr;
    BasicPin* out = nullptr;
    std::vector<RendererFilter*> filters;
    std::vector<LxOutputConnectable*> outputs;
    std::vector<LxNode*> consumers;
};

TEST_F(Outputs, AudioIsGatheredIntoChunksStampedWithTheirFirstSampleAndTheRestGoesAtTheEnd) {
    RendererFilter* f = nullptr;
    LxOutputConnectable* o = audioOutput({8, 1, 8000}, &f);
    ASSERT_NE(nullptr, o);
    LxFormat** formats = nullptr;
    short n = 0;
    o->listFormats(formats, &n);
    ASSERT_EQ(1, n);
    EXPECT_EQ(0, static_cast<LxAudioFormat*>(formats[0])->getIsStreaming())
        << "no half second of silence before the first frame";
    delete[] formats;
    auto* consumer = new lxtest::TestRendererNode(manager.get(), 8, 1000);
    consumers.push_back(consumer);
    ASSERT_EQ(LX_OK, manager->connect(o, consumer));
    // Buffers of count samples from sample first on; a chunk is 800 samples (0.1 s), a frame
    // holds 1000.
    auto buffer = [&](int first, int count) {
        std::vector<uint8_t> bytes(static_cast<size_t>(count));
        for (size_t i = 0; i < bytes.size(); ++i) {
            bytes[i] = static_cast<uint8_t>(first + static_cast<int>(i));
        }
        send(f, bytes, first * 1250LL, (first + count) * 1250LL);
    };
    std::vector<Taken> got;
    auto takeUntil = [&](const std::function<bool()>& done) {
        return lxtest::waitUntil([&] {
            for (const Taken& t : take(o)) {
                got.push_back(t);
            }
            return done();
        });
    };
    buffer(0, 300);
    buffer(300, 300);
    lxtest::waitUntil([&] { return consumer->framesCreated.load() == 1; });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_TRUE(take(o).empty()) << "75 ms is not worth a frame yet";
    buffer(600, 300);
    ASSERT_TRUE(takeUntil([&] { return !got.empty(); }));
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ(0, got[0].first);
    EXPECT_EQ(900, got[0].filled);
    EXPECT_EQ(0.0, got[0].stamp);
    // A buffer that overflows the frame goes on in the next one, stamped with its own time.
    buffer(900, 1500);
    EXPECT_EQ(S_OK, f->endOfStream());
    got.clear();
    ASSERT_TRUE(takeUntil([&] { return consumer->endOfMediaNotes.load() == 1; }));
    for (const Taken& t : take(o)) {
        got.push_back(t);
    }
    ASSERT_EQ(2u, got.size());
    EXPECT_EQ(1000, got[0].filled);
    EXPECT_EQ(static_cast<uint8_t>(900), got[0].first);
    EXPECT_DOUBLE_EQ(0.1125, got[0].stamp);
    EXPECT_EQ(500, got[1].filled) << "the end sends what is left";
    EXPECT_EQ(static_cast<uint8_t>(1900), got[1].first);
    EXPECT_DOUBLE_EQ(0.2375, got[1].stamp);
}

TEST_F(Outputs, PicturesArriveUnpaddedWithTheirTimesAndAFullConsumerDropsThemRatherThanStall) {
    RendererFilter* f = nullptr;
    const LxpVideoSpec spec = makeVideoSpec(3, 2, LxPixel24Alt, 400000);
    ASSERT_EQ(12, spec.stride);
    LxOutputConnectable* o = videoOutput(spec, &f);
    ASSERT_NE(nullptr, o);
    auto* renderer = new EndCountingVideoRenderer(manager.get());
    consumers.push_back(renderer);
    LxInputConnectable* in = nullptr;
    renderer->getInputConnectable("Video", &in);
    ASSERT_EQ(LX_OK, manager->connect(o, in));
    auto picture = [&](int k) {
        std::vector<uint8_t> bytes(24, 0xEE);  // the padding
        for (int y = 0; y < 2; ++y) {
            for (int x = 0; x < 9; ++x) {
                bytes[static_cast<size_t>(y * 12 + x)] = static_cast<uint8_t>(k * 32 + y * 16 + x);
            }
        }
        send(f, bytes, k * 400000LL, (k + 1) * 400000LL);
    };
    // Nobody paints: the renderer's two frames fill and the rest is dropped, each after a short
    // wait, instead of holding up the graph (the end of stream behind them comes through).
    const auto start = std::chrono::steady_clock::now();
    for (int k = 0; k < 5; ++k) {
        picture(k);
    }
    EXPECT_EQ(S_OK, f->endOfStream());
    ASSERT_TRUE(lxtest::waitUntil([&] { return renderer->ends.load() == 1; }, 20000));
    std::printf("[ measured ] three pictures dropped in %.0f ms\n", lxtest::msSince(start));
    EXPECT_LT(lxtest::msSince(start), 5000.0) << "the graph was held up";
    EXPECT_EQ(2, renderer->getQueuedFrameCount());

    LxFrame* frame = renderer->attachFrameFromTime(LxTime(0.05), LxTime::zero());
    LxVideoFrame* v = dynamic_cast<LxVideoFrame*>(frame);
    ASSERT_NE(nullptr, v);
    EXPECT_EQ(LxTime(0, 40000), v->getPresentationTime());
    EXPECT_EQ(LxTime(0, 80000), v->getMediaEndTime());
    EXPECT_TRUE(v->getMediaTimeIsValid());
    const uint8_t* p = v->getPixelData();
    for (int i = 0; i < 18; ++i) {
        EXPECT_EQ(32 + i / 9 * 16 + i % 9, p[i]) << "byte " << i;
    }
    renderer->releaseFrame(frame);
}

TEST_F(Outputs, WhenStopReturnsNoDeliveryIsLeftInsideTheConsumer) {
    RendererFilter* f = nullptr;
    LxOutputConnectable* o = audioOutput({16, 1, 8000}, &f);
    auto* consumer = new CountingRenderer(manager.get(), 1, 1600);
    consumers.push_back(consumer);
    ASSERT_EQ(LX_OK, manager->connect(o, consumer));
    for (int round = 0; round < 20; ++round) {
        f->Run(0);
        // The one frame is taken; the next buffer waits for another that never comes.
        send(f, std::vector<uint8_t>(1600), round * 2000000LL, round * 2000000LL + 1000000);
        send(f, std::vector<uint8_t>(1600), round * 2000000LL + 1000000, (round + 1) * 2000000LL);
        ASSERT_TRUE(lxtest::waitUntil([&] { return consumer->inside.load() == 1; }));
        const auto start = std::chrono::steady_clock::now();
        f->Stop();
        EXPECT_EQ(0, consumer->inside.load()) << "round " << round;
        EXPECT_LT(lxtest::msSince(start), 5000.0);
        consumer->pull();
    }
}

}  // namespace
