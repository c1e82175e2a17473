#include "graph/LxEventPoster.h"

#include "LxEvent.h"
#include "LxLog.h"
#include "LxManager.h"
#include "LxQueue.h"

#include <new>

LxEventPoster::LxEventPoster(LxManager* m)
    : manager(m), queue(new (std::nothrow) LxQueue()), thread(nullptr), running(0), timeToDie(0) {}

LxEventPoster* LxEventPoster::create(LxManager* manager) {
    if (manager == nullptr || manager->getThreadManager() == nullptr) {
        return nullptr;
    }
    LxEventPoster* poster = new (std::nothrow) LxEventPoster(manager);
    if (poster == nullptr) {
        return nullptr;
    }
    if (poster->queue == nullptr) {
        delete poster;
        return nullptr;
    }
    KtThreadManager* tm = manager->getThreadManager();
    poster->signal.lock();
    poster->thread = tm->createThread(&LxEventPoster::callRunLoop, poster, 4, 1, 1);
    if (poster->thread != nullptr) {
        poster->running = 1;
    }
    poster->signal.unlock();
    if (poster->thread == nullptr || poster->thread->start() != 1) {
        poster->signal.lock();
        poster->running = 0;
        poster->signal.unlock();
        delete poster;  // releases the thread object; a thread that never started needs no wait
        return nullptr;
    }
    return poster;
}

LxEventPoster::~LxEventPoster() {
    LxLog::postDebug("LxEventPoster:  destructing\n");
    KtThreadManager* tm = manager->getThreadManager();
    signal.lock();
    if (running) {
        timeToDie = 1;
        signal.notifyAll();
    }
    signal.unlock();
    if (thread != nullptr) {
        tm->waitForThread(thread, KT_INFINITE);
        tm->releaseThread(thread);
        thread = nullptr;
    }
    if (queue != nullptr) {
        // Records the thread did not reach still hold a reference each; drop them here so that a
        // node destroyed with events in flight leaks nothing.
        while (void* message = queue->receive(0, LxTime::zero())) {
            Record* record = static_cast<Record*>(message);
            record->event->unref();
            delete record;
        }
        queue->unref();
    }
    LxLog::postDebug("LxEventPoster:  done destructing\n");
}

void LxEventPoster::post(LxEventListener* listener, LxEvent* event) {
    Record* record = new (std::nothrow) Record{listener, event};
    if (record == nullptr) {
        LxLog::postDebug("LxEventPoster:  out of memory, event dropped\n");
        return;
    }
    event->ref();
    signal.lock();
    queue->send(record);
    signal.notifyAll();
    signal.unlock();
}

long LxEventPoster::callRunLoop(void* poster) {
    static_cast<LxEventPoster*>(poster)->run();
    return 0;
}

void LxEventPoster::run() {
    bool lastEmpty = false;
    for (;;) {
        signal.lock();
        if (timeToDie) {
            signal.unlock();
            break;
        }
        // post() sends under this lock, so an arrival cannot fall between the look and the wait.
        if (lastEmpty && !queue->poll()) {
            signal.wait(KT_INFINITE);
            if (timeToDie) {
                signal.unlock();
                break;
            }
        }
        signal.unlock();
        Record* record = static_cast<Record*>(queue->receive(0, LxTime::zero()));
        lastEmpty = record == nullptr;
        if (record != nullptr) {
            record->listener->handleEvent(record->event);
            record->event->unref();
            delete record;
        }
    }
    LxLog::postDebug("LxEventPoster:  time to die!\n");
    signal.lock();
    running = 0;
    signal.unlock();
    LxLog::postDebug("LxEventPoster:  Goodbye cruel world!!\n");
}
