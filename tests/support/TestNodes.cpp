#include "TestNodes.h"

#include <chrono>

namespace lxtest {

std::atomic<int> SequencedEvent::alive{0};

void RecordingListener::handleEvent(LxEvent* event) {
    if (inside_.fetch_add(1) != 0) {
        overlapped_ = true;
    }
    long result = 0;
    int sequence = -1;
    LxTime oldDuration, newDuration;
    if (auto* dc = dynamic_cast<LxDurationChangedEvent*>(event)) {
        oldDuration = dc->getOldDuration();
        newDuration = dc->getNewDuration();
    }
    if (auto* seq = dynamic_cast<SequencedEvent*>(event)) {
        sequence = static_cast<int>(seq->getResult());
    } else if (auto* init = dynamic_cast<LxInitializedEvent*>(event)) {
        result = init->getResult();
    } else if (auto* err = dynamic_cast<LxCatastrophicErrorEvent*>(event)) {
        result = err->getResult();
    }
    std::unique_lock<std::mutex> lock(mutex_);
    if (holdNext_) {
        holdNext_ = false;
        held_ = true;
        changed_.notify_all();
        changed_.wait(lock, [this] { return !held_; });
    }
    entries_.push_back(Entry{event->getEventType(), event, result, sequence, std::this_thread::get_id(),
                             oldDuration, newDuration});
    inside_.fetch_sub(1);
    changed_.notify_all();
}

std::vector<RecordingListener::Entry> RecordingListener::entries() {
    std::lock_guard<std::mutex> lock(mutex_);
    return entries_;
}

size_t RecordingListener::count() {
    std::lock_guard<std::mutex> lock(mutex_);
    return entries_.size();
}

size_t RecordingListener::count(LxEventType_s type) {
    std::lock_guard<std::mutex> lock(mutex_);
    size_t n = 0;
    for (const Entry& e : entries_) {
        n += e.type == type ? 1 : 0;
    }
    return n;
}

long RecordingListener::resultOf(LxEventType_s type) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const Entry& e : entries_) {
        if (e.type == type) {
            return e.result;
        }
    }
    return -1;
}

bool RecordingListener::waitForCount(size_t n, int timeoutMs) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                             [&] { return entries_.size() >= n; });
}

void RecordingListener::holdNext() {
    std::lock_guard<std::mutex> lock(mutex_);
    holdNext_ = true;
}

bool RecordingListener::waitUntilHeld(int timeoutMs) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return held_; });
}

void RecordingListener::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.clear();
}

void RecordingListener::release() {
    std::lock_guard<std::mutex> lock(mutex_);
    held_ = false;
    holdNext_ = false;
    changed_.notify_all();
}

}  // namespace lxtest
