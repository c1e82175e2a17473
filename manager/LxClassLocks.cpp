#include "manager/LxClassLocks.h"

#include "LxWin32Manager.h"
#include "LxWin32MidiPlayer.h"
#include "platform/kt/KtLibraryLock.h"

namespace {

KtLibraryLock<KtMutex> gExPropsLock;

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
    gExPropsLock.create();
    LxWin32Manager::midiAccessMutex = LxWin32MidiPlayer::midiAccessMutex();
    LxWin32Manager::exPropsLock = gExPropsLock.get();
}

void LxClassLocks::destroy() {
    LxWin32Manager::midiAccessMutex = nullptr;
    LxWin32Manager::exPropsLock = nullptr;
    gExPropsLock.destroy();
}

KtMutex* LxClassLocks::exPropsLock() {
    return gExPropsLock.get();
}
