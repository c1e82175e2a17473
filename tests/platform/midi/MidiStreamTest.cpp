// The stream scheduler over the simulated device: buffer return, stop/reset/close. Its timing is
// checked through the player (tests/midi), which drives it with real files.
#include "LxPlatformMidi.h"
#include "platform/LxpDuplex.h"
#include "platform/midi/LxpMidi.h"
#include "platform/midi/LxpMidiSim.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstring>
#include <mutex>
#include <vector>

namespace {

using namespace lxp;

struct Returned {
    MIDIHDR* header;
    int64_t atMicros;
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
            self->returned_.push_back({reinterpret_cast<MIDIHDR*>(param1), midisim::nowMicros()});
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
};

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
        EXPECT_TRUE(midiOutIsSounding(stream_));
        ASSERT_EQ(MMSYSERR_NOERROR, reset ? midiOutReset(stream_) : midiStreamStop(stream_));
        EXPECT_FALSE(midiOutIsSounding(stream_)) << "the simulated device has no release tails";
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
        for (Buffer* x : {&a, &b, &c}) {
            EXPECT_EQ(MMSYSERR_NOERROR, midiOutUnprepareHeader(stream_, &x->header, sizeof(MIDIHDR)));
        }
        ASSERT_EQ(MMSYSERR_NOERROR, midiStreamClose(stream_));
        stream_ = nullptr;
        EXPECT_EQ(0, midiLiveDeviceThreads()) << "close from another thread joins the device thread";
    }
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
