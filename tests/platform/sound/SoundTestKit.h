// Helpers for tests of the sound-device layer: devices and buffers on the simulated backend,
// signals and their measurement.
#ifndef LORVEX_TESTS_PLATFORM_SOUND_KIT_H
#define LORVEX_TESTS_PLATFORM_SOUND_KIT_H

#include "platform/sound/LxpSimulatedSound.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

namespace soundkit {

using namespace lxp;

inline WAVEFORMATEX pcm(uint32_t rate, uint16_t channels, uint16_t bits) {
    const uint16_t align = static_cast<uint16_t>(channels * bits / 8);
    return WAVEFORMATEX{WAVE_FORMAT_PCM, channels, rate, rate * align, align, bits, 0};
}

/// An initialised device with priority level and a primary buffer at primaryRate, 16-bit stereo.
struct Device {
    IDirectSound* ds = nullptr;
    IDirectSoundBuffer* primary = nullptr;

    explicit Device(uint32_t primaryRate = 44100, uint32_t primaryFlags = 0) {
        EXPECT_EQ(DS_OK, DirectSoundCreate(nullptr, &ds, nullptr));
        EXPECT_EQ(DS_OK, ds->SetCooperativeLevel(nullptr, DSSCL_PRIORITY));
        DSBUFFERDESC d{};
        d.dwSize = DSBUFFERDESC_SIZE;
        d.dwFlags = DSBCAPS_PRIMARYBUFFER | primaryFlags;
        EXPECT_EQ(DS_OK, ds->CreateSoundBuffer(&d, &primary, nullptr));
        const WAVEFORMATEX f = pcm(primaryRate, 2, 16);
        EXPECT_EQ(DS_OK, primary->SetFormat(&f));
    }
    ~Device() {
        if (primary != nullptr) {
            primary->Release();
        }
        if (ds != nullptr) {
            ds->Release();
        }
    }

    IDirectSoundBuffer* buffer(uint32_t rate, uint16_t channels, uint16_t bits, uint32_t bytes,
                               uint32_t flags = DSBCAPS_CTRLVOLUME | DSBCAPS_CTRLFREQUENCY |
                                                DSBCAPS_CTRLPAN) {
        WAVEFORMATEX f = pcm(rate, channels, bits);
        DSBUFFERDESC d{};
        d.dwSize = DSBUFFERDESC_SIZE;
        d.dwFlags = flags;
        d.dwBufferBytes = bytes;
        d.lpwfxFormat = &f;
        IDirectSoundBuffer* b = nullptr;
        EXPECT_EQ(DS_OK, ds->CreateSoundBuffer(&d, &b, nullptr));
        return b;
    }
};

/// Writes bytes at offset through Lock/Unlock (wrapping like any writer).
inline void write(IDirectSoundBuffer* b, uint32_t offset, const void* data, uint32_t bytes) {
    void* p1 = nullptr;
    void* p2 = nullptr;
    uint32_t n1 = 0;
    uint32_t n2 = 0;
    ASSERT_EQ(DS_OK, b->Lock(offset, bytes, &p1, &n1, &p2, &n2, 0));
    std::memcpy(p1, data, n1);
    if (p2 != nullptr) {
        std::memcpy(p2, static_cast<const uint8_t*>(data) + n1, n2);
    }
    ASSERT_EQ(DS_OK, b->Unlock(p1, n1, p2, n2));
}

inline std::vector<int16_t> sine16(uint32_t frames, double cyclesPerFrame, double amplitude = 32767.0,
                                   double phase = 0.0) {
    std::vector<int16_t> s(frames);
    for (uint32_t i = 0; i < frames; ++i) {
        s[i] = static_cast<int16_t>(std::lround(amplitude * std::sin(2 * M_PI * cyclesPerFrame * i + phase)));
    }
    return s;
}

inline uint32_t position(IDirectSoundBuffer* b) {
    uint32_t play = 0;
    EXPECT_EQ(DS_OK, b->GetCurrentPosition(&play, nullptr));
    return play;
}

inline double peak(const std::vector<float>& x, size_t from = 0, size_t to = SIZE_MAX) {
    double m = 0;
    for (size_t i = from; i < std::min(to, x.size()); ++i) {
        m = std::max(m, std::fabs(static_cast<double>(x[i])));
    }
    return m;
}

/// Frequency from rising zero crossings (good to a few Hz over a few hundred ms of a clean tone).
inline double pitch(const std::vector<float>& x, uint32_t rate, size_t from = 0, size_t to = SIZE_MAX) {
    to = std::min(to, x.size());
    long first = -1;
    long last = -1;
    int crossings = 0;
    for (size_t i = from + 1; i < to; ++i) {
        if (x[i - 1] < 0 && x[i] >= 0) {
            if (first < 0) {
                first = static_cast<long>(i);
            }
            last = static_cast<long>(i);
            ++crossings;
        }
    }
    return crossings < 2 ? 0.0 : (crossings - 1) * static_cast<double>(rate) / (last - first);
}

/// Largest step between neighbouring samples: a click shows as a step far above the signal's own.
inline double maxStep(const std::vector<float>& x, size_t from = 1, size_t to = SIZE_MAX) {
    double m = 0;
    for (size_t i = std::max<size_t>(from, 1); i < std::min(to, x.size()); ++i) {
        m = std::max(m, std::fabs(static_cast<double>(x[i]) - x[i - 1]));
    }
    return m;
}

}  // namespace soundkit

#endif
