// The manager's default audio renderer: a new LxWin32AudioRenderer behind a player's "Audio".
#include "LxConnectable.h"
#include "LxLog.h"
#include "LxPlayer.h"
#include "LxResult.h"
#include "LxWin32AudioRenderer.h"
#include "LxWin32Manager.h"
#include "LxWin32Mixer.h"

#include <new>

long LxWin32Manager::addDefaultAudioRenderer(LxPlayer* player) {
    if (player == nullptr) {
        return LX_ERR_GENERIC;
    }
    LxOutputConnectable* output = nullptr;
    if (player->getOutputConnectable("Audio", &output) != LX_OK || output == nullptr) {
        return LX_ERR_GENERIC;
    }
    if (output->connectedTo() != nullptr) {
        return LX_ERR_GENERIC;  // connected before: it keeps its renderer
    }
    LxFormat** formats = nullptr;
    short count = 0;
    output->listFormats(formats, &count);
    if (formats == nullptr || count < 1) {
        delete[] formats;
        return LX_ERR_GENERIC;
    }
    LxWin32AudioRenderer* renderer =
        new (std::nothrow) LxWin32AudioRenderer(this, static_cast<LxWin32Mixer*>(mixer));
    if (renderer == nullptr) {
        delete[] formats;
        return LX_ERR_GENERIC;
    }
    LxInputConnectable* input = nullptr;
    renderer->getInputConnectable("Audio", &input);
    delete[] formats;
    if (input == nullptr) {
        LxLog::postDebug("LxWin32Manager:  Couldn't get audio connectable on audio renderer!?!\n");
        delete renderer;
        return LX_ERR_GENERIC;
    }
    const long result = connect(output, input);
    if (output->connectedTo() != input) {
        // Nothing refers to a renderer that could not be connected: it would never be freed.
        delete renderer;
    }
    return result;
}
