// What the audio and the video output connectables do alike: each offers one format and takes
// one input for its whole life.
#ifndef LX_OUTPUT_PIN_H
#define LX_OUTPUT_PIN_H

#include "LxConnectable.h"
#include "LxLog.h"
#include "LxResult.h"

#include <new>

/// listFormats of an output offering formats[0] (none while formats is unset): a new array the
/// caller deletes, holding that one format; LX_ERR_OUT_OF_MEMORY (count untouched) without one.
inline KtResult lxListOneFormat(LxFormat** formats, LxFormat**& list, short* count) {
    list = new (std::nothrow) LxFormat*[1];
    if (list == nullptr) {
        return LX_ERR_OUT_OF_MEMORY;
    }
    list[0] = formats != nullptr ? formats[0] : nullptr;
    if (count != nullptr) {
        *count = list[0] != nullptr ? 1 : 0;
    }
    return LX_OK;
}

/// connectTo of an output that keeps its first input: a second one is refused (said in the log
/// under the name who).
inline KtResult lxConnectOnce(LxInputConnectable*& connected, LxInputConnectable* input, const char* who) {
    if (connected != nullptr) {
        LxLog::postDebug("%s:  trying to connect after already connected!\n", who);
        return LX_ERR_GENERIC;
    }
    connected = input;
    return LX_OK;
}

#endif
