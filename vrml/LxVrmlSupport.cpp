#include "LxVrmlSupport.h"

#include "LxAudioOutputPort.h"
#include "LxLog.h"
#include "LxManager.h"
#include "LxPlayer.h"
#include "LxResult.h"
#include "LxTimeBase.h"

#include <cmath>
#include <mutex>
#include <utility>
#include <vector>

LxMediaInfo::LxMediaInfo() {
    initMediaInfo(LxTime::zero(), LxTime::maxTime(), 0, 1.0f, LxTime(-1, 0));
}

LxMediaInfo::LxMediaInfo(LxTime start, LxTime stop, char looping, float speed, LxTime length) {
    initMediaInfo(start, stop, looping, speed, length);
}

void LxMediaInfo::initMediaInfo(LxTime start, LxTime stop, char looping, float speed, LxTime length) {
    startTime = start;
    stopTime = stop;
    loop = looping;
    rate = speed;
    duration = length;
}

// ---------------------------------------------------------------------------------------------

// The lock guards every field. Host callbacks (audioPortChanged) and the manager's destroyPlayer
// are called without it: a host may hold its own lock there and call back into this object, and
// a player's listeners, which may use this object, must be able to finish while it goes.
using Guard = std::lock_guard<KtMutex>;

LxVrmlSupport::LxVrmlSupport(LxPlayer* p, LxManager* m) {
    internalInit(m);
    setPlayer(p);
}

LxVrmlSupport::LxVrmlSupport(LxManager* m) {
    internalInit(m);
}

void LxVrmlSupport::internalInit(LxManager* m) {
    soundNodes = nullptr;
    mediaInfo = new LxMediaInfo();
    player = nullptr;
    manager = m;
    now = LxTime::zero();
    changedFields = 0;
    changingFields = 0;
    playerReady = 0;
    playerControl = 1;
    freeAudioPorts = nullptr;
    lock = KtMutex::create();
}

LxVrmlSupport::~LxVrmlSupport() {
    if (player != nullptr) {
        manager->destroyPlayer(player);
        player = nullptr;
    }
    while (soundNodes != nullptr) {
        SoundNodeEntry* next = soundNodes->next;
        delete soundNodes;
        soundNodes = next;
    }
    while (freeAudioPorts != nullptr) {
        FreePortEntry* next = freeAudioPorts->next;
        delete freeAudioPorts;
        freeAudioPorts = next;
    }
    delete mediaInfo;
    delete lock;
}

void LxVrmlSupport::setPlayer(LxPlayer* p) {
    Guard guard(*lock);
    if (p != nullptr) {
        player = p;
    } else {
        LxLog::postDebug("LxVrmlSupport: setPlayer called with NULL player\n");
    }
}

LxPlayer* LxVrmlSupport::getPlayer() {
    Guard guard(*lock);
    return player;
}

long LxVrmlSupport::finishInitializingPlayer() {
    std::vector<std::pair<LxSoundNodeNotifier*, LxAudioOutputPort*>> told;
    {
        Guard guard(*lock);
        if (manager->connectAllUnconnected(player) == LX_ERR_CONNECT_OUTPUTS) {
            LxLog::postDebug("LxVrmlSupport: failed to connectAllUnconnected!\n");
            return LX_ERR_CONNECT_OUTPUTS;
        }
        const long result = player->setTimeBase(manager->getMasterTimeBase());
        if (result != LX_OK) {
            LxLog::postDebug("LxVrmlSupport:  Failed to setTimeBase()\n");
            return result;
        }
        mediaInfo->duration = player->getDuration();
        LxLog::postDebug("LxVrmlSupport:  Succeeded in initializing player, playerReady now true\n");
        playerReady = 1;

        if (soundNodes == nullptr && freeAudioPorts == nullptr) {
            // The clip's audio gets a silent port even when no Sound node uses it yet.
            FreePortEntry* entry = new FreePortEntry{nullptr, nullptr};
            getAudioPort(&entry->port);
            freeAudioPorts = entry;
        }
        for (SoundNodeEntry* node = soundNodes; node != nullptr; node = node->next) {
            if (node->port == nullptr) {
                if (freeAudioPorts != nullptr) {
                    FreePortEntry* entry = freeAudioPorts;
                    freeAudioPorts = entry->next;
                    node->port = entry->port;
                    delete entry;
                } else {
                    getAudioPort(&node->port);
                }
            }
            if (node->port != nullptr) {
                told.emplace_back(node->notifier, node->port);
            }
        }
    }
    // The sound nodes have their ports (and set their gains) before fields set earlier may start
    // the player.
    for (const auto& t : told) {
        t.first->audioPortChanged(t.second);
    }
    Guard guard(*lock);
    if (changedFields != 0) {
        recalculateMediaInfo();
    }
    return LX_OK;
}

long LxVrmlSupport::getAudioPort(LxAudioOutputPort** port) {
    *port = nullptr;
    if (manager->verifyPlayer(player) != LX_OK) {
        LxLog::postDebug("LxVrmlSupport: getAudioPort called on invalid player\n");
        return LX_ERR_GENERIC;
    }
    const long result = player->getNewAudioPort(port);
    if (result != LX_OK || *port == nullptr) {
        LxLog::postDebug("LxVrmlSupport:  failed to get new audio port\n");
        *port = nullptr;
        return result == LX_OK ? LX_ERR_GENERIC : result;
    }
    LxLog::postDebug("LxVrmlSupport:  got the new audio port, setting gain to 0.0\n");
    (*port)->setGain(0.0f);
    return LX_OK;
}

long LxVrmlSupport::setPlayerControl(char on) {
    Guard guard(*lock);
    playerControl = on;
    if (on && changedFields != 0) {
        recalculateMediaInfo();
    }
    return LX_OK;
}

long LxVrmlSupport::destroyPlayer() {
    std::vector<LxSoundNodeNotifier*> told;
    LxPlayer* going = nullptr;
    {
        Guard guard(*lock);
        playerReady = 0;
        for (SoundNodeEntry* node = soundNodes; node != nullptr; node = node->next) {
            told.push_back(node->notifier);
            node->port = nullptr;
        }
        going = player;
        player = nullptr;
        // The free ports belonged to that player and go with it.
        while (freeAudioPorts != nullptr) {
            FreePortEntry* next = freeAudioPorts->next;
            delete freeAudioPorts;
            freeAudioPorts = next;
        }
    }
    for (LxSoundNodeNotifier* notifier : told) {
        notifier->audioPortChanged(nullptr);
    }
    if (going != nullptr) {
        manager->destroyPlayer(going);
    }
    return LX_OK;
}

void LxVrmlSupport::beginChangingFields() {
    LxLog::postDebug("LxVrmlSupport: beginChangingFields\n");
    Guard guard(*lock);
    now = LxTime::zero();
    changingFields = 1;
}

void LxVrmlSupport::beginChangingFields(const LxTime& browserNow) {
    const double seconds = browserNow.getValue();
    LxLog::postDebug("LxVrmlSupport:  beginChangingFields for now = %8.3f\n", seconds);
    const int32_t whole = static_cast<int32_t>(seconds);
    Guard guard(*lock);
    now = LxTime(whole, static_cast<int32_t>((seconds - whole) * 1000000.0));
    changingFields = 1;
}

void LxVrmlSupport::setStartTime(LxTime t) {
    LxLog::postDebug("LxVrmlSupport:  setStartTime ()\n");
    Guard guard(*lock);
    mediaInfo->startTime = t;
    changedFields |= CHANGED_START_TIME;
    if (!changingFields) {
        recalculateMediaInfo();
    }
}

void LxVrmlSupport::setStopTime(LxTime t) {
    LxLog::postDebug("LxVrmlSupport:  setStopTime ()\n");
    Guard guard(*lock);
    mediaInfo->stopTime = t;
    changedFields |= CHANGED_STOP_TIME;
    if (!changingFields) {
        recalculateMediaInfo();
    }
}

void LxVrmlSupport::setLoop(char loop) {
    LxLog::postDebug("LxVrmlSupport:  setLoop ()\n");
    Guard guard(*lock);
    mediaInfo->loop = loop;
    changedFields |= CHANGED_LOOP;
    if (!changingFields) {
        recalculateMediaInfo();
    }
}

void LxVrmlSupport::setRate(float rate) {
    Guard guard(*lock);
    mediaInfo->rate = rate;
    changedFields |= CHANGED_RATE;
    if (!changingFields) {
        recalculateMediaInfo();
    }
}

void LxVrmlSupport::doneChangingFields() {
    LxLog::postDebug("LxVrmlSupport:  doneChangingFields\n");
    Guard guard(*lock);
    recalculateMediaInfo();
    changingFields = 0;
}

LxTime LxVrmlSupport::getStartTime() {
    Guard guard(*lock);
    return mediaInfo->startTime;
}
LxTime LxVrmlSupport::getStopTime() {
    Guard guard(*lock);
    return mediaInfo->stopTime;
}
char LxVrmlSupport::getLoop() {
    Guard guard(*lock);
    return mediaInfo->loop;
}
float LxVrmlSupport::getRate() {
    Guard guard(*lock);
    return mediaInfo->rate;
}

void LxVrmlSupport::stop() {
    Guard guard(*lock);
    if (playerReady) {
        player->stop();
    }
}

long LxVrmlSupport::addSoundNode(LxSoundNodeNotifier* notifier) {
    if (notifier == nullptr) {
        return LX_ERR_GENERIC;
    }
    LxAudioOutputPort* port = nullptr;
    {
        Guard guard(*lock);
        SoundNodeEntry* entry = soundNodes;
        while (entry != nullptr && entry->notifier != notifier) {
            entry = entry->next;
        }
        if (entry != nullptr) {
            LxLog::postDebug(
                "LxVrmlSupport:  attempting to add a sound node which is already in our list!\n");
        } else {
            LxLog::postDebug("LxVrmlSupport:  adding soundNode to our list of sound nodes\n");
            entry = new SoundNodeEntry{notifier, nullptr, soundNodes};
            soundNodes = entry;
        }
        if (!playerReady) {
            return LX_OK;
        }
        if (freeAudioPorts != nullptr) {
            LxLog::postDebug("LxVrmlSupport:  using an audioPort from our free list\n");
            FreePortEntry* free = freeAudioPorts;
            freeAudioPorts = free->next;
            entry->port = free->port;
            delete free;
        } else {
            LxLog::postDebug("LxVrmlSupport:  getting a new audioPort\n");
            getAudioPort(&entry->port);
        }
        port = entry->port;
    }
    if (port != nullptr) {
        notifier->audioPortChanged(port);
    }
    return LX_OK;
}

long LxVrmlSupport::removeSoundNode(LxSoundNodeNotifier* notifier) {
    Guard guard(*lock);
    if (soundNodes == nullptr) {
        LxLog::postDebug("LxVrmlSupport:  trying to remove a sound node but our sound node list is NULL!\n");
        return LX_OK;
    }
    SoundNodeEntry** link = &soundNodes;
    while (*link != nullptr && (*link)->notifier != notifier) {
        link = &(*link)->next;
    }
    SoundNodeEntry* entry = *link;
    if (entry == nullptr) {
        return LX_OK;
    }
    bool alreadyFree = false;
    for (FreePortEntry* f = freeAudioPorts; f != nullptr; f = f->next) {
        if (f->port == entry->port) {
            alreadyFree = true;
        }
    }
    if (alreadyFree) {
        LxLog::postDebug(
            "LxVrmlSupport:  sound node freeing an audio port that's already in our free list!?!\n");
    } else {
        LxLog::postDebug("LxVrmlSupport:  adding audio port to free list\n");
        freeAudioPorts = new FreePortEntry{entry->port, freeAudioPorts};
    }
    LxLog::postDebug("LxVrmlSupport:  removing sound node\n");
    *link = entry->next;
    delete entry;
    return LX_OK;
}

LxVideoRenderer* LxVrmlSupport::getVideoRenderer() {
    Guard guard(*lock);
    LxVideoRenderer* renderer = nullptr;
    if (player != nullptr) {
        if (manager->verifyPlayer(player) != LX_OK) {
            LxLog::postDebug("LxVrmlSupport: getVideoRender called on invalid player\n");
        } else {
            player->getVideoRenderer(&renderer);
        }
    }
    return renderer;
}

void LxVrmlSupport::recalculateMediaInfo() {
    Guard guard(*lock);
    if (!playerReady || !playerControl) {
        return;  // the changed bits stay for later
    }
    if (manager->verifyPlayer(player) != LX_OK) {
        LxLog::postDebug("LxVrmlSupport: recalculateMediaInfo called on invalid player\n");
        return;
    }
    LxLog::postDebug("LxVrmlSupport:  recalculateMediaInfo()\n");
    LxMediaInfo& info = *mediaInfo;

    if (changedFields & CHANGED_LOOP) {
        LxLog::postDebug("LxVrmlSupport:  CHANGED_LOOP to %s\n", info.loop ? "TRUE" : "FALSE");
        player->setLoop(info.loop);
        if (player->getState() != LxNode::STARTED) {
            changedFields |= CHANGED_START_TIME;
        }
    }
    if (changedFields & CHANGED_RATE) {
        LxLog::postDebug("LxVrmlSupport:  CHANGED_RATE to %4.2f\n", static_cast<double>(info.rate));
        // The player may adjust the rate it uses (a tiny rate becomes 0); the field keeps what the
        // scene set.
        float rate = info.rate;
        player->setRate(&rate);
    }
    if (changedFields & CHANGED_STOP_TIME) {
        LxLog::postDebug("LxVrmlSupport:  CHANGED_STOP_TIME to %8.3f\n", info.stopTime.getValue());
        if (info.stopTime <= info.startTime) {
            LxLog::postDebug("LxVrmlSupport:  Clearing stopTime\n");
            player->stopAtTime(LxTime::maxTime());
        } else {
            player->stopAtTime(info.stopTime);
        }
        changedFields |= CHANGED_START_TIME;  // every stop-time change re-runs the start rules
    }
    if (changedFields & CHANGED_START_TIME) {
        LxLog::postDebug("LxVrmlSupport:  CHANGED_START_TIME to %8.3f\n", info.startTime.getValue());
        if (player->getState() == LxNode::STARTED) {
            LxLog::postDebug("LxVrmlSupport: player was started, stopping\n");
            player->stop();
        }
        LxTimeBase* master = manager->getMasterTimeBase();
        LxTime media;
        if (info.startTime > now) {
            LxLog::postDebug("LxVrmlSupport: startTime > now, setting mediaTime to zero\n");
            media = LxTime::zero();
        } else {
            const LxTime refTime = master != nullptr ? master->getRefTime() : now;
            media = (refTime - info.startTime) * static_cast<double>(info.rate);
        }
        if (info.loop && info.duration > LxTime::zero()) {
            media.setValue(std::fmod(media.getValue(), info.duration.getValue()));
        }
        const LxTime latency = manager->getStartUpLatency();
        if (latency >= LxTime::zero()) {
            LxLog::postDebug("LxVrmlSupport:  positive startUpLatency.  mediaTime was %5.3f, it is now ",
                             media.getValue());
            media = media + latency;
            LxLog::postDebug("%5.3f\n", media.getValue());
        } else {
            LxLog::postDebug("LxVrmlSupport:  negative startUpLatency.  startTime was %5.3f, it is now ",
                             info.startTime.getValue());
            info.startTime = info.startTime - latency;
            LxLog::postDebug("%5.3f\n", info.startTime.getValue());
        }
        const LxTime refTime = master != nullptr ? master->getRefTime() : now;
        LxLog::postDebug(
            "LxVrmlSupport:  mediaTime = %5.3f, startTime = %5.3f, now = %5.3f, refTime = %5.3f\n",
            media.getValue(), info.startTime.getValue(), now.getValue(), refTime.getValue());
        if (media < LxTime(7200, 0) || info.loop) {
            player->setMediaTime(info.duration < LxTime(2, 0) ? LxTime::zero() : media);
            if (info.stopTime <= info.startTime) {
                LxLog::postDebug("LxVrmlSupport:  Clearing stopTime\n");
                player->stopAtTime(LxTime::maxTime());
            }
            player->startAtTime(info.startTime);
        }
    }
    changedFields = 0;
}
