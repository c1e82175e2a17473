// MIDI player benchmarks on a real manager over the simulated devices: how long a start takes to
// reach the device, and how long the manager's arbitration is held up when a stronger
// sampled-audio port takes the channel from playing music and gives it back.
#include "LxDataSource.h"
#include "LxPlatformMidi.h"
#include "LxPlatformProbe.h"
#include "LxResult.h"
#include "LxTimeBase.h"
#include "LxVersionDetection.h"
#include "LxWin32Manager.h"
#include "LxWin32MidiPlayer.h"
#include "LxWin32Mixer.h"
#include "platform/LxpDuplex.h"
#include "platform/midi/LxpMidiSim.h"
#include "platform/sound/LxpSimulatedSound.h"

#include <benchmark/benchmark.h>

#include <unistd.h>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

// A 16-channel clip of a minute: a chord on every channel each quarter note.
std::string clipBytes() {
    auto be32 = [](uint32_t v) { return std::string{char(v >> 24), char(v >> 16), char(v >> 8), char(v)}; };
    std::string events("\x00\xFF\x51\x03\x07\xA1\x20", 7);
    for (int beat = 0; beat < 120; ++beat) {
        for (int c = 0; c < 16; ++c) {
            events += std::string{char(beat == 0 || c > 0 ? 0 : 96), char(0x90 | c), char(48 + c), 100};
        }
        for (int c = 0; c < 16; ++c) {
            events += std::string{0, char(0x80 | c), char(48 + c), 0};
        }
    }
    events += std::string("\x00\xFF\x2F\x00", 4);
    return std::string("MThd\0\0\0\x06\0\0\0\x01\0\x60", 14) + "MTrk" + be32(events.size()) + events;
}

class Setup {
  public:
    explicit Setup(bool halfDuplex) {
        lxp::simsound::use();
        LxPlatformSetMidiBackend(LX_MIDI_SIMULATED);
        lxp::midisim::reset();
        lxp::duplex::reset();
        lxp::duplex::setHalfDuplex(halfDuplex);
        LxPlatformProbe::useSimulated(LxSimulatedPlatform());
        LxResetDXAndWin32VersionCache();
        LxWin32Mixer::resetClassStateForTests();
        LxWin32Manager::resetExclusivityForTests();
        path = "/tmp/lorvex-bench-" + std::to_string(::getpid()) + ".mid";
        std::FILE* f = std::fopen(path.c_str(), "wb");
        const std::string bytes = clipBytes();
        std::fwrite(bytes.data(), 1, bytes.size(), f);
        std::fclose(f);
        manager = LxManager::createManager(&threads);
        manager->setWindow(&window);
        manager->initSubSystem(INIT_TIMERS | INIT_AUDIO);
        source = new LxFilenameDataSource(path.c_str());
        manager->createPlayer(source, &player);
        while (player->getState() != LxNode::STOPPED) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        player->setTimeBase(manager->getMasterTimeBase());
    }
    ~Setup() {
        manager->destroyPlayer(player);
        manager->closeManager();
        delete source;
        std::remove(path.c_str());
        lxp::duplex::reset();
        LxPlatformProbe::useSystem();
    }
    /// Starts the player and returns once the device has its channel volumes.
    void startAndWait() {
        const size_t before = lxp::midisim::messages().size();
        player->startAtTime(manager->getMasterTimeBase()->getRefTime());
        while (lxp::midisim::messages().size() < before + 16) {
            std::this_thread::yield();
        }
    }

    KtDefaultThreadManager threads;
    LxWin32Window window;
    LxManager* manager = nullptr;
    LxDataSource* source = nullptr;
    LxPlayer* player = nullptr;
    std::string path;
};

// From startAtTime to the stream running on the device: the request's round trip, the player
// thread's pass, asking the manager, opening the clip and the stream and filling both buffers.
void BM_StartToDevice(benchmark::State& state) {
    Setup s(false);
    for (auto _ : state) {
        const auto t0 = Clock::now();
        s.startAndWait();
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - t0).count());
        state.PauseTiming();
        s.player->stop();
        lxp::midisim::clearMessages();
        state.ResumeTiming();
    }
}
BENCHMARK(BM_StartToDevice)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(200);

// A sampled-audio port takes the channel from playing music on a half-duplex card (the music is
// stopped, both buffers come back, the stream closes, the sound device opens), then lets go (the
// sound device closes, the clip is opened again and restarted), all inside the manager's calls.
void BM_ChannelTakenAndGivenBack(benchmark::State& state) {
    Setup s(true);
    s.startAndWait();
    struct Port : LxAudioOutputPort {
        long setSoundLocation(const float*) override { return LX_OK; }
        const float* getLocation() const override { return nullptr; }
        long setGain(float) override { return LX_OK; }
        long setPan(float) override { return LX_OK; }
        float getPan() const override { return 0; }
        float getGain() const override { return 1; }
        long setPriority(float) override { return LX_OK; }
        float getPriority() const override { return 1; }
        long setSpatialize(char) override { return LX_OK; }
        char getSpatialize() const override { return 0; }
        long grantChannel() override { return channelHeld = 1, LX_OK; }
        long revokeChannel() override { return channelHeld = 0, LX_OK; }
    } sampled;
    for (auto _ : state) {
        const LxTime now = s.manager->getMasterTimeBase()->getRefTime();
        s.manager->requestPortChannel(&sampled, now);
        s.manager->updatePortChannel(&sampled, now, 1);
        s.manager->updatePortChannel(&sampled, now, 1);
        s.manager->releasePortChannel(&sampled);
        state.PauseTiming();
        lxp::midisim::advanceMs(20);  // some music between the rounds
        state.ResumeTiming();
    }
    s.player->stop();
}
BENCHMARK(BM_ChannelTakenAndGivenBack)->Unit(benchmark::kMicrosecond)->Iterations(500);

}  // namespace

BENCHMARK_MAIN();
