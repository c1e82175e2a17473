// LxAudioOutputPort.h - the port every sound goes out through, and the channel types ports
// compete for.
#ifndef LX_AUDIO_OUTPUT_PORT_H
#define LX_AUDIO_OUTPUT_PORT_H

#include "LxApi.h"

/// Which kind of channel a port competes for. 2 stands for "no type" where an operation reports a
/// type through an out-parameter.
enum LxAudioChannelType_s { LxRawChannel = 0, LxMidiChannel = 1 };

/// The per-sound controls scene nodes set, and the channel protocol of the manager's arbitration:
/// the manager calls grantChannel() when it gives the port a channel and revokeChannel() when it
/// takes it away, and ranks ports by getPriority() and getGain().
class LX_API LxAudioOutputPort {
  public:
    LxAudioOutputPort() : channelHeld(0), channelType(LxRawChannel) {}
    LxAudioOutputPort(const LxAudioOutputPort& other)
        : channelHeld(other.channelHeld), channelType(other.channelType) {}
    LxAudioOutputPort& operator=(const LxAudioOutputPort& other) {
        channelHeld = other.channelHeld;
        channelType = other.channelType;
        return *this;
    }
    virtual ~LxAudioOutputPort() {}

    /// Position in the scene's right-handed coordinates (3 floats).
    virtual long setSoundLocation(const float* xyz) = 0;
    virtual const float* getLocation() const = 0;
    /// Linear gain 0..1.
    virtual long setGain(float gain) = 0;
    /// -1 (left) .. 1 (right).
    virtual long setPan(float pan) = 0;
    virtual float getPan() const = 0;
    virtual float getGain() const = 0;
    virtual long setPriority(float priority) = 0;
    virtual float getPriority() const = 0;
    virtual long setSpatialize(char on) = 0;
    virtual char getSpatialize() const = 0;
    /// The port's own record of holding a channel.
    virtual char hasChannel() const { return channelHeld; }
    virtual LxAudioChannelType_s getChannelType() { return channelType; }
    virtual long grantChannel() = 0;
    virtual long revokeChannel() = 0;
    /// 1 while sound sent through this port is still to be heard: scheduled to start, waiting
    /// for a channel, or written and not yet played out (for MIDI, notes and their release tails
    /// still sounding). End of media comes before the last sample is heard, so a host that must
    /// not cut a clip short waits for this to fall to 0 after the end. Any thread; never blocks.
    virtual char isSounding() const { return 0; }

  protected:
    /// Set by a successful grantChannel(), cleared by a successful revokeChannel().
    char channelHeld;
    LxAudioChannelType_s channelType;
};

#endif  // LX_AUDIO_OUTPUT_PORT_H
