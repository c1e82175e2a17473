// Where a renderer filter's decoded data goes.
//
// A renderer filter takes samples from its graph (GStreamer's app sink or IMemInputPin::Receive)
// on its own delivery thread and hands them to one LxpRendererSink: audio buffers with the media
// time of their first sample, video pictures with their presentation time. The sink that feeds the
// player's output connectables is a thin adapter: gateWait is the player's filterGateWait,
// audioBuffer fills LxAudioFrames from the consumer's getEmptyFrame and queues them, videoFrame
// copies the rows into an LxVideoFrame and queues it, endOfStream passes the last partial frame
// and notifyEndOfMedia. Tests attach their own sink through ILxpRendererSinkHost.
#ifndef LORVEX_PLATFORM_DSHOW_FILTERLIB_RENDERER_SINK_H
#define LORVEX_PLATFORM_DSHOW_FILTERLIB_RENDERER_SINK_H

#include "LxFormat.h"
#include "platform/dshow/LxpGraph.h"

#include <cstddef>
#include <cstdint>

namespace lxp {

/// Interleaved PCM: 8-bit unsigned or 16-bit signed little-endian, one or two channels.
struct LxpAudioSpec {
    int32_t bitsPerSample;  // 8 or 16
    int32_t channels;       // 1 or 2
    int32_t samplesPerSecond;
    /// Bytes of one sample frame (all channels).
    int32_t blockAlign() const { return bitsPerSample / 8 * channels; }
};

/// Top-down rows of pixels; each row starts stride bytes after the previous one (rows are padded
/// to a multiple of four bytes, as in Windows bitmaps; an LxVideoFrame wants them packed).
struct LxpVideoSpec {
    int32_t width;
    int32_t height;
    LxPixelFormat_s pixelFormat;  // LxPixel32Alt, LxPixel24Alt, LxPixel32 or LxPixel24
    int32_t bytesPerPixel;
    int32_t stride;
    /// Time between frames (100 ns), 0 when the stream does not say.
    REFERENCE_TIME frameDuration;
};

struct LxpAudioBuffer {
    const uint8_t* data;
    /// A whole number of sample frames.
    size_t bytes;
    /// Media time of the first sample (100 ns), -1 when unknown.
    REFERENCE_TIME start;
    /// The first buffer after a seek or a gap.
    bool discontinuity;
};

struct LxpVideoPicture {
    const uint8_t* data;  // height rows of spec.stride bytes
    /// Presentation time (100 ns), -1 when unknown.
    REFERENCE_TIME start;
    REFERENCE_TIME end;
};

/// The delivery side of a renderer filter. Every call comes from the filter's delivery thread
/// except beginFlush and endFlush, which come from the thread that seeks or stops the graph and may
/// overlap a delivery. Calls into the sink never happen with the filter's data locked for long.
class LxpRendererSink {
  public:
    virtual ~LxpRendererSink() {}
    /// Before each delivery: true when it may go ahead (the player's gate is open), false when the
    /// gate stayed closed; the sample is then dropped.
    virtual bool gateWait() = 0;
    /// May block for the consumer's free frames; must return soon after beginFlush.
    virtual void audioBuffer(const LxpAudioSpec& spec, const LxpAudioBuffer& buffer) = 0;
    virtual void videoFrame(const LxpVideoSpec& spec, const LxpVideoPicture& picture) = 0;
    /// The stream has ended; nothing follows until a flush.
    virtual void endOfStream() = 0;
    /// What was delivered but not yet presented is stale and a blocked delivery should give up.
    /// Called with the filter's lock held: must not block or call the filter.
    virtual void beginFlush() = 0;
    /// Deliveries of the new position follow. Same rules as beginFlush.
    virtual void endFlush() = 0;
};

/// {6C4D2A14-7F3B-4E21-9A58-51D0C8B7E301}: access to a renderer filter's delivery side.
inline constexpr IID IID_ILxpRendererSinkHost = {
    0x6C4D2A14, 0x7F3B, 0x4E21, {0x9A, 0x58, 0x51, 0xD0, 0xC8, 0xB7, 0xE3, 0x01}};

class ILxpRendererSinkHost : public IUnknown {
  public:
    /// Attaches a sink (null detaches). When it returns, no call into the previous sink is in
    /// progress. The filter does not own the sink. Any thread.
    virtual HRESULT SetSink(LxpRendererSink* sink) = 0;
    /// The negotiated format: S_OK once the connection's format is known, S_FALSE before, E_NOINTERFACE
    /// for the other kind of renderer.
    virtual HRESULT GetAudioSpec(LxpAudioSpec* spec) = 0;
    virtual HRESULT GetVideoSpec(LxpVideoSpec* spec) = 0;
};

}  // namespace lxp

#endif
