// Helpers shared by the mixer's source files (not installed).
#ifndef LORVEX_AUDIO_MIXER_INTERNAL_H
#define LORVEX_AUDIO_MIXER_INTERNAL_H

#include "Kt.h"

#include <cmath>
#include <cstdint>

namespace lxmixer {

/// The mixer's enumeration gate (null after the library unloads).
KtGateLock* enumGate();

/// Holds a KtMutex (none for a null one) for a scope, like KtScopedLock; a KtScopedUnlock<Hold>
/// lets it go for a sleep in between.
class Hold {
  public:
    explicit Hold(KtMutex* m) : m_(m), held_(false) { lock(); }
    ~Hold() { unlock(); }
    bool valid() const { return m_ != nullptr; }
    void unlock() {
        if (held_) {
            held_ = false;
            m_->unlock();
        }
    }
    void lock() {
        if (m_ != nullptr && !held_) {
            m_->lock();
            held_ = true;
        }
    }

  private:
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;
    KtMutex* m_;
    bool held_;
};

/// A frequency in Hz from a float product, truncated; out-of-range values saturate so that the
/// device refuses them instead of the conversion being undefined (0 and below, or not a number,
/// give 0).
inline uint32_t frequencyOf(double hz) {
    if (!(hz > 0.0)) {
        return 0;
    }
    return hz >= 4294967295.0 ? 0xFFFFFFFFu : static_cast<uint32_t>(hz);
}

/// Whole samples per second of a port's rate.
inline uint32_t wholeRate(float rate) {
    return frequencyOf(rate);
}

}  // namespace lxmixer

#endif
