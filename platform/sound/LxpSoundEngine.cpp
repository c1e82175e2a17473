#include "platform/sound/LxpSoundEngine.h"

#include "platform/clock/LxpClock.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <new>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace lxp {
namespace sound {

namespace {

/// The interpolation weight of a 32-bit phase fraction: its top 24 bits, exactly representable,
/// so that the scalar and the vector kernels compute the very same weights.
constexpr float kFractionScale = 1.0f / 16777216.0f;
/// Nanoseconds since start, kept in worst when it is the longest yet.
void keepWorstSince(std::chrono::steady_clock::time_point start, std::atomic<uint64_t>& worst) {
    const uint64_t took = static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - start)
            .count());
    if (took > worst.load(std::memory_order_relaxed)) {
        worst.store(took, std::memory_order_relaxed);
    }
}

/// A mixed sample at full scale +-full (128 or 32768): clipped, then rounded half away from zero.
inline int32_t quantize(float x, float full) {
    float y = x * full;
    y = y < -full ? -full : (y > full - 1.0f ? full - 1.0f : y);
    return static_cast<int32_t>(y + (y >= 0.0f ? 0.5f : -0.5f));
}

inline float weightOf(uint32_t fraction) {
    return static_cast<float>(static_cast<int32_t>(fraction >> 8)) * kFractionScale;
}

uint64_t packFormat(const OutputFormat& f) {
    return (static_cast<uint64_t>(f.rate) << 32) | (static_cast<uint64_t>(f.channels) << 16) | f.bits;
}

OutputFormat unpackFormat(uint64_t w) {
    OutputFormat f;
    f.rate = static_cast<uint32_t>(w >> 32);
    f.channels = static_cast<uint16_t>((w >> 16) & 0xFFFF);
    f.bits = static_cast<uint16_t>(w & 0xFFFF);
    return f;
}

/// DirectSound attenuation (hundredths of a decibel) as a linear factor; the bottom of the range is
/// silence, as DirectSound documents it.
float attenuationToGain(int32_t hundredths) {
    if (hundredths <= DSBVOLUME_MIN) {
        return 0.0f;
    }
    if (hundredths >= 0) {
        return 1.0f;
    }
    return std::pow(10.0f, static_cast<float>(hundredths) / 2000.0f);
}

float dot3(const float* a, const float* b) {
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

void cross3(const float* a, const float* b, float* out) {
    out[0] = a[1] * b[2] - a[2] * b[1];
    out[1] = a[2] * b[0] - a[0] * b[2];
    out[2] = a[0] * b[1] - a[1] * b[0];
}

bool normalize3(float* v) {
    const float len = std::sqrt(dot3(v, v));
    if (!(len > 1e-12f) || !std::isfinite(len)) {
        return false;
    }
    v[0] /= len;
    v[1] /= len;
    v[2] /= len;
    return true;
}

}  // namespace

// ---- SampleMemory ----

SampleMemory* SampleMemory::create(const WAVEFORMATEX& format, uint32_t bytes) {
    SampleMemory* m = new (std::nothrow) SampleMemory();
    if (m == nullptr) {
        return nullptr;
    }
    m->format = format;
    m->blockAlign = format.nBlockAlign;
    m->channels = format.nChannels;
    m->frames = bytes / m->blockAlign;
    m->bytes = bytes;
    m->raw = new (std::nothrow) uint8_t[m->bytes];
    m->samples = new (std::nothrow) float[static_cast<size_t>(m->frames) * m->channels + 1];
    if (m->raw == nullptr || m->samples == nullptr) {
        delete m;
        return nullptr;
    }
    std::memset(m->raw, format.wBitsPerSample == 8 ? 0x80 : 0x00, m->bytes);
    std::memset(m->samples, 0, (static_cast<size_t>(m->frames) * m->channels + 1) * sizeof(float));
    return m;
}

SampleMemory::~SampleMemory() {
    delete[] raw;
    delete[] samples;
}

void SampleMemory::unref() {
    if (refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete this;
    }
}

void SampleMemory::commit(uint32_t offset, uint32_t count) {
    if (count == 0 || offset >= bytes) {
        return;
    }
    const uint32_t end = std::min<uint64_t>(static_cast<uint64_t>(offset) + count, bytes);
    const uint32_t first = offset / blockAlign;
    const uint32_t last = std::min(frames, (end + blockAlign - 1) / blockAlign);
    const bool eight = format.wBitsPerSample == 8;
    for (uint32_t f0 = first; f0 < last; f0 += kCommitChunkFrames) {
        const uint32_t f1 = std::min(last, f0 + kCommitChunkFrames);
        std::lock_guard<std::mutex> guard(commitLock);
        for (uint32_t c = 0; c < channels; ++c) {
            float* dst = samples + static_cast<size_t>(c) * frames;
            if (eight) {
                const uint8_t* src = raw + c;
                for (uint32_t f = f0; f < f1; ++f) {
                    dst[f] = (static_cast<float>(src[f * blockAlign]) - 128.0f) * (1.0f / 128.0f);
                }
            } else {
                const uint8_t* src = raw + 2 * c;
                for (uint32_t f = f0; f < f1; ++f) {
                    const uint8_t* p = src + f * blockAlign;
                    const int16_t v = static_cast<int16_t>(static_cast<uint16_t>(p[0] | (p[1] << 8)));
                    dst[f] = static_cast<float>(v) * (1.0f / 32768.0f);
                }
            }
        }
    }
}

void SampleMemory::frameBytes(uint32_t f, uint8_t* out) const {
    for (uint32_t c = 0; c < channels; ++c) {
        const float s = samples[static_cast<size_t>(c) * frames + f];
        if (format.wBitsPerSample == 8) {
            out[c] = static_cast<uint8_t>(std::lround(s * 128.0f) + 128);
        } else {
            const int16_t v = static_cast<int16_t>(std::lround(s * 32768.0f));
            out[2 * c] = static_cast<uint8_t>(v & 0xFF);
            out[2 * c + 1] = static_cast<uint8_t>((static_cast<uint16_t>(v) >> 8) & 0xFF);
        }
    }
}

// ---- ListenerState ----

// A sequence count with release stores and acquire loads throughout: a reader that sees any value
// of a write in progress also sees the odd count (or a newer one) and drops its snapshot.
void ListenerState::store(const float values[10]) {
    const uint32_t s = sequence.load(std::memory_order_relaxed);
    sequence.store(s + 1, std::memory_order_relaxed);
    for (int i = 0; i < 10; ++i) {
        value[i].store(floatBits(values[i]), std::memory_order_release);
    }
    sequence.store(s + 2, std::memory_order_release);
}

bool ListenerState::load(float values[10]) const {
    const uint32_t s1 = sequence.load(std::memory_order_acquire);
    if (s1 & 1u) {
        return false;
    }
    for (int i = 0; i < 10; ++i) {
        values[i] = bitsFloat(value[i].load(std::memory_order_acquire));
    }
    return sequence.load(std::memory_order_relaxed) == s1;
}

// ---- Engine ----

Engine::Engine(std::unique_ptr<Sink> sink, const OutputFormat& fixedFormat, bool follow, bool threaded)
    : sink_(std::move(sink)), fixedFormat_(fixedFormat), follow_(follow), threaded_(threaded) {
    for (auto& c : chunks_) {
        c.store(nullptr, std::memory_order_relaxed);
    }
    for (auto& s : sources_) {
        s.store(nullptr, std::memory_order_relaxed);
    }
    const float defaults[10] = {0, 0, 0, 0, 0, 1, 0, 1, 0, DS3D_DEFAULTROLLOFFFACTOR};
    for (auto& l : listeners_) {
        l.store(defaults);
    }
    OutputFormat initial = fixedFormat;
    if (follow) {
        // A device's primary buffer starts at 22.05 kHz, 8-bit stereo until its format is set.
        initial.rate = 22050;
        initial.channels = 2;
        initial.bits = 8;
    }
    primaryFormat_.store(packFormat(initial), std::memory_order_relaxed);
    mixL_.assign(kMaxBlockFrames, 0.0f);
    mixR_.assign(kMaxBlockFrames, 0.0f);
    mixI_.assign(2 * kMaxBlockFrames, 0.0f);
    out_.assign(4 * kMaxBlockFrames, 0);
}

Engine::~Engine() {
    {
        std::lock_guard<std::mutex> guard(controlMutex_);
        stopThread();
        if (sinkOpen_ && sink_) {
            sink_->close();
            sinkOpen_ = false;
        }
    }
    for (uint32_t c = 0; c < kMaxVoiceChunks; ++c) {
        Voice* chunk = chunks_[c].load(std::memory_order_acquire);
        if (chunk == nullptr) {
            continue;
        }
        for (uint32_t i = 0; i < kVoicesPerChunk; ++i) {
            if (chunk[i].state.load(std::memory_order_acquire) != kVoiceFree && chunk[i].memory != nullptr) {
                chunk[i].memory->unref();
                delete chunk[i].tap;
            }
        }
        delete[] chunk;
    }
}

std::string Engine::describe() const {
    return sink_ ? sink_->describe() : std::string("no output");
}

bool Engine::outputFailed() const {
    return sink_ && sink_->failed();
}

void Engine::addUser() {
    std::lock_guard<std::mutex> guard(controlMutex_);
    if (++users_ == 1 && !shutDown_) {
        if (!sinkOpen_ && sink_) {
            sink_->open(outputFormat());
            sinkOpen_ = true;
        }
        if (threaded_) {
            startThread();
        }
    }
}

void Engine::removeUser() {
    std::lock_guard<std::mutex> guard(controlMutex_);
    if (users_ > 0 && --users_ == 0) {
        stopThread();
        if (threaded_ && sinkOpen_ && sink_) {
            // A stopped output is finished (a WAV file gets its final sizes); a later start
            // continues it.
            sink_->close();
            sinkOpen_ = false;
        }
        reclaimLocked(threaded_);
    }
}

void Engine::shutdown() {
    std::lock_guard<std::mutex> guard(controlMutex_);
    shutDown_ = true;
    stopThread();
    if (threaded_ && sinkOpen_ && sink_) {
        sink_->close();
        sinkOpen_ = false;
    }
}

int Engine::users() {
    std::lock_guard<std::mutex> guard(controlMutex_);
    return users_;
}

void Engine::startThread() {
    if (running_.load()) {
        return;
    }
    running_.store(true);
    thread_ = std::thread([this] { threadMain(); });
}

void Engine::stopThread() {
    if (!running_.load()) {
        return;
    }
    running_.store(false);
    if (thread_.joinable()) {
        thread_.join();
    }
}

void Engine::threadMain() {
    anchored_ = false;  // a new start of the output has a new place in time
    while (running_.load(std::memory_order_acquire)) {
        followClock(outputFormat().rate);
        renderBlock(periodFrames());
    }
}

void Engine::anchorAt(uint64_t frame, int64_t micros) {
    anchored_ = true;
    anchorFrame_ = frame;
    anchorMicros_ = static_cast<double>(micros);
    anchorRate_ = outputFormat().rate;
    windowBlocks_ = 0;
}

void Engine::followClock(uint32_t outRate) {
    // Called when the sink has taken the last block: for an output paced in real time (or a
    // device that blocks until it has room) the next frame is due now.
    const int64_t now = clockMicros();
    const uint64_t frame = framesOut_.load(std::memory_order_relaxed);
    if (!anchored_ || outRate == 0 || outRate != anchorRate_) {
        anchorAt(frame, now);
        return;
    }
    const double late = static_cast<double>(now) -
                        (anchorMicros_ + static_cast<double>(frame - anchorFrame_) * 1e6 / outRate);
    if (std::fabs(late) > 150000.0) {
        anchorAt(frame, now);  // the output stalled, or its pacing started again
        return;
    }
    windowMin_ = windowBlocks_ == 0 ? late : std::min(windowMin_, late);
    if (++windowBlocks_ >= 100) {
        // About a second of blocks: a device clock that drifted by more than a millisecond
        // against the system's moves the anchor; jitter below that leaves it alone, so that
        // starts keep their exact distances in the output.
        if (std::fabs(windowMin_) > 1000.0) {
            anchorMicros_ += windowMin_;
        }
        windowBlocks_ = 0;
    }
}

uint32_t Engine::startOffset(int64_t micros, uint32_t frames, uint32_t outRate) const {
    if (!anchored_ || outRate == 0) {
        return 0;
    }
    const double at = static_cast<double>(anchorFrame_) +
                      (static_cast<double>(micros) - anchorMicros_) * outRate / 1e6 -
                      static_cast<double>(blockFrame_);
    const double first = std::floor(at + 0.5);
    if (first <= 0.0) {
        return 0;
    }
    return first >= frames ? frames : static_cast<uint32_t>(first);
}

int Engine::createVoice(SampleMemory* memory, bool is3D, int listener, ConsumedTap* tap) {
    std::lock_guard<std::mutex> guard(controlMutex_);
    reclaimLocked(threaded_ && !running_.load());
    for (uint32_t c = 0; c < kMaxVoiceChunks; ++c) {
        Voice* chunk = chunks_[c].load(std::memory_order_acquire);
        if (chunk == nullptr) {
            chunk = new (std::nothrow) Voice[kVoicesPerChunk];
            if (chunk == nullptr) {
                return -1;
            }
            chunks_[c].store(chunk, std::memory_order_release);
        }
        for (uint32_t i = 0; i < kVoicesPerChunk; ++i) {
            Voice& v = chunk[i];
            if (v.state.load(std::memory_order_acquire) != kVoiceFree) {
                continue;
            }
            // The slot is free, so the mixing thread does not touch it: its fields, the mixing
            // thread's own included, are set here and published by the state store below.
            memory->ref();
            v.memory = memory;
            v.listener = listener;
            v.is3D = is3D;
            v.tap = tap;
            const uint64_t ctl = ctlNext(v.ctl.load(std::memory_order_relaxed), 0, 0);
            v.ctl.store(ctl, std::memory_order_relaxed);
            v.frequency.store(memory->format.nSamplesPerSec, std::memory_order_relaxed);
            v.volume.store(0, std::memory_order_relaxed);
            v.pan.store(0, std::memory_order_relaxed);
            for (auto& p : v.position3D) {
                p.store(floatBits(0.0f), std::memory_order_relaxed);
            }
            v.mode3D.store(DS3DMODE_NORMAL, std::memory_order_relaxed);
            v.startMicros.store(kNoStart, std::memory_order_relaxed);
            v.fraction = 0;
            v.seenGeneration = ctl >> kCtlGenerationShift;
            v.gainsValid = false;
            v.gainL = v.gainR = 0.0f;
            const uint32_t index = c * kVoicesPerChunk + i;
            if (index + 1 > highWater_.load(std::memory_order_relaxed)) {
                highWater_.store(index + 1, std::memory_order_release);
            }
            v.state.store(kVoiceActive, std::memory_order_release);
            ++live_;
            return static_cast<int>(index);
        }
    }
    return -1;
}

Voice& Engine::voice(int id) {
    Voice* chunk = chunks_[static_cast<uint32_t>(id) / kVoicesPerChunk].load(std::memory_order_acquire);
    return chunk[static_cast<uint32_t>(id) % kVoicesPerChunk];
}

void Engine::releaseVoice(int id) {
    std::lock_guard<std::mutex> guard(controlMutex_);
    voice(id).state.store(kVoiceReleasing, std::memory_order_release);
    reclaimLocked(threaded_ && !running_.load());
}

int Engine::liveVoices() {
    std::lock_guard<std::mutex> guard(controlMutex_);
    reclaimLocked(threaded_ && !running_.load());
    return live_;
}

void Engine::reclaimLocked(bool mixerIdle) {
    const uint32_t hw = highWater_.load(std::memory_order_acquire);
    for (uint32_t index = 0; index < hw; ++index) {
        Voice* chunk = chunks_[index / kVoicesPerChunk].load(std::memory_order_acquire);
        if (chunk == nullptr) {
            continue;
        }
        Voice& v = chunk[index % kVoicesPerChunk];
        const uint32_t st = v.state.load(std::memory_order_acquire);
        if (st == kVoiceRetired || (st == kVoiceReleasing && mixerIdle)) {
            v.memory->unref();
            v.memory = nullptr;
            delete v.tap;
            v.tap = nullptr;
            v.state.store(kVoiceFree, std::memory_order_release);
            --live_;
        }
    }
}

int Engine::allocateListener() {
    std::lock_guard<std::mutex> guard(controlMutex_);
    for (uint32_t i = 0; i < kMaxListeners; ++i) {
        if (!listeners_[i].inUse.load()) {
            const float defaults[10] = {0, 0, 0, 0, 0, 1, 0, 1, 0, DS3D_DEFAULTROLLOFFFACTOR};
            listeners_[i].store(defaults);
            listeners_[i].inUse.store(true, std::memory_order_release);
            return static_cast<int>(i);
        }
    }
    return -1;
}

void Engine::freeListener(int id) {
    if (id >= 0 && id < static_cast<int>(kMaxListeners)) {
        listeners_[id].inUse.store(false, std::memory_order_release);
    }
}

bool Engine::addSource(MixSource* source) {
    std::lock_guard<std::mutex> guard(controlMutex_);
    for (auto& s : sources_) {
        if (s.load() == source) {
            return false;
        }
    }
    for (auto& s : sources_) {
        if (s.load() == nullptr) {
            s.store(source, std::memory_order_release);
            return true;
        }
    }
    return false;
}

void Engine::removeSource(MixSource* source) {
    {
        std::lock_guard<std::mutex> guard(controlMutex_);
        for (auto& s : sources_) {
            if (s.load() == source) {
                s.store(nullptr, std::memory_order_release);
            }
        }
    }
    // A block that started before the removal may still call the source: wait for it to end.
    const uint64_t c = renderCount_.load(std::memory_order_acquire);
    if (c & 1u) {
        while (renderCount_.load(std::memory_order_acquire) == c) {
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
    }
}

void Engine::setPrimaryFormat(const WAVEFORMATEX& format) {
    if (!follow_) {
        return;
    }
    OutputFormat f;
    f.rate = format.nSamplesPerSec;
    f.channels = format.nChannels;
    f.bits = format.wBitsPerSample;
    primaryFormat_.store(packFormat(f), std::memory_order_release);
}

OutputFormat Engine::outputFormat() const {
    return follow_ ? unpackFormat(primaryFormat_.load(std::memory_order_acquire)) : fixedFormat_;
}

uint32_t Engine::periodFrames() const {
    return std::max<uint32_t>(1, outputFormat().rate / 100);
}

void Engine::renderFrames(uint32_t frames) {
    const uint32_t block = std::min(periodFrames(), kMaxBlockFrames);
    while (frames > 0) {
        const uint32_t n = std::min(frames, block);
        renderBlock(n);
        frames -= n;
    }
}

void Engine::renderBlock(uint32_t n) {
    renderCount_.fetch_add(1, std::memory_order_acq_rel);
    const auto start = std::chrono::steady_clock::now();
    const OutputFormat fmt = outputFormat();
    blockFrame_ = framesOut_.load(std::memory_order_relaxed);
    if (anchored_ && fmt.rate != anchorRate_ && anchorRate_ != 0 && fmt.rate != 0) {
        // The output rate changed: time goes on from here at the new rate.
        anchorMicros_ += static_cast<double>(blockFrame_ - anchorFrame_) * 1e6 / anchorRate_;
        anchorFrame_ = blockFrame_;
        anchorRate_ = fmt.rate;
    }
    std::fill(mixL_.begin(), mixL_.begin() + n, 0.0f);
    std::fill(mixR_.begin(), mixR_.begin() + n, 0.0f);
    updateListenerBases();
    mixVoices(n, fmt.rate);

    float* mi = mixI_.data();
    for (uint32_t i = 0; i < n; ++i) {
        mi[2 * i] = mixL_[i];
        mi[2 * i + 1] = mixR_[i];
    }
    for (auto& s : sources_) {
        MixSource* src = s.load(std::memory_order_acquire);
        if (src != nullptr) {
            src->mixInto(mi, n, 2, fmt.rate);
        }
    }
    writeOutput(n, fmt);
    keepWorstSince(start, worstBlockNanos_);
    framesOut_.store(blockFrame_ + n, std::memory_order_release);
    renderCount_.fetch_add(1, std::memory_order_acq_rel);
    if (sink_) {
        sink_->write(out_.data(), n, fmt);
    }
}

void Engine::updateListenerBases() {
    for (uint32_t l = 0; l < kMaxListeners; ++l) {
        if (!listeners_[l].inUse.load(std::memory_order_acquire)) {
            basis_[l].valid = false;
            continue;
        }
        float v[10];
        if (!listeners_[l].load(v)) {
            continue;  // a commit is under way: keep the last snapshot for this block
        }
        ListenerBasis& b = basis_[l];
        std::memcpy(b.pos, v, sizeof b.pos);
        float front[3] = {v[3], v[4], v[5]};
        float top[3] = {v[6], v[7], v[8]};
        if (!normalize3(front)) {
            front[0] = 0.0f;
            front[1] = 0.0f;
            front[2] = 1.0f;
        }
        // Left-handed: with front +z and top +y, right is +x = top x front.
        cross3(top, front, b.right);
        if (!normalize3(b.right)) {
            const float fallbackTop[3] = {0.0f, 1.0f, 0.0f};
            cross3(fallbackTop, front, b.right);
            if (!normalize3(b.right)) {
                b.right[0] = 1.0f;
                b.right[1] = 0.0f;
                b.right[2] = 0.0f;
            }
        }
        cross3(front, b.right, b.up);
        std::memcpy(b.front, front, sizeof b.front);
        b.rolloff = v[9];
        b.valid = true;
    }
}

void Engine::mixVoices(uint32_t n, uint32_t outRate) {
    const uint32_t hw = highWater_.load(std::memory_order_acquire);
    for (uint32_t index = 0; index < hw; ++index) {
        Voice* chunk = chunks_[index / kVoicesPerChunk].load(std::memory_order_acquire);
        if (chunk == nullptr) {
            index += kVoicesPerChunk - 1 - index % kVoicesPerChunk;
            continue;
        }
        Voice& v = chunk[index % kVoicesPerChunk];
        const uint32_t st = v.state.load(std::memory_order_acquire);
        if (st == kVoiceActive) {
            mixVoice(v, n, outRate);
        } else if (st == kVoiceReleasing) {
            v.state.store(kVoiceRetired, std::memory_order_release);
        }
    }
}

void Engine::writeOutput(uint32_t n, const OutputFormat& fmt) {
    const float* mi = mixI_.data();
    const float full = fmt.bits == 8 ? 128.0f : 32768.0f;
    uint8_t* out = out_.data();
    for (uint32_t i = 0; i < n; ++i) {
        for (uint32_t c = 0; c < fmt.channels; ++c) {
            const float x = fmt.channels == 1 ? 0.5f * (mi[2 * i] + mi[2 * i + 1]) : mi[2 * i + (c & 1u)];
            const int32_t q = quantize(x, full);
            if (fmt.bits == 8) {
                *out++ = static_cast<uint8_t>(q + 128);
            } else {
                const uint16_t u = static_cast<uint16_t>(static_cast<int16_t>(q));
                *out++ = static_cast<uint8_t>(u & 0xFF);
                *out++ = static_cast<uint8_t>(u >> 8);
            }
        }
    }
}

void Engine::computeGains(Voice& v, float* gl, float* gr) {
    const float vol = attenuationToGain(v.volume.load(std::memory_order_relaxed));
    if (!v.is3D) {
        const int32_t pan = v.pan.load(std::memory_order_relaxed);
        float l = 1.0f;
        float r = 1.0f;
        if (pan > 0) {
            l = attenuationToGain(-pan);
        } else if (pan < 0) {
            r = attenuationToGain(pan);
        }
        *gl = vol * l;
        *gr = vol * r;
        return;
    }
    const uint32_t mode = v.mode3D.load(std::memory_order_relaxed);
    if (mode == DS3DMODE_DISABLE) {
        *gl = vol;
        *gr = vol;
        return;
    }
    const float p[3] = {bitsFloat(v.position3D[0].load(std::memory_order_relaxed)),
                        bitsFloat(v.position3D[1].load(std::memory_order_relaxed)),
                        bitsFloat(v.position3D[2].load(std::memory_order_relaxed))};
    static const ListenerBasis kDefaultBasis = [] {
        ListenerBasis b;
        b.valid = true;
        const float pos[3] = {0, 0, 0}, right[3] = {1, 0, 0}, up[3] = {0, 1, 0}, front[3] = {0, 0, 1};
        std::memcpy(b.pos, pos, sizeof pos);
        std::memcpy(b.right, right, sizeof right);
        std::memcpy(b.up, up, sizeof up);
        std::memcpy(b.front, front, sizeof front);
        b.rolloff = DS3D_DEFAULTROLLOFFFACTOR;
        return b;
    }();
    const ListenerBasis& b =
        (v.listener >= 0 && basis_[v.listener].valid) ? basis_[v.listener] : kDefaultBasis;
    float lateral;
    float distance;
    if (mode == DS3DMODE_HEADRELATIVE) {
        lateral = p[0];
        distance = std::sqrt(dot3(p, p));
    } else {
        const float d[3] = {p[0] - b.pos[0], p[1] - b.pos[1], p[2] - b.pos[2]};
        lateral = dot3(d, b.right);
        distance = std::sqrt(dot3(d, d));
    }
    float atten = 1.0f;
    if (distance > DS3D_DEFAULTMINDISTANCE) {
        const float d = std::min(distance, DS3D_DEFAULTMAXDISTANCE);
        atten =
            DS3D_DEFAULTMINDISTANCE / (DS3D_DEFAULTMINDISTANCE + b.rolloff * (d - DS3D_DEFAULTMINDISTANCE));
    }
    float x = distance > 1e-6f ? lateral / distance : 0.0f;
    x = x < -1.0f ? -1.0f : (x > 1.0f ? 1.0f : x);
    if (!std::isfinite(atten) || !std::isfinite(x)) {
        atten = 0.0f;
        x = 0.0f;
    }
    // The DirectSound pan law in amplitude: the far side falls off, the near side stays at full.
    *gl = vol * atten * std::min(1.0f, 1.0f - x);
    *gr = vol * atten * std::min(1.0f, 1.0f + x);
}

namespace {

/// How a voice's frames reach the two output channels.
enum RunKind { kMono = 0, kStereo = 1, kStereoToMono = 2 };

std::atomic<bool> gVectorKernels{true};

/// Adds one interpolated frame (x, y) at gains cl, cr into *L, *R; with ramp the gains first take
/// one step of their glide. Inlined into every kernel with kind and ramp known.
__attribute__((always_inline)) inline void mixFrame(int kind, bool ramp, float x, float y, float& cl,
                                                    float& cr, float dl, float dr, float* L, float* R) {
    if (kind == kStereoToMono) {
        x = 0.5f * (x + y);
        y = x;
    }
    if (ramp) {
        cl += dl;
        cr += dr;
    }
    *L += cl * x;
    *R += cr * y;
}

/// Mixes count resampled frames of a voice into L and R at a 32.32 fixed-point phase. Fuses the
/// resampling with the gain so that each frame is read and written once; the arithmetic is that
/// of resampling first and scaling after. src[j + 1] must exist for every frame produced. With
/// Ramp the gains glide by dl, dr per frame (gl, gr carry the glide across runs).
template <int Kind, bool Ramp>
void mixRun(const float* s0, const float* s1, uint32_t fraction, uint64_t step, uint32_t count, float* L,
            float* R, float& gl, float& gr, float dl, float dr) {
    float cl = gl;
    float cr = gr;
    if (fraction == 0 && step == (uint64_t{1} << 32)) {
        for (uint32_t i = 0; i < count; ++i) {
            float x = s0[i];
            float y = Kind == kMono ? x : s1[i];
            mixFrame(Kind, Ramp, x, y, cl, cr, dl, dr, L + i, R + i);
        }
    } else {
        uint64_t acc = fraction;
        uint32_t i = 0;
#if defined(__SSE2__)
        if (!Ramp && gVectorKernels.load(std::memory_order_relaxed)) {
            // Four frames at a time: the samples are gathered one by one, the weights, the
            // interpolation and the gains work on all four.
            const __m128 scale = _mm_set1_ps(kFractionScale);
            const __m128 vl = _mm_set1_ps(cl);
            const __m128 vr = _mm_set1_ps(cr);
            const __m128 half = _mm_set1_ps(0.5f);
            for (; i + 4 <= count; i += 4) {
                const uint64_t a0 = acc;
                const uint64_t a1 = a0 + step;
                const uint64_t a2 = a1 + step;
                const uint64_t a3 = a2 + step;
                acc = a3 + step;
                const uint32_t j0 = static_cast<uint32_t>(a0 >> 32);
                const uint32_t j1 = static_cast<uint32_t>(a1 >> 32);
                const uint32_t j2 = static_cast<uint32_t>(a2 >> 32);
                const uint32_t j3 = static_cast<uint32_t>(a3 >> 32);
                const __m128i fi = _mm_setr_epi32(static_cast<int32_t>(static_cast<uint32_t>(a0) >> 8),
                                                  static_cast<int32_t>(static_cast<uint32_t>(a1) >> 8),
                                                  static_cast<int32_t>(static_cast<uint32_t>(a2) >> 8),
                                                  static_cast<int32_t>(static_cast<uint32_t>(a3) >> 8));
                const __m128 f = _mm_mul_ps(_mm_cvtepi32_ps(fi), scale);
                const __m128 xa = _mm_setr_ps(s0[j0], s0[j1], s0[j2], s0[j3]);
                const __m128 xb = _mm_setr_ps(s0[j0 + 1], s0[j1 + 1], s0[j2 + 1], s0[j3 + 1]);
                __m128 x = _mm_add_ps(xa, _mm_mul_ps(f, _mm_sub_ps(xb, xa)));
                __m128 y = x;
                if (Kind != kMono) {
                    const __m128 ya = _mm_setr_ps(s1[j0], s1[j1], s1[j2], s1[j3]);
                    const __m128 yb = _mm_setr_ps(s1[j0 + 1], s1[j1 + 1], s1[j2 + 1], s1[j3 + 1]);
                    y = _mm_add_ps(ya, _mm_mul_ps(f, _mm_sub_ps(yb, ya)));
                }
                if (Kind == kStereoToMono) {
                    x = _mm_mul_ps(half, _mm_add_ps(x, y));
                    y = x;
                }
                _mm_storeu_ps(L + i, _mm_add_ps(_mm_loadu_ps(L + i), _mm_mul_ps(vl, x)));
                _mm_storeu_ps(R + i, _mm_add_ps(_mm_loadu_ps(R + i), _mm_mul_ps(vr, y)));
            }
        }
#endif
        for (; i < count; ++i) {
            const uint32_t j = static_cast<uint32_t>(acc >> 32);
            const float f = weightOf(static_cast<uint32_t>(acc));
            const float a = s0[j];
            float x = a + f * (s0[j + 1] - a);
            float y = x;
            if (Kind != kMono) {
                const float b = s1[j];
                y = b + f * (s1[j + 1] - b);
            }
            mixFrame(Kind, Ramp, x, y, cl, cr, dl, dr, L + i, R + i);
            acc += step;
        }
    }
    gl = cl;
    gr = cr;
}

typedef void (*MixRunFn)(const float*, const float*, uint32_t, uint64_t, uint32_t, float*, float*, float&,
                         float&, float, float);

MixRunFn mixRunFor(int kind, bool ramp) {
    static const MixRunFn table[3][2] = {{&mixRun<kMono, false>, &mixRun<kMono, true>},
                                         {&mixRun<kStereo, false>, &mixRun<kStereo, true>},
                                         {&mixRun<kStereoToMono, false>, &mixRun<kStereoToMono, true>}};
    return table[kind][ramp ? 1 : 0];
}

}  // namespace

void Engine::setVectorKernels(bool on) {
    gVectorKernels.store(on);
}

ConsumedTap* ConsumedTap::create(const SampleMemory& memory, uint32_t seconds) {
    const size_t capacity = static_cast<size_t>(memory.format.nAvgBytesPerSec) * seconds;
    uint8_t* ring = new (std::nothrow) uint8_t[capacity > 0 ? capacity : 1];
    if (ring == nullptr) {
        return nullptr;
    }
    ConsumedTap* tap = new (std::nothrow) ConsumedTap(ring, capacity > 0 ? capacity : 1);
    if (tap == nullptr) {
        delete[] ring;
    }
    return tap;
}

void ConsumedTap::record(const SampleMemory& memory, uint32_t first, uint64_t count, bool loop) {
    const uint32_t align = memory.blockAlign;
    uint64_t w = written_.load(std::memory_order_relaxed);
    const uint64_t room = capacity_ - (w - read_.load(std::memory_order_acquire));
    uint64_t frames = count;
    if (!loop) {
        frames = std::min<uint64_t>(frames, first < memory.frames ? memory.frames - first : 0);
    }
    const uint64_t fit = std::min<uint64_t>(frames, room / align);
    uint8_t frame[4];
    uint32_t f = first;
    for (uint64_t k = 0; k < fit; ++k) {
        if (f >= memory.frames) {
            f = 0;
        }
        memory.frameBytes(f, frame);
        for (uint32_t b = 0; b < align; ++b) {
            ring_[(w + b) % capacity_] = frame[b];
        }
        w += align;
        ++f;
    }
    written_.store(w, std::memory_order_release);
    if (fit < frames) {
        dropped_.fetch_add((frames - fit) * align, std::memory_order_relaxed);
    }
}

void ConsumedTap::drainLocked() {
    const uint64_t w = written_.load(std::memory_order_acquire);
    uint64_t r = read_.load(std::memory_order_relaxed);
    bytes_.reserve(bytes_.size() + static_cast<size_t>(w - r));
    for (; r < w; ++r) {
        bytes_.push_back(ring_[r % capacity_]);
    }
    read_.store(r, std::memory_order_release);
}

std::vector<uint8_t> ConsumedTap::bytes() {
    std::lock_guard<std::mutex> guard(mutex_);
    drainLocked();
    return bytes_;
}

void ConsumedTap::clear() {
    std::lock_guard<std::mutex> guard(mutex_);
    drainLocked();
    bytes_.clear();
}

bool Engine::playsInBlock(Voice& v, uint64_t w, uint32_t n, uint32_t outRate, uint32_t* offset) {
    const uint64_t gen = w >> kCtlGenerationShift;
    if (gen != v.seenGeneration) {
        v.seenGeneration = gen;
        v.fraction = 0;
    }
    if ((w & kCtlPlaying) == 0) {
        v.gainsValid = false;
        return false;
    }
    // A start asked for a later time begins at its frame of the block it falls in.
    *offset = 0;
    int64_t at = v.startMicros.load(std::memory_order_acquire);
    if (at != kNoStart) {
        *offset = startOffset(at, n, outRate);
        if (*offset >= n) {
            v.gainsValid = false;
            return false;  // not yet: the cursor waits at its place
        }
        v.startMicros.compare_exchange_strong(at, kNoStart, std::memory_order_acq_rel);
    }
    return true;
}

void Engine::endBlock(Voice& v, uint64_t w, uint32_t idx, uint32_t frac, bool ended, float gl, float gr) {
    const uint32_t frames = v.memory->frames;
    const bool loop = (w & kCtlLooping) != 0;
    if (ended || idx >= frames) {
        if (loop) {
            idx %= frames;
        } else {
            ended = true;
            idx = 0;
            frac = 0;
        }
    }
    v.gainL = gl;
    v.gainR = gr;
    v.gainsValid = !ended;
    v.fraction = frac;

    const uint64_t gen = w >> kCtlGenerationShift;
    const uint64_t flags = ended ? (w & kCtlLooping) : (w & (kCtlPlaying | kCtlLooping));
    const uint64_t desired = (gen << kCtlGenerationShift) | flags | (idx * v.memory->blockAlign);
    if (!v.ctl.compare_exchange_strong(w, desired, std::memory_order_acq_rel)) {
        v.fraction = 0;  // a control thread changed the voice meanwhile; its state stands
    }
}

void Engine::mixVoice(Voice& v, uint32_t n, uint32_t outRate) {
    const uint64_t w = v.ctl.load(std::memory_order_acquire);
    uint32_t offset = 0;
    if (!playsInBlock(v, w, n, outRate, &offset)) {
        return;
    }
    SampleMemory* m = v.memory;
    const uint32_t frames = m->frames;
    if (frames == 0 || outRate == 0) {
        return;
    }
    const bool loop = (w & kCtlLooping) != 0;
    uint32_t idx = ctlPosition(w) / m->blockAlign;
    if (idx >= frames) {
        idx = 0;
    }
    const uint32_t startIdx = idx;
    const uint64_t step =
        (static_cast<uint64_t>(v.frequency.load(std::memory_order_relaxed)) << 32) / outRate;
    float gl;
    float gr;
    computeGains(v, &gl, &gr);

    // A changed volume, pan or position glides over the block instead of jumping; a voice that
    // stays silent only moves its cursor.
    const bool ramp = v.gainsValid && (v.gainL != gl || v.gainR != gr);
    const bool silent = !ramp && gl == 0.0f && gr == 0.0f;
    float cl = ramp ? v.gainL : gl;
    float cr = ramp ? v.gainR : gr;
    const float dl = ramp ? (gl - v.gainL) / static_cast<float>(n) : 0.0f;
    const float dr = ramp ? (gr - v.gainR) / static_cast<float>(n) : 0.0f;
    const int kind = m->channels == 2 ? (v.is3D ? kStereoToMono : kStereo) : kMono;
    const MixRunFn run = mixRunFor(kind, ramp);

    float* L = mixL_.data();
    float* R = mixR_.data();
    uint32_t frac = v.fraction;
    uint64_t consumed = 0;
    uint32_t produced = offset;
    bool ended = false;
    {
        // Control threads hold this lock only while converting a bounded chunk at Unlock; a wait
        // here is measured so that tests can show it stays short.
        std::unique_lock<std::mutex> guard(m->commitLock, std::try_to_lock);
        if (!guard.owns_lock()) {
            const auto waitStart = std::chrono::steady_clock::now();
            guard.lock();
            keepWorstSince(waitStart, worstLockWaitNanos_);
            lockWaits_.fetch_add(1, std::memory_order_relaxed);
        }
        const float* s0 = m->samples;
        const float* s1 = m->channels == 2 ? m->samples + frames : s0;
        while (produced < n) {
            if (idx >= frames) {
                if (!loop) {
                    ended = true;
                    break;
                }
                idx %= frames;
            }
            if (step == 0) {
                break;
            }
            uint64_t acc;
            if (idx + 1 < frames) {
                const uint64_t room = (static_cast<uint64_t>(frames - 1 - idx) << 32) - frac;
                const uint64_t fit = (room + step - 1) / step;
                const uint32_t count = static_cast<uint32_t>(std::min<uint64_t>(fit, n - produced));
                if (!silent) {
                    run(s0 + idx, s1 + idx, frac, step, count, L + produced, R + produced, cl, cr, dl, dr);
                }
                acc = frac + count * step;
                produced += count;
            } else {
                // The last frame: it leads into the loop's start, or into silence at the end.
                if (!silent) {
                    const float f = weightOf(frac);
                    const float a0 = s0[idx];
                    float x = a0 + f * ((loop ? s0[0] : 0.0f) - a0);
                    float y = x;
                    if (kind != kMono) {
                        const float a1 = s1[idx];
                        y = a1 + f * ((loop ? s1[0] : 0.0f) - a1);
                    }
                    mixFrame(kind, ramp, x, y, cl, cr, dl, dr, L + produced, R + produced);
                }
                ++produced;
                acc = frac + step;
            }
            idx += static_cast<uint32_t>(acc >> 32);
            consumed += acc >> 32;
            frac = static_cast<uint32_t>(acc);
        }
        if (v.tap != nullptr && consumed > 0) {
            v.tap->record(*m, startIdx, consumed, loop);
        }
    }
    endBlock(v, w, idx, frac, ended, gl, gr);
}

}  // namespace sound
}  // namespace lxp
