// Helpers for the filter-graph tests: a recording renderer sink and a rig that builds a graph the
// way the DirectShow player does (graph, renderer filters, source filter, Render).
#ifndef LORVEX_TESTS_PLATFORM_DSHOW_GRAPHTESTKIT_H
#define LORVEX_TESTS_PLATFORM_DSHOW_GRAPHTESTKIT_H

#include "Kt.h"
#include "filterlib/LxpRendererSink.h"
#include "platform/dshow/LxpGraph.h"
#include "platform/dshow/LxpRendererFilter.h"

#include "GraphClips.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace lxtest {

/// What a renderer filter delivered.
class RecordingSink : public lxp::LxpRendererSink {
  public:
    struct Picture {
        lxp::REFERENCE_TIME start;
        int counter;         // the clip's frame counter, -1 unreadable
        uint32_t simulated;  // the simulated graph's frame number (first four bytes)
        lxp::LxpVideoSpec spec;
    };
    struct Audio {
        lxp::REFERENCE_TIME start;
        size_t bytes;
        int firstSample;  // first 16-bit (or 8-bit) sample of channel 0
        bool discontinuity;
        lxp::LxpAudioSpec spec;
    };

    bool gateWait() override { return gate ? gate() : true; }
    void audioBuffer(const lxp::LxpAudioSpec& spec, const lxp::LxpAudioBuffer& b) override {
        waitWhileHeld();
        int first = spec.bitsPerSample == 16 ? static_cast<int16_t>(b.data[0] | (b.data[1] << 8)) : b.data[0];
        std::lock_guard<std::mutex> guard(mutex_);
        audio_.push_back({b.start, b.bytes, first, b.discontinuity, spec});
        changed_.notify_all();
    }
    void videoFrame(const lxp::LxpVideoSpec& spec, const lxp::LxpVideoPicture& p) override {
        waitWhileHeld();
        uint32_t simulated = 0;
        std::memcpy(&simulated, p.data, 4);
        const int counter =
            readFrameCounter(p.data, spec.width, spec.height, spec.stride, spec.bytesPerPixel);
        std::lock_guard<std::mutex> guard(mutex_);
        video_.push_back({p.start, counter, simulated, spec});
        changed_.notify_all();
    }
    void endOfStream() override {
        std::lock_guard<std::mutex> guard(mutex_);
        ++eos_;
        changed_.notify_all();
    }
    /// Like a consumer, forgets what it was given before the flush (a seek can flush twice: the
    /// pipeline hands the seek to the demuxer once per sink).
    void beginFlush() override {
        std::lock_guard<std::mutex> guard(mutex_);
        ++flushes_;
        flushing_ = true;
        video_.clear();
        audio_.clear();
        changed_.notify_all();
    }
    void endFlush() override {
        std::lock_guard<std::mutex> guard(mutex_);
        flushing_ = false;
    }

    /// Deliveries block (as on a consumer without free frames) until released or flushed.
    void hold(bool held) {
        std::lock_guard<std::mutex> guard(mutex_);
        held_ = held;
        changed_.notify_all();
    }
    bool waitFor(const std::function<bool()>& pred, int ms = 20000) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::milliseconds(ms), pred);
    }
    std::vector<Picture> pictures() {
        std::lock_guard<std::mutex> guard(mutex_);
        return video_;
    }
    std::vector<Audio> audio() {
        std::lock_guard<std::mutex> guard(mutex_);
        return audio_;
    }
    size_t pictureCount() {
        std::lock_guard<std::mutex> guard(mutex_);
        return video_.size();
    }
    size_t audioCount() {
        std::lock_guard<std::mutex> guard(mutex_);
        return audio_.size();
    }
    int eosCount() {
        std::lock_guard<std::mutex> guard(mutex_);
        return eos_;
    }
    int flushCount() {
        std::lock_guard<std::mutex> guard(mutex_);
        return flushes_;
    }
    void clear() {
        std::lock_guard<std::mutex> guard(mutex_);
        video_.clear();
        audio_.clear();
        eos_ = 0;
    }
    /// Unlocked view for predicates passed to waitFor (called with the lock held).
    const std::vector<Picture>& picturesLocked() const { return video_; }
    const std::vector<Audio>& audioLocked() const { return audio_; }
    int eosLocked() const { return eos_; }

    std::function<bool()> gate;
    /// Deliveries waiting in hold() right now.
    std::atomic<int> blocked{0};

  private:
    void waitWhileHeld() {
        std::unique_lock<std::mutex> lock(mutex_);
        ++blocked;
        changed_.wait(lock, [&] { return !held_ || flushing_; });
        --blocked;
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Picture> video_;
    std::vector<Audio> audio_;
    int eos_ = 0;
    int flushes_ = 0;
    bool flushing_ = false;
    bool held_ = false;
};

/// A graph built as the player builds it. Interfaces are released in the player's order.
struct GraphRig {
    lxp::IGraphBuilder* graph = nullptr;
    lxp::IMediaControl* control = nullptr;
    lxp::IMediaSeeking* seeking = nullptr;
    lxp::IMediaEvent* events = nullptr;
    lxp::IBaseFilter* source = nullptr;
    lxp::IBaseFilter* audio = nullptr;
    lxp::IBaseFilter* video = nullptr;
    RecordingSink audioSink;
    RecordingSink videoSink;

    /// Creates the graph with both renderers, adds the file's source filter and renders its first
    /// pin; false when any of it fails.
    bool open(const std::string& path) {
        if (lxp::FAILED(lxp::CoCreateInstance(lxp::CLSID_FilterGraph, nullptr, lxp::CLSCTX_INPROC_SERVER,
                                              lxp::IID_IGraphBuilder, reinterpret_cast<void**>(&graph)))) {
            return false;
        }
        graph->QueryInterface(lxp::IID_IMediaControl, reinterpret_cast<void**>(&control));
        graph->QueryInterface(lxp::IID_IMediaSeeking, reinterpret_cast<void**>(&seeking));
        graph->QueryInterface(lxp::IID_IMediaEvent, reinterpret_cast<void**>(&events));
        const std::wstring file(path.begin(), path.end());
        if (!addRenderer(lxp::CLSID_LxAudioRenderer, L"LxAudioRenderer", &audio, &audioSink) ||
            !addRenderer(lxp::CLSID_LxVideoRenderer, L"LxVideoRenderer", &video, &videoSink) ||
            control == nullptr || seeking == nullptr || events == nullptr ||
            lxp::FAILED(graph->AddSourceFilter(file.c_str(), L"FilterSource", &source))) {
            return false;
        }
        lxp::IPin* pin = firstPin(source);
        const lxp::HRESULT hr = graph->Render(pin);
        pin->Release();
        return hr == lxp::S_OK;
    }

    /// The filter's first pin (the caller releases it).
    static lxp::IPin* firstPin(lxp::IBaseFilter* filter) {
        lxp::IEnumPins* pins = nullptr;
        lxp::IPin* pin = nullptr;
        filter->EnumPins(&pins);
        pins->Next(1, &pin, nullptr);
        pins->Release();
        return pin;
    }

    static bool isConnected(lxp::IBaseFilter* filter) {
        if (filter == nullptr) {
            return false;
        }
        lxp::IPin* pin = firstPin(filter);
        lxp::IPin* peer = nullptr;
        const bool connected = lxp::SUCCEEDED(pin->ConnectedTo(&peer));
        if (peer != nullptr) {
            peer->Release();
        }
        pin->Release();
        return connected;
    }

    /// The next event within ms; E_ABORT when none.
    lxp::HRESULT nextEvent(int32_t* code, int32_t ms) {
        lxp::LONG_PTR p1 = 0;
        lxp::LONG_PTR p2 = 0;
        const lxp::HRESULT hr = events->GetEvent(code, &p1, &p2, ms);
        if (lxp::SUCCEEDED(hr)) {
            events->FreeEventParams(*code, p1, p2);
        }
        return hr;
    }

    /// Waits for EC_COMPLETE (skipping other events); the milliseconds it took, or -1.
    double waitComplete(int ms) {
        const auto start = std::chrono::steady_clock::now();
        int32_t code = 0;
        while (msSince(start) < ms) {
            if (nextEvent(&code, 20) == lxp::S_OK && code == lxp::EC_COMPLETE) {
                return msSince(start);
            }
        }
        return -1;
    }

    lxp::REFERENCE_TIME position() {
        lxp::LONGLONG p = -1;
        seeking->GetCurrentPosition(&p);
        return p;
    }

    lxp::HRESULT seekTo(double seconds) {
        lxp::LONGLONG p = static_cast<lxp::LONGLONG>(seconds * lxp::UNITS);
        return seeking->SetPositions(&p, lxp::AM_SEEKING_AbsolutePositioning, nullptr,
                                     lxp::AM_SEEKING_NoPositioning);
    }

    ~GraphRig() {
        if (control != nullptr) {
            control->Stop();
        }
        release(events);
        release(seeking);
        release(control);
        release(source);
        if (audio != nullptr) {
            setSink(audio, nullptr);
        }
        if (video != nullptr) {
            setSink(video, nullptr);
        }
        release(audio);
        release(video);
        release(graph);
    }

  private:
    template <class T>
    static void release(T*& p) {
        if (p != nullptr) {
            p->Release();
            p = nullptr;
        }
    }

    static void setSink(lxp::IBaseFilter* filter, lxp::LxpRendererSink* sink) {
        lxp::ILxpRendererSinkHost* host = nullptr;
        if (lxp::SUCCEEDED(
                filter->QueryInterface(lxp::IID_ILxpRendererSinkHost, reinterpret_cast<void**>(&host)))) {
            host->SetSink(sink);
            host->Release();
        }
    }

    bool addRenderer(const lxp::CLSID& clsid, const wchar_t* name, lxp::IBaseFilter** filter,
                     RecordingSink* sink) {
        lxp::ILxRenderer* renderer = nullptr;
        if (lxp::FAILED(lxp::CoCreateInstance(clsid, nullptr, lxp::CLSCTX_INPROC_SERVER, lxp::IID_ILxRenderer,
                                              reinterpret_cast<void**>(&renderer)))) {
            return false;
        }
        renderer->QueryInterface(lxp::IID_IBaseFilter, reinterpret_cast<void**>(filter));
        renderer->Release();
        setSink(*filter, sink);
        return lxp::SUCCEEDED(graph->AddFilter(*filter, name));
    }
};

}  // namespace lxtest

#endif
