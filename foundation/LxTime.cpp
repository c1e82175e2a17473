#include "LxTime.h"

#include <cmath>

namespace {
constexpr int32_t kMicros = 1000000;

// The fields are 32-bit as on the platform the library was designed for; sums that leave that range
// wrap around there, and do the same here instead of being undefined.
int32_t wrap(int64_t v) {
    return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(v)));
}
}  // namespace

LxTime::LxTime(double seconds) {
    if (std::isnan(seconds)) {
        sec_ = 0;
        usec_ = 0;
        return;
    }
    if (seconds < 0) {
        *this = -LxTime(-seconds);
        return;
    }
    if (seconds >= 2147483648.0) {
        // Beyond the 32-bit seconds: saturate at the largest time rather than wrap to a past one.
        *this = maxTime();
        return;
    }
    sec_ = static_cast<int32_t>(seconds);
    usec_ = static_cast<int32_t>((seconds - sec_) * 1000000.0 + 0.5);
}

void LxTime::setValue(double seconds) {
    if (std::isnan(seconds)) {
        sec_ = 0;
        usec_ = 0;
        return;
    }
    if (seconds >= 2147483648.0 || seconds <= -2147483649.0) {
        sec_ = seconds > 0 ? 2147483647 : -2147483647 - 1;
        usec_ = 0;
        return;
    }
    sec_ = static_cast<int32_t>(seconds);
    usec_ = static_cast<int32_t>((seconds - sec_) * 1000000.0);
}

uint32_t LxTime::getMsecValue() const {
    // 32-bit arithmetic with wrap-around, done unsigned to keep the overflow defined.
    return static_cast<uint32_t>(sec_) * 1000u + static_cast<uint32_t>(usec_ / 1000);
}

LxTime LxTime::operator-() const {
    if (usec_ == 0) {
        return LxTime(wrap(-static_cast<int64_t>(sec_)), 0);
    }
    return LxTime(wrap(-static_cast<int64_t>(sec_) - 1), kMicros - usec_);
}

LxTime operator+(const LxTime& a, const LxTime& b) {
    int64_t sec = static_cast<int64_t>(a.sec()) + b.sec();
    int64_t usec = static_cast<int64_t>(a.usec()) + b.usec();
    if (usec >= kMicros) {
        sec += 1;
        usec -= kMicros;
    }
    return LxTime(wrap(sec), wrap(usec));
}

LxTime operator-(const LxTime& a, const LxTime& b) {
    int64_t sec = static_cast<int64_t>(a.sec()) - b.sec();
    int64_t usec = static_cast<int64_t>(a.usec()) - b.usec();
    while (usec < 0 && sec > 0) {
        usec += kMicros;
        sec -= 1;
    }
    return LxTime(wrap(sec), wrap(usec));
}

LxTime operator*(const LxTime& t, double factor) {
    return LxTime(t.getValue() * factor);
}

LxTime operator*(double factor, const LxTime& t) {
    return LxTime(t.getValue() * factor);
}

LxTime operator/(const LxTime& t, double divisor) {
    return t * (1.0 / divisor);
}

unsigned long LxRefCount::ref() {
    return count_.fetch_add(1, std::memory_order_relaxed) + 1;
}

unsigned long LxRefCount::unref() {
    const uint32_t left = count_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left == 0) {
        delete this;
        return 0;
    }
    return left;
}
