// Platform version detection over the probe layer: every outcome it tells apart, its cache, and
// the class-wide locks it runs under.
#include "FakeCom.h"
#include "LxPlatformProbe.h"
#include "LxVersionDetection.h"
#include "LxWin32Manager.h"
#include "LxWin32MidiPlayer.h"
#include "audio/LxWin32MixerInternal.h"
#include "manager/LxClassLocks.h"
#include "platform/dshow/LxpGraphIds.h"
#include "platform/probe/LxpProbe.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <thread>
#include <vector>

namespace {

using namespace lxp;

// dx, platform and DirectShow as GetDXAndWin32Version answers them, on os (null: the real one).
using Detected = std::array<unsigned long, 3>;
Detected detect(const LxSimulatedPlatform* os) {
    os != nullptr ? LxPlatformProbe::useSimulated(*os) : LxPlatformProbe::useSystem();
    LxResetDXAndWin32VersionCache();
    Detected d = {99, 99, 99};
    GetDXAndWin32Version(&d[0], &d[1], &d[2]);
    return d;
}

class VersionDetection : public ::testing::Test {
  protected:
    void SetUp() override {
        comtest::reset();
        comtest::failCreate(CLSID_FilterGraph, -1);  // no filter graph unless a test says so
        probe::probetest::resetCounters();
    }
    void TearDown() override {
        comtest::reset();
        LxPlatformProbe::useSystem();
        LxResetDXAndWin32VersionCache();
        EXPECT_EQ(0, probe::probetest::librariesOpen()) << "a probe left a library loaded";
    }
};

// NT is told apart by its major version and DirectInput; the 95 family by its build, then
// DirectInput and DirectDraw, which are loaded only where the build leaves it open.
TEST_F(VersionDetection, EachFamilyIsToldApartByVersionAndTheDirectXLibraries) {
    using P = LxSimulatedPlatform;
    enum Loads { AnyLoads, NoLoads, SomeLoads };
    struct Case {
        const char* name;
        uint32_t platformId, major, build;
        void (*change)(P&);
        unsigned long dx, platform;
        Loads loads = AnyLoads;
    };
    const auto same = [](P&) {};
    const Case cases[] = {
        {"NT 3", 2, 3, 2195, same, 0, 0},
        {"NT 4", 2, 4, 2195, same, 0x300, 2, SomeLoads},
        {"NT 4, no DirectInputCreateA", 2, 4, 2195, [](P& p) { p.directInputCreatePresent = false; }, 0x200,
         2},
        {"NT 4, no DirectInput", 2, 4, 2195, [](P& p) { p.directInputLoads = false; }, 0x200, 2},
        {"NT 5", 2, 5, 2195, same, 0x501, 2, NoLoads},
        {"95, only the build's low 16 bits count", 1, 4, 0x04000000u | 1354, same, 0x501, 1, NoLoads},
        {"95 build 1353", 1, 4, 1353, same, 0x500, 1, SomeLoads},
        {"no DirectInput", 1, 4, 1353, [](P& p) { p.directInputLoads = false; }, 0x100, 1},
        {"no DirectInputCreateA", 1, 4, 1353, [](P& p) { p.directInputCreatePresent = false; }, 0x100, 1},
        {"no DirectDraw", 1, 4, 1353, [](P& p) { p.directDrawLoads = false; }, 0x300, 1},
        {"no DirectDrawCreate", 1, 4, 1353, [](P& p) { p.directDrawCreatePresent = false; }, 0x300, 1},
        {"DirectDrawCreate fails", 1, 4, 1353, [](P& p) { p.directDrawCreateSucceeds = false; }, 0x300, 1},
        {"cooperative level fails", 1, 4, 1353, [](P& p) { p.cooperativeLevelSucceeds = false; }, 0x300, 1},
        {"no IDirectDrawSurface3", 1, 4, 1353, [](P& p) { p.surface3Available = false; }, 0x300, 1},
        {"no primary surface", 1, 4, 1353, [](P& p) { p.primarySurfaceSucceeds = false; }, 0, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        P p;
        p.platformId = c.platformId;
        p.majorVersion = c.major;
        p.buildNumber = c.build;
        c.change(p);
        probe::probetest::resetCounters();
        EXPECT_EQ((Detected{c.dx, c.platform, 0}), detect(&p));
        if (c.loads != AnyLoads) {
            EXPECT_EQ(c.loads == SomeLoads, probe::probetest::libraryLoads() > 0);
        }
    }
}

TEST_F(VersionDetection, DirectShowCountsWhenAFilterGraphCanBeCreated) {
    comtest::reset();
    lxtest::FakeFilterGraph graphs;
    const LxSimulatedPlatform nt5;
    const int comBefore = comtest::threadInitCount();
    EXPECT_EQ((Detected{0x501, 2, 1}), detect(&nt5));
    EXPECT_EQ(comBefore, comtest::threadInitCount());
    comtest::failCoInitialize(1);
    EXPECT_EQ(0u, detect(&nt5)[2]);
    comtest::failCreate(CLSID_FilterGraph, 1);
    EXPECT_EQ(0u, detect(&nt5)[2]);
    LxSimulatedPlatform broken;
    broken.versionQueryFails = true;
    EXPECT_EQ((Detected{0, 0, 0}), detect(&broken)) << "DirectShow's answer included";
}

TEST_F(VersionDetection, TheAnswerIsWorkedOutOncePerProcessEvenWhenAskedAtOnce) {
    LxSimulatedPlatform w95;
    w95.platformId = 1;
    w95.buildNumber = 1000;
    LxPlatformProbe::useSimulated(w95);
    LxResetDXAndWin32VersionCache();
    probe::probetest::resetCounters();
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            unsigned long dx = 0;
            unsigned long platform = 0;
            GetDXAndWin32Version(&dx, &platform, nullptr);
            wrong += dx != 0x500 || platform != 1;
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    EXPECT_EQ(0, wrong.load());
    EXPECT_EQ(1, probe::probetest::versionQueries());
    const int loads = probe::probetest::libraryLoads();
    // Later calls copy the cache: nothing queried or loaded, even when the platform changed.
    LxPlatformProbe::useSystem();
    unsigned long dx = 0;
    GetDXAndWin32Version(&dx, nullptr, nullptr);
    EXPECT_EQ(0x500u, dx);
    EXPECT_EQ(loads, probe::probetest::libraryLoads());
    EXPECT_EQ(1, probe::probetest::versionQueries());
}

TEST_F(VersionDetection, LinuxIsTheNtFamilyVersionFiveWithoutDirectXLibraries) {
    EXPECT_EQ((Detected{0x501, 2, 0}), detect(nullptr));  // the filter graph cannot be made here
    EXPECT_EQ(nullptr, probe::LoadLibraryA("DINPUT.DLL"));
    probe::OSVERSIONINFOA info{};
    info.dwOSVersionInfoSize = 20;
    EXPECT_FALSE(probe::GetVersionExA(&info)) << "a caller's structure of the wrong size";
}

TEST(ClassLocks, ExistFromLoadSharedByTheirUsersWithTheGateClosed) {
    // Nothing in this process enumerated a device, so the gate is still as the load left it.
    KtGateLock* gate = lxmixer::enumGate();
    ASSERT_NE(nullptr, gate);
    EXPECT_FALSE(gate->isOpen());
    KtMutex* midi = LxWin32MidiPlayer::midiAccessMutex();
    ASSERT_NE(nullptr, midi);
    EXPECT_EQ(midi, LxWin32Manager::midiAccessMutex);
    EXPECT_NE(midi, LxVersionProbeLock());
    EXPECT_NE(nullptr, LxWin32Manager::exPropsLock);
    EXPECT_EQ(LxClassLocks::exPropsLock(), LxWin32Manager::exPropsLock);
}

}  // namespace
