// The real outputs: the mixing thread in real time into a WAV file, a null output and ALSA.
#include "SoundTestKit.h"

#include "LxPlatformSound.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <thread>

namespace {

using namespace lxp;
using soundkit::Device;

struct Wav {
    uint32_t rate = 0;
    uint16_t channels = 0;
    uint16_t bits = 0;
    uint32_t riffSize = 0;
    uint32_t dataSize = 0;
    std::vector<int16_t> samples;
};

uint32_t le32(const std::string& s, size_t at) {
    return static_cast<uint8_t>(s[at]) | static_cast<uint8_t>(s[at + 1]) << 8 |
           static_cast<uint8_t>(s[at + 2]) << 16 |
           static_cast<uint32_t>(static_cast<uint8_t>(s[at + 3])) << 24;
}

Wav readWav(const std::string& path) {
    const std::string f = lxtest::readFile(path);
    Wav w;
    if (f.size() < 44 || f.compare(0, 4, "RIFF") != 0 || f.compare(8, 8, "WAVEfmt ") != 0) {
        return w;
    }
    w.riffSize = le32(f, 4);
    w.channels = static_cast<uint16_t>(le32(f, 20) >> 16);
    w.rate = le32(f, 24);
    w.bits = static_cast<uint16_t>(le32(f, 32) >> 16);
    w.dataSize = le32(f, 40);
    w.samples.resize((f.size() - 44) / 2);
    std::memcpy(w.samples.data(), f.data() + 44, w.samples.size() * 2);
    return w;
}

/// Plays a looping 1 kHz tone on a fresh device for about ms milliseconds of real time.
void playTone(int ms) {
    Device dev(44100);
    const std::vector<int16_t> tone = soundkit::sine16(441, 1000.0 / 44100.0, 16000.0);
    IDirectSoundBuffer* b = dev.buffer(44100, 1, 16, 882);
    soundkit::write(b, 0, tone.data(), 882);
    ASSERT_EQ(DS_OK, b->Play(0, 0, DSBPLAY_LOOPING));
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    b->Release();
}

class FixedSource : public MixSource {
  public:
    void mixInto(float* interleaved, uint32_t frames, uint32_t channels, uint32_t) override {
        for (uint32_t i = 0; i < frames * channels; ++i) {
            interleaved[i] += 0.25f;
        }
    }
};

TEST(SoundOutput, WavFileHoldsWhatWasHeardAcrossStartsAndMixSources) {
    lxtest::TempDir dir;
    const std::string path = dir.file("out.wav");
    LxPlatformSound::useWavFile(path.c_str());
    EXPECT_EQ("WAV file " + path, LxPlatformSound::describeOutput());
    playTone(300);
    Wav first = readWav(path);
    ASSERT_EQ(44100u, first.rate);
    ASSERT_EQ(2u, first.channels);
    ASSERT_EQ(16u, first.bits);
    EXPECT_EQ(first.samples.size() * 2, first.dataSize);
    EXPECT_EQ(first.dataSize + 36, first.riffSize);
    const double seconds = first.dataSize / (44100.0 * 4);
    EXPECT_GT(seconds, 0.2);
    EXPECT_LT(seconds, 1.5);
    std::vector<float> left;
    for (size_t i = 0; i < first.samples.size(); i += 2) {
        left.push_back(first.samples[i] / 32768.0f);
    }
    EXPECT_NEAR(1000.0, soundkit::pitch(left, 44100), 5.0);
    EXPECT_NEAR(16000.0 / 32768.0, soundkit::peak(left), 0.01);

    // The output stopped with the device; a mix source alone starts it again and appends.
    FixedSource source;
    ASSERT_TRUE(addMixSource(&source));
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    removeMixSource(&source);
    Wav second = readWav(path);
    ASSERT_GT(second.dataSize, first.dataSize);
    EXPECT_EQ(second.dataSize + 36, second.riffSize);
    EXPECT_EQ(8192, second.samples.back());
    EXPECT_EQ(first.samples[100], second.samples[100]);
}

TEST(SoundOutputDeathTest, AnOutputLeftRunningAtExitStillLeavesACompleteFile) {
    lxtest::TempDir dir;
    const std::string path = dir.file("left.wav");
    EXPECT_EXIT(
        {
            LxPlatformSound::useWavFile(path.c_str());
            IDirectSound* ds = nullptr;
            DirectSoundCreate(nullptr, &ds, nullptr);
            std::this_thread::sleep_for(std::chrono::milliseconds(150));
            std::exit(0);  // nothing released
        },
        ::testing::ExitedWithCode(0), "");
    const Wav w = readWav(path);
    EXPECT_GT(w.dataSize, 0u);
    EXPECT_EQ(w.samples.size() * 2, w.dataSize);
    EXPECT_EQ(w.dataSize + 36, w.riffSize);
}

/// Frames a looping buffer's cursor moved in about ms of real time (at most one wrap).
double cursorFramesIn(int ms) {
    Device dev(44100);
    IDirectSoundBuffer* b = dev.buffer(44100, 1, 16, 44100 * 2 * 4);
    EXPECT_EQ(DS_OK, b->Play(0, 0, DSBPLAY_LOOPING));
    const auto start = std::chrono::steady_clock::now();
    const uint32_t p0 = soundkit::position(b);
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    const uint32_t p1 = soundkit::position(b);
    const double elapsed = lxtest::msSince(start);
    b->Release();
    return (p1 - p0) / 2.0 * (ms / elapsed);
}

TEST(SoundOutput, NullAndAlsaOutputsRunInRealTime) {
    // Generous bounds: the machine may be loaded, but a cursor must neither stall nor race.
    LxPlatformSound::useNullOutput();
    const double nullFrames = cursorFramesIn(300);
    EXPECT_GT(nullFrames, 44100 * 0.3 * 0.5);
    EXPECT_LT(nullFrames, 44100 * 0.3 * 1.6);

    LxPlatformSound::useAlsa("null");
    const double alsaFrames = cursorFramesIn(300);
    EXPECT_EQ("ALSA device null", LxPlatformSound::describeOutput());
    EXPECT_GT(alsaFrames, 44100 * 0.3 * 0.5);
    EXPECT_LT(alsaFrames, 44100 * 0.3 * 1.6 + 44100 * 0.1);

    LxPlatformSound::useAlsa("lorvex_no_such_device");
    const double fallbackFrames = cursorFramesIn(200);
    EXPECT_NE(std::string::npos, LxPlatformSound::describeOutput().find("unavailable"));
    EXPECT_GT(fallbackFrames, 44100 * 0.2 * 0.5);
    simsound::use();
}

}  // namespace
