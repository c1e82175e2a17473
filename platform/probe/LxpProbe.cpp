// The probe layer's two platforms: the real one (Linux: the NT family, version 5.0, no DirectX
// libraries) and the simulated one the host or a test describes.
#include "platform/probe/LxpProbe.h"

#include "LxPlatformProbe.h"

#include <atomic>
#include <cctype>
#include <cstring>
#include <mutex>
#include <new>

namespace lxp {
namespace probe {

const IID IID_IDirectDrawSurface3 = {
    0xDA044E00, 0x69B2, 0x11D0, {0xA1, 0xD5, 0x00, 0xAA, 0x00, 0xB8, 0xDF, 0xBB}};

namespace {

std::mutex gMutex;
bool gSimulated = false;
LxSimulatedPlatform gPlatform;
std::atomic<int> gVersionQueries{0};
std::atomic<int> gLoads{0};
std::atomic<int> gOpen{0};

LxSimulatedPlatform platform(bool* simulated) {
    std::lock_guard<std::mutex> guard(gMutex);
    *simulated = gSimulated;
    return gPlatform;
}

bool sameName(const char* a, const char* b) {
    for (; *a != '\0' && *b != '\0'; ++a, ++b) {
        if (std::toupper(static_cast<unsigned char>(*a)) != std::toupper(static_cast<unsigned char>(*b))) {
            return false;
        }
    }
    return *a == *b;
}

enum Library { kDirectInput = 1, kDirectDraw = 2 };

struct Module {
    Library library;
};

class Surface final : public ComObject<IDirectDrawSurface> {
  public:
    explicit Surface(bool surface3) : surface3_(surface3) {}
    HRESULT QueryInterface(const IID& iid, void** out) override {
        if (out != nullptr && iid == IID_IDirectDrawSurface3) {
            *out = nullptr;
            if (!surface3_) {
                return E_NOINTERFACE;
            }
            *out = static_cast<IDirectDrawSurface*>(this);
            AddRef();
            return S_OK;
        }
        return queryBase(iid, out);
    }

  private:
    const bool surface3_;
};

class DirectDraw final : public ComObject<IDirectDraw> {
  public:
    explicit DirectDraw(const LxSimulatedPlatform& p) : platform_(p) {}
    HRESULT QueryInterface(const IID& iid, void** out) override { return queryBase(iid, out); }
    HRESULT SetCooperativeLevel(void*, uint32_t) override {
        return platform_.cooperativeLevelSucceeds ? S_OK : E_FAIL;
    }
    HRESULT CreateSurface(const DDSURFACEDESC* d, IDirectDrawSurface** surface, IUnknown*) override {
        if (surface == nullptr || d == nullptr) {
            return E_INVALIDARG;
        }
        *surface = nullptr;
        if (!platform_.primarySurfaceSucceeds) {
            return E_FAIL;
        }
        *surface = new (std::nothrow) Surface(platform_.surface3Available);
        return *surface != nullptr ? S_OK : E_OUTOFMEMORY;
    }

  private:
    const LxSimulatedPlatform platform_;
};

HRESULT directDrawCreate(GUID*, IDirectDraw** out, IUnknown*) {
    bool simulated = false;
    const LxSimulatedPlatform p = platform(&simulated);
    if (out == nullptr) {
        return E_INVALIDARG;
    }
    *out = nullptr;
    if (!simulated || !p.directDrawCreateSucceeds) {
        return E_FAIL;
    }
    *out = new (std::nothrow) DirectDraw(p);
    return *out != nullptr ? S_OK : E_OUTOFMEMORY;
}

HRESULT directInputCreateA(void*, uint32_t, void** out, IUnknown*) {
    if (out != nullptr) {
        *out = nullptr;
    }
    return E_NOTIMPL;  // looked up by the probe, never called
}

Module gDirectInputModule{kDirectInput};
Module gDirectDrawModule{kDirectDraw};

}  // namespace

bool GetVersionExA(OSVERSIONINFOA* info) {
    gVersionQueries.fetch_add(1);
    if (info == nullptr || info->dwOSVersionInfoSize != sizeof(OSVERSIONINFOA)) {
        return false;
    }
    bool simulated = false;
    const LxSimulatedPlatform p = platform(&simulated);
    std::memset(info->szCSDVersion, 0, sizeof info->szCSDVersion);
    if (!simulated) {
        // Linux stands in for the NT family, version 5.0 (so 3D sound is allowed).
        info->dwPlatformId = VER_PLATFORM_WIN32_NT;
        info->dwMajorVersion = 5;
        info->dwMinorVersion = 0;
        info->dwBuildNumber = 2195;
        return true;
    }
    if (p.versionQueryFails) {
        return false;
    }
    info->dwPlatformId = p.platformId;
    info->dwMajorVersion = p.majorVersion;
    info->dwMinorVersion = p.minorVersion;
    info->dwBuildNumber = p.buildNumber;
    return true;
}

HMODULE LoadLibraryA(const char* name) {
    if (name == nullptr) {
        return nullptr;
    }
    gLoads.fetch_add(1);
    bool simulated = false;
    const LxSimulatedPlatform p = platform(&simulated);
    if (!simulated) {
        return nullptr;
    }
    Module* m = nullptr;
    if (sameName(name, "DINPUT.DLL") && p.directInputLoads) {
        m = &gDirectInputModule;
    } else if (sameName(name, "DDRAW.DLL") && p.directDrawLoads) {
        m = &gDirectDrawModule;
    }
    if (m != nullptr) {
        gOpen.fetch_add(1);
    }
    return reinterpret_cast<HMODULE>(m);
}

void* GetProcAddress(HMODULE module, const char* name) {
    if (module == nullptr || name == nullptr) {
        return nullptr;
    }
    bool simulated = false;
    const LxSimulatedPlatform p = platform(&simulated);
    const Module* m = reinterpret_cast<const Module*>(module);
    if (m->library == kDirectInput && std::strcmp(name, "DirectInputCreateA") == 0 &&
        p.directInputCreatePresent) {
        return reinterpret_cast<void*>(&directInputCreateA);
    }
    if (m->library == kDirectDraw && std::strcmp(name, "DirectDrawCreate") == 0 &&
        p.directDrawCreatePresent) {
        return reinterpret_cast<void*>(&directDrawCreate);
    }
    return nullptr;
}

void FreeLibrary(HMODULE module) {
    if (module != nullptr) {
        gOpen.fetch_sub(1);
    }
}

namespace probetest {
int versionQueries() {
    return gVersionQueries.load();
}
int libraryLoads() {
    return gLoads.load();
}
int librariesOpen() {
    return gOpen.load();
}
void resetCounters() {
    gVersionQueries.store(0);
    gLoads.store(0);
}
}  // namespace probetest

}  // namespace probe
}  // namespace lxp

void LxPlatformProbe::useSystem() {
    std::lock_guard<std::mutex> guard(lxp::probe::gMutex);
    lxp::probe::gSimulated = false;
}

void LxPlatformProbe::useSimulated(const LxSimulatedPlatform& platform) {
    std::lock_guard<std::mutex> guard(lxp::probe::gMutex);
    lxp::probe::gSimulated = true;
    lxp::probe::gPlatform = platform;
}
