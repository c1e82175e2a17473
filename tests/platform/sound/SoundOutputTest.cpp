// The real outputs: the mixing thread in real time into a WAV file, a null output and ALSA (what
// the file sounds like, the listening suite hears).
#include "SoundTestKit.h"

#include "LxPlatformSound.h"
#include "TestSupport.h"
#include "WaveFiles.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <thread>

namespace {

using namespace lxp;
using soundkit::Device;

/// The 16-bit samples of a WAV file the output wrote, and its "fmt " body; checks that the file
/// is complete (every length, the RIFF length included, matches the bytes written).
std::vector<int16_t> readWav(const std::string& path, std::string* fmt = nullptr) {
    const std::string file = lxtest::readFile(path);
    std::vector<lxtest::RiffChunk> chunks;
    EXPECT_TRUE(lxtest::splitWave(file, &chunks) && lxtest::joinWave(chunks) == file) << "incomplete";
    if (fmt != nullptr && !chunks.empty()) {
        *fmt = chunks[0].body;
    }
    const std::string data = lxtest::dataOf(file);
    std::vector<int16_t> samples(data.size() / 2);
    std::memcpy(samples.data(), data.data(), samples.size() * 2);
    return samples;
}

TEST(SoundOutput, WavFileHoldsWhatWasHeardAcrossStartsAndMixSources) {
    lxtest::TempDir dir;
    const std::string path = dir.file("out.wav");
    LxPlatformSound::useWavFile(path.c_str());
    EXPECT_EQ("WAV file " + path, LxPlatformSound::describeOutput());
    {
        Device dev(44100);  // a looping 1 kHz tone for 300 ms of real time
        IDirectSoundBuffer* b = dev.playing(soundkit::sine16(441, 1000.0 / 44100.0, 16000.0), 44100, true);
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        b->Release();
    }
    std::string fmt;
    const std::vector<int16_t> first = readWav(path, &fmt);
    EXPECT_EQ(lxtest::pcmFmtBody(2, 44100, 16), fmt);
    const double seconds = first.size() / (44100.0 * 2);
    EXPECT_GT(seconds, 0.2);
    EXPECT_LT(seconds, 1.5);

    // The output stopped with the device; a mix source alone starts it again and appends.
    soundkit::QuarterSource source;
    ASSERT_TRUE(addMixSource(&source));
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    removeMixSource(&source);
    const std::vector<int16_t> second = readWav(path);
    ASSERT_GT(second.size(), first.size());
    EXPECT_EQ(first[100], second[100]);
    // At least 50 ms of the source's level appended (the block mixed as it left may be silent).
    EXPECT_GE(std::count(second.begin() + static_cast<long>(first.size()), second.end(), int16_t{8192}),
              44100 * 2 / 20);
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
    EXPECT_FALSE(readWav(path).empty());
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
    EXPECT_FALSE(LxPlatformSound::outputFailed());
    for (int start = 0; start < 2; ++start) {  // the device stays open between starts
        const double alsaFrames = cursorFramesIn(300);
        EXPECT_EQ("ALSA device null", LxPlatformSound::describeOutput());
        EXPECT_GT(alsaFrames, 44100 * 0.3 * 0.5);
        EXPECT_LT(alsaFrames, 44100 * 0.3 * 1.6 + 44100 * 0.1);
    }

    // A device asked for by name that is not there is a failure the host can see; the default
    // device falling back is not.
    LxPlatformSound::useAlsa("lorvex_no_such_device");
    EXPECT_TRUE(LxPlatformSound::outputFailed());
    const double fallbackFrames = cursorFramesIn(200);
    EXPECT_NE(std::string::npos, LxPlatformSound::describeOutput().find("unavailable"));
    EXPECT_GT(fallbackFrames, 44100 * 0.2 * 0.5);
    LxPlatformSound::useAlsa();
    EXPECT_FALSE(LxPlatformSound::outputFailed());
    simsound::use();
}

}  // namespace
