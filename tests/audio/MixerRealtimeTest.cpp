// The mixing thread under port traffic: it neither allocates nor frees, and it never waits long
// for a lock that a control thread holds.
#include "MixerTestKit.h"

#include "LxPlatformSound.h"
#include "TestSupport.h"

#include <atomic>
#include <cstdlib>
#include <new>
#include <thread>

namespace {

thread_local bool tWatched = false;
std::atomic<long> gWatchedAllocations{0};
std::atomic<long> gWatchedFrees{0};

}  // namespace

// Every allocation of the test program passes here; those made on the watched thread count.
void* operator new(std::size_t n) {
    if (tWatched) {
        gWatchedAllocations.fetch_add(1);
    }
    void* p = std::malloc(n != 0 ? n : 1);
    if (p == nullptr) {
        throw std::bad_alloc();
    }
    return p;
}
void* operator new[](std::size_t n) {
    return operator new(n);
}
void* operator new(std::size_t n, const std::nothrow_t&) noexcept {
    if (tWatched) {
        gWatchedAllocations.fetch_add(1);
    }
    return std::malloc(n != 0 ? n : 1);
}
void* operator new[](std::size_t n, const std::nothrow_t& t) noexcept {
    return operator new(n, t);
}
void operator delete(void* p) noexcept {
    if (tWatched && p != nullptr) {
        gWatchedFrees.fetch_add(1);
    }
    std::free(p);
}
void operator delete[](void* p) noexcept {
    operator delete(p);
}
void operator delete(void* p, std::size_t) noexcept {
    operator delete(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    operator delete(p);
}

namespace {

using namespace lxp;
using mixerkit::MixerTest;

/// Opens, feeds, plays, changes and closes ports as fast as it can until told to stop.
void churn(LxWin32Mixer& mixer, std::atomic<bool>& stop, int seed) {
    const std::vector<uint8_t> clip = mixerkit::ramp16(22050, 1, seed);  // half a second
    int round = 0;
    while (!stop.load()) {
        short p = -1;
        short dup = -1;
        LxWin32AudioPortConfig config(LxMono, LxSample16, 44100, 44100, 0, 1);
        mixer.openPort(&config, p);
        mixer.acquireChannel(p);
        mixer.writeResidentFrames(p, const_cast<uint8_t*>(clip.data()), 0, 22050);
        mixer.playPort(p, 1);
        mixer.duplicatePort(p, dup);
        mixer.acquireChannel(dup);
        mixer.playPort(dup, 1);
        const float where[3] = {static_cast<float>(round % 7 - 3), 0.0f, -1.0f};
        mixer.setSoundLocation(p, where);
        mixer.setGain(dup, 0.5f);
        mixer.setTempo(p, 1.0f + (round % 5) * 0.1f);
        mixer.releaseChannel(p, round % 2);
        mixer.closePort(dup);
        mixer.closePort(p);
        ++round;
    }
}

TEST_F(MixerTest, TheMixingThreadNeitherAllocatesNorFreesWhilePortsComeAndGo) {
    simsound::Config cfg;
    cfg.captureOutput = false;
    cfg.recordConsumed = false;
    setUpPlatform(cfg, LxSimulatedPlatform(), false);
    start();
    // Steady voices to mix, besides the ones the churn makes.
    std::vector<uint8_t> loop = mixerkit::ramp16(4410, 1);
    for (int i = 0; i < 40; ++i) {
        const short p = open(LxMono, LxSample16, 22050, 8820, 0, 1);
        mixer->writeResidentFrames(p, loop.data(), 0, 4410);
        mixer->playPort(p, 1);
    }
    simsound::engine().resetWorstBlock();
    std::atomic<bool> stop{false};
    std::atomic<long> blocks{0};
    std::thread mixing([&] {
        simsound::advanceFrames(441);  // first use of every lazily made table, before watching
        tWatched = true;
        while (!stop.load()) {
            simsound::advanceFrames(441);
            blocks.fetch_add(1);
        }
        tWatched = false;
    });
    std::thread a([&] { churn(*mixer, stop, 1); });
    std::thread b([&] { churn(*mixer, stop, 2); });
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    stop.store(true);
    a.join();
    b.join();
    mixing.join();
    EXPECT_GT(blocks.load(), 10);
    EXPECT_EQ(0, gWatchedAllocations.load());
    EXPECT_EQ(0, gWatchedFrees.load());
    // A commit converts at most a few thousand frames under the lock: a wait is short.
    EXPECT_LT(simsound::engine().worstLockWaitNanos(), 5000000u)
        << simsound::engine().lockWaits() << " waits";
}

}  // namespace
