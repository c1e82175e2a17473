// The mixer's device side: start-up and its failures, global settings, and the per-port controls
// (tempo; gain and location are heard in the renderer's tests).
#include "MixerTestKit.h"

#include "TestSupport.h"

#include <functional>
#include <limits>
#include <thread>

namespace {

using namespace lxp;
using mixerkit::MixerTest;

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
