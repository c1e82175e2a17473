// The ALSA sink: plays the mixed output on an ALSA PCM device.
#include "platform/sound/LxpSinks.h"

#include "LxLog.h"

#if defined(LORVEX_HAVE_ALSA)
#include <alsa/asoundlib.h>
#endif

namespace lxp {
namespace sound {

namespace {

#if defined(LORVEX_HAVE_ALSA)
// ALSA's own diagnostics go to the library's log instead of standard error.
void alsaError(const char* file, int line, const char* function, int err, const char* fmt, ...) {
    (void)file;
    (void)line;
    (void)err;
    (void)fmt;
    LxLog::postTrace("LxpSound:  ALSA reports a problem in %s\n", function != nullptr ? function : "?");
}

// Latency asked of ALSA. The pacer lets the engine run at most twice this far ahead of the wall
// clock, which only matters for devices that do not block (ALSA's "null" PCM).
constexpr unsigned kLatencyMicros = 50000;

class AlsaSink : public Sink {
  public:
    AlsaSink(const std::string& device, bool named)
        : device_(device.empty() ? "default" : device), named_(named) {}
    ~AlsaSink() override {
        if (pcm_ != nullptr) {
            snd_pcm_close(pcm_);
        }
    }

    /// Opens the device, before the engine exists and so outside its lock. Without waiting: a
    /// device another program holds is reported at once instead of hanging the start-up. Writes
    /// then block, which is what paces the mixing thread.
    void prepare() {
        static const int quiet = snd_lib_error_set_handler(&alsaError);
        (void)quiet;
        int rc = snd_pcm_open(&pcm_, device_.c_str(), SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK);
        if (rc >= 0) {
            rc = snd_pcm_nonblock(pcm_, 0);
            if (rc < 0) {
                snd_pcm_close(pcm_);
            }
        }
        if (rc < 0) {
            pcm_ = nullptr;
            giveUp(rc);
        }
    }

    bool open(const OutputFormat& format) override {
        pacer_.restart();
        if (pcm_ == nullptr) {
            return false;
        }
        int rc = configured_
                     ? snd_pcm_prepare(pcm_)
                     : snd_pcm_set_params(pcm_, format.bits == 8 ? SND_PCM_FORMAT_U8 : SND_PCM_FORMAT_S16_LE,
                                          SND_PCM_ACCESS_RW_INTERLEAVED, format.channels, format.rate, 1,
                                          kLatencyMicros);
        if (rc < 0) {
            snd_pcm_close(pcm_);
            pcm_ = nullptr;
            giveUp(rc);
            return false;
        }
        configured_ = true;
        return true;
    }

    void write(const uint8_t* data, uint32_t frames, const OutputFormat& format) override {
        if (pcm_ != nullptr) {
            const uint32_t frameBytes = format.bytesPerFrame();
            uint32_t done = 0;
            int retries = 0;
            while (done < frames) {
                snd_pcm_sframes_t r = snd_pcm_writei(pcm_, data + done * frameBytes, frames - done);
                if (r < 0) {
                    if (++retries > 3 || snd_pcm_recover(pcm_, static_cast<int>(r), 1) < 0) {
                        break;
                    }
                    continue;
                }
                done += static_cast<uint32_t>(r);
            }
        }
        pacer_.pace(frames, format.rate, pcm_ != nullptr ? 2.0 * kLatencyMicros / 1e6 : 0.0);
    }

    /// Plays out what the device holds; the device stays open for the next start.
    void close() override {
        if (pcm_ != nullptr) {
            snd_pcm_drain(pcm_);
        }
    }

    std::string describe() const override {
        return failed_ ? "null output (ALSA device " + device_ + " unavailable: " + reason_ + ")"
                       : "ALSA device " + device_;
    }

    bool failed() const override { return failed_ && named_; }

  private:
    void giveUp(int rc) {
        failed_ = true;
        reason_ = snd_strerror(rc);
        LxLog::postDebug("LxpSound:  cannot open ALSA device %s (%s); using a null output\n", device_.c_str(),
                         reason_.c_str());
    }

    std::string device_;
    const bool named_;
    snd_pcm_t* pcm_ = nullptr;
    bool configured_ = false;
    bool failed_ = false;
    std::string reason_;
    RealTimePacer pacer_;
};
#endif

}  // namespace

std::unique_ptr<Sink> makeAlsaSink(const std::string& device) {
#if defined(LORVEX_HAVE_ALSA)
    AlsaSink* sink = new AlsaSink(device, !device.empty() && device != "default");
    sink->prepare();
    return std::unique_ptr<Sink>(sink);
#else
    (void)device;
    LxLog::postDebug("LxpSound:  built without ALSA; using a null output\n");
    return makeNullSink();
#endif
}

}  // namespace sound
}  // namespace lxp
