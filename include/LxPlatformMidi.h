// LxPlatformMidi.h - the host's choice of MIDI device.
//
// MIDI clips play through the library's MIDI stream output. By default that output is a
// FluidSynth synthesizer with the General MIDI SoundFont LX_MIDI_DEFAULT_SOUNDFONT (Debian's
// timgm6mb-soundfont), rendering into the process's sound output mix, so that MIDI and sampled
// audio come out together (and a WAV sink captures both). When the SoundFont cannot be loaded,
// or the library was built without FluidSynth, opening the MIDI device fails and the manager
// reports that the system has no MIDI. Tests choose the simulated device instead.
//
// Set these before creating the manager; they apply to MIDI streams opened afterwards.
#ifndef LX_PLATFORM_MIDI_H
#define LX_PLATFORM_MIDI_H

#include "LxApi.h"

#include <string>

/// The SoundFont the FluidSynth device loads unless the host names another.
#define LX_MIDI_DEFAULT_SOUNDFONT "/usr/share/sounds/sf2/TimGM6mb.sf2"

/// The device behind the MIDI stream output.
enum LxMidiBackend_s {
    LX_MIDI_FLUIDSYNTH = 0,  ///< FluidSynth into the sound output mix (the default)
    LX_MIDI_SIMULATED = 1    ///< a recorder with virtual time (tests; platform/midi/LxpMidiSim.h)
};

/// Chooses the MIDI device. Any thread.
LX_API void LxPlatformSetMidiBackend(LxMidiBackend_s backend);
LX_API LxMidiBackend_s LxPlatformGetMidiBackend();

/// The SoundFont file for the FluidSynth device; null or "" restores LX_MIDI_DEFAULT_SOUNDFONT.
/// The file is loaded when a stream is first opened with it, and kept for later streams.
LX_API void LxPlatformSetMidiSoundFont(const char* path);
LX_API std::string LxPlatformGetMidiSoundFont();

#endif  // LX_PLATFORM_MIDI_H
