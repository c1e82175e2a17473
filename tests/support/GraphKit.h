// The filter-graph tests' kit: a renderer sink that records deliveries, a graph built as the
// player builds it, the player on the simulated graph with test consumers, and the player on
// GStreamer through the manager with its sound in a WAV file and a host thread that paints.
#ifndef LORVEX_TESTS_SUPPORT_GRAPHKIT_H
#define LORVEX_TESTS_SUPPORT_GRAPHKIT_H

#include "GraphClips.h"
#include "Kt.h"
#include "LxAMPlayer.h"
#include "LxBaseVideoRenderer.h"
#include "LxPlatformGraph.h"
#include "LxPlatformMidi.h"
#include "LxPlatformProbe.h"
#include "LxPlatformSound.h"
#include "LxResult.h"
#include "LxTimeBase.h"
#include "LxVersionDetection.h"
#include "LxVideoRenderer.h"
#include "LxWin32Manager.h"
#include "LxWin32Mixer.h"
#include "RendererKit.h"
#include "TestNodes.h"
#include "TestRenderer.h"
#include "TestSupport.h"
#include "WaveFiles.h"
#include "filterlib/LxpRendererSink.h"
#include "platform/com/LxpCom.h"
#include "platform/dshow/LxpGraph.h"
#include "platform/dshow/LxpRendererFilter.h"
#include "platform/dshow/LxpSimGraph.h"
#include "platform/midi/LxpMidiSim.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace lxtest {

/// What a renderer filter delivered. Deliveries block while held (as on a consumer without free
/// frames) until released or flushed.
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
    };
    struct Record {
        std::vector<Picture> video;
        std::vector<Audio> audio;
        int eos = 0;
        int flushes = 0;
    };

    bool gateWait() override { return gate ? gate() : true; }
    void audioBuffer(const lxp::LxpAudioSpec& spec, const lxp::LxpAudioBuffer& b) override {
        waitWhileHeld();
        int first = spec.bitsPerSample == 16 ? static_cast<int16_t>(b.data[0] | (b.data[1] << 8)) : b.data[0];
        change([&] { got_.audio.push_back({b.start, b.bytes, first}); });
    }
    void videoFrame(const lxp::LxpVideoSpec& spec, const lxp::LxpVideoPicture& p) override {
        waitWhileHeld();
        uint32_t simulated = 0;
        std::memcpy(&simulated, p.data, 4);
        const int counter =
            readFrameCounter(p.data, spec.width, spec.height, spec.stride, spec.bytesPerPixel);
        change([&] { got_.video.push_back({p.start, counter, simulated, spec}); });
    }
    void endOfStream() override {
        change([&] { ++got_.eos; });
    }
    /// Like a consumer, forgets what it was given before the flush (a seek can flush twice: the
    /// pipeline hands the seek to the demuxer once per sink).
    void beginFlush() override {
        change([&] {
            ++got_.flushes;
            flushing_ = true;
            got_.video.clear();
            got_.audio.clear();
        });
    }
    void endFlush() override {
        change([&] { flushing_ = false; });
    }

    void hold(bool held) {
        change([&] { held_ = held; });
    }
    bool waitFor(const std::function<bool(const Record&)>& pred, int ms = 20000) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::milliseconds(ms), [&] { return pred(got_); });
    }
    Record got() {
        std::lock_guard<std::mutex> guard(mutex_);
        return got_;
    }
    /// The first picture since the last clear, once there is one (start -1 when none came).
    Picture firstPicture() {
        if (!waitFor([](const Record& r) { return !r.video.empty(); })) {
            return {-1, -1, ~0u, {}};
        }
        return got().video[0];
    }
    /// Forgets the deliveries and ends of stream (not the flushes).
    void clear() {
        change([&] { got_ = Record{{}, {}, 0, got_.flushes}; });
    }

    std::function<bool()> gate;
    std::atomic<int> blocked{0};  // deliveries waiting in hold() right now

  private:
    void change(const std::function<void()>& f) {
        std::lock_guard<std::mutex> guard(mutex_);
        f();
        changed_.notify_all();
    }
    void waitWhileHeld() {
        std::unique_lock<std::mutex> lock(mutex_);
        ++blocked;
        changed_.wait(lock, [&] { return !held_ || flushing_; });
        --blocked;
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    Record got_;
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

    /// Creates the graph and asks it for its control, seeking and event interfaces.
    bool create() {
        if (lxp::FAILED(lxp::CoCreateInstance(lxp::CLSID_FilterGraph, nullptr, lxp::CLSCTX_INPROC_SERVER,
                                              lxp::IID_IGraphBuilder, reinterpret_cast<void**>(&graph)))) {
            return false;
        }
        graph->QueryInterface(lxp::IID_IMediaControl, reinterpret_cast<void**>(&control));
        graph->QueryInterface(lxp::IID_IMediaSeeking, reinterpret_cast<void**>(&seeking));
        graph->QueryInterface(lxp::IID_IMediaEvent, reinterpret_cast<void**>(&events));
        return control != nullptr && seeking != nullptr && events != nullptr;
    }

    /// Creates the graph with both renderers, adds the file's source filter and renders its first
    /// pin; false when any of it fails.
    bool open(const std::string& path) {
        const std::wstring file(path.begin(), path.end());
        if (!create() || !addRenderer(lxp::CLSID_LxAudioRenderer, L"LxAudioRenderer", &audio, &audioSink) ||
            !addRenderer(lxp::CLSID_LxVideoRenderer, L"LxVideoRenderer", &video, &videoSink) ||
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

    /// The next event within ms; E_ABORT when none.
    lxp::HRESULT nextEvent(int32_t ms = 0) {
        int32_t code = 0;
        lxp::LONG_PTR p1 = 0;
        lxp::LONG_PTR p2 = 0;
        const lxp::HRESULT hr = events->GetEvent(&code, &p1, &p2, ms);
        if (lxp::SUCCEEDED(hr)) {
            events->FreeEventParams(code, p1, p2);
            lastEvent = code;
        }
        return hr;
    }
    int32_t lastEvent = 0;

    /// Waits for EC_COMPLETE (skipping other events); false when it did not come.
    bool waitComplete(int ms = 20000) {
        const auto start = std::chrono::steady_clock::now();
        while (msSince(start) < ms) {
            if (nextEvent(20) == lxp::S_OK && lastEvent == lxp::EC_COMPLETE) {
                return true;
            }
        }
        return false;
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
        setSink(audio, nullptr);
        setSink(video, nullptr);
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
        if (filter != nullptr && lxp::SUCCEEDED(filter->QueryInterface(lxp::IID_ILxpRendererSinkHost,
                                                                       reinterpret_cast<void**>(&host)))) {
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

inline bool initialisedOrFailed(RecordingListener& l) {
    return l.count(LxInitializedEventType) + l.count(LxCatastrophicErrorEventType) > 0;
}

/// The 16-bit samples of channel 0 in what a test renderer received (stereo).
inline std::vector<int> channel0(const std::string& bytes) {
    std::vector<int> out;
    for (size_t i = 0; i + 3 < bytes.size(); i += 4) {
        out.push_back(static_cast<uint8_t>(bytes[i]) | static_cast<uint8_t>(bytes[i + 1]) << 8);
    }
    return out;
}

/// Where a sequence of simulated samples (n & 0x7FFF) breaks: the index of the first sample that
/// does not follow its predecessor by one (or wrap to 0 when allowed), or -1.
inline long firstBreak(const std::vector<int>& s, bool allowRestart) {
    for (size_t i = 1; i < s.size(); ++i) {
        const bool next = s[i] == ((s[i - 1] + 1) & 0x7FFF);
        if (!next && !(allowRestart && s[i] == 0)) {
            return static_cast<long>(i);
        }
    }
    return -1;
}

/// The filter-graph player on the simulated graph with a test manager, a real-time time base, the
/// filter library registered, scripted clips, a test audio renderer the test pulls, and the real
/// video renderer.
class SimPlayerRig {
  public:
    /// Reports its end of media as soon as the producer tells it, as a renderer with nothing left
    /// to play would.
    class EndingRenderer : public TestRendererNode {
      public:
        explicit EndingRenderer(LxManager* m) : TestRendererNode(m, 6, 8820) {}
        void notifyEndOfMedia() override {
            TestRendererNode::notifyEndOfMedia();
            if (getCurrentState() == STARTED && !lastLoop.load()) {
                postEndOfMedia();
            }
        }
    };

    SimPlayerRig() {
        LxPlatformGraph::useSimulated();
        lxp::simgraph::reset();
        lxp::comtest::reset();
        registered = registerFilterLibrary();
        timeBase = new LxWin32TimeBase(manager.get());
    }
    ~SimPlayerRig() {
        for (LxAMPlayer* p : players) {
            delete p;
        }
        delete timeBase;
        lxp::simgraph::reset();
        lxp::comtest::reset();
        LxPlatformGraph::useGStreamer();
    }

    /// A file (any bytes) that the simulated graph plays by script. Its name, in UTF-8 with a byte
    /// that is not, must reach the graph unchanged.
    std::string clip(const lxp::simgraph::Script& script) {
        const std::string path =
            dir.file("clip" + std::to_string(clips++) + " K\xC3\xA4se \xE2\x82\xAC \xFF\xC3(.mpg");
        writeFile(path, "not decoded");
        lxp::simgraph::setScriptForFile(path, script);
        return path;
    }

    /// A player for path, once it has initialised (or failed); the rig destroys it. Its data is
    /// held back until the listener is set (only a failure before the data is read, such as
    /// COM's, can come before that).
    LxAMPlayer* open(const std::string& path, RecordingListener* listener) {
        auto* source = new GatedFileSource(path);
        sources.emplace_back(source);
        LxAMPlayer* p = new LxAMPlayer(manager.get(), source);
        players.push_back(p);
        p->setEventListener(listener);
        source->open();
        EXPECT_TRUE(waitUntil([&] {
            return initialisedOrFailed(*listener) || p->getState() == LxNode::DEAD;
        })) << "the player neither initialised nor failed";
        // A dead player's error event is delivered on its poster thread, a moment later.
        waitUntil([&] { return initialisedOrFailed(*listener); });
        return p;
    }

    void destroy(LxAMPlayer* p) {
        players.erase(std::remove(players.begin(), players.end(), p), players.end());
        delete p;
    }

    /// Connects the player's outputs to the test audio renderer and the real video renderer, as the
    /// manager connects its defaults, and gives it the time base.
    void connect(LxAMPlayer* p) {
        LxOutputConnectable* out = nullptr;
        audio = nullptr;
        video = nullptr;
        if (p->getOutputConnectable("Audio", &out) == LX_OK && out != nullptr) {
            audio = new EndingRenderer(manager.get());
            EXPECT_EQ(LX_OK, manager->connect(out, audio));
        }
        out = nullptr;
        if (p->getOutputConnectable("Video", &out) == LX_OK && out != nullptr) {
            video = new LxBaseVideoRenderer(manager.get());
            shownFrame = -1;
            LxInputConnectable* in = nullptr;
            video->getInputConnectable("Video", &in);
            EXPECT_EQ(LX_OK, manager->connect(out, in));
        }
        EXPECT_EQ(LX_OK, p->setTimeBase(timeBase));
    }

    /// A connected player for a scripted clip, opened with the listener.
    LxAMPlayer* play(const lxp::simgraph::Script& script, RecordingListener* listener) {
        LxAMPlayer* p = open(clip(script), listener);
        connect(p);
        return p;
    }

    double now() { return timeBase->getRefTime().getValue(); }

    /// The simulated frame number (first four bytes) of the picture a host painting at media time t
    /// shows: the one the video renderer gives, or the last one when it gives none; -1 before any.
    long frameAt(double t) {
        LxFrame* f = video != nullptr ? video->attachFrameFromTime(LxTime(t), LxTime::zero()) : nullptr;
        if (LxVideoFrame* v = dynamic_cast<LxVideoFrame*>(f)) {
            const uint8_t* p = v->getPixelData();
            shownFrame = static_cast<long>(p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24);
        }
        if (f != nullptr) {
            video->releaseFrame(f);
        }
        return shownFrame;
    }

    /// Position of the first call c in the simulated graphs' log at or after index from (-1: none).
    static long find(const std::string& c, size_t from = 0) {
        const std::vector<std::string> calls = lxp::simgraph::calls();
        const auto it =
            std::find(calls.begin() + static_cast<long>(std::min(from, calls.size())), calls.end(), c);
        return it == calls.end() ? -1 : static_cast<long>(it - calls.begin());
    }
    static size_t callCount() { return lxp::simgraph::calls().size(); }

    bool registered = false;
    KtDefaultThreadManager threads;
    ScopedTestManager manager{&threads};
    LxTimeBase* timeBase = nullptr;
    TempDir dir;
    std::vector<std::unique_ptr<LxFilenameDataSource>> sources;
    std::vector<LxAMPlayer*> players;
    EndingRenderer* audio = nullptr;  // owned by the player once connected
    LxBaseVideoRenderer* video = nullptr;
    long shownFrame = -1;
    int clips = 0;
};

constexpr int kWavRate = 44100;

inline void sleepSeconds(double s) {
    std::this_thread::sleep_for(std::chrono::microseconds(static_cast<long>(s * 1e6)));
}

/// How the player's clock maps reference time to media time during one stretch of playing.
struct ClockMap {
    double ref;    // a reference time ...
    double media;  // ... and the media time there
    double rate;
    double duration;  // media time wraps at it when looping (0: no wrap)
    double at(double r) const {
        const double m = media + (r - ref) * rate;
        return duration > 0 ? std::fmod(m, duration) : m;
    }
};

/// What the painting host saw at one instant.
struct Painted {
    double ref;
    double media;  // the media time it painted for
    int counter;   // the frame counter the picture shows (-1: none yet or unreadable)
};

/// The filter-graph player on GStreamer through the manager, with a host that paints and the sound
/// written to a WAV file in real time: after the sound-card test's F0 frames, the output opened at
/// t0 writes each block no earlier than its start, so frame F0 + k was mixed at t0 + k / 44100.
class AMPlayerE2E : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!LxPlatformGraph::gstreamerAvailable()) {
            GTEST_SKIP() << "GStreamer cannot start here";
        }
        if (!haveTool("ffmpeg")) {
            GTEST_SKIP() << "ffmpeg makes the clips (scripts/install-deps.sh test installs it)";
        }
        LxPlatformSetMidiBackend(LX_MIDI_SIMULATED);
        lxp::midisim::reset();
        lxp::comtest::reset();
        LxPlatformGraph::useGStreamer();
        LxPlatformProbe::useSystem();
        LxResetDXAndWin32VersionCache();
        LxWin32Mixer::resetClassStateForTests();
        LxWin32Manager::resetExclusivityForTests();
        wavPath = dir.file("heard.wav");
        LxPlatformSound::useWavFile(wavPath.c_str());

        manager = LxManager::createManager(&threads);
        ASSERT_NE(nullptr, manager);
        manager->setWindow(&window);
        ASSERT_EQ(LX_OK, manager->initSubSystem(INIT_TIMERS | INIT_AUDIO));
        ASSERT_TRUE(static_cast<LxWin32Manager*>(manager)->isDirectShowAvailable());
        timeBase = manager->getMasterTimeBase();
        framesBefore = rendererkit::samples16(wavPath, 2, 0).size();
        const double a = now();
        ASSERT_EQ(LX_OK, static_cast<LxWin32Mixer*>(manager->getMixer())->initDirectSound());
        outputStart = (a + now()) / 2.0;
    }

    void TearDown() override {
        stopPainting();
        if (manager != nullptr) {
            manager->closeManager();
        }
        sources.clear();
        LxPlatformSound::useNullOutput();
        LxPlatformSetMidiBackend(LX_MIDI_FLUIDSYNTH);
        lxp::comtest::reset();
    }

    double now() { return timeBase->getRefTime().getValue(); }

    /// Stops painting, closes the manager (which completes the WAV file) and reads channel 0 of
    /// what was heard.
    std::vector<int16_t> finishSound() {
        stopPainting();
        manager->closeManager();
        manager = nullptr;
        return rendererkit::samples16(wavPath, 2, 0);
    }
    double timeAtFrame(long index) const {
        return outputStart + (index - static_cast<long>(framesBefore)) / double(kWavRate);
    }
    long frameAtTime(double ref) const {
        return static_cast<long>(framesBefore) + static_cast<long>((ref - outputStart) * kWavRate);
    }

    /// A player for path from the manager's factory, once it initialised or failed.
    LxPlayer* open(const std::string& path, RecordingListener* listener, bool connect = true) {
        sources.push_back(std::make_unique<LxFilenameDataSource>(path.c_str()));
        LxPlayer* p = nullptr;
        EXPECT_EQ(LX_OK, manager->createPlayer(sources.back().get(), &p));
        if (p == nullptr) {
            return nullptr;
        }
        EXPECT_NE(nullptr, dynamic_cast<LxAMPlayer*>(p));
        p->setEventListener(listener);
        EXPECT_TRUE(waitUntil([&] { return initialisedOrFailed(*listener); }, 15000));
        if (connect && listener->count(LxInitializedEventType) > 0) {
            const long connected = manager->connectAllUnconnected(p);
            EXPECT_TRUE(connected == LX_CONNECTED_AUDIO || connected == LX_CONNECTED_VIDEO ||
                        connected == LX_CONNECTED_AUDIO_VIDEO);
            EXPECT_EQ(LX_OK, p->setTimeBase(timeBase));
        }
        return p;
    }

    /// Prefetches and waits for the player to be cued.
    void cue(LxPlayer* p, RecordingListener& l) {
        const size_t before = l.count(LxPrefetchCompleteEventType);
        p->prefetch();
        ASSERT_TRUE(waitUntil([&] { return l.count(LxPrefetchCompleteEventType) > before; }, 20000));
    }

    /// A host thread paints the player's video every 10 ms at the media time the map gives.
    void startPainting(LxPlayer* p) {
        LxVideoRenderer* renderer = nullptr;
        ASSERT_EQ(LX_OK, p->getVideoRenderer(&renderer));
        ASSERT_NE(nullptr, renderer);
        painting = true;
        painter = std::thread([this, renderer] {
            int shown = -1;
            while (painting.load()) {
                const double r = now();
                double t = 0.0;
                {
                    std::lock_guard<std::mutex> guard(mutex);
                    t = map.at(r);
                }
                LxFrame* f = renderer->attachFrameFromTime(LxTime(t < 0 ? 0.0 : t), LxTime::zero());
                if (LxVideoFrame* v = dynamic_cast<LxVideoFrame*>(f)) {
                    const int w = v->getWidth();
                    const int bpp = static_cast<int>(LxVideoFormat::getBytesPerPixel(v->getPixelFormat()));
                    shown = readFrameCounter(v->getPixelData(), w, v->getHeight(), w * bpp, bpp);
                }
                if (f != nullptr) {
                    renderer->releaseFrame(f);
                }
                {
                    std::lock_guard<std::mutex> guard(mutex);
                    painted.push_back({r, t, shown});
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
        });
    }
    void stopPainting() {
        painting = false;
        if (painter.joinable()) {
            painter.join();
        }
    }
    void setMap(const ClockMap& m) {
        std::lock_guard<std::mutex> guard(mutex);
        map = m;
    }
    /// The clock mapping of a started player from its media time, read between two reference
    /// times (within a millisecond or so).
    ClockMap readMap(LxPlayer* p, double duration) {
        const double a = now();
        const double m = p->getMediaTime().getValue();
        return {(a + now()) / 2.0, m, p->getRate(), duration};
    }
    std::vector<Painted> paintedBetween(double from, double to) {
        std::lock_guard<std::mutex> guard(mutex);
        std::vector<Painted> out;
        std::copy_if(painted.begin(), painted.end(), std::back_inserter(out),
                     [&](const Painted& p) { return p.ref >= from && p.ref < to; });
        return out;
    }

    /// Expects the pictures painted between from and to to show the frame of their media time
    /// (counted around the clip when it wraps at frames): never one ahead of its time, and nine in
    /// ten within a frame. A picture may come late when the machine cannot decode in real time; one
    /// that comes early, or most of them late, is a fault.
    void expectInStep(const char* what, double from, double to, int frames, double fps) {
        std::vector<int> behind;
        int ahead = 0;
        for (const Painted& p : paintedBetween(from, to)) {
            if (p.counter < 0) {
                continue;
            }
            int d = static_cast<int>(std::floor(p.media * fps + 1e-6)) % frames - p.counter;
            d -= frames * static_cast<int>(std::lround(static_cast<double>(d) / frames));
            ahead = std::max(ahead, -d);
            behind.push_back(std::max(d, 0));
        }
        std::sort(behind.begin(), behind.end());
        const int p90 = behind.empty() ? 0 : behind[behind.size() * 9 / 10];
        std::printf("[ measured ] %s: %zu pictures, at most %d frame(s) ahead, 90%% within %d behind\n", what,
                    behind.size(), ahead, p90);
        EXPECT_GT(behind.size(), static_cast<size_t>((to - from) * 10)) << what;
        EXPECT_LE(ahead, 1) << what;
        EXPECT_LE(p90, 1) << what;
    }

    KtDefaultThreadManager threads;
    LxWin32Window window{reinterpret_cast<LxHwnd>(0x1234)};
    LxManager* manager = nullptr;
    LxTimeBase* timeBase = nullptr;
    TempDir dir;
    std::string wavPath;
    size_t framesBefore = 0;
    double outputStart = 0.0;
    std::vector<std::unique_ptr<LxFilenameDataSource>> sources;

  private:
    std::mutex mutex;
    ClockMap map{0, 0, 0, 0};
    std::vector<Painted> painted;
    std::atomic<bool> painting{false};
    std::thread painter;
};

}  // namespace lxtest

#endif
