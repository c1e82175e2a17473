// Soak: players of every kind made, connected to the default renderers, started, sought,
// re-rated, suspended, stopped and destroyed from several threads at once, on the mixing engine
// with no output, the simulated MIDI device and the simulated filter graph (so that
// ThreadSanitizer sees every thread). Nothing may hang; afterwards the registry is empty and every
// channel is free again. Leaks are the sanitizers' to find. Each worker's choices come from one
// seed (LORVEX_SEED repeats a run); the pauses between requests only vary the interleaving.
#include "LxAMPlayer.h"
#include "LxAudioPlayer.h"
#include "LxDataSource.h"
#include "LxEvent.h"
#include "LxPlatformGraph.h"
#include "LxPlatformMidi.h"
#include "LxPlatformProbe.h"
#include "LxPlatformSound.h"
#include "LxResult.h"
#include "LxTimeBase.h"
#include "LxVersionDetection.h"
#include "LxWin32Manager.h"
#include "LxWin32MidiPlayer.h"
#include "LxWin32Mixer.h"
#include "platform/com/LxpCom.h"
#include "platform/dshow/LxpSimGraph.h"
#include "platform/midi/LxpMidiSim.h"

#include "MidiFiles.h"
#include "TestNodes.h"
#include "TestSupport.h"
#include "WaveFiles.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kPlayers = 120;
constexpr int kThreads = 4;

/// The manager with its channel records readable.
class SoakManager : public LxWin32Manager {
  public:
    explicit SoakManager(KtThreadManager* threads) : LxWin32Manager(threads) {}
    /// "type: active/waiting/inactive" for both channel types, read under the channel lock.
    std::string channels() {
        channelLock->lock();
        std::string text;
        for (int t = 0; t < 2; ++t) {
            const LxChannelInfo& c = channelInfo[t];
            text += std::to_string(t) + ": " + std::to_string(c.activeCount) + "/" +
                    std::to_string(c.activePorts.size()) + "/" + std::to_string(c.waitingPorts.size()) + "/" +
                    std::to_string(c.inactivePorts.size()) + " ";
        }
        channelLock->unlock();
        return text;
    }
    int players() {
        playerListLock->lock();
        int n = 0;
        for (LxPlayerListEntry* e = playerList; e != nullptr; e = e->next) {
            ++n;
        }
        playerListLock->unlock();
        return n;
    }
};

enum Kind { Wave, Midi, AudioVideo, AudioOnly, VideoOnly, kKinds };

class Soak : public ::testing::Test {
  protected:
    void SetUp() override {
        LxPlatformSound::useNullOutput();  // the mixing engine in real time, heard by no one
        LxPlatformSetMidiBackend(LX_MIDI_SIMULATED);
        lxp::midisim::reset();
        lxp::midisim::setRealTime(true);
        LxPlatformProbe::useSimulated(LxSimulatedPlatform());
        LxResetDXAndWin32VersionCache();
        LxWin32Mixer::resetClassStateForTests();
        LxWin32Manager::resetExclusivityForTests();
        LxPlatformGraph::useSimulated();
        lxp::simgraph::reset();
        lxp::comtest::reset();

        // Short clips, so that many play to their end and many are cut short.
        paths[Wave] = dir.file("tone.wav");
        std::string pcm;
        for (int i = 0; i < 22050 / 2; ++i) {
            pcm += lxtest::le16(static_cast<uint16_t>((i * 300) & 0x7FFF));
        }
        lxtest::writeFile(paths[Wave],
                          lxtest::joinWave({{"fmt ", lxtest::pcmFmtBody(1, 22050, 16)}, {"data", pcm}}));
        paths[Midi] = dir.file("tune.mid");
        std::string notes = miditest::tempoEvent(0, 500000);
        for (int k = 0; k < 8; ++k) {
            notes += miditest::noteOn(0, k % 3, 60 + k) + miditest::noteOff(24, k % 3, 60 + k);
        }
        lxtest::writeFile(paths[Midi], miditest::smf(0, 96, {miditest::track(notes)}));
        const lxp::simgraph::Outcome outcomes[] = {lxp::simgraph::Outcome::AudioVideo,
                                                   lxp::simgraph::Outcome::AudioOnly,
                                                   lxp::simgraph::Outcome::VideoOnly};
        for (int k = AudioVideo; k <= VideoOnly; ++k) {
            paths[k] = dir.file("clip" + std::to_string(k) + ".mpg");
            lxtest::writeFile(paths[k], "not decoded");
            lxp::simgraph::Script script;
            script.outcome = outcomes[k - AudioVideo];
            script.durationSeconds = 0.8;
            script.frameCount = 20;
            lxp::simgraph::setScriptForFile(paths[k], script);
        }

        manager = new SoakManager(&threads);
        manager->setWindow(&window);
        ASSERT_EQ(LX_OK, manager->initSubSystem(INIT_TIMERS | INIT_AUDIO | INIT_VIDEO));
        ASSERT_TRUE(manager->isDirectShowAvailable());
        manager->setMaxAudioChannels(6);  // fewer channels than sounds: the arbitration works
    }

    void TearDown() override {
        lxp::simgraph::reset();
        lxp::comtest::reset();
        lxp::midisim::setRealTime(false);
        LxPlatformGraph::useGStreamer();
        LxPlatformProbe::useSystem();
        LxPlatformSetMidiBackend(LX_MIDI_FLUIDSYNTH);
        LxResetDXAndWin32VersionCache();
    }

    /// One player's life, chosen by the random source: some are destroyed before they have
    /// initialised, the others are connected, started (some ahead, some joined late), sought,
    /// re-rated or looped, and stopped or left to play, then destroyed.
    void life(std::mt19937& random, Kind kind, std::atomic<int>* failures) {
        auto chance = [&](int percent) { return static_cast<int>(random() % 100) < percent; };
        auto pause = [&](int maxMs) {
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % (maxMs + 1)));
        };
        LxFilenameDataSource source(paths[kind].c_str());
        LxPlayer* p = nullptr;
        if (kind == Wave) {
            p = new LxAudioPlayer(manager, &source);
            manager->addPlayer(p);
        } else if (manager->createPlayer(&source, &p) != LX_OK || p == nullptr) {
            std::printf("kind %d: the factory made no player\n", kind);
            ++*failures;
            return;
        }
        lxtest::RecordingListener events;
        p->setEventListener(&events);
        if (chance(10)) {
            pause(20);
            manager->destroyPlayer(p);
            return;
        }
        // The player may have initialised before its listener was set: its state tells.
        if (!lxtest::waitUntil([&] { return p->getState() == LxNode::STOPPED; }, 20000)) {
            std::printf("kind %d: not initialised (state %d)\n", kind, static_cast<int>(p->getState()));
            ++*failures;
            manager->destroyPlayer(p);
            return;
        }
        manager->connectAllUnconnected(p);
        p->setTimeBase(manager->getMasterTimeBase());
        if (chance(30)) {
            p->setLoop(1);
        }
        if (chance(30)) {
            p->prefetch();
            pause(50);
        }
        const double now = manager->getMasterTimeBase()->getRefTime().getValue();
        p->startAtTime(LxTime(now + (static_cast<int>(random() % 200) - 100) / 1000.0));
        for (int step = static_cast<int>(random() % 4); step > 0; --step) {
            pause(100);
            switch (random() % 4) {
                case 0:
                    p->setMediaTime(LxTime((random() % 700) / 1000.0));
                    break;
                case 1: {
                    float rate = 0.5f + static_cast<float>(random() % 3) * 0.5f;
                    p->setRate(&rate);
                    break;
                }
                case 2:
                    p->stop();
                    p->startAtTime(manager->getMasterTimeBase()->getRefTime());
                    break;
                default:
                    p->suspend();
                    pause(30);
                    p->resume();
                    break;
            }
        }
        pause(250);
        if (chance(50)) {
            p->stop();
        }
        if (manager->destroyPlayer(p) != LX_OK) {
            std::printf("kind %d: not destroyed\n", kind);
            ++*failures;
        }
    }

    KtDefaultThreadManager threads;
    LxWin32Window window{reinterpret_cast<LxHwnd>(0x1234)};
    SoakManager* manager = nullptr;
    lxtest::TempDir dir;
    std::string paths[kKinds];
};

TEST_F(Soak, PlayersOfEveryKindFromFourThreadsLeaveNothingBehind) {
    const unsigned seed = lxtest::testSeed();
    SCOPED_TRACE("LORVEX_SEED=" + std::to_string(seed));
    std::atomic<int> made{0};
    std::atomic<int> failures{0};
    std::atomic<int> kinds[kKinds] = {};
    std::vector<std::thread> workers;
    const auto start = std::chrono::steady_clock::now();
    for (int w = 0; w < kThreads; ++w) {
        workers.emplace_back([&, w] {
            std::mt19937 random(seed + static_cast<unsigned>(w));
            while (made.fetch_add(1) < kPlayers) {
                const Kind kind = static_cast<Kind>(random() % kKinds);
                ++kinds[kind];
                life(random, kind, &failures);
            }
        });
    }
    for (std::thread& t : workers) {
        t.join();
    }
    std::printf(
        "[ measured ] %d players (%d WAVE, %d MIDI, %d audio and video, %d audio, %d video) in %.1f s\n",
        kPlayers, kinds[Wave].load(), kinds[Midi].load(), kinds[AudioVideo].load(), kinds[AudioOnly].load(),
        kinds[VideoOnly].load(), lxtest::msSince(start) / 1000.0);
    EXPECT_EQ(0, failures.load());
    for (int k = 0; k < kKinds; ++k) {
        EXPECT_GT(kinds[k].load(), 5) << "kind " << k;
    }
    EXPECT_EQ(0, manager->players()) << "every player left the registry";
    EXPECT_EQ("0: 0/0/0/0 1: 0/0/0/0 ", manager->channels()) << "active/held/waiting/idle ports per type";
    manager->closeManager();
}

}  // namespace
