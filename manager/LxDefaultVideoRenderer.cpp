// The manager's default video renderer.
#include "LxResult.h"
#include "LxWin32Manager.h"

// Placeholder until the video renderer exists: no renderer can be made.
long LxWin32Manager::addDefaultVideoRenderer(LxPlayer*) {
    return LX_ERR_GENERIC;
}
