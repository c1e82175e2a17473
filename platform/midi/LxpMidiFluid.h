// The FluidSynth MIDI device: streams play into a General MIDI synthesizer that renders into the
// sound output mix (LxpMidiMix.h). Opening fails with MIDIERR_NODEVICE when the library was
// built without FluidSynth or the SoundFont (LxPlatformMidi.h) cannot be loaded.
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
