// For the tests that judge sound: sox clips and the signal measures (onset, peak, correlation,
// tone power).
#ifndef LORVEX_TESTS_SUPPORT_RENDERER_KIT_H
#define LORVEX_TESTS_SUPPORT_RENDERER_KIT_H

#include "TestSupport.h"
#include "WaveFiles.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

namespace rendererkit {

/// A 16-bit clip made by sox; effect follows "synth <seconds>" ("sine 440", "whitenoise").
inline std::string soxClip16(const lxtest::TempDir& dir, const std::string& name, int rate, int channels,
                             double seconds, const std::string& effect) {
    std::ostringstream cmd;
    cmd << "sox -R -q -n -r " << rate << " -b 16 -c " << channels << " -e signed-integer '" << dir.file(name)
        << "' synth " << seconds << " " << effect << " vol 0.5 >/dev/null 2>&1";
    return lxtest::haveTool("sox") && lxtest::run(cmd.str()) == 0 ? dir.file(name) : "";
}

/// Channel ch of the 16-bit samples of a WAVE file's data.
inline std::vector<int16_t> samples16(const std::string& path, int channels = 1, int ch = 0) {
    const std::string data = lxtest::dataOf(lxtest::readFile(path));
    std::vector<int16_t> s(data.size() / 2 / channels);
    for (size_t i = 0; i < s.size(); ++i) {
        std::memcpy(&s[i], data.data() + 2 * (i * channels + ch), 2);
    }
    return s;
}

/// First index from offset on whose magnitude exceeds threshold (-1: none), one past the last such
/// index, and the largest magnitude in [from, to).
inline long firstAbove(const std::vector<int16_t>& s, int threshold, long offset = 0) {
    const auto it = std::find_if(s.begin() + std::min<size_t>(std::max(0L, offset), s.size()), s.end(),
                                 [&](int16_t v) { return std::abs(v) > threshold; });
    return it == s.end() ? -1 : it - s.begin();
}
inline long endOfSound(const std::vector<int16_t>& s, int threshold) {
    return std::find_if(s.rbegin(), s.rend(), [&](int16_t v) { return std::abs(v) > threshold; }).base() -
           s.begin();
}
inline int peak(const std::vector<int16_t>& s, size_t from, size_t to) {
    int p = 0;
    for (size_t i = from; i < to && i < s.size(); ++i) {
        p = std::max(p, std::abs(static_cast<int>(s[i])));
    }
    return p;
}

/// The offset in [from, to) where ref's first n samples correlate best with out (normalised
/// correlation in *score).
inline long bestOffset(const std::vector<int16_t>& out, const std::vector<int16_t>& ref, size_t n, long from,
                       long to, double* score) {
    long best = -1;
    *score = -2.0;
    for (long o = std::max(0L, from); o < to && o + static_cast<long>(n) <= static_cast<long>(out.size());
         ++o) {
        double dot = 0.0, e = 0.0, r = 0.0;
        for (size_t i = 0; i < n; ++i) {
            dot += static_cast<double>(out[o + i]) * ref[i];
            e += static_cast<double>(out[o + i]) * out[o + i];
            r += static_cast<double>(ref[i]) * ref[i];
        }
        const double c = e > 0.0 && r > 0.0 ? dot / std::sqrt(e * r) : 0.0;
        if (c > *score) {
            *score = c;
            best = o;
        }
    }
    return best;
}

/// Samples of ref not found (within 1) at out[offset + i]; the first such i in *first.
inline size_t mismatches(const std::vector<int16_t>& out, size_t offset, const std::vector<int16_t>& ref,
                         long* first) {
    size_t bad = 0;
    *first = -1;
    for (size_t i = 0; i < ref.size(); ++i) {
        const int o = offset + i < out.size() ? out[offset + i] : 0;
        if (std::abs(o - ref[i]) > 1 && bad++ == 0) {
            *first = static_cast<long>(i);
        }
    }
    return bad;
}

/// Power of a tone in s[from, from + n) (Goertzel): about 0.06 for a sine of amplitude 0.5.
inline double tonePower(const std::vector<int16_t>& s, size_t from, size_t n, double hz, double rate) {
    const double c = 2.0 * std::cos(2.0 * M_PI * hz / rate);
    double s1 = 0.0, s2 = 0.0;
    size_t count = 0;
    for (size_t i = from; i < from + n && i < s.size(); ++i, ++count) {
        const double s0 = s[i] / 32768.0 + c * s1 - s2;
        s2 = s1;
        s1 = s0;
    }
    return count == 0 ? 0.0 : (s1 * s1 + s2 * s2 - c * s1 * s2) / (static_cast<double>(count) * count);
}

}  // namespace rendererkit

#endif
