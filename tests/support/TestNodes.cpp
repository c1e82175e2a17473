#include "TestNodes.h"

#include <algorithm>
#include <chrono>

namespace lxtest {

std::atomic<int> SequencedEvent::alive{0};

void RecordingListener::handleEvent(LxEvent* event) {
    if (inside_.fetch_add(1) != 0) {
        overlapped_ = true;
    }
    Entry e{event->getEventType(), event, 0, -1, std::this_thread::get_id(), LxTime(), LxTime()};
    if (auto* dc = dynamic_cast<LxDurationChangedEvent*>(event)) {
        e.oldDuration = dc->getOldDuration();
        e.newDuration = dc->getNewDuration();
    }
    if (auto* seq = dynamic_cast<SequencedEvent*>(event)) {
        e.sequence = static_cast<int>(seq->getResult());
    } else if (auto* init = dynamic_cast<LxInitializedEvent*>(event)) {
        e.result = init->getResult();
    } else if (auto* err = dynamic_cast<LxCatastrophicErrorEvent*>(event)) {
        e.result = err->getResult();
    }
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.push_back(e);
    inside_.fetch_sub(1);
    changed_.notify_all();
}

std::vector<RecordingListener::Entry> RecordingListener::entries() {
    std::lock_guard<std::mutex> lock(mutex_);
    return entries_;
}

size_t RecordingListener::count(LxEventType_s type) {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::count_if(entries_.begin(), entries_.end(), [&](const Entry& e) { return e.type == type; });
}

long RecordingListener::resultOf(LxEventType_s type) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto found =
        std::find_if(entries_.begin(), entries_.end(), [&](const Entry& e) { return e.type == type; });
    return found != entries_.end() ? found->result : -1;
}

bool RecordingListener::waitForCount(size_t n, int timeoutMs) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                             [&] { return entries_.size() >= n; });
}

void RecordingListener::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.clear();
}

}  // namespace lxtest
