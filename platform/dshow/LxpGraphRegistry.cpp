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

std::atomic<bool> gSimulated{false};
std::atomic<int> gPixelFormat{LxPixel32Alt};
std::atomic<bool> gGStreamerMissing{false};
std::atomic<bool> gRefuseRegistration{false};

bool backendAvailable() {
    return gSimulated.load() || gstgraph::available();
}

/// Creates objects of one graph class through the chosen backend.
class GraphClassFactory : public ClassFactory {
  public:
    explicit GraphClassFactory(bool decoder) : decoder_(decoder) {}

  protected:
    HRESULT createObject(const IID& iid, void** out) override {
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
        return handOut(new BasicFilter(L"MPEG Layer 3 Codec"), iid, out);
    }

  private:
    const bool decoder_;
};

bool registerGraphClasses() {
    registerFactory<GraphClassFactory>(CLSID_FilterGraph, false);
    registerFactory<GraphClassFactory>(CLSID_MPEGLayer3Codec, true);
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
