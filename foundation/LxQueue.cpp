#include "LxQueue.h"

#include "LxLog.h"
#include "LxResult.h"

#include <cstdarg>
#include <new>

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
    mutex_->lock();
    KtWaitNotify* waiter = waiter_;
    if (waiter != nullptr) {
        waiter->lock();
    }
    LxMsgList* node = new (std::nothrow) LxMsgList(message);
    if (node == nullptr) {
        LxLog::postDebug("LxQueue::send: out of memory");
        if (waiter != nullptr) {
            waiter->unlock();
        }
        mutex_->unlock();
        return;
    }
    arrival_.lock();
    if (head_.load(std::memory_order_relaxed) == nullptr) {
        head_.store(node, std::memory_order_release);
    } else {
        tail_->next = node;
    }
    tail_ = node;
    arrival_.notify();
    if (waiter != nullptr) {
        waiter->notify();
        waiter->unlock();
    }
    arrival_.unlock();
    mutex_->unlock();
}

void LxQueue::push(void* message) {
    mutex_->lock();
    LxMsgList* node = new (std::nothrow) LxMsgList(message, head_.load(std::memory_order_relaxed));
    if (node == nullptr) {
        LxLog::postDebug("LxQueue::push: out of memory");
        mutex_->unlock();
        return;
    }
    // The waiter's lock is taken before the arrival signal's, as in send. Both run under the mutex
    // and so never overlap, but one order for every path keeps the lock graph free of cycles (and
    // ThreadSanitizer's lock-order check quiet).
    KtWaitNotify* waiter = waiter_;
    if (waiter != nullptr) {
        waiter->lock();
    }
    arrival_.lock();
    if (node->next == nullptr) {
        tail_ = node;
    }
    head_.store(node, std::memory_order_release);
    arrival_.notify();
    if (waiter != nullptr) {
        waiter->notify();
        waiter->unlock();
    }
    arrival_.unlock();
    mutex_->unlock();
}

void* LxQueue::receive(char block, const LxTime& timeout) {
    arrival_.lock();
    while (head_.load(std::memory_order_acquire) == nullptr) {
        if (!block) {
            arrival_.unlock();
            return nullptr;
        }
        const KtResult result = arrival_.wait(timeout.getMsecValue());
        if (head_.load(std::memory_order_acquire) != nullptr) {
            break;
        }
        if (result == KT_TIMEOUT) {
            LxLog::postDebug("LxQueue: receive timed out\n");
            arrival_.unlock();
            return nullptr;
        }
        LxLog::postDebug("LxQueue: receive waiting again, KtResult = %i\n", static_cast<int>(result));
    }
    arrival_.unlock();

    mutex_->lock();
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
    mutex_->unlock();
    return message;
}

void* LxQueue::peek() {
    mutex_->lock();
    LxMsgList* head = head_.load(std::memory_order_relaxed);
    void* message = head == nullptr ? nullptr : head->message;
    mutex_->unlock();
    return message;
}

short LxQueue::length() {
    mutex_->lock();
    short n = 0;
    for (LxMsgList* node = head_.load(std::memory_order_relaxed); node != nullptr; node = node->next) {
        ++n;
    }
    mutex_->unlock();
    return n;
}

long LxQueue::addWaiter(KtWaitNotify* waiter) {
    mutex_->lock();
    long result = LX_ERR_ALREADY_TAKEN;
    if (waiter_ == nullptr) {
        waiter_ = waiter;
        result = LX_OK;
    }
    mutex_->unlock();
    return result;
}

long LxQueue::removeWaiter(KtWaitNotify* waiter) {
    mutex_->lock();
    long result = LX_ERR_NOT_QUEUE_WAITER;
    if (waiter_ == waiter && waiter != nullptr) {
        waiter_ = nullptr;
        result = LX_OK;
    }
    mutex_->unlock();
    return result;
}

void LxQueue::deleteList() {
    mutex_->lock();
    LxMsgList* node = head_.exchange(nullptr);
    tail_ = nullptr;
    while (node != nullptr) {
        LxMsgList* next = node->next;
        delete node;
        node = next;
    }
    mutex_->unlock();
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
    lock();
    if (entries_ == nullptr) {
        e->prev = e->next = e;
        entries_ = e;
    } else {
        e->prev = entries_->prev;
        e->next = entries_;
        entries_->prev->next = e;
        entries_->prev = e;
    }
    unlock();
}

LxQueueSet::~LxQueueSet() {
    lock();
    Entry* list = entries_;
    entries_ = nullptr;
    unlock();
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
    lock();
    for (;;) {
        if (Entry* e = entries_) {
            do {
                if (e->queue->poll()) {
                    unlock();
                    return LX_QUEUE_HAS_MESSAGE;
                }
                e = e->next;
            } while (e != entries_);
        }
        if (wait(ms) == KT_TIMEOUT) {
            unlock();
            return LX_QUEUE_WAIT_TIMED_OUT;
        }
    }
}

long LxQueueSet::removeQueue(LxQueue* queue) {
    queue->removeWaiter(this);
    int removed = 0;
    lock();
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
    unlock();
    if (removed > 0) {
        queue->unref();  // one reference per watched queue, however many entries it had
    }
    return LX_OK;
}
