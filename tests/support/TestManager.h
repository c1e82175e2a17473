// Managers for tests of the parts below the concrete manager: no devices, no players of their own.
#ifndef LORVEX_TESTS_SUPPORT_TESTMANAGER_H
#define LORVEX_TESTS_SUPPORT_TESTMANAGER_H

#include "LxManager.h"
#include "LxResult.h"
#include "SettableTimeBase.h"

namespace lxtest {

/// The manager base whose subsystems and channel types all answer `starts` when started.
class StubManager : public LxManager {
  public:
    StubManager(KtThreadManager* tm, long starts) : LxManager(tm), starts_(starts) {}

    long createPlayer(LxDataSource*, LxPlayer** player) override {
        if (player != nullptr) {
            *player = nullptr;
        }
        return LX_ERR_GENERIC;
    }
    long getDiagnostics(LxDiagnostics&) override { return LX_ERR_NO_MIXER; }
    long addDefaultAudioRenderer(LxPlayer*) override { return LX_ERR_GENERIC; }
    long addDefaultVideoRenderer(LxPlayer*) override { return LX_ERR_GENERIC; }

  protected:
    long initTimers() override { return starts_; }
    long initAudio() override { return starts_; }
    long initVideo() override { return starts_; }
    long startupChannelType(LxAudioChannelType_s) override { return starts_; }
    long shutdownChannelType(LxAudioChannelType_s) override { return starts_; }

  private:
    const long starts_;
};

/// Hands out a thread manager and refuses everything else.
class TestManager : public StubManager {
  public:
    explicit TestManager(KtThreadManager* tm) : StubManager(tm, LX_ERR_GENERIC) {}
    /// A test manager may simply go out of scope: its locks go with it (closeManager, which also
    /// works, clears them first).
    ~TestManager() override {
        delete channelLock;
        delete playerListLock;
    }
};

/// Starts everything, with a settable master time base (reading 5000 s, unless withClock is false),
/// for tests of what drives players from the scene's clock. Ended with closeManager(), which also
/// deletes the time base, as a host ends its manager.
class SceneManager : public StubManager {
  public:
    explicit SceneManager(KtThreadManager* tm, bool withClock = true)
        : StubManager(tm, LX_OK), clock(withClock ? new SettableTimeBase(this, 5000.0) : nullptr) {
        masterTimeBase = clock;
    }
    SettableTimeBase* clock;
};

}  // namespace lxtest

#endif
