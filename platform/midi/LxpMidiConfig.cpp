// The host's MIDI device choice (LxPlatformMidi.h) and the layer's backend registry.
#include "LxPlatformMidi.h"

#include "platform/midi/LxpMidiBackend.h"
#include "platform/midi/LxpMidiFluid.h"
#include "platform/midi/LxpMidiSim.h"

#include <atomic>
#include <mutex>

namespace {

std::atomic<int> gBackend{LX_MIDI_FLUIDSYNTH};
std::mutex gSoundFontMutex;
std::string gSoundFont = LX_MIDI_DEFAULT_SOUNDFONT;

}  // namespace

void LxPlatformSetMidiBackend(LxMidiBackend_s backend) {
    gBackend.store(backend);
}

LxMidiBackend_s LxPlatformGetMidiBackend() {
    return static_cast<LxMidiBackend_s>(gBackend.load());
}

void LxPlatformSetMidiSoundFont(const char* path) {
    std::lock_guard<std::mutex> guard(gSoundFontMutex);
    gSoundFont = path != nullptr && path[0] != '\0' ? path : LX_MIDI_DEFAULT_SOUNDFONT;
}

std::string LxPlatformGetMidiSoundFont() {
    std::lock_guard<std::mutex> guard(gSoundFontMutex);
    return gSoundFont;
}

namespace lxp {
namespace midi {

Backend& chosenBackend() {
    if (LxPlatformGetMidiBackend() == LX_MIDI_SIMULATED) {
        return midisim::backend();
    }
    return midifluid::backend();
}

}  // namespace midi
}  // namespace lxp
