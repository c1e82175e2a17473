#include "WaveFiles.h"

#include <cstdio>
#include <sstream>

namespace lxtest {

std::string le16(uint16_t v) {
    return {static_cast<char>(v & 0xFF), static_cast<char>(v >> 8)};
}

std::string le32(uint32_t v) {
    return le16(static_cast<uint16_t>(v & 0xFFFF)) + le16(static_cast<uint16_t>(v >> 16));
}

namespace {

uint32_t readLe32(const std::string& s, size_t at) {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) {
        v |= static_cast<uint32_t>(static_cast<unsigned char>(s[at + i])) << (8 * i);
    }
    return v;
}

}  // namespace

bool splitWave(const std::string& file, std::vector<RiffChunk>* chunks) {
    chunks->clear();
    if (file.size() < 12 || file.compare(0, 4, "RIFF") != 0 || file.compare(8, 4, "WAVE") != 0) {
        return false;
    }
    size_t at = 12;
    while (at + 8 <= file.size()) {
        RiffChunk c;
        c.id = file.substr(at, 4);
        const uint32_t length = readLe32(file, at + 4);
        if (at + 8 + length > file.size()) {
            return false;
        }
        c.body = file.substr(at + 8, length);
        chunks->push_back(c);
        at += 8 + length + (length & 1u);
    }
    return true;
}

std::string joinWave(const std::vector<RiffChunk>& chunks) {
    std::string body = "WAVE";
    for (const RiffChunk& c : chunks) {
        body += c.id + le32(static_cast<uint32_t>(c.body.size())) + c.body;
        if (c.body.size() & 1u) {
            body += '\0';
        }
    }
    return "RIFF" + le32(static_cast<uint32_t>(body.size())) + body;
}

std::string fmtBody(uint16_t tag, uint16_t channels, uint32_t rate, uint32_t avgBytes, uint16_t align,
                    uint16_t bits, const std::string& extra) {
    return le16(tag) + le16(channels) + le32(rate) + le32(avgBytes) + le16(align) + le16(bits) + extra;
}

std::string pcmFmtBody(uint16_t channels, uint32_t rate, uint16_t bits) {
    const uint16_t align = static_cast<uint16_t>(bits / 8 * channels);
    return fmtBody(1, channels, rate, rate * align, align, bits);
}

std::string dataOf(const std::string& file) {
    std::vector<RiffChunk> chunks;
    splitWave(file, &chunks);
    for (const RiffChunk& c : chunks) {
        if (c.id == "data") {
            return c.body;
        }
    }
    return "";
}

uint64_t checksum(const std::string& bytes) {
    uint64_t h = 1469598103934665603ull;
    for (unsigned char c : bytes) {
        h ^= c;
        h *= 1099511628211ull;
    }
    return h;
}

std::string soxClip(const TempDir& dir, const std::string& name, int rate, int bits, int channels,
                    double seconds, const char* encoding) {
    if (!haveTool("sox")) {
        return "";
    }
    const std::string path = dir.file(name);
    std::ostringstream cmd;
    cmd << "sox -q -D -n -r " << rate << " -b " << bits << " -c " << channels << " -e "
        << (encoding != nullptr ? encoding
            : bits == 8         ? "unsigned-integer"
                                : "signed-integer")
        << " '" << path << "' synth " << seconds
        << (encoding != nullptr ? " sine 440 vol 0.5" : " sine 440 sine 660") << " >/dev/null 2>&1";
    if (run(cmd.str()) != 0) {
        return "";
    }
    return path;
}

}  // namespace lxtest
