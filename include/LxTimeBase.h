// LxTimeBase.h - reference time with a tempo, and a timer service on one thread per time base.
#ifndef LX_TIME_BASE_H
#define LX_TIME_BASE_H

#include "Kt.h"
#include "LxApi.h"
#include "LxTime.h"

class LxManager;

/// Called on the time base's timer thread, with no time base lock held.
typedef void (*LxTimerCallback)(unsigned long id, void* userData);

/// One timer. The time base's list owns one reference of every timer in it.
class LX_API LxTimer : public LxRefCount {
  public:
    /// No callback, deadline zero, id 0xFFFFFFFF, no user data.
    LxTimer();
    LxTimer(LxTimerCallback callback, const LxTime& deadline, unsigned long id, void* userData);

    LxTimer* previous;
    LxTimer* next;
    LxTimerCallback callback;
    /// Reference time at which to fire; LxTime::maxTime() for a dormant timer.
    LxTime deadline;
    unsigned long id;
    void* userData;
    /// Set by killTimer while the timer is being served.
    char killed;
    /// Closed while the timer thread serves the timer; a killer on another thread waits for it.
    KtGateLock* gate;

  protected:
    ~LxTimer() override;
};

/// Timers in ascending order of deadline; equal deadlines in the order inserted.
class LX_API LxTimerList {
  public:
    LxTimerList() : first(nullptr) {}
    ~LxTimerList() { removeAll(); }

    char isEmpty() const { return first == nullptr; }
    LxTimer* getFirst() const { return first; }
    /// The first timer with that id, or null.
    LxTimer* get(unsigned long id) const;
    /// Inserts after every timer whose deadline is earlier than or equal to the new one's.
    void insert(LxTimer* timer);
    /// Appends after the last timer.
    void append(LxTimer* timer);
    /// Unlinks the first timer with that id (it is not unref'd).
    void remove(unsigned long id);
    /// Unrefs every timer and empties the list.
    void removeAll();

  private:
    LxTimer* first;
};

/// Reference time and timers. Reference time = (time of day - origin) x tempo + reference origin.
/// A plain LxTimeBase reads a time of day of 0.0 and so never advances; LxWin32TimeBase reads the
/// machine's clock. Tests derive and supply their own getTimeOfDay().
class LX_API LxTimeBase {
  public:
    explicit LxTimeBase(LxManager* manager);
    /// Ends the timer thread (waiting for it) and releases every timer.
    virtual ~LxTimeBase();

    virtual LxTime getRefTime();
    /// Sets a one-shot timer delay from now; its id is stored through id. Returns 1.
    virtual long setTimer(LxTimerCallback callback, const LxTime& delay, unsigned long* id, void* userData);
    /// Moves a timer (pending or dormant) to now + delay. 0x392 for an unknown id.
    virtual long rescheduleTimer(unsigned long id, const LxTime& delay);
    /// Removes a timer. From another thread it returns only when the callback is not running and
    /// will not run again; from the timer's own callback it returns at once. 0x392 for an unknown id.
    virtual long killTimer(unsigned long id);
    /// Rate of reference time against time of day, from now on without a jump. 0x391 below 0.
    virtual long setTempo(float tempo);
    virtual float getTempo();

  protected:
    /// The timer thread's loop.
    virtual void run();
    /// Seconds since an origin of the subclass's choosing (0.0 here).
    virtual double getTimeOfDay();
    virtual void startThread();
    virtual void serviceTimer(LxTimer* timer);
    /// Called with the lock held.
    virtual void removeTimer(LxTimer* timer);

    void lock() { signal.lock(); }
    void unlock() { signal.unlock(); }
    KtResult wait() { return signal.wait(KT_INFINITE); }
    KtResult wait(unsigned long ms) { return signal.wait(ms); }
    void notifyAll() { signal.notifyAll(); }

    static long callRunLoop(void* timeBase);

    /// Ends the timer thread and waits for it (idempotent). A subclass that overrides
    /// getTimeOfDay() calls it first thing in its destructor, so that the thread never calls into a
    /// part of the object that is already gone.
    void shutdownThread();
    /// Reference time at a given time of day, with the lock held.
    LxTime refTimeAt(double timeOfDay);

    LxTime referenceOrigin;
    LxTime timeOfDayOrigin;
    float tempo;
    LxManager* manager;
    KtThread* thread;
    char running;
    char dying;
    LxTimerList* timerList;
    LxTimer* currentTimer;
    KtWaitNotify signal;
    unsigned long lastTimerId;

  private:
    LxTimeBase(const LxTimeBase&) = delete;
    LxTimeBase& operator=(const LxTimeBase&) = delete;
};

/// The time base of a real process: seconds since 1970 from a monotonic high-resolution counter,
/// continuous with the calendar clock when it was constructed (the calendar clock itself when no
/// counter is available).
class LX_API LxWin32TimeBase : public virtual LxTimeBase {
  public:
    explicit LxWin32TimeBase(LxManager* manager);
    ~LxWin32TimeBase() override;

  protected:
    double getTimeOfDay() override;

    int64_t performanceFrequency;
    double timeOffset;
    double fTimeOffset;
    char hasPerformanceCounter;
};

#endif  // LX_TIME_BASE_H
