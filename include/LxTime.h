// LxTime.h - the library's time value, and LxRefCount, the intrusive reference count.
#ifndef LX_TIME_H
#define LX_TIME_H

#include "LxApi.h"

#include <atomic>
#include <cstdint>

/// A time of two signed 32-bit fields, whole seconds and microseconds, passed by value.
///
/// Two forms occur. The normal (floor) form keeps 0 <= microseconds <= 999999 with the sign in the
/// seconds: -0.25 s is (-1, 750000); the double constructor, unary minus, * and / produce it. The
/// sign-and-magnitude form has both fields <= 0: -0.25 s is (0, -250000); setValue(double) and the
/// two-operand minus produce it for negative results. getValue() and getMsecValue() read both forms;
/// comparisons compare the fields and so tell the two forms of one value apart.
class LX_API LxTime {
  public:
    LxTime() : sec_(0), usec_(0) {}
    /// Stores both fields as given (no normalisation).
    LxTime(int32_t sec, int32_t usec) : sec_(sec), usec_(usec) {}
    /// Normal form; the microseconds are rounded to nearest (1.0000005 -> (1, 1)). No carry is made,
    /// so a fraction of 0.9999995 or more gives 1000000 microseconds.
    explicit LxTime(double seconds);

    /// Stores both fields as given.
    void setValue(int32_t sec, int32_t usec) {
        sec_ = sec;
        usec_ = usec;
    }
    /// Truncates: seconds = trunc(d), microseconds = trunc((d - seconds) * 1e6); negative values
    /// give the sign-and-magnitude form.
    void setValue(double seconds);

    double getValue() const { return usec_ * 0.000001 + sec_; }
    /// seconds * 1000 + microseconds / 1000, computed in 32 bits; a negative time wraps, and
    /// maxTime() gives 0xFFFFFFFF, the thread services' unlimited wait.
    uint32_t getMsecValue() const;

    int32_t sec() const { return sec_; }
    int32_t usec() const { return usec_; }

    static LxTime zero() { return LxTime(0, 0); }
    /// (2147483647, 999999): no limit, wherever a time bounds something.
    static LxTime maxTime() { return LxTime(2147483647, 999999); }

    int operator==(const LxTime& o) const { return sec_ == o.sec_ && usec_ == o.usec_; }
    int operator!=(const LxTime& o) const { return !(*this == o); }
    char operator<(const LxTime& o) const { return sec_ < o.sec_ || (sec_ == o.sec_ && usec_ < o.usec_); }
    char operator>(const LxTime& o) const { return o < *this; }
    char operator<=(const LxTime& o) const { return !(o < *this); }
    char operator>=(const LxTime& o) const { return !(*this < o); }

    /// Normal-form negation: (s, 0) -> (-s, 0); (s, u) -> (-s - 1, 1000000 - u).
    LxTime operator-() const;

  private:
    int32_t sec_;
    int32_t usec_;
};

/// Adds fields, with one carry when the microseconds reach 1000000.
LX_API LxTime operator+(const LxTime& a, const LxTime& b);
/// Subtracts fields, borrowing while the microseconds are negative and the seconds positive.
LX_API LxTime operator-(const LxTime& a, const LxTime& b);
LX_API LxTime operator*(const LxTime& t, double factor);
LX_API LxTime operator*(double factor, const LxTime& t);
LX_API LxTime operator/(const LxTime& t, double divisor);

/// Intrusive reference count: starts at 1 for the creator; the last unref destroys the object.
/// ref and unref are atomic, because one event can be released by two threads at once.
class LX_API LxRefCount {
  public:
    LxRefCount() : count_(1) {}
    /// A copy starts with the source's count, not 1.
    LxRefCount(const LxRefCount& other) : count_(other.count_.load()) {}
    LxRefCount& operator=(const LxRefCount& other) {
        count_.store(other.count_.load());
        return *this;
    }

    /// Adds a holder; returns the new count.
    virtual unsigned long ref();
    /// Removes a holder; at zero destroys the object and returns 0, else returns the new count.
    virtual unsigned long unref();

    /// The current count (for diagnostics and tests; it may change at once in another thread).
    unsigned long refCount() const { return count_.load(); }

  protected:
    virtual ~LxRefCount() {}

  private:
    std::atomic<uint32_t> count_;
};

#endif  // LX_TIME_H
