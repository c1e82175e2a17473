#include "LxNode.h"

#include "LxLog.h"
#include "LxQueue.h"
#include "LxResult.h"
#include "graph/LxEventPoster.h"

#include <cstring>
#include <mutex>
#include <new>

namespace {

const char* const kStateNames[] = {"DEAD",        "UNINITIALIZED", "INITIALIZING", "STOPPED",
                                   "PREFETCHING", "PREFETCHED",    "STARTED"};

}  // namespace

LxNode::LxNode(LxManager* m)
    : state(UNINITIALIZED),
      duration(-1, 0),
      loop(0),
      manager(m),
      listenerList(new LxEventListenerListEntry{nullptr, nullptr, nullptr, nullptr}),
      mutex(KtMutex::create()),
      eventPoster(nullptr),
      clock(new LxBasicClock()),
      inputNames(nullptr),
      outputNames(nullptr),
      inputs(nullptr),
      outputs(nullptr),
      inputCount(0),
      outputCount(0),
      kept{},
      keptCount(0) {
    listenerList->next = listenerList;
    listenerList->previous = listenerList;
}

LxNode::~LxNode() {
    LxLog::postDebug("LxNode:  destructor\n");
    LxEventPoster* poster = nullptr;
    {
        std::lock_guard<KtMutex> guard(*mutex);
        LxEventListenerListEntry* e = listenerList->next;
        while (e != listenerList) {
            LxEventListenerListEntry* next = e->next;
            delete e;
            e = next;
        }
        listenerList->next = listenerList;
        listenerList->previous = listenerList;
        poster = eventPoster;
        eventPoster = nullptr;
        for (int i = 0; i < keptCount; ++i) {
            kept[i]->unref();
        }
        keptCount = 0;
    }
    // The poster goes before the mutex: a handler still running on its thread may call back into
    // this node (removeEventListener) and needs the mutex alive until the thread has ended.
    LxEventPoster::end(poster);
    delete mutex;
    delete clock;
    delete listenerList;
}

long LxNode::startAtTime(LxTime refTime) {
    return clock->startAtTime(refTime);
}
long LxNode::stopAtTime(LxTime refTime) {
    return clock->stopAtTime(refTime);
}
LxTime LxNode::getStopTime() {
    return clock->getStopTime();
}
void LxNode::stop() {
    clock->stop();
}
long LxNode::setRate(float* rate) {
    return clock->setRate(rate);
}
float LxNode::getRate() {
    return clock->getRate();
}
long LxNode::setMediaTime(LxTime mediaTime) {
    return clock->setMediaTime(mediaTime);
}
LxTime LxNode::getMediaTime() {
    return clock->getMediaTime();
}
LxTime LxNode::getSyncTime() {
    return clock->getSyncTime();
}

long LxNode::setTimeBase(LxTimeBase* timeBase) {
    LxLog::postDebug("LxNode:  setTimeBase ()\n");
    return clock->setTimeBase(timeBase);
}

LxTimeBase* LxNode::getTimeBase() {
    return clock->getTimeBase();
}

LxNode::LxNodeState LxNode::getState() {
    return state.load();
}
LxTime LxNode::getStartLatency() {
    return LxTime(2147483647, 0);
}
LxTime LxNode::getLatency() {
    return LxTime(2147483647, 0);
}

long LxNode::listInputs(char**& names, short* count) {
    names = inputNames;
    if (count != nullptr) {
        *count = inputCount;
    }
    return LX_OK;
}

long LxNode::listOutputs(char**& names, short* count) {
    LxLog::postDebug("LxNode:  listOutputs () \n");
    names = outputNames;
    if (count != nullptr) {
        *count = outputCount;
    }
    return LX_OK;
}

long LxNode::getOutputConnectable(const char* name, LxOutputConnectable** out) {
    LxLog::postDebug("LxNode:  getOutputConnectable () \n");
    if (out == nullptr) {
        return LX_ERR_GENERIC;
    }
    *out = nullptr;
    if (name != nullptr && outputNames != nullptr && outputs != nullptr) {
        for (short i = 0; i < outputCount; ++i) {
            if (outputNames[i] != nullptr && std::strcmp(outputNames[i], name) == 0) {
                *out = outputs[i];
                return LX_OK;
            }
        }
    }
    return LX_ERR_NO_CONNECTABLE;
}

long LxNode::getInputConnectable(const char* name, LxInputConnectable** out) {
    LxLog::postDebug("LxNode:  getInputConnectable ()\n");
    if (out == nullptr) {
        return LX_ERR_GENERIC;
    }
    *out = nullptr;
    if (name != nullptr && inputNames != nullptr && inputs != nullptr) {
        for (short i = 0; i < inputCount; ++i) {
            if (inputNames[i] != nullptr && std::strcmp(inputNames[i], name) == 0) {
                *out = inputs[i];
                return LX_OK;
            }
        }
    }
    return LX_ERR_NO_CONNECTABLE;
}

long LxNode::setEventListener(LxQueue* queue) {
    LxEventListenerListEntry* entry =
        new (std::nothrow) LxEventListenerListEntry{nullptr, nullptr, queue, nullptr};
    if (entry == nullptr) {
        return LX_ERR_OUT_OF_MEMORY;
    }
    std::lock_guard<KtMutex> guard(*mutex);
    entry->previous = listenerList->previous;
    entry->next = listenerList;
    listenerList->previous->next = entry;
    listenerList->previous = entry;
    return LX_OK;
}

long LxNode::setEventListener(LxEventListener* listener) {
    std::lock_guard<KtMutex> guard(*mutex);
    if (eventPoster == nullptr) {
        eventPoster = LxEventPoster::create(manager);
        if (eventPoster == nullptr) {
            return LX_ERR_OUT_OF_MEMORY;
        }
    }
    const bool attached = findListenerInList(listener) != listenerList;
    LxEventListenerListEntry* entry =
        new (std::nothrow) LxEventListenerListEntry{listenerList, listenerList->previous, nullptr, listener};
    if (entry == nullptr) {
        return LX_ERR_OUT_OF_MEMORY;
    }
    listenerList->previous->next = entry;
    listenerList->previous = entry;
    // Queued ahead of anything posted later, since postEvent needs the mutex held here.
    for (int i = 0; i < keptCount && !attached; ++i) {
        eventPoster->post(listener, kept[i]);
    }
    return LX_OK;
}

long LxNode::removeEventListener(LxQueue* queue) {
    std::lock_guard<KtMutex> guard(*mutex);
    LxEventListenerListEntry* e = findListenerInList(queue);
    if (e != listenerList) {
        e->previous->next = e->next;
        e->next->previous = e->previous;
        delete e;
    }
    return LX_OK;
}

long LxNode::removeEventListener(LxEventListener* listener) {
    std::lock_guard<KtMutex> guard(*mutex);
    LxEventListenerListEntry* e = findListenerInList(listener);
    if (e != listenerList) {
        e->previous->next = e->next;
        e->next->previous = e->previous;
        delete e;
    }
    return LX_OK;
}

LxEventListenerListEntry* LxNode::findListenerInList(LxEventListener* listener) {
    LxEventListenerListEntry* e = listenerList->next;
    while (e != listenerList && !(e->listener != nullptr && e->listener == listener)) {
        e = e->next;
    }
    return e;
}

LxEventListenerListEntry* LxNode::findListenerInList(LxQueue* queue) {
    LxEventListenerListEntry* e = listenerList->next;
    while (e != listenerList && !(e->queue != nullptr && e->queue == queue)) {
        e = e->next;
    }
    return e;
}

void LxNode::setLoop(char l) {
    loop = l;
}
char LxNode::getLoop() {
    return loop;
}

void LxNode::prefetch() {
    postEvent(new LxPrefetchCompleteEvent(this));
}

const char* LxNode::stateName(int s) {
    if (s < 0 || s > STARTED) {
        return "UNKNOWN";
    }
    return kStateNames[s];
}

char LxNode::onChangeState(LxNodeState) {
    return state.load() != DEAD;
}

long LxNode::setDuration(const LxTime& d) {
    duration = d;
    return LX_OK;
}

void LxNode::postEvent(LxEvent* event) {
    if (event == nullptr) {
        return;
    }
    std::lock_guard<KtMutex> guard(*mutex);
    for (LxEventListenerListEntry* e = listenerList->next; e != listenerList; e = e->next) {
        if (e->queue != nullptr) {
            event->ref();  // the reader of the queue unrefs it
            e->queue->send(event);
        } else if (e->listener != nullptr && eventPoster != nullptr) {
            eventPoster->post(e->listener, event);
        }
    }
    keepOrRelease(event);
}

void LxNode::keepOrRelease(LxEvent* event) {
    const LxEventType_s type = event->getEventType();
    if (type != LxDurationChangedEventType && type != LxInitializedEventType &&
        type != LxCatastrophicErrorEventType) {
        event->unref();
        return;
    }
    // A newer event of a type replaces the older one and takes its place at the end, so that a
    // late listener learns the last duration after the initialization it followed.
    int n = 0;
    for (int i = 0; i < keptCount; ++i) {
        if (kept[i]->getEventType() == type) {
            kept[i]->unref();
        } else {
            kept[n++] = kept[i];
        }
    }
    kept[n] = event;
    keptCount = n + 1;
}

long LxNode::setCurrentState(LxNodeState newState) {
    if (!onChangeState(newState)) {
        LxLog::postDebug("LxNode: rejecting state change from %s to %s\n", stateName(state.load()),
                         stateName(newState));
        return 0;
    }
    state = newState;
    return LX_OK;
}
