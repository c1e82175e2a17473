// Helpers for the audio renderer's tests: sox clips of known content, their samples, and the
// signal measures the tests judge sound by (alignment against a clip, tone energy, onset).
#ifndef LORVEX_TESTS_AUDIO_RENDERER_KIT_H
#define LORVEX_TESTS_AUDIO_RENDERER_KIT_H

#include "TestSupport.h"
#include "WaveFiles.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

namespace rendererkit {

/// A 16-bit clip made by sox: effect is what follows "synth <seconds>" ("sine 440",
/// "whitenoise"). Returns its path, or "" when sox is missing or fails.
inline std::string soxClip16(const lxtest::TempDir& dir, const std::string& name, int rate, int channels,
                             double seconds, const std::string& effect) {
    if (!lxtest::haveTool("sox")) {
        return "";
    }
    const std::string path = dir.file(name);
    std::ostringstream cmd;
    // -R: the same noise on every run, so that a failure can be reproduced.
    cmd << "sox -R -q -n -r " << rate << " -b 16 -c " << channels << " -e signed-integer '" << path
        << "' synth " << seconds << " " << effect << " vol 0.5 >/dev/null 2>&1";
    return lxtest::run(cmd.str()) == 0 ? path : "";
}

/// The interleaved 16-bit samples of a WAVE file's data chunk.
inline std::vector<int16_t> samples16(const std::string& path) {
    const std::string data = lxtest::dataOf(lxtest::readFile(path));
    std::vector<int16_t> s(data.size() / 2);
    std::memcpy(s.data(), data.data(), s.size() * 2);
    return s;
}

/// One channel of interleaved samples.
inline std::vector<int16_t> channelOf(const std::vector<int16_t>& interleaved, int channels, int channel) {
    std::vector<int16_t> out(interleaved.size() / channels);
    for (size_t i = 0; i < out.size(); ++i) {
        out[i] = interleaved[i * channels + channel];
    }
    return out;
}

/// Floats of full scale +-1.0 to 16-bit values.
inline std::vector<int16_t> toInt16(const std::vector<float>& f) {
    std::vector<int16_t> out(f.size());
    for (size_t i = 0; i < f.size(); ++i) {
        const double v = std::round(f[i] * 32768.0);
        out[i] = static_cast<int16_t>(v > 32767 ? 32767 : (v < -32768 ? -32768 : v));
    }
    return out;
}

/// Index of the first sample at offset or later whose magnitude exceeds threshold; -1 if none.
inline long firstAbove(const std::vector<int16_t>& s, int threshold, size_t offset = 0) {
    for (size_t i = offset; i < s.size(); ++i) {
        if (std::abs(static_cast<int>(s[i])) > threshold) {
            return static_cast<long>(i);
        }
    }
    return -1;
}

/// Index one past the last sample whose magnitude exceeds threshold (0 if none).
inline long endOfSound(const std::vector<int16_t>& s, int threshold) {
    for (size_t i = s.size(); i > 0; --i) {
        if (std::abs(static_cast<int>(s[i - 1])) > threshold) {
            return static_cast<long>(i);
        }
    }
    return 0;
}

/// The largest magnitude in s[from, to).
inline int peak(const std::vector<int16_t>& s, size_t from, size_t to) {
    int p = 0;
    for (size_t i = from; i < to && i < s.size(); ++i) {
        p = std::max(p, std::abs(static_cast<int>(s[i])));
    }
    return p;
}

/// Where ref (its first n samples) lies in out, searched over [from, to): the offset with the
/// highest normalised correlation, and that correlation in *score.
inline long bestOffset(const std::vector<int16_t>& out, const std::vector<int16_t>& ref, size_t n, long from,
                       long to, double* score) {
    long best = -1;
    double bestScore = -2.0;
    double refEnergy = 0.0;
    for (size_t i = 0; i < n; ++i) {
        refEnergy += static_cast<double>(ref[i]) * ref[i];
    }
    for (long o = std::max(0L, from); o < to && o + static_cast<long>(n) <= static_cast<long>(out.size());
         ++o) {
        double dot = 0.0;
        double e = 0.0;
        for (size_t i = 0; i < n; ++i) {
            const double v = out[o + i];
            dot += v * ref[i];
            e += v * v;
        }
        const double c = e > 0.0 && refEnergy > 0.0 ? dot / std::sqrt(e * refEnergy) : 0.0;
        if (c > bestScore) {
            bestScore = c;
            best = o;
        }
    }
    if (score != nullptr) {
        *score = bestScore;
    }
    return best;
}

/// Samples of out from offset on that differ from ref by more than tolerance, and the first
/// such index relative to offset in *first (-1 when none).
inline size_t mismatches(const std::vector<int16_t>& out, size_t offset, const std::vector<int16_t>& ref,
                         int tolerance, long* first) {
    size_t bad = 0;
    *first = -1;
    for (size_t i = 0; i < ref.size(); ++i) {
        const int o = offset + i < out.size() ? out[offset + i] : 0;
        if (std::abs(o - ref[i]) > tolerance) {
            if (*first < 0) {
                *first = static_cast<long>(i);
            }
            ++bad;
        }
    }
    return bad;
}

/// Power of frequency hz in s[from, from + n) at sampling rate (Goertzel), normalised so that a
/// full-scale sine gives about 0.25.
inline double tonePower(const std::vector<int16_t>& s, size_t from, size_t n, double hz, double rate) {
    const double w = 2.0 * M_PI * hz / rate;
    const double c = 2.0 * std::cos(w);
    double s1 = 0.0;
    double s2 = 0.0;
    size_t count = 0;
    for (size_t i = from; i < from + n && i < s.size(); ++i, ++count) {
        const double s0 = s[i] / 32768.0 + c * s1 - s2;
        s2 = s1;
        s1 = s0;
    }
    if (count == 0) {
        return 0.0;
    }
    const double p = s1 * s1 + s2 * s2 - c * s1 * s2;
    return p / (static_cast<double>(count) * count);
}

}  // namespace rendererkit

#endif
