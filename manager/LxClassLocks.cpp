#include "manager/LxClassLocks.h"

#include "LxWin32Manager.h"

#include "LxWin32Manager.h"

#include <atomic>
#include <mutex>

namespace {

// Plain pointers and a state word: all constant-initialised, so they are valid before any dynamic
// initialisation runs, whatever the order of the translation units.
enum : int { kNotCreated = 0, kCreated = 1, kDestroyed = 2 };
std::atomic<int> gState{kNotCreated};
std::mutex gCreateMutex;
KtMutex* gMidiAccessMutex = nullptr;
KtMutex* gProbeLock = nullptr;
KtMutex* gExPropsLock = nullptr;
KtGateLock* gEnumLock = nullptr;

bool ready() {
    if (gState.load(std::memory_order_acquire) == kNotCreated) {
        LxClassLocks::create();
    }
    return gState.load(std::memory_order_acquire) == kCreated;
}

// Priority 101 runs before the ordinary static constructors of this library and, as a destructor,
// after its static destructors.
__attribute__((constructor(101))) void lxClassLocksLoad() {
    LxClassLocks::create();
}
__attribute__((destructor(101))) void lxClassLocksUnload() {
    LxClassLocks::destroy();
}

}  // namespace

void LxClassLocks::create() {
    std::lock_guard<std::mutex> guard(gCreateMutex);
    if (gState.load(std::memory_order_relaxed) != kNotCreated) {
        return;
    }
    gMidiAccessMutex = KtMutex::create();
    gProbeLock = KtMutex::create();
    gExPropsLock = KtMutex::create();
    gEnumLock = KtGateLock::create();
    LxWin32Manager::midiAccessMutex = gMidiAccessMutex;
    LxWin32Manager::exPropsLock = gExPropsLock;
    gState.store(kCreated, std::memory_order_release);
}

void LxClassLocks::destroy() {
    std::lock_guard<std::mutex> guard(gCreateMutex);
    if (gState.load(std::memory_order_relaxed) != kCreated) {
        return;
    }
    gState.store(kDestroyed, std::memory_order_release);
    LxWin32Manager::midiAccessMutex = nullptr;
    LxWin32Manager::exPropsLock = nullptr;
    delete gMidiAccessMutex;
    gMidiAccessMutex = nullptr;
    delete gProbeLock;
    gProbeLock = nullptr;
    delete gExPropsLock;
    gExPropsLock = nullptr;
    delete gEnumLock;
    gEnumLock = nullptr;
}

KtMutex* LxClassLocks::midiAccessMutex() {
    return ready() ? gMidiAccessMutex : nullptr;
}
KtMutex* LxClassLocks::probeLock() {
    return ready() ? gProbeLock : nullptr;
}
KtMutex* LxClassLocks::exPropsLock() {
    return ready() ? gExPropsLock : nullptr;
}
KtGateLock* LxClassLocks::enumLock() {
    return ready() ? gEnumLock : nullptr;
}
