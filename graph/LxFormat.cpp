// Formats, frames and the video renderer's default frame allocator.
#include "LxFormat.h"

#include "LxLog.h"
#include "LxResult.h"

#include <new>

LxVideoFormat::LxVideoFormat(short w, short h, LxPixelFormat_s pf, LxFormat::StreamStyle style)
    : LxFormat(LxVideoType, style), width(w), height(h), pixelFormat(pf) {}

LxVideoFormat::LxVideoFormat(LxPixelFormat_s pf)
    : LxFormat(LxVideoType, LxFormat::PullStream), width(-1), height(-1), pixelFormat(pf) {}

LxFormat* LxVideoFormat::match(LxFormat* other) {
    // Asked across types, the other side has no video members to read: no agreement.
    LxVideoFormat* o =
        other != nullptr && other->formatType == LxVideoType ? dynamic_cast<LxVideoFormat*>(other) : nullptr;
    if (o == nullptr) {
        return nullptr;
    }
    const short oh = o->getHeight();
    const short ow = o->getWidth();
    const LxPixelFormat_s opf = o->getPixelFormat();
    const LxFormat::StreamStyle ostyle = o->getStreamStyle();
    if (opf != pixelFormat) {
        return nullptr;
    }
    if (oh != -1 && oh != height) {
        return nullptr;
    }
    if (ow != -1 && ow != width) {
        return nullptr;
    }
    // A stream style of "any" on this side is not a wildcard: it stands for its default, push,
    // both in the comparison and in the result (so any-style against pull does not agree, while
    // pull against any-style does).
    const LxFormat::StreamStyle style =
        streamStyle == LxFormat::AnyStreamStyle ? LxFormat::PushStream : streamStyle;
    if (ostyle != LxFormat::AnyStreamStyle && ostyle != style) {
        return nullptr;
    }
    return new (std::nothrow) LxVideoFormat(width, height, pixelFormat, style);
}

long LxVideoFormat::getBytesPerPixel(const LxPixelFormat_s& pf) {
    switch (pf) {
        case LxPixel24:
        case LxPixel24Alt:
            return 3;
        case LxPixel32:
        case LxPixel32Alt:
            return 4;
        case LxPixel16:
            return 2;
        case LxPixel8:
            return 1;
    }
    LxLog::postDebug("bytesFromPixelFormat: unknown pixel format %i\n", static_cast<int>(pf));
    return 1;
}

LxAudioFormat::LxAudioFormat(LxSampleFormat_s sf, LxAudioChannels_s ch, float rate, char streaming,
                             LxFormat::StreamStyle style)
    : LxFormat(LxAudioType, style),
      sampleFormat(sf),
      channels(ch),
      samplingRate(rate),
      isStreaming(streaming) {}

LxFormat* LxAudioFormat::match(LxFormat* other) {
    LxAudioFormat* o =
        other != nullptr && other->formatType == LxAudioType ? dynamic_cast<LxAudioFormat*>(other) : nullptr;
    if (o == nullptr) {
        return nullptr;
    }
    if (o->getSampleFormat() != LxAnySampleFormat && o->getSampleFormat() != sampleFormat) {
        return nullptr;
    }
    if (o->getChannels() != LxAnyChannels && o->getChannels() != channels) {
        return nullptr;
    }
    // Exact comparisons on purpose: -1.0 is the wildcard and rates agree only when identical.
    if (o->getSamplingRate() != -1.0f && o->getSamplingRate() != samplingRate) {
        return nullptr;
    }
    // As for video, this side's "any" stream style compares as push.
    const LxFormat::StreamStyle style =
        streamStyle == LxFormat::AnyStreamStyle ? LxFormat::PushStream : streamStyle;
    if (o->getStreamStyle() != LxFormat::AnyStreamStyle && o->getStreamStyle() != style) {
        return nullptr;
    }
    const LxSampleFormat_s sf = sampleFormat == LxAnySampleFormat ? LxSample16 : sampleFormat;
    const LxAudioChannels_s ch = channels == LxAnyChannels ? LxStereo : channels;
    const float rate = samplingRate == -1.0f ? 44100.0f : samplingRate;
    return new (std::nothrow) LxAudioFormat(sf, ch, rate, isStreaming, style);
}

LxVideoFrame::LxVideoFrame(short width, short height, LxPixelFormat_s pf)
    : pixelData(nullptr),
      presentationTime(),
      mediaTimeIsValid(0),
      mediaStartTime(),
      mediaEndTime(),
      format(new (std::nothrow) LxVideoFormat(width, height, pf, LxFormat::PushStream)) {
    const long bytes =
        static_cast<long>(width) * static_cast<long>(height) * LxVideoFormat::getBytesPerPixel(pf);
    // A negative size (a wildcard -1 on one side only) cannot describe pixels: no buffer then.
    if (bytes > 0) {
        pixelData = new (std::nothrow) unsigned char[bytes]();
    }
}

LxVideoFrame::~LxVideoFrame() {
    delete[] pixelData;
    if (format != nullptr) {
        format->unref();
    }
}

LxDefVideoFrameAllocator::LxDefVideoFrameAllocator() : framesCreated(0), format(nullptr), formatIsSet(0) {}

LxDefVideoFrameAllocator::~LxDefVideoFrameAllocator() {
    if (format != nullptr) {
        format->unref();
    }
}

KtResult LxDefVideoFrameAllocator::allocateFrame(LxFrame** out) {
    if (framesCreated >= 2) {
        return LX_ERR_ALREADY_TAKEN;
    }
    if (!formatIsSet || format == nullptr) {
        return LX_ERR_NO_FORMAT;
    }
    if (out == nullptr) {
        return LX_ERR_GENERIC;
    }
    LxVideoFormat* vf = static_cast<LxVideoFormat*>(format);
    LxVideoFrame* frame =
        new (std::nothrow) LxVideoFrame(vf->getWidth(), vf->getHeight(), vf->getPixelFormat());
    const long bytes = static_cast<long>(vf->getWidth()) * vf->getHeight() *
                       LxVideoFormat::getBytesPerPixel(vf->getPixelFormat());
    if (frame != nullptr && (frame->format == nullptr || (bytes > 0 && frame->pixelData == nullptr))) {
        delete frame;
        frame = nullptr;
    }
    *out = frame;
    if (frame == nullptr) {
        return LX_ERR_OUT_OF_MEMORY;
    }
    ++framesCreated;
    LxLog::postDebug("LxDefVideoFrameAllocator: allocated new frame\n");
    return LX_OK;
}

KtResult LxDefVideoFrameAllocator::setFormat(LxFormat* f) {
    if (f == nullptr || f->formatType != LxVideoType || dynamic_cast<LxVideoFormat*>(f) == nullptr) {
        return LX_ERR_WRONG_FORMAT;
    }
    f->ref();
    if (format != nullptr) {
        format->unref();  // a second format replaces the first; the old reference is not kept
    }
    format = f;
    formatIsSet = 1;
    return LX_OK;
}
