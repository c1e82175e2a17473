// The FluidSynth device: stream buffers rendered into the output mix at their time, stopped, and
// opened without a SoundFont. A clip played through the player is heard by tests/heard.
#include "LxLog.h"
#include "LxPlatformMidi.h"
#include "MidiFiles.h"
#include "TestSupport.h"
#include "platform/midi/LxpMidi.h"
#include "platform/sound/LxpSimulatedSound.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <algorithm>
#include <atomic>
#include <cmath>
#include <numeric>
#include <thread>
#include <vector>

namespace {

using namespace lxp;

class MidiFluidTest : public ::testing::Test {
  protected:
    void SetUp() override {
        struct stat st;
        if (::stat(LX_MIDI_DEFAULT_SOUNDFONT, &st) != 0) {
            GTEST_SKIP() << "no SoundFont at " LX_MIDI_DEFAULT_SOUNDFONT " (timgm6mb-soundfont)";
        }
        LxPlatformSetMidiBackend(LX_MIDI_FLUIDSYNTH);
        LxPlatformSetMidiSoundFont(nullptr);
        simsound::use();  // the output renders only when the test advances it
        uint32_t device = MIDI_MAPPER;
        HMIDISTRM s = nullptr;
        if (midiStreamOpen(&s, &device, 1, nullptr, 0, CALLBACK_NULL) != MMSYSERR_NOERROR) {
            GTEST_SKIP() << "no synthesizer (built without FluidSynth)";
        }
        midiStreamClose(s);
    }

    void TearDown() override {
        EXPECT_TRUE(lxtest::waitUntil([] { return midiLiveDeviceThreads() == 0; }));
        simsound::use();
    }
};

/// Renders ms milliseconds of output in 10 ms periods and returns its left channel.
std::vector<float> pull(int ms) {
    simsound::clearOutput();
    for (int i = 0; i < ms / 10; ++i) {
        simsound::advanceMs(10);
        // At most twice real time, so that the device thread hands messages over within the
        // synthesizer's 40 ms look-ahead even on a loaded machine.
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return simsound::outputChannel(0);
}

double rms(const std::vector<float>& x) {
    return x.empty() ? 0.0 : std::sqrt(std::inner_product(x.begin(), x.end(), x.begin(), 0.0) / x.size());
}

/// A stream on the synthesizer, started with one buffer of records; counts the buffers returned.
struct Playing {
    std::atomic<int> done{0};
    HMIDISTRM s = nullptr;
    std::vector<MIDIEVENT> records;
    MIDIHDR h{};

    explicit Playing(std::vector<MIDIEVENT> r) : records(std::move(r)) {
        uint32_t device = MIDI_MAPPER;
        const uintptr_t instance = reinterpret_cast<uintptr_t>(&done);
        EXPECT_EQ(MMSYSERR_NOERROR, midiStreamOpen(&s, &device, 1, callback, instance, CALLBACK_FUNCTION));
        h.lpData = reinterpret_cast<char*>(records.data());
        h.dwBufferLength = h.dwBytesRecorded = static_cast<uint32_t>(records.size() * sizeof(MIDIEVENT));
        EXPECT_EQ(MMSYSERR_NOERROR, midiOutPrepareHeader(s, &h, sizeof h));
        EXPECT_EQ(MMSYSERR_NOERROR, midiStreamOut(s, &h, sizeof h));
        EXPECT_EQ(MMSYSERR_NOERROR, midiStreamRestart(s));
    }
    void close() {
        EXPECT_EQ(MMSYSERR_NOERROR, midiOutUnprepareHeader(s, &h, sizeof h));
        EXPECT_EQ(MMSYSERR_NOERROR, midiStreamClose(s));
    }
    static void callback(HMIDIOUT, uint32_t, uintptr_t instance, uintptr_t, uintptr_t) {
        ++*reinterpret_cast<std::atomic<int>*>(instance);
    }
};

const uint32_t kNoteOn = miditest::shortMsg(0x90, 60, 110);  // middle C
const uint32_t kNoteOff = miditest::shortMsg(0x80, 60);

/// Plays middle C from tick `on` to tick 96 (500 ms) and renders 800 ms: the milliseconds at
/// which sound starts, and whether the buffer came back only after the note-off was rendered.
double playNote(uint32_t on, bool* returnedAfterEnd) {
    Playing p({{0, 0, 0xC0u | (79u << 8)},
               {0, 0, (MEVT_TEMPO << 24) | 500000u},
               {on, 0, kNoteOn},
               {96 - on, 0, kNoteOff}});
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::vector<float> audio = pull(400);
    *returnedAfterEnd = p.done.load() == 0;
    const std::vector<float> more = pull(400);
    audio.insert(audio.end(), more.begin(), more.end());
    *returnedAfterEnd = *returnedAfterEnd && lxtest::waitUntil([&] { return p.done.load() == 1; });
    p.close();
    const auto loud = std::find_if(audio.begin(), audio.end(), [](float v) { return std::fabs(v) >= 1e-4f; });
    return (loud - audio.begin()) * 1000.0 / simsound::outputFormat().rate;
}

TEST_F(MidiFluidTest, NotesSoundAtTheirTimeAndTheBufferReturnsAfterItsLastEvent) {
    // The same note at tick 0 and at tick 19 (98.96 ms): the sound starts that much later,
    // within the synthesizer's own 64-sample processing step (2.9 ms at the simulated 22.05 kHz),
    // not at a mixing-block boundary or whenever the device thread woke.
    bool returned0 = false;
    bool returned19 = false;
    const double at0 = playNote(0, &returned0);
    const double at19 = playNote(19, &returned19);
    EXPECT_NEAR(98.958, at19 - at0, 3.0);
    EXPECT_TRUE(returned0 && returned19) << "returned once the note-off at 500 ms was rendered, not before";
}

TEST_F(MidiFluidTest, StopDropsNotesAlreadyHandedToTheSynthesizer) {
    // Due at 20 ms: inside the look-ahead, so handed over before anything is rendered.
    Playing p({{4, 0, kNoteOn}, {96, 0, kNoteOff}});
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    ASSERT_EQ(MMSYSERR_NOERROR, midiStreamStop(p.s));
    EXPECT_TRUE(lxtest::waitUntil([&] { return p.done.load() == 1; }));
    EXPECT_LT(rms(pull(300)), 1e-4);
    ASSERT_EQ(MMSYSERR_NOERROR, midiOutShortMsg(p.s, kNoteOn));
    EXPECT_GT(rms(pull(400)), 0.005) << "direct messages play at once";
    p.close();
    EXPECT_EQ(0.0, rms(pull(50))) << "closed, the synthesizer is out of the mix";
}

TEST_F(MidiFluidTest, OpeningWithoutASoundFontFailsCleanly) {
    lxtest::requireLog();
    LxPlatformSetMidiSoundFont("/nonexistent/none.sf2");
    uint32_t device = MIDI_MAPPER;
    HMIDISTRM s = nullptr;
    EXPECT_EQ(MIDIERR_NODEVICE, midiStreamOpen(&s, &device, 1, nullptr, 0, CALLBACK_NULL));
    EXPECT_EQ(nullptr, s);
    EXPECT_TRUE(LxLogSink::contains("no SoundFont at /nonexistent/none.sf2"));
    LxPlatformSetMidiSoundFont(nullptr);
    EXPECT_EQ(LX_MIDI_DEFAULT_SOUNDFONT, LxPlatformGetMidiSoundFont());
    ASSERT_EQ(MMSYSERR_NOERROR, midiStreamOpen(&s, &device, 1, nullptr, 0, CALLBACK_NULL));
    HMIDISTRM second = nullptr;
    EXPECT_EQ(MMSYSERR_ALLOCATED, midiStreamOpen(&second, &device, 1, nullptr, 0, CALLBACK_NULL));
    EXPECT_EQ(MMSYSERR_NOERROR, midiStreamClose(s));
}

}  // namespace
