#include "GraphClips.h"

#include "TestSupport.h"

#include <sys/stat.h>
#include <unistd.h>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <random>

namespace lxtest {

namespace {

const char* kCounter = "geq=lum='if(bitand(N\\,pow(2\\,floor(X*8/W)))\\,235\\,16)':cb=128:cr=128";

bool exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && st.st_size > 0;
}

/// The clip named name in ./clips, written by write (to the temporary path it is given) unless it
/// exists; renamed into place so that parallel tests never see half a file. "" when it failed.
std::string made(const std::string& name, const std::function<bool(const std::string&)>& write) {
    mkdir("clips", 0755);
    char cwd[4096];
    const std::string path = std::string(getcwd(cwd, sizeof cwd) != nullptr ? cwd : ".") + "/clips/" + name;
    const std::string tmp = path + ".tmp" + std::to_string(getpid()) + name.substr(name.rfind('.'));
    if (exists(path)) {
        return path;
    }
    if (!write(tmp) || std::rename(tmp.c_str(), path.c_str()) != 0) {
        std::remove(tmp.c_str());
        return std::string();
    }
    return path;
}

/// Made by ffmpeg with args, which end where the output file name goes.
std::string ffmpeg(const std::string& name, const std::string& args) {
    return made(name, [&](const std::string& tmp) {
        return haveTool("ffmpeg") && run("ffmpeg -nostdin -v error -y " + args + " '" + tmp + "'") == 0;
    });
}

std::string video(double seconds) {
    char text[256];
    std::snprintf(text, sizeof text, "-f lavfi -i \"color=c=black:s=160x120:r=25:d=%g,%s\"", seconds,
                  kCounter);
    return text;
}

std::string tone(double seconds) {
    char text[128];
    std::snprintf(text, sizeof text, "-f lavfi -i \"sine=frequency=440:sample_rate=44100:duration=%g\"",
                  seconds);
    return text;
}

/// The first fraction of the clip at from.
std::string cut(const std::string& name, const std::string& from, double fraction) {
    return made(name, [&](const std::string& tmp) {
        const std::string bytes = from.empty() ? std::string() : readFile(from);
        return !bytes.empty() &&
               writeFile(tmp, bytes.substr(0, static_cast<size_t>(bytes.size() * fraction)));
    });
}

/// A 160x120 clip with the counter at 25 fps.
Clip counter(const std::string& path, double seconds) {
    return {path, seconds, static_cast<int>(seconds * 25), 160, 120, 25.0};
}

}  // namespace

Clip mpeg1Clip() {
    return counter(
        ffmpeg("counter.mpg",
               video(2) + " " + tone(2) + " -ac 2 -c:v mpeg1video -q:v 2 -g 12 -c:a mp2 -b:a 192k -f mpeg"),
        2.0);
}

Clip mp3Clip() {
    return {ffmpeg("tone.mp3", tone(3) + " -ac 2 -c:a libmp3lame -b:a 128k -f mp3"), 3.0};
}

Clip movVideoClip() {
    return counter(ffmpeg("counter.mov", video(2) + " -c:v mpeg4 -q:v 2 -g 12 -f mov"), 2.0);
}

Clip mp4CounterClip() {
    return counter(ffmpeg("counter.mp4", video(4) + " " + tone(4) +
                                             " -ac 2 -c:v mpeg4 -q:v 2 -g 12 -c:a aac -b:a 128k -f mp4"),
                   4.0);
}

Clip beepClip() {
    return counter(
        ffmpeg("beeps.mp4",
               video(3) +
                   " -f lavfi -i \"aevalsrc='0.25*sin(2*PI*1000*t)*lt(mod(t\\,1)\\,0.05)':s=44100:d=3\" "
                   "-ac 2 -c:v mpeg4 -q:v 2 -g 12 -c:a aac -b:a 192k -f mp4"),
        3.0);
}

Clip corruptClip() {
    return {made("noise.mpg", [](const std::string& tmp) {
        std::mt19937 random(1234);
        std::string bytes(65536, '\0');
        for (char& c : bytes) {
            c = static_cast<char>(random() & 0xFF);
        }
        return writeFile(tmp, bytes);
    })};
}

Clip truncatedMovClip() {
    return {cut("cut.mov", movVideoClip().path, 0.4)};
}

Clip truncatedMpegClip() {
    return counter(cut("cut.mpg", mpeg1Clip().path, 0.6), 1.2);
}

int readFrameCounter(const uint8_t* pixels, int width, int height, int stride, int bytesPerPixel) {
    int value = 0;
    const int y = height / 2;
    for (int band = 0; band < 8; ++band) {
        const int x = (2 * band + 1) * width / 16;
        const uint8_t* p =
            pixels + static_cast<ptrdiff_t>(y) * stride + static_cast<ptrdiff_t>(x) * bytesPerPixel;
        const int level = (p[0] + p[1] + p[2]) / 3;
        if (level > 160) {
            value |= 1 << band;
        } else if (level > 90) {
            return -1;  // neither black nor white
        }
    }
    return value;
}

}  // namespace lxtest
