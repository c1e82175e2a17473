// LxWin32AudioPortData.h - the mixer's record of one port.
#ifndef LX_WIN32_AUDIO_PORT_DATA_H
#define LX_WIN32_AUDIO_PORT_DATA_H

#include "LxApi.h"
#include "LxFormat.h"
#include "LxWin32AudioPortConfig.h"

#include <atomic>
#include <cstdint>

namespace lxp {
class IDirectSoundBuffer;
class IDirectSound3DBuffer;
}  // namespace lxp

/// masterPort of a port that owns its buffer.
constexpr int16_t LX_PORT_OWNS_BUFFER = -41;
/// A free entry of a master's duplicates list.
constexpr int16_t LX_NO_DUPLICATE = -42;
constexpr int LX_MAX_DUPLICATES = 32;

/// One port of the mixer. Guarded by the port's slot lock, except where a field says otherwise.
class LX_API LxWin32AudioPortData {
  public:
    /// A record as openPort makes it from config.
    explicit LxWin32AudioPortData(const LxWin32AudioPortConfig& config);
    ~LxWin32AudioPortData() {}

    /// Sampling rate of the port's samples.
    float rate;
    LxAudioChannels_s channels;
    LxSampleFormat_s format;
    /// Byte offset in the sound buffer where the next write goes.
    int32_t writePosition;
    /// Playback speed factor: the buffer plays at tempo x rate.
    float tempo;
    /// Linear gain 0..1, and the same as attenuation in hundredths of a decibel.
    float gain;
    int32_t volume;
    /// -1 (left) .. 1 (right), and the same in DirectSound units.
    float pan;
    int32_t panValue;
    int32_t bufferSize;
    /// The buffer format's average bytes per second; 0 until the buffer is created.
    int32_t bytesPerSecond;
    int16_t bytesPerFrame;
    /// Owned. Written under both the slot lock and the mixer lock, so either lock reads it safely.
    lxp::IDirectSoundBuffer* soundBuffer;
    /// Present only while the mixer works in 3D; owned like soundBuffer.
    lxp::IDirectSound3DBuffer* buffer3D;
    /// Position for 3D, stored with z negated.
    float location[3];
    float priority;
    char spatialize;
    /// The next write starts again at offset 0 of the buffer.
    char needsReset;
    /// The buffer has been started. Group operations on the master set it for every duplicate
    /// without the duplicates' slot locks, hence atomic.
    std::atomic<char> playing;
    char isStreaming;
    char isResident;
    /// The port holds no channel.
    char noChannel;
    /// The port was last started looping.
    char looping;
    /// When the next start of the port (or of its group, started through it) is to be heard:
    /// microseconds of the process clock's counter, 0 for at once. Cleared by that start and by
    /// a stop; a group start clears its duplicates' without their slot locks, hence atomic.
    std::atomic<int64_t> startAt{0};
    /// LX_PORT_OWNS_BUFFER, or the port whose buffer this one duplicates. Changed under the mixer lock.
    int16_t masterPort;
    /// Ports duplicating this one's buffer; LX_NO_DUPLICATE marks a free entry, used entries come
    /// first. Changed under this port's slot lock and the mixer lock.
    int16_t duplicates[LX_MAX_DUPLICATES];

  private:
    LxWin32AudioPortData(const LxWin32AudioPortData&) = delete;
    LxWin32AudioPortData& operator=(const LxWin32AudioPortData&) = delete;
};

#endif  // LX_WIN32_AUDIO_PORT_DATA_H
