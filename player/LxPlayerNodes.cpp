// LxPlayer node orchestration: graph discovery, the operations ending in All, end of media, stop
// time and looping. Everything here runs on the player thread with the signal held, except the
// two port operations, which read the finished graph from host threads.
#include "LxPlayer.h"

#include "LxAudioRendererNode.h"
#include "LxConnectable.h"
#include "LxLog.h"
#include "LxQueue.h"
#include "LxResult.h"
#include "LxTimeBase.h"
#include "LxVideoRenderer.h"

#include <cstdlib>
#include <new>

LxNodeListEntry* LxPlayer::findNodeEntry(LxNode* node) {
    for (LxNodeListEntry* e = nodeList; e != nullptr; e = e->next) {
        if (e->node == node) {
            return e;
        }
    }
    return nullptr;
}

long LxPlayer::addOutputConnectable(char* name, LxOutputConnectable* out) {
    const size_t n = static_cast<size_t>(outputCount) + 1;
    char** names = static_cast<char**>(std::realloc(outputNames, n * sizeof(char*)));
    if (names == nullptr) {
        LxLog::postDebug("addOutputConnectable: realloc failed");
        return LX_ERR_GENERIC;
    }
    outputNames = names;
    LxOutputConnectable** outs = static_cast<LxOutputConnectable**>(std::realloc(outputs, n * sizeof(*outs)));
    if (outs == nullptr) {
        LxLog::postDebug("addOutputConnectable: realloc failed");
        return LX_ERR_GENERIC;
    }
    outputs = outs;
    outputNames[n - 1] = name;
    outputs[n - 1] = out;
    outputCount = static_cast<short>(n);
    return LX_OK;
}

void LxPlayer::findAllDownStream() {
    char** names = nullptr;
    short count = 0;
    listOutputs(names, &count);
    for (short i = 0; i < count && names != nullptr; ++i) {
        LxOutputConnectable* out = nullptr;
        if (getOutputConnectable(names[i], &out) == LX_OK) {
            findDownStreamNodes(out);
        }
    }
    setDurationAll(duration);
    downstreamFound = 1;
}

void LxPlayer::findDownStreamNodes(LxOutputConnectable* out) {
    if (out == nullptr) {
        return;
    }
    LxInputConnectable* in = out->connectedTo();
    LxNode* node = in != nullptr ? in->getNode() : nullptr;
    if (node == nullptr || node == this) {
        return;
    }
    // A node reached a second time (two paths into it, or a cycle) already reports to this
    // player: listening twice would deliver each of its events twice, so it is visited once.
    if (findNodeEntry(node) != nullptr) {
        return;
    }
    LxNodeListEntry* entry = new (std::nothrow) LxNodeListEntry{node, 0, 0, 0, nodeList};
    if (entry == nullptr) {
        LxLog::postDebug("LxPlayer:  out of memory while building the node list\n");
        return;
    }
    node->setEventListener(nodeEventQueue);
    nodeList = entry;
    char** names = nullptr;
    short count = 0;
    node->listOutputs(names, &count);
    for (short i = 0; i < count && names != nullptr; ++i) {
        LxOutputConnectable* next = nullptr;
        if (node->getOutputConnectable(names[i], &next) == LX_OK) {
            findDownStreamNodes(next);
        }
    }
}

long LxPlayer::prefetchAll() {
    const LxNodeState s = getCurrentState();
    if (s <= INITIALIZING) {
        LxLog::postDebug("LxPlayer:  prefetchAll() called when player wasn't initialized\n");
        return LX_ERR_GENERIC;
    }
    if (s == STARTED) {
        LxLog::postDebug("LxPlayer: ignoring prefetch while already started\n");
        return LX_ERR_GENERIC;
    }
    for (LxNodeListEntry* e = nodeList; e != nullptr; e = e->next) {
        e->prefetched = 0;
        e->node->prefetch();
    }
    prefetchStarted = 0;
    setCurrentState(PREFETCHING);
    return LX_OK;
}

char LxPlayer::prefetchComplete() {
    for (LxNodeListEntry* e = nodeList; e != nullptr; e = e->next) {
        if (!e->prefetched) {
            LxLog::postDebug("LxPlayer: prefetchComplete found unprefetched node\n");
            return 0;
        }
    }
    return 1;
}

void LxPlayer::handleStartWaitEvent(LxEvent* event) {
    // An end of media while the nodes start only marks its node: handleEOM would act on a player
    // that is not started yet (and restart a looping one from inside this very wait).
    if (event->getEventType() == LxEndOfMediaEventType) {
        if (LxNodeListEntry* entry = findNodeEntry(event->getSource())) {
            entry->ended = 1;
            entry->started = 0;
        }
        event->unref();
        return;
    }
    handleNodeEvent(event);
}

long LxPlayer::startAll(LxTime t) {
    const LxTime now = timeBase != nullptr ? timeBase->getRefTime() : LxTime::zero();
    LxLog::postDebug("LxPlayer:  in startAll (%5.3f), now = %5.3f\n", t.getValue(), now.getValue());
    if (getCurrentState() < STOPPED) {
        LxLog::postDebug("LxPlayer:  startAll() called when player wasn't initialized\n");
        return LX_ERR_GENERIC;
    }
    const long result = clock->startAtTime(t);
    for (LxNodeListEntry* e = nodeList; e != nullptr; e = e->next) {
        e->node->startAtTime(t);
        e->ended = 0;
    }
    auto unconfirmed = [this] {
        for (LxNodeListEntry* e = nodeList; e != nullptr; e = e->next) {
            if (!e->started && !e->ended) {
                return true;
            }
        }
        return false;
    };
    while (unconfirmed()) {
        LxLog::postDebug("LxPlayer: waiting for one event from subnodes\n");
        LxEvent* event = static_cast<LxEvent*>(nodeEventQueue->receive(1, startWaitLimit));
        if (event == nullptr) {
            for (LxNodeListEntry* e = nodeList; e != nullptr; e = e->next) {
                if (!e->started && !e->ended) {
                    LxLog::postDebug(
                        "LxPlayer:  startAll gave up on a node after %5.3f s, taking it as ended\n",
                        startWaitLimit.getValue());
                    e->ended = 1;
                }
            }
            break;
        }
        handleStartWaitEvent(event);
        while (void* more = nodeEventQueue->receive(0, LxTime::zero())) {
            handleStartWaitEvent(static_cast<LxEvent*>(more));
            LxLog::postDebug("LxPlayer: processing subnode event\n");
        }
    }
    setCurrentState(STARTED);
    ownEndReached = 0;
    postEvent(new (std::nothrow) LxStartEvent(this, clock->getMediaTime(), t));
    return result;
}

long LxPlayer::stopAll() {
    clock->stop();
    const LxTime m = clock->getMediaTime();
    for (LxNodeListEntry* e = nodeList; e != nullptr; e = e->next) {
        e->node->stop();
        e->started = 0;
        e->node->setMediaTime(m);
    }
    setCurrentState(STOPPED);
    return LX_OK;
}

long LxPlayer::stopAtTimeAll(LxTime t) {
    LxLog::postDebug("LxPlayer:  in stopAtTimeAll ()\n");
    long result = clock->stopAtTime(t);
    if (result != LX_OK) {
        return result;
    }
    for (LxNodeListEntry* e = nodeList; e != nullptr && result == LX_OK; e = e->next) {
        result = e->node->stopAtTime(t);
    }
    return result;
}

long LxPlayer::setRateAll(float* rate) {
    if (getCurrentState() < STOPPED) {
        LxLog::postDebug("LxPlayer:  setRateAll () called when player wasn't initialized\n");
        return LX_ERR_GENERIC;
    }
    if (*rate > 0.0f && *rate < 0.001f) {
        LxLog::postDebug("LxPlayer:  0.0 < rate < 0.001, changing this to 0.0\n");
        *rate = 0.0f;
    }
    long result;
    if (getCurrentState() == STARTED) {
        // A running clock refuses a new rate: stop it, change it and start it again now, so that
        // media time goes on from where it was without a jump.
        clock->stop();
        result = clock->setRate(rate);
        LxTimeBase* tb = clock->getTimeBase();
        clock->startAtTime(tb != nullptr ? tb->getRefTime() : LxTime::zero());
    } else {
        result = clock->setRate(rate);
    }
    for (LxNodeListEntry* e = nodeList; e != nullptr; e = e->next) {
        result = e->node->setRate(rate);
        if (result != LX_OK) {
            break;
        }
    }
    return result;
}

long LxPlayer::setTimeAll(LxTime t) {
    if (getCurrentState() < STOPPED) {
        LxLog::postDebug("LxPlayer:  setTimeAll() called when player wasn't initialized\n");
        return LX_ERR_GENERIC;
    }
    long result = clock->setMediaTime(t);
    for (LxNodeListEntry* e = nodeList; e != nullptr; e = e->next) {
        result = e->node->setMediaTime(t);
        if (result != LX_OK) {
            break;
        }
    }
    return result;
}

long LxPlayer::setTimeBaseAll(LxTimeBase* tb) {
    LxTimeBase* old = clock->getTimeBase();
    long result = clock->setTimeBase(tb);
    if (result != LX_OK) {
        return result;
    }
    for (LxNodeListEntry* e = nodeList; e != nullptr; e = e->next) {
        result = e->node->setTimeBase(tb);
        if (result != LX_OK) {
            clock->setTimeBase(old);
            for (LxNodeListEntry* back = nodeList; back != e; back = back->next) {
                back->node->setTimeBase(old);
            }
            return result;
        }
    }
    timeBase = tb;
    return LX_OK;
}

long LxPlayer::setDurationAll(const LxTime& d) {
    for (LxNodeListEntry* e = nodeList; e != nullptr; e = e->next) {
        e->node->setDuration(d);
    }
    return LX_OK;
}

void LxPlayer::setLoopAll(char l) {
    loop = l;
    for (LxNodeListEntry* e = nodeList; e != nullptr; e = e->next) {
        e->node->setLoop(l);
    }
}

void LxPlayer::flushAll() {
    for (short i = 0; i < outputCount && outputs != nullptr; ++i) {
        if (outputs[i] != nullptr) {
            outputs[i]->flush();
        }
    }
}

void LxPlayer::handleEOM(LxNode* node) {
    LxLog::postDebug("LxPlayer:  handleEOM()\n");
    if (getCurrentState() != STARTED) {
        return;
    }
    if (!ownEndReached) {
        signal.notifyAll();  // the player thread looks at its own source again
    }
    if (LxNodeListEntry* entry = findNodeEntry(node)) {
        entry->ended = 1;
        entry->started = 0;
    }
    for (LxNodeListEntry* e = nodeList; e != nullptr; e = e->next) {
        if (e->started) {
            return;
        }
    }
    if (!ownEndReached) {
        return;
    }
    LxLog::postDebug("LxPlayer:  All nodes have posted EOM.  Time to stop!\n");
    if (loop) {
        LxLog::postDebug("LxAMPlayer:  looping, so we're restarting\n");
        // The clock still runs from the pass that ended and would refuse the new media time.
        clock->stop();
        setTimeAll(LxTime::zero());
        startAll(timeBase != nullptr ? timeBase->getRefTime() : LxTime::zero());
        return;
    }
    clock->stop();
    if (clock->getRate() >= 0.0f) {
        if (duration.sec() == -1) {
            const LxTime old = duration;
            duration = clock->getMediaTime();
            postEvent(new (std::nothrow) LxDurationChangedEvent(this, old, duration));
        }
        clock->setMediaTime(duration);
    } else {
        clock->setMediaTime(LxTime::zero());
    }
    stopAll();
    postEvent(new (std::nothrow) LxEndOfMediaEvent(this));
}

void LxPlayer::handleStopTime(LxNode* node) {
    LxLog::postDebug("LxPlayer:  handleStopTime ()\n");
    if (getCurrentState() != STARTED) {
        return;
    }
    if (!ownEndReached) {
        signal.notifyAll();
    }
    if (LxNodeListEntry* entry = findNodeEntry(node)) {
        entry->started = 0;
    }
    for (LxNodeListEntry* e = nodeList; e != nullptr; e = e->next) {
        if (e->started) {
            return;
        }
    }
    if (ownEndReached) {
        LxLog::postDebug("LxPlayer:  all nodes have checked in, stopping!\n");
        stopAll();
        postEvent(new (std::nothrow) LxStopAtTimeEvent(this, clock->getMediaTime(), clock->getStopTime()));
    }
}

long LxPlayer::getNewAudioPort(LxAudioOutputPort** port) {
    LxOutputConnectable* out = nullptr;
    if (getOutputConnectable("Audio", &out) != LX_OK || out == nullptr) {
        LxLog::postDebug(
            "LxPlayer:  getNewAudioPort() couldn't get the Audio output connectable.  This player probably "
            "needs "
            "to over-ride this method\n");
        if (port != nullptr) {
            *port = nullptr;
        }
        return LX_ERR_GENERIC;
    }
    LxInputConnectable* in = out->connectedTo();
    LxAudioRendererNode* renderer =
        in != nullptr ? dynamic_cast<LxAudioRendererNode*>(in->getNode()) : nullptr;
    if (renderer == nullptr || port == nullptr) {
        LxLog::postDebug("LxPlayer:  getNewAudioPort() unable to get audio connectable on audio renderer.\n");
        if (port != nullptr) {
            *port = nullptr;
        }
        return LX_ERR_GENERIC;
    }
    return renderer->getNewAudioPort(port);
}

long LxPlayer::getVideoRenderer(LxVideoRenderer** out) {
    if (out == nullptr) {
        return LX_ERR_GENERIC;
    }
    LxOutputConnectable* video = nullptr;
    if (getOutputConnectable("Video", &video) != LX_OK || video == nullptr) {
        *out = nullptr;
        return LX_OK;
    }
    LxInputConnectable* in = video->connectedTo();
    LxVideoRenderer* renderer = in != nullptr ? dynamic_cast<LxVideoRenderer*>(in->getNode()) : nullptr;
    if (renderer == nullptr) {
        LxLog::postDebug("LxPlayer: Dangling video out\n");
        *out = nullptr;
        return LX_ERR_GENERIC;
    }
    *out = renderer;
    return LX_OK;
}
