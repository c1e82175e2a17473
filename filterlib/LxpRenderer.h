// The renderer filters of the filter library: one class for audio and video.
//
// A renderer filter has one input pin. Samples reach it either through IMemInputPin::Receive or
// from its GStreamer face (an app sink at the end of a conversion bin the filter lends the
// GStreamer graph); both go into one short queue that the filter's delivery thread empties into
// its LxpRendererSink, waiting on the sink's gate before each delivery. While stopped the filter
// drops what it gets; while paused it takes samples without ever blocking the graph (the cue);
// while running Receive blocks when the queue is full, until there is room, a flush or a state
// change. End of stream goes to the sink and then to the graph (EC_COMPLETE). When Stop returns, no
// delivery is inside the sink, and none enters it until the filter is paused or run again.
#ifndef LORVEX_PLATFORM_DSHOW_FILTERLIB_RENDERER_H
#define LORVEX_PLATFORM_DSHOW_FILTERLIB_RENDERER_H

#include "LxFormat.h"
#include "filterlib/LxpRendererSink.h"
#include "platform/dshow/LxpGraph.h"
#include "platform/dshow/LxpGstSinkFilter.h"
#include "platform/dshow/LxpRendererFilter.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace lxp {

enum class RendererKind { Audio, Video };

/// The subtype and bytes per pixel of a pixel format; false for layouts the filter cannot deliver.
bool pixelFormatInfo(LxPixelFormat_s format, GUID* subtype, int32_t* bytesPerPixel);
/// The format of a picture of that size (rows padded to four bytes).
LxpVideoSpec makeVideoSpec(int32_t width, int32_t height, LxPixelFormat_s format,
                           REFERENCE_TIME frameDuration);
/// Complete media types for a format (format block included; the caller frees it).
AM_MEDIA_TYPE audioMediaType(const LxpAudioSpec& spec);
AM_MEDIA_TYPE videoMediaType(const LxpVideoSpec& spec);

class GstRendererFace;

class RendererFilter : public IBaseFilter,
                       public ILxRenderer,
                       public ILxpRendererSinkHost,
                       public IGstSinkFilter {
  public:
    /// Reference count 1. pixelFormat matters for video only.
    RendererFilter(RendererKind kind, LxPixelFormat_s pixelFormat);

    HRESULT QueryInterface(const IID& iid, void** out) override;
    uint32_t AddRef() override;
    uint32_t Release() override;

    HRESULT Stop() override;
    HRESULT Pause() override;
    HRESULT Run(REFERENCE_TIME start) override;
    HRESULT GetState(int32_t msTimeout, FILTER_STATE* state) override;
    HRESULT EnumPins(IEnumPins** pins) override;
    HRESULT QueryFilterInfo(FILTER_INFO* info) override;
    HRESULT JoinFilterGraph(IFilterGraph* graph, const WCHAR* name) override;

    HRESULT GetOutputConnectable(LxAMPlayer* player, char** name, LxOutputConnectable** output) override;

    HRESULT SetSink(LxpRendererSink* sink) override;
    HRESULT GetAudioSpec(LxpAudioSpec* spec) override;
    HRESULT GetVideoSpec(LxpVideoSpec* spec) override;

    HRESULT GetSinkElement(GstElement** element) override;
    HRESULT SetStreamOrigin(REFERENCE_TIME origin) override;
    REFERENCE_TIME streamOrigin() const { return origin_.load(); }

    // The input side, used by the pin and the GStreamer face.
    HRESULT receiveConnection(IPin* connector, const AM_MEDIA_TYPE* type);
    HRESULT disconnect();
    HRESULT connectedTo(IPin** peer);
    HRESULT connectionMediaType(AM_MEDIA_TYPE* type);
    HRESULT queryAccept(const AM_MEDIA_TYPE* type);
    HRESULT receive(IMediaSample* sample);
    HRESULT endOfStream();
    HRESULT beginFlush();
    HRESULT endFlush();
    /// The GStreamer face learnt the format from the stream.
    void setAudioSpec(const LxpAudioSpec& spec);
    void setVideoSpec(const LxpVideoSpec& spec);

    RendererKind kind() const { return kind_; }
    LxPixelFormat_s pixelFormat() const { return pixelFormat_; }

  private:
    class InputPin;
    struct Item {
        IMediaSample* sample;  // null: end of stream
        uint64_t generation;
    };

    ~RendererFilter();
    void deliveryLoop();
    void deliver(LxpRendererSink* sink, IMediaSample* sample, bool audioKnown, const LxpAudioSpec& audio,
                 const LxpVideoSpec& video);
    HRESULT setState(FILTER_STATE state);
    void dropQueueLocked(std::deque<Item>* dropped);

    const RendererKind kind_;
    const LxPixelFormat_s pixelFormat_;
    std::atomic<uint32_t> refs_;
    std::unique_ptr<InputPin> pin_;

    std::mutex mutex_;
    std::condition_variable notEmpty_;
    std::condition_variable notFull_;
    std::condition_variable idle_;
    FILTER_STATE state_;
    std::wstring name_;
    IFilterGraph* graph_;         // not referenced
    IMediaEventSink* graphSink_;  // not referenced
    IPin* peer_;                  // not referenced
    bool haveSpec_;
    LxpAudioSpec audio_;
    LxpVideoSpec video_;
    std::deque<Item> queue_;
    size_t capacity_;
    uint64_t generation_;
    bool flushing_;
    bool stoppedFlush_;  // the sink was told to flush when the filter stopped
    bool quit_;
    bool delivering_;
    /// A delivery has passed the gate and is inside the sink (Stop waits for it to end).
    bool inSink_;
    /// GetOutputConnectable has made this filter's output.
    bool outputMade_;
    LxpRendererSink* sink_;
    std::unique_ptr<GstRendererFace> face_;
    std::atomic<REFERENCE_TIME> origin_;
    std::thread thread_;
};

/// The part of a renderer filter that lives in a GStreamer pipeline. Exists only in a library
/// built with GStreamer; create() gives null otherwise.
class GstRendererFace {
  public:
    static GstRendererFace* create(RendererFilter* owner);
    virtual ~GstRendererFace() {}
    /// The bin (borrowed).
    virtual GstElement* element() = 0;
};

}  // namespace lxp

#endif
