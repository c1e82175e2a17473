#include "graph/LxEventPoster.h"

#include "LxEvent.h"
#include "LxLog.h"
#include "LxManagerServices.h"
#include "LxQueue.h"

#include <mutex>
#include <new>

std::atomic<int> LxEventPoster::aliveCount{0};

namespace {

/// The poster whose thread this is (null on every other thread).
thread_local LxEventPoster* tCurrentPoster = nullptr;

/// Guards every poster's waitingFor, so that the chain of waits can be followed at one moment.
std::mutex& waitChainLock() {
    static std::mutex lock;
    return lock;
}

}  // namespace

LxEventPoster::LxEventPoster(LxManager* m)
    : threads(LxManagerServices::threadManager(m)),
      queue(new (std::nothrow) LxQueue()),
      thread(nullptr),
      running(0),
      timeToDie(0),
      orphaned(0),
      waitingFor(nullptr) {
    ++aliveCount;
}

LxEventPoster* LxEventPoster::create(LxManager* manager) {
    if (manager == nullptr || LxManagerServices::threadManager(manager) == nullptr) {
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
    {
        std::lock_guard<KtWaitNotify> guard(poster->signal);
        poster->thread = poster->threads->createThread(&LxEventPoster::callRunLoop, poster, 4, 1, 1);
        poster->running = poster->thread != nullptr ? 1 : 0;
    }
    if (poster->thread == nullptr || poster->thread->start() != 1) {
        {
            std::lock_guard<KtWaitNotify> guard(poster->signal);
            poster->running = 0;
        }
        delete poster;  // releases the thread object; a thread that never started needs no wait
        return nullptr;
    }
    return poster;
}

void LxEventPoster::end(LxEventPoster* poster) {
    if (poster == nullptr) {
        return;
    }
    LxLog::postDebug("LxEventPoster:  destructing\n");
    LxEventPoster* self = tCurrentPoster;
    bool wait = true;
    {
        // Waiting for a thread that waits, through any chain of handlers, for this one would never
        // end; the chain is followed under one lock so that two handlers cannot both miss it.
        std::lock_guard<std::mutex> guard(waitChainLock());
        if (self != nullptr) {
            for (LxEventPoster* p = poster; p != nullptr && wait; p = p->waitingFor) {
                wait = p != self;
            }
            if (wait) {
                self->waitingFor = poster;
            }
        }
    }
    {
        std::lock_guard<KtWaitNotify> guard(poster->signal);
        poster->timeToDie = 1;
        poster->orphaned = wait ? 0 : 1;
        poster->signal.notifyAll();
    }
    if (!wait) {
        LxLog::postDebug("LxEventPoster:  ended from a handler, the thread frees it\n");
        return;
    }
    if (poster->thread != nullptr) {
        poster->threads->waitForThread(poster->thread, KT_INFINITE);
    }
    if (self != nullptr) {
        std::lock_guard<std::mutex> guard(waitChainLock());
        self->waitingFor = nullptr;
    }
    delete poster;
}

LxEventPoster::~LxEventPoster() {
    if (thread != nullptr) {
        threads->releaseThread(thread);  // a thread freeing its own poster goes on to its end
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
    --aliveCount;
}

void LxEventPoster::post(LxEventListener* listener, LxEvent* event) {
    Record* record = new (std::nothrow) Record{listener, event};
    if (record == nullptr) {
        LxLog::postDebug("LxEventPoster:  out of memory, event dropped\n");
        return;
    }
    event->ref();
    std::lock_guard<KtWaitNotify> guard(signal);
    queue->send(record);
    signal.notifyAll();
}

long LxEventPoster::callRunLoop(void* poster) {
    static_cast<LxEventPoster*>(poster)->run();
    return 0;
}

void LxEventPoster::run() {
    tCurrentPoster = this;
    bool lastEmpty = false;
    for (;;) {
        {
            std::lock_guard<KtWaitNotify> guard(signal);
            // post() sends under this lock, so an arrival cannot fall between the look and the
            // wait.
            if (!timeToDie && lastEmpty && !queue->poll()) {
                signal.wait(KT_INFINITE);
            }
            if (timeToDie) {
                break;
            }
        }
        Record* record = static_cast<Record*>(queue->receive(0, LxTime::zero()));
        lastEmpty = record == nullptr;
        if (record != nullptr) {
            record->listener->handleEvent(record->event);
            record->event->unref();
            delete record;
        }
    }
    LxLog::postDebug("LxEventPoster:  time to die!\n");
    char freeItself = 0;
    {
        std::lock_guard<KtWaitNotify> guard(signal);
        running = 0;
        freeItself = orphaned;
    }
    LxLog::postDebug("LxEventPoster:  Goodbye cruel world!!\n");
    tCurrentPoster = nullptr;
    if (freeItself) {
        delete this;  // nobody waits for this thread; the node that owned the poster is gone
    }
}
