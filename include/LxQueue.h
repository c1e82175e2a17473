// LxQueue.h - the library's inter-thread channel, and LxQueueSet, a wait on several queues.
#ifndef LX_QUEUE_H
#define LX_QUEUE_H

#include "Kt.h"
#include "LxApi.h"
#include "LxTime.h"

#include <atomic>

/// One node of a queue's list. The message is not owned by the node.
class LX_API LxMsgList {
  public:
    void* message;
    LxMsgList* next;

    LxMsgList() : message(nullptr), next(nullptr) {}
    explicit LxMsgList(void* msg) : message(msg), next(nullptr) {}
    LxMsgList(void* msg, LxMsgList* nxt) : message(msg), next(nxt) {}
};

/// A reference-counted, lock-protected list of untyped messages with a blocking receive.
///
/// Messages are opaque: the queue never looks into them, never refs them and never frees them.
/// Ownership of a message passes from sender to receiver; messages still queued when the queue is
/// destroyed stay with whoever else holds them. Any number of threads may send and push; each
/// queue has one receiving thread. A queue can also notify one outside KtWaitNotify (its waiter)
/// on every arrival, which is how LxQueueSet waits on several queues at once.
class LX_API LxQueue : public LxRefCount {
  public:
    LxQueue();

    /// Appends at the tail (first in, first out).
    void send(void* message);
    /// Inserts at the head, so it is received before everything already queued.
    void push(void* message);
    /// Removes and returns the head message. Without block, returns null at once when the queue is
    /// empty; with block, waits up to timeout (LxTime::maxTime(): without limit) and returns null
    /// only when that time ran out with the queue still empty.
    void* receive(char block, const LxTime& timeout);
    /// The head message, or null; nothing is removed.
    void* peek();
    /// Whether the queue holds a message. Takes no lock: a hint for the receiving thread.
    char poll() { return head_.load(std::memory_order_acquire) != nullptr; }
    /// Number of queued messages.
    short length();

    void lock();
    void unlock();

  protected:
    friend class LxQueueSet;

    ~LxQueue() override;

    /// Sets the one outside waiter: 1, or 0x481 when a waiter is already set (nothing changes).
    long addWaiter(KtWaitNotify* waiter);
    /// Clears the waiter: 1, or 0x207 when waiter is not this queue's waiter.
    long removeWaiter(KtWaitNotify* waiter);
    /// Releases every list node; the messages are left alone. The queue is empty afterwards.
    void deleteList();

  private:
    std::atomic<LxMsgList*> head_;
    LxMsgList* tail_;  // last node, so that send appends without walking the list
    KtMutex* mutex_;
    KtWaitNotify arrival_;
    KtWaitNotify* waiter_;
};

/// A wait/notify object that sleeps until one of several queues has a message.
class LX_API LxQueueSet : public KtWaitNotify {
  public:
    /// Watches the queues given, in order, up to a null pointer: LxQueueSet(a, b, (LxQueue*)0).
    /// Each queue is ref'd for as long as it is watched.
    explicit LxQueueSet(LxQueue* first, ...);
    /// The same from a null-terminated array.
    explicit LxQueueSet(LxQueue* const* queues);
    ~LxQueueSet() override;

    /// 0x121 as soon as a watched queue holds a message, 0x123 once ms milliseconds passed
    /// (0xFFFFFFFF: without limit) without one.
    long waitForAny(unsigned long ms);
    /// Stops watching queue (every entry of it) and releases its reference; returns 1.
    long removeQueue(LxQueue* queue);

  private:
    struct Entry {
        LxQueue* queue;
        Entry* prev;
        Entry* next;
    };

    void watch(LxQueue* queue);

    Entry* entries_;  // circular list, null when empty
};

#endif  // LX_QUEUE_H
