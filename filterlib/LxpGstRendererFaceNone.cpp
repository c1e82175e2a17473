// A filter library built without GStreamer has no GStreamer face: its filters are fed through
// IMemInputPin only (the simulated graph).
#include "filterlib/LxpRenderer.h"

namespace lxp {

GstRendererFace* GstRendererFace::create(RendererFilter*) {
    return nullptr;
}

}  // namespace lxp
