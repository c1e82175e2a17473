// What a DirectSound object runs on (internal to platform/sound): an engine, plus the behaviour
// that differs between the real output and the simulated one (failure injection, call records,
// devices offered, clock-synced rendering).
#ifndef LORVEX_PLATFORM_SOUND_BACKEND_H
#define LORVEX_PLATFORM_SOUND_BACKEND_H

#include "platform/sound/LxpSoundEngine.h"

#include <memory>
#include <string>
#include <vector>

namespace lxp {
namespace sound {

/// Every operation of the layer that a backend can refuse.
enum class Op {
    LoadLibrary,
    GetDirectSoundCreate,
    GetDirectSoundEnumerate,
    DirectSoundCreate,
    Enumerate,
    Initialize,
    SetCooperativeLevel,
    GetCaps,
    CreatePrimaryBuffer,
    CreateSecondaryBuffer,
    DuplicateSoundBuffer,
    SetSpeakerConfig,
    GetCurrentPosition,
    GetFormat,
    Lock,
    Unlock,
    Play,
    SetCurrentPosition,
    SetFormat,
    SetVolume,
    SetPan,
    SetFrequency,
    Stop,
    Query3DBuffer,
    QueryListener,
    BufferSetPosition,
    BufferSetMode,
    ListenerSetPosition,
    ListenerSetOrientation,
    ListenerSetRolloffFactor,
    CommitDeferredSettings,
    Count
};

const char* opName(Op op);

struct DeviceCaps {
    uint32_t flags = 0;
    uint32_t minSecondaryRate = DSBFREQUENCY_MIN;
    uint32_t maxSecondaryRate = DSBFREQUENCY_MAX;
};

class Backend {
  public:
    virtual ~Backend() {}
    virtual std::shared_ptr<Engine> engine() = 0;
    /// Called before each operation with the object's id (0 for none): S_OK to go on, or the
    /// failure to report. The simulated backend records the call here.
    virtual HRESULT intercept(Op op, uint32_t object) = 0;
    /// Brings the output up to the present before a buffer is looked at (clock-synced simulation).
    virtual void sync() {}
    /// A device object binds to the output / lets go of it (the simulated half-duplex card).
    virtual bool openDevice() { return true; }
    virtual void closeDevice() {}
    /// Descriptions of the devices enumeration reports after "Primary Sound Driver".
    virtual std::vector<std::string> deviceDescriptions() = 0;
    virtual DeviceCaps caps() = 0;
    /// Whether buffers record the bytes their cursor passes (simulated backend).
    virtual bool tapConsumed() { return false; }
    /// Whether "DSOUND.DLL" can be loaded.
    virtual bool libraryPresent() { return true; }
    /// The process ends: a running output stops and finishes what it wrote.
    virtual void finish() {}
};

/// The backend new objects are made on (the host's choice, LxPlatformSound.h).
std::shared_ptr<Backend> currentBackend();
void setCurrentBackend(const std::shared_ptr<Backend>& backend);
/// Makes sure the device class is in the COM class registry.
void registerDeviceClass();

/// What a secondary buffer is doing, for the simulated backend's tests.
struct BufferInfo {
    uint32_t id = 0;
    uint32_t flags = 0;
    WAVEFORMATEX format{};
    uint32_t bytes = 0;
    int32_t volume = 0;
    int32_t pan = 0;
    uint32_t frequency = 0;
    bool playing = false;
    bool looping = false;
    uint32_t position = 0;
    bool lost = false;
    float position3D[3] = {0, 0, 0};
    uint32_t mode3D = DS3DMODE_NORMAL;
    bool sharesMemoryWith(const BufferInfo& other) const {
        return memory != nullptr && memory == other.memory;
    }
    const void* memory = nullptr;
};

/// What a device is set to, for the simulated backend's tests.
struct DeviceInfo {
    uint32_t id = 0;
    bool initialized = false;
    uint32_t cooperativeLevel = 0;
    uint32_t speakerConfig = 0;
    bool hasPrimary = false;
    WAVEFORMATEX primaryFormat{};
    bool primaryPlaying = false;
    float listener[10] = {0, 0, 0, 0, 0, 1, 0, 1, 0, DS3D_DEFAULTROLLOFFFACTOR};
};

bool describeBuffer(IDirectSoundBuffer* buffer, BufferInfo* info);
std::vector<uint8_t> consumedBytes(IDirectSoundBuffer* buffer);
void clearConsumedBytes(IDirectSoundBuffer* buffer);
/// Live objects made on backend.
int liveBuffers(const Backend* backend);
std::vector<DeviceInfo> liveDevices(const Backend* backend);
/// Marks every live secondary buffer of backend lost.
void loseBuffers(const Backend* backend);
/// Loaded, not yet freed sound libraries.
int loadedLibraries();

}  // namespace sound
}  // namespace lxp

#endif
