// The FluidSynth device end to end: stream buffers rendered into the output mix.
#include "LxLog.h"
#include "LxPlatformMidi.h"
#include "platform/midi/LxpMidi.h"
#include "platform/midi/LxpMidiMix.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <atomic>
#include <cmath>
#include <cstring>
#include <thread>
#include <vector>

namespace {

using namespace lxp;

bool haveSoundFont() {
    struct stat st;
    return ::stat(LX_MIDI_DEFAULT_SOUNDFONT, &st) == 0;
}

/// Magnitude of the frequency f in x (a Hann-windowed single-bin DFT).
double magnitudeAt(const std::vector<float>& x, double f, double rate) {
    double re = 0;
    double im = 0;
    const size_t n = x.size();
    for (size_t i = 0; i < n; ++i) {
        const double w = 0.5 - 0.5 * std::cos(2 * M_PI * i / (n - 1));
        re += w * x[i] * std::cos(2 * M_PI * f * i / rate);
        im -= w * x[i] * std::sin(2 * M_PI * f * i / rate);
    }
    return std::hypot(re, im);
}

double dominantFrequency(const std::vector<float>& x, double rate) {
    double best = 0;
    double bestF = 0;
    for (double f = 60; f < 2000; f += 0.5) {
        const double m = magnitudeAt(x, f, rate);
        if (m > best) {
            best = m;
            bestF = f;
        }
    }
    return bestF;
}

class MidiFluidTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!haveSoundFont()) {
            GTEST_SKIP() << "no SoundFont at " LX_MIDI_DEFAULT_SOUNDFONT " (timgm6mb-soundfont)";
        }
        LxPlatformSetMidiBackend(LX_MIDI_FLUIDSYNTH);
        LxPlatformSetMidiSoundFont(nullptr);
    }

    void TearDown() override {
        EXPECT_TRUE(lxtest::waitUntil([] { return midiLiveDeviceThreads() == 0; }));
    }

    static void callback(HMIDIOUT, uint32_t, uintptr_t instance, uintptr_t, uintptr_t) {
        ++*reinterpret_cast<std::atomic<int>*>(instance);
    }

    /// Pulls ms milliseconds of stereo mix at 44.1 kHz in 10 ms periods; returns the left channel.
    static std::vector<float> pull(int ms) {
        std::vector<float> left;
        std::vector<float> block(441 * 2);
        for (int i = 0; i < ms / 10; ++i) {
            std::fill(block.begin(), block.end(), 0.0f);
            midimix::pull(block.data(), 441, 2, 44100);
            for (size_t k = 0; k < 441; ++k) {
                left.push_back(block[2 * k]);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));  // let the device thread run
        }
        return left;
    }

    static double rms(const std::vector<float>& x, size_t from, size_t to) {
        double sum = 0;
        for (size_t i = from; i < to; ++i) {
            sum += x[i] * x[i];
        }
        return std::sqrt(sum / static_cast<double>(to - from));
    }
};

TEST_F(MidiFluidTest, MiddleCSoundsAtItsPitchAndTheBufferReturnsAfterItsLastEvent) {
    std::atomic<int> done{0};
    uint32_t device = MIDI_MAPPER;
    HMIDISTRM s = nullptr;
    ASSERT_EQ(MMSYSERR_NOERROR, midiStreamOpen(&s, &device, 1, callback, reinterpret_cast<uintptr_t>(&done),
                                               CALLBACK_FUNCTION));
    // Ocarina (program 79), whose fundamental dominates its overtones; middle C from 0 to 500 ms at 96 ticks
    // per quarter note and 500000 us per quarter.
    MIDIEVENT records[] = {
        {0, 0, 0xC0u | (79u << 8)}, {0, 0, 0x90u | (60u << 8) | (110u << 16)}, {96, 0, 0x80u | (60u << 8)}};
    MIDIHDR h{};
    h.lpData = reinterpret_cast<char*>(records);
    h.dwBufferLength = h.dwBytesRecorded = sizeof records;
    ASSERT_EQ(MMSYSERR_NOERROR, midiOutPrepareHeader(s, &h, sizeof h));
    ASSERT_EQ(MMSYSERR_NOERROR, midiStreamOut(s, &h, sizeof h));
    ASSERT_EQ(MMSYSERR_NOERROR, midiStreamRestart(s));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));

    std::vector<float> audio = pull(400);
    EXPECT_EQ(0, done.load()) << "the note-off at 500 ms has not been rendered yet";
    std::vector<float> more = pull(400);
    audio.insert(audio.end(), more.begin(), more.end());
    EXPECT_TRUE(lxtest::waitUntil([&] { return done.load() == 1; }));

    const std::vector<float> window(audio.begin() + 4410, audio.begin() + 4410 + 8192);
    EXPECT_GT(rms(audio, 4410, 4410 + 8192), 0.005);
    EXPECT_NEAR(261.6, dominantFrequency(window, 44100), 2.0);

    EXPECT_EQ(MMSYSERR_NOERROR, midiOutUnprepareHeader(s, &h, sizeof h));
    EXPECT_EQ(MMSYSERR_NOERROR, midiStreamClose(s));
}

TEST_F(MidiFluidTest, StopDropsNotesAlreadyHandedToTheSynthesizer) {
    std::atomic<int> done{0};
    uint32_t device = MIDI_MAPPER;
    HMIDISTRM s = nullptr;
    ASSERT_EQ(MMSYSERR_NOERROR, midiStreamOpen(&s, &device, 1, callback, reinterpret_cast<uintptr_t>(&done),
                                               CALLBACK_FUNCTION));
    // Due at 20 ms: inside the look-ahead, so handed over before anything is rendered.
    MIDIEVENT records[] = {{4, 0, 0x90u | (60u << 8) | (110u << 16)}, {96, 0, 0x80u | (60u << 8)}};
    MIDIHDR h{};
    h.lpData = reinterpret_cast<char*>(records);
    h.dwBufferLength = h.dwBytesRecorded = sizeof records;
    ASSERT_EQ(MMSYSERR_NOERROR, midiOutPrepareHeader(s, &h, sizeof h));
    ASSERT_EQ(MMSYSERR_NOERROR, midiStreamOut(s, &h, sizeof h));
    ASSERT_EQ(MMSYSERR_NOERROR, midiStreamRestart(s));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    ASSERT_EQ(MMSYSERR_NOERROR, midiStreamStop(s));
    EXPECT_TRUE(lxtest::waitUntil([&] { return done.load() == 1; }));
    const std::vector<float> audio = pull(300);
    EXPECT_LT(rms(audio, 0, audio.size()), 1e-4);

    // Direct messages play at once (G above middle C on the ocarina).
    ASSERT_EQ(MMSYSERR_NOERROR, midiOutShortMsg(s, 0xC0u | (79u << 8)));
    ASSERT_EQ(MMSYSERR_NOERROR, midiOutShortMsg(s, 0x90u | (67u << 8) | (110u << 16)));
    const std::vector<float> after = pull(200);
    EXPECT_GT(rms(after, 0, after.size()), 0.005);
    EXPECT_NEAR(
        392.0,
        dominantFrequency(std::vector<float>(after.begin() + 2205, after.begin() + 2205 + 4096), 44100), 4.0);
    midiOutUnprepareHeader(s, &h, sizeof h);
    EXPECT_EQ(MMSYSERR_NOERROR, midiStreamClose(s));
    // Closed: the synthesizer is out of the mix.
    const std::vector<float> closed = pull(50);
    EXPECT_EQ(0.0, rms(closed, 0, closed.size()));
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
