// The FluidSynth device end to end: stream buffers rendered into the output mix.
#include "LxLog.h"
#include "LxPlatformMidi.h"
#include "LxPlatformSound.h"
#include "platform/midi/LxpMidi.h"
#include "platform/sound/LxpSimulatedSound.h"

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

  public:
    static void callback(HMIDIOUT, uint32_t, uintptr_t instance, uintptr_t, uintptr_t) {
        ++*reinterpret_cast<std::atomic<int>*>(instance);
    }

    /// Renders ms milliseconds of output in 10 ms periods and returns its left channel, in the
    /// output's rate (sampleRate()).
    static std::vector<float> pull(int ms) {
        simsound::clearOutput();
        for (int i = 0; i < ms / 10; ++i) {
            simsound::advanceMs(10);
            // At most twice real time, so that the device thread hands messages over within the
            // synthesizer's 40 ms look-ahead even on a loaded machine.
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return simsound::outputChannel(0);
    }

    static double sampleRate() { return simsound::outputFormat().rate; }

    static double rms(const std::vector<float>& x, size_t from, size_t to) {
        double sum = 0;
        for (size_t i = from; i < to; ++i) {
            sum += x[i] * x[i];
        }
        return std::sqrt(sum / static_cast<double>(to - from));
    }
};

/// Plays middle C from tick `on` to tick 96 (500 ms) and renders 800 ms: the milliseconds at
/// which sound starts, and whether the buffer came back only after the note-off was rendered.
double playNote(uint32_t on, bool* returnedAfterEnd) {
    std::atomic<int> done{0};
    uint32_t device = MIDI_MAPPER;
    HMIDISTRM s = nullptr;
    EXPECT_EQ(MMSYSERR_NOERROR, midiStreamOpen(&s, &device, 1, MidiFluidTest::callback,
                                               reinterpret_cast<uintptr_t>(&done), CALLBACK_FUNCTION));
    MIDIEVENT records[] = {{0, 0, 0xC0u | (79u << 8)},
                           {0, 0, (MEVT_TEMPO << 24) | 500000u},
                           {on, 0, 0x90u | (60u << 8) | (110u << 16)},
                           {96 - on, 0, 0x80u | (60u << 8)}};
    MIDIHDR h{};
    h.lpData = reinterpret_cast<char*>(records);
    h.dwBufferLength = h.dwBytesRecorded = sizeof records;
    midiOutPrepareHeader(s, &h, sizeof h);
    midiStreamOut(s, &h, sizeof h);
    midiStreamRestart(s);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::vector<float> audio = MidiFluidTest::pull(400);
    *returnedAfterEnd = done.load() == 0;
    const std::vector<float> more = MidiFluidTest::pull(400);
    audio.insert(audio.end(), more.begin(), more.end());
    *returnedAfterEnd = *returnedAfterEnd && lxtest::waitUntil([&] { return done.load() == 1; });
    midiOutUnprepareHeader(s, &h, sizeof h);
    EXPECT_EQ(MMSYSERR_NOERROR, midiStreamClose(s));
    size_t onset = 0;
    while (onset < audio.size() && std::fabs(audio[onset]) < 1e-4f) {
        ++onset;
    }
    return onset * 1000.0 / MidiFluidTest::sampleRate();
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

    // Direct messages play at once.
    ASSERT_EQ(MMSYSERR_NOERROR, midiOutShortMsg(s, 0x90u | (67u << 8) | (110u << 16)));
    const std::vector<float> after = pull(400);
    EXPECT_GT(rms(after, 0, after.size()), 0.005);
    midiOutUnprepareHeader(s, &h, sizeof h);
    EXPECT_EQ(MMSYSERR_NOERROR, midiStreamClose(s));
    // Closed: the synthesizer is out of the mix.
    const std::vector<float> closed = pull(50);
    EXPECT_EQ(0.0, closed.empty() ? 0.0 : rms(closed, 0, closed.size()));
}

/// Reads the left channel of a 16-bit stereo WAV file written by the sound output.
std::vector<float> readWavLeft(const std::string& path, uint32_t* rate) {
    const std::string bytes = lxtest::readFile(path);
    std::vector<float> left;
    size_t pos = 12;
    while (pos + 8 <= bytes.size()) {
        uint32_t size;
        std::memcpy(&size, bytes.data() + pos + 4, 4);
        if (bytes.compare(pos, 4, "fmt ") == 0) {
            std::memcpy(rate, bytes.data() + pos + 12, 4);
        } else if (bytes.compare(pos, 4, "data") == 0) {
            for (size_t i = pos + 8; i + 4 <= bytes.size() && i < pos + 8 + size; i += 4) {
                int16_t l;
                std::memcpy(&l, bytes.data() + i, 2);
                left.push_back(l / 32768.0f);
            }
        }
        pos += 8 + size + (size & 1);
    }
    return left;
}

TEST_F(MidiFluidTest, MiddleCReachesAWavFileThroughTheRealOutput) {
    lxtest::TempDir dir;
    const std::string wav = dir.file("midi.wav");
    LxPlatformSound::useWavFile(wav.c_str());
    std::atomic<int> done{0};
    uint32_t device = MIDI_MAPPER;
    HMIDISTRM s = nullptr;
    ASSERT_EQ(MMSYSERR_NOERROR, midiStreamOpen(&s, &device, 1, callback, reinterpret_cast<uintptr_t>(&done),
                                               CALLBACK_FUNCTION));
    MIDIEVENT records[] = {
        {0, 0, 0xC0u | (79u << 8)}, {0, 0, 0x90u | (60u << 8) | (110u << 16)}, {96, 0, 0x80u | (60u << 8)}};
    MIDIHDR h{};
    h.lpData = reinterpret_cast<char*>(records);
    h.dwBufferLength = h.dwBytesRecorded = sizeof records;
    ASSERT_EQ(MMSYSERR_NOERROR, midiOutPrepareHeader(s, &h, sizeof h));
    ASSERT_EQ(MMSYSERR_NOERROR, midiStreamOut(s, &h, sizeof h));
    ASSERT_EQ(MMSYSERR_NOERROR, midiStreamRestart(s));
    // The output runs in real time: the buffer comes back once the note-off has been rendered.
    ASSERT_TRUE(lxtest::waitUntil([&] { return done.load() == 1; }, 10000));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(MMSYSERR_NOERROR, midiOutUnprepareHeader(s, &h, sizeof h));
    EXPECT_EQ(MMSYSERR_NOERROR, midiStreamClose(s));  // the output stops and completes the file

    uint32_t rate = 0;
    const std::vector<float> left = readWavLeft(wav, &rate);
    ASSERT_GT(rate, 0u);
    ASSERT_GT(left.size(), rate / 2) << "at least the half second of the note";
    // Where the note sounds: the first loud sample, then a window inside the note.
    size_t onset = 0;
    while (onset < left.size() && std::fabs(left[onset]) < 0.01f) {
        ++onset;
    }
    ASSERT_LT(onset + rate / 20 + 8192, left.size());
    const std::vector<float> window(left.begin() + onset + rate / 20,
                                    left.begin() + onset + rate / 20 + 8192);
    EXPECT_NEAR(261.6, dominantFrequency(window, rate), 2.0);
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
