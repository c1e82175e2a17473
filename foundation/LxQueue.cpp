#include "LxQueue.h"

#include "LxLog.h"
#include "LxResult.h"

#include <cstdarg>
#include <new>
#include <optional>

LxQueue::LxQueue() : head_(nullptr), tail_(nullptr), mutex_(KtMutex::create()), waiter_(nullptr) {}

LxQueue::~LxQueue() {
    deleteList();
    delete mutex_;
}

void LxQueue::lock() {
    mutex_->lock();
}

void LxQueue::unlock() {
    mutex_->unlock();
}

void LxQueue::send(void* message) {
    KtScopedLock<KtMutex> guard(mutex_);
    KtWaitNotify* waiter = waiter_;
    std::optional<KtScopedLock<KtWaitNotify>> waiterGuard;
    if (waiter != nullptr) {
        waiterGuard.emplace(*waiter);
    }
    LxMsgList* node = new (std::nothrow) LxMsgList(message);
    if (node == nullptr) {
        LxLog::postDebug("LxQueue::send: out of memory");
        return;
    }
    KtScopedLock<KtWaitNotify> arrivalGuard(arrival_);
    if (head_.load(std::memory_order_relaxed) == nullptr) {
        head_.store(node, std::memory_order_release);
    } else {
        tail_->next = node;
    }
    tail_ = node;
    arrival_.notify();
    if (waiter != nullptr) {
        waiter->notify();
        waiterGuard.reset();
    }
}

void LxQueue::push(void* message) {
    KtScopedLock<KtMutex> guard(mutex_);
    LxMsgList* node = new (std::nothrow) LxMsgList(message, head_.load(std::memory_order_relaxed));
    if (node == nullptr) {
        LxLog::postDebug("LxQueue::push: out of memory");
        return;
    }
    // The waiter's lock is taken before the arrival signal's, as in send. Both run under the mutex
    // and so never overlap, but one order for every path keeps the lock graph free of cycles (and
    // ThreadSanitizer's lock-order check quiet).
    KtWaitNotify* waiter = waiter_;
    std::optional<KtScopedLock<KtWaitNotify>> waiterGuard;
    if (waiter != nullptr) {
        waiterGuard.emplace(*waiter);
    }
    KtScopedLock<KtWaitNotify> arrivalGuard(arrival_);
    if (node->next == nullptr) {
        tail_ = node;
    }
    head_.store(node, std::memory_order_release);
    arrival_.notify();
    if (waiter != nullptr) {
        waiter->notify();
        waiterGuard.reset();
    }
}

void* LxQueue::receive(char block, const LxTime& timeout) {
    {
        KtScopedLock<KtWaitNotify> arrivalGuard(arrival_);
        while (head_.load(std::memory_order_acquire) == nullptr) {
            if (!block) {
                return nullptr;
            }
            const KtResult result = arrival_.wait(timeout.getMsecValue());
            if (head_.load(std::memory_order_acquire) != nullptr) {
                break;
            }
            if (result == KT_TIMEOUT) {
                LxLog::postDebug("LxQueue: receive timed out\n");
                return nullptr;
            }
            LxLog::postDebug("LxQueue: receive waiting again, KtResult = %i\n", static_cast<int>(result));
        }
    }

    KtScopedLock<KtMutex> guard(mutex_);
    LxMsgList* node = head_.load(std::memory_order_relaxed);
    void* message = nullptr;
    if (node != nullptr) {  // a second receiver may have taken it meanwhile
        head_.store(node->next, std::memory_order_release);
        if (node->next == nullptr) {
            tail_ = nullptr;
        }
        message = node->message;
        delete node;
    }
    return message;
}

void* LxQueue::peek() {
    KtScopedLock<KtMutex> guard(mutex_);
    LxMsgList* head = head_.load(std::memory_order_relaxed);
    return head == nullptr ? nullptr : head->message;
}

short LxQueue::length() {
    KtScopedLock<KtMutex> guard(mutex_);
    short n = 0;
    for (LxMsgList* node = head_.load(std::memory_order_relaxed); node != nullptr; node = node->next) {
        ++n;
    }
    return n;
}

long LxQueue::addWaiter(KtWaitNotify* waiter) {
    KtScopedLock<KtMutex> guard(mutex_);
    if (waiter_ != nullptr) {
        return LX_ERR_ALREADY_TAKEN;
    }
    waiter_ = waiter;
    return LX_OK;
}

long LxQueue::removeWaiter(KtWaitNotify* waiter) {
    KtScopedLock<KtMutex> guard(mutex_);
    if (waiter_ != waiter || waiter == nullptr) {
        return LX_ERR_NOT_QUEUE_WAITER;
    }
    waiter_ = nullptr;
    return LX_OK;
}

void LxQueue::deleteList() {
    KtScopedLock<KtMutex> guard(mutex_);
    LxMsgList* node = head_.exchange(nullptr);
    tail_ = nullptr;
    while (node != nullptr) {
        LxMsgList* next = node->next;
        delete node;
        node = next;
    }
}

// ---------------------------------------------------------------------------------------------
// LxQueueSet
//
// Lock order: a sender holds a queue's mutex while it takes our lock to notify us, so this object
// never calls into a queue (addWaiter, removeWaiter) while it holds its own lock. The list of
// watched queues is still changed only under our lock.

LxQueueSet::LxQueueSet(LxQueue* first, ...) : entries_(nullptr) {
    va_list args;
    va_start(args, first);
    for (LxQueue* q = first; q != nullptr; q = va_arg(args, LxQueue*)) {
        watch(q);
    }
    va_end(args);
}

LxQueueSet::LxQueueSet(LxQueue* const* queues) : entries_(nullptr) {
    for (; queues != nullptr && *queues != nullptr; ++queues) {
        watch(*queues);
    }
}

void LxQueueSet::watch(LxQueue* queue) {
    queue->ref();
    queue->addWaiter(this);  // as designed, a queue that already has a waiter keeps it
    Entry* e = new Entry{queue, nullptr, nullptr};
    KtScopedLock<KtWaitNotify> guard(*this);
    if (entries_ == nullptr) {
        e->prev = e->next = e;
        entries_ = e;
    } else {
        e->prev = entries_->prev;
        e->next = entries_;
        entries_->prev->next = e;
        entries_->prev = e;
    }
}

LxQueueSet::~LxQueueSet() {
    Entry* list;
    {
        KtScopedLock<KtWaitNotify> guard(*this);
        list = entries_;
        entries_ = nullptr;
    }
    if (list == nullptr) {
        return;
    }
    list->prev->next = nullptr;  // open the circle
    while (list != nullptr) {
        Entry* next = list->next;
        list->queue->removeWaiter(this);
        list->queue->unref();
        delete list;
        list = next;
    }
}

long LxQueueSet::waitForAny(unsigned long ms) {
    KtScopedLock<KtWaitNotify> guard(*this);
    for (;;) {
        if (Entry* e = entries_) {
            do {
                if (e->queue->poll()) {
                    return LX_QUEUE_HAS_MESSAGE;
                }
                e = e->next;
            } while (e != entries_);
        }
        if (wait(ms) == KT_TIMEOUT) {
            return LX_QUEUE_WAIT_TIMED_OUT;
        }
    }
}

long LxQueueSet::removeQueue(LxQueue* queue) {
    queue->removeWaiter(this);
    int removed = 0;
    {
        KtScopedLock<KtWaitNotify> guard(*this);
        if (entries_ != nullptr) {
            Entry* e = entries_;
            Entry* stop = entries_->prev;
            for (;;) {
                Entry* next = e->next;
                const bool last = e == stop;
                if (e->queue == queue) {
                    if (e->next == e) {
                        entries_ = nullptr;
                    } else {
                        e->prev->next = e->next;
                        e->next->prev = e->prev;
                        if (entries_ == e) {
                            entries_ = e->next;
                        }
                    }
                    delete e;
                    ++removed;
                }
                if (last) {
                    break;
                }
                e = next;
            }
        }
    }
    if (removed > 0) {
        queue->unref();  // one reference per watched queue, however many entries it had
    }
    return LX_OK;
}
