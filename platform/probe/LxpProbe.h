// The probe layer: what version detection asks of the platform, in the shape it asks it.
//
// The operating system's version record, the run-time loaded DirectInput and DirectDraw libraries
// ("DINPUT.DLL" with "DirectInputCreateA", "DDRAW.DLL" with "DirectDrawCreate") and as much of
// DirectDraw as the probe uses (cooperative level, a primary surface, its IDirectDrawSurface3
// interface). The host chooses the real platform or a simulated one (LxPlatformProbe.h). On Linux
// the real platform is the Windows NT family, version 5.0, with neither library.
//
// All operations may be called from any thread.
#ifndef LORVEX_PLATFORM_PROBE_H
#define LORVEX_PLATFORM_PROBE_H

#include "platform/com/LxpCom.h"

#include <cstdint>

namespace lxp {
namespace probe {

constexpr uint32_t VER_PLATFORM_WIN32s = 0;
constexpr uint32_t VER_PLATFORM_WIN32_WINDOWS = 1;
constexpr uint32_t VER_PLATFORM_WIN32_NT = 2;

struct OSVERSIONINFOA {
    uint32_t dwOSVersionInfoSize;
    uint32_t dwMajorVersion;
    uint32_t dwMinorVersion;
    uint32_t dwBuildNumber;
    uint32_t dwPlatformId;
    char szCSDVersion[128];
};
static_assert(sizeof(OSVERSIONINFOA) == 148, "OSVERSIONINFOA is 148 bytes");

/// Fills info, whose dwOSVersionInfoSize must be sizeof(OSVERSIONINFOA); false when it cannot.
bool GetVersionExA(OSVERSIONINFOA* info);

typedef struct ProbeModuleTag* HMODULE;
/// "DINPUT.DLL" or "DDRAW.DLL" (any case) when the platform has it; null otherwise.
HMODULE LoadLibraryA(const char* name);
/// "DirectInputCreateA" of DINPUT.DLL, "DirectDrawCreate" of DDRAW.DLL; null otherwise.
void* GetProcAddress(HMODULE module, const char* name);
void FreeLibrary(HMODULE module);

constexpr uint32_t DDSCL_NORMAL = 0x00000008;
constexpr uint32_t DDSD_CAPS = 0x00000001;
constexpr uint32_t DDSCAPS_PRIMARYSURFACE = 0x00000200;

/// The part of a surface description the probe fills: size, flags and capabilities.
struct DDSURFACEDESC {
    uint32_t dwSize;
    uint32_t dwFlags;
    uint32_t ddsCaps;
};

extern const IID IID_IDirectDrawSurface3;

class IDirectDrawSurface : public IUnknown {};

class IDirectDraw : public IUnknown {
  public:
    virtual HRESULT SetCooperativeLevel(void* window, uint32_t flags) = 0;
    virtual HRESULT CreateSurface(const DDSURFACEDESC* description, IDirectDrawSurface** surface,
                                  IUnknown* outer) = 0;
};

typedef HRESULT (*LPDIRECTDRAWCREATE)(GUID* driver, IDirectDraw** out, IUnknown* outer);

/// Calls the probe layer received, for tests that check what a cached answer does not repeat.
namespace probetest {
int versionQueries();
int libraryLoads();
/// Libraries loaded and not yet freed.
int librariesOpen();
void resetCounters();
}  // namespace probetest

}  // namespace probe
}  // namespace lxp

#endif
