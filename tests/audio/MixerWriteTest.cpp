// The mixer's data path on the simulated device with a manual clock: streaming writes heard
// exactly and in order, resets, silence, resident clips, fill levels, and the paths that give up.
#include "MixerTestKit.h"

#include "LxLog.h"
#include "TestSupport.h"

#include <atomic>
#include <thread>

namespace {

using namespace lxp;
using mixerkit::MixerTest;

int16_t sampleAt(const std::vector<uint8_t>& bytes, size_t i) {
    int16_t v;
    std::memcpy(&v, &bytes[2 * i], 2);
    return v;
}

TEST_F(MixerTest, StreamedFramesAreHeardExactlyInOrderAtTheirOwnPace) {
    start();
    // A fifth-of-a-second ring at 22050 Hz, fed two seconds in tenth-second frames.
    const short p = open(LxMono, LxSample16, 22050, 8820);
    std::vector<uint8_t> input = mixerkit::ramp16(44100, 1);
    const int64_t t0 = clock.nowMicros();
    for (int k = 0; k < 20; ++k) {
        ASSERT_EQ(LX_OK, mixer->writeFrames(p, input.data(), k * 4410, 2205)) << "frame " << k;
    }
    const double writingSeconds = (clock.nowMicros() - t0) / 1e6;
    EXPECT_GT(writingSeconds, 1.6);  // paced by playback, less the buffer's head start
    EXPECT_LT(writingSeconds, 2.1);
    advance(300);

    const std::vector<uint8_t> passed = mixer->consumed(p);
    ASSERT_GE(passed.size(), input.size());
    for (size_t i = 0; i < input.size() / 2; ++i) {
        ASSERT_EQ(sampleAt(input, i), sampleAt(passed, i)) << "sample " << i;
    }
    const std::vector<float> out = simsound::outputChannel(0);
    ASSERT_GE(out.size(), 44100u);
    for (size_t i = 0; i < 44100; ++i) {
        ASSERT_EQ(sampleAt(input, i), static_cast<int16_t>(out[i] * 32768.0f)) << "output frame " << i;
    }

    // A stop sets up a reset: the next write rewinds the buffer and starts at offset 0.
    mixer->stopPort(p, 1);
    simsound::clearConsumed(mixer->buffer(p));
    std::vector<uint8_t> again = mixerkit::ramp16(2205, 1, 12345);
    ASSERT_EQ(LX_OK, mixer->writeFrames(p, again.data(), 0, 2205));
    EXPECT_EQ(4410, mixer->rec(p)->writePosition);
    advance(100);
    const std::vector<uint8_t> replay = mixer->consumed(p);
    ASSERT_GE(replay.size(), again.size());
    EXPECT_EQ(0, std::memcmp(replay.data(), again.data(), again.size()));
}

TEST_F(MixerTest, AStreamingPortResetsOnlyWhenMoreThanHalfASecondIsQueued) {
    start();
    lxtest::requireLog();
    // One second of 8-bit mono at 22050 bytes per second; the clock stands, so nothing plays.
    for (const int queued : {11025, 11026}) {
        const short p = open(LxMono, LxSample8, 22050, 22050);
        std::vector<uint8_t> bytes(queued + 1, 0x40);
        ASSERT_EQ(LX_OK, mixer->writeFrames(p, bytes.data(), 0, queued));
        EXPECT_EQ(queued, mixer->rec(p)->writePosition);
        LxLogSink::clear();
        ASSERT_EQ(LX_OK, mixer->writeFrames(p, bytes.data(), 0, 1));
        const bool reset = LxLogSink::contains("LxWin32Mixer:  buffer level up to 11026, resetting!\n");
        EXPECT_EQ(queued == 11026, reset);
        EXPECT_EQ(queued == 11026 ? 1 : queued + 1, mixer->rec(p)->writePosition);
        mixer->closePort(p);
    }
}

TEST_F(MixerTest, SilenceUsesTheFormatsSilenceByteAndWholeFrames) {
    start();
    lxtest::requireLog();
    const short p8 = open(LxMono, LxSample8, 11025, 11025);
    std::vector<uint8_t> tone(200, 0x10);
    ASSERT_EQ(LX_OK, mixer->writeFrames(p8, tone.data(), 0, 200));
    mixer->stopPort(p8, 0);
    ASSERT_EQ(LX_OK, mixer->fillSilence(p8, 100));
    EXPECT_TRUE(LxLogSink::contains("LxWin32Mixer:  fillSilence 100 zeros\n"));
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
    ASSERT_EQ(DS_OK, mixer->buffer(p16)->Lock(0, 4808, &a, &an, nullptr, nullptr, 0));
    bool allZero = true;
    for (uint32_t i = 0; i < an; ++i) {
        allZero = allZero && static_cast<const uint8_t*>(a)[i] == 0;
    }
    EXPECT_TRUE(allZero);
    mixer->buffer(p16)->Unlock(a, an, nullptr, 0);

    LxLogSink::clear();
    ASSERT_EQ(LX_OK, mixer->fillSilence(p16, 0L));
    EXPECT_TRUE(LxLogSink::contains("LxWin32Mixer:  fillSilence 0 zeros\n"));
    EXPECT_TRUE(LxLogSink::contains("LxWin32Mixer: numBytes <= 0\n"));
    EXPECT_EQ(4808, mixer->rec(p16)->writePosition);
    // More silence than the ring holds fills it once.
    ASSERT_EQ(LX_OK, mixer->fillSilence(p16, LxTime(3.0)));
    EXPECT_EQ(4808, mixer->rec(p16)->writePosition);

    mixer->releaseChannel(p16, 0);
    EXPECT_EQ(LX_ERR_NO_PORT, mixer->fillSilence(p16, 10));
    EXPECT_EQ(LX_ERR_NO_PORT, mixer->fillSilence(p16, LxTime(0.1)));
}

TEST_F(MixerTest, ResidentClipsFillFromTheStartOnceAndLoopSeamlessly) {
    start();
    lxtest::requireLog();
    const short p = open(LxMono, LxSample16, 22050, 4410, 0, 1);  // 2205 frames
    std::vector<uint8_t> clip = mixerkit::ramp16(3000, 1);
    ASSERT_EQ(LX_OK, mixer->writeResidentFrames(p, clip.data(), 0, 1000));
    EXPECT_EQ(2000, mixer->rec(p)->writePosition);
    ASSERT_EQ(LX_OK, mixer->writeResidentFrames(p, clip.data(), 2000, 2000));  // 1205 frames fit
    EXPECT_EQ(4410, mixer->rec(p)->writePosition);
    EXPECT_EQ(LX_ERR_RESIDENT_FULL, mixer->writeResidentFrames(p, clip.data(), 0, 1));
    EXPECT_TRUE(
        LxLogSink::contains("LxWin32Mixer:  asking to write more bytes after buffer is full, port 0\n"));
    EXPECT_FALSE(mixer->info(p).playing);

    // One call bringing more than the whole buffer also ends exactly full.
    const short big = open(LxMono, LxSample16, 22050, 4410, 0, 1);
    ASSERT_EQ(LX_OK, mixer->writeResidentFrames(big, clip.data(), 0, 3000));
    EXPECT_EQ(4410, mixer->rec(big)->writePosition);
    EXPECT_EQ(LX_ERR_RESIDENT_FULL, mixer->writeResidentFrames(big, clip.data(), 0, 3000));
    mixer->closePort(big);

    ASSERT_EQ(LX_OK, mixer->playPort(p, 1));
    advance(500);  // five times round
    const std::vector<float> out = simsound::outputChannel(0);
    ASSERT_GE(out.size(), 5u * 2205);
    for (size_t i = 0; i < 5 * 2205; ++i) {
        ASSERT_EQ(sampleAt(clip, i % 2205), static_cast<int16_t>(out[i] * 32768.0f)) << "output frame " << i;
    }
}

TEST_F(MixerTest, FillLevelsFollowThePlayCursor) {
    ASSERT_EQ(LX_OK, mixer->initMixer(reinterpret_cast<LxHwnd>(1)));
    const short early = open(LxMono, LxSample16, 22050, 4410, 1, 0, false);
    EXPECT_EQ(-1, mixer->getFillable(early));
    EXPECT_EQ(-1, mixer->getFilled(early));
    ASSERT_EQ(LX_OK, mixer->initDirectSound());
    EXPECT_EQ(0, mixer->getFillable(early));  // no buffer yet
    EXPECT_EQ(-1, mixer->getFillable(99));
    ASSERT_EQ(LX_OK, mixer->acquireChannel(early));
    // Right after the reset both positions are 0: equal positions read as full.
    EXPECT_EQ(0, mixer->getFillable(early));
    EXPECT_EQ(4410, mixer->getFilled(early));
    std::vector<uint8_t> data = mixerkit::ramp16(1000, 1);
    ASSERT_EQ(LX_OK, mixer->writeFrames(early, data.data(), 0, 1000));
    EXPECT_EQ(4410 - 2000, mixer->getFillable(early));
    advance(20);  // 441 frames played
    EXPECT_EQ(4410 - 2000 + 882, mixer->getFillable(early));
    EXPECT_EQ(2000 - 882, mixer->getFilled(early));
    EXPECT_EQ(LX_OK, mixer->discardFrames(early));
    EXPECT_EQ(LX_ERR_NO_PORT, mixer->discardFrames(98));
}

TEST_F(MixerTest, WritesNobodyCanHearAreOnlyTimed) {
    ASSERT_EQ(LX_OK, mixer->initMixer(reinterpret_cast<LxHwnd>(1)));
    const short never = open(LxMono, LxSample16, 22050, 4410, 1, 0, false);
    ASSERT_EQ(LX_OK, mixer->initDirectSound());
    std::vector<uint8_t> data = mixerkit::ramp16(2205, 1);
    // No buffer was ever made (no byte rate yet): the port's own rate times it, 100 ms.
    uint64_t slept = clock.sleptMs();
    ASSERT_EQ(LX_OK, mixer->writeFrames(never, data.data(), 0, 2205));
    EXPECT_EQ(100u, clock.sleptMs() - slept);
    // A tempo of 0 or below paces at normal speed instead of dividing by it.
    ASSERT_EQ(LX_OK, mixer->setTempo(never, 0.0f));
    slept = clock.sleptMs();
    ASSERT_EQ(LX_OK, mixer->writeFrames(never, data.data(), 0, 2205));
    EXPECT_EQ(100u, clock.sleptMs() - slept);
    ASSERT_EQ(LX_OK, mixer->setTempo(never, 2.0f));
    slept = clock.sleptMs();
    ASSERT_EQ(LX_OK, mixer->writeFrames(never, data.data(), 0, 2205));
    EXPECT_EQ(50u, clock.sleptMs() - slept);

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
    for (const bool close : {false, true}) {
        const short p = open(LxMono, LxSample16, 22050, 11024);  // a quarter second
        std::vector<uint8_t> data = mixerkit::ramp16(22050, 1);
        std::atomic<long> result{0};
        const uint64_t slept = clock.sleptMs();
        std::thread writer([&] { result.store(mixer->writeFrames(p, data.data(), 0, 22050)); });
        // The first quarter second fits; then the writer sleeps 199 ms with the slot let go.
        ASSERT_TRUE(lxtest::waitUntil([&] { return clock.sleptMs() >= slept + 199; }));
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

TEST_F(MixerTest, LostAndUnlockableBuffersFailWritesWithTheirCodes) {
    start();
    lxtest::requireLog();
    const short s = open(LxMono, LxSample16, 22050, 4410);
    const short r = open(LxMono, LxSample16, 22050, 4410, 0, 1);
    std::vector<uint8_t> data = mixerkit::ramp16(100, 1);
    simsound::failNext(simsound::Op::Lock, 2);
    EXPECT_EQ(LX_ERR_GENERIC, mixer->writeFrames(s, data.data(), 0, 100));
    EXPECT_TRUE(LxLogSink::contains("LxWin32Mixer: couldn't lock secondary buffer\n"));
    EXPECT_EQ(LX_ERR_RESIDENT_FULL, mixer->writeResidentFrames(r, data.data(), 0, 100));
    EXPECT_TRUE(LxLogSink::contains("LxWin32Mixer: couldn't lock secondary buffer, port 1 hr 0x80004005\n"));

    simsound::loseBuffers();
    LxLogSink::clear();
    EXPECT_EQ(LX_ERR_GENERIC, mixer->writeFrames(s, data.data(), 0, 100));
    EXPECT_EQ(LX_ERR_GENERIC, mixer->writeResidentFrames(r, data.data(), 0, 100));
    EXPECT_EQ(LX_ERR_GENERIC, mixer->fillSilence(s, 10));
    EXPECT_EQ(3u, LxLogSink::count("LxWin32Mixer: DirectSound buffer lost\n"));
    // A destroying release and a new grant bring a fresh buffer.
    ASSERT_EQ(LX_OK, mixer->releaseChannel(s, 1));
    ASSERT_EQ(LX_OK, mixer->acquireChannel(s));
    EXPECT_EQ(LX_OK, mixer->writeFrames(s, data.data(), 0, 100));

    mixer->closeDirectSound(0);
    EXPECT_EQ(LX_ERR_MIXER_NOT_READY, mixer->writeFrames(s, data.data(), 0, 100));
    EXPECT_EQ(LX_ERR_MIXER_NOT_READY, mixer->writeResidentFrames(r, data.data(), 0, 100));
}

}  // namespace
