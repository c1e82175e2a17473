// The mixer on the simulated sound device with a manual clock: start-up, the port table, channels,
// scheduled starts, duplicates, tempo, streamed writes heard exactly, resets, silence, writes only
// timed or given up, and the lock order (a resident clip's fill is heard in the renderer's tests).
#include "LxPlatformProbe.h"
#include "LxResult.h"
#include "LxVersionDetection.h"
#include "LxWin32AudioOutputPort.h"
#include "LxWin32Mixer.h"
#include "TestSupport.h"
#include "platform/LxpDuplex.h"
#include "platform/clock/LxpClock.h"
#include "platform/dshow/LxpGraphIds.h"
#include "platform/sound/LxpSimulatedSound.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

namespace {

using namespace lxp;

/// Windows 95 with DirectX 1: no 3D sound.
LxSimulatedPlatform directX1() {
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
    IDirectSoundBuffer* buffer(short port) { return rec(port) != nullptr ? rec(port)->soundBuffer : nullptr; }
    simsound::BufferInfo info(short port) {
        simsound::BufferInfo i;
        EXPECT_TRUE(simsound::describe(buffer(port), &i)) << "port " << port << " has no buffer";
        return i;
    }
    std::vector<uint8_t> consumed(short port) { return simsound::consumed(buffer(port)); }
    bool hasDevice() const { return directSound != nullptr; }
};

/// A fresh simulated platform: the given sound device and OS, a manual clock whose sleeps advance
/// it (and with it the sound output), and the class-wide state forgotten.
class MixerTest : public ::testing::Test {
  protected:
    void SetUp() override { setUpPlatform(simsound::Config(), LxSimulatedPlatform()); }
    void TearDown() override {
        mixer.reset();
        EXPECT_EQ(0, simsound::liveBuffers()) << "buffers leaked";
        EXPECT_EQ(0, duplex::openCount(duplex::SampledAudio)) << "device left open";
        setClock(nullptr);
        LxPlatformProbe::useSystem();
        LxResetDXAndWin32VersionCache();
    }

    /// clockSynced: buffer operations render the output up to the manual clock (the default);
    /// otherwise only simsound::advance renders.
    void setUpPlatform(simsound::Config sound, const LxSimulatedPlatform& os, bool clockSynced = true) {
        mixer.reset();
        duplex::reset();
        comtest::reset();
        // No filter graph: the real backend is not these tests' business.
        comtest::failCreate(CLSID_FilterGraph, -1);
        sound.syncToClock = clockSynced;
        setClock(&clock);
        simsound::use(sound);
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
        simsound::catchUp();
    }

    ManualClock clock;
    static void close(TestMixer* m) {
        m->closeMixer();
        delete m;
    }
    std::unique_ptr<TestMixer, void (*)(TestMixer*)> mixer{nullptr, close};
};

std::vector<uint8_t> ramp16(size_t frames, int channels, int start = 0) {
    std::vector<uint8_t> b(frames * channels * 2);
    for (size_t i = 0; i < frames * channels; ++i) {
        const int16_t v = static_cast<int16_t>(((start + static_cast<int>(i)) * 7) % 30000 - 15000);
        std::memcpy(&b[2 * i], &v, 2);
    }
    return b;
}

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
        setUpPlatform(simsound::Config(), threeD ? LxSimulatedPlatform() : directX1());
        start();
        LxWin32AudioOutputPort port(mixer.get());
        LxWin32AudioPortConfig config(LxMono, LxSample16, 22050, 4410, 0, 1);
        ASSERT_EQ(LX_OK, port.openPort(&config));
        const short n = port.getPortNumber();
        const std::vector<uint8_t> clip = ramp16(2205, 1);
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

    const std::vector<uint8_t> clip = ramp16(2205, 1);
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
            const std::vector<uint8_t> data = ramp16(441, 1, t);
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
    const LxSimulatedPlatform old = directX1();
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

TEST_F(MixerTest, StreamedFramesAreHeardExactlyInOrderAtTheirOwnPace) {
    start();
    // A fifth-of-a-second ring at 22050 Hz, fed two seconds in tenth-second frames.
    const short p = open(LxMono, LxSample16, 22050, 8820);
    std::vector<uint8_t> input = ramp16(44100, 1);
    const int64_t t0 = clock.nowMicros();
    for (int k = 0; k < 20; ++k) {
        ASSERT_EQ(LX_OK, mixer->writeFrames(p, input.data(), k * 4410, 2205)) << "frame " << k;
    }
    const double writingSeconds = (clock.nowMicros() - t0) / 1e6;
    EXPECT_GT(writingSeconds, 1.6);  // paced by playback, less the buffer's head start
    EXPECT_LT(writingSeconds, 2.1);
    advance(300);
    const std::vector<float> out = simsound::outputChannel(0);
    ASSERT_GE(out.size(), 44100u);
    for (size_t i = 0; i < 44100; ++i) {
        int16_t in;
        std::memcpy(&in, &input[2 * i], 2);
        ASSERT_EQ(in, static_cast<int16_t>(out[i] * 32768.0f)) << "output frame " << i;
    }
    // A stop sets up a reset: the next write rewinds the buffer and plays from offset 0.
    mixer->stopPort(p, 1);
    simsound::clearConsumed(mixer->buffer(p));
    std::vector<uint8_t> again = ramp16(2205, 1, 12345);
    ASSERT_EQ(LX_OK, mixer->writeFrames(p, again.data(), 0, 2205));
    advance(100);
    const std::vector<uint8_t> replay = mixer->consumed(p);
    ASSERT_GE(replay.size(), again.size());
    EXPECT_EQ(0, std::memcmp(replay.data(), again.data(), again.size()));
}

TEST_F(MixerTest, AStreamingPortResetsOnlyWhenMoreThanHalfASecondIsQueued) {
    start();
    // One second of 8-bit mono at 22050 bytes per second; the clock stands, so nothing plays.
    for (const int queued : {11025, 11026}) {
        const short p = open(LxMono, LxSample8, 22050, 22050);
        std::vector<uint8_t> bytes(queued + 1, 0x40);
        ASSERT_EQ(LX_OK, mixer->writeFrames(p, bytes.data(), 0, queued));
        EXPECT_EQ(queued, mixer->rec(p)->writePosition);
        ASSERT_EQ(LX_OK, mixer->writeFrames(p, bytes.data(), 0, 1));
        // A reset rewinds the buffer: the byte goes to its start.
        EXPECT_EQ(queued == 11026 ? 1 : queued + 1, mixer->rec(p)->writePosition);
        mixer->closePort(p);
    }
}

TEST_F(MixerTest, SilenceUsesTheFormatsSilenceByteAndWholeFrames) {
    start();
    const short p8 = open(LxMono, LxSample8, 11025, 11025);
    std::vector<uint8_t> tone(200, 0x10);
    ASSERT_EQ(LX_OK, mixer->writeFrames(p8, tone.data(), 0, 200));
    mixer->stopPort(p8, 0);
    ASSERT_EQ(LX_OK, mixer->fillSilence(p8, 100));
    EXPECT_EQ(100, mixer->rec(p8)->writePosition);
    void* a = nullptr;
    uint32_t an = 0;
    ASSERT_EQ(DS_OK, mixer->buffer(p8)->Lock(0, 200, &a, &an, nullptr, nullptr, 0));
    const uint8_t* bytes = static_cast<const uint8_t*>(a);
    EXPECT_EQ(0x80, bytes[0]);
    EXPECT_EQ(0x80, bytes[99]);
    EXPECT_EQ(0x10, bytes[100]);
    mixer->buffer(p8)->Unlock(a, an, nullptr, 0);
    EXPECT_TRUE(mixer->info(p8).playing);  // silence starts a stopped port

    const short p16 = open(LxStereo, LxSample16, 11025, 44100);
    ASSERT_EQ(LX_OK, mixer->fillSilence(p16, 100));
    EXPECT_EQ(400, mixer->rec(p16)->writePosition);
    // 0.1 s at 44100 bytes per second is 4410 bytes, 1102.5 frames: whole frames only.
    ASSERT_EQ(LX_OK, mixer->fillSilence(p16, LxTime(0.1)));
    EXPECT_EQ(400 + 4408, mixer->rec(p16)->writePosition);
    ASSERT_EQ(LX_OK, mixer->fillSilence(p16, 0L));
    EXPECT_EQ(4808, mixer->rec(p16)->writePosition);
    // More silence than the ring holds fills it once.
    ASSERT_EQ(LX_OK, mixer->fillSilence(p16, LxTime(3.0)));
    EXPECT_EQ(4808, mixer->rec(p16)->writePosition);
}

TEST_F(MixerTest, WritesNobodyCanHearAreOnlyTimed) {
    ASSERT_EQ(LX_OK, mixer->initMixer(reinterpret_cast<LxHwnd>(1)));
    const short never = open(LxMono, LxSample16, 22050, 4410, 1, 0, false);
    ASSERT_EQ(LX_OK, mixer->initDirectSound());
    std::vector<uint8_t> data = ramp16(2205, 1);
    const auto sleptWriting = [&] {
        const uint64_t slept = clock.sleptMs();
        EXPECT_EQ(LX_OK, mixer->writeFrames(never, data.data(), 0, 2205));
        return clock.sleptMs() - slept;
    };
    // No buffer was ever made (no byte rate yet): the port's own rate times it, 100 ms.
    EXPECT_EQ(100u, sleptWriting());
    // A tempo of 0 or below paces at normal speed instead of dividing by it.
    ASSERT_EQ(LX_OK, mixer->setTempo(never, 0.0f));
    EXPECT_EQ(100u, sleptWriting());
    ASSERT_EQ(LX_OK, mixer->setTempo(never, 2.0f));
    EXPECT_EQ(50u, sleptWriting());

    // A muted port without duplicates writes nothing; with a duplicate the bytes go in.
    const short muted = open(LxMono, LxSample16, 22050, 8820);
    ASSERT_EQ(LX_OK, mixer->setGain(muted, 0.0f));
    ASSERT_EQ(LX_OK, mixer->writeFrames(muted, data.data(), 0, 2205));
    EXPECT_EQ(0, mixer->rec(muted)->writePosition);
    short dup = -1;
    ASSERT_EQ(LX_OK, mixer->duplicatePort(muted, dup));
    ASSERT_EQ(LX_OK, mixer->writeFrames(muted, data.data(), 0, 2205));
    EXPECT_EQ(4410, mixer->rec(muted)->writePosition);
}

TEST_F(MixerTest, AWriteGivesUpWhenItsPortLosesTheChannelOrCloses) {
    start();
    clock.setAutoAdvanceOnSleep(false);
    // Revoked or closed while the writer paces itself; then revoked while it waits for room in a
    // full buffer whose output does not move (it must not hold the slot lock then).
    for (const int c : {0, 1, 2}) {
        const bool close = c == 1;
        if (c == 2) {
            setUpPlatform(lxp::simsound::Config(), LxSimulatedPlatform(), false);
            start();
        }
        const short p = open(LxMono, LxSample16, 22050, 11024, c == 2 ? 0 : 1);  // a quarter second
        std::vector<uint8_t> data = ramp16(22050, 1);
        std::atomic<long> result{0};
        const uint64_t slept = clock.sleptMs();
        std::thread writer([&] { result.store(mixer->writeFrames(p, data.data(), 0, 22050)); });
        // The first quarter second fits; then the writer sleeps 199 ms with the slot let go.
        ASSERT_TRUE(lxtest::waitUntil([&] { return clock.sleptMs() >= slept + 199; }));
        if (c == 2) {
            clock.advanceMs(199);  // then the throttle (62 ms), then the wait for room (50 ms)
            ASSERT_TRUE(lxtest::waitUntil([&] { return clock.sleptMs() >= slept + 199 + 62; }));
            clock.advanceMs(62);
            ASSERT_TRUE(lxtest::waitUntil([&] { return clock.sleptMs() >= slept + 199 + 62 + 50; }));
        }
        if (close) {
            EXPECT_EQ(LX_OK, mixer->closePort(p));
        } else {
            EXPECT_EQ(LX_OK, mixer->releaseChannel(p, 0));
        }
        clock.advanceMs(200);
        writer.join();
        EXPECT_EQ(LX_ERR_WRITE_ABANDONED, result.load());
        mixer->closePort(p);
    }
}

}  // namespace
