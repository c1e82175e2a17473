// The filter-graph player's initialisation on the simulated graph: what each clip turns into
// (initialized code, duration, frame count, outputs), the failures that stop a player at load, and
// the calls a stopped player makes on its graph for seeks and rates.
#include "GraphKit.h"

#include "platform/dshow/LxpGraphIds.h"
#include "platform/dshow/LxpRendererFilter.h"

namespace {

using Rig = lxtest::SimPlayerRig;
using lxp::simgraph::Outcome;
using lxp::simgraph::Script;
using lxtest::RecordingListener;

Script script(Outcome outcome, double seconds = 4.0, int frames = 100) {
    Script s;
    s.outcome = outcome;
    s.durationSeconds = seconds;
    s.frameCount = frames;
    return s;
}

std::vector<std::string> outputNames(LxAMPlayer* p) {
    char** names = nullptr;
    short count = 0;
    p->listOutputs(names, &count);
    std::vector<std::string> out;
    for (short i = 0; i < count; ++i) {
        out.push_back(names[i]);
    }
    return out;
}

class AMPlayerInit : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(rig.registered); }
    Rig rig;
};

TEST_F(AMPlayerInit, EachClipAnnouncesWhatItHasWithItsDurationAndFrameCount) {
    struct Case {
        Outcome outcome;
        long code;
        long frames;
        std::vector<std::string> outputs;
    };
    const Case cases[] = {{Outcome::AudioVideo, 0xE3, 100, {"Audio", "Video"}},
                          {Outcome::AudioOnly, 0xE1, -1, {"Audio"}},
                          {Outcome::VideoOnly, 0xE2, 100, {"Video"}}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.code);
        lxp::simgraph::reset();
        RecordingListener listener;
        LxAMPlayer* p = rig.open(rig.clip(script(c.outcome)), &listener);
        ASSERT_TRUE(lxtest::waitUntil([&] { return p->getState() == LxNode::STOPPED; }));
        const auto events = listener.entries();
        ASSERT_EQ(2u, events.size());
        EXPECT_EQ(LxDurationChangedEventType, events[0].type) << "the duration comes before the announcement";
        EXPECT_EQ(LxTime(-1, 0), events[0].oldDuration);
        EXPECT_EQ(LxTime(4, 0), events[0].newDuration);
        EXPECT_EQ(LxInitializedEventType, events[1].type);
        EXPECT_EQ(c.code, events[1].result);
        EXPECT_EQ(LxTime(4, 0), p->getDuration());
        EXPECT_EQ(c.frames, p->getNumFrames());
        EXPECT_EQ(c.outputs, outputNames(p));
        // A renderer that nothing feeds leaves the graph (it was added before rendering).
        EXPECT_EQ(c.outcome == Outcome::AudioOnly, Rig::find("RemoveFilter(LxVideoRenderer)") >= 0);
        EXPECT_EQ(c.outcome == Outcome::VideoOnly, Rig::find("RemoveFilter(LxAudioRenderer)") >= 0);
        rig.destroy(p);
    }

    // Durations are whole seconds and the microseconds of the fraction; a source that cannot
    // tell its length initialises without announcing one.
    RecordingListener odd;
    Script s = script(Outcome::VideoOnly, 1.2345678, 31);
    LxAMPlayer* p = rig.open(rig.clip(s), &odd);
    EXPECT_EQ(LxTime(1, 234567), p->getDuration());
    EXPECT_EQ(31, p->getNumFrames());
    RecordingListener unknown;
    s.durationKnown = false;
    p = rig.open(rig.clip(s), &unknown);
    EXPECT_EQ(0xE2, unknown.resultOf(LxInitializedEventType));
    EXPECT_EQ(0u, unknown.count(LxDurationChangedEventType));
    EXPECT_EQ(LxTime(-1, 0), p->getDuration());
}

TEST_F(AMPlayerInit, LoadFailuresEndInTheirCodesWithoutHanging) {
    enum Fail { kNothing, kGraph, kRenderers, kCom, kFile };
    struct Case {
        const char* what;
        Outcome outcome;
        Fail fail;
        long code;
    };
    const Case cases[] = {
        {"a clip no renderer takes", Outcome::None, kNothing, 0x201},
        {"a clip that cannot be rendered", Outcome::Failure, kNothing, 0x2A4},
        {"a file that is not there", Outcome::AudioVideo, kFile, 0x443},
        {"no filter graph", Outcome::AudioVideo, kGraph, 0x442},
        {"neither renderer filter", Outcome::AudioVideo, kRenderers, 0x441},
        {"no COM on the player's thread", Outcome::AudioVideo, kCom, 0x440},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        lxp::comtest::reset();
        if (c.fail == kGraph) {
            lxp::comtest::failCreate(lxp::CLSID_FilterGraph, 1);
        } else if (c.fail == kRenderers) {
            lxp::comtest::failCreate(lxp::CLSID_LxAudioRenderer, 1);
            lxp::comtest::failCreate(lxp::CLSID_LxVideoRenderer, 1);
        } else if (c.fail == kCom) {
            lxp::comtest::failCoInitialize(1);
        }
        RecordingListener listener;
        const auto start = std::chrono::steady_clock::now();
        LxAMPlayer* p =
            rig.open(c.fail == kFile ? rig.dir.file("missing.mpg") : rig.clip(script(c.outcome)), &listener);
        // COM fails as the thread starts, possibly before the listener was there to hear it.
        const long code = listener.resultOf(LxCatastrophicErrorEventType);
        if (!(c.fail == kCom && code == -1)) {
            EXPECT_EQ(c.code, code);
        }
        EXPECT_EQ(LxNode::DEAD, p->getState());
        rig.destroy(p);
        EXPECT_LT(lxtest::msSince(start), 20000.0);
    }

    // One renderer class missing: the clip plays with the other.
    lxp::comtest::reset();
    lxp::comtest::failCreate(lxp::CLSID_LxAudioRenderer, 1);
    RecordingListener listener;
    LxAMPlayer* p = rig.open(rig.clip(script(Outcome::AudioVideo)), &listener);
    EXPECT_EQ(0xE2, listener.resultOf(LxInitializedEventType));
    EXPECT_EQ(std::vector<std::string>{"Video"}, outputNames(p));
}

TEST_F(AMPlayerInit, SeeksAndRatesOfAStoppedPlayerReachTheGraphInItsTimeUnits) {
    RecordingListener l1;
    LxAMPlayer* p = rig.play(script(Outcome::AudioVideo), &l1);

    size_t mark = Rig::callCount();
    EXPECT_EQ(LX_OK, p->setMediaTime(LxTime(10000, 0)));
    EXPECT_GE(Rig::find("SetPositions(0,-)", mark), 0) << "times past 7000 s are never sent to the graph";
    mark = Rig::callCount();
    EXPECT_EQ(LX_OK, p->setMediaTime(LxTime(1, 250000)));
    EXPECT_GE(Rig::find("SetPositions(12500000,-)", mark), 0) << "(s x 1000000 + us) x 10";
    EXPECT_EQ(LxTime(1, 250000), p->getMediaTime());

    mark = Rig::callCount();
    for (float rate : {-1.0f, 0.0f, 2.0f}) {
        EXPECT_EQ(LX_OK, p->setRate(&rate));
    }
    const std::vector<std::string> calls = lxp::simgraph::calls();
    const std::vector<std::string> rates(calls.begin() + static_cast<long>(mark), calls.end());
    EXPECT_EQ(std::vector<std::string>{"SetRate(2.000)"}, rates) << "the graph plays forward only";

    // Audio alone follows the rate in its renderer, not in the graph.
    RecordingListener l2;
    LxAMPlayer* a = rig.play(script(Outcome::AudioOnly), &l2);
    mark = Rig::callCount();
    float two = 2.0f;
    EXPECT_EQ(LX_OK, a->setRate(&two));
    EXPECT_EQ(2.0f, rig.audio->lastRate.load());
    EXPECT_EQ(mark, Rig::callCount());
}

}  // namespace
