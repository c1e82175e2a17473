// The MIDI device access lock, created when the library loads and deleted when it unloads.
#include "LxWin32MidiPlayer.h"
#include "platform/kt/KtLibraryLock.h"

namespace {

KtLibraryLock<KtMutex> gMidiAccessMutex;

__attribute__((constructor(101))) void lxMidiAccessLoad() {
    gMidiAccessMutex.create();
}
__attribute__((destructor(101))) void lxMidiAccessUnload() {
    gMidiAccessMutex.destroy();
}

}  // namespace

KtMutex* LxWin32MidiPlayer::midiAccessMutex() {
    return gMidiAccessMutex.get();
}
