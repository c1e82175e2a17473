// The manager's default video renderer.
#include "LxBaseVideoRenderer.h"
#include "LxConnectable.h"
#include "LxLog.h"
#include "LxPlayer.h"
#include "LxResult.h"
#include "LxWin32Manager.h"

#include <new>

long LxWin32Manager::addDefaultVideoRenderer(LxPlayer* player) {
    if (player == nullptr) {
        return LX_ERR_GENERIC;
    }
    LxOutputConnectable* output = nullptr;
    if (player->getOutputConnectable("Video", &output) != LX_OK || output == nullptr ||
        output->connectedTo() != nullptr) {
        return LX_ERR_GENERIC;
    }
    LxBaseVideoRenderer* renderer = new (std::nothrow) LxBaseVideoRenderer(this);
    if (renderer == nullptr) {
        return LX_ERR_GENERIC;
    }
    LxInputConnectable* input = nullptr;
    if (renderer->getInputConnectable("Video", &input) != LX_OK || input == nullptr) {
        LxLog::postDebug("LxWin32Manager:  Couldn't get video connectable on video renderer!?!\n");
        delete renderer;
        return LX_ERR_GENERIC;
    }
    const long result = connect(output, input);
    // The manager keeps no reference to the renderer: once the output points at it, it is a node
    // of the player's graph and goes with the player. A renderer the output does not point at
    // (no common format, or the output refused) belongs to nobody and is destroyed here.
    if (output->connectedTo() != input) {
        delete renderer;
    }
    return result;
}
