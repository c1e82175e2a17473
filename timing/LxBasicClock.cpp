// LxBasicClock: media time = origin + (reference time - start) x rate, with a stop time.
#include "LxClock.h"

#include "LxResult.h"
#include "LxTimeBase.h"

LxBasicClock::LxBasicClock()
    : timeBase(nullptr),
      startOffset(),
      mediaOrigin(),
      rate(1.0f),
      running(0),
      stopTimeSet(0),
      stopTime(LxTime::maxTime()) {}

long LxBasicClock::guard() {
    if (running && stopTimeSet) {
        getTime();  // gives a stop time that has passed the chance to stop the clock
    }
    return running ? LX_ERR_CLOCK_RUNNING : LX_OK;
}

LxTime LxBasicClock::getTime() {
    // Without a time base the clock cannot read reference time; it then reports its origin, as a
    // stopped clock does.
    if (timeBase == nullptr) {
        return mediaOrigin;
    }
    const LxTime now = timeBase->getRefTime();
    if (!running) {
        return mediaOrigin;
    }
    if (stopTimeSet && now >= stopTime) {
        mediaOrigin = (stopTime + startOffset) * static_cast<double>(rate) + mediaOrigin;
        running = 0;
        return mediaOrigin;
    }
    return (now + startOffset) * static_cast<double>(rate) + mediaOrigin;
}

long LxBasicClock::startAtTime(LxTime refTime) {
    if (guard() != LX_OK) {
        return LX_ERR_CLOCK_RUNNING;
    }
    running = 1;
    startOffset = -refTime;
    return LX_OK;
}

long LxBasicClock::stopAtTime(LxTime refTime) {
    if (running && stopTimeSet) {
        getTime();
    }
    if (!running) {
        stopTime = refTime;
        stopTimeSet = !(refTime == LxTime::maxTime());
        return LX_OK;
    }
    if (refTime == LxTime::maxTime()) {
        return LX_OK;  // a running clock keeps an earlier stop time
    }
    const LxTime media = getTime();
    stopTime = refTime;
    stopTimeSet = 1;
    const LxTime now = timeBase != nullptr ? timeBase->getRefTime() : LxTime::zero();
    if (!(refTime > now)) {
        mediaOrigin = media;
        running = 0;
    }
    return LX_OK;
}

void LxBasicClock::stop() {
    const LxTime t = getTime();
    if (!running) {
        return;
    }
    if ((rate > 0 && t > mediaOrigin) || (rate < 0 && t < mediaOrigin)) {
        mediaOrigin = t;
    }
    running = 0;
}

long LxBasicClock::setRate(float* newRate) {
    if (guard() != LX_OK) {
        return LX_ERR_CLOCK_RUNNING;
    }
    if (newRate != nullptr) {
        rate = *newRate;
    }
    return LX_OK;
}

long LxBasicClock::setMediaTime(LxTime mediaTime) {
    if (guard() != LX_OK) {
        return LX_ERR_CLOCK_RUNNING;
    }
    mediaOrigin = mediaTime;
    return LX_OK;
}

LxTime LxBasicClock::getMediaTime() {
    const LxTime t = getTime();
    if ((rate > 0 && t < mediaOrigin) || (rate < 0 && t > mediaOrigin)) {
        return mediaOrigin;
    }
    return t;
}

LxTime LxBasicClock::getSyncTime() {
    return getTime();
}

long LxBasicClock::setTimeBase(LxTimeBase* tb) {
    if (guard() != LX_OK) {
        return LX_ERR_CLOCK_RUNNING;
    }
    timeBase = tb;
    return LX_OK;
}
