// LxWin32Manager.h - the one concrete manager (LxManager::createManager returns one).
#ifndef LX_WIN32_MANAGER_H
#define LX_WIN32_MANAGER_H

#include "Kt.h"
#include "LxApi.h"
#include "LxManager.h"

#include <cstdint>

class LxDiagnostics;
class LxNode;

class LX_API LxWin32Manager : public LxManager {
  public:
    explicit LxWin32Manager(KtThreadManager* threadManager);
    ~LxWin32Manager() override;

    using LxManager::createPlayer;
    /// The player factory: MIDI content names to the MIDI player, "application/x-sva" to the
    /// optional plug-in, everything else to the filter-graph player when it is usable and to the
    /// WAVE player otherwise. 1 with the player registered, or 0x201.
    long createPlayer(LxDataSource* source, LxPlayer** player) override;
    /// Also keeps the window's handle for the mixer.
    long setWindow(LxWindow* window) override;
    /// 0x2AB before audio is started, else what the mixer fills in.
    long getDiagnostics(LxDiagnostics& diagnostics) override;
    /// Connects the player's unconnected "Audio" output to a new LxWin32AudioRenderer.
    long addDefaultAudioRenderer(LxPlayer* player) override;
    /// Connects the player's unconnected "Video" output to a new LxBaseVideoRenderer.
    long addDefaultVideoRenderer(LxPlayer* player) override;

    /// Whether the filter-graph player is usable (decided when audio starts).
    char isDirectShowAvailable() const { return directShowAvailable; }

    /// Result of the first sound-card test in this process: 0x001 sampled audio works, 0x010 MIDI
    /// works, 0x100 both at once; 0x10000000 until tested. Guarded by exPropsLock.
    static uint32_t exclusivityProperties;
    /// Held around every attempt to open a MIDI stream (created when the library loads).
    static KtMutex* midiAccessMutex;
    /// Guards exclusivityProperties (created when the library loads).
    static KtMutex* exPropsLock;
    /// Forgets the sound-card test so that the next audio start tests again (tests only).
    static void resetExclusivityForTests();

  protected:
    long initTimers() override;
    long initAudio() override;
    long initVideo() override;
    long startupChannelType(LxAudioChannelType_s type) override;
    long shutdownChannelType(LxAudioChannelType_s type) override;
    long initChannelInfo();
    char verifyDshowFilters();

    LxHwnd windowHandle;
    char directShowAvailable;

  private:
    /// The audio sub-system came up completely (also when initVideo started it).
    char audioStarted = 0;
    /// Opens and closes a MIDI stream on the mapper, with midiAccessMutex held; true when it opened.
    bool probeMidiStream();
    /// The player's output of this name when it has one that is not connected yet; null otherwise
    /// (a connected output keeps the renderer it has).
    static LxOutputConnectable* freeOutput(LxPlayer* player, const char* name);
    /// Connects output to the new renderer's input of this name. A renderer the output does not
    /// point at afterwards belongs to nobody and is destroyed here.
    long connectNewRenderer(LxOutputConnectable* output, LxNode* renderer, const char* name);
};

#endif  // LX_WIN32_MANAGER_H
