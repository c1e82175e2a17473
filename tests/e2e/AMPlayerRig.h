// Clips played end to end by the filter-graph player on GStreamer, through the manager's factory
// and default renderers, with the sound written to a WAV file in real time and a host thread that
// paints the video renderer's frames and reads the frame counter each one shows.
//
// Mapping the WAV file to reference time: the sound-card test at start-up wrote the file's first F0
// frames; the rig then opens the output at a reference time t0 read around the call, and from
// there the engine's mixing thread writes one block after another, each no earlier than its own
// start time, so frame F0 + k was mixed at t0 + k / 44100.
#ifndef LORVEX_TESTS_E2E_AMPLAYERRIG_H
#define LORVEX_TESTS_E2E_AMPLAYERRIG_H

#include "GraphClips.h"
#include "LxAMPlayer.h"
#include "LxDataSource.h"
#include "LxEvent.h"
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
#include "TestNodes.h"
#include "TestSupport.h"
#include "platform/com/LxpCom.h"
#include "platform/midi/LxpMidiSim.h"

#include "RendererKit.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace amtest {

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

/// A manager whose sound goes to a WAV file in real time, with the file's frames mapped to
/// reference time (see the file comment), and a host that paints.
class AMPlayerE2E : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!LxPlatformGraph::gstreamerAvailable()) {
            GTEST_SKIP() << "GStreamer cannot start here";
        }
        if (!lxtest::haveTool("ffmpeg")) {
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
        const double b = now();
        outputStart = (a + b) / 2.0;
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

    /// Stops painting, closes the manager (which completes the WAV file) and reads channel ch of
    /// what was heard.
    std::vector<int16_t> finishSound(int ch = 0) {
        stopPainting();
        if (manager != nullptr) {
            manager->closeManager();
            manager = nullptr;
        }
        return rendererkit::samples16(wavPath, 2, ch);
    }
    double timeAtFrame(long index) const {
        return outputStart + (index - static_cast<long>(framesBefore)) / double(kWavRate);
    }
    long frameAtTime(double ref) const {
        return static_cast<long>(framesBefore) + static_cast<long>((ref - outputStart) * kWavRate);
    }

    KtDefaultThreadManager threads;
    LxWin32Window window{reinterpret_cast<LxHwnd>(0x1234)};
    LxManager* manager = nullptr;
    LxTimeBase* timeBase = nullptr;
    lxtest::TempDir dir;
    std::string wavPath;
    size_t framesBefore = 0;
    double outputStart = 0.0;
    std::vector<std::unique_ptr<LxFilenameDataSource>> sources;

    /// A player for path from the manager's factory; waits until it initialised or failed.
    LxPlayer* open(const std::string& path, lxtest::RecordingListener* listener, bool connect = true) {
        sources.push_back(std::make_unique<LxFilenameDataSource>(path.c_str()));
        LxPlayer* p = nullptr;
        EXPECT_EQ(LX_OK, manager->createPlayer(sources.back().get(), &p));
        if (p == nullptr) {
            return nullptr;
        }
        EXPECT_NE(nullptr, dynamic_cast<LxAMPlayer*>(p));
        p->setEventListener(listener);
        EXPECT_TRUE(lxtest::waitUntil(
            [&] {
                return listener->count(LxInitializedEventType) +
                           listener->count(LxCatastrophicErrorEventType) >
                       0;
            },
            15000));
        if (connect && listener->count(LxInitializedEventType) > 0) {
            const long connected = manager->connectAllUnconnected(p);
            EXPECT_TRUE(connected == LX_CONNECTED_AUDIO || connected == LX_CONNECTED_VIDEO ||
                        connected == LX_CONNECTED_AUDIO_VIDEO);
            EXPECT_EQ(LX_OK, p->setTimeBase(timeBase));
        }
        return p;
    }

    /// Prefetches and waits for the player to be cued.
    void cue(LxPlayer* p, lxtest::RecordingListener& l) {
        const size_t before = l.count(LxPrefetchCompleteEventType);
        p->prefetch();
        ASSERT_TRUE(lxtest::waitUntil([&] { return l.count(LxPrefetchCompleteEventType) > before; }, 20000));
    }

    /// A host thread paints the player's video every 10 ms at the media time map gives.
    void startPainting(LxPlayer* p) {
        LxVideoRenderer* renderer = nullptr;
        ASSERT_EQ(LX_OK, p->getVideoRenderer(&renderer));
        ASSERT_NE(nullptr, renderer);
        painting = true;
        painter = std::thread([this, renderer] {
            int shown = -1;
            while (painting.load()) {
                const double r = now();
                ClockMap m;
                {
                    std::lock_guard<std::mutex> guard(mutex);
                    m = map;
                }
                const double t = m.at(r);
                LxFrame* f = renderer->attachFrameFromTime(LxTime(t < 0 ? 0.0 : t), LxTime::zero());
                if (LxVideoFrame* v = dynamic_cast<LxVideoFrame*>(f)) {
                    const int w = v->getWidth();
                    const int bpp = static_cast<int>(LxVideoFormat::getBytesPerPixel(v->getPixelFormat()));
                    shown = lxtest::readFrameCounter(v->getPixelData(), w, v->getHeight(), w * bpp, bpp);
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
        const double b = now();
        return {(a + b) / 2.0, m, p->getRate(), duration};
    }
    std::vector<Painted> paintedBetween(double from, double to) {
        std::lock_guard<std::mutex> guard(mutex);
        std::vector<Painted> out;
        for (const Painted& p : painted) {
            if (p.ref >= from && p.ref < to) {
                out.push_back(p);
            }
        }
        return out;
    }

    /// Expects the pictures painted between from and to to show the frame of their media time
    /// (counted around the clip when it wraps at frames): never one ahead of its time, and nine in
    /// ten within a frame. A picture may come late when the machine cannot decode in real time; one
    /// that comes early, or most of them late, is a fault.
    void expectInStep(const char* what, double from, double to, int frames, double fps) {
        std::vector<int> behind;
        int ahead = 0;
        double lag = 0.0;
        for (const Painted& p : paintedBetween(from, to)) {
            if (p.counter < 0) {
                continue;
            }
            int d = static_cast<int>(std::floor(p.media * fps + 1e-6)) % frames - p.counter;
            d -= frames * static_cast<int>(std::lround(static_cast<double>(d) / frames));
            ahead = std::max(ahead, -d);
            behind.push_back(std::max(d, 0));
            double l = p.media * fps - p.counter;  // in frames of media time, positive when behind
            lag += l - frames * std::round(l / frames);
        }
        std::sort(behind.begin(), behind.end());
        const int p90 = behind.empty() ? 0 : behind[behind.size() * 9 / 10];
        std::printf(
            "[ measured ] %s: %zu pictures, at most %d frame(s) ahead, 90%% within %d behind, %.1f ms "
            "of media behind on average\n",
            what, behind.size(), ahead, p90,
            behind.empty() ? 0.0 : (lag / static_cast<double>(behind.size()) - 0.5) * 1000.0 / fps);
        EXPECT_GT(behind.size(), static_cast<size_t>((to - from) * 10)) << what;
        EXPECT_LE(ahead, 1) << what;
        EXPECT_LE(p90, 1) << what;
    }

    std::mutex mutex;
    ClockMap map{0, 0, 0, 0};
    std::vector<Painted> painted;
    std::atomic<bool> painting{false};
    std::thread painter;
};

}  // namespace amtest

#endif
