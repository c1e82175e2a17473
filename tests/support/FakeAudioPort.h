// An audio output port whose priority, gain and type the test sets; it counts the channel grants
// and revocations it receives and can be told to refuse them.
#ifndef LORVEX_TESTS_SUPPORT_FAKEAUDIOPORT_H
#define LORVEX_TESTS_SUPPORT_FAKEAUDIOPORT_H

#include "LxAudioOutputPort.h"
#include "LxResult.h"

#include <atomic>

namespace lxtest {

class FakeAudioPort : public LxAudioOutputPort {
  public:
    explicit FakeAudioPort(LxAudioChannelType_s type = LxRawChannel, float priority = 0.5f, float gain = 1.0f)
        : priority_(priority), gain_(gain) {
        channelType = type;
    }

    long setSoundLocation(const float* xyz) override {
        for (int i = 0; i < 3; ++i) {
            location_[i] = xyz[i];
        }
        return LX_OK;
    }
    const float* getLocation() const override { return location_; }
    long setGain(float gain) override {
        gain_ = gain;
        return LX_OK;
    }
    long setPan(float pan) override {
        pan_ = pan;
        return LX_OK;
    }
    float getPan() const override { return pan_; }
    float getGain() const override { return gain_; }
    long setPriority(float priority) override {
        priority_ = priority;
        return LX_OK;
    }
    float getPriority() const override { return priority_; }
    long setSpatialize(char on) override {
        spatialize_ = on;
        return LX_OK;
    }
    char getSpatialize() const override { return spatialize_; }

    long grantChannel() override {
        ++grants;
        if (refuse) {
            return LX_ERR_GENERIC;
        }
        channelHeld = 1;
        return LX_OK;
    }
    long revokeChannel() override {
        ++revokes;
        if (refuse) {
            return LX_ERR_GENERIC;
        }
        channelHeld = 0;
        return LX_OK;
    }

    std::atomic<int> grants{0};
    std::atomic<int> revokes{0};
    bool refuse = false;

  private:
    float priority_;
    float gain_;
    float pan_ = 0.0f;
    float location_[3] = {0, 0, 0};
    char spatialize_ = 1;
};

}  // namespace lxtest

#endif
