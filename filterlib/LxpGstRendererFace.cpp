// The GStreamer end of a renderer filter: a bin that converts a decoded stream to the filter's
// format and ends in an app sink whose samples go into the filter like any other.
//
//   audio: audioconvert ! capsfilter (S16LE or U8, interleaved, 1 or 2 channels) ! appsink
//   video: videoconvert ! capsfilter (the filter's pixel layout)                  ! appsink
//
// The audio sink does not wait for the clock: audio runs ahead as far as the consumer's frame
// pool lets it, as a DirectShow audio renderer takes samples as fast as it can buffer them. The
// video sink waits for each frame's time. Flushes seen on the sink's pad are passed to the filter
// so that a blocked delivery gives up at once.
#include "filterlib/LxpRenderer.h"

#include "LxLog.h"

#include <gst/app/gstappsink.h>
#include <gst/audio/audio.h>
#include <gst/gst.h>
#include <gst/video/video.h>

#include <cstring>
#include <mutex>
#include <vector>

namespace lxp {

namespace {

REFERENCE_TIME toMediaTime(const GstSegment* segment, GstClockTime ts) {
    if (!GST_CLOCK_TIME_IS_VALID(ts)) {
        return -1;
    }
    if (segment != nullptr && segment->format == GST_FORMAT_TIME) {
        const guint64 stream = gst_segment_to_stream_time(segment, GST_FORMAT_TIME, ts);
        if (GST_CLOCK_TIME_IS_VALID(stream)) {
            return static_cast<REFERENCE_TIME>(stream / 100);
        }
    }
    return static_cast<REFERENCE_TIME>(ts / 100);
}

/// A GStreamer buffer seen as an IMediaSample. Video rows are repacked when the buffer's stride
/// is not the filter's.
class GstMediaSample : public ComObject<IMediaSample> {
  public:
    /// start and end in media time (-1: unknown); skip: leading bytes that are not delivered.
    GstMediaSample(GstBuffer* buffer, REFERENCE_TIME start, REFERENCE_TIME end, size_t skip,
                   bool discontinuity)
        : buffer_(gst_buffer_ref(buffer)),
          mapped_(false),
          discontinuity_(discontinuity),
          skip_(skip),
          start_(start),
          end_(end) {
        std::memset(&map_, 0, sizeof map_);
    }

    bool mapPlain() {
        mapped_ = gst_buffer_map(buffer_, &map_, GST_MAP_READ) != 0;
        if (mapped_ && skip_ >= map_.size) {
            return false;
        }
        return mapped_;
    }

    /// Maps a video frame and packs its rows at the filter's stride when they differ.
    bool mapVideo(GstVideoInfo* info, const LxpVideoSpec& spec) {
        GstVideoFrame frame;
        if (!gst_video_frame_map(&frame, info, buffer_, GST_MAP_READ)) {
            return false;
        }
        const int stride = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0);
        const uint8_t* src = static_cast<const uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0));
        const size_t row = static_cast<size_t>(spec.width * spec.bytesPerPixel);
        packed_.assign(static_cast<size_t>(spec.stride) * static_cast<size_t>(spec.height), 0);
        for (int32_t y = 0; y < spec.height; ++y) {
            std::memcpy(&packed_[static_cast<size_t>(y) * static_cast<size_t>(spec.stride)],
                        src + static_cast<ptrdiff_t>(y) * stride, row);
        }
        gst_video_frame_unmap(&frame);
        return true;
    }

    HRESULT QueryInterface(const IID& iid, void** out) override {
        return queryOwn(iid, IID_IMediaSample, out);
    }
    HRESULT GetPointer(uint8_t** buffer) override {
        if (buffer == nullptr) {
            return E_POINTER;
        }
        *buffer = !packed_.empty() ? packed_.data() : mapped_ ? map_.data + skip_ : nullptr;
        return *buffer != nullptr ? S_OK : E_FAIL;
    }
    int32_t GetActualDataLength() override {
        return !packed_.empty() ? static_cast<int32_t>(packed_.size())
               : mapped_        ? static_cast<int32_t>(map_.size - skip_)
                                : 0;
    }
    HRESULT GetTime(REFERENCE_TIME* start, REFERENCE_TIME* end) override {
        if (start == nullptr || end == nullptr) {
            return E_POINTER;
        }
        *start = start_;
        *end = end_;
        return start_ >= 0 ? S_OK : VFW_E_SAMPLE_TIME_NOT_SET;
    }
    HRESULT IsDiscontinuity() override { return discontinuity_ ? S_OK : S_FALSE; }

  protected:
    ~GstMediaSample() override {
        if (mapped_) {
            gst_buffer_unmap(buffer_, &map_);
        }
        gst_buffer_unref(buffer_);
    }

  private:
    GstBuffer* buffer_;
    GstMapInfo map_;
    bool mapped_;
    bool discontinuity_;
    size_t skip_;
    std::vector<uint8_t> packed_;
    REFERENCE_TIME start_;
    REFERENCE_TIME end_;
};

const char* gstVideoFormat(LxPixelFormat_s format) {
    switch (format) {
        case LxPixel32Alt:
            return "RGBx";
        case LxPixel24Alt:
            return "RGB";
        case LxPixel32:
            return "BGRx";
        default:
            return "BGR";
    }
}

/// The largest picture side handed on; a clip from the web may declare any size.
constexpr int kMaxPicture = 4096;

class GstFace : public GstRendererFace {
  public:
    explicit GstFace(RendererFilter* owner)
        : owner_(owner),
          bin_(nullptr),
          appsink_(nullptr),
          probe_(0),
          preroll_(nullptr),
          discontinuity_(true) {}

    bool build() {
        const bool audio = owner_->kind() == RendererKind::Audio;
        bin_ = gst_bin_new(nullptr);
        gst_object_ref_sink(bin_);
        GstElement* convert = gst_element_factory_make(audio ? "audioconvert" : "videoconvert", nullptr);
        // A rate the sound engine cannot take is resampled, a picture larger than kMaxPicture on
        // a side is scaled down; both pass everything else through untouched.
        GstElement* scale = gst_element_factory_make(audio ? "audioresample" : "videoscale", nullptr);
        GstElement* filter = gst_element_factory_make("capsfilter", nullptr);
        appsink_ = gst_element_factory_make("appsink", nullptr);
        if (convert == nullptr || scale == nullptr || filter == nullptr || appsink_ == nullptr) {
            if (convert != nullptr) {
                gst_object_unref(convert);
            }
            if (scale != nullptr) {
                gst_object_unref(scale);
            }
            if (filter != nullptr) {
                gst_object_unref(filter);
            }
            if (appsink_ != nullptr) {
                gst_object_unref(appsink_);
                appsink_ = nullptr;
            }
            return false;
        }
        GstCaps* caps =
            audio ? gst_caps_from_string(
                        "audio/x-raw, format=(string){ S16LE, U8 }, "
                        "layout=(string)interleaved, channels=(int)[ 1, 2 ], "
                        "rate=(int)[ 1, 384000 ]")
                  : gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING,
                                        gstVideoFormat(owner_->pixelFormat()), "width", GST_TYPE_INT_RANGE, 1,
                                        kMaxPicture, "height", GST_TYPE_INT_RANGE, 1, kMaxPicture, nullptr);
        g_object_set(filter, "caps", caps, nullptr);
        gst_caps_unref(caps);
        // The video sink waits for each frame's time; audio is taken as fast as the consumer
        // takes it (see the file comment).
        g_object_set(appsink_, "sync", audio ? FALSE : TRUE, "enable-last-sample", FALSE, "qos", FALSE,
                     "emit-signals", FALSE, nullptr);
        gst_bin_add_many(GST_BIN(bin_), convert, scale, filter, appsink_, nullptr);
        if (!gst_element_link_many(convert, scale, filter, appsink_, nullptr)) {
            return false;
        }
        GstPad* target = gst_element_get_static_pad(convert, "sink");
        GstPad* ghost = gst_ghost_pad_new("sink", target);
        gst_object_unref(target);
        gst_element_add_pad(bin_, ghost);

        GstAppSinkCallbacks callbacks;
        std::memset(&callbacks, 0, sizeof callbacks);
        callbacks.eos = &GstFace::onEos;
        callbacks.new_preroll = &GstFace::onPreroll;
        callbacks.new_sample = &GstFace::onSample;
        gst_app_sink_set_callbacks(GST_APP_SINK(appsink_), &callbacks, this, nullptr);

        GstPad* sinkPad = gst_element_get_static_pad(appsink_, "sink");
        probe_ = gst_pad_add_probe(sinkPad, GST_PAD_PROBE_TYPE_EVENT_FLUSH, &GstFace::onFlush, this, nullptr);
        gst_object_unref(sinkPad);
        return true;
    }

    ~GstFace() override {
        if (appsink_ != nullptr) {
            GstAppSinkCallbacks none;
            std::memset(&none, 0, sizeof none);
            gst_app_sink_set_callbacks(GST_APP_SINK(appsink_), &none, nullptr, nullptr);
            if (probe_ != 0) {
                GstPad* sinkPad = gst_element_get_static_pad(appsink_, "sink");
                gst_pad_remove_probe(sinkPad, probe_);
                gst_object_unref(sinkPad);
            }
        }
        if (bin_ != nullptr) {
            gst_element_set_state(bin_, GST_STATE_NULL);
            gst_object_unref(bin_);
        }
        clearPreroll();
    }

    GstElement* element() override {
        gst_object_ref(bin_);
        return bin_;
    }

  private:
    void clearPreroll() {
        std::lock_guard<std::mutex> guard(mutex_);
        if (preroll_ != nullptr) {
            gst_buffer_unref(preroll_);
            preroll_ = nullptr;
        }
    }

    /// Learns the format from the sample's caps; false when they cannot be delivered.
    bool takeCaps(GstSample* sample, GstVideoInfo* info) {
        GstCaps* caps = gst_sample_get_caps(sample);
        if (caps == nullptr) {
            return false;
        }
        if (owner_->kind() == RendererKind::Audio) {
            GstAudioInfo ai;
            if (!gst_audio_info_from_caps(&ai, caps)) {
                return false;
            }
            const int bits = GST_AUDIO_INFO_WIDTH(&ai);
            LxpAudioSpec spec = {bits, GST_AUDIO_INFO_CHANNELS(&ai), GST_AUDIO_INFO_RATE(&ai)};
            LxpAudioSpec current;
            if (owner_->GetAudioSpec(&current) != S_OK || current.bitsPerSample != spec.bitsPerSample ||
                current.channels != spec.channels || current.samplesPerSecond != spec.samplesPerSecond) {
                owner_->setAudioSpec(spec);
            }
            return true;
        }
        if (!gst_video_info_from_caps(info, caps)) {
            return false;
        }
        REFERENCE_TIME frame = 0;
        if (GST_VIDEO_INFO_FPS_N(info) > 0 && GST_VIDEO_INFO_FPS_D(info) > 0) {
            frame = static_cast<REFERENCE_TIME>(
                gst_util_uint64_scale(UNITS, static_cast<guint64>(GST_VIDEO_INFO_FPS_D(info)),
                                      static_cast<guint64>(GST_VIDEO_INFO_FPS_N(info))));
        }
        const LxpVideoSpec spec = makeVideoSpec(GST_VIDEO_INFO_WIDTH(info), GST_VIDEO_INFO_HEIGHT(info),
                                                owner_->pixelFormat(), frame);
        LxpVideoSpec current;
        if (owner_->GetVideoSpec(&current) != S_OK || current.width != spec.width ||
            current.height != spec.height) {
            owner_->setVideoSpec(spec);
        }
        return true;
    }

    GstFlowReturn take(GstSample* sample, bool preroll) {
        GstBuffer* buffer = gst_sample_get_buffer(sample);
        if (buffer == nullptr) {
            return GST_FLOW_OK;
        }
        {
            std::lock_guard<std::mutex> guard(mutex_);
            if (preroll) {
                gst_buffer_replace(&preroll_, buffer);
            } else if (preroll_ != nullptr) {
                // The sample that prerolled comes again when the pipeline starts playing; the
                // filter has it already.
                const bool same = preroll_ == buffer;
                gst_buffer_unref(preroll_);
                preroll_ = nullptr;
                if (same) {
                    return GST_FLOW_OK;
                }
            }
        }
        GstVideoInfo info;
        if (!takeCaps(sample, &info)) {
            return GST_FLOW_OK;
        }
        bool discontinuity;
        {
            std::lock_guard<std::mutex> guard(mutex_);
            discontinuity = discontinuity_ || GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DISCONT);
            discontinuity_ = false;
        }
        // Samples before the segment's start are not part of the clip from here on (the graph may
        // have started decoding earlier than asked, to land exactly); a buffer that straddles the
        // start loses its leading samples.
        const GstSegment* segment = gst_sample_get_segment(sample);
        GstClockTime pts = GST_BUFFER_PTS(buffer);
        GstClockTime duration = GST_BUFFER_DURATION(buffer);
        size_t skip = 0;
        if (segment != nullptr && segment->format == GST_FORMAT_TIME && GST_CLOCK_TIME_IS_VALID(pts) &&
            pts < segment->start) {
            if (owner_->kind() == RendererKind::Video) {
                if (GST_CLOCK_TIME_IS_VALID(duration) && pts + duration <= segment->start) {
                    return GST_FLOW_OK;
                }
            } else {
                LxpAudioSpec audio;
                owner_->GetAudioSpec(&audio);
                const guint64 samples = gst_util_uint64_scale(
                    segment->start - pts, static_cast<guint64>(audio.samplesPerSecond), GST_SECOND);
                skip = static_cast<size_t>(samples) * static_cast<size_t>(audio.blockAlign());
                const GstClockTime cut =
                    gst_util_uint64_scale(samples, GST_SECOND, static_cast<guint64>(audio.samplesPerSecond));
                pts += cut;
                duration = GST_CLOCK_TIME_IS_VALID(duration) && duration > cut ? duration - cut
                                                                               : GST_CLOCK_TIME_NONE;
            }
        }
        const REFERENCE_TIME origin = owner_->streamOrigin();
        REFERENCE_TIME start = toMediaTime(segment, pts);
        if (start >= 0) {
            start = start > origin ? start - origin : 0;
        }
        const REFERENCE_TIME end = start >= 0 && GST_CLOCK_TIME_IS_VALID(duration)
                                       ? start + static_cast<REFERENCE_TIME>(duration / 100)
                                       : -1;
        GstMediaSample* media = new GstMediaSample(buffer, start, end, skip, discontinuity);
        bool mapped;
        if (owner_->kind() == RendererKind::Audio) {
            mapped = media->mapPlain();
        } else {
            LxpVideoSpec spec;
            mapped = owner_->GetVideoSpec(&spec) == S_OK && media->mapVideo(&info, spec);
        }
        if (mapped) {
            owner_->receive(media);
        }
        media->Release();
        return GST_FLOW_OK;
    }

    static GstFlowReturn onPreroll(GstAppSink* sink, gpointer user) {
        GstSample* sample = gst_app_sink_pull_preroll(sink);
        if (sample == nullptr) {
            return GST_FLOW_OK;
        }
        const GstFlowReturn ret = static_cast<GstFace*>(user)->take(sample, true);
        gst_sample_unref(sample);
        return ret;
    }

    static GstFlowReturn onSample(GstAppSink* sink, gpointer user) {
        GstSample* sample = gst_app_sink_pull_sample(sink);
        if (sample == nullptr) {
            return GST_FLOW_OK;
        }
        const GstFlowReturn ret = static_cast<GstFace*>(user)->take(sample, false);
        gst_sample_unref(sample);
        return ret;
    }

    static void onEos(GstAppSink*, gpointer user) { static_cast<GstFace*>(user)->owner_->endOfStream(); }

    static GstPadProbeReturn onFlush(GstPad*, GstPadProbeInfo* info, gpointer user) {
        GstFace* self = static_cast<GstFace*>(user);
        GstEvent* event = GST_PAD_PROBE_INFO_EVENT(info);
        if (event == nullptr) {
            return GST_PAD_PROBE_OK;
        }
        if (GST_EVENT_TYPE(event) == GST_EVENT_FLUSH_START) {
            self->owner_->beginFlush();
        } else if (GST_EVENT_TYPE(event) == GST_EVENT_FLUSH_STOP) {
            self->clearPreroll();
            {
                std::lock_guard<std::mutex> guard(self->mutex_);
                self->discontinuity_ = true;
            }
            self->owner_->endFlush();
        }
        return GST_PAD_PROBE_OK;
    }

    RendererFilter* owner_;
    GstElement* bin_;
    GstElement* appsink_;
    gulong probe_;
    std::mutex mutex_;
    GstBuffer* preroll_;  // the last prerolled buffer, until the next sample
    bool discontinuity_;
};

}  // namespace

GstRendererFace* GstRendererFace::create(RendererFilter* owner) {
    if (!gst_is_initialized()) {
        LxLog::postDebug("LxpRenderer: GStreamer is not initialised\n");
        return nullptr;
    }
    GstFace* face = new GstFace(owner);
    if (!face->build()) {
        LxLog::postDebug("LxpRenderer: could not build the GStreamer bin\n");
        delete face;
        return nullptr;
    }
    return face;
}

}  // namespace lxp
