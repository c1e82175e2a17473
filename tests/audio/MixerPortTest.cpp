// The mixer: start-up and its failures, the port table, channels revoked and granted again,
// scheduled starts, duplicates, tempo, and the lock order under concurrent use.
#include "MixerTestKit.h"

#include "TestSupport.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <thread>

namespace {

using namespace lxp;
using mixerkit::MixerTest;

TEST_F(MixerTest, TheTableHoldsTwoHundredFiftySixPortsAndReusesTheLowestNumber) {
    start();
    LxWin32AudioPortConfig config(LxMono, LxSample16, 22050, 4410, 1, 0);
    short n = -1;
    for (int i = 0; i < LX_MAX_PORTS; ++i) {
        ASSERT_EQ(LX_OK, mixer->openPort(&config, n));
        ASSERT_EQ(i, n);
    }
    EXPECT_EQ(LX_ERR_GENERIC, mixer->openPort(&config, n));
    EXPECT_EQ(-1, n);
    EXPECT_EQ(LX_OK, mixer->closePort(17));
    EXPECT_EQ(LX_OK, mixer->closePort(200));
    ASSERT_EQ(LX_OK, mixer->openPort(&config, n));
    EXPECT_EQ(17, n);
    EXPECT_EQ(LX_OK, mixer->closePort(17));
    EXPECT_EQ(LX_OK, mixer->closePort(17));  // an empty slot closes quietly
}

// Without a channel (before its first grant, after a revocation) a port keeps its buffer, its
// samples and what the scene sets, all of which is on the buffer from the grant on (location and
// spatialisation in 3D, pan without); a looping resident clip resumes where it stood.
TEST_F(MixerTest, APortWithoutAChannelKeepsItsBufferSamplesAndSettingsForTheGrant) {
    for (const bool threeD : {true, false}) {
        SCOPED_TRACE(threeD ? "3D" : "pan");
        setUpPlatform(simsound::Config(), threeD ? LxSimulatedPlatform() : mixerkit::directX1());
        start();
        LxWin32AudioOutputPort port(mixer.get());
        LxWin32AudioPortConfig config(LxMono, LxSample16, 22050, 4410, 0, 1);
        ASSERT_EQ(LX_OK, port.openPort(&config));
        const short n = port.getPortNumber();
        const std::vector<uint8_t> clip = mixerkit::ramp16(2205, 1);
        ASSERT_EQ(LX_OK, port.writeResidentFrames(const_cast<uint8_t*>(clip.data()), 0, 2205));
        lxp::IDirectSoundBuffer* before = mixer->buffer(n);
        for (const float v : {0.25f, 0.5f}) {
            const float where[3] = {v, 2.0f, 3.0f};
            port.setGain(v);
            port.setTempo(1.5f - 2 * v);
            port.setSoundLocation(where);
            port.setSpatialize(v > 0.3f);
            port.setPan(-v);  // refused in 3D
            EXPECT_EQ(LX_ERR_NO_PORT, port.playPort(1)) << "played without a channel";
            ASSERT_EQ(LX_OK, port.grantChannel());
            if (v < 0.3f) {
                ASSERT_EQ(LX_OK, port.playPort(1));
                advance(30);
                ASSERT_EQ(LX_OK, port.revokeChannel());
                EXPECT_FALSE(port.hasChannel() || mixer->info(n).playing);
                continue;
            }
            const simsound::BufferInfo i = mixer->info(n);
            EXPECT_EQ(before, mixer->buffer(n));
            EXPECT_EQ(LxWin32Mixer::gainToVolume(v), i.volume);
            EXPECT_EQ(11025u, i.frequency);
            EXPECT_EQ(threeD ? 0 : LxWin32Mixer::panToPanValue(-v), i.pan);
            EXPECT_EQ(threeD ? v : 0.0f, i.position3D[0]);
            EXPECT_EQ(DS3DMODE_NORMAL, i.mode3D);
            EXPECT_TRUE(i.playing && i.looping);
        }
        // The samples survived: a whole loop from where it stood is the clip.
        const uint32_t frame = mixer->info(n).position / 2;
        simsound::clearConsumed(mixer->buffer(n));
        advance(200);  // 2205 frames at half speed: one loop
        const std::vector<uint8_t> seen = mixer->consumed(n);
        ASSERT_EQ(4410u, seen.size());
        for (uint32_t f = 0; f < 2205; ++f) {
            ASSERT_EQ(0, std::memcmp(&seen[2 * f], &clip[2 * ((frame + f) % 2205)], 2)) << "frame " << f;
        }
        // A tempo above the device's limit changes nothing; one of 0 or below stops the port; one
        // given while the device is down is kept for its next buffer.
        EXPECT_EQ(LX_ERR_GENERIC, port.setTempo(100.0f));
        EXPECT_EQ(11025u, mixer->info(n).frequency);
        EXPECT_EQ(LX_OK, port.setTempo(0.0f));
        EXPECT_FALSE(mixer->info(n).playing || mixer->rec(n)->looping);
        EXPECT_EQ(LX_ERR_NO_PORT, mixer->setTempo(91, 1.0f));
        mixer->closeDirectSound(0);
        EXPECT_EQ(LX_ERR_MIXER_NOT_READY, port.setTempo(2.0f));
        ASSERT_EQ(LX_OK, mixer->initDirectSound());
        ASSERT_EQ(LX_OK, port.grantChannel());
        EXPECT_EQ(44100u, mixer->info(n).frequency);
    }
}

// A start asked for ahead of time is heard from its exact sample, wherever it falls in the
// engine's 10-ms block, whether a resident clip is played or a streaming write starts its port;
// one asked for now sounds from the next block.
TEST_F(MixerTest, AScheduledStartIsHeardFromItsExactSample) {
    start();
    const short resident = open(LxMono, LxSample16, 44100, 8820, 0, 1);
    const short streaming = open(LxMono, LxSample16, 44100, 8820, 0, 0);
    std::vector<uint8_t> clip(8820, 0x40);
    ASSERT_EQ(LX_OK, mixer->writeResidentFrames(resident, clip.data(), 0, 4410));
    const struct {
        double seconds;
        size_t frame;
        bool streamed;
    } cases[] = {{0.0123457, 544, false}, {0.001, 44, true}, {0.0101, 445, false},
                 {0.25, 11025, true},     {0.0, 0, false},   {0.0, 0, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.seconds << (c.streamed ? " streamed" : ""));
        const short p = c.streamed ? streaming : resident;
        mixer->stopPort(resident, 1);
        mixer->stopPort(streaming, 1);
        advance(10);  // every advance a whole 10 ms: the output stands on a whole frame
        simsound::clearOutput();
        ASSERT_EQ(LX_OK, mixer->scheduleStart(p, c.seconds));
        ASSERT_EQ(LX_OK, c.streamed ? mixer->writeFrames(p, clip.data(), 0, 2205) : mixer->playPort(p, 0));
        advance(static_cast<int64_t>(std::ceil(c.seconds * 100)) * 10 + 30);
        const std::vector<float> out = simsound::outputChannel(0);
        const size_t first =
            std::find_if(out.begin(), out.end(), [](float x) { return x != 0.0f; }) - out.begin();
        EXPECT_EQ(c.frame, first);
    }
}

TEST_F(MixerTest, DuplicatesShareTheMastersSamplesAndOutliveIt) {
    start();
    const short master = open(LxMono, LxSample16, 22050, 4410, 0, 1);
    ASSERT_EQ(LX_OK, mixer->setGain(master, 0.5f));
    short dup = -1;
    ASSERT_EQ(LX_OK, mixer->duplicatePort(master, dup));
    EXPECT_EQ(master, mixer->rec(dup)->masterPort);
    EXPECT_TRUE(mixer->info(dup).sharesMemoryWith(mixer->info(master)));
    EXPECT_EQ(0, mixer->info(dup).volume);  // the new port's own gain, not the master's -602

    const std::vector<uint8_t> clip = mixerkit::ramp16(2205, 1);
    ASSERT_EQ(LX_OK, mixer->writeResidentFrames(master, const_cast<uint8_t*>(clip.data()), 0, 2205));
    ASSERT_EQ(LX_OK, mixer->acquireChannel(dup));
    ASSERT_EQ(LX_OK, mixer->playPort(dup, 1));
    advance(50);
    EXPECT_FALSE(mixer->info(master).playing);
    EXPECT_EQ(0u, mixer->info(master).position);
    ASSERT_EQ(LX_OK, mixer->closePort(master));
    advance(50);
    const std::vector<uint8_t> heard = mixer->consumed(dup);
    ASSERT_GE(heard.size(), 4000u);
    EXPECT_EQ(0, std::memcmp(heard.data(), clip.data(), 4000));
    // Writing through the orphaned duplicate touches only its own buffer.
    ASSERT_EQ(LX_OK, mixer->fillSilence(dup, 10));
    ASSERT_EQ(LX_OK, mixer->closePort(dup));
}

TEST_F(MixerTest, ConcurrentPortTrafficNeitherDeadlocksNorLeaks) {
    // Opening, duplicating, granting, revoking, writing and closing ports from several threads
    // while the device goes down and up: every operation takes the locks in one order.
    simsound::Config cfg;
    cfg.captureOutput = false;
    cfg.recordConsumed = false;
    setUpPlatform(cfg, LxSimulatedPlatform());
    start();
    const short shared = open(LxMono, LxSample16, 22050, 4410, 0, 1);
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&, t] {
            const std::vector<uint8_t> data = mixerkit::ramp16(441, 1, t);
            while (!stop.load()) {
                short own = -1;
                short dup = -1;
                LxWin32AudioPortConfig config(LxMono, LxSample16, 22050, 4410, 1, 0);
                mixer->openPort(&config, own);
                mixer->acquireChannel(own);
                mixer->duplicatePort(t == 0 ? shared : own, dup);
                mixer->acquireChannel(dup);
                mixer->fillSilence(own, 100);
                mixer->setGain(dup, 0.5f);
                mixer->releaseChannel(own, t == 1);
                mixer->closePort(dup);
                mixer->closePort(own);
            }
        });
    }
    threads.emplace_back([&] {
        for (int i = 0; i < 30; ++i) {
            mixer->closeDirectSound(0);
            mixer->initDirectSound();
        }
        stop.store(true);
    });
    for (auto& th : threads) {
        th.join();
    }
    mixer->closeDirectSound(1);
    EXPECT_EQ(0, simsound::liveBuffers());
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
