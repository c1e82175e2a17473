// Platform version detection: the Windows family, the DirectX generation and DirectShow's
// presence, probed once per process.
#include "LxVersionDetection.h"

#include "LxLog.h"
#include "platform/dshow/LxpGraphIds.h"
#include "platform/kt/KtLibraryLock.h"
#include "platform/probe/LxpProbe.h"

#include <cstring>
#include <optional>

namespace {

// Held for the whole of every probe and cache reset; created when the library loads.
KtLibraryLock<KtMutex> gProbeLock;

__attribute__((constructor(101))) void lxProbeLockLoad() {
    gProbeLock.create();
}
__attribute__((destructor(101))) void lxProbeLockUnload() {
    gProbeLock.destroy();
}

// Guarded by the probe lock.
bool gComputed = false;
unsigned long gDxVersion = 0;
unsigned long gPlatform = 0;
unsigned long gDirectShow = 0;

using namespace lxp;
using namespace lxp::probe;

/// Whether a DirectShow filter graph can be created.
unsigned long probeDirectShow() {
    LxLog::postDebug("GetDXAndWin32Version: Checking for ActiveMovie\n");
    if (FAILED(CoInitialize(nullptr))) {
        return 0;
    }
    IUnknown* graph = nullptr;
    const HRESULT hr = CoCreateInstance(CLSID_FilterGraph, nullptr, CLSCTX_INPROC_SERVER, IID_IGraphBuilder,
                                        reinterpret_cast<void**>(&graph));
    const unsigned long present = SUCCEEDED(hr) && graph != nullptr ? 1 : 0;
    if (graph != nullptr) {
        graph->Release();
    }
    CoUninitialize();
    return present;
}

/// Whether "DINPUT.DLL" loads and exports its creation entry (the library is freed again).
bool directInputPresent(bool logging) {
    if (logging) {
        LxLog::postDebug("GetDXAndWin32Version: about to load dinput.dll\n");
    }
    HMODULE dinput = LoadLibraryA("DINPUT.DLL");
    if (dinput == nullptr) {
        if (logging) {
            LxLog::postDebug("GetDXAndWin32Version: could not load dinput, must be less than DX3\n");
        }
        return false;
    }
    void* create = GetProcAddress(dinput, "DirectInputCreateA");
    if (logging) {
        LxLog::postDebug("GetDXAndWin32Version: unloading dinput.dll\n");
    }
    FreeLibrary(dinput);
    return create != nullptr;
}

/// The Windows 95 family from DirectX 3 on: DirectDraw tells 3 from 5 (and a broken one from both).
unsigned long directDrawGeneration() {
    HMODULE ddraw = LoadLibraryA("DDRAW.DLL");
    if (ddraw == nullptr) {
        return 0x300;
    }
    unsigned long version = 0x300;
    LPDIRECTDRAWCREATE create =
        reinterpret_cast<LPDIRECTDRAWCREATE>(GetProcAddress(ddraw, "DirectDrawCreate"));
    IDirectDraw* dd = nullptr;
    if (create != nullptr && SUCCEEDED(create(nullptr, &dd, nullptr)) && dd != nullptr) {
        if (SUCCEEDED(dd->SetCooperativeLevel(nullptr, DDSCL_NORMAL))) {
            DDSURFACEDESC desc;
            std::memset(&desc, 0, sizeof desc);
            desc.dwSize = sizeof desc;
            desc.dwFlags = DDSD_CAPS;
            desc.ddsCaps = DDSCAPS_PRIMARYSURFACE;
            IDirectDrawSurface* surface = nullptr;
            if (FAILED(dd->CreateSurface(&desc, &surface, nullptr)) || surface == nullptr) {
                version = 0;
            } else {
                IUnknown* surface3 = nullptr;
                if (SUCCEEDED(surface->QueryInterface(IID_IDirectDrawSurface3,
                                                      reinterpret_cast<void**>(&surface3)))) {
                    version = 0x500;
                    surface3->Release();
                }
                surface->Release();
            }
        }
        dd->Release();
    }
    FreeLibrary(ddraw);
    return version;
}

void detect() {
    gDxVersion = 0;
    gPlatform = 0;
    gDirectShow = 0;
    OSVERSIONINFOA info;
    std::memset(&info, 0, sizeof info);
    info.dwOSVersionInfoSize = sizeof info;
    if (!GetVersionExA(&info)) {
        return;
    }
    gDirectShow = probeDirectShow();
    if (info.dwPlatformId == VER_PLATFORM_WIN32_NT) {
        gPlatform = 2;
        if (info.dwMajorVersion < 4) {
            gPlatform = 0;
            gDxVersion = 0;
        } else if (info.dwMajorVersion == 4) {
            gDxVersion = directInputPresent(false) ? 0x300 : 0x200;
        } else {
            gDxVersion = 0x501;
        }
        return;
    }
    LxLog::postDebug("GetDXAndWin32Version: Decided platform = Win95\n");
    gPlatform = 1;
    if ((info.dwBuildNumber & 0xFFFF) > 1353) {
        gDxVersion = 0x501;
        return;
    }
    gDxVersion = 0x100;
    if (!directInputPresent(true)) {
        return;
    }
    gDxVersion = directDrawGeneration();
}

}  // namespace

void GetDXAndWin32Version(unsigned long* dxVersion, unsigned long* platform, unsigned long* directShow) {
    // The probe lock is gone once the library is being unloaded: the probe then runs unguarded.
    std::optional<KtScopedLock<KtMutex>> guard;
    if (KtMutex* lock = gProbeLock.get()) {
        guard.emplace(*lock);
    }
    if (!gComputed) {
        gComputed = true;
        detect();
    }
    if (dxVersion != nullptr) {
        *dxVersion = gDxVersion;
    }
    if (platform != nullptr) {
        *platform = gPlatform;
    }
    if (directShow != nullptr) {
        *directShow = gDirectShow;
    }
}

void LxResetDXAndWin32VersionCache() {
    std::optional<KtScopedLock<KtMutex>> guard;
    if (KtMutex* lock = gProbeLock.get()) {
        guard.emplace(*lock);
    }
    gComputed = false;
}

KtMutex* LxVersionProbeLock() {
    return gProbeLock.get();
}
