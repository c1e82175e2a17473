// The GStreamer backend of a library built without GStreamer: never available.
#include "platform/dshow/LxpGstGraph.h"

namespace lxp {
namespace gstgraph {

bool available() {
    return false;
}

HRESULT createFilterGraph(const IID&, void** out) {
    if (out != nullptr) {
        *out = nullptr;
    }
    return REGDB_E_CLASSNOTREG;
}

}  // namespace gstgraph
}  // namespace lxp
