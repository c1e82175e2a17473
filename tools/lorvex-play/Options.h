// Options.h - lorvex-play's command line: what it asks for, and the reading of it.
#ifndef LORVEX_PLAY_OPTIONS_H
#define LORVEX_PLAY_OPTIONS_H

#include <map>
#include <string>
#include <vector>

extern const char* const kUsage;

/// What a Sound node sets on the audio port it is handed.
struct SoundSettings {
    float gain = 1.0f;
    float location[3] = {0, 0, 0};
    bool hasLocation = false;
    float priority = 0.5f;
};

struct ClipOptions {
    std::string file;
    std::string label;                  // how messages name it: the file, or a world's node
    bool absolute = false;              // start and stop are scene times (a world's), not offsets from now
    std::vector<SoundSettings> sounds;  // a world's Sound nodes; a plain clip has its own one
    double start = 0.0;
    double stop = -1.0;
    bool hasStop = false;
    bool loop = false;
    float rate = 1.0f;
    float gain = 1.0f;
    float location[3] = {0, 0, 0};
    bool hasLocation = false;
    float priority = 0.5f;
};

struct Options {
    bool help = false;   // -h, --help: print the usage and stop
    bool quiet = false;  // -q, --quiet
    std::string output = "wav:lorvex-out.wav";
    int channels = -1;
    double runTime = -1.0;
    bool verbose = false;
    double volume = 1.0;
    std::string soundFont;
    bool listDevices = false;
    std::string framesDir;
    double frameRate = 10.0;
    std::string contactSheet;
    std::vector<ClipOptions> clips;
    std::vector<std::string> worlds;
    std::map<std::string, double> startAt;  // --at
    bool hasViewpoint = false;
    float viewpoint[3] = {0, 0, 0};
};

/// Prints "lorvex-play: " and the message on standard error, as one line.
void fail(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Reads the command line into options; false, with the reason said by fail(), for a mistake.
/// Never exits: --help only sets options->help.
bool parseArgs(int argc, char** argv, Options* options, bool* showVersion);

#endif  // LORVEX_PLAY_OPTIONS_H
