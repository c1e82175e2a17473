// The GStreamer backend of the filter-graph layer.
#ifndef LORVEX_PLATFORM_DSHOW_GST_GRAPH_H
#define LORVEX_PLATFORM_DSHOW_GST_GRAPH_H

#include "platform/com/LxpCom.h"

namespace lxp {
namespace gstgraph {

/// Starts GStreamer once per process (gst_init_check) and checks that the elements the graph
/// needs are installed. False in a library built without GStreamer. Any thread.
bool available();
/// A new graph asked for iid; REGDB_E_CLASSNOTREG when GStreamer is not available.
HRESULT createFilterGraph(const IID& iid, void** out);

}  // namespace gstgraph
}  // namespace lxp

#endif
