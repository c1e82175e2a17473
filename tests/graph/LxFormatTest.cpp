// Formats: the one-sided wildcard rule of match, defaults, frames, and the default allocator.
#include "LxFormat.h"

#include "LxLog.h"
#include "LxResult.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

// Holds one reference of a format for the test's scope.
struct FormatRef {
    LxFormat* f;
    explicit FormatRef(LxFormat* format) : f(format) {}
    ~FormatRef() {
        if (f != nullptr) {
            f->unref();
        }
    }
    LxVideoFormat* video() const { return static_cast<LxVideoFormat*>(f); }
    LxAudioFormat* audio() const { return static_cast<LxAudioFormat*>(f); }
};

LxVideoFormat* video(short w, short h, LxPixelFormat_s pf, LxFormat::StreamStyle s) {
    return new LxVideoFormat(w, h, pf, s);
}

LxAudioFormat* audio(LxSampleFormat_s sf, LxAudioChannels_s ch, float rate, LxFormat::StreamStyle s,
                     char streaming = 0) {
    return new LxAudioFormat(sf, ch, rate, streaming, s);
}

TEST(LxVideoFormat, WildcardSizeOnTheOtherSideOnly) {
    FormatRef offered(video(320, 240, LxPixel32Alt, LxFormat::PushStream));
    FormatRef anySize(video(-1, -1, LxPixel32Alt, LxFormat::PushStream));
    FormatRef other24(video(-1, -1, LxPixel24Alt, LxFormat::PushStream));

    FormatRef m(offered.f->match(anySize.f));
    ASSERT_NE(nullptr, m.f);
    EXPECT_EQ(LxVideoType, m.f->getFormatType());
    EXPECT_EQ(320, m.video()->getWidth());
    EXPECT_EQ(240, m.video()->getHeight());
    EXPECT_EQ(LxPixel32Alt, m.video()->getPixelFormat());
    EXPECT_EQ(LxFormat::PushStream, m.f->getStreamStyle());
    EXPECT_NE(offered.f, m.f);
    EXPECT_EQ(1u, offered.f->refCount());  // neither side referenced
    EXPECT_EQ(1u, anySize.f->refCount());

    EXPECT_EQ(nullptr, offered.f->match(other24.f));  // no wildcard for pixel formats

    // The receiver's -1 is not a wildcard; it is copied when the other side agrees.
    EXPECT_EQ(nullptr, anySize.f->match(offered.f));
    FormatRef same(anySize.f->match(anySize.f));
    ASSERT_NE(nullptr, same.f);
    EXPECT_EQ(-1, same.video()->getWidth());

    // Width and height are checked one by one.
    FormatRef width320(video(320, -1, LxPixel32Alt, LxFormat::PushStream));
    FormatRef height200(video(-1, 200, LxPixel32Alt, LxFormat::PushStream));
    FormatRef ok(offered.f->match(width320.f));
    EXPECT_NE(nullptr, ok.f);
    EXPECT_EQ(nullptr, offered.f->match(height200.f));
}

TEST(LxVideoFormat, AnyStreamStyleIsAWildcardOnlyOnTheOtherSide) {
    FormatRef any(video(16, 16, LxPixel24, LxFormat::AnyStreamStyle));
    FormatRef push(video(16, 16, LxPixel24, LxFormat::PushStream));
    FormatRef pull(video(16, 16, LxPixel24, LxFormat::PullStream));

    FormatRef a(any.f->match(push.f));
    ASSERT_NE(nullptr, a.f);
    EXPECT_EQ(LxFormat::PushStream, a.f->getStreamStyle());  // 2 on this side becomes push
    EXPECT_EQ(nullptr, any.f->match(pull.f));
    FormatRef b(pull.f->match(any.f));
    ASSERT_NE(nullptr, b.f);
    EXPECT_EQ(LxFormat::PullStream, b.f->getStreamStyle());

    EXPECT_EQ(LxFormat::PullStream, LxVideoFormat(LxPixel8).getStreamStyle());
}

TEST(LxAudioFormat, WildcardsAndDefaults) {
    FormatRef offered(audio(LxSample8, LxMono, 22050.0f, LxFormat::PullStream));
    FormatRef accepted(audio(LxAnySampleFormat, LxAnyChannels, -1.0f, LxFormat::PullStream));
    FormatRef m(offered.f->match(accepted.f));
    ASSERT_NE(nullptr, m.f);
    EXPECT_EQ(LxAudioType, m.f->getFormatType());
    EXPECT_EQ(LxSample8, m.audio()->getSampleFormat());
    EXPECT_EQ(LxMono, m.audio()->getChannels());
    EXPECT_EQ(22050.0f, m.audio()->getSamplingRate());
    EXPECT_EQ(LxFormat::PullStream, m.f->getStreamStyle());

    FormatRef oddRate(audio(LxAnySampleFormat, LxAnyChannels, 22050.5f, LxFormat::PullStream));
    EXPECT_EQ(nullptr, offered.f->match(oddRate.f));
    FormatRef push(audio(LxAnySampleFormat, LxAnyChannels, -1.0f, LxFormat::PushStream));
    EXPECT_EQ(nullptr, offered.f->match(push.f));
    FormatRef stereo(audio(LxAnySampleFormat, LxStereo, -1.0f, LxFormat::AnyStreamStyle));
    EXPECT_EQ(nullptr, offered.f->match(stereo.f));
    FormatRef bits16(audio(LxSample16, LxAnyChannels, -1.0f, LxFormat::AnyStreamStyle));
    EXPECT_EQ(nullptr, offered.f->match(bits16.f));
}

TEST(LxAudioFormat, ReceiverWildcardsBecomeDefaultsAndAreNotWildcards) {
    FormatRef allAny(audio(LxAnySampleFormat, LxAnyChannels, -1.0f, LxFormat::AnyStreamStyle, 1));
    FormatRef allAny2(audio(LxAnySampleFormat, LxAnyChannels, -1.0f, LxFormat::AnyStreamStyle, 0));
    FormatRef r22050(audio(LxAnySampleFormat, LxAnyChannels, 22050.0f, LxFormat::AnyStreamStyle));

    FormatRef m(allAny.f->match(allAny2.f));
    ASSERT_NE(nullptr, m.f);
    EXPECT_EQ(LxSample16, m.audio()->getSampleFormat());
    EXPECT_EQ(LxStereo, m.audio()->getChannels());
    EXPECT_EQ(44100.0f, m.audio()->getSamplingRate());
    EXPECT_EQ(LxFormat::PushStream, m.f->getStreamStyle());
    EXPECT_EQ(1, m.audio()->getIsStreaming());  // this side's flag, the other's is never read

    EXPECT_EQ(nullptr, allAny.f->match(r22050.f));
    FormatRef pull(audio(LxAnySampleFormat, LxAnyChannels, -1.0f, LxFormat::PullStream));
    FormatRef push(audio(LxAnySampleFormat, LxAnyChannels, -1.0f, LxFormat::PushStream));
    EXPECT_EQ(nullptr, allAny.f->match(pull.f));  // this side's "any" style stands for push
    FormatRef withPush(allAny.f->match(push.f));
    ASSERT_NE(nullptr, withPush.f);
    EXPECT_EQ(LxFormat::PushStream, withPush.f->getStreamStyle());
    // A concrete value on the other side never meets this side's wildcard value.
    FormatRef concrete(audio(LxSample16, LxStereo, 44100.0f, LxFormat::PushStream));
    EXPECT_EQ(nullptr, allAny.f->match(concrete.f));
    FormatRef rev(r22050.f->match(allAny.f));
    ASSERT_NE(nullptr, rev.f);
    EXPECT_EQ(22050.0f, rev.audio()->getSamplingRate());
}

TEST(LxFormat, MatchAcrossTypesAgreesOnNothing) {
    FormatRef v(video(-1, -1, LxPixel32, LxFormat::AnyStreamStyle));
    FormatRef a(audio(LxAnySampleFormat, LxAnyChannels, -1.0f, LxFormat::AnyStreamStyle));
    EXPECT_EQ(nullptr, v.f->match(a.f));
    EXPECT_EQ(nullptr, a.f->match(v.f));
    EXPECT_EQ(nullptr, a.f->match(nullptr));
}

TEST(LxVideoFrame, SizesItsBufferByPixelFormatAndOwnsItsFormat) {
    lxtest::requireLog();
    EXPECT_EQ(3, LxVideoFormat::getBytesPerPixel(LxPixel24));
    EXPECT_EQ(3, LxVideoFormat::getBytesPerPixel(LxPixel24Alt));
    EXPECT_EQ(4, LxVideoFormat::getBytesPerPixel(LxPixel32));
    EXPECT_EQ(4, LxVideoFormat::getBytesPerPixel(LxPixel32Alt));
    EXPECT_EQ(2, LxVideoFormat::getBytesPerPixel(LxPixel16));
    EXPECT_EQ(1, LxVideoFormat::getBytesPerPixel(LxPixel8));
    EXPECT_EQ(1, LxVideoFormat::getBytesPerPixel(static_cast<LxPixelFormat_s>(6)));
    EXPECT_TRUE(LxLogSink::contains("bytesFromPixelFormat: unknown pixel format 6\n"));

    LxVideoFrame frame(2, 2, LxPixel16);
    ASSERT_NE(nullptr, frame.getPixelData());
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(0, frame.getPixelData()[i]);
    }
    // The eighth byte is the frame's (AddressSanitizer watches), and the pixel format is answered
    // by the frame's own format.
    frame.getPixelData()[7] = 0xFF;
    EXPECT_EQ(LxPixel16, frame.getPixelFormat());
    EXPECT_EQ(LxFormat::PushStream, frame.format->getStreamStyle());
}

TEST(LxDefVideoFrameAllocator, NeedsAVideoFormatAndStopsAtTwoFrames) {
    lxtest::requireLog();
    LxDefVideoFrameAllocator alloc;
    LxFrame* out = nullptr;
    EXPECT_EQ(LX_ERR_NO_FORMAT, alloc.allocateFrame(&out));
    EXPECT_EQ(nullptr, out);

    FormatRef a(audio(LxSample16, LxStereo, 44100.0f, LxFormat::PushStream));
    EXPECT_EQ(LX_ERR_WRONG_FORMAT, alloc.setFormat(a.f));
    EXPECT_EQ(0, alloc.formatIsSet);
    EXPECT_EQ(1u, a.f->refCount());

    FormatRef v(video(4, 3, LxPixel24, LxFormat::PullStream));
    EXPECT_EQ(LX_OK, alloc.setFormat(v.f));
    EXPECT_EQ(2u, v.f->refCount());  // the allocator keeps its own reference

    std::unique_ptr<LxFrame> f1, f2;
    LxFrame* raw = nullptr;
    ASSERT_EQ(LX_OK, alloc.allocateFrame(&raw));
    f1.reset(raw);
    ASSERT_EQ(LX_OK, alloc.allocateFrame(&raw));
    f2.reset(raw);
    EXPECT_NE(f1.get(), f2.get());
    EXPECT_EQ(2, alloc.getFramesCreated());
    EXPECT_EQ(2, LxLogSink::count("LxDefVideoFrameAllocator: allocated new frame\n"));

    auto* vf = dynamic_cast<LxVideoFrame*>(f1.get());
    ASSERT_NE(nullptr, vf);
    EXPECT_EQ(4, vf->getWidth());
    EXPECT_EQ(3, vf->getHeight());
    EXPECT_EQ(LxFormat::PushStream, vf->format->getStreamStyle());  // the frame's own format
    EXPECT_NE(v.f, vf->format);

    LxFrame* untouched = reinterpret_cast<LxFrame*>(0x1234);
    EXPECT_EQ(LX_ERR_ALREADY_TAKEN, alloc.allocateFrame(&untouched));
    EXPECT_EQ(reinterpret_cast<LxFrame*>(0x1234), untouched);
    EXPECT_EQ(2, alloc.getFramesCreated());
}

}  // namespace
