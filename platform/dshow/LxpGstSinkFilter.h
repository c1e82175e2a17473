// How a renderer filter lends the GStreamer backend its end of the pipeline.
//
// A renderer filter that can be fed by GStreamer answers IID_IGstSinkFilter with a bin that has a
// "sink" pad; the graph adds it to its pipeline and links a decoded stream to it. The filter
// converts to its format inside the bin and takes the samples at its end. The interface names
// GstElement without including GStreamer, so filters and graphs built without it still compile.
#ifndef LORVEX_PLATFORM_DSHOW_GST_SINK_FILTER_H
#define LORVEX_PLATFORM_DSHOW_GST_SINK_FILTER_H

#include "platform/com/LxpCom.h"

#include <cstdint>

typedef struct _GstElement GstElement;

namespace lxp {

typedef int64_t REFERENCE_TIME;

/// {6C4D2A13-7F3B-4E21-9A58-51D0C8B7E301}
inline constexpr IID IID_IGstSinkFilter = {
    0x6C4D2A13, 0x7F3B, 0x4E21, {0x9A, 0x58, 0x51, 0xD0, 0xC8, 0xB7, 0xE3, 0x01}};

class IGstSinkFilter : public IUnknown {
  public:
    /// The filter's bin, referenced for the caller (the same bin on every call). Called on the
    /// graph's threads after GStreamer has been initialised; E_FAIL when the bin cannot be made.
    virtual HRESULT GetSinkElement(GstElement** element) = 0;
    /// The stream time (100 ns) that is media time 0: the filter reports sample times as stream
    /// time minus origin. Set by the graph after it has rendered, before the graph is cued.
    virtual HRESULT SetStreamOrigin(REFERENCE_TIME origin) = 0;
};

}  // namespace lxp

#endif
