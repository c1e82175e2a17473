// The mixer's ports: the table, channels revoked and granted again, duplicates, and the lock
// order under concurrent use.
#include "MixerTestKit.h"

#include "TestSupport.h"

#include <atomic>
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

TEST_F(MixerTest, RevokedChannelsKeepTheBufferAndALoopingResidentClipResumes) {
    start();
    LxWin32AudioOutputPort port(mixer.get());
    LxWin32AudioPortConfig config(LxMono, LxSample16, 22050, 4410, 0, 1);
    ASSERT_EQ(LX_OK, port.openPort(&config));
    ASSERT_EQ(LX_OK, port.grantChannel());
    const short n = port.getPortNumber();
    const std::vector<uint8_t> clip = mixerkit::ramp16(2205, 1);
    ASSERT_EQ(LX_OK, port.writeResidentFrames(const_cast<uint8_t*>(clip.data()), 0, 2205));
    ASSERT_EQ(LX_OK, port.playPort(1));
    lxp::IDirectSoundBuffer* before = mixer->buffer(n);
    advance(30);

    ASSERT_EQ(LX_OK, port.revokeChannel());
    EXPECT_FALSE(port.hasChannel());
    EXPECT_EQ(before, mixer->buffer(n));
    EXPECT_FALSE(mixer->info(n).playing);
    EXPECT_EQ(LX_ERR_NO_PORT, port.playPort(1));
    ASSERT_EQ(LX_OK, port.grantChannel());
    EXPECT_TRUE(mixer->info(n).playing && mixer->info(n).looping);
    // The clip's samples survived the revocation: a whole loop from where it stood is the clip.
    const uint32_t frame = mixer->info(n).position / 2;
    lxp::simsound::clearConsumed(mixer->buffer(n));
    advance(100);  // 2205 frames: one loop
    const std::vector<uint8_t> seen = mixer->consumed(n);
    ASSERT_EQ(4410u, seen.size());
    for (uint32_t i = 0; i < 2205; ++i) {
        ASSERT_EQ(0, std::memcmp(&seen[2 * i], &clip[2 * ((frame + i) % 2205)], 2)) << "frame " << i;
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

}  // namespace
