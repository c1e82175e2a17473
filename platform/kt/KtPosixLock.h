// Small pthread helpers for the thread services' own code: a scoped mutex hold and a wait deadline.
#ifndef LORVEX_PLATFORM_KT_POSIXLOCK_H
#define LORVEX_PLATFORM_KT_POSIXLOCK_H

#include <pthread.h>
#include <ctime>

/// Locks a pthread mutex for the rest of a scope. The pthread calls stay visible to
/// ThreadSanitizer exactly as before; only the unlock can no longer be forgotten.
class KtPosixLock {
  public:
    explicit KtPosixLock(pthread_mutex_t& mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
    ~KtPosixLock() { pthread_mutex_unlock(&mutex_); }

    KtPosixLock(const KtPosixLock&) = delete;
    KtPosixLock& operator=(const KtPosixLock&) = delete;

  private:
    pthread_mutex_t& mutex_;
};

/// The CLOCK_MONOTONIC time ms milliseconds from now, for the timed waits of the thread services
/// (their condition variables wait on the monotonic clock).
inline timespec ktDeadlineAfter(unsigned long ms) {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    ts.tv_sec += static_cast<time_t>(ms / 1000);
    ts.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
    if (ts.tv_nsec >= 1000000000L) {
        ts.tv_sec += 1;
        ts.tv_nsec -= 1000000000L;
    }
    return ts;
}

#endif
