// A mixer on the simulated sound device, for the mixer's tests.
#ifndef LORVEX_TESTS_AUDIO_MIXER_KIT_H
#define LORVEX_TESTS_AUDIO_MIXER_KIT_H

#include "LxPlatformProbe.h"
#include "LxResult.h"
#include "LxVersionDetection.h"
#include "LxWin32AudioOutputPort.h"
#include "LxWin32Mixer.h"
#include "platform/LxpDuplex.h"
#include "platform/clock/LxpClock.h"
#include "platform/dshow/LxpGraphIds.h"
#include "platform/sound/LxpSimulatedSound.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

namespace mixerkit {

/// Windows 95 with DirectX 1: no 3D sound.
inline LxSimulatedPlatform directX1() {
    LxSimulatedPlatform os;
    os.platformId = 1;
    os.buildNumber = 950;
    os.directInputLoads = false;
    return os;
}

/// Reaches the mixer's records and buffers.
class TestMixer : public LxWin32Mixer {
  public:
    LxWin32AudioPortData* rec(short port) {
        return port >= 0 && port < LX_MAX_PORTS ? ports[port].load() : nullptr;
    }
    lxp::IDirectSoundBuffer* buffer(short port) {
        return rec(port) != nullptr ? rec(port)->soundBuffer : nullptr;
    }
    lxp::simsound::BufferInfo info(short port) {
        lxp::simsound::BufferInfo i;
        EXPECT_TRUE(lxp::simsound::describe(buffer(port), &i)) << "port " << port << " has no buffer";
        return i;
    }
    std::vector<uint8_t> consumed(short port) { return lxp::simsound::consumed(buffer(port)); }
    bool hasDevice() const { return directSound != nullptr; }
};

/// A fresh simulated platform: the given sound device and OS, a manual clock whose sleeps advance
/// it (and with it the sound output), and the class-wide state forgotten.
class MixerTest : public ::testing::Test {
  protected:
    void SetUp() override { setUpPlatform(lxp::simsound::Config(), LxSimulatedPlatform()); }
    void TearDown() override {
        mixer.reset();
        EXPECT_EQ(0, lxp::simsound::liveBuffers()) << "buffers leaked";
        EXPECT_EQ(0, lxp::duplex::openCount(lxp::duplex::SampledAudio)) << "device left open";
        lxp::setClock(nullptr);
        LxPlatformProbe::useSystem();
        LxResetDXAndWin32VersionCache();
    }

    /// clockSynced: buffer operations render the output up to the manual clock (the default);
    /// otherwise only simsound::advance renders.
    void setUpPlatform(lxp::simsound::Config sound, const LxSimulatedPlatform& os, bool clockSynced = true) {
        mixer.reset();
        lxp::duplex::reset();
        lxp::comtest::reset();
        // No filter graph unless a test brings its own (FakeFilterGraph): the real backend is
        // not these tests' business.
        lxp::comtest::failCreate(lxp::CLSID_FilterGraph, -1);
        sound.syncToClock = clockSynced;
        lxp::setClock(&clock);
        lxp::simsound::use(sound);
        LxPlatformProbe::useSimulated(os);
        LxResetDXAndWin32VersionCache();
        LxWin32Mixer::resetClassStateForTests();
        mixer.reset(new TestMixer());
    }

    /// initMixer and initDirectSound, expecting READY.
    void start() {
        ASSERT_EQ(LX_OK, mixer->initMixer(reinterpret_cast<LxHwnd>(0x1234)));
        ASSERT_EQ(LX_OK, mixer->initDirectSound());
        ASSERT_EQ(LxWin32Mixer::READY, mixer->getState());
    }

    /// A port of the given shape, holding a channel.
    short open(LxAudioChannels_s ch, LxSampleFormat_s fmt, float rate, int32_t bytes, char streaming = 1,
               char resident = 0, bool grant = true) {
        LxWin32AudioPortConfig config(ch, fmt, rate, bytes, streaming, resident);
        short n = -1;
        EXPECT_EQ(LX_OK, mixer->openPort(&config, n));
        if (grant) {
            EXPECT_EQ(LX_OK, mixer->acquireChannel(n));
        }
        return n;
    }

    /// Moves time on and lets the sound output catch up.
    void advance(int64_t ms) {
        clock.advanceMs(ms);
        lxp::simsound::catchUp();
    }

    lxp::ManualClock clock;
    struct Deleter {
        void operator()(TestMixer* m) const {
            if (m != nullptr) {
                m->closeMixer();
                delete m;
            }
        }
    };
    std::unique_ptr<TestMixer, Deleter> mixer;
};

inline std::vector<uint8_t> ramp16(size_t frames, int channels, int start = 0) {
    std::vector<uint8_t> b(frames * channels * 2);
    for (size_t i = 0; i < frames * channels; ++i) {
        const int16_t v = static_cast<int16_t>(((start + static_cast<int>(i)) * 7) % 30000 - 15000);
        std::memcpy(&b[2 * i], &v, 2);
    }
    return b;
}

}  // namespace mixerkit

#endif
