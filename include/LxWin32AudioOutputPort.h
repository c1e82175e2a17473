// LxWin32AudioOutputPort.h - a port of the mixer: a handle holding the mixer and a port number.
#ifndef LX_WIN32_AUDIO_OUTPUT_PORT_H
#define LX_WIN32_AUDIO_OUTPUT_PORT_H

#include "LxApi.h"
#include "LxAudioOutputPort.h"
#include "LxTime.h"
#include "LxWin32AudioPortConfig.h"

#include <cstdint>

class LxWin32Mixer;

/// Every operation forwards to the mixer with the handle's port number; the thread rules are the
/// mixer's (LxWin32Mixer.h). The destructor does not close the mixer's port: the owner calls
/// LxWin32Mixer::closePort.
class LX_API LxWin32AudioOutputPort : public LxAudioOutputPort {
  public:
    LxWin32AudioOutputPort();
    explicit LxWin32AudioOutputPort(LxWin32Mixer* mixer);
    LxWin32AudioOutputPort(const LxWin32AudioOutputPort& other);
    LxWin32AudioOutputPort& operator=(const LxWin32AudioOutputPort& other);
    ~LxWin32AudioOutputPort() override;

    /// Opens a mixer port for config and keeps its number.
    long openPort(LxWin32AudioPortConfig* config);
    /// Opens a port sharing this port's buffer; on success newPort holds its number.
    long duplicatePort(LxWin32AudioOutputPort* newPort);
    void setPortNumber(short port) { portNumber = port; }
    short getPortNumber() const { return portNumber; }
    LxWin32Mixer* getMixer() const { return mixer; }

    // --- LxAudioOutputPort: each forwards to the mixer's port of this number.
    long setSoundLocation(const float* xyz) override;
    const float* getLocation() const override;
    long setGain(float gain) override;
    long setPan(float pan) override;
    float getPan() const override;
    float getGain() const override;
    long setPriority(float priority) override;
    float getPriority() const override;
    long setSpatialize(char on) override;
    char getSpatialize() const override;

    long writeFrames(unsigned char* data, long byteOffset, long frames);
    long writeResidentFrames(unsigned char* data, long byteOffset, long frames);
    long fillSilence(long frames);
    long fillSilence(const LxTime& duration);
    long playPort(char loop);
    /// Plays from byte position (see LxWin32Mixer::playPortFrom).
    long playPortFrom(char loop, long position);
    /// See LxWin32Mixer::scheduleStart.
    long scheduleStart(double seconds);
    /// Stops the port and clears its loop flag.
    void stopPort();
    long discardFrames();
    long getFillable();
    long getFilled();
    long setTempo(float tempo);
    float getTempo();

    /// The manager gives the port a channel: the mixer makes sure its buffer exists.
    long grantChannel() override;
    /// The manager takes the channel away: the buffer stops but keeps its contents.
    long revokeChannel() override;
    /// 1 while the port's buffer plays. Any thread; does not wait for a write in progress.
    char isSounding() const override;

  protected:
    LxWin32Mixer* mixer;
    int16_t portNumber;
};

#endif  // LX_WIN32_AUDIO_OUTPUT_PORT_H
