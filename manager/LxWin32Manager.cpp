// LxWin32Manager: creation, the timer and audio sub-systems, the sound-card test and the filter
// library check. The player factory is in LxPlayerFactory.cpp, the default renderers in
// LxDefault*Renderer.cpp.
#include "LxWin32Manager.h"

#include "LxDiagnostics.h"
#include "LxLog.h"
#include "LxResult.h"
#include "LxTimeBase.h"
#include "LxVersionDetection.h"
#include "LxWin32Mixer.h"
#include "platform/com/LxpCom.h"
#include "platform/dshow/LxpRendererFilter.h"
#include "platform/midi/LxpMidi.h"

#include <cstdio>
#include <exception>
#include <new>

namespace {
constexpr uint32_t kNotProbed = 0x10000000u;
constexpr uint32_t kSampledAudio = 0x001;
constexpr uint32_t kMidi = 0x010;
constexpr uint32_t kBothAtOnce = 0x100;
}  // namespace

uint32_t LxWin32Manager::exclusivityProperties = kNotProbed;
KtMutex* LxWin32Manager::midiAccessMutex = nullptr;  // set when the library loads
KtMutex* LxWin32Manager::exPropsLock = nullptr;      // set when the library loads

LxManager* LxManager::createManager(KtThreadManager* threadManager) {
    if (KtCheckVersion(1, 16) == 0) {
        return nullptr;
    }
    return new (std::nothrow) LxWin32Manager(threadManager);
}

LxWin32Manager::LxWin32Manager(KtThreadManager* threadManager)
    : LxManager(threadManager), windowHandle(nullptr), directShowAvailable(0) {}

// The channel records go with the base; everything else was released by closeManager.
LxWin32Manager::~LxWin32Manager() {}

void LxWin32Manager::resetExclusivityForTests() {
    KtScopedLock<KtMutex> guard(exPropsLock);
    exclusivityProperties = kNotProbed;
}

long LxWin32Manager::setWindow(LxWindow* newWindow) {
    const long result = LxManager::setWindow(newWindow);
    if (result == LX_OK) {
        windowHandle = static_cast<LxWin32Window*>(newWindow)->getHwnd();
    }
    return result;
}

long LxWin32Manager::initTimers() {
    if (initialisedSubSystems & INIT_TIMERS) {
        return LX_OK;
    }
    if (masterTimeBase == nullptr) {
        masterTimeBase = new (std::nothrow) LxWin32TimeBase(this);
        if (masterTimeBase == nullptr) {
            return LX_ERR_OUT_OF_MEMORY;
        }
    }
    return LX_OK;
}

long LxWin32Manager::initVideo() {
    long result = initTimers();
    if (result == LX_OK) {
        result = initAudio();
    }
    return result;
}

long LxWin32Manager::initAudio() {
    if (initialisedSubSystems & INIT_AUDIO) {
        return LX_OK;
    }
    long result = initTimers();
    if (result != LX_OK) {
        return result;
    }
    if (audioStarted) {
        return LX_OK;  // started before from inside initVideo, which records no audio bit
    }
    if (mixer != nullptr) {
        delete mixer;  // left by a start that failed: try again from the beginning
        mixer = nullptr;
    }
    unsigned long dxVersion = 0;
    unsigned long platform = 0;
    unsigned long directShow = 0;
    GetDXAndWin32Version(&dxVersion, &platform, &directShow);
    directShowAvailable = directShow >= 1 ? 1 : 0;
    if (directShowAvailable && !verifyDshowFilters()) {
        directShowAvailable = 0;
    }

    LxWin32Mixer* win32Mixer = new (std::nothrow) LxWin32Mixer();
    if (win32Mixer == nullptr) {
        return LX_ERR_OUT_OF_MEMORY;
    }
    mixer = win32Mixer;
    result = win32Mixer->initMixer(windowHandle);
    if (result != LX_OK) {
        return result;  // the mixer stays with the manager; closeManager deletes it
    }
    win32Mixer->setAudibleMode(audibleMode);
    win32Mixer->setSpatializeSounds(spatializeSounds);
    win32Mixer->setSpeakerConfig(speakerConfig);

    result = initChannelInfo();
    if (result != LX_OK) {
        return result;
    }
    result = updateChannelInfo();
    audioStarted = result == LX_OK;
    return result;
}

bool LxWin32Manager::probeMidiStream() {
    KtScopedLock<KtMutex> guard(midiAccessMutex);
    lxp::HMIDISTRM stream = nullptr;
    uint32_t device = lxp::MIDI_MAPPER;
    const bool opened =
        lxp::midiStreamOpen(&stream, &device, 1, nullptr, 0, lxp::CALLBACK_NULL) == lxp::MMSYSERR_NOERROR;
    if (opened) {
        lxp::midiStreamClose(stream);
    }
    return opened;
}

long LxWin32Manager::initChannelInfo() {
    LxWin32Mixer* win32Mixer = static_cast<LxWin32Mixer*>(mixer);
    KtScopedLock<KtMutex> exPropsGuard(exPropsLock);
    KtScopedLock<KtMutex> channelGuard(channelLock);
    LxChannelInfo& raw = channelInfo[LxRawChannel];
    LxChannelInfo& midi = channelInfo[LxMidiChannel];
    midi.maxChannels = 1;
    midi.activeCount = 0;
    midi.started = 0;
    midi.excludes[LxMidiChannel] = 0;
    raw.maxChannels = maxAudioChannels == AUTO_MAX_CHANNELS ? 64 : maxAudioChannels;
    raw.activeCount = 0;
    raw.started = 0;
    raw.excludes[LxRawChannel] = 0;

    if (exclusivityProperties == kNotProbed) {
        exclusivityProperties = 0;
        const long dsResult = win32Mixer->initDirectSound();
        if (dsResult != LX_OK) {
            LxLog::postDebug("LxWin32Manager:  couldn't initialize directSound! rv = %x\n",
                             static_cast<unsigned>(dsResult));
            raw.maxChannels = 0;
        } else {
            exclusivityProperties |= kSampledAudio;
        }
        if (probeMidiStream()) {
            LxLog::postDebug("LxWin32Manager:  capable of simultaneous audio/MIDI\n");
            raw.excludes[LxMidiChannel] = 0;
            midi.excludes[LxRawChannel] = 0;
            win32Mixer->setMidiCapable(1);
            exclusivityProperties |= kMidi | kBothAtOnce;
        } else {
            LxLog::postDebug("LxWin32Manager: couldn't open midi stream\n");
            midi.excludes[LxRawChannel] = 1;
            win32Mixer->closeDirectSound(0);
            const bool midiAlone = probeMidiStream();
            if (!midiAlone) {
                LxLog::postDebug("LxWin32Manager:  system is incapable of MIDI.\n");
                midi.maxChannels = 0;
            } else {
                win32Mixer->setMidiCapable(1);
                exclusivityProperties |= kMidi;
            }
            const long again = win32Mixer->initDirectSound();
            if (!midiAlone && again == LX_OK) {
                LxLog::postDebug("LxWin32Manager:  can do audio/MIDI, but MIDI must be initialized first.\n");
            } else {
                LxLog::postDebug("LxWin32Manager: not capable of simultaneous audio & MIDI \n");
                raw.excludes[LxMidiChannel] = 1;
            }
        }
        // The test leaves the sound device closed: the first port that asks starts it.
        win32Mixer->closeDirectSound(0);
    } else {
        LxLog::postDebug("LxWin32Manager:  audio card props already checked.  Defaulting to saved values\n");
        if (!(exclusivityProperties & kSampledAudio)) {
            raw.maxChannels = 0;
            LxLog::postDebug("LxWin32Manager:  no PCM support\n");
        }
        if (!(exclusivityProperties & kMidi)) {
            midi.maxChannels = 0;
            LxLog::postDebug("LxWin32Manager:  no MIDI support\n");
        } else {
            win32Mixer->setMidiCapable(1);
        }
        if ((exclusivityProperties & kSampledAudio) && (exclusivityProperties & kMidi)) {
            const char halfDuplex = (exclusivityProperties & kBothAtOnce) ? 0 : 1;
            LxLog::postDebug(halfDuplex ? "LxWin32Manager:  capable of half duplex audio/midi\n"
                                        : "LxWin32Manager:  capable of full duplex audio/midi\n");
            raw.excludes[LxMidiChannel] = halfDuplex;
            midi.excludes[LxRawChannel] = halfDuplex;
        }
    }
    return LX_OK;
}

char LxWin32Manager::verifyDshowFilters() {
    char result = 0;
    if (lxp::FAILED(lxp::CoInitialize(nullptr))) {
        LxLog::postDebug("LxWin32Manager: failed to initialize COM\n");
        return 0;  // nothing to uninitialise
    }
    lxp::IClassFactory* factory = nullptr;
    const lxp::HRESULT hr =
        lxp::CoGetClassObject(lxp::CLSID_LxAudioRenderer, lxp::CLSCTX_INPROC_SERVER, nullptr,
                              lxp::IID_IClassFactory, reinterpret_cast<void**>(&factory));
    if (lxp::SUCCEEDED(hr)) {
        factory->Release();
        result = 1;
    } else if (hr == lxp::REGDB_E_CLASSNOTREG || hr == lxp::HRESULT_MOD_NOT_FOUND ||
               hr == lxp::CO_E_DLLNOTFOUND) {
        char name[64];
        std::snprintf(name, sizeof name, "qlm%2i_dshow.dll", 13);
        try {
            KtModule library = KtWin32Library::LoadWin32Library(name);
            if (library != nullptr) {
                typedef lxp::HRESULT (*RegisterFn)();
                RegisterFn registerServer = reinterpret_cast<RegisterFn>(
                    KtWin32Library::GetProcAddress(library, "DllRegisterServer"));
                if (registerServer == nullptr) {
                    LxLog::postDebug("Unable to GetProcAddress for DllRegisterServer()\n");
                } else if (lxp::FAILED(registerServer())) {
                    LxLog::postDebug("LxWin32Manager: failed to register %s\n", name);
                } else {
                    LxLog::postDebug("LxWin32Manager: registered %s\n", name);
                    result = 1;
                }
                // The registered classes live in the library; it stays loaded while they are
                // registered (unloading would leave the registry pointing into unmapped code).
                if (result == 0) {
                    KtWin32Library::FreeLibrary(library);
                }
            }
        } catch (const std::exception&) {
            LxLog::postDebug("LxWin32Manager: caught exception trying to load dshow lib\n");
            result = 0;
        }
    } else {
        LxLog::postDebug("LxWin32Manager: failed to get class factory object\n");
    }
    lxp::CoUninitialize();
    return result;
}

long LxWin32Manager::startupChannelType(LxAudioChannelType_s type) {
    if (type == LxRawChannel) {
        const long result =
            mixer == nullptr ? LX_ERR_NO_MIXER : static_cast<LxWin32Mixer*>(mixer)->initDirectSound();
        if (result != LX_OK) {
            return result;
        }
    }
    channelInfo[type].started = 1;
    return LX_OK;
}

long LxWin32Manager::shutdownChannelType(LxAudioChannelType_s type) {
    if (type == LxRawChannel && mixer != nullptr) {
        static_cast<LxWin32Mixer*>(mixer)->closeDirectSound(0);
    }
    channelInfo[type].started = 0;
    return LX_OK;
}

long LxWin32Manager::getDiagnostics(LxDiagnostics& diagnostics) {
    if (mixer == nullptr) {
        return LX_ERR_NO_MIXER;
    }
    return static_cast<LxWin32Mixer*>(mixer)->getDiagnostics(diagnostics);
}
