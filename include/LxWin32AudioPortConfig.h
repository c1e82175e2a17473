// LxWin32AudioPortConfig.h - the parameters of a new mixer port.
#ifndef LX_WIN32_AUDIO_PORT_CONFIG_H
#define LX_WIN32_AUDIO_PORT_CONFIG_H

#include "LxApi.h"
#include "LxFormat.h"

#include <cstdint>

class LX_API LxWin32AudioPortConfig {
  public:
    /// All fields zero (mono, 8-bit, no rate, no buffer, neither streaming nor resident), so that
    /// nothing reads an unset value.
    LxWin32AudioPortConfig();
    LxWin32AudioPortConfig(LxAudioChannels_s channels, LxSampleFormat_s format, float rate,
                           int32_t bufferSize, char isStreaming, char isResident);

    LxAudioChannels_s getChannels() const { return channels; }
    LxSampleFormat_s getFormat() const { return format; }
    /// Samples per second.
    float getRate() const { return rate; }
    /// Bytes of the port's sound buffer.
    int32_t getBufferSize() const { return bufferSize; }
    char getIsStreaming() const { return isStreaming; }
    char getIsResident() const { return isResident; }

    LxAudioChannels_s channels;
    LxSampleFormat_s format;
    float rate;
    int32_t bufferSize;
    char isStreaming;
    char isResident;
};

#endif  // LX_WIN32_AUDIO_PORT_CONFIG_H
