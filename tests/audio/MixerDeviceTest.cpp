// The mixer's device side: start-up and its failures, the primary buffer and listener, global
// settings, diagnostics, and the per-port controls with their conversions.
#include "MixerTestKit.h"

#include "FakeFilterGraph.h"
#include "LxPlatformSound.h"
#include "RendererKit.h"
#include "TestSupport.h"
#include "platform/dshow/LxpGraphIds.h"

#include <chrono>
#include <functional>
#include <limits>
#include <thread>

namespace {

using namespace lxp;
using mixerkit::MixerTest;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

TEST(MixerConversions, GainAndPanBecomeDirectSoundUnitsAtTheirEdges) {
    EXPECT_EQ(0, LxWin32Mixer::gainToVolume(1.0f));
    EXPECT_EQ(-602, LxWin32Mixer::gainToVolume(0.5f));
    EXPECT_EQ(-2000, LxWin32Mixer::gainToVolume(0.1f));
    EXPECT_EQ(-10000, LxWin32Mixer::gainToVolume(0.00001f));
    EXPECT_LT(LxWin32Mixer::gainToVolume(0.000002f), -10000);  // no lower clamp: the device refuses it

    EXPECT_EQ(0, LxWin32Mixer::panToPanValue(0.0f));
    EXPECT_EQ(1204, LxWin32Mixer::panToPanValue(0.5f));
    EXPECT_EQ(-1204, LxWin32Mixer::panToPanValue(-0.5f));
    EXPECT_LE(LxWin32Mixer::panToPanValue(0.9968f), 10000);
    EXPECT_GT(LxWin32Mixer::panToPanValue(0.9969f), 10000);
    EXPECT_LT(LxWin32Mixer::panToPanValue(-0.9969f), -10000);
    // Where the formula has no value: hard right or left, and the middle for not a number.
    EXPECT_EQ(10000, LxWin32Mixer::panToPanValue(1.0f));
    EXPECT_EQ(-10000, LxWin32Mixer::panToPanValue(-1.0f));
    EXPECT_EQ(10000, LxWin32Mixer::panToPanValue(7.0f));
    EXPECT_EQ(-10000, LxWin32Mixer::panToPanValue(-std::numeric_limits<float>::infinity()));
    EXPECT_EQ(0, LxWin32Mixer::panToPanValue(kNaN));
}

TEST_F(MixerTest, GainIsClampedMutedAndAppliedAsVolume) {
    start();
    const short p = open(LxMono, LxSample16, 22050, 8820);
    std::vector<uint8_t> data = mixerkit::ramp16(100, 1);
    ASSERT_EQ(LX_OK, mixer->writeFrames(p, data.data(), 0, 100));
    ASSERT_TRUE(mixer->info(p).playing);

    EXPECT_EQ(LX_OK, mixer->setGain(p, 0.5f));
    EXPECT_EQ(-602, mixer->info(p).volume);
    EXPECT_EQ(LX_ERR_GAIN_CLAMPED, mixer->setGain(p, 1.5f));
    EXPECT_EQ(1.0f, mixer->getGain(p));
    EXPECT_EQ(0, mixer->info(p).volume);
    // Zero mutes and stops a playing stream that owns its buffer alone.
    EXPECT_EQ(LX_OK, mixer->setGain(p, 0.0f));
    EXPECT_EQ(-10000, mixer->info(p).volume);
    EXPECT_FALSE(mixer->info(p).playing);
    EXPECT_EQ(LX_ERR_GAIN_CLAMPED, mixer->setGain(p, -0.2f));
    EXPECT_EQ(0.0f, mixer->getGain(p));
    EXPECT_EQ(LX_OK, mixer->setGain(p, 0.00001f));
    EXPECT_EQ(-10000, mixer->info(p).volume);
    EXPECT_EQ(LX_ERR_GAIN_CLAMPED, mixer->setGain(p, kNaN));
    EXPECT_EQ(0.0f, mixer->getGain(p));
    EXPECT_EQ(LX_ERR_NO_PORT, mixer->setGain(77, 1.0f));

    // Before the device is up the values are kept and reach the buffer when it is made.
    mixer->closeDirectSound(0);
    EXPECT_EQ(LX_ERR_MIXER_NOT_READY, mixer->setGain(p, 0.1f));
    ASSERT_EQ(LX_OK, mixer->initDirectSound());
    ASSERT_EQ(LX_OK, mixer->acquireChannel(p));
    EXPECT_EQ(-2000, mixer->info(p).volume);
}

// Pan needs a mixer without 3D: a 2D one makes pan buffers (whose duplicates lack the 3D
// interface every path asks for) and no listener.
TEST_F(MixerTest, PanWorksOnlyWithoutThreeDAndLeavesTheRangeUnclamped) {
    start();
    EXPECT_EQ(LX_ERR_PAN_IN_3D, mixer->setPan(open(LxMono, LxSample16, 22050, 8820), 0.5f));

    // A 3D system with spatialisation off makes pan buffers, and still refuses pan.
    setUpPlatform(simsound::Config(), LxSimulatedPlatform());
    ASSERT_EQ(LX_OK, mixer->initMixer(reinterpret_cast<LxHwnd>(1)));
    ASSERT_EQ(LX_OK, mixer->setSpatializeSounds(0));
    ASSERT_EQ(LX_OK, mixer->initDirectSound());
    EXPECT_FALSE(mixer->hasListener());
    const short q = open(LxMono, LxSample16, 22050, 8820);
    EXPECT_TRUE(mixer->info(q).flags & DSBCAPS_CTRLPAN);
    EXPECT_EQ(LX_ERR_PAN_IN_3D, mixer->setPan(q, 0.5f));

    setUpPlatform(simsound::Config(), mixerkit::directX1());
    start();
    EXPECT_FALSE(mixer->hasListener());
    const short p = open(LxMono, LxSample16, 22050, 8820);
    EXPECT_EQ(DSBCAPS_CTRLFREQUENCY | DSBCAPS_CTRLVOLUME | DSBCAPS_GLOBALFOCUS | DSBCAPS_CTRLPAN,
              mixer->info(p).flags);
    EXPECT_EQ(LX_OK, mixer->setPan(p, 0.5f));
    EXPECT_EQ(1204, mixer->info(p).pan);
    EXPECT_EQ(0.5f, mixer->getPan(p));
    EXPECT_EQ(LX_OK, mixer->setPan(p, -1.0f));
    EXPECT_EQ(-10000, mixer->info(p).pan);
    EXPECT_EQ(LX_OK, mixer->setPan(p, 0.9969f));  // beyond the device's range: logged only
    EXPECT_EQ(-10000, mixer->info(p).pan);
    EXPECT_EQ(LX_ERR_NO_PORT, mixer->setPan(90, 0.0f));
    short dup = -1;
    EXPECT_EQ(LX_ERR_NO_3D_BUFFER, mixer->duplicatePort(p, dup));
    ASSERT_GE(dup, 0);
    EXPECT_NE(nullptr, mixer->buffer(dup));
}

TEST_F(MixerTest, TempoSetsTheFrequencyAndStopsAtZeroOrBelow) {
    start();
    const short p = open(LxMono, LxSample16, 22050, 8820, 0, 1);
    ASSERT_EQ(LX_OK, mixer->playPort(p, 1));
    EXPECT_EQ(LX_OK, mixer->setTempo(p, 2.0f));
    EXPECT_EQ(44100u, mixer->info(p).frequency);
    EXPECT_EQ(2.0f, mixer->getTempo(p));
    EXPECT_EQ(LX_ERR_GENERIC, mixer->setTempo(p, 100.0f));  // 2205 kHz: above the device's limit
    EXPECT_EQ(44100u, mixer->info(p).frequency);
    EXPECT_EQ(LX_OK, mixer->setTempo(p, 0.0f));
    EXPECT_FALSE(mixer->info(p).playing);
    EXPECT_EQ(0, mixer->rec(p)->looping);
    ASSERT_EQ(LX_OK, mixer->playPort(p, 1));
    EXPECT_EQ(LX_OK, mixer->setTempo(p, -1.0f));
    EXPECT_FALSE(mixer->info(p).playing);
    EXPECT_EQ(LX_ERR_NO_PORT, mixer->setTempo(91, 1.0f));
    mixer->closeDirectSound(0);
    EXPECT_EQ(LX_ERR_MIXER_NOT_READY, mixer->setTempo(p, 0.5f));
    ASSERT_EQ(LX_OK, mixer->initDirectSound());
    ASSERT_EQ(LX_OK, mixer->acquireChannel(p));
    EXPECT_EQ(11025u, mixer->info(p).frequency);
}

TEST_F(MixerTest, LocationAndSpatialisationWaitForTheDeviceThenReachTheThreeDBuffer) {
    ASSERT_EQ(LX_OK, mixer->initMixer(reinterpret_cast<LxHwnd>(1)));
    const short p = open(LxMono, LxSample16, 22050, 8820, 1, 0, false);
    const float xyz[3] = {1, 2, 3};
    EXPECT_EQ(LX_ERR_MIXER_NOT_READY, mixer->setSoundLocation(p, xyz));
    EXPECT_EQ(LX_ERR_MIXER_NOT_READY, mixer->setPriority(p, 0.7f));
    EXPECT_EQ(LX_ERR_MIXER_NOT_READY, mixer->setSpatialize(p, 0));
    ASSERT_EQ(LX_OK, mixer->initDirectSound());

    // A 3D buffer made now gets the stored location as deferred settings and then a commit.
    simsound::clearCalls();
    ASSERT_EQ(LX_OK, mixer->acquireChannel(p));
    const std::vector<std::string> calls = simsound::calls();
    const auto at = [&](const std::string& name) {
        for (size_t i = 0; i < calls.size(); ++i) {
            if (calls[i].rfind(name + "#", 0) == 0) {
                return static_cast<long>(i);
            }
        }
        return -1L;
    };
    ASSERT_GE(at("BufferSetPosition"), 0);
    EXPECT_LT(at("BufferSetPosition"), at("CommitDeferredSettings"));
    EXPECT_LT(at("BufferSetMode"), at("CommitDeferredSettings"));
    EXPECT_EQ(1.0f, mixer->info(p).position3D[0]);
    EXPECT_EQ(-3.0f, mixer->info(p).position3D[2]);
    ASSERT_NE(nullptr, mixer->getLocation(p));
    EXPECT_EQ(-3.0f, mixer->getLocation(p)[2]);

    EXPECT_EQ(LX_OK, mixer->setSpatialize(p, 0));
    EXPECT_EQ(DS3DMODE_DISABLE, mixer->info(p).mode3D);
    simsound::failNext(simsound::Op::BufferSetMode);
    EXPECT_EQ(LX_ERR_GENERIC, mixer->setSpatialize(p, 1));
    simsound::failNext(simsound::Op::BufferSetPosition);
    EXPECT_EQ(LX_ERR_GENERIC, mixer->setSoundLocation(p, xyz));
    EXPECT_EQ(LX_ERR_NO_PORT, mixer->setSoundLocation(93, xyz));
}

TEST_F(MixerTest, TheListenerIsKeptWithZNegatedAndAppliedWhenThereIsOne) {
    ASSERT_EQ(LX_OK, mixer->initMixer(reinterpret_cast<LxHwnd>(1)));
    const float pos[3] = {1, 2, 3};
    const float top[3] = {0, 1, 0};
    const float front[3] = {0, 0, -1};
    EXPECT_EQ(LX_ERR_GENERIC, mixer->setListenerLocation(pos, top, front));  // no listener yet
    ASSERT_EQ(LX_OK, mixer->initDirectSound());
    ASSERT_EQ(1u, simsound::devices().size());
    const float expected[10] = {1, 2, -3, 0, 0, 1, 0, 1, 0, 0};  // rolloff off
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(expected[i], simsound::devices()[0].listener[i]) << i;
    }
    const float pos2[3] = {0, 0, -7};
    EXPECT_EQ(LX_OK, mixer->setListenerLocation(pos2, top, front));
    EXPECT_EQ(7.0f, simsound::devices()[0].listener[2]);
    simsound::failNext(simsound::Op::CommitDeferredSettings);
    EXPECT_EQ(LX_ERR_GENERIC, mixer->setListenerLocation(pos, top, front));
}

// Each failure leaves the mixer closed with nothing open, and a plain retry then works (the
// channel switching of the manager relies on it).
TEST_F(MixerTest, StartUpFailuresLeaveTheMixerClosedWithNothingOpen) {
    const LxSimulatedPlatform nt5;
    const LxSimulatedPlatform old = mixerkit::directX1();
    const struct {
        const char* name;
        LxSimulatedPlatform os;
        std::function<void()> inject;
        long code;
    } cases[] = {
        {"COM", nt5, [] { comtest::failCoInitialize(1); }, LX_ERR_MIXER_COM},
        {"3D object", nt5, [] { comtest::failCreate(CLSID_DirectSound, 1); }, LX_ERR_DSOUND_CREATE},
        {"Initialize", nt5, [] { simsound::failNext(simsound::Op::Initialize); }, LX_ERR_DSOUND_CREATE},
        {"half duplex", nt5,
         [] {
             duplex::setHalfDuplex(true);
             duplex::tryOpen(duplex::Midi);
         },
         LX_ERR_DSOUND_CREATE},
        {"create entry", old, [] { simsound::failNext(simsound::Op::GetDirectSoundCreate); },
         LX_ERR_DSOUND_CREATE},
        {"create", old, [] { simsound::failNext(simsound::Op::DirectSoundCreate); }, LX_ERR_DSOUND_CREATE},
        {"cooperative", nt5, [] { simsound::failNext(simsound::Op::SetCooperativeLevel); },
         LX_ERR_DSOUND_COOPERATIVE},
        {"primary", nt5, [] { simsound::failNext(simsound::Op::CreatePrimaryBuffer); },
         LX_ERR_PRIMARY_BUFFER},
        {"primary play", nt5, [] { simsound::failNext(simsound::Op::Play); }, LX_ERR_PRIMARY_BUFFER},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        setUpPlatform(simsound::Config(), c.os);
        ASSERT_EQ(LX_OK, mixer->initMixer(reinterpret_cast<LxHwnd>(1)));
        const int comBefore = comtest::threadInitCount();
        c.inject();
        EXPECT_EQ(c.code, mixer->initDirectSound());
        EXPECT_EQ(LxWin32Mixer::CLOSED, mixer->getState());
        EXPECT_TRUE(simsound::devices().empty());
        EXPECT_FALSE(mixer->hasDevice());
        EXPECT_EQ(comBefore, comtest::threadInitCount());
        duplex::reset();
        mixer->closeDirectSound(0);
        EXPECT_EQ(LX_OK, mixer->initDirectSound());
        EXPECT_EQ(LxWin32Mixer::READY, mixer->getState());
    }
    simsound::Config noLibrary;
    noLibrary.libraryPresent = false;
    setUpPlatform(noLibrary, old);
    ASSERT_EQ(LX_OK, mixer->initMixer(reinterpret_cast<LxHwnd>(1)));
    EXPECT_EQ(LX_ERR_DSOUND_CREATE, mixer->initDirectSound());

    setUpPlatform(simsound::Config(), nt5);
    comtest::failCoInitialize(1);
    EXPECT_EQ(LX_ERR_MIXER_COM, mixer->initMixer(reinterpret_cast<LxHwnd>(1)));
    EXPECT_EQ(LxWin32Mixer::CLOSED, mixer->getState());
}

TEST_F(MixerTest, DegradedDevicesStillStart) {
    // Unreadable capabilities: no format to ask for, so the device's own is read back.
    ASSERT_EQ(LX_OK, mixer->initMixer(reinterpret_cast<LxHwnd>(1)));
    simsound::failNext(simsound::Op::GetCaps);
    ASSERT_EQ(LX_OK, mixer->initDirectSound());
    EXPECT_EQ(22050u, mixer->primary().nSamplesPerSec);
    EXPECT_EQ(8u, mixer->primary().wBitsPerSample);

    // No 8-bit primary and no listener: a 16-bit primary, and pan buffers.
    simsound::Config cfg;
    cfg.capsFlags &= ~DSCAPS_PRIMARY8BIT;
    setUpPlatform(cfg, LxSimulatedPlatform());
    ASSERT_EQ(LX_OK, mixer->initMixer(reinterpret_cast<LxHwnd>(1)));
    simsound::failNext(simsound::Op::QueryListener);
    ASSERT_EQ(LX_OK, mixer->initDirectSound());
    EXPECT_EQ(16u, mixer->primary().wBitsPerSample);
    const short p = open(LxMono, LxSample16, 22050, 8820);
    EXPECT_TRUE(mixer->info(p).flags & DSBCAPS_CTRLPAN);
    EXPECT_EQ(LX_OK, mixer->setPan(p, 0.5f));
}

TEST_F(MixerTest, DiagnosticsNameThePlatformAndTheFirstRealDevice) {
    simsound::Config cfg;
    cfg.devices = {"Primary Sound Driver", "Card Two", "Card Three"};
    setUpPlatform(cfg, LxSimulatedPlatform());
    start();
    mixer->setMidiCapable(1);
    LxDiagnostics d;
    ASSERT_EQ(LX_OK, mixer->getDiagnostics(d));
    EXPECT_STREQ("Card Two", d.soundDevice);
    EXPECT_STREQ("DirectX", d.soundSystemName);
    EXPECT_EQ(0x501, d.soundSystemVersion);
    EXPECT_STREQ("None", d.mediaFrameworkName);
    EXPECT_EQ(1, d.midiCapable);

    // No device enumerated: the wait for one gives up and names none.
    cfg.devices = {};
    setUpPlatform(cfg, LxSimulatedPlatform());
    start();
    LxDiagnostics none;
    ASSERT_EQ(LX_OK, mixer->getDiagnostics(none));
    EXPECT_EQ(nullptr, none.soundDevice);

    // With a filter graph available, on the path without 3D (which enumerates too).
    comtest::reset();
    lxtest::FakeFilterGraph graphs;
    setUpPlatform(simsound::Config(), mixerkit::directX1());
    comtest::reset();
    start();
    LxDiagnostics again;
    const auto t0 = std::chrono::steady_clock::now();
    ASSERT_EQ(LX_OK, mixer->getDiagnostics(again));
    EXPECT_LT(lxtest::msSince(t0), 1000.0);
    EXPECT_STREQ("DirectShow", again.mediaFrameworkName);
    EXPECT_EQ(0x100, again.soundSystemVersion);
    EXPECT_STREQ("Simulated Sound Card", again.soundDevice);
}

/// Energy of s from second from to second to, at 44.1 kHz.
double energy(const std::vector<int16_t>& s, double from, double to) {
    double e = 0;
    for (size_t i = static_cast<size_t>(from * 44100); i < s.size() && i < to * 44100; ++i) {
        e += static_cast<double>(s[i]) * s[i];
    }
    return e;
}

TEST_F(MixerTest, ASourceMovingFromLeftToRightIsHeardMovingInTheWavFile) {
    lxtest::TempDir dir;
    const std::string path = dir.file("moving.wav");
    LxPlatformSound::useWavFile(path.c_str());
    start();
    const float origin[3] = {0, 0, 0};
    const float up[3] = {0, 1, 0};
    const float ahead[3] = {0, 0, -1};  // the scene's viewer looks down -z
    ASSERT_EQ(LX_OK, mixer->setListenerLocation(origin, up, ahead));
    const short p = open(LxMono, LxSample16, 44100, 882, 0, 1);
    std::vector<uint8_t> tone(882);
    for (int i = 0; i < 441; ++i) {
        const int16_t v = static_cast<int16_t>(12000 * std::sin(2 * M_PI * 1000.0 * i / 44100.0));
        std::memcpy(&tone[2 * i], &v, 2);
    }
    ASSERT_EQ(LX_OK, mixer->writeResidentFrames(p, tone.data(), 0, 441));
    const float left[3] = {-2, 0, -1};
    const float right[3] = {2, 0, -1};
    ASSERT_EQ(LX_OK, mixer->setSoundLocation(p, left));
    ASSERT_EQ(LX_OK, mixer->playPort(p, 1));
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    ASSERT_EQ(LX_OK, mixer->setSoundLocation(p, right));
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    mixer.reset();  // the output stops and the file is complete
    simsound::use();

    const std::vector<int16_t> l = rendererkit::samples16(path, 2, 0);
    const std::vector<int16_t> r = rendererkit::samples16(path, 2, 1);
    ASSERT_GT(l.size(), 44100u / 2);
    const double seconds = l.size() / 44100.0;
    EXPECT_GT(energy(l, 0.05, seconds * 0.4), 4 * energy(r, 0.05, seconds * 0.4)) << "on the left first";
    EXPECT_GT(energy(r, seconds * 0.6, seconds - 0.05), 4 * energy(l, seconds * 0.6, seconds - 0.05))
        << "then on the right";
}

}  // namespace
