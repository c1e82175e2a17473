// LxPlatformProbe.h - what the library's platform probes report.
//
// Before the audio sub-system starts, the library asks which Windows family and version it runs
// on and whether DirectInput, DirectDraw and DirectShow are there (that decides whether 3D sound
// may be used). On Linux the answer is the Windows NT family, version 5.0, with DirectShow present
// exactly when the filter-graph backend is available. A host (or a test) can instead have the
// library see a simulated platform. Choose before creating the manager; the answer is computed
// once per process.
#ifndef LX_PLATFORM_PROBE_H
#define LX_PLATFORM_PROBE_H

#include "LxApi.h"

#include <cstdint>

/// A simulated platform: every outcome the version detection tells apart.
struct LxSimulatedPlatform {
    /// The version query itself fails.
    bool versionQueryFails = false;
    /// 0 Win32s, 1 Windows 95 family, 2 Windows NT family.
    uint32_t platformId = 2;
    uint32_t majorVersion = 5;
    uint32_t minorVersion = 0;
    uint32_t buildNumber = 2195;
    /// "DINPUT.DLL" loads / exports "DirectInputCreateA".
    bool directInputLoads = true;
    bool directInputCreatePresent = true;
    /// "DDRAW.DLL" loads / exports "DirectDrawCreate" / that call succeeds.
    bool directDrawLoads = true;
    bool directDrawCreatePresent = true;
    bool directDrawCreateSucceeds = true;
    /// The DirectDraw object's normal cooperative level, its primary surface, and that surface's
    /// IDirectDrawSurface3 interface.
    bool cooperativeLevelSucceeds = true;
    bool primarySurfaceSucceeds = true;
    bool surface3Available = true;
};

class LX_API LxPlatformProbe {
  public:
    /// The real platform (the default).
    static void useSystem();
    static void useSimulated(const LxSimulatedPlatform& platform);
};

#endif  // LX_PLATFORM_PROBE_H
