#include "LxVrmlSupport.h"

#include "LxManager.h"
#include "LxPlayer.h"
#include "LxResult.h"

#include "FakeAudioPort.h"
#include "RecordingPlayer.h"
#include "SettableTimeBase.h"
#include "TestManager.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using lxtest::FakeAudioPort;
using lxtest::RecordingPlayer;
using lxtest::SceneManager;

struct Notifier : public LxSoundNodeNotifier {
    std::vector<LxAudioOutputPort*> seen;
    std::vector<std::string>* calls = nullptr;  // where "port" is noted among the player's requests
    void audioPortChanged(LxAudioOutputPort* port) override {
        seen.push_back(port);
        if (calls != nullptr) {
            calls->push_back("port");
        }
    }
};

class VrmlTest : public ::testing::Test {
  protected:
    void SetUp() override {
        player = new RecordingPlayer(manager, &calls);
        manager->addPlayer(player);
        support.reset(new LxVrmlSupport(player, manager));
    }
    void TearDown() override {
        support.reset();
        manager->closeManager();
    }

    // The browser's clock and the master time base agree: both read 5000 s.
    void ready() {
        ASSERT_EQ(LX_OK, support->finishInitializingPlayer());
        calls.clear();
    }
    /// The player's requests since the last look, comma-separated.
    std::string took() {
        std::string made;
        for (const std::string& call : calls) {
            made += (made.empty() ? "" : ", ") + call;
        }
        calls.clear();
        return made;
    }
    void startAt(double startTime, bool loop) {
        support->beginChangingFields(LxTime(5000.0));
        support->setLoop(loop);
        support->setStartTime(LxTime(startTime));
        support->doneChangingFields();
    }

    KtDefaultThreadManager threads;
    SceneManager* manager = new SceneManager(&threads);
    std::vector<std::string> calls;
    RecordingPlayer* player = nullptr;
    std::unique_ptr<LxVrmlSupport> support;
};

// The start rules, with the browser and the master time base both at 5000 s.
TEST_F(VrmlTest, StartRules) {
    const struct {
        double duration, start, latency;
        bool loop, playing;
        const char* calls;
    } cases[] = {
        {30, 5005, 0.1, false, false, "loop off, media 0.100, start 5005.000"},  // future: at the latency
        {4, 4990, 0.1, true, false, "loop on, media 2.100, start 4990.000"},     // past: wrapped when looping
        {4, 4990, 0.1, false, true,
         "loop off, stop, media 10.100, start 4990.000"},                         // playing: stopped first
        {1.5, 4990, 0.1, false, false, "loop off, media 0.000, start 4990.000"},  // short clips: from zero
        {30, 5000 - 3 * 3600, 0.1, false, true, "loop off, stop"},  // hours past without loop: no start
        {-1, 5000 - 3 * 3600, 0.1, true, false,
         "loop on, media 0.000, start -5800.000"},                                // looping, length unknown
        {30, 5003, -0.2, false, false, "loop off, media 0.000, start 5003.200"},  // negative latency: later
    };
    for (const auto& c : cases) {
        player->duration = LxTime(c.duration);
        player->setPlaying(c.playing);
        manager->setStartUpLatency(LxTime(c.latency));
        ready();
        EXPECT_EQ(manager->clock, player->timeBaseSet);
        startAt(c.start, c.loop);
        EXPECT_EQ(c.calls, took());
        EXPECT_NEAR(c.start - (c.latency < 0 ? c.latency : 0), support->getStartTime().getValue(), 1e-6);
    }
}

// A stop time not after the start time is cleared.
TEST_F(VrmlTest, StopTimeRulesAndRestart) {
    ready();
    support->beginChangingFields(LxTime(5000.0));
    support->setStartTime(LxTime(5001.0));
    support->setStopTime(LxTime(5001.0));
    support->doneChangingFields();
    EXPECT_EQ("stopAt 2147483648.000, media 0.100, stopAt 2147483648.000, start 5001.000", took());
    support->setStopTime(LxTime(5010.0));  // outside a batch: applied at once, and the start re-runs
    EXPECT_EQ("stopAt 5010.000, stop, media 0.100, start 5001.000", took());
}

TEST_F(VrmlTest, LoopAndRateChangesTakeEffectAtOnceAndLoopRestartsOnlyAStoppedPlayer) {
    ready();
    player->setPlaying(true);
    support->setLoop(1);
    EXPECT_EQ("loop on", took());
    support->setRate(2.0f);  // a single setter outside a batch takes effect at once
    support->setRate(1.0f);
    EXPECT_EQ("rate 2.000000, rate 1.000000", took());
    player->setPlaying(false);
    support->setLoop(0);
    ASSERT_EQ(3u, calls.size());
    EXPECT_EQ("loop off", calls[0]);
    EXPECT_EQ("start 0.000", calls[2]);
}

TEST_F(VrmlTest, ChangesBeforeReadyAndWithoutControlAccumulate) {
    Notifier sound;
    sound.calls = &calls;
    support->addSoundNode(&sound);
    support->setRate(2.0f);
    support->setStartTime(LxTime(5002.0));
    EXPECT_TRUE(calls.empty()) << "nothing reaches a player that is not ready";
    ASSERT_EQ(LX_OK, support->finishInitializingPlayer());
    EXPECT_EQ("port, rate 2.000000, media 0.100, start 5002.000", took())
        << "the sound node has its port before the player starts";
    support->setPlayerControl(0);
    support->setLoop(1);
    support->setRate(0.5f);
    support->setStopTime(LxTime(6000.0));
    EXPECT_TRUE(calls.empty());
    support->setPlayerControl(1);
    EXPECT_EQ("loop on, rate 0.500000, stopAt 6000.000, stop, media 0.100, start 5002.000", took())
        << "one recalculation, in the order loop, rate, stop time, start time";
}

TEST_F(VrmlTest, PortsGoToSoundNodesAndComeBackThroughTheFreeList) {
    Notifier a, b, c;
    support->addSoundNode(&a);
    support->addSoundNode(&b);
    EXPECT_TRUE(a.seen.empty()) << "ports are handed out once the player is ready";
    ready();
    ASSERT_TRUE(a.seen.size() == 1 && b.seen.size() == 1);
    EXPECT_NE(a.seen[0], b.seen[0]);
    for (FakeAudioPort* p : player->ports) {
        EXPECT_FLOAT_EQ(0.0f, p->getGain()) << "every new port starts silent";
    }
    // Both go back to the free list, the latest on top, and are handed out again from there.
    Notifier d;
    support->removeSoundNode(&a);
    support->removeSoundNode(&b);
    support->addSoundNode(&c);
    support->addSoundNode(&d);
    ASSERT_TRUE(c.seen.size() == 1 && d.seen.size() == 1);
    EXPECT_EQ(b.seen[0], c.seen[0]) << "the third node reuses the port freed last";
    EXPECT_EQ(a.seen[0], d.seen[0]) << "and the fourth the one freed before";
    EXPECT_EQ(2u, player->ports.size());

    support->destroyPlayer();
    EXPECT_EQ(nullptr, c.seen.back());
    EXPECT_EQ(nullptr, d.seen.back());
    EXPECT_EQ(LX_ERR_UNKNOWN_PLAYER, manager->verifyPlayer(player));
}

TEST_F(VrmlTest, FailuresLeaveThePlayerNotReady) {
    player->timeBaseResult = LX_ERR_CLOCK_RUNNING;
    EXPECT_EQ(LX_ERR_CLOCK_RUNNING, support->finishInitializingPlayer());
    support->setStartTime(LxTime(5001.0));
    EXPECT_TRUE(calls.empty());

    // A destroyed player is detected and nothing is applied.
    player->timeBaseResult = LX_OK;
    ready();
    manager->destroyPlayer(player);
    support->setStartTime(LxTime(5002.0));
    EXPECT_TRUE(calls.empty());
    EXPECT_EQ(nullptr, support->getVideoRenderer());
    support->setPlayer(nullptr);  // logged, keeps the (dead) pointer; the destructor must not crash
    support->destroyPlayer();
}

}  // namespace
