// The DirectSound-shaped objects over the mixing engine: the device, primary and secondary buffers,
// 3D buffers and the listener, the library entries and the mix sources.
#include "platform/sound/LxpSoundBackend.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <mutex>
#include <new>

namespace lxp {

const CLSID CLSID_DirectSound = {
    0x47D4D946, 0x62E8, 0x11CF, {0x93, 0xBC, 0x44, 0x45, 0x53, 0x54, 0x00, 0x00}};
const IID IID_IDirectSound = {0x279AFA83, 0x4981, 0x11CE, {0xA5, 0x21, 0x00, 0x20, 0xAF, 0x0B, 0xE5, 0x60}};
const IID IID_IDirectSoundBuffer = {
    0x279AFA85, 0x4981, 0x11CE, {0xA5, 0x21, 0x00, 0x20, 0xAF, 0x0B, 0xE5, 0x60}};
const IID IID_IDirectSound3DListener = {
    0x279AFA84, 0x4981, 0x11CE, {0xA5, 0x21, 0x00, 0x20, 0xAF, 0x0B, 0xE5, 0x60}};
const IID IID_IDirectSound3DBuffer = {
    0x279AFA86, 0x4981, 0x11CE, {0xA5, 0x21, 0x00, 0x20, 0xAF, 0x0B, 0xE5, 0x60}};

namespace sound {

namespace {

const char* const kOpNames[] = {"LoadLibrary",
                                "GetDirectSoundCreate",
                                "GetDirectSoundEnumerate",
                                "DirectSoundCreate",
                                "Enumerate",
                                "Initialize",
                                "SetCooperativeLevel",
                                "GetCaps",
                                "CreatePrimaryBuffer",
                                "CreateSecondaryBuffer",
                                "DuplicateSoundBuffer",
                                "SetSpeakerConfig",
                                "GetCurrentPosition",
                                "GetFormat",
                                "Lock",
                                "Unlock",
                                "Play",
                                "SetCurrentPosition",
                                "SetFormat",
                                "SetVolume",
                                "SetPan",
                                "SetFrequency",
                                "Stop",
                                "Query3DBuffer",
                                "QueryListener",
                                "BufferSetPosition",
                                "BufferSetMode",
                                "ListenerSetPosition",
                                "ListenerSetOrientation",
                                "ListenerSetRolloffFactor",
                                "CommitDeferredSettings"};
static_assert(sizeof kOpNames / sizeof kOpNames[0] == static_cast<size_t>(Op::Count), "a name per operation");

std::atomic<uint32_t> gNextId{1};
std::atomic<int> gLibraries{0};

/// Device i of the output: the enumeration hands these out, Initialize takes them back.
GUID deviceGuid(uint16_t index) {
    return GUID{0x4C585344, index, 0x0001, {0x4C, 0x6F, 0x72, 0x76, 0x65, 0x78, 0x00, 0x01}};
}

bool validPcm(const WAVEFORMATEX* f) {
    return f != nullptr && f->wFormatTag == WAVE_FORMAT_PCM && (f->nChannels == 1 || f->nChannels == 2) &&
           (f->wBitsPerSample == 8 || f->wBitsPerSample == 16) &&
           f->nBlockAlign == f->nChannels * f->wBitsPerSample / 8 && f->nSamplesPerSec >= DSBFREQUENCY_MIN &&
           f->nSamplesPerSec <= DSBFREQUENCY_MAX;
}

/// Clears whichever of Lock's out parameters were given, so a failed lock leaves nothing to use.
void clearLocked(void** ptr1, uint32_t* bytes1, void** ptr2, uint32_t* bytes2) {
    if (ptr1 != nullptr) {
        *ptr1 = nullptr;
    }
    if (bytes1 != nullptr) {
        *bytes1 = 0;
    }
    if (ptr2 != nullptr) {
        *ptr2 = nullptr;
    }
    if (bytes2 != nullptr) {
        *bytes2 = 0;
    }
}

/// GetFormat's copy: at most sizeAllocated bytes of from into format (when given), and into
/// sizeWritten (when given) the bytes copied, or the size a whole format needs.
void copyFormat(const WAVEFORMATEX& from, WAVEFORMATEX* format, uint32_t sizeAllocated,
                uint32_t* sizeWritten) {
    const uint32_t n = std::min<uint32_t>(sizeAllocated, sizeof(WAVEFORMATEX));
    if (format != nullptr) {
        std::memcpy(format, &from, n);
    }
    if (sizeWritten != nullptr) {
        *sizeWritten = format != nullptr ? n : static_cast<uint32_t>(sizeof(WAVEFORMATEX));
    }
}

class Device;
class SecondaryBuffer;

struct Registry {
    std::mutex mutex;
    std::vector<Device*> devices;
    std::vector<SecondaryBuffer*> buffers;
};

Registry& registry() {
    static Registry* r = new Registry();  // reachable for the process's life; objects may outlive statics
    return *r;
}

class PrimaryBuffer;

/// The device object. mutex guards its settings, its buffers' deferred 3D values and the listener.
class Device final : public ComObject<IDirectSound> {
  public:
    explicit Device(const std::shared_ptr<Backend>& backend)
        : backend_(backend), engine_(backend->engine()), id_(gNextId.fetch_add(1)) {
        std::lock_guard<std::mutex> guard(registry().mutex);
        registry().devices.push_back(this);
    }

    HRESULT QueryInterface(const IID& iid, void** out) override {
        return queryOwn(iid, IID_IDirectSound, out);
    }

    HRESULT CreateSoundBuffer(const DSBUFFERDESC* description, IDirectSoundBuffer** buffer,
                              IUnknown* outer) override;
    HRESULT GetCaps(DSCAPS* caps) override;
    HRESULT DuplicateSoundBuffer(IDirectSoundBuffer* original, IDirectSoundBuffer** duplicate) override;
    HRESULT SetCooperativeLevel(void* window, uint32_t level) override;
    HRESULT SetSpeakerConfig(uint32_t config) override;
    HRESULT Initialize(const GUID* device) override {
        const HRESULT hr = backend_->intercept(Op::Initialize, id_);
        return FAILED(hr) ? hr : bind(device);
    }

    HRESULT bind(const GUID* device);

    Backend* backend() { return backend_.get(); }
    Engine& engine() { return *engine_; }
    const std::shared_ptr<Engine>& enginePtr() { return engine_; }
    uint32_t id() const { return id_; }
    std::mutex& mutex() { return mutex_; }
    int listenerSlot() const { return listenerSlot_; }
    uint32_t cooperativeLevel() {
        std::lock_guard<std::mutex> guard(mutex_);
        return cooperativeLevel_;
    }

    /// Called with mutex() held.
    void addBuffer(SecondaryBuffer* b) { buffers_.push_back(b); }
    void removeBuffer(SecondaryBuffer* b) {
        buffers_.erase(std::remove(buffers_.begin(), buffers_.end(), b), buffers_.end());
    }
    void setPrimary(PrimaryBuffer* p) { primary_ = p; }
    PrimaryBuffer* primary() { return primary_; }

    /// Listener values; pending ones take effect at the next commit. Called with mutex() held.
    void setListener(int first, int count, const float* values, bool deferred);
    void commitLocked();
    void info(DeviceInfo* out);

  private:
    ~Device() override;
    /// op's injected failure, then the device's mutex and the check that the device is
    /// initialised: the guard holds the mutex only when *hr is DS_OK.
    std::unique_lock<std::mutex> lockInitialized(Op op, HRESULT* hr);

    std::shared_ptr<Backend> backend_;
    std::shared_ptr<Engine> engine_;
    const uint32_t id_;
    std::mutex mutex_;
    bool initialized_ = false;
    uint32_t cooperativeLevel_ = 0;
    uint32_t speakerConfig_ = 0;
    int listenerSlot_ = -1;
    PrimaryBuffer* primary_ = nullptr;  // not owned: the primary buffer clears it when it goes
    std::vector<SecondaryBuffer*> buffers_;
    float listenerApplied_[10] = {0, 0, 0, 0, 0, 1, 0, 1, 0, DS3D_DEFAULTROLLOFFFACTOR};
    float listenerPending_[10] = {0, 0, 0, 0, 0, 1, 0, 1, 0, DS3D_DEFAULTROLLOFFFACTOR};
    bool listenerDirty_[10] = {};
};

/// A secondary buffer: one voice of the engine over memory it may share with duplicates.
class SecondaryBuffer final : public ComObject<IDirectSoundBuffer> {
  public:
    SecondaryBuffer(Device* device, SampleMemory* memory, uint32_t flags, ConsumedTap* tap, int voice)
        : device_(device),
          memory_(memory),
          flags_(flags),
          tap_(tap),
          voice_(voice),
          id_(gNextId.fetch_add(1)) {
        device_->AddRef();
        {
            std::lock_guard<std::mutex> guard(device_->mutex());
            device_->addBuffer(this);
        }
        std::lock_guard<std::mutex> guard(registry().mutex);
        registry().buffers.push_back(this);
    }

    HRESULT QueryInterface(const IID& iid, void** out) override;
    HRESULT GetCurrentPosition(uint32_t* play, uint32_t* write) override;
    HRESULT GetFormat(WAVEFORMATEX* format, uint32_t sizeAllocated, uint32_t* sizeWritten) override;
    HRESULT GetStatus(uint32_t* status) override;
    HRESULT Lock(uint32_t offset, uint32_t bytes, void** ptr1, uint32_t* bytes1, void** ptr2,
                 uint32_t* bytes2, uint32_t flags) override;
    HRESULT Play(uint32_t reserved, uint32_t priority, uint32_t flags) override;
    HRESULT SetCurrentPosition(uint32_t position) override;
    HRESULT SetFormat(const WAVEFORMATEX*) override {
        const HRESULT hr = device_->backend()->intercept(Op::SetFormat, id_);
        return FAILED(hr) ? hr : DSERR_INVALIDCALL;
    }
    HRESULT SetVolume(int32_t volume) override;
    HRESULT SetPan(int32_t pan) override;
    HRESULT SetFrequency(uint32_t frequency) override;
    HRESULT Stop() override;
    HRESULT PlayAt(uint32_t flags, int64_t clockMicros) override;
    HRESULT Unlock(void* ptr1, uint32_t bytes1, void* ptr2, uint32_t bytes2) override;

    Device* device() { return device_; }
    SampleMemory* memory() { return memory_; }
    uint32_t flags() const { return flags_; }
    uint32_t id() const { return id_; }
    Voice& voice() { return device_->engine().voice(voice_); }
    ConsumedTap* tap() { return tap_; }
    void lose() {
        lost_.store(true);
        setPlayBits(false, true);
    }
    void info(BufferInfo* out);

    /// 3D values, deferred or applied; called with the device's mutex held.
    void set3DPosition(const float* xyz, bool deferred);
    void set3DMode(uint32_t mode, bool deferred);
    void commit3DLocked();

  private:
    ~SecondaryBuffer() override;

    void setPlayBits(bool looping, bool stopOnly);
    /// What Play and PlayAt check first: the injected failure, then a lost buffer.
    HRESULT playable();
    /// A control's setter: the injected failure of op, then the capability bit, then the range.
    template <class T>
    HRESULT setControl(Op op, uint32_t control, T value, T lowest, T highest, std::atomic<T>& field);

    Device* device_;
    SampleMemory* memory_;
    const uint32_t flags_;
    ConsumedTap* tap_;  // owned by the engine's voice
    const int voice_;
    const uint32_t id_;
    std::atomic<bool> lost_{false};
    float pendingPosition_[3] = {0, 0, 0};
    uint32_t pendingMode_ = DS3DMODE_NORMAL;
    bool pendingPositionDirty_ = false;
    bool pendingModeDirty_ = false;
    float appliedPosition_[3] = {0, 0, 0};
    uint32_t appliedMode_ = DS3DMODE_NORMAL;
};

class Buffer3D final : public ComObject<IDirectSound3DBuffer> {
  public:
    explicit Buffer3D(SecondaryBuffer* buffer) : buffer_(buffer) { buffer_->AddRef(); }
    HRESULT QueryInterface(const IID& iid, void** out) override {
        return queryOwn(iid, IID_IDirectSound3DBuffer, out);
    }
    HRESULT SetPosition(float x, float y, float z, uint32_t apply) override {
        HRESULT hr = buffer_->device()->backend()->intercept(Op::BufferSetPosition, buffer_->id());
        if (FAILED(hr)) {
            return hr;
        }
        if (apply != DS3D_IMMEDIATE && apply != DS3D_DEFERRED) {
            return DSERR_INVALIDPARAM;
        }
        const float xyz[3] = {x, y, z};
        std::lock_guard<std::mutex> guard(buffer_->device()->mutex());
        buffer_->set3DPosition(xyz, apply == DS3D_DEFERRED);
        return DS_OK;
    }
    HRESULT SetMode(uint32_t mode, uint32_t apply) override {
        HRESULT hr = buffer_->device()->backend()->intercept(Op::BufferSetMode, buffer_->id());
        if (FAILED(hr)) {
            return hr;
        }
        if ((apply != DS3D_IMMEDIATE && apply != DS3D_DEFERRED) || mode > DS3DMODE_DISABLE) {
            return DSERR_INVALIDPARAM;
        }
        std::lock_guard<std::mutex> guard(buffer_->device()->mutex());
        buffer_->set3DMode(mode, apply == DS3D_DEFERRED);
        return DS_OK;
    }

  private:
    ~Buffer3D() override { buffer_->Release(); }
    SecondaryBuffer* buffer_;
};

/// The primary buffer: the device's output format. It plays nothing itself.
class PrimaryBuffer final : public ComObject<IDirectSoundBuffer> {
  public:
    PrimaryBuffer(Device* device, uint32_t flags)
        : device_(device), flags_(flags), id_(gNextId.fetch_add(1)) {
        device_->AddRef();
        format_ = WAVEFORMATEX{WAVE_FORMAT_PCM, 2, 22050, 44100, 2, 8, 0};
    }

    HRESULT QueryInterface(const IID& iid, void** out) override;
    HRESULT GetCurrentPosition(uint32_t* play, uint32_t* write) override {
        const HRESULT hr = intercept(Op::GetCurrentPosition);
        if (FAILED(hr)) {
            return hr;
        }
        if (play == nullptr && write == nullptr) {
            return DSERR_INVALIDPARAM;
        }
        if (play != nullptr) {
            *play = 0;
        }
        if (write != nullptr) {
            *write = 0;
        }
        return DS_OK;
    }
    HRESULT GetStatus(uint32_t* status) override {
        if (status == nullptr) {
            return DSERR_INVALIDPARAM;
        }
        *status = DSBSTATUS_PLAYING | DSBSTATUS_LOOPING;  // the primary buffer always plays
        return DS_OK;
    }
    HRESULT GetFormat(WAVEFORMATEX* format, uint32_t sizeAllocated, uint32_t* sizeWritten) override {
        const HRESULT hr = intercept(Op::GetFormat);
        if (FAILED(hr)) {
            return hr;
        }
        if (format == nullptr && sizeWritten == nullptr) {
            return DSERR_INVALIDPARAM;
        }
        std::lock_guard<std::mutex> guard(device_->mutex());
        copyFormat(format_, format, sizeAllocated, sizeWritten);
        return DS_OK;
    }
    HRESULT Lock(uint32_t, uint32_t, void** ptr1, uint32_t* bytes1, void** ptr2, uint32_t* bytes2,
                 uint32_t) override {
        const HRESULT hr = intercept(Op::Lock);
        clearLocked(ptr1, bytes1, ptr2, bytes2);
        return FAILED(hr) ? hr : DSERR_PRIOLEVELNEEDED;  // writing the primary buffer is not offered
    }
    HRESULT Play(uint32_t reserved, uint32_t, uint32_t flags) override {
        const HRESULT hr = intercept(Op::Play);
        if (FAILED(hr)) {
            return hr;
        }
        if (reserved != 0 || (flags & DSBPLAY_LOOPING) == 0) {
            return DSERR_INVALIDPARAM;
        }
        std::lock_guard<std::mutex> guard(device_->mutex());
        playing_ = true;
        return DS_OK;
    }
    HRESULT SetCurrentPosition(uint32_t) override {
        const HRESULT hr = intercept(Op::SetCurrentPosition);
        return FAILED(hr) ? hr : DSERR_INVALIDCALL;
    }
    HRESULT PlayAt(uint32_t, int64_t) override {
        const HRESULT hr = intercept(Op::Play);
        return FAILED(hr) ? hr : DSERR_INVALIDCALL;  // the primary buffer plays all the time
    }
    HRESULT SetFormat(const WAVEFORMATEX* format) override {
        const HRESULT hr = intercept(Op::SetFormat);
        if (FAILED(hr)) {
            return hr;
        }
        if (device_->cooperativeLevel() < DSSCL_PRIORITY) {
            return DSERR_PRIOLEVELNEEDED;
        }
        if (format == nullptr) {
            return DSERR_INVALIDPARAM;
        }
        if (!validPcm(format)) {
            return DSERR_BADFORMAT;
        }
        WAVEFORMATEX f = *format;
        f.nAvgBytesPerSec = f.nSamplesPerSec * f.nBlockAlign;
        f.cbSize = 0;
        {
            std::lock_guard<std::mutex> guard(device_->mutex());
            format_ = f;
        }
        device_->engine().setPrimaryFormat(f);
        return DS_OK;
    }
    HRESULT SetVolume(int32_t) override { return control(Op::SetVolume); }
    HRESULT SetPan(int32_t) override { return control(Op::SetPan); }
    HRESULT SetFrequency(uint32_t) override { return control(Op::SetFrequency); }
    HRESULT Stop() override {
        const HRESULT hr = intercept(Op::Stop);
        if (FAILED(hr)) {
            return hr;
        }
        std::lock_guard<std::mutex> guard(device_->mutex());
        playing_ = false;
        return DS_OK;
    }
    HRESULT Unlock(void*, uint32_t, void*, uint32_t) override {
        const HRESULT hr = intercept(Op::Unlock);
        return FAILED(hr) ? hr : DSERR_INVALIDCALL;
    }

    Device* device() { return device_; }
    uint32_t id() const { return id_; }
    /// Called with the device's mutex held.
    void info(DeviceInfo* out) {
        out->hasPrimary = true;
        out->primaryFormat = format_;
        out->primaryPlaying = playing_;
    }

  private:
    ~PrimaryBuffer() override {
        {
            std::lock_guard<std::mutex> guard(device_->mutex());
            device_->setPrimary(nullptr);
        }
        device_->Release();
    }
    HRESULT intercept(Op op) { return device_->backend()->intercept(op, id_); }
    HRESULT control(Op op) {
        const HRESULT hr = intercept(op);
        return FAILED(hr) ? hr : DSERR_CONTROLUNAVAIL;
    }

    Device* device_;
    const uint32_t flags_;
    const uint32_t id_;
    WAVEFORMATEX format_;
    bool playing_ = false;
};

class Listener final : public ComObject<IDirectSound3DListener> {
  public:
    explicit Listener(PrimaryBuffer* primary) : primary_(primary) { primary_->AddRef(); }
    HRESULT QueryInterface(const IID& iid, void** out) override {
        return queryOwn(iid, IID_IDirectSound3DListener, out);
    }
    HRESULT SetPosition(float x, float y, float z, uint32_t apply) override {
        const float v[3] = {x, y, z};
        return set(Op::ListenerSetPosition, 0, 3, v, apply);
    }
    HRESULT SetOrientation(float fx, float fy, float fz, float tx, float ty, float tz,
                           uint32_t apply) override {
        const float v[6] = {fx, fy, fz, tx, ty, tz};
        return set(Op::ListenerSetOrientation, 3, 6, v, apply);
    }
    HRESULT SetRolloffFactor(float rolloff, uint32_t apply) override {
        if (!(rolloff >= DS3D_MINROLLOFFFACTOR && rolloff <= DS3D_MAXROLLOFFFACTOR)) {
            const HRESULT hr = device()->backend()->intercept(Op::ListenerSetRolloffFactor, primary_->id());
            return FAILED(hr) ? hr : DSERR_INVALIDPARAM;
        }
        return set(Op::ListenerSetRolloffFactor, 9, 1, &rolloff, apply);
    }
    HRESULT CommitDeferredSettings() override {
        const HRESULT hr = device()->backend()->intercept(Op::CommitDeferredSettings, primary_->id());
        if (FAILED(hr)) {
            return hr;
        }
        std::lock_guard<std::mutex> guard(device()->mutex());
        device()->commitLocked();
        return DS_OK;
    }

  private:
    ~Listener() override { primary_->Release(); }
    Device* device() { return primary_->device(); }
    HRESULT set(Op op, int first, int count, const float* values, uint32_t apply) {
        const HRESULT hr = device()->backend()->intercept(op, primary_->id());
        if (FAILED(hr)) {
            return hr;
        }
        if (apply != DS3D_IMMEDIATE && apply != DS3D_DEFERRED) {
            return DSERR_INVALIDPARAM;
        }
        std::lock_guard<std::mutex> guard(device()->mutex());
        device()->setListener(first, count, values, apply == DS3D_DEFERRED);
        return DS_OK;
    }

    PrimaryBuffer* primary_;
};

// ---- Device ----

Device::~Device() {
    if (initialized_) {
        engine_->freeListener(listenerSlot_);
        engine_->removeUser();
        backend_->closeDevice();
    }
    std::lock_guard<std::mutex> guard(registry().mutex);
    auto& d = registry().devices;
    d.erase(std::remove(d.begin(), d.end(), this), d.end());
}

HRESULT Device::bind(const GUID* device) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (initialized_) {
        return DSERR_ALREADYINITIALIZED;
    }
    if (device != nullptr) {
        const size_t count = backend_->deviceDescriptions().size();
        bool known = false;
        for (size_t i = 0; i < count; ++i) {
            known = known || *device == deviceGuid(static_cast<uint16_t>(i));
        }
        if (!known) {
            return DSERR_NODRIVER;
        }
    }
    if (!backend_->openDevice()) {
        return DSERR_ALLOCATED;
    }
    listenerSlot_ = engine_->allocateListener();
    engine_->addUser();
    initialized_ = true;
    return DS_OK;
}

HRESULT Device::CreateSoundBuffer(const DSBUFFERDESC* d, IDirectSoundBuffer** buffer, IUnknown* outer) {
    const bool primary = d != nullptr && (d->dwFlags & DSBCAPS_PRIMARYBUFFER) != 0;
    const HRESULT hr =
        backend_->intercept(primary ? Op::CreatePrimaryBuffer : Op::CreateSecondaryBuffer, id_);
    if (buffer == nullptr) {
        return DSERR_INVALIDPARAM;
    }
    *buffer = nullptr;
    if (FAILED(hr)) {
        return hr;
    }
    if (outer != nullptr) {
        return DSERR_NOAGGREGATION;
    }
    std::unique_lock<std::mutex> guard(mutex_);
    if (!initialized_) {
        return DSERR_UNINITIALIZED;
    }
    if (d == nullptr || (d->dwSize != DSBUFFERDESC_SIZE && d->dwSize != DSBUFFERDESC1_SIZE)) {
        return DSERR_INVALIDPARAM;
    }
    if (primary) {
        if (d->dwBufferBytes != 0 || d->lpwfxFormat != nullptr) {
            return DSERR_INVALIDPARAM;
        }
        if (primary_ != nullptr) {
            primary_->AddRef();
        } else {
            primary_ = new (std::nothrow) PrimaryBuffer(this, d->dwFlags);
            if (primary_ == nullptr) {
                return DSERR_OUTOFMEMORY;
            }
        }
        *buffer = primary_;
        return DS_OK;
    }
    if (d->lpwfxFormat == nullptr || (d->dwFlags & DSBCAPS_CTRL3D && d->dwFlags & DSBCAPS_CTRLPAN)) {
        return DSERR_INVALIDPARAM;
    }
    if (!validPcm(d->lpwfxFormat)) {
        return DSERR_BADFORMAT;
    }
    if (d->dwBufferBytes < DSBSIZE_MIN || d->dwBufferBytes > DSBSIZE_MAX ||
        d->dwBufferBytes < d->lpwfxFormat->nBlockAlign) {
        return DSERR_INVALIDPARAM;
    }
    WAVEFORMATEX format = *d->lpwfxFormat;
    format.nAvgBytesPerSec = format.nSamplesPerSec * format.nBlockAlign;
    format.cbSize = 0;
    SampleMemory* memory = SampleMemory::create(format, d->dwBufferBytes);
    if (memory == nullptr) {
        return DSERR_OUTOFMEMORY;
    }
    ConsumedTap* tap = backend_->tapConsumed() ? ConsumedTap::create(*memory) : nullptr;
    const int voice = engine_->createVoice(memory, (d->dwFlags & DSBCAPS_CTRL3D) != 0, listenerSlot_, tap);
    if (voice < 0) {
        delete tap;
        memory->unref();
        return DSERR_OUTOFMEMORY;
    }
    guard.unlock();
    *buffer = new SecondaryBuffer(this, memory, d->dwFlags, tap, voice);
    return DS_OK;
}

HRESULT Device::GetCaps(DSCAPS* caps) {
    const HRESULT hr = backend_->intercept(Op::GetCaps, id_);
    if (FAILED(hr)) {
        return hr;
    }
    if (caps == nullptr || caps->dwSize != sizeof(DSCAPS)) {
        return DSERR_INVALIDPARAM;
    }
    std::lock_guard<std::mutex> guard(mutex_);
    if (!initialized_) {
        return DSERR_UNINITIALIZED;
    }
    const DeviceCaps c = backend_->caps();
    std::memset(caps, 0, sizeof *caps);
    caps->dwSize = sizeof(DSCAPS);
    caps->dwFlags = c.flags;
    caps->dwMinSecondarySampleRate = c.minSecondaryRate;
    caps->dwMaxSecondarySampleRate = c.maxSecondaryRate;
    caps->dwPrimaryBuffers = 1;
    return DS_OK;
}

HRESULT Device::DuplicateSoundBuffer(IDirectSoundBuffer* original, IDirectSoundBuffer** duplicate) {
    const HRESULT hr = backend_->intercept(Op::DuplicateSoundBuffer, id_);
    if (duplicate == nullptr || original == nullptr) {
        return DSERR_INVALIDPARAM;
    }
    *duplicate = nullptr;
    if (FAILED(hr)) {
        return hr;
    }
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (!initialized_) {
            return DSERR_UNINITIALIZED;
        }
    }
    if (dynamic_cast<PrimaryBuffer*>(original) != nullptr) {
        return DSERR_INVALIDCALL;
    }
    SecondaryBuffer* source = dynamic_cast<SecondaryBuffer*>(original);
    if (source == nullptr) {
        return DSERR_INVALIDPARAM;
    }
    SampleMemory* memory = source->memory();
    ConsumedTap* tap = backend_->tapConsumed() ? ConsumedTap::create(*memory) : nullptr;
    const int voice =
        engine_->createVoice(memory, (source->flags() & DSBCAPS_CTRL3D) != 0, listenerSlot_, tap);
    if (voice < 0) {
        delete tap;
        return DSERR_OUTOFMEMORY;
    }
    Voice& from = source->voice();
    Voice& to = engine_->voice(voice);
    to.volume.store(from.volume.load());
    to.pan.store(from.pan.load());
    to.frequency.store(from.frequency.load());
    for (int i = 0; i < 3; ++i) {
        to.position3D[i].store(from.position3D[i].load());
    }
    to.mode3D.store(from.mode3D.load());
    memory->ref();
    *duplicate = new SecondaryBuffer(this, memory, source->flags(), tap, voice);
    return DS_OK;
}

std::unique_lock<std::mutex> Device::lockInitialized(Op op, HRESULT* hr) {
    *hr = backend_->intercept(op, id_);
    if (FAILED(*hr)) {
        return {};
    }
    std::unique_lock<std::mutex> guard(mutex_);
    if (!initialized_) {
        *hr = DSERR_UNINITIALIZED;
        return {};
    }
    return guard;
}

HRESULT Device::SetCooperativeLevel(void*, uint32_t level) {
    HRESULT hr = DS_OK;
    const std::unique_lock<std::mutex> guard = lockInitialized(Op::SetCooperativeLevel, &hr);
    if (FAILED(hr)) {
        return hr;
    }
    if (level < DSSCL_NORMAL || level > DSSCL_WRITEPRIMARY) {
        return DSERR_INVALIDPARAM;
    }
    cooperativeLevel_ = level;
    return DS_OK;
}

HRESULT Device::SetSpeakerConfig(uint32_t config) {
    HRESULT hr = DS_OK;
    const std::unique_lock<std::mutex> guard = lockInitialized(Op::SetSpeakerConfig, &hr);
    if (FAILED(hr)) {
        return hr;
    }
    const uint32_t kind = config & 0xFF;
    if (kind < DSSPEAKER_HEADPHONE || kind > 7) {
        return DSERR_INVALIDPARAM;
    }
    // Recorded; the output stays stereo whatever the configuration.
    speakerConfig_ = config;
    return DS_OK;
}

void Device::setListener(int first, int count, const float* values, bool deferred) {
    for (int i = 0; i < count; ++i) {
        listenerPending_[first + i] = values[i];
        listenerDirty_[first + i] = deferred;
        if (!deferred) {
            listenerApplied_[first + i] = values[i];
        }
    }
    if (!deferred && listenerSlot_ >= 0) {
        engine_->listener(listenerSlot_).store(listenerApplied_);
    }
}

void Device::commitLocked() {
    for (int i = 0; i < 10; ++i) {
        if (listenerDirty_[i]) {
            listenerApplied_[i] = listenerPending_[i];
            listenerDirty_[i] = false;
        }
    }
    if (listenerSlot_ >= 0) {
        engine_->listener(listenerSlot_).store(listenerApplied_);
    }
    for (SecondaryBuffer* b : buffers_) {
        b->commit3DLocked();
    }
}

void Device::info(DeviceInfo* out) {
    std::lock_guard<std::mutex> guard(mutex_);
    out->id = id_;
    out->initialized = initialized_;
    out->cooperativeLevel = cooperativeLevel_;
    out->speakerConfig = speakerConfig_;
    std::memcpy(out->listener, listenerApplied_, sizeof out->listener);
    if (primary_ != nullptr) {
        primary_->info(out);
    }
}

// ---- PrimaryBuffer ----

/// The 3D interface of a buffer: hr, the injected failure of the query, when there is one; none
/// without DSBCAPS_CTRL3D; otherwise a new object from make, its one reference the caller's.
template <class Interface, class Make>
HRESULT query3D(HRESULT hr, uint32_t flags, Make make, void** out) {
    *out = nullptr;
    if (FAILED(hr)) {
        return hr;
    }
    if ((flags & DSBCAPS_CTRL3D) == 0) {
        return E_NOINTERFACE;
    }
    Interface* object = make();
    if (object == nullptr) {
        return E_OUTOFMEMORY;
    }
    *out = object;
    return S_OK;
}

HRESULT PrimaryBuffer::QueryInterface(const IID& iid, void** out) {
    if (out != nullptr && iid == IID_IDirectSound3DListener) {
        return query3D<IDirectSound3DListener>(
            intercept(Op::QueryListener), flags_, [this] { return new (std::nothrow) Listener(this); }, out);
    }
    return queryOwn(iid, IID_IDirectSoundBuffer, out);
}

// ---- SecondaryBuffer ----

SecondaryBuffer::~SecondaryBuffer() {
    {
        std::lock_guard<std::mutex> guard(registry().mutex);
        auto& b = registry().buffers;
        b.erase(std::remove(b.begin(), b.end(), this), b.end());
    }
    {
        std::lock_guard<std::mutex> guard(device_->mutex());
        device_->removeBuffer(this);
    }
    device_->engine().releaseVoice(voice_);
    memory_->unref();
    device_->Release();
}

HRESULT SecondaryBuffer::QueryInterface(const IID& iid, void** out) {
    if (out != nullptr && iid == IID_IDirectSound3DBuffer) {
        return query3D<IDirectSound3DBuffer>(
            device_->backend()->intercept(Op::Query3DBuffer, id_), flags_,
            [this] { return new (std::nothrow) Buffer3D(this); }, out);
    }
    return queryOwn(iid, IID_IDirectSoundBuffer, out);
}

HRESULT SecondaryBuffer::GetCurrentPosition(uint32_t* play, uint32_t* write) {
    device_->backend()->sync();
    const HRESULT hr = device_->backend()->intercept(Op::GetCurrentPosition, id_);
    if (FAILED(hr)) {
        return hr;
    }
    if (lost_.load()) {
        return DSERR_BUFFERLOST;
    }
    if (play == nullptr && write == nullptr) {
        return DSERR_INVALIDPARAM;
    }
    Voice& v = voice();
    const uint64_t ctl = v.ctl.load(std::memory_order_acquire);
    const uint32_t pos = ctlPosition(ctl);
    if (play != nullptr) {
        *play = pos;
    }
    if (write != nullptr) {
        // Writing is safe a period's worth of samples ahead of what is heard.
        const bool playing = (ctl & kCtlPlaying) != 0;
        const uint64_t ahead = static_cast<uint64_t>(v.frequency.load(std::memory_order_relaxed) / 100 + 1) *
                               memory_->blockAlign;
        *write =
            playing ? static_cast<uint32_t>((pos + ahead) % (memory_->frames * memory_->blockAlign)) : pos;
    }
    return DS_OK;
}

HRESULT SecondaryBuffer::GetStatus(uint32_t* status) {
    // Only the voice's control word, without catching a simulated output up: a host may poll this
    // from any thread, and it must not wait for (or do) any mixing.
    if (status == nullptr) {
        return DSERR_INVALIDPARAM;
    }
    if (lost_.load()) {
        *status = DSBSTATUS_BUFFERLOST;
        return DS_OK;
    }
    const uint64_t ctl = voice().ctl.load(std::memory_order_acquire);
    *status =
        (ctl & kCtlPlaying) != 0 ? DSBSTATUS_PLAYING | ((ctl & kCtlLooping) != 0 ? DSBSTATUS_LOOPING : 0) : 0;
    return DS_OK;
}

HRESULT SecondaryBuffer::GetFormat(WAVEFORMATEX* format, uint32_t sizeAllocated, uint32_t* sizeWritten) {
    const HRESULT hr = device_->backend()->intercept(Op::GetFormat, id_);
    if (FAILED(hr)) {
        return hr;
    }
    if (format == nullptr && sizeWritten == nullptr) {
        return DSERR_INVALIDPARAM;
    }
    copyFormat(memory_->format, format, sizeAllocated, sizeWritten);
    return DS_OK;
}

HRESULT SecondaryBuffer::Lock(uint32_t offset, uint32_t bytes, void** ptr1, uint32_t* bytes1, void** ptr2,
                              uint32_t* bytes2, uint32_t flags) {
    device_->backend()->sync();
    const HRESULT hr = device_->backend()->intercept(Op::Lock, id_);
    if (ptr1 == nullptr || bytes1 == nullptr) {
        return DSERR_INVALIDPARAM;
    }
    clearLocked(ptr1, bytes1, ptr2, bytes2);
    if (FAILED(hr)) {
        return hr;
    }
    if (lost_.load()) {
        return DSERR_BUFFERLOST;
    }
    const uint32_t size = memory_->bytes;
    if (flags != 0 || offset >= size || bytes == 0 || bytes > size) {
        return DSERR_INVALIDPARAM;
    }
    const uint32_t first = std::min(bytes, size - offset);
    if (first < bytes && (ptr2 == nullptr || bytes2 == nullptr)) {
        return DSERR_INVALIDPARAM;
    }
    *ptr1 = memory_->raw + offset;
    *bytes1 = first;
    if (first < bytes) {
        *ptr2 = memory_->raw;
        *bytes2 = bytes - first;
    }
    return DS_OK;
}

HRESULT SecondaryBuffer::Unlock(void* ptr1, uint32_t bytes1, void* ptr2, uint32_t bytes2) {
    const HRESULT hr = device_->backend()->intercept(Op::Unlock, id_);
    if (FAILED(hr)) {
        return hr;
    }
    const uint8_t* raw = memory_->raw;
    const uint32_t size = memory_->bytes;
    auto inside = [&](const void* p, uint32_t n) {
        const uint8_t* b = static_cast<const uint8_t*>(p);
        return b >= raw && b <= raw + size && n <= static_cast<uint32_t>(raw + size - b);
    };
    if (ptr1 == nullptr || !inside(ptr1, bytes1) || (ptr2 != nullptr && !inside(ptr2, bytes2))) {
        return DSERR_INVALIDPARAM;
    }
    memory_->commit(static_cast<uint32_t>(static_cast<const uint8_t*>(ptr1) - raw), bytes1);
    if (ptr2 != nullptr) {
        memory_->commit(static_cast<uint32_t>(static_cast<const uint8_t*>(ptr2) - raw), bytes2);
    }
    return DS_OK;
}

void SecondaryBuffer::setPlayBits(bool looping, bool stopOnly) {
    std::atomic<uint64_t>& word = voice().ctl;
    uint64_t cur = word.load(std::memory_order_acquire);
    for (;;) {
        uint64_t flags;
        if (stopOnly) {
            if ((cur & kCtlPlaying) == 0) {
                return;
            }
            flags = cur & kCtlLooping;  // a stop keeps the looping flag it had
        } else {
            flags = kCtlPlaying | (looping ? kCtlLooping : 0);
            if ((cur & (kCtlPlaying | kCtlLooping)) == flags) {
                return;  // already playing so: the mixing thread goes on undisturbed
            }
        }
        if (word.compare_exchange_weak(cur, ctlNext(cur, ctlPosition(cur), flags),
                                       std::memory_order_acq_rel)) {
            return;
        }
    }
}

HRESULT SecondaryBuffer::playable() {
    device_->backend()->sync();
    const HRESULT hr = device_->backend()->intercept(Op::Play, id_);
    if (FAILED(hr)) {
        return hr;
    }
    return lost_.load() ? DSERR_BUFFERLOST : DS_OK;
}

HRESULT SecondaryBuffer::Play(uint32_t reserved, uint32_t, uint32_t flags) {
    const HRESULT hr = playable();
    if (FAILED(hr)) {
        return hr;
    }
    if (reserved != 0) {
        return DSERR_INVALIDPARAM;
    }
    if ((voice().ctl.load(std::memory_order_acquire) & kCtlPlaying) == 0) {
        // A stopped buffer starts at once; one that waits for its timed start keeps waiting.
        voice().startMicros.store(kNoStart, std::memory_order_release);
    }
    setPlayBits((flags & DSBPLAY_LOOPING) != 0, false);
    return DS_OK;
}

HRESULT SecondaryBuffer::PlayAt(uint32_t flags, int64_t clockMicros) {
    const HRESULT hr = playable();
    if (FAILED(hr)) {
        return hr;
    }
    if ((voice().ctl.load(std::memory_order_acquire) & kCtlPlaying) == 0) {
        // Stored before the playing bit, which publishes it to the mixing thread.
        voice().startMicros.store(clockMicros, std::memory_order_release);
    }
    setPlayBits((flags & DSBPLAY_LOOPING) != 0, false);
    return DS_OK;
}

HRESULT SecondaryBuffer::Stop() {
    device_->backend()->sync();
    const HRESULT hr = device_->backend()->intercept(Op::Stop, id_);
    if (FAILED(hr)) {
        return hr;
    }
    setPlayBits(false, true);
    return DS_OK;
}

HRESULT SecondaryBuffer::SetCurrentPosition(uint32_t position) {
    device_->backend()->sync();
    const HRESULT hr = device_->backend()->intercept(Op::SetCurrentPosition, id_);
    if (FAILED(hr)) {
        return hr;
    }
    if (position >= memory_->bytes) {
        return DSERR_INVALIDPARAM;
    }
    position -= position % memory_->blockAlign;
    if (position >= memory_->frames * memory_->blockAlign) {
        position = 0;  // inside the partial frame at the end: the next frame is the first
    }
    std::atomic<uint64_t>& word = voice().ctl;
    uint64_t cur = word.load(std::memory_order_acquire);
    while (!word.compare_exchange_weak(cur, ctlNext(cur, position, cur & (kCtlPlaying | kCtlLooping)),
                                       std::memory_order_acq_rel)) {
    }
    return DS_OK;
}

template <class T>
HRESULT SecondaryBuffer::setControl(Op op, uint32_t control, T value, T lowest, T highest,
                                    std::atomic<T>& field) {
    const HRESULT hr = device_->backend()->intercept(op, id_);
    if (FAILED(hr)) {
        return hr;
    }
    if ((flags_ & control) == 0) {
        return DSERR_CONTROLUNAVAIL;
    }
    if (value < lowest || value > highest) {
        return DSERR_INVALIDPARAM;
    }
    field.store(value, std::memory_order_release);
    return DS_OK;
}

HRESULT SecondaryBuffer::SetVolume(int32_t volume) {
    return setControl(Op::SetVolume, DSBCAPS_CTRLVOLUME, volume, DSBVOLUME_MIN, DSBVOLUME_MAX,
                      voice().volume);
}

HRESULT SecondaryBuffer::SetPan(int32_t pan) {
    return setControl(Op::SetPan, DSBCAPS_CTRLPAN, pan, DSBPAN_LEFT, DSBPAN_RIGHT, voice().pan);
}

HRESULT SecondaryBuffer::SetFrequency(uint32_t frequency) {
    if (frequency == DSBFREQUENCY_ORIGINAL) {
        frequency = memory_->format.nSamplesPerSec;
    }
    return setControl(Op::SetFrequency, DSBCAPS_CTRLFREQUENCY, frequency, DSBFREQUENCY_MIN, DSBFREQUENCY_MAX,
                      voice().frequency);
}

void SecondaryBuffer::set3DPosition(const float* xyz, bool deferred) {
    std::memcpy(pendingPosition_, xyz, sizeof pendingPosition_);
    pendingPositionDirty_ = deferred;
    if (!deferred) {
        std::memcpy(appliedPosition_, xyz, sizeof appliedPosition_);
        for (int i = 0; i < 3; ++i) {
            voice().position3D[i].store(floatBits(xyz[i]), std::memory_order_release);
        }
    }
}

void SecondaryBuffer::set3DMode(uint32_t mode, bool deferred) {
    pendingMode_ = mode;
    pendingModeDirty_ = deferred;
    if (!deferred) {
        appliedMode_ = mode;
        voice().mode3D.store(mode, std::memory_order_release);
    }
}

void SecondaryBuffer::commit3DLocked() {
    if (pendingPositionDirty_) {
        set3DPosition(pendingPosition_, false);
    }
    if (pendingModeDirty_) {
        set3DMode(pendingMode_, false);
    }
}

void SecondaryBuffer::info(BufferInfo* out) {
    Voice& v = voice();
    out->id = id_;
    out->flags = flags_;
    out->format = memory_->format;
    out->bytes = memory_->bytes;
    out->memory = memory_;
    out->volume = v.volume.load();
    out->pan = v.pan.load();
    out->frequency = v.frequency.load();
    const uint64_t ctl = v.ctl.load();
    out->playing = (ctl & kCtlPlaying) != 0;
    out->looping = (ctl & kCtlLooping) != 0;
    out->position = ctlPosition(ctl);
    out->lost = lost_.load();
    std::lock_guard<std::mutex> guard(device_->mutex());
    std::memcpy(out->position3D, appliedPosition_, sizeof out->position3D);
    out->mode3D = appliedMode_;
}

class DeviceFactory final : public ClassFactory {
  protected:
    HRESULT createObject(const IID& iid, void** out) override {
        return handOut(new (std::nothrow) Device(currentBackend()), iid, out);
    }
};

struct MixSourceEntry {
    MixSource* source;
    std::shared_ptr<Engine> engine;
};

std::mutex gSourcesMutex;
std::vector<MixSourceEntry>& mixSources() {
    static std::vector<MixSourceEntry>* s = new std::vector<MixSourceEntry>();
    return *s;
}

bool sameName(const char* a, const char* b) {
    for (; *a != '\0' && *b != '\0'; ++a, ++b) {
        if (std::tolower(static_cast<unsigned char>(*a)) != std::tolower(static_cast<unsigned char>(*b))) {
            return false;
        }
    }
    return *a == *b;
}

struct SoundModuleToken {
    int unused;
};
SoundModuleToken gModule;

// The device class is in the registry from the library's load on.
[[maybe_unused]] const bool gClassRegistered = (registerDeviceClass(), true);

}  // namespace

const char* opName(Op op) {
    const size_t i = static_cast<size_t>(op);
    return i < static_cast<size_t>(Op::Count) ? kOpNames[i] : "";
}

void registerDeviceClass() {
    if (isClassRegistered(CLSID_DirectSound)) {
        return;
    }
    registerFactory<DeviceFactory>(CLSID_DirectSound);
}

bool describeBuffer(IDirectSoundBuffer* buffer, BufferInfo* info) {
    SecondaryBuffer* b = dynamic_cast<SecondaryBuffer*>(buffer);
    if (b == nullptr || info == nullptr) {
        return false;
    }
    b->info(info);
    return true;
}

std::vector<uint8_t> consumedBytes(IDirectSoundBuffer* buffer) {
    SecondaryBuffer* b = dynamic_cast<SecondaryBuffer*>(buffer);
    if (b == nullptr || b->tap() == nullptr) {
        return {};
    }
    return b->tap()->bytes();
}

void clearConsumedBytes(IDirectSoundBuffer* buffer) {
    SecondaryBuffer* b = dynamic_cast<SecondaryBuffer*>(buffer);
    if (b != nullptr && b->tap() != nullptr) {
        b->tap()->clear();
    }
}

int liveBuffers(const Backend* backend) {
    std::lock_guard<std::mutex> guard(registry().mutex);
    int n = 0;
    for (SecondaryBuffer* b : registry().buffers) {
        n += b->device()->backend() == backend ? 1 : 0;
    }
    return n;
}

std::vector<DeviceInfo> liveDevices(const Backend* backend) {
    std::vector<Device*> devices;
    {
        std::lock_guard<std::mutex> guard(registry().mutex);
        for (Device* d : registry().devices) {
            if (d->backend() == backend) {
                d->AddRef();
                devices.push_back(d);
            }
        }
    }
    std::vector<DeviceInfo> out;
    for (Device* d : devices) {
        DeviceInfo info;
        d->info(&info);
        out.push_back(info);
        d->Release();
    }
    return out;
}

void loseBuffers(const Backend* backend) {
    std::lock_guard<std::mutex> guard(registry().mutex);
    for (SecondaryBuffer* b : registry().buffers) {
        if (b->device()->backend() == backend) {
            b->lose();
        }
    }
}

int loadedLibraries() {
    return gLibraries.load();
}

}  // namespace sound

using sound::Op;

HRESULT DirectSoundCreate(const GUID* device, IDirectSound** out, IUnknown* outer) {
    std::shared_ptr<sound::Backend> backend = sound::currentBackend();
    const HRESULT hr = backend->intercept(Op::DirectSoundCreate, 0);
    if (out == nullptr) {
        return DSERR_INVALIDPARAM;
    }
    *out = nullptr;
    if (FAILED(hr)) {
        return hr;
    }
    if (outer != nullptr) {
        return DSERR_NOAGGREGATION;
    }
    sound::Device* d = new (std::nothrow) sound::Device(backend);
    if (d == nullptr) {
        return DSERR_OUTOFMEMORY;
    }
    const HRESULT bound = d->bind(device);
    if (FAILED(bound)) {
        d->Release();
        return bound;
    }
    *out = d;
    return DS_OK;
}

HRESULT DirectSoundEnumerateA(LPDSENUMCALLBACKA callback, void* context) {
    std::shared_ptr<sound::Backend> backend = sound::currentBackend();
    const HRESULT hr = backend->intercept(Op::Enumerate, 0);
    if (FAILED(hr)) {
        return hr;
    }
    if (callback == nullptr) {
        return DSERR_INVALIDPARAM;
    }
    if (callback(nullptr, "Primary Sound Driver", "", context) == 0) {
        return DS_OK;
    }
    const std::vector<std::string> devices = backend->deviceDescriptions();
    for (size_t i = 0; i < devices.size(); ++i) {
        GUID guid = sound::deviceGuid(static_cast<uint16_t>(i));
        if (callback(&guid, devices[i].c_str(), "lorvex", context) == 0) {
            break;
        }
    }
    return DS_OK;
}

HSOUNDMODULE LoadSoundLibrary(const char* name) {
    std::shared_ptr<sound::Backend> backend = sound::currentBackend();
    if (FAILED(backend->intercept(Op::LoadLibrary, 0)) || name == nullptr || !backend->libraryPresent() ||
        !(sound::sameName(name, "DSOUND.DLL") || sound::sameName(name, "DSOUND"))) {
        return nullptr;
    }
    sound::gLibraries.fetch_add(1);
    return reinterpret_cast<HSOUNDMODULE>(&sound::gModule);
}

void* GetSoundProcAddress(HSOUNDMODULE module, const char* name) {
    if (module == nullptr || name == nullptr) {
        return nullptr;
    }
    std::shared_ptr<sound::Backend> backend = sound::currentBackend();
    if (std::strcmp(name, "DirectSoundCreate") == 0) {
        return FAILED(backend->intercept(Op::GetDirectSoundCreate, 0))
                   ? nullptr
                   : reinterpret_cast<void*>(&DirectSoundCreate);
    }
    if (std::strcmp(name, "DirectSoundEnumerateA") == 0) {
        return FAILED(backend->intercept(Op::GetDirectSoundEnumerate, 0))
                   ? nullptr
                   : reinterpret_cast<void*>(&DirectSoundEnumerateA);
    }
    return nullptr;
}

void FreeSoundLibrary(HSOUNDMODULE module) {
    if (module != nullptr) {
        sound::gLibraries.fetch_sub(1);
    }
}

bool addMixSource(MixSource* source) {
    if (source == nullptr) {
        return false;
    }
    std::lock_guard<std::mutex> guard(sound::gSourcesMutex);
    for (const sound::MixSourceEntry& e : sound::mixSources()) {
        if (e.source == source) {
            return false;
        }
    }
    std::shared_ptr<sound::Engine> engine = sound::currentBackend()->engine();
    if (!engine->addSource(source)) {
        return false;
    }
    engine->addUser();
    sound::mixSources().push_back({source, engine});
    return true;
}

void removeMixSource(MixSource* source) {
    std::lock_guard<std::mutex> guard(sound::gSourcesMutex);
    auto& list = sound::mixSources();
    for (auto it = list.begin(); it != list.end(); ++it) {
        if (it->source == source) {
            it->engine->removeSource(source);
            it->engine->removeUser();
            list.erase(it);
            return;
        }
    }
}

}  // namespace lxp
