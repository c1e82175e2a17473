// Platform version detection over the probe layer: every outcome it tells apart, its cache, and
// the class-wide locks it runs under.
#include "FakeCom.h"
#include "LxPlatformProbe.h"
#include "LxVersionDetection.h"
#include "LxWin32Manager.h"
#include "LxWin32MidiPlayer.h"
#include "TestSupport.h"
#include "audio/LxWin32MixerInternal.h"
#include "manager/LxClassLocks.h"
#include "platform/dshow/LxpGraphIds.h"
#include "platform/probe/LxpProbe.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

using namespace lxp;

struct Detected {
    unsigned long dx = 99;
    unsigned long platform = 99;
    unsigned long dshow = 99;
};

Detected detect(const LxSimulatedPlatform& os) {
    LxPlatformProbe::useSimulated(os);
    LxResetDXAndWin32VersionCache();
    Detected d;
    GetDXAndWin32Version(&d.dx, &d.platform, &d.dshow);
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

TEST_F(VersionDetection, TheNtFamilyIsToldApartByMajorVersionAndDirectInput) {
    LxSimulatedPlatform nt;
    nt.platformId = 2;
    nt.majorVersion = 3;
    Detected d = detect(nt);
    EXPECT_EQ(0u, d.dx);
    EXPECT_EQ(0u, d.platform);
    nt.majorVersion = 4;
    d = detect(nt);
    EXPECT_EQ(0x300u, d.dx);
    EXPECT_EQ(2u, d.platform);
    nt.directInputCreatePresent = false;
    EXPECT_EQ(0x200u, detect(nt).dx);
    nt.directInputLoads = false;
    EXPECT_EQ(0x200u, detect(nt).dx);
    nt.majorVersion = 5;
    probe::probetest::resetCounters();
    d = detect(nt);
    EXPECT_EQ(0x501u, d.dx);
    EXPECT_EQ(2u, d.platform);
    EXPECT_EQ(0, probe::probetest::libraryLoads());
    EXPECT_EQ(0u, d.dshow);
}

TEST_F(VersionDetection, TheWindows95FamilyIsToldApartByBuildDirectInputAndDirectDraw) {
    LxSimulatedPlatform w95;
    w95.platformId = 1;
    w95.majorVersion = 4;
    w95.buildNumber = 0x04000000u | 1354;  // only the low 16 bits count
    EXPECT_EQ(0x501u, detect(w95).dx);
    EXPECT_EQ(1u, detect(w95).platform);
    EXPECT_EQ(0, probe::probetest::libraryLoads());

    w95.buildNumber = 1353;
    EXPECT_EQ(0x500u, detect(w95).dx);
    EXPECT_GT(probe::probetest::libraryLoads(), 0) << "told apart by DirectInput (unloaded again: TearDown)";

    struct Case {
        const char* name;
        void (*change)(LxSimulatedPlatform&);
        unsigned long dx;
    };
    const Case cases[] = {
        {"no DirectInput", [](LxSimulatedPlatform& p) { p.directInputLoads = false; }, 0x100},
        {"no DirectInputCreateA", [](LxSimulatedPlatform& p) { p.directInputCreatePresent = false; }, 0x100},
        {"no DirectDraw", [](LxSimulatedPlatform& p) { p.directDrawLoads = false; }, 0x300},
        {"no DirectDrawCreate", [](LxSimulatedPlatform& p) { p.directDrawCreatePresent = false; }, 0x300},
        {"DirectDrawCreate fails", [](LxSimulatedPlatform& p) { p.directDrawCreateSucceeds = false; }, 0x300},
        {"cooperative level fails", [](LxSimulatedPlatform& p) { p.cooperativeLevelSucceeds = false; },
         0x300},
        {"no IDirectDrawSurface3", [](LxSimulatedPlatform& p) { p.surface3Available = false; }, 0x300},
        {"no primary surface", [](LxSimulatedPlatform& p) { p.primarySurfaceSucceeds = false; }, 0},
    };
    for (const Case& c : cases) {
        LxSimulatedPlatform p = w95;
        c.change(p);
        EXPECT_EQ(c.dx, detect(p).dx) << c.name;
        EXPECT_EQ(1u, detect(p).platform) << c.name;
    }
}

TEST_F(VersionDetection, DirectShowCountsWhenAFilterGraphCanBeCreated) {
    comtest::reset();
    lxtest::FakeFilterGraph graphs;
    const int comBefore = comtest::threadInitCount();
    EXPECT_EQ(1u, detect(LxSimulatedPlatform()).dshow);
    EXPECT_EQ(comBefore, comtest::threadInitCount());
    comtest::failCoInitialize(1);
    EXPECT_EQ(0u, detect(LxSimulatedPlatform()).dshow);
    comtest::failCreate(CLSID_FilterGraph, 1);
    EXPECT_EQ(0u, detect(LxSimulatedPlatform()).dshow);
    // A failing version query leaves every answer 0, DirectShow's included.
    LxSimulatedPlatform broken;
    broken.versionQueryFails = true;
    const Detected d = detect(broken);
    EXPECT_EQ(0u, d.dx);
    EXPECT_EQ(0u, d.platform);
    EXPECT_EQ(0u, d.dshow);
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
            if (dx != 0x500 || platform != 1) {
                wrong.fetch_add(1);
            }
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
    LxPlatformProbe::useSystem();
    LxResetDXAndWin32VersionCache();
    Detected d;
    GetDXAndWin32Version(&d.dx, &d.platform, &d.dshow);
    EXPECT_EQ(0x501u, d.dx);
    EXPECT_EQ(2u, d.platform);
    EXPECT_EQ(0u, d.dshow);  // the filter graph cannot be created in this test
    probe::OSVERSIONINFOA info{};
    info.dwOSVersionInfoSize = sizeof info;
    ASSERT_TRUE(probe::GetVersionExA(&info));
    EXPECT_EQ(5u, info.dwMajorVersion);
    EXPECT_EQ(nullptr, probe::LoadLibraryA("DINPUT.DLL"));
    info.dwOSVersionInfoSize = 20;
    EXPECT_FALSE(probe::GetVersionExA(&info));
}

TEST(ClassLocks, ExistFromLoadAsDistinctLocksWithTheGateClosed) {
    // Nothing in this process enumerated a device, so the gate is still as the load left it.
    KtGateLock* gate = lxmixer::enumGate();
    ASSERT_NE(nullptr, gate);
    EXPECT_FALSE(gate->isOpen());
    KtMutex* a = LxWin32MidiPlayer::midiAccessMutex();
    KtMutex* b = LxVersionProbeLock();
    KtMutex* c = LxClassLocks::exPropsLock();
    ASSERT_NE(nullptr, a);
    EXPECT_NE(a, b);
    EXPECT_NE(b, c);
    EXPECT_NE(a, c);
    EXPECT_EQ(a, LxWin32MidiPlayer::midiAccessMutex());
    EXPECT_EQ(a, LxWin32Manager::midiAccessMutex);
    EXPECT_EQ(c, LxWin32Manager::exPropsLock);
    // Re-entrant, as the manager's lock order needs.
    c->lock();
    c->lock();
    a->lock();
    a->unlock();
    c->unlock();
    c->unlock();
}

}  // namespace
