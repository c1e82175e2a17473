#include "platform/midi/LxpMidiStream.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <vector>

namespace lxp {
namespace midi {

namespace {

std::atomic<int> gLiveThreads{0};

// Threads of streams closed from their own callback: they cannot join themselves, so they are
// joined by the next open or close on another thread, by midiLiveDeviceThreads(), or at exit.
struct Graveyard {
    std::mutex mutex;
    std::vector<std::thread> threads;

    ~Graveyard() { reap(); }

    void bury(std::thread t) {
        std::lock_guard<std::mutex> guard(mutex);
        threads.push_back(std::move(t));
    }

    void reap() {
        std::vector<std::thread> ready;
        {
            std::lock_guard<std::mutex> guard(mutex);
            for (auto it = threads.begin(); it != threads.end();) {
                if (it->get_id() != std::this_thread::get_id()) {
                    ready.push_back(std::move(*it));
                    it = threads.erase(it);
                } else {
                    ++it;
                }
            }
        }
        for (auto& t : ready) {
            t.join();
        }
    }
};

Graveyard& graveyard() {
    static Graveyard yard;
    return yard;
}

uint32_t readU32(const char* p) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

}  // namespace

void reapDeviceThreads() {
    graveyard().reap();
}

int liveDeviceThreads() {
    return gLiveThreads.load();
}

Stream::Stream(std::unique_ptr<StreamOutput> output, MidiCallback callback, uintptr_t instance)
    : output_(std::move(output)), callback_(callback), instance_(instance) {}

Stream::~Stream() {
    // A stream is destroyed only after close() joined or buried its thread.
}

bool Stream::startThread() {
    std::shared_ptr<Stream> self = shared_from_this();
    output_->attached(self);
    try {
        ++gLiveThreads;
        thread_ = std::thread([self]() mutable {
            self->run();
            self.reset();  // the stream may end here when it was closed from its own callback
            --gLiveThreads;
        });
    } catch (...) {
        --gLiveThreads;
        return false;
    }
    std::lock_guard<std::mutex> guard(mutex_);
    threadId_ = thread_.get_id();
    return true;
}

void Stream::wake_Locked() {
    ++wakeSeq_;
    wake_.notify_all();
}

int64_t Stream::toDevice_Locked(int64_t streamTime) const {
    if (streamTime >= kNever) {
        return kNever;
    }
    return anchorDevice_ + (streamTime - anchorStream_);
}

MMRESULT Stream::property(uint8_t* data, uint32_t property) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (closing_) {
        return MMSYSERR_INVALHANDLE;
    }
    if (MMRESULT r = output_->failure(Call::Property)) {
        return r;
    }
    const bool set = (property & MIDIPROP_SET) != 0;
    const bool get = (property & MIDIPROP_GET) != 0;
    if (data == nullptr || set == get || (property & ~(MIDIPROP_SET | MIDIPROP_GET)) != MIDIPROP_TIMEDIV) {
        return MMSYSERR_INVALPARAM;
    }
    MIDIPROPTIMEDIV prop;
    std::memcpy(&prop, data, sizeof prop);
    if (prop.cbStruct != sizeof(MIDIPROPTIMEDIV)) {
        return MMSYSERR_INVALPARAM;
    }
    if (get) {
        prop.dwTimeDiv = division_;
        std::memcpy(data, &prop, sizeof prop);
        return MMSYSERR_NOERROR;
    }
    // Only ticks per quarter note: a zero division would divide by zero and an SMPTE division
    // (high bit of the low word) is a different time model the callers never use.
    if (prop.dwTimeDiv == 0 || prop.dwTimeDiv > 0x7FFF) {
        return MMSYSERR_INVALPARAM;
    }
    division_ = prop.dwTimeDiv;
    // The remainder of the last record's time was counted in the old division; dropping it loses
    // less than a microsecond.
    lastFrac_ = 0;
    cursorDueValid_ = false;
    wake_Locked();
    return MMSYSERR_NOERROR;
}

MMRESULT Stream::prepare(MIDIHDR* header, uint32_t size) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (header == nullptr || size < sizeof(MIDIHDR) || header->lpData == nullptr) {
        return MMSYSERR_INVALPARAM;
    }
    if (closing_) {
        return MMSYSERR_INVALHANDLE;
    }
    if (MMRESULT r = output_->failure(Call::Prepare)) {
        return r;
    }
    header->dwFlags = (header->dwFlags & ~(MHDR_DONE | MHDR_INQUEUE)) | MHDR_PREPARED | MHDR_ISSTRM;
    return MMSYSERR_NOERROR;
}

MMRESULT Stream::unprepare(MIDIHDR* header, uint32_t size) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (header == nullptr || size < sizeof(MIDIHDR)) {
        return MMSYSERR_INVALPARAM;
    }
    if (header->dwFlags & MHDR_INQUEUE) {
        return MIDIERR_STILLPLAYING;
    }
    if (closing_) {
        return MMSYSERR_INVALHANDLE;
    }
    if (MMRESULT r = output_->failure(Call::Unprepare)) {
        return r;
    }
    header->dwFlags &= ~(MHDR_PREPARED | MHDR_ISSTRM);
    return MMSYSERR_NOERROR;
}

MMRESULT Stream::out(MIDIHDR* header, uint32_t size) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (header == nullptr || size < sizeof(MIDIHDR) || header->dwBytesRecorded > header->dwBufferLength) {
        return MMSYSERR_INVALPARAM;
    }
    if (!(header->dwFlags & MHDR_PREPARED)) {
        return MIDIERR_UNPREPARED;
    }
    if (header->dwFlags & MHDR_INQUEUE) {
        return MIDIERR_STILLPLAYING;
    }
    if (closing_) {
        return MMSYSERR_INVALHANDLE;
    }
    if (MMRESULT r = output_->failure(Call::Out)) {
        return r;
    }
    header->dwFlags = (header->dwFlags & ~MHDR_DONE) | MHDR_INQUEUE;
    queue_.push_back(header);
    wake_Locked();
    return MMSYSERR_NOERROR;
}

MMRESULT Stream::restart() {
    std::lock_guard<std::mutex> guard(mutex_);
    if (closing_) {
        return MMSYSERR_INVALHANDLE;
    }
    if (MMRESULT r = output_->failure(Call::Restart)) {
        return r;
    }
    if (!running_) {
        anchorDevice_ = output_->nowMicros();
        anchorStream_ = pausedStream_;
        running_ = true;
        wake_Locked();
    }
    return MMSYSERR_NOERROR;
}

void Stream::returnAll_Locked() {
    for (const Dispatched& d : dispatched_) {
        returned_.push_back(d.header);
    }
    dispatched_.clear();
    for (MIDIHDR* h : queue_) {
        returned_.push_back(h);
    }
    queue_.clear();
    for (MIDIHDR* h : returned_) {
        h->dwFlags = (h->dwFlags & ~MHDR_INQUEUE) | MHDR_DONE;
    }
}

MMRESULT Stream::stop(Call call) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (closing_) {
        return MMSYSERR_INVALHANDLE;
    }
    if (MMRESULT r = output_->failure(call)) {
        return r;
    }
    running_ = false;
    pausedStream_ = 0;
    lastDue_ = 0;
    lastFrac_ = 0;
    cursorOffset_ = 0;
    cursorDueValid_ = false;
    returnAll_Locked();
    output_->silence();
    wake_Locked();
    return MMSYSERR_NOERROR;
}

MMRESULT Stream::shortMsg(uint32_t message) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (closing_) {
        return MMSYSERR_INVALHANDLE;
    }
    if (MMRESULT r = output_->failure(Call::ShortMsg)) {
        return r;
    }
    return output_->sendNow(message);
}

bool Stream::sounding() {
    std::lock_guard<std::mutex> guard(mutex_);
    return !closing_ && (!queue_.empty() || !dispatched_.empty() || output_->sounding());
}

MMRESULT Stream::beginClose() {
    std::lock_guard<std::mutex> guard(mutex_);
    if (closing_) {
        return MMSYSERR_INVALHANDLE;
    }
    if (!queue_.empty() || !dispatched_.empty()) {
        return MIDIERR_STILLPLAYING;
    }
    if (MMRESULT r = output_->failure(Call::Close)) {
        return r;
    }
    closing_ = true;
    wake_Locked();
    return MMSYSERR_NOERROR;
}

void Stream::finishClose() {
    output_->attached(nullptr);
    if (std::this_thread::get_id() == threadId_) {
        // Inside our own callback: the thread ends when the callback returns, without touching
        // the output again, so the device can be released now.
        output_->close();
        graveyard().bury(std::move(thread_));
    } else {
        thread_.join();
        output_->close();
        graveyard().reap();
    }
}

void Stream::discard() {
    output_->attached(nullptr);
    output_->close();
}

bool Stream::cursorAtRecord_Locked() {
    return !queue_.empty() && cursorOffset_ + sizeof(MIDIEVENT) <= queue_.front()->dwBytesRecorded;
}

int64_t Stream::cursorDue_Locked() {
    if (!cursorDueValid_) {
        MIDIHDR* h = queue_.front();
        const uint64_t delta = readU32(h->lpData + cursorOffset_);
        // Exact arithmetic: the time is kept in whole microseconds plus a remainder counted in
        // 1/division microseconds, so long streams do not drift. delta < 2^32 and tempo < 2^24
        // keep the product below 2^56.
        const uint64_t num = lastFrac_ + delta * tempo_;
        const uint64_t whole = num / division_;
        cursorFrac_ = num % division_;
        cursorDue_ = static_cast<int64_t>(
            std::min<uint64_t>(static_cast<uint64_t>(lastDue_) + whole, static_cast<uint64_t>(kNever - 1)));
        cursorDueValid_ = true;
    }
    return cursorDue_;
}

bool Stream::step_Locked(int64_t deviceNow) {
    if (!running_) {
        return false;
    }
    const int64_t streamNow = streamNow_Locked(deviceNow);
    const int64_t handOver = streamNow + output_->lookaheadMicros();
    bool progressed = false;
    while (!queue_.empty()) {
        MIDIHDR* h = queue_.front();
        if (!cursorAtRecord_Locked()) {
            // Every record of this buffer is handed over: it is done once the last has played.
            dispatched_.push_back({h, lastDue_});
            queue_.pop_front();
            cursorOffset_ = 0;
            progressed = true;
            continue;
        }
        const int64_t due = cursorDue_Locked();
        if (due > handOver) {
            break;
        }
        const uint32_t event = readU32(h->lpData + cursorOffset_ + 8);
        uint32_t length = sizeof(MIDIEVENT);
        if (event & MEVT_F_LONG) {
            length += (MEVT_EVENTPARM(event) + 3) & ~3u;
        } else if (MEVT_EVENTTYPE(event) == MEVT_SHORTMSG) {
            output_->play(MEVT_EVENTPARM(event), toDevice_Locked(due));
        } else if (MEVT_EVENTTYPE(event) == MEVT_TEMPO) {
            tempo_ = MEVT_EVENTPARM(event);
        }
        lastDue_ = due;
        lastFrac_ = cursorFrac_;
        cursorDueValid_ = false;
        // A long event's parameters may run past the recorded bytes; the buffer then ends here.
        cursorOffset_ = static_cast<uint32_t>(
            std::min<uint64_t>(static_cast<uint64_t>(cursorOffset_) + length, h->dwBytesRecorded));
        progressed = true;
    }
    while (!dispatched_.empty() && dispatched_.front().doneStream <= streamNow) {
        MIDIHDR* h = dispatched_.front().header;
        dispatched_.pop_front();
        h->dwFlags = (h->dwFlags & ~MHDR_INQUEUE) | MHDR_DONE;
        returned_.push_back(h);
        progressed = true;
    }
    return progressed;
}

int64_t Stream::nextDue_Locked() {
    if (!returned_.empty()) {
        return output_->nowMicros();
    }
    if (!running_) {
        return kNever;
    }
    int64_t next = kNever;
    if (!dispatched_.empty()) {
        next = dispatched_.front().doneStream;
    }
    if (!queue_.empty()) {
        const int64_t cursor =
            cursorAtRecord_Locked() ? cursorDue_Locked() - output_->lookaheadMicros() : lastDue_;
        next = std::min(next, cursor);
    }
    return toDevice_Locked(next);
}

int64_t Stream::nextDueMicros() {
    std::lock_guard<std::mutex> guard(mutex_);
    if (exited_) {
        return kNever;
    }
    return nextDue_Locked();
}

void Stream::settle() {
    std::unique_lock<std::mutex> lock(mutex_);
    if (std::this_thread::get_id() == threadId_) {
        return;
    }
    wake_Locked();
    const uint64_t target = wakeSeq_;
    settled_.wait(lock, [&] { return settledSeq_ >= target || exited_; });
}

void Stream::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    const bool virtualTime = output_->virtualTime();
    for (;;) {
        if (!returned_.empty()) {
            MIDIHDR* h = returned_.front();
            returned_.pop_front();
            if (callback_ != nullptr) {
                lock.unlock();
                callback_(static_cast<HMIDIOUT>(static_cast<MidiStreamObject*>(this)), MOM_DONE, instance_,
                          reinterpret_cast<uintptr_t>(h), 0);
                lock.lock();
            }
            continue;
        }
        if (closing_) {
            break;
        }
        const uint64_t seq = wakeSeq_;
        const int64_t now = output_->nowMicros();
        if (step_Locked(now)) {
            continue;
        }
        settledSeq_ = seq;
        settled_.notify_all();
        auto woken = [&] { return wakeSeq_ != seq || closing_; };
        if (virtualTime) {
            wake_.wait(lock, woken);
        } else {
            const int64_t next = nextDue_Locked();
            if (next >= kNever) {
                wake_.wait(lock, woken);  // nothing scheduled: only a call can give work
            } else {
                const int64_t sleep = std::max<int64_t>(0, std::min(next - now, output_->pollMicros()));
                wake_.wait_for(lock, std::chrono::microseconds(sleep), woken);
            }
        }
    }
    exited_ = true;
    settled_.notify_all();
}

}  // namespace midi
}  // namespace lxp
