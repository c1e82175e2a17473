// The filter-graph layer: DirectShow-shaped graphs, filters and pins.
//
// A graph is created through COM (CLSID_FilterGraph, see LxpGraphIds.h) and asked for its
// interfaces: IGraphBuilder to add a source filter for a file, add and remove filters and render a
// pin; IMediaControl to run, pause and stop; IMediaSeeking for time formats, duration, positions and
// rate; IMediaEvent for EC_COMPLETE and errors. Which backend answers (GStreamer or the scripted
// simulation) is the host's choice (LxPlatformGraph.h).
//
// Renderer filters come from outside the graph (the filter library). The graph connects its own
// output pins to their input pins with IPin::ReceiveConnection and feeds them either through
// IMemInputPin::Receive (the simulated backend) or through a GStreamer element the filter lends it
// (LxpGstSinkFilter.h). A renderer reports its end of stream with IMediaEventSink::Notify
// (EC_COMPLETE); the graph posts EC_COMPLETE when every connected renderer has done so.
//
// Threads: a graph belongs to the thread that created it (the player's thread); its interfaces are
// called there only. Renderer filters are called on that thread (state changes, connections) and
// on the graph's streaming threads (samples, flushes, end of stream). Times are 64-bit counts of
// 100 ns; a negative HRESULT is a failure.
#ifndef LORVEX_PLATFORM_DSHOW_GRAPH_H
#define LORVEX_PLATFORM_DSHOW_GRAPH_H

#include "LxApi.h"
#include "platform/com/LxpCom.h"
#include "platform/dshow/LxpGraphIds.h"

#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

// The filter plug-in implements its renderer filters on these interfaces; the functions it calls
// here are exported (LX_API) as part of its interface to the library.
namespace lxp {

typedef int64_t REFERENCE_TIME;
typedef int64_t LONGLONG;
typedef intptr_t LONG_PTR;
typedef wchar_t WCHAR;
typedef int32_t OAFilterState;

/// 100-ns units per second.
constexpr REFERENCE_TIME UNITS = 10000000;

enum FILTER_STATE { State_Stopped = 0, State_Paused = 1, State_Running = 2 };
enum PIN_DIRECTION { PINDIR_INPUT = 0, PINDIR_OUTPUT = 1 };

/// Wait without limit (GetEvent, GetState).
constexpr int32_t INFINITE_WAIT = -1;

// IMediaSeeking::SetPositions flags.
constexpr uint32_t AM_SEEKING_NoPositioning = 0;
constexpr uint32_t AM_SEEKING_AbsolutePositioning = 1;
constexpr uint32_t AM_SEEKING_RelativePositioning = 2;
constexpr uint32_t AM_SEEKING_IncrementalPositioning = 3;
constexpr uint32_t AM_SEEKING_PositioningBitsMask = 3;

struct RECT {
    int32_t left;
    int32_t top;
    int32_t right;
    int32_t bottom;
};

struct BITMAPINFOHEADER {
    uint32_t biSize;
    int32_t biWidth;
    /// Positive: rows bottom-up; negative: rows top-down (what the graph delivers).
    int32_t biHeight;
    uint16_t biPlanes;
    uint16_t biBitCount;
    uint32_t biCompression;
    uint32_t biSizeImage;
    int32_t biXPelsPerMeter;
    int32_t biYPelsPerMeter;
    uint32_t biClrUsed;
    uint32_t biClrImportant;
};

struct VIDEOINFOHEADER {
    RECT rcSource;
    RECT rcTarget;
    uint32_t dwBitRate;
    uint32_t dwBitErrorRate;
    /// 0 when unknown.
    REFERENCE_TIME AvgTimePerFrame;
    BITMAPINFOHEADER bmiHeader;
};

/// A media type; the format block (pbFormat) is allocated with CoTaskMemAlloc and released with
/// FreeMediaType by whoever received the type.
struct AM_MEDIA_TYPE {
    GUID majortype;
    GUID subtype;
    int32_t bFixedSizeSamples;
    int32_t bTemporalCompression;
    uint32_t lSampleSize;
    GUID formattype;
    IUnknown* pUnk;
    uint32_t cbFormat;
    uint8_t* pbFormat;
};

inline void* CoTaskMemAlloc(size_t bytes) {
    return std::malloc(bytes);
}
inline void CoTaskMemFree(void* block) {
    std::free(block);
}
/// Frees the format block and clears the type (the structure itself belongs to the caller).
LX_API void FreeMediaType(AM_MEDIA_TYPE& type);
/// A deep copy (format block included); E_OUTOFMEMORY when the block cannot be allocated.
LX_API HRESULT CopyMediaType(AM_MEDIA_TYPE* target, const AM_MEDIA_TYPE* source);
/// A type with only the major type set (a partial type: "any audio", "any video").
LX_API AM_MEDIA_TYPE makeMajorType(const GUID& major);

class IBaseFilter;
class IFilterGraph;

struct PIN_INFO {
    IBaseFilter* pFilter;  // referenced: the receiver releases it
    PIN_DIRECTION dir;
    WCHAR achName[128];
};

struct FILTER_INFO {
    WCHAR achName[128];
    IFilterGraph* pGraph;  // referenced when not null: the receiver releases it
};

/// One buffer of media data on its way to a renderer.
class IMediaSample : public IUnknown {
  public:
    virtual HRESULT GetPointer(uint8_t** buffer) = 0;
    virtual int32_t GetActualDataLength() = 0;
    /// Start and end as media times (positions in the clip); VFW_E_SAMPLE_TIME_NOT_SET without.
    virtual HRESULT GetTime(REFERENCE_TIME* start, REFERENCE_TIME* end) = 0;
    /// S_OK when the sample follows a gap (the first after a seek), S_FALSE otherwise.
    virtual HRESULT IsDiscontinuity() = 0;
};

class IPin : public IUnknown {
  public:
    /// Called on an input pin by the graph with the output pin that connects to it and the type it
    /// proposes (partial types allowed: the format then follows with the first data).
    virtual HRESULT ReceiveConnection(IPin* connector, const AM_MEDIA_TYPE* type) = 0;
    virtual HRESULT Disconnect() = 0;
    /// The peer (referenced), or VFW_E_NOT_CONNECTED.
    virtual HRESULT ConnectedTo(IPin** peer) = 0;
    /// A copy of the connection's type, or VFW_E_NOT_CONNECTED.
    virtual HRESULT ConnectionMediaType(AM_MEDIA_TYPE* type) = 0;
    virtual HRESULT QueryPinInfo(PIN_INFO* info) = 0;
    virtual HRESULT QueryDirection(PIN_DIRECTION* direction) = 0;
    /// S_OK when the pin would accept a connection of this type, S_FALSE otherwise.
    virtual HRESULT QueryAccept(const AM_MEDIA_TYPE* type) = 0;
    // Stream control, downstream through input pins (called on streaming threads).
    virtual HRESULT EndOfStream() = 0;
    /// Drops what is queued and makes a blocked Receive return; called on the seeking thread.
    virtual HRESULT BeginFlush() = 0;
    virtual HRESULT EndFlush() = 0;
    virtual HRESULT NewSegment(REFERENCE_TIME start, REFERENCE_TIME stop, double rate) = 0;
};

/// Sample delivery into an input pin. Receive may block while the renderer's queue is full; it
/// returns at once while the pin is flushing or its filter stopped.
class IMemInputPin : public IUnknown {
  public:
    virtual HRESULT Receive(IMediaSample* sample) = 0;
};

class IEnumPins : public IUnknown {
  public:
    /// Up to count referenced pins; S_OK when count were returned, S_FALSE when fewer.
    virtual HRESULT Next(uint32_t count, IPin** pins, uint32_t* fetched) = 0;
    virtual HRESULT Skip(uint32_t count) = 0;
    virtual HRESULT Reset() = 0;
};

class IMediaFilter : public IUnknown {
  public:
    virtual HRESULT Stop() = 0;
    virtual HRESULT Pause() = 0;
    virtual HRESULT Run(REFERENCE_TIME start) = 0;
    virtual HRESULT GetState(int32_t msTimeout, FILTER_STATE* state) = 0;
};

class IBaseFilter : public IMediaFilter {
  public:
    virtual HRESULT EnumPins(IEnumPins** pins) = 0;
    virtual HRESULT QueryFilterInfo(FILTER_INFO* info) = 0;
    /// The graph tells a filter it was added (graph, name) or removed (null, null). A filter does
    /// not reference its graph.
    virtual HRESULT JoinFilterGraph(IFilterGraph* graph, const WCHAR* name) = 0;
};

class IEnumFilters : public IUnknown {
  public:
    virtual HRESULT Next(uint32_t count, IBaseFilter** filters, uint32_t* fetched) = 0;
    virtual HRESULT Skip(uint32_t count) = 0;
    virtual HRESULT Reset() = 0;
};

class IFilterGraph : public IUnknown {
  public:
    /// Adds (and references) a filter under a name.
    virtual HRESULT AddFilter(IBaseFilter* filter, const WCHAR* name) = 0;
    /// Disconnects and removes a filter; VFW_E_NOT_STOPPED unless the graph is stopped or the
    /// filter is not connected; VFW_E_NOT_FOUND when it is not in the graph.
    virtual HRESULT RemoveFilter(IBaseFilter* filter) = 0;
    virtual HRESULT EnumFilters(IEnumFilters** filters) = 0;
};

class IGraphBuilder : public IFilterGraph {
  public:
    /// Renders an output pin: decodes what comes out of it and connects each stream to a filter
    /// already in the graph whose input accepts it; streams that no filter takes are decoded and
    /// discarded. S_OK, VFW_S_PARTIAL_RENDER when a stream could not be decoded, or a failure
    /// (VFW_E_CANNOT_RENDER, VFW_E_UNKNOWN_FILE_TYPE, VFW_E_TIMEOUT) with the graph left as before.
    virtual HRESULT Render(IPin* pin) = 0;
    /// Adds a source filter for a local file (one output pin, "Output"); the filter is referenced
    /// for the caller and for the graph. HRESULT_FILE_NOT_FOUND when the file cannot be read.
    virtual HRESULT AddSourceFilter(const WCHAR* file, const WCHAR* filterName, IBaseFilter** filter) = 0;
};

class IMediaControl : public IUnknown {
  public:
    /// Each returns S_OK when the graph is in the new state, S_FALSE while it is still on its way
    /// (pausing cues the renderers: each receives the sample at the current position).
    virtual HRESULT Run() = 0;
    virtual HRESULT Pause() = 0;
    virtual HRESULT Stop() = 0;
    /// The state the graph is going to; VFW_S_STATE_INTERMEDIATE when it has not arrived within
    /// msTimeout.
    virtual HRESULT GetState(int32_t msTimeout, OAFilterState* state) = 0;
};

class IMediaSeeking : public IUnknown {
  public:
    /// S_OK or S_FALSE. TIME_FORMAT_MEDIA_TIME always; TIME_FORMAT_FRAME when a video stream with a
    /// known frame rate is rendered.
    virtual HRESULT IsFormatSupported(const GUID* format) = 0;
    virtual HRESULT GetTimeFormat(GUID* format) = 0;
    /// E_INVALIDARG for an unsupported format.
    virtual HRESULT SetTimeFormat(const GUID* format) = 0;
    /// In the current time format; E_FAIL when the duration is unknown.
    virtual HRESULT GetDuration(LONGLONG* duration) = 0;
    virtual HRESULT GetCurrentPosition(LONGLONG* position) = 0;
    /// Absolute or relative current and stop positions (AM_SEEKING_*) in the current time format;
    /// seeks are flushing and land exactly on the position.
    virtual HRESULT SetPositions(LONGLONG* current, uint32_t currentFlags, LONGLONG* stop,
                                 uint32_t stopFlags) = 0;
    /// Positive rates only (E_INVALIDARG otherwise); the position is kept.
    virtual HRESULT SetRate(double rate) = 0;
    virtual HRESULT GetRate(double* rate) = 0;
};

class IMediaEvent : public IUnknown {
  public:
    /// The oldest event, waiting up to msTimeout (0: not at all; INFINITE_WAIT); E_ABORT when none.
    virtual HRESULT GetEvent(int32_t* code, LONG_PTR* param1, LONG_PTR* param2, int32_t msTimeout) = 0;
    virtual HRESULT FreeEventParams(int32_t code, LONG_PTR param1, LONG_PTR param2) = 0;
};

/// Codes from EC_USER up are private to filters and their graph.
constexpr int32_t EC_USER = 0x8000;
/// A renderer filter has finished a flush (parameters 0 and the filter): an end of stream it
/// reported before the flush no longer counts towards the graph's EC_COMPLETE.
constexpr int32_t EC_LXP_RENDERER_FLUSHED = EC_USER + 0x101;

/// How filters report to their graph (EC_COMPLETE with S_OK and the filter as parameters).
class IMediaEventSink : public IUnknown {
  public:
    virtual HRESULT Notify(int32_t code, LONG_PTR param1, LONG_PTR param2) = 0;
};

/// Text conversions for file and filter names: the "ANSI code page" is UTF-8 here. Bytes that are
/// not UTF-8 map to U+DC80..U+DCFF and back, so every file name survives the round trip.
constexpr uint32_t CP_ACP = 0;
constexpr uint32_t CP_UTF8 = 65001;
/// Win32 semantics: srcLength -1 converts up to and including the terminator; with dstLength 0 the
/// needed length is returned; 0 on failure (buffer too small, bad arguments).
LX_API int32_t MultiByteToWideChar(uint32_t codePage, uint32_t flags, const char* src, int32_t srcLength,
                                   WCHAR* dst, int32_t dstLength);
LX_API int32_t WideCharToMultiByte(uint32_t codePage, uint32_t flags, const WCHAR* src, int32_t srcLength,
                                   char* dst, int32_t dstLength, const char* defaultChar,
                                   int32_t* usedDefault);

/// Copies a wide name into a fixed array, truncating and always terminating.
LX_API void copyName(WCHAR* target, size_t capacity, const WCHAR* source);
/// IPin::ConnectedTo for a pin whose peer is peer (null when unconnected): *out takes a reference
/// on it, or is null with VFW_E_NOT_CONNECTED. The caller holds whatever guards its peer.
LX_API HRESULT answerConnectedTo(IPin* peer, IPin** out);
/// IPin::ConnectionMediaType of an unconnected pin: an empty type and VFW_E_NOT_CONNECTED.
LX_API HRESULT answerNotConnected(AM_MEDIA_TYPE* type);

// The answers below serve every pin and filter alike, whichever object holds the state: each takes
// the lock that guards it and the members it reads.

/// IPin::ConnectedTo, with lock taken here.
LX_API HRESULT answerConnectedTo(std::mutex& lock, IPin* const& peer, IPin** out);
/// IPin::Disconnect: forgets peer (S_FALSE when there was none) and runs forget, both under lock,
/// for whatever else the pin drops with its connection.
template <class Forget>
HRESULT answerDisconnect(std::mutex& lock, IPin*& peer, Forget forget) {
    std::lock_guard<std::mutex> guard(lock);
    if (peer == nullptr) {
        return S_FALSE;
    }
    peer = nullptr;
    forget();
    return S_OK;
}
/// IPin::ConnectionMediaType: the empty type of an unconnected pin, else what answer(type) says,
/// under lock.
template <class Answer>
HRESULT answerConnectionMediaType(std::mutex& lock, IPin* const& peer, AM_MEDIA_TYPE* type, Answer answer) {
    if (type == nullptr) {
        return E_POINTER;
    }
    std::lock_guard<std::mutex> guard(lock);
    if (peer == nullptr) {
        return answerNotConnected(type);
    }
    return answer(type);
}
/// IPin::QueryPinInfo of a pin of owner: a reference on the owner, the direction and the name.
LX_API HRESULT answerPinInfo(IBaseFilter* owner, PIN_DIRECTION direction, const WCHAR* name, PIN_INFO* info);
/// IPin::QueryDirection.
LX_API HRESULT answerDirection(PIN_DIRECTION direction, PIN_DIRECTION* out);
/// IBaseFilter::QueryFilterInfo of a filter called name in graph (which gets a reference), with lock
/// taken here.
LX_API HRESULT answerFilterInfo(std::mutex& lock, const std::wstring& name, IFilterGraph* const& graph,
                                FILTER_INFO* info);

/// An enumerator over a fixed list of referenced items (for IEnumPins and IEnumFilters).
template <class EnumInterface, class Item, const IID& EnumIid>
class ListEnum : public ComObject<EnumInterface> {
  public:
    /// Takes references on the items.
    explicit ListEnum(const std::vector<Item*>& items) : items_(items), next_(0) {
        for (Item* item : items_) {
            item->AddRef();
        }
    }

    HRESULT QueryInterface(const IID& iid, void** out) override {
        if (out != nullptr && iid == EnumIid) {
            *out = static_cast<EnumInterface*>(this);
            this->AddRef();
            return S_OK;
        }
        return this->queryBase(iid, out);
    }
    HRESULT Next(uint32_t count, Item** out, uint32_t* fetched) override {
        if (out == nullptr || (count > 1 && fetched == nullptr)) {
            return E_POINTER;
        }
        uint32_t n = 0;
        while (n < count && next_ < items_.size()) {
            out[n] = items_[next_++];
            out[n]->AddRef();
            ++n;
        }
        if (fetched != nullptr) {
            *fetched = n;
        }
        return n == count ? S_OK : S_FALSE;
    }
    HRESULT Skip(uint32_t count) override {
        const size_t left = items_.size() - next_;
        next_ += count < left ? count : left;
        return count <= left ? S_OK : S_FALSE;
    }
    HRESULT Reset() override {
        next_ = 0;
        return S_OK;
    }

  protected:
    ~ListEnum() override {
        for (Item* item : items_) {
            item->Release();
        }
    }

  private:
    std::vector<Item*> items_;
    size_t next_;
};

typedef ListEnum<IEnumPins, IPin, IID_IEnumPins> PinListEnum;
typedef ListEnum<IEnumFilters, IBaseFilter, IID_IEnumFilters> FilterListEnum;

}  // namespace lxp

#endif
