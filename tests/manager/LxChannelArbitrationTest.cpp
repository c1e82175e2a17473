#include "LxManager.h"

#include "LxResult.h"

#include "FakeAudioPort.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

namespace {

using lxtest::FakeAudioPort;

// A manager whose channel types start and stop in memory (no devices), configured directly.
class ArbiterManager : public LxManager {
  public:
    explicit ArbiterManager(KtThreadManager* tm) : LxManager(tm) { initialisedSubSystems |= INIT_AUDIO; }

    void configure(short rawChannels, short midiChannels, bool halfDuplex) {
        channelInfo[LxRawChannel].maxChannels = rawChannels;
        channelInfo[LxMidiChannel].maxChannels = midiChannels;
        maxAudioChannels = rawChannels;
        channelInfo[LxRawChannel].excludes[LxMidiChannel] = halfDuplex;
        channelInfo[LxMidiChannel].excludes[LxRawChannel] = halfDuplex;
    }

    const LxChannelInfo& info(int type) const { return channelInfo[type]; }
    void lockChannels() { channelLock->lock(); }
    void unlockChannels() { channelLock->unlock(); }

    bool failStartup[2] = {false, false};
    int startups[2] = {0, 0};

    long createPlayer(LxDataSource*, LxPlayer**) override { return LX_ERR_GENERIC; }
    long getDiagnostics(LxDiagnostics&) override { return LX_ERR_NO_MIXER; }
    long addDefaultAudioRenderer(LxPlayer*) override { return LX_ERR_GENERIC; }
    long addDefaultVideoRenderer(LxPlayer*) override { return LX_ERR_GENERIC; }

  protected:
    long initTimers() override { return LX_OK; }
    long initAudio() override { return LX_OK; }
    long initVideo() override { return LX_OK; }
    long startupChannelType(LxAudioChannelType_s t) override {
        ++startups[t];
        if (failStartup[t]) {
            return LX_ERR_DSOUND_CREATE;
        }
        channelInfo[t].started = 1;
        return LX_OK;
    }
    long shutdownChannelType(LxAudioChannelType_s t) override {
        channelInfo[t].started = 0;
        return LX_OK;
    }
};

std::vector<LxAudioOutputPort*> ports(const std::list<LxPortChannelEntry>& list) {
    std::vector<LxAudioOutputPort*> out;
    for (const auto& e : list) {
        out.push_back(e.port);
    }
    return out;
}

class ArbitrationTest : public ::testing::Test {
  protected:
    KtDefaultThreadManager threads;
    ArbiterManager* manager = new ArbiterManager(&threads);
    void TearDown() override { manager->closeManager(); }
    void release(std::initializer_list<FakeAudioPort*> list) {
        for (FakeAudioPort* p : list) {
            manager->releasePortChannel(p);
        }
    }
    const LxTime zero = LxTime::zero();
};

TEST_F(ArbitrationTest, StrongerNewcomerTakesTheWeakestChannel) {
    manager->configure(2, 1, false);
    FakeAudioPort p1(LxRawChannel, 0.8f), p2(LxRawChannel, 0.6f), p3(LxRawChannel, 0.4f),
        p4(LxRawChannel, 0.9f);
    for (FakeAudioPort* p : {&p1, &p2, &p3}) {
        ASSERT_EQ(LX_OK, manager->requestPortChannel(p, zero));
    }
    EXPECT_TRUE(p1.hasChannel());
    EXPECT_TRUE(p2.hasChannel());
    EXPECT_FALSE(p3.hasChannel());
    EXPECT_EQ(1, manager->startups[LxRawChannel]) << "the type starts with its first port";

    ASSERT_EQ(LX_OK, manager->requestPortChannel(&p4, zero));
    const LxChannelInfo& raw = manager->info(LxRawChannel);
    EXPECT_EQ((std::vector<LxAudioOutputPort*>{&p4, &p1}), ports(raw.activePorts));
    EXPECT_EQ((std::vector<LxAudioOutputPort*>{&p2, &p3}), ports(raw.inactivePorts))
        << "the demoted port goes to the front of the inactive list";
    EXPECT_TRUE(raw.waitingPorts.empty());
    EXPECT_EQ(2, raw.activeCount);
    EXPECT_EQ(1, p2.revokes.load());
}

TEST_F(ArbitrationTest, PrecedenceOrder) {
    manager->configure(1, 1, false);
    // Equal priority above 0.5: the later request wins.
    FakeAudioPort a(LxRawChannel, 0.7f), b(LxRawChannel, 0.7f);
    manager->requestPortChannel(&a, LxTime(10, 0));
    manager->requestPortChannel(&b, LxTime(11, 0));
    EXPECT_TRUE(b.hasChannel());
    EXPECT_FALSE(a.hasChannel());
    release({&a, &b});

    // Priority 0.5: times are ignored and the higher gain wins; all equal: the incumbent stays.
    FakeAudioPort c(LxRawChannel, 0.5f, 0.3f), d(LxRawChannel, 0.5f, 0.6f), e(LxRawChannel, 0.5f, 0.6f);
    manager->requestPortChannel(&c, LxTime(30, 0));
    manager->requestPortChannel(&d, LxTime(1, 0));
    EXPECT_TRUE(d.hasChannel());
    manager->requestPortChannel(&e, LxTime(50, 0));
    EXPECT_TRUE(d.hasChannel()) << "an equal newcomer does not displace the incumbent";
    EXPECT_FALSE(e.hasChannel());

    // A port that wants to play beats one that does not, whatever the priorities.
    FakeAudioPort low(LxRawChannel, 0.01f, 0.01f);
    manager->requestPortChannel(&low, zero);
    ASSERT_EQ(LX_OK, manager->updatePortChannel(&low, LxTime(60, 0), 1));
    EXPECT_TRUE(low.hasChannel());
    EXPECT_FALSE(d.hasChannel());
    release({&c, &d, &e, &low});
}

TEST_F(ArbitrationTest, StoppingKeepsTheChannelUnlessSomeoneWaits) {
    manager->configure(1, 1, false);
    FakeAudioPort a(LxRawChannel, 0.9f), b(LxRawChannel, 0.1f);
    manager->requestPortChannel(&a, zero);
    manager->updatePortChannel(&a, LxTime(1, 0), 1);
    manager->updatePortChannel(&a, zero, 0);
    EXPECT_TRUE(a.hasChannel()) << "nobody waits, so the port keeps its channel";

    manager->requestPortChannel(&b, zero);
    manager->updatePortChannel(&b, LxTime(2, 0), 1);  // wants to play: beats the idle holder
    EXPECT_TRUE(b.hasChannel());
    EXPECT_FALSE(a.hasChannel());
    manager->updatePortChannel(&a, LxTime(3, 0), 1);  // both play now: the higher priority wins
    EXPECT_TRUE(a.hasChannel());
    EXPECT_EQ((std::vector<LxAudioOutputPort*>{&b}), ports(manager->info(LxRawChannel).waitingPorts));
    manager->updatePortChannel(&a, zero, 0);  // a stops while b waits: a gives its channel up
    EXPECT_TRUE(b.hasChannel());
    EXPECT_FALSE(a.hasChannel());
    EXPECT_EQ((std::vector<LxAudioOutputPort*>{&a}), ports(manager->info(LxRawChannel).inactivePorts));
    release({&a, &b});
}

TEST_F(ArbitrationTest, ChannelLimitShrinksAndGrows) {
    manager->configure(3, 1, false);
    FakeAudioPort a(LxRawChannel, 0.9f), b(LxRawChannel, 0.8f), c(LxRawChannel, 0.7f);
    for (FakeAudioPort* p : {&a, &b, &c}) {
        manager->requestPortChannel(p, zero);
        manager->updatePortChannel(p, LxTime(1, 0), 1);
    }
    ASSERT_EQ(LX_OK, manager->setMaxAudioChannels(1));
    EXPECT_TRUE(a.hasChannel());
    EXPECT_EQ((std::vector<LxAudioOutputPort*>{&b, &c}), ports(manager->info(LxRawChannel).waitingPorts))
        << "the weakest goes first, each to the front";

    ASSERT_EQ(LX_OK, manager->setMaxAudioChannels(-1));
    EXPECT_EQ(64, manager->info(LxRawChannel).maxChannels);
    EXPECT_TRUE(b.hasChannel());
    EXPECT_TRUE(c.hasChannel());
    EXPECT_EQ(3, manager->info(LxRawChannel).activeCount);
    release({&a, &b, &c});
}

TEST_F(ArbitrationTest, HalfDuplexStrongerSampledPortPreemptsIdleMidi) {
    manager->configure(4, 1, true);
    FakeAudioPort midi(LxMidiChannel, 0.3f), raw(LxRawChannel, 0.8f);
    manager->requestPortChannel(&midi, zero);
    ASSERT_TRUE(midi.hasChannel());
    ASSERT_TRUE(manager->info(LxMidiChannel).started);

    manager->requestPortChannel(&raw, zero);
    EXPECT_FALSE(midi.hasChannel());
    EXPECT_EQ((std::vector<LxAudioOutputPort*>{&midi}), ports(manager->info(LxMidiChannel).inactivePorts));
    EXPECT_FALSE(manager->info(LxMidiChannel).started);
    EXPECT_TRUE(manager->info(LxRawChannel).started);
    EXPECT_TRUE(raw.hasChannel());
    release({&raw, &midi});
}

TEST_F(ArbitrationTest, HalfDuplexHandsTheCardBackAndForth) {
    manager->configure(4, 1, true);
    FakeAudioPort m(LxMidiChannel, 0.3f), r(LxRawChannel, 0.9f);
    manager->requestPortChannel(&m, zero);
    manager->updatePortChannel(&m, LxTime(1, 0), 1);  // the music plays
    manager->requestPortChannel(&r, zero);
    EXPECT_FALSE(r.hasChannel()) << "a port that plays beats one that does not";
    EXPECT_EQ(1u, manager->info(LxRawChannel).inactivePorts.size());

    manager->updatePortChannel(&r, LxTime(2, 0), 1);  // waits: its type cannot start meanwhile
    EXPECT_EQ(1u, manager->info(LxRawChannel).waitingPorts.size());
    EXPECT_TRUE(m.hasChannel());

    manager->updatePortChannel(&m, zero, 0);  // the music stops: sampled audio takes the card
    EXPECT_FALSE(m.hasChannel());
    EXPECT_FALSE(manager->info(LxMidiChannel).started);
    EXPECT_TRUE(manager->info(LxRawChannel).started);
    EXPECT_TRUE(r.hasChannel());

    // And back: MIDI wants to play again while the sampled port stops.
    manager->updatePortChannel(&m, LxTime(3, 0), 1);
    EXPECT_EQ(1u, manager->info(LxMidiChannel).waitingPorts.size());
    manager->updatePortChannel(&r, zero, 0);
    EXPECT_TRUE(m.hasChannel());
    EXPECT_TRUE(manager->info(LxMidiChannel).started);
    EXPECT_FALSE(manager->info(LxRawChannel).started);
    release({&r, &m});
}

TEST_F(ArbitrationTest, UnavailableTypesUnknownPortsAndRefusals) {
    manager->configure(1, 0, false);
    FakeAudioPort midi(LxMidiChannel);
    EXPECT_EQ(LX_ERR_CHANNEL_TYPE_UNAVAILABLE, manager->requestPortChannel(&midi, zero));
    EXPECT_EQ(LX_ERR_CHANNEL_TYPE_UNAVAILABLE, manager->updatePortChannel(&midi, zero, 1));
    FakeAudioPort stranger(LxRawChannel);
    manager->releasePortChannel(&stranger);
    manager->updatePortChannel(&stranger, zero, 1);
    EXPECT_EQ(0, stranger.grants.load()) << "an unregistered port is left alone";

    // A type that cannot start keeps its ports out of the active list.
    manager->failStartup[LxRawChannel] = true;
    FakeAudioPort p(LxRawChannel);
    EXPECT_EQ(LX_OK, manager->requestPortChannel(&p, zero));
    EXPECT_FALSE(p.hasChannel());
    EXPECT_EQ(1u, manager->info(LxRawChannel).inactivePorts.size());
    release({&p, &midi});
    manager->failStartup[LxRawChannel] = false;

    // A port that refuses its grant or its revocation is moved all the same.
    FakeAudioPort a(LxRawChannel, 0.2f), b(LxRawChannel, 0.9f);
    a.refuse = true;
    manager->requestPortChannel(&a, zero);
    EXPECT_EQ(1, manager->info(LxRawChannel).activeCount);
    manager->requestPortChannel(&b, zero);
    EXPECT_TRUE(b.hasChannel());
    EXPECT_EQ((std::vector<LxAudioOutputPort*>{&b}), ports(manager->info(LxRawChannel).activePorts));
    a.refuse = false;
    release({&a, &b});
}

// Thousands of random registrations, updates and releases from several threads on a half-duplex
// card. After every step, with the channel lock held, the bookkeeping must be consistent. (The
// precedence itself is not an invariant of the lists: a promoted port joins the back of the active
// list unsorted, a type switch promotes one port, and equal priorities above 0.5 compare by time
// one way and by gain the other, so a waiting port can outrank some holder.)
TEST_F(ArbitrationTest, RandomisedOperationsKeepTheBookkeepingConsistent) {
    manager->configure(3, 1, true);
    constexpr int kThreads = 4;
    constexpr int kPortsPerThread = 6;
    constexpr int kSteps = 1500;
    std::vector<std::unique_ptr<FakeAudioPort>> all;
    std::mt19937 seedRng(7);
    for (int i = 0; i < kThreads * kPortsPerThread; ++i) {
        const auto type = (i % 5 == 0) ? LxMidiChannel : LxRawChannel;
        all.emplace_back(new FakeAudioPort(type, (seedRng() % 10) / 10.0f, (seedRng() % 10) / 10.0f));
    }
    std::vector<char> registered(all.size(), 0);  // each port is driven by one thread only
    std::mutex failMutex;
    std::vector<std::string> failures;

    auto check = [&](const char* step) {
        manager->lockChannels();
        std::string problem;
        for (int t = 0; t < 2 && problem.empty(); ++t) {
            const LxChannelInfo& info = manager->info(t);
            if (info.activeCount != static_cast<short>(info.activePorts.size())) {
                problem = "activeCount differs from the active list";
            } else if (info.activeCount > info.maxChannels) {
                problem = "more active ports than channels";
            }
            const bool otherStarted = manager->info(1 - t).started;
            if (info.excludes[1 - t] && info.started && otherStarted) {
                problem = "both types started on a half-duplex card";
            }
        }
        for (size_t i = 0; i < all.size() && problem.empty(); ++i) {
            FakeAudioPort* p = all[i].get();
            const LxChannelInfo& info = manager->info(p->getChannelType());
            int lists = 0;
            bool active = false;
            for (const auto* list : {&info.activePorts, &info.waitingPorts, &info.inactivePorts}) {
                const int n = static_cast<int>(std::count_if(
                    list->begin(), list->end(), [&](const LxPortChannelEntry& e) { return e.port == p; }));
                lists += n;
                if (list == &info.activePorts && n > 0) {
                    active = true;
                }
            }
            if (lists != (registered[i] ? 1 : 0)) {
                problem = "a port is in " + std::to_string(lists) + " lists";
            } else if ((p->hasChannel() != 0) != active) {
                problem = "a port's channel does not match the active list";
            } else if (p->grants.load() - p->revokes.load() != (p->hasChannel() ? 1 : 0)) {
                problem = "grants and revocations do not balance";
            }
        }
        // Every waiting port wants to play.
        for (int t = 0; t < 2 && problem.empty(); ++t) {
            for (const auto& w : manager->info(t).waitingPorts) {
                if (!w.wantsChannel) {
                    problem = "a port waits that does not want to play";
                }
            }
        }
        manager->unlockChannels();
        if (!problem.empty()) {
            std::lock_guard<std::mutex> guard(failMutex);
            failures.push_back(std::string(step) + ": " + problem);
        }
    };

    std::vector<std::thread> workers;
    for (int w = 0; w < kThreads; ++w) {
        workers.emplace_back([&, w] {
            std::mt19937 rng(100 + w);
            for (int s = 0; s < kSteps; ++s) {
                const size_t i =
                    static_cast<size_t>(w * kPortsPerThread + static_cast<int>(rng() % kPortsPerThread));
                FakeAudioPort* p = all[i].get();
                const LxTime now(s, w);
                const char* step = "";
                const unsigned op = rng() % 4;
                if (op == 0 && !registered[i]) {
                    // The flag changes with the registration, as one step for the checkers.
                    manager->lockChannels();
                    manager->requestPortChannel(p, LxTime::zero());
                    registered[i] = 1;
                    manager->unlockChannels();
                    step = "request";
                } else if (op == 3 && registered[i]) {
                    manager->lockChannels();
                    manager->releasePortChannel(p);
                    registered[i] = 0;
                    manager->unlockChannels();
                    step = "release";
                } else if ((op == 1 || op == 2) && registered[i]) {
                    manager->updatePortChannel(p, op == 1 ? now : LxTime::zero(), op == 1 ? 1 : 0);
                    step = op == 1 ? "start" : "stop";
                }
                check(step);
            }
        });
    }
    for (auto& w : workers) {
        w.join();
    }
    for (size_t i = 0; i < all.size(); ++i) {
        if (registered[i]) {
            manager->releasePortChannel(all[i].get());
        }
    }
    for (auto& p : all) {
        EXPECT_EQ(p->grants.load(), p->revokes.load());
    }
    EXPECT_EQ(0, manager->info(LxRawChannel).activeCount);
    EXPECT_EQ(0, manager->info(LxMidiChannel).activeCount);
    ASSERT_TRUE(failures.empty()) << failures.size() << " inconsistencies, first: " << failures.front();
}

}  // namespace
