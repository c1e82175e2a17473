// A player for tests of the player framework. Its run loop follows the player thread contract; it
// initialises by itself (UNINITIALIZED -> STOPPED, announcing its duration) unless told not to, and
// runs on its thread whatever the test hands it.
#ifndef LORVEX_TESTS_SUPPORT_TESTPLAYER_H
#define LORVEX_TESTS_SUPPORT_TESTPLAYER_H

#include "LxConnectable.h"
#include "LxPlayer.h"
#include "LxQueue.h"
#include "LxTimeBase.h"
#include "SettableTimeBase.h"

#include <functional>
#include <vector>

namespace lxtest {

class TestPlayer : public LxPlayer {
  public:
    struct Options {
        bool startThread = true;
        bool initialize = true;
        LxTime duration = LxTime(2, 0);
        bool audioOutput = true;  // a pull-style "Audio" output
    };

    explicit TestPlayer(LxManager* manager) : TestPlayer(manager, Options()) {}
    TestPlayer(LxManager* manager, const Options& options);
    ~TestPlayer() override;

    /// Runs fn on the player thread with the signal held, between two passes of the loop, and
    /// waits until it has run (false when the player could not run it: dead or without thread).
    bool onPlayerThread(const std::function<void()>& fn);
    /// The player's own source has reached its end (handleEOM(this)) or its stop time.
    void reachOwnEnd();
    void reachOwnStopTime();
    LxAudioOutputConnectable* audioOutput() { return audio_; }
    struct Flags {
        bool started = false, ended = false;
    };
    /// The flags of a node's entry, read on the player thread.
    Flags flagsOf(LxNode* node);

    using LxPlayer::catastrophicError;
    void setStartWaitLimit(LxTime t) { startWaitLimit = t; }
    /// Registers a further output, which the player then owns. On the player thread, or before it
    /// starts.
    void adoptOutput(const char* name, LxOutputConnectable* out);
    /// Waits on the signal, releasing it meanwhile. On the player thread inside onPlayerThread.
    KtResult waitOnSignal(unsigned long ms) { return signal.wait(ms); }
    short queuedRequests() { return apiQueue->length(); }
    char threadIsRunning() {
        KtScopedLock<KtWaitNotify> guard(signal);
        return threadRunning;
    }

    static long entry(void* player);

  protected:
    void run() override;
    void shutdown() override;
    void handleNodeEvent(LxEvent* event) override;

  private:
    Options options_;
    LxAudioOutputConnectable* audio_ = nullptr;
    std::vector<LxOutputConnectable*> adopted_;
};

}  // namespace lxtest

#endif
