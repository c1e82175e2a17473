// The message queue and the queue set: order, blocking receives across threads, one waiter.
#include "LxQueue.h"

#include "LxResult.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <set>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// Reaches the protected waiter operations; released the way the queue's holders do.
class TestQueue : public LxQueue {
  public:
    using LxQueue::addWaiter;
    using LxQueue::removeWaiter;
};
struct QueueRef {
    TestQueue* q = new TestQueue();
    ~QueueRef() { q->unref(); }
    TestQueue* operator->() { return q; }
};

void* msg(intptr_t v) {
    return reinterpret_cast<void*>(v);
}

TEST(LxQueue, SendIsFifoPushGoesFirstAnEmptyReceiveTimesOutAndOneWaiterAtATime) {
    QueueRef q;
    EXPECT_EQ(nullptr, q->peek());
    EXPECT_FALSE(q->poll());
    q->send(msg(1));
    q->send(msg(2));
    q->push(msg(3));
    EXPECT_EQ(3, q->length());
    EXPECT_EQ(msg(3), q->peek());
    EXPECT_EQ(msg(3), q->receive(0, LxTime::zero()));
    EXPECT_EQ(msg(1), q->receive(0, LxTime::zero()));
    EXPECT_EQ(msg(2), q->receive(1, LxTime::maxTime()));
    EXPECT_EQ(nullptr, q->receive(0, LxTime::zero()));
    const auto start = Clock::now();
    EXPECT_EQ(nullptr, q->receive(1, LxTime(0, 200000)));
    EXPECT_GE(lxtest::msSince(start), 190.0);

    KtWaitNotify a, b;
    EXPECT_EQ(LX_OK, q->addWaiter(&a));
    EXPECT_EQ(LX_ERR_ALREADY_TAKEN, q->addWaiter(&b));
    EXPECT_EQ(LX_ERR_NOT_QUEUE_WAITER, q->removeWaiter(&b));
    EXPECT_EQ(LX_OK, q->removeWaiter(&a));
    EXPECT_EQ(LX_ERR_NOT_QUEUE_WAITER, q->removeWaiter(&a));
    // Messages belong to their senders: a queue destroyed with some left frees only its own nodes
    // (these fake pointers would crash a queue that deleted them; LeakSanitizer watches the nodes).
    q->send(msg(4));
}

// Blocking receives woken by senders on other threads: nothing lost or doubled, and the messages
// one sender sends (not pushes) stay in order.
TEST(LxQueue, ManySendersLoseNothing) {
    QueueRef q;
    constexpr int kSenders = 3, kEach = 3000;
    std::vector<std::thread> senders;
    for (int s = 0; s < kSenders; ++s) {
        senders.emplace_back([&, s] {
            for (int i = 0; i < kEach; ++i) {
                const intptr_t v = static_cast<intptr_t>(s) * kEach + i + 1;
                i % 7 == 0 ? q->push(msg(v)) : q->send(msg(v));
            }
        });
    }
    std::set<intptr_t> seen;
    std::vector<intptr_t> lastSent(kSenders, 0);
    while (seen.size() < static_cast<size_t>(kSenders * kEach)) {
        const intptr_t v = reinterpret_cast<intptr_t>(q->receive(1, LxTime(30, 0)));
        ASSERT_NE(0, v) << "a message was lost after " << seen.size();
        ASSERT_TRUE(seen.insert(v).second) << "duplicate " << v;
        if ((v - 1) % kEach % 7 != 0) {
            EXPECT_GT(v, lastSent[(v - 1) / kEach]) << "sent out of order";
            lastSent[(v - 1) / kEach] = v;
        }
    }
    for (auto& t : senders) {
        t.join();
    }
    EXPECT_EQ(0, q->length());
}

TEST(LxQueueSet, ReportsMessagesAndTimeOutsAndForgetsARemovedQueue) {
    QueueRef q1, q2, stranger;
    LxQueueSet set(q1.q, q2.q, static_cast<LxQueue*>(nullptr));
    EXPECT_EQ(2u, q1->refCount()) << "the set holds each queue it watches";
    const auto start = Clock::now();
    EXPECT_EQ(LX_QUEUE_WAIT_TIMED_OUT, set.waitForAny(100));
    EXPECT_GE(lxtest::msSince(start), 95.0);
    q2->send(msg(5));
    EXPECT_EQ(LX_QUEUE_HAS_MESSAGE, set.waitForAny(0)) << "a queued message is reported at once";
    EXPECT_EQ(msg(5), q2->receive(0, LxTime::zero()));

    EXPECT_EQ(LX_OK, set.removeQueue(stranger.q));
    EXPECT_EQ(1u, stranger->refCount()) << "a queue the set never watched keeps its reference";
    EXPECT_EQ(LX_OK, set.removeQueue(q1.q));  // the first watched, where the set's list starts
    EXPECT_EQ(1u, q1->refCount());
    q1->send(msg(6));
    EXPECT_EQ(LX_QUEUE_WAIT_TIMED_OUT, set.waitForAny(20)) << "a removed queue is no longer watched";
    q1->receive(0, LxTime::zero());
    q2->send(msg(7));
    EXPECT_EQ(LX_QUEUE_HAS_MESSAGE, set.waitForAny(0)) << "the other one still is";
    q2->receive(0, LxTime::zero());
}

// A message that arrives between the set's check and its wait must not be missed: the race is
// repeated many times with both send and push.
TEST(LxQueueSet, ArrivalWakesTheWaiterWithoutMissingOne) {
    QueueRef q1, q2;
    LxQueueSet set(q1.q, q2.q, static_cast<LxQueue*>(nullptr));
    for (int i = 0; i < 300; ++i) {
        LxQueue* target = (i % 2) ? q1.q : q2.q;
        std::thread sender([&] { i % 3 == 0 ? target->push(msg(i + 1)) : target->send(msg(i + 1)); });
        ASSERT_EQ(LX_QUEUE_HAS_MESSAGE, set.waitForAny(30000)) << "round " << i;
        sender.join();
        ASSERT_EQ(msg(i + 1), target->receive(0, LxTime::zero()));
    }
}

}  // namespace
