// The lock objects of the thread services, on POSIX threads.
//
// All of them are plain pthread mutexes and condition variables so that ThreadSanitizer sees every
// lock the library takes (its lock-order check relies on that). Timed waits run on CLOCK_MONOTONIC
// so that a change of the calendar clock cannot stretch or cut them.
#include "Kt.h"
#include "platform/kt/KtPosixLock.h"

#include <pthread.h>
#include <cerrno>
#include <ctime>

namespace {

void initRecursiveMutex(pthread_mutex_t* m) {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(m, &attr);
    pthread_mutexattr_destroy(&attr);
}

void initMonotonicCond(pthread_cond_t* c) {
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(c, &attr);
    pthread_condattr_destroy(&attr);
}

bool isUnlimited(unsigned long ms) {
    return static_cast<uint32_t>(ms) == KT_INFINITE;
}

}  // namespace

long KtCheckVersion(long major, long minor) {
    return (major == 1 && minor >= 0 && minor <= 16) ? 1 : 0;
}

// ---------------------------------------------------------------------------------------------
// KtMutex

struct KtMutex::Impl {
    pthread_mutex_t mutex;
};

KtMutex* KtMutex::create() {
    return new KtMutex();
}

KtMutex::KtMutex() : impl_(new Impl) {
    initRecursiveMutex(&impl_->mutex);
}

KtMutex::~KtMutex() {
    pthread_mutex_destroy(&impl_->mutex);
    delete impl_;
}

void KtMutex::lock() {
    pthread_mutex_lock(&impl_->mutex);
}

void KtMutex::unlock() {
    pthread_mutex_unlock(&impl_->mutex);
}

// ---------------------------------------------------------------------------------------------
// KtWaitNotify
//
// The holder's depth is tracked so that wait() can release a lock taken several times: the mutex
// is unlocked down to one level, the condition wait releases that last level, and the levels are
// taken back afterwards. depth is only touched by the holder, with the mutex held.
//
// Notifications are counted as tickets so that notify() wakes exactly one waiter and a waiter does
// not return on a spurious wake-up of the condition variable.

struct KtWaitNotify::Impl {
    pthread_mutex_t mutex;
    pthread_cond_t cond;
    int depth = 0;
    unsigned waiters = 0;
    unsigned tickets = 0;
};

KtWaitNotify::KtWaitNotify() : impl_(new Impl) {
    initRecursiveMutex(&impl_->mutex);
    initMonotonicCond(&impl_->cond);
}

KtWaitNotify::~KtWaitNotify() {
    pthread_cond_destroy(&impl_->cond);
    pthread_mutex_destroy(&impl_->mutex);
    delete impl_;
}

void KtWaitNotify::lock() {
    pthread_mutex_lock(&impl_->mutex);
    ++impl_->depth;
}

void KtWaitNotify::unlock() {
    --impl_->depth;
    pthread_mutex_unlock(&impl_->mutex);
}

KtResult KtWaitNotify::wait(unsigned long ms) {
    Impl* d = impl_;
    const int depth = d->depth;
    for (int i = 1; i < depth; ++i) {
        pthread_mutex_unlock(&d->mutex);
    }
    d->depth = 0;
    ++d->waiters;

    KtResult result = 1;
    const bool unlimited = isUnlimited(ms);
    const timespec deadline = unlimited ? timespec{} : ktDeadlineAfter(ms);
    while (d->tickets == 0) {
        if (unlimited) {
            pthread_cond_wait(&d->cond, &d->mutex);
        } else if (pthread_cond_timedwait(&d->cond, &d->mutex, &deadline) == ETIMEDOUT) {
            if (d->tickets == 0) {
                result = KT_TIMEOUT;
            }
            break;
        }
    }
    if (result == 1) {
        --d->tickets;
    }
    --d->waiters;
    if (d->tickets > d->waiters) {
        d->tickets = d->waiters;  // a notifyAll's tickets not taken by waiters that timed out
    }

    d->depth = depth;
    for (int i = 1; i < depth; ++i) {
        pthread_mutex_lock(&d->mutex);
    }
    return result;
}

void KtWaitNotify::notify() {
    KtPosixLock hold(impl_->mutex);
    if (impl_->tickets < impl_->waiters) {
        ++impl_->tickets;
        pthread_cond_signal(&impl_->cond);
    }
}

void KtWaitNotify::notifyAll() {
    KtPosixLock hold(impl_->mutex);
    if (impl_->tickets < impl_->waiters) {
        impl_->tickets = impl_->waiters;
        pthread_cond_broadcast(&impl_->cond);
    }
}

// ---------------------------------------------------------------------------------------------
// KtGateLock

struct KtGateLock::Impl {
    pthread_mutex_t mutex;
    pthread_cond_t cond;
    bool open = false;
};

KtGateLock* KtGateLock::create() {
    return new KtGateLock();
}

KtGateLock::KtGateLock() : impl_(new Impl) {
    pthread_mutex_init(&impl_->mutex, nullptr);
    initMonotonicCond(&impl_->cond);
}

KtGateLock::~KtGateLock() {
    pthread_cond_destroy(&impl_->cond);
    pthread_mutex_destroy(&impl_->mutex);
    delete impl_;
}

void KtGateLock::open() {
    KtPosixLock hold(impl_->mutex);
    impl_->open = true;
    pthread_cond_broadcast(&impl_->cond);
}

void KtGateLock::close() {
    KtPosixLock hold(impl_->mutex);
    impl_->open = false;
}

bool KtGateLock::isOpen() {
    KtPosixLock hold(impl_->mutex);
    return impl_->open;
}

KtResult KtGateLock::wait(unsigned long ms) {
    KtPosixLock hold(impl_->mutex);
    const bool unlimited = isUnlimited(ms);
    const timespec deadline = unlimited ? timespec{} : ktDeadlineAfter(ms);
    KtResult result = 1;
    while (!impl_->open) {
        if (unlimited) {
            pthread_cond_wait(&impl_->cond, &impl_->mutex);
        } else if (pthread_cond_timedwait(&impl_->cond, &impl_->mutex, &deadline) == ETIMEDOUT) {
            if (!impl_->open) {
                result = KT_TIMEOUT;
            }
            break;
        }
    }
    return result;
}
