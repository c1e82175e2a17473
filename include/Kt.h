// Kt.h - the thread services Lorvex runs on.
//
// Every lock, condition and thread in the library comes from here. A host normally instantiates
// KtDefaultThreadManager and hands it to LxManager::createManager(); a host with its own thread
// pool implements KtThreadManager instead. The locks are concrete classes built on POSIX threads.
#ifndef KT_H
#define KT_H

#include "LxApi.h"

#include <cstdint>

/// Result code of almost every operation in the library; 1 is success (codes in LxResult.h).
typedef long KtResult;

/// The time-out result of KtWaitNotify::wait and KtGateLock::wait.
constexpr KtResult KT_TIMEOUT = 0xE0010003L;

/// Milliseconds value that makes every wait in the thread services wait without limit.
constexpr uint32_t KT_INFINITE = 0xFFFFFFFFu;

/// Identity of a thread as the thread services report it. Never 0 for a live thread.
typedef unsigned long KtThreadId;

/// Answers whether this thread library supports the interface version major.minor (nonzero when it
/// does). The library implements version 1.16 and everything before it within major version 1.
LX_API long KtCheckVersion(long major, long minor);

/// A mutex that its owner may lock again (every lock must be undone by one unlock).
/// Created with create() and destroyed with delete by its owner.
class LX_API KtMutex {
  public:
    static KtMutex* create();
    ~KtMutex();

    void lock();
    void unlock();

  private:
    KtMutex();
    KtMutex(const KtMutex&) = delete;
    KtMutex& operator=(const KtMutex&) = delete;

    struct Impl;
    Impl* impl_;
};

/// A re-entrant lock with a condition. wait() releases the lock completely (whatever the holder's
/// depth), sleeps until notified or until the time-out, and takes the lock back at the same depth.
/// Call notify()/notifyAll() with the lock held, as every caller in the library does, so that a
/// notification cannot fall between a waiter's check and its wait.
class LX_API KtWaitNotify {
  public:
    KtWaitNotify();
    virtual ~KtWaitNotify();

    void lock();
    void unlock();
    /// Waits at most ms milliseconds (KT_INFINITE: without limit) for a notify. Returns 1 when
    /// woken by a notification and KT_TIMEOUT when the time ran out. The caller must hold the lock.
    KtResult wait(unsigned long ms);
    /// Wakes one waiter (none when nobody waits; the notification is not kept for later).
    void notify();
    /// Wakes every waiter.
    void notifyAll();

  private:
    KtWaitNotify(const KtWaitNotify&) = delete;
    KtWaitNotify& operator=(const KtWaitNotify&) = delete;

    struct Impl;
    Impl* impl_;
};

/// Holds a KtMutex or KtWaitNotify for the rest of a scope, so no return or early exit can leave
/// it locked. unlock() lets go early (for a call that must not run under the lock, such as a host's
/// listener) and lock() takes it back; the destructor releases it only if it is still held.
template <class Lockable>
class KtScopedLock {
  public:
    explicit KtScopedLock(Lockable& lockable) : lockable_(lockable) { lockable_.lock(); }
    explicit KtScopedLock(Lockable* lockable) : KtScopedLock(*lockable) {}
    ~KtScopedLock() {
        if (held_)
            lockable_.unlock();
    }

    void unlock() {
        held_ = false;
        lockable_.unlock();
    }
    void lock() {
        lockable_.lock();
        held_ = true;
    }
    bool holds() const { return held_; }

    KtScopedLock(const KtScopedLock&) = delete;
    KtScopedLock& operator=(const KtScopedLock&) = delete;

  private:
    Lockable& lockable_;
    bool held_ = true;
};

/// Lets go of a lock the caller holds for the rest of a scope and takes it back on leaving it: for a
/// call out of a locked region (a listener, a blocking wait) that must not run under the lock.
template <class Lockable>
class KtScopedUnlock {
  public:
    explicit KtScopedUnlock(Lockable& lockable) : lockable_(lockable) { lockable_.unlock(); }
    explicit KtScopedUnlock(Lockable* lockable) : KtScopedUnlock(*lockable) {}
    ~KtScopedUnlock() { lockable_.lock(); }

    KtScopedUnlock(const KtScopedUnlock&) = delete;
    KtScopedUnlock& operator=(const KtScopedUnlock&) = delete;

  private:
    Lockable& lockable_;
};

/// A gate: closed gates hold waiters back, an open gate lets every waiter through and stays open
/// until it is closed again.
class LX_API KtGateLock {
  public:
    /// A new gate, closed.
    static KtGateLock* create();
    ~KtGateLock();

    void open();
    void close();
    /// Waits at most ms milliseconds (KT_INFINITE: without limit) for the gate to be open.
    /// Returns 1 when it is (at once when it already was) and KT_TIMEOUT otherwise.
    KtResult wait(unsigned long ms);
    bool isOpen();

  private:
    KtGateLock();
    KtGateLock(const KtGateLock&) = delete;
    KtGateLock& operator=(const KtGateLock&) = delete;

    struct Impl;
    Impl* impl_;
};

/// Entry function of a thread created through a KtThreadManager.
typedef long (*KtThreadEntry)(void* argument);

/// One thread, created not yet running by a KtThreadManager and released through it.
class LX_API KtThread {
  public:
    virtual ~KtThread() {}
    /// Starts the thread (once). Returns 1, or 0x201 when it cannot be started.
    virtual KtResult start() = 0;
    /// The id the thread has (already before it is started) and that
    /// KtThreadManager::getCurrentThreadId() reports on it.
    virtual KtThreadId getId() const = 0;
};

/// The thread factory a host hands to the library. Every thread of the library is made here.
class LX_API KtThreadManager {
  public:
    virtual ~KtThreadManager() {}
    /// A new thread that will run entry(argument) once started, or null when none can be made.
    /// The three further values describe the thread to the manager (the library passes 4, 1, 1 for
    /// player, time-base, event-poster and video-renderer threads and 4, 1, 2 for audio renderers).
    virtual KtThread* createThread(KtThreadEntry entry, void* argument, long stackClass, long priorityClass,
                                   long schedulingClass) = 0;
    /// Waits at most ms milliseconds (KT_INFINITE: without limit) for the thread to end.
    /// Returns 1 when it has ended (or never started) and KT_TIMEOUT otherwise.
    virtual KtResult waitForThread(KtThread* thread, unsigned long ms) = 0;
    /// Releases a thread object. A thread that is still running goes on by itself.
    virtual void releaseThread(KtThread* thread) = 0;
    /// The id of the calling thread (also for threads the manager did not create).
    virtual KtThreadId getCurrentThreadId() = 0;
};

/// The thread manager a host can simply instantiate: POSIX threads, no limits.
class LX_API KtDefaultThreadManager : public KtThreadManager {
  public:
    KtDefaultThreadManager();
    ~KtDefaultThreadManager() override;

    KtThread* createThread(KtThreadEntry entry, void* argument, long stackClass, long priorityClass,
                           long schedulingClass) override;
    KtResult waitForThread(KtThread* thread, unsigned long ms) override;
    void releaseThread(KtThread* thread) override;
    KtThreadId getCurrentThreadId() override;
};

/// Handle of a loaded dynamic library.
typedef void* KtModule;

/// Loads optional libraries by their Windows-style names.
///
/// Name rule: a name ending in ".dll" (any case) loses that ending and becomes "lib" + name + ".so"
/// ("qlm13_dshow.dll" -> "libqlm13_dshow.so"); a name containing '/' is used as a path as given.
/// Search order: the directories added with addSearchDirectory (newest first), the directory the
/// Lorvex library itself was loaded from, then the system's library search path.
class LX_API KtWin32Library {
  public:
    static KtModule LoadWin32Library(const char* name);
    static void* GetProcAddress(KtModule module, const char* symbol);
    static void FreeLibrary(KtModule module);

    /// The platform file name for a Windows-style library name (the rule above). The result stays
    /// valid until the next call on the same thread.
    static const char* mapLibraryName(const char* name);
    /// Adds a directory to search first. Host configuration, done before libraries are loaded.
    static void addSearchDirectory(const char* directory);
    /// Forgets the added directories (tests).
    static void clearSearchDirectories();
};

#endif  // KT_H
