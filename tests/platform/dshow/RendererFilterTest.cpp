// The renderer filters on their own and with the outputs they make for the player: format
// acceptance, what each state does with samples, back-pressure, flushes, end of stream, the gate,
// audio gathered into the consumer's frames and pictures unpadded and stamped.
#include "LxBaseVideoRenderer.h"
#include "LxConnectable.h"
#include "filterlib/LxpConnectableSink.h"
#include "filterlib/LxpRenderer.h"
#include "platform/dshow/LxpGraphBase.h"

#include "FakeSample.h"
#include "GraphKit.h"
#include "TestRenderer.h"

#include <cmath>
#include <thread>
#include <tuple>

namespace {

using namespace lxp;
using lxtest::RecordingSink;

/// Stands in for the graph: records what the filter notifies.
class EventRecorder : public ComObject<IFilterGraph>, public IMediaEventSink {
  public:
    HRESULT QueryInterface(const IID& iid, void** out) override {
        if (iid == IID_IMediaEventSink) {
            *out = static_cast<IMediaEventSink*>(this);
            ComObject<IFilterGraph>::AddRef();
            return S_OK;
        }
        return queryBase(iid, out);
    }
    uint32_t AddRef() override { return ComObject<IFilterGraph>::AddRef(); }
    uint32_t Release() override { return ComObject<IFilterGraph>::Release(); }
    HRESULT AddFilter(IBaseFilter*, const WCHAR*) override { return E_NOTIMPL; }
    HRESULT RemoveFilter(IBaseFilter*) override { return E_NOTIMPL; }
    HRESULT EnumFilters(IEnumFilters**) override { return E_NOTIMPL; }
    HRESULT Notify(int32_t code, LONG_PTR, LONG_PTR param2) override {
        std::lock_guard<std::mutex> guard(mutex);
        codes.push_back(code);
        senders.push_back(param2);
        return S_OK;
    }
    std::vector<int32_t> snapshot() {
        std::lock_guard<std::mutex> guard(mutex);
        return codes;
    }

    std::mutex mutex;
    std::vector<int32_t> codes;
    std::vector<LONG_PTR> senders;
};

AM_MEDIA_TYPE pcm(int channels, int bits, int rate = 22050) {
    LxpAudioSpec spec = {bits, channels, rate};
    return audioMediaType(spec);
}

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

/// Renderer filters fed by hand from an upstream pin, delivering to a recording sink or, through
/// the outputs they make for the player, to consumers.
class Renderer : public ::testing::Test {
  protected:
    void SetUp() override {
        graph = new EventRecorder();
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
            f->SetSink(nullptr);
            f->Stop();
            f->JoinFilterGraph(nullptr, nullptr);
            f->Release();
        }
        upstream->Release();
        graph->Release();
    }
    RendererFilter* make(RendererKind kind, LxPixelFormat_s pixels = LxPixel32Alt) {
        RendererFilter* f = new RendererFilter(kind, pixels);
        f->JoinFilterGraph(graph, L"R");
        f->SetSink(&sink);
        filters.push_back(f);
        return f;
    }
    /// A 16-bit stereo renderer connected and in the given state.
    RendererFilter* audioIn(FILTER_STATE state) {
        RendererFilter* f = make(RendererKind::Audio);
        AM_MEDIA_TYPE type = pcm(2, 16);
        EXPECT_EQ(S_OK, f->receiveConnection(out, &type));
        FreeMediaType(type);
        if (state == State_Paused) {
            f->Pause();
        } else if (state == State_Running) {
            f->Run(0);
        }
        return f;
    }
    /// A running filter connected with a complete type, and the output it makes (once).
    LxOutputConnectable* output(RendererKind kind, AM_MEDIA_TYPE type, LxPixelFormat_s pixels,
                                RendererFilter** f) {
        *f = new RendererFilter(kind, pixels);
        filters.push_back(*f);
        EXPECT_EQ(S_OK, (*f)->receiveConnection(out, &type));
        FreeMediaType(type);
        char* name = nullptr;
        LxOutputConnectable* o = nullptr;
        EXPECT_EQ(S_OK, (*f)->GetOutputConnectable(nullptr, &name, &o));
        EXPECT_STREQ(kind == RendererKind::Audio ? "Audio" : "Video", name);
        outputs.push_back(o);
        LxOutputConnectable* second = nullptr;  // a filter makes its output once
        EXPECT_EQ(VFW_E_ALREADY_CONNECTED, (*f)->GetOutputConnectable(nullptr, &name, &second));
        EXPECT_EQ(nullptr, second);
        (*f)->Run(0);
        return o;
    }
    static HRESULT send(RendererFilter* f, std::vector<uint8_t> bytes, REFERENCE_TIME start,
                        REFERENCE_TIME end) {
        auto* s = new lxtest::FakeSample(std::move(bytes), start, end);
        const HRESULT hr = f->receive(s);
        s->Release();
        return hr;
    }
    /// bytes of 16-bit samples, the first of them first.
    static HRESULT send(RendererFilter* f, int16_t first, REFERENCE_TIME start, size_t bytes = 40) {
        std::vector<uint8_t> data(bytes, 0);
        data[0] = static_cast<uint8_t>(first & 0xFF);
        data[1] = static_cast<uint8_t>((first >> 8) & 0xFF);
        return send(f, data, start, start + 1);
    }
    /// Takes every queued frame off an audio output: (first byte, sample frames, time stamp in us).
    using Taken = std::tuple<int, int32_t, int64_t>;
    static std::vector<Taken> take(LxOutputConnectable* o) {
        std::vector<Taken> got;
        while (LxFrame* f = o->getFrameForTime(LxTime(), LxTime())) {
            LxAudioFrame* a = static_cast<LxAudioFrame*>(f);
            got.emplace_back(a->data[0], a->filled,
                             int64_t(a->timeStamp.sec()) * 1000000 + a->timeStamp.usec());
            o->connectedTo()->putEmptyFrame(f);
        }
        return got;
    }

    KtDefaultThreadManager threads;
    lxtest::ScopedTestManager manager{&threads};
    EventRecorder* graph = nullptr;
    BasicFilter* upstream = nullptr;
    BasicPin* out = nullptr;
    RecordingSink sink;
    std::vector<RendererFilter*> filters;
    std::vector<LxOutputConnectable*> outputs;
    std::vector<LxNode*> consumers;
};

TEST_F(Renderer, TakesOnlyFormatsItCanDeliver) {
    RendererFilter* audio = make(RendererKind::Audio);
    AM_MEDIA_TYPE partial = makeMajorType(MEDIATYPE_Audio);
    EXPECT_EQ(S_OK, audio->queryAccept(&partial));
    const int formats[][3] = {{1, 8, S_OK}, {1, 16, S_OK}, {2, 8, S_OK}, {2, 16, S_OK}, {6, 16, S_FALSE}};
    for (const auto& f : formats) {
        AM_MEDIA_TYPE t = pcm(f[0], f[1]);
        EXPECT_EQ(f[2], audio->queryAccept(&t)) << f[0] << " channels of " << f[1] << " bits";
        FreeMediaType(t);
    }
    AM_MEDIA_TYPE deep = pcm(2, 24);
    AM_MEDIA_TYPE video = makeMajorType(MEDIATYPE_Video);
    EXPECT_EQ(S_FALSE, audio->queryAccept(&video));
    EXPECT_EQ(VFW_E_TYPE_NOT_ACCEPTED, audio->receiveConnection(out, &deep));
    FreeMediaType(deep);

    AM_MEDIA_TYPE mono8 = pcm(1, 8, 11025);
    ASSERT_EQ(S_OK, audio->receiveConnection(out, &mono8));
    EXPECT_EQ(VFW_E_ALREADY_CONNECTED, audio->receiveConnection(out, &mono8));
    LxpAudioSpec spec;
    ASSERT_EQ(S_OK, audio->GetAudioSpec(&spec));
    EXPECT_EQ(1, spec.blockAlign());
    EXPECT_EQ(11025, spec.samplesPerSecond);
    FreeMediaType(mono8);
    EXPECT_EQ(S_OK, audio->disconnect());
    EXPECT_EQ(S_FALSE, audio->GetAudioSpec(&spec));

    // The video renderer takes its own pixel layout only.
    RendererFilter* rgb = make(RendererKind::Video, LxPixel24Alt);
    LxpVideoSpec want = makeVideoSpec(5, 3, LxPixel24Alt, 400000);
    LxpVideoSpec other = makeVideoSpec(5, 3, LxPixel32Alt, 400000);
    AM_MEDIA_TYPE wantType = videoMediaType(want);
    AM_MEDIA_TYPE otherType = videoMediaType(other);
    EXPECT_EQ(S_FALSE, rgb->queryAccept(&otherType));
    EXPECT_EQ(S_FALSE, rgb->queryAccept(&partial));
    EXPECT_EQ(S_OK, rgb->receiveConnection(out, &wantType));
    FreeMediaType(wantType);
    FreeMediaType(otherType);
}

TEST_F(Renderer, StoppedDropsPausedNeverBlocksRunningBlocksWhenFull) {
    RendererFilter* f = audioIn(State_Stopped);
    EXPECT_EQ(VFW_E_WRONG_STATE, send(f, 1, 0));

    // Paused: the queue may overflow; a state change must never wait on it.
    sink.hold(true);
    f->Pause();
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(S_OK, send(f, static_cast<int16_t>(i), i));
    }
    // Running: Receive waits for room (the check that it has not returned can only be a bound).
    f->Run(0);
    ASSERT_TRUE(lxtest::waitUntil([&] { return sink.blocked == 1; }, 20000));
    std::atomic<bool> returned{false};
    std::thread producer([&] {
        send(f, 100, 100);
        returned = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(returned.load()) << "a full queue holds a running graph back";
    sink.hold(false);
    producer.join();
    ASSERT_TRUE(sink.waitFor([](const RecordingSink::Record& r) { return r.audio.size() == 21; }));
    const auto got = sink.got().audio;
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(i, got[static_cast<size_t>(i)].firstSample);
    }
    EXPECT_EQ(100, got[20].firstSample);

    // A pause releases a producer waiting for room, and so does a stop.
    for (FILTER_STATE release : {State_Paused, State_Stopped}) {
        sink.hold(true);
        f->Run(0);
        returned = false;
        std::thread blocked([&] {
            for (int i = 0; i < 30; ++i) {
                send(f, 7, 0);
            }
            returned = true;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_FALSE(returned.load());
        if (release == State_Paused) {
            f->Pause();
        } else {
            f->Stop();
        }
        blocked.join();
        sink.hold(false);
    }
}

TEST_F(Renderer, FlushDropsTheQueueReleasesTheProducerAndMakesAQueuedEndStale) {
    RendererFilter* f = audioIn(State_Running);
    sink.hold(true);
    std::atomic<int> sent{0};
    std::thread producer([&] {
        for (int i = 0; i < 12; ++i) {
            send(f, static_cast<int16_t>(i), i);
            ++sent;
        }
        f->endOfStream();
    });
    ASSERT_TRUE(lxtest::waitUntil([&] { return sent.load() >= 8; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_LT(sent.load(), 12);
    f->beginFlush();
    producer.join();  // every Receive returned at once
    f->endFlush();
    sink.hold(false);
    EXPECT_EQ(1, sink.got().flushes);
    // The end of stream sent during the flush does not count; the graph heard of the flush.
    EXPECT_EQ(std::vector<int32_t>{EC_LXP_RENDERER_FLUSHED}, graph->snapshot());

    // After the flush: samples, then the end, in order, and one EC_COMPLETE naming the filter. Of
    // what was queued before, at most the sample being delivered when the flush came is heard.
    EXPECT_EQ(S_OK, send(f, 50, 0));
    EXPECT_EQ(S_OK, send(f, 51, 1));
    EXPECT_EQ(S_OK, f->endOfStream());
    ASSERT_TRUE(lxtest::waitUntil([&] { return graph->snapshot().size() == 2; }, 20000));
    EXPECT_EQ(EC_COMPLETE, graph->snapshot()[1]);
    EXPECT_EQ(reinterpret_cast<LONG_PTR>(static_cast<IBaseFilter*>(f)), graph->senders[1]);
    const auto got = sink.got().audio;
    ASSERT_TRUE(got.size() == 2 || got.size() == 3) << got.size();
    EXPECT_EQ(50, got[got.size() - 2].firstSample);
    EXPECT_EQ(51, got.back().firstSample);
    EXPECT_EQ(1, sink.got().eos);
    // A stopped filter ignores an end of stream.
    f->Stop();
    EXPECT_EQ(S_FALSE, f->endOfStream());
}

TEST_F(Renderer, TheGateDecidesEachDeliveryAndBuffersAreCutToWholeSampleFrames) {
    RendererFilter* f = audioIn(State_Running);
    std::atomic<int> gateCalls{0};
    sink.gate = [&] { return (gateCalls++ % 2) == 0; };  // open, closed, open, ...
    for (int i = 0; i < 4; ++i) {
        send(f, static_cast<int16_t>(i), i * 10, 42);  // 42 bytes: ten 4-byte frames and a half
    }
    f->endOfStream();
    ASSERT_TRUE(sink.waitFor([](const RecordingSink::Record& r) { return r.eos == 1; }));
    const auto got = sink.got().audio;
    ASSERT_EQ(2u, got.size());
    EXPECT_EQ(0, got[0].firstSample);
    EXPECT_EQ(2, got[1].firstSample);
    EXPECT_EQ(20, got[1].start);
    EXPECT_EQ(40u, got[0].bytes);
    EXPECT_EQ(4, gateCalls.load()) << "once per sample, not for the end of stream";

    // A video sample shorter than a picture is not delivered.
    RendererFilter* v = make(RendererKind::Video, LxPixel32);
    LxpVideoSpec spec = makeVideoSpec(4, 4, LxPixel32, 0);
    AM_MEDIA_TYPE type = videoMediaType(spec);
    BasicPin* out2 = upstream->addPin(L"Out2", PINDIR_OUTPUT);
    ASSERT_EQ(S_OK, v->receiveConnection(out2, &type));
    FreeMediaType(type);
    sink.gate = nullptr;
    v->Run(0);
    auto* shortSample = new lxtest::FakeSample(std::vector<uint8_t>(63, 1), 0, 1);
    auto* full = new lxtest::FakeSample(std::vector<uint8_t>(64, 1), 5, 6);
    v->receive(shortSample);
    v->receive(full);
    shortSample->Release();
    full->Release();
    EXPECT_EQ(5, sink.firstPicture().start);
}

TEST_F(Renderer, DetachingTheSinkWaitsForTheDeliveryInProgress) {
    RendererFilter* f = audioIn(State_Running);
    sink.hold(true);
    send(f, 1, 0);
    ASSERT_TRUE(lxtest::waitUntil([&] { return sink.blocked == 1; }, 20000));
    std::atomic<bool> detached{false};
    std::thread detacher([&] {
        f->SetSink(nullptr);
        detached = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(detached.load());
    sink.hold(false);
    detacher.join();
    EXPECT_EQ(1u, sink.got().audio.size());
    // Nothing reaches a detached sink: the end that follows the sample is not heard either.
    send(f, 2, 1);
    f->endOfStream();
    ASSERT_TRUE(lxtest::waitUntil([&] { return graph->snapshot().size() == 1; }, 20000));
    EXPECT_EQ(1u, sink.got().audio.size());
    EXPECT_EQ(0, sink.got().eos);
}

TEST_F(Renderer, AudioIsGatheredIntoChunksStampedWithTheirFirstSampleAndTheRestGoesAtTheEnd) {
    RendererFilter* f = nullptr;
    LxOutputConnectable* o = output(RendererKind::Audio, audioMediaType({8, 1, 8000}), LxPixel32Alt, &f);
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
        EXPECT_EQ(S_OK, send(f, bytes, first * 1250LL, (first + count) * 1250LL));
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
    EXPECT_EQ(std::vector<Taken>({Taken{0, 900, 0}}), got);
    // A buffer that overflows the frame goes on in the next one, stamped with its own time; the end
    // sends what is left.
    buffer(900, 1500);
    EXPECT_EQ(S_OK, f->endOfStream());
    got.clear();
    ASSERT_TRUE(takeUntil([&] { return consumer->endOfMediaNotes.load() == 1; }));
    takeUntil([] { return true; });
    EXPECT_EQ(std::vector<Taken>({Taken{900 & 0xFF, 1000, 112500}, Taken{1900 & 0xFF, 500, 237500}}), got);
}

TEST_F(Renderer, PicturesArriveUnpaddedWithTheirTimesAndAFullConsumerDropsThemRatherThanStall) {
    RendererFilter* f = nullptr;
    const LxpVideoSpec spec = makeVideoSpec(3, 2, LxPixel24Alt, 400000);
    ASSERT_EQ(12, spec.stride);
    LxOutputConnectable* o = output(RendererKind::Video, videoMediaType(spec), spec.pixelFormat, &f);
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
        EXPECT_EQ(S_OK, send(f, bytes, k * 400000LL, (k + 1) * 400000LL));
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

TEST_F(Renderer, WhenStopReturnsNoDeliveryIsLeftInsideTheConsumer) {
    RendererFilter* f = nullptr;
    LxOutputConnectable* o = output(RendererKind::Audio, audioMediaType({16, 1, 8000}), LxPixel32Alt, &f);
    auto* consumer = new CountingRenderer(manager.get(), 1, 1600);
    consumers.push_back(consumer);
    ASSERT_EQ(LX_OK, manager->connect(o, consumer));
    for (int round = 0; round < 20; ++round) {
        f->Run(0);
        // The one frame is taken; the next buffer waits for another that never comes.
        EXPECT_EQ(S_OK, send(f, std::vector<uint8_t>(1600), round * 2000000LL, round * 2000000LL + 1000000));
        EXPECT_EQ(S_OK,
                  send(f, std::vector<uint8_t>(1600), round * 2000000LL + 1000000, (round + 1) * 2000000LL));
        ASSERT_TRUE(lxtest::waitUntil([&] { return consumer->inside.load() == 1; }));
        const auto start = std::chrono::steady_clock::now();
        f->Stop();
        EXPECT_EQ(0, consumer->inside.load()) << "round " << round;
        EXPECT_LT(lxtest::msSince(start), 5000.0);
        consumer->pull();
    }
}

}  // namespace
