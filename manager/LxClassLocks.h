// The library's class-wide locks.
//
// Created when the library is loaded, in this order: the MIDI access mutex (held around every
// attempt to open a MIDI stream), the probe lock of GetDXAndWin32Version, the exclusivity-
// properties lock of the manager, and the mixer's enumeration gate (created closed, opened by the
// device enumeration). Deleted in the same order when the library is unloaded.
//
// They exist before any static constructor of the library can need them: the accessors create
// all four (in that order) on first use, so another translation unit's static initialisation may
// call them; the library's load and unload hooks run before every ordinary static constructor
// and after every static destructor. After unload the accessors return null.
#ifndef LORVEX_MANAGER_CLASS_LOCKS_H
#define LORVEX_MANAGER_CLASS_LOCKS_H

#include "Kt.h"

class LxClassLocks {
  public:
    /// LxWin32Manager::midiAccessMutex.
    static KtMutex* midiAccessMutex();
    /// The lock GetDXAndWin32Version holds for its whole run.
    static KtMutex* probeLock();
    /// LxWin32Manager::exPropsLock: guards the exclusivity properties.
    static KtMutex* exPropsLock();
    /// LxWin32Mixer's enumeration gate.
    static KtGateLock* enumLock();

    /// Load and unload hooks (called by the library itself).
    static void create();
    static void destroy();
};

#endif
