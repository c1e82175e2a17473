// LxWin32Mixer: bringing the sound device up and down, the primary buffer and listener, global
// settings, diagnostics, and the per-port controls with their conversions.
#include "LxWin32Mixer.h"

#include "LxLog.h"
#include "LxResult.h"
#include "LxVersionDetection.h"
#include "audio/LxWin32MixerInternal.h"
#include "platform/kt/KtLibraryLock.h"
#include "platform/sound/LxpSound.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

using lxmixer::Hold;
using namespace lxp;

LxDiagnostics LxWin32Mixer::diagnostics;
std::atomic<char> LxWin32Mixer::enumerateRequested{0};

namespace {

/// Guards LxWin32Mixer::diagnostics (written by initMixer and the enumeration callback, read by
/// getDiagnostics on any thread). Constant-initialised.
std::mutex gDiagnosticsMutex;

/// The enumeration gate: created closed when the library loads, opened by the device enumeration,
/// waited for by getDiagnostics.
KtLibraryLock<KtGateLock> gEnumGate;

__attribute__((constructor(101))) void lxEnumGateLoad() {
    gEnumGate.create();
}
__attribute__((destructor(101))) void lxEnumGateUnload() {
    gEnumGate.destroy();
}

void setText(char*& text, const char* value) {
    if (text == nullptr) {
        text = strdup(value);
    }
}

}  // namespace

void LxWin32Mixer::resetClassStateForTests() {
    std::lock_guard<std::mutex> guard(gDiagnosticsMutex);
    diagnostics.~LxDiagnostics();
    new (&diagnostics) LxDiagnostics();
    enumerateRequested.store(0);
    if (KtGateLock* gate = lxmixer::enumGate()) {
        gate->close();
    }
}

// ---- Conversions ----

int32_t LxWin32Mixer::gainToVolume(float gain) {
    const float v = std::log10(gain) * 20.0f * 100.0f;
    if (!std::isfinite(v)) {
        return v > 0 ? 0 : DSBVOLUME_MIN;
    }
    return static_cast<int32_t>(std::trunc(v));
}

int32_t LxWin32Mixer::panToPanValue(float pan) {
    if (std::isnan(pan)) {
        return DSBPAN_CENTER;
    }
    const float s = pan > 0 ? 1.0f : -1.0f;
    if (std::fabs(pan) >= 1.0f) {
        return pan > 0 ? DSBPAN_RIGHT : DSBPAN_LEFT;
    }
    return static_cast<int32_t>(std::trunc(-4000.0f * s * std::log10(1.0f - std::fabs(pan))));
}

// ---- Window, COM, platform ----

long LxWin32Mixer::initMixer() {
    return LX_ERR_GENERIC;
}

long LxWin32Mixer::initMixer(LxHwnd w) {
    Hold m(mutex);
    window = w;
    if (FAILED(CoInitialize(nullptr))) {
        LxLog::postDebug("LxWin32Mixer:  failed to initialize COM interface\n");
        state.store(CLOSED);
        return LX_ERR_MIXER_COM;
    }
    ++comInits;
    unsigned long dx = 0;
    unsigned long platform = 0;
    unsigned long dshow = 0;
    GetDXAndWin32Version(&dx, &platform, &dshow);
    {
        std::lock_guard<std::mutex> guard(gDiagnosticsMutex);
        if (diagnostics.soundSystemName == nullptr) {
            setText(diagnostics.soundSystemName, "DirectX");
            diagnostics.soundSystemVersion = static_cast<long>(dx);
        }
        if (diagnostics.mediaFrameworkName == nullptr) {
            setText(diagnostics.mediaFrameworkName, dshow > 0 ? "DirectShow" : "None");
            diagnostics.mediaFrameworkVersion = static_cast<long>(dshow);
        }
    }
    has3D = dx >= 0x300 ? 1 : 0;
    if (!has3D) {
        LxLog::postDebug("LxWin32Mixer:  system doesn't have directSound3D\n");
    }
    return LX_OK;
}

long LxWin32Mixer::closeMixer() {
    closeDirectSound(1);
    Hold m(mutex);
    if (comInits > 0) {
        --comInits;
        CoUninitialize();
    }
    return LX_OK;
}

// ---- Device start and stop ----

void LxWin32Mixer::releaseDevice() {
    if (primaryBuffer != nullptr) {
        primaryBuffer->Stop();
    }
    if (listener != nullptr) {
        listener->Release();
        listener = nullptr;
    }
    if (primaryBuffer != nullptr) {
        primaryBuffer->Release();
        primaryBuffer = nullptr;
    }
    if (directSound != nullptr) {
        directSound->Release();
        directSound = nullptr;
    }
}

long LxWin32Mixer::initDirectSound() {
    Hold device(deviceLock);
    Hold m(mutex);
    LxLog::postDebug("LxWin32Mixer:  initializing direct sound\n");
    if (state.load() == READY) {
        LxLog::postDebug("LxWin32Mixer:  initDirectSound() called while in READY state\n");
        return LX_OK;
    }
    if (FAILED(CoInitialize(nullptr))) {
        LxLog::postDebug("LxWin32Mixer:  failed to initialize COM interface\n");
        state.store(CLOSED);
        return LX_ERR_MIXER_COM;
    }
    // Every failure below leaves the mixer CLOSED, with nothing of the device kept open (so that
    // a half-duplex card is free for MIDI at once), and undoes this COM initialisation.
    auto fail = [&](long code) {
        releaseDevice();
        state.store(CLOSED);
        CoUninitialize();
        return code;
    };
    // Objects a failed earlier start left behind go before new ones are made.
    releaseDevice();

    IDirectSound* ds = nullptr;
    if (has3D) {
        if (FAILED(CoCreateInstance(CLSID_DirectSound, nullptr, CLSCTX_INPROC_SERVER, IID_IDirectSound,
                                    reinterpret_cast<void**>(&ds))) ||
            ds == nullptr) {
            LxLog::postDebug("LxWin32Mixer:  Failed to create directSound3D object\n");
            ds = nullptr;
        }
    } else {
        if (soundLibrary == nullptr) {
            soundLibrary = LoadSoundLibrary("DSOUND.DLL");
        }
        LPDIRECTSOUNDCREATE create = soundLibrary != nullptr
                                         ? reinterpret_cast<LPDIRECTSOUNDCREATE>(
                                               GetSoundProcAddress(soundLibrary, "DirectSoundCreate"))
                                         : nullptr;
        if (create != nullptr && FAILED(create(nullptr, &ds, nullptr))) {
            ds = nullptr;
        }
    }
    if (ds == nullptr) {
        LxLog::postDebug("LxWin32Mixer:  Failed to create the DirectSound object\n");
        return fail(LX_ERR_DSOUND_CREATE);
    }
    directSound = ds;
    if (has3D && FAILED(directSound->Initialize(nullptr))) {
        LxLog::postDebug("LxWin32Mixer:  Unable to initialize directSound\n");
        return fail(LX_ERR_DSOUND_CREATE);
    }

    // The device enumeration names the sound device for the diagnostics. It runs on both paths
    // (loading the library when the 3D path has not), so that getDiagnostics need not wait out
    // its time-out on a system without 3D sound.
    if (!enumerateRequested.load()) {
        if (soundLibrary == nullptr) {
            soundLibrary = LoadSoundLibrary("DSOUND.DLL");
        }
        LPDIRECTSOUNDENUMERATEA enumerate =
            soundLibrary != nullptr ? reinterpret_cast<LPDIRECTSOUNDENUMERATEA>(
                                          GetSoundProcAddress(soundLibrary, "DirectSoundEnumerateA"))
                                    : nullptr;
        if (enumerate != nullptr) {
            LxLog::postDebug("LxWin32Mixer: Beginning DirectSoundEnumerate\n");
            enumerate(&LxWin32Mixer::DSEnumCallBack, this);
        }
    }

    if (FAILED(directSound->SetCooperativeLevel(window, DSSCL_PRIORITY))) {
        LxLog::postDebug("LxWin32Mixer:  Unable to set the cooperative level\n");
        return fail(LX_ERR_DSOUND_COOPERATIVE);
    }
    if (initPrimaryBuffer() != 1) {
        LxLog::postDebug("LxWin32Mixer:  Failed to initialize the Primary sound buffer\n");
        return fail(LX_ERR_PRIMARY_BUFFER);
    }
    state.store(READY);
    CoUninitialize();
    return LX_OK;
}

long LxWin32Mixer::initPrimaryBuffer() {
    std::memset(primaryFormat, 0, sizeof *primaryFormat);
    primaryFormat->wFormatTag = WAVE_FORMAT_PCM;
    primaryFormat->nChannels = 2;
    DSCAPS caps;
    std::memset(&caps, 0, sizeof caps);
    caps.dwSize = sizeof caps;
    if (SUCCEEDED(directSound->GetCaps(&caps))) {
        if (caps.dwFlags & DSCAPS_PRIMARY8BIT) {
            primaryFormat->wBitsPerSample = 8;
        } else {
            LxLog::postDebug("LxWin32Mixer:  Device can't handle 8 bit primary buffers\n");
            primaryFormat->wBitsPerSample = 16;
        }
        if (caps.dwMinSecondarySampleRate > 8000) {
            LxLog::postDebug("LxWin32Mixer:  Device's minimum sampling rate is %d\n",
                             static_cast<int>(caps.dwMinSecondarySampleRate));
            primaryFormat->nSamplesPerSec = caps.dwMinSecondarySampleRate;
        } else {
            primaryFormat->nSamplesPerSec = 8000;
        }
    } else {
        LxLog::postDebug("LxWin32Mixer:  Failed to get audio device capabilities\n");
    }
    primaryFormat->nBlockAlign =
        static_cast<uint16_t>(primaryFormat->wBitsPerSample / 8 * primaryFormat->nChannels);
    primaryFormat->nAvgBytesPerSec = primaryFormat->nBlockAlign * primaryFormat->nSamplesPerSec;

    const bool spatial = has3D && spatializeSounds;
    DSBUFFERDESC d;
    std::memset(&d, 0, sizeof d);
    d.dwSize = DSBUFFERDESC_SIZE;
    d.dwFlags = DSBCAPS_PRIMARYBUFFER | (spatial ? DSBCAPS_CTRL3D : 0);
    if (FAILED(directSound->CreateSoundBuffer(&d, &primaryBuffer, nullptr)) || primaryBuffer == nullptr) {
        LxLog::postDebug("LxWin32Mixer:  Failed to created the primary sound buffer\n");
        primaryBuffer = nullptr;
        return LX_ERR_GENERIC;
    }
    const HRESULT hr = primaryBuffer->SetFormat(primaryFormat);
    if (FAILED(hr)) {
        LxLog::postDebug("LxWin32Mixer:  Failed to set the primary buffer to desired format, hr = %x\n",
                         static_cast<unsigned>(hr));
        primaryBuffer->GetFormat(primaryFormat, sizeof(WAVEFORMATEX), nullptr);
    }
    if (FAILED(primaryBuffer->Play(0, 0, DSBPLAY_LOOPING))) {
        LxLog::postDebug("LxWin32Mixer:  Couldn't start the primary buffer\n");
        return LX_ERR_GENERIC;
    }
    if (!spatial) {
        listener = nullptr;
        return LX_OK;
    }
    if (FAILED(
            primaryBuffer->QueryInterface(IID_IDirectSound3DListener, reinterpret_cast<void**>(&listener))) ||
        listener == nullptr) {
        LxLog::postDebug("LxWin32Mixer:  Failed to get the 3D listener\n");
        listener = nullptr;
        has3D = 0;
        return LX_OK;
    }
    // Distance attenuation is the scene's business, not the device's.
    listener->SetRolloffFactor(0.0f, DS3D_DEFERRED);
    listener->SetPosition(listenerPosition[0], listenerPosition[1], listenerPosition[2], DS3D_DEFERRED);
    listener->SetOrientation(listenerFront[0], listenerFront[1], listenerFront[2], listenerTop[0],
                             listenerTop[1], listenerTop[2], DS3D_DEFERRED);
    listener->CommitDeferredSettings();
    return LX_OK;
}

void LxWin32Mixer::closeDirectSound(char destroyPorts) {
    Hold device(deviceLock);
    // No buffer is created from here on, and the ports are walked with the mixer lock let go
    // (slot locks come before the mixer lock).
    std::vector<short> used;
    {
        Hold m(mutex);
        state.store(UNINITIALIZED);
        for (short n = 0; n < LX_MAX_PORTS; ++n) {
            if (ports[n] != nullptr) {
                used.push_back(n);
            }
        }
    }
    for (short n : used) {
        releaseChannel(n, 1);
        if (destroyPorts) {
            closePort(n);
        }
    }
    if (destroyPorts) {
        // Ports opened during the walk go too: from CLOSED on, no port can be opened.
        std::vector<short> late;
        {
            Hold m(mutex);
            state.store(CLOSED);
            for (short n = 0; n < LX_MAX_PORTS; ++n) {
                if (ports[n] != nullptr) {
                    late.push_back(n);
                }
            }
        }
        for (short n : late) {
            Hold slot(slotLock(n));
            LxWin32AudioPortData* rec = record(n);
            if (rec != nullptr) {
                destroyRecord(n, rec);
            }
        }
    }
    Hold m(mutex);
    releaseDevice();
    LxLog::postDebug("LxWin32Mixer:  directSound closed and UNINITIALIZED\n");
}

// ---- Enumeration and diagnostics ----

int LxWin32Mixer::DSEnumCallBack(lxp::GUID*, const char* description, const char* module, void*) {
    LxLog::postDebug("EnumCallback:  driverDesc: %s, driverName %s\n",
                     description != nullptr ? description : "", module != nullptr ? module : "");
    if (description == nullptr || std::strcmp(description, "Primary Sound Driver") == 0) {
        return 1;
    }
    {
        std::lock_guard<std::mutex> guard(gDiagnosticsMutex);
        setText(diagnostics.soundDevice, description);
    }
    enumerateRequested.store(1);
    if (KtGateLock* gate = lxmixer::enumGate()) {
        gate->open();
    }
    return 0;
}

long LxWin32Mixer::getDiagnostics(LxDiagnostics& out) {
    KtGateLock* gate = lxmixer::enumGate();
    if (gate == nullptr || gate->wait(5000) == KT_TIMEOUT) {
        LxLog::postDebug("LxWin32Mixer:  Failed waiting for enumerate callback\n");
    }
    std::lock_guard<std::mutex> guard(gDiagnosticsMutex);
    out = diagnostics;
    return LX_OK;
}

void LxWin32Mixer::setMidiCapable(char capable) {
    std::lock_guard<std::mutex> guard(gDiagnosticsMutex);
    diagnostics.midiCapable = capable;
}

// ---- Global settings ----

long LxWin32Mixer::setAudibleMode(LxAudibleMode_s mode) {
    Hold m(mutex);
    if (state.load() != UNINITIALIZED) {
        return LX_ERR_MIXER_STATE;
    }
    audibleMode = mode;
    return LX_OK;
}

LxAudibleMode_s LxWin32Mixer::getAudibleMode() {
    Hold m(mutex);
    return audibleMode;
}

long LxWin32Mixer::setSpatializeSounds(char on) {
    Hold m(mutex);
    if (state.load() != UNINITIALIZED) {
        return LX_ERR_MIXER_STATE;
    }
    spatializeSounds = on;
    return LX_OK;
}

char LxWin32Mixer::getSpatializeSounds() {
    Hold m(mutex);
    return spatializeSounds;
}

long LxWin32Mixer::setSpeakerConfig(LxSpeakerConfiguration config) {
    // Held only for the copy and the device call, so that closeDirectSound cannot release the
    // device under it.
    Hold m(mutex);
    speakerConfig = config;
    if (state.load() != READY) {
        return LX_OK;  // stored; not applied by a later initDirectSound
    }
    return setDSSpeakerConfig();
}

LxSpeakerConfiguration LxWin32Mixer::getSpeakerConfig() {
    Hold m(mutex);
    return speakerConfig;
}

long LxWin32Mixer::setDSSpeakerConfig() {
    Hold m(mutex);
    uint32_t value;
    switch (speakerConfig.kind) {
        case LxSpeakerConfiguration::HEADPHONES:
            value = DSSPEAKER_HEADPHONE;
            break;
        case LxSpeakerConfiguration::MONO:
            value = DSSPEAKER_MONO;
            break;
        case LxSpeakerConfiguration::STEREO:
            value = DSSPEAKER_STEREO;
            break;
        default:
            LxLog::postDebug("LxWin32Mixer: unknown speaker config %i", static_cast<int>(speakerConfig.kind));
            return LX_ERR_GENERIC;
    }
    if (directSound == nullptr) {
        return LX_ERR_GENERIC;
    }
    const HRESULT hr = directSound->SetSpeakerConfig(value);
    if (FAILED(hr)) {
        LxLog::postDebug("Failed to set direct sound speaker configuration err=0x%x\n",
                         static_cast<unsigned>(hr));
        return LX_ERR_GENERIC;
    }
    return LX_OK;
}

long LxWin32Mixer::setListenerLocation(const float* position, const float* top, const float* front) {
    Hold m(mutex);
    if (position == nullptr || top == nullptr || front == nullptr) {
        return LX_ERR_GENERIC;
    }
    for (int i = 0; i < 3; ++i) {
        const float sign = i == 2 ? -1.0f : 1.0f;
        listenerPosition[i] = sign * position[i];
        listenerTop[i] = sign * top[i];
        listenerFront[i] = sign * front[i];
    }
    if (listener == nullptr || state.load() != READY) {
        return LX_ERR_GENERIC;  // kept for the next primary buffer
    }
    if (FAILED(listener->SetPosition(listenerPosition[0], listenerPosition[1], listenerPosition[2],
                                     DS3D_DEFERRED))) {
        LxLog::postDebug("LxWin32Mixer:  !!Failed to set listener's position!!\n");
        return LX_ERR_GENERIC;
    }
    if (FAILED(listener->SetOrientation(listenerFront[0], listenerFront[1], listenerFront[2], listenerTop[0],
                                        listenerTop[1], listenerTop[2], DS3D_DEFERRED))) {
        LxLog::postDebug("LxWin32Mixer:  !!Failed to set listener's orientation!!\n");
        return LX_ERR_GENERIC;
    }
    if (FAILED(listener->CommitDeferredSettings())) {
        LxLog::postDebug("LxWin32Mixer:  !!Failed to commit listener's position and orientation!!\n");
        return LX_ERR_GENERIC;
    }
    return LX_OK;
}

// ---- Per-port controls ----

long LxWin32Mixer::setSoundLocation(short port, const float* xyz) {
    Hold slot(slotLock(port));
    LxWin32AudioPortData* rec = slot.valid() ? record(port) : nullptr;
    if (rec == nullptr) {
        return LX_ERR_NO_PORT;
    }
    if (xyz == nullptr) {
        return LX_ERR_GENERIC;
    }
    rec->location[0] = xyz[0];
    rec->location[1] = xyz[1];
    rec->location[2] = -xyz[2];
    if (state.load() != READY) {
        return LX_ERR_MIXER_NOT_READY;
    }
    if (rec->buffer3D != nullptr && !rec->noChannel &&
        FAILED(rec->buffer3D->SetPosition(rec->location[0], rec->location[1], rec->location[2],
                                          DS3D_IMMEDIATE))) {
        LxLog::postDebug("LxWin32Mixer:  !!Failed to set secondaryBuffer location!!\n");
        return LX_ERR_GENERIC;
    }
    return LX_OK;
}

const float* LxWin32Mixer::getLocation(short port) {
    Hold slot(slotLock(port));
    LxWin32AudioPortData* rec = slot.valid() ? record(port) : nullptr;
    return state.load() == READY && rec != nullptr ? rec->location : nullptr;
}

long LxWin32Mixer::setGain(short port, float gain) {
    Hold slot(slotLock(port));
    LxWin32AudioPortData* rec = slot.valid() ? record(port) : nullptr;
    if (state.load() == CLOSED || rec == nullptr) {
        return LX_ERR_NO_PORT;
    }
    long result = LX_OK;
    if (!(gain >= 0.000001f)) {
        // Not a number counts as below zero.
        if (!(gain >= 0.0f)) {
            LxLog::postDebug("LxWin32Mixer:  gain of %5.3f attempted\n", static_cast<double>(gain));
            result = LX_ERR_GAIN_CLAMPED;
        }
        rec->gain = 0.0f;
        rec->volume = DSBVOLUME_MIN;
        if (rec->playing.load() && rec->masterPort == LX_PORT_OWNS_BUFFER &&
            rec->duplicates[0] == LX_NO_DUPLICATE && !rec->isResident) {
            stopPort(port, 0);  // a muted stream stops; its writes are then only timed
        }
    } else if (gain > 1.0f) {
        rec->gain = 1.0f;
        rec->volume = 0;
        LxLog::postDebug("LxWin32Mixer:  gain of %5.3f attempted\n", static_cast<double>(gain));
        result = LX_ERR_GAIN_CLAMPED;
    } else {
        rec->gain = gain;
        rec->volume = gainToVolume(gain);
    }
    if (state.load() != READY) {
        return LX_ERR_MIXER_NOT_READY;
    }
    if (!rec->noChannel && rec->soundBuffer != nullptr) {
        if (FAILED(rec->soundBuffer->SetVolume(rec->volume))) {
            LxLog::postDebug("LxWin32Mixer:  failed SetVolume %5.3f\n", static_cast<double>(rec->gain));
        }
        if (rec->isResident && rec->looping) {
            rec->soundBuffer->Play(0, 0, DSBPLAY_LOOPING);
        }
    }
    return result;
}

float LxWin32Mixer::getGain(short port) {
    Hold slot(slotLock(port));
    LxWin32AudioPortData* rec = slot.valid() ? record(port) : nullptr;
    return state.load() == CLOSED || rec == nullptr ? -1.0f : rec->gain;
}

long LxWin32Mixer::setPan(short port, float pan) {
    {
        Hold m(mutex);
        if (has3D) {
            return LX_ERR_PAN_IN_3D;
        }
    }
    Hold slot(slotLock(port));
    LxWin32AudioPortData* rec = nullptr;
    const long open = openRecord(slot.valid(), port, &rec);
    if (open != LX_OK) {
        return open;
    }
    rec->pan = pan;
    rec->panValue = panToPanValue(pan);
    if (state.load() != READY) {
        return LX_ERR_MIXER_NOT_READY;
    }
    if (rec->soundBuffer != nullptr && !rec->noChannel && FAILED(rec->soundBuffer->SetPan(rec->panValue))) {
        LxLog::postDebug("LxWin32Mixer:  failed to SetPan\n");
    }
    return LX_OK;
}

float LxWin32Mixer::getPan(short port) {
    Hold slot(slotLock(port));
    LxWin32AudioPortData* rec = slot.valid() ? record(port) : nullptr;
    return state.load() == CLOSED || rec == nullptr ? -69.0f : rec->pan;
}

long LxWin32Mixer::setPriority(short port, float priority) {
    Hold slot(slotLock(port));
    LxWin32AudioPortData* rec = nullptr;
    const long ready = readyRecord(slot.valid(), port, &rec);
    if (ready != LX_OK) {
        return ready;
    }
    rec->priority = priority;
    return LX_OK;
}

float LxWin32Mixer::getPriority(short port) {
    Hold slot(slotLock(port));
    if (state.load() != READY) {
        return 996.0f;
    }
    LxWin32AudioPortData* rec = slot.valid() ? record(port) : nullptr;
    return rec == nullptr ? 995.0f : rec->priority;
}

long LxWin32Mixer::setSpatialize(short port, char on) {
    Hold slot(slotLock(port));
    LxWin32AudioPortData* rec = nullptr;
    const long ready = readyRecord(slot.valid(), port, &rec);
    if (ready != LX_OK) {
        return ready;
    }
    rec->spatialize = on;
    if (rec->buffer3D != nullptr &&
        FAILED(rec->buffer3D->SetMode(on ? DS3DMODE_NORMAL : DS3DMODE_DISABLE, DS3D_IMMEDIATE))) {
        LxLog::postDebug("LxWin32Mixer:  failed to set spatialize mode\n");
        return LX_ERR_GENERIC;
    }
    return LX_OK;
}

char LxWin32Mixer::getSpatialize(short port) {
    Hold slot(slotLock(port));
    LxWin32AudioPortData* rec = slot.valid() ? record(port) : nullptr;
    return state.load() == READY && rec != nullptr ? rec->spatialize : 0;
}

long LxWin32Mixer::setTempo(short port, float tempo) {
    Hold slot(slotLock(port));
    LxWin32AudioPortData* rec = slot.valid() ? record(port) : nullptr;
    if (state.load() != READY) {
        if (rec != nullptr) {
            rec->tempo = tempo;
        }
        return LX_ERR_MIXER_NOT_READY;
    }
    if (rec == nullptr) {
        return LX_ERR_NO_PORT;
    }
    rec->tempo = tempo;
    if (rec->soundBuffer != nullptr && !rec->noChannel) {
        if (!(tempo > 0.0f)) {
            stopPort(port, 1);
            return LX_OK;
        }
        if (FAILED(rec->soundBuffer->SetFrequency(
                lxmixer::frequencyOf(static_cast<double>(tempo * rec->rate))))) {
            LxLog::postDebug("LxWin32Mixer:  failed to setFrequency\n");
            return LX_ERR_GENERIC;
        }
    }
    return LX_OK;
}

float LxWin32Mixer::getTempo(short port) {
    Hold slot(slotLock(port));
    LxWin32AudioPortData* rec = slot.valid() ? record(port) : nullptr;
    return state.load() == READY && rec != nullptr ? rec->tempo : -1.0f;
}

KtGateLock* lxmixer::enumGate() {
    return gEnumGate.get();
}
