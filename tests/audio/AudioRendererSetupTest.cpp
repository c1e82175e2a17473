// The renderer on its own: how it sizes its buffers and frames from the clip, when it sets up,
// how many ports it hands out and what it leaves behind, its frame pool, and the manager's
// default renderer.
#include "AudioRendererSimKit.h"

#include "LxLog.h"

#include <chrono>
#include <thread>

namespace {

using namespace rendererkit;
namespace simsound = lxp::simsound;

class RendererSetupTest : public RendererSimTest {
  protected:
    /// A renderer given a pull-style format and then the duration (which sets it up).
    std::unique_ptr<ProbeRenderer> make(LxSampleFormat_s sampleFormat, LxAudioChannels_s channels, float rate,
                                        char streaming, const LxTime& duration) {
        auto r = std::make_unique<ProbeRenderer>(manager, mixer);
        LxAudioFormat* f = new LxAudioFormat(sampleFormat, channels, rate, streaming, LxFormat::PullStream);
        EXPECT_EQ(LX_OK, r->setFormat(f));
        f->unref();
        EXPECT_EQ(LX_OK, r->setDuration(duration));
        return r;
    }
};

struct Sizing {
    const char* what;
    LxSampleFormat_s sampleFormat;
    LxAudioChannels_s channels;
    float rate;
    char streaming;
    double seconds;
    char resident;
    int32_t bufferSize, frameBytes, lowWaterMark;
    bool madeEven;
};

TEST_F(RendererSetupTest, BuffersAndFramesAreSizedFromTheClipsFormatAndLength) {
    const Sizing cases[] = {
        {"1 s CD stereo", LxSample16, LxStereo, 44100.0f, 0, 1.0, 1, 176400, 88200, 13230, false},
        {"2 s exactly streams", LxSample16, LxStereo, 44100.0f, 0, 2.0, 0, 264600, 88200, 13230, false},
        {"unknown length streams", LxSample16, LxStereo, 44100.0f, 0, -1.0, 0, 264600, 88200, 13230, false},
        {"8-bit mono, 1.5 s rounds up", LxSample8, LxMono, 11025.0f, 0, 3.0, 0, 16538, 5513, 826, false},
        {"16-bit mono, odd size made even", LxSample16, LxMono, 11025.0f, 0, 3.0, 0, 33076, 11025, 1653,
         true},
        {"resident odd size made even", LxSample16, LxMono, 11025.0f, 0, 0.5, 1, 11026, 11025, 1653, true},
        {"a streaming source gets 6 s", LxSample16, LxStereo, 22050.0f, 1, 10.0, 0, 529200, 44100, 6615,
         false},
        {"8-bit stereo resident", LxSample8, LxStereo, 8000.0f, 0, 1.9, 1, 30400, 8000, 1200, false},
    };
    for (const Sizing& c : cases) {
        SCOPED_TRACE(c.what);
        if (LxLogSink::enabled()) {
            LxLogSink::clear();
        }
        auto r = make(c.sampleFormat, c.channels, c.rate, c.streaming, LxTime(c.seconds));
        const ProbeRenderer::Fields f = r->fields();
        EXPECT_EQ(c.resident, f.isResident);
        EXPECT_EQ(c.bufferSize, f.bufferSize);
        EXPECT_EQ(c.frameBytes, f.frameBytes);
        EXPECT_EQ(c.lowWaterMark, f.lowWaterMark);
        EXPECT_EQ(6, f.framesCreated);
        EXPECT_EQ(1, f.portCount);
        const LxWin32AudioPortConfig config = r->config();
        EXPECT_EQ(c.bufferSize, config.getBufferSize()) << "the port is opened with the buffer size";
        EXPECT_EQ(c.channels, config.getChannels());
        EXPECT_EQ(c.sampleFormat, config.getFormat());
        EXPECT_EQ(c.streaming, config.getIsStreaming());
        EXPECT_EQ(c.resident, config.getIsResident());
        if (LxLogSink::enabled()) {
            EXPECT_EQ(c.madeEven, LxLogSink::contains("adding one to buffer size to make even"));
        }
        // Every frame holds whole sample frames: half a second's bytes over the frame size.
        auto* frame = static_cast<LxAudioFrame*>(r->getEmptyFrame(LxTime(0, 0)));
        ASSERT_NE(nullptr, frame);
        EXPECT_EQ(c.frameBytes / f.bytesPerFrame, frame->fillable);
        r->putEmptyFrame(frame);
    }
}

// A player that learns its duration late calls setDuration again: the renderer keeps the port,
// buffer and frames it set up the first time instead of opening a second master behind them.
TEST_F(RendererSetupTest, TheSetUpRunsOnceAndPrefetchSetsUpWhenNobodyElseDid) {
    auto r = make(LxSample16, LxStereo, 44100.0f, 0, LxTime(1, 0));
    const int buffers = simsound::liveBuffers();
    LxWin32AudioOutputPort* master = r->port(0);
    EXPECT_EQ(LX_OK, r->setDuration(LxTime(5, 0)));
    EXPECT_EQ(1, r->fields().portCount);
    EXPECT_EQ(6, r->fields().framesCreated);
    EXPECT_EQ(1, r->fields().isResident) << "the first set-up stands";
    EXPECT_EQ(master, r->port(0));
    EXPECT_EQ(buffers, simsound::liveBuffers());

    // Without a duration, prefetch sets the renderer up on its thread, reports, and is STOPPED.
    lxtest::RecordingListener events;
    auto fresh = std::make_unique<ProbeRenderer>(manager, mixer);
    LxAudioFormat* f = new LxAudioFormat(LxSample16, LxMono, 22050.0f, 0, LxFormat::PullStream);
    fresh->setFormat(f);
    f->unref();
    ASSERT_EQ(LX_OK, fresh->setEventListener(&events));
    fresh->prefetch();
    ASSERT_TRUE(events.waitForCount(1));
    EXPECT_EQ(LxPrefetchCompleteEventType, events.entries()[0].type);
    EXPECT_TRUE(lxtest::waitUntil([&] { return fresh->fields().state == LxNode::STOPPED; }));
    EXPECT_EQ(1, fresh->fields().portCount);
    EXPECT_EQ(0, fresh->fields().isResident) << "an unknown duration streams";
}

// The first port is the master; each further one is a duplicate registered for a channel of its
// own, up to 32 in all; the renderer closes them all when it goes.
TEST_F(RendererSetupTest, PortsAreTheMasterThenDuplicatesUpToThirtyTwoAndAllCloseWithTheRenderer) {
    lxtest::requireLog();
    ASSERT_EQ(LX_OK, manager->setSpatializeSounds(1));
    auto r = make(LxSample16, LxMono, 22050.0f, 0, LxTime(1, 0));
    LxAudioOutputPort* port = nullptr;
    ASSERT_EQ(LX_OK, r->getNewAudioPort(&port));
    EXPECT_EQ(r->port(0), port);
    EXPECT_TRUE(port->hasChannel());
    for (int i = 2; i <= LxWin32AudioRenderer::kMaxPorts; ++i) {
        LxAudioOutputPort* dup = nullptr;
        ASSERT_EQ(LX_OK, r->getNewAudioPort(&dup)) << "port " << i;
        EXPECT_NE(port, dup);
        EXPECT_TRUE(dup->hasChannel()) << "port " << i;
    }
    EXPECT_TRUE(
        LxLogSink::contains("LxWin32AudioRenderer:  Created a total of 2 ports for this audio clip\n"));
    EXPECT_EQ(32, simsound::liveBuffers());
    LxAudioOutputPort* extra = port;
    EXPECT_EQ(LX_ERR_GENERIC, r->getNewAudioPort(&extra)) << "a 33rd port";
    EXPECT_EQ(nullptr, extra);
    EXPECT_EQ(32, simsound::liveBuffers());

    r.reset();
    EXPECT_EQ(0, simsound::liveBuffers()) << "the renderer's ports kept their buffers";
    // The channels came back too: a new clip gets one at once.
    auto next = make(LxSample16, LxMono, 22050.0f, 0, LxTime(1, 0));
    EXPECT_TRUE(next->port(0)->hasChannel());
}

TEST_F(RendererSetupTest, RefusedChannelsFailTheirPortWithoutLeavingItBehind) {
    lxtest::requireLog();
    // No ports before the set-up.
    ProbeRenderer early(manager, mixer);
    LxAudioOutputPort* port = nullptr;
    EXPECT_EQ(LX_ERR_GENERIC, early.getNewAudioPort(&port));
    EXPECT_TRUE(LxLogSink::contains("LxWin32AudioRenderer:  failed to create masterPort\n"));

    // An extra port the arbitration will not take is closed again at once.
    ASSERT_EQ(LX_OK, manager->setSpatializeSounds(1));
    auto r = make(LxSample16, LxMono, 22050.0f, 0, LxTime(1, 0));
    ASSERT_EQ(LX_OK, r->getNewAudioPort(&port));
    win32->refuse = true;
    const int buffers = simsound::liveBuffers();
    LxAudioOutputPort* extra = port;
    EXPECT_EQ(LX_ERR_GENERIC, r->getNewAudioPort(&extra));
    EXPECT_EQ(nullptr, extra);
    EXPECT_TRUE(LxLogSink::contains("LxWin32AudioRenderer:  Failed to get channel for additional port\n"));
    EXPECT_EQ(buffers, simsound::liveBuffers());
    EXPECT_EQ(1, r->fields().portCount);

    // A master the arbitration refuses makes the node DEAD, and its thread ends.
    auto dead = make(LxSample16, LxMono, 22050.0f, 0, LxTime(1, 0));
    EXPECT_TRUE(LxLogSink::contains("LxWin32AudioRenderer: manager refused port channel request\n"));
    EXPECT_EQ(LxNode::DEAD, dead->fields().state);
    EXPECT_TRUE(lxtest::waitUntil([&] { return dead->threadIsRunning() == 0; }));
}

TEST_F(RendererSetupTest, OnlyPullStyleAudioIsAccepted) {
    ProbeRenderer r(manager, mixer);
    LxFormat** list = nullptr;
    short count = 0;
    ASSERT_EQ(LX_OK, r.listFormats(list, &count));
    ASSERT_EQ(1, count);
    auto* offered = dynamic_cast<LxAudioFormat*>(list[0]);
    ASSERT_NE(nullptr, offered);
    EXPECT_EQ(LxAnySampleFormat, offered->getSampleFormat());
    EXPECT_EQ(LxAnyChannels, offered->getChannels());
    EXPECT_FLOAT_EQ(-1.0f, offered->getSamplingRate());
    EXPECT_EQ(LxFormat::PullStream, offered->getStreamStyle());
    delete[] list;

    LxVideoFormat video(LxPixel24);
    EXPECT_EQ(LX_ERR_UNSUPPORTED, r.setFormat(&video));
    EXPECT_EQ(nullptr, r.getFormat());
    LxAudioFormat push(LxSample16, LxStereo, 44100.0f, 0, LxFormat::PushStream);
    EXPECT_EQ(LX_ERR_UNSUPPORTED, r.setFormat(&push));
    EXPECT_EQ(&push, r.getFormat()) << "kept although refused";
    LxAudioFormat pull(LxSample16, LxStereo, 44100.0f, 0, LxFormat::PullStream);
    EXPECT_EQ(LX_OK, r.setFormat(&pull));
    EXPECT_EQ(1u, push.refCount()) << "the replaced format was released";
    EXPECT_EQ(2u, pull.refCount());

    // The manager's default renderer goes only where the output is free and offers a format.
    LxPlayer* p = openPlayer(clip("c.wav", 22050, 1, 0.5, "sine 300"));
    LxOutputConnectable* out = nullptr;
    ASSERT_EQ(LX_OK, p->getOutputConnectable("Audio", &out));
    EXPECT_EQ(LX_CONNECTED_AUDIO, manager->connectAllUnconnected(p));
    ASSERT_NE(nullptr, out->connectedTo());
    EXPECT_NE(nullptr, dynamic_cast<LxWin32AudioRenderer*>(out->connectedTo()->getNode()));
    LxInputConnectable* first = out->connectedTo();
    EXPECT_EQ(LX_ERR_GENERIC, manager->addDefaultAudioRenderer(p)) << "already connected";
    EXPECT_EQ(first, out->connectedTo());
}

// Six frames at most; a seventh waits for one to come back (the full time-out while the clip is
// not playing), and frames come back emptied.
TEST_F(RendererSetupTest, ThePoolHoldsSixFramesAndHandsBackReturnedOnesEmptied) {
    auto r = make(LxSample16, LxStereo, 44100.0f, 0, LxTime(3, 0));
    std::vector<LxAudioFrame*> taken;
    for (int i = 0; i < 6; ++i) {
        taken.push_back(static_cast<LxAudioFrame*>(r->getEmptyFrame(LxTime(0, 0))));
        ASSERT_NE(nullptr, taken.back());
    }
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(nullptr, r->getEmptyFrame(LxTime(0, 100000)));
    EXPECT_GE(lxtest::msSince(t0), 90.0) << "did not wait for a frame";
    EXPECT_EQ(6, r->fields().framesCreated) << "no frame beyond six";

    taken[0]->filled = 7;
    taken[0]->consumed = 3;
    std::thread giver([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        r->putEmptyFrame(taken[0]);
    });
    auto* back = static_cast<LxAudioFrame*>(r->getEmptyFrame(LxTime(2, 0)));
    giver.join();
    EXPECT_EQ(taken[0], back) << "the returned frame was not handed out within the time-out";
    ASSERT_NE(nullptr, back);
    EXPECT_EQ(0, back->filled);
    EXPECT_EQ(0, back->consumed);
    for (LxAudioFrame* f : taken) {
        r->putEmptyFrame(f);
    }
}

// A backward clock has a negative lead until it starts: it is waited for by its size, so the
// clip starts on time (read as an unsigned count it would be a wait of weeks).
TEST_F(RendererSetupTest, ABackwardClockIsWaitedForUntilItsStart) {
    ManualProducer producer(manager, mixer, timeBase);
    ProbeRenderer* r = producer.renderer.get();
    float back = -1.0f;
    ASSERT_EQ(LX_OK, r->setRate(&back));
    producer.feed(2);
    const LxTime start(timeBase->getRefTime().getValue() + 0.3);
    ASSERT_EQ(LX_OK, r->startAtTime(start));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(0, r->fields().hasWritten) << "written before the clock started";
    ASSERT_TRUE(lxtest::waitUntil([&] { return r->fields().hasWritten != 0; }, 3000)) << "never started";
    EXPECT_GE(timeBase->getRefTime().getValue(), start.getValue() - 0.005);
}

}  // namespace
