// The COM layer: per-thread initialisation and an in-process class registry.
//
// Objects the library reaches through COM interfaces (the sound device, filter graphs, renderer
// filters) are created here by class id, so that a backend can be swapped without its users
// knowing. Backends and the filter library register their classes; tests can make initialisation,
// creation and class-object lookup fail on demand.
#ifndef LORVEX_PLATFORM_COM_H
#define LORVEX_PLATFORM_COM_H

#include "LxApi.h"

#include <atomic>
#include <cstdint>
#include <utility>

// The class registry and COM calls are exported (LX_API) for the filter plug-in: it is built on this
// layer and registers its renderer filters here. The failure injection (comtest) stays internal.
namespace lxp {

typedef int32_t HRESULT;

constexpr HRESULT S_OK = 0;
constexpr HRESULT S_FALSE = 1;
constexpr HRESULT E_NOTIMPL = static_cast<HRESULT>(0x80004001u);
constexpr HRESULT E_NOINTERFACE = static_cast<HRESULT>(0x80004002u);
constexpr HRESULT E_POINTER = static_cast<HRESULT>(0x80004003u);
constexpr HRESULT E_ABORT = static_cast<HRESULT>(0x80004004u);
constexpr HRESULT E_FAIL = static_cast<HRESULT>(0x80004005u);
constexpr HRESULT E_OUTOFMEMORY = static_cast<HRESULT>(0x8007000Eu);
constexpr HRESULT E_INVALIDARG = static_cast<HRESULT>(0x80070057u);
constexpr HRESULT E_UNEXPECTED = static_cast<HRESULT>(0x8000FFFFu);
constexpr HRESULT REGDB_E_CLASSNOTREG = static_cast<HRESULT>(0x80040154u);
constexpr HRESULT CO_E_NOTINITIALIZED = static_cast<HRESULT>(0x800401F0u);
constexpr HRESULT CO_E_DLLNOTFOUND = static_cast<HRESULT>(0x800401F8u);
constexpr HRESULT HRESULT_MOD_NOT_FOUND = static_cast<HRESULT>(0x8007007Eu);  // module not found
constexpr HRESULT CLASS_E_NOAGGREGATION = static_cast<HRESULT>(0x80040110u);

inline bool SUCCEEDED(HRESULT hr) {
    return hr >= 0;
}
inline bool FAILED(HRESULT hr) {
    return hr < 0;
}

constexpr uint32_t CLSCTX_INPROC_SERVER = 0x1;

struct GUID {
    uint32_t Data1;
    uint16_t Data2;
    uint16_t Data3;
    uint8_t Data4[8];
};
typedef GUID CLSID;
typedef GUID IID;

LX_API bool operator==(const GUID& a, const GUID& b);
inline bool operator!=(const GUID& a, const GUID& b) {
    return !(a == b);
}

// The PCM format record that the sound device and the filter graphs share, packed as on Windows
// (18 bytes) so that format blocks compare and copy byte for byte.
constexpr uint16_t WAVE_FORMAT_PCM = 1;

#pragma pack(push, 1)
struct WAVEFORMATEX {
    uint16_t wFormatTag;  // WAVE_FORMAT_PCM
    uint16_t nChannels;
    uint32_t nSamplesPerSec;
    uint32_t nAvgBytesPerSec;
    uint16_t nBlockAlign;
    uint16_t wBitsPerSample;
    uint16_t cbSize;
};
#pragma pack(pop)
static_assert(sizeof(WAVEFORMATEX) == 18, "WAVEFORMATEX is 18 bytes");

LX_API extern const IID IID_IUnknown;
LX_API extern const IID IID_IClassFactory;

class IUnknown {
  public:
    virtual HRESULT QueryInterface(const IID& iid, void** out) = 0;
    virtual uint32_t AddRef() = 0;
    virtual uint32_t Release() = 0;

  protected:
    virtual ~IUnknown() {}
};

class IClassFactory : public IUnknown {
  public:
    virtual HRESULT CreateInstance(IUnknown* outer, const IID& iid, void** out) = 0;
    virtual HRESULT LockServer(bool lock) = 0;
};

/// Reference counting for COM objects of ours: derive, and answer your own interfaces in
/// QueryInterface (call queryBase for IID_IUnknown).
template <class Interface>
class ComObject : public Interface {
  public:
    uint32_t AddRef() override { return refs_.fetch_add(1) + 1; }
    uint32_t Release() override {
        const uint32_t left = refs_.fetch_sub(1) - 1;
        if (left == 0) {
            delete this;
        }
        return left;
    }

  protected:
    ComObject() : refs_(1) {}
    ~ComObject() override {}
    /// QueryInterface of an object whose own interface is own (IUnknown answered as well).
    HRESULT queryOwn(const IID& iid, const IID& own, void** out) {
        if (out != nullptr && iid == own) {
            *out = static_cast<Interface*>(this);
            AddRef();
            return S_OK;
        }
        return queryBase(iid, out);
    }
    HRESULT queryBase(const IID& iid, void** out) {
        if (out == nullptr) {
            return E_POINTER;
        }
        if (iid == IID_IUnknown) {
            *out = static_cast<IUnknown*>(this);
            AddRef();
            return S_OK;
        }
        *out = nullptr;
        return E_NOINTERFACE;
    }

  private:
    std::atomic<uint32_t> refs_;
};

/// Hands a freshly made object (one reference, or null when it could not be allocated) to the
/// caller as interface iid and drops the creator's reference.
template <class Object>
HRESULT handOut(Object* object, const IID& iid, void** out) {
    if (object == nullptr) {
        return E_OUTOFMEMORY;
    }
    const HRESULT hr = object->QueryInterface(iid, out);
    object->Release();
    return hr;
}

/// A class factory of ours: answers IClassFactory, refuses aggregation and leaves the making of
/// the object to createObject.
class LX_API ClassFactory : public ComObject<IClassFactory> {
  public:
    HRESULT QueryInterface(const IID& iid, void** out) override;
    HRESULT CreateInstance(IUnknown* outer, const IID& iid, void** out) override;
    HRESULT LockServer(bool) override { return S_OK; }

  protected:
    /// Makes the object and hands it out as iid (see handOut); out is valid and already null.
    virtual HRESULT createObject(const IID& iid, void** out) = 0;
};

/// Makes the calling thread able to create objects. S_OK the first time on a thread, S_FALSE when
/// it was already initialised (each success needs one CoUninitialize).
LX_API HRESULT CoInitialize(void* reserved);
LX_API void CoUninitialize();
/// Creates an object of a registered class. CO_E_NOTINITIALIZED when the calling thread has not
/// initialised COM, REGDB_E_CLASSNOTREG for an unknown class.
LX_API HRESULT CoCreateInstance(const CLSID& clsid, IUnknown* outer, uint32_t context, const IID& iid,
                                void** out);
/// The class factory of a registered class (same failures as CoCreateInstance).
LX_API HRESULT CoGetClassObject(const CLSID& clsid, uint32_t context, void* reserved, const IID& iid,
                                void** out);

/// Registers a class (the registry takes a reference on the factory). A class registered again
/// replaces the earlier factory. Returns S_OK.
LX_API HRESULT registerClass(const CLSID& clsid, IClassFactory* factory);
/// Removes a class; S_OK, or S_FALSE when it was not registered.
LX_API HRESULT unregisterClass(const CLSID& clsid);
LX_API bool isClassRegistered(const CLSID& clsid);

/// Registers a class whose factory is made here (see registerClass).
template <class Factory, class... Args>
HRESULT registerFactory(const CLSID& clsid, Args&&... args) {
    Factory* factory = new Factory(std::forward<Args>(args)...);
    const HRESULT hr = registerClass(clsid, factory);
    factory->Release();
    return hr;
}

/// Failure injection for the simulated platform.
namespace comtest {
/// The next count CoInitialize calls on any thread fail with hr.
void failCoInitialize(int count, HRESULT hr = E_FAIL);
/// The next count creations (CoCreateInstance or CoGetClassObject) of clsid fail with hr.
void failCreate(const CLSID& clsid, int count, HRESULT hr = E_FAIL);
/// Clears every injected failure.
void reset();
/// Initialisations minus uninitialisations on the calling thread.
int threadInitCount();
}  // namespace comtest

}  // namespace lxp

#endif
