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
    LxOutputConnectable* output = freeOutput(player, "Audio");
    if (output == nullptr) {
        return LX_ERR_GENERIC;
    }
    LxFormat** formats = nullptr;
    short count = 0;
    output->listFormats(formats, &count);
    // Only whether it offers any format matters here.
    const bool offersNone = formats == nullptr || count < 1;
    delete[] formats;
    if (offersNone) {
        return LX_ERR_GENERIC;
    }
    LxWin32AudioRenderer* renderer =
        new (std::nothrow) LxWin32AudioRenderer(this, static_cast<LxWin32Mixer*>(mixer));
    if (renderer == nullptr) {
        return LX_ERR_GENERIC;
    }
    return connectNewRenderer(output, renderer, "Audio");
}
