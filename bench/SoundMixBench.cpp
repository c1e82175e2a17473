// The mixing engine's cost, and the same work side by side through OpenAL Soft.
//
// Every run renders 10 s of audio as fast as the CPU allows: N voices looping one 1-s 44.1 kHz
// 16-bit mono sine, started at different offsets.
//   plain      - 44.1 kHz stereo output, every voice at 44.1 kHz: no resampling, no 3D.
//   resampled  - 48 kHz stereo 16-bit output, voices at slightly different frequencies.
//   3d         - resampled, and every voice at its own 3D position around the listener.
// The "3d" work is also rendered by OpenAL Soft through its loopback device (the same buffer,
// pitches, positions and distance model), and memcpy of the voices' source bytes gives a floor.
// Each run reports CPU seconds per voice-second (cpu_per_voice_s); the summary printed at the end
// gives voices per core in real time and the ratios.
#include "LxPlatformSound.h"
#include "LxWin32Mixer.h"
#include "platform/sound/LxpSimulatedSound.h"
#include "platform/sound/LxpSoundBackend.h"

#include <AL/al.h>
#include <AL/alc.h>
#include <AL/alext.h>
#include <benchmark/benchmark.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace lxp;

constexpr double kAudioSeconds = 10.0;
constexpr uint32_t kSourceRate = 44100;

enum Mode { kPlain = 0, kResampled = 1, k3D = 2 };

double threadCpuSeconds() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec + ts.tv_nsec * 1e-9;
}

std::vector<int16_t> sineSecond() {
    std::vector<int16_t> s(kSourceRate);
    for (uint32_t i = 0; i < kSourceRate; ++i) {
        s[i] = static_cast<int16_t>(std::lround(12000.0 * std::sin(2 * M_PI * 441.0 * i / kSourceRate)));
    }
    return s;
}

/// Voice i's pitch factor, position (right-handed, listener at the origin looking down -z) and
/// starting frame; the same for both engines.
double pitchOf(int i) {
    return 1.0 + (i % 97) * 0.0007;
}
void positionOf(int i, float* xyz) {
    const double angle = i * 2.399963;  // the golden angle spreads the voices around
    const double radius = 1.0 + (i % 9);
    xyz[0] = static_cast<float>(radius * std::cos(angle));
    xyz[1] = static_cast<float>((i % 5 - 2) * 0.5);
    xyz[2] = static_cast<float>(radius * std::sin(angle));
}
uint32_t offsetOf(int i) {
    return static_cast<uint32_t>((i * 7919) % kSourceRate);
}

void BM_Lorvex(benchmark::State& state) {
    const Mode mode = static_cast<Mode>(state.range(0));
    const int voices = static_cast<int>(state.range(1));
    sound::Engine::setVectorKernels(state.range(2) != 0);
    simsound::Config cfg;
    cfg.followPrimary = false;
    cfg.fixedFormat = simsound::OutputFormat{mode == kPlain ? 44100u : 48000u, 2, 16};
    cfg.captureOutput = false;
    cfg.recordConsumed = false;
    simsound::use(cfg);

    IDirectSound* ds = nullptr;
    DirectSoundCreate(nullptr, &ds, nullptr);
    ds->SetCooperativeLevel(nullptr, DSSCL_PRIORITY);
    DSBUFFERDESC pd{};
    pd.dwSize = DSBUFFERDESC_SIZE;
    pd.dwFlags = DSBCAPS_PRIMARYBUFFER | (mode == k3D ? DSBCAPS_CTRL3D : 0);
    IDirectSoundBuffer* primary = nullptr;
    ds->CreateSoundBuffer(&pd, &primary, nullptr);

    const std::vector<int16_t> sine = sineSecond();
    WAVEFORMATEX f{WAVE_FORMAT_PCM, 1, kSourceRate, kSourceRate * 2, 2, 16, 0};
    DSBUFFERDESC d{};
    d.dwSize = DSBUFFERDESC_SIZE;
    d.dwFlags = DSBCAPS_CTRLFREQUENCY | DSBCAPS_CTRLVOLUME | (mode == k3D ? DSBCAPS_CTRL3D : 0);
    d.dwBufferBytes = kSourceRate * 2;
    d.lpwfxFormat = &f;
    std::vector<IDirectSoundBuffer*> buffers(voices, nullptr);
    ds->CreateSoundBuffer(&d, &buffers[0], nullptr);
    void* p1 = nullptr;
    uint32_t n1 = 0;
    buffers[0]->Lock(0, d.dwBufferBytes, &p1, &n1, nullptr, nullptr, 0);
    std::memcpy(p1, sine.data(), n1);
    buffers[0]->Unlock(p1, n1, nullptr, 0);
    for (int i = 1; i < voices; ++i) {
        ds->DuplicateSoundBuffer(buffers[0], &buffers[i]);
    }
    for (int i = 0; i < voices; ++i) {
        if (mode != kPlain) {
            buffers[i]->SetFrequency(static_cast<uint32_t>(std::lround(kSourceRate * pitchOf(i))));
        }
        if (mode == k3D) {
            IDirectSound3DBuffer* b3 = nullptr;
            buffers[i]->QueryInterface(IID_IDirectSound3DBuffer, reinterpret_cast<void**>(&b3));
            float xyz[3];
            positionOf(i, xyz);
            b3->SetPosition(xyz[0], xyz[1], -xyz[2], DS3D_IMMEDIATE);  // left-handed
            b3->Release();
        }
        buffers[i]->SetCurrentPosition(offsetOf(i) * 2);
        buffers[i]->Play(0, 0, DSBPLAY_LOOPING);
    }

    sound::Engine& engine = simsound::engine();
    const uint32_t rate = engine.outputFormat().rate;
    const uint32_t total = static_cast<uint32_t>(kAudioSeconds * rate);
    double cpu = 0;
    for (auto _ : state) {
        const double t0 = threadCpuSeconds();
        engine.renderFrames(total);
        cpu += threadCpuSeconds() - t0;
    }
    state.counters["cpu_per_voice_s"] = cpu / state.iterations() / (voices * kAudioSeconds);
    for (IDirectSoundBuffer* b : buffers) {
        b->Release();
    }
    primary->Release();
    ds->Release();
}

void BM_Memcpy(benchmark::State& state) {
    const int voices = static_cast<int>(state.range(0));
    const std::vector<int16_t> src = sineSecond();
    std::vector<int16_t> dst(src.size());
    double cpu = 0;
    for (auto _ : state) {
        const double t0 = threadCpuSeconds();
        for (int s = 0; s < kAudioSeconds; ++s) {
            for (int v = 0; v < voices; ++v) {
                std::memcpy(dst.data(), src.data(), src.size() * sizeof(int16_t));
                benchmark::DoNotOptimize(dst.data());
                benchmark::ClobberMemory();
            }
        }
        cpu += threadCpuSeconds() - t0;
    }
    state.counters["cpu_per_voice_s"] = cpu / state.iterations() / (voices * kAudioSeconds);
}

void BM_OpenAL(benchmark::State& state) {
    const int voices = static_cast<int>(state.range(0));
    auto openLoopback = reinterpret_cast<LPALCLOOPBACKOPENDEVICESOFT>(
        alcGetProcAddress(nullptr, "alcLoopbackOpenDeviceSOFT"));
    auto render =
        reinterpret_cast<LPALCRENDERSAMPLESSOFT>(alcGetProcAddress(nullptr, "alcRenderSamplesSOFT"));
    ALCdevice* device = openLoopback != nullptr ? openLoopback(nullptr) : nullptr;
    if (device == nullptr || render == nullptr) {
        state.SkipWithError("OpenAL Soft loopback device not available");
        return;
    }
    const ALCint attrs[] = {ALC_FORMAT_CHANNELS_SOFT,
                            ALC_STEREO_SOFT,
                            ALC_FORMAT_TYPE_SOFT,
                            ALC_SHORT_SOFT,
                            ALC_FREQUENCY,
                            48000,
                            ALC_MONO_SOURCES,
                            voices,
                            ALC_STEREO_SOURCES,
                            0,
                            0};
    ALCcontext* context = alcCreateContext(device, attrs);
    alcMakeContextCurrent(context);
    const std::vector<int16_t> sine = sineSecond();
    ALuint buffer = 0;
    alGenBuffers(1, &buffer);
    alBufferData(buffer, AL_FORMAT_MONO16, sine.data(), static_cast<ALsizei>(sine.size() * 2), kSourceRate);
    std::vector<ALuint> sources(voices, 0);
    alGenSources(voices, sources.data());
    if (alGetError() != AL_NO_ERROR) {
        state.SkipWithError("OpenAL Soft refused that many sources");
        alcMakeContextCurrent(nullptr);
        alcDestroyContext(context);
        alcCloseDevice(device);
        return;
    }
    for (int i = 0; i < voices; ++i) {
        float xyz[3];
        positionOf(i, xyz);
        alSourcei(sources[i], AL_BUFFER, static_cast<ALint>(buffer));
        alSourcei(sources[i], AL_LOOPING, AL_TRUE);
        alSourcef(sources[i], AL_PITCH, static_cast<float>(pitchOf(i)));
        alSource3f(sources[i], AL_POSITION, xyz[0], xyz[1], xyz[2]);
        alSourcei(sources[i], AL_SAMPLE_OFFSET, static_cast<ALint>(offsetOf(i)));
        alSourcePlay(sources[i]);
    }
    std::vector<int16_t> out(480 * 2);
    double cpu = 0;
    for (auto _ : state) {
        const double t0 = threadCpuSeconds();
        for (int block = 0; block < kAudioSeconds * 100; ++block) {
            render(device, out.data(), 480);
        }
        cpu += threadCpuSeconds() - t0;
    }
    state.counters["cpu_per_voice_s"] = cpu / state.iterations() / (voices * kAudioSeconds);
    alDeleteSources(voices, sources.data());
    alDeleteBuffers(1, &buffer);
    alcMakeContextCurrent(nullptr);
    alcDestroyContext(context);
    alcCloseDevice(device);
}

BENCHMARK(BM_Lorvex)
    ->ArgsProduct({{kPlain, kResampled, k3D}, {64, 256, 1000, 4000}, {1}})
    ->ArgsProduct({{k3D}, {1000}, {0}})
    ->ArgNames({"mode", "voices", "vector"})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OpenAL)->Arg(64)->Arg(256)->Arg(1000)->Arg(4000)->ArgName("voices")->Iterations(1)->Unit(
    benchmark::kMillisecond);
BENCHMARK(BM_Memcpy)->Arg(1000)->ArgName("voices")->Iterations(3)->Unit(benchmark::kMillisecond);

/// The real mixing thread (null output, 48 kHz) with 200 playing ports while two threads open,
/// fill, play and close ports as fast as they can for 2 s: the longest block the mixing thread
/// took to render (a 10 ms block is due every 10 ms) and its longest wait for a buffer's lock.
void BM_ChurnWorstBlock(benchmark::State& state) {
    LxPlatformSound::useNullOutput(48000);
    LxWin32Mixer mixer;
    mixer.initMixer(reinterpret_cast<LxHwnd>(1));
    mixer.initDirectSound();
    const std::vector<int16_t> sine = sineSecond();
    auto open = [&](short& p) {
        LxWin32AudioPortConfig config(LxMono, LxSample16, 44100, 88200, 0, 1);
        mixer.openPort(&config, p);
        mixer.acquireChannel(p);
        mixer.writeResidentFrames(p, reinterpret_cast<unsigned char*>(const_cast<int16_t*>(sine.data())), 0,
                                  44100);
        mixer.playPort(p, 1);
    };
    for (int i = 0; i < 200; ++i) {
        short p = -1;
        open(p);
    }
    sound::Engine& engine = *sound::currentBackend()->engine();
    long cycles = 0;
    for (auto _ : state) {
        engine.resetWorstBlock();
        std::atomic<bool> stop{false};
        std::atomic<long> opened{0};
        auto churn = [&] {
            while (!stop.load()) {
                short p = -1;
                open(p);
                const float where[3] = {1.0f, 0.0f, -2.0f};
                mixer.setSoundLocation(p, where);
                mixer.releaseChannel(p, 1);
                mixer.closePort(p);
                opened.fetch_add(1);
            }
        };
        std::thread a(churn);
        std::thread b(churn);
        std::this_thread::sleep_for(std::chrono::seconds(2));
        stop.store(true);
        a.join();
        b.join();
        cycles = opened.load();
    }
    state.counters["ports_per_s"] = cycles / 2.0;
    state.counters["worst_block_ms"] = engine.worstBlockNanos() / 1e6;
    state.counters["worst_lock_wait_us"] = engine.worstLockWaitNanos() / 1e3;
    state.counters["lock_waits"] = static_cast<double>(engine.lockWaits());
    mixer.closeMixer();
    simsound::use();
}
BENCHMARK(BM_ChurnWorstBlock)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

/// Keeps every run's cost for the summary.
class Collector : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs) {
            auto it = r.counters.find("cpu_per_voice_s");
            // Repetitions keep their best run: on a shared machine the least disturbed one.
            if (it != r.counters.end() && !r.error_occurred && r.run_type == Run::RT_Iteration) {
                auto known = cost.find(r.benchmark_name());
                if (known == cost.end() || it->second.value < known->second) {
                    cost[r.benchmark_name()] = it->second.value;
                }
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> cost;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);
    const auto& c = collector.cost;
    const auto memcpyIt = c.find("BM_Memcpy/voices:1000/iterations:3");
    const double memcpyCost = memcpyIt != c.end() ? memcpyIt->second : 0.0;
    std::printf("\n%-10s %7s %16s %14s %12s %16s %12s\n", "work", "voices", "CPU s/voice-s", "voices/core",
                "x memcpy", "OpenAL CPU s/v-s", "Lorvex/OAL");
    const char* modes[] = {"plain", "resampled", "3d"};
    for (int m = 0; m < 3; ++m) {
        for (int n : {64, 256, 1000, 4000}) {
            const auto it = c.find("BM_Lorvex/mode:" + std::to_string(m) + "/voices:" + std::to_string(n) +
                                   "/vector:1/iterations:1");
            if (it == c.end()) {
                continue;
            }
            std::printf("%-10s %7d %16.3e %14.0f %12.2f", modes[m], n, it->second, 1.0 / it->second,
                        memcpyCost > 0 ? it->second / memcpyCost : 0.0);
            const auto oal = c.find("BM_OpenAL/voices:" + std::to_string(n) + "/iterations:1");
            if (m == 2 && oal != c.end()) {
                std::printf(" %16.3e %12.2f", oal->second, it->second / oal->second);
            }
            std::printf("\n");
        }
    }
    const auto scalar = c.find("BM_Lorvex/mode:2/voices:1000/vector:0/iterations:1");
    const auto vector = c.find("BM_Lorvex/mode:2/voices:1000/vector:1/iterations:1");
    if (scalar != c.end() && vector != c.end()) {
        std::printf(
            "3d, 1000 voices, portable scalar kernels: %.3e CPU s per voice-second (vector / scalar %.2f)\n",
            scalar->second, vector->second / scalar->second);
    }
    if (memcpyCost > 0) {
        std::printf("memcpy of a voice-second of source bytes (88200 B): %.3e CPU s\n", memcpyCost);
    }
    benchmark::Shutdown();
    return 0;
}
