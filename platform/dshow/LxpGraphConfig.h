// Process-wide settings of the filter-graph layer, behind LxPlatformGraph (the host's choice) and
// the hooks tests use to make GStreamer or the filter library fail.
#ifndef LORVEX_PLATFORM_DSHOW_GRAPH_CONFIG_H
#define LORVEX_PLATFORM_DSHOW_GRAPH_CONFIG_H

#include "LxMediaTypes.h"

namespace lxp {
namespace graphconfig {

/// Whether graphs created from now on are simulated (false: GStreamer). Any thread.
bool simulated();
/// The pixel layout renderer filters created from now on deliver.
LxPixelFormat_s videoPixelFormat();

}  // namespace graphconfig

namespace graphtest {

/// Makes the GStreamer backend behave as if GStreamer could not start (true) or as it really does.
void simulateGStreamerMissing(bool missing);
bool gstreamerMissingSimulated();
/// Makes the filter library's DllRegisterServer refuse (true): it then registers nothing and
/// returns SELFREG_E_CLASS.
void refuseFilterRegistration(bool refuse);
bool filterRegistrationRefused();

}  // namespace graphtest
}  // namespace lxp

#endif
