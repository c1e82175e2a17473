// LxDiagnostics.h - the record in which the manager reports the media platform it found.
#ifndef LX_DIAGNOSTICS_H
#define LX_DIAGNOSTICS_H

#include "LxApi.h"

/// Texts are heap copies owned by the record; a null text means "not set".
class LX_API LxDiagnostics {
  public:
    /// "DirectShow" when the filter-graph runtime was found, else "None".
    char* mediaFrameworkName;
    /// 1 when the filter-graph runtime is installed, 0 when not.
    long mediaFrameworkVersion;
    /// "DirectX".
    char* soundSystemName;
    /// The sound-system generation found by GetDXAndWin32Version.
    long soundSystemVersion;
    /// Description of the first sound device enumerated that is not "Primary Sound Driver".
    char* soundDevice;
    /// Not filled by the library; stays null.
    char* otherInfo;
    /// Whether MIDI output is available.
    char midiCapable;

    /// All texts null, both versions 0, not MIDI capable.
    LxDiagnostics();
    /// A default record assigned from other.
    LxDiagnostics(const LxDiagnostics& other);
    /// Frees every text that is set.
    ~LxDiagnostics();
    /// Each text set in other is copied anew into this record; a text null in other leaves this
    /// record's text as it is. The versions and the MIDI flag are copied.
    LxDiagnostics& operator=(const LxDiagnostics& other);
};

#endif  // LX_DIAGNOSTICS_H
