// A manager for tests of the parts below the concrete manager: it hands out a thread manager and
// refuses everything else.
#ifndef LORVEX_TESTS_SUPPORT_TESTMANAGER_H
#define LORVEX_TESTS_SUPPORT_TESTMANAGER_H

#include "LxManager.h"
#include "LxResult.h"
#include "SettableTimeBase.h"

namespace lxtest {

class TestManager : public LxManager {
  public:
    explicit TestManager(KtThreadManager* tm) : LxManager(tm) {}
    /// A test manager may simply go out of scope: its locks go with it (closeManager, which also
    /// works, clears them first).
    ~TestManager() override {
        delete channelLock;
        delete playerListLock;
    }

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
    long initTimers() override { return LX_ERR_GENERIC; }
    long initAudio() override { return LX_ERR_GENERIC; }
    long initVideo() override { return LX_ERR_GENERIC; }
    long startupChannelType(LxAudioChannelType_s) override { return LX_ERR_GENERIC; }
    long shutdownChannelType(LxAudioChannelType_s) override { return LX_ERR_GENERIC; }
};

/// The manager base with a settable master time base (reading 5000 s, unless withClock is false)
/// and no devices, for tests of what drives players from the scene's clock. Ended with
/// closeManager(), which also deletes the time base, as a host ends its manager.
class SceneManager : public LxManager {
  public:
    explicit SceneManager(KtThreadManager* tm, bool withClock = true)
        : LxManager(tm), clock(withClock ? new SettableTimeBase(this, 5000.0) : nullptr) {
        masterTimeBase = clock;
    }
    SettableTimeBase* clock;

    long createPlayer(LxDataSource*, LxPlayer**) override { return LX_ERR_GENERIC; }
    long getDiagnostics(LxDiagnostics&) override { return LX_ERR_NO_MIXER; }
    long addDefaultAudioRenderer(LxPlayer*) override { return LX_ERR_GENERIC; }
    long addDefaultVideoRenderer(LxPlayer*) override { return LX_ERR_GENERIC; }

  protected:
    long initTimers() override { return LX_OK; }
    long initAudio() override { return LX_OK; }
    long initVideo() override { return LX_OK; }
    long startupChannelType(LxAudioChannelType_s) override { return LX_OK; }
    long shutdownChannelType(LxAudioChannelType_s) override { return LX_OK; }
};

}  // namespace lxtest

#endif
