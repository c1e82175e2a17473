#include "platform/clock/LxpClock.h"

#include <atomic>
#include <cerrno>
#include <ctime>

namespace lxp {

namespace {

class SystemClock : public Clock {
  public:
    int64_t calendarSeconds() override { return static_cast<int64_t>(::time(nullptr)); }

    void timeOfDay(int64_t* seconds, int32_t* milliseconds) override {
        timespec ts;
        clock_gettime(CLOCK_REALTIME, &ts);
        *seconds = ts.tv_sec;
        *milliseconds = static_cast<int32_t>(ts.tv_nsec / 1000000);
    }

    bool queryPerformanceCounter(int64_t* count) override {
        timespec ts;
        if (clock_gettime(CLOCK_MONOTONIC, &ts) != 0) {
            return false;
        }
        *count = static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
        return true;
    }

    bool queryPerformanceFrequency(int64_t* frequency) override {
        *frequency = 1000000000LL;
        return true;
    }

    void sleep(uint32_t ms) override {
        timespec ts{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
        while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
        }
    }
};

std::atomic<Clock*> gClock{nullptr};

}  // namespace

Clock& systemClock() {
    static SystemClock* clock = new SystemClock();  // never destroyed: used until the last thread ends
    return *clock;
}

Clock& clock() {
    Clock* c = gClock.load(std::memory_order_acquire);
    return c != nullptr ? *c : systemClock();
}

int64_t clockMicros() {
    Clock& c = clock();
    int64_t count = 0;
    int64_t frequency = 0;
    if (c.queryPerformanceCounter(&count) && c.queryPerformanceFrequency(&frequency) && frequency > 0) {
        return static_cast<int64_t>(static_cast<long double>(count) * 1000000.0L / frequency);
    }
    int64_t s = 0;
    int32_t ms = 0;
    c.timeOfDay(&s, &ms);
    return s * 1000000 + static_cast<int64_t>(ms) * 1000;
}

void setClock(Clock* clock) {
    gClock.store(clock, std::memory_order_release);
}

ManualClock::ManualClock(double startSeconds) : nowMicros_(static_cast<int64_t>(startSeconds * 1e6)) {}

int64_t ManualClock::calendarSeconds() {
    std::lock_guard<std::mutex> guard(mutex_);
    return nowMicros_ / 1000000;
}

void ManualClock::timeOfDay(int64_t* seconds, int32_t* milliseconds) {
    std::lock_guard<std::mutex> guard(mutex_);
    *seconds = nowMicros_ / 1000000;
    *milliseconds = static_cast<int32_t>((nowMicros_ % 1000000) / 1000);
}

bool ManualClock::queryPerformanceCounter(int64_t* count) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (!counterAvailable_) {
        return false;
    }
    *count = nowMicros_;
    return true;
}

bool ManualClock::queryPerformanceFrequency(int64_t* frequency) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (!counterAvailable_) {
        return false;
    }
    *frequency = 1000000;
    return true;
}

void ManualClock::sleep(uint32_t ms) {
    std::unique_lock<std::mutex> lock(mutex_);
    sleptMs_ += ms;
    if (autoAdvance_) {
        nowMicros_ += static_cast<int64_t>(ms) * 1000;
        advanced_.notify_all();
        return;
    }
    const int64_t until = nowMicros_ + static_cast<int64_t>(ms) * 1000;
    ++sleepers_;
    advanced_.wait(lock, [&] { return nowMicros_ >= until || autoAdvance_; });
    --sleepers_;
}

int64_t ManualClock::nowMicros() {
    std::lock_guard<std::mutex> guard(mutex_);
    return nowMicros_;
}

void ManualClock::advanceMicros(int64_t micros) {
    std::lock_guard<std::mutex> guard(mutex_);
    nowMicros_ += micros;
    advanced_.notify_all();
}

void ManualClock::setAutoAdvanceOnSleep(bool autoAdvance) {
    std::lock_guard<std::mutex> guard(mutex_);
    autoAdvance_ = autoAdvance;
    advanced_.notify_all();
}

void ManualClock::setCounterAvailable(bool available) {
    std::lock_guard<std::mutex> guard(mutex_);
    counterAvailable_ = available;
}

uint64_t ManualClock::sleptMs() {
    std::lock_guard<std::mutex> guard(mutex_);
    return sleptMs_;
}

int ManualClock::sleepers() {
    std::lock_guard<std::mutex> guard(mutex_);
    return sleepers_;
}

}  // namespace lxp
