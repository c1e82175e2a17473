#include "LxConnectable.h"

#include "graph/LxOutputPin.h"

#include "LxLog.h"
#include "LxQueue.h"
#include "LxResult.h"

#include <new>

namespace {

double seconds(const LxTime& t) {
    return t.sec() + t.usec() * 0.000001;
}

}  // namespace

LxVideoOutputConnectable::LxVideoOutputConnectable()
    : node(nullptr),
      active(0),
      currentFormat(nullptr),
      frameQueue(new LxQueue()),
      formatIsSet(0),
      formats(nullptr),
      streamStyle(LxFormat::PushStream),
      connectedInput(nullptr),
      suggestedFrameRate(0.0f),
      droppedFrames(0),
      lastRequestedFrameTime() {}

LxVideoOutputConnectable::~LxVideoOutputConnectable() {
    if (currentFormat != nullptr) {
        currentFormat->unref();
    }
    lxReleaseOutput(formats, frameQueue);
    LxLog::postDebug("LxVOC: dropped frames = %i\n", static_cast<int>(droppedFrames.load()));
}

KtResult LxVideoOutputConnectable::initFormats(short width, short height, LxPixelFormat_s pf,
                                               LxFormat::StreamStyle style) {
    if (!lxClearOneFormat(formats)) {
        return LX_ERR_OUT_OF_MEMORY;
    }
    formats[0] = new (std::nothrow) LxVideoFormat(width, height, pf, style);
    if (formats[0] == nullptr) {
        return LX_ERR_GENERIC;
    }
    streamStyle = style;
    return LX_OK;
}

KtResult LxVideoOutputConnectable::initConnectable(LxNode* owner) {
    node = owner;
    return LX_OK;
}

KtResult LxVideoOutputConnectable::setFormat(LxFormat* f) {
    if (f == nullptr || f->formatType != LxVideoType) {
        return LX_ERR_WRONG_FORMAT;
    }
    LxVideoFormat* offered = formats != nullptr ? static_cast<LxVideoFormat*>(formats[0]) : nullptr;
    LxVideoFormat* vf = dynamic_cast<LxVideoFormat*>(f);
    if (offered == nullptr || vf == nullptr) {
        return LX_ERR_GENERIC;
    }
    f->ref();
    const bool same = vf->getWidth() == offered->getWidth() && vf->getHeight() == offered->getHeight() &&
                      vf->getPixelFormat() == offered->getPixelFormat() &&
                      vf->getStreamStyle() == offered->getStreamStyle();
    KtResult result = LX_ERR_GENERIC;
    if (same) {
        formatIsSet = 1;
        LxVideoFormat* copy = new (std::nothrow)
            LxVideoFormat(vf->getWidth(), vf->getHeight(), vf->getPixelFormat(), vf->getStreamStyle());
        if (copy == nullptr) {
            result = LX_ERR_OUT_OF_MEMORY;
        } else {
            if (currentFormat != nullptr) {
                currentFormat->unref();
            }
            currentFormat = copy;
            result = LX_OK;
        }
    }
    f->unref();
    return result;
}

LxFormat* LxVideoOutputConnectable::getFormat() {
    return formatIsSet ? currentFormat : nullptr;
}

KtResult LxVideoOutputConnectable::listFormats(LxFormat**& list, short* count) {
    return lxListOneFormat(formats, list, count);
}

KtResult LxVideoOutputConnectable::connectTo(LxInputConnectable* input) {
    return lxConnectOnce(connectedInput, input, "LxVideoOutputConnectable");
}

KtResult LxVideoOutputConnectable::setSuggestedFrameRate(float rate) {
    suggestedFrameRate = rate;
    return LX_OK;
}

LxTime LxVideoOutputConnectable::getLastRequestedFrameTime() {
    KtScopedLock<LxQueue> guard(frameQueue);
    return lastRequestedFrameTime;
}

KtResult LxVideoOutputConnectable::queueFrame(LxVideoFrame* frame) {
    LxQueue* queue = frameQueue;
    return lxQueueFrame(frame, streamStyle == LxFormat::PullStream, connectedInput, "LxVOC",
                        [queue](LxFrame* f) {
                            KtScopedLock<LxQueue> guard(queue);
                            queue->send(f);
                        });
}

KtResult LxVideoOutputConnectable::dropFrame() {
    KtScopedLock<LxQueue> guard(frameQueue);
    LxVideoFrame* frame =
        static_cast<LxVideoFrame*>(static_cast<LxFrame*>(frameQueue->receive(0, LxTime::zero())));
    if (frame == nullptr) {
        LxLog::postDebug("LxVOC: dropFrame found no frame to drop\n");
    } else {
        LxLog::postDebug("LxVOC: dropping frame for time %8.3f\n", seconds(frame->getPresentationTime()));
        ++droppedFrames;
        if (connectedInput != nullptr) {
            connectedInput->putEmptyFrame(frame);
        } else {
            delete frame;
        }
    }
    return LX_OK;
}

LxFrame* LxVideoOutputConnectable::getFrameForTime(LxTime, LxTime, LxTime timeout) {
    const char block = timeout == LxTime::zero() ? 0 : 1;
    return static_cast<LxFrame*>(frameQueue->receive(block, timeout));
}

LxFrame* LxVideoOutputConnectable::getFrameForTime(LxTime curTime, LxTime timeout) {
    {
        KtScopedLock<LxQueue> guard(frameQueue);
        lastRequestedFrameTime = curTime;
    }
    const char block = timeout == LxTime::zero() ? 0 : 1;
    for (;;) {
        // The blocking take runs without the queue's lock: the producer needs it to append.
        LxVideoFrame* frame =
            static_cast<LxVideoFrame*>(static_cast<LxFrame*>(frameQueue->receive(block, timeout)));
        if (frame == nullptr) {
            LxLog::postDebug("LxVOC: no frame in queue\n");
            return nullptr;
        }
        KtScopedLock<LxQueue> guard(frameQueue);
        LxVideoFrame* next = static_cast<LxVideoFrame*>(static_cast<LxFrame*>(frameQueue->peek()));
        if (next == nullptr) {
            guard.unlock();
            LxLog::postDebug("LxVOC: no next frame, returning current\n");
            return frame;
        }
        const LxTime& pt = frame->getPresentationTime();
        const LxTime& nextPt = next->getPresentationTime();
        if (pt <= curTime && curTime < nextPt) {
            guard.unlock();
            LxLog::postDebug("LxVOC: curFrame <= curTime <= nextFrame\n");
            return frame;
        }
        if (curTime >= nextPt) {
            guard.unlock();
            LxLog::postDebug("LxVOC: skipping frame, too late. Giving back.\n");
            ++droppedFrames;
            if (connectedInput != nullptr) {
                connectedInput->putEmptyFrame(frame);
            } else {
                delete frame;
            }
            continue;
        }
        // The frame is early: its time has not come and a later frame waits behind it. A texture
        // keeps showing its previous picture meanwhile, so the frame goes back to the head of the
        // queue for a later request instead of being shown too soon or thrown away.
        frameQueue->push(static_cast<LxFrame*>(frame));
        guard.unlock();
        LxLog::postDebug("LxVOC: frame is early, keeping it queued\n");
        return nullptr;
    }
}
