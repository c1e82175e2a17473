// An audio output port whose priority, gain and type the test sets; it counts the channel grants
// and revocations it receives and can be told to refuse them.
#ifndef LORVEX_TESTS_SUPPORT_FAKEAUDIOPORT_H
#define LORVEX_TESTS_SUPPORT_FAKEAUDIOPORT_H

#include "LxAudioOutputPort.h"
#include "LxResult.h"

#include <algorithm>
#include <atomic>

namespace lxtest {

class FakeAudioPort : public LxAudioOutputPort {
  public:
    explicit FakeAudioPort(LxAudioChannelType_s type = LxRawChannel, float priority = 0.5f, float gain = 1.0f)
        : priority_(priority), gain_(gain) {
        channelType = type;
    }

    long setSoundLocation(const float* xyz) override {
        std::copy(xyz, xyz + 3, location_);
        return LX_OK;
    }
    const float* getLocation() const override { return location_; }
    long setGain(float gain) override { return set(gain_, gain); }
    float getGain() const override { return gain_; }
    long setPan(float pan) override { return set(pan_, pan); }
    float getPan() const override { return pan_; }
    long setPriority(float priority) override { return set(priority_, priority); }
    float getPriority() const override { return priority_; }
    long setSpatialize(char on) override { return set(spatialize_, on); }
    char getSpatialize() const override { return spatialize_; }

    long grantChannel() override {
        ++grants;
        return hold(1);
    }
    long revokeChannel() override {
        ++revokes;
        return hold(0);
    }

    std::atomic<int> grants{0};
    std::atomic<int> revokes{0};
    bool refuse = false;

  private:
    long hold(char held) {
        if (refuse) {
            return LX_ERR_GENERIC;
        }
        channelHeld = held;
        return LX_OK;
    }
    template <class T>
    static long set(T& field, T value) {
        field = value;
        return LX_OK;
    }
    float priority_;
    float gain_;
    float pan_ = 0.0f;
    float location_[3] = {0, 0, 0};
    char spatialize_ = 1;
};

}  // namespace lxtest

#endif
