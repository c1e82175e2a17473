// What the audio and the video output connectables do alike: each offers one format and takes
// one input for its whole life.
#ifndef LX_OUTPUT_PIN_H
#define LX_OUTPUT_PIN_H

#include "LxConnectable.h"
#include "LxLog.h"
#include "LxQueue.h"
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

/// Makes formats an array of one offered format and releases the format it offered before, so
/// that the caller can put a new one in formats[0]; false when there is no memory for the array.
inline bool lxClearOneFormat(LxFormat**& formats) {
    if (formats == nullptr) {
        formats = new (std::nothrow) LxFormat*[1];
        if (formats == nullptr) {
            return false;
        }
        formats[0] = nullptr;
    }
    if (formats[0] != nullptr) {
        formats[0]->unref();
        formats[0] = nullptr;
    }
    return true;
}

/// What an output's destructor releases alike: its offered format and array, the frames still
/// queued (nobody can reach them once the output goes) and the queue.
inline void lxReleaseOutput(LxFormat**& formats, LxQueue* frameQueue) {
    if (formats != nullptr) {
        if (formats[0] != nullptr) {
            formats[0]->unref();
        }
        delete[] formats;
        formats = nullptr;
    }
    while (void* message = frameQueue->receive(0, LxTime::zero())) {
        delete static_cast<LxFrame*>(message);
    }
    frameQueue->unref();
}

/// queueFrame of an output: in pull style the frame goes to enqueue (which queues it for the
/// input to take); otherwise it is handed to the input at once. A pushed frame without an input
/// has nowhere to go and the caller gave it up, so it is dropped (said in the log under who).
template <typename Enqueue>
KtResult lxQueueFrame(LxFrame* frame, bool pulled, LxInputConnectable* input, const char* who,
                      Enqueue enqueue) {
    if (frame == nullptr) {
        return LX_OK;
    }
    if (pulled) {
        enqueue(frame);
    } else if (input != nullptr) {
        input->putFrame(frame);
    } else {
        LxLog::postDebug("%s: no input for a pushed frame, dropping it\n", who);
        delete frame;
    }
    return LX_OK;
}

#endif
