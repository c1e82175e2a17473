#include "LxManager.h"

#include "LxResult.h"

#include "FakeAudioPort.h"
#include "TestManager.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using lxtest::FakeAudioPort;

// A manager whose channel types start (or fail to) and stop in memory, configured directly; with no
// master time base.
class ArbiterManager : public lxtest::SceneManager {
  public:
    explicit ArbiterManager(KtThreadManager* tm) : SceneManager(tm, false) {
        initialisedSubSystems |= INIT_AUDIO;
    }

    void configure(short rawChannels, short midiChannels, bool halfDuplex) {
        channelInfo[LxRawChannel].maxChannels = rawChannels;
        channelInfo[LxMidiChannel].maxChannels = midiChannels;
        maxAudioChannels = rawChannels;
        channelInfo[LxRawChannel].excludes[LxMidiChannel] = halfDuplex;
        channelInfo[LxMidiChannel].excludes[LxRawChannel] = halfDuplex;
    }

    const LxChannelInfo& info(int type) const { return channelInfo[type]; }
    KtMutex* channelMutex() { return channelLock; }

    bool failStartup[2] = {false, false};
    int startups[2] = {0, 0};

  protected:
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

using Ports = std::vector<LxAudioOutputPort*>;

Ports ports(const std::list<LxPortChannelEntry>& list) {
    Ports out;
    for (const auto& e : list) {
        out.push_back(e.port);
    }
    return out;
}

// Which of the ports hold a channel, '1' or '0' each, in the order given.
std::string held(std::initializer_list<FakeAudioPort*> list) {
    std::string text;
    for (FakeAudioPort* p : list) {
        text += p->hasChannel() ? '1' : '0';
    }
    return text;
}

class ArbitrationTest : public ::testing::Test {
  protected:
    /// Whether the MIDI and the sampled-audio types are started, '1' or '0' each.
    std::string started() {
        return std::string(1, manager->info(LxMidiChannel).started ? '1' : '0') +
               (manager->info(LxRawChannel).started ? '1' : '0');
    }
    KtDefaultThreadManager threads;
    ArbiterManager* manager = new ArbiterManager(&threads);
    void TearDown() override { manager->closeManager(); }
    void release(std::initializer_list<FakeAudioPort*> list) {
        for (FakeAudioPort* p : list) {
            manager->releasePortChannel(p);
        }
    }
    /// Registers the ports, each wanting to play from 1 s.
    void play(std::initializer_list<FakeAudioPort*> list) {
        for (FakeAudioPort* p : list) {
            manager->requestPortChannel(p, zero);
            manager->updatePortChannel(p, LxTime(1, 0), 1);
        }
    }
    Ports waiting(int type = LxRawChannel) { return ports(manager->info(type).waitingPorts); }
    Ports inactive(int type = LxRawChannel) { return ports(manager->info(type).inactivePorts); }
    const LxTime zero = LxTime::zero();
};

TEST_F(ArbitrationTest, StrongerNewcomerTakesTheWeakestChannel) {
    manager->configure(2, 1, false);
    FakeAudioPort p1(LxRawChannel, 0.8f), p2(LxRawChannel, 0.6f), p3(LxRawChannel, 0.4f),
        p4(LxRawChannel, 0.9f);
    for (FakeAudioPort* p : {&p1, &p2, &p3}) {
        ASSERT_EQ(LX_OK, manager->requestPortChannel(p, zero));
    }
    EXPECT_EQ("110", held({&p1, &p2, &p3}));
    EXPECT_EQ(1, manager->startups[LxRawChannel]) << "the type starts with its first port";
    ASSERT_EQ(LX_OK, manager->requestPortChannel(&p4, zero));
    const LxChannelInfo& raw = manager->info(LxRawChannel);
    EXPECT_EQ((Ports{&p4, &p1}), ports(raw.activePorts));
    EXPECT_EQ((Ports{&p2, &p3}), ports(raw.inactivePorts))
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
    EXPECT_EQ("01", held({&a, &b}));
    release({&a, &b});
    // Priority 0.5: times are ignored and the higher gain wins; all equal: the incumbent stays.
    FakeAudioPort c(LxRawChannel, 0.5f, 0.3f), d(LxRawChannel, 0.5f, 0.6f), e(LxRawChannel, 0.5f, 0.6f);
    manager->requestPortChannel(&c, LxTime(30, 0));
    manager->requestPortChannel(&d, LxTime(1, 0));
    manager->requestPortChannel(&e, LxTime(50, 0));
    EXPECT_EQ("010", held({&c, &d, &e}));
    // A port that wants to play beats one that does not, whatever the priorities.
    FakeAudioPort low(LxRawChannel, 0.01f, 0.01f);
    manager->requestPortChannel(&low, zero);
    ASSERT_EQ(LX_OK, manager->updatePortChannel(&low, LxTime(60, 0), 1));
    EXPECT_EQ("01", held({&d, &low}));
    release({&c, &d, &e, &low});
}

// The precedence is a strict order: over seeded random pairs (small value sets, so that ties in
// priority, time and gain are common), no port beats its own copy and no two beat each other.
// With one channel, a newcomer takes it exactly when it beats the holder.
TEST_F(ArbitrationTest, PrecedenceIsAntisymmetricAndIrreflexive) {
    manager->configure(1, 1, false);
    const unsigned seed = lxtest::testSeed();  // LORVEX_SEED repeats a run
    std::mt19937 rng(seed);
    const float levels[] = {0.3f, 0.5f, 0.7f, 0.9f};
    auto newcomerWins = [&](FakeAudioPort& holder, int holderTime, FakeAudioPort& newcomer, int newTime) {
        manager->requestPortChannel(&holder, LxTime(holderTime, 0));
        manager->requestPortChannel(&newcomer, LxTime(newTime, 0));
        const bool won = newcomer.hasChannel();
        release({&holder, &newcomer});
        return won;
    };
    for (int i = 0; i < 300; ++i) {
        FakeAudioPort a(LxRawChannel, levels[rng() % 4], levels[rng() % 2]);
        FakeAudioPort b(LxRawChannel, rng() % 2 ? a.getPriority() : levels[rng() % 4], levels[rng() % 2]);
        FakeAudioPort copy(LxRawChannel, a.getPriority(), a.getGain());
        const int ta = static_cast<int>(rng() % 3), tb = static_cast<int>(rng() % 3);
        const bool bBeatsA = newcomerWins(a, ta, b, tb);
        const bool aBeatsB = newcomerWins(b, tb, a, ta);
        ASSERT_FALSE(aBeatsB && bBeatsA)
            << "seed " << seed << ": priorities " << a.getPriority() << "/" << b.getPriority() << ", times "
            << ta << "/" << tb << ", gains " << a.getGain() << "/" << b.getGain();
        ASSERT_FALSE(newcomerWins(a, ta, copy, ta)) << "seed " << seed << ": a port beat its copy";
    }
}

TEST_F(ArbitrationTest, StoppingKeepsTheChannelUnlessSomeoneWaits) {
    manager->configure(1, 1, false);
    FakeAudioPort a(LxRawChannel, 0.9f), b(LxRawChannel, 0.1f);
    manager->requestPortChannel(&a, zero);
    manager->updatePortChannel(&a, LxTime(1, 0), 1);
    manager->updatePortChannel(&a, zero, 0);
    EXPECT_EQ("1", held({&a})) << "nobody waits, so the port keeps its channel";
    manager->requestPortChannel(&b, zero);
    manager->updatePortChannel(&b, LxTime(2, 0), 1);  // wants to play: beats the idle holder
    EXPECT_EQ("01", held({&a, &b}));
    manager->updatePortChannel(&a, LxTime(3, 0), 1);  // both play now: the higher priority wins
    EXPECT_EQ("10", held({&a, &b}));
    EXPECT_EQ((Ports{&b}), waiting());
    manager->updatePortChannel(&a, zero, 0);  // a stops while b waits: a gives its channel up
    EXPECT_EQ("01", held({&a, &b}));
    EXPECT_EQ((Ports{&a}), inactive());
    manager->updatePortChannel(&a, LxTime(4, 0), 1);  // a plays again and takes the channel back
    EXPECT_EQ("10", held({&a, &b}));
    b.setPriority(0.95f);  // the waiting port now beats the holder: it takes the channel
    manager->updatePortChannel(&b, LxTime(5, 0), 1);
    EXPECT_EQ("01", held({&a, &b}));
    EXPECT_EQ((Ports{&a}), waiting());
    release({&a, &b});
}

TEST_F(ArbitrationTest, ChannelLimitShrinksAndGrows) {
    manager->configure(3, 1, false);
    FakeAudioPort a(LxRawChannel, 0.9f), b(LxRawChannel, 0.8f), c(LxRawChannel, 0.7f);
    play({&a, &b, &c});
    ASSERT_EQ(LX_OK, manager->setMaxAudioChannels(1));
    EXPECT_EQ("100", held({&a, &b, &c}));
    EXPECT_EQ((Ports{&b, &c}), waiting()) << "the weakest goes first, each to the front";
    ASSERT_EQ(LX_OK, manager->setMaxAudioChannels(-1));
    EXPECT_EQ(64, manager->info(LxRawChannel).maxChannels);
    EXPECT_EQ("111", held({&a, &b, &c}));
    EXPECT_EQ(3, manager->info(LxRawChannel).activeCount);
    release({&a, &b, &c});
}

// On a half-duplex card an idle port gives the card up to a stronger one of the other type, a
// playing one only once it stops; each type waits while the other holds the card.
TEST_F(ArbitrationTest, HalfDuplexHandsTheCardBackAndForth) {
    manager->configure(4, 1, true);
    FakeAudioPort m(LxMidiChannel, 0.3f), r(LxRawChannel, 0.9f), idle(LxMidiChannel, 0.3f);
    manager->requestPortChannel(&idle, zero);
    manager->requestPortChannel(&r, zero);
    EXPECT_EQ("01", held({&idle, &r})) << "a stronger sampled port pre-empts idle music";
    release({&idle, &r});
    play({&m});
    manager->requestPortChannel(&r, zero);
    EXPECT_EQ("10", held({&m, &r})) << "a port that plays beats one that does not";
    manager->updatePortChannel(&r, LxTime(2, 0), 1);  // waits: its type cannot start meanwhile
    EXPECT_EQ(1u, manager->info(LxRawChannel).waitingPorts.size());
    EXPECT_EQ("10", held({&m, &r}));
    manager->updatePortChannel(&m, zero, 0);  // the music stops: sampled audio takes the card
    EXPECT_EQ("01", held({&m, &r}));
    EXPECT_EQ("01", started());
    // And back: MIDI wants to play again while the sampled port stops.
    manager->updatePortChannel(&m, LxTime(3, 0), 1);
    EXPECT_EQ(1u, manager->info(LxMidiChannel).waitingPorts.size());
    manager->updatePortChannel(&r, zero, 0);
    EXPECT_EQ("10", held({&m, &r}));
    EXPECT_EQ("10", started());
    release({&r, &m});
}

// A port going while others of its type still play: a stronger port of the other type that waits
// takes the card from them.
TEST_F(ArbitrationTest, HalfDuplexWaitingMusicTakesTheCardFromTheSampledPortsLeft) {
    manager->configure(4, 1, true);
    FakeAudioPort r1(LxRawChannel, 0.9f), r2(LxRawChannel, 0.2f), m(LxMidiChannel, 0.95f);
    play({&r1, &r2, &m});
    EXPECT_EQ("110", held({&r1, &r2, &m})) << "the music waits for a change on the card";
    release({&r1});
    EXPECT_EQ("01", held({&r2, &m}));
    EXPECT_EQ("10", started());
    EXPECT_EQ((Ports{&r2}), waiting());
    release({&r2, &m});
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
    EXPECT_EQ((Ports{&b}), ports(manager->info(LxRawChannel).activePorts));
    a.refuse = false;
    release({&a, &b});
}

// Random registrations, updates and releases from several threads on a half-duplex card; after
// every step, under the channel lock, the lists, counts and channels must agree.
TEST_F(ArbitrationTest, ConcurrentOperationsKeepTheBookkeepingConsistent) {
    manager->configure(3, 1, true);
    constexpr int kThreads = 4, kPortsPerThread = 6, kSteps = 1000;
    std::vector<std::unique_ptr<FakeAudioPort>> all;
    for (int i = 0; i < kThreads * kPortsPerThread; ++i) {
        all.emplace_back(new FakeAudioPort(i % 5 == 0 ? LxMidiChannel : LxRawChannel, (i % 7) / 7.0f));
    }
    std::vector<char> registered(all.size(), 0);  // each port is driven by one thread only
    std::atomic<int> failures{0};
    auto consistent = [&] {
        for (int t = 0; t < 2; ++t) {
            const LxChannelInfo& info = manager->info(t);
            if (info.activeCount != static_cast<short>(info.activePorts.size()) ||
                info.activeCount > info.maxChannels || (info.started && manager->info(1 - t).started)) {
                return false;
            }
        }
        for (size_t i = 0; i < all.size(); ++i) {
            const LxChannelInfo& info = manager->info(all[i]->getChannelType());
            auto in = [&](const std::list<LxPortChannelEntry>& l) {
                return std::count_if(l.begin(), l.end(),
                                     [&](const LxPortChannelEntry& e) { return e.port == all[i].get(); });
            };
            const long active = in(info.activePorts);
            if (active + in(info.waitingPorts) + in(info.inactivePorts) != registered[i] ||
                (all[i]->hasChannel() != 0) != (active == 1)) {
                return false;
            }
        }
        return true;
    };
    std::vector<std::thread> workers;
    for (int w = 0; w < kThreads; ++w) {
        workers.emplace_back([&, w] {
            std::mt19937 rng(100 + w);
            for (int s = 0; s < kSteps; ++s) {
                const size_t i = static_cast<size_t>(w * kPortsPerThread) + rng() % kPortsPerThread;
                const unsigned op = rng() % 4;
                // Re-entrant: registration and its flag change as one step.
                KtScopedLock<KtMutex> guard(manager->channelMutex());
                if (op == 0 && !registered[i]) {
                    manager->requestPortChannel(all[i].get(), LxTime::zero());
                    registered[i] = 1;
                } else if (op == 3 && registered[i]) {
                    manager->releasePortChannel(all[i].get());
                    registered[i] = 0;
                } else if (registered[i]) {
                    manager->updatePortChannel(all[i].get(), op == 1 ? LxTime(s, w) : LxTime::zero(),
                                               op == 1);
                }
                failures += consistent() ? 0 : 1;
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
        EXPECT_EQ(all[i]->grants.load(), all[i]->revokes.load());
    }
    EXPECT_EQ(0, failures.load());
}

}  // namespace
