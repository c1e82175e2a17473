// LxTimeBase: reference time with a tempo, and the timer thread that serves its timers.
#include "LxTimeBase.h"

#include "LxLog.h"
#include "LxManagerServices.h"
#include "LxResult.h"

#include <new>

// ---------------------------------------------------------------------------------------------
// LxTimer and LxTimerList

// A timer's killed flag: the killer set it from another thread and waits for the gate, or the
// timer's own callback killed it and nobody waits, so the timer thread releases it at the end.
namespace {
constexpr char kKilledWaitedFor = 1;
constexpr char kKilledBySelf = 2;
}  // namespace

LxTimer::LxTimer()
    : previous(nullptr),
      next(nullptr),
      callback(nullptr),
      deadline(),
      id(0xFFFFFFFFul),
      userData(nullptr),
      killed(0),
      gate(KtGateLock::create()) {}

LxTimer::LxTimer(LxTimerCallback cb, const LxTime& when, unsigned long timerId, void* user)
    : previous(nullptr),
      next(nullptr),
      callback(cb),
      deadline(when),
      id(timerId),
      userData(user),
      killed(0),
      gate(KtGateLock::create()) {}

LxTimer::~LxTimer() {
    delete gate;
}

LxTimer* LxTimerList::get(unsigned long timerId) const {
    for (LxTimer* t = first; t != nullptr; t = t->next) {
        if (t->id == timerId) {
            return t;
        }
    }
    return nullptr;
}

void LxTimerList::insert(LxTimer* timer) {
    const double due = timer->deadline.getValue();
    LxTimer* before = nullptr;  // the last timer due no later than the new one
    for (LxTimer* t = first; t != nullptr && t->deadline.getValue() <= due; t = t->next) {
        before = t;
    }
    timer->previous = before;
    timer->next = before != nullptr ? before->next : first;
    if (timer->next != nullptr) {
        timer->next->previous = timer;
    }
    if (before != nullptr) {
        before->next = timer;
    } else {
        first = timer;
    }
}

void LxTimerList::append(LxTimer* timer) {
    timer->next = nullptr;
    if (first == nullptr) {
        timer->previous = nullptr;
        first = timer;
        return;
    }
    LxTimer* last = first;
    while (last->next != nullptr) {
        last = last->next;
    }
    last->next = timer;
    timer->previous = last;
}

void LxTimerList::remove(unsigned long timerId) {
    LxTimer* t = get(timerId);
    if (t == nullptr) {
        return;
    }
    if (t->previous != nullptr) {
        t->previous->next = t->next;
    } else {
        first = t->next;
    }
    if (t->next != nullptr) {
        t->next->previous = t->previous;
    }
    t->previous = nullptr;
    t->next = nullptr;
}

void LxTimerList::removeAll() {
    LxTimer* t = first;
    first = nullptr;
    while (t != nullptr) {
        LxTimer* next = t->next;
        t->previous = nullptr;
        t->next = nullptr;
        t->unref();
        t = next;
    }
}

// ---------------------------------------------------------------------------------------------
// LxTimeBase

LxTimeBase::LxTimeBase(LxManager* owner)
    : referenceOrigin(),
      timeOfDayOrigin(),
      tempo(1.0f),
      manager(owner),
      thread(nullptr),
      running(0),
      dying(0),
      timerList(new LxTimerList()),
      currentTimer(nullptr),
      lastTimerId(0) {}

LxTimeBase::~LxTimeBase() {
    LxLog::postDebug("LxTimeBase:  destructor\n");
    shutdownThread();
    timerList->removeAll();
    delete timerList;
    timerList = nullptr;
}

void LxTimeBase::shutdownThread() {
    KtThread* t;
    {
        KtScopedLock<KtWaitNotify> guard(signal);
        if (thread == nullptr) {
            return;
        }
        t = thread;
        thread = nullptr;
        if (running) {
            dying = 1;
            notifyAll();
        }
    }
    KtThreadManager* tm = LxManagerServices::threadManager(manager);
    tm->waitForThread(t, KT_INFINITE);
    tm->releaseThread(t);
}

double LxTimeBase::getTimeOfDay() {
    return 0.0;
}

LxTime LxTimeBase::refTimeAt(double timeOfDay) {
    return LxTime((timeOfDay - timeOfDayOrigin.getValue()) * tempo + referenceOrigin.getValue());
}

LxTime LxTimeBase::getRefTime() {
    KtScopedLock<KtWaitNotify> guard(signal);
    return refTimeAt(getTimeOfDay());
}

long LxTimeBase::setTempo(float newTempo) {
    if (newTempo < 0) {
        return LX_ERR_NEGATIVE_TEMPO;
    }
    KtScopedLock<KtWaitNotify> guard(signal);
    // One reading of the time of day for both origins, so that reference time goes on from where
    // it stands at the old tempo without a jump.
    const double now = getTimeOfDay();
    referenceOrigin = refTimeAt(now);
    timeOfDayOrigin.setValue(now);
    tempo = newTempo;
    notifyAll();
    return LX_OK;
}

float LxTimeBase::getTempo() {
    KtScopedLock<KtWaitNotify> guard(signal);
    return tempo;
}

long LxTimeBase::setTimer(LxTimerCallback callback, const LxTime& delay, unsigned long* id, void* userData) {
    KtScopedLock<KtWaitNotify> guard(signal);
    const unsigned long newId = ++lastTimerId;
    if (id != nullptr) {
        *id = newId;
    }
    LxTimer* timer = new (std::nothrow) LxTimer(callback, getRefTime() + delay, newId, userData);
    if (timer == nullptr) {
        return LX_ERR_OUT_OF_MEMORY;
    }
    timerList->insert(timer);
    if (!running) {
        LxLog::postDebug("LxTimeBase:  need to start a new thread\n");
        startThread();
    } else {
        notifyAll();
    }
    return LX_OK;
}

long LxTimeBase::rescheduleTimer(unsigned long id, const LxTime& delay) {
    KtScopedLock<KtWaitNotify> guard(signal);
    LxTimer* timer = timerList->get(id);
    if (timer == nullptr) {
        return LX_ERR_NO_TIMER;
    }
    timerList->remove(id);
    timer->deadline = getRefTime() + delay;
    timerList->insert(timer);
    notifyAll();
    return LX_OK;
}

long LxTimeBase::killTimer(unsigned long id) {
    LxLog::postDebug("LxTimeBase:  killTimer timer %d\n", static_cast<int>(id));
    LxTimer* timer;
    bool onTimerThread;
    {
        KtScopedLock<KtWaitNotify> guard(signal);
        timer = timerList->get(id);
        if (timer == nullptr) {
            return LX_ERR_NO_TIMER;
        }
        if (timer != currentTimer) {
            removeTimer(timer);
            return LX_OK;
        }
        onTimerThread = thread != nullptr &&
                        LxManagerServices::threadManager(manager)->getCurrentThreadId() == thread->getId();
        timer->killed = onTimerThread ? kKilledBySelf : kKilledWaitedFor;
        notifyAll();
    }
    if (onTimerThread) {
        return LX_OK;  // released by the timer thread once its servicing ends
    }
    LxLog::postDebug("LxTimeBase:  waiting until it's safe\n");
    timer->gate->wait(KT_INFINITE);
    LxLog::postDebug("LxTimeBase:  it's safe\n");
    const unsigned long left = timer->unref();
    LxLog::postDebug("LxTimeBase:  timer %d removed and unref'd, refcount = %d\n", static_cast<int>(id),
                     static_cast<int>(left));
    return LX_OK;
}

void LxTimeBase::startThread() {
    LxLog::postDebug("LxTimeBase:  starting a thread\n");
    if (manager == nullptr || LxManagerServices::threadManager(manager) == nullptr) {
        return;  // no thread services: timers stay pending
    }
    KtThread* t = LxManagerServices::threadManager(manager)->createThread(callRunLoop, this, 4, 1, 1);
    if (t != nullptr) {
        thread = t;
        running = 1;
        t->start();
    }
}

long LxTimeBase::callRunLoop(void* timeBase) {
    static_cast<LxTimeBase*>(timeBase)->run();
    return 0;
}

void LxTimeBase::run() {
    LxLog::postDebug("LxTimeBase:  in the run loop\n");
    for (;;) {
        LxTimer* timer;
        {
            KtScopedLock<KtWaitNotify> guard(signal);
            if (dying) {
                break;
            }
            if (timerList->isEmpty()) {
                wait();
                if (dying) {
                    break;
                }
            }
            if (timerList->isEmpty()) {
                continue;
            }
            timer = timerList->getFirst();
            currentTimer = timer;
            timer->gate->close();
        }
        serviceTimer(timer);
    }
    KtScopedLock<KtWaitNotify> guard(signal);
    running = 0;
    notifyAll();
}

void LxTimeBase::serviceTimer(LxTimer* timer) {
    const LxTime due = timer->deadline;
    for (;;) {
        {
            KtScopedLock<KtWaitNotify> guard(signal);
            // Millisecond counts of times since 1970 overflow 32 bits; their difference does not.
            const int32_t ahead = static_cast<int32_t>(due.getMsecValue() - getRefTime().getMsecValue());
            uint32_t waitMs = 0;
            if (due == LxTime::maxTime()) {
                waitMs = 0x7FFFFFFF;
            } else if (ahead > 0) {
                // A stopped reference time (tempo 0) never reaches a future deadline by itself; a
                // deadline already reached fires at once whatever the tempo.
                waitMs = tempo < 0.00001f ? 0x7FFFFFFF : static_cast<uint32_t>(ahead / tempo);
            }
            if (waitMs >= 1 && !timer->killed) {
                wait(waitMs);
            }
            if (dying || timer->killed) {
                currentTimer = nullptr;
                removeTimer(timer);
                return;
            }
            LxTimer* first = timerList->getFirst();
            if (first != nullptr && first->deadline.getValue() < due.getValue()) {
                // A timer due earlier was set or rescheduled meanwhile: serve that one first.
                currentTimer = nullptr;
                timer->gate->open();
                return;
            }
        }
        if ((due - getRefTime()).getValue() < 0.01) {
            break;
        }
    }

    bool killed;
    {
        KtScopedLock<KtWaitNotify> guard(signal);
        killed = timer->killed != 0;
    }
    if (!killed && timer->callback != nullptr) {
        timer->callback(timer->id, timer->userData);
    }

    KtScopedLock<KtWaitNotify> guard(signal);
    if (timer->killed) {
        removeTimer(timer);
    } else if (timer->deadline == due) {
        // Fired and not rescheduled by its callback: dormant at the tail until rescheduled or killed.
        timerList->remove(timer->id);
        timer->deadline = LxTime::maxTime();
        timerList->append(timer);
    }
    currentTimer = nullptr;
}

void LxTimeBase::removeTimer(LxTimer* timer) {
    if (timerList->get(timer->id) == timer) {
        timerList->remove(timer->id);
    }
    if (timer->killed) {
        const bool release = timer->killed == kKilledBySelf;
        timer->gate->open();
        if (!release) {
            return;  // the killer waits for the gate and releases the timer
        }
    }
    const int id = static_cast<int>(timer->id);
    const unsigned long left = timer->unref();
    LxLog::postDebug("LxTimeBase:  timer %d removed and unref'd, refcount = %d\n", id,
                     static_cast<int>(left));
}
