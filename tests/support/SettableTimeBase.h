// A time base whose time of day the test sets: reference time moves only when the test says so.
#ifndef LORVEX_TESTS_SUPPORT_SETTABLETIMEBASE_H
#define LORVEX_TESTS_SUPPORT_SETTABLETIMEBASE_H

#include "LxTimeBase.h"

#include <atomic>
#include <thread>

namespace lxtest {

class SettableTimeBase : public LxTimeBase {
  public:
    explicit SettableTimeBase(LxManager* manager, double startSeconds = 100.0)
        : LxTimeBase(manager), now_(startSeconds), owner_(std::this_thread::get_id()) {}
    ~SettableTimeBase() override { shutdownThread(); }

    void set(double seconds) { now_.store(seconds); }
    void setTimeOfDay(double seconds) { set(seconds); }
    void advance(double seconds) { now_.store(now_.load() + seconds); }
    /// Times another thread than the creating one read the time: the timer thread reads it under
    /// the time base's lock just before it waits for a deadline, so once this has grown, a call
    /// that takes the lock finds the thread waiting.
    int timerThreadReads() const { return otherReads_.load(); }

  protected:
    double getTimeOfDay() override {
        if (std::this_thread::get_id() != owner_) {
            ++otherReads_;
        }
        return now_.load();
    }

  private:
    std::atomic<double> now_;
    const std::thread::id owner_;
    std::atomic<int> otherReads_{0};
};
using StepTimeBase = SettableTimeBase;

}  // namespace lxtest

#endif
