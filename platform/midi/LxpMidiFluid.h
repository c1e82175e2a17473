// The FluidSynth MIDI device: streams play into a General MIDI synthesizer that renders into the
// sound output mix (a MixSource of platform/sound/LxpSound.h), so that the output the host chose
// for sound (ALSA, a WAV file, the simulated output) carries MIDI and sampled audio together. Opening fails
// with MIDIERR_NODEVICE when the library was built without FluidSynth or the SoundFont (LxPlatformMidi.h)
// cannot be loaded.
#ifndef LORVEX_PLATFORM_MIDI_FLUID_H
#define LORVEX_PLATFORM_MIDI_FLUID_H

namespace lxp {
namespace midi {
class Backend;
}
namespace midifluid {

/// The backend's factory.
midi::Backend& backend();

}  // namespace midifluid
}  // namespace lxp

#endif
