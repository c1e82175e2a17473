// A real manager over the simulated devices and filter graph, with a short clip of every kind, for
// tests that make players of each kind from several threads. Each player reads its clip through a
// gated source, so a test decides when it may initialise.
#ifndef LORVEX_TESTS_MANAGER_EVERYKINDRIG_H
#define LORVEX_TESTS_MANAGER_EVERYKINDRIG_H

#include "LxAudioPlayer.h"
#include "LxPlatformGraph.h"
#include "LxPlatformMidi.h"
#include "LxPlatformProbe.h"
#include "LxPlatformSound.h"
#include "LxResult.h"
#include "LxVersionDetection.h"
#include "LxWin32Manager.h"
#include "LxWin32Mixer.h"
#include "platform/com/LxpCom.h"
#include "platform/dshow/LxpSimGraph.h"
#include "platform/midi/LxpMidiSim.h"

#include "MidiFiles.h"
#include "TestSupport.h"
#include "WaveFiles.h"

#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <mutex>
#include <string>

namespace everykind {

enum Kind { Wave, Midi, AudioVideo, AudioOnly, VideoOnly, kKinds };

/// The simulated MIDI device and platform, as in a fresh process: no sound-card test saved yet.
inline void simulateDevices() {
    LxPlatformSetMidiBackend(LX_MIDI_SIMULATED);
    lxp::midisim::reset();
    LxPlatformProbe::useSimulated(LxSimulatedPlatform());
    LxResetDXAndWin32VersionCache();
    LxWin32Mixer::resetClassStateForTests();
    LxWin32Manager::resetExclusivityForTests();
}

/// The system's devices again, for the tests that follow in the same process.
inline void restoreDevices() {
    LxPlatformGraph::useGStreamer();
    LxPlatformProbe::useSystem();
    LxPlatformSetMidiBackend(LX_MIDI_FLUIDSYNTH);
    LxResetDXAndWin32VersionCache();
}

class Manager : public LxWin32Manager {
  public:
    explicit Manager(KtThreadManager* threads) : LxWin32Manager(threads) {}
    int players() {
        KtScopedLock<KtMutex> guard(playerListLock);
        int n = 0;
        for (LxPlayerListEntry* e = playerList; e != nullptr; e = e->next) {
            ++n;
        }
        return n;
    }
    /// "active/held/waiting/idle" ports of both channel types, read under the channel lock.
    std::string channels() {
        KtScopedLock<KtMutex> guard(channelLock);
        std::string text;
        for (const LxChannelInfo& c : channelInfo) {
            text += std::to_string(c.activeCount) + "/" + std::to_string(c.activePorts.size()) + "/" +
                    std::to_string(c.waitingPorts.size()) + "/" + std::to_string(c.inactivePorts.size()) +
                    " ";
        }
        return text;
    }
};

class Rig : public ::testing::Test {
  public:
    void SetUp() override {
        LxPlatformSound::useNullOutput();
        simulateDevices();
        lxp::midisim::setRealTime(true);
        LxPlatformGraph::useSimulated();
        lxp::simgraph::reset();
        lxp::comtest::reset();
        std::string pcm;
        for (int i = 0; i < 22050 / 4; ++i) {
            pcm += lxtest::le16(static_cast<uint16_t>((i * 300) & 0x7FFF));
        }
        paths[Wave] = dir.file("tone.wav");
        lxtest::writeFile(paths[Wave],
                          lxtest::joinWave({{"fmt ", lxtest::pcmFmtBody(1, 22050, 16)}, {"data", pcm}}));
        // One track: the tempo, then one note of half a beat.
        paths[Midi] = dir.file("tune.mid");
        lxtest::writeFile(
            paths[Midi],
            miditest::smf(0, 96,
                          {miditest::track(miditest::tempoEvent(0, 500000) + miditest::noteOn(0, 0, 60, 100) +
                                           miditest::noteOff(48, 0, 60))}));
        const lxp::simgraph::Outcome outcomes[] = {lxp::simgraph::Outcome::AudioVideo,
                                                   lxp::simgraph::Outcome::AudioOnly,
                                                   lxp::simgraph::Outcome::VideoOnly};
        for (int k = AudioVideo; k <= VideoOnly; ++k) {
            paths[k] = dir.file("clip" + std::to_string(k) + ".mpg");
            lxtest::writeFile(paths[k], "not decoded");
            lxp::simgraph::Script script;
            script.outcome = outcomes[k - AudioVideo];
            script.durationSeconds = 0.5;
            script.frameCount = 10;
            lxp::simgraph::setScriptForFile(paths[k], script);
        }
        manager = new Manager(&threads);
        manager->setWindow(&window);
        ASSERT_EQ(LX_OK, manager->initSubSystem(INIT_TIMERS | INIT_AUDIO | INIT_VIDEO));
        ASSERT_TRUE(manager->isDirectShowAvailable());
    }

    void TearDown() override {
        if (manager != nullptr) {
            manager->closeManager();
        }
        lxp::simgraph::reset();
        lxp::comtest::reset();
        lxp::midisim::setRealTime(false);
        restoreDevices();
    }

    /// A registered player of that kind whose clip stays unreadable until *gate is opened. The
    /// WAVE player is made directly: the factory gives WAVE clips to the filter graph.
    LxPlayer* make(Kind kind, lxtest::GatedFileSource** gate = nullptr) {
        lxtest::GatedFileSource* source = new lxtest::GatedFileSource(paths[kind], gate == nullptr);
        {
            std::lock_guard<std::mutex> guard(sourcesLock);
            sources.emplace_back(source);  // a player reads its source until it is destroyed
        }
        if (gate != nullptr) {
            *gate = source;
        }
        LxPlayer* p = nullptr;
        if (kind == Wave) {
            p = new LxAudioPlayer(manager, source);
            manager->addPlayer(p);
        } else if (manager->createPlayer(source, &p) != LX_OK) {
            return nullptr;
        }
        return p;
    }

    KtDefaultThreadManager threads;
    LxWin32Window window{reinterpret_cast<LxHwnd>(0x1234)};
    Manager* manager = nullptr;
    lxtest::TempDir dir;
    std::string paths[kKinds];
    std::mutex sourcesLock;
    std::deque<std::unique_ptr<lxtest::GatedFileSource>> sources;
};

}  // namespace everykind

#endif
