#include "platform/dshow/LxpGraphBase.h"

#include "LxLog.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace lxp {

namespace {
// How soon after the end a seek to the start, and a Run after that seek, must come for the run
// to count as the clip's next loop. A player that loops does both at once; a host that restarts
// a finished clip waits for the end to reach it first, and its restart keeps its own timing.
constexpr int64_t kSeamlessLoopNs = 250 * 1000 * 1000;
}  // namespace

std::string narrowName(const WCHAR* name) {
    if (name == nullptr || *name == 0) {
        return std::string();
    }
    const int32_t needed = WideCharToMultiByte(CP_ACP, 0, name, -1, nullptr, 0, nullptr, nullptr);
    std::string out(static_cast<size_t>(needed > 0 ? needed : 1), '\0');
    WideCharToMultiByte(CP_ACP, 0, name, -1, &out[0], needed, nullptr, nullptr);
    out.resize(std::strlen(out.c_str()));
    return out;
}

std::wstring widenName(const char* name) {
    if (name == nullptr || *name == 0) {
        return std::wstring();
    }
    const int32_t needed = MultiByteToWideChar(CP_ACP, 0, name, -1, nullptr, 0);
    std::wstring out(static_cast<size_t>(needed > 0 ? needed : 1), L'\0');
    MultiByteToWideChar(CP_ACP, 0, name, -1, &out[0], needed);
    out.resize(std::wcslen(out.c_str()));
    return out;
}

// ---------------------------------------------------------------------------------------------
// BasicPin

BasicPin::BasicPin(BasicFilter* owner, const std::wstring& name, PIN_DIRECTION direction)
    : owner_(owner), name_(name), direction_(direction), peer_(nullptr), type_(makeMajorType(GUID_NULL)) {}

BasicPin::~BasicPin() {
    FreeMediaType(type_);
}

HRESULT BasicPin::QueryInterface(const IID& iid, void** out) {
    if (out == nullptr) {
        return E_POINTER;
    }
    if (iid == IID_IPin || iid == IID_IUnknown) {
        *out = static_cast<IPin*>(this);
        AddRef();
        return S_OK;
    }
    *out = nullptr;
    return E_NOINTERFACE;
}

uint32_t BasicPin::AddRef() {
    return owner_->AddRef();
}
uint32_t BasicPin::Release() {
    return owner_->Release();
}

HRESULT BasicPin::ReceiveConnection(IPin* connector, const AM_MEDIA_TYPE* type) {
    if (connector == nullptr || type == nullptr) {
        return E_POINTER;
    }
    if (direction_ != PINDIR_INPUT) {
        return E_UNEXPECTED;
    }
    std::lock_guard<std::mutex> guard(mutex_);
    if (peer_ != nullptr) {
        return VFW_E_ALREADY_CONNECTED;
    }
    AM_MEDIA_TYPE copy;
    const HRESULT hr = CopyMediaType(&copy, type);
    if (FAILED(hr)) {
        return hr;
    }
    FreeMediaType(type_);
    type_ = copy;
    peer_ = connector;
    return S_OK;
}

HRESULT BasicPin::Disconnect() {
    return answerDisconnect(mutex_, peer_, [] {});
}

HRESULT BasicPin::ConnectedTo(IPin** peer) {
    return answerConnectedTo(mutex_, peer_, peer);
}

HRESULT BasicPin::ConnectionMediaType(AM_MEDIA_TYPE* type) {
    return answerConnectionMediaType(mutex_, peer_, type,
                                     [this](AM_MEDIA_TYPE* out) { return CopyMediaType(out, &type_); });
}

HRESULT BasicPin::QueryPinInfo(PIN_INFO* info) {
    return answerPinInfo(owner_, direction_, name_.c_str(), info);
}

HRESULT BasicPin::QueryDirection(PIN_DIRECTION* direction) {
    return answerDirection(direction_, direction);
}

HRESULT BasicPin::QueryAccept(const AM_MEDIA_TYPE* type) {
    if (type == nullptr) {
        return E_POINTER;
    }
    std::lock_guard<std::mutex> guard(mutex_);
    return type_.majortype == GUID_NULL || type_.majortype == type->majortype ? S_OK : S_FALSE;
}

void BasicPin::setMediaType(const AM_MEDIA_TYPE& type) {
    AM_MEDIA_TYPE copy;
    if (FAILED(CopyMediaType(&copy, &type))) {
        return;
    }
    std::lock_guard<std::mutex> guard(mutex_);
    FreeMediaType(type_);
    type_ = copy;
}

HRESULT BasicPin::connectTo(IPin* input, const AM_MEDIA_TYPE& type) {
    if (input == nullptr) {
        return E_POINTER;
    }
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (peer_ != nullptr) {
            return VFW_E_ALREADY_CONNECTED;
        }
    }
    // The input decides without our lock held: it may call back (QueryPinInfo) while deciding.
    const HRESULT hr = input->ReceiveConnection(this, &type);
    if (FAILED(hr)) {
        return hr;
    }
    setMediaType(type);
    std::lock_guard<std::mutex> guard(mutex_);
    peer_ = input;
    return S_OK;
}

void BasicPin::disconnectBoth() {
    IPin* other = nullptr;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        other = peer_;
        peer_ = nullptr;
    }
    if (other != nullptr) {
        other->Disconnect();
    }
}

IPin* BasicPin::peer() {
    std::lock_guard<std::mutex> guard(mutex_);
    return peer_;
}

// ---------------------------------------------------------------------------------------------
// BasicFilter

BasicFilter::BasicFilter(const std::wstring& name) : name_(name), graph_(nullptr), state_(State_Stopped) {}

BasicFilter::~BasicFilter() {}

HRESULT BasicFilter::QueryInterface(const IID& iid, void** out) {
    if (out != nullptr && (iid == IID_IBaseFilter || iid == IID_IMediaFilter)) {
        *out = static_cast<IBaseFilter*>(this);
        AddRef();
        return S_OK;
    }
    return queryBase(iid, out);
}

HRESULT BasicFilter::setState(FILTER_STATE state) {
    std::lock_guard<std::mutex> guard(mutex_);
    state_ = state;
    return S_OK;
}

HRESULT BasicFilter::GetState(int32_t, FILTER_STATE* state) {
    if (state == nullptr) {
        return E_POINTER;
    }
    std::lock_guard<std::mutex> guard(mutex_);
    *state = state_;
    return S_OK;
}

HRESULT BasicFilter::EnumPins(IEnumPins** pins) {
    if (pins == nullptr) {
        return E_POINTER;
    }
    std::vector<IPin*> list;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        for (auto& p : pins_) {
            list.push_back(p.get());
        }
    }
    *pins = new PinListEnum(list);
    return S_OK;
}

HRESULT BasicFilter::QueryFilterInfo(FILTER_INFO* info) {
    return answerFilterInfo(mutex_, name_, graph_, info);
}

HRESULT BasicFilter::JoinFilterGraph(IFilterGraph* graph, const WCHAR* name) {
    std::lock_guard<std::mutex> guard(mutex_);
    graph_ = graph;
    if (graph != nullptr && name != nullptr && *name != 0) {
        name_ = name;
    }
    return S_OK;
}

BasicPin* BasicFilter::addPin(const std::wstring& name, PIN_DIRECTION direction) {
    std::lock_guard<std::mutex> guard(mutex_);
    pins_.emplace_back(new BasicPin(this, name, direction));
    return pins_.back().get();
}

BasicPin* BasicFilter::pin(size_t index) {
    std::lock_guard<std::mutex> guard(mutex_);
    return index < pins_.size() ? pins_[index].get() : nullptr;
}

size_t BasicFilter::pinCount() {
    std::lock_guard<std::mutex> guard(mutex_);
    return pins_.size();
}

std::wstring BasicFilter::name() {
    std::lock_guard<std::mutex> guard(mutex_);
    return name_;
}

// ---------------------------------------------------------------------------------------------
// FilterGraphBase

FilterGraphBase::FilterGraphBase(const char* backendName)
    : backendName_(backendName),
      refs_(1),
      source_(nullptr),
      state_(State_Stopped),
      timeFormat_(TIME_FORMAT_MEDIA_TIME),
      rate_(1.0),
      anchorPosition_(0),
      anchorNs_(0),
      moving_(false),
      timelineNs_(0),
      completedNs_(-1),
      loopSeekNs_(-1),
      stopPosition_(-1),
      knownDuration_(-1),
      completePosted_(false),
      seeking_(false),
      rendered_(false) {}

FilterGraphBase::~FilterGraphBase() {}

HRESULT FilterGraphBase::QueryInterface(const IID& iid, void** out) {
    if (out == nullptr) {
        return E_POINTER;
    }
    if (iid == IID_IUnknown || iid == IID_IGraphBuilder || iid == IID_IFilterGraph) {
        *out = static_cast<IGraphBuilder*>(this);
    } else if (iid == IID_IMediaControl) {
        *out = static_cast<IMediaControl*>(this);
    } else if (iid == IID_IMediaSeeking) {
        *out = static_cast<IMediaSeeking*>(this);
    } else if (iid == IID_IMediaEvent) {
        *out = static_cast<IMediaEvent*>(this);
    } else if (iid == IID_IMediaEventSink) {
        *out = static_cast<IMediaEventSink*>(this);
    } else {
        *out = nullptr;
        return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
}

uint32_t FilterGraphBase::AddRef() {
    return refs_.fetch_add(1) + 1;
}

uint32_t FilterGraphBase::Release() {
    const uint32_t left = refs_.fetch_sub(1) - 1;
    if (left == 0) {
        // The streaming side stops while the object is whole; only then do the filters go, so no
        // renderer reports to a graph that is half destroyed.
        shutdown();
        releaseFilters();
        delete this;
    }
    return left;
}

void FilterGraphBase::releaseFilters() {
    std::vector<Entry> entries;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        entries.swap(filters_);
        renderers_.clear();
        completed_.clear();
        source_ = nullptr;
    }
    for (Entry& e : entries) {
        e.filter->Stop();
    }
    for (Entry& e : entries) {
        if (e.own) {
            BasicFilter* own = static_cast<BasicFilter*>(e.filter);
            for (size_t i = 0; i < own->pinCount(); ++i) {
                own->pin(i)->disconnectBoth();
            }
        }
    }
    for (Entry& e : entries) {
        e.filter->JoinFilterGraph(nullptr, nullptr);
        e.filter->Release();
    }
}

HRESULT FilterGraphBase::AddFilter(IBaseFilter* filter, const WCHAR* name) {
    if (filter == nullptr) {
        return E_POINTER;
    }
    {
        std::lock_guard<std::mutex> guard(mutex_);
        for (const Entry& e : filters_) {
            if (e.filter == filter) {
                return E_INVALIDARG;
            }
        }
    }
    const HRESULT hr = filter->JoinFilterGraph(this, name);
    if (FAILED(hr)) {
        return hr;
    }
    filter->AddRef();
    std::lock_guard<std::mutex> guard(mutex_);
    filters_.push_back({filter, false});
    return S_OK;
}

void FilterGraphBase::addOwnFilter(BasicFilter* filter) {
    filter->JoinFilterGraph(this, nullptr);
    filter->AddRef();
    std::lock_guard<std::mutex> guard(mutex_);
    filters_.push_back({filter, true});
}

HRESULT FilterGraphBase::RemoveFilter(IBaseFilter* filter) {
    if (filter == nullptr) {
        return E_POINTER;
    }
    bool connected = false;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        auto it = std::find_if(filters_.begin(), filters_.end(),
                               [&](const Entry& e) { return e.filter == filter; });
        if (it == filters_.end()) {
            return VFW_E_NOT_FOUND;
        }
        if (it->own) {
            return E_INVALIDARG;  // the graph's own filters go with the graph
        }
        connected = renderers_.count(filter) != 0;
        if (connected && state_ != State_Stopped) {
            return VFW_E_NOT_STOPPED;
        }
    }
    if (connected) {
        const HRESULT hr = disconnectRenderer(filter);
        if (FAILED(hr)) {
            return hr;
        }
        setRendererConnected(filter, false);
    }
    {
        std::lock_guard<std::mutex> guard(mutex_);
        auto it = std::find_if(filters_.begin(), filters_.end(),
                               [&](const Entry& e) { return e.filter == filter; });
        if (it != filters_.end()) {
            filters_.erase(it);
        }
    }
    filter->Stop();
    filter->JoinFilterGraph(nullptr, nullptr);
    filter->Release();
    return S_OK;
}

HRESULT FilterGraphBase::EnumFilters(IEnumFilters** filters) {
    if (filters == nullptr) {
        return E_POINTER;
    }
    std::vector<IBaseFilter*> list;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        for (const Entry& e : filters_) {
            list.push_back(e.filter);
        }
    }
    *filters = new FilterListEnum(list);
    return S_OK;
}

HRESULT FilterGraphBase::AddSourceFilter(const WCHAR* file, const WCHAR* filterName, IBaseFilter** filter) {
    if (file == nullptr || filter == nullptr) {
        return E_POINTER;
    }
    *filter = nullptr;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (source_ != nullptr) {
            return E_NOTIMPL;  // one source per graph is all the player builds
        }
    }
    const std::string path = narrowName(file);
    std::FILE* f = path.empty() ? nullptr : std::fopen(path.c_str(), "rb");
    if (f == nullptr) {
        LxLog::postDebug("LxpGraph: cannot open source file %s\n", path.c_str());
        return HRESULT_FILE_NOT_FOUND;
    }
    std::fclose(f);
    const std::wstring name =
        filterName != nullptr && *filterName != 0 ? std::wstring(filterName) : widenName(path.c_str());
    BasicFilter* source = nullptr;
    const HRESULT hr = createSource(path, name, &source);
    if (FAILED(hr)) {
        return hr;
    }
    source->JoinFilterGraph(this, name.c_str());
    {
        std::lock_guard<std::mutex> guard(mutex_);
        source->AddRef();
        filters_.push_back({source, true});
        source_ = source;
    }
    *filter = source;  // the creation reference goes to the caller
    return S_OK;
}

HRESULT FilterGraphBase::Render(IPin* pin) {
    if (pin == nullptr) {
        return E_POINTER;
    }
    PIN_INFO info;
    HRESULT hr = pin->QueryPinInfo(&info);
    if (FAILED(hr)) {
        return hr;
    }
    BasicFilter* source = nullptr;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (source_ != nullptr && info.pFilter == static_cast<IBaseFilter*>(source_)) {
            source = source_;
        }
        if (state_ != State_Stopped) {
            info.pFilter->Release();
            return VFW_E_NOT_STOPPED;
        }
    }
    info.pFilter->Release();
    if (source == nullptr || info.dir != PINDIR_OUTPUT) {
        return VFW_E_NOT_IN_GRAPH;
    }
    IPin* peer = nullptr;
    if (SUCCEEDED(pin->ConnectedTo(&peer))) {
        peer->Release();
        return VFW_E_ALREADY_CONNECTED;
    }
    hr = renderSource(source);
    if (SUCCEEDED(hr)) {
        REFERENCE_TIME d = -1;
        if (FAILED(mediaDuration(&d))) {
            d = -1;
        }
        std::lock_guard<std::mutex> guard(mutex_);
        knownDuration_ = d;
        rendered_ = true;
    }
    resetCompletion();
    return hr;
}

void FilterGraphBase::setFilterStates(FILTER_STATE state) {
    std::vector<IBaseFilter*> list;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        for (const Entry& e : filters_) {
            e.filter->AddRef();
            list.push_back(e.filter);
        }
    }
    for (IBaseFilter* f : list) {
        if (state == State_Stopped) {
            f->Stop();
        } else if (state == State_Paused) {
            f->Pause();
        } else {
            f->Run(0);
        }
        f->Release();
    }
}

HRESULT FilterGraphBase::Pause() {
    FILTER_STATE from;
    REFERENCE_TIME position;
    REFERENCE_TIME stop;
    double rate;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        from = state_;
        if (from == State_Paused) {
            return S_OK;
        }
        if (!rendered_) {
            return VFW_E_WRONG_STATE;  // nothing to play before a successful Render
        }
        // The position stands still from here on.
        anchorPosition_ = positionLocked();
        moving_ = false;
        position = anchorPosition_;
        stop = stopPosition_;
        rate = rate_;
    }
    HRESULT hr;
    if (from == State_Stopped) {
        // The renderers accept samples before the cue sends them.
        setFilterStates(State_Paused);
        hr = cue(position, stop, rate);
        if (FAILED(hr)) {
            setFilterStates(State_Stopped);
            return hr;
        }
    } else {
        setFilterStates(State_Paused);
        hr = pause();
        if (FAILED(hr)) {
            return hr;
        }
    }
    std::lock_guard<std::mutex> guard(mutex_);
    state_ = State_Paused;
    return hr;
}

HRESULT FilterGraphBase::Run() {
    FILTER_STATE from = graphState();
    if (from == State_Running) {
        return S_OK;
    }
    HRESULT hr = S_OK;
    if (from == State_Stopped) {
        hr = Pause();
        if (FAILED(hr)) {
            return hr;
        }
    }
    setFilterStates(State_Running);
    {
        // Set before the backend runs so that a clock start it reports counts from now on.
        std::lock_guard<std::mutex> guard(mutex_);
        state_ = State_Running;
        const int64_t now = nowNs();
        // A clip sought back to its start right after it completed, and run again at once, is
        // looping: its second pass belongs right after the end of the first, however long the
        // pause, the seek and the cue in between took.
        timelineNs_ = loopSeekNs_ >= 0 && now - loopSeekNs_ <= kSeamlessLoopNs ? completedNs_ : now;
        loopSeekNs_ = -1;
    }
    hr = run();
    if (FAILED(hr)) {
        {
            std::lock_guard<std::mutex> guard(mutex_);
            state_ = State_Paused;
            moving_ = false;
        }
        setFilterStates(State_Paused);
        return hr;
    }
    std::lock_guard<std::mutex> guard(mutex_);
    checkCompleteLocked();  // the end may have come while paused
    return hr;
}

HRESULT FilterGraphBase::Stop() {
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (state_ == State_Stopped) {
            return S_OK;
        }
        anchorPosition_ = positionLocked();
        moving_ = false;
        completedNs_ = -1;
        loopSeekNs_ = -1;
    }
    setFilterStates(State_Stopped);
    const HRESULT hr = stop();
    {
        std::lock_guard<std::mutex> guard(mutex_);
        state_ = State_Stopped;
    }
    resetCompletion();
    return hr;
}

HRESULT FilterGraphBase::GetState(int32_t msTimeout, OAFilterState* state) {
    if (state == nullptr) {
        return E_POINTER;
    }
    const HRESULT hr = waitForTransition(msTimeout);
    *state = graphState();
    return hr;
}

HRESULT FilterGraphBase::IsFormatSupported(const GUID* format) {
    if (format == nullptr) {
        return E_POINTER;
    }
    if (*format == TIME_FORMAT_MEDIA_TIME) {
        return S_OK;
    }
    int32_t num = 0;
    int32_t den = 0;
    if (*format == TIME_FORMAT_FRAME && videoFrameRate(&num, &den)) {
        return S_OK;
    }
    return S_FALSE;
}

HRESULT FilterGraphBase::GetTimeFormat(GUID* format) {
    if (format == nullptr) {
        return E_POINTER;
    }
    std::lock_guard<std::mutex> guard(mutex_);
    *format = timeFormat_;
    return S_OK;
}

HRESULT FilterGraphBase::SetTimeFormat(const GUID* format) {
    if (format == nullptr) {
        return E_POINTER;
    }
    if (IsFormatSupported(format) != S_OK) {
        return E_INVALIDARG;
    }
    std::lock_guard<std::mutex> guard(mutex_);
    timeFormat_ = *format;
    return S_OK;
}

HRESULT FilterGraphBase::convertTime(const GUID& format, int64_t value, bool toMedia, int64_t* out) {
    if (format == TIME_FORMAT_MEDIA_TIME) {
        *out = value;
        return S_OK;
    }
    // Frames at num/den frames a second: media time = frames * UNITS * den / num.
    int32_t num = 0;
    int32_t den = 0;
    if (format == TIME_FORMAT_FRAME && videoFrameRate(&num, &den)) {
        const double v = static_cast<double>(value);
        *out = static_cast<int64_t>(
            std::llround(toMedia ? v * UNITS * den / num : v * num / (static_cast<double>(UNITS) * den)));
        return S_OK;
    }
    return E_INVALIDARG;
}

HRESULT FilterGraphBase::GetDuration(LONGLONG* duration) {
    if (duration == nullptr) {
        return E_POINTER;
    }
    REFERENCE_TIME d = -1;
    HRESULT hr = mediaDuration(&d);
    if (FAILED(hr) || d < 0) {
        return FAILED(hr) ? hr : E_FAIL;
    }
    GUID format;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        knownDuration_ = d;
        format = timeFormat_;
    }
    return fromMediaTime(format, d, duration);
}

REFERENCE_TIME FilterGraphBase::positionLocked() {
    REFERENCE_TIME p = anchorPosition_;
    if (moving_) {
        const int64_t elapsedNs = nowNs() - anchorNs_;
        p += static_cast<REFERENCE_TIME>(static_cast<double>(elapsedNs) / 100.0 * rate_);
    }
    if (stopPosition_ >= 0 && p > stopPosition_) {
        p = stopPosition_;
    }
    if (knownDuration_ >= 0 && p > knownDuration_) {
        p = knownDuration_;
    }
    return p < 0 ? 0 : p;
}

REFERENCE_TIME FilterGraphBase::currentPosition() {
    std::lock_guard<std::mutex> guard(mutex_);
    return positionLocked();
}

HRESULT FilterGraphBase::GetCurrentPosition(LONGLONG* position) {
    if (position == nullptr) {
        return E_POINTER;
    }
    REFERENCE_TIME p;
    GUID format;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        p = positionLocked();
        format = timeFormat_;
    }
    return fromMediaTime(format, p, position);
}

HRESULT FilterGraphBase::SetPositions(LONGLONG* current, uint32_t currentFlags, LONGLONG* stop,
                                      uint32_t stopFlags) {
    const uint32_t currentMode = currentFlags & AM_SEEKING_PositioningBitsMask;
    const uint32_t stopMode = stopFlags & AM_SEEKING_PositioningBitsMask;
    if ((currentMode != AM_SEEKING_NoPositioning && current == nullptr) ||
        (stopMode != AM_SEEKING_NoPositioning && stop == nullptr)) {
        return E_POINTER;
    }
    if (currentMode == AM_SEEKING_IncrementalPositioning) {
        return E_INVALIDARG;
    }
    GUID format;
    REFERENCE_TIME now;
    REFERENCE_TIME oldStop;
    REFERENCE_TIME duration;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        format = timeFormat_;
        now = positionLocked();
        oldStop = stopPosition_;
        duration = knownDuration_;
    }
    REFERENCE_TIME newPosition = now;
    REFERENCE_TIME newStop = oldStop;
    REFERENCE_TIME value = 0;
    if (currentMode != AM_SEEKING_NoPositioning) {
        HRESULT hr = toMediaTime(format, *current, &value);
        if (FAILED(hr)) {
            return hr;
        }
        newPosition = currentMode == AM_SEEKING_AbsolutePositioning ? value : now + value;
    }
    if (stopMode != AM_SEEKING_NoPositioning) {
        HRESULT hr = toMediaTime(format, *stop, &value);
        if (FAILED(hr)) {
            return hr;
        }
        const REFERENCE_TIME base = oldStop >= 0 ? oldStop : duration;
        newStop = stopMode == AM_SEEKING_AbsolutePositioning   ? value
                  : stopMode == AM_SEEKING_RelativePositioning ? base + value
                                                               : newPosition + value;
    }
    if (newPosition < 0) {
        newPosition = 0;
    }
    if (currentMode == AM_SEEKING_NoPositioning && stopMode == AM_SEEKING_NoPositioning) {
        return S_OK;
    }
    FILTER_STATE state;
    REFERENCE_TIME previousAnchor;
    int64_t previousAnchorNs;
    bool previousMoving;
    double rate;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        state = state_;
        previousAnchor = anchorPosition_;
        previousAnchorNs = anchorNs_;
        previousMoving = moving_;
        rate = rate_;
        stopPosition_ = newStop;
        if (currentMode != AM_SEEKING_NoPositioning) {
            anchorPosition_ = newPosition;
            moving_ = false;
            const int64_t nowTime = nowNs();
            timelineNs_ = nowTime;  // a running graph plays newPosition from now on
            loopSeekNs_ = state == State_Paused && newPosition == 0 && completedNs_ >= 0 &&
                                  nowTime - completedNs_ <= kSeamlessLoopNs
                              ? nowTime
                              : -1;
        }
        if (state == State_Stopped) {
            return S_OK;  // applied when the graph is cued
        }
        seeking_ = true;
        completePosted_ = false;
        purgeCompleteLocked();
    }
    const HRESULT hr = seek(currentMode != AM_SEEKING_NoPositioning ? newPosition : now, newStop, rate);
    std::lock_guard<std::mutex> guard(mutex_);
    seeking_ = false;
    if (FAILED(hr)) {
        anchorPosition_ = previousAnchor;
        anchorNs_ = previousAnchorNs;
        moving_ = previousMoving;
        stopPosition_ = oldStop;
    }
    checkCompleteLocked();
    return hr;
}

HRESULT FilterGraphBase::SetRate(double rate) {
    if (!(rate > 0.0) || !std::isfinite(rate)) {
        return E_INVALIDARG;
    }
    FILTER_STATE state;
    REFERENCE_TIME position;
    REFERENCE_TIME stop;
    double oldRate;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        state = state_;
        oldRate = rate_;
        // The rate changes here: the position reached so far stays where it is.
        position = positionLocked();
        anchorPosition_ = position;
        anchorNs_ = nowNs();
        timelineNs_ = anchorNs_;
        rate_ = rate;
        stop = stopPosition_;
        if (state == State_Stopped) {
            return S_OK;
        }
        moving_ = false;
        seeking_ = true;
        completePosted_ = false;
        purgeCompleteLocked();
    }
    const HRESULT hr = seek(position, stop, rate);
    std::lock_guard<std::mutex> guard(mutex_);
    seeking_ = false;
    if (FAILED(hr)) {
        rate_ = oldRate;
    }
    checkCompleteLocked();
    return hr;
}

HRESULT FilterGraphBase::GetRate(double* rate) {
    if (rate == nullptr) {
        return E_POINTER;
    }
    std::lock_guard<std::mutex> guard(mutex_);
    *rate = rate_;
    return S_OK;
}

int64_t FilterGraphBase::startClock() {
    std::lock_guard<std::mutex> guard(mutex_);
    if (state_ != State_Running) {
        return 0;
    }
    const int64_t now = nowNs();
    anchorNs_ = timelineNs_;
    moving_ = true;
    return now - anchorNs_;
}

FILTER_STATE FilterGraphBase::graphState() {
    std::lock_guard<std::mutex> guard(mutex_);
    return state_;
}

double FilterGraphBase::currentRate() {
    std::lock_guard<std::mutex> guard(mutex_);
    return rate_;
}

HRESULT FilterGraphBase::GetEvent(int32_t* code, LONG_PTR* param1, LONG_PTR* param2, int32_t msTimeout) {
    if (code == nullptr || param1 == nullptr || param2 == nullptr) {
        return E_POINTER;
    }
    std::unique_lock<std::mutex> lock(mutex_);
    if (events_.empty() && msTimeout != 0) {
        if (msTimeout < 0) {
            eventArrived_.wait(lock, [&] { return !events_.empty(); });
        } else {
            eventArrived_.wait_for(lock, std::chrono::milliseconds(msTimeout),
                                   [&] { return !events_.empty(); });
        }
    }
    if (events_.empty()) {
        return E_ABORT;
    }
    const Event e = events_.front();
    events_.pop_front();
    *code = e.code;
    *param1 = e.param1;
    *param2 = e.param2;
    return S_OK;
}

HRESULT FilterGraphBase::FreeEventParams(int32_t, LONG_PTR, LONG_PTR) {
    return S_OK;  // no event of this graph carries allocated parameters
}

void FilterGraphBase::postEvent(int32_t code, LONG_PTR param1, LONG_PTR param2) {
    std::lock_guard<std::mutex> guard(mutex_);
    events_.push_back({code, param1, param2});
    eventArrived_.notify_all();
}

HRESULT FilterGraphBase::Notify(int32_t code, LONG_PTR param1, LONG_PTR param2) {
    IBaseFilter* filter = reinterpret_cast<IBaseFilter*>(param2);
    std::lock_guard<std::mutex> guard(mutex_);
    if (code == EC_COMPLETE) {
        if (renderers_.count(filter) != 0) {
            completed_.insert(filter);
            if (!seeking_) {
                checkCompleteLocked();
            }
        }
        return S_OK;
    }
    if (code == EC_LXP_RENDERER_FLUSHED) {
        completed_.erase(filter);
        return S_OK;
    }
    events_.push_back({code, param1, param2});
    eventArrived_.notify_all();
    return S_OK;
}

void FilterGraphBase::setRendererConnected(IBaseFilter* filter, bool connected) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (connected) {
        renderers_.insert(filter);
    } else {
        renderers_.erase(filter);
        completed_.erase(filter);
    }
}

void FilterGraphBase::resetCompletion() {
    std::lock_guard<std::mutex> guard(mutex_);
    completed_.clear();
    completePosted_ = false;
    purgeCompleteLocked();
}

void FilterGraphBase::checkCompleteLocked() {
    if (completePosted_ || state_ != State_Running || renderers_.empty()) {
        return;
    }
    for (IBaseFilter* r : renderers_) {
        if (completed_.count(r) == 0) {
            return;
        }
    }
    completePosted_ = true;
    // The clip's end is where its duration falls on the timeline: a stream that ends a little
    // before the others still loops at the duration the player wraps its clock at.
    completedNs_ = nowNs();
    if (moving_ && knownDuration_ >= 0 && rate_ > 0.0) {
        completedNs_ = anchorNs_ + static_cast<int64_t>(
                                       static_cast<double>(knownDuration_ - anchorPosition_) * 100.0 / rate_);
    }
    events_.push_back({EC_COMPLETE, S_OK, 0});
    eventArrived_.notify_all();
}

void FilterGraphBase::purgeCompleteLocked() {
    events_.erase(
        std::remove_if(events_.begin(), events_.end(), [](const Event& e) { return e.code == EC_COMPLETE; }),
        events_.end());
}

std::vector<IBaseFilter*> FilterGraphBase::externalFilters() {
    std::vector<IBaseFilter*> list;
    std::lock_guard<std::mutex> guard(mutex_);
    for (const Entry& e : filters_) {
        if (!e.own) {
            e.filter->AddRef();
            list.push_back(e.filter);
        }
    }
    return list;
}

IPin* FilterGraphBase::findAcceptingInput(IBaseFilter* filter, const AM_MEDIA_TYPE& type) {
    IEnumPins* pins = nullptr;
    if (FAILED(filter->EnumPins(&pins))) {
        return nullptr;
    }
    IPin* found = nullptr;
    IPin* pin = nullptr;
    while (found == nullptr && pins->Next(1, &pin, nullptr) == S_OK) {
        PIN_DIRECTION dir = PINDIR_OUTPUT;
        IPin* peer = nullptr;
        if (SUCCEEDED(pin->QueryDirection(&dir)) && dir == PINDIR_INPUT && FAILED(pin->ConnectedTo(&peer)) &&
            pin->QueryAccept(&type) == S_OK) {
            found = pin;
        } else {
            if (peer != nullptr) {
                peer->Release();
            }
            pin->Release();
        }
    }
    pins->Release();
    return found;
}

}  // namespace lxp
