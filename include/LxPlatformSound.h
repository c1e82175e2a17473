// LxPlatformSound.h - where the library's sound goes.
//
// The mixer's sound device is the library's own software mixing engine. A host picks its output
// here, in code, before it creates the manager; objects made earlier keep the output they were
// made on. Without a choice a process plays on the ALSA device "default", and when that device
// cannot be opened it goes on with a null output paced in real time (nothing is heard, but every
// buffer plays at its true speed). MIDI synthesized by the library goes into the same output.
#ifndef LX_PLATFORM_SOUND_H
#define LX_PLATFORM_SOUND_H

#include "LxApi.h"

#include <cstdint>
#include <string>

class LX_API LxPlatformSound {
  public:
    /// Output rate of the real outputs unless a call below says otherwise (16-bit stereo).
    static constexpr uint32_t DEFAULT_SAMPLE_RATE = 44100;

    /// Plays on the ALSA PCM device named device (null or empty: "default"); falls back to a null
    /// output when the device cannot be opened (see outputFailed()).
    static void useAlsa(const char* device = nullptr, uint32_t sampleRate = DEFAULT_SAMPLE_RATE);
    /// Writes what would be heard into a 16-bit stereo WAV file at path, in real time. The file is
    /// created when the output first starts and completed whenever it stops.
    static void useWavFile(const char* path, uint32_t sampleRate = DEFAULT_SAMPLE_RATE);
    /// Plays into nothing, in real time.
    static void useNullOutput(uint32_t sampleRate = DEFAULT_SAMPLE_RATE);
    /// The simulated device of the tests, with its default settings: nothing plays until the
    /// test advances its output (platform/sound/LxpSimulatedSound.h drives it).
    static void useSimulated();
    /// What the current choice plays on, for logs and --version output ("ALSA device default").
    static std::string describeOutput();
    /// True when the output was asked for by name and cannot be had (an ALSA device other than
    /// "default" that is missing or busy): the sound goes nowhere, and a host should report it
    /// rather than play on. Opens the output if it is not open yet; never waits for a busy device.
    static bool outputFailed();
};

#endif  // LX_PLATFORM_SOUND_H
