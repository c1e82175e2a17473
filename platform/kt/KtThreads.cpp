// KtDefaultThreadManager: POSIX threads behind the KtThreadManager interface.
#include "platform/kt/KtThreadIds.h"

#include "Kt.h"
#include "platform/kt/KtPosixLock.h"

#include <pthread.h>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <memory>

namespace {

std::atomic<KtThreadId> gNextThreadId{1};
thread_local KtThreadId tCurrentThreadId = 0;

// What the thread itself and its KtThread object share; outlives whichever of the two ends last.
struct SharedState {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t cond;
    bool finished = false;
    KtThreadEntry entry = nullptr;
    void* argument = nullptr;
    KtThreadId id = 0;

    SharedState() {
        pthread_condattr_t attr;
        pthread_condattr_init(&attr);
        pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
        pthread_cond_init(&cond, &attr);
        pthread_condattr_destroy(&attr);
    }
    ~SharedState() {
        pthread_cond_destroy(&cond);
        pthread_mutex_destroy(&mutex);
    }
};

void* threadMain(void* raw) {
    std::shared_ptr<SharedState>* holder = static_cast<std::shared_ptr<SharedState>*>(raw);
    std::shared_ptr<SharedState> state = *holder;
    delete holder;
    tCurrentThreadId = state->id;
    state->entry(state->argument);
    {
        KtPosixLock hold(state->mutex);
        state->finished = true;
        pthread_cond_broadcast(&state->cond);
    }
    return nullptr;
}

class PosixThread : public KtThread {
  public:
    PosixThread(KtThreadEntry entry, void* argument) : state_(std::make_shared<SharedState>()) {
        state_->entry = entry;
        state_->argument = argument;
        state_->id = gNextThreadId.fetch_add(1);
    }

    ~PosixThread() override {
        if (started_ && !joined_) {
            pthread_detach(thread_);
        }
    }

    KtResult start() override {
        if (started_) {
            return 0x201;
        }
        auto* holder = new std::shared_ptr<SharedState>(state_);
        if (pthread_create(&thread_, nullptr, threadMain, holder) != 0) {
            delete holder;
            return 0x201;
        }
        started_ = true;
        return 1;
    }

    KtThreadId getId() const override { return state_->id; }

    KtResult waitForEnd(unsigned long ms) {
        if (!started_ || joined_) {
            return 1;
        }
        KtResult result = 1;
        {
            KtPosixLock hold(state_->mutex);
            if (static_cast<uint32_t>(ms) == KT_INFINITE) {
                while (!state_->finished) {
                    pthread_cond_wait(&state_->cond, &state_->mutex);
                }
            } else {
                const timespec deadline = ktDeadlineAfter(ms);
                while (!state_->finished) {
                    if (pthread_cond_timedwait(&state_->cond, &state_->mutex, &deadline) == ETIMEDOUT) {
                        break;
                    }
                }
                if (!state_->finished) {
                    result = KT_TIMEOUT;
                }
            }
        }
        if (result == 1) {
            pthread_join(thread_, nullptr);
            joined_ = true;
        }
        return result;
    }

  private:
    std::shared_ptr<SharedState> state_;
    pthread_t thread_{};
    bool started_ = false;
    bool joined_ = false;
};

}  // namespace

KtThreadId ktCurrentThreadId() {
    if (tCurrentThreadId == 0) {
        tCurrentThreadId = gNextThreadId.fetch_add(1);
    }
    return tCurrentThreadId;
}

KtDefaultThreadManager::KtDefaultThreadManager() = default;
KtDefaultThreadManager::~KtDefaultThreadManager() = default;

KtThread* KtDefaultThreadManager::createThread(KtThreadEntry entry, void* argument, long, long, long) {
    if (entry == nullptr) {
        return nullptr;
    }
    return new PosixThread(entry, argument);
}

KtResult KtDefaultThreadManager::waitForThread(KtThread* thread, unsigned long ms) {
    if (thread == nullptr) {
        return 1;
    }
    return static_cast<PosixThread*>(thread)->waitForEnd(ms);
}

void KtDefaultThreadManager::releaseThread(KtThread* thread) {
    delete thread;
}

KtThreadId KtDefaultThreadManager::getCurrentThreadId() {
    return ktCurrentThreadId();
}
