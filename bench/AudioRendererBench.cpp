// The audio renderer in real time on the real sound engine.
//
// start_latency: from the host's startAtTime(now) to the clip's first sample in the sink. The
// output goes to a WAV file whose frames map to reference time (the output is opened at a time
// read around the call, and the engine writes one 10 ms block after another in real time, so
// frame k was mixed at t0 + k / 44100); each start's first sample is found in the file by
// correlation with the clip. Twenty starts of a fresh player each, for a short (resident) and a
// long (streaming) clip; and a hundred starts of the short clip asked for 0.2 s ahead, whose
// onset should be the time asked for to the sample (scheduled_start).
//
// streaming_cpu: the process's CPU time while one streaming clip plays on the null output, less
// the CPU time of the same output running without a clip: what one clip costs (player thread,
// renderer thread and one voice of mixing), in percent of one core.
#include "LxAudioPlayer.h"
#include "LxDataSource.h"
#include "LxPlatformMidi.h"
#include "LxPlatformProbe.h"
#include "LxPlatformSound.h"
#include "LxResult.h"
#include "LxTimeBase.h"
#include "LxVersionDetection.h"
#include "LxWin32Manager.h"
#include "LxWin32Mixer.h"
#include "platform/com/LxpCom.h"
#include "platform/dshow/LxpGraphIds.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kRate = 44100;

void sleepSeconds(double s) {
    if (s > 0) {
        std::this_thread::sleep_for(std::chrono::microseconds(static_cast<long>(s * 1e6)));
    }
}

double processCpuSeconds() {
    timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return ts.tv_sec + ts.tv_nsec * 1e-9;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

/// The interleaved 16-bit samples of a WAVE file's data chunk.
std::vector<int16_t> wavSamples(const std::string& path) {
    const std::string f = readFile(path);
    size_t p = 12;
    while (p + 8 <= f.size()) {
        uint32_t len = 0;
        std::memcpy(&len, f.data() + p + 4, 4);
        if (f.compare(p, 4, "data") == 0) {
            const size_t n = std::min<size_t>(len, f.size() - p - 8) / 2;
            std::vector<int16_t> s(n);
            std::memcpy(s.data(), f.data() + p + 8, n * 2);
            return s;
        }
        p += 8 + len + (len & 1);
    }
    return {};
}

std::vector<int16_t> leftOf(const std::vector<int16_t>& stereo) {
    std::vector<int16_t> l(stereo.size() / 2);
    for (size_t i = 0; i < l.size(); ++i) {
        l[i] = stereo[2 * i];
    }
    return l;
}

/// A mono 16-bit noise clip made by sox, or "" without sox.
std::string noiseClip(const std::string& name, double seconds) {
    const std::string path = "/tmp/lorvex-bench-" + name + ".wav";
    std::ostringstream cmd;
    cmd << "sox -R -q -n -r " << kRate << " -b 16 -c 1 -e signed-integer '" << path << "' synth " << seconds
        << " whitenoise vol 0.5 >/dev/null 2>&1";
    return std::system(cmd.str().c_str()) == 0 ? path : "";
}

/// Where ref's first n samples best match out within [from, to).
long bestOffset(const std::vector<int16_t>& out, const std::vector<int16_t>& ref, size_t n, long from,
                long to) {
    long best = -1;
    double bestScore = -2.0;
    for (long o = std::max(0L, from); o < to && o + static_cast<long>(n) <= static_cast<long>(out.size());
         ++o) {
        double dot = 0.0;
        double e = 0.0;
        double r = 0.0;
        for (size_t i = 0; i < n; ++i) {
            dot += static_cast<double>(out[o + i]) * ref[i];
            e += static_cast<double>(out[o + i]) * out[o + i];
            r += static_cast<double>(ref[i]) * ref[i];
        }
        const double c = e > 0 && r > 0 ? dot / std::sqrt(e * r) : 0.0;
        if (c > bestScore) {
            bestScore = c;
            best = o;
        }
    }
    return bestScore > 0.99 ? best : -1;
}

/// A manager on the chosen output, with the WAVE player for every clip.
struct Rig {
    explicit Rig(const std::string& wavPath) {
        LxPlatformSetMidiBackend(LX_MIDI_SIMULATED);
        lxp::comtest::reset();
        lxp::comtest::failCreate(lxp::CLSID_FilterGraph, -1);
        if (wavPath.empty()) {
            LxPlatformSound::useNullOutput();
        } else {
            LxPlatformSound::useWavFile(wavPath.c_str());
        }
        LxWin32Manager::resetExclusivityForTests();
        manager = LxManager::createManager(&threads);
        manager->setWindow(&window);
        manager->initSubSystem(INIT_TIMERS | INIT_AUDIO);
        timeBase = manager->getMasterTimeBase();
        framesBefore = wavPath.empty() ? 0 : wavSamples(wavPath).size() / 2;
        const double a = timeBase->getRefTime().getValue();
        static_cast<LxWin32Mixer*>(manager->getMixer())->initDirectSound();
        const double b = timeBase->getRefTime().getValue();
        outputStart = (a + b) / 2;
        openSeconds = b - a;
    }
    ~Rig() {
        if (manager != nullptr) {
            manager->closeManager();
        }
    }
    void close() {
        manager->closeManager();
        manager = nullptr;
    }

    LxPlayer* player(const std::string& path) {
        sources.push_back(std::make_unique<LxFilenameDataSource>(path.c_str()));
        LxPlayer* p = nullptr;
        manager->createPlayer(sources.back().get(), &p);
        for (int i = 0; i < 5000 && p->getState() != LxNode::STOPPED; ++i) {
            sleepSeconds(0.001);
        }
        manager->connectAllUnconnected(p);
        p->setTimeBase(timeBase);
        return p;
    }

    double timeAt(long frame) const {
        return outputStart + (frame - static_cast<long>(framesBefore)) / static_cast<double>(kRate);
    }
    long frameAt(double t) const {
        return static_cast<long>(framesBefore) + static_cast<long>((t - outputStart) * kRate);
    }

    KtDefaultThreadManager threads;
    LxWin32Window window{reinterpret_cast<LxHwnd>(0x1234)};
    LxManager* manager = nullptr;
    LxTimeBase* timeBase = nullptr;
    std::vector<std::unique_ptr<LxFilenameDataSource>> sources;
    size_t framesBefore = 0;
    double outputStart = 0.0;
    /// How long opening the output took: the uncertainty of the time mapping.
    double openSeconds = 0.0;
};

void startLatency(benchmark::State& state) {
    const bool streaming = state.range(0) == 1;
    const double ahead = state.range(0) == 2 ? 0.2 : 0.0;
    const std::string clip = noiseClip(streaming ? "long" : "short", streaming ? 3.0 : 0.5);
    if (clip.empty()) {
        state.SkipWithError("sox is not installed");
        return;
    }
    const std::vector<int16_t> ref = wavSamples(clip);
    const std::string out = "/tmp/lorvex-bench-latency.wav";
    std::remove(out.c_str());
    const int kStarts = ahead > 0 ? 100 : 20;
    std::vector<double> requests;
    for (auto _ : state) {
        Rig rig(out);
        for (int i = 0; i < kStarts; ++i) {
            LxPlayer* p = rig.player(clip);
            sleepSeconds(0.05);
            const LxTime at(rig.timeBase->getRefTime().getValue() + ahead);
            requests.push_back(at.getValue());
            p->startAtTime(at);
            sleepSeconds(0.35 + ahead);
            p->stop();
            rig.manager->destroyPlayer(p);
            sleepSeconds(0.1);
        }
        rig.close();
        const std::vector<int16_t> heard = leftOf(wavSamples(out));
        std::vector<double> ms;
        for (double t : requests) {
            const long at = bestOffset(heard, ref, 1024, rig.frameAt(t - 0.005), rig.frameAt(t + 0.2));
            if (at >= 0) {
                ms.push_back((rig.timeAt(at) - t) * 1000.0);
            }
        }
        std::sort(ms.begin(), ms.end());
        if (ms.size() != requests.size()) {
            state.SkipWithError("a start was not found in the output");
            return;
        }
        state.counters["median_ms"] = ms[ms.size() / 2];
        state.counters["p90_ms"] = ms[ms.size() * 9 / 10];
        state.counters["max_ms"] = ms.back();
        state.counters["min_ms"] = ms.front();
        state.counters["worst_abs_ms"] = std::max(std::fabs(ms.front()), std::fabs(ms.back()));
        state.counters["open_ms"] = rig.openSeconds * 1000.0;
    }
}

void streamingCpu(benchmark::State& state) {
    const std::string clip = noiseClip("cpu", 12.0);
    if (clip.empty()) {
        state.SkipWithError("sox is not installed");
        return;
    }
    constexpr double kWindow = 8.0;
    for (auto _ : state) {
        Rig rig("");
        sleepSeconds(0.5);
        double c0 = processCpuSeconds();
        sleepSeconds(kWindow);
        const double idle = processCpuSeconds() - c0;
        LxPlayer* p = rig.player(clip);
        p->startAtTime(rig.timeBase->getRefTime());
        sleepSeconds(1.0);  // past the start, with the producer's frames read ahead
        c0 = processCpuSeconds();
        sleepSeconds(kWindow);
        const double playing = processCpuSeconds() - c0;
        p->stop();
        state.counters["idle_output_pct"] = 100.0 * idle / kWindow;
        state.counters["with_clip_pct"] = 100.0 * playing / kWindow;
        state.counters["one_clip_pct"] = 100.0 * (playing - idle) / kWindow;
    }
}

BENCHMARK(startLatency)->Arg(0)->Arg(1)->Arg(2)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(streamingCpu)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
