// LxPlayer core: requests, the thread contract, node events and the player's lifecycle.
#include "LxPlayer.h"

#include "LxConnectable.h"
#include "LxDataSource.h"
#include "LxLog.h"
#include "LxManagerServices.h"
#include "LxQueue.h"
#include "LxResult.h"
#include "LxTimeBase.h"

#include <algorithm>
#include <cmath>
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
    KtScopedLock guard(signal);
    // Checked again under the signal: a player that died or lost its thread since the caller's
    // first look would never answer.
    if (getCurrentState() == DEAD) {
        *result = LX_ERR_PLAYER_DEAD;
        return false;
    }
    if (!threadRunning) {
        LxLog::postDebug("LxPlayer:  no player thread to carry out the request\n");
        *result = LX_ERR_GENERIC;
        return false;
    }
    apiQueue->send(request);
    signal.notifyAll();
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
    KtScopedLock guard(signal);
    if (getCurrentState() == DEAD || !threadRunning) {
        request->unref();
        return;
    }
    apiQueue->send(request);
    signal.notifyAll();
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

long LxPlayer::refusal() {
    if (getCurrentState() == DEAD) {
        return LX_ERR_PLAYER_DEAD;
    }
    if (!apiSanityCheck()) {
        return LX_ERR_ON_PLAYER_THREAD;
    }
    return LX_OK;
}

long LxPlayer::requestAndWait(long type, LxTime time, LxTimeBase* tb) {
    LxPlayerAPIEvent* request = makeRequest(type, true);
    if (request == nullptr) {
        return LX_ERR_OUT_OF_MEMORY;
    }
    request->time = time;
    request->timeBase = tb;
    long result = 0;
    sendAndWait(request, &result);
    request->unref();
    return result;
}

void LxPlayer::requestNoReply(long type, char flag) {
    if (refusal() != LX_OK) {
        return;
    }
    if (LxPlayerAPIEvent* request = makeRequest(type, false)) {
        request->flag = flag;
        sendNoReply(request);
    }
}

long LxPlayer::startAtTime(LxTime refTime) {
    const long refused = refusal();
    if (refused != LX_OK) {
        return refused;
    }
    LxTime now = LxTime::zero();
    {
        KtScopedLock guard(signal);
        now = timeBase != nullptr ? timeBase->getRefTime() : LxTime::zero();
    }
    LxLog::postDebug("LxPlayer:  in startAtTime (%5.3f) for %5.3f\n", refTime.getValue(), now.getValue());
    return requestAndWait(LxPlayerAPIEvent::START_AT_TIME, refTime);
}

long LxPlayer::stopAtTime(LxTime refTime) {
    const long refused = refusal();
    if (refused != LX_OK) {
        return refused;
    }
    return requestAndWait(LxPlayerAPIEvent::STOP_AT_TIME, refTime);
}

void LxPlayer::stop() {
    LxLog::postDebug("LxPlayer:  in stop ()\n");
    if (refusal() != LX_OK) {
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
    LxTime media;
    {
        KtScopedLock guard(signal);
        media = clock->getMediaTime();
    }
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
    const long refused = refusal();
    if (refused != LX_OK) {
        return refused;
    }
    return requestAndWait(LxPlayerAPIEvent::SET_MEDIA_TIME, mediaTime);
}

long LxPlayer::setTimeBase(LxTimeBase* tb) {
    LxLog::postDebug("LxPlayer:  setTimeBase ()\n");
    const long refused = refusal();
    if (refused != LX_OK) {
        return refused;
    }
    return requestAndWait(LxPlayerAPIEvent::SET_TIME_BASE, LxTime(), tb);
}

LxNode::LxNodeState LxPlayer::getState() {
    LxLog::postDebug("LxPlayer:  getState()\n");
    if (refusal() != LX_OK) {
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
    requestNoReply(LxPlayerAPIEvent::SET_LOOP, l);
}

void LxPlayer::prefetch() {
    requestNoReply(LxPlayerAPIEvent::PREFETCH);
}

void LxPlayer::suspend() {
    requestNoReply(LxPlayerAPIEvent::SUSPEND);
}

void LxPlayer::resume() {
    requestNoReply(LxPlayerAPIEvent::RESUME);
}

void LxPlayer::setMaster(char m) {
    requestNoReply(LxPlayerAPIEvent::SET_MASTER, m);
}

// ---------------------------------------------------------------------------------------------
// Getters: each waits for the requests sent before it, so a getter right after a setter from the
// same thread sees the new value.

#define LX_PLAYER_GETTER(deadValue, expression)           \
    if (getCurrentState() == DEAD || !apiSanityCheck()) { \
        return deadValue;                                 \
    }                                                     \
    KtScopedLock guard(signal);                           \
    waitForEventQueue();                                  \
    return (expression)

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
    KtScopedLock guard(signal);
    waitForEventQueue();
    return startLatency;
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
    KtScopedLock guard(signal);
    KtThread* t = threadManager->createThread(entry, this, 4, 1, 1);
    if (t == nullptr) {
        return;
    }
    thread = t;
    playerThreadId = t->getId();
    threadRunning = 1;
    guard.unlock();
    if (t->start() != LX_OK) {
        guard.lock();
        threadRunning = 0;
        playerThreadId = 0;
        signal.notifyAll();
    }
}

long LxPlayer::waitForEventOrTime(unsigned long ms) {
    return queueSet->waitForAny(ms);
}

bool LxPlayer::beginPass(unsigned long ms) {
    {
        KtScopedLock guard(signal);
        if (apiQueue->poll() || nodeEventQueue->poll()) {
            processEventQueues();
            return true;
        }
        if (getCurrentState() == DEAD) {
            return false;
        }
    }
    waitForEventOrTime(ms);
    return true;
}

void LxPlayer::endRun() {
    genericShutdown();
    shutdown();
    KtScopedLock guard(signal);
    threadRunning = 0;
    signal.notifyAll();
}

unsigned long LxPlayer::clampWait(double ms, double least) {
    return static_cast<unsigned long>(std::min(std::max(ms, least), static_cast<double>(kLongestWait)));
}

void LxPlayer::runLoop() {
    unsigned long w = 0;
    while (beginPass(passWait(w))) {
        housekeeping();
        LxNodeState s = getCurrentState();
        if (s == UNINITIALIZED) {
            setCurrentState(INITIALIZING);
            const long prepared = prepareThread();
            if (prepared != LX_OK) {
                catastrophicError(prepared);
                w = 0;  // the next pass answers what is still queued and leaves
                continue;
            }
            if (dataSource != nullptr) {
                dataSource->connect();
                dataSource->start();
            }
            s = getCurrentState();
        }
        switch (s) {
            case INITIALIZING: {
                LxPullDataSource* pull = dynamic_cast<LxPullDataSource*>(dataSource);
                if (pull != nullptr && !pull->dataAvailable()) {
                    w = dataPollMs();
                    break;
                }
                const long loaded = loadClip();
                if (loaded != LX_OK) {
                    catastrophicError(loaded);
                    w = 0;
                    break;
                }
                postEvent(new (std::nothrow) LxInitializedEvent(this, initializedKind()));
                setCurrentState(STOPPED);
                w = KT_INFINITE;
                break;
            }
            case PREFETCHING:
                w = prefetchStep();
                break;
            case STARTED:
                w = startedStep();
                break;
            case DEAD:
                w = 0;
                break;
            default:
                w = KT_INFINITE;  // STOPPED or PREFETCHED: only a request moves the player on
                break;
        }
    }
    leaveLoop();
    endRun();
}

unsigned long LxPlayer::startedStep() {
    {
        KtScopedLock guard(signal);
        if (ownEndReached) {
            return KT_INFINITE;
        }
    }
    unsigned long held = KT_INFINITE;
    if (holdStart(&held)) {
        return held;
    }
    const unsigned long toStart = leadWait();
    const unsigned long early = cueLead();
    if (toStart > early) {
        return toStart - early;
    }
    LxTimeBase* tb = nullptr;
    bool stopNow = false;
    {
        KtScopedLock guard(signal);
        tb = timeBase;
        stopNow = tb != nullptr && tb->getRefTime() >= clock->getStopTime();
    }
    if (tb == nullptr) {
        LxLog::postDebug("LxPlayer:  timeBase is NULL!\n");
    }
    if (stopNow) {
        silenceAtStopTime();
        KtScopedLock guard(signal);
        ownEndReached = 1;
        handleStopTime(this);
        return KT_INFINITE;
    }
    return playStep(toStart);
}

unsigned long LxPlayer::leadWait() {
    LxTime media;
    LxTime sync;
    LxTime latency;
    float rate = 0.0f;
    {
        KtScopedLock guard(signal);
        media = clock->getMediaTime();
        sync = clock->getSyncTime();
        rate = clock->getRate();
        latency = startLatency;
    }
    LxLog::postDebug("LxPlayer:  mediaTime = %8.3f syncTime = %8.3f\n", media.getValue(), sync.getValue());
    const long lead = static_cast<long>((media.getValue() - sync.getValue() - latency.getValue()) * 1000.0);
    return lead == 0 ? 0 : startWait(lead, rate);
}

unsigned long LxPlayer::startWait(long lead, float rate) {
    // A negative lead (a backward clock before its start) is waited for by its magnitude too:
    // read as an unsigned count it would be a wait of weeks.
    double ms = std::fabs(static_cast<double>(lead));
    if (rate != 0.0f) {
        ms /= std::fabs(static_cast<double>(rate));
    }
    return clampWait(ms, 1.0);
}

long LxPlayer::prepareThread() {
    return LX_OK;
}

unsigned long LxPlayer::dataPollMs() {
    return 100;
}

long LxPlayer::loadClip() {
    return LX_OK;
}

long LxPlayer::initializedKind() {
    return LX_INITIALIZED_AUDIO;
}

void LxPlayer::housekeeping() {}

unsigned long LxPlayer::passWait(unsigned long w) {
    return w;
}

unsigned long LxPlayer::prefetchStep() {
    LxLog::postDebug("LxPlayer:  entered state %d and we didn't expect it\n",
                     static_cast<int>(getCurrentState()));
    return KT_INFINITE;
}

bool LxPlayer::holdStart(unsigned long*) {
    return false;
}

unsigned long LxPlayer::cueLead() {
    return 0;
}

void LxPlayer::silenceAtStopTime() {}

unsigned long LxPlayer::playStep(unsigned long) {
    return KT_INFINITE;
}

void LxPlayer::leaveLoop() {}

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
    KtScopedLock guard(signal);
    while (apiQueue->poll()) {
        processEventQueues();
    }
}

void LxPlayer::handleSuspend() {
    LxLog::postDebug("LxPlayer: don't know how to handle suspend\n");
}

// ---------------------------------------------------------------------------------------------
// Shutdown

void LxPlayer::waitAndShutdown() {
    KtScopedLock guard(signal);
    loop = 0;
    if (getCurrentState() > STOPPED) {
        stopAll();
    }
    if (!threadRunning) {
        guard.unlock();
        genericShutdown();
        shutdown();
    } else {
        state = DEAD;
        if (LxShutdownEvent* e = new (std::nothrow) LxShutdownEvent(this)) {
            nodeEventQueue->send(e);
        }
        signal.notifyAll();
        guard.unlock();
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
