// LxManager.h - the manager interface every part of the library holds a pointer to.
//
// The host creates one manager with LxManager::createManager(), gives it a window, starts the
// sub-systems it wants, creates players through it, and ends it with closeManager(). Players take
// their thread manager from it, renderers and ports ask it for audio channels (both through
// LxManagerServices, by the manager's pointer), scene support reads its start-up latency and
// destroys players through it. Every operation may be called from any thread.
#ifndef LX_MANAGER_H
#define LX_MANAGER_H

#include "Kt.h"
#include "LxApi.h"
#include "LxAudioOutputPort.h"
#include "LxManagerServices.h"
#include "LxMixer.h"
#include "LxTime.h"

#include <cstdint>
#include <list>

class LxTimeBase;
class LxPlayer;
class LxDataSource;
class LxDiagnostics;
class LxFormat;
class LxOutputConnectable;
class LxInputConnectable;

/// Handle of the host's window: an opaque value the host may pass (null when it has none).
typedef void* LxHwnd;

/// Base of window holders.
class LX_API LxWindow {
  public:
    virtual ~LxWindow() {}
};

class LX_API LxWin32Window : public LxWindow {
  public:
    LxWin32Window() : hwnd(nullptr) {}
    explicit LxWin32Window(LxHwnd handle) : hwnd(handle) {}
    LxWin32Window(const LxWin32Window& other) : LxWindow(), hwnd(other.hwnd) {}
    LxHwnd getHwnd() const { return hwnd; }

  private:
    LxHwnd hwnd;
};

/// Sub-system bits of initSubSystem().
constexpr unsigned long INIT_TIMERS = 0x001;
constexpr unsigned long INIT_AUDIO = 0x010;
constexpr unsigned long INIT_VIDEO = 0x100;

/// maxAudioChannels value meaning "no fixed limit" (64 channels).
constexpr short AUTO_MAX_CHANNELS = -1;

/// One registered port in the channel arbitration.
struct LxPortChannelEntry {
    LxAudioOutputPort* port;
    float priority;
    LxTime requestTime;
    float gain;
    char wantsChannel;
};

/// The arbitration's record of one channel type.
struct LxChannelInfo {
    short maxChannels = 0;
    short activeCount = 0;
    /// excludes[u]: this type must not run while type u is started.
    char excludes[2] = {0, 0};
    char started = 0;
    /// Ports that hold a channel, strongest first (a promoted port is appended at the back).
    std::list<LxPortChannelEntry> activePorts;
    /// Ports that want to play and hold no channel.
    std::list<LxPortChannelEntry> waitingPorts;
    /// Registered ports that hold no channel and do not want one.
    std::list<LxPortChannelEntry> inactivePorts;
};

/// One entry of the player registry.
struct LxPlayerListEntry {
    LxPlayer* player;
    LxPlayerListEntry* next;
};

class LX_API LxManager : public LxThreadServices, public LxChannelArbiter {
  public:
    enum LxWindowState { LxWindowStateDefault = 1 };

    static constexpr unsigned long INIT_TIMERS = ::INIT_TIMERS;
    static constexpr unsigned long INIT_AUDIO = ::INIT_AUDIO;
    static constexpr unsigned long INIT_VIDEO = ::INIT_VIDEO;
    static constexpr short AUTO_MAX_CHANNELS = ::AUTO_MAX_CHANNELS;

    /// The one concrete manager (an LxWin32Manager), or null when the thread services are not
    /// compatible with version 1.16 or the manager cannot be allocated.
    static LxManager* createManager(KtThreadManager* threadManager);

    virtual ~LxManager();

    virtual long initSubSystem(unsigned long flags);
    /// Shuts everything down and destroys the manager itself.
    virtual void closeManager();
    virtual long setWindow(LxWindow* window);
    virtual long setWindowState(LxManager::LxWindowState state);
    virtual LxManager::LxWindowState getWindowState();
    virtual long createPlayer(LxDataSource* source, LxPlayer** player) = 0;
    /// Creation by URL is not offered: the out-parameter becomes null and the result is 0x201.
    virtual long createPlayer(char* url, LxPlayer** player);
    virtual long addPlayer(LxPlayer* player);
    /// Unregisters the player, then stops and deletes it with no manager lock held, so that its
    /// listeners may call the manager meanwhile. Any thread, a listener of that very player
    /// included. 0x2AA when the player is not (or no longer) registered.
    virtual long destroyPlayer(LxPlayer* player);
    virtual long verifyPlayer(LxPlayer* player);
    virtual void useThisDataSourceCreator(long (*creator)(char*, LxDataSource**));
    virtual void suspendAll();
    virtual void resumeAll();
    virtual char isSuspended();
    virtual LxTimeBase* getMasterTimeBase();
    virtual LxMixer* getMixer();
    virtual long setListenerLocation(const float* position, const float* top, const float* front);
    virtual long setAudibleMode(LxAudibleMode_s mode);
    virtual LxAudibleMode_s getAudibleMode();
    virtual long setSpatializeSounds(char on);
    virtual char getSpatializeSounds();
    virtual long setSpeakerConfig(LxSpeakerConfiguration config);
    virtual LxSpeakerConfiguration getSpeakerConfig();
    virtual long setMaxAudioChannels(short channels);
    virtual short getMaxAudioChannels();
    virtual long setStartUpLatency(const LxTime& latency);
    const LxTime& getStartUpLatency() override;
    virtual long getDiagnostics(LxDiagnostics& diagnostics) = 0;
    virtual long connectAllUnconnected(LxPlayer* player);
    virtual long addDefaultAudioRenderer(LxPlayer* player) = 0;
    virtual long addDefaultVideoRenderer(LxPlayer* player) = 0;
    virtual long connect(LxOutputConnectable* output, LxInputConnectable* input);
    long requestPortChannel(LxAudioOutputPort* port, const LxTime& time) override;
    long updatePortChannel(LxAudioOutputPort* port, const LxTime& time, char wantsChannel) override;
    void releasePortChannel(LxAudioOutputPort* port) override;

    /// The thread manager given to createManager(); every object that starts a thread uses it.
    KtThreadManager* getThreadManager() override { return threadManager; }

  protected:
    explicit LxManager(KtThreadManager* threadManager);

    virtual long destroyAllPlayers();
    virtual long initTimers() = 0;
    virtual long initAudio() = 0;
    virtual long initVideo() = 0;
    virtual long updateChannelInfo();
    virtual long deleteChannelInfo();
    virtual long startupChannelType(LxAudioChannelType_s type) = 0;
    virtual long shutdownChannelType(LxAudioChannelType_s type) = 0;
    virtual char excludingChannelActive(LxAudioChannelType_s type, LxAudioChannelType_s& other);
    virtual char excludedChannelWaiting(LxAudioChannelType_s type, LxAudioChannelType_s& other);
    virtual long releaseWaitingPort(LxAudioChannelType_s type);
    virtual LxFormat* findMatchingFormat(LxOutputConnectable* output, LxInputConnectable* input);

    // Arbitration steps, called with channelLock held (types as int: 0 RAW, 1 MIDI).
    /// Takes the weakest active port's channel; it goes to the front of waiting or inactive.
    void demote(int type);
    /// Gives the front waiting port a channel; it goes to the back of the active list.
    void promote(int type);
    /// Gives entry a channel; it is inserted into the active list in precedence order.
    void grant(const LxPortChannelEntry& entry, int type);
    /// Demotes every active port of type.
    void preemptType(int type);
    /// Lets entry of type take over from the excluding type other; true when it got a channel.
    bool switchForEntry(const LxPortChannelEntry& entry, int type, int other);

    char suspended;
    LxTimeBase* masterTimeBase;
    LxMixer* mixer;
    LxWindow* window;
    LxManager::LxWindowState windowState;
    uint32_t initialisedSubSystems;
    KtThreadManager* threadManager;
    LxPlayerListEntry* playerList;
    KtMutex* playerListLock;
    KtMutex* channelLock;
    short maxAudioChannels;
    LxAudibleMode_s audibleMode;
    LxSpeakerConfiguration speakerConfig;
    char spatializeSounds;
    LxChannelInfo channelInfo[2];
    LxTime startUpLatency;

  private:
    LxManager(const LxManager&) = delete;
    LxManager& operator=(const LxManager&) = delete;
};

#endif  // LX_MANAGER_H
