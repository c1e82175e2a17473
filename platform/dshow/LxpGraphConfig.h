// Process-wide settings of the filter-graph layer, behind LxPlatformGraph (the host's choice) and
// the hooks tests use to make GStreamer or the filter library fail.
#ifndef LORVEX_PLATFORM_DSHOW_GRAPH_CONFIG_H
#define LORVEX_PLATFORM_DSHOW_GRAPH_CONFIG_H

#include "LxApi.h"
#include "LxMediaTypes.h"

namespace lxp {
namespace graphconfig {

/// Whether graphs created from now on are simulated (false: GStreamer). Any thread.
LX_API bool simulated();
/// The pixel layout renderer filters created from now on deliver.
LX_API LxPixelFormat_s videoPixelFormat();

}  // namespace graphconfig

namespace graphtest {

/// Makes the GStreamer backend behave as if GStreamer could not start (true) or as it really does.
void simulateGStreamerMissing(bool missing);
bool gstreamerMissingSimulated();
/// Makes the filter library's DllRegisterServer refuse (true): it then registers nothing and
/// returns SELFREG_E_CLASS.
void refuseFilterRegistration(bool refuse);
/// Exported: the filter plug-in reads it (the setter above is the tests' and stays internal).
LX_API bool filterRegistrationRefused();

}  // namespace graphtest
}  // namespace lxp

#endif
