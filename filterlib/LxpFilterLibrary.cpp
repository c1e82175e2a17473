// The filter library's entry points: class factories for the two renderer filters and
// DllRegisterServer, which registers them in the process's COM class registry.
//
// The library stays loaded once loaded (it is linked with -z nodelete): its factories live in the
// registry after the loader that registered them has freed its handle, as the manager's probe does.
#include "LxLog.h"
#include "platform/dshow/LxpGraphConfig.h"
#include "filterlib/LxpRenderer.h"

#define LXP_EXPORT extern "C" __attribute__((visibility("default")))

namespace lxp {

constexpr HRESULT SELFREG_E_CLASS = static_cast<HRESULT>(0x80040201u);

namespace {

constexpr HRESULT CLASS_E_NOAGGREGATION = static_cast<HRESULT>(0x80040110u);

class RendererFactory : public ComObject<IClassFactory> {
  public:
    explicit RendererFactory(RendererKind kind) : kind_(kind) {}

    HRESULT QueryInterface(const IID& iid, void** out) override {
        if (out != nullptr && iid == IID_IClassFactory) {
            *out = static_cast<IClassFactory*>(this);
            AddRef();
            return S_OK;
        }
        return queryBase(iid, out);
    }
    HRESULT CreateInstance(IUnknown* outer, const IID& iid, void** out) override {
        if (out == nullptr) {
            return E_POINTER;
        }
        *out = nullptr;
        if (outer != nullptr) {
            return CLASS_E_NOAGGREGATION;
        }
        RendererFilter* filter = new RendererFilter(kind_, graphconfig::videoPixelFormat());
        const HRESULT hr = filter->QueryInterface(iid, out);
        filter->Release();
        return hr;
    }
    HRESULT LockServer(bool) override { return S_OK; }

  private:
    const RendererKind kind_;
};

HRESULT registerRenderer(const CLSID& clsid, RendererKind kind) {
    RendererFactory* factory = new RendererFactory(kind);
    const HRESULT hr = registerClass(clsid, factory);
    factory->Release();
    return hr;
}

}  // namespace

}  // namespace lxp

/// Registers the audio and video renderer filters. S_OK, or SELFREG_E_CLASS with nothing
/// registered.
LXP_EXPORT lxp::HRESULT DllRegisterServer() {
    if (lxp::graphtest::filterRegistrationRefused()) {
        LxLog::postDebug("qlm13_dshow: registration refused\n");
        return lxp::SELFREG_E_CLASS;
    }
    lxp::HRESULT hr = lxp::registerRenderer(lxp::CLSID_LxAudioRenderer, lxp::RendererKind::Audio);
    if (lxp::SUCCEEDED(hr)) {
        hr = lxp::registerRenderer(lxp::CLSID_LxVideoRenderer, lxp::RendererKind::Video);
    }
    if (lxp::FAILED(hr)) {
        lxp::unregisterClass(lxp::CLSID_LxAudioRenderer);
        lxp::unregisterClass(lxp::CLSID_LxVideoRenderer);
        return lxp::SELFREG_E_CLASS;
    }
    return lxp::S_OK;
}

/// Removes both classes from the registry (S_OK either way).
LXP_EXPORT lxp::HRESULT DllUnregisterServer() {
    lxp::unregisterClass(lxp::CLSID_LxAudioRenderer);
    lxp::unregisterClass(lxp::CLSID_LxVideoRenderer);
    return lxp::S_OK;
}
