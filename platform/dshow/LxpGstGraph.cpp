// The filter graph on GStreamer.
//
// The source filter names a file; Render builds a pipeline around uridecodebin for it and
// prerolls it, linking every decoded audio or video stream to the bin of a renderer filter in the
// graph that accepts it (IGstSinkFilter) and every other stream to a fake sink, standing in for
// the default renderers DirectShow would have added. The graph's own filters mirror that: the
// source's "Output" pin feeds a "Decoder" filter with one output pin per stream.
//
// States: "stopped" keeps the pipeline prerolled (PAUSED) while the renderer filters drop what
// arrives; pausing from stopped is a flushing seek to the current position, so each renderer gets
// the sample there again (the cue); running is PLAYING. All seeks are flushing and accurate. The
// position counts from the moment the pipeline reports PLAYING (see FilterGraphBase).
//
// Threads: pad-added and the bus sync handler run on GStreamer's threads; they touch only what
// the graph's GStreamer lock (gmutex_) guards and the base class's thread-safe services.
#include "platform/dshow/LxpGstGraph.h"

#include "LxLog.h"
#include "platform/dshow/LxpGraphBase.h"
#include "platform/dshow/LxpGraphConfig.h"
#include "platform/dshow/LxpGstSinkFilter.h"

#include <gst/base/gstbasesink.h>
#include <gst/gst.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <list>
#include <mutex>
#include <string>
#include <vector>

namespace lxp {
namespace gstgraph {

namespace {

/// Whether path is a RIFF/WAVE file whose "data" chunk has an odd length and ends the file with
/// only its pad byte behind it. GStreamer's wavparse (1.22), reading such a file in pull mode,
/// looks for a chunk behind the pad byte, meets the end of the file and ends the stream before a
/// single sample: the clip would be silent and never end.
bool oddDataEndsWave(const std::string& path) {
    FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) {
        return false;
    }
    unsigned char h[12];
    bool odd = false;
    if (std::fread(h, 1, 12, f) == 12 && std::memcmp(h, "RIFF", 4) == 0 &&
        std::memcmp(h + 8, "WAVE", 4) == 0 && std::fseek(f, 0, SEEK_END) == 0) {
        const long long size = std::ftell(f);
        long long at = 12;
        unsigned char c[8];
        while (at + 8 <= size && std::fseek(f, static_cast<long>(at), SEEK_SET) == 0 &&
               std::fread(c, 1, 8, f) == 8) {
            const long long length = c[4] | (c[5] << 8) | (c[6] << 16) | (static_cast<long long>(c[7]) << 24);
            if (std::memcmp(c, "data", 4) == 0) {
                odd = (length & 1) != 0 && at + 8 + length + 1 == size;
                break;
            }
            at += 8 + length + (length & 1);
        }
    }
    std::fclose(f);
    return odd;
}

/// How long Render waits for the pipeline to preroll before it gives up.
constexpr int kRenderTimeoutMs = 15000;
/// How long Render waits without any new element or stream before it takes decoding as failed.
constexpr int kStallMs = 3000;
/// How far before the target a program or transport stream is sought: the mux delay (up to about a
/// second) and a group of pictures.
constexpr GstClockTime kSeekMargin = 2 * GST_SECOND;

std::once_flag gInitOnce;
bool gInitOk = false;

// Graphs alive in the process. When the last one goes, GStreamer's streaming and state-change
// threads are ended too instead of idling in GLib's pools, so that a process that has finished
// playing clips has no threads left behind. Taken around creation, so that no pipeline can start
// while the pools are being emptied.
std::mutex gLiveMutex;
int gLive = 0;

void initGStreamer() {
    GError* error = nullptr;
    if (!gst_init_check(nullptr, nullptr, &error)) {
        LxLog::postDebug("LxpGstGraph: GStreamer cannot start: %s\n",
                         error != nullptr ? error->message : "?");
        g_clear_error(&error);
        return;
    }
    const char* needed[] = {"uridecodebin", "appsink",    "audioconvert", "audioresample",
                            "videoconvert", "videoscale", "capsfilter",   "fakesink"};
    for (const char* name : needed) {
        GstElementFactory* factory = gst_element_factory_find(name);
        if (factory == nullptr) {
            LxLog::postDebug("LxpGstGraph: GStreamer element %s is not installed\n", name);
            return;
        }
        gst_object_unref(factory);
    }
    gInitOk = true;
}

HRESULT errorToResult(GError* error) {
    if (error != nullptr && error->domain == GST_STREAM_ERROR &&
        error->code == GST_STREAM_ERROR_TYPE_NOT_FOUND) {
        return VFW_E_UNKNOWN_FILE_TYPE;
    }
    return VFW_E_CANNOT_RENDER;
}

class GstGraph : public FilterGraphBase {
  public:
    GstGraph() : FilterGraphBase("GStreamer") {
        std::lock_guard<std::mutex> guard(gLiveMutex);
        ++gLive;
    }

  protected:
    HRESULT createSource(const std::string& path, const std::wstring& name, BasicFilter** source) override {
        path_ = path;
        BasicFilter* filter = new BasicFilter(name);
        filter->addPin(L"Output", PINDIR_OUTPUT)->setMediaType(makeMajorType(MEDIATYPE_Stream));
        *source = filter;
        return S_OK;
    }

    HRESULT renderSource(BasicFilter* source) override {
        if (pipeline_ != nullptr) {
            return VFW_E_ALREADY_CONNECTED;
        }
        GError* error = nullptr;
        gchar* uri = gst_filename_to_uri(path_.c_str(), &error);
        if (uri == nullptr) {
            g_clear_error(&error);
            return VFW_E_NOT_FOUND;
        }
        {
            std::lock_guard<std::mutex> guard(gmutex_);
            asyncDone_ = false;
            renderError_ = false;
            renderResult_ = S_OK;
            rendered_ = false;
            undecodable_ = 0;
        }
        decoder_ = new BasicFilter(L"Decoder");
        BasicPin* decoderInput = decoder_->addPin(L"Input", PINDIR_INPUT);

        pipeline_ = gst_pipeline_new(nullptr);
        GstElement* decodebin = gst_element_factory_make("uridecodebin", nullptr);
        g_object_set(decodebin, "uri", uri, nullptr);
        g_free(uri);
        gst_bin_add(GST_BIN(pipeline_), decodebin);
        g_signal_connect(decodebin, "pad-added", G_CALLBACK(&GstGraph::onPadAdded), this);
        g_signal_connect(decodebin, "unknown-type", G_CALLBACK(&GstGraph::onUnknownType), this);
        g_signal_connect(decodebin, "autoplug-select", G_CALLBACK(&GstGraph::onAutoplugSelect), this);
        g_signal_connect(pipeline_, "deep-element-added", G_CALLBACK(&GstGraph::onElementAdded), this);
        GstBus* bus = gst_element_get_bus(pipeline_);
        gst_bus_set_sync_handler(bus, &GstGraph::onBusMessage, this, nullptr);
        gst_object_unref(bus);

        HRESULT hr = S_OK;
        int decoded = 0;
        int undecodable = 0;
        if (gst_element_set_state(pipeline_, GST_STATE_PAUSED) == GST_STATE_CHANGE_FAILURE) {
            hr = VFW_E_CANNOT_RENDER;
        }
        {
            std::unique_lock<std::mutex> lock(gmutex_);
            const auto start = std::chrono::steady_clock::now();
            lastActivity_ = start;
            while (SUCCEEDED(hr) && !asyncDone_ && !renderError_) {
                done_.wait_for(lock, std::chrono::milliseconds(100));
                const auto now = std::chrono::steady_clock::now();
                if (now - lastActivity_ > std::chrono::milliseconds(kStallMs)) {
                    // decodebin swallows an error that a demuxer raises while it is being set up,
                    // and the pipeline then waits for ever: nothing new for a while is failure.
                    LxLog::postDebug("LxpGstGraph: decoding stalled\n");
                    hr = VFW_E_CANNOT_RENDER;
                } else if (now - start > std::chrono::milliseconds(kRenderTimeoutMs)) {
                    hr = VFW_E_TIMEOUT;
                }
            }
            if (renderError_) {
                hr = renderResult_;
            }
            rendered_ = true;
            for (const Stream& s : streams_) {
                if (s.decoded) {
                    ++decoded;
                }
            }
            undecodable = undecodable_;
        }
        if (SUCCEEDED(hr) && decoded == 0) {
            hr = VFW_E_CANNOT_RENDER;
        }
        if (FAILED(hr)) {
            LxLog::postDebug("LxpGstGraph: cannot render %s (0x%08x)\n", path_.c_str(),
                             static_cast<unsigned>(hr));
            teardown();
            decoder_->Release();
            decoder_ = nullptr;
            return hr;
        }
        setOrigin();
        source->pin(0)->connectTo(decoderInput, makeMajorType(MEDIATYPE_Stream));
        addOwnFilter(decoder_);
        decoder_->Release();  // the graph holds it
        refreshFrameRates();
        return undecodable > 0 ? VFW_S_PARTIAL_RENDER : S_OK;
    }

    HRESULT cue(REFERENCE_TIME position, REFERENCE_TIME stop, double rate) override {
        if (!seekPipeline(position, stop, rate)) {
            // A stream that cannot seek still plays from where it is.
            LxLog::postDebug("LxpGstGraph: cue seek refused\n");
        }
        return S_FALSE;
    }

    HRESULT run() override { return stateResult(gst_element_set_state(pipeline_, GST_STATE_PLAYING)); }
    HRESULT pause() override { return stateResult(gst_element_set_state(pipeline_, GST_STATE_PAUSED)); }
    HRESULT stop() override {
        const HRESULT hr = stateResult(gst_element_set_state(pipeline_, GST_STATE_PAUSED));
        return FAILED(hr) ? hr : S_OK;
    }

    HRESULT seek(REFERENCE_TIME position, REFERENCE_TIME stop, double rate) override {
        return seekPipeline(position, stop, rate) ? S_OK : E_FAIL;
    }

    HRESULT waitForTransition(int32_t ms) override {
        if (pipeline_ == nullptr) {
            return S_OK;
        }
        const GstClockTime timeout =
            ms < 0 ? GST_CLOCK_TIME_NONE : static_cast<GstClockTime>(ms) * GST_MSECOND;
        const GstStateChangeReturn r = gst_element_get_state(pipeline_, nullptr, nullptr, timeout);
        return r == GST_STATE_CHANGE_FAILURE ? E_FAIL
               : r == GST_STATE_CHANGE_ASYNC ? VFW_S_STATE_INTERMEDIATE
                                             : S_OK;
    }

    HRESULT mediaDuration(REFERENCE_TIME* duration) override {
        gint64 d = -1;
        if (pipeline_ == nullptr || !gst_element_query_duration(pipeline_, GST_FORMAT_TIME, &d) || d < 0) {
            return E_FAIL;
        }
        *duration = static_cast<REFERENCE_TIME>(d / 100);
        return S_OK;
    }

    bool videoFrameRate(int32_t* numerator, int32_t* denominator) override {
        std::lock_guard<std::mutex> guard(gmutex_);
        for (const Stream& s : streams_) {
            if (s.video && s.renderer != nullptr && s.fpsN > 0 && s.fpsD > 0) {
                *numerator = s.fpsN;
                *denominator = s.fpsD;
                return true;
            }
        }
        return false;
    }

    HRESULT disconnectRenderer(IBaseFilter* filter) override {
        Stream* found = nullptr;
        {
            std::lock_guard<std::mutex> guard(gmutex_);
            for (Stream& s : streams_) {
                if (s.renderer == filter) {
                    found = &s;
                }
            }
        }
        if (found == nullptr) {
            return VFW_E_NOT_CONNECTED;
        }
        // The stream goes to a fake sink instead; it starts to flow again with the next cue.
        GstPad* sinkPad = gst_element_get_static_pad(found->sink, "sink");
        gst_pad_unlink(found->pad, sinkPad);
        gst_object_unref(sinkPad);
        gst_element_set_state(found->sink, GST_STATE_NULL);
        gst_bin_remove(GST_BIN(pipeline_), found->sink);
        gst_object_unref(found->sink);
        found->sink = addFakeSink(found->pad);
        found->out->disconnectBoth();
        std::lock_guard<std::mutex> guard(gmutex_);
        found->renderer = nullptr;
        return S_OK;
    }

    int64_t nowNs() override {
        return std::chrono::duration_cast<std::chrono::nanoseconds>(
                   std::chrono::steady_clock::now().time_since_epoch())
            .count();
    }

    void shutdown() override {
        // A running renderer may hold a streaming thread in its queue; a stopped one lets it go,
        // so the pipeline can stop.
        for (IBaseFilter* f : externalFilters()) {
            f->Stop();
            f->Release();
        }
        teardown();
        std::lock_guard<std::mutex> guard(gLiveMutex);
        if (--gLive == 0) {
            gst_task_cleanup_all();
            g_thread_pool_stop_unused_threads();
        }
    }

  private:
    struct Stream {
        GstPad* pad;            // the decoded pad (referenced)
        GstElement* sink;       // the renderer's bin or a fake sink (referenced)
        BasicPin* out;          // the decoder filter's pin for the stream
        IBaseFilter* renderer;  // null: discarded
        bool decoded;
        bool video;
        int fpsN;
        int fpsD;
        GstClockTime first;    // stream time of the first buffer
        GstClockTime rewrite;  // where segments start after a margin seek
    };

    static HRESULT stateResult(GstStateChangeReturn r) {
        return r == GST_STATE_CHANGE_FAILURE ? E_FAIL : r == GST_STATE_CHANGE_ASYNC ? S_FALSE : S_OK;
    }

    /// A flushing seek to a media time. Program and transport streams are demuxed by their system
    /// clock, which runs ahead of the pictures by the mux delay, so their seeks land late; for them
    /// the pipeline seeks earlier by a margin and the decoded streams get a segment that starts at
    /// the target, so the sinks drop what comes before it.
    bool seekPipeline(REFERENCE_TIME position, REFERENCE_TIME stop, double rate) {
        if (pipeline_ == nullptr) {
            return false;
        }
        const GstClockTime target = static_cast<GstClockTime>(position) * 100 + origin_;
        GstClockTime start = target;
        {
            std::lock_guard<std::mutex> guard(gmutex_);
            if (marginSeeks_) {
                start = target > kSeekMargin ? target - kSeekMargin : 0;
            }
            for (Stream& s : streams_) {
                s.rewrite = marginSeeks_ ? target : GST_CLOCK_TIME_NONE;
            }
        }
        const GstClockTime end =
            stop >= 0 ? static_cast<GstClockTime>(stop) * 100 + origin_ : GST_CLOCK_TIME_NONE;
        const GstSeekFlags flags = static_cast<GstSeekFlags>(GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_ACCURATE);
        const bool ok =
            gst_element_seek(pipeline_, rate, GST_FORMAT_TIME, flags, GST_SEEK_TYPE_SET,
                             static_cast<gint64>(start), GST_SEEK_TYPE_SET, static_cast<gint64>(end)) != 0;
        if (!ok) {
            std::lock_guard<std::mutex> guard(gmutex_);
            for (Stream& s : streams_) {
                s.rewrite = GST_CLOCK_TIME_NONE;
            }
        }
        return ok;
    }

    /// Notes each decoded stream's first time, and gives the first segment after a margin seek
    /// its real start. Streaming threads.
    void decodedData(GstPad* pad, GstPadProbeInfo* info) {
        if ((GST_PAD_PROBE_INFO_TYPE(info) & GST_PAD_PROBE_TYPE_BUFFER) != 0) {
            GstBuffer* buffer = GST_PAD_PROBE_INFO_BUFFER(info);
            std::lock_guard<std::mutex> guard(gmutex_);
            Stream* s = findLocked(pad);
            if (s != nullptr && !GST_CLOCK_TIME_IS_VALID(s->first) && GST_BUFFER_PTS_IS_VALID(buffer)) {
                GstEvent* event = gst_pad_get_sticky_event(pad, GST_EVENT_SEGMENT, 0);
                if (event != nullptr) {
                    const GstSegment* segment = nullptr;
                    gst_event_parse_segment(event, &segment);
                    s->first = gst_segment_to_stream_time(segment, GST_FORMAT_TIME, GST_BUFFER_PTS(buffer));
                    gst_event_unref(event);
                }
            }
            return;
        }
        GstEvent* event = GST_PAD_PROBE_INFO_EVENT(info);
        if (event == nullptr || GST_EVENT_TYPE(event) != GST_EVENT_SEGMENT) {
            return;
        }
        std::lock_guard<std::mutex> guard(gmutex_);
        Stream* s = findLocked(pad);
        if (s == nullptr || !GST_CLOCK_TIME_IS_VALID(s->rewrite)) {
            return;
        }
        GstSegment segment;
        gst_event_copy_segment(event, &segment);
        if (segment.format == GST_FORMAT_TIME && segment.start < s->rewrite) {
            segment.start = s->rewrite;
            segment.time = s->rewrite;
            segment.position = s->rewrite;
            GstEvent* replaced = gst_event_new_segment(&segment);
            gst_event_set_seqnum(replaced, gst_event_get_seqnum(event));
            gst_event_unref(event);
            GST_PAD_PROBE_INFO_DATA(info) = replaced;
        }
        // The target stays until the next seek: a pipeline with several sinks passes the seek to
        // the demuxer once for each, and each time it starts a new segment.
    }

    Stream* findLocked(GstPad* pad) {
        for (Stream& s : streams_) {
            if (s.pad == pad) {
                return &s;
            }
        }
        return nullptr;
    }

    GstElement* addFakeSink(GstPad* pad) {
        GstElement* sink = gst_element_factory_make("fakesink", nullptr);
        // Paced like a renderer, so a discarded stream is not decoded faster than it plays.
        g_object_set(sink, "sync", TRUE, nullptr);
        gst_bin_add(GST_BIN(pipeline_), sink);
        gst_object_ref(sink);
        GstPad* sinkPad = gst_element_get_static_pad(sink, "sink");
        gst_pad_link(pad, sinkPad);
        gst_object_unref(sinkPad);
        gst_element_sync_state_with_parent(sink);
        return sink;
    }

    static void readFrameRate(GstCaps* caps, int* num, int* den) {
        *num = 0;
        *den = 1;
        if (caps != nullptr && gst_caps_get_size(caps) > 0) {
            gst_structure_get_fraction(gst_caps_get_structure(caps, 0), "framerate", num, den);
        }
    }

    /// Media time 0 is the first decoded sample of the clip: MPEG system streams, for one, start
    /// their time stamps at the mux delay.
    void setOrigin() {
        std::vector<IBaseFilter*> renderers;
        {
            std::lock_guard<std::mutex> guard(gmutex_);
            origin_ = GST_CLOCK_TIME_NONE;
            for (const Stream& s : streams_) {
                if (s.decoded && GST_CLOCK_TIME_IS_VALID(s.first) &&
                    (!GST_CLOCK_TIME_IS_VALID(origin_) || s.first < origin_)) {
                    origin_ = s.first;
                }
                if (s.renderer != nullptr) {
                    renderers.push_back(s.renderer);
                }
            }
            if (!GST_CLOCK_TIME_IS_VALID(origin_)) {
                origin_ = 0;
            }
        }
        for (IBaseFilter* filter : renderers) {
            IGstSinkFilter* lender = nullptr;
            if (SUCCEEDED(filter->QueryInterface(IID_IGstSinkFilter, reinterpret_cast<void**>(&lender)))) {
                lender->SetStreamOrigin(static_cast<REFERENCE_TIME>(origin_ / 100));
                lender->Release();
            }
        }
    }

    void refreshFrameRates() {
        std::lock_guard<std::mutex> guard(gmutex_);
        for (Stream& s : streams_) {
            if (s.video) {
                GstCaps* caps = gst_pad_get_current_caps(s.pad);
                if (caps != nullptr) {
                    readFrameRate(caps, &s.fpsN, &s.fpsD);
                    gst_caps_unref(caps);
                }
            }
        }
    }

    /// Links a decoded pad to the first renderer filter that takes it; pad-added, streaming thread.
    void padAdded(GstPad* pad) {
        GstCaps* caps = gst_pad_get_current_caps(pad);
        if (caps == nullptr) {
            caps = gst_pad_query_caps(pad, nullptr);
        }
        const char* kind = caps != nullptr && gst_caps_get_size(caps) > 0
                               ? gst_structure_get_name(gst_caps_get_structure(caps, 0))
                               : "";
        LxLog::postDebug("LxpGstGraph: stream %s\n", kind);
        const bool audio = g_str_has_prefix(kind, "audio/x-raw");
        const bool video = g_str_has_prefix(kind, "video/x-raw");
        Stream stream = {pad,
                         nullptr,
                         nullptr,
                         nullptr,
                         audio || video,
                         video,
                         0,
                         1,
                         GST_CLOCK_TIME_NONE,
                         GST_CLOCK_TIME_NONE};
        if (video) {
            readFrameRate(caps, &stream.fpsN, &stream.fpsD);
        }
        if (caps != nullptr) {
            gst_caps_unref(caps);
        }
        const AM_MEDIA_TYPE type = makeMajorType(audio   ? MEDIATYPE_Audio
                                                 : video ? MEDIATYPE_Video
                                                         : MEDIATYPE_Stream);
        stream.out = decoder_->addPin(audio ? L"Audio" : video ? L"Video" : L"Other", PINDIR_OUTPUT);
        stream.out->setMediaType(type);
        gst_object_ref(pad);
        Stream* s;
        bool late;
        {
            std::lock_guard<std::mutex> guard(gmutex_);
            late = rendered_;
            lastActivity_ = std::chrono::steady_clock::now();
            if (!stream.decoded) {
                ++undecodable_;
            }
            streams_.push_back(stream);
            s = &streams_.back();
        }
        gst_pad_add_probe(
            pad,
            static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM),
            &GstGraph::onDecodedData, this, nullptr);
        Stream linked = stream;
        if (stream.decoded && !late) {
            connectRenderer(&linked, type);
        }
        if (linked.sink == nullptr) {
            linked.sink = addFakeSink(pad);
        }
        std::lock_guard<std::mutex> guard(gmutex_);
        s->sink = linked.sink;
        s->renderer = linked.renderer;
    }

    void connectRenderer(Stream* stream, const AM_MEDIA_TYPE& type) {
        std::vector<IBaseFilter*> filters = externalFilters();
        for (IBaseFilter* filter : filters) {
            if (stream->renderer != nullptr) {
                break;
            }
            IPin* input = findAcceptingInput(filter, type);
            IGstSinkFilter* lender = nullptr;
            GstElement* bin = nullptr;
            if (input != nullptr &&
                SUCCEEDED(filter->QueryInterface(IID_IGstSinkFilter, reinterpret_cast<void**>(&lender))) &&
                SUCCEEDED(lender->GetSinkElement(&bin)) && SUCCEEDED(stream->out->connectTo(input, type))) {
                gst_bin_add(GST_BIN(pipeline_), bin);
                GstPad* sinkPad = gst_element_get_static_pad(bin, "sink");
                const bool linked =
                    sinkPad != nullptr && GST_PAD_LINK_SUCCESSFUL(gst_pad_link(stream->pad, sinkPad));
                if (sinkPad != nullptr) {
                    gst_object_unref(sinkPad);
                }
                if (linked) {
                    gst_element_sync_state_with_parent(bin);
                    stream->sink = bin;
                    stream->renderer = filter;
                    setRendererConnected(filter, true);
                    bin = nullptr;
                } else {
                    gst_bin_remove(GST_BIN(pipeline_), bin);
                    stream->out->disconnectBoth();
                }
            }
            if (bin != nullptr) {
                gst_object_unref(bin);
            }
            if (lender != nullptr) {
                lender->Release();
            }
            if (input != nullptr) {
                input->Release();
            }
        }
        for (IBaseFilter* filter : filters) {
            filter->Release();
        }
    }

    void busMessage(GstMessage* message) {
        switch (GST_MESSAGE_TYPE(message)) {
            case GST_MESSAGE_ERROR: {
                GError* error = nullptr;
                gchar* debug = nullptr;
                gst_message_parse_error(message, &error, &debug);
                LxLog::postDebug("LxpGstGraph: error from %s: %s\n",
                                 GST_OBJECT_NAME(GST_MESSAGE_SRC(message)),
                                 error != nullptr ? error->message : "?");
                bool post = false;
                {
                    std::lock_guard<std::mutex> guard(gmutex_);
                    if (!rendered_) {
                        if (!renderError_) {
                            renderError_ = true;
                            renderResult_ = errorToResult(error);
                        }
                        done_.notify_all();
                    } else if (!errorPosted_) {
                        errorPosted_ = true;
                        post = true;
                    }
                }
                if (post) {
                    // The stream cannot go on: it ends here, so that whoever waits for the end
                    // is not left waiting.
                    postEvent(EC_ERRORABORT, E_FAIL, 0);
                    postEvent(EC_COMPLETE, E_FAIL, 0);
                }
                g_clear_error(&error);
                g_free(debug);
                break;
            }
            case GST_MESSAGE_WARNING: {
                GError* error = nullptr;
                gst_message_parse_warning(message, &error, nullptr);
                LxLog::postDebug("LxpGstGraph: warning: %s\n", error != nullptr ? error->message : "?");
                g_clear_error(&error);
                break;
            }
            case GST_MESSAGE_ASYNC_DONE:
                if (GST_MESSAGE_SRC(message) == GST_OBJECT_CAST(pipeline_)) {
                    std::lock_guard<std::mutex> guard(gmutex_);
                    asyncDone_ = true;
                    done_.notify_all();
                }
                break;
            case GST_MESSAGE_STATE_CHANGED:
                if (GST_MESSAGE_SRC(message) == GST_OBJECT_CAST(pipeline_)) {
                    GstState newState = GST_STATE_VOID_PENDING;
                    gst_message_parse_state_changed(message, nullptr, &newState, nullptr);
                    if (newState == GST_STATE_PLAYING) {
                        presentEarlier(startClock());
                    }
                }
                break;
            default:
                break;
        }
    }

    /// Media time started moving lateNs before the pipeline got going again (a cue after a seek
    /// takes time): every sink presents that much earlier, so that the pictures belong to the
    /// time they were asked for. What is already late goes through at once for the renderer to
    /// drop. A negative lateness presents later. Each restart of the running time sets the
    /// offset afresh.
    void presentEarlier(int64_t lateNs) {
        GstIterator* it = gst_bin_iterate_recurse(GST_BIN(pipeline_));
        GValue item = G_VALUE_INIT;
        while (gst_iterator_next(it, &item) == GST_ITERATOR_OK) {
            GstElement* e = GST_ELEMENT(g_value_get_object(&item));
            if (GST_IS_BASE_SINK(e)) {
                gst_base_sink_set_ts_offset(GST_BASE_SINK(e), -static_cast<GstClockTimeDiff>(lateNs));
            }
            g_value_reset(&item);
        }
        g_value_unset(&item);
        gst_iterator_free(it);
    }

    void teardown() {
        if (pipeline_ != nullptr) {
            gst_element_set_state(pipeline_, GST_STATE_NULL);
            GstBus* bus = gst_element_get_bus(pipeline_);
            gst_bus_set_sync_handler(bus, nullptr, nullptr, nullptr);
            gst_object_unref(bus);
        }
        std::list<Stream> streams;
        {
            std::lock_guard<std::mutex> guard(gmutex_);
            streams.swap(streams_);
        }
        for (Stream& s : streams) {
            if (s.renderer != nullptr) {
                s.out->disconnectBoth();
                setRendererConnected(s.renderer, false);
            }
            gst_object_unref(s.sink);
            gst_object_unref(s.pad);
        }
        if (pipeline_ != nullptr) {
            gst_object_unref(pipeline_);
            pipeline_ = nullptr;
        }
    }

    static void onPadAdded(GstElement*, GstPad* pad, gpointer self) {
        static_cast<GstGraph*>(self)->padAdded(pad);
    }

    // Files come from the web, and the registry holds decoders for far more than Lorvex plays:
    // only the demuxers, parsers and decoders of WAVE, AIFF, MPEG-1/2 systems and video, MPEG
    // audio and QuickTime/MP4 with their common codecs are used, so a clip of any other kind is refused as
    // undecodable instead of reaching a decoder nobody here has tried.
    static gint onAutoplugSelect(GstElement*, GstPad*, GstCaps*, GstElementFactory* factory, gpointer) {
        static const char* const kAllowed[] = {
            // containers and parsers
            "wavparse", "aiffparse", "mpegpsdemux", "tsdemux", "qtdemux", "id3demux", "apedemux",
            "mpegaudioparse", "mpegvideoparse", "mpeg4videoparse", "h264parse", "h263parse", "aacparse",
            "ac3parse", "jpegparse",
            // MPEG audio and video
            "avdec_mp1float", "avdec_mp2float", "avdec_mp3float", "avdec_mp3", "mpg123audiodec", "mpeg2dec",
            "avdec_mpegvideo", "avdec_mpeg2video", "avdec_ac3", "a52dec", "dvdlpcmdec",
            // QuickTime and MP4
            "avdec_mpeg4", "avdec_h264", "avdec_h263", "avdec_aac", "faad", "avdec_alac", "jpegdec",
            "avdec_mjpeg", "avdec_svq1", "avdec_svq3", "avdec_cinepak", "avdec_qtrle", "avdec_rpza",
            "avdec_smc", "avdec_8bps", "avdec_png", "pngdec", "avdec_qdm2", "avdec_mace3", "avdec_mace6",
            "avdec_adpcm_ima_qt",
            // WAVE encodings
            "avdec_adpcm_ima_wav", "avdec_adpcm_ms", "alawdec", "mulawdec"};
        enum { kTry = 0, kSkip = 2 };  // GstAutoplugSelectResult
        const char* name = gst_plugin_feature_get_name(GST_PLUGIN_FEATURE(factory));
        for (const char* allowed : kAllowed) {
            if (std::strcmp(name, allowed) == 0) {
                return kTry;
            }
        }
        LxLog::postDebug("LxpGstGraph: %s is not used for clips\n", name);
        return kSkip;
    }

    static void onUnknownType(GstElement*, GstPad*, GstCaps* caps, gpointer self) {
        GstGraph* graph = static_cast<GstGraph*>(self);
        gchar* text = caps != nullptr ? gst_caps_to_string(caps) : nullptr;
        LxLog::postDebug("LxpGstGraph: no decoder for %s\n", text != nullptr ? text : "?");
        g_free(text);
        std::lock_guard<std::mutex> guard(graph->gmutex_);
        ++graph->undecodable_;
    }

    static void onElementAdded(GstBin*, GstBin*, GstElement* element, gpointer self) {
        GstElementFactory* factory = gst_element_get_factory(element);
        const gchar* name = factory != nullptr ? GST_OBJECT_NAME(factory) : "";
        GstGraph* graph = static_cast<GstGraph*>(self);
        if (g_strcmp0(name, "mpegpsdemux") == 0 || g_strcmp0(name, "tsdemux") == 0) {
            graph->marginSeeks_ = true;
        }
        if (g_strcmp0(name, "wavparse") == 0 && oddDataEndsWave(graph->path_)) {
            // Reads the data to the end of the file instead: the data and its pad byte.
            g_object_set(element, "ignore-length", TRUE, nullptr);
        }
        std::lock_guard<std::mutex> guard(graph->gmutex_);
        graph->lastActivity_ = std::chrono::steady_clock::now();
    }

    static GstPadProbeReturn onDecodedData(GstPad* pad, GstPadProbeInfo* info, gpointer self) {
        static_cast<GstGraph*>(self)->decodedData(pad, info);
        return GST_PAD_PROBE_OK;
    }

    static GstBusSyncReply onBusMessage(GstBus*, GstMessage* message, gpointer self) {
        static_cast<GstGraph*>(self)->busMessage(message);
        return GST_BUS_DROP;
    }

    std::string path_;
    GstElement* pipeline_ = nullptr;  // owner's thread; read by the bus handler while it exists
    BasicFilter* decoder_ = nullptr;  // held by the graph once rendered
    std::mutex gmutex_;
    std::condition_variable done_;
    std::list<Stream> streams_;
    bool asyncDone_ = false;
    bool renderError_ = false;
    HRESULT renderResult_ = S_OK;
    bool rendered_ = false;
    bool errorPosted_ = false;
    int undecodable_ = 0;
    std::atomic<bool> marginSeeks_{false};
    std::chrono::steady_clock::time_point lastActivity_;
    GstClockTime origin_ = 0;  // stream time of media time 0 (owner's thread after Render)
};

}  // namespace

bool available() {
    if (graphtest::gstreamerMissingSimulated()) {
        return false;
    }
    std::call_once(gInitOnce, initGStreamer);
    return gInitOk;
}

HRESULT createFilterGraph(const IID& iid, void** out) {
    if (out == nullptr) {
        return E_POINTER;
    }
    *out = nullptr;
    if (!available()) {
        return REGDB_E_CLASSNOTREG;
    }
    GstGraph* graph = new GstGraph();
    const HRESULT hr = graph->QueryInterface(iid, out);
    graph->Release();
    return hr;
}

}  // namespace gstgraph
}  // namespace lxp
