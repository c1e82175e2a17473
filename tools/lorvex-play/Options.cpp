// Options.cpp - lorvex-play's command line (see Options.h).
#include "Options.h"

#include "VrmlWorld.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

const char* const kUsage =
    "usage: lorvex-play [options] [clip options] CLIP [[clip options] CLIP ...]\n"
    "       lorvex-play [options] WORLD.wrl\n"
    "\n"
    "Plays each CLIP (WAVE, MIDI, MPEG, QuickTime ...) as a scene node would, or the sounds and\n"
    "movies of a VRML97 world (.wrl, .wrl.gz) as a browser's media core does when it loads.\n"
    "\n"
    "Options:\n"
    "  -o, --output WHERE    wav:FILE (default wav:lorvex-out.wav), alsa[:DEVICE] or null\n"
    "  -c, --channels N      at most N sampled sounds at once (default: automatic, 64)\n"
    "  -t, --time SECONDS    stop everything after this run time (default: when all clips\n"
    "                        have ended; 10 s when a clip loops)\n"
    "      --frames DIR      write the video frames a browser would paint as PNG files\n"
    "      --frame-rate FPS  rate at which frames are painted (default 10)\n"
    "      --contact-sheet F one PNG with all painted frames side by side\n"
    "  -v, --verbose         print the players' events as they arrive\n"
    "  -q, --quiet           print nothing but errors\n"
    "      --volume V        master volume 0..1, applied to every sound (default 1)\n"
    "      --soundfont FILE  General MIDI SoundFont for MIDI clips (default: the system's)\n"
    "      --list-devices    list the ALSA output devices and exit\n"
    "      --version         print the library version and the backends built in, and exit\n"
    "\n"
    "World options:\n"
    "      --at NAME=SECONDS startTime of the AudioClip or MovieTexture DEF'd NAME: load time\n"
    "                        plus SECONDS, as a sensor's route would set it (repeatable)\n"
    "      --viewpoint X,Y,Z put the listener here instead of at the first Viewpoint\n"
    "\n"
    "Clip options (apply to the next CLIP):\n"
    "  --start SECONDS       startTime relative to now (may be negative: joins late)\n"
    "  --stop SECONDS        stopTime relative to now\n"
    "  --loop                loop the clip\n"
    "  --rate R              playback rate (pitch and speed)\n"
    "  --gain G              linear gain 0..1 (default 1)\n"
    "  --location X,Y,Z      3D position of the sound\n"
    "  --priority P          priority in the channel arbitration (default 0.5)\n"
    "\n"
    "Exit status: 0 when every clip played; 1 when a clip failed, a world could not be read\n"
    "or the output could not be opened; 2 for a mistake on the command line; 130 or 143\n"
    "when stopped by Ctrl-C or SIGTERM (the output file is complete up to there).\n"
    "See docs/lorvex-play.md for examples.\n";

namespace {

bool parseDouble(const char* text, double* out) {
    char* end = nullptr;
    errno = 0;
    *out = std::strtod(text, &end);
    return end != text && *end == '\0' && errno == 0 && std::isfinite(*out);
}

// The numeric options with the ranges the library can take: a value outside is refused at once
// rather than wrapped or clamped somewhere inside (a channel count of 1e10 does not fit a short).
struct NumericOption {
    const char* shortName;
    const char* name;
    double low;
    double high;
    bool integer;
};
const NumericOption kNumericOptions[] = {
    {"-c", "--channels", 1, 1024, true}, {"-t", "--time", 0, 86400, false},
    {"", "--start", -1e6, 1e6, false},   {"", "--stop", -1e6, 1e6, false},
    {"", "--rate", 0.01, 100, false},    {"", "--gain", 0, 1, false},
    {"", "--priority", 0, 1, false},     {"", "--frame-rate", 0.1, 1000, false},
    {"", "--volume", 0, 1, false},
};

}  // namespace

void fail(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::fputs("lorvex-play: ", stderr);
    std::vfprintf(stderr, format, args);
    std::fputc('\n', stderr);
    va_end(args);
}

bool parseArgs(int argc, char** argv, Options* options, bool* showVersion) {
    ClipOptions next;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&](const char* name) -> const char* {
            if (i + 1 >= argc) {
                fail("%s needs a value", name);
                return nullptr;
            }
            return argv[++i];
        };
        const NumericOption* numeric = nullptr;
        for (const NumericOption& o : kNumericOptions) {
            if (arg == o.name || (o.shortName[0] != '\0' && arg == o.shortName)) {
                numeric = &o;
            }
        }
        if (numeric != nullptr) {
            const char* v = value(numeric->name);
            if (v == nullptr) {
                return false;
            }
            double number = 0;
            if (!parseDouble(v, &number)) {
                fail("%s: not a number: %s", numeric->name, v);
                return false;
            }
            if (number < numeric->low || number > numeric->high ||
                (numeric->integer && number != std::floor(number))) {
                fail("%s: %s is out of range (%s %g to %g)", numeric->name, v,
                     numeric->integer ? "a whole number from" : "from", numeric->low, numeric->high);
                return false;
            }
            const std::string name = numeric->name;
            if (name == "--channels") {
                options->channels = static_cast<int>(number);
            } else if (name == "--time") {
                options->runTime = number;
            } else if (name == "--start") {
                next.start = number;
            } else if (name == "--stop") {
                next.stop = number;
                next.hasStop = true;
            } else if (name == "--rate") {
                next.rate = static_cast<float>(number);
            } else if (name == "--gain") {
                next.gain = static_cast<float>(number);
            } else if (name == "--priority") {
                next.priority = static_cast<float>(number);
            } else if (name == "--volume") {
                options->volume = number;
            } else {
                options->frameRate = number;
            }
        } else if (arg == "--version") {
            *showVersion = true;
        } else if (arg == "-h" || arg == "--help") {
            options->help = true;
            return true;
        } else if (arg == "-v" || arg == "--verbose") {
            options->verbose = true;
        } else if (arg == "-q" || arg == "--quiet") {
            options->quiet = true;
        } else if (arg == "--list-devices") {
            options->listDevices = true;
        } else if (arg == "--soundfont") {
            const char* v = value("--soundfont");
            struct stat st;
            if (v == nullptr || stat(v, &st) != 0 || !S_ISREG(st.st_mode)) {
                fail("--soundfont: cannot read %s", v == nullptr ? "(nothing)" : v);
                return false;
            }
            options->soundFont = v;
        } else if (arg == "-o" || arg == "--output") {
            const char* v = value("--output");
            if (v == nullptr) {
                return false;
            }
            options->output = v;
        } else if (arg == "--loop") {
            next.loop = true;
        } else if (arg == "--location") {
            const char* v = value("--location");
            char extra = 0;
            if (v == nullptr ||
                std::sscanf(v, "%f,%f,%f%c", &next.location[0], &next.location[1], &next.location[2],
                            &extra) != 3 ||
                !std::all_of(next.location, next.location + 3,
                             [](float x) { return std::isfinite(x) && std::fabs(x) <= 1e6f; })) {
                fail("--location needs X,Y,Z (each within +-1e6)");
                return false;
            }
            next.hasLocation = true;
        } else if (arg == "--at") {
            const char* v = value("--at");
            const char* eq = v == nullptr ? nullptr : std::strrchr(v, '=');
            double seconds = 0;
            if (eq == nullptr || eq == v || !parseDouble(eq + 1, &seconds) || std::fabs(seconds) > 1e6) {
                fail("--at needs NAME=SECONDS");
                return false;
            }
            options->startAt[std::string(v, eq)] = seconds;
        } else if (arg == "--viewpoint") {
            const char* v = value("--viewpoint");
            char extra = 0;
            float* p = options->viewpoint;
            if (v == nullptr || std::sscanf(v, "%f,%f,%f%c", &p[0], &p[1], &p[2], &extra) != 3 ||
                !std::all_of(p, p + 3, [](float x) { return std::isfinite(x) && std::fabs(x) <= 1e6f; })) {
                fail("--viewpoint needs X,Y,Z (each within +-1e6)");
                return false;
            }
            options->hasViewpoint = true;
        } else if (arg == "--frames") {
            const char* v = value("--frames");
            if (v == nullptr) {
                return false;
            }
            options->framesDir = v;
        } else if (arg == "--contact-sheet") {
            const char* v = value("--contact-sheet");
            if (v == nullptr) {
                return false;
            }
            options->contactSheet = v;
        } else if (!arg.empty() && arg[0] == '-' && arg.size() > 1) {
            fail("unknown option %s (try --help)", arg.c_str());
            return false;
        } else if (isWorldFile(arg)) {
            options->worlds.push_back(arg);
            next = ClipOptions();
        } else {
            next.file = arg;
            next.label = arg;
            options->clips.push_back(next);
            next = ClipOptions();
        }
    }
    return true;
}
