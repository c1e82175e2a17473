// The manager's audio channel arbitration: which ports hold one of the limited channels of their
// type, which wait, and when the machine switches between sampled audio and MIDI on a card that
// cannot run both at once.
//
// Every list and count changes with channelLock held. Ports are granted and revoked their channel
// with the lock held, so a port must not wait inside grantChannel/revokeChannel for a thread that
// needs channelLock.
#include "LxManager.h"

#include "LxLog.h"
#include "LxResult.h"

#include <iterator>

namespace {

typedef std::list<LxPortChannelEntry> PortList;

const char* typeName(int type) {
    return type == LxRawChannel ? "RAW" : "MIDI";
}

// The precedence between two entries: wish to play, then priority, then (for equal priorities
// above 0.5) the later request, then gain. Equal entries do not beat each other, so an incumbent
// keeps its place against an equal newcomer.
bool beats(const LxPortChannelEntry& a, const LxPortChannelEntry& b) {
    if ((a.wantsChannel != 0) != (b.wantsChannel != 0)) {
        return a.wantsChannel != 0;
    }
    if (a.priority > b.priority) {
        return true;
    }
    if (a.priority < b.priority) {
        return false;
    }
    // Among equal priorities above one half the later request wins both ways round; gain decides
    // only between equal times, or the order would not be antisymmetric (a later but quieter port
    // and an earlier but louder one would each beat the other).
    if (a.priority > 0.5f && (a.requestTime > b.requestTime || b.requestTime > a.requestTime)) {
        return a.requestTime > b.requestTime;
    }
    return a.gain > b.gain;
}

// Before the first entry that e beats, else at the end.
void insertSorted(PortList& list, const LxPortChannelEntry& e) {
    auto it = list.begin();
    while (it != list.end() && !beats(e, *it)) {
        ++it;
    }
    list.insert(it, e);
}

PortList::iterator findPort(PortList& list, LxAudioOutputPort* port) {
    for (auto it = list.begin(); it != list.end(); ++it) {
        if (it->port == port) {
            return it;
        }
    }
    return list.end();
}

void refresh(LxPortChannelEntry& e, const LxTime& time, char wantsChannel) {
    e.priority = e.port->getPriority();
    e.gain = e.port->getGain();
    e.requestTime = time;
    e.wantsChannel = wantsChannel;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Building blocks, called with channelLock held.

void LxManager::demote(int t) {
    LxChannelInfo& info = channelInfo[t];
    if (info.activePorts.empty()) {
        return;
    }
    const LxPortChannelEntry e = info.activePorts.back();
    LxLog::postDebug("LxManager:  moving one port from active to waiting\n");
    if (e.port->revokeChannel() != LX_OK) {
        LxLog::postDebug("LxManager:  port refused to release channel!\n");
    }
    if (e.wantsChannel) {
        info.waitingPorts.push_front(e);
    } else {
        info.inactivePorts.push_front(e);
    }
    info.activePorts.pop_back();
    info.activeCount--;
}

void LxManager::promote(int t) {
    LxChannelInfo& info = channelInfo[t];
    if (info.waitingPorts.empty()) {
        return;
    }
    const LxPortChannelEntry e = info.waitingPorts.front();
    LxLog::postDebug("LxManager:  moving one port from waiting to active\n");
    if (e.port->grantChannel() != LX_OK) {
        LxLog::postDebug("LxManager: port refused to acquire channel!\n");
    }
    info.activePorts.push_back(e);
    info.waitingPorts.pop_front();
    info.activeCount++;
}

void LxManager::grant(const LxPortChannelEntry& e, int t) {
    LxChannelInfo& info = channelInfo[t];
    insertSorted(info.activePorts, e);
    if (e.port->grantChannel() != LX_OK) {
        LxLog::postDebug("LxManager:  port failed to acquire channel\n");
    }
    info.activeCount++;
}

void LxManager::preemptType(int o) {
    LxLog::postDebug("LxManager:  pre-empting channel type %s\n", typeName(o));
    while (!channelInfo[o].activePorts.empty()) {
        demote(o);
    }
}

// Resolves an exclusion for entry e of type t that wants to become active while type o runs:
// pre-empts o when e beats o's strongest port, and switches the machine to t when o has no active
// port left. Returns true when e was granted a channel (it is then in t's active list).
bool LxManager::switchForEntry(const LxPortChannelEntry& e, int t, int o) {
    if (!channelInfo[o].activePorts.empty() && beats(e, channelInfo[o].activePorts.front())) {
        preemptType(o);
    }
    if (channelInfo[o].activePorts.empty() && channelInfo[o].started) {
        shutdownChannelType(static_cast<LxAudioChannelType_s>(o));
        startupChannelType(static_cast<LxAudioChannelType_s>(t));
        if (channelInfo[t].started) {
            grant(e, t);
            return true;
        }
    }
    return false;
}

char LxManager::excludingChannelActive(LxAudioChannelType_s t, LxAudioChannelType_s& other) {
    for (int u = 0; u < 2; ++u) {
        if (u != t && channelInfo[t].excludes[u] && channelInfo[u].started) {
            other = static_cast<LxAudioChannelType_s>(u);
            return 1;
        }
    }
    return 0;
}

char LxManager::excludedChannelWaiting(LxAudioChannelType_s t, LxAudioChannelType_s& other) {
    for (int u = 0; u < 2; ++u) {
        if (channelInfo[u].excludes[t] && !channelInfo[u].waitingPorts.empty()) {
            other = static_cast<LxAudioChannelType_s>(u);
            return 1;
        }
    }
    return 0;
}

// ---------------------------------------------------------------------------------------------
// The public operations.

long LxManager::requestPortChannel(LxAudioOutputPort* port, const LxTime& time) {
    const int t = port->getChannelType();
    if (channelInfo[t].maxChannels == 0) {
        LxLog::postDebug("LxManager:  cannot render requested channel type\n");
        return LX_ERR_CHANNEL_TYPE_UNAVAILABLE;
    }
    KtScopedLock<KtMutex> guard(channelLock);
    LxChannelInfo& info = channelInfo[t];
    const LxPortChannelEntry e{port, port->getPriority(), time, port->getGain(), 0};

    LxAudioChannelType_s o = static_cast<LxAudioChannelType_s>(2);
    if (info.activeCount == 0 && excludingChannelActive(static_cast<LxAudioChannelType_s>(t), o)) {
        LxLog::postDebug("LxManager:  excluding channel active\n");
        if (!channelInfo[o].activePorts.empty() && beats(e, channelInfo[o].activePorts.front())) {
            preemptType(o);
        }
        if (channelInfo[o].activePorts.empty() && channelInfo[o].started) {
            shutdownChannelType(o);
        } else {
            info.inactivePorts.push_front(e);
            return LX_OK;
        }
    }
    if (!info.started) {
        startupChannelType(static_cast<LxAudioChannelType_s>(t));
        if (!info.started) {
            info.inactivePorts.push_front(e);
            return LX_OK;
        }
    }
    if (info.activeCount < info.maxChannels) {
        grant(e, t);
    } else if (!info.activePorts.empty() && beats(e, info.activePorts.back())) {
        demote(t);
        grant(e, t);
    } else {
        info.inactivePorts.push_front(e);
    }
    return LX_OK;
}

long LxManager::updatePortChannel(LxAudioOutputPort* port, const LxTime& time, char wantsChannel) {
    const int t = port->getChannelType();
    if (channelInfo[t].maxChannels == 0) {
        return LX_ERR_CHANNEL_TYPE_UNAVAILABLE;
    }
    KtScopedLock<KtMutex> guard(channelLock);
    LxChannelInfo& info = channelInfo[t];
    const LxAudioChannelType_s type = static_cast<LxAudioChannelType_s>(t);
    LxAudioChannelType_s o = static_cast<LxAudioChannelType_s>(2);

    if (wantsChannel) {
        if (port->hasChannel()) {
            auto it = findPort(info.activePorts, port);
            if (it != info.activePorts.end()) {
                LxPortChannelEntry e = *it;
                refresh(e, time, wantsChannel);
                info.activePorts.erase(it);
                insertSorted(info.activePorts, e);
            }
        } else if (auto it = findPort(info.inactivePorts, port); it != info.inactivePorts.end()) {
            LxPortChannelEntry e = *it;
            refresh(e, time, wantsChannel);
            if (!info.started) {
                LxLog::postDebug(
                    "LxManager: inactive port trying to go active on unitialized channel, moving to "
                    "waiting\n");
                info.inactivePorts.erase(it);
                insertSorted(info.waitingPorts, e);
            } else if (!info.activePorts.empty()) {
                info.inactivePorts.erase(it);
                if (beats(e, info.activePorts.back())) {
                    LxLog::postDebug("LxManager:  swap newly activated por in\n");
                    demote(t);
                    grant(e, t);
                } else {
                    LxLog::postDebug("LxManager:  port moving from inactive to waiting\n");
                    insertSorted(info.waitingPorts, e);
                }
            } else if (excludingChannelActive(type, o)) {
                info.inactivePorts.erase(it);
                if (!switchForEntry(e, t, o)) {
                    insertSorted(info.waitingPorts, e);
                }
            } else {
                *it = e;  // stays inactive with its new values
            }
        } else if (auto it = findPort(info.waitingPorts, port); it != info.waitingPorts.end()) {
            LxPortChannelEntry e = *it;
            refresh(e, time, wantsChannel);
            if (!info.activePorts.empty()) {
                info.waitingPorts.erase(it);
                if (beats(e, info.activePorts.back())) {
                    demote(t);
                    grant(e, t);
                } else {
                    insertSorted(info.waitingPorts, e);
                }
            } else if (excludingChannelActive(type, o)) {
                info.waitingPorts.erase(it);
                if (!switchForEntry(e, t, o)) {
                    insertSorted(info.waitingPorts, e);
                }
            } else {
                *it = e;
            }
        } else {
            LxLog::postDebug("LxManager:  updatePortChannel called on unregistered port\n");
        }
    } else if (port->hasChannel()) {
        auto it = findPort(info.activePorts, port);
        if (it != info.activePorts.end()) {
            LxPortChannelEntry e = *it;
            refresh(e, time, wantsChannel);
            info.activePorts.erase(it);
            if (excludedChannelWaiting(type, o) || !info.waitingPorts.empty()) {
                // Somebody needs the channel: give it up.
                info.inactivePorts.push_front(e);
                if (port->revokeChannel() != LX_OK) {
                    LxLog::postDebug("LxManager:  port failed to release channel\n");
                }
                info.activeCount--;
                releaseWaitingPort(type);
            } else {
                insertSorted(info.activePorts, e);  // nobody waits: the port keeps its channel
            }
        }
    } else if (auto it = findPort(info.waitingPorts, port); it != info.waitingPorts.end()) {
        LxPortChannelEntry e = *it;
        refresh(e, time, wantsChannel);
        info.waitingPorts.erase(it);
        info.inactivePorts.push_front(e);
    }
    return LX_OK;
}

void LxManager::releasePortChannel(LxAudioOutputPort* port) {
    const int t = port->getChannelType();
    if (channelInfo[t].maxChannels == 0) {
        return;
    }
    KtScopedLock<KtMutex> guard(channelLock);
    LxChannelInfo& info = channelInfo[t];
    if (port->hasChannel()) {
        if (port->revokeChannel() != LX_OK) {
            LxLog::postDebug("LxManager:  port failed to release channel\n");
        }
        auto it = findPort(info.activePorts, port);
        if (it != info.activePorts.end()) {
            info.activePorts.erase(it);
        } else {
            LxLog::postDebug("LxManager:  a port with a channel was not in the active port list!\n");
        }
        info.activeCount--;
        releaseWaitingPort(static_cast<LxAudioChannelType_s>(t));
    } else if (auto it = findPort(info.waitingPorts, port); it != info.waitingPorts.end()) {
        info.waitingPorts.erase(it);
    } else if (auto it2 = findPort(info.inactivePorts, port); it2 != info.inactivePorts.end()) {
        info.inactivePorts.erase(it2);
    } else {
        LxLog::postDebug("LxManager:  could not find prot in any list!\n");
    }
}

long LxManager::releaseWaitingPort(LxAudioChannelType_s type) {
    const int t = type;
    LxChannelInfo& info = channelInfo[t];
    LxAudioChannelType_s other = static_cast<LxAudioChannelType_s>(2);
    if (!excludedChannelWaiting(type, other)) {
        if (!info.waitingPorts.empty()) {
            promote(t);
        }
        return LX_OK;
    }
    LxChannelInfo& oinfo = channelInfo[other];
    bool switchTypes = false;
    if (info.activePorts.empty() && info.waitingPorts.empty()) {
        switchTypes = true;
    } else if (!info.waitingPorts.empty()) {
        switchTypes = beats(oinfo.waitingPorts.front(), info.waitingPorts.front());
    } else if (!info.activePorts.empty()) {
        switchTypes = beats(oinfo.waitingPorts.front(), info.activePorts.front());
    }
    if (!switchTypes) {
        promote(t);
        return LX_OK;
    }
    while (!info.activePorts.empty()) {
        demote(t);
    }
    shutdownChannelType(type);
    startupChannelType(other);
    promote(other);
    return LX_OK;
}

long LxManager::updateChannelInfo() {
    KtScopedLock<KtMutex> guard(channelLock);
    LxChannelInfo& raw = channelInfo[LxRawChannel];
    if (raw.maxChannels == 0) {
        maxAudioChannels = 0;  // no sampled audio on this system
        return LX_OK;
    }
    if (raw.maxChannels == maxAudioChannels) {
        return LX_OK;
    }
    raw.maxChannels = maxAudioChannels == AUTO_MAX_CHANNELS ? 64 : maxAudioChannels;
    while (raw.activeCount > raw.maxChannels) {
        LxLog::postDebug("LxManager:  max channels shrunk - kicking out a port\n");
        demote(LxRawChannel);
    }
    while (raw.activeCount < raw.maxChannels && !raw.waitingPorts.empty()) {
        promote(LxRawChannel);
    }
    return LX_OK;
}

long LxManager::deleteChannelInfo() {
    return LX_OK;
}
