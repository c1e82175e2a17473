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
    // Only pull style ever queues frames; nobody else can reach them once the output goes.
    while (void* message = frameQueue->receive(0, LxTime::zero())) {
        delete static_cast<LxFrame*>(message);
    }
    if (formats != nullptr) {
        if (formats[0] != nullptr) {
            formats[0]->unref();
        }
        delete[] formats;
    }
    frameQueue->unref();
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
    if (formats == nullptr) {
        formats = new (std::nothrow) LxFormat*[1];
        if (formats == nullptr) {
            return LX_ERR_OUT_OF_MEMORY;
        }
        formats[0] = nullptr;
    }
    if (formats[0] != nullptr) {
        formats[0]->unref();
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
    if (frame == nullptr) {
        return LX_OK;
    }
    if (streamStyle == LxFormat::PullStream) {
        frameQueue->send(static_cast<LxFrame*>(frame));
    } else if (connectedInput != nullptr) {
        connectedInput->putFrame(frame);
    } else {
        // Push style without a consumer: the frame has nowhere to go and the caller gave it up.
        LxLog::postDebug("LxAudioOutputConnectable:  no input for a pushed frame, dropping it\n");
        delete frame;
    }
    return LX_OK;
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
