// The stream scheduler over the simulated device: timing, buffer return, stop/reset/close.
#include "LxPlatformMidi.h"
#include "platform/LxpDuplex.h"
#include "platform/midi/LxpMidi.h"
#include "platform/midi/LxpMidiSim.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using namespace lxp;

struct Returned {
    MIDIHDR* header;
    int64_t atMicros;
    std::thread::id thread;
};

/// A stream buffer with its header and records.
struct Buffer {
    std::vector<MIDIEVENT> records;
    std::vector<char> data = std::vector<char>(1024);
    MIDIHDR header{};

    explicit Buffer(std::vector<MIDIEVENT> r = {}) : records(std::move(r)) {
        if (!records.empty()) {
            std::memcpy(data.data(), records.data(), records.size() * sizeof(MIDIEVENT));
        }
        header.lpData = data.data();
        header.dwBufferLength = static_cast<uint32_t>(data.size());
        header.dwBytesRecorded = static_cast<uint32_t>(records.size() * sizeof(MIDIEVENT));
    }
};

MIDIEVENT note(uint32_t delta, uint32_t key, uint32_t velocity = 100) {
    return {delta, 0, 0x90u | (key << 8) | (velocity << 16)};
}
MIDIEVENT tempo(uint32_t delta, uint32_t usPerQuarter) {
    return {delta, 0, (MEVT_TEMPO << 24) | usPerQuarter};
}

class MidiStreamTest : public ::testing::Test {
  protected:
    void SetUp() override {
        midisim::reset();
        duplex::reset();
        LxPlatformSetMidiBackend(LX_MIDI_SIMULATED);
    }

    void TearDown() override {
        if (stream_ != nullptr) {
            midiStreamStop(stream_);
            midisim::advanceMs(1);
            EXPECT_EQ(MMSYSERR_NOERROR, midiStreamClose(stream_));
        }
        EXPECT_TRUE(lxtest::waitUntil([] { return midiLiveDeviceThreads() == 0; }));
        LxPlatformSetMidiBackend(LX_MIDI_FLUIDSYNTH);
        duplex::reset();
    }

    static void callback(HMIDIOUT, uint32_t message, uintptr_t instance, uintptr_t param1, uintptr_t) {
        auto* self = reinterpret_cast<MidiStreamTest*>(instance);
        ASSERT_EQ(MOM_DONE, message);
        {
            std::lock_guard<std::mutex> guard(self->mutex_);
            self->returned_.push_back(
                {reinterpret_cast<MIDIHDR*>(param1), midisim::nowMicros(), std::this_thread::get_id()});
        }
        if (self->onReturn_) {
            self->onReturn_(reinterpret_cast<MIDIHDR*>(param1));
        }
    }

    void open(uint32_t division) {
        uint32_t device = MIDI_MAPPER;
        ASSERT_EQ(MMSYSERR_NOERROR, midiStreamOpen(&stream_, &device, 1, callback,
                                                   reinterpret_cast<uintptr_t>(this), CALLBACK_FUNCTION));
        MIDIPROPTIMEDIV prop{sizeof(MIDIPROPTIMEDIV), division};
        ASSERT_EQ(MMSYSERR_NOERROR, midiStreamProperty(stream_, reinterpret_cast<uint8_t*>(&prop),
                                                       MIDIPROP_SET | MIDIPROP_TIMEDIV));
    }

    void send(Buffer& b) {
        ASSERT_EQ(MMSYSERR_NOERROR, midiOutPrepareHeader(stream_, &b.header, sizeof(MIDIHDR)));
        ASSERT_EQ(MMSYSERR_NOERROR, midiStreamOut(stream_, &b.header, sizeof(MIDIHDR)));
    }

    std::vector<Returned> returned() {
        std::lock_guard<std::mutex> guard(mutex_);
        return returned_;
    }

    static std::vector<midisim::Message> streamMessages() {
        std::vector<midisim::Message> out;
        for (const auto& m : midisim::messages()) {
            if (m.fromStream) {
                out.push_back(m);
            }
        }
        return out;
    }

    HMIDISTRM stream_ = nullptr;
    std::mutex mutex_;
    std::vector<Returned> returned_;
    std::function<void(MIDIHDR*)> onReturn_;
};

TEST_F(MidiStreamTest, PlaysEveryEventOnTimeAcrossBuffersAndTempoChanges) {
    open(480);
    // Notes every 120 ticks, with tempo records inside buffers, as a buffer's first record, and a
    // buffer that is nothing but a tempo change; deltas of tempo records count too.
    std::vector<std::vector<MIDIEVENT>> parts;
    std::vector<MIDIEVENT> all;
    uint32_t key = 40;
    for (int b = 0; b < 6; ++b) {
        std::vector<MIDIEVENT> r;
        if (b == 2) {
            r.push_back(tempo(60, 250000));
        }
        for (int i = 0; i < 7; ++i) {
            r.push_back(note(b == 2 && i == 0 ? 60 : 120, key++));
            if (b == 1 && i == 3) {
                r.push_back(tempo(30, 750000));
            }
        }
        if (b == 4) {
            parts.push_back({tempo(10, 600000)});
        }
        parts.push_back(r);
    }
    std::vector<std::unique_ptr<Buffer>> buffers;
    for (auto& p : parts) {
        all.insert(all.end(), p.begin(), p.end());
        buffers.emplace_back(new Buffer(p));
    }
    // Independent expectation: seconds from ticks, in floating point, tempo by tempo.
    std::vector<double> expected;
    std::vector<double> lastOfBuffer;
    double t = 0;
    double usPerTick = 500000.0 / 480;
    for (const auto& p : parts) {
        for (const MIDIEVENT& e : p) {
            t += e.dwDeltaTime * usPerTick;
            if (MEVT_EVENTTYPE(e.dwEvent) == MEVT_TEMPO) {
                usPerTick = MEVT_EVENTPARM(e.dwEvent) / 480.0;
            } else {
                expected.push_back(t);
            }
        }
        lastOfBuffer.push_back(t);
    }

    // The first buffers are queued before playback starts, the rest while it plays (from the
    // callback, as a player refills).
    size_t next = 2;
    onReturn_ = [&](MIDIHDR*) {
        if (next < buffers.size()) {
            Buffer& b = *buffers[next++];
            midiOutPrepareHeader(stream_, &b.header, sizeof(MIDIHDR));
            midiStreamOut(stream_, &b.header, sizeof(MIDIHDR));
        }
    };
    send(*buffers[0]);
    send(*buffers[1]);
    midisim::advanceMs(100);
    EXPECT_TRUE(midisim::messages().empty()) << "a stream opens paused";
    ASSERT_EQ(MMSYSERR_NOERROR, midiStreamRestart(stream_));
    const int64_t start = midisim::nowMicros();
    for (int i = 0; i < 200; ++i) {
        midisim::advanceMs(50);
    }
    const auto played = streamMessages();
    ASSERT_EQ(expected.size(), played.size());
    for (size_t i = 0; i < played.size(); ++i) {
        EXPECT_EQ(0x90u | ((40u + i) << 8) | (100u << 16), played[i].message) << "order, event " << i;
        EXPECT_NEAR(expected[i], static_cast<double>(played[i].playMicros - start), 2000.0) << "event " << i;
    }
    const auto back = returned();
    ASSERT_EQ(buffers.size(), back.size());
    for (size_t i = 0; i < back.size(); ++i) {
        EXPECT_EQ(&buffers[i]->header, back[i].header) << "returned in order";
        EXPECT_GE(static_cast<double>(back[i].atMicros - start), lastOfBuffer[i] - 1.0) << "buffer " << i;
        EXPECT_NEAR(lastOfBuffer[i], static_cast<double>(back[i].atMicros - start), 2000.0) << "buffer " << i;
        EXPECT_NE(std::this_thread::get_id(), back[i].thread) << "callbacks come on the device thread";
        EXPECT_EQ(MHDR_DONE | MHDR_PREPARED | MHDR_ISSTRM, back[i].header->dwFlags);
    }
}

TEST_F(MidiStreamTest, ZeroLengthAndTempoOnlyBuffersComeBackInOrder) {
    open(96);
    Buffer a({note(96, 60)});
    Buffer empty;
    Buffer b({note(0, 61), note(96, 62)});
    send(a);
    send(empty);
    send(b);
    ASSERT_EQ(MMSYSERR_NOERROR, midiStreamRestart(stream_));
    midisim::advanceMs(499);
    EXPECT_TRUE(returned().empty()) << "nothing is due before the first note at 500 ms";
    midisim::advanceMs(1);
    auto back = returned();
    ASSERT_EQ(2u, back.size()) << "the empty buffer follows the one before it at once";
    EXPECT_EQ(&a.header, back[0].header);
    EXPECT_EQ(&empty.header, back[1].header);
    midisim::advanceMs(500);
    back = returned();
    ASSERT_EQ(3u, back.size());
    EXPECT_EQ(1000000, back[2].atMicros);
    // A buffer queued after the stream ran dry continues from the last record's time: its first
    // note is already late and plays at once, the next keeps its delta.
    midisim::advanceMs(300);
    Buffer c({note(48, 63), note(96, 64)});
    send(c);
    midisim::advanceMs(1);
    auto msgs = streamMessages();
    ASSERT_EQ(4u, msgs.size());
    EXPECT_EQ(1300000, msgs[3].playMicros);
    EXPECT_EQ(1250000, msgs[3].dueMicros);
    midisim::advanceMs(500);
    msgs = streamMessages();
    ASSERT_EQ(5u, msgs.size());
    EXPECT_EQ(1750000, msgs[4].playMicros);
}

TEST_F(MidiStreamTest, StopAndResetReturnEveryBufferOnceAndSilence) {
    for (bool reset : {false, true}) {
        SCOPED_TRACE(reset ? "midiOutReset" : "midiStreamStop");
        returned_.clear();
        midisim::clearMessages();
        open(96);
        Buffer a({note(0, 60), note(96, 61)});
        Buffer b({note(96, 62)});
        Buffer c({note(96, 63)});
        send(a);
        send(b);
        send(c);
        ASSERT_EQ(MMSYSERR_NOERROR, midiStreamRestart(stream_));
        midisim::advanceMs(10);  // a is half played
        ASSERT_EQ(MMSYSERR_NOERROR, reset ? midiOutReset(stream_) : midiStreamStop(stream_));
        ASSERT_TRUE(lxtest::waitUntil([&] { return returned().size() == 3; }));
        midisim::advanceMs(5000);
        const auto back = returned();
        ASSERT_EQ(3u, back.size()) << "no buffer comes back twice";
        EXPECT_EQ(&a.header, back[0].header);
        EXPECT_EQ(&b.header, back[1].header);
        EXPECT_EQ(&c.header, back[2].header);
        for (const Buffer* x : {&a, &b, &c}) {
            EXPECT_EQ(MHDR_DONE, x->header.dwFlags & (MHDR_DONE | MHDR_INQUEUE));
        }
        EXPECT_EQ(1u, streamMessages().size()) << "nothing played after the stop";
        int notesOff = 0;
        for (const auto& m : midisim::messages()) {
            notesOff += (m.message & 0xFFF0u) == 0x7BB0u;
        }
        EXPECT_EQ(16, notesOff);
        // Stopped means paused at time 0: a new buffer waits for a restart and then plays from 0.
        Buffer d({note(96, 64)});
        send(d);
        midisim::advanceMs(1000);
        EXPECT_EQ(1u, streamMessages().size());
        const int64_t t0 = midisim::nowMicros();
        ASSERT_EQ(MMSYSERR_NOERROR, midiStreamRestart(stream_));
        midisim::advanceMs(1000);
        ASSERT_EQ(2u, streamMessages().size());
        EXPECT_EQ(t0 + 500000, streamMessages()[1].playMicros);
        for (Buffer* x : {&a, &b, &c, &d}) {
            EXPECT_EQ(MMSYSERR_NOERROR, midiOutUnprepareHeader(stream_, &x->header, sizeof(MIDIHDR)));
        }
        ASSERT_EQ(MMSYSERR_NOERROR, midiStreamClose(stream_));
        stream_ = nullptr;
        EXPECT_EQ(0, midiLiveDeviceThreads()) << "close from another thread joins the device thread";
    }
}

TEST_F(MidiStreamTest, StopFromAnotherThreadWhileTheCallbackRefills) {
    // A player refills from the callback while its own thread stops the stream: every buffer
    // must still come back exactly once, and none may stay queued.
    midisim::setRealTime(true);
    open(480);
    std::vector<std::unique_ptr<Buffer>> bufs;
    for (int i = 0; i < 2; ++i) {
        std::vector<MIDIEVENT> r;
        for (int k = 0; k < 20; ++k) {
            r.push_back(note(1, 60 + k));  // about 1 ms apart
        }
        bufs.emplace_back(new Buffer(r));
    }
    std::atomic<bool> stopping{false};
    std::atomic<int> refills{0};
    onReturn_ = [&](MIDIHDR* h) {
        if (!stopping.load()) {
            if (midiStreamOut(stream_, h, sizeof(MIDIHDR)) == MMSYSERR_NOERROR) {
                ++refills;
            }
        }
    };
    send(*bufs[0]);
    send(*bufs[1]);
    ASSERT_EQ(MMSYSERR_NOERROR, midiStreamRestart(stream_));
    ASSERT_TRUE(lxtest::waitUntil([&] { return refills.load() >= 10; }));
    stopping = true;
    // A callback that was already refilling when the stop came may queue its buffer after it (a
    // stopped stream keeps such a buffer until restarted): stop until nothing is queued.
    ASSERT_TRUE(lxtest::waitUntil([&] {
        EXPECT_EQ(MMSYSERR_NOERROR, midiStreamStop(stream_));
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        return (bufs[0]->header.dwFlags & MHDR_INQUEUE) == 0 && (bufs[1]->header.dwFlags & MHDR_INQUEUE) == 0;
    }));
    ASSERT_TRUE(
        lxtest::waitUntil([&] { return returned().size() == static_cast<size_t>(refills.load()) + 2; }));
    std::map<MIDIHDR*, int> count;
    for (const auto& r : returned()) {
        ++count[r.header];
    }
    EXPECT_EQ(static_cast<size_t>(refills.load()) + 2, returned().size());
    EXPECT_EQ(2u, count.size());
    for (auto& b : bufs) {
        midiOutUnprepareHeader(stream_, &b->header, sizeof(MIDIHDR));
    }
}

TEST_F(MidiStreamTest, ClosingFromTheDoneCallbackEndsTheThreadAndFreesTheDevice) {
    open(96);
    Buffer a({note(0, 60)});
    HMIDISTRM s = stream_;
    MMRESULT closeResult = 1234;
    MMRESULT afterClose = 1234;
    onReturn_ = [&](MIDIHDR* h) {
        midiOutUnprepareHeader(s, h, sizeof(MIDIHDR));
        closeResult = midiStreamClose(s);
        afterClose = midiOutShortMsg(s, 0x90);
    };
    send(a);
    midiStreamRestart(stream_);
    midisim::advanceMs(1);
    stream_ = nullptr;
    ASSERT_TRUE(lxtest::waitUntil([&] { return returned().size() == 1; }));
    EXPECT_TRUE(lxtest::waitUntil([] { return midiLiveDeviceThreads() == 0; }));
    EXPECT_EQ(MMSYSERR_NOERROR, closeResult);
    EXPECT_EQ(MMSYSERR_INVALHANDLE, afterClose);
    EXPECT_EQ(MMSYSERR_INVALHANDLE, midiStreamRestart(s));
    open(96);  // the device is free again
}

TEST_F(MidiStreamTest, RefusesWhatWin32Refuses) {
    open(96);
    Buffer a({note(0, 60)});
    EXPECT_EQ(MIDIERR_UNPREPARED, midiStreamOut(stream_, &a.header, sizeof(MIDIHDR)));
    send(a);
    EXPECT_EQ(MIDIERR_STILLPLAYING, midiStreamOut(stream_, &a.header, sizeof(MIDIHDR)));
    EXPECT_EQ(MIDIERR_STILLPLAYING, midiOutUnprepareHeader(stream_, &a.header, sizeof(MIDIHDR)));
    EXPECT_EQ(MIDIERR_STILLPLAYING, midiStreamClose(stream_));
    Buffer bad({note(0, 1)});
    bad.header.dwBytesRecorded = bad.header.dwBufferLength + 12;
    midiOutPrepareHeader(stream_, &bad.header, sizeof(MIDIHDR));
    EXPECT_EQ(MMSYSERR_INVALPARAM, midiStreamOut(stream_, &bad.header, sizeof(MIDIHDR)));

    MIDIPROPTIMEDIV prop{sizeof(MIDIPROPTIMEDIV), 0};
    auto* p = reinterpret_cast<uint8_t*>(&prop);
    EXPECT_EQ(MMSYSERR_INVALPARAM, midiStreamProperty(stream_, p, MIDIPROP_SET | MIDIPROP_TIMEDIV));
    prop.dwTimeDiv = 0xE728;  // SMPTE
    EXPECT_EQ(MMSYSERR_INVALPARAM, midiStreamProperty(stream_, p, MIDIPROP_SET | MIDIPROP_TIMEDIV));
    EXPECT_EQ(MMSYSERR_NOERROR, midiStreamProperty(stream_, p, MIDIPROP_GET | MIDIPROP_TIMEDIV));
    EXPECT_EQ(96u, prop.dwTimeDiv);

    uint32_t device = MIDI_MAPPER;
    HMIDISTRM second = nullptr;
    EXPECT_EQ(MMSYSERR_ALLOCATED, midiStreamOpen(&second, &device, 1, nullptr, 0, CALLBACK_NULL));
    device = 3;
    EXPECT_EQ(MMSYSERR_BADDEVICEID, midiStreamOpen(&second, &device, 1, nullptr, 0, CALLBACK_NULL));

    // A planned failure of stop leaves the stream as it was.
    midisim::failNext(midisim::Stop, MMSYSERR_ERROR);
    EXPECT_EQ(MMSYSERR_ERROR, midiStreamStop(stream_));
    EXPECT_TRUE(returned().empty()) << "a failed stop returns nothing";
    ASSERT_EQ(MMSYSERR_NOERROR, midiStreamStop(stream_));  // a comes back while it exists
    ASSERT_TRUE(lxtest::waitUntil([&] { return returned().size() == 1; }));
}

TEST_F(MidiStreamTest, HalfDuplexCardRefusesMidiWhileSampledAudioIsOpenAndAFailedOpenHoldsNothing) {
    duplex::setHalfDuplex(true);
    ASSERT_TRUE(duplex::tryOpen(duplex::SampledAudio));
    uint32_t device = MIDI_MAPPER;
    HMIDISTRM s = nullptr;
    EXPECT_NE(MMSYSERR_NOERROR, midiStreamOpen(&s, &device, 1, nullptr, 0, CALLBACK_NULL));
    duplex::close(duplex::SampledAudio);
    midisim::failNext(midisim::Open, MIDIERR_NODEVICE);
    EXPECT_EQ(MIDIERR_NODEVICE, midiStreamOpen(&s, &device, 1, nullptr, 0, CALLBACK_NULL));
    EXPECT_EQ(0, duplex::openCount(duplex::Midi));
    EXPECT_TRUE(duplex::tryOpen(duplex::SampledAudio));
    duplex::close(duplex::SampledAudio);
}

}  // namespace
