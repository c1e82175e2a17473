// LxClock.h - media clocks: reference time of a time base mapped onto a clip's media time.
#ifndef LX_CLOCK_H
#define LX_CLOCK_H

#include "LxApi.h"
#include "LxTime.h"

class LxTimeBase;

/// A media clock: started at a reference time, it runs at a rate from a media-time origin, and can
/// be stopped at once or at a reference time. While it runs, its rate, origin, start time and time
/// base cannot change (0x251). Not thread-safe: its owner calls it under its own lock.
class LX_API LxClock {
  public:
    virtual ~LxClock() {}
    virtual long startAtTime(LxTime refTime) = 0;
    virtual long stopAtTime(LxTime refTime) = 0;
    virtual LxTime getStopTime() = 0;
    virtual void stop() = 0;
    virtual long setRate(float* rate) = 0;
    virtual float getRate() = 0;
    virtual long setMediaTime(LxTime mediaTime) = 0;
    /// Media time, clamped so that before its start a clock reports its origin.
    virtual LxTime getMediaTime() = 0;
    /// Media time without the clamp.
    virtual LxTime getSyncTime() = 0;
    virtual long setTimeBase(LxTimeBase* timeBase) = 0;
    virtual LxTimeBase* getTimeBase() = 0;
};

class LX_API LxBasicClock : public virtual LxClock {
  public:
    LxBasicClock();

    long startAtTime(LxTime refTime) override;
    long stopAtTime(LxTime refTime) override;
    LxTime getStopTime() override { return stopTime; }
    void stop() override;
    long setRate(float* rate) override;
    float getRate() override { return rate; }
    long setMediaTime(LxTime mediaTime) override;
    LxTime getMediaTime() override;
    LxTime getSyncTime() override;
    long setTimeBase(LxTimeBase* tb) override;
    LxTimeBase* getTimeBase() override { return timeBase; }

    /// Whether the clock is running (it may stop by itself at its stop time on the next read).
    char isRunning() const { return running; }

  protected:
    /// Current media time, unclamped; stops the clock when its stop time has been reached.
    LxTime getTime();

    LxTimeBase* timeBase;
    LxTime startOffset;
    LxTime mediaOrigin;
    float rate;
    char running;
    char stopTimeSet;
    LxTime stopTime;

  private:
    /// 0x251 when the clock runs (after giving a passed stop time the chance to stop it), else 1.
    long guard();
};

#endif  // LX_CLOCK_H
