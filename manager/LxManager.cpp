// LxManager: the platform-neutral manager: sub-systems, window, settings and (with the players
// and connectables) the registry and connections. The channel arbitration is in
// LxChannelArbitration.cpp.
#include "LxManager.h"

#include "LxConnectable.h"
#include "LxFormat.h"
#include "LxLog.h"
#include "LxPlayer.h"
#include "LxResult.h"
#include "LxTimeBase.h"

#include <cstring>
#include <mutex>

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
      startUpLatency(0, 100000) {
    // The objects below the manager find its thread services and channel arbitration by its
    // pointer (LxManagerServices), so they need not know the manager's class.
    LxManagerServices::attach(this, this, this);
}

// The destructor releases only the channel records (their lists go with them); players, mixer,
// time base and locks are released by closeManager.
LxManager::~LxManager() {
    LxManagerServices::detach(this);
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

long LxManager::addPlayer(LxPlayer* player) {
    std::lock_guard<KtMutex> guard(*playerListLock);
    playerList = new LxPlayerListEntry{player, playerList};
    return LX_OK;
}

long LxManager::verifyPlayer(LxPlayer* player) {
    std::lock_guard<KtMutex> guard(*playerListLock);
    for (LxPlayerListEntry* e = playerList; e != nullptr; e = e->next) {
        if (e->player == player) {
            return LX_OK;
        }
    }
    return LX_ERR_UNKNOWN_PLAYER;
}

long LxManager::destroyPlayer(LxPlayer* player) {
    LxPlayerListEntry* entry = nullptr;
    {
        std::lock_guard<KtMutex> guard(*playerListLock);
        if (playerList == nullptr) {
            LxLog::postDebug("LxManager:  playerList NULL when destroyPlayer called!\n");
            return LX_ERR_UNKNOWN_PLAYER;
        }
        for (LxPlayerListEntry** link = &playerList; *link != nullptr; link = &(*link)->next) {
            if ((*link)->player == player) {
                entry = *link;
                *link = entry->next;
                break;
            }
        }
    }
    if (entry == nullptr) {
        LxLog::postDebug("LxManager: destroyPlayer called on already destroyed player!\n");
        return LX_ERR_UNKNOWN_PLAYER;
    }
    // Deleted without the registry held: the delete waits for the player's threads, whose
    // listeners may be inside verifyPlayer or createPlayer. Unlinked first, so that from here on
    // the player is unknown to everyone and a second destroyPlayer of it is refused.
    delete entry;
    delete player;
    return LX_OK;
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

long LxManager::connect(LxOutputConnectable* output, LxInputConnectable* input) {
    LxFormat* format = findMatchingFormat(output, input);
    if (format == nullptr) {
        return LX_ERR_NO_COMMON_FORMAT;
    }
    long result = output->setFormat(format);
    if (result == LX_OK) {
        result = input->setFormat(format);
    }
    if (result == LX_OK) {
        result = output->connectTo(input);
    }
    if (result == LX_OK) {
        result = input->connectTo(output);
    }
    format->unref();  // the connectables keep references of their own
    return result;
}

LxFormat* LxManager::findMatchingFormat(LxOutputConnectable* output, LxInputConnectable* input) {
    LxFormat** outFormats = nullptr;
    LxFormat** inFormats = nullptr;
    short nOut = 0;
    short nIn = 0;
    output->listFormats(outFormats, &nOut);
    input->listFormats(inFormats, &nIn);
    LxFormat* result = nullptr;
    if (nOut < 0 || nIn < 0) {
        LxLog::postDebug("LxManager:  findMatchingFormat - negative format count!\n");
    } else if (nOut > 0 && nIn > 0 && outFormats != nullptr && inFormats != nullptr) {
        // Pairs in order of the sum of their preference indices; for equal sums the output's
        // preference first; within a pair the output format's match is asked first.
        for (int k = 0; k <= nOut + nIn - 2 && result == nullptr; ++k) {
            const int first = k - nIn + 1 > 0 ? k - nIn + 1 : 0;
            const int last = k < nOut - 1 ? k : nOut - 1;
            for (int i = first; i <= last && result == nullptr; ++i) {
                const int j = k - i;
                result = outFormats[i]->match(inFormats[j]);
                if (result == nullptr) {
                    result = inFormats[j]->match(outFormats[i]);
                }
            }
        }
    }
    delete[] outFormats;  // format lists are allocated with new[]
    delete[] inFormats;
    return result;
}

long LxManager::connectAllUnconnected(LxPlayer* player) {
    bool audio = false;
    bool video = false;
    {
        // Held while renderers are attached, so that the player cannot be destroyed meanwhile;
        // nothing here calls back into the host.
        std::lock_guard<KtMutex> guard(*playerListLock);
        if (verifyPlayer(player) != LX_OK) {
            return LX_ERR_CONNECT_OUTPUTS;
        }
        char** names = nullptr;
        short count = 0;
        player->listOutputs(names, &count);
        if (count < 1) {
            return LX_CONNECTED_NO_OUTPUTS;
        }
        for (short i = 0; i < count; ++i) {
            const char* name = names[i];
            if (name == nullptr) {
                continue;
            }
            const bool isAudio = std::strcmp(name, "Audio") == 0;
            const bool isVideo = std::strcmp(name, "Video") == 0;
            if (!isAudio && !isVideo) {
                continue;
            }
            LxOutputConnectable* out = nullptr;
            player->getOutputConnectable(name, &out);
            bool connected = out != nullptr && out->connectedTo() != nullptr;
            if (!connected) {
                connected =
                    (isAudio ? addDefaultAudioRenderer(player) : addDefaultVideoRenderer(player)) == LX_OK;
            }
            if (connected) {
                (isAudio ? audio : video) = true;
            }
        }
    }
    if (audio && video) {
        return LX_CONNECTED_AUDIO_VIDEO;
    }
    if (audio) {
        return LX_CONNECTED_AUDIO;
    }
    if (video) {
        return LX_CONNECTED_VIDEO;
    }
    return LX_ERR_CONNECT_OUTPUTS;
}

long LxManager::destroyAllPlayers() {
    // As in destroyPlayer: the players' listeners may call the manager while they go, and a
    // player one of them creates meanwhile goes in the next round.
    for (;;) {
        LxPlayerListEntry* list = nullptr;
        {
            std::lock_guard<KtMutex> guard(*playerListLock);
            list = playerList;
            playerList = nullptr;
        }
        if (list == nullptr) {
            return LX_OK;
        }
        while (list != nullptr) {
            LxPlayerListEntry* entry = list;
            list = entry->next;
            delete entry->player;
            delete entry;
        }
    }
}
