// LxVrmlSupport.h - the VRML time-dependent node semantics on top of a player.
//
// A host scene node (AudioClip, MovieTexture) owns one LxVrmlSupport for its clip. It keeps the
// node's timing fields, lets the host change several of them as one batch, and turns the result
// into player requests: where in the media the clip must be now (a clip whose start lies in the
// past joins in at the right place, wrapped by its duration when it loops), the manager's start-up
// latency, start, stop and repositioning. It also hands each Sound node that plays the clip an
// audio output port, keeping spare ports silent.
#ifndef LX_VRML_SUPPORT_H
#define LX_VRML_SUPPORT_H

#include "Kt.h"
#include "LxApi.h"
#include "LxTime.h"

class LxAudioOutputPort;
class LxManager;
class LxPlayer;
class LxVideoRenderer;

/// The timing fields of one time-dependent node.
class LX_API LxMediaInfo {
  public:
    /// startTime zero, stopTime LxTime::maxTime(), loop off, rate 1.0, duration -1 s (unknown).
    LxMediaInfo();
    LxMediaInfo(LxTime startTime, LxTime stopTime, char loop, float rate, LxTime duration);
    ~LxMediaInfo() {}

    /// VRML startTime, on the master time base's reference time scale.
    LxTime startTime;
    /// VRML stopTime; a stop time not after the start time means none.
    LxTime stopTime;
    char loop;
    float rate;
    /// The clip's duration; -1 s until the player reports it.
    LxTime duration;

  protected:
    void initMediaInfo(LxTime startTime, LxTime stopTime, char loop, float rate, LxTime duration);
};

/// Implemented by the host's Sound node: told which audio output port it controls from now on
/// (gain, location, priority ...), or null when the port goes away.
class LX_API LxSoundNodeNotifier {
  public:
    LxSoundNodeNotifier() {}
    LxSoundNodeNotifier(const LxSoundNodeNotifier&) {}
    virtual void audioPortChanged(LxAudioOutputPort* port) = 0;
};

/// Every operation may be called from any thread, a listener of its own player included (which
/// may also destroy the player through it). The host's notifiers and the manager's destroyPlayer
/// are called with no lock of this object held.
class LX_API LxVrmlSupport {
  public:
    enum { CHANGED_START_TIME = 1, CHANGED_STOP_TIME = 2, CHANGED_LOOP = 4, CHANGED_RATE = 8 };

    LxVrmlSupport(LxPlayer* player, LxManager* manager);
    explicit LxVrmlSupport(LxManager* manager);
    /// Destroys the player through the manager; the notifiers are not called.
    ~LxVrmlSupport();

    void setPlayer(LxPlayer* player);
    LxPlayer* getPlayer();

    /// Called by the host once the player has initialised: connects its outputs, gives it the
    /// master time base, reads its duration, hands ports to the sound nodes and applies fields
    /// set before. 1, 0x2A3 when the outputs cannot be connected, or the time base's refusal.
    long finishInitializingPlayer();
    /// While off, field changes only accumulate; turning it on applies them at once.
    long setPlayerControl(char on);
    /// Tells every sound node its port is gone and destroys the player through the manager.
    long destroyPlayer();

    /// Starts a batch of field changes; `now` is the browser's time of the event cascade.
    void beginChangingFields();
    void beginChangingFields(const LxTime& now);
    void setStartTime(LxTime startTime);
    void setStopTime(LxTime stopTime);
    void setLoop(char loop);
    void setRate(float rate);
    /// Applies the batch: loop, rate, stop time, start time, in that order.
    void doneChangingFields();

    LxTime getStartTime();
    LxTime getStopTime();
    char getLoop();
    float getRate();

    /// Stops the player when it is ready.
    void stop();

    long addSoundNode(LxSoundNodeNotifier* notifier);
    long removeSoundNode(LxSoundNodeNotifier* notifier);
    LxVideoRenderer* getVideoRenderer();

  protected:
    /// A new port of the player, set silent. Called with the lock held.
    long getAudioPort(LxAudioOutputPort** port);
    /// The timing rules; applies changedFields when the player is ready and under control.
    void recalculateMediaInfo();

  private:
    struct SoundNodeEntry {
        LxSoundNodeNotifier* notifier;
        LxAudioOutputPort* port;
        SoundNodeEntry* next;
    };
    struct FreePortEntry {
        LxAudioOutputPort* port;
        FreePortEntry* next;
    };

    void internalInit(LxManager* manager);

    SoundNodeEntry* soundNodes;
    LxMediaInfo* mediaInfo;
    LxPlayer* player;
    LxManager* manager;
    LxTime now;
    uint32_t changedFields;
    char changingFields;
    char playerReady;
    char playerControl;
    FreePortEntry* freeAudioPorts;
    KtMutex* lock;

    LxVrmlSupport(const LxVrmlSupport&) = delete;
    LxVrmlSupport& operator=(const LxVrmlSupport&) = delete;
};

#endif  // LX_VRML_SUPPORT_H
