// Test clips for the filter graph, made with ffmpeg into ./clips (the test's working folder) once.
// Every clip with video shows a frame counter: eight vertical bands, band k (from the left) white
// when bit k of the frame number is set, which survives lossy compression.
#ifndef LORVEX_TESTS_SUPPORT_GRAPHCLIPS_H
#define LORVEX_TESTS_SUPPORT_GRAPHCLIPS_H

#include <cstdint>
#include <string>

namespace lxtest {

struct Clip {
    std::string path;    // empty when it could not be made (no ffmpeg)
    double seconds = 0;  // nominal duration
    int frames = 0;      // video frames (0: no video)
    int width = 0;
    int height = 0;
    double fps = 0;
};

/// MPEG-1 system stream: 160x120 MPEG-1 video at 25 fps with the counter, MPEG layer 2 stereo
/// audio at 44.1 kHz, 2 s.
Clip mpeg1Clip();
/// MP3, stereo, 44.1 kHz, 3 s.
Clip mp3Clip();
/// QuickTime .mov with MPEG-4 video only (counter), 160x120, 25 fps, 2 s.
Clip movVideoClip();
/// MP4 with MPEG-4 video (counter, 25 fps) and AAC audio, 4 s: the clip for seeks and rates.
Clip mp4CounterClip();
/// MP4 with the counter and, as its sound, a 1 kHz beep for the first 50 ms of every second
/// (computed per sample, so that each beep starts exactly on its second), 3 s.
Clip beepClip();
/// 64 KB of noise named .mpg.
Clip corruptClip();
/// A QuickTime file cut off before its index.
Clip truncatedMovClip();
/// The MPEG-1 clip cut off after about 60 % of its bytes.
Clip truncatedMpegClip();

/// The frame number a picture shows; -1 when the bands do not read as clean black and white.
/// pixels: top-down rows of stride bytes, bytesPerPixel 3 or 4 (any component order).
int readFrameCounter(const uint8_t* pixels, int width, int height, int stride, int bytesPerPixel);

}  // namespace lxtest

#endif
