// Nodes: state changes, connectable lookup, listeners, and the event poster's threading.
#include "LxNode.h"

#include "LxQueue.h"
#include "LxResult.h"
#include "TestManager.h"
#include "TestNodes.h"
#include "TestSupport.h"
#include "graph/LxEventPoster.h"
#include "platform/kt/KtRecordingThreadManager.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <thread>
#include <vector>

namespace {

using lxtest::RecordingListener;
using lxtest::SequencedEvent;
using lxtest::TestNode;

// A listening queue, drained and released at the end.
struct QueueRef {
    LxQueue* q = new LxQueue();
    ~QueueRef() {
        while (void* m = q->receive(0, LxTime::zero())) {
            static_cast<LxEvent*>(m)->unref();
        }
        q->unref();
    }
};

/// Runs fn on the handler of the first event it is given.
class CallingListener : public LxEventListener {
  public:
    std::function<void()> fn;
    std::atomic<bool> done{false};
    void handleEvent(LxEvent*) override {
        if (!done.load()) {
            fn();
            done = true;
        }
    }
};

class NodeTest : public ::testing::Test {
  protected:
    KtRecordingThreadManager threads;
    lxtest::ScopedTestManager manager{&threads};
};

TEST_F(NodeTest, DeadIsFinalAndConnectableLookupIsExactAndTakesTheFirstMatch) {
    TestNode node(manager.get());
    EXPECT_EQ(1, node.setCurrentState(LxNode::STOPPED));
    EXPECT_EQ(1, node.setCurrentState(LxNode::STARTED));
    EXPECT_EQ(1, node.setCurrentState(LxNode::DEAD));
    EXPECT_EQ(0, node.setCurrentState(LxNode::STARTED)) << "dead is final";
    EXPECT_EQ(0, node.setCurrentState(LxNode::DEAD));
    EXPECT_EQ(LxNode::DEAD, node.getState());
    LxOutputConnectable* out = reinterpret_cast<LxOutputConnectable*>(0x1);
    EXPECT_EQ(LX_ERR_NO_CONNECTABLE, node.getOutputConnectable("Video", &out));
    EXPECT_EQ(nullptr, out);
    char audio[] = "Audio", video[] = "Video", audio2[] = "Audio";
    char* names[] = {audio, video, audio2};
    LxOutputConnectable* outs[] = {reinterpret_cast<LxOutputConnectable*>(0x10),
                                   reinterpret_cast<LxOutputConnectable*>(0x20),
                                   reinterpret_cast<LxOutputConnectable*>(0x30)};
    node.setOutputs(names, outs, 3);
    const struct {
        const char* name;
        LxOutputConnectable* found;
    } cases[] = {{"Audio", outs[0]}, {"Video", outs[1]}, {"video", nullptr}, {"Aud", nullptr}};
    for (const auto& c : cases) {
        const KtResult expected = c.found != nullptr ? LX_OK : LX_ERR_NO_CONNECTABLE;
        EXPECT_EQ(expected, node.getOutputConnectable(c.name, &out));
        EXPECT_EQ(c.found, out) << c.name;
    }
    LxInputConnectable* in = reinterpret_cast<LxInputConnectable*>(0x1);
    EXPECT_EQ(LX_ERR_NO_CONNECTABLE, node.getInputConnectable("Audio", &in));
    EXPECT_EQ(nullptr, in);
}

// Each queue gets its own reference; the node keeps one of the last state event (a sequenced
// event is an initialized event) until a newer one replaces it or the node goes.
TEST_F(NodeTest, QueueListenersGetTheirOwnReferenceInOrderAdded) {
    const int before = SequencedEvent::alive.load();
    {
        TestNode node(manager.get());
        QueueRef a, b;
        EXPECT_EQ(LX_OK, node.setEventListener(a.q));
        EXPECT_EQ(LX_OK, node.setEventListener(b.q));
        EXPECT_EQ(LX_OK, node.removeEventListener(reinterpret_cast<LxQueue*>(0x40)));  // never added
        SequencedEvent* e = new SequencedEvent(&node, 7);
        node.postEvent(e);
        ASSERT_EQ(1, a.q->length());
        ASSERT_EQ(1, b.q->length());
        LxEvent* got = static_cast<LxEvent*>(a.q->receive(0, LxTime::zero()));
        EXPECT_EQ(e, got);
        EXPECT_EQ(&node, got->getSource());
        EXPECT_EQ(3u, got->refCount());  // a's, b's and the node's; the poster's was handed over
        got->unref();
        static_cast<LxEvent*>(b.q->receive(0, LxTime::zero()))->unref();
        EXPECT_EQ(before + 1, SequencedEvent::alive.load());

        // After removal the queues hear nothing more; the newer event replaces the kept one.
        node.removeEventListener(a.q);
        node.removeEventListener(b.q);
        node.postEvent(new SequencedEvent(&node, 8));
        EXPECT_EQ(0, a.q->length() + b.q->length());
        EXPECT_EQ(before + 1, SequencedEvent::alive.load());
    }
    EXPECT_EQ(before, SequencedEvent::alive.load());
}

TEST_F(NodeTest, HandlersRunOnThePosterThreadOneAtATimeInPostingOrder) {
    TestNode node(manager.get());
    RecordingListener first, second;
    ASSERT_EQ(LX_OK, node.setEventListener(&first));
    ASSERT_EQ(LX_OK, node.setEventListener(&second));
    EXPECT_EQ(1u, threads.requests().size());  // one poster serves every listener of a node
    constexpr int kEvents = 200;
    for (int i = 0; i < kEvents; ++i) {
        node.postEvent(new SequencedEvent(&node, i));
    }
    ASSERT_TRUE(first.waitForCount(kEvents));
    ASSERT_TRUE(second.waitForCount(kEvents));
    const auto a = first.entries();
    const auto b = second.entries();
    for (int i = 0; i < kEvents; ++i) {
        EXPECT_EQ(i, a[i].sequence);
        EXPECT_EQ(i, b[i].sequence);
        EXPECT_NE(std::this_thread::get_id(), a[i].thread);
        EXPECT_EQ(a[0].thread, a[i].thread);
        EXPECT_EQ(a[0].thread, b[i].thread);
    }
    EXPECT_FALSE(first.overlapped());
    EXPECT_FALSE(second.overlapped());

    // A removed listener hears nothing more.
    node.removeEventListener(&first);
    node.postEvent(new SequencedEvent(&node, kEvents));
    ASSERT_TRUE(second.waitForCount(kEvents + 1));
    EXPECT_EQ(size_t{kEvents}, first.count());
}

TEST_F(NodeTest, NoPosterThreadMeansOutOfMemoryAndNothingAdded) {
    TestNode node(manager.get());
    RecordingListener listener;
    threads.refuseThreads(1);
    EXPECT_EQ(LX_ERR_OUT_OF_MEMORY, node.setEventListener(&listener));
    node.postEvent(new LxActiveEvent(&node));            // nobody listens: simply released
    EXPECT_EQ(LX_OK, node.setEventListener(&listener));  // the next attempt gets a thread
    node.postEvent(new LxActiveEvent(&node));
    EXPECT_TRUE(listener.waitForCount(1));
    EXPECT_EQ(1u, listener.count());
    TestNode orphan(nullptr);  // no manager, so no thread manager
    EXPECT_EQ(LX_ERR_OUT_OF_MEMORY, orphan.setEventListener(&listener));
}

// A listener attached late hears the state events it missed, the last of each type, in posting
// order and before anything posted after it came; an attachment of a listener already there adds
// no second copy, and other events are not kept.
TEST_F(NodeTest, LateListenerHearsTheKeptStateEventsOnce) {
    TestNode node(manager.get());
    RecordingListener early, late, last;
    ASSERT_EQ(LX_OK, node.setEventListener(&early));
    node.postEvent(new LxDurationChangedEvent(&node, LxTime(-1, 0), LxTime(1, 0)));
    node.postEvent(new LxInitializedEvent(&node, 0xE3));
    node.postEvent(new LxActiveEvent(&node));
    node.postEvent(new LxDurationChangedEvent(&node, LxTime(1, 0), LxTime(2, 0)));
    ASSERT_EQ(LX_OK, node.setEventListener(&late));
    ASSERT_EQ(LX_OK, node.setEventListener(&early));  // twice: later events twice, nothing kept again
    node.postEvent(new LxCatastrophicErrorEvent(&node, 0x201));
    ASSERT_EQ(LX_OK, node.setEventListener(&last));
    ASSERT_TRUE(early.waitForCount(6) && late.waitForCount(3) && last.waitForCount(3));
    auto summary = [](RecordingListener& l) {
        std::vector<std::pair<int, long>> out;
        for (const auto& e : l.entries()) {
            out.emplace_back(e.type, e.type == LxDurationChangedEventType ? e.newDuration.sec() : e.result);
        }
        return out;
    };
    using V = std::vector<std::pair<int, long>>;
    EXPECT_EQ((V{{2, 1}, {9, 0xE3}, {5, 0}, {2, 2}, {-100, 0x201}, {-100, 0x201}}), summary(early));
    EXPECT_EQ((V{{9, 0xE3}, {2, 2}, {-100, 0x201}}), summary(late));
    EXPECT_EQ((V{{9, 0xE3}, {2, 2}, {-100, 0x201}}), summary(last));
}

// Two handlers, each destroying the other's node at the same moment: neither may wait for the
// other for ever. Repeated, since which of them finds the cycle varies.
TEST_F(NodeTest, HandlersDestroyingEachOthersNodesDoNotWaitForEachOther) {
    const int posters = LxEventPoster::alive();
    for (int round = 0; round < 50; ++round) {
        TestNode* a = new TestNode(manager.get());
        TestNode* b = new TestNode(manager.get());
        CallingListener onA, onB;
        std::atomic<int> inside{0};
        std::atomic<bool> posted{false};  // this thread is done with both nodes
        auto meetThenDelete = [&](TestNode* other) {
            ++inside;
            lxtest::waitUntil([&] { return inside.load() == 2 && posted.load(); });
            delete other;
        };
        onA.fn = [&] { meetThenDelete(b); };
        onB.fn = [&] { meetThenDelete(a); };
        a->setEventListener(&onA);
        b->setEventListener(&onB);
        a->postEvent(new LxActiveEvent(a));
        b->postEvent(new LxActiveEvent(b));
        posted = true;
        if (!lxtest::waitUntil([&] { return onA.done && onB.done && LxEventPoster::alive() == posters; },
                               20000)) {
            std::fprintf(stderr, "round %d: the two handlers wait for each other\n", round);
            std::abort();  // the hung threads would keep the test from ever ending
        }
    }
}

}  // namespace
