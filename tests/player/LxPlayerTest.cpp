// The player framework: requests on the player thread, shutdown, and the orchestration of renderer
// nodes (start confirmation, end of media, stop time, looping, time bases, rates, the run loop).
#include "LxPlayer.h"

#include "LxAudioRendererNode.h"
#include "LxResult.h"
#include "LxVideoRenderer.h"
#include "TestManager.h"
#include "TestNodes.h"
#include "TestPlayer.h"
#include "TestRenderer.h"
#include "TestSupport.h"
#include "platform/kt/KtRecordingThreadManager.h"

#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using lxtest::RecordingListener;
using lxtest::StepTimeBase;
using lxtest::TestPlayer;
using lxtest::TestRendererNode;

// A renderer that records the media times it is given and the threads it is driven from.
class TracedRenderer : public TestRendererNode {
  public:
    using TestRendererNode::TestRendererNode;
    long setMediaTime(LxTime t) override {
        {
            std::lock_guard<std::mutex> lock(mutex);
            calls.emplace_back(t.getValue(), std::this_thread::get_id());
        }
        return TestRendererNode::setMediaTime(t);
    }
    std::mutex mutex;
    std::vector<std::pair<double, std::thread::id>> calls;
};

// A player on the shared run loop whose steps the test scripts: what loading gives, how early it
// starts its work; it counts the calls of its work (keeping the last time to the start) and its stop.
// A loader's failure and its code are heard through the audio player's tests.
class LoopPlayer : public LxPlayer {
  public:
    LoopPlayer(LxManager* m, long loadResult, unsigned long lead)
        : LxPlayer(m, nullptr), loadResult_(loadResult), lead_(lead) {
        startThread([](void* p) -> long {
            static_cast<LoopPlayer*>(p)->runLoop();
            return 0;
        });
    }
    ~LoopPlayer() override { waitAndShutdown(); }
    using LxPlayer::clampWait;
    using LxPlayer::startWait;
    std::atomic<int> silenced{0}, steps{0};
    std::atomic<unsigned long> toStart{0};

  protected:
    void run() override {}
    long loadClip() override { return loadResult_; }
    unsigned long cueLead() override { return lead_; }
    void silenceAtStopTime() override { ++silenced; }
    unsigned long playStep(unsigned long ms) override {
        toStart = ms;
        ++steps;
        return KT_INFINITE;
    }

  private:
    long loadResult_;
    unsigned long lead_;
};

class PlayerTest : public ::testing::Test {
  protected:
    TestRendererNode* renderer() { return new TestRendererNode(manager.get()); }
    // Connects the player's "Audio" output to a renderer, which the player owns from then on.
    template <class R>
    R* attach(TestPlayer& player, R* renderer) {
        EXPECT_EQ(LX_OK, player.audioOutput()->connectTo(renderer));
        renderer->connectTo(player.audioOutput());
        return renderer;
    }
    // Hangs a renderer off a second output of the player, which owns both from then on.
    void attachSecond(TestPlayer& player, TestRendererNode* renderer) {
        auto* out = new LxAudioOutputConnectable();
        out->initFormats(LxSample8, LxMono, 8000.0f, 1, LxFormat::PullStream, 0);
        out->initConnectable(&player);
        out->connectTo(renderer);
        player.onPlayerThread([&] { player.adoptOutput("Second", out); });
    }
    static bool reaches(LxPlayer& player, LxNode::LxNodeState s) {
        return lxtest::waitUntil([&] { return player.getState() == s; });
    }
    // The player initialised, heard by the test's listener and on the test's time base (at 100 s).
    void ready(LxPlayer& player) {
        player.setEventListener(&listener);
        EXPECT_TRUE(reaches(player, LxNode::STOPPED));
        EXPECT_EQ(LX_OK, player.setTimeBase(&timeBase));
    }
    bool heard(LxEventType_s type, size_t times = 1) {
        return lxtest::waitUntil([&] { return listener.count(type) == times; });
    }

    KtRecordingThreadManager threads;
    lxtest::ScopedTestManager manager{&threads};
    StepTimeBase timeBase{manager.get()};
    RecordingListener listener;  // outlives the players of a test
};

TEST_F(PlayerTest, RequestsRunOnThePlayerThreadInOrderAndGettersSeeEarlierSetters) {
    TestPlayer player(manager.get());
    auto* r = attach(player, new TracedRenderer(manager.get()));
    ASSERT_TRUE(reaches(player, LxNode::STOPPED));

    player.setLoop(1);  // no reply is awaited, yet a getter from the same thread sees it
    EXPECT_EQ(1, player.getLoop());
    EXPECT_EQ(1, r->lastLoop.load());

    // Two host threads; each one's requests are carried out in its own order, on one thread that
    // is neither of theirs.
    auto sender = [&](int base) {
        for (int i = 0; i < 20; ++i) {
            EXPECT_EQ(LX_OK, player.setMediaTime(LxTime(base + i, 0)));
        }
    };
    std::thread a(sender, 100), b(sender, 200);
    a.join();
    b.join();
    {
        std::lock_guard<std::mutex> lock(r->mutex);
        ASSERT_EQ(40u, r->calls.size());
        double last[2] = {0, 0};
        for (const auto& call : r->calls) {
            EXPECT_GT(call.first, last[call.first >= 200]);
            last[call.first >= 200] = call.first;
            EXPECT_EQ(r->calls[0].second, call.second);
            EXPECT_NE(std::this_thread::get_id(), call.second);
        }
    }

    // On the player thread a request cannot wait for itself: it is refused or answered at once.
    LxNode::LxNodeState state = LxNode::STARTED;
    long start = 0, rateResult = 0;
    float rate = -5.0f;
    ASSERT_TRUE(player.onPlayerThread([&] {
        state = player.getState();
        start = player.startAtTime(LxTime());
        rateResult = player.setRate(&rate);
        rate = player.getRate();
        player.stop();  // returns at once
        player.setLoop(0);
    }));
    EXPECT_EQ(LxNode::DEAD, state);
    EXPECT_EQ(LX_ERR_ON_PLAYER_THREAD, start);
    EXPECT_EQ(LX_ERR_ON_PLAYER_THREAD, rateResult);
    EXPECT_EQ(-1.0f, rate);
    EXPECT_EQ(1, player.getLoop());  // the request made there was never sent
    EXPECT_EQ(LxNode::STOPPED, player.getState());
}

TEST_F(PlayerTest, RatesReachTheNodesTinyOnesBecomeZeroAndAChangeWhileStartedDoesNotJump) {
    TestPlayer player(manager.get());
    auto* r = attach(player, renderer());
    ready(player);
    r->lastRate = 42.0f;
    EXPECT_EQ(LX_ERR_GENERIC, player.setRate(nullptr)) << "a null rate sends nothing";
    EXPECT_EQ(1.0f, player.getRate());
    EXPECT_EQ(42.0f, r->lastRate.load());
    const struct {
        float asked, given;
    } cases[] = {{0.0005f, 0.0f}, {-1.0f, -1.0f}, {0.0f, 0.0f}, {0.001f, 0.001f}, {1.0f, 1.0f}};
    for (const auto& c : cases) {
        float rate = c.asked;
        EXPECT_EQ(LX_OK, player.setRate(&rate));
        EXPECT_EQ(c.given, rate) << "the caller's rate too";
        EXPECT_EQ(c.given, player.getRate());
        EXPECT_EQ(c.given, r->lastRate.load());
    }
    ASSERT_EQ(LX_OK, player.startAtTime(LxTime(100, 0)));
    timeBase.set(101.0);
    EXPECT_NEAR(1.0, player.getMediaTime().getValue(), 1e-6);
    float rate = 2.0f;
    ASSERT_EQ(LX_OK, player.setRate(&rate));
    EXPECT_NEAR(1.0, player.getMediaTime().getValue(), 1e-6);
    timeBase.set(102.0);
    EXPECT_NEAR(3.0, player.getMediaTime().getValue(), 1e-6);
    player.stop();
    r->setRateResult(LX_ERR_CLOCK_RUNNING);
    EXPECT_EQ(LX_ERR_CLOCK_RUNNING, player.setRate(&rate)) << "a node's refusal is the caller's answer";
}

TEST_F(PlayerTest, StartWaitsForEveryNodeToConfirm) {
    TestPlayer player(manager.get());
    auto* quick = attach(player, renderer());
    // A second renderer behind the first one's own output, which the first reports as its own.
    auto* slow = renderer();
    slow->setStartMode(TestRendererNode::Silent);
    LxAudioOutputConnectable chained;
    chained.initFormats(LxSample16, LxStereo, 44100.0f, 4, LxFormat::PullStream, 0);
    chained.initConnectable(quick);
    chained.connectTo(slow);
    char name[] = "Chained";
    char* names[] = {name};
    LxOutputConnectable* outs[] = {&chained};
    quick->setOutputs(names, outs, 1);
    ready(player);

    auto started = std::async(std::launch::async, [&] { return player.startAtTime(LxTime(100, 0)); });
    ASSERT_TRUE(lxtest::waitUntil([&] { return slow->starts.load() == 1; }));
    EXPECT_EQ(std::future_status::timeout, started.wait_for(std::chrono::milliseconds(150)));
    slow->postStart();
    ASSERT_EQ(std::future_status::ready, started.wait_for(std::chrono::seconds(10)));
    EXPECT_EQ(LX_OK, started.get());
    EXPECT_EQ(LxNode::STARTED, player.getState());
    EXPECT_TRUE(player.flagsOf(slow).started);
    EXPECT_TRUE(player.flagsOf(quick).started);
    EXPECT_TRUE(heard(LxStartEventType));
    player.stop();  // nodes are stopped and set to the player's media time
    EXPECT_EQ(1, slow->stops.load());
    EXPECT_EQ(1, quick->stops.load());
    EXPECT_FALSE(player.flagsOf(slow).started);
    EXPECT_TRUE(heard(LxStopByRequestEventType));
    // The chained output is the test's and goes first: the nodes go with the player.
    player.onPlayerThread([&] { player.destroyAll(); });
}

// A start is confirmed by a node's start or its end; a node that gives neither is taken as ended
// after the bound, and the player's own end then stops the player.
TEST_F(PlayerTest, NodesThatEndAtTheStartOrNeverConfirmCountAsEnded) {
    TestPlayer player(manager.get());
    auto* r = attach(player, renderer());
    ASSERT_TRUE(reaches(player, LxNode::STOPPED));
    for (auto mode : {TestRendererNode::ConfirmEnd, TestRendererNode::Silent}) {
        const bool silent = mode == TestRendererNode::Silent;
        SCOPED_TRACE(silent ? "never confirms" : "ends at its start");
        r->setStartMode(mode);
        player.setStartWaitLimit(silent ? LxTime(0, 200000) : LxTime(30, 0));
        const auto t0 = std::chrono::steady_clock::now();
        EXPECT_EQ(LX_OK, player.startAtTime(LxTime()));
        const double waited = lxtest::msSince(t0);
        EXPECT_GE(waited, silent ? 190.0 : 0.0);
        EXPECT_LT(waited, 10000.0);
        EXPECT_EQ(LxNode::STARTED, player.getState());
        const auto flags = player.flagsOf(r);
        EXPECT_TRUE(flags.ended);
        EXPECT_FALSE(flags.started);
        EXPECT_EQ(LX_ERR_CLOCK_RUNNING, player.startAtTime(LxTime()));  // the clock's answer
        player.reachOwnEnd();
        EXPECT_EQ(LxNode::STOPPED, player.getState());
    }
}

// The player stops at its end or its stop time only once it and every node it started are there;
// a time base a node refuses leaves every node on the old one.
TEST_F(PlayerTest, TwoRenderersEndAndCheckInAtTheStopTimeOneAfterTheOtherAndShareTheTimeBase) {
    TestPlayer player(manager.get());
    auto* a = attach(player, renderer());
    auto* b = renderer();
    attachSecond(player, b);
    ready(player);
    ASSERT_EQ(LX_OK, player.startAtTime(LxTime(100, 0)));
    player.reachOwnEnd();
    EXPECT_EQ(LxNode::STARTED, player.getState());
    a->postEndOfMedia();
    EXPECT_TRUE(lxtest::waitUntil([&] { return player.flagsOf(a).ended; }));
    EXPECT_EQ(LxNode::STARTED, player.getState());
    b->postEndOfMedia();
    EXPECT_TRUE(reaches(player, LxNode::STOPPED));
    EXPECT_EQ(1, a->stops.load());
    EXPECT_EQ(1, b->stops.load());
    EXPECT_TRUE(heard(LxEndOfMediaEventType));
    EXPECT_EQ(LxTime(2, 0), player.getMediaTime());  // parked at the known duration, nodes too
    EXPECT_EQ(2000000, a->lastMediaTimeUsec.load());

    ASSERT_EQ(LX_OK, player.setMediaTime(LxTime::zero()));
    ASSERT_EQ(LX_OK, player.startAtTime(LxTime(100, 0)));
    EXPECT_EQ(LX_OK, player.stopAtTime(LxTime(105, 0)));
    EXPECT_EQ(1, a->stopAtTimes.load());
    EXPECT_EQ(1, b->stopAtTimes.load());
    EXPECT_EQ(LxTime(105, 0), player.getStopTime());
    player.reachOwnStopTime();
    a->postStopAtTime();
    player.onPlayerThread([] {});  // after the node's event, which was queued first
    EXPECT_EQ(LxNode::STARTED, player.getState());
    b->postStopAtTime();
    EXPECT_TRUE(reaches(player, LxNode::STOPPED));
    EXPECT_TRUE(heard(LxStopAtTimeEventType));

    // The list is walked newest first: b, then a. Whichever refuses, both end on the old base.
    StepTimeBase other(manager.get());
    for (TestRendererNode* refuser : {a, b}) {
        refuser->setTimeBaseResult(LX_ERR_GENERIC);
        EXPECT_EQ(LX_ERR_GENERIC, player.setTimeBase(&other));
        EXPECT_EQ(&timeBase, player.getTimeBase());
        EXPECT_EQ(&timeBase, a->getTimeBase());
        EXPECT_EQ(&timeBase, b->getTimeBase());
        refuser->setTimeBaseResult(LX_OK);
    }
    EXPECT_EQ(LX_OK, player.setTimeBase(&other));
    EXPECT_EQ(&other, a->getTimeBase());
    EXPECT_EQ(&other, b->getTimeBase());
}

TEST_F(PlayerTest, LoopingRestartsEveryNodeAtMediaTimeZero) {
    TestPlayer player(manager.get());
    auto* a = attach(player, renderer());
    ready(player);
    player.setLoop(1);
    ASSERT_EQ(LX_OK, player.startAtTime(LxTime(100, 0)));
    timeBase.set(101.5);
    a->postEndOfMedia();
    EXPECT_TRUE(lxtest::waitUntil([&] { return player.flagsOf(a).ended; }));
    player.reachOwnEnd();
    EXPECT_EQ(LxNode::STARTED, player.getState());
    EXPECT_EQ(2, a->starts.load());
    EXPECT_EQ(0, a->lastMediaTimeUsec.load());
    EXPECT_NEAR(0.0, player.getMediaTime().getValue(), 1e-6);  // restarted now, at zero
    timeBase.set(102.0);
    EXPECT_NEAR(0.5, player.getMediaTime().getValue(), 1e-6);
    EXPECT_TRUE(player.flagsOf(a).started);
    EXPECT_EQ(0u, listener.count(LxEndOfMediaEventType));
    EXPECT_TRUE(heard(LxStartEventType, 2));
}

TEST_F(PlayerTest, UnknownDurationBecomesTheMediaTimeReachedAtTheEnd) {
    TestPlayer::Options options;
    options.duration = LxTime(-1, 0);
    TestPlayer player(manager.get(), options);
    ready(player);
    ASSERT_EQ(LX_OK, player.startAtTime(LxTime(100, 0)));
    timeBase.set(101.25);
    player.reachOwnEnd();
    EXPECT_EQ(LxNode::STOPPED, player.getState());
    EXPECT_EQ(LxTime(1, 250000), player.getDuration());
    EXPECT_EQ(LxTime(1, 250000), player.getMediaTime());
    ASSERT_TRUE(heard(LxEndOfMediaEventType));  // right after the duration's change
    const auto entries = listener.entries();
    ASSERT_GE(entries.size(), 2u);
    EXPECT_EQ(LxDurationChangedEventType, entries[entries.size() - 2].type);
    EXPECT_EQ(LxEndOfMediaEventType, entries.back().type);
}

TEST_F(PlayerTest, CatastrophicErrorAnswersWaitingRequestsAndKillsThePlayer) {
    TestPlayer player(manager.get());
    ready(player);
    // The player thread is busy while a host thread's request waits in the queue; the error
    // arrives before it is handled.
    std::future<long> waiting;
    player.onPlayerThread([&] {
        waiting = std::async(std::launch::async, [&] { return player.setMediaTime(LxTime(1, 0)); });
        // The requester needs the signal to send: wait on it, which lets go of it meanwhile.
        for (int i = 0; i < 1000 && player.queuedRequests() == 0; ++i) {
            player.waitOnSignal(20);
        }
        ASSERT_EQ(1, player.queuedRequests());
        player.catastrophicError(LX_ERR_WAVE_READ);
    });
    ASSERT_EQ(std::future_status::ready, waiting.wait_for(std::chrono::seconds(10)));
    EXPECT_EQ(LX_ERR_GENERIC, waiting.get());  // handled by a dead player
    ASSERT_TRUE(heard(LxCatastrophicErrorEventType));
    EXPECT_EQ(LX_ERR_WAVE_READ, listener.entries().back().result);

    float rate = 1.0f;
    for (long result :
         {player.startAtTime(LxTime()), player.stopAtTime(LxTime()), player.setMediaTime(LxTime()),
          player.setTimeBase(&timeBase), player.setRate(nullptr), player.setRate(&rate)}) {
        EXPECT_EQ(LX_ERR_PLAYER_DEAD, result);
    }
    EXPECT_EQ(LxNode::DEAD, player.getState());
    EXPECT_EQ(-1.0f, player.getRate());
    EXPECT_EQ(LxTime(-1, 0), player.getMediaTime());
    // The thread leaves its loop by itself once the player is dead.
    EXPECT_TRUE(lxtest::waitUntil([&] { return !player.threadIsRunning(); }));
}

// Without its thread a player is dead, says so, and still goes cleanly with the renderers it owns;
// uninitialised, it refuses what needs its nodes.
TEST_F(PlayerTest, APlayerThatCannotWorkRefusesAndStillGoesCleanly) {
    LxQueue* events = new LxQueue();
    threads.refuseThreads(1);
    {
        TestPlayer player(manager.get());
        player.setEventListener(events);
        EXPECT_EQ(LX_ERR_GENERIC, player.startAtTime(LxTime()));
        EXPECT_EQ(LX_ERR_GENERIC, player.setMediaTime(LxTime()));
        EXPECT_EQ(LxNode::DEAD, player.getState());
        EXPECT_EQ(1.0f, player.getRate());  // nothing will drain the queue: read at once
        player.setLoop(1);
        EXPECT_FALSE(player.onPlayerThread([] {}));
        attach(player, renderer());  // owned once attached: LeakSanitizer sees one left behind
    }
    EXPECT_EQ(0, threads.liveThreads());
    LxEvent* e = static_cast<LxEvent*>(events->receive(0, LxTime::zero()));
    ASSERT_NE(nullptr, e);
    EXPECT_EQ(LxCatastrophicErrorEventType, e->getEventType());
    EXPECT_EQ(LX_ERR_GENERIC, static_cast<LxCatastrophicErrorEvent*>(e)->getResult());
    e->unref();
    EXPECT_EQ(nullptr, events->receive(0, LxTime::zero()));
    events->unref();

    TestPlayer::Options options;
    options.initialize = false;
    TestPlayer uninitialised(manager.get(), options);
    float rate = 2.0f;
    EXPECT_EQ(LX_ERR_GENERIC, uninitialised.startAtTime(LxTime()));
    EXPECT_EQ(LX_ERR_GENERIC, uninitialised.setRate(&rate));
    EXPECT_EQ(LX_ERR_GENERIC, uninitialised.setMediaTime(LxTime(1, 0)));
    uninitialised.prefetch();
    EXPECT_EQ(LxNode::UNINITIALIZED, uninitialised.getState());
}

// Ports handed out by a renderer behind the output are heard in the audio renderer's tests.
TEST_F(PlayerTest, OutputsThatLeadToNoRendererGiveNoPortAndNoVideoRenderer) {
    TestPlayer player(manager.get());
    LxAudioOutputPort* port = reinterpret_cast<LxAudioOutputPort*>(0x1);
    EXPECT_EQ(LX_ERR_GENERIC, player.getNewAudioPort(&port));
    player.onPlayerThread([&] { player.adoptOutput("Video", new LxVideoOutputConnectable()); });
    LxVideoRenderer* video = reinterpret_cast<LxVideoRenderer*>(0x1);
    EXPECT_EQ(LX_ERR_GENERIC, player.getVideoRenderer(&video));
    EXPECT_EQ(nullptr, video);
}

TEST_F(PlayerTest, TheRunLoopInitialisesAndItsWaitForAStartEnds) {
    LoopPlayer player(manager.get(), LX_OK, 0);
    player.setEventListener(&listener);
    ASSERT_TRUE(reaches(player, LxNode::STOPPED));
    ASSERT_TRUE(heard(LxInitializedEventType));
    EXPECT_EQ(LX_INITIALIZED_AUDIO, listener.resultOf(LxInitializedEventType));
    EXPECT_EQ(250ul, player.startWait(500, 2.0f));
    EXPECT_EQ(1000ul, player.startWait(500, 0.5f));
    EXPECT_EQ(500ul, player.startWait(-500, -1.0f)) << "a backward clock's lead by its size";
    EXPECT_EQ(500ul, player.startWait(500, 0.0f)) << "a stopped clock counts as rate 1";
    EXPECT_EQ(1ul, player.startWait(1, 8.0f)) << "never 0, which would mean the start has come";
    EXPECT_EQ(4294967294ul, player.startWait(2000000000L, 1e-6f)) << "never KT_INFINITE";
    EXPECT_EQ(0ul, player.clampWait(-5.0));
}

// A start ahead: the work begins cueLead early (told how far the start still is) and runs again
// at the start; the stop time quietens the player before it stops.
TEST_F(PlayerTest, TheRunLoopWorksFromTheCueLeadBeforeTheStartUntilTheStopTime) {
    LoopPlayer player(manager.get(), LX_OK, 100);
    ready(player);
    ASSERT_EQ(LX_OK, player.stopAtTime(LxTime(100.8)));
    ASSERT_EQ(LX_OK, player.startAtTime(LxTime(100.5)));
    timeBase.set(100.35);
    player.getState();  // a request wakes the loop for a pass
    EXPECT_EQ(0, player.steps.load()) << "150 ms ahead is before the lead";
    timeBase.set(100.45);
    player.getState();
    ASSERT_TRUE(lxtest::waitUntil([&] { return player.steps.load() > 0; }));
    EXPECT_NEAR(50.0, static_cast<double>(player.toStart.load()), 1.0);
    timeBase.set(100.5);
    player.getState();
    ASSERT_TRUE(lxtest::waitUntil([&] { return player.steps.load() >= 2 && player.toStart.load() == 0; }));
    EXPECT_EQ(0, player.silenced.load());
    timeBase.set(100.8);
    player.getState();
    ASSERT_TRUE(heard(LxStopAtTimeEventType));
    EXPECT_EQ(1, player.silenced.load());
    EXPECT_EQ(LxNode::STOPPED, player.getState());
}

}  // namespace
