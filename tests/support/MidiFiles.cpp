#include "MidiFiles.h"

#include <algorithm>

namespace miditest {

std::string vlq(uint32_t value) {
    std::string out(1, static_cast<char>(value & 0x7F));
    while ((value >>= 7) != 0) {
        out.insert(out.begin(), static_cast<char>(0x80 | (value & 0x7F)));
    }
    return out;
}

std::string be32(uint32_t v) {
    return std::string{static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
                       static_cast<char>(v)};
}

std::string track(const std::string& events, bool endOfTrack) {
    std::string body = events;
    if (endOfTrack) {
        body += std::string("\x00\xFF\x2F\x00", 4);
    }
    return "MTrk" + be32(static_cast<uint32_t>(body.size())) + body;
}

std::string smf(int format, int division, const std::vector<std::string>& tracks, uint32_t headerLength) {
    auto be16 = [](size_t v) { return std::string{static_cast<char>(v >> 8), static_cast<char>(v)}; };
    std::string out = "MThd" + be32(headerLength) + be16(format) + be16(tracks.size()) + be16(division) +
                      std::string(headerLength - 6, '\0');
    for (const std::string& t : tracks) {
        out += t;
    }
    return out;
}

std::string noteOn(uint32_t delta, int channel, int key, int velocity) {
    return vlq(delta) + std::string{static_cast<char>(0x90 | channel), static_cast<char>(key),
                                    static_cast<char>(velocity)};
}

std::string noteOff(uint32_t delta, int channel, int key) {
    return vlq(delta) + std::string{static_cast<char>(0x80 | channel), static_cast<char>(key), 0};
}

std::string tempoEvent(uint32_t delta, uint32_t t) {
    return vlq(delta) + std::string("\xFF\x51\x03", 3) +
           std::string{static_cast<char>(t >> 16), static_cast<char>(t >> 8), static_cast<char>(t)};
}

std::string textEvent(uint32_t delta, const std::string& text) {
    return vlq(delta) + std::string("\xFF\x01", 2) + vlq(static_cast<uint32_t>(text.size())) + text;
}

std::string controller(uint32_t delta, int channel, int number, int value) {
    return vlq(delta) + std::string{static_cast<char>(0xB0 | channel), static_cast<char>(number),
                                    static_cast<char>(value)};
}

double RefFile::seconds(int64_t tick) const {
    double t = 0;
    int64_t at = 0;
    double usPerTick = 500000.0 / division;
    for (const auto& change : tempos) {
        if (change.first >= tick) {
            break;
        }
        t += (change.first - at) * usPerTick;
        at = change.first;
        usPerTick = static_cast<double>(change.second) / division;
    }
    t += (tick - at) * usPerTick;
    return t / 1e6;
}

RefFile readReference(const std::string& d) {
    RefFile f;
    auto u = [&](size_t i) { return static_cast<uint8_t>(d[i]); };
    const int tracks = u(10) << 8 | u(11);
    f.division = u(12) << 8 | u(13);
    size_t pos = 8 + (static_cast<size_t>(u(4)) << 24 | u(5) << 16 | u(6) << 8 | u(7));
    for (int tr = 0; tr < tracks && pos + 8 <= d.size(); ++tr) {
        const size_t len =
            static_cast<size_t>(u(pos + 4)) << 24 | u(pos + 5) << 16 | u(pos + 6) << 8 | u(pos + 7);
        size_t i = pos + 8;
        const size_t end = std::min(d.size(), i + len);
        int64_t tick = 0;
        uint8_t running = 0;
        auto readVlq = [&]() {
            uint32_t v = 0;
            uint8_t b;
            do {
                b = u(i++);
                v = (v << 7) | (b & 0x7F);
            } while ((b & 0x80) && i < end);
            return v;
        };
        while (i < end) {
            tick += readVlq();
            uint8_t st = u(i);
            if (st >= 0x80) {
                ++i;
            } else {
                st = running;
            }
            if (st == 0xFF) {
                const uint8_t type = u(i++);
                const uint32_t n = readVlq();
                if (type == 0x51) {
                    f.tempos.push_back({tick, static_cast<uint32_t>(u(i)) << 16 | u(i + 1) << 8 | u(i + 2)});
                }
                i += n;  // the end-of-track event closes its chunk in a well-formed file
            } else if (st == 0xF0 || st == 0xF7) {
                i += readVlq();
            } else {
                running = st;
                const bool one = (st & 0xF0) == 0xC0 || (st & 0xF0) == 0xD0;
                const uint32_t d1 = u(i++);
                const uint32_t d2 = one ? 0 : u(i++);
                f.events.push_back({tick, st | d1 << 8 | d2 << 16});
            }
        }
        pos += 8 + len;
    }
    // Stable: the tracks were read in order, so equal ticks stay in track order.
    std::stable_sort(f.events.begin(), f.events.end(),
                     [](const auto& a, const auto& b) { return a.tick < b.tick; });
    std::stable_sort(f.tempos.begin(), f.tempos.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    return f;
}

}  // namespace miditest
