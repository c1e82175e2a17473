// The WAV-file and null sinks, and the real-time pacing they share.
#include "platform/sound/LxpSinks.h"

#include "LxLog.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

namespace lxp {
namespace sound {

namespace {

int64_t steadyNanos() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void put16(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}

void put32(uint8_t* p, uint32_t v) {
    put16(p, v & 0xFFFF);
    put16(p + 2, v >> 16);
}

class NullSink : public Sink {
  public:
    bool open(const OutputFormat&) override {
        pacer_.restart();
        return true;
    }
    void write(const uint8_t*, uint32_t frames, const OutputFormat& format) override {
        pacer_.pace(frames, format.rate, 0.0);
    }
    void close() override {}
    std::string describe() const override { return "null output"; }

  private:
    RealTimePacer pacer_;
};

class WavSink : public Sink {
  public:
    explicit WavSink(const std::string& path) : path_(path) {}
    ~WavSink() override { close(); }

    bool open(const OutputFormat& format) override {
        pacer_.restart();
        if (file_ != nullptr) {
            return true;
        }
        if (started_ && format == format_) {
            file_ = std::fopen(path_.c_str(), "r+b");
            if (file_ != nullptr && std::fseek(file_, 0, SEEK_END) != 0) {
                std::fclose(file_);
                file_ = nullptr;
            }
        } else {
            file_ = std::fopen(path_.c_str(), "wb");
            dataBytes_ = 0;
            format_ = format;
            if (file_ != nullptr) {
                writeHeader();
            }
        }
        started_ = true;
        if (file_ == nullptr) {
            LxLog::postDebug("LxpSound:  cannot write the WAV file %s; sound output is dropped\n",
                             path_.c_str());
            return false;
        }
        return true;
    }

    void write(const uint8_t* data, uint32_t frames, const OutputFormat& format) override {
        if (file_ != nullptr) {
            const size_t bytes = static_cast<size_t>(frames) * format.bytesPerFrame();
            if (std::fwrite(data, 1, bytes, file_) == bytes) {
                dataBytes_ += static_cast<uint32_t>(bytes);
            }
        }
        pacer_.pace(frames, format.rate, 0.0);
    }

    void close() override {
        if (file_ == nullptr) {
            return;
        }
        if (std::fseek(file_, 0, SEEK_SET) == 0) {
            writeHeader();
        }
        std::fclose(file_);
        file_ = nullptr;
    }

    std::string describe() const override { return "WAV file " + path_; }

  private:
    void writeHeader() {
        uint8_t h[44];
        const uint32_t align = format_.bytesPerFrame();
        std::memcpy(h, "RIFF", 4);
        put32(h + 4, 36 + dataBytes_);
        std::memcpy(h + 8, "WAVEfmt ", 8);
        put32(h + 16, 16);
        put16(h + 20, 1);
        put16(h + 22, format_.channels);
        put32(h + 24, format_.rate);
        put32(h + 28, format_.rate * align);
        put16(h + 32, align);
        put16(h + 34, format_.bits);
        std::memcpy(h + 36, "data", 4);
        put32(h + 40, dataBytes_);
        if (std::fwrite(h, 1, sizeof h, file_) != sizeof h) {
            LxLog::postDebug("LxpSound:  failed to write the WAV header of %s\n", path_.c_str());
        }
        std::fflush(file_);
    }

    std::string path_;
    std::FILE* file_ = nullptr;
    bool started_ = false;
    uint32_t dataBytes_ = 0;
    OutputFormat format_;
    RealTimePacer pacer_;
};

}  // namespace

void RealTimePacer::pace(uint32_t frames, uint32_t rate, double leadSeconds) {
    if (rate == 0) {
        return;
    }
    const int64_t now = steadyNanos();
    if (scheduled_ == 0 || rate != rate_) {
        startNanos_ = now;
        scheduled_ = 0;
        rate_ = rate;
    }
    scheduled_ += frames;
    const int64_t due = startNanos_ + static_cast<int64_t>(static_cast<double>(scheduled_) * 1e9 / rate) -
                        static_cast<int64_t>(leadSeconds * 1e9);
    if (now < due) {
        std::this_thread::sleep_for(std::chrono::nanoseconds(due - now));
    } else if (now - due > 200000000) {
        // Far behind (a stalled machine): go on from here rather than racing through the backlog.
        startNanos_ = now;
        scheduled_ = 0;
    }
}

std::unique_ptr<Sink> makeWavSink(const std::string& path) {
    return std::unique_ptr<Sink>(new WavSink(path));
}

std::unique_ptr<Sink> makeNullSink() {
    return std::unique_ptr<Sink>(new NullSink());
}

}  // namespace sound
}  // namespace lxp
