#include "platform/midi/LxpMidiSim.h"

#include "platform/LxpDuplex.h"
#include "platform/midi/LxpMidiBackend.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>

namespace lxp {
namespace midisim {

namespace {

using midi::Call;

struct State {
    std::mutex mutex;  // guards everything below but the atomics
    std::vector<Message> recorded;
    int failures[10] = {};
    MMRESULT failResult[10] = {};
    int maxOpen = 1;
    int open = 0;
    std::vector<std::weak_ptr<midi::Stream>> streams;
};

State& state() {
    static State* s = new State();  // never destroyed: device threads may outlive statics
    return *s;
}

std::atomic<bool> gRealTime{false};
std::atomic<int64_t> gVirtualNow{0};
std::atomic<int64_t> gRealOrigin{0};

int64_t steadyMicros() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

MMRESULT planned(Operation op) {
    State& s = state();
    std::lock_guard<std::mutex> guard(s.mutex);
    if (s.failures[op] > 0) {
        --s.failures[op];
        return s.failResult[op];
    }
    return MMSYSERR_NOERROR;
}

void record(uint32_t message, int64_t play, int64_t due, bool fromStream) {
    State& s = state();
    std::lock_guard<std::mutex> guard(s.mutex);
    s.recorded.push_back({message & 0xFFFFFFu, play, due, fromStream});
}

class SimOutput : public midi::StreamOutput {
  public:
    int64_t nowMicros() override { return midisim::nowMicros(); }
    bool virtualTime() override { return !realTime_; }
    // The simulated time line is continuous: the device thread sleeps exactly until the next
    // event, so the poll bound only guards against a missed wake-up.
    int64_t pollMicros() override { return 100000; }
    int64_t lookaheadMicros() override { return 0; }

    void play(uint32_t message, int64_t dueMicros) override { record(message, nowMicros(), dueMicros, true); }

    MMRESULT sendNow(uint32_t message) override {
        const int64_t now = nowMicros();
        record(message, now, now, false);
        return MMSYSERR_NOERROR;
    }

    void silence() override {
        const int64_t now = nowMicros();
        for (uint32_t channel = 0; channel < 16; ++channel) {
            record(0xB0u | channel | (123u << 8), now, now, false);  // All Notes Off
        }
    }

    MMRESULT failure(Call call) override { return planned(static_cast<Operation>(call)); }

    void attached(const std::shared_ptr<midi::Stream>& stream) override {
        State& s = state();
        std::lock_guard<std::mutex> guard(s.mutex);
        if (stream) {
            s.streams.push_back(stream);
            self_ = stream;
        } else {
            s.streams.erase(std::remove_if(s.streams.begin(), s.streams.end(),
                                           [&](const std::weak_ptr<midi::Stream>& w) {
                                               return w.expired() || w.lock() == self_.lock();
                                           }),
                            s.streams.end());
        }
    }

    void close() override {
        duplex::close(duplex::Midi);
        State& s = state();
        std::lock_guard<std::mutex> guard(s.mutex);
        --s.open;
    }

  private:
    const bool realTime_ = gRealTime.load();
    std::weak_ptr<midi::Stream> self_;
};

class SimBackend : public midi::Backend {
  public:
    MMRESULT open(std::unique_ptr<midi::StreamOutput>* output) override {
        if (MMRESULT r = planned(Open)) {
            return r;
        }
        State& s = state();
        {
            std::lock_guard<std::mutex> guard(s.mutex);
            if (s.open >= s.maxOpen) {
                return MMSYSERR_ALLOCATED;
            }
            // A half-duplex card refuses MIDI while sampled audio has the device.
            if (!duplex::tryOpen(duplex::Midi)) {
                return MMSYSERR_ALLOCATED;
            }
            ++s.open;
        }
        output->reset(new SimOutput());
        return MMSYSERR_NOERROR;
    }
};

std::vector<std::shared_ptr<midi::Stream>> openStreams() {
    State& s = state();
    std::lock_guard<std::mutex> guard(s.mutex);
    std::vector<std::shared_ptr<midi::Stream>> out;
    for (auto& w : s.streams) {
        if (auto p = w.lock()) {
            out.push_back(p);
        }
    }
    return out;
}

}  // namespace

midi::Backend& backend() {
    static SimBackend* b = new SimBackend();
    return *b;
}

void setRealTime(bool realTime) {
    gRealOrigin.store(steadyMicros());
    gRealTime.store(realTime);
}

int64_t nowMicros() {
    if (gRealTime.load()) {
        return steadyMicros() - gRealOrigin.load();
    }
    return gVirtualNow.load();
}

void advanceMicros(int64_t micros) {
    const int64_t target = gVirtualNow.load() + std::max<int64_t>(0, micros);
    // Discrete-event stepping: time jumps from one due point to the next, so every message is
    // played at exactly its due time however large the step.
    for (;;) {
        const auto streams = openStreams();
        int64_t next = midi::kNever;
        for (const auto& s : streams) {
            next = std::min(next, s->nextDueMicros());
        }
        if (next > target) {
            break;
        }
        if (next > gVirtualNow.load()) {
            gVirtualNow.store(next);
        }
        for (const auto& s : streams) {
            s->settle();
        }
    }
    gVirtualNow.store(target);
    for (const auto& s : openStreams()) {
        s->settle();
    }
}

std::vector<Message> messages() {
    State& s = state();
    std::lock_guard<std::mutex> guard(s.mutex);
    return s.recorded;
}

void clearMessages() {
    State& s = state();
    std::lock_guard<std::mutex> guard(s.mutex);
    s.recorded.clear();
}

void failNext(Operation op, MMRESULT result, int count) {
    State& s = state();
    std::lock_guard<std::mutex> guard(s.mutex);
    s.failures[op] = count;
    s.failResult[op] = result;
}

void setMaxOpenStreams(int count) {
    State& s = state();
    std::lock_guard<std::mutex> guard(s.mutex);
    s.maxOpen = count;
}

void reset() {
    gRealTime.store(false);
    gVirtualNow.store(0);
    State& s = state();
    std::lock_guard<std::mutex> guard(s.mutex);
    s.recorded.clear();
    std::fill(std::begin(s.failures), std::end(s.failures), 0);
    s.maxOpen = 1;
}

}  // namespace midisim
}  // namespace lxp
