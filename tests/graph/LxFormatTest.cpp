// Formats: the one-sided wildcard rule of match and the defaults it fills in. The default frame
// allocator is heard through the base video renderer, whose pool it fills.
#include "LxFormat.h"

#include <gtest/gtest.h>

#include <string>

namespace {

constexpr LxFormat::StreamStyle Push = LxFormat::PushStream;
constexpr LxFormat::StreamStyle Pull = LxFormat::PullStream;
constexpr LxFormat::StreamStyle AnyStyle = LxFormat::AnyStreamStyle;

// self->match(other) written as text ("none" when they do not agree); both are released, neither
// may be referenced by the match nor be its result.
std::string agreed(LxFormat* self, LxFormat* other) {
    static const char* const styles[] = {"push", "pull", "any"};
    LxFormat* m = self->match(other);
    std::string s = "none";
    if (auto* a = dynamic_cast<LxAudioFormat*>(m)) {
        static const char* const samples[] = {"8", "16", "any"};
        static const char* const channels[] = {"mono", "stereo", "any"};
        s = std::string(samples[a->getSampleFormat()]) + " " + channels[a->getChannels()] + " " +
            std::to_string(static_cast<int>(a->getSamplingRate())) + " " + styles[m->getStreamStyle()] +
            " s" + std::to_string(a->getIsStreaming());
    } else if (auto* v = dynamic_cast<LxVideoFormat*>(m)) {
        s = std::to_string(v->getWidth()) + "x" + std::to_string(v->getHeight()) + " p" +
            std::to_string(v->getPixelFormat()) + " " + styles[m->getStreamStyle()];
    }
    EXPECT_TRUE(m != self && m != other);
    EXPECT_EQ(1u, self->refCount());
    EXPECT_EQ(1u, other->refCount());
    if (m != nullptr) {
        m->unref();
    }
    self->unref();
    other->unref();
    return s;
}

struct Video {
    short w, h;
    LxPixelFormat_s pf;
    LxFormat::StreamStyle style;
    LxFormat* make() const { return new LxVideoFormat(w, h, pf, style); }
};

struct Audio {
    LxSampleFormat_s sf;
    LxAudioChannels_s ch;
    float rate;
    LxFormat::StreamStyle style;
    char streaming;
    LxFormat* make() const { return new LxAudioFormat(sf, ch, rate, streaming, style); }
};

TEST(LxVideoFormat, WildcardsCountOnTheOtherSideOnly) {
    const Video offered{320, 240, LxPixel32Alt, Push};
    const Video anySize{-1, -1, LxPixel32Alt, Push};
    const struct {
        Video self, other;
        const char* result;
    } cases[] = {
        {offered, anySize, "320x240 p4 push"},
        {offered, {-1, -1, LxPixel24Alt, Push}, "none"},  // no wildcard for pixel formats
        {anySize, offered, "none"},                       // the receiver's -1 is not a wildcard...
        {anySize, anySize, "-1x-1 p4 push"},              // ...it is copied when the other agrees
        {offered, {320, -1, LxPixel32Alt, Push}, "320x240 p4 push"},  // width and height one by one
        {offered, {-1, 200, LxPixel32Alt, Push}, "none"},
        // "Any" style on this side stands for push; on the other side it is a wildcard.
        {{16, 16, LxPixel24, AnyStyle}, {16, 16, LxPixel24, Push}, "16x16 p0 push"},
        {{16, 16, LxPixel24, AnyStyle}, {16, 16, LxPixel24, Pull}, "none"},
        {{16, 16, LxPixel24, Pull}, {16, 16, LxPixel24, AnyStyle}, "16x16 p0 pull"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.result, agreed(c.self.make(), c.other.make())) << "case " << &c - cases;
    }
    EXPECT_EQ(Pull, LxVideoFormat(LxPixel8).getStreamStyle());
}

TEST(LxAudioFormat, WildcardsCountOnTheOtherSideAndThisSidesBecomeDefaults) {
    const Audio offered{LxSample8, LxMono, 22050.0f, Pull, 0};
    const Audio allAny{LxAnySampleFormat, LxAnyChannels, -1.0f, AnyStyle, 1};
    const struct {
        Audio self, other;
        const char* result;
    } cases[] = {
        {offered, {LxAnySampleFormat, LxAnyChannels, -1.0f, Pull, 0}, "8 mono 22050 pull s0"},
        {offered, {LxAnySampleFormat, LxAnyChannels, 22050.5f, Pull, 0}, "none"},  // rates exactly
        {offered, {LxAnySampleFormat, LxAnyChannels, -1.0f, Push, 0}, "none"},
        {offered, {LxAnySampleFormat, LxStereo, -1.0f, AnyStyle, 0}, "none"},
        {offered, {LxSample16, LxAnyChannels, -1.0f, AnyStyle, 0}, "none"},
        // This side's wildcards become 16-bit stereo 44.1 kHz push, with this side's streaming flag.
        {allAny, {LxAnySampleFormat, LxAnyChannels, -1.0f, AnyStyle, 0}, "16 stereo 44100 push s1"},
        {allAny, {LxAnySampleFormat, LxAnyChannels, -1.0f, Push, 0}, "16 stereo 44100 push s1"},
        {allAny, {LxAnySampleFormat, LxAnyChannels, -1.0f, Pull, 0}, "none"},
        {allAny, {LxAnySampleFormat, LxAnyChannels, 22050.0f, AnyStyle, 0}, "none"},
        {allAny, {LxSample16, LxStereo, 44100.0f, Push, 0}, "none"},  // a value never meets a wildcard
        {{LxAnySampleFormat, LxAnyChannels, 22050.0f, AnyStyle, 0}, allAny, "16 stereo 22050 push s0"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.result, agreed(c.self.make(), c.other.make())) << "case " << &c - cases;
    }
    // Across types nothing agrees.
    EXPECT_EQ("none", agreed(Video{-1, -1, LxPixel32, AnyStyle}.make(), allAny.make()));
    EXPECT_EQ("none", agreed(allAny.make(), Video{-1, -1, LxPixel32, AnyStyle}.make()));
    LxFormat* a = allAny.make();
    EXPECT_EQ(nullptr, a->match(nullptr));
    a->unref();
}

}  // namespace
