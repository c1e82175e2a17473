// The manager's class-wide lock, and the published pointers to the locks it shares.
//
// The exclusivity-properties lock guards LxWin32Manager::exclusivityProperties. When the library
// loads it is created and LxWin32Manager::exPropsLock and LxWin32Manager::midiAccessMutex (the
// MIDI player's device access lock) are set; both are cleared when it unloads. The lock itself is
// created on first use as well, so another translation unit's static initialisation may need it.
#ifndef LORVEX_MANAGER_CLASS_LOCKS_H
#define LORVEX_MANAGER_CLASS_LOCKS_H

#include "Kt.h"

class LxClassLocks {
  public:
    /// LxWin32Manager::exPropsLock: guards the exclusivity properties.
    static KtMutex* exPropsLock();

    /// Load and unload hooks (called by the library itself).
    static void create();
    static void destroy();
};

#endif
