// A small player class for tests of the player framework. Its run loop follows the player thread
// contract; it initialises by itself (UNINITIALIZED -> STOPPED with an initialized event) unless
// told not to, and does on its own thread whatever the test hands it through run().
#ifndef LORVEX_TESTS_SUPPORT_TESTPLAYER_H
#define LORVEX_TESTS_SUPPORT_TESTPLAYER_H

#include "LxConnectable.h"
#include "LxPlayer.h"
#include "LxQueue.h"
#include "LxTimeBase.h"
#include "SettableTimeBase.h"

#include <atomic>
#include <functional>
#include <vector>

namespace lxtest {

/// A settable time base starting at 100 s, whose time set() moves.
class StepTimeBase : public SettableTimeBase {
  public:
    explicit StepTimeBase(LxManager* manager, double startSeconds = 100.0)
        : SettableTimeBase(manager, startSeconds) {}
    void set(double seconds) { setTimeOfDay(seconds); }
};

class TestPlayer : public LxPlayer {
  public:
    struct Options {
        bool startThread = true;
        bool initialize = true;          // reach STOPPED by itself
        LxTime duration = LxTime(2, 0);  // announced when it initialises
        bool audioOutput = true;         // a pull-style "Audio" output
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
    /// The flags of a node's entry, read on the player thread ('-' when it has none).
    struct Flags {
        bool listed = false;
        bool prefetched = false, started = false, ended = false;
    };
    Flags flagsOf(LxNode* node);

    using LxPlayer::catastrophicError;
    using LxPlayer::findAllDownStream;
    void setStartWaitLimit(LxTime t) { startWaitLimit = t; }
    /// Registers a further output, which the player then owns. Player thread (via onPlayerThread)
    /// or before the thread starts.
    void adoptOutput(const char* name, LxOutputConnectable* out);
    /// Waits on the signal, releasing it meanwhile. Only with the signal held (on the player
    /// thread inside onPlayerThread).
    KtResult waitOnSignal(unsigned long ms) { return signal.wait(ms); }
    /// Requests waiting in the API queue.
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
