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

    long startAtTime(LxTime t) override {
        record("start", t);
        state_ = STARTED;
        return LX_OK;
    }
    long stopAtTime(LxTime t) override {
        record("stopAt", t);
        return LX_OK;
    }
    void stop() override {
        calls_->push_back("stop");
        state_ = STOPPED;
    }
    long setRate(float* r) override {
        calls_->push_back("rate " + std::to_string(*r));
        return LX_OK;
    }
    long setMediaTime(LxTime t) override {
        record("media", t);
        return LX_OK;
    }
    long setTimeBase(LxTimeBase* tb) override {
        timeBaseSet = tb;
        return timeBaseResult;
    }
    LxNodeState getState() override { return state_; }
    void setLoop(char loop) override { calls_->push_back(loop ? "loop on" : "loop off"); }
    LxTime getDuration() override { return duration; }
    long getNewAudioPort(LxAudioOutputPort** port) override {
        if (!hasAudio) {
            *port = nullptr;
            return LX_ERR_GENERIC;
        }
        ports.push_back(new FakeAudioPort());
        *port = ports.back();
        return LX_OK;
    }

    void setPlaying(bool playing) { state_ = playing ? STARTED : STOPPED; }
    void run() override {}

    LxTime duration{30, 0};
    bool hasAudio = true;
    long timeBaseResult = LX_OK;
    LxTimeBase* timeBaseSet = nullptr;
    std::vector<FakeAudioPort*> ports;

  private:
    void record(const char* what, const LxTime& t) {
        char buf[64];
        std::snprintf(buf, sizeof buf, "%s %.3f", what, t.getValue());
        calls_->push_back(buf);
    }
    std::vector<std::string>* calls_;
    LxNodeState state_ = STOPPED;
};

}  // namespace lxtest

#endif
