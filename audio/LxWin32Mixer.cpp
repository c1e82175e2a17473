// LxWin32Mixer: the port table, opening, duplicating and closing ports, their sound buffers,
// channel acquire and release, play and stop.
#include "LxWin32Mixer.h"

#include "LxLog.h"
#include "LxResult.h"
#include "audio/LxWin32MixerInternal.h"
#include "platform/clock/LxpClock.h"
#include "platform/sound/LxpSound.h"

#include <cmath>
#include <cstring>
#include <new>

using lxmixer::Hold;
using namespace lxp;

namespace {

/// The device, and the listener where there is one, each with a reference taken under the mixer
/// lock so that a buffer can be made and set up outside it; both are let go at the end of the scope.
struct DeviceRefs {
    IDirectSound* ds = nullptr;
    IDirectSound3DListener* lis = nullptr;

    DeviceRefs() = default;
    DeviceRefs(const DeviceRefs&) = delete;
    DeviceRefs& operator=(const DeviceRefs&) = delete;
    ~DeviceRefs() {
        if (lis != nullptr) {
            lis->Release();
        }
        if (ds != nullptr) {
            ds->Release();
        }
    }
    /// Mixer lock held.
    void take(IDirectSound* device, IDirectSound3DListener* listener) {
        ds = device;
        ds->AddRef();
        if (listener != nullptr) {
            lis = listener;
            lis->AddRef();
        }
    }
    void commitDeferred() const {
        if (lis != nullptr) {
            lis->CommitDeferredSettings();
        }
    }
};

/// The 3D interface of a secondary buffer, or null (with a debug line naming which buffer).
IDirectSound3DBuffer* query3D(IDirectSoundBuffer* sb, const char* which) {
    IDirectSound3DBuffer* b3 = nullptr;
    if (FAILED(sb->QueryInterface(IID_IDirectSound3DBuffer, reinterpret_cast<void**>(&b3))) ||
        b3 == nullptr) {
        LxLog::postDebug("LxWin32Mixer:  Failed to get the 3D interface to %s\n", which);
        return nullptr;
    }
    return b3;
}

void place3D(IDirectSound3DBuffer* b3, const LxWin32AudioPortData* rec, uint32_t apply) {
    b3->SetPosition(rec->location[0], rec->location[1], rec->location[2], apply);
}

void mode3D(IDirectSound3DBuffer* b3, const LxWin32AudioPortData* rec, uint32_t apply) {
    b3->SetMode(rec->spatialize ? DS3DMODE_NORMAL : DS3DMODE_DISABLE, apply);
}

/// Takes the record's buffers off it under the mixer lock (with whatever else alsoLocked does
/// there), then stops and lets them go outside it.
template <class AlsoLocked>
void dropBuffers(KtMutex* mutex, LxWin32AudioPortData* rec, AlsoLocked alsoLocked) {
    IDirectSound3DBuffer* b3;
    IDirectSoundBuffer* sb;
    {
        Hold m(mutex);
        b3 = rec->buffer3D;
        sb = rec->soundBuffer;
        rec->buffer3D = nullptr;
        rec->soundBuffer = nullptr;
        alsoLocked();
    }
    if (b3 != nullptr) {
        b3->Release();
    }
    if (sb != nullptr) {
        sb->Stop();
        sb->Release();
    }
}

/// A new record for config in a slot reserve() hands out: LX_OK, LX_ERR_OUT_OF_MEMORY, or
/// LX_ERR_GENERIC when no slot is free. Mixer lock held.
template <class Reserve>
long newRecord(const LxWin32AudioPortConfig& config, Reserve reserve, LxWin32AudioPortData** rec, short* n) {
    *rec = new (std::nothrow) LxWin32AudioPortData(config);
    if (*rec == nullptr) {
        return LX_ERR_OUT_OF_MEMORY;
    }
    *n = reserve();
    if (*n < 0) {
        delete *rec;
        *rec = nullptr;
        return LX_ERR_GENERIC;
    }
    return LX_OK;
}

}  // namespace

LxWin32Mixer::LxWin32Mixer()
    : state(UNINITIALIZED),
      audibleMode(LxAudibleAlways),
      mutex(KtMutex::create()),
      window(nullptr),
      spatializeSounds(1),
      speakerConfig(),
      directSound(nullptr),
      has3D(0),
      soundLibrary(nullptr),
      primaryBuffer(nullptr),
      listener(nullptr),
      listenerPosition{0, 0, 0},
      listenerFront{0, 0, 0},
      listenerTop{0, 0, 0},
      primaryFormat(new WAVEFORMATEX()),
      deviceLock(KtMutex::create()),
      comInits(0) {
    std::memset(primaryFormat, 0, sizeof *primaryFormat);
    for (int i = 0; i < LX_MAX_PORTS; ++i) {
        ports[i] = nullptr;
        portLocks[i].store(nullptr, std::memory_order_relaxed);
        reserved[i] = false;
    }
}

LxWin32Mixer::~LxWin32Mixer() {
    bool anyPort = false;
    {
        Hold m(mutex);
        for (int i = 0; i < LX_MAX_PORTS && !anyPort; ++i) {
            anyPort = ports[i] != nullptr;
        }
        anyPort = anyPort || directSound != nullptr || primaryBuffer != nullptr;
    }
    if (anyPort) {
        closeDirectSound(1);
    }
    delete primaryFormat;
    for (auto& l : portLocks) {
        delete l.load();
    }
    delete mutex;
    delete deviceLock;
    if (soundLibrary != nullptr) {
        FreeSoundLibrary(soundLibrary);
    }
}

void LxWin32Mixer::lock() {
    mutex->lock();
}
void LxWin32Mixer::unlock() {
    mutex->unlock();
}

KtMutex* LxWin32Mixer::slotLock(short port) {
    if (port < 0 || port >= LX_MAX_PORTS) {
        return nullptr;
    }
    return portLocks[port].load(std::memory_order_acquire);
}

LxWin32AudioPortData* LxWin32Mixer::record(short port) {
    return port >= 0 && port < LX_MAX_PORTS ? ports[port].load() : nullptr;
}

long LxWin32Mixer::readyRecord(bool slotHeld, short port, LxWin32AudioPortData** rec) {
    *rec = nullptr;
    if (state.load() != READY) {
        return LX_ERR_MIXER_NOT_READY;
    }
    *rec = slotHeld ? record(port) : nullptr;
    return *rec != nullptr ? LX_OK : LX_ERR_NO_PORT;
}

long LxWin32Mixer::openRecord(bool slotHeld, short port, LxWin32AudioPortData** rec) {
    *rec = nullptr;
    if (state.load() == CLOSED) {
        return LX_ERR_MIXER_STATE;
    }
    *rec = slotHeld ? record(port) : nullptr;
    return *rec != nullptr ? LX_OK : LX_ERR_NO_PORT;
}

long LxWin32Mixer::channelRecord(bool slotHeld, short port, LxWin32AudioPortData** rec) {
    const long ready = readyRecord(slotHeld, port, rec);
    if (ready == LX_OK && (*rec)->noChannel) {
        *rec = nullptr;
        return LX_ERR_NO_PORT;
    }
    return ready;
}

short LxWin32Mixer::reserveSlotLocked() {
    for (short n = 0; n < LX_MAX_PORTS; ++n) {
        if (ports[n] == nullptr && !reserved[n]) {
            if (portLocks[n].load(std::memory_order_relaxed) == nullptr) {
                portLocks[n].store(KtMutex::create(), std::memory_order_release);
            }
            reserved[n] = true;
            return n;
        }
    }
    return -1;
}

bool LxWin32Mixer::storeReserved(short port, LxWin32AudioPortData* rec) {
    Hold m(mutex);
    reserved[port] = false;
    if (state.load() == CLOSED) {
        return false;  // the mixer was closed for good while the slot was being taken
    }
    ports[port] = rec;
    return true;
}

void LxWin32Mixer::destroyRecord(short port, LxWin32AudioPortData* rec) {
    dropBuffers(mutex, rec, [this, port, rec] {
        if (ports[port] == rec) {
            ports[port] = nullptr;
        }
    });
    delete rec;
}

long LxWin32Mixer::openPort(LxWin32AudioPortConfig* config, short& portNumber) {
    portNumber = -1;
    short n;
    LxWin32AudioPortData* rec;
    {
        Hold m(mutex);
        if (state.load() == CLOSED) {
            return LX_ERR_MIXER_STATE;
        }
        if (config == nullptr) {
            return LX_ERR_GENERIC;
        }
        const long made = newRecord(
            *config, [this] { return reserveSlotLocked(); }, &rec, &n);
        if (made != LX_OK) {
            return made;
        }
    }
    // The slot's lock is taken only now, with the mixer lock let go (slot before mixer, always).
    Hold slot(slotLock(n));
    if (!storeReserved(n, rec)) {
        delete rec;
        return LX_ERR_MIXER_STATE;
    }
    portNumber = n;
    rec->masterPort = LX_PORT_OWNS_BUFFER;
    if (initSecondarySoundBuffer(rec) == 1) {
        adjustPrimaryBuffer(rec);
    }
    return LX_OK;
}

long LxWin32Mixer::duplicatePort(short port, short& newPort) {
    newPort = -1;
    Hold source(slotLock(port));
    short n;
    LxWin32AudioPortData* src;
    LxWin32AudioPortData* rec;
    {
        Hold m(mutex);
        if (state.load() == CLOSED) {
            return LX_ERR_MIXER_STATE;
        }
        src = source.valid() ? record(port) : nullptr;
        if (src == nullptr || src->soundBuffer == nullptr) {
            return LX_ERR_GENERIC;
        }
        LxWin32AudioPortConfig config(src->channels, src->format, src->rate, src->bufferSize,
                                      src->isStreaming, src->isResident);
        const long made = newRecord(
            config, [this] { return reserveSlotLocked(); }, &rec, &n);
        if (made != LX_OK) {
            return made;
        }
        LxLog::postDebug("LxWin32Mixer:  Opening port %d\n", n);
    }
    // The new record is made complete before it enters the table, so no second slot lock is
    // ever held together with the source's.
    const long r = duplicateInto(src, rec);
    IDirectSound3DBuffer* b3 = nullptr;
    IDirectSoundBuffer* sb = nullptr;
    bool closed = false;
    {
        Hold m(mutex);
        reserved[n] = false;
        closed = state.load() == CLOSED;
        if (state.load() != READY) {
            // The device went down meanwhile: the port keeps no buffer, as after a release.
            b3 = rec->buffer3D;
            sb = rec->soundBuffer;
            rec->buffer3D = nullptr;
            rec->soundBuffer = nullptr;
        }
        if (!closed) {
            rec->masterPort = port;
            ports[n] = rec;
            for (int16_t& d : src->duplicates) {
                if (d == LX_NO_DUPLICATE) {
                    d = n;
                    break;
                }
            }
        }
    }
    if (b3 != nullptr) {
        b3->Release();
    }
    if (sb != nullptr) {
        sb->Release();
    }
    if (closed) {
        delete rec;
        return LX_ERR_MIXER_STATE;
    }
    newPort = n;
    return r;
}

long LxWin32Mixer::closePort(short port) {
    Hold slot(slotLock(port));
    LxWin32AudioPortData* rec = slot.valid() ? record(port) : nullptr;
    if (state.load() == CLOSED || rec == nullptr) {
        return LX_OK;
    }
    // Duplicates of this port keep their own buffers; a closed duplicate stays in its master's
    // list (group operations skip it).
    destroyRecord(port, rec);
    return LX_OK;
}

long LxWin32Mixer::acquireChannel(short port) {
    Hold slot(slotLock(port));
    LxWin32AudioPortData* rec = nullptr;
    const long open = openRecord(slot.valid(), port, &rec);
    if (open != LX_OK) {
        return open;
    }
    rec->noChannel = 0;
    if (rec->soundBuffer != nullptr) {
        // The buffer outlived a revocation, or was made before the grant: what the scene set
        // meanwhile (gain, pan, tempo, location, spatialisation) was only stored, and must be
        // heard from the first sample the channel plays.
        applyStoredSettings(rec);
        if (rec->isResident && rec->looping) {
            rec->soundBuffer->Play(0, 0, DSBPLAY_LOOPING);
        }
        return LX_OK;
    }
    const long r = initSecondarySoundBuffer(rec);
    if (r != 1) {
        LxLog::postDebug("LxWin32Mixer: could not init secondary sound buffer\n");
        return r;
    }
    adjustPrimaryBuffer(rec);
    return LX_OK;
}

long LxWin32Mixer::releaseChannel(short port, char destroy) {
    Hold slot(slotLock(port));
    LxWin32AudioPortData* rec = nullptr;
    const long open = openRecord(slot.valid(), port, &rec);
    if (open != LX_OK) {
        return open;
    }
    rec->noChannel = 1;
    if (destroy) {
        dropBuffers(mutex, rec, [] {});
    } else if (rec->soundBuffer != nullptr) {
        stopPort(port, 0);  // the loop flag survives, so a looping resident clip resumes
    }
    rec->playing.store(0);
    rec->needsReset = 1;
    return LX_OK;
}

long LxWin32Mixer::playPort(short port, char loop) {
    return playPortFrom(port, loop, -1);
}

long LxWin32Mixer::playPortFrom(short port, char loop, long position) {
    Hold slot(slotLock(port));
    if (state.load() != READY) {
        return LX_ERR_MIXER_NOT_READY;
    }
    LxWin32AudioPortData* rec = slot.valid() ? record(port) : nullptr;
    if (rec == nullptr || rec->noChannel || rec->soundBuffer == nullptr) {
        return LX_ERR_NO_PORT;
    }
    if (position >= 0) {
        const long frame = rec->bytesPerFrame > 0 ? rec->bytesPerFrame : 1;
        rec->soundBuffer->SetCurrentPosition(static_cast<uint32_t>(position - position % frame));
    } else if (!rec->playing.load()) {
        rec->soundBuffer->SetCurrentPosition(0);
    }
    const uint32_t flags = loop ? DSBPLAY_LOOPING : 0;
    const int64_t at = rec->startAt;
    rec->startAt = 0;
    if (FAILED(at != 0 ? rec->soundBuffer->PlayAt(flags, at) : rec->soundBuffer->Play(0, 0, flags))) {
        LxLog::postDebug("LxWin32Mixer:  Failed to play buffer port %d\n", port);
    }
    rec->playing.store(1);
    rec->looping = loop;
    return LX_OK;
}

char LxWin32Mixer::isPortSounding(short port) {
    // Under the mixer lock alone, which nobody holds for long: a streaming write may hold the slot
    // lock, and a host asking this must not wait for it.
    IDirectSoundBuffer* buffer = nullptr;
    {
        Hold m(mutex);
        LxWin32AudioPortData* rec = record(port);
        if (state.load() != READY || rec == nullptr || rec->soundBuffer == nullptr) {
            return 0;
        }
        buffer = rec->soundBuffer;
        buffer->AddRef();
    }
    uint32_t status = 0;
    const bool playing = SUCCEEDED(buffer->GetStatus(&status)) && (status & DSBSTATUS_PLAYING) != 0;
    buffer->Release();
    return playing ? 1 : 0;
}

void LxWin32Mixer::stopPort(short port, char clearLoop) {
    Hold slot(slotLock(port));
    LxWin32AudioPortData* rec = slot.valid() ? record(port) : nullptr;
    if (state.load() != READY || rec == nullptr) {
        return;
    }
    if (clearLoop) {
        rec->looping = 0;
    }
    rec->startAt = 0;
    if (rec->soundBuffer != nullptr) {
        rec->soundBuffer->Stop();
    }
    rec->playing.store(0);
    rec->needsReset = 1;
}

int LxWin32Mixer::groupBuffers(LxWin32AudioPortData* rec, IDirectSoundBuffer** out, short* numbers) {
    Hold m(mutex);
    short self = -1;
    for (short n = 0; n < LX_MAX_PORTS; ++n) {
        if (ports[n] == rec) {
            self = n;
            break;
        }
    }
    const short masterNo = rec->masterPort == LX_PORT_OWNS_BUFFER ? self : rec->masterPort;
    LxWin32AudioPortData* master = record(masterNo);
    bool listed = masterNo == self;
    for (int i = 0; master != nullptr && !listed && i < LX_MAX_DUPLICATES; ++i) {
        listed = master->duplicates[i] == self;
    }
    int count = 0;
    auto add = [&](LxWin32AudioPortData* r, short number) {
        if (r->soundBuffer != nullptr) {
            r->soundBuffer->AddRef();
            out[count] = r->soundBuffer;
            numbers[count] = number;
            ++count;
        }
    };
    if (master == nullptr || !listed) {
        // The master is gone (or its number now belongs to another port): the port acts alone.
        add(rec, self);
        return count;
    }
    add(master, masterNo);
    for (int i = 0; i < LX_MAX_DUPLICATES && master->duplicates[i] != LX_NO_DUPLICATE; ++i) {
        const short d = master->duplicates[i];
        LxWin32AudioPortData* dup = record(d);
        // A listed port that was closed, or whose number went to an unrelated port, is skipped.
        if (dup != nullptr && dup->masterPort == masterNo) {
            add(dup, d);
        }
    }
    return count;
}

long LxWin32Mixer::playAllPorts(LxWin32AudioPortData* rec) {
    IDirectSoundBuffer* buffers[1 + LX_MAX_DUPLICATES];
    short numbers[1 + LX_MAX_DUPLICATES];
    const int n = groupBuffers(rec, buffers, numbers);
    // The port written through decides when the group is heard; the others' own start times go.
    const int64_t at = rec->startAt;
    {
        Hold m(mutex);
        for (int i = 0; i < n; ++i) {
            LxWin32AudioPortData* r = record(numbers[i]);
            if (r != nullptr) {
                r->playing.store(1);
                r->startAt = 0;
            }
        }
        rec->startAt = 0;
    }
    for (int i = 0; i < n; ++i) {
        if (i > 0) {
            LxLog::postDebug("LxWin32Mixer:  starting port %d\n", numbers[i]);
        }
        if (at != 0) {
            buffers[i]->PlayAt(DSBPLAY_LOOPING, at);
        } else {
            buffers[i]->Play(0, 0, DSBPLAY_LOOPING);
        }
        buffers[i]->Release();
    }
    return LX_OK;
}

long LxWin32Mixer::scheduleStart(short port, double seconds) {
    Hold slot(slotLock(port));
    LxWin32AudioPortData* rec = nullptr;
    const long ready = readyRecord(slot.valid(), port, &rec);
    if (ready != LX_OK) {
        return ready;
    }
    rec->startAt = seconds > 0.0 ? lxp::clockMicros() + static_cast<int64_t>(std::llround(seconds * 1e6)) : 0;
    return LX_OK;
}

long LxWin32Mixer::setPositionAllPorts(LxWin32AudioPortData* rec, uint32_t position) {
    IDirectSoundBuffer* buffers[1 + LX_MAX_DUPLICATES];
    short numbers[1 + LX_MAX_DUPLICATES];
    const int n = groupBuffers(rec, buffers, numbers);
    for (int i = 0; i < n; ++i) {
        buffers[i]->SetCurrentPosition(position);
        buffers[i]->Release();
    }
    return LX_OK;
}

long LxWin32Mixer::initSecondarySoundBuffer(LxWin32AudioPortData* rec) {
    DeviceRefs refs;
    bool spatial = false;
    uint32_t flags = DSBCAPS_CTRLFREQUENCY | DSBCAPS_CTRLVOLUME;
    {
        Hold m(mutex);
        if (state.load() != READY) {
            return LX_ERR_MIXER_NOT_READY;
        }
        if (rec->soundBuffer != nullptr) {
            return LX_OK;
        }
        if (audibleMode == LxAudibleInBackground || audibleMode == LxAudibleAlways) {
            flags |= DSBCAPS_GLOBALFOCUS;
        }
        spatial = has3D && spatializeSounds;
        flags |= spatial ? DSBCAPS_CTRL3D : DSBCAPS_CTRLPAN;
        refs.take(directSound, spatial ? listener : nullptr);
    }
    WAVEFORMATEX wf;
    wf.wFormatTag = WAVE_FORMAT_PCM;
    wf.nChannels = rec->channels != LxMono ? 2 : 1;
    wf.wBitsPerSample = rec->format != LxSample8 ? 16 : 8;
    wf.nSamplesPerSec = lxmixer::wholeRate(rec->rate);
    wf.nBlockAlign = static_cast<uint16_t>(wf.wBitsPerSample / 8 * wf.nChannels);
    wf.nAvgBytesPerSec = wf.nBlockAlign * wf.nSamplesPerSec;
    wf.cbSize = 0;
    rec->bytesPerSecond = static_cast<int32_t>(wf.nAvgBytesPerSec);

    DSBUFFERDESC d;
    std::memset(&d, 0, sizeof d);
    d.dwSize = DSBUFFERDESC_SIZE;
    d.dwFlags = flags;
    d.dwBufferBytes = static_cast<uint32_t>(rec->bufferSize);
    d.lpwfxFormat = &wf;
    IDirectSoundBuffer* sb = nullptr;
    if (FAILED(refs.ds->CreateSoundBuffer(&d, &sb, nullptr)) || sb == nullptr) {
        LxLog::postDebug("LxWin32Mixer:  Failed to create a secondary buffer\n");
        return LX_ERR_SECONDARY_BUFFER;
    }
    {
        Hold m(mutex);
        rec->soundBuffer = sb;
    }
    sb->SetVolume(rec->volume);
    sb->SetPan(rec->panValue);
    // A tempo of 0 or below gives 0, which the device takes as the buffer's own rate.
    if (FAILED(sb->SetFrequency(lxmixer::frequencyOf(static_cast<double>(rec->tempo * rec->rate))))) {
        LxLog::postDebug("LxWin32Mixer:  failed to setFrequency\n");
    }
    if (!spatial) {
        return LX_OK;
    }
    IDirectSound3DBuffer* b3 = query3D(sb, "secondary buffer");
    if (b3 == nullptr) {
        return LX_ERR_NO_3D_BUFFER;
    }
    {
        Hold m(mutex);
        rec->buffer3D = b3;
    }
    place3D(b3, rec, DS3D_DEFERRED);
    mode3D(b3, rec, DS3D_DEFERRED);
    refs.commitDeferred();
    return LX_OK;
}

void LxWin32Mixer::applyStoredSettings(LxWin32AudioPortData* rec) {
    IDirectSoundBuffer* sb = rec->soundBuffer;
    sb->SetVolume(rec->volume);
    sb->SetPan(rec->panValue);
    if (rec->tempo > 0.0f) {
        sb->SetFrequency(lxmixer::frequencyOf(static_cast<double>(rec->tempo * rec->rate)));
    }
    if (rec->buffer3D != nullptr) {
        place3D(rec->buffer3D, rec, DS3D_IMMEDIATE);
        mode3D(rec->buffer3D, rec, DS3D_IMMEDIATE);
    }
}

long LxWin32Mixer::duplicateSoundBuffer(short sourcePort, short newPort) {
    return duplicateInto(record(sourcePort), record(newPort));
}

long LxWin32Mixer::duplicateInto(LxWin32AudioPortData* src, LxWin32AudioPortData* rec) {
    DeviceRefs refs;
    bool spatial = false;
    {
        Hold m(mutex);
        if (directSound == nullptr || src == nullptr || rec == nullptr || src->soundBuffer == nullptr) {
            return LX_ERR_GENERIC;
        }
        refs.take(directSound, listener);
        spatial = has3D && spatializeSounds;
    }
    IDirectSoundBuffer* dup = nullptr;
    if (FAILED(refs.ds->DuplicateSoundBuffer(src->soundBuffer, &dup)) || dup == nullptr) {
        return LX_ERR_GENERIC;
    }
    {
        Hold m(mutex);
        rec->soundBuffer = dup;
    }
    // The duplicate plays the same format: its timing works from the same byte rate.
    rec->bytesPerSecond = src->bytesPerSecond;
    IDirectSound3DBuffer* b3 = query3D(dup, "the new secondary buffer");
    if (b3 == nullptr) {
        return LX_ERR_NO_3D_BUFFER;
    }
    place3D(b3, rec, DS3D_DEFERRED);
    dup->SetVolume(rec->volume);
    dup->SetPan(rec->panValue);
    if (spatial) {
        mode3D(b3, rec, DS3D_DEFERRED);
        refs.commitDeferred();
        Hold m(mutex);
        rec->buffer3D = b3;
    } else {
        b3->Release();
    }
    return LX_OK;
}

long LxWin32Mixer::adjustPrimaryBuffer(LxWin32AudioPortData* rec) {
    Hold m(mutex);
    const uint32_t rate = lxmixer::wholeRate(rec->rate);
    const uint16_t bits = rec->format != LxSample8 ? 16 : 8;
    bool changed = false;
    if (rate > primaryFormat->nSamplesPerSec) {
        primaryFormat->nSamplesPerSec = rate;
        changed = true;
    }
    if (bits > primaryFormat->wBitsPerSample) {
        primaryFormat->wBitsPerSample = bits;
        changed = true;
    }
    if (changed) {
        primaryFormat->nBlockAlign =
            static_cast<uint16_t>(primaryFormat->wBitsPerSample / 8 * primaryFormat->nChannels);
        primaryFormat->nAvgBytesPerSec = primaryFormat->nBlockAlign * primaryFormat->nSamplesPerSec;
        if (primaryBuffer != nullptr && FAILED(primaryBuffer->SetFormat(primaryFormat))) {
            LxLog::postDebug("LxWin32Mixer:  Failed to set the primary buffer to desired format\n");
            primaryBuffer->GetFormat(primaryFormat, sizeof(WAVEFORMATEX), nullptr);
        }
    }
    return LX_OK;
}
