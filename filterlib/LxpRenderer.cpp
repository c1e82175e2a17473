#include "filterlib/LxpRenderer.h"

#include "LxLog.h"
#include "filterlib/LxpConnectableSink.h"

#include <chrono>
#include <cstring>
#include <cwchar>

namespace lxp {

// Samples the delivery thread may lag behind the graph while running. Audio buffers are short
// (tens of milliseconds); the consumer's own frame pool bounds how far ahead audio really runs.
// Video arrives on time, so two frames are plenty.
constexpr size_t kAudioQueue = 8;
constexpr size_t kVideoQueue = 2;
// How long GetOutputConnectable waits for a format that comes with the first data.
constexpr int kSpecWaitMs = 2000;
constexpr int kSpecPollMs = 5;

bool pixelFormatInfo(LxPixelFormat_s format, GUID* subtype, int32_t* bytesPerPixel) {
    switch (format) {
        case LxPixel32Alt:
            *subtype = MEDIASUBTYPE_LxRGB32Alt;
            *bytesPerPixel = 4;
            return true;
        case LxPixel24Alt:
            *subtype = MEDIASUBTYPE_LxRGB24Alt;
            *bytesPerPixel = 3;
            return true;
        case LxPixel32:
            *subtype = MEDIASUBTYPE_RGB32;
            *bytesPerPixel = 4;
            return true;
        case LxPixel24:
            *subtype = MEDIASUBTYPE_RGB24;
            *bytesPerPixel = 3;
            return true;
        default:
            return false;
    }
}

LxpVideoSpec makeVideoSpec(int32_t width, int32_t height, LxPixelFormat_s format,
                           REFERENCE_TIME frameDuration) {
    LxpVideoSpec spec;
    GUID subtype;
    int32_t bpp = 4;
    pixelFormatInfo(format, &subtype, &bpp);
    spec.width = width;
    spec.height = height;
    spec.pixelFormat = format;
    spec.bytesPerPixel = bpp;
    spec.stride = (width * bpp + 3) & ~3;
    spec.frameDuration = frameDuration;
    return spec;
}

AM_MEDIA_TYPE audioMediaType(const LxpAudioSpec& spec) {
    AM_MEDIA_TYPE type = makeMajorType(MEDIATYPE_Audio);
    type.subtype = MEDIASUBTYPE_PCM;
    type.bFixedSizeSamples = 1;
    type.lSampleSize = static_cast<uint32_t>(spec.blockAlign());
    type.formattype = FORMAT_WaveFormatEx;
    WAVEFORMATEX* wfx = static_cast<WAVEFORMATEX*>(CoTaskMemAlloc(sizeof(WAVEFORMATEX)));
    if (wfx != nullptr) {
        wfx->wFormatTag = WAVE_FORMAT_PCM;
        wfx->nChannels = static_cast<uint16_t>(spec.channels);
        wfx->nSamplesPerSec = static_cast<uint32_t>(spec.samplesPerSecond);
        wfx->nBlockAlign = static_cast<uint16_t>(spec.blockAlign());
        wfx->nAvgBytesPerSec = wfx->nSamplesPerSec * wfx->nBlockAlign;
        wfx->wBitsPerSample = static_cast<uint16_t>(spec.bitsPerSample);
        wfx->cbSize = 0;
        type.cbFormat = sizeof(WAVEFORMATEX);
        type.pbFormat = reinterpret_cast<uint8_t*>(wfx);
    }
    return type;
}

AM_MEDIA_TYPE videoMediaType(const LxpVideoSpec& spec) {
    AM_MEDIA_TYPE type = makeMajorType(MEDIATYPE_Video);
    int32_t bpp = 4;
    pixelFormatInfo(spec.pixelFormat, &type.subtype, &bpp);
    type.bFixedSizeSamples = 1;
    type.lSampleSize = static_cast<uint32_t>(static_cast<int64_t>(spec.stride) * spec.height);
    type.formattype = FORMAT_VideoInfo;
    VIDEOINFOHEADER* vih = static_cast<VIDEOINFOHEADER*>(CoTaskMemAlloc(sizeof(VIDEOINFOHEADER)));
    if (vih != nullptr) {
        std::memset(vih, 0, sizeof *vih);
        vih->rcSource = {0, 0, spec.width, spec.height};
        vih->rcTarget = vih->rcSource;
        vih->AvgTimePerFrame = spec.frameDuration;
        vih->bmiHeader.biSize = sizeof(BITMAPINFOHEADER);
        vih->bmiHeader.biWidth = spec.width;
        vih->bmiHeader.biHeight = -spec.height;  // top-down
        vih->bmiHeader.biPlanes = 1;
        vih->bmiHeader.biBitCount = static_cast<uint16_t>(bpp * 8);
        vih->bmiHeader.biSizeImage = type.lSampleSize;
        type.cbFormat = sizeof(VIDEOINFOHEADER);
        type.pbFormat = reinterpret_cast<uint8_t*>(vih);
    }
    return type;
}

// ---------------------------------------------------------------------------------------------

/// The one input pin; its references count on the filter.
class RendererFilter::InputPin : public IPin, public IMemInputPin {
  public:
    explicit InputPin(RendererFilter* owner) : owner_(owner) {}

    HRESULT QueryInterface(const IID& iid, void** out) override {
        if (out == nullptr) {
            return E_POINTER;
        }
        if (iid == IID_IPin || iid == IID_IUnknown) {
            *out = static_cast<IPin*>(this);
        } else if (iid == IID_IMemInputPin) {
            *out = static_cast<IMemInputPin*>(this);
        } else {
            *out = nullptr;
            return E_NOINTERFACE;
        }
        owner_->AddRef();
        return S_OK;
    }
    uint32_t AddRef() override { return owner_->AddRef(); }
    uint32_t Release() override { return owner_->Release(); }

    HRESULT ReceiveConnection(IPin* connector, const AM_MEDIA_TYPE* type) override {
        return owner_->receiveConnection(connector, type);
    }
    HRESULT Disconnect() override { return owner_->disconnect(); }
    HRESULT ConnectedTo(IPin** peer) override { return owner_->connectedTo(peer); }
    HRESULT ConnectionMediaType(AM_MEDIA_TYPE* type) override { return owner_->connectionMediaType(type); }
    HRESULT QueryPinInfo(PIN_INFO* info) override {
        return answerPinInfo(owner_, PINDIR_INPUT,
                             owner_->kind() == RendererKind::Audio ? L"Audio Input" : L"Video Input", info);
    }
    HRESULT QueryDirection(PIN_DIRECTION* direction) override {
        return answerDirection(PINDIR_INPUT, direction);
    }
    HRESULT QueryAccept(const AM_MEDIA_TYPE* type) override { return owner_->queryAccept(type); }
    HRESULT EndOfStream() override { return owner_->endOfStream(); }
    HRESULT BeginFlush() override { return owner_->beginFlush(); }
    HRESULT EndFlush() override { return owner_->endFlush(); }
    HRESULT NewSegment(REFERENCE_TIME, REFERENCE_TIME, double) override { return S_OK; }
    HRESULT Receive(IMediaSample* sample) override { return owner_->receive(sample); }

  private:
    RendererFilter* owner_;
};

// ---------------------------------------------------------------------------------------------

RendererFilter::RendererFilter(RendererKind kind, LxPixelFormat_s pixelFormat)
    : kind_(kind),
      pixelFormat_(pixelFormat),
      refs_(1),
      pin_(new InputPin(this)),
      state_(State_Stopped),
      name_(kind == RendererKind::Audio ? L"LxAudioRenderer" : L"LxVideoRenderer"),
      graph_(nullptr),
      graphSink_(nullptr),
      peer_(nullptr),
      haveSpec_(false),
      audio_(),
      video_(),
      capacity_(kind == RendererKind::Audio ? kAudioQueue : kVideoQueue),
      generation_(0),
      flushing_(false),
      stoppedFlush_(false),
      quit_(false),
      delivering_(false),
      inSink_(false),
      outputMade_(false),
      sink_(nullptr),
      origin_(0) {
    thread_ = std::thread([this] { deliveryLoop(); });
}

RendererFilter::~RendererFilter() {
    std::deque<Item> dropped;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        quit_ = true;
        dropQueueLocked(&dropped);
        notEmpty_.notify_all();
        notFull_.notify_all();
    }
    thread_.join();
    for (Item& item : dropped) {
        if (item.sample != nullptr) {
            item.sample->Release();
        }
    }
    face_.reset();
}

HRESULT RendererFilter::QueryInterface(const IID& iid, void** out) {
    if (out == nullptr) {
        return E_POINTER;
    }
    if (iid == IID_IUnknown || iid == IID_IBaseFilter || iid == IID_IMediaFilter) {
        *out = static_cast<IBaseFilter*>(this);
    } else if (iid == IID_ILxRenderer) {
        *out = static_cast<ILxRenderer*>(this);
    } else if (iid == IID_ILxpRendererSinkHost) {
        *out = static_cast<ILxpRendererSinkHost*>(this);
    } else if (iid == IID_IGstSinkFilter) {
        *out = static_cast<IGstSinkFilter*>(this);
    } else {
        *out = nullptr;
        return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
}

uint32_t RendererFilter::AddRef() {
    return refs_.fetch_add(1) + 1;
}

uint32_t RendererFilter::Release() {
    const uint32_t left = refs_.fetch_sub(1) - 1;
    if (left == 0) {
        delete this;
    }
    return left;
}

void RendererFilter::dropQueueLocked(std::deque<Item>* dropped) {
    dropped->insert(dropped->end(), queue_.begin(), queue_.end());
    queue_.clear();
    notFull_.notify_all();
}

HRESULT RendererFilter::setState(FILTER_STATE state) {
    std::deque<Item> dropped;
    {
        std::unique_lock<std::mutex> guard(mutex_);
        if (state == State_Stopped && state_ != State_Stopped) {
            // Nothing queued before the stop may arrive after it, and a delivery blocked on the
            // consumer gives up.
            ++generation_;
            dropQueueLocked(&dropped);
            if (sink_ != nullptr) {
                sink_->beginFlush();
                stoppedFlush_ = true;
            }
        } else if (state != State_Stopped && stoppedFlush_) {
            stoppedFlush_ = false;
            if (sink_ != nullptr) {
                sink_->endFlush();
            }
        }
        state_ = state;
        notFull_.notify_all();
        // A stopped filter is quiet: the delivery under way (told to give up by the flush above)
        // is waited for, so that whoever stopped the graph may destroy what the sink feeds. A
        // delivery still waiting at the gate is not: it finds the filter stopped and drops its
        // sample.
        if (state == State_Stopped && std::this_thread::get_id() != thread_.get_id()) {
            idle_.wait(guard, [&] { return !inSink_; });
        }
    }
    for (Item& item : dropped) {
        if (item.sample != nullptr) {
            item.sample->Release();
        }
    }
    return S_OK;
}

HRESULT RendererFilter::Stop() {
    return setState(State_Stopped);
}
HRESULT RendererFilter::Pause() {
    return setState(State_Paused);
}
HRESULT RendererFilter::Run(REFERENCE_TIME) {
    return setState(State_Running);
}

HRESULT RendererFilter::GetState(int32_t, FILTER_STATE* state) {
    if (state == nullptr) {
        return E_POINTER;
    }
    std::lock_guard<std::mutex> guard(mutex_);
    *state = state_;
    return S_OK;
}

HRESULT RendererFilter::EnumPins(IEnumPins** pins) {
    if (pins == nullptr) {
        return E_POINTER;
    }
    std::vector<IPin*> list{pin_.get()};
    *pins = new PinListEnum(list);
    return S_OK;
}

HRESULT RendererFilter::QueryFilterInfo(FILTER_INFO* info) {
    return answerFilterInfo(mutex_, name_, graph_, info);
}

HRESULT RendererFilter::JoinFilterGraph(IFilterGraph* graph, const WCHAR* name) {
    IMediaEventSink* events = nullptr;
    if (graph != nullptr &&
        SUCCEEDED(graph->QueryInterface(IID_IMediaEventSink, reinterpret_cast<void**>(&events)))) {
        events->Release();  // filters hold no reference on their graph
    }
    std::lock_guard<std::mutex> guard(mutex_);
    graph_ = graph;
    graphSink_ = events;
    if (graph != nullptr && name != nullptr && *name != 0) {
        name_ = name;
    }
    return S_OK;
}

HRESULT RendererFilter::GetOutputConnectable(LxAMPlayer* player, char** name, LxOutputConnectable** output) {
    if (name == nullptr || output == nullptr) {
        return E_POINTER;
    }
    *name = nullptr;
    *output = nullptr;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (peer_ == nullptr) {
            return VFW_E_NOT_CONNECTED;
        }
        if (outputMade_) {
            return VFW_E_ALREADY_CONNECTED;  // the one output belongs to whoever asked first
        }
    }
    // A connection made with a partial type learns its format from the first data, which the
    // graph sends while rendering; give it a moment in case it is still on its way.
    LxpAudioSpec audio = {};
    LxpVideoSpec video = {};
    bool known = false;
    for (int waited = 0; !known; waited += kSpecPollMs) {
        {
            std::lock_guard<std::mutex> guard(mutex_);
            known = haveSpec_;
            audio = audio_;
            video = video_;
        }
        if (!known) {
            if (waited >= kSpecWaitMs) {
                LxLog::postDebug("LxpRenderer: the connection's format is not known\n");
                return VFW_E_TIMEOUT;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(kSpecPollMs));
        }
    }
    LxOutputConnectable* made = kind_ == RendererKind::Audio ? createAudioOutput(this, player, audio)
                                                             : createVideoOutput(this, player, video);
    if (made == nullptr) {
        return E_OUTOFMEMORY;
    }
    {
        std::lock_guard<std::mutex> guard(mutex_);
        outputMade_ = true;
    }
    *name = const_cast<char*>(kind_ == RendererKind::Audio ? "Audio" : "Video");
    *output = made;
    return S_OK;
}

HRESULT RendererFilter::SetSink(LxpRendererSink* sink) {
    std::unique_lock<std::mutex> lock(mutex_);
    sink_ = sink;
    if (std::this_thread::get_id() != thread_.get_id()) {
        idle_.wait(lock, [&] { return !delivering_; });
    }
    return S_OK;
}

HRESULT RendererFilter::GetAudioSpec(LxpAudioSpec* spec) {
    if (spec == nullptr) {
        return E_POINTER;
    }
    if (kind_ != RendererKind::Audio) {
        return E_NOINTERFACE;
    }
    std::lock_guard<std::mutex> guard(mutex_);
    *spec = audio_;
    return haveSpec_ ? S_OK : S_FALSE;
}

HRESULT RendererFilter::GetVideoSpec(LxpVideoSpec* spec) {
    if (spec == nullptr) {
        return E_POINTER;
    }
    if (kind_ != RendererKind::Video) {
        return E_NOINTERFACE;
    }
    std::lock_guard<std::mutex> guard(mutex_);
    *spec = video_;
    return haveSpec_ ? S_OK : S_FALSE;
}

HRESULT RendererFilter::GetSinkElement(GstElement** element) {
    if (element == nullptr) {
        return E_POINTER;
    }
    *element = nullptr;
    std::lock_guard<std::mutex> guard(mutex_);
    if (!face_) {
        face_.reset(GstRendererFace::create(this));
        if (!face_) {
            return E_FAIL;
        }
    }
    *element = face_->element();
    return S_OK;
}

HRESULT RendererFilter::SetStreamOrigin(REFERENCE_TIME origin) {
    origin_ = origin;
    return S_OK;
}

HRESULT RendererFilter::queryAccept(const AM_MEDIA_TYPE* type) {
    if (type == nullptr) {
        return E_POINTER;
    }
    if (kind_ == RendererKind::Audio) {
        if (type->majortype != MEDIATYPE_Audio) {
            return S_FALSE;
        }
        if (type->subtype == GUID_NULL) {
            return S_OK;  // any audio: the GStreamer face converts
        }
        if (type->subtype != MEDIASUBTYPE_PCM || type->formattype != FORMAT_WaveFormatEx ||
            type->cbFormat < sizeof(WAVEFORMATEX) || type->pbFormat == nullptr) {
            return S_FALSE;
        }
        WAVEFORMATEX wfx;
        std::memcpy(&wfx, type->pbFormat, sizeof wfx);
        const bool ok = wfx.wFormatTag == WAVE_FORMAT_PCM && (wfx.nChannels == 1 || wfx.nChannels == 2) &&
                        (wfx.wBitsPerSample == 8 || wfx.wBitsPerSample == 16) && wfx.nSamplesPerSec > 0;
        return ok ? S_OK : S_FALSE;
    }
    if (type->majortype != MEDIATYPE_Video) {
        return S_FALSE;
    }
    if (type->subtype == GUID_NULL) {
        return S_OK;
    }
    GUID wanted;
    int32_t bpp = 0;
    if (!pixelFormatInfo(pixelFormat_, &wanted, &bpp) || type->subtype != wanted ||
        type->formattype != FORMAT_VideoInfo || type->cbFormat < sizeof(VIDEOINFOHEADER) ||
        type->pbFormat == nullptr) {
        return S_FALSE;
    }
    VIDEOINFOHEADER vih;
    std::memcpy(&vih, type->pbFormat, sizeof vih);
    const bool ok = vih.bmiHeader.biWidth > 0 && vih.bmiHeader.biHeight != 0 &&
                    vih.bmiHeader.biBitCount == bpp * 8 && vih.bmiHeader.biWidth <= 32767 &&
                    vih.bmiHeader.biHeight <= 32767 && vih.bmiHeader.biHeight >= -32767;
    return ok ? S_OK : S_FALSE;
}

HRESULT RendererFilter::receiveConnection(IPin* connector, const AM_MEDIA_TYPE* type) {
    if (connector == nullptr || type == nullptr) {
        return E_POINTER;
    }
    if (queryAccept(type) != S_OK) {
        return VFW_E_TYPE_NOT_ACCEPTED;
    }
    std::lock_guard<std::mutex> guard(mutex_);
    if (peer_ != nullptr) {
        return VFW_E_ALREADY_CONNECTED;
    }
    if (state_ != State_Stopped) {
        return VFW_E_NOT_STOPPED;
    }
    peer_ = connector;
    haveSpec_ = false;
    if (type->subtype != GUID_NULL) {
        // A complete type: the format is known now. Otherwise it comes with the first data.
        if (kind_ == RendererKind::Audio) {
            WAVEFORMATEX wfx;
            std::memcpy(&wfx, type->pbFormat, sizeof wfx);
            audio_ = {wfx.wBitsPerSample, wfx.nChannels, static_cast<int32_t>(wfx.nSamplesPerSec)};
        } else {
            VIDEOINFOHEADER vih;
            std::memcpy(&vih, type->pbFormat, sizeof vih);
            const int32_t height =
                vih.bmiHeader.biHeight < 0 ? -vih.bmiHeader.biHeight : vih.bmiHeader.biHeight;
            video_ = makeVideoSpec(vih.bmiHeader.biWidth, height, pixelFormat_, vih.AvgTimePerFrame);
        }
        haveSpec_ = true;
    }
    return S_OK;
}

HRESULT RendererFilter::disconnect() {
    return answerDisconnect(mutex_, peer_, [this] { haveSpec_ = false; });
}

HRESULT RendererFilter::connectedTo(IPin** peer) {
    return answerConnectedTo(mutex_, peer_, peer);
}

HRESULT RendererFilter::connectionMediaType(AM_MEDIA_TYPE* type) {
    return answerConnectionMediaType(mutex_, peer_, type, [this](AM_MEDIA_TYPE* out) {
        if (!haveSpec_) {
            *out = makeMajorType(kind_ == RendererKind::Audio ? MEDIATYPE_Audio : MEDIATYPE_Video);
        } else {
            *out = kind_ == RendererKind::Audio ? audioMediaType(audio_) : videoMediaType(video_);
        }
        return S_OK;
    });
}

void RendererFilter::setAudioSpec(const LxpAudioSpec& spec) {
    std::lock_guard<std::mutex> guard(mutex_);
    audio_ = spec;
    haveSpec_ = true;
}

void RendererFilter::setVideoSpec(const LxpVideoSpec& spec) {
    std::lock_guard<std::mutex> guard(mutex_);
    video_ = spec;
    haveSpec_ = true;
}

HRESULT RendererFilter::receive(IMediaSample* sample) {
    if (sample == nullptr) {
        return E_POINTER;
    }
    std::unique_lock<std::mutex> lock(mutex_);
    // Only a running filter holds the graph back; a paused one takes the cue without blocking, so
    // that a state change never waits on a full queue.
    notFull_.wait(lock,
                  [&] { return state_ != State_Running || flushing_ || quit_ || queue_.size() < capacity_; });
    if (state_ == State_Stopped || quit_) {
        return VFW_E_WRONG_STATE;
    }
    if (flushing_) {
        return S_FALSE;
    }
    if (peer_ == nullptr || !haveSpec_) {
        return VFW_E_NOT_CONNECTED;
    }
    sample->AddRef();
    queue_.push_back({sample, generation_});
    notEmpty_.notify_one();
    return S_OK;
}

HRESULT RendererFilter::endOfStream() {
    std::lock_guard<std::mutex> guard(mutex_);
    if (state_ == State_Stopped || flushing_ || quit_) {
        return S_FALSE;
    }
    queue_.push_back({nullptr, generation_});
    notEmpty_.notify_one();
    return S_OK;
}

HRESULT RendererFilter::beginFlush() {
    std::deque<Item> dropped;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        flushing_ = true;
        ++generation_;
        dropQueueLocked(&dropped);
        if (sink_ != nullptr) {
            sink_->beginFlush();
        }
    }
    for (Item& item : dropped) {
        if (item.sample != nullptr) {
            item.sample->Release();
        }
    }
    return S_OK;
}

HRESULT RendererFilter::endFlush() {
    std::lock_guard<std::mutex> guard(mutex_);
    flushing_ = false;
    if (sink_ != nullptr && !stoppedFlush_) {
        sink_->endFlush();
    }
    // Told under the lock, so the graph hears of this flush before any end of stream that
    // follows it and after any that came before.
    if (graphSink_ != nullptr) {
        graphSink_->Notify(EC_LXP_RENDERER_FLUSHED, 0,
                           reinterpret_cast<LONG_PTR>(static_cast<IBaseFilter*>(this)));
    }
    notFull_.notify_all();
    return S_OK;
}

void RendererFilter::deliveryLoop() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        notEmpty_.wait(lock, [&] { return quit_ || !queue_.empty(); });
        if (quit_) {
            break;
        }
        const Item item = queue_.front();
        queue_.pop_front();
        notFull_.notify_all();
        LxpRendererSink* sink = sink_;
        const bool audioKnown = kind_ == RendererKind::Audio;
        const LxpAudioSpec audio = audio_;
        const LxpVideoSpec video = video_;
        delivering_ = true;
        if (item.sample == nullptr) {
            // An end queued before a flush or a stop is stale: the sink does not hear of it.
            const bool current = sink != nullptr && item.generation == generation_ && state_ != State_Stopped;
            inSink_ = current;
            lock.unlock();
            if (current) {
                sink->endOfStream();
            }
            lock.lock();
            inSink_ = false;
            // A flush since the end was queued makes it stale; the graph counts it only if not.
            if (item.generation == generation_ && state_ != State_Stopped && graphSink_ != nullptr) {
                graphSink_->Notify(EC_COMPLETE, S_OK,
                                   reinterpret_cast<LONG_PTR>(static_cast<IBaseFilter*>(this)));
            }
        } else {
            lock.unlock();
            bool go = sink != nullptr && sink->gateWait();
            lock.lock();
            go = go && item.generation == generation_ && state_ != State_Stopped;
            inSink_ = go;
            lock.unlock();
            if (go) {
                deliver(sink, item.sample, audioKnown, audio, video);
            }
            item.sample->Release();
            lock.lock();
            inSink_ = false;
        }
        delivering_ = false;
        idle_.notify_all();
    }
}

void RendererFilter::deliver(LxpRendererSink* sink, IMediaSample* sample, bool audioKnown,
                             const LxpAudioSpec& audio, const LxpVideoSpec& video) {
    uint8_t* data = nullptr;
    if (FAILED(sample->GetPointer(&data)) || data == nullptr) {
        return;
    }
    const int32_t length = sample->GetActualDataLength();
    REFERENCE_TIME start = -1;
    REFERENCE_TIME end = -1;
    if (sample->GetTime(&start, &end) != S_OK) {
        start = -1;
        end = -1;
    }
    if (audioKnown) {
        const int32_t block = audio.blockAlign();
        if (block <= 0 || length < block) {
            return;
        }
        LxpAudioBuffer buffer;
        buffer.data = data;
        buffer.bytes = static_cast<size_t>(length - length % block);
        buffer.start = start;
        buffer.discontinuity = sample->IsDiscontinuity() == S_OK;
        sink->audioBuffer(audio, buffer);
    } else {
        if (length < static_cast<int64_t>(video.stride) * video.height || video.height <= 0) {
            LxLog::postDebug("LxpRenderer: short video sample of %d bytes dropped\n", length);
            return;
        }
        LxpVideoPicture picture;
        picture.data = data;
        picture.start = start;
        picture.end = end;
        sink->videoFrame(video, picture);
    }
}

}  // namespace lxp
