// The software mixing engine behind the sound-device layer (internal to platform/sound).
//
// One engine serves one output. It keeps every secondary buffer as a voice in fixed chunks of
// slots that never move, mixes the playing voices in float into ~10 ms blocks at the output rate
// (linear-interpolation resampling from each voice's frequency, DirectSound volume and pan laws, 3D
// direction panning and distance rolloff), adds the mix sources, converts to the output's sample
// format and hands the block to a sink.
//
// Threads: control threads (the DirectSound objects) create, change and release voices; one
// mixing thread renders. The mixing thread takes no lock that a control thread holds for longer
// than a bounded copy: it reads control values from atomics, takes a buffer's commit lock only while
// it reads that buffer's samples (control threads hold it only while converting at most
// kCommitChunkFrames frames at Unlock), and never allocates or frees. Released voices are retired by
// the mixing thread and reclaimed later by control threads.
#ifndef LORVEX_PLATFORM_SOUND_ENGINE_H
#define LORVEX_PLATFORM_SOUND_ENGINE_H

#include "platform/sound/LxpSound.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace lxp {
namespace sound {

/// The sample format of an output.
struct OutputFormat {
    uint32_t rate = 44100;
    uint16_t channels = 2;
    uint16_t bits = 16;
    bool operator==(const OutputFormat& o) const {
        return rate == o.rate && channels == o.channels && bits == o.bits;
    }
    bool operator!=(const OutputFormat& o) const { return !(*this == o); }
    uint32_t bytesPerFrame() const { return channels * (bits / 8u); }
};

/// Where mixed blocks go.
class Sink {
  public:
    virtual ~Sink() {}
    /// Prepares for output in format; false when the output cannot be opened. Control thread,
    /// before the mixing thread starts.
    virtual bool open(const OutputFormat& format) = 0;
    /// Takes frames of interleaved samples in format (which is the open format unless the sink
    /// follows format changes). Paces the mixing thread to real time where the sink plays in real
    /// time. Called on the mixing thread.
    virtual void write(const uint8_t* data, uint32_t frames, const OutputFormat& format) = 0;
    /// Ends output (flushes files). Control thread, after the mixing thread stopped.
    virtual void close() = 0;
    /// What the output is, for enumeration and logs ("ALSA device default").
    virtual std::string describe() const = 0;
    /// The output the host asked for by name could not be had (the sink stands in with nothing).
    virtual bool failed() const { return false; }
};

/// Sample memory shared by a buffer and its duplicates, of exactly the size asked for; the cursor
/// wraps after the last whole frame (a partial frame at the end is never heard). raw is what Lock
/// hands out and is touched
/// only by control threads; samples holds the same frames as float (planar: channel c at
/// samples + c * frames), converted at Unlock under commitLock, and is what the mixing thread reads.
struct SampleMemory {
    WAVEFORMATEX format;
    uint32_t bytes = 0;
    uint32_t frames = 0;
    uint32_t channels = 1;
    uint32_t blockAlign = 1;
    uint8_t* raw = nullptr;
    float* samples = nullptr;
    std::mutex commitLock;
    std::atomic<int> refs{1};

    /// Null when out of memory. The samples start as silence.
    static SampleMemory* create(const WAVEFORMATEX& format, uint32_t bytes);
    void ref() { refs.fetch_add(1, std::memory_order_relaxed); }
    void unref();
    /// Converts the whole frames overlapping raw[offset, offset + count) to float, in chunks, each
    /// under commitLock.
    void commit(uint32_t offset, uint32_t count);
    /// The raw bytes of frame f, rebuilt from the float samples (exact for 8- and 16-bit PCM).
    /// Caller holds commitLock.
    void frameBytes(uint32_t f, uint8_t* out) const;

    ~SampleMemory();
};

constexpr uint32_t kCommitChunkFrames = 4096;
/// Largest block the engine renders at once (and hands to mix sources).
constexpr uint32_t kMaxBlockFrames = 4096;
constexpr uint32_t kVoicesPerChunk = 256;
constexpr uint32_t kMaxVoiceChunks = 64;
constexpr uint32_t kMaxListeners = 64;
constexpr uint32_t kMaxMixSources = 16;

/// Float bits in a 32-bit atomic (std::atomic<float> has no fetch ops, and this keeps loads plain).
inline uint32_t floatBits(float f) {
    uint32_t u;
    static_assert(sizeof u == sizeof f, "32-bit float");
    __builtin_memcpy(&u, &f, sizeof u);
    return u;
}
inline float bitsFloat(uint32_t u) {
    float f;
    __builtin_memcpy(&f, &u, sizeof f);
    return f;
}

/// A listener's applied values (left-handed coordinates), written by control threads under a
/// sequence count and read by the mixing thread without waiting: a snapshot taken while a write is
/// under way is dropped and the previous one kept for that block.
struct ListenerState {
    std::atomic<uint32_t> sequence{0};
    std::atomic<uint32_t> value[10];  // position xyz, front xyz, top xyz, rolloff (float bits)
    std::atomic<bool> inUse{false};

    void store(const float values[10]);
    /// True when a consistent snapshot was read into values.
    bool load(float values[10]) const;
};

/// A voice's start time when it has none.
constexpr int64_t kNoStart = INT64_MIN;

/// Voice slot states.
enum VoiceState : uint32_t { kVoiceFree = 0, kVoiceActive = 1, kVoiceReleasing = 2, kVoiceRetired = 3 };

/// Bytes the cursor of a voice passed, kept for tests of the simulated backend. The mixing thread
/// appends into a ring allocated up front, taking no lock and allocating nothing; readers move
/// what it wrote into bytes. What does not fit in the ring before a reader drains it is dropped
/// (and counted), never waited for.
class ConsumedTap {
  public:
    /// Room for seconds of memory's format at its own rate; null when it cannot be allocated.
    static ConsumedTap* create(const SampleMemory& memory, uint32_t seconds = 8);

    /// Mixing thread: the bytes of frames [first, first + count) of memory (wrapping to frame 0
    /// when loop is set, stopping at the end otherwise). Holds memory's commit lock.
    void record(const SampleMemory& memory, uint32_t first, uint64_t count, bool loop);

    /// Readers: everything recorded since the last clear; clear forgets it.
    std::vector<uint8_t> bytes();
    void clear();
    /// Bytes the ring had no room for.
    uint64_t dropped() const { return dropped_.load(std::memory_order_relaxed); }

  private:
    ConsumedTap(uint8_t* ring, size_t capacity) : ring_(ring), capacity_(capacity) {}
    void drainLocked();

    // The ring: written_ and read_ count bytes since the start; the mixing thread owns written_,
    // a reader (holding mutex_) owns read_.
    std::unique_ptr<uint8_t[]> ring_;
    const size_t capacity_;
    std::atomic<uint64_t> written_{0};
    std::atomic<uint64_t> read_{0};
    std::atomic<uint64_t> dropped_{0};
    std::mutex mutex_;  // readers only
    std::vector<uint8_t> bytes_;
};

/// The play state of a voice in one word: the play cursor in bytes (low 32 bits), playing, looping,
/// and a generation that every control change bumps. The mixing thread stores its advanced cursor
/// only when the word is still the one it started the block from, so a Stop, Play or
/// SetCurrentPosition made meanwhile always stands.
constexpr uint64_t kCtlPlaying = uint64_t{1} << 32;
constexpr uint64_t kCtlLooping = uint64_t{1} << 33;
constexpr int kCtlGenerationShift = 34;
inline uint32_t ctlPosition(uint64_t w) {
    return static_cast<uint32_t>(w);
}
inline uint64_t ctlNext(uint64_t w, uint32_t position, uint64_t flags) {
    return (((w >> kCtlGenerationShift) + 1) << kCtlGenerationShift) | flags | position;
}

/// One secondary buffer as the mixing thread sees it.
struct alignas(64) Voice {
    std::atomic<uint32_t> state{kVoiceFree};
    // Fixed while the voice is active.
    SampleMemory* memory = nullptr;
    int listener = -1;
    bool is3D = false;
    ConsumedTap* tap = nullptr;
    // Control values.
    std::atomic<uint64_t> ctl{0};
    std::atomic<uint32_t> frequency{0};
    std::atomic<int32_t> volume{0};
    std::atomic<int32_t> pan{0};
    std::atomic<uint32_t> position3D[3];
    std::atomic<uint32_t> mode3D{DS3DMODE_NORMAL};
    /// When a Play asked for a later start: the clock time (microseconds of lxp::clock()'s
    /// counter) of its first sample; kNoStart otherwise. Stored before the playing bit.
    std::atomic<int64_t> startMicros{kNoStart};
    // Mixing-thread state.
    uint32_t fraction = 0;
    uint64_t seenGeneration = 0;
    bool gainsValid = false;
    float gainL = 0.0f;
    float gainR = 0.0f;
};

/// The engine. Created by a backend; shared (shared_ptr) by the objects that use it.
class Engine {
  public:
    /// With follow set, the output format follows the primary buffer's format (the simulated
    /// output); otherwise it stays fixedFormat. threaded: a mixing thread renders into sink while
    /// the engine has users; otherwise the owner renders with renderFrames().
    Engine(std::unique_ptr<Sink> sink, const OutputFormat& fixedFormat, bool follow, bool threaded);
    ~Engine();

    /// A DirectSound device or mix source starts using the output. The first user opens the sink
    /// and starts the mixing thread; the last stops them. Control threads.
    void addUser();
    void removeUser();
    int users();
    /// Stops the mixing thread and finishes the output for good (a WAV file gets its final sizes);
    /// later users and releases change nothing. For the process's exit.
    void shutdown();

    /// A new voice for memory (taking a reference on it, and ownership of tap), stopped at position 0
    /// at the memory's rate; -1 when every slot is taken (tap then stays the caller's). Control
    /// threads.
    int createVoice(SampleMemory* memory, bool is3D, int listener, ConsumedTap* tap);
    /// The voice stops being mixed at once; its slot and memory reference are reclaimed once the
    /// mixing thread let go of it. Control threads.
    void releaseVoice(int id);
    Voice& voice(int id);
    int liveVoices();

    int allocateListener();
    void freeListener(int id);
    ListenerState& listener(int id) { return listeners_[id]; }

    bool addSource(MixSource* source);
    void removeSource(MixSource* source);

    /// Records the primary buffer's format (the output format of a following engine).
    void setPrimaryFormat(const WAVEFORMATEX& format);
    OutputFormat outputFormat() const;
    /// Frames of one ~10 ms block at the current output rate.
    uint32_t periodFrames() const;

    /// The output's place in time: output frame `frame` is heard at clock time `micros`
    /// (lxp::clock()'s counter), from which frames go on at the output rate. The mixing thread
    /// keeps it for a real output (measuring and correcting the device's drift); the simulated
    /// output sets it when it follows the clock. Until it is set, timed starts play at once.
    /// Called on the mixing thread (or the thread that renders).
    void anchorAt(uint64_t frame, int64_t micros);
    /// Frames rendered so far (the mixing thread's count).
    uint64_t framesRendered() const { return framesOut_.load(std::memory_order_acquire); }

    /// Renders frames of output, in ~10 ms blocks as the mixing thread does, into the sink. Runs as the
    /// mixing thread: only one thread at a time, and never while the engine's own thread runs.
    void renderFrames(uint32_t frames);

    /// Times a block took to render, for the mixing-thread tests: the longest since the last reset.
    uint64_t worstBlockNanos() const { return worstBlockNanos_.load(std::memory_order_relaxed); }
    void resetWorstBlock() {
        worstBlockNanos_.store(0, std::memory_order_relaxed);
        worstLockWaitNanos_.store(0, std::memory_order_relaxed);
        lockWaits_.store(0, std::memory_order_relaxed);
    }
    /// Times the mixing thread found a buffer's commit lock taken, and its longest wait for one.
    uint64_t lockWaits() const { return lockWaits_.load(std::memory_order_relaxed); }
    uint64_t worstLockWaitNanos() const { return worstLockWaitNanos_.load(std::memory_order_relaxed); }

    /// Whether the mixing kernels use the processor's vector instructions (the default where there
    /// are any) or their portable scalar form; both give the same output. For tests and benchmarks.
    static void setVectorKernels(bool on);

    Sink* sink() { return sink_.get(); }
    std::string describe() const;
    /// The sink's failed(): an output asked for by name is not there.
    bool outputFailed() const;

  private:
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    void threadMain();
    void startThread();
    void stopThread();
    void reclaimLocked(bool mixerIdle);
    void renderBlock(uint32_t frames);
    /// The listeners' axes for this block, from their committed values.
    void updateListenerBases();
    void mixVoices(uint32_t frames, uint32_t outRate);
    /// The mixed block (mixI_) in the output's format into out_.
    void writeOutput(uint32_t frames, const OutputFormat& fmt);
    void mixVoice(Voice& v, uint32_t frames, uint32_t outRate);
    /// Whether v (control word w) plays in this block, and from which of its frames.
    bool playsInBlock(Voice& v, uint64_t w, uint32_t frames, uint32_t outRate, uint32_t* offset);
    /// Keeps the block's end state of v and stores its advanced cursor unless a control thread
    /// changed the voice since w was read.
    void endBlock(Voice& v, uint64_t w, uint32_t idx, uint32_t frac, bool ended, float gl, float gr);
    /// Where in the block [blockFrame_, +frames) a voice asked to start at micros begins: 0 for
    /// at once, frames or more for not in this block.
    uint32_t startOffset(int64_t micros, uint32_t frames, uint32_t outRate) const;
    void computeGains(Voice& v, float* gl, float* gr);

    std::unique_ptr<Sink> sink_;
    const OutputFormat fixedFormat_;
    const bool follow_;
    const bool threaded_;

    std::mutex controlMutex_;  // voice and listener allocation, users, sources; never the mixer's
    int users_ = 0;
    bool sinkOpen_ = false;
    bool shutDown_ = false;
    std::thread thread_;
    std::atomic<bool> running_{false};

    std::atomic<Voice*> chunks_[kMaxVoiceChunks];
    std::atomic<uint32_t> highWater_{0};  // one past the highest slot ever used
    int live_ = 0;

    ListenerState listeners_[kMaxListeners];
    std::atomic<MixSource*> sources_[kMaxMixSources];
    std::atomic<uint64_t> renderCount_{0};  // odd while a block renders

    std::atomic<uint64_t> primaryFormat_;
    uint64_t periodIndex_ = 0;
    uint32_t periodRate_ = 0;

    // The output's clock (mixing thread): frames rendered, the block now rendered, the anchor.
    std::atomic<uint64_t> framesOut_{0};
    uint64_t blockFrame_ = 0;
    bool anchored_ = false;
    uint64_t anchorFrame_ = 0;
    double anchorMicros_ = 0.0;
    uint32_t anchorRate_ = 0;
    /// The smallest lateness of the output against the anchor over the blocks of a window:
    /// a real output is never early, only its wake-ups are late, so the smallest is the drift.
    double windowMin_ = 0.0;
    uint32_t windowBlocks_ = 0;
    /// A real output's check before each block: anchors it, and corrects the device's drift.
    void followClock(uint32_t outRate);

    // Mixing-thread scratch, sized once.
    std::vector<float> mixL_, mixR_, mixI_;
    std::vector<uint8_t> out_;
    struct ListenerBasis {
        bool valid = false;
        float pos[3], right[3], up[3], front[3], rolloff;
    };
    ListenerBasis basis_[kMaxListeners];
    std::atomic<uint64_t> worstBlockNanos_{0};
    std::atomic<uint64_t> worstLockWaitNanos_{0};
    std::atomic<uint64_t> lockWaits_{0};
};

}  // namespace sound
}  // namespace lxp

#endif
