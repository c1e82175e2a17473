// KtLibraryLock - a class-wide lock that lives as long as the library is loaded.
//
// Such a lock exists before any static constructor of the library can need it and after every
// static destructor: it is constant-initialised, created on first use (so another translation
// unit's static initialisation may ask for it), and its owner's load and unload hooks, run with
// priority 101 before the ordinary static constructors and after the static destructors, create
// and delete it:
//
//     KtLibraryLock<KtMutex> gLock;
//     __attribute__((constructor(101))) void lockLoad() { gLock.create(); }
//     __attribute__((destructor(101))) void lockUnload() { gLock.destroy(); }
//
// After unload get() returns null; users skip the locking then.
#ifndef KT_LIBRARY_LOCK_H
#define KT_LIBRARY_LOCK_H

#include "Kt.h"

#include <atomic>
#include <mutex>

template <class Lock>
class KtLibraryLock {
  public:
    constexpr KtLibraryLock() = default;

    Lock* get() {
        if (state_.load(std::memory_order_acquire) == kNotCreated) {
            create();
        }
        return state_.load(std::memory_order_acquire) == kCreated ? lock_ : nullptr;
    }

    void create() {
        std::lock_guard<std::mutex> guard(createMutex_);
        if (state_.load(std::memory_order_relaxed) != kNotCreated) {
            return;
        }
        lock_ = Lock::create();
        state_.store(kCreated, std::memory_order_release);
    }

    void destroy() {
        std::lock_guard<std::mutex> guard(createMutex_);
        if (state_.load(std::memory_order_relaxed) != kCreated) {
            return;
        }
        state_.store(kDestroyed, std::memory_order_release);
        delete lock_;
        lock_ = nullptr;
    }

    KtLibraryLock(const KtLibraryLock&) = delete;
    KtLibraryLock& operator=(const KtLibraryLock&) = delete;

  private:
    enum : int { kNotCreated = 0, kCreated = 1, kDestroyed = 2 };
    std::atomic<int> state_{kNotCreated};
    std::mutex createMutex_;
    Lock* lock_ = nullptr;
};

#endif  // KT_LIBRARY_LOCK_H
