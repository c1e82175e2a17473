// The simulated sound device for the sound layer's tests, and the measures a signal is judged by.
#ifndef LORVEX_TESTS_PLATFORM_SOUND_KIT_H
#define LORVEX_TESTS_PLATFORM_SOUND_KIT_H

#include "platform/sound/LxpSimulatedSound.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <vector>

namespace soundkit {

using namespace lxp;

constexpr uint32_t kControls = DSBCAPS_CTRLVOLUME | DSBCAPS_CTRLFREQUENCY | DSBCAPS_CTRLPAN;

/// Writes bytes at offset through Lock/Unlock (wrapping like any writer).
inline void write(IDirectSoundBuffer* b, uint32_t offset, const void* data, uint32_t bytes) {
    void* p[2] = {nullptr, nullptr};
    uint32_t n[2] = {0, 0};
    ASSERT_EQ(DS_OK, b->Lock(offset, bytes, &p[0], &n[0], &p[1], &n[1], 0));
    std::memcpy(p[0], data, n[0]);
    if (p[1] != nullptr) {
        std::memcpy(p[1], static_cast<const uint8_t*>(data) + n[0], n[1]);
    }
    ASSERT_EQ(DS_OK, b->Unlock(p[0], n[0], p[1], n[1]));
}

/// An initialised device at priority level, its primary buffer 16-bit stereo at primaryRate.
struct Device {
    IDirectSound* ds = nullptr;
    IDirectSoundBuffer* primary = nullptr;

    explicit Device(uint32_t primaryRate = 44100, uint32_t primaryFlags = 0) {
        EXPECT_EQ(DS_OK, DirectSoundCreate(nullptr, &ds, nullptr));
        EXPECT_EQ(DS_OK, ds->SetCooperativeLevel(nullptr, DSSCL_PRIORITY));
        primary = create(DSBCAPS_PRIMARYBUFFER | primaryFlags, 0, nullptr);
        const WAVEFORMATEX f{WAVE_FORMAT_PCM, 2, primaryRate, primaryRate * 4, 4, 16, 0};
        EXPECT_EQ(DS_OK, primary->SetFormat(&f));
    }
    ~Device() {
        primary->Release();
        ds->Release();
    }
    IDirectSoundBuffer* create(uint32_t flags, uint32_t bytes, WAVEFORMATEX* format) {
        DSBUFFERDESC d{DSBUFFERDESC_SIZE, flags, bytes, 0, format, {}};
        IDirectSoundBuffer* b = nullptr;
        EXPECT_EQ(DS_OK, ds->CreateSoundBuffer(&d, &b, nullptr));
        return b;
    }
    IDirectSoundBuffer* buffer(uint32_t rate, uint16_t channels, uint16_t bits, uint32_t bytes,
                               uint32_t flags = kControls) {
        const uint16_t align = static_cast<uint16_t>(channels * bits / 8);
        WAVEFORMATEX f{WAVE_FORMAT_PCM, channels, rate, rate * align, align, bits, 0};
        return create(flags, bytes, &f);
    }
    /// A 16-bit mono buffer holding samples, started at its own rate.
    IDirectSoundBuffer* playing(const std::vector<int16_t>& samples, uint32_t rate, bool loop,
                                uint32_t flags = kControls) {
        const uint32_t bytes = static_cast<uint32_t>(samples.size() * 2);
        IDirectSoundBuffer* b = buffer(rate, 1, 16, bytes, flags);
        write(b, 0, samples.data(), bytes);
        EXPECT_EQ(DS_OK, b->Play(0, 0, loop ? DSBPLAY_LOOPING : 0));
        return b;
    }
};

inline std::vector<int16_t> sine16(uint32_t frames, double cyclesPerFrame, double amplitude) {
    std::vector<int16_t> s(frames);
    for (uint32_t i = 0; i < frames; ++i) {
        s[i] = static_cast<int16_t>(std::lround(amplitude * std::sin(2 * M_PI * cyclesPerFrame * i)));
    }
    return s;
}

/// A mix source adding a quarter of full scale to every sample.
class QuarterSource : public MixSource {
  public:
    void mixInto(float* interleaved, uint32_t frames, uint32_t channels, uint32_t sampleRate) override {
        calls.fetch_add(1);
        lastRate.store(sampleRate);
        for (uint32_t i = 0; i < frames * channels; ++i) {
            interleaved[i] += 0.25f;
        }
    }
    std::atomic<int> calls{0};
    std::atomic<uint32_t> lastRate{0};
};

inline uint32_t position(IDirectSoundBuffer* b) {
    uint32_t play = 0;
    EXPECT_EQ(DS_OK, b->GetCurrentPosition(&play, nullptr));
    return play;
}

inline double peak(const std::vector<float>& x, size_t from = 0) {
    double m = 0;
    for (size_t i = from; i < x.size(); ++i) {
        m = std::max(m, std::fabs(static_cast<double>(x[i])));
    }
    return m;
}

}  // namespace soundkit

#endif
