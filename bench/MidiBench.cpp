// MIDI benchmarks: the stream scheduler's cost per event, its worst lateness on a loaded machine,
// and the stream parser's parse-and-convert throughput.
#include "LxPlatformMidi.h"
#include "midi/LxWin32MidiParser.h"
#include "platform/midi/LxpMidi.h"
#include "platform/midi/LxpMidiSim.h"

#include <benchmark/benchmark.h>

#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace lxp;

struct Counter {
    std::atomic<int> done{0};
};

void onDone(HMIDIOUT, uint32_t, uintptr_t instance, uintptr_t, uintptr_t) {
    ++reinterpret_cast<Counter*>(instance)->done;
}

HMIDISTRM openSim(Counter* counter) {
    LxPlatformSetMidiBackend(LX_MIDI_SIMULATED);
    uint32_t device = MIDI_MAPPER;
    HMIDISTRM s = nullptr;
    midiStreamOpen(&s, &device, 1, onDone, reinterpret_cast<uintptr_t>(counter), CALLBACK_FUNCTION);
    MIDIPROPTIMEDIV prop{sizeof prop, 480};
    midiStreamProperty(s, reinterpret_cast<uint8_t*>(&prop), MIDIPROP_SET | MIDIPROP_TIMEDIV);
    return s;
}

void closeSim(HMIDISTRM s, std::vector<MIDIHDR>& headers) {
    midiStreamStop(s);
    midisim::advanceMs(1);
    for (MIDIHDR& h : headers) {
        midiOutUnprepareHeader(s, &h, sizeof h);
    }
    midiStreamClose(s);
    midisim::reset();
}

// Scheduler work per event: 85-record buffers (what a player sends) played on virtual time.
// delta 0: every event of a buffer is due at once (the loop's own cost: conversion, hand-over,
// recording); delta 1: each event has its own due time, so each costs a wake-up of the device thread.
void BM_SchedulerPerEvent(benchmark::State& state) {
    const uint32_t delta = static_cast<uint32_t>(state.range(0));
    midisim::reset();
    Counter counter;
    HMIDISTRM s = openSim(&counter);
    std::vector<MIDIEVENT> records(85);
    for (size_t i = 0; i < records.size(); ++i) {
        records[i] = {delta, 0, 0x90u | static_cast<uint32_t>((60 + i % 12) << 8) | (100u << 16)};
    }
    std::vector<MIDIHDR> headers(1);
    MIDIHDR& h = headers[0];
    h.lpData = reinterpret_cast<char*>(records.data());
    h.dwBufferLength = h.dwBytesRecorded = static_cast<uint32_t>(records.size() * sizeof(MIDIEVENT));
    midiOutPrepareHeader(s, &h, sizeof h);
    midiStreamRestart(s);
    int64_t events = 0;
    for (auto _ : state) {
        midiStreamOut(s, &h, sizeof h);
        midisim::advanceMicros(85 * delta * 1042 + 1);
        events += 85;
        if ((events / 85) % 64 == 0) {
            state.PauseTiming();
            midisim::clearMessages();
            state.ResumeTiming();
        }
    }
    state.counters["ns_per_event"] = benchmark::Counter(
        static_cast<double>(events), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    closeSim(s, headers);
}
BENCHMARK(BM_SchedulerPerEvent)->Arg(0)->Arg(1)->UseRealTime()->Unit(benchmark::kMicrosecond);

// Lateness on real time with both cores busy: events every 2 ms for 2 s while two threads spin.
void BM_LatenessUnderLoad(benchmark::State& state) {
    double worst = 0;
    double p99 = 0;
    for (auto _ : state) {
        midisim::reset();
        midisim::setRealTime(true);
        Counter counter;
        HMIDISTRM s = openSim(&counter);
        std::vector<MIDIEVENT> records(1000);
        for (size_t i = 0; i < records.size(); ++i) {
            records[i] = {8, 0, 0x90u | (60u << 8) | (100u << 16)};  // 8 ticks at 480/500000: 8.3 ms
        }
        std::vector<MIDIHDR> headers(10);
        for (size_t b = 0; b < headers.size(); ++b) {
            headers[b].lpData = reinterpret_cast<char*>(records.data() + b * 24);
            headers[b].dwBufferLength = headers[b].dwBytesRecorded = 24 * sizeof(MIDIEVENT);
            midiOutPrepareHeader(s, &headers[b], sizeof(MIDIHDR));
            midiStreamOut(s, &headers[b], sizeof(MIDIHDR));
        }
        std::atomic<bool> stop{false};
        std::vector<std::thread> load;
        for (int i = 0; i < 2; ++i) {
            load.emplace_back([&] {
                volatile uint64_t x = 0;
                while (!stop.load(std::memory_order_relaxed)) {
                    x = x + 1;
                }
            });
        }
        midiStreamRestart(s);
        while (counter.done.load() < 10) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        stop = true;
        for (auto& t : load) {
            t.join();
        }
        std::vector<double> late;
        for (const auto& m : midisim::messages()) {
            if (m.fromStream) {
                late.push_back((m.playMicros - m.dueMicros) / 1000.0);
            }
        }
        std::sort(late.begin(), late.end());
        worst = std::max(worst, late.back());
        p99 = std::max(p99, late[late.size() * 99 / 100]);
        closeSim(s, headers);
    }
    state.counters["worst_late_ms"] = worst;
    state.counters["p99_late_ms"] = p99;
}
BENCHMARK(BM_LatenessUnderLoad)->Iterations(3)->UseRealTime()->Unit(benchmark::kMillisecond);

class Owner : public LxMidiParserOwner {
  public:
    float getParserGain() override { return 0.8f; }
    float getParserTempoScale() override { return 1.0f; }
    bool takeTempoChanged() override { return false; }
    void storeChannelVolume(unsigned, uint32_t) override {}
};

std::string vlq(uint32_t v) {
    std::string out(1, static_cast<char>(v & 0x7F));
    while ((v >>= 7) != 0) {
        out.insert(out.begin(), static_cast<char>(0x80 | (v & 0x7F)));
    }
    return out;
}

std::string be32(uint32_t v) {
    return {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
            static_cast<char>(v)};
}

// 16 tracks of 20,000 notes each (running status, controllers, a tempo change every 500 notes).
std::string bigFile(int* events) {
    std::string file = "MThd" + be32(6) + std::string("\x00\x01\x00\x10\x01\xE0", 6);
    *events = 0;
    for (int t = 0; t < 16; ++t) {
        std::string body;
        body += vlq(0) + std::string{static_cast<char>(0x90 | t)};
        body += std::string{60, 100};
        for (int i = 0; i < 20000; ++i) {
            body += vlq(static_cast<uint32_t>(30 + (i + t) % 7)) +
                    std::string{static_cast<char>(40 + i % 40), 100};
            if (i % 500 == 0 && t == 0) {
                body += vlq(0) + std::string("\xFF\x51\x03\x07\xA1\x20", 6);
            }
            if (i % 100 == 0) {
                body += vlq(0) + std::string{static_cast<char>(0xB0 | t), 7, 90};
                body += vlq(0) + std::string{static_cast<char>(0x90 | t)} + std::string{61, 0};
            }
            ++*events;
        }
        body += vlq(0) + std::string("\xFF\x2F\x00", 3);
        file += "MTrk" + be32(static_cast<uint32_t>(body.size())) + body;
    }
    return file;
}

void BM_ParseAndConvert(benchmark::State& state) {
    int notes = 0;
    const std::string file = bigFile(&notes);
    const std::string path = "/tmp/lorvex-bench-midi-" + std::to_string(::getpid()) + ".mid";
    FILE* f = std::fopen(path.c_str(), "wb");
    std::fwrite(file.data(), 1, file.size(), f);
    std::fclose(f);
    Owner owner;
    std::vector<char> data(1024);
    int64_t records = 0;
    for (auto _ : state) {
        LxWin32MidiParser parser(&owner);
        parser.openFile(path.c_str());
        LxMidiStreamBuffer buffer{};
        for (int n = 0;; ++n) {
            buffer = LxMidiStreamBuffer{};
            buffer.header.lpData = data.data();
            buffer.header.dwBufferLength = 1024;
            buffer.capacity = 1024;
            if (parser.parseNewBuffer(n == 0, &buffer) != 0) {
                break;
            }
            records += buffer.bytesUsed / 12;
        }
        parser.closeFile();
    }
    std::remove(path.c_str());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(file.size()));
    state.counters["records_per_s"] =
        benchmark::Counter(static_cast<double>(records), benchmark::Counter::kIsRate);
    state.counters["file_MB"] = file.size() / 1e6;
}
BENCHMARK(BM_ParseAndConvert)->Unit(benchmark::kMillisecond);

}  // namespace
BENCHMARK_MAIN();
