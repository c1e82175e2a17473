#include "platform/midi/LxpMidiFluid.h"

#include "LxLog.h"
#include "LxPlatformMidi.h"
#include "LxPlatformSound.h"
#include "platform/midi/LxpMidiBackend.h"
#include "platform/sound/LxpSound.h"

#if defined(LORVEX_HAVE_FLUIDSYNTH)

#include <fluidsynth.h>

#include <sys/stat.h>
#include <algorithm>
#include <atomic>
#include <cmath>
#include <mutex>
#include <string>

namespace lxp {
namespace midifluid {

namespace {

void logFromFluid(int level, const char* message, void*) {
    if (level <= FLUID_WARN) {
        LxLog::postDebug("LxpMidiFluid:  %s\n", message);
    }
}

// The synthesizer is made once per process (loading a SoundFont takes a while) and used by one
// stream at a time, as a single hardware synthesizer would be.
struct Synth {
    std::mutex mutex;
    fluid_settings_t* settings = nullptr;
    fluid_synth_t* synth = nullptr;
    std::string soundFont;
    bool inUse = false;
    // The rate the synthesizer renders at now. Written by the mixing thread of the one stream
    // that uses the synthesizer; it outlives that stream, since the next one inherits the tuning.
    std::atomic<uint32_t> rate{LxPlatformSound::DEFAULT_SAMPLE_RATE};

    void destroy() {
        if (synth != nullptr) {
            delete_fluid_synth(synth);
        }
        if (settings != nullptr) {
            delete_fluid_settings(settings);
        }
        synth = nullptr;
        settings = nullptr;
        soundFont.clear();
    }

    // With mutex held. True when a synthesizer with the chosen SoundFont is ready.
    bool prepare_Locked() {
        const std::string font = LxPlatformGetMidiSoundFont();
        if (synth != nullptr && font == soundFont) {
            fluid_synth_system_reset(synth);
            return true;
        }
        destroy();
        struct stat st;
        if (::stat(font.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
            LxLog::postDebug("LxpMidiFluid:  no SoundFont at %s\n", font.c_str());
            return false;
        }
        static std::once_flag logOnce;
        std::call_once(logOnce, [] {
            for (int level = FLUID_PANIC; level <= FLUID_DBG; ++level) {
                fluid_set_log_function(level, logFromFluid, nullptr);
            }
        });
        settings = new_fluid_settings();
        if (settings == nullptr) {
            return false;
        }
        fluid_settings_setnum(settings, "synth.sample-rate",
                              static_cast<double>(LxPlatformSound::DEFAULT_SAMPLE_RATE));
        // Only the mixing thread calls the synthesizer once it plays (events reach it through
        // queues), so FluidSynth's own API lock is not needed and the render path takes no lock.
        fluid_settings_setint(settings, "synth.threadsafe-api", 0);
        synth = new_fluid_synth(settings);
        if (synth == nullptr || fluid_synth_sfload(synth, font.c_str(), 1) == FLUID_FAILED) {
            LxLog::postDebug("LxpMidiFluid:  cannot load SoundFont %s\n", font.c_str());
            destroy();
            return false;
        }
        soundFont = font;
        rate.store(LxPlatformSound::DEFAULT_SAMPLE_RATE);
        return true;
    }
};

Synth& synthHolder() {
    static Synth* s = new Synth();  // kept for the life of the process
    return *s;
}

/// A queue from control threads to the mixing thread: producers serialise on a mutex, the single
/// consumer (mixing thread) takes items without locking.
template <unsigned Capacity>
class EventQueue {
  public:
    struct Item {
        int64_t dueMicros;
        uint32_t message;
        uint32_t generation;
    };

    /// False when full (the item is dropped).
    bool push(const Item& item) {
        std::lock_guard<std::mutex> guard(producer_);
        const unsigned tail = tail_.load(std::memory_order_relaxed);
        if (tail - head_.load(std::memory_order_acquire) >= Capacity) {
            return false;
        }
        items_[tail % Capacity] = item;
        tail_.store(tail + 1, std::memory_order_release);
        return true;
    }

    const Item* peek() const {
        const unsigned head = head_.load(std::memory_order_relaxed);
        if (head == tail_.load(std::memory_order_acquire)) {
            return nullptr;
        }
        return &items_[head % Capacity];
    }

    void pop() { head_.store(head_.load(std::memory_order_relaxed) + 1, std::memory_order_release); }

    std::mutex& producerMutex() { return producer_; }

  private:
    std::mutex producer_;
    Item items_[Capacity];
    std::atomic<unsigned> head_{0};
    std::atomic<unsigned> tail_{0};
};

class FluidOutput : public midi::StreamOutput, public MixSource {
  public:
    explicit FluidOutput(fluid_synth_t* synth) : synth_(synth) {}

    // Device time is the time the mix has rendered: a message counts as played once the block
    // that holds it has been rendered.
    int64_t nowMicros() override { return renderedMicros_.load(std::memory_order_acquire); }
    bool virtualTime() override { return false; }
    int64_t pollMicros() override { return 2000; }
    // Messages are handed over this long before they are due, so that the mixing thread can
    // place each at its sample within a block however late the device thread wakes.
    int64_t lookaheadMicros() override { return 40000; }

    void play(uint32_t message, int64_t dueMicros) override {
        timed_.push({dueMicros, message, generation_.load(std::memory_order_relaxed)});
    }

    MMRESULT sendNow(uint32_t message) override {
        return immediate_.push({0, message, 0}) ? MMSYSERR_NOERROR : MMSYSERR_NOMEM;
    }

    void silence() override {
        // Everything queued under the old generation is dropped by the mixing thread, which then
        // releases every note.
        std::lock_guard<std::mutex> guard(timed_.producerMutex());
        generation_.fetch_add(1, std::memory_order_release);
    }

    // Voices still playing (a note's release counts) or the last rendered block still audible
    // (the reverb of notes that have ended). Both are published by the mixing thread, so a
    // silent output that is not running keeps the last answer.
    bool sounding() override { return audible_.load(std::memory_order_acquire); }

    void close() override {
        removeMixSource(this);
        Synth& s = synthHolder();
        std::lock_guard<std::mutex> guard(s.mutex);
        fluid_synth_all_sounds_off(synth_, -1);
        s.inUse = false;
    }

    // Mixing thread: no lock, no allocation.
    void mixInto(float* out, uint32_t frames, uint32_t channels, uint32_t sampleRate) override {
        if (sampleRate == 0 || channels == 0) {
            return;
        }
        if (sampleRate != synthRate_.load(std::memory_order_relaxed)) {
            // The output runs at another rate than the synthesizer was made for: retune once.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
            fluid_synth_set_sample_rate(synth_, static_cast<float>(sampleRate));
#pragma GCC diagnostic pop
            synthRate_.store(sampleRate, std::memory_order_relaxed);
        }
        const uint32_t generation = generation_.load(std::memory_order_acquire);
        if (generation != seenGeneration_) {
            fluid_synth_all_notes_off(synth_, -1);
            seenGeneration_ = generation;
        }
        while (const auto* item = immediate_.peek()) {
            apply(item->message);
            immediate_.pop();
        }
        const int64_t blockStart = renderedMicros_.load(std::memory_order_relaxed);
        peak_ = 0.0f;
        uint32_t done = 0;
        while (done < frames) {
            uint32_t until = frames;
            const auto* item = timed_.peek();
            if (item != nullptr && item->generation != generation &&
                item->generation - generation > 0x80000000u) {
                timed_.pop();  // queued before a stop or reset
                continue;
            }
            if (item != nullptr && item->generation == generation) {
                const int64_t offset =
                    item->dueMicros <= blockStart
                        ? 0
                        : (item->dueMicros - blockStart) * static_cast<int64_t>(sampleRate) / 1000000;
                if (offset < frames) {
                    until = std::max(done, static_cast<uint32_t>(offset));
                }
            }
            render(out, done, until, channels);
            done = until;
            if (item != nullptr && done < frames) {
                apply(item->message);
                timed_.pop();
            }
        }
        audible_.store(fluid_synth_get_active_voice_count(synth_) > 0 || peak_ > kAudiblePeak,
                       std::memory_order_release);
        // Whole microseconds rendered, carrying the remainder so that time does not drift.
        const uint64_t num = remainder_ + static_cast<uint64_t>(frames) * 1000000u;
        remainder_ = num % sampleRate;
        renderedMicros_.store(blockStart + static_cast<int64_t>(num / sampleRate), std::memory_order_release);
    }

  private:
    void render(float* out, uint32_t from, uint32_t to, uint32_t channels) {
        while (from < to) {
            const uint32_t n = std::min<uint32_t>(to - from, kScratchFrames);
            fluid_synth_write_float(synth_, static_cast<int>(n), scratch_, 0, 2, scratch_, 1, 2);
            float* dst = out + static_cast<size_t>(from) * channels;
            for (uint32_t i = 0; i < n; ++i) {
                const float l = scratch_[2 * i];
                const float r = scratch_[2 * i + 1];
                peak_ = std::max(peak_, std::max(std::fabs(l), std::fabs(r)));
                if (channels == 1) {
                    dst[i] += 0.5f * (l + r);
                } else {
                    dst[i * channels] += l;
                    dst[i * channels + 1] += r;
                }
            }
            from += n;
        }
    }

    void apply(uint32_t message) {
        const int status = static_cast<int>(message & 0xFF);
        const int channel = status & 0x0F;
        const int d1 = static_cast<int>((message >> 8) & 0x7F);
        const int d2 = static_cast<int>((message >> 16) & 0x7F);
        switch (status & 0xF0) {
            case 0x80:
                fluid_synth_noteoff(synth_, channel, d1);
                break;
            case 0x90:
                if (d2 == 0) {
                    fluid_synth_noteoff(synth_, channel, d1);
                } else {
                    fluid_synth_noteon(synth_, channel, d1, d2);
                }
                break;
            case 0xA0:
                fluid_synth_key_pressure(synth_, channel, d1, d2);
                break;
            case 0xB0:
                fluid_synth_cc(synth_, channel, d1, d2);
                break;
            case 0xC0:
                fluid_synth_program_change(synth_, channel, d1);
                break;
            case 0xD0:
                fluid_synth_channel_pressure(synth_, channel, d1);
                break;
            case 0xE0:
                fluid_synth_pitch_bend(synth_, channel, d1 | (d2 << 7));
                break;
            default:
                break;  // system messages have no meaning for the synthesizer
        }
    }

    static constexpr uint32_t kScratchFrames = 512;
    // About -80 dB: below the last bit of a 16-bit output.
    static constexpr float kAudiblePeak = 1e-4f;

    fluid_synth_t* const synth_;
    EventQueue<4096> timed_;
    EventQueue<1024> immediate_;
    std::atomic<uint32_t> generation_{0};
    std::atomic<int64_t> renderedMicros_{0};
    std::atomic<bool> audible_{false};
    // Mixing thread only.
    float peak_ = 0.0f;
    uint32_t seenGeneration_ = 0;
    std::atomic<uint32_t>& synthRate_ = synthHolder().rate;
    uint64_t remainder_ = 0;
    float scratch_[2 * kScratchFrames];
};

class FluidBackend : public midi::Backend {
  public:
    MMRESULT open(std::unique_ptr<midi::StreamOutput>* output) override {
        Synth& s = synthHolder();
        std::lock_guard<std::mutex> guard(s.mutex);
        if (s.inUse) {
            return MMSYSERR_ALLOCATED;
        }
        if (!s.prepare_Locked()) {
            return MIDIERR_NODEVICE;
        }
        std::unique_ptr<FluidOutput> out(new FluidOutput(s.synth));
        if (!addMixSource(out.get())) {
            return MIDIERR_NODEVICE;
        }
        s.inUse = true;
        output->reset(out.release());
        return MMSYSERR_NOERROR;
    }
};

}  // namespace

midi::Backend& backend() {
    static FluidBackend* b = new FluidBackend();
    return *b;
}

}  // namespace midifluid
}  // namespace lxp

#else  // built without FluidSynth

namespace lxp {
namespace midifluid {

namespace {
class NoSynthBackend : public midi::Backend {
  public:
    MMRESULT open(std::unique_ptr<midi::StreamOutput>*) override {
        LxLog::postDebug("LxpMidiFluid:  built without FluidSynth\n");
        return MIDIERR_NODEVICE;
    }
};
}  // namespace

midi::Backend& backend() {
    static NoSynthBackend* b = new NoSynthBackend();
    return *b;
}

}  // namespace midifluid
}  // namespace lxp

#endif
