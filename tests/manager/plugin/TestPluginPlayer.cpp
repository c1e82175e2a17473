// A stand-in for the optional plug-in library: it exports "CreatePlayer" and makes a small player
// that initialises by itself (no media of its own), so the factory's plug-in path can be tested.
#include "LxEvent.h"
#include "LxPlayer.h"
#include "LxQueue.h"

namespace {

class PluginPlayer : public LxPlayer {
  public:
    PluginPlayer(LxManager* manager, LxDataSource* source) : LxPlayer(manager, source) { startThread(entry); }
    ~PluginPlayer() override { waitAndShutdown(); }

  protected:
    static long entry(void* self) {
        static_cast<PluginPlayer*>(self)->run();
        return 0;
    }

    void run() override {
        for (;;) {
            if (!beginPass(getCurrentState() == UNINITIALIZED ? 0 : KT_INFINITE)) {
                break;
            }
            KtScopedLock<KtWaitNotify> guard(signal);
            if (getCurrentState() == UNINITIALIZED) {
                setCurrentState(INITIALIZING);
                postEvent(new LxInitializedEvent(this, 0xE1));
                setCurrentState(STOPPED);
            }
        }
        endRun();
    }
};

}  // namespace

// The plug-in's entry point, with C linkage so that it is found by its plain name.
extern "C" LxPlayer* CreatePlayer(LxManager* manager, LxDataSource* source) {
    return new PluginPlayer(manager, source);
}
