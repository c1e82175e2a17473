// The DirectSound-shaped layer on the simulated backend: creation on a half-duplex card and the
// arithmetic of Lock at the buffer's wrap (the mixer's tests cover the rest through the mixer).
#include "SoundTestKit.h"

#include "platform/LxpDuplex.h"

#include <gtest/gtest.h>


namespace {

using namespace lxp;
using soundkit::Device;

class SoundDevice : public ::testing::Test {
  protected:
    void SetUp() override {
        duplex::reset();
        simsound::use();
    }
    void TearDown() override {
        EXPECT_EQ(0, simsound::liveBuffers()) << "a test leaked buffers";
        duplex::reset();
    }
};

TEST_F(SoundDevice, ComCreationNeedsInitializeAndBindsTheHalfDuplexCard) {
    ASSERT_TRUE(SUCCEEDED(CoInitialize(nullptr)));
    IDirectSound* ds = nullptr;
    ASSERT_EQ(S_OK, CoCreateInstance(CLSID_DirectSound, nullptr, CLSCTX_INPROC_SERVER, IID_IDirectSound,
                                     reinterpret_cast<void**>(&ds)));
    DSCAPS caps{};
    caps.dwSize = sizeof caps;
    EXPECT_EQ(DSERR_UNINITIALIZED, ds->GetCaps(&caps));
    EXPECT_EQ(DSERR_UNINITIALIZED, ds->SetCooperativeLevel(nullptr, DSSCL_PRIORITY));
    EXPECT_EQ(0, duplex::openCount(duplex::SampledAudio));

    // A half-duplex card with MIDI open refuses the device; once MIDI closes, it binds until released.
    duplex::setHalfDuplex(true);
    ASSERT_TRUE(duplex::tryOpen(duplex::Midi));
    EXPECT_EQ(DSERR_ALLOCATED, ds->Initialize(nullptr));
    duplex::close(duplex::Midi);
    EXPECT_EQ(DS_OK, ds->Initialize(nullptr));
    EXPECT_EQ(1, duplex::openCount(duplex::SampledAudio));
    EXPECT_EQ(DSERR_ALREADYINITIALIZED, ds->Initialize(nullptr));
    EXPECT_EQ(DS_OK, ds->GetCaps(&caps));
    ds->Release();
    EXPECT_EQ(0, duplex::openCount(duplex::SampledAudio));
    CoUninitialize();
}

TEST_F(SoundDevice, LockSplitsAtTheWrapAndRefusesImpossibleRanges) {
    Device dev;
    IDirectSoundBuffer* b = dev.buffer(22050, 1, 16, 1000);
    void* p1 = nullptr;
    void* p2 = nullptr;
    uint32_t n1 = 0;
    uint32_t n2 = 0;
    ASSERT_EQ(DS_OK, b->Lock(900, 300, &p1, &n1, &p2, &n2, 0));
    EXPECT_EQ(100u, n1);
    EXPECT_EQ(200u, n2);
    EXPECT_EQ(static_cast<uint8_t*>(p2) + 900, static_cast<uint8_t*>(p1));
    EXPECT_EQ(DS_OK, b->Unlock(p1, n1, p2, n2));
    ASSERT_EQ(DS_OK, b->Lock(0, 1000, &p1, &n1, &p2, &n2, 0));
    EXPECT_EQ(1000u, n1);
    EXPECT_EQ(nullptr, p2);
    EXPECT_EQ(0u, n2);
    EXPECT_EQ(DS_OK, b->Unlock(p1, n1, nullptr, 0));
    EXPECT_EQ(DSERR_INVALIDPARAM, b->Lock(1000, 2, &p1, &n1, &p2, &n2, 0));
    EXPECT_EQ(DSERR_INVALIDPARAM, b->Lock(0, 1001, &p1, &n1, &p2, &n2, 0));
    EXPECT_EQ(DSERR_INVALIDPARAM, b->Lock(0, 0, &p1, &n1, &p2, &n2, 0));
    uint8_t elsewhere[8];
    EXPECT_EQ(DSERR_INVALIDPARAM, b->Unlock(elsewhere, 8, nullptr, 0));
    // Positions are whole frames and inside the buffer.
    EXPECT_EQ(DS_OK, b->SetCurrentPosition(503));
    EXPECT_EQ(502u, soundkit::position(b));
    EXPECT_EQ(DSERR_INVALIDPARAM, b->SetCurrentPosition(1000));
    b->Release();
}

}  // namespace
