// A player that carries out nothing and records the requests it receives, in order, for tests of
// what drives a player (the scene support).
#ifndef LORVEX_TESTS_SUPPORT_RECORDINGPLAYER_H
#define LORVEX_TESTS_SUPPORT_RECORDINGPLAYER_H

#include "FakeAudioPort.h"
#include "LxPlayer.h"
#include "LxResult.h"

#include <cstdio>
#include <string>
#include <vector>

namespace lxtest {

class RecordingPlayer : public LxPlayer {
  public:
    RecordingPlayer(LxManager* m, std::vector<std::string>* calls) : LxPlayer(m, nullptr), calls_(calls) {}
    ~RecordingPlayer() override {
        for (FakeAudioPort* p : ports) {
            delete p;
        }
    }

    long startAtTime(LxTime t) override { return note("start", STARTED, &t); }
    long stopAtTime(LxTime t) override { return note("stopAt", state_, &t); }
    void stop() override { note("stop", STOPPED); }
    long setRate(float* r) override { return note("rate " + std::to_string(*r), state_); }
    long setMediaTime(LxTime t) override { return note("media", state_, &t); }
    long setTimeBase(LxTimeBase* tb) override {
        timeBaseSet = tb;
        return timeBaseResult;
    }
    LxNodeState getState() override { return state_; }
    void setLoop(char loop) override { note(loop ? "loop on" : "loop off", state_); }
    LxTime getDuration() override { return duration; }
    long getNewAudioPort(LxAudioOutputPort** port) override {
        ports.push_back(new FakeAudioPort());
        *port = ports.back();
        return LX_OK;
    }

    void setPlaying(bool playing) { state_ = playing ? STARTED : STOPPED; }
    void run() override {}

    LxTime duration{30, 0};
    long timeBaseResult = LX_OK;
    LxTimeBase* timeBaseSet = nullptr;
    std::vector<FakeAudioPort*> ports;

  private:
    // Records a call, with its time when it has one, and the state it leaves.
    long note(std::string call, LxNodeState state, const LxTime* t = nullptr) {
        if (t != nullptr) {
            char buf[32];
            std::snprintf(buf, sizeof buf, " %.3f", t->getValue());
            call += buf;
        }
        calls_->push_back(call);
        state_ = state;
        return LX_OK;
    }
    std::vector<std::string>* calls_;
    LxNodeState state_ = STOPPED;
};

}  // namespace lxtest

#endif
