// LxMixer.h - the mixer interface the manager holds, and the global sound settings.
#ifndef LX_MIXER_H
#define LX_MIXER_H

#include "LxApi.h"

#include <cstdint>

/// When new sounds are audible: 0 only while the host's window has the focus; 1 and 2 also while
/// the application is in the background.
enum LxAudibleMode_s { LxAudibleWithFocus = 0, LxAudibleInBackground = 1, LxAudibleAlways = 2 };

/// Speaker configuration: a kind and a second value (stored and returned, not applied).
class LX_API LxSpeakerConfiguration {
  public:
    enum LxSpeakerKind_s { HEADPHONES = 0, MONO = 1, STEREO = 2 };

    LxSpeakerConfiguration() : kind(STEREO), value(30) {}
    LxSpeakerConfiguration(int32_t k, int16_t v) : kind(k), value(v) {}

    int32_t getKind() const { return kind; }
    int16_t getValue() const { return value; }
    bool operator==(const LxSpeakerConfiguration& o) const { return kind == o.kind && value == o.value; }

    int32_t kind;
    int16_t value;
};

class LX_API LxMixer {
  public:
    virtual ~LxMixer() {}
    virtual long initMixer() = 0;
    virtual long closeMixer() = 0;
    virtual long setAudibleMode(LxAudibleMode_s mode) = 0;
    virtual LxAudibleMode_s getAudibleMode() = 0;
    virtual long setSpatializeSounds(char on) = 0;
    virtual char getSpatializeSounds() = 0;
    virtual long setSpeakerConfig(LxSpeakerConfiguration config) = 0;
    virtual LxSpeakerConfiguration getSpeakerConfig() = 0;
    /// Listener position, top and front vectors (3 floats each) in the scene's coordinates.
    virtual long setListenerLocation(const float* position, const float* top, const float* front) = 0;
};

#endif  // LX_MIXER_H
