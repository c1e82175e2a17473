// LxManagerServices.h - the two services the manager hands down to the objects built on it.
//
// Time bases, event posters, players and renderers get their LxManager from their constructors
// but live in layers below the manager. What they need of it is small: the thread services every
// thread is started with, and (audio and MIDI ports) the arbitration of audio channels with the
// start-up latency they prepare for. The manager implements both interfaces and registers itself
// as their provider for its own pointer when it is constructed, and withdraws when it is
// destroyed; the objects look the services up by the pointer they were given. Several managers may
// live side by side, each with its own thread services. Every operation may be called from any
// thread.
#ifndef LX_MANAGER_SERVICES_H
#define LX_MANAGER_SERVICES_H

#include "Kt.h"
#include "LxApi.h"

class LxManager;
class LxAudioOutputPort;
class LxTime;

/// Thread services: the KtThreadManager that starts, joins and names the library's threads.
class LX_API LxThreadServices {
  public:
    virtual KtThreadManager* getThreadManager() = 0;

  protected:
    ~LxThreadServices() = default;
};

/// Arbitration of the limited audio channels between the ports that want to play.
class LX_API LxChannelArbiter {
  public:
    virtual long requestPortChannel(LxAudioOutputPort* port, const LxTime& time) = 0;
    virtual long updatePortChannel(LxAudioOutputPort* port, const LxTime& time, char wantsChannel) = 0;
    virtual void releasePortChannel(LxAudioOutputPort* port) = 0;
    /// How late after its start time a clip may begin to sound; a renderer prepares its output at
    /// least this far ahead, so that a port granted a channel is heard on time.
    virtual const LxTime& getStartUpLatency() = 0;

  protected:
    ~LxChannelArbiter() = default;
};

/// Which services each live manager provides, looked up by the manager's pointer.
class LX_API LxManagerServices {
  public:
    /// Registers (or replaces) the providers for owner.
    static void attach(const LxManager* owner, LxThreadServices* threads, LxChannelArbiter* channels);
    /// Forgets owner; later lookups by its pointer give null.
    static void detach(const LxManager* owner);
    /// owner's thread manager; null for a null or unregistered owner or one without threads.
    static KtThreadManager* threadManager(const LxManager* owner);
    /// owner's channel arbitration; null for a null or unregistered owner.
    static LxChannelArbiter* channels(const LxManager* owner);
};

#endif  // LX_MANAGER_SERVICES_H
