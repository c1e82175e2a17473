// LxWin32TimeBase: reference time from the machine's clocks, in seconds since 1970.
#include "LxTimeBase.h"

#include "LxLog.h"
#include "platform/clock/LxpClock.h"

LxWin32TimeBase::LxWin32TimeBase(LxManager* owner)
    : LxTimeBase(owner),
      performanceFrequency(0),
      timeOffset(0.0),
      fTimeOffset(0.0),
      hasPerformanceCounter(0) {
    lxp::Clock& clock = lxp::clock();
    const int64_t startTime = clock.calendarSeconds();
    int64_t nowSeconds = 0;
    int32_t nowMillis = 0;
    clock.timeOfDay(&nowSeconds, &nowMillis);
    LxLog::postDebug("LxWin32TimeBase:  lStartTime = %8.3f, now.time = %8.3f\n",
                     static_cast<double>(startTime), static_cast<double>(nowSeconds));
    int64_t counter = 0;
    if (clock.queryPerformanceCounter(&counter) && clock.queryPerformanceFrequency(&performanceFrequency) &&
        performanceFrequency > 0) {
        hasPerformanceCounter = 1;
        // Anchored to the calendar time read just now, milliseconds included, so that reference
        // time starts out equal to the calendar clock rather than up to a second behind it.
        timeOffset = (static_cast<double>(nowSeconds) + nowMillis * 0.001) -
                     static_cast<double>(counter) / static_cast<double>(performanceFrequency);
    } else {
        hasPerformanceCounter = 0;
        fTimeOffset = static_cast<double>(startTime - nowSeconds);
        LxLog::postDebug("LxWin32TimeBase:  fTimeOffset = %8.3f\n", fTimeOffset);
    }
}

LxWin32TimeBase::~LxWin32TimeBase() {
    LxLog::postDebug("LxWin32TimeBase:  destructor\n");
    shutdownThread();
}

double LxWin32TimeBase::getTimeOfDay() {
    lxp::Clock& clock = lxp::clock();
    if (hasPerformanceCounter) {
        int64_t counter = 0;
        clock.queryPerformanceCounter(&counter);
        return static_cast<double>(counter) / static_cast<double>(performanceFrequency) + timeOffset;
    }
    int64_t seconds = 0;
    int32_t millis = 0;
    clock.timeOfDay(&seconds, &millis);
    return millis * 0.001 + fTimeOffset + static_cast<double>(seconds);
}
