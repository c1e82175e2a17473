// A scoped hold on a plain pthread mutex, for the thread services' own short internal sections.
#ifndef LORVEX_PLATFORM_KT_POSIXLOCK_H
#define LORVEX_PLATFORM_KT_POSIXLOCK_H

#include <pthread.h>

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

#endif
