// LxPlayer core: requests, the thread contract, node events and the player's lifecycle.
#include "LxPlayer.h"

#include "LxConnectable.h"
#include "LxLog.h"
#include "LxManagerServices.h"
#include "LxQueue.h"
#include "LxResult.h"
#include "LxTimeBase.h"

#include <cstdlib>
#include <new>

namespace {

// A reply that could not be allocated still has to wake its requester; it gets this value's
// address instead, which it recognises and does not free.
long gNoMemoryReply = LX_ERR_OUT_OF_MEMORY;

bool needsGraph(long type) {
    switch (type) {
        case LxPlayerAPIEvent::SET_LOOP:
        case LxPlayerAPIEvent::START_AT_TIME:
        case LxPlayerAPIEvent::STOP_AT_TIME:
        case LxPlayerAPIEvent::STOP:
        case LxPlayerAPIEvent::SET_RATE:
        case LxPlayerAPIEvent::SET_MEDIA_TIME:
        case LxPlayerAPIEvent::SET_TIME_BASE:
        case LxPlayerAPIEvent::PREFETCH:
            return true;
        default:
            return false;
    }
}

LxTime deadTime() {
    return LxTime(-1, 0);
}

}  // namespace

LxPlayerAPIEvent::LxPlayerAPIEvent(long t, LxQueue* reply)
    : type(t), replyQueue(reply), time(), timeBase(nullptr), flag(0), rate(0.0f) {}

LxPlayerAPIEvent::~LxPlayerAPIEvent() {
    if (replyQueue != nullptr) {
        // Replies nobody took (the requester is gone) are freed with their queue.
        while (void* reply = replyQueue->receive(0, LxTime::zero())) {
            if (reply != &gNoMemoryReply) {
                delete static_cast<long*>(reply);
            }
        }
        replyQueue->unref();
    }
}

LxPlayer::LxPlayer(LxManager* m, LxDataSource* source)
    : LxNode(m),
      threadRunning(0),
      thread(nullptr),
      threadManager(m != nullptr ? LxManagerServices::threadManager(m) : nullptr),
      master(0),
      suspended(0),
      timeBase(nullptr),
      dataSource(source),
      reserved(0),
      ownEndReached(0),
      prefetchStarted(0),
      apiQueue(new LxQueue()),
      nodeEventQueue(new LxQueue()),
      queueSet(new LxQueueSet(apiQueue, nodeEventQueue, static_cast<LxQueue*>(nullptr))),
      numFrames(-1),
      startLatency(),
      downstreamFound(0),
      nodeList(nullptr),
      playerThreadId(0),
      startWaitLimit(5, 0) {}

LxPlayer::~LxPlayer() {
    // Normally the player class has emptied the graph in its shutdown; what is left goes here.
    destroyAll();
    if (thread != nullptr && threadManager != nullptr) {
        threadManager->waitForThread(thread, KT_INFINITE);
        threadManager->releaseThread(thread);
        thread = nullptr;
    }
    queueSet->removeQueue(apiQueue);
    queueSet->removeQueue(nodeEventQueue);
    delete queueSet;
    while (void* message = nodeEventQueue->receive(0, LxTime::zero())) {
        static_cast<LxEvent*>(message)->unref();
    }
    while (void* message = apiQueue->receive(0, LxTime::zero())) {
        LxPlayerAPIEvent* request = static_cast<LxPlayerAPIEvent*>(message);
        if (request->replyQueue != nullptr) {
            // Its requester still holds it and waits: answer, and leave the release to it.
            long* reply = new (std::nothrow) long(LX_ERR_PLAYER_DEAD);
            request->replyQueue->send(reply != nullptr ? reply : &gNoMemoryReply);
        } else {
            request->unref();
        }
    }
    nodeEventQueue->unref();
    apiQueue->unref();
    if (outputNames != nullptr) {
        for (short i = 0; i < outputCount; ++i) {
            std::free(outputNames[i]);
        }
    }
    std::free(outputNames);
    std::free(outputs);
    outputNames = nullptr;
    outputs = nullptr;
    outputCount = 0;
}

// ---------------------------------------------------------------------------------------------
// Sending requests

char LxPlayer::apiSanityCheck() {
    if (threadManager == nullptr) {
        return 1;
    }
    const KtThreadId id = playerThreadId.load();
    return id == 0 || threadManager->getCurrentThreadId() != id ? 1 : 0;
}

bool LxPlayer::sendRequest(LxPlayerAPIEvent* request, long* result) {
    lock();
    // Checked again under the signal: a player that died or lost its thread since the caller's
    // first look would never answer.
    if (getCurrentState() == DEAD) {
        unlock();
        *result = LX_ERR_PLAYER_DEAD;
        return false;
    }
    if (!threadRunning) {
        unlock();
        LxLog::postDebug("LxPlayer:  no player thread to carry out the request\n");
        *result = LX_ERR_GENERIC;
        return false;
    }
    apiQueue->send(request);
    signal.notifyAll();
    unlock();
    return true;
}

long LxPlayer::awaitReply(LxPlayerAPIEvent* request) {
    void* reply = request->replyQueue->receive(1, LxTime::maxTime());
    if (reply == nullptr) {
        return LX_ERR_GENERIC;
    }
    const long result = *static_cast<long*>(reply);
    if (reply != &gNoMemoryReply) {
        delete static_cast<long*>(reply);
    }
    return result;
}

bool LxPlayer::sendAndWait(LxPlayerAPIEvent* request, long* result) {
    if (!sendRequest(request, result)) {
        return false;
    }
    *result = awaitReply(request);
    return true;
}

void LxPlayer::sendNoReply(LxPlayerAPIEvent* request) {
    lock();
    if (getCurrentState() == DEAD || !threadRunning) {
        unlock();
        request->unref();
        return;
    }
    apiQueue->send(request);
    signal.notifyAll();
    unlock();
}

namespace {

LxPlayerAPIEvent* makeRequest(long type, bool withReply) {
    LxQueue* reply = nullptr;
    if (withReply) {
        reply = new (std::nothrow) LxQueue();
        if (reply == nullptr) {
            return nullptr;
        }
    }
    LxPlayerAPIEvent* request = new (std::nothrow) LxPlayerAPIEvent(type, reply);
    if (request == nullptr && reply != nullptr) {
        reply->unref();
    }
    return request;
}

}  // namespace

long LxPlayer::startAtTime(LxTime refTime) {
    if (getCurrentState() == DEAD) {
        return LX_ERR_PLAYER_DEAD;
    }
    if (!apiSanityCheck()) {
        return LX_ERR_ON_PLAYER_THREAD;
    }
    lock();
    const LxTime now = timeBase != nullptr ? timeBase->getRefTime() : LxTime::zero();
    unlock();
    LxLog::postDebug("LxPlayer:  in startAtTime (%5.3f) for %5.3f\n", refTime.getValue(), now.getValue());
    LxPlayerAPIEvent* request = makeRequest(LxPlayerAPIEvent::START_AT_TIME, true);
    if (request == nullptr) {
        return LX_ERR_OUT_OF_MEMORY;
    }
    request->time = refTime;
    long result = 0;
    sendAndWait(request, &result);
    request->unref();
    return result;
}

long LxPlayer::stopAtTime(LxTime refTime) {
    if (getCurrentState() == DEAD) {
        return LX_ERR_PLAYER_DEAD;
    }
    if (!apiSanityCheck()) {
        return LX_ERR_ON_PLAYER_THREAD;
    }
    LxPlayerAPIEvent* request = makeRequest(LxPlayerAPIEvent::STOP_AT_TIME, true);
    if (request == nullptr) {
        return LX_ERR_OUT_OF_MEMORY;
    }
    request->time = refTime;
    long result = 0;
    sendAndWait(request, &result);
    request->unref();
    return result;
}

void LxPlayer::stop() {
    LxLog::postDebug("LxPlayer:  in stop ()\n");
    if (getCurrentState() == DEAD || !apiSanityCheck()) {
        return;
    }
    LxPlayerAPIEvent* request = makeRequest(LxPlayerAPIEvent::STOP, true);
    if (request == nullptr) {
        return;
    }
    long result = 0;
    if (!sendRequest(request, &result)) {
        request->unref();
        return;
    }
    LxLog::postDebug("LxPlayer:  sent STOP API event\n");
    awaitReply(request);
    request->unref();
    lock();
    const LxTime media = clock->getMediaTime();
    unlock();
    postEvent(new (std::nothrow) LxStopByRequestEvent(this, media));
}

long LxPlayer::setRate(float* rate) {
    if (getCurrentState() == DEAD) {
        return LX_ERR_PLAYER_DEAD;
    }
    if (rate == nullptr) {
        LxLog::postDebug("LxPlayer: rate pointer NULL passed into setRate()\n");
        return LX_ERR_GENERIC;
    }
    if (!apiSanityCheck()) {
        return LX_ERR_ON_PLAYER_THREAD;
    }
    LxPlayerAPIEvent* request = makeRequest(LxPlayerAPIEvent::SET_RATE, true);
    if (request == nullptr) {
        return LX_ERR_OUT_OF_MEMORY;
    }
    request->rate = *rate;
    long result = 0;
    if (sendAndWait(request, &result)) {
        *rate = request->rate;
    }
    request->unref();
    return result;
}

long LxPlayer::setMediaTime(LxTime mediaTime) {
    if (getCurrentState() == DEAD) {
        return LX_ERR_PLAYER_DEAD;
    }
    if (!apiSanityCheck()) {
        return LX_ERR_ON_PLAYER_THREAD;
    }
    LxPlayerAPIEvent* request = makeRequest(LxPlayerAPIEvent::SET_MEDIA_TIME, true);
    if (request == nullptr) {
        return LX_ERR_OUT_OF_MEMORY;
    }
    request->time = mediaTime;
    long result = 0;
    sendAndWait(request, &result);
    request->unref();
    return result;
}

long LxPlayer::setTimeBase(LxTimeBase* tb) {
    LxLog::postDebug("LxPlayer:  setTimeBase ()\n");
    if (getCurrentState() == DEAD) {
        return LX_ERR_PLAYER_DEAD;
    }
    if (!apiSanityCheck()) {
        return LX_ERR_ON_PLAYER_THREAD;
    }
    LxPlayerAPIEvent* request = makeRequest(LxPlayerAPIEvent::SET_TIME_BASE, true);
    if (request == nullptr) {
        return LX_ERR_OUT_OF_MEMORY;
    }
    request->timeBase = tb;
    long result = 0;
    sendAndWait(request, &result);
    request->unref();
    return result;
}

LxNode::LxNodeState LxPlayer::getState() {
    LxLog::postDebug("LxPlayer:  getState()\n");
    if (getCurrentState() == DEAD || !apiSanityCheck()) {
        return DEAD;
    }
    LxPlayerAPIEvent* request = makeRequest(LxPlayerAPIEvent::GET_STATE, true);
    if (request == nullptr) {
        return DEAD;
    }
    long result = 0;
    const bool answered = sendAndWait(request, &result);
    request->unref();
    if (!answered || result < DEAD || result > STARTED) {
        return DEAD;
    }
    LxLog::postDebug("LxPlayer:  got state\n");
    return static_cast<LxNodeState>(result);
}

void LxPlayer::setLoop(char l) {
    LxLog::postDebug("LxPlayer:  setLoop ()\n");
    if (getCurrentState() == DEAD || !apiSanityCheck()) {
        return;
    }
    if (LxPlayerAPIEvent* request = makeRequest(LxPlayerAPIEvent::SET_LOOP, false)) {
        request->flag = l;
        sendNoReply(request);
    }
}

void LxPlayer::prefetch() {
    if (getCurrentState() == DEAD || !apiSanityCheck()) {
        return;
    }
    if (LxPlayerAPIEvent* request = makeRequest(LxPlayerAPIEvent::PREFETCH, false)) {
        sendNoReply(request);
    }
}

void LxPlayer::suspend() {
    if (getCurrentState() == DEAD || !apiSanityCheck()) {
        return;
    }
    if (LxPlayerAPIEvent* request = makeRequest(LxPlayerAPIEvent::SUSPEND, false)) {
        sendNoReply(request);
    }
}

void LxPlayer::resume() {
    if (getCurrentState() == DEAD || !apiSanityCheck()) {
        return;
    }
    if (LxPlayerAPIEvent* request = makeRequest(LxPlayerAPIEvent::RESUME, false)) {
        sendNoReply(request);
    }
}

void LxPlayer::setMaster(char m) {
    if (getCurrentState() == DEAD || !apiSanityCheck()) {
        return;
    }
    if (LxPlayerAPIEvent* request = makeRequest(LxPlayerAPIEvent::SET_MASTER, false)) {
        request->flag = m;
        sendNoReply(request);
    }
}

// ---------------------------------------------------------------------------------------------
// Getters: each waits for the requests sent before it, so a getter right after a setter from the
// same thread sees the new value.

#define LX_PLAYER_GETTER(deadValue, expression)           \
    if (getCurrentState() == DEAD || !apiSanityCheck()) { \
        return deadValue;                                 \
    }                                                     \
    lock();                                               \
    waitForEventQueue();                                  \
    const auto value = (expression);                      \
    unlock();                                             \
    return value

LxTime LxPlayer::getStopTime() {
    LX_PLAYER_GETTER(deadTime(), clock->getStopTime());
}
float LxPlayer::getRate() {
    LX_PLAYER_GETTER(-1.0f, clock->getRate());
}
LxTime LxPlayer::getMediaTime() {
    LX_PLAYER_GETTER(deadTime(), clock->getMediaTime());
}
LxTime LxPlayer::getSyncTime() {
    LX_PLAYER_GETTER(deadTime(), clock->getSyncTime());
}
LxTimeBase* LxPlayer::getTimeBase() {
    LX_PLAYER_GETTER(static_cast<LxTimeBase*>(nullptr), clock->getTimeBase());
}
char LxPlayer::getLoop() {
    LX_PLAYER_GETTER(static_cast<char>(0), loop);
}
LxTime LxPlayer::getDuration() {
    LX_PLAYER_GETTER(deadTime(), duration);
}
long LxPlayer::getNumFrames() {
    LX_PLAYER_GETTER(-1L, numFrames);
}
char LxPlayer::isSuspended() {
    LX_PLAYER_GETTER(static_cast<char>(0), suspended);
}
char LxPlayer::isMaster() {
    LX_PLAYER_GETTER(static_cast<char>(0), master);
}

#undef LX_PLAYER_GETTER

LxTime LxPlayer::getStartLatency() {
    if (getCurrentState() == DEAD) {
        return deadTime();
    }
    if (!apiSanityCheck()) {
        return LxTime::zero();
    }
    lock();
    waitForEventQueue();
    const LxTime value = startLatency;
    unlock();
    return value;
}

void LxPlayer::waitForEventQueue() {
    // Without a thread serving the queue it never drains; the caller then reads at once.
    while (apiQueue->poll() && threadRunning) {
        signal.wait(KT_INFINITE);
    }
}

// ---------------------------------------------------------------------------------------------
// The player thread

void LxPlayer::startThread(long (*entry)(void*)) {
    if (threadManager == nullptr) {
        return;
    }
    lock();
    KtThread* t = threadManager->createThread(entry, this, 4, 1, 1);
    if (t != nullptr) {
        thread = t;
        playerThreadId = t->getId();
        threadRunning = 1;
    }
    unlock();
    if (t != nullptr && t->start() != LX_OK) {
        lock();
        threadRunning = 0;
        playerThreadId = 0;
        signal.notifyAll();
        unlock();
    }
}

long LxPlayer::waitForEventOrTime(unsigned long ms) {
    return queueSet->waitForAny(ms);
}

bool LxPlayer::beginPass(unsigned long ms) {
    lock();
    if (apiQueue->poll() || nodeEventQueue->poll()) {
        processEventQueues();
        unlock();
        return true;
    }
    if (getCurrentState() == DEAD) {
        unlock();
        return false;
    }
    unlock();
    waitForEventOrTime(ms);
    return true;
}

void LxPlayer::endRun() {
    genericShutdown();
    shutdown();
    lock();
    threadRunning = 0;
    signal.notifyAll();
    unlock();
}

void LxPlayer::processEventQueues() {
    while (void* message = apiQueue->receive(0, LxTime::zero())) {
        LxPlayerAPIEvent* request = static_cast<LxPlayerAPIEvent*>(message);
        if (!downstreamFound && needsGraph(request->type)) {
            findAllDownStream();
        }
        handlePlayerEvent(request);
    }
    while (void* message = nodeEventQueue->receive(0, LxTime::zero())) {
        handleNodeEvent(static_cast<LxEvent*>(message));
    }
    signal.notifyAll();
}

void LxPlayer::handlePlayerEvent(LxPlayerAPIEvent* request) {
    long result = LX_OK;
    switch (request->type) {
        case LxPlayerAPIEvent::SET_LOOP:
            setLoopAll(request->flag);
            loop = request->flag;
            LxLog::postDebug("LxPlayer:  setting loop to %s\n", request->flag ? "true" : "false");
            break;
        case LxPlayerAPIEvent::SUSPEND:
            suspended = 1;
            handleSuspend();
            break;
        case LxPlayerAPIEvent::RESUME:
            suspended = 0;
            handleSuspend();
            break;
        case LxPlayerAPIEvent::SET_MASTER:
            master = request->flag;
            break;
        case LxPlayerAPIEvent::START_AT_TIME:
            LxLog::postDebug("LxPlayer:  handling START_AT_TIME\n");
            result = startAll(request->time);
            break;
        case LxPlayerAPIEvent::STOP_AT_TIME:
            result = stopAtTimeAll(request->time);
            break;
        case LxPlayerAPIEvent::STOP:
            LxLog::postDebug("LxPlayer:  handling STOP\n");
            result = stopAll();
            break;
        case LxPlayerAPIEvent::SET_RATE:
            result = setRateAll(&request->rate);
            break;
        case LxPlayerAPIEvent::SET_MEDIA_TIME:
            result = setTimeAll(request->time);
            flushAll();
            break;
        case LxPlayerAPIEvent::SET_TIME_BASE:
            LxLog::postDebug("LxPlayer:  handling SET_TIME_BASE\n");
            result = setTimeBaseAll(request->timeBase);
            break;
        case LxPlayerAPIEvent::GET_STATE:
            LxLog::postDebug("LxPlayer:  handling GET_STATE\n");
            // The reply carries the state itself (read here, on the thread that changes it)
            // rather than its address, so the requester reads nothing unguarded.
            result = getCurrentState();
            break;
        case LxPlayerAPIEvent::PREFETCH:
            LxLog::postDebug("LxPlayer: handling PREFETCH\n");
            prefetchAll();
            break;
        default:
            // Unknown types are ignored; one that waits for an answer still gets one.
            result = LX_ERR_GENERIC;
            break;
    }
    if (request->replyQueue != nullptr) {
        long* reply = new (std::nothrow) long(result);
        request->replyQueue->send(reply != nullptr ? reply : &gNoMemoryReply);
    } else {
        request->unref();
    }
}

void LxPlayer::handleNodeEvent(LxEvent* event) {
    LxLog::postDebug("LxPlayer:  handleNodeEvent\n");
    LxNode* source = event->getSource();
    switch (event->getEventType()) {
        case LxEndOfMediaEventType:
            handleEOM(source);
            break;
        case LxPrefetchCompleteEventType:
            if (LxNodeListEntry* entry = findNodeEntry(source)) {
                entry->prefetched = 1;
            } else {
                LxLog::postDebug("handeNodeEvent: got prefetch event from unlisted node");
            }
            break;
        case LxStartEventType:
            if (LxNodeListEntry* entry = findNodeEntry(source)) {
                entry->started = 1;
            } else {
                LxLog::postDebug("handeNodeEvent: got start event from unlisted node");
            }
            break;
        case LxStopAtTimeEventType:
            handleStopTime(source);
            break;
        case LxShutdownEventType:
            LxLog::postDebug("LxPlayer:  handleNodeEvent:  got shutdown event\n");
            break;
        default:
            break;
    }
    event->unref();
}

void LxPlayer::catastrophicError(long result) {
    state = DEAD;
    postEvent(new (std::nothrow) LxCatastrophicErrorEvent(this, result));
    lock();
    while (apiQueue->poll()) {
        processEventQueues();
    }
    unlock();
}

void LxPlayer::handleSuspend() {
    LxLog::postDebug("LxPlayer: don't know how to handle suspend\n");
}

// ---------------------------------------------------------------------------------------------
// Shutdown

void LxPlayer::waitAndShutdown() {
    lock();
    loop = 0;
    if (getCurrentState() > STOPPED) {
        stopAll();
    }
    if (!threadRunning) {
        unlock();
        genericShutdown();
        shutdown();
    } else {
        state = DEAD;
        if (LxShutdownEvent* e = new (std::nothrow) LxShutdownEvent(this)) {
            nodeEventQueue->send(e);
        }
        signal.notifyAll();
        unlock();
    }
    // Joined in both cases: a thread that ended by itself (or never started) still has to be
    // released, and the player must not go while its thread is still leaving the loop.
    if (thread != nullptr && threadManager != nullptr) {
        threadManager->waitForThread(thread, KT_INFINITE);
        threadManager->releaseThread(thread);
        thread = nullptr;
    }
    playerThreadId = 0;
    state = DEAD;
}

void LxPlayer::genericShutdown() {
    flushAll();
    // A player that never got going reports it. One that is already DEAD has reported itself
    // (catastrophic error) or is being destroyed after a normal life, and stays quiet.
    const LxNodeState s = getCurrentState();
    if (s != DEAD && s < STOPPED) {
        postEvent(new (std::nothrow) LxCatastrophicErrorEvent(this, LX_ERR_GENERIC));
    }
}

void LxPlayer::shutdown() {}

void LxPlayer::destroyAll() {
    // Renderers connected to the player's outputs are its nodes from the moment they were
    // attached, also when no request ever made the player look at its graph.
    if (!downstreamFound && outputCount > 0) {
        findAllDownStream();
    }
    while (LxNodeListEntry* entry = nodeList) {
        nodeList = entry->next;
        if (entry->node == nullptr) {
            LxLog::postDebug("destroyAll: found NULL iter->node\n");
        } else {
            entry->node->removeEventListener(nodeEventQueue);
            delete entry->node;
        }
        delete entry;
    }
}
