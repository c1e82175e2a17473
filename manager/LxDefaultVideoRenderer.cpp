// The manager's default video renderer, and what both default renderers share.
#include "LxBaseVideoRenderer.h"
#include "LxConnectable.h"
#include "LxLog.h"
#include "LxPlayer.h"
#include "LxResult.h"
#include "LxWin32Manager.h"

#include <cstring>
#include <new>

LxOutputConnectable* LxWin32Manager::freeOutput(LxPlayer* player, const char* name) {
    LxOutputConnectable* output = nullptr;
    if (player == nullptr || player->getOutputConnectable(name, &output) != LX_OK || output == nullptr ||
        output->connectedTo() != nullptr) {
        return nullptr;
    }
    return output;
}

long LxWin32Manager::connectNewRenderer(LxOutputConnectable* output, LxNode* renderer, const char* name) {
    LxInputConnectable* input = nullptr;
    if (renderer->getInputConnectable(name, &input) != LX_OK || input == nullptr) {
        const char* kind = std::strcmp(name, "Audio") == 0 ? "audio" : "video";
        LxLog::postDebug("LxWin32Manager:  Couldn't get %s connectable on %s renderer!?!\n", kind, kind);
        delete renderer;
        return LX_ERR_GENERIC;
    }
    const long result = connect(output, input);
    // The manager keeps no reference to the renderer: once the output points at it, it is a node
    // of the player's graph and goes with the player. A renderer the output does not point at
    // (no common format, or the output refused) would never be freed.
    if (output->connectedTo() != input) {
        delete renderer;
    }
    return result;
}

long LxWin32Manager::addDefaultVideoRenderer(LxPlayer* player) {
    LxOutputConnectable* output = freeOutput(player, "Video");
    if (output == nullptr) {
        return LX_ERR_GENERIC;
    }
    LxBaseVideoRenderer* renderer = new (std::nothrow) LxBaseVideoRenderer(this);
    if (renderer == nullptr) {
        return LX_ERR_GENERIC;
    }
    return connectNewRenderer(output, renderer, "Video");
}
