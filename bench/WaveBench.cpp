// Reading a large WAVE file through the parser in renderer-sized frames (half a second each),
// against a plain fread of the same file in the same block size: the limit the parser can reach.
#include "LxDataSource.h"
#include "LxFormat.h"
#include "audio/LxWAVEParser.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace {

constexpr int kRate = 44100;
constexpr int kFrameBytes = 4;                           // 16-bit stereo
constexpr int kSeconds = 60;                             // about 10 MB of samples
constexpr int kRendererFrame = kRate * kFrameBytes / 2;  // half a second

void put32(std::string& s, uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        s += static_cast<char>((v >> (8 * i)) & 0xFF);
    }
}
void put16(std::string& s, uint16_t v) {
    s += static_cast<char>(v & 0xFF);
    s += static_cast<char>(v >> 8);
}

// Writes the clip once per process; the page cache holds it for every run after the first.
const std::string& clipPath() {
    static const std::string path = [] {
        const std::string p = "/tmp/lorvex-bench-clip.wav";
        const uint32_t dataBytes = static_cast<uint32_t>(kRate) * kFrameBytes * kSeconds;
        std::string header = "RIFF";
        put32(header, 36 + dataBytes);
        header += "WAVEfmt ";
        put32(header, 16);
        put16(header, 1);
        put16(header, 2);
        put32(header, kRate);
        put32(header, kRate * kFrameBytes);
        put16(header, kFrameBytes);
        put16(header, 16);
        header += "data";
        put32(header, dataBytes);
        FILE* f = std::fopen(p.c_str(), "wb");
        std::fwrite(header.data(), 1, header.size(), f);
        std::vector<char> block(1 << 16);
        for (size_t i = 0; i < block.size(); ++i) {
            block[i] = static_cast<char>(i * 31);
        }
        for (uint32_t written = 0; written < dataBytes;) {
            const uint32_t n = std::min<uint32_t>(static_cast<uint32_t>(block.size()), dataBytes - written);
            std::fwrite(block.data(), 1, n, f);
            written += n;
        }
        std::fclose(f);
        return p;
    }();
    return path;
}

void BM_WaveParserRendererFrames(benchmark::State& state) {
    LxFilenameDataSource source(clipPath().c_str());
    LxWAVEParser parser;
    parser.open(nullptr, &source);
    LxAudioFormat* format = nullptr;
    parser.readHeader(&format);
    format->unref();
    LxAudioFrame frame;
    frame.data = new unsigned char[kRendererFrame];
    frame.fillable = kRendererFrame / kFrameBytes;
    int64_t bytes = 0;
    for (auto _ : state) {
        parser.seek(0);
        for (;;) {
            frame.filled = 0;
            char eom = 0;
            parser.readFrame(&frame, &eom);
            bytes += static_cast<int64_t>(frame.filled) * kFrameBytes;
            if (eom) {
                break;
            }
        }
    }
    state.SetBytesProcessed(bytes);
}
BENCHMARK(BM_WaveParserRendererFrames)->Unit(benchmark::kMillisecond);

void BM_PlainFread(benchmark::State& state) {
    FILE* f = std::fopen(clipPath().c_str(), "rb");
    std::vector<unsigned char> buffer(kRendererFrame);
    int64_t bytes = 0;
    for (auto _ : state) {
        std::fseek(f, 44, SEEK_SET);
        for (;;) {
            const size_t n = std::fread(buffer.data(), 1, buffer.size(), f);
            bytes += static_cast<int64_t>(n);
            if (n < buffer.size()) {
                break;
            }
        }
        benchmark::DoNotOptimize(buffer.data());
    }
    std::fclose(f);
    state.SetBytesProcessed(bytes);
}
BENCHMARK(BM_PlainFread)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
