// LxFormat.h - media formats, frames and the frame-allocator interface.
//
// Every connection between a producer and a consumer carries one negotiated format. The numeric
// values of the enumerations are fixed: they are stored in formats, compared by match() and
// passed across the library boundary.
#ifndef LX_FORMAT_H
#define LX_FORMAT_H

#include "Kt.h"
#include "LxApi.h"
#include "LxMediaTypes.h"
#include "LxTime.h"

#include <cstdint>

/// A format: its type and stream style. Immutable after construction; reference counted
/// (the creator, and whoever receives one from match(), holds one reference).
class LX_API LxFormat : public LxRefCount {
  public:
    enum StreamStyle { PushStream = 0, PullStream = 1, AnyStreamStyle = 2 };

    LxFormat(LxFormatType_s type, StreamStyle style) : formatType(type), streamStyle(style) {}

    /// A new format (count 1, the caller's) that this format and other agree on, or null. Wildcards
    /// count only on other's side; the result takes this side's values with this side's wildcards
    /// replaced by defaults. Neither format changes and other is not referenced.
    virtual LxFormat* match(LxFormat* other) = 0;
    virtual StreamStyle getStreamStyle() { return streamStyle; }

    LxFormatType_s getFormatType() const { return formatType; }

    /// Read directly by receivers to reject a format of the wrong kind.
    LxFormatType_s formatType;
    StreamStyle streamStyle;
};

class LX_API LxVideoFormat : public LxFormat {
  public:
    LxVideoFormat(short width, short height, LxPixelFormat_s pixelFormat, LxFormat::StreamStyle style);
    /// Any size (-1 x -1), pull style.
    explicit LxVideoFormat(LxPixelFormat_s pixelFormat);

    LxFormat* match(LxFormat* other) override;
    virtual short getWidth() { return width; }
    virtual short getHeight() { return height; }
    virtual LxPixelFormat_s getPixelFormat() { return pixelFormat; }

    /// 3 for LxPixel24/LxPixel24Alt, 4 for LxPixel32/LxPixel32Alt, 2 for LxPixel16, 1 for
    /// LxPixel8; anything else posts "bytesFromPixelFormat: unknown pixel format %i\n" and gives 1.
    static long getBytesPerPixel(const LxPixelFormat_s& pixelFormat);

    short width;
    short height;
    LxPixelFormat_s pixelFormat;
};

class LX_API LxAudioFormat : public LxFormat {
  public:
    LxAudioFormat(LxSampleFormat_s sampleFormat, LxAudioChannels_s channels, float samplingRate,
                  char isStreaming, LxFormat::StreamStyle style);

    LxFormat* match(LxFormat* other) override;
    virtual LxSampleFormat_s getSampleFormat() { return sampleFormat; }
    virtual LxAudioChannels_s getChannels() { return channels; }
    virtual float getSamplingRate() { return samplingRate; }
    virtual char getIsStreaming() { return isStreaming; }

    LxSampleFormat_s sampleFormat;
    LxAudioChannels_s channels;
    /// Samples per second per channel; -1.0 is the wildcard.
    float samplingRate;
    /// The clip plays from a streaming buffer rather than loaded whole (not compared by match).
    char isStreaming;
};

/// Base of all frames. A frame has exactly one holder at a time; the last holder deletes it.
class LX_API LxFrame {
  public:
    virtual ~LxFrame() {}

    /// Carried by copy and assignment; the library never interprets it.
    char frameFlag;

  protected:
    LxFrame() : frameFlag(0) {}
    LxFrame(const LxFrame& other) : frameFlag(other.frameFlag) {}
    LxFrame& operator=(const LxFrame& other) {
        frameFlag = other.frameFlag;
        return *this;
    }
};

/// A picture: width x height x bytes-per-pixel bytes of pixels, rows back to back.
class LX_API LxVideoFrame : public LxFrame {
  public:
    /// Makes its own LxVideoFormat (push style) and a zeroed pixel buffer.
    LxVideoFrame(short width, short height, LxPixelFormat_s pixelFormat);
    ~LxVideoFrame() override;

    /// No locking is done: both return 0x20000000. Hand-over between holders is the exclusion.
    virtual long lock() { return 0x20000000L; }
    virtual long unlock() { return 0x20000000L; }
    virtual unsigned char* getPixelData() { return pixelData; }
    virtual LxPixelFormat_s getPixelFormat() { return format->getPixelFormat(); }
    virtual short getWidth() { return format->getWidth(); }
    virtual short getHeight() { return format->getHeight(); }
    virtual const LxTime& getPresentationTime() { return presentationTime; }
    virtual long setPresentationTime(const LxTime& t) {
        presentationTime = t;
        return 1;
    }
    virtual const LxTime& getMediaStartTime() { return mediaStartTime; }
    virtual long setMediaStartTime(const LxTime& t) {
        mediaStartTime = t;
        return 1;
    }
    virtual const LxTime& getMediaEndTime() { return mediaEndTime; }
    virtual long setMediaEndTime(const LxTime& t) {
        mediaEndTime = t;
        return 1;
    }
    virtual char getMediaTimeIsValid() { return mediaTimeIsValid; }
    virtual long setMediaTimeIsValid(char valid) {
        mediaTimeIsValid = valid;
        return 1;
    }

    unsigned char* pixelData;
    LxTime presentationTime;
    char mediaTimeIsValid;
    LxTime mediaStartTime;
    LxTime mediaEndTime;
    /// The frame's own format; one reference owned by the frame.
    LxVideoFormat* format;

  private:
    LxVideoFrame(const LxVideoFrame&) = delete;
    LxVideoFrame& operator=(const LxVideoFrame&) = delete;
};

/// Sample data moving from a producer to the consumer that created the frame. Counts are in
/// sample frames (all channels of one instant).
class LX_API LxAudioFrame : public LxFrame {
  public:
    LxAudioFrame() : timeStamp(), filled(0), fillable(0), consumed(0), data(nullptr) {}
    ~LxAudioFrame() override { delete[] data; }

    /// Carried, never interpreted by the library.
    LxTime timeStamp;
    /// Sample frames written into data so far.
    int32_t filled;
    /// Capacity of data in sample frames.
    int32_t fillable;
    /// Sample frames already taken out by the consumer.
    int32_t consumed;
    /// The sample buffer, allocated with new[] by the frame's creator and owned by the frame.
    unsigned char* data;

  private:
    LxAudioFrame(const LxAudioFrame&) = delete;
    LxAudioFrame& operator=(const LxAudioFrame&) = delete;
};

/// Creates frames of a consumer's format.
class LX_API LxFrameAllocator {
  public:
    virtual ~LxFrameAllocator() {}
    virtual KtResult allocateFrame(LxFrame** out) = 0;
    virtual KtResult setFormat(LxFormat* format) = 0;
    virtual long getFramesCreated() = 0;

  protected:
    LxFrameAllocator() {}
};

/// The video renderer's default allocator: at most two frames in its life.
class LX_API LxDefVideoFrameAllocator : public LxFrameAllocator {
  public:
    LxDefVideoFrameAllocator();
    ~LxDefVideoFrameAllocator() override;

    /// 0x481 at the two-frame limit (*out untouched), 0x342 without a format, 0x203 when out of
    /// memory; else 1 with a new frame of the format's size.
    KtResult allocateFrame(LxFrame** out) override;
    /// 0x341 for a non-video format; else keeps a reference and returns 1.
    KtResult setFormat(LxFormat* format) override;
    long getFramesCreated() override { return framesCreated; }

    int32_t framesCreated;
    LxFormat* format;
    char formatIsSet;
};

#endif  // LX_FORMAT_H
