// LxPlatformGraph.h - which filter graph plays MPEG, QuickTime and other clips.
//
// Clips that are neither WAVE nor MIDI play through a DirectShow-shaped filter graph. By default
// the graph is built on GStreamer; where GStreamer cannot start (or the library was built without
// it), creating a graph fails and the library behaves as on a machine without DirectShow: it
// plays WAVE and MIDI clips only. A host (or a test) can choose the scripted, simulated graph
// instead. Choose before creating the manager; graphs made earlier keep their backend.
#ifndef LX_PLATFORM_GRAPH_H
#define LX_PLATFORM_GRAPH_H

#include "LxApi.h"
#include "LxMediaTypes.h"

class LX_API LxPlatformGraph {
  public:
    /// Filter graphs on GStreamer (the default).
    static void useGStreamer();
    /// The simulated graph: clips play by a script instead of being decoded (the test tools set
    /// the script).
    static void useSimulated();
    static bool usesSimulated();
    /// Whether this library was built with GStreamer and GStreamer starts in this process (the
    /// first call starts it). Any thread.
    static bool gstreamerAvailable();
    /// The pixel layout the video renderer filter delivers: LxPixel32Alt (red, green, blue, unused
    /// byte; the default), LxPixel24Alt (red, green, blue), LxPixel32 or LxPixel24 (blue, green,
    /// red first). Other values are refused (false). Applies to renderer filters created later.
    static bool setVideoPixelFormat(LxPixelFormat_s format);
    static LxPixelFormat_s videoPixelFormat();
};

#endif  // LX_PLATFORM_GRAPH_H
