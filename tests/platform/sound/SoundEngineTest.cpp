// The sound device and its mixing engine: exact samples at unity, the volume, pan and 3D laws,
// resampling without clicks, mix sources, Lock's bounds, and races with the mixing thread.
#include "SoundTestKit.h"

#include "platform/LxpDuplex.h"
#include "platform/sound/LxpSoundEngine.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

using namespace lxp;
using soundkit::Device;
using soundkit::peak;

class SoundEngine : public ::testing::Test {
  protected:
    void SetUp() override {
        duplex::reset();
        simsound::use();
    }
    void TearDown() override { EXPECT_EQ(0, simsound::liveBuffers()); }
};

/// Left and right peaks over three blocks of 441 frames, past the first (where a change glides).
std::pair<double, double> peaksAfterAGlide() {
    simsound::clearOutput();
    simsound::advanceFrames(441 * 3);
    return {peak(simsound::outputChannel(0), 441), peak(simsound::outputChannel(1), 441)};
}

/// Frequency from rising zero crossings (good to a few Hz over a few hundred ms of a clean tone).
double pitch(const std::vector<float>& x, size_t from, size_t to) {
    std::vector<size_t> up;
    for (size_t i = from + 1; i < to; ++i) {
        if (x[i - 1] < 0 && x[i] >= 0) {
            up.push_back(i);
        }
    }
    return up.size() < 2 ? 0.0 : (up.size() - 1) * 44100.0 / (up.back() - up.front());
}

/// Largest step between neighbouring samples: a click shows as a step far above the signal's own.
double maxStep(const std::vector<float>& x) {
    double m = 0;
    for (size_t i = 1; i < x.size(); ++i) {
        m = std::max(m, std::fabs(static_cast<double>(x[i]) - x[i - 1]));
    }
    return m;
}

TEST_F(SoundEngine, UnityGainPassesSamplesUnchangedAndTheVolumeAndPanLawsScaleThem) {
    Device dev(44100);
    // 441 frames hold exactly 5 periods of 500 Hz, so the loop is seamless.
    const std::vector<int16_t> sine = soundkit::sine16(441, 500.0 / 44100.0, 32767.0);
    IDirectSoundBuffer* b = dev.playing(sine, 44100, true);
    simsound::advanceFrames(441 * 4);
    const std::vector<float> left = simsound::outputChannel(0);
    const std::vector<float> right = simsound::outputChannel(1);
    ASSERT_EQ(441u * 4, left.size());
    for (size_t i = 0; i < left.size(); ++i) {
        ASSERT_EQ(sine[i % 441], static_cast<int16_t>(left[i] * 32768.0f)) << "frame " << i;
        ASSERT_EQ(left[i], right[i]);
    }
    const double full = peak(left);
    const auto peaks = [&](int32_t volume, int32_t pan) {
        EXPECT_EQ(DS_OK, b->SetVolume(volume));
        EXPECT_EQ(DS_OK, b->SetPan(pan));
        return peaksAfterAGlide();
    };
    // -6 dB is half the amplitude (10^(-600/2000) = 0.501); the full range ends in silence.
    EXPECT_NEAR(0.5012, peaks(-600, 0).first / full, 0.002);
    EXPECT_EQ(0.0, peaks(DSBVOLUME_MIN, 0).first);
    // Pan attenuates only the opposite channel, down to silence.
    const auto hardLeft = peaks(0, DSBPAN_LEFT);
    EXPECT_EQ(0.0, hardLeft.second);
    EXPECT_NEAR(full, hardLeft.first, 1e-4);
    const auto leftDown = peaks(0, 600);  // left 6 dB down, right at full
    EXPECT_NEAR(0.5012, leftDown.first / leftDown.second, 0.002);
    EXPECT_NEAR(full, leftDown.second, 1e-4);
    b->Release();
}

// Where a 3D sound is heard: its side comes from its place in the listener's own frame (a listener
// moved and turned included), its level from the distance law (full within the minimum distance,
// then min / (min + rolloff x (d - min))), and the far side falls off by the pan law.
TEST_F(SoundEngine, ThreeDSoundsAreHeardOnTheirSideOfAMovedAndTurnedListener) {
    Device dev(44100, DSBCAPS_CTRL3D);
    IDirectSound3DListener* listener = nullptr;
    ASSERT_EQ(DS_OK,
              dev.primary->QueryInterface(IID_IDirectSound3DListener, reinterpret_cast<void**>(&listener)));
    IDirectSoundBuffer* b = dev.playing(soundkit::sine16(441, 500.0 / 44100.0, 32767.0), 44100, true,
                                        DSBCAPS_CTRLVOLUME | DSBCAPS_CTRLFREQUENCY | DSBCAPS_CTRL3D);
    IDirectSound3DBuffer* b3 = nullptr;
    ASSERT_EQ(DS_OK, b->QueryInterface(IID_IDirectSound3DBuffer, reinterpret_cast<void**>(&b3)));
    struct Case {
        float at[3], front[3], sound[3];
        double left, right;  // peak over the unit-gain peak
    } cases[] = {
        {{0, 0, 0}, {0, 0, 1}, {1, 0, 0}, 0.0, 1.0},          // facing +z, +x is on the right
        {{0, 0, 0}, {0, 0, 1}, {-0.5f, 0, 0}, 1.0, 0.0},      // within the minimum distance: full
        {{5, 2, 0}, {0, 0, 1}, {5, 2, 3}, 1.0 / 3, 1.0 / 3},  // moved: 3 ahead, centred
        {{5, 0, 0}, {1, 0, 0}, {5, 0, 2}, 0.5, 0.0},          // turned to +x: +z is on the left, 2 away
        {{0, 0, 0}, {0, 0, -1}, {0, 0, 4}, 0.25, 0.25},       // behind, 4 away
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "sound at x " << c.sound[0] << ", z " << c.sound[2]);
        ASSERT_EQ(DS_OK, listener->SetPosition(c.at[0], c.at[1], c.at[2], DS3D_IMMEDIATE));
        ASSERT_EQ(DS_OK,
                  listener->SetOrientation(c.front[0], c.front[1], c.front[2], 0, 1, 0, DS3D_IMMEDIATE));
        ASSERT_EQ(DS_OK, b3->SetPosition(c.sound[0], c.sound[1], c.sound[2], DS3D_IMMEDIATE));
        const auto heard = peaksAfterAGlide();
        EXPECT_NEAR(c.left, heard.first, 0.01);
        EXPECT_NEAR(c.right, heard.second, 0.01);
    }
    b3->Release();
    listener->Release();
    b->Release();
}

TEST_F(SoundEngine, FrequencyResamplesPitchWithoutClicksAtLoopsOrChanges) {
    Device dev(44100);
    // A 22050 Hz buffer of 1 s holding 441 Hz; played at 44100 Hz it must sound an octave up.
    IDirectSoundBuffer* b = dev.playing(soundkit::sine16(22050, 441.0 / 22050.0, 16000.0), 22050, true);
    ASSERT_EQ(DS_OK, b->SetFrequency(44100));
    simsound::advanceMs(1500);  // crosses the loop point once
    std::vector<float> out = simsound::outputChannel(0);
    EXPECT_NEAR(882.0, pitch(out, 0, out.size()), 2.0);
    // The largest step a clean sine of pitch hz and this amplitude takes at 44.1 kHz.
    const auto ownStep = [](double hz) { return 2 * M_PI * hz / 44100.0 * (16000.0 / 32768.0); };
    EXPECT_LT(maxStep(out), ownStep(882.0) * 1.05);

    // An odd ratio, changed mid-stream: the pitch follows and no step jumps out.
    simsound::clearOutput();
    ASSERT_EQ(DS_OK, b->SetFrequency(30011));
    simsound::advanceMs(400);
    ASSERT_EQ(DS_OK, b->SetFrequency(17003));
    simsound::advanceMs(400);
    out = simsound::outputChannel(0);
    EXPECT_NEAR(441.0 * 30011 / 22050, pitch(out, 0, out.size() / 2), 3.0);
    EXPECT_NEAR(441.0 * 17003 / 22050, pitch(out, out.size() / 2, out.size()), 3.0);
    EXPECT_LT(maxStep(out), ownStep(441.0 * 30011 / 22050) * 1.05);
    b->Release();
}

/// Renders one busy second: mono, stereo and 3D voices at odd frequencies, one-shot and looping,
/// with volume, pan, position and frequency changing between blocks. Returns the output bytes.
std::vector<uint8_t> busySecond() {
    simsound::Config cfg;
    cfg.followPrimary = false;
    cfg.fixedFormat = simsound::OutputFormat{48000, 2, 16};
    cfg.recordConsumed = false;
    simsound::use(cfg);
    Device dev(48000, DSBCAPS_CTRL3D);
    std::vector<IDirectSoundBuffer*> buffers;
    for (int k = 0; k < 6; ++k) {
        const uint16_t channels = k % 2 ? 2 : 1;
        const uint32_t flags =
            DSBCAPS_CTRLVOLUME | DSBCAPS_CTRLFREQUENCY | (k >= 4 ? DSBCAPS_CTRL3D : DSBCAPS_CTRLPAN);
        IDirectSoundBuffer* b = dev.buffer(k < 3 ? 22050 : 44100, channels, 16, 7000u * 2 * channels, flags);
        std::vector<int16_t> samples(7000u * channels);
        for (size_t i = 0; i < samples.size(); ++i) {
            samples[i] =
                static_cast<int16_t>(9000 * std::sin(i * (0.01 + 0.003 * k)) + 3000 * std::sin(i * 0.37));
        }
        soundkit::write(b, 0, samples.data(), static_cast<uint32_t>(samples.size() * 2));
        b->SetFrequency((k < 3 ? 22050 : 44100) + 1234 * k);
        b->Play(0, 0, k == 2 ? 0 : DSBPLAY_LOOPING);
        buffers.push_back(b);
    }
    IDirectSound3DBuffer* b3 = nullptr;
    buffers[4]->QueryInterface(IID_IDirectSound3DBuffer, reinterpret_cast<void**>(&b3));
    for (int step = 0; step < 100; ++step) {
        simsound::advanceFrames(480);
        buffers[0]->SetVolume(-(step % 7) * 300);
        buffers[1]->SetPan((step % 5 - 2) * 2000);
        b3->SetPosition(std::sin(step * 0.1f) * 3, 0, 1, DS3D_IMMEDIATE);
        if (step == 50) {
            buffers[3]->SetFrequency(30000);
        }
    }
    b3->Release();
    for (IDirectSoundBuffer* b : buffers) {
        b->Release();
    }
    return simsound::outputBytes();
}

TEST_F(SoundEngine, VectorAndPortableKernelsMixTheSameOutput) {
    sound::Engine::setVectorKernels(false);
    const std::vector<uint8_t> portable = busySecond();
    sound::Engine::setVectorKernels(true);
    const std::vector<uint8_t> vector = busySecond();
    ASSERT_EQ(48000u * 4, portable.size());
    EXPECT_TRUE(portable == vector);
    EXPECT_GT(peak(simsound::outputChannel(0)), 0.3);
}

TEST_F(SoundEngine, MixSourcesAddIntoTheSameOutputWithOrWithoutADevice) {
    soundkit::QuarterSource quarter;
    ASSERT_TRUE(addMixSource(&quarter));
    EXPECT_FALSE(addMixSource(&quarter));
    EXPECT_FALSE(addMixSource(nullptr));
    simsound::advanceFrames(100);
    EXPECT_NEAR(0.25, simsound::outputChannel(1).back(), 1.0 / 128);
    {
        Device dev(44100);
        IDirectSoundBuffer* b = dev.playing(std::vector<int16_t>(100, 8192), 44100, true);
        simsound::clearOutput();
        simsound::advanceFrames(100);
        EXPECT_NEAR(0.5, simsound::outputChannel(0).back(), 1e-4);
        EXPECT_EQ(44100u, quarter.lastRate.load());
        b->Release();
    }
    removeMixSource(&quarter);
    const int calls = quarter.calls.load();
    simsound::advanceFrames(100);
    EXPECT_EQ(calls, quarter.calls.load());
}

// The mixing thread renders flat out while control threads create, start, move and release
// buffers; every SetCurrentPosition must read back unless the buffer played on from it.
TEST_F(SoundEngine, ControlThreadsNeverLoseAPositionOrPlayAgainstTheMixingThread) {
    simsound::Config cfg;
    cfg.captureOutput = false;
    cfg.recordConsumed = false;
    simsound::use(cfg);
    Device dev(44100);
    std::atomic<bool> stop{false};
    std::thread mixer([&] {
        while (!stop.load()) {
            simsound::advanceFrames(441);
        }
    });
    std::vector<std::thread> controls;
    std::atomic<int> failures{0};
    for (int t = 0; t < 2; ++t) {
        controls.emplace_back([&, t] {
            std::vector<int16_t> data(4000, static_cast<int16_t>(1000 * (t + 1)));
            for (int round = 0; round < 200; ++round) {
                IDirectSoundBuffer* b = dev.buffer(44100, 1, 16, 8000);
                soundkit::write(b, 0, data.data(), 8000);
                b->SetCurrentPosition(4000);
                failures += soundkit::position(b) != 4000;
                b->Play(0, 0, round % 2 ? DSBPLAY_LOOPING : 0);
                b->SetVolume(-(round % 10) * 100);
                b->Stop();
                const uint32_t stoppedAt = soundkit::position(b);
                failures += soundkit::position(b) != stoppedAt;
                b->Release();
            }
        });
    }
    for (auto& c : controls) {
        c.join();
    }
    stop.store(true);
    mixer.join();
    EXPECT_EQ(0, failures.load());
    simsound::advanceFrames(441);  // lets the engine retire the released voices
    EXPECT_EQ(0, simsound::engine().liveVoices());
}

// Lock refuses ranges outside the buffer (a split at the wrap is heard in the mixer's streaming
// tests); positions are whole frames inside it.
TEST_F(SoundEngine, LockAndPositionsRefuseImpossibleRanges) {
    Device dev;
    IDirectSoundBuffer* b = dev.buffer(22050, 1, 16, 1000);
    void* p[2] = {nullptr, nullptr};
    uint32_t n[2] = {0, 0};
    EXPECT_EQ(DSERR_INVALIDPARAM, b->Lock(1000, 2, &p[0], &n[0], &p[1], &n[1], 0));
    EXPECT_EQ(DSERR_INVALIDPARAM, b->Lock(0, 1001, &p[0], &n[0], &p[1], &n[1], 0));
    EXPECT_EQ(DSERR_INVALIDPARAM, b->Lock(0, 0, &p[0], &n[0], &p[1], &n[1], 0));
    uint8_t elsewhere[8];
    EXPECT_EQ(DSERR_INVALIDPARAM, b->Unlock(elsewhere, 8, nullptr, 0));
    EXPECT_EQ(DS_OK, b->SetCurrentPosition(503));
    EXPECT_EQ(502u, soundkit::position(b));
    EXPECT_EQ(DSERR_INVALIDPARAM, b->SetCurrentPosition(1000));
    b->Release();
}

// The record of passed bytes that the mixing thread keeps without lock or allocation: frames in
// order across the ring's wrap and the clip's loop, a one-shot stopping at its end, what the ring
// has no room for counted as dropped, and a reader draining while the mixing thread appends.
TEST(ConsumedTap, KeepsPassedFramesInOrderAndCountsWhatItDrops) {
    WAVEFORMATEX f{WAVE_FORMAT_PCM, 1, 100, 200, 2, 16, 0};
    sound::SampleMemory* m = sound::SampleMemory::create(f, 20);  // ten frames: 0x0100, 0x0101, ...
    ASSERT_NE(nullptr, m);
    for (int i = 0; i < 10; ++i) {
        m->raw[2 * i] = static_cast<uint8_t>(i);
        m->raw[2 * i + 1] = 1;
    }
    m->commit(0, 20);
    std::unique_ptr<sound::ConsumedTap> tap(sound::ConsumedTap::create(*m, 1));  // 100 frames
    ASSERT_NE(nullptr, tap);
    auto record = [&](uint32_t first, uint64_t count, bool loop) {
        std::lock_guard<std::mutex> guard(m->commitLock);
        tap->record(*m, first, count, loop);
    };
    auto frames = [&] {
        const std::vector<uint8_t> bytes = tap->bytes();
        std::vector<int> out;
        for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
            out.push_back(bytes[i] | (bytes[i + 1] << 8));
        }
        return out;
    };
    record(7, 6, true);
    record(8, 5, false);
    EXPECT_EQ((std::vector<int>{0x107, 0x108, 0x109, 0x100, 0x101, 0x102, 0x108, 0x109}), frames());
    tap->clear();
    record(0, 103, true);  // the ring holds 100 frames
    const std::vector<int> kept = frames();
    ASSERT_EQ(100u, kept.size());
    EXPECT_EQ(0x109, kept.back());
    EXPECT_EQ(6u, tap->dropped());
    record(3, 1, true);  // drained: room again, after the wrap of the ring
    EXPECT_EQ(0x103, frames().back());

    tap->clear();
    std::atomic<bool> done{false};
    std::thread mixing([&] {
        for (uint32_t k = 0; k < 20000; ++k) {
            record(k % 10, 1, true);
        }
        done = true;
    });
    size_t seen = 0;
    while (!done) {
        seen = tap->bytes().size();
    }
    mixing.join();
    const std::vector<int> all = frames();
    EXPECT_GE(all.size(), seen / 2);
    EXPECT_EQ(20000u * 2 + 6, all.size() * 2 + tap->dropped());
    for (int v : all) {
        ASSERT_TRUE(v >= 0x100 && v <= 0x109) << v;
    }
    tap.reset();
    m->unref();
}

}  // namespace
