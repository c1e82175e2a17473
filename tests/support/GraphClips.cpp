#include "GraphClips.h"

#include "TestSupport.h"

#include <sys/stat.h>
#include <unistd.h>
#include <cstddef>
#include <cstdio>
#include <random>

namespace lxtest {

namespace {

const char* kCounter = "geq=lum='if(bitand(N\\,pow(2\\,floor(X*8/W)))\\,235\\,16)':cb=128:cr=128";

bool exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && st.st_size > 0;
}

std::string clipDir() {
    mkdir("clips", 0755);
    char cwd[4096];
    const std::string base = getcwd(cwd, sizeof cwd) != nullptr ? std::string(cwd) : std::string(".");
    return base + "/clips";
}

/// Makes path with command (which writes to the file named by its last argument, a temporary
/// name) unless it exists; renamed into place so that parallel tests never see half a file.
std::string make(const std::string& name, const std::string& command) {
    const std::string path = clipDir() + "/" + name;
    if (exists(path)) {
        return path;
    }
    if (!haveTool("ffmpeg")) {
        return std::string();
    }
    const std::string tmp = path + ".tmp" + std::to_string(getpid()) + name.substr(name.rfind('.'));
    if (run(command + " '" + tmp + "'") != 0 || std::rename(tmp.c_str(), path.c_str()) != 0) {
        std::remove(tmp.c_str());
        return std::string();
    }
    return path;
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

const std::string kFfmpeg = "ffmpeg -nostdin -v error -y ";

std::string cut(const std::string& name, const std::string& from, double fraction) {
    const std::string path = clipDir() + "/" + name;
    if (exists(path)) {
        return path;
    }
    if (from.empty()) {
        return std::string();
    }
    const std::string bytes = readFile(from);
    const std::string tmp = path + ".tmp" + std::to_string(getpid());
    if (!writeFile(tmp, bytes.substr(0, static_cast<size_t>(bytes.size() * fraction))) ||
        std::rename(tmp.c_str(), path.c_str()) != 0) {
        return std::string();
    }
    return path;
}

}  // namespace

Clip mpeg1Clip() {
    return {make("counter.mpg", kFfmpeg + video(2) + " " + tone(2) +
                                    " -ac 2 -c:v mpeg1video -q:v 2 -g 12 -c:a mp2 -b:a 192k -f mpeg"),
            2.0,
            50,
            160,
            120,
            25.0};
}

Clip mp3Clip() {
    return {make("tone.mp3", kFfmpeg + tone(3) + " -ac 2 -c:a libmp3lame -b:a 128k -f mp3"), 3.0, 0, 0, 0, 0};
}

Clip movVideoClip() {
    return {
        make("counter.mov", kFfmpeg + video(2) + " -c:v mpeg4 -q:v 2 -g 12 -f mov"), 2.0, 50, 160, 120, 25.0};
}

Clip mp4CounterClip() {
    return {make("counter.mp4", kFfmpeg + video(4) + " " + tone(4) +
                                    " -ac 2 -c:v mpeg4 -q:v 2 -g 12 -c:a aac -b:a 128k -f mp4"),
            4.0,
            100,
            160,
            120,
            25.0};
}

Clip corruptClip() {
    const std::string path = clipDir() + "/noise.mpg";
    if (!exists(path)) {
        std::mt19937 random(1234);
        std::string bytes(65536, '\0');
        for (char& c : bytes) {
            c = static_cast<char>(random() & 0xFF);
        }
        writeFile(path, bytes);
    }
    return {path, 0, 0, 0, 0, 0};
}

Clip truncatedMovClip() {
    return {cut("cut.mov", movVideoClip().path, 0.4), 0, 0, 0, 0, 0};
}

Clip truncatedMpegClip() {
    return {cut("cut.mpg", mpeg1Clip().path, 0.6), 1.2, 30, 160, 120, 25.0};
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
