// The filter library's entry points: class factories for the two renderer filters and
// DllRegisterServer, which registers them in the process's COM class registry.
//
// The library stays loaded once loaded (it is linked with -z nodelete): its factories live in the
// registry after the loader that registered them has freed its handle, as the manager's probe does.
#include "LxLog.h"
#include "filterlib/LxpRenderer.h"
#include "platform/dshow/LxpGraphConfig.h"

#define LXP_EXPORT extern "C" __attribute__((visibility("default")))

namespace lxp {

constexpr HRESULT SELFREG_E_CLASS = static_cast<HRESULT>(0x80040201u);

namespace {

class RendererFactory : public ClassFactory {
  public:
    explicit RendererFactory(RendererKind kind) : kind_(kind) {}

  protected:
    HRESULT createObject(const IID& iid, void** out) override {
        return handOut(new RendererFilter(kind_, graphconfig::videoPixelFormat()), iid, out);
    }

  private:
    const RendererKind kind_;
};

HRESULT registerRenderer(const CLSID& clsid, RendererKind kind) {
    return registerFactory<RendererFactory>(clsid, kind);
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
