// The mixer's device side: start-up and its failures, global settings, and the per-port controls
// (gain, tempo, location and spatialisation).
#include "MixerTestKit.h"

#include "TestSupport.h"

#include <functional>
#include <limits>
#include <thread>

namespace {

using namespace lxp;
using mixerkit::MixerTest;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

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

}  // namespace
