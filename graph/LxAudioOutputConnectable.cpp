#include "LxConnectable.h"

#include "graph/LxOutputPin.h"

#include "LxLog.h"
#include "LxQueue.h"
#include "LxResult.h"

#include <new>

LxAudioOutputConnectable::LxAudioOutputConnectable()
    : node(nullptr),
      active(0),
      sampleFormat(LxSample8),
      channels(LxMono),
      samplingRate(0.0f),
      bytesPerSample(0),
      streamStyle(LxFormat::PushStream),
      isStreaming(0),
      frameQueue(new LxQueue()),
      formatIsSet(0),
      formats(nullptr),
      connectedInput(nullptr) {}

LxAudioOutputConnectable::~LxAudioOutputConnectable() {
    if (streamStyle == LxFormat::PullStream) {
        LxLog::postDebug("LxAudioOutputConnectable:  flushing fullFrameQueue\n");
    }
    lxReleaseOutput(formats, frameQueue);
}

KtResult LxAudioOutputConnectable::initFormats(LxSampleFormat_s sf, LxAudioChannels_s ch, float rate,
                                               short bps, LxFormat::StreamStyle style, char streaming) {
    sampleFormat = sf;
    channels = ch;
    samplingRate = rate;
    bytesPerSample = bps;
    streamStyle = style;
    isStreaming = streaming;
    return LX_OK;
}

KtResult LxAudioOutputConnectable::initConnectable(LxNode* owner) {
    node = owner;
    if (!lxClearOneFormat(formats)) {
        return LX_ERR_OUT_OF_MEMORY;
    }
    formats[0] =
        new (std::nothrow) LxAudioFormat(sampleFormat, channels, samplingRate, isStreaming, streamStyle);
    return formats[0] != nullptr ? LX_OK : LX_ERR_OUT_OF_MEMORY;
}

KtResult LxAudioOutputConnectable::setFormat(LxFormat* f) {
    if (f == nullptr || f->formatType != LxAudioType) {
        return LX_ERR_WRONG_FORMAT;
    }
    LxAudioFormat* offered = formats != nullptr ? static_cast<LxAudioFormat*>(formats[0]) : nullptr;
    LxAudioFormat* af = dynamic_cast<LxAudioFormat*>(f);
    if (offered == nullptr || af == nullptr) {
        return LX_ERR_WRONG_FORMAT;
    }
    f->ref();
    // The streaming flag is the producer's business and is not compared.
    const bool same = af->getSampleFormat() == offered->getSampleFormat() &&
                      af->getChannels() == offered->getChannels() &&
                      af->getSamplingRate() == offered->getSamplingRate() &&
                      af->getStreamStyle() == offered->getStreamStyle();
    if (same) {
        formatIsSet = 1;
    }
    f->unref();
    return same ? LX_OK : LX_ERR_WRONG_FORMAT;
}

LxFormat* LxAudioOutputConnectable::getFormat() {
    return formatIsSet && formats != nullptr ? formats[0] : nullptr;
}

KtResult LxAudioOutputConnectable::listFormats(LxFormat**& list, short* count) {
    const KtResult result = lxListOneFormat(formats, list, count);
    if (result != LX_OK && count != nullptr) {
        *count = 0;
    }
    return result;
}

KtResult LxAudioOutputConnectable::connectTo(LxInputConnectable* input) {
    return lxConnectOnce(connectedInput, input, "LxAudioOutputConnectable");
}

KtResult LxAudioOutputConnectable::setSuggestedFrameRate(float) {
    return LX_ERR_GENERIC;
}

void LxAudioOutputConnectable::setActive(char) {}

LxFrame* LxAudioOutputConnectable::getFrameForTime(LxTime, LxTime, LxTime) {
    return nullptr;
}

LxFrame* LxAudioOutputConnectable::getFrameForTime(LxTime, LxTime) {
    if (streamStyle != LxFormat::PullStream) {
        return nullptr;
    }
    return static_cast<LxFrame*>(frameQueue->receive(0, LxTime::zero()));
}

KtResult LxAudioOutputConnectable::queueFrame(LxAudioFrame* frame) {
    LxQueue* queue = frameQueue;
    return lxQueueFrame(frame, streamStyle == LxFormat::PullStream, connectedInput,
                        "LxAudioOutputConnectable", [queue](LxFrame* f) { queue->send(f); });
}

void LxAudioOutputConnectable::flush() {
    flushQueue();
}

void LxAudioOutputConnectable::flushQueue() {
    if (streamStyle != LxFormat::PullStream || connectedInput == nullptr) {
        return;
    }
    while (frameQueue->poll()) {
        LxFrame* frame = static_cast<LxFrame*>(frameQueue->receive(0, LxTime::zero()));
        if (frame == nullptr) {
            break;
        }
        connectedInput->putEmptyFrame(frame);
    }
}
