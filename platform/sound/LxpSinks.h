// Output sinks of the sound engine (internal to platform/sound). Each factory makes one sink; the
// classes live in their .cpp files.
#ifndef LORVEX_PLATFORM_SOUND_SINKS_H
#define LORVEX_PLATFORM_SOUND_SINKS_H

#include "platform/sound/LxpSoundEngine.h"

#include <memory>
#include <string>

namespace lxp {
namespace sound {

/// Writes exactly what would be heard into a 16-bit (or 8-bit) PCM WAV file at path, paced in real
/// time. The first start of the output creates the file; later starts append to it, and every stop
/// leaves a complete file. When the file cannot be created the output is still paced and the
/// samples are dropped.
std::unique_ptr<Sink> makeWavSink(const std::string& path);

/// Drops every sample, paced in real time.
std::unique_ptr<Sink> makeNullSink();

/// Plays on the ALSA PCM device (empty name: "default"), opened now, without waiting for a busy
/// device. When the device cannot be opened the output falls back to a null sink paced in real
/// time, and describe() says so; failed() tells it for a device asked for by a name other than
/// "default". Built without ALSA, it is always that fallback.
std::unique_ptr<Sink> makeAlsaSink(const std::string& device);

/// Holds the engine to real time: blocks of frames at rate are let through no earlier than their
/// start time (less lead seconds). A caller that fell far behind starts a new schedule instead of
/// rushing to catch up.
class RealTimePacer {
  public:
    void pace(uint32_t frames, uint32_t rate, double leadSeconds);
    void restart() { scheduled_ = 0; }

  private:
    int64_t startNanos_ = 0;
    uint64_t scheduled_ = 0;
    uint32_t rate_ = 0;
};

}  // namespace sound
}  // namespace lxp

#endif
