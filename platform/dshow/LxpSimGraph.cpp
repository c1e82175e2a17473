#include "platform/dshow/LxpSimGraph.h"

#include "platform/clock/LxpClock.h"
#include "platform/dshow/LxpGraphBase.h"
#include "platform/dshow/LxpRendererFilter.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <numeric>
#include <thread>

namespace lxp {
namespace simgraph {

namespace {

struct Failure {
    int count;
    HRESULT hr;
};

struct Settings {
    std::mutex mutex;
    Script script;
    std::map<std::string, Script> files;
    std::map<Op, Failure> failures;
    std::vector<std::string> calls;
};

Settings& settings() {
    static Settings* s = new Settings();  // used by graphs that may outlive static destruction
    return *s;
}

void logCall(const std::string& call) {
    Settings& s = settings();
    std::lock_guard<std::mutex> guard(s.mutex);
    s.calls.push_back(call);
}

HRESULT injected(Op op) {
    Settings& s = settings();
    std::lock_guard<std::mutex> guard(s.mutex);
    auto it = s.failures.find(op);
    if (it == s.failures.end() || it->second.count == 0) {
        return S_OK;
    }
    const HRESULT hr = it->second.hr;
    if (--it->second.count == 0) {
        s.failures.erase(it);
    }
    return hr;
}

Script scriptFor(const std::string& path) {
    Settings& s = settings();
    std::lock_guard<std::mutex> guard(s.mutex);
    auto it = s.files.find(path);
    return it != s.files.end() ? it->second : s.script;
}

std::string timeText(const LONGLONG* value, uint32_t flags) {
    if ((flags & AM_SEEKING_PositioningBitsMask) == AM_SEEKING_NoPositioning || value == nullptr) {
        return "-";
    }
    return std::to_string(*value);
}

/// A made-up sample; it owns its bytes.
class SimSample : public ComObject<IMediaSample> {
  public:
    SimSample(size_t bytes, REFERENCE_TIME start, REFERENCE_TIME end, bool discontinuity)
        : data_(bytes), start_(start), end_(end), discontinuity_(discontinuity) {}

    HRESULT QueryInterface(const IID& iid, void** out) override {
        return queryOwn(iid, IID_IMediaSample, out);
    }
    HRESULT GetPointer(uint8_t** buffer) override {
        if (buffer == nullptr) {
            return E_POINTER;
        }
        *buffer = data_.data();
        return S_OK;
    }
    int32_t GetActualDataLength() override { return static_cast<int32_t>(data_.size()); }
    HRESULT GetTime(REFERENCE_TIME* start, REFERENCE_TIME* end) override {
        if (start == nullptr || end == nullptr) {
            return E_POINTER;
        }
        *start = start_;
        *end = end_;
        return S_OK;
    }
    HRESULT IsDiscontinuity() override { return discontinuity_ ? S_OK : S_FALSE; }

    std::vector<uint8_t>& data() { return data_; }

  private:
    std::vector<uint8_t> data_;
    REFERENCE_TIME start_;
    REFERENCE_TIME end_;
    bool discontinuity_;
};

AM_MEDIA_TYPE pcmType(const Script& script) {
    AM_MEDIA_TYPE type = makeMajorType(MEDIATYPE_Audio);
    type.subtype = MEDIASUBTYPE_PCM;
    type.formattype = FORMAT_WaveFormatEx;
    WAVEFORMATEX* wfx = static_cast<WAVEFORMATEX*>(CoTaskMemAlloc(sizeof(WAVEFORMATEX)));
    wfx->wFormatTag = WAVE_FORMAT_PCM;
    wfx->nChannels = static_cast<uint16_t>(script.audioChannels);
    wfx->nSamplesPerSec = static_cast<uint32_t>(script.audioRate);
    wfx->wBitsPerSample = static_cast<uint16_t>(script.audioBits);
    wfx->nBlockAlign = static_cast<uint16_t>(script.audioChannels * script.audioBits / 8);
    wfx->nAvgBytesPerSec = wfx->nSamplesPerSec * wfx->nBlockAlign;
    wfx->cbSize = 0;
    type.bFixedSizeSamples = 1;
    type.lSampleSize = wfx->nBlockAlign;
    type.cbFormat = sizeof(WAVEFORMATEX);
    type.pbFormat = reinterpret_cast<uint8_t*>(wfx);
    return type;
}

AM_MEDIA_TYPE rgbType(const Script& script, const GUID& subtype, int bytesPerPixel, REFERENCE_TIME frame) {
    AM_MEDIA_TYPE type = makeMajorType(MEDIATYPE_Video);
    type.subtype = subtype;
    type.formattype = FORMAT_VideoInfo;
    VIDEOINFOHEADER* vih = static_cast<VIDEOINFOHEADER*>(CoTaskMemAlloc(sizeof(VIDEOINFOHEADER)));
    std::memset(vih, 0, sizeof *vih);
    vih->rcSource = {0, 0, script.width, script.height};
    vih->rcTarget = vih->rcSource;
    vih->AvgTimePerFrame = frame;
    vih->bmiHeader.biSize = sizeof(BITMAPINFOHEADER);
    vih->bmiHeader.biWidth = script.width;
    vih->bmiHeader.biHeight = -script.height;
    vih->bmiHeader.biPlanes = 1;
    vih->bmiHeader.biBitCount = static_cast<uint16_t>(bytesPerPixel * 8);
    const int32_t stride = (script.width * bytesPerPixel + 3) & ~3;
    vih->bmiHeader.biSizeImage = static_cast<uint32_t>(stride * script.height);
    type.bFixedSizeSamples = 1;
    type.lSampleSize = vih->bmiHeader.biSizeImage;
    type.cbFormat = sizeof(VIDEOINFOHEADER);
    type.pbFormat = reinterpret_cast<uint8_t*>(vih);
    return type;
}

class SimGraph : public FilterGraphBase {
  public:
    SimGraph() : FilterGraphBase("simulated"), decoder_(nullptr) {
        thread_ = std::thread([this] { streamLoop(); });
    }

    HRESULT AddFilter(IBaseFilter* filter, const WCHAR* name) override {
        logCall("AddFilter(" + narrowName(name) + ")");
        return FilterGraphBase::AddFilter(filter, name);
    }
    HRESULT RemoveFilter(IBaseFilter* filter) override {
        FILTER_INFO info;
        std::string name;
        if (filter != nullptr && SUCCEEDED(filter->QueryFilterInfo(&info))) {
            name = narrowName(info.achName);
            if (info.pGraph != nullptr) {
                info.pGraph->Release();
            }
        }
        logCall("RemoveFilter(" + name + ")");
        return FilterGraphBase::RemoveFilter(filter);
    }
    HRESULT Run() override {
        logCall("Run");
        const HRESULT hr = injected(Op::Run);
        return FAILED(hr) ? hr : FilterGraphBase::Run();
    }
    HRESULT Pause() override {
        logCall("Pause");
        const HRESULT hr = injected(Op::Pause);
        return FAILED(hr) ? hr : FilterGraphBase::Pause();
    }
    HRESULT Stop() override {
        logCall("Stop");
        const HRESULT hr = injected(Op::Stop);
        return FAILED(hr) ? hr : FilterGraphBase::Stop();
    }
    HRESULT SetPositions(LONGLONG* current, uint32_t currentFlags, LONGLONG* stop,
                         uint32_t stopFlags) override {
        logCall("SetPositions(" + timeText(current, currentFlags) + "," + timeText(stop, stopFlags) + ")");
        const HRESULT hr = injected(Op::SetPositions);
        return FAILED(hr) ? hr : FilterGraphBase::SetPositions(current, currentFlags, stop, stopFlags);
    }
    HRESULT SetRate(double rate) override {
        char text[64];
        std::snprintf(text, sizeof text, "SetRate(%.3f)", rate);
        logCall(text);
        const HRESULT hr = injected(Op::SetRate);
        return FAILED(hr) ? hr : FilterGraphBase::SetRate(rate);
    }
    HRESULT GetDuration(LONGLONG* duration) override {
        logCall("GetDuration");
        const HRESULT hr = injected(Op::GetDuration);
        return FAILED(hr) ? hr : FilterGraphBase::GetDuration(duration);
    }
    HRESULT SetTimeFormat(const GUID* format) override {
        const char* name = format == nullptr                   ? "null"
                           : *format == TIME_FORMAT_MEDIA_TIME ? "MEDIA_TIME"
                           : *format == TIME_FORMAT_FRAME      ? "FRAME"
                                                               : "other";
        logCall(std::string("SetTimeFormat(") + name + ")");
        const HRESULT hr = injected(Op::SetTimeFormat);
        return FAILED(hr) ? hr : FilterGraphBase::SetTimeFormat(format);
    }

  protected:
    HRESULT createSource(const std::string& path, const std::wstring& name, BasicFilter** source) override {
        logCall("AddSourceFilter(" + path + ")");
        const HRESULT hr = injected(Op::AddSourceFilter);
        if (FAILED(hr)) {
            return hr;
        }
        script_ = scriptFor(path);
        BasicFilter* filter = new BasicFilter(name);
        BasicPin* out = filter->addPin(L"Output", PINDIR_OUTPUT);
        out->setMediaType(makeMajorType(MEDIATYPE_Stream));
        *source = filter;
        return S_OK;
    }

    HRESULT renderSource(BasicFilter* source) override {
        logCall("Render");
        HRESULT hr = injected(Op::Render);
        if (FAILED(hr)) {
            return hr;
        }
        if (script_.outcome == Outcome::Failure) {
            return script_.renderFailure;
        }
        if (decoder_ == nullptr) {
            decoder_ = new BasicFilter(L"Simulated Decoder");
            BasicPin* in = decoder_->addPin(L"Input", PINDIR_INPUT);
            source->pin(0)->connectTo(in, makeMajorType(MEDIATYPE_Stream));
            addOwnFilter(decoder_);
            decoder_->Release();  // the graph holds it
        }
        if (script_.outcome == Outcome::None) {
            decoder_->addPin(L"Data", PINDIR_OUTPUT)->setMediaType(makeMajorType(MEDIATYPE_Stream));
            return S_OK;
        }
        const bool audio = script_.outcome != Outcome::VideoOnly;
        const bool video = script_.outcome != Outcome::AudioOnly;
        if (audio) {
            AM_MEDIA_TYPE type = pcmType(script_);
            BasicPin* out = decoder_->addPin(L"Audio", PINDIR_OUTPUT);
            out->setMediaType(type);
            connectStream(out, true, {type});
            FreeMediaType(type);
        }
        if (video) {
            const REFERENCE_TIME frame = frameTime(1);
            std::vector<AM_MEDIA_TYPE> types = {rgbType(script_, MEDIASUBTYPE_LxRGB32Alt, 4, frame),
                                                rgbType(script_, MEDIASUBTYPE_LxRGB24Alt, 3, frame),
                                                rgbType(script_, MEDIASUBTYPE_RGB32, 4, frame),
                                                rgbType(script_, MEDIASUBTYPE_RGB24, 3, frame)};
            BasicPin* out = decoder_->addPin(L"Video", PINDIR_OUTPUT);
            out->setMediaType(types[0]);
            connectStream(out, false, types);
            for (AM_MEDIA_TYPE& t : types) {
                FreeMediaType(t);
            }
        }
        return S_OK;
    }

    HRESULT cue(REFERENCE_TIME position, REFERENCE_TIME stop, double) override {
        restart(position, stop, true);
        return S_FALSE;
    }

    HRESULT run() override {
        startClock();
        std::lock_guard<std::mutex> guard(mutex_);
        running_ = true;
        wake_.notify_all();
        return S_OK;
    }

    HRESULT pause() override {
        std::lock_guard<std::mutex> guard(mutex_);
        running_ = false;
        wake_.notify_all();
        return S_OK;
    }

    HRESULT stop() override {
        std::unique_lock<std::mutex> lock(mutex_);
        running_ = false;
        ++generation_;
        cuePending_ = false;
        idle_.wait(lock, [&] { return !busy_; });
        return S_OK;
    }

    HRESULT seek(REFERENCE_TIME position, REFERENCE_TIME stop, double) override {
        bool running;
        {
            std::lock_guard<std::mutex> guard(mutex_);
            running = running_;
        }
        restart(position, stop, !running);
        if (running) {
            startClock();
        }
        return S_OK;
    }

    HRESULT waitForTransition(int32_t ms) override {
        std::unique_lock<std::mutex> lock(mutex_);
        auto done = [&] { return !cuePending_ && !busy_; };
        if (ms < 0) {
            idle_.wait(lock, done);
            return S_OK;
        }
        return idle_.wait_for(lock, std::chrono::milliseconds(ms), done) ? S_OK : VFW_S_STATE_INTERMEDIATE;
    }

    HRESULT mediaDuration(REFERENCE_TIME* duration) override {
        if (!script_.durationKnown) {
            return E_FAIL;
        }
        *duration = static_cast<REFERENCE_TIME>(std::llround(script_.durationSeconds * UNITS));
        return S_OK;
    }

    bool videoFrameRate(int32_t* numerator, int32_t* denominator) override {
        std::lock_guard<std::mutex> guard(mutex_);
        const bool haveVideo =
            std::any_of(streams_.begin(), streams_.end(), [](const Stream& s) { return !s.audio; });
        if (!haveVideo || script_.frameCount <= 0 || script_.durationSeconds <= 0) {
            return false;
        }
        int32_t num = script_.frameCount * 1000;
        int32_t den = static_cast<int32_t>(std::llround(script_.durationSeconds * 1000));
        const int32_t g = std::gcd(num, den);
        *numerator = num / g;
        *denominator = den / g;
        return true;
    }

    HRESULT disconnectRenderer(IBaseFilter* filter) override {
        std::vector<Stream> gone;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            ++generation_;
            idle_.wait(lock, [&] { return !busy_; });
            for (auto it = streams_.begin(); it != streams_.end();) {
                if (it->renderer == filter) {
                    gone.push_back(*it);
                    it = streams_.erase(it);
                } else {
                    ++it;
                }
            }
        }
        for (Stream& s : gone) {
            s.out->disconnectBoth();
            s.mem->Release();
            s.input->Release();
        }
        return gone.empty() ? VFW_E_NOT_CONNECTED : S_OK;
    }

    int64_t nowNs() override {
        Clock& c = clock();
        int64_t count = 0;
        int64_t frequency = 0;
        if (c.queryPerformanceCounter(&count) && c.queryPerformanceFrequency(&frequency) && frequency > 0) {
            // In whole and fractional seconds, so that large counts keep their last digit.
            return count / frequency * 1000000000LL + count % frequency * 1000000000LL / frequency;
        }
        int64_t seconds = 0;
        int32_t ms = 0;
        c.timeOfDay(&seconds, &ms);
        return seconds * 1000000000LL + static_cast<int64_t>(ms) * 1000000LL;
    }

    void shutdown() override {
        // A renderer that is running may hold the streaming thread in Receive; stopping the
        // renderers lets it go.
        for (IBaseFilter* f : externalFilters()) {
            f->Stop();
            f->Release();
        }
        {
            std::lock_guard<std::mutex> guard(mutex_);
            quit_ = true;
            ++generation_;
            wake_.notify_all();
        }
        thread_.join();
        for (Stream& s : streams_) {
            s.mem->Release();
            s.input->Release();
        }
        streams_.clear();
    }

  private:
    struct Stream {
        bool audio;
        BasicPin* out;
        IPin* input;        // referenced
        IMemInputPin* mem;  // referenced
        IBaseFilter* renderer;
        int32_t bytesPerPixel;
        int64_t next;  // next video frame, or next audio sample frame
        bool ended;
        bool discontinuity;
    };

    REFERENCE_TIME frameTime(int64_t frame) const {
        if (script_.frameCount <= 0) {
            return 0;
        }
        return static_cast<REFERENCE_TIME>(
            std::llround(static_cast<double>(frame) * script_.durationSeconds * UNITS / script_.frameCount));
    }
    REFERENCE_TIME sampleTime(int64_t sample) const {
        return static_cast<REFERENCE_TIME>(
            std::llround(static_cast<double>(sample) * UNITS / script_.audioRate));
    }
    REFERENCE_TIME endTime() const {
        REFERENCE_TIME end = static_cast<REFERENCE_TIME>(std::llround(script_.durationSeconds * UNITS));
        return stop_ >= 0 && stop_ < end ? stop_ : end;
    }
    int64_t streamLength(const Stream& s) const {
        const double seconds = static_cast<double>(endTime()) / UNITS;
        if (s.audio) {
            return static_cast<int64_t>(std::llround(seconds * script_.audioRate));
        }
        // Frames that start before the end.
        const double perFrame = script_.durationSeconds / script_.frameCount;
        return static_cast<int64_t>(std::ceil(seconds / perFrame - 1e-9));
    }

    void connectStream(BasicPin* out, bool audio, const std::vector<AM_MEDIA_TYPE>& types) {
        std::vector<IBaseFilter*> filters = externalFilters();
        bool done = false;
        for (size_t f = 0; f < filters.size() && !done; ++f) {
            for (size_t i = 0; i < types.size() && !done; ++i) {
                IPin* input = findAcceptingInput(filters[f], types[i]);
                if (input == nullptr) {
                    continue;
                }
                IMemInputPin* mem = nullptr;
                if (SUCCEEDED(input->QueryInterface(IID_IMemInputPin, reinterpret_cast<void**>(&mem))) &&
                    SUCCEEDED(out->connectTo(input, types[i]))) {
                    const bool threeBytes =
                        types[i].subtype == MEDIASUBTYPE_LxRGB24Alt || types[i].subtype == MEDIASUBTYPE_RGB24;
                    const int32_t bpp = audio ? 0 : threeBytes ? 3 : 4;
                    {
                        std::lock_guard<std::mutex> guard(mutex_);
                        streams_.push_back({audio, out, input, mem, filters[f], bpp, 0, false, true});
                    }
                    setRendererConnected(filters[f], true);
                    done = true;
                } else {
                    if (mem != nullptr) {
                        mem->Release();
                    }
                    input->Release();
                }
            }
        }
        for (IBaseFilter* f : filters) {
            f->Release();
        }
    }

    /// Flushes the renderers and starts the streams again at position; cue: deliver the first
    /// samples at once (paused graph).
    void restart(REFERENCE_TIME position, REFERENCE_TIME stop, bool cueNow) {
        std::vector<IPin*> inputs;
        {
            std::lock_guard<std::mutex> guard(mutex_);
            ++generation_;
            cuePending_ = false;
            for (Stream& s : streams_) {
                s.input->AddRef();
                inputs.push_back(s.input);
            }
        }
        for (IPin* in : inputs) {
            in->BeginFlush();
        }
        {
            std::unique_lock<std::mutex> lock(mutex_);
            idle_.wait(lock, [&] { return !busy_; });
            stop_ = stop;
            for (Stream& s : streams_) {
                if (s.audio) {
                    s.next = static_cast<int64_t>(static_cast<double>(position) * script_.audioRate / UNITS);
                } else {
                    s.next = script_.frameCount > 0
                                 ? static_cast<int64_t>(static_cast<double>(position) * script_.frameCount /
                                                            (script_.durationSeconds * UNITS) +
                                                        1e-9)
                                 : 0;
                }
                s.ended = false;
                s.discontinuity = true;
            }
        }
        for (IPin* in : inputs) {
            in->EndFlush();
            in->NewSegment(position, stop, currentRate());
            in->Release();
        }
        std::lock_guard<std::mutex> guard(mutex_);
        cuePending_ = cueNow;
        wake_.notify_all();
    }

    /// Builds the sample of stream s at its next position (called with the lock held).
    SimSample* makeSample(Stream& s) {
        if (s.audio) {
            const int64_t total = streamLength(s);
            const int64_t per =
                std::max<int64_t>(1, std::llround(script_.audioBufferSeconds * script_.audioRate));
            const int64_t count = std::min(per, total - s.next);
            const int32_t bytesPerSample = script_.audioBits / 8;
            const size_t block = static_cast<size_t>(bytesPerSample * script_.audioChannels);
            SimSample* sample = new SimSample(static_cast<size_t>(count) * block, sampleTime(s.next),
                                              sampleTime(s.next + count), s.discontinuity);
            uint8_t* p = sample->data().data();
            for (int64_t i = 0; i < count; ++i) {
                const int64_t n = s.next + i;
                for (int32_t c = 0; c < script_.audioChannels; ++c) {
                    if (bytesPerSample == 2) {
                        const uint16_t v = static_cast<uint16_t>(n & 0x7FFF);
                        *p++ = static_cast<uint8_t>(v & 0xFF);
                        *p++ = static_cast<uint8_t>(v >> 8);
                    } else {
                        *p++ = static_cast<uint8_t>(n & 0xFF);
                    }
                }
            }
            return sample;
        }
        const int32_t stride = (script_.width * s.bytesPerPixel + 3) & ~3;
        SimSample* sample = new SimSample(static_cast<size_t>(stride) * static_cast<size_t>(script_.height),
                                          frameTime(s.next), frameTime(s.next + 1), s.discontinuity);
        std::vector<uint8_t>& d = sample->data();
        std::fill(d.begin(), d.end(), static_cast<uint8_t>(s.next & 0xFF));
        const uint32_t n = static_cast<uint32_t>(s.next);
        for (int k = 0; k < 4 && k < static_cast<int>(d.size()); ++k) {
            d[static_cast<size_t>(k)] = static_cast<uint8_t>(n >> (8 * k));
        }
        return sample;
    }

    /// Time at which stream s's next sample is due (lead included).
    REFERENCE_TIME dueTime(const Stream& s) const {
        if (s.audio) {
            return sampleTime(s.next) - static_cast<REFERENCE_TIME>(script_.audioLeadSeconds * UNITS);
        }
        return frameTime(s.next);
    }

    /// Delivers stream index i's next sample; called with the lock held, returns with it held.
    void deliverLocked(std::unique_lock<std::mutex>& lock, size_t i) {
        Stream& s = streams_[i];
        const uint64_t generation = generation_;
        SimSample* sample = makeSample(s);
        IMemInputPin* mem = s.mem;
        mem->AddRef();
        busy_ = true;
        lock.unlock();
        mem->Receive(sample);
        sample->Release();
        mem->Release();
        lock.lock();
        busy_ = false;
        idle_.notify_all();
        if (generation == generation_ && i < streams_.size()) {
            Stream& t = streams_[i];
            t.discontinuity = false;
            t.next += t.audio
                          ? std::max<int64_t>(1, std::llround(script_.audioBufferSeconds * script_.audioRate))
                          : 1;
            if (t.next >= streamLength(t)) {
                t.next = streamLength(t);
            }
        }
    }

    void endStreamLocked(std::unique_lock<std::mutex>& lock, size_t i) {
        const uint64_t generation = generation_;
        IPin* input = streams_[i].input;
        input->AddRef();
        busy_ = true;
        lock.unlock();
        input->EndOfStream();
        input->Release();
        lock.lock();
        busy_ = false;
        idle_.notify_all();
        if (generation == generation_ && i < streams_.size()) {
            streams_[i].ended = true;
        }
    }

    void streamLoop() {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!quit_) {
            if (cuePending_) {
                cuePending_ = false;
                const uint64_t generation = generation_;
                for (size_t i = 0; i < streams_.size() && generation == generation_; ++i) {
                    if (streams_[i].next < streamLength(streams_[i])) {
                        deliverLocked(lock, i);
                    }
                }
                idle_.notify_all();
                continue;
            }
            if (!running_) {
                wake_.wait(lock);
                continue;
            }
            lock.unlock();
            const REFERENCE_TIME position = currentPosition();
            const double rate = currentRate();
            lock.lock();
            if (quit_ || cuePending_ || !running_) {
                continue;
            }
            // The stream whose next sample is due first; streams at their end get their end of
            // stream once.
            size_t best = streams_.size();
            bool waitingForEnd = false;
            for (size_t i = 0; i < streams_.size(); ++i) {
                Stream& s = streams_[i];
                if (s.next >= streamLength(s)) {
                    if (!s.ended) {
                        endStreamLocked(lock, i);
                        waitingForEnd = true;
                        break;
                    }
                    continue;
                }
                if (best == streams_.size() || dueTime(s) < dueTime(streams_[best])) {
                    best = i;
                }
            }
            if (waitingForEnd) {
                continue;
            }
            if (best == streams_.size()) {
                wake_.wait(lock);  // everything has ended: until a seek or a stop
                continue;
            }
            const REFERENCE_TIME due = dueTime(streams_[best]);
            if (due <= position) {
                deliverLocked(lock, best);
                continue;
            }
            const double ms = static_cast<double>(due - position) / 10000.0 / (rate > 0 ? rate : 1.0);
            const uint32_t sleepMs = static_cast<uint32_t>(std::min(10.0, std::max(1.0, std::ceil(ms))));
            lock.unlock();
            clock().sleep(sleepMs);
            lock.lock();
        }
    }

    Script script_;
    BasicFilter* decoder_;  // held by the graph
    std::mutex mutex_;      // streams and the streaming thread's state; taken before the graph's lock
    std::condition_variable wake_;
    std::condition_variable idle_;
    std::vector<Stream> streams_;
    uint64_t generation_ = 0;
    bool cuePending_ = false;
    bool busy_ = false;
    bool quit_ = false;
    bool running_ = false;
    REFERENCE_TIME stop_ = -1;
    std::thread thread_;
};

}  // namespace

void setScript(const Script& script) {
    Settings& s = settings();
    std::lock_guard<std::mutex> guard(s.mutex);
    s.script = script;
}

void setScriptForFile(const std::string& path, const Script& script) {
    Settings& s = settings();
    std::lock_guard<std::mutex> guard(s.mutex);
    s.files[path] = script;
}

void failNext(Op op, int count, HRESULT hr) {
    Settings& s = settings();
    std::lock_guard<std::mutex> guard(s.mutex);
    s.failures[op] = {count, hr};
}

std::vector<std::string> calls() {
    Settings& s = settings();
    std::lock_guard<std::mutex> guard(s.mutex);
    return s.calls;
}

void reset() {
    Settings& s = settings();
    std::lock_guard<std::mutex> guard(s.mutex);
    s.script = Script();
    s.files.clear();
    s.failures.clear();
    s.calls.clear();
}

HRESULT createFilterGraph(const IID& iid, void** out) {
    if (out == nullptr) {
        return E_POINTER;
    }
    SimGraph* graph = new SimGraph();
    const HRESULT hr = graph->QueryInterface(iid, out);
    graph->Release();
    return hr;
}

}  // namespace simgraph
}  // namespace lxp
