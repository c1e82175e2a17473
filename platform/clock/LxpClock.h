// The clock layer: time of day, the high-resolution counter and sleeping.
//
// Subsystems read time and sleep only through lxp::clock(). A real process uses the system's
// clocks; tests install a lxp::ManualClock whose time they set and advance.
#ifndef LORVEX_PLATFORM_CLOCK_H
#define LORVEX_PLATFORM_CLOCK_H

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace lxp {

class Clock {
  public:
    virtual ~Clock() {}
    /// Whole seconds since 1970 (the C library's time()).
    virtual int64_t calendarSeconds() = 0;
    /// Seconds since 1970 and the milliseconds within the second (the runtime's _ftime()).
    virtual void timeOfDay(int64_t* seconds, int32_t* milliseconds) = 0;
    /// A monotonic count and its ticks per second; false when there is no such counter.
    virtual bool queryPerformanceCounter(int64_t* count) = 0;
    virtual bool queryPerformanceFrequency(int64_t* frequency) = 0;
    /// Suspends the calling thread for about ms milliseconds.
    virtual void sleep(uint32_t ms) = 0;
};

/// The process's clock: the system clock unless a test or host installed another.
Clock& clock();
/// Microseconds of clock()'s counter, or of its time of day where there is no counter: the unit
/// scheduled sound starts are given in.
int64_t clockMicros();
/// Installs a clock for the whole process (null: back to the system clock). The caller keeps
/// ownership and must keep it alive until it is replaced.
void setClock(Clock* clock);
/// The system clock, whatever is installed.
Clock& systemClock();

/// A clock that moves only when told to. Thread-safe.
///
/// Sleeping either advances the clock by the time slept (auto-advance, the default: a single
/// thread that sleeps runs through virtual time at once) or blocks the sleeper until other threads
/// have advanced the clock far enough.
class ManualClock : public Clock {
  public:
    /// Starts at startSeconds since 1970 with a counter of 1 MHz.
    explicit ManualClock(double startSeconds = 1.0e9);

    int64_t calendarSeconds() override;
    void timeOfDay(int64_t* seconds, int32_t* milliseconds) override;
    bool queryPerformanceCounter(int64_t* count) override;
    bool queryPerformanceFrequency(int64_t* frequency) override;
    void sleep(uint32_t ms) override;

    /// Current time in microseconds since 1970.
    int64_t nowMicros();
    void advanceMicros(int64_t micros);
    void advanceMs(int64_t ms) { advanceMicros(ms * 1000); }

    void setAutoAdvanceOnSleep(bool autoAdvance);
    /// Makes queryPerformanceCounter/Frequency fail (the fallback path of a time base).
    void setCounterAvailable(bool available);
    /// Total milliseconds requested through sleep().
    uint64_t sleptMs();
    /// Threads blocked in sleep() right now. A test that advances the clock after this many are
    /// blocked knows each of them sees the advance (one that read the time and has not slept yet
    /// would otherwise sleep its whole interval from the advanced time).
    int sleepers();

  private:
    std::mutex mutex_;
    std::condition_variable advanced_;
    int64_t nowMicros_;
    bool autoAdvance_ = true;
    bool counterAvailable_ = true;
    uint64_t sleptMs_ = 0;
    int sleepers_ = 0;
};

}  // namespace lxp

#endif
