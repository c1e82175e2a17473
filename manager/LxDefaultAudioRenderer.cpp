// The manager's default audio renderer.
#include "LxResult.h"
#include "LxWin32Manager.h"

// Placeholder until the audio renderer exists: no renderer can be made.
long LxWin32Manager::addDefaultAudioRenderer(LxPlayer*) {
    return LX_ERR_GENERIC;
}
