// The filter-graph player on GStreamer in real time: the picture painted at media time t shows the
// frame of t (within one frame) from a cued start, after a seek, a rate change and a loop inside
// the graph; and the sound written to the WAV file keeps time with the pictures.
#include "GraphKit.h"

namespace {

using lxtest::AMPlayerE2E;
using lxtest::ClockMap;
using lxtest::RecordingListener;

constexpr double kFps = 25.0;
// Pictures are judged from this long after the event that moved the clock (the first picture of
// a new position is shown once it has arrived).
constexpr double kSettle = 0.15;

TEST_F(AMPlayerE2E, PicturesShowTheFrameOfTheirMediaTimeAcrossASeekARateChangeAndALoop) {
    const lxtest::Clip clip = lxtest::mp4CounterClip();
    ASSERT_FALSE(clip.path.empty());
    RecordingListener l;
    LxPlayer* p = open(clip.path, &l);
    ASSERT_NE(nullptr, p);
    ASSERT_EQ(0xE3, l.resultOf(LxInitializedEventType));
    startPainting(p);

    // A cued start from the beginning; then stopped, sought to 2.5 s, cued and started again.
    for (const double media : {0.0, 2.5}) {
        if (media > 0) {
            p->stop();
            ASSERT_EQ(LX_OK, p->setMediaTime(LxTime(media)));
        }
        cue(p, l);
        const double t0 = now() + 0.2;
        setMap({t0, media, 1.0, 0.0});
        ASSERT_EQ(LX_OK, p->startAtTime(LxTime(t0)));
        lxtest::sleepSeconds(t0 + (media > 0 ? 0.5 : 1.0) - now());
        expectInStep(media > 0 ? "after the seek" : "from the start", t0 + kSettle, now(), clip.frames, kFps);
    }

    // Twice the rate while playing, looping: past the end the clip goes on from its start.
    p->setLoop(1);
    float two = 2.0f;
    const double changed = now();
    ASSERT_EQ(LX_OK, p->setRate(&two));
    const ClockMap fast = readMap(p, clip.seconds);
    setMap(fast);
    const double end = fast.ref + (clip.seconds - fast.media) / 2.0;  // reference time of the loop point
    lxtest::sleepSeconds(end - 0.02 - now());
    expectInStep("at twice the rate", changed + kSettle, end - 0.02, clip.frames, kFps);
    lxtest::sleepSeconds(end + 0.8 - now());
    expectInStep("after the loop", end + kSettle, now(), clip.frames, kFps);
    EXPECT_EQ(0u, l.count(LxEndOfMediaEventType));
    EXPECT_EQ(LxNode::STARTED, p->getState());
}

TEST_F(AMPlayerE2E, TheSoundKeepsTimeWithThePictures) {
    const std::string path = lxtest::beepClip().path;
    ASSERT_FALSE(path.empty());
    RecordingListener l;
    LxPlayer* p = open(path, &l);
    ASSERT_NE(nullptr, p);
    ASSERT_EQ(0xE3, l.resultOf(LxInitializedEventType));
    startPainting(p);
    cue(p, l);
    const double t0 = now() + 0.3;
    setMap({t0, 0.0, 1.0, 0.0});
    ASSERT_EQ(LX_OK, p->startAtTime(LxTime(t0)));
    ASSERT_TRUE(lxtest::waitUntil([&] { return l.count(LxEndOfMediaEventType) == 1; }, 20000));
    stopPainting();

    // How late each picture came: the first time the host saw frame n, against n's own time.
    double videoLate = 0.0;
    int seen = 0;
    int last = -1;
    for (const lxtest::Painted& s : paintedBetween(t0, t0 + 3.0)) {
        if (s.counter > last && s.counter > 0) {
            videoLate += s.ref - (t0 + s.counter / kFps);
            ++seen;
            last = s.counter;
        }
    }
    ASSERT_GT(seen, 50);
    videoLate /= seen;

    // How late each beep was heard, against its media time on the clock.
    const std::vector<int16_t> heard = finishSound();
    std::vector<double> offsets;
    for (int k = 0; k < 3; ++k) {
        const long from = frameAtTime(t0 + k - 0.2);
        const long at = rendererkit::firstAbove(heard, 1000, from);
        ASSERT_GE(at, 0) << "beep " << k << " was not heard";
        ASSERT_LT(at, frameAtTime(t0 + k + 0.2)) << "beep " << k << " was not heard near its time";
        offsets.push_back(timeAtFrame(at) - (t0 + k));
        // Heard whole: nothing of it lost or repeated.
        long end = at;
        while (end < static_cast<long>(heard.size()) && rendererkit::peak(heard, end, end + 40) > 1000) {
            end += 10;
        }
        EXPECT_NEAR(50.0, (end - at) * 1000.0 / lxtest::kWavRate, 2.0) << "beep " << k;
    }
    std::printf("[ measured ] pictures %.1f ms late; beeps %+.1f %+.1f %+.1f ms\n", videoLate * 1000.0,
                offsets[0] * 1000.0, offsets[1] * 1000.0, offsets[2] * 1000.0);
    for (double o : offsets) {
        EXPECT_NEAR(videoLate, o, 0.040) << "sound and pictures apart";
    }
    EXPECT_LT(std::abs(videoLate), 0.040) << "pictures off the clock";
}

}  // namespace
