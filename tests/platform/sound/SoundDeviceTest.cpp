// The DirectSound-shaped layer on the simulated backend: creation, enumeration, buffers, Lock,
// controls and their ranges, duplicates, 3D settings, lost buffers.
#include "SoundTestKit.h"

#include "platform/LxpDuplex.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace lxp;
using soundkit::Device;
using soundkit::pcm;

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

int enumCallback(GUID*, const char* description, const char*, void* context) {
    auto* seen = static_cast<std::vector<std::string>*>(context);
    seen->push_back(description);
    return seen->size() < 2 ? 1 : 0;  // stops after the second device
}

TEST_F(SoundDevice, EnumerationReportsThePrimaryDriverFirstAndStopsWhenTheCallbackSaysSo) {
    simsound::Config cfg;
    cfg.devices = {"Card A", "Card B"};
    simsound::use(cfg);
    std::vector<std::string> seen;
    ASSERT_EQ(DS_OK, DirectSoundEnumerateA(&enumCallback, &seen));
    EXPECT_EQ((std::vector<std::string>{"Primary Sound Driver", "Card A"}), seen);
}

TEST_F(SoundDevice, LibraryLoadsByItsWindowsNameAndIsCountedUntilFreed) {
    HSOUNDMODULE m = LoadSoundLibrary("dsound.DLL");
    ASSERT_NE(nullptr, m);
    EXPECT_EQ(nullptr, LoadSoundLibrary("DINPUT.DLL"));
    EXPECT_NE(nullptr, GetSoundProcAddress(m, "DirectSoundCreate"));
    EXPECT_EQ(nullptr, GetSoundProcAddress(m, "DirectSoundCaptureCreate"));
    EXPECT_EQ(1, simsound::loadedLibraries());
    FreeSoundLibrary(m);
    EXPECT_EQ(0, simsound::loadedLibraries());
}

TEST_F(SoundDevice, BufferDescriptionsAreValidatedAsDirectSoundDoes) {
    Device dev;
    WAVEFORMATEX f = pcm(22050, 1, 16);
    DSBUFFERDESC d{};
    d.dwSize = DSBUFFERDESC_SIZE;
    d.dwFlags = DSBCAPS_CTRLVOLUME;
    d.dwBufferBytes = 4410;
    d.lpwfxFormat = &f;
    IDirectSoundBuffer* b = nullptr;

    d.dwSize = 24;
    EXPECT_EQ(DSERR_INVALIDPARAM, dev.ds->CreateSoundBuffer(&d, &b, nullptr));
    d.dwSize = DSBUFFERDESC1_SIZE;
    d.dwBufferBytes = 2;
    EXPECT_EQ(DSERR_INVALIDPARAM, dev.ds->CreateSoundBuffer(&d, &b, nullptr));
    d.dwBufferBytes = 4410;
    d.dwFlags = DSBCAPS_CTRL3D | DSBCAPS_CTRLPAN;
    EXPECT_EQ(DSERR_INVALIDPARAM, dev.ds->CreateSoundBuffer(&d, &b, nullptr));
    d.dwFlags = DSBCAPS_CTRLVOLUME;
    f.nBlockAlign = 4;
    EXPECT_EQ(DSERR_BADFORMAT, dev.ds->CreateSoundBuffer(&d, &b, nullptr));
    f = pcm(DSBFREQUENCY_MAX + 1, 1, 16);
    EXPECT_EQ(DSERR_BADFORMAT, dev.ds->CreateSoundBuffer(&d, &b, nullptr));
    EXPECT_EQ(nullptr, b);

    // A size that is not whole frames is kept (the partial frame is never heard); the format reads
    // back in 18 bytes at most.
    f = pcm(22050, 2, 16);
    d.dwBufferBytes = 4410 * 4 + 3;
    ASSERT_EQ(DS_OK, dev.ds->CreateSoundBuffer(&d, &b, nullptr));
    simsound::BufferInfo info;
    ASSERT_TRUE(simsound::describe(b, &info));
    EXPECT_EQ(4410u * 4 + 3, info.bytes);
    void* p1 = nullptr;
    uint32_t n1 = 0;
    EXPECT_EQ(DS_OK, b->Lock(0, 4410 * 4 + 3, &p1, &n1, nullptr, nullptr, 0));
    EXPECT_EQ(DS_OK, b->Unlock(p1, n1, nullptr, 0));
    uint8_t raw[24];
    std::memset(raw, 0xEE, sizeof raw);
    uint32_t written = 0;
    EXPECT_EQ(DS_OK, b->GetFormat(reinterpret_cast<WAVEFORMATEX*>(raw), sizeof raw, &written));
    EXPECT_EQ(18u, written);
    EXPECT_EQ(0xEE, raw[18]);
    EXPECT_EQ(DSERR_INVALIDCALL, b->SetFormat(&f));
    b->Release();
}

TEST_F(SoundDevice, PrimaryBufferIsSharedNeedsPriorityToChangeFormatAndMustLoop) {
    IDirectSound* ds = nullptr;
    ASSERT_EQ(DS_OK, DirectSoundCreate(nullptr, &ds, nullptr));
    ASSERT_EQ(DS_OK, ds->SetCooperativeLevel(nullptr, DSSCL_NORMAL));
    DSBUFFERDESC d{};
    d.dwSize = DSBUFFERDESC_SIZE;
    d.dwFlags = DSBCAPS_PRIMARYBUFFER;
    IDirectSoundBuffer* p1 = nullptr;
    IDirectSoundBuffer* p2 = nullptr;
    ASSERT_EQ(DS_OK, ds->CreateSoundBuffer(&d, &p1, nullptr));
    ASSERT_EQ(DS_OK, ds->CreateSoundBuffer(&d, &p2, nullptr));
    EXPECT_EQ(p1, p2);
    WAVEFORMATEX f = pcm(44100, 2, 16);
    EXPECT_EQ(DSERR_PRIOLEVELNEEDED, p1->SetFormat(&f));
    ASSERT_EQ(DS_OK, ds->SetCooperativeLevel(nullptr, DSSCL_PRIORITY));
    EXPECT_EQ(DS_OK, p1->SetFormat(&f));
    WAVEFORMATEX zeroRate = pcm(0, 2, 16);
    EXPECT_EQ(DSERR_BADFORMAT, p1->SetFormat(&zeroRate));
    EXPECT_EQ(44100u, simsound::outputFormat().rate);
    EXPECT_EQ(DSERR_INVALIDPARAM, p1->Play(0, 0, 0));
    EXPECT_EQ(DS_OK, p1->Play(0, 0, DSBPLAY_LOOPING));
    p2->Release();
    p1->Release();
    ds->Release();
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

TEST_F(SoundDevice, ControlsKeepDirectSoundRangesAndNeedTheirCapability) {
    Device dev;
    IDirectSoundBuffer* b = dev.buffer(22050, 1, 16, 4410);
    EXPECT_EQ(DSERR_INVALIDPARAM, b->SetVolume(-10001));
    EXPECT_EQ(DSERR_INVALIDPARAM, b->SetVolume(1));
    EXPECT_EQ(DS_OK, b->SetVolume(-10000));
    EXPECT_EQ(DSERR_INVALIDPARAM, b->SetPan(10001));
    EXPECT_EQ(DS_OK, b->SetPan(-10000));
    EXPECT_EQ(DSERR_INVALIDPARAM, b->SetFrequency(DSBFREQUENCY_MAX + 1));
    EXPECT_EQ(DS_OK, b->SetFrequency(DSBFREQUENCY_MAX));  // 384 kHz played four times as fast
    EXPECT_EQ(DS_OK, b->SetFrequency(1));
    EXPECT_EQ(DS_OK, b->SetFrequency(DSBFREQUENCY_ORIGINAL));
    simsound::BufferInfo info;
    ASSERT_TRUE(simsound::describe(b, &info));
    EXPECT_EQ(22050u, info.frequency);
    EXPECT_EQ(-10000, info.volume);
    EXPECT_EQ(-10000, info.pan);
    b->Release();

    IDirectSoundBuffer* bare = dev.buffer(22050, 1, 16, 4410, 0);
    EXPECT_EQ(DSERR_CONTROLUNAVAIL, bare->SetVolume(0));
    EXPECT_EQ(DSERR_CONTROLUNAVAIL, bare->SetPan(0));
    EXPECT_EQ(DSERR_CONTROLUNAVAIL, bare->SetFrequency(22050));
    bare->Release();
}

TEST_F(SoundDevice, DuplicatesShareSamplesButKeepTheirOwnCursorAndControls) {
    Device dev(22050);
    IDirectSoundBuffer* master = dev.buffer(22050, 1, 16, 2000);
    ASSERT_EQ(DS_OK, master->SetVolume(-300));
    ASSERT_EQ(DS_OK, master->SetFrequency(11025));
    IDirectSoundBuffer* dup = nullptr;
    ASSERT_EQ(DS_OK, dev.ds->DuplicateSoundBuffer(master, &dup));
    IDirectSoundBuffer* none = nullptr;
    EXPECT_EQ(DSERR_INVALIDCALL, dev.ds->DuplicateSoundBuffer(dev.primary, &none));
    simsound::BufferInfo mi;
    simsound::BufferInfo di;
    ASSERT_TRUE(simsound::describe(master, &mi));
    ASSERT_TRUE(simsound::describe(dup, &di));
    EXPECT_TRUE(di.sharesMemoryWith(mi));
    EXPECT_EQ(-300, di.volume);
    EXPECT_EQ(11025u, di.frequency);
    EXPECT_FALSE(di.playing);

    // Written through the master, heard through the duplicate, at the duplicate's own pace.
    std::vector<int16_t> ramp(1000);
    for (int i = 0; i < 1000; ++i) {
        ramp[i] = static_cast<int16_t>(i * 30);
    }
    soundkit::write(master, 0, ramp.data(), 2000);
    ASSERT_EQ(DS_OK, dup->SetFrequency(22050));
    ASSERT_EQ(DS_OK, dup->Play(0, 0, DSBPLAY_LOOPING));
    simsound::advanceMs(20);  // 441 frames of a 1000-frame loop
    EXPECT_EQ(441u * 2, soundkit::position(dup));
    EXPECT_EQ(0u, soundkit::position(master));
    std::vector<uint8_t> passed = simsound::consumed(dup);
    ASSERT_EQ(882u, passed.size());
    EXPECT_EQ(0, std::memcmp(passed.data(), ramp.data(), passed.size()));

    // The master goes first; the duplicate still plays the shared samples.
    master->Release();
    simsound::advanceMs(10);
    EXPECT_EQ((441u + 220u) * 2, soundkit::position(dup));
    dup->Release();
}

TEST_F(SoundDevice, DeferredThreeDSettingsWaitForTheCommitAndImmediateOnesDoNot) {
    Device dev(44100, DSBCAPS_CTRL3D);
    IDirectSoundBuffer* b = dev.buffer(22050, 1, 16, 4410, DSBCAPS_CTRL3D | DSBCAPS_CTRLVOLUME);
    IDirectSound3DBuffer* b3 = nullptr;
    ASSERT_EQ(S_OK, b->QueryInterface(IID_IDirectSound3DBuffer, reinterpret_cast<void**>(&b3)));
    IDirectSound3DListener* l = nullptr;
    ASSERT_EQ(S_OK, dev.primary->QueryInterface(IID_IDirectSound3DListener, reinterpret_cast<void**>(&l)));

    ASSERT_EQ(DS_OK, b3->SetPosition(1, 2, 3, DS3D_DEFERRED));
    ASSERT_EQ(DS_OK, b3->SetMode(DS3DMODE_DISABLE, DS3D_DEFERRED));
    ASSERT_EQ(DS_OK, l->SetRolloffFactor(0.0f, DS3D_DEFERRED));
    EXPECT_EQ(DSERR_INVALIDPARAM, l->SetRolloffFactor(10.5f, DS3D_DEFERRED));
    EXPECT_EQ(DSERR_INVALIDPARAM, b3->SetMode(7, DS3D_IMMEDIATE));
    simsound::BufferInfo info;
    ASSERT_TRUE(simsound::describe(b, &info));
    EXPECT_EQ(0.0f, info.position3D[0]);
    EXPECT_EQ(DS3DMODE_NORMAL, info.mode3D);
    EXPECT_EQ(1.0f, simsound::devices()[0].listener[9]);

    ASSERT_EQ(DS_OK, l->CommitDeferredSettings());
    ASSERT_TRUE(simsound::describe(b, &info));
    EXPECT_EQ(3.0f, info.position3D[2]);
    EXPECT_EQ(DS3DMODE_DISABLE, info.mode3D);
    EXPECT_EQ(0.0f, simsound::devices()[0].listener[9]);

    ASSERT_EQ(DS_OK, b3->SetPosition(-4, 0, 0, DS3D_IMMEDIATE));
    ASSERT_TRUE(simsound::describe(b, &info));
    EXPECT_EQ(-4.0f, info.position3D[0]);
    l->Release();
    b3->Release();
    b->Release();
}

TEST_F(SoundDevice, LostBuffersStopAndRefuseEveryUse) {
    Device dev;
    IDirectSoundBuffer* b = dev.buffer(22050, 1, 16, 4410);
    ASSERT_EQ(DS_OK, b->Play(0, 0, DSBPLAY_LOOPING));
    simsound::loseBuffers();
    void* p1 = nullptr;
    uint32_t n1 = 0;
    EXPECT_EQ(DSERR_BUFFERLOST, b->Lock(0, 10, &p1, &n1, nullptr, nullptr, 0));
    EXPECT_EQ(DSERR_BUFFERLOST, b->Play(0, 0, 0));
    uint32_t pos = 0;
    EXPECT_EQ(DSERR_BUFFERLOST, b->GetCurrentPosition(&pos, nullptr));
    simsound::BufferInfo info;
    ASSERT_TRUE(simsound::describe(b, &info));
    EXPECT_FALSE(info.playing);
    b->Release();
}

}  // namespace
