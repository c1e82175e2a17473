// The mixer's data path on the simulated device with a manual clock: streaming writes heard
// exactly and in order, resets, silence, and writes that are only timed or give up (a resident
// clip filling its buffer is heard in the renderer's tests).
#include "MixerTestKit.h"

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
    const std::vector<float> out = simsound::outputChannel(0);
    ASSERT_GE(out.size(), 44100u);
    for (size_t i = 0; i < 44100; ++i) {
        ASSERT_EQ(sampleAt(input, i), static_cast<int16_t>(out[i] * 32768.0f)) << "output frame " << i;
    }
    // A stop sets up a reset: the next write rewinds the buffer and plays from offset 0.
    mixer->stopPort(p, 1);
    simsound::clearConsumed(mixer->buffer(p));
    std::vector<uint8_t> again = mixerkit::ramp16(2205, 1, 12345);
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
    std::vector<uint8_t> data = mixerkit::ramp16(2205, 1);
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
        std::vector<uint8_t> data = mixerkit::ramp16(22050, 1);
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
