// Fakes around nodes: a listener that records what it is handed, events that count their own
// lives, and a plain node whose protected operations tests may call.
#ifndef LORVEX_TESTS_SUPPORT_TESTNODES_H
#define LORVEX_TESTS_SUPPORT_TESTNODES_H

#include "Kt.h"
#include "LxEvent.h"
#include "LxNode.h"
#include "TestManager.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace lxtest {

/// A TestManager closed (its locks released) when the scope ends, as a host closes its manager:
/// the manager's destructor alone does not release them.
class ScopedTestManager {
  public:
    explicit ScopedTestManager(KtThreadManager* threads) : manager_(new TestManager(threads)) {}
    ScopedTestManager(const ScopedTestManager&) = delete;
    ~ScopedTestManager() { manager_->closeManager(); }
    TestManager* get() const { return manager_; }
    TestManager* operator->() const { return manager_; }

  private:
    TestManager* manager_;
};

/// Records every event it handles: its type, the thread it ran on, and whether two handlers ever
/// overlapped.
class RecordingListener : public LxEventListener {
  public:
    struct Entry {
        LxEventType_s type;
        LxEvent* event;  // identity only; not referenced after the call
        long result;     // getResult() of initialized and catastrophic-error events, else 0
        int sequence;    // getResult() of a SequencedEvent, else -1
        std::thread::id thread;
        LxTime oldDuration;  // of a duration change
        LxTime newDuration;
    };

    void handleEvent(LxEvent* event) override;

    std::vector<Entry> entries();
    size_t count() { return entries().size(); }
    size_t count(LxEventType_s type);
    /// The result of the first event of a type (-1: none yet).
    long resultOf(LxEventType_s type);
    bool waitForCount(size_t n, int timeoutMs = 10000);
    bool overlapped() const { return overlapped_.load(); }
    void clear();

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Entry> entries_;
    std::atomic<int> inside_{0};
    std::atomic<bool> overlapped_{false};
};

/// An event that counts how many of its kind are alive, for leak and double-release checks.
/// Its result carries a sequence number.
class SequencedEvent : public LxInitializedEvent {
  public:
    SequencedEvent(LxNode* node, long sequence) : LxInitializedEvent(node, sequence) { ++alive; }
    ~SequencedEvent() override { --alive; }

    static std::atomic<int> alive;
};

/// A node with no behaviour of its own; tests reach its protected operations.
class TestNode : public LxNode {
  public:
    explicit TestNode(LxManager* manager) : LxNode(manager) {}

    using LxNode::postEvent;
    using LxNode::setCurrentState;
    /// Gives the node name and connectable arrays (borrowed: they must outlive the node's use).
    void setOutputs(char** names, LxOutputConnectable** outs, short n) {
        outputNames = names;
        outputs = outs;
        outputCount = n;
    }
};

}  // namespace lxtest

#endif
