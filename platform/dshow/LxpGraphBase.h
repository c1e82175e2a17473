// What both filter-graph backends share: the graph's own filters and pins, the filter list, the
// state machine, time formats and positions, the event queue and the end-of-stream bookkeeping.
// A backend derives from FilterGraphBase and supplies decoding, streaming and seeking.
//
// Internal to platform/dshow: backends include it, nothing else does.
#ifndef LORVEX_PLATFORM_DSHOW_GRAPH_BASE_H
#define LORVEX_PLATFORM_DSHOW_GRAPH_BASE_H

#include "platform/dshow/LxpGraph.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace lxp {

/// Narrows a wide name (null gives "").
std::string narrowName(const WCHAR* name);
std::wstring widenName(const char* name);

class BasicFilter;

/// A pin of one of the graph's own filters (source, decoder). Its references count on the filter.
/// Thread-safe.
class BasicPin : public IPin {
  public:
    BasicPin(BasicFilter* owner, const std::wstring& name, PIN_DIRECTION direction);
    ~BasicPin();

    HRESULT QueryInterface(const IID& iid, void** out) override;
    uint32_t AddRef() override;
    uint32_t Release() override;

    HRESULT ReceiveConnection(IPin* connector, const AM_MEDIA_TYPE* type) override;
    HRESULT Disconnect() override;
    HRESULT ConnectedTo(IPin** peer) override;
    HRESULT ConnectionMediaType(AM_MEDIA_TYPE* type) override;
    HRESULT QueryPinInfo(PIN_INFO* info) override;
    HRESULT QueryDirection(PIN_DIRECTION* direction) override;
    HRESULT QueryAccept(const AM_MEDIA_TYPE* type) override;
    HRESULT EndOfStream() override { return S_OK; }
    HRESULT BeginFlush() override { return S_OK; }
    HRESULT EndFlush() override { return S_OK; }
    HRESULT NewSegment(REFERENCE_TIME, REFERENCE_TIME, double) override { return S_OK; }

    /// The type this pin offers (output) or accepts (input; GUID_NULL major: anything).
    void setMediaType(const AM_MEDIA_TYPE& type);
    /// Connects this output pin to an input pin of another filter with type: the input's
    /// ReceiveConnection decides. Peers hold no references on each other; the graph disconnects
    /// them before either filter goes.
    HRESULT connectTo(IPin* input, const AM_MEDIA_TYPE& type);
    /// Disconnects both ends.
    void disconnectBoth();
    /// The peer without a reference (null when not connected).
    IPin* peer();

  private:
    BasicFilter* owner_;
    const std::wstring name_;
    const PIN_DIRECTION direction_;
    std::mutex mutex_;
    IPin* peer_;
    AM_MEDIA_TYPE type_;
};

/// A filter of the graph's own making: a name, pins, a state. Thread-safe.
class BasicFilter : public ComObject<IBaseFilter> {
  public:
    explicit BasicFilter(const std::wstring& name);

    HRESULT QueryInterface(const IID& iid, void** out) override;
    HRESULT Stop() override { return setState(State_Stopped); }
    HRESULT Pause() override { return setState(State_Paused); }
    HRESULT Run(REFERENCE_TIME) override { return setState(State_Running); }
    HRESULT GetState(int32_t msTimeout, FILTER_STATE* state) override;
    HRESULT EnumPins(IEnumPins** pins) override;
    HRESULT QueryFilterInfo(FILTER_INFO* info) override;
    HRESULT JoinFilterGraph(IFilterGraph* graph, const WCHAR* name) override;

    /// Adds a pin (before the filter is shared with other threads).
    BasicPin* addPin(const std::wstring& name, PIN_DIRECTION direction);
    BasicPin* pin(size_t index);
    size_t pinCount();
    std::wstring name();

  protected:
    ~BasicFilter() override;

  private:
    HRESULT setState(FILTER_STATE state);

    std::mutex mutex_;
    std::wstring name_;
    IFilterGraph* graph_;
    FILTER_STATE state_;
    std::vector<std::unique_ptr<BasicPin>> pins_;
};

/// The graph object: one reference count for all of its interfaces.
class FilterGraphBase : public IGraphBuilder,
                        public IMediaControl,
                        public IMediaSeeking,
                        public IMediaEvent,
                        public IMediaEventSink {
  public:
    HRESULT QueryInterface(const IID& iid, void** out) override;
    uint32_t AddRef() override;
    uint32_t Release() override;

    HRESULT AddFilter(IBaseFilter* filter, const WCHAR* name) override;
    HRESULT RemoveFilter(IBaseFilter* filter) override;
    HRESULT EnumFilters(IEnumFilters** filters) override;
    HRESULT Render(IPin* pin) override;
    HRESULT AddSourceFilter(const WCHAR* file, const WCHAR* filterName, IBaseFilter** filter) override;

    HRESULT Run() override;
    HRESULT Pause() override;
    HRESULT Stop() override;
    HRESULT GetState(int32_t msTimeout, OAFilterState* state) override;

    HRESULT IsFormatSupported(const GUID* format) override;
    HRESULT GetTimeFormat(GUID* format) override;
    HRESULT SetTimeFormat(const GUID* format) override;
    HRESULT GetDuration(LONGLONG* duration) override;
    HRESULT GetCurrentPosition(LONGLONG* position) override;
    HRESULT SetPositions(LONGLONG* current, uint32_t currentFlags, LONGLONG* stop,
                         uint32_t stopFlags) override;
    HRESULT SetRate(double rate) override;
    HRESULT GetRate(double* rate) override;

    HRESULT GetEvent(int32_t* code, LONG_PTR* param1, LONG_PTR* param2, int32_t msTimeout) override;
    HRESULT FreeEventParams(int32_t code, LONG_PTR param1, LONG_PTR param2) override;

    /// From renderer filters, on any thread.
    HRESULT Notify(int32_t code, LONG_PTR param1, LONG_PTR param2) override;

  protected:
    /// name: the backend's name for the call log of the simulated backend and for messages.
    explicit FilterGraphBase(const char* backendName);
    virtual ~FilterGraphBase();

    // Backend hooks: called on the owner's thread, never with the graph's lock held.

    /// A source filter for a readable local file; the base adds it to the graph.
    virtual HRESULT createSource(const std::string& path, const std::wstring& name, BasicFilter** source) = 0;
    /// Decodes what the source gives and connects the streams (see IGraphBuilder::Render).
    virtual HRESULT renderSource(BasicFilter* source) = 0;
    /// Stopped to paused: the renderers get the samples at position.
    virtual HRESULT cue(REFERENCE_TIME position, REFERENCE_TIME stop, double rate) = 0;
    /// Paused to running; call startClock() when media time starts to move.
    virtual HRESULT run() = 0;
    /// Running to paused.
    virtual HRESULT pause() = 0;
    /// Paused or running to stopped (nothing reaches the renderers while stopped).
    virtual HRESULT stop() = 0;
    /// A flushing seek while paused or running; running, call startClock() when media moves again.
    virtual HRESULT seek(REFERENCE_TIME position, REFERENCE_TIME stop, double rate) = 0;
    /// S_OK when the last state change has completed within ms, VFW_S_STATE_INTERMEDIATE if not.
    virtual HRESULT waitForTransition(int32_t ms) = 0;
    virtual HRESULT mediaDuration(REFERENCE_TIME* duration) = 0;
    /// The frame rate of the rendered video stream; false without one.
    virtual bool videoFrameRate(int32_t* numerator, int32_t* denominator) = 0;
    /// Undoes the connection of a renderer filter that is being removed from a stopped graph.
    virtual HRESULT disconnectRenderer(IBaseFilter* filter) = 0;
    /// A monotonic clock in nanoseconds for the position.
    virtual int64_t nowNs() = 0;
    /// Called once, before the graph is destroyed, while the object is whole: stop streaming
    /// threads and release backend resources. The filters are released afterwards.
    virtual void shutdown() = 0;

    // Services for backends.

    void postEvent(int32_t code, LONG_PTR param1, LONG_PTR param2);
    /// Media time starts moving from the current position at the current rate. It is taken to have
    /// started when it was asked to (the Run, the seek or the rate change that a running graph
    /// restarts for) rather than now; returns how long ago that was in nanoseconds, which the
    /// backend makes up by presenting that much earlier (later when negative: a loop whose
    /// first pass ended before its duration).
    int64_t startClock();
    /// The current position in media time (100 ns), clamped to the duration when known.
    REFERENCE_TIME currentPosition();
    FILTER_STATE graphState();
    double currentRate();
    /// The backend connected (or disconnected) a renderer filter; the graph's EC_COMPLETE waits
    /// for the end of stream of every connected renderer.
    void setRendererConnected(IBaseFilter* filter, bool connected);
    /// Filters the caller added (not the graph's own), referenced; the caller releases them.
    std::vector<IBaseFilter*> externalFilters();
    /// Adds one of the graph's own filters (referenced by the graph).
    void addOwnFilter(BasicFilter* filter);
    /// The first unconnected input pin of filter that accepts type (referenced), or null.
    static IPin* findAcceptingInput(IBaseFilter* filter, const AM_MEDIA_TYPE& type);
    const char* backendName() const { return backendName_; }

  private:
    struct Entry {
        IBaseFilter* filter;
        bool own;
    };
    struct Event {
        int32_t code;
        LONG_PTR param1;
        LONG_PTR param2;
    };

    void setFilterStates(FILTER_STATE state);
    void resetCompletion();
    void checkCompleteLocked();
    void purgeCompleteLocked();
    REFERENCE_TIME positionLocked();
    HRESULT toMediaTime(const GUID& format, LONGLONG value, REFERENCE_TIME* out) {
        return convertTime(format, value, true, out);
    }
    HRESULT fromMediaTime(const GUID& format, REFERENCE_TIME value, LONGLONG* out) {
        return convertTime(format, value, false, out);
    }
    /// A time in format to media time (100 ns) or back; E_INVALIDARG for a format the graph cannot
    /// convert (frames without a known frame rate).
    HRESULT convertTime(const GUID& format, int64_t value, bool toMedia, int64_t* out);
    void releaseFilters();

    const char* backendName_;
    std::atomic<uint32_t> refs_;
    std::mutex mutex_;  // a leaf lock: never held while calling out
    std::condition_variable eventArrived_;
    std::vector<Entry> filters_;
    BasicFilter* source_;
    FILTER_STATE state_;
    GUID timeFormat_;
    double rate_;
    REFERENCE_TIME anchorPosition_;
    int64_t anchorNs_;
    bool moving_;
    // When media time should have started to move at its anchor (see startClock()).
    int64_t timelineNs_;
    // When the graph last completed (-1: not since the last stop), and when it was sought back
    // to its start soon after (-1: not): a Run soon after that continues the clip seamlessly.
    int64_t completedNs_;
    int64_t loopSeekNs_;
    REFERENCE_TIME stopPosition_;   // -1: the end of the clip
    REFERENCE_TIME knownDuration_;  // -1: not known yet
    std::deque<Event> events_;
    std::set<IBaseFilter*> renderers_;
    std::set<IBaseFilter*> completed_;
    bool completePosted_;
    bool seeking_;
    bool rendered_;
};

}  // namespace lxp

#endif
