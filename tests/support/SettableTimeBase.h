// A time base whose time of day the test sets: reference time moves only when the test says so.
#ifndef LORVEX_TESTS_SUPPORT_SETTABLETIMEBASE_H
#define LORVEX_TESTS_SUPPORT_SETTABLETIMEBASE_H

#include "LxTimeBase.h"

#include <atomic>

namespace lxtest {

class SettableTimeBase : public LxTimeBase {
  public:
    explicit SettableTimeBase(LxManager* manager, double startSeconds = 1000.0)
        : LxTimeBase(manager), now_(startSeconds) {}
    ~SettableTimeBase() override { shutdownThread(); }

    void setTimeOfDay(double seconds) { now_.store(seconds); }
    void advance(double seconds) { now_.store(now_.load() + seconds); }

  protected:
    double getTimeOfDay() override { return now_.load(); }

  private:
    std::atomic<double> now_;
};

}  // namespace lxtest

#endif
