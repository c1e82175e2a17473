// lorvex-play end to end: a looping clip that started in the past joins at the right place and
// wraps without a seam; bad input gives one clear line and a failing exit status.
#include "TestSupport.h"
#include "WaveFiles.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

namespace {

std::vector<int16_t> leftChannel(const std::string& wavFile) {
    const std::string pcm = lxtest::dataOf(lxtest::readFile(wavFile));
    std::vector<int16_t> left;
    for (size_t i = 0; i + 3 < pcm.size(); i += 4) {  // 16-bit stereo
        left.push_back(
            static_cast<int16_t>(static_cast<uint8_t>(pcm[i]) | (static_cast<uint8_t>(pcm[i + 1]) << 8)));
    }
    return left;
}

// Normalised correlation of a[ai..ai+n) with b[bi..bi+n).
double correlation(const std::vector<int16_t>& a, size_t ai, const std::vector<int16_t>& b, size_t bi,
                   size_t n) {
    double ab = 0, aa = 0, bb = 0;
    for (size_t i = 0; i < n; ++i) {
        ab += double(a[ai + i]) * b[bi + i];
        aa += double(a[ai + i]) * a[ai + i];
        bb += double(b[bi + i]) * b[bi + i];
    }
    return aa > 0 && bb > 0 ? ab / std::sqrt(aa * bb) : 0.0;
}

// The clip offset whose next n samples best match out[at..at+n).
size_t bestOffset(const std::vector<int16_t>& clip, const std::vector<int16_t>& out, size_t at, size_t n,
                  double* score) {
    size_t best = 0;
    *score = -1;
    for (size_t off = 0; off + n <= clip.size(); ++off) {
        const double c = correlation(clip, off, out, at, n);
        if (c > *score) {
            *score = c;
            best = off;
        }
    }
    return best;
}

class LorvexPlayTest : public ::testing::Test {
  protected:
    int play(const std::string& args, std::string* output) {
        const std::string log = dir.file("log.txt");
        const int status = lxtest::run(std::string(LORVEX_PLAY) + " " + args + " > " + log + " 2>&1");
        *output = lxtest::readFile(log);
        return status;
    }
    lxtest::TempDir dir;
};

TEST_F(LorvexPlayTest, LoopStartedInThePastJoinsLateAndWrapsSeamlessly) {
    if (!lxtest::haveTool("sox")) {
        GTEST_SKIP() << "sox is needed to make the clip";
    }
    // 3 s of noise: every position of the clip is recognisable by correlation.
    const std::string clip = dir.file("noise.wav");
    ASSERT_EQ(0, lxtest::run("sox -q -n -r 44100 -c 2 -b 16 " + clip + " synth 3 whitenoise vol 0.5"));
    const std::string out = dir.file("out.wav");
    std::string text;
    ASSERT_EQ(0, play("--output wav:" + out + " --time 4 --loop --start -0.5 " + clip, &text)) << text;
    EXPECT_NE(std::string::npos, text.find("0 failed")) << text;

    const std::vector<int16_t> source = leftChannel(clip);
    const std::vector<int16_t> heard = leftChannel(out);
    ASSERT_GT(heard.size(), 44100u * 3);
    size_t first = 0;
    while (first < heard.size() && std::abs(heard[first]) < 64) {
        ++first;
    }
    ASSERT_LT(first + 44100u * 3, heard.size()) << "the output holds too little sound";

    // The clip started 0.5 s before the fields were applied and loops: it joins 0.5 s in, plus the
    // manager's start-up latency of 0.1 s, as soon as the sound begins. Short windows: on a loaded
    // machine the output may under-run, and the silence padded in must not spoil the match.
    const size_t window = 256;
    double score = 0;
    const size_t joinedAt = bestOffset(source, heard, first, window, &score);
    EXPECT_GT(score, 0.98);
    EXPECT_NEAR(0.6, joinedAt / 44100.0, 0.020) << "joined at " << joinedAt / 44100.0 << " s";

    // Across the loop point the sound continues with the clip's beginning, sample for sample: the
    // clip's start is found near where it is due, and the clip's end lies right before it.
    const size_t due = first + (source.size() - joinedAt);
    const size_t slack = 44100 / 5;
    ASSERT_LT(due + slack + window, heard.size());
    size_t loopPoint = 0;
    double best = -1;
    for (size_t at = due - slack; at < due + slack; ++at) {
        const double c = correlation(source, 0, heard, at, window);
        if (c > best) {
            best = c;
            loopPoint = at;
        }
    }
    EXPECT_GT(best, 0.98) << "the clip's start was not heard after its end";
    EXPECT_GT(correlation(source, source.size() - window, heard, loopPoint - window, window), 0.98)
        << "something other than the clip's end comes before its restart";
    for (size_t i = loopPoint - 200; i < loopPoint + 200; ++i) {
        const long step = std::labs(long(heard[i + 1]) - long(heard[i]));
        ASSERT_LT(step, 40000) << "a click at the loop point";
    }
}

TEST_F(LorvexPlayTest, BadInputGivesOneLineAndStatusOne) {
    std::string text;
    EXPECT_EQ(1, play("--output null " + dir.file("missing.wav"), &text));
    EXPECT_NE(std::string::npos, text.find("lorvex-play: cannot open")) << text;
    EXPECT_EQ(1, std::count(text.begin(), text.end(), '\n')) << text;

    EXPECT_EQ(1, play("--output wav:/nonexistent-dir/out.wav " + dir.file("missing.wav"), &text));
    ASSERT_TRUE(lxtest::writeFile(dir.file("junk.mid"), std::string("not a MIDI file at all")));
    EXPECT_EQ(1, play("--output null " + dir.file("junk.mid"), &text));
    EXPECT_NE(std::string::npos, text.find("FAILED")) << text;
    EXPECT_EQ(2, play("--no-such-option", &text));
}

}  // namespace
