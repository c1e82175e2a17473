// A manager for tests of the parts below the concrete manager: it hands out a thread manager and
// refuses everything else.
#ifndef LORVEX_TESTS_SUPPORT_TESTMANAGER_H
#define LORVEX_TESTS_SUPPORT_TESTMANAGER_H

#include "LxManager.h"
#include "LxResult.h"

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

}  // namespace lxtest

#endif
