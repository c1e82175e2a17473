// The graph classes in the COM class registry, and the host's choice of backend.
//
// CLSID_FilterGraph and the MPEG audio decoder's class are registered when the library loads, as
// DirectShow's are on a Windows machine. Creating a graph asks the chosen backend; with GStreamer
// chosen and unable to start, creation fails with REGDB_E_CLASSNOTREG, which is what the library's
// probe reads as "no DirectShow".
#include "LxPlatformGraph.h"
#include "platform/dshow/LxpGraphBase.h"
#include "platform/dshow/LxpGraphConfig.h"
#include "platform/dshow/LxpGstGraph.h"
#include "platform/dshow/LxpSimGraph.h"

#include <atomic>

namespace lxp {

namespace {

constexpr HRESULT CLASS_E_NOAGGREGATION = static_cast<HRESULT>(0x80040110u);

std::atomic<bool> gSimulated{false};
std::atomic<int> gPixelFormat{LxPixel32Alt};
std::atomic<bool> gGStreamerMissing{false};
std::atomic<bool> gRefuseRegistration{false};

bool backendAvailable() {
    return gSimulated.load() || gstgraph::available();
}

/// Creates objects of one graph class through the chosen backend.
class GraphClassFactory : public ComObject<IClassFactory> {
  public:
    explicit GraphClassFactory(bool decoder) : decoder_(decoder) {}

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
        if (!decoder_) {
            return gSimulated.load() ? simgraph::createFilterGraph(iid, out)
                                     : gstgraph::createFilterGraph(iid, out);
        }
        if (!backendAvailable()) {
            return REGDB_E_CLASSNOTREG;
        }
        // The graph's decoding chain decodes MPEG audio by itself; the filter exists so that a
        // graph built the Windows way, with the decoder added by hand, builds here too. It has no
        // pins and takes no part in rendering.
        BasicFilter* filter = new BasicFilter(L"MPEG Layer 3 Codec");
        const HRESULT hr = filter->QueryInterface(iid, out);
        filter->Release();
        return hr;
    }
    HRESULT LockServer(bool) override { return S_OK; }

  private:
    const bool decoder_;
};

bool registerGraphClasses() {
    GraphClassFactory* graphs = new GraphClassFactory(false);
    registerClass(CLSID_FilterGraph, graphs);
    graphs->Release();
    GraphClassFactory* decoders = new GraphClassFactory(true);
    registerClass(CLSID_MPEGLayer3Codec, decoders);
    decoders->Release();
    return true;
}

const bool gRegistered = registerGraphClasses();

}  // namespace

namespace graphconfig {

bool simulated() {
    return gSimulated.load();
}
LxPixelFormat_s videoPixelFormat() {
    return static_cast<LxPixelFormat_s>(gPixelFormat.load());
}

}  // namespace graphconfig

namespace graphtest {

void simulateGStreamerMissing(bool missing) {
    gGStreamerMissing = missing;
}
bool gstreamerMissingSimulated() {
    return gGStreamerMissing.load();
}
void refuseFilterRegistration(bool refuse) {
    gRefuseRegistration = refuse;
}
bool filterRegistrationRefused() {
    return gRefuseRegistration.load();
}

}  // namespace graphtest
}  // namespace lxp

void LxPlatformGraph::useGStreamer() {
    lxp::gSimulated = false;
}
void LxPlatformGraph::useSimulated() {
    lxp::gSimulated = true;
}
bool LxPlatformGraph::usesSimulated() {
    return lxp::gSimulated.load();
}
bool LxPlatformGraph::gstreamerAvailable() {
    return lxp::gRegistered && lxp::gstgraph::available();
}

bool LxPlatformGraph::setVideoPixelFormat(LxPixelFormat_s format) {
    if (format != LxPixel32Alt && format != LxPixel24Alt && format != LxPixel32 && format != LxPixel24) {
        return false;
    }
    lxp::gPixelFormat = format;
    return true;
}

LxPixelFormat_s LxPlatformGraph::videoPixelFormat() {
    return lxp::graphconfig::videoPixelFormat();
}
