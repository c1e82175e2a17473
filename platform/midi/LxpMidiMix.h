// Where the MIDI synthesizer's audio goes: the process's sound output mix.
//
// The synthesizer is a source of the sound engine's output mix, so MIDI and sampled audio come
// out of one output (and one WAV file). This is the MIDI layer's narrow view of that mix.
#ifndef LORVEX_PLATFORM_MIDI_MIX_H
#define LORVEX_PLATFORM_MIDI_MIX_H

#include <cstdint>

namespace lxp {
namespace midimix {

/// Something that renders into the output mix.
class Source {
  public:
    virtual ~Source() {}
    /// Adds (never overwrites) frames of audio into interleaved, which has channels channels at
    /// sampleRate. Called on the mixing thread, one call at a time: must not lock or allocate.
    virtual void mixInto(float* interleaved, uint32_t frames, uint32_t channels, uint32_t sampleRate) = 0;
};

/// Adds a source to the output mix, starting the output when needed; false when there is none.
/// Control threads.
bool add(Source* source);
/// Removes a source; once this returns its mixInto is not running and is not called again.
void remove(Source* source);
/// The output mix's sample rate, for a source that prepares itself before the first mixInto.
uint32_t sampleRate();

/// Mixes every added source into interleaved, as the output engine does once per period. For
/// tests that drive the mix themselves.
void pull(float* interleaved, uint32_t frames, uint32_t channels, uint32_t sampleRate);

}  // namespace midimix
}  // namespace lxp

#endif
