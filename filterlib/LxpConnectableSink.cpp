#include "filterlib/LxpConnectableSink.h"

#include "LxAMPlayer.h"
#include "LxLog.h"
#include "LxResult.h"

#include <cmath>
#include <cstring>
#include <deque>
#include <mutex>
#include <new>
#include <vector>

namespace lxp {

namespace {

// A producer waits for the consumer's empty frames in short steps, so that a flush or a stop gets
// it out quickly. A picture that finds no free frame within one step is dropped: a host that does
// not paint for a while must not hold up the graph (and with it the sound and the clip's end).
const LxTime kEmptyFrameStep(0, 20000);
constexpr int kVideoFrameSteps = 1;

LxTime toLxTime(REFERENCE_TIME units) {
    return LxTime(static_cast<int32_t>(units / UNITS), static_cast<int32_t>(units % UNITS / 10));
}

/// Common to both outputs: the filter it is attached to, the player's gate and epoch, and the
/// flush bookkeeping. Guarded by mutex.
struct SinkState {
    SinkState(ILxpRendererSinkHost* h, LxAMPlayer* p) : host(h), player(p) {
        host->AddRef();
        epoch = player != nullptr ? player->getStreamEpoch() : 0;
    }

    bool gateWait() { return player == nullptr || player->filterGateWait() == LX_OK; }

    /// A flush begins. Called with the lock held. True when the epoch moved (a new stream).
    bool beginFlushLocked() {
        flushing = true;
        ++generation;
        const uint32_t now = player != nullptr ? player->getStreamEpoch() : epoch + 1;
        const bool fresh = now != epoch;
        epoch = now;
        return fresh;
    }

    /// Whether a delivery that began in generation g may go on. Called with the lock held.
    bool currentLocked(uint64_t g) const { return g == generation && !flushing && !detaching; }

    ILxpRendererSinkHost* host;
    LxAMPlayer* player;
    std::mutex mutex;
    uint64_t generation = 0;
    uint32_t epoch = 0;
    bool flushing = false;
    bool detaching = false;
};

// ---------------------------------------------------------------------------------------------

class AudioOutput : public LxAudioOutputConnectable, public LxpRendererSink {
  public:
    AudioOutput(ILxpRendererSinkHost* host, LxAMPlayer* player, const LxpAudioSpec& spec)
        : state_(host, player), spec_(spec) {
        chunkFrames_ = static_cast<int32_t>(std::ceil(kAudioChunkSeconds * spec.samplesPerSecond));
        initFormats(spec.bitsPerSample == 16 ? LxSample16 : LxSample8, spec.channels == 2 ? LxStereo : LxMono,
                    static_cast<float>(spec.samplesPerSecond), static_cast<short>(spec.blockAlign()),
                    LxFormat::PullStream, 0);
    }

    void attach(LxAMPlayer* player) {
        initConnectable(player);
        state_.host->SetSink(this);
    }

    /// Detaches from the filter before anything goes: once SetSink returns, no delivery runs here.
    /// Frames still held are deleted, as the base does with its queue: the consumer they came
    /// from may be gone already.
    ~AudioOutput() override {
        {
            std::lock_guard<std::mutex> guard(state_.mutex);
            state_.detaching = true;
        }
        state_.host->SetSink(nullptr);
        state_.host->Release();
        delete partial_;
        for (Entry& e : queue_) {
            delete e.frame;
        }
    }

    /// The oldest queued frame, without waiting (the consumer pulls at its own pace).
    LxFrame* getFrameForTime(LxTime, LxTime) override {
        std::lock_guard<std::mutex> guard(state_.mutex);
        if (queue_.empty()) {
            return nullptr;
        }
        LxAudioFrame* f = queue_.front().frame;
        queue_.pop_front();
        return f;
    }

    /// Gives the consumer back the frames queued before the graph's latest flush: they belong to
    /// the position the graph left. Frames of the new position stay (they may have arrived before
    /// the player got round to this flush).
    void flush() override {
        std::lock_guard<std::mutex> guard(state_.mutex);
        LxInputConnectable* input = connectedTo();
        for (auto it = queue_.begin(); it != queue_.end();) {
            if (it->generation != state_.generation && input != nullptr) {
                input->putEmptyFrame(it->frame);
                it = queue_.erase(it);
            } else {
                ++it;
            }
        }
    }

    bool gateWait() override { return state_.gateWait(); }

    void audioBuffer(const LxpAudioSpec& spec, const LxpAudioBuffer& buffer) override {
        LxInputConnectable* input = connectedTo();
        const int32_t block = spec_.blockAlign();
        if (input == nullptr || block <= 0) {
            return;
        }
        if (spec.bitsPerSample != spec_.bitsPerSample || spec.channels != spec_.channels ||
            spec.samplesPerSecond != spec_.samplesPerSecond) {
            LxLog::postDebug(
                "LxpAudioOutput: dropping %d bytes of another format (%d bits, %d channels, %d Hz)\n",
                static_cast<int>(buffer.bytes), static_cast<int>(spec.bitsPerSample),
                static_cast<int>(spec.channels), static_cast<int>(spec.samplesPerSecond));
            return;
        }
        const uint8_t* data = buffer.data;
        int64_t frames = static_cast<int64_t>(buffer.bytes / static_cast<size_t>(block));
        const double rate = spec_.samplesPerSecond;
        int64_t first = 0;  // index in this buffer of the next sample frame to copy
        uint64_t generation;
        {
            std::lock_guard<std::mutex> guard(state_.mutex);
            if (!state_.currentLocked(state_.generation)) {
                return;
            }
            generation = state_.generation;
            if (buffer.start >= 0 && deliveredEnd_ > buffer.start) {
                // A repeat of what the consumer holds (the graph re-sent it after a rate change).
                first = static_cast<int64_t>(std::llround((deliveredEnd_ - buffer.start) * rate / UNITS));
                if (first >= frames) {
                    return;
                }
            }
        }
        auto timeOf = [&](int64_t index) -> REFERENCE_TIME {
            return buffer.start < 0
                       ? -1
                       : buffer.start + static_cast<REFERENCE_TIME>(std::llround(index * UNITS / rate));
        };
        while (first < frames) {
            bool need;
            {
                std::lock_guard<std::mutex> guard(state_.mutex);
                if (!state_.currentLocked(generation)) {
                    return;
                }
                need = partial_ == nullptr;
            }
            if (need) {
                LxAudioFrame* frame = takeEmptyFrame(input, generation);
                if (frame == nullptr) {
                    return;  // flushed, stopped or detached meanwhile
                }
                std::lock_guard<std::mutex> guard(state_.mutex);
                if (!state_.currentLocked(generation)) {
                    input->putEmptyFrame(frame);
                    return;
                }
                frame->filled = 0;
                frame->consumed = 0;
                const REFERENCE_TIME t = timeOf(first);
                frame->timeStamp = t >= 0 ? toLxTime(t) : LxTime();
                partial_ = frame;
            }
            std::lock_guard<std::mutex> guard(state_.mutex);
            if (!state_.currentLocked(generation) || partial_ == nullptr) {
                return;
            }
            const int64_t room = static_cast<int64_t>(partial_->fillable) - partial_->filled;
            const int64_t n = std::min(room, frames - first);
            std::memcpy(partial_->data + static_cast<size_t>(partial_->filled) * static_cast<size_t>(block),
                        data + static_cast<size_t>(first) * static_cast<size_t>(block),
                        static_cast<size_t>(n) * static_cast<size_t>(block));
            partial_->filled += static_cast<int32_t>(n);
            first += n;
            if (buffer.start >= 0) {
                deliveredEnd_ = timeOf(first);
            }
            if (partial_->filled >= partial_->fillable || partial_->filled >= chunkFrames_) {
                queue_.push_back({partial_, generation});
                partial_ = nullptr;
            }
        }
    }

    void videoFrame(const LxpVideoSpec&, const LxpVideoPicture&) override {}

    void endOfStream() override {
        LxInputConnectable* input = connectedTo();
        {
            std::lock_guard<std::mutex> guard(state_.mutex);
            if (partial_ != nullptr) {
                if (partial_->filled > 0) {
                    queue_.push_back({partial_, state_.generation});
                } else if (input != nullptr) {
                    input->putEmptyFrame(partial_);
                } else {
                    delete partial_;
                }
                partial_ = nullptr;
            }
        }
        if (input != nullptr) {
            input->notifyEndOfMedia();
        }
    }

    void beginFlush() override {
        std::lock_guard<std::mutex> guard(state_.mutex);
        if (state_.beginFlushLocked()) {
            deliveredEnd_ = -1;
        }
        if (partial_ != nullptr) {
            LxInputConnectable* input = connectedTo();
            if (input != nullptr) {
                input->putEmptyFrame(partial_);
            } else {
                delete partial_;
            }
            partial_ = nullptr;
        }
    }

    void endFlush() override {
        std::lock_guard<std::mutex> guard(state_.mutex);
        state_.flushing = false;
    }

  private:
    struct Entry {
        LxAudioFrame* frame;
        uint64_t generation;  // the flush generation it was filled in
    };

    /// An empty frame from the consumer, or null once generation is over.
    LxAudioFrame* takeEmptyFrame(LxInputConnectable* input, uint64_t generation) {
        for (;;) {
            LxFrame* got = input->getEmptyFrame(kEmptyFrameStep);
            if (got != nullptr) {
                LxAudioFrame* frame = dynamic_cast<LxAudioFrame*>(got);
                if (frame == nullptr || frame->data == nullptr || frame->fillable <= 0) {
                    input->putEmptyFrame(got);
                    return nullptr;
                }
                return frame;
            }
            std::lock_guard<std::mutex> guard(state_.mutex);
            if (!state_.currentLocked(generation)) {
                return nullptr;
            }
        }
    }

    SinkState state_;
    const LxpAudioSpec spec_;
    int32_t chunkFrames_;
    /// The frame being filled (the consumer's), and the frames waiting to be pulled.
    LxAudioFrame* partial_ = nullptr;
    std::deque<Entry> queue_;
    /// Media time just after the last sample handed over in this stream (-1: none or unknown).
    REFERENCE_TIME deliveredEnd_ = -1;
};

// ---------------------------------------------------------------------------------------------

class VideoOutput : public LxVideoOutputConnectable, public LxpRendererSink {
  public:
    VideoOutput(ILxpRendererSinkHost* host, LxAMPlayer* player, const LxpVideoSpec& spec)
        : state_(host, player), spec_(spec) {}

    bool init() {
        return spec_.width > 0 && spec_.height > 0 && spec_.width <= 32767 && spec_.height <= 32767 &&
               initFormats(static_cast<short>(spec_.width), static_cast<short>(spec_.height),
                           spec_.pixelFormat, LxFormat::PushStream) == LX_OK;
    }

    void attach(LxAMPlayer* player) {
        initConnectable(player);
        state_.host->SetSink(this);
    }

    ~VideoOutput() override {
        {
            std::lock_guard<std::mutex> guard(state_.mutex);
            state_.detaching = true;
        }
        state_.host->SetSink(nullptr);
        state_.host->Release();
    }

    /// In push style the pictures wait in the consumer: its queue is emptied, and the first
    /// picture of the graph's current position (the cue) goes in again, since it may have
    /// arrived before the player got round to this flush and nothing follows it while paused.
    void flush() override {
        std::lock_guard<std::mutex> guard(state_.mutex);
        LxInputConnectable* input = connectedTo();
        if (input == nullptr) {
            return;
        }
        input->flush();
        if (cueGeneration_ != state_.generation || cuePixels_.empty()) {
            return;
        }
        LxVideoFrame* frame = dynamic_cast<LxVideoFrame*>(input->getEmptyFrame(LxTime::zero()));
        if (frame == nullptr || !fits(frame)) {
            if (frame != nullptr) {
                input->putEmptyFrame(frame);
            }
            return;
        }
        std::memcpy(frame->getPixelData(), cuePixels_.data(), cuePixels_.size());
        stamp(frame, cueStart_, cueEnd_);
        queueFrame(frame);
    }

    bool gateWait() override { return state_.gateWait(); }

    void audioBuffer(const LxpAudioSpec&, const LxpAudioBuffer&) override {}

    void videoFrame(const LxpVideoSpec& spec, const LxpVideoPicture& picture) override {
        LxInputConnectable* input = connectedTo();
        if (input == nullptr) {
            return;
        }
        if (spec.width != spec_.width || spec.height != spec_.height ||
            spec.pixelFormat != spec_.pixelFormat) {
            LxLog::postDebug("LxpVideoOutput: dropping a %dx%d picture (the connection carries %dx%d)\n",
                             static_cast<int>(spec.width), static_cast<int>(spec.height),
                             static_cast<int>(spec_.width), static_cast<int>(spec_.height));
            return;
        }
        uint64_t generation;
        {
            std::lock_guard<std::mutex> guard(state_.mutex);
            if (!state_.currentLocked(state_.generation)) {
                return;
            }
            generation = state_.generation;
            if (picture.start >= 0 && lastStart_ >= 0 && picture.start <= lastStart_) {
                return;  // the consumer has this one, or a later one (a repeat after a rate change)
            }
        }
        LxVideoFrame* frame = nullptr;
        for (int step = 0; step < kVideoFrameSteps && frame == nullptr; ++step) {
            LxFrame* got = input->getEmptyFrame(kEmptyFrameStep);
            frame = dynamic_cast<LxVideoFrame*>(got);
            if (got != nullptr && (frame == nullptr || !fits(frame))) {
                input->putEmptyFrame(got);
                LxLog::postDebug("LxpVideoOutput: the consumer's frame does not fit the picture\n");
                return;
            }
            std::lock_guard<std::mutex> guard(state_.mutex);
            if (!state_.currentLocked(generation)) {
                if (frame != nullptr) {
                    input->putEmptyFrame(frame);
                }
                return;
            }
        }
        if (frame == nullptr) {
            LxLog::postDebug("LxpVideoOutput: no free frame, picture for %8.3f dropped\n",
                             picture.start >= 0 ? picture.start / double(UNITS) : -1.0);
            return;
        }
        // Rows arrive padded to four bytes; a frame holds them back to back.
        const size_t row = static_cast<size_t>(spec_.width) * static_cast<size_t>(spec_.bytesPerPixel);
        uint8_t* target = frame->getPixelData();
        for (int32_t y = 0; y < spec_.height; ++y) {
            std::memcpy(target + static_cast<size_t>(y) * row,
                        picture.data + static_cast<size_t>(y) * static_cast<size_t>(spec_.stride), row);
        }
        stamp(frame, picture.start, picture.end);
        std::lock_guard<std::mutex> guard(state_.mutex);
        if (!state_.currentLocked(generation)) {
            input->putEmptyFrame(frame);
            return;
        }
        if (cueGeneration_ != generation) {
            // Keeps capacity from the previous cue, so that only the first cue allocates.
            cuePixels_.assign(target, target + row * static_cast<size_t>(spec_.height));
            cueStart_ = picture.start;
            cueEnd_ = picture.end;
            cueGeneration_ = generation;
        }
        if (picture.start >= 0) {
            lastStart_ = picture.start;
        }
        queueFrame(frame);
    }

    void endOfStream() override {
        LxInputConnectable* input = connectedTo();
        if (input != nullptr) {
            input->notifyEndOfMedia();
        }
    }

    void beginFlush() override {
        std::lock_guard<std::mutex> guard(state_.mutex);
        if (state_.beginFlushLocked()) {
            lastStart_ = -1;
        }
    }

    void endFlush() override {
        std::lock_guard<std::mutex> guard(state_.mutex);
        state_.flushing = false;
    }

  private:
    bool fits(LxVideoFrame* frame) {
        return frame->getPixelData() != nullptr && frame->getWidth() == spec_.width &&
               frame->getHeight() == spec_.height && frame->getPixelFormat() == spec_.pixelFormat;
    }

    static void stamp(LxVideoFrame* frame, REFERENCE_TIME start, REFERENCE_TIME end) {
        frame->setPresentationTime(start >= 0 ? toLxTime(start) : LxTime());
        frame->setMediaStartTime(start >= 0 ? toLxTime(start) : LxTime());
        frame->setMediaEndTime(end >= 0 ? toLxTime(end) : LxTime());
        frame->setMediaTimeIsValid(start >= 0 ? 1 : 0);
    }

    SinkState state_;
    const LxpVideoSpec spec_;
    /// Start of the latest picture handed over in this stream (-1: none or unknown).
    REFERENCE_TIME lastStart_ = -1;
    /// The first picture of the current flush generation, packed.
    std::vector<uint8_t> cuePixels_;
    REFERENCE_TIME cueStart_ = -1;
    REFERENCE_TIME cueEnd_ = -1;
    uint64_t cueGeneration_ = ~uint64_t(0);
};

}  // namespace

LxOutputConnectable* createAudioOutput(ILxpRendererSinkHost* host, LxAMPlayer* player,
                                       const LxpAudioSpec& spec) {
    if (host == nullptr || (spec.bitsPerSample != 8 && spec.bitsPerSample != 16) ||
        (spec.channels != 1 && spec.channels != 2) || spec.samplesPerSecond <= 0) {
        return nullptr;
    }
    AudioOutput* output = new (std::nothrow) AudioOutput(host, player, spec);
    if (output != nullptr) {
        output->attach(player);
    }
    return output;
}

LxOutputConnectable* createVideoOutput(ILxpRendererSinkHost* host, LxAMPlayer* player,
                                       const LxpVideoSpec& spec) {
    if (host == nullptr) {
        return nullptr;
    }
    VideoOutput* output = new (std::nothrow) VideoOutput(host, player, spec);
    if (output == nullptr) {
        return nullptr;
    }
    if (!output->init()) {
        delete output;
        return nullptr;
    }
    output->attach(player);
    return output;
}

}  // namespace lxp
