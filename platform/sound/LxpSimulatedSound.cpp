#include "platform/sound/LxpSimulatedSound.h"

#include "platform/LxpDuplex.h"
#include "platform/clock/LxpClock.h"

#include <algorithm>
#include <cmath>
#include <mutex>

namespace lxp {
namespace simsound {

namespace {

/// Keeps what the engine rendered.
class ManualSink : public sound::Sink {
  public:
    explicit ManualSink(bool capture) : capture_(capture) {}
    bool open(const OutputFormat&) override { return true; }
    void write(const uint8_t* data, uint32_t frames, const OutputFormat& format) override {
        if (!capture_) {
            return;
        }
        std::lock_guard<std::mutex> guard(mutex_);
        if (segments_.empty() || segments_.back().format != format) {
            segments_.push_back(Segment{format, {}});
        }
        std::vector<uint8_t>& b = segments_.back().bytes;
        b.insert(b.end(), data, data + static_cast<size_t>(frames) * format.bytesPerFrame());
    }
    void close() override {}
    std::string describe() const override { return "simulated output"; }

    std::vector<float> channel(int c) {
        std::lock_guard<std::mutex> guard(mutex_);
        std::vector<float> out;
        for (const Segment& s : segments_) {
            const uint32_t bpf = s.format.bytesPerFrame();
            const uint32_t ch = std::min<uint32_t>(static_cast<uint32_t>(c), s.format.channels - 1u);
            for (size_t off = 0; off + bpf <= s.bytes.size(); off += bpf) {
                if (s.format.bits == 8) {
                    out.push_back((static_cast<float>(s.bytes[off + ch]) - 128.0f) / 128.0f);
                } else {
                    const uint8_t* p = &s.bytes[off + 2 * ch];
                    out.push_back(static_cast<float>(static_cast<int16_t>(p[0] | (p[1] << 8))) / 32768.0f);
                }
            }
        }
        return out;
    }
    std::vector<uint8_t> bytes() {
        std::lock_guard<std::mutex> guard(mutex_);
        std::vector<uint8_t> out;
        for (const Segment& s : segments_) {
            out.insert(out.end(), s.bytes.begin(), s.bytes.end());
        }
        return out;
    }
    void clear() {
        std::lock_guard<std::mutex> guard(mutex_);
        segments_.clear();
    }

  private:
    struct Segment {
        OutputFormat format;
        std::vector<uint8_t> bytes;
    };
    const bool capture_;
    std::mutex mutex_;
    std::vector<Segment> segments_;
};

struct Failure {
    int count = 0;
    HRESULT hr = E_FAIL;
};

class SimBackend : public sound::Backend {
  public:
    explicit SimBackend(const Config& config) : config_(config) {
        std::unique_ptr<ManualSink> sink(new ManualSink(config.captureOutput));
        sink_ = sink.get();
        engine_ =
            std::make_shared<sound::Engine>(std::move(sink), config.fixedFormat, config.followPrimary, false);
    }

    std::shared_ptr<sound::Engine> engine() override { return engine_; }

    HRESULT intercept(Op op, uint32_t object) override {
        std::lock_guard<std::mutex> guard(mutex_);
        calls_.push_back(std::string(sound::opName(op)) + "#" + std::to_string(object));
        Failure& f = failures_[static_cast<size_t>(op)];
        if (f.count != 0) {
            if (f.count > 0) {
                --f.count;
            }
            return f.hr;
        }
        return S_OK;
    }

    void sync() override {
        if (!config_.syncToClock) {
            return;
        }
        const int64_t micros = clockMicros();
        std::lock_guard<std::mutex> guard(renderMutex_);
        if (!clockOriginSet_) {
            clockOriginSet_ = true;
            clockOrigin_ = micros - renderedMicrosLocked();
            // From here the output runs in step with the clock: timed starts land on their frame.
            engine_->anchorAt(engine_->framesRendered(), micros);
        }
        renderUntilLocked(micros - clockOrigin_);
    }

    bool openDevice() override { return duplex::tryOpen(duplex::SampledAudio); }
    void closeDevice() override { duplex::close(duplex::SampledAudio); }
    std::vector<std::string> deviceDescriptions() override { return config_.devices; }
    sound::DeviceCaps caps() override {
        sound::DeviceCaps c;
        c.flags = config_.capsFlags;
        c.minSecondaryRate = config_.minSecondaryRate;
        c.maxSecondaryRate = config_.maxSecondaryRate;
        return c;
    }
    bool tapConsumed() override { return config_.recordConsumed; }
    bool libraryPresent() override { return config_.libraryPresent; }

    void fail(Op op, int count, HRESULT hr) {
        std::lock_guard<std::mutex> guard(mutex_);
        failures_[static_cast<size_t>(op)] = Failure{count, hr};
    }
    void clearFailures() {
        std::lock_guard<std::mutex> guard(mutex_);
        for (Failure& f : failures_) {
            f = Failure{};
        }
    }
    std::vector<std::string> calls() {
        std::lock_guard<std::mutex> guard(mutex_);
        return calls_;
    }
    void clearCalls() {
        std::lock_guard<std::mutex> guard(mutex_);
        calls_.clear();
    }

    void advanceFrames(uint32_t frames) {
        std::lock_guard<std::mutex> guard(renderMutex_);
        const uint32_t rate = engine_->outputFormat().rate;
        startEpochIfNeeded(rate);
        engine_->renderFrames(frames);
        epochFrames_ += frames;
    }
    void advanceMs(uint32_t ms) {
        std::lock_guard<std::mutex> guard(renderMutex_);
        renderUntilLocked(renderedMicrosLocked() + static_cast<int64_t>(ms) * 1000);
    }
    double renderedMs() {
        std::lock_guard<std::mutex> guard(renderMutex_);
        return renderedMicrosLocked() / 1000.0;
    }

    ManualSink& sink() { return *sink_; }
    const Config& config() const { return config_; }

  private:
    void startEpochIfNeeded(uint32_t rate) {
        if (rate != epochRate_) {
            epochStartMicros_ = renderedMicrosLocked();
            epochFrames_ = 0;
            epochRate_ = rate;
        }
    }
    int64_t renderedMicrosLocked() const {
        return epochRate_ == 0
                   ? epochStartMicros_
                   : epochStartMicros_ +
                         static_cast<int64_t>(static_cast<long double>(epochFrames_) * 1e6L / epochRate_);
    }
    /// Renders in ~10 ms blocks up to micros of output time; a format change between blocks
    /// starts a new stretch at the new rate.
    void renderUntilLocked(int64_t micros) {
        for (;;) {
            const uint32_t rate = engine_->outputFormat().rate;
            if (rate == 0) {
                return;
            }
            startEpochIfNeeded(rate);
            const int64_t span = micros - epochStartMicros_;
            if (span <= 0) {
                return;
            }
            const uint64_t target = static_cast<uint64_t>(static_cast<long double>(span) * rate / 1e6L);
            if (target <= epochFrames_) {
                return;
            }
            const uint32_t n =
                static_cast<uint32_t>(std::min<uint64_t>(target - epochFrames_, engine_->periodFrames()));
            engine_->renderFrames(n);
            epochFrames_ += n;
        }
    }

    const Config config_;
    std::shared_ptr<sound::Engine> engine_;
    ManualSink* sink_;
    std::mutex mutex_;
    std::vector<std::string> calls_;
    Failure failures_[static_cast<size_t>(Op::Count) + 1];

    std::mutex renderMutex_;
    int64_t epochStartMicros_ = 0;
    uint64_t epochFrames_ = 0;
    uint32_t epochRate_ = 0;
    bool clockOriginSet_ = false;
    int64_t clockOrigin_ = 0;
};

std::mutex gMutex;
std::shared_ptr<SimBackend>& currentSim() {
    static std::shared_ptr<SimBackend>* s = new std::shared_ptr<SimBackend>();
    return *s;
}

std::shared_ptr<SimBackend> sim() {
    std::lock_guard<std::mutex> guard(gMutex);
    if (!currentSim()) {
        currentSim() = std::make_shared<SimBackend>(Config());
    }
    return currentSim();
}

}  // namespace

void use(const Config& config) {
    std::shared_ptr<SimBackend> backend = std::make_shared<SimBackend>(config);
    {
        std::lock_guard<std::mutex> guard(gMutex);
        currentSim() = backend;
    }
    sound::setCurrentBackend(backend);
    sound::registerDeviceClass();
}

void failNext(Op op, int count, HRESULT hr) {
    sim()->fail(op, count, hr);
}
void clearFailures() {
    sim()->clearFailures();
}
std::vector<std::string> calls() {
    return sim()->calls();
}
void clearCalls() {
    sim()->clearCalls();
}
void advanceFrames(uint32_t frames) {
    sim()->advanceFrames(frames);
}
void advanceMs(uint32_t ms) {
    sim()->advanceMs(ms);
}
double renderedMs() {
    return sim()->renderedMs();
}
void catchUp() {
    sim()->sync();
}
OutputFormat outputFormat() {
    return sim()->engine()->outputFormat();
}
std::vector<float> outputChannel(int channel) {
    return sim()->sink().channel(channel);
}
std::vector<uint8_t> outputBytes() {
    return sim()->sink().bytes();
}
void clearOutput() {
    sim()->sink().clear();
}
bool describe(IDirectSoundBuffer* buffer, BufferInfo* info) {
    return sound::describeBuffer(buffer, info);
}
std::vector<uint8_t> consumed(IDirectSoundBuffer* buffer) {
    return sound::consumedBytes(buffer);
}
void clearConsumed(IDirectSoundBuffer* buffer) {
    sound::clearConsumedBytes(buffer);
}
int liveBuffers() {
    return sound::liveBuffers(sim().get());
}
std::vector<DeviceInfo> devices() {
    return sound::liveDevices(sim().get());
}
int loadedLibraries() {
    return sound::loadedLibraries();
}
void loseBuffers() {
    sound::loseBuffers(sim().get());
}
sound::Engine& engine() {
    return *sim()->engine();
}

}  // namespace simsound
}  // namespace lxp
