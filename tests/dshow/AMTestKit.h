// A rig for the filter-graph player on the simulated graph: a test manager, a real-time time base,
// the filter library registered, scripted clips, and consumers for the player's two outputs (a
// test audio renderer that is pulled by the test, and the real video renderer).
#ifndef LORVEX_TESTS_DSHOW_AMTESTKIT_H
#define LORVEX_TESTS_DSHOW_AMTESTKIT_H

#include "LxAMPlayer.h"
#include "LxBaseVideoRenderer.h"
#include "LxDataSource.h"
#include "LxEvent.h"
#include "LxLog.h"
#include "LxPlatformGraph.h"
#include "LxResult.h"
#include "LxTimeBase.h"
#include "TestNodes.h"
#include "TestRenderer.h"
#include "TestSupport.h"
#include "WaveFiles.h"
#include "platform/com/LxpCom.h"
#include "platform/dshow/LxpSimGraph.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace amtest {

/// An audio renderer for the player's "Audio" output that reports its end of media as soon as
/// the producer tells it (as a renderer with nothing left to play would).
class EndingRenderer : public lxtest::TestRendererNode {
  public:
    explicit EndingRenderer(LxManager* m) : TestRendererNode(m, 6, 8820) {}
    void notifyEndOfMedia() override {
        TestRendererNode::notifyEndOfMedia();
        if (getCurrentState() == STARTED && !lastLoop.load()) {
            postEndOfMedia();
        }
    }
};

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

class Rig {
  public:
    Rig() {
        LxPlatformGraph::useSimulated();
        lxp::simgraph::reset();
        lxp::comtest::reset();
        registered = lxtest::registerFilterLibrary();
        timeBase = new LxWin32TimeBase(manager.get());
    }
    ~Rig() {
        for (LxAMPlayer* p : players) {
            delete p;
        }
        delete timeBase;
        lxp::simgraph::reset();
        lxp::comtest::reset();
        LxPlatformGraph::useGStreamer();
    }

    /// A file (any bytes) that the simulated graph plays by script.
    std::string clip(const lxp::simgraph::Script& script, const std::string& extension = ".mpg") {
        const std::string path = dir.file("clip" + std::to_string(clips++) + extension);
        lxtest::writeFile(path, "not decoded");
        lxp::simgraph::setScriptForFile(path, script);
        return path;
    }

    /// A player for path; waits until it has initialised (or failed). The rig destroys it. The
    /// player's thread starts with the player, so its data is held back until the listener is
    /// set (only a failure before the data is read, such as COM's, can come before that).
    LxAMPlayer* open(const std::string& path, lxtest::RecordingListener* listener) {
        auto* source = new lxtest::GatedFileSource(path);
        sources.emplace_back(source);
        LxAMPlayer* p = new LxAMPlayer(manager.get(), source);
        players.push_back(p);
        p->setEventListener(listener);
        source->open();
        auto heard = [&] {
            return listener->count(LxInitializedEventType) + listener->count(LxCatastrophicErrorEventType) >
                   0;
        };
        EXPECT_TRUE(lxtest::waitUntil([&] { return heard() || p->getState() == LxNode::DEAD; }))
            << "the player neither initialised nor failed";
        // A dead player's error event is delivered on its poster thread, a moment later.
        lxtest::waitUntil(heard, 10000);
        return p;
    }

    /// Destroys a player the rig made (to time or check its end).
    void destroy(LxAMPlayer* p) {
        players.erase(std::remove(players.begin(), players.end(), p), players.end());
        delete p;
    }

    /// Connects the player's outputs to a test audio renderer and the real video renderer, as the
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

    double now() { return timeBase->getRefTime().getValue(); }

    /// The frame number (simulated: the first four bytes) of the picture a host painting at media
    /// time t shows: the one the video renderer gives, or the last one when it gives none. -1
    /// before the first.
    long frameAt(double t) {
        LxFrame* f = video != nullptr ? video->attachFrameFromTime(LxTime(t), LxTime::zero()) : nullptr;
        LxVideoFrame* v = dynamic_cast<LxVideoFrame*>(f);
        if (v != nullptr) {
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
        for (size_t i = from; i < calls.size(); ++i) {
            if (calls[i] == c) {
                return static_cast<long>(i);
            }
        }
        return -1;
    }
    static size_t callCount() { return lxp::simgraph::calls().size(); }

    bool registered = false;
    KtDefaultThreadManager threads;
    lxtest::ScopedTestManager manager{&threads};
    LxTimeBase* timeBase = nullptr;
    lxtest::TempDir dir;
    std::vector<std::unique_ptr<LxFilenameDataSource>> sources;
    std::vector<LxAMPlayer*> players;
    EndingRenderer* audio = nullptr;  // owned by the player once connected
    LxBaseVideoRenderer* video = nullptr;
    long shownFrame = -1;
    int clips = 0;
};

}  // namespace amtest

#endif
