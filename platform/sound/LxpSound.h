// The sound-device layer: a DirectSound-shaped device, its buffers, 3D controls and listener.
//
// The mixer reaches sound output only through this header. Names, argument order, units, ranges and
// result codes are DirectSound's: volumes in hundredths of a decibel (0 .. -10000), pan -10000 .. 10000,
// frequencies in Hz, byte offsets and sizes of the buffer, HRESULT failures below zero. Structure sizes
// given in dwSize fields are those of the 32-bit Windows structures.
//
// Behind it runs the library's software mixing engine (one mixing thread for the process's output)
// writing to the output the host chose (LxPlatformSound.h), or the simulated backend
// (LxpSimulatedSound.h) whose output and cursors a test drives.
//
// Thread contract: every operation may be called from any thread except the mixing thread; none of
// them waits for the mixing thread.
#ifndef LORVEX_PLATFORM_SOUND_H
#define LORVEX_PLATFORM_SOUND_H

#include "platform/com/LxpCom.h"

#include <cstdint>

namespace lxp {

// ---- Result codes (MAKE_HRESULT(1, 0x878, code) and the shared COM ones) ----
constexpr HRESULT DS_OK = S_OK;
constexpr HRESULT DSERR_ALLOCATED = static_cast<HRESULT>(0x8878000Au);
constexpr HRESULT DSERR_CONTROLUNAVAIL = static_cast<HRESULT>(0x8878001Eu);
constexpr HRESULT DSERR_INVALIDPARAM = E_INVALIDARG;
constexpr HRESULT DSERR_INVALIDCALL = static_cast<HRESULT>(0x88780032u);
constexpr HRESULT DSERR_GENERIC = E_FAIL;
constexpr HRESULT DSERR_PRIOLEVELNEEDED = static_cast<HRESULT>(0x88780046u);
constexpr HRESULT DSERR_OUTOFMEMORY = E_OUTOFMEMORY;
constexpr HRESULT DSERR_BADFORMAT = static_cast<HRESULT>(0x88780064u);
constexpr HRESULT DSERR_NODRIVER = static_cast<HRESULT>(0x88780078u);
constexpr HRESULT DSERR_ALREADYINITIALIZED = static_cast<HRESULT>(0x88780082u);
constexpr HRESULT DSERR_NOAGGREGATION = static_cast<HRESULT>(0x80040110u);
constexpr HRESULT DSERR_BUFFERLOST = static_cast<HRESULT>(0x88780096u);
constexpr HRESULT DSERR_UNINITIALIZED = static_cast<HRESULT>(0x887800AAu);

// ---- Buffer description and capabilities ----
constexpr uint32_t DSBCAPS_PRIMARYBUFFER = 0x00000001;
constexpr uint32_t DSBCAPS_STATIC = 0x00000002;
constexpr uint32_t DSBCAPS_LOCHARDWARE = 0x00000004;
constexpr uint32_t DSBCAPS_LOCSOFTWARE = 0x00000008;
constexpr uint32_t DSBCAPS_CTRL3D = 0x00000010;
constexpr uint32_t DSBCAPS_CTRLFREQUENCY = 0x00000020;
constexpr uint32_t DSBCAPS_CTRLPAN = 0x00000040;
constexpr uint32_t DSBCAPS_CTRLVOLUME = 0x00000080;
constexpr uint32_t DSBCAPS_STICKYFOCUS = 0x00004000;
constexpr uint32_t DSBCAPS_GLOBALFOCUS = 0x00008000;

/// Size of a buffer description with its 3D algorithm field (DirectX 7 and later) and without.
constexpr uint32_t DSBUFFERDESC_SIZE = 36;
constexpr uint32_t DSBUFFERDESC1_SIZE = 20;

struct DSBUFFERDESC {
    uint32_t dwSize;
    uint32_t dwFlags;
    uint32_t dwBufferBytes;
    uint32_t dwReserved;
    WAVEFORMATEX* lpwfxFormat;
    GUID guid3DAlgorithm;
};

constexpr uint32_t DSBSIZE_MIN = 4;
constexpr uint32_t DSBSIZE_MAX = 0x0FFFFFFF;
constexpr uint32_t DSBFREQUENCY_ORIGINAL = 0;
// The engine resamples every buffer in software, so it takes far wider rates than the hardware
// of the time (100 Hz to 100 kHz): any clip rate from 1 Hz to 384 kHz, played up to four times
// faster.
constexpr uint32_t DSBFREQUENCY_MIN = 1;
constexpr uint32_t DSBFREQUENCY_MAX = 1536000;
constexpr int32_t DSBVOLUME_MAX = 0;
constexpr int32_t DSBVOLUME_MIN = -10000;
constexpr int32_t DSBPAN_LEFT = -10000;
constexpr int32_t DSBPAN_CENTER = 0;
constexpr int32_t DSBPAN_RIGHT = 10000;
constexpr uint32_t DSBPLAY_LOOPING = 0x00000001;
constexpr uint32_t DSBSTATUS_PLAYING = 0x00000001;
constexpr uint32_t DSBSTATUS_BUFFERLOST = 0x00000002;
constexpr uint32_t DSBSTATUS_LOOPING = 0x00000004;

constexpr uint32_t DSCAPS_PRIMARYMONO = 0x00000001;
constexpr uint32_t DSCAPS_PRIMARYSTEREO = 0x00000002;
constexpr uint32_t DSCAPS_PRIMARY8BIT = 0x00000004;
constexpr uint32_t DSCAPS_PRIMARY16BIT = 0x00000008;
constexpr uint32_t DSCAPS_CONTINUOUSRATE = 0x00000010;
constexpr uint32_t DSCAPS_EMULDRIVER = 0x00000020;
constexpr uint32_t DSCAPS_SECONDARYMONO = 0x00000100;
constexpr uint32_t DSCAPS_SECONDARYSTEREO = 0x00000200;
constexpr uint32_t DSCAPS_SECONDARY8BIT = 0x00000400;
constexpr uint32_t DSCAPS_SECONDARY16BIT = 0x00000800;

/// Device capabilities: 24 32-bit fields, 96 bytes.
struct DSCAPS {
    uint32_t dwSize;
    uint32_t dwFlags;
    uint32_t dwMinSecondarySampleRate;
    uint32_t dwMaxSecondarySampleRate;
    uint32_t dwPrimaryBuffers;
    uint32_t dwMaxHwMixingAllBuffers;
    uint32_t dwMaxHwMixingStaticBuffers;
    uint32_t dwMaxHwMixingStreamingBuffers;
    uint32_t dwFreeHwMixingAllBuffers;
    uint32_t dwFreeHwMixingStaticBuffers;
    uint32_t dwFreeHwMixingStreamingBuffers;
    uint32_t dwMaxHw3DAllBuffers;
    uint32_t dwMaxHw3DStaticBuffers;
    uint32_t dwMaxHw3DStreamingBuffers;
    uint32_t dwFreeHw3DAllBuffers;
    uint32_t dwFreeHw3DStaticBuffers;
    uint32_t dwFreeHw3DStreamingBuffers;
    uint32_t dwTotalHwMemBytes;
    uint32_t dwFreeHwMemBytes;
    uint32_t dwMaxContigFreeHwMemBytes;
    uint32_t dwUnlockTransferRateHwBuffers;
    uint32_t dwPlayCpuOverheadSwBuffers;
    uint32_t dwReserved1;
    uint32_t dwReserved2;
};
static_assert(sizeof(DSCAPS) == 96, "DSCAPS is 96 bytes");

// ---- Cooperative levels and speaker configurations ----
constexpr uint32_t DSSCL_NORMAL = 1;
constexpr uint32_t DSSCL_PRIORITY = 2;
constexpr uint32_t DSSCL_EXCLUSIVE = 3;
constexpr uint32_t DSSCL_WRITEPRIMARY = 4;

constexpr uint32_t DSSPEAKER_HEADPHONE = 1;
constexpr uint32_t DSSPEAKER_MONO = 2;
constexpr uint32_t DSSPEAKER_QUAD = 3;
constexpr uint32_t DSSPEAKER_STEREO = 4;
constexpr uint32_t DSSPEAKER_SURROUND = 5;

// ---- 3D ----
constexpr uint32_t DS3D_IMMEDIATE = 0;
constexpr uint32_t DS3D_DEFERRED = 1;
constexpr uint32_t DS3DMODE_NORMAL = 0;
constexpr uint32_t DS3DMODE_HEADRELATIVE = 1;
constexpr uint32_t DS3DMODE_DISABLE = 2;
constexpr float DS3D_DEFAULTMINDISTANCE = 1.0f;
constexpr float DS3D_DEFAULTMAXDISTANCE = 1.0e9f;
constexpr float DS3D_MINROLLOFFFACTOR = 0.0f;
constexpr float DS3D_MAXROLLOFFFACTOR = 10.0f;
constexpr float DS3D_DEFAULTROLLOFFFACTOR = 1.0f;

extern const CLSID CLSID_DirectSound;
extern const IID IID_IDirectSound;
extern const IID IID_IDirectSoundBuffer;
extern const IID IID_IDirectSound3DBuffer;
extern const IID IID_IDirectSound3DListener;

/// A sound buffer. A secondary buffer holds samples that play from its play cursor; the primary
/// buffer stands for the device's output format.
class IDirectSoundBuffer : public IUnknown {
  public:
    /// The play cursor (byte offset of the next sample to be heard) and the write cursor (the first
    /// byte it is safe to write, a little ahead). Either pointer may be null.
    virtual HRESULT GetCurrentPosition(uint32_t* play, uint32_t* write) = 0;
    /// Copies at most sizeAllocated bytes of the buffer's format; sizeWritten gets the count.
    virtual HRESULT GetFormat(WAVEFORMATEX* format, uint32_t sizeAllocated, uint32_t* sizeWritten) = 0;
    /// DSBSTATUS_ bits: playing (a buffer played without looping stops by itself once its last
    /// sample has been mixed), looping, lost. Never waits for the mixing thread; any thread.
    virtual HRESULT GetStatus(uint32_t* status) = 0;
    /// Gives write access to bytes at offset: the first region up to the buffer's end, the second
    /// (null, 0 when the range does not wrap) from its start. The data counts from Unlock on.
    virtual HRESULT Lock(uint32_t offset, uint32_t bytes, void** ptr1, uint32_t* bytes1, void** ptr2,
                         uint32_t* bytes2, uint32_t flags) = 0;
    /// Plays from the play cursor; with DSBPLAY_LOOPING until stopped, else up to the end (where the
    /// buffer stops and its cursor goes back to 0). The primary buffer must be played looping.
    virtual HRESULT Play(uint32_t reserved, uint32_t priority, uint32_t flags) = 0;
    virtual HRESULT SetCurrentPosition(uint32_t position) = 0;
    /// Primary buffer only; needs DSSCL_PRIORITY.
    virtual HRESULT SetFormat(const WAVEFORMATEX* format) = 0;
    /// Attenuation in hundredths of a decibel, DSBVOLUME_MIN (silence) .. DSBVOLUME_MAX.
    virtual HRESULT SetVolume(int32_t volume) = 0;
    /// DSBPAN_LEFT .. DSBPAN_RIGHT: the opposite channel is attenuated by |pan| hundredths of a dB.
    virtual HRESULT SetPan(int32_t pan) = 0;
    /// Playback rate in Hz, DSBFREQUENCY_MIN .. DSBFREQUENCY_MAX, or DSBFREQUENCY_ORIGINAL.
    virtual HRESULT SetFrequency(uint32_t frequency) = 0;
    /// Stops; the play cursor stays where playing ended.
    virtual HRESULT Stop() = 0;
    /// Not DirectSound's: Play (flags as there) so that the first sample is heard at clockMicros,
    /// a time of lxp::clock()'s performance counter in microseconds. The engine begins the
    /// buffer at that sample frame inside its block. A time that has passed, a buffer that
    /// plays already, or an output not kept in step with the clock plays at once.
    virtual HRESULT PlayAt(uint32_t flags, int64_t clockMicros) = 0;
    /// Commits the regions that Lock handed out.
    virtual HRESULT Unlock(void* ptr1, uint32_t bytes1, void* ptr2, uint32_t bytes2) = 0;
};

/// The 3D controls of a buffer created with DSBCAPS_CTRL3D (left-handed coordinates).
class IDirectSound3DBuffer : public IUnknown {
  public:
    virtual HRESULT SetPosition(float x, float y, float z, uint32_t apply) = 0;
    /// DS3DMODE_NORMAL, DS3DMODE_HEADRELATIVE or DS3DMODE_DISABLE.
    virtual HRESULT SetMode(uint32_t mode, uint32_t apply) = 0;
};

/// The listener of a device, reached from a primary buffer created with DSBCAPS_CTRL3D.
class IDirectSound3DListener : public IUnknown {
  public:
    virtual HRESULT SetPosition(float x, float y, float z, uint32_t apply) = 0;
    virtual HRESULT SetOrientation(float frontX, float frontY, float frontZ, float topX, float topY,
                                   float topZ, uint32_t apply) = 0;
    /// DS3D_MINROLLOFFFACTOR .. DS3D_MAXROLLOFFFACTOR; 0 turns distance attenuation off.
    virtual HRESULT SetRolloffFactor(float rolloff, uint32_t apply) = 0;
    /// Applies every deferred setting of this listener and of the device's 3D buffers at once.
    virtual HRESULT CommitDeferredSettings() = 0;
};

/// The device object.
class IDirectSound : public IUnknown {
  public:
    virtual HRESULT CreateSoundBuffer(const DSBUFFERDESC* description, IDirectSoundBuffer** buffer,
                                      IUnknown* outer) = 0;
    /// caps->dwSize must be sizeof(DSCAPS).
    virtual HRESULT GetCaps(DSCAPS* caps) = 0;
    /// A buffer that plays the original's memory with its own cursor, volume, pan and frequency
    /// (copied from the original now); it starts stopped at position 0.
    virtual HRESULT DuplicateSoundBuffer(IDirectSoundBuffer* original, IDirectSoundBuffer** duplicate) = 0;
    /// There are no windows on this platform: any window value is accepted.
    virtual HRESULT SetCooperativeLevel(void* window, uint32_t level) = 0;
    virtual HRESULT SetSpeakerConfig(uint32_t config) = 0;
    /// Binds an object made with CoCreateInstance to a device (null: the default device).
    virtual HRESULT Initialize(const GUID* device) = 0;
};

// ---- The run-time loaded library ("DSOUND.DLL") and its entries ----

/// Called once per device: a null guid and "Primary Sound Driver" first, then each real device.
/// Return nonzero to go on.
typedef int (*LPDSENUMCALLBACKA)(GUID* guid, const char* description, const char* module, void* context);
typedef HRESULT (*LPDIRECTSOUNDCREATE)(const GUID* device, IDirectSound** out, IUnknown* outer);
typedef HRESULT (*LPDIRECTSOUNDENUMERATEA)(LPDSENUMCALLBACKA callback, void* context);

/// The library's exported entries, also callable directly.
HRESULT DirectSoundCreate(const GUID* device, IDirectSound** out, IUnknown* outer);
HRESULT DirectSoundEnumerateA(LPDSENUMCALLBACKA callback, void* context);

typedef struct SoundModuleTag* HSOUNDMODULE;
/// Loads the sound library by its Windows name ("DSOUND.DLL", any case); null for any other name or
/// when the backend has no such library. Each load needs one FreeSoundLibrary.
HSOUNDMODULE LoadSoundLibrary(const char* name);
/// "DirectSoundCreate" (an LPDIRECTSOUNDCREATE) or "DirectSoundEnumerateA" (an
/// LPDIRECTSOUNDENUMERATEA); null for anything else.
void* GetSoundProcAddress(HSOUNDMODULE module, const char* name);
void FreeSoundLibrary(HSOUNDMODULE module);

// ---- Other producers in the same output ----

/// Something that renders into the process's sound output beside the sound device's buffers (the
/// MIDI synthesizer), so that every output, a WAV file included, carries both.
class MixSource {
  public:
    virtual ~MixSource() {}
    /// Adds (does not overwrite) frames of audio to interleaved, which holds frames x channels floats
    /// of full scale +-1.0, at sampleRate frames per second. channels is 2 and sampleRate is the
    /// output's rate, which can change between calls (the simulated output follows the primary
    /// buffer's format).
    /// Called on the mixing thread, about every 10 ms, with at most 4096 frames; must not block,
    /// take locks other threads hold for long, or allocate.
    virtual void mixInto(float* interleaved, uint32_t frames, uint32_t channels, uint32_t sampleRate) = 0;
};

/// Adds source to the output chosen now (starting that output when nothing plays into it yet).
/// False when source is null, already added, or 16 sources are in place. Any thread but the
/// mixing thread.
bool addMixSource(MixSource* source);
/// Removes source; when it returns, source's mixInto is not running and will not be called again.
/// The output stops once nothing plays into it. Any thread but the mixing thread.
void removeMixSource(MixSource* source);

}  // namespace lxp

#endif
