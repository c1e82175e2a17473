// LxManager: the platform-neutral manager: sub-systems, window, settings and (with the players
// and connectables) the registry and connections. The channel arbitration is in
// LxChannelArbitration.cpp.
#include "LxManager.h"

#include "LxLog.h"
#include "LxResult.h"
#include "LxTimeBase.h"

LxManager::LxManager(KtThreadManager* tm)
    : suspended(0),
      masterTimeBase(nullptr),
      mixer(nullptr),
      window(nullptr),
      windowState(LxWindowStateDefault),
      initialisedSubSystems(0),
      threadManager(tm),
      playerList(nullptr),
      playerListLock(KtMutex::create()),
      channelLock(KtMutex::create()),
      maxAudioChannels(AUTO_MAX_CHANNELS),
      audibleMode(LxAudibleWithFocus),
      speakerConfig(),
      spatializeSounds(0),
      startUpLatency(0, 100000) {}

// The destructor releases only the channel records (their lists go with them); players, mixer,
// time base and locks are released by closeManager.
LxManager::~LxManager() {}

LxManager* LxManager::createManager(KtThreadManager*) {
    return nullptr;
}

long LxManager::initSubSystem(unsigned long flags) {
    struct Step {
        unsigned long bit;
        long (LxManager::*start)();
        const char* failure;
    };
    static const Step steps[] = {
        {INIT_TIMERS, &LxManager::initTimers, "LxManager:  failed to initialize timers\n"},
        {INIT_AUDIO, &LxManager::initAudio, "LxManager:  failed to initialize audio\n"},
        {INIT_VIDEO, &LxManager::initVideo, "LxManager:  failed to initialize video\n"},
    };
    for (const Step& step : steps) {
        if ((flags & step.bit) == 0 || (initialisedSubSystems & step.bit) != 0) {
            continue;
        }
        const long result = (this->*step.start)();
        if (result != LX_OK) {
            LxLog::postDebug("%s", step.failure);
            return result;
        }
        initialisedSubSystems |= static_cast<uint32_t>(step.bit);
    }
    return LX_OK;
}

void LxManager::closeManager() {
    LxLog::postDebug("LxManager:  destroying players\n");
    destroyAllPlayers();
    if (mixer != nullptr) {
        LxLog::postDebug("LxManager:  deleting mixer\n");
        delete mixer;
        mixer = nullptr;
    }
    if (masterTimeBase != nullptr) {
        LxLog::postDebug("LxManager:  deleting masterTimeBase\n");
        delete masterTimeBase;
        masterTimeBase = nullptr;
    }
    deleteChannelInfo();
    delete channelLock;
    channelLock = nullptr;
    delete playerListLock;
    playerListLock = nullptr;
    LxLog::postDebug("LxManager:  done closing\n");
    delete this;
}

long LxManager::setWindow(LxWindow* newWindow) {
    if (newWindow == nullptr) {
        LxLog::postDebug("LxManager:  setWindow() called with a NULL window\n");
        return LX_ERR_GENERIC;
    }
    if (window != nullptr) {
        return LX_ERR_GENERIC;
    }
    window = newWindow;
    return LX_OK;
}

long LxManager::setWindowState(LxManager::LxWindowState state) {
    windowState = state;
    return LX_OK;
}

LxManager::LxWindowState LxManager::getWindowState() {
    return windowState;
}

long LxManager::createPlayer(char*, LxPlayer** player) {
    if (player != nullptr) {
        *player = nullptr;
    }
    return LX_ERR_GENERIC;
}

long LxManager::addPlayer(LxPlayer*) {
    return LX_ERR_GENERIC;
}
long LxManager::destroyPlayer(LxPlayer*) {
    return LX_ERR_UNKNOWN_PLAYER;
}
long LxManager::verifyPlayer(LxPlayer*) {
    return LX_ERR_UNKNOWN_PLAYER;
}
void LxManager::useThisDataSourceCreator(long (*)(char*, LxDataSource**)) {}
void LxManager::suspendAll() {}
void LxManager::resumeAll() {}
char LxManager::isSuspended() {
    return suspended;
}
LxTimeBase* LxManager::getMasterTimeBase() {
    return masterTimeBase;
}
LxMixer* LxManager::getMixer() {
    return mixer;
}

long LxManager::setListenerLocation(const float* position, const float* top, const float* front) {
    if ((initialisedSubSystems & INIT_AUDIO) == 0) {
        return LX_OK;
    }
    if (mixer == nullptr) {
        return LX_ERR_NO_MIXER;
    }
    return mixer->setListenerLocation(position, top, front);
}

long LxManager::setAudibleMode(LxAudibleMode_s mode) {
    audibleMode = mode;
    return mixer == nullptr ? LX_ERR_NO_MIXER : mixer->setAudibleMode(mode);
}

LxAudibleMode_s LxManager::getAudibleMode() {
    return audibleMode;
}

long LxManager::setSpatializeSounds(char on) {
    spatializeSounds = on;
    return mixer == nullptr ? LX_ERR_NO_MIXER : mixer->setSpatializeSounds(on);
}

char LxManager::getSpatializeSounds() {
    return spatializeSounds;
}

long LxManager::setSpeakerConfig(LxSpeakerConfiguration config) {
    speakerConfig = config;
    return mixer == nullptr ? LX_ERR_NO_MIXER : mixer->setSpeakerConfig(config);
}

LxSpeakerConfiguration LxManager::getSpeakerConfig() {
    return speakerConfig;
}

long LxManager::setMaxAudioChannels(short channels) {
    if (channels == AUTO_MAX_CHANNELS) {
        LxLog::postDebug("LxManager:  setting to AUTO_MAX_CHANNELS\n");
    } else {
        if (channels <= 0) {
            LxLog::postDebug("LxManager:  bogus value %i in set max channels\n", static_cast<int>(channels));
            channels = 1;
        }
        LxLog::postDebug("LxManager:  setting to %d channels\n", static_cast<int>(channels));
    }
    maxAudioChannels = channels;
    if ((initialisedSubSystems & INIT_AUDIO) == 0) {
        return LX_OK;
    }
    return updateChannelInfo();
}

short LxManager::getMaxAudioChannels() {
    return maxAudioChannels;
}

long LxManager::setStartUpLatency(const LxTime& latency) {
    // Stored normalised: whole seconds and the microseconds left over.
    const double seconds = latency.sec() + latency.usec() * 1e-6;
    const int32_t whole = static_cast<int32_t>(seconds);
    startUpLatency = LxTime(whole, static_cast<int32_t>((seconds - whole) * 1e6));
    return LX_OK;
}

const LxTime& LxManager::getStartUpLatency() {
    return startUpLatency;
}

long LxManager::connectAllUnconnected(LxPlayer*) {
    return LX_ERR_CONNECT_OUTPUTS;
}
long LxManager::connect(LxOutputConnectable*, LxInputConnectable*) {
    return LX_ERR_GENERIC;
}
long LxManager::destroyAllPlayers() {
    return LX_OK;
}
LxFormat* LxManager::findMatchingFormat(LxOutputConnectable*, LxInputConnectable*) {
    return nullptr;
}
