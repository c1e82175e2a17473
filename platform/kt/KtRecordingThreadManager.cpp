#include "platform/kt/KtRecordingThreadManager.h"

KtRecordingThreadManager::KtRecordingThreadManager() = default;
KtRecordingThreadManager::~KtRecordingThreadManager() = default;

KtThread* KtRecordingThreadManager::createThread(KtThreadEntry entry, void* argument, long stackClass,
                                                 long priorityClass, long schedulingClass) {
    bool refused = false;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (refuse_ != 0) {
            refused = true;
            if (refuse_ > 0) {
                --refuse_;
            }
        }
        requests_.push_back({entry, argument, stackClass, priorityClass, schedulingClass, refused});
    }
    if (refused) {
        return nullptr;
    }
    KtThread* thread = real_.createThread(entry, argument, stackClass, priorityClass, schedulingClass);
    if (thread != nullptr) {
        std::lock_guard<std::mutex> guard(mutex_);
        ++live_;
    }
    return thread;
}

KtResult KtRecordingThreadManager::waitForThread(KtThread* thread, unsigned long ms) {
    return real_.waitForThread(thread, ms);
}

void KtRecordingThreadManager::releaseThread(KtThread* thread) {
    if (thread != nullptr) {
        std::lock_guard<std::mutex> guard(mutex_);
        --live_;
    }
    real_.releaseThread(thread);
}

KtThreadId KtRecordingThreadManager::getCurrentThreadId() {
    return real_.getCurrentThreadId();
}

void KtRecordingThreadManager::refuseThreads(int count) {
    std::lock_guard<std::mutex> guard(mutex_);
    refuse_ = count;
}

std::vector<KtRecordingThreadManager::Request> KtRecordingThreadManager::requests() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return requests_;
}

int KtRecordingThreadManager::liveThreads() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return live_;
}
