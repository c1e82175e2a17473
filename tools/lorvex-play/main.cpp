// lorvex-play: plays clips the way a 3D-scene browser does, through the Lorvex library.
//
// Every clip gets a player from the manager's factory and an LxVrmlSupport that applies the
// clip's startTime, stopTime, loop and rate, exactly as a browser's AudioClip or MovieTexture
// node would; its audio port is handed to a Sound-node stand-in that sets gain, location and
// priority. Sound goes to a WAV file (the default), an ALSA device or nowhere.
#include "Lorvex.h"
#include "LxAudioOutputPort.h"
#include "LxConnectable.h"
#include "LxDataSource.h"
#include "LxPlatformSound.h"

#include "FrameWriter.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

const char* const kUsage =
    "usage: lorvex-play [options] [clip options] CLIP [[clip options] CLIP ...]\n"
    "\n"
    "Plays each CLIP (WAVE, MIDI, MPEG, QuickTime ...) as a scene node would.\n"
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
    "      --version         print the library version and exit\n"
    "\n"
    "Clip options (apply to the next CLIP):\n"
    "  --start SECONDS       startTime relative to now (may be negative: joins late)\n"
    "  --stop SECONDS        stopTime relative to now\n"
    "  --loop                loop the clip\n"
    "  --rate R              playback rate (pitch and speed)\n"
    "  --gain G              linear gain 0..1 (default 1)\n"
    "  --location X,Y,Z      3D position of the sound\n"
    "  --priority P          priority in the channel arbitration (default 0.5)\n";

struct ClipOptions {
    std::string file;
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
    std::string output = "wav:lorvex-out.wav";
    int channels = -1;
    double runTime = -1.0;
    bool verbose = false;
    std::string framesDir;
    double frameRate = 10.0;
    std::string contactSheet;
    std::vector<ClipOptions> clips;
};

std::mutex gPrintMutex;

void printLine(const char* format, ...) __attribute__((format(printf, 1, 2)));
void printLine(const char* format, ...) {
    std::lock_guard<std::mutex> guard(gPrintMutex);
    va_list args;
    va_start(args, format);
    std::vfprintf(stdout, format, args);
    va_end(args);
    std::fflush(stdout);
}

void fail(const char* format, ...) __attribute__((format(printf, 1, 2)));
void fail(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::fputs("lorvex-play: ", stderr);
    std::vfprintf(stderr, format, args);
    std::fputc('\n', stderr);
    va_end(args);
}

bool parseDouble(const char* text, double* out) {
    char* end = nullptr;
    *out = std::strtod(text, &end);
    return end != text && *end == '\0' && std::isfinite(*out);
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
        double number = 0;
        if (arg == "--version") {
            *showVersion = true;
        } else if (arg == "-h" || arg == "--help") {
            std::fputs(kUsage, stdout);
            std::exit(0);
        } else if (arg == "-v" || arg == "--verbose") {
            options->verbose = true;
        } else if (arg == "-o" || arg == "--output") {
            const char* v = value("--output");
            if (v == nullptr) {
                return false;
            }
            options->output = v;
        } else if (arg == "-c" || arg == "--channels" || arg == "-t" || arg == "--time" || arg == "--start" ||
                   arg == "--stop" || arg == "--rate" || arg == "--gain" || arg == "--priority" ||
                   arg == "--frame-rate") {
            const char* v = value(arg.c_str());
            if (v == nullptr) {
                return false;
            }
            if (!parseDouble(v, &number)) {
                fail("%s: not a number: %s", arg.c_str(), v);
                return false;
            }
            if (arg == "-c" || arg == "--channels") {
                options->channels = static_cast<int>(number);
            } else if (arg == "-t" || arg == "--time") {
                options->runTime = number;
            } else if (arg == "--start") {
                next.start = number;
            } else if (arg == "--stop") {
                next.stop = number;
                next.hasStop = true;
            } else if (arg == "--rate") {
                next.rate = static_cast<float>(number);
            } else if (arg == "--gain") {
                next.gain = static_cast<float>(number);
            } else if (arg == "--priority") {
                next.priority = static_cast<float>(number);
            } else {
                options->frameRate = number > 0 ? number : 10.0;
            }
        } else if (arg == "--loop") {
            next.loop = true;
        } else if (arg == "--location") {
            const char* v = value("--location");
            if (v == nullptr ||
                std::sscanf(v, "%f,%f,%f", &next.location[0], &next.location[1], &next.location[2]) != 3) {
                fail("--location needs X,Y,Z");
                return false;
            }
            next.hasLocation = true;
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
        } else {
            next.file = arg;
            options->clips.push_back(next);
            next = ClipOptions();
        }
    }
    return true;
}

const char* stateName(LxNode::LxNodeState s) {
    static const char* const names[] = {"DEAD",        "UNINITIALIZED", "INITIALIZING", "STOPPED",
                                        "PREFETCHING", "PREFETCHED",    "STARTED"};
    return (s >= 0 && s <= 6) ? names[s] : "?";
}

// One clip on its way through the library: the player, its scene-node support, a Sound-node
// stand-in that receives the audio port, and what the player reported.
class Clip : public LxEventListener, public LxSoundNodeNotifier {
  public:
    Clip(const ClipOptions& o, int index, bool verbose) : options(o), index_(index), verbose_(verbose) {}

    void handleEvent(LxEvent* event) override {
        switch (event->getEventType()) {
            case LxInitializedEventType:
                initResult = static_cast<LxInitializedEvent*>(event)->getResult();
                initialized = true;
                break;
            case LxCatastrophicErrorEventType:
                errorCode = static_cast<LxCatastrophicErrorEvent*>(event)->getResult();
                break;
            case LxDurationChangedEventType:
                durationSeconds = static_cast<LxDurationChangedEvent*>(event)->getNewDuration().getValue();
                break;
            case LxStartEventType:
                started = true;
                break;
            case LxEndOfMediaEventType:
                ended = true;
                break;
            case LxStopAtTimeEventType:
                stoppedAtTime = true;
                break;
            default:
                break;
        }
        if (verbose_) {
            describe(event);
        }
    }

    void audioPortChanged(LxAudioOutputPort* newPort) override {
        port.store(newPort);
        if (newPort == nullptr) {
            return;
        }
        newPort->setPriority(options.priority);
        if (options.hasLocation) {
            newPort->setSoundLocation(options.location);
        }
        newPort->setGain(options.gain);
    }

    /// Played to an end that needs nothing more: its end of media or its stop time, or it failed.
    bool finished() const {
        return errorCode.load() != 0 || stoppedAtTime.load() || (ended.load() && !options.loop);
    }

    ClipOptions options;
    LxPlayer* player = nullptr;
    std::unique_ptr<LxVrmlSupport> support;
    std::atomic<bool> initialized{false};
    std::atomic<long> initResult{0};
    std::atomic<long> errorCode{0};
    std::atomic<bool> started{false};
    std::atomic<bool> ended{false};
    std::atomic<bool> stoppedAtTime{false};
    std::atomic<double> durationSeconds{-1.0};
    std::atomic<LxAudioOutputPort*> port{nullptr};
    bool ready = false;
    LxVideoRenderer* video = nullptr;
    std::unique_ptr<FrameWriter> frames;

  private:
    void describe(LxEvent* event) {
        const char* name = "event";
        char detail[96] = "";
        switch (event->getEventType()) {
            case LxEndOfMediaEventType:
                name = "end of media";
                break;
            case LxDurationChangedEventType:
                name = "duration changed";
                std::snprintf(detail, sizeof detail, " %.3f -> %.3f s",
                              static_cast<LxDurationChangedEvent*>(event)->getOldDuration().getValue(),
                              static_cast<LxDurationChangedEvent*>(event)->getNewDuration().getValue());
                break;
            case LxPrefetchCompleteEventType:
                name = "prefetch complete";
                break;
            case LxStartEventType:
                name = "started";
                std::snprintf(detail, sizeof detail, " at media %.3f s",
                              static_cast<LxStartEvent*>(event)->getMediaTime().getValue());
                break;
            case LxActiveEventType:
                name = "active";
                break;
            case LxStopEventType:
                name = "stopped";
                break;
            case LxStopAtTimeEventType:
                name = "stopped at its stop time";
                break;
            case LxStopByRequestEventType:
                name = "stopped by request";
                break;
            case LxInitializedEventType:
                name = "initialized";
                std::snprintf(detail, sizeof detail, " (0x%lx)",
                              static_cast<LxInitializedEvent*>(event)->getResult());
                break;
            case LxShutdownEventType:
                name = "shut down";
                break;
            case LxSetGainEventType:
                name = "gain set";
                break;
            case LxCatastrophicErrorEventType: {
                const long code = static_cast<LxCatastrophicErrorEvent*>(event)->getResult();
                name = "error";
                std::snprintf(detail, sizeof detail, " 0x%lx: %s", code, LxResultDescription(code));
                break;
            }
        }
        printLine("[%d] %s: %s%s\n", index_, options.file.c_str(), name, detail);
    }

    int index_;
    bool verbose_;
};

bool configureOutput(const std::string& output) {
    if (output == "null") {
        LxPlatformSound::useNullOutput();
        return true;
    }
    if (output == "alsa" || output.rfind("alsa:", 0) == 0) {
        const std::string device = output.size() > 5 ? output.substr(5) : std::string();
        LxPlatformSound::useAlsa(device.empty() ? nullptr : device.c_str());
        return true;
    }
    if (output.rfind("wav:", 0) == 0 && output.size() > 4) {
        const std::string path = output.substr(4);
        FILE* probe = std::fopen(path.c_str(), "wb");  // the sink writes here once sound starts
        if (probe == nullptr) {
            fail("cannot write the output file %s: %s", path.c_str(), std::strerror(errno));
            return false;
        }
        std::fclose(probe);
        LxPlatformSound::useWavFile(path.c_str());
        return true;
    }
    fail("unusable output '%s' (use wav:FILE, alsa[:DEVICE] or null)", output.c_str());
    return false;
}

double now(LxManager* manager) {
    return manager->getMasterTimeBase()->getRefTime().getValue();
}

// Applies the clip's fields in one batch, as a browser's event cascade does.
void applyFields(Clip& clip, LxManager* manager) {
    const double t = now(manager);
    LxVrmlSupport& s = *clip.support;
    s.beginChangingFields(LxTime(t));
    s.setLoop(clip.options.loop ? 1 : 0);
    s.setRate(clip.options.rate);
    if (clip.options.hasStop) {
        s.setStopTime(LxTime(t + clip.options.stop));
    }
    s.setStartTime(LxTime(t + clip.options.start));
    s.doneChangingFields();
}

std::string progressText(Clip& clip) {
    char line[160];
    const LxNode::LxNodeState state = clip.player->getState();
    const double media = clip.player->getMediaTime().getValue();
    LxAudioOutputPort* port = clip.port.load();
    const char* channel = port == nullptr ? "no audio" : (port->hasChannel() ? "channel" : "waiting");
    std::snprintf(line, sizeof line, "%s %s %.1f/%.1f s %s", clip.options.file.c_str(), stateName(state),
                  media, clip.durationSeconds.load(), channel);
    return line;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    bool showVersion = false;
    if (!parseArgs(argc, argv, &options, &showVersion)) {
        return 2;
    }
    if (showVersion) {
        long major = 0;
        long minor = 0;
        LxGetVersion(&major, &minor);
        std::printf("lorvex-play: Lorvex interface %ld.%ld, thread services 1.16 %s\n", major, minor,
                    KtCheckVersion(1, 16) ? "supported" : "not supported");
        return 0;
    }
    if (options.clips.empty()) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    for (const ClipOptions& c : options.clips) {
        struct stat st;
        if (stat(c.file.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
            fail("cannot open %s: %s", c.file.c_str(), errno != 0 ? std::strerror(errno) : "not a file");
            return 1;
        }
    }
    if (!options.framesDir.empty() && ::mkdir(options.framesDir.c_str(), 0755) != 0 && errno != EEXIST) {
        fail("cannot make the frames folder %s: %s", options.framesDir.c_str(), std::strerror(errno));
        return 1;
    }
    if (!configureOutput(options.output)) {
        return 1;
    }

    KtDefaultThreadManager threads;
    LxManager* manager = LxManager::createManager(&threads);
    if (manager == nullptr) {
        fail("cannot create the manager");
        return 1;
    }
    LxWin32Window window;
    manager->setWindow(&window);
    // Sounds are placed in 3D, as a browser's Sound nodes are; the mixer takes this setting only
    // before audio starts.
    manager->setSpatializeSounds(1);
    const long started = manager->initSubSystem(INIT_TIMERS | INIT_AUDIO | INIT_VIDEO);
    if (started != LX_OK) {
        fail("cannot start the media sub-systems: %s (0x%lx)", LxResultDescription(started), started);
        manager->closeManager();
        return 1;
    }
    if (options.channels > 0) {
        manager->setMaxAudioChannels(static_cast<short>(options.channels));
    }

    std::vector<std::unique_ptr<Clip>> clips;
    std::vector<std::unique_ptr<LxFilenameDataSource>> sources;
    for (size_t i = 0; i < options.clips.size(); ++i) {
        clips.emplace_back(new Clip(options.clips[i], static_cast<int>(i), options.verbose));
        Clip& clip = *clips.back();
        sources.emplace_back(new LxFilenameDataSource(clip.options.file.c_str()));
        if (manager->createPlayer(sources.back().get(), &clip.player) != LX_OK || clip.player == nullptr) {
            fail("%s: no player for content type %s", clip.options.file.c_str(),
                 sources.back()->getContentName());
            clip.errorCode = LX_ERR_UNSUPPORTED;
            clip.player = nullptr;
            continue;
        }
        clip.player->setEventListener(static_cast<LxEventListener*>(&clip));
        clip.support.reset(new LxVrmlSupport(clip.player, manager));
        clip.support->addSoundNode(&clip);
    }

    // Each player initialises on its own thread; a clip that neither initialises nor fails within
    // 15 s counts as failed.
    const auto begin = std::chrono::steady_clock::now();
    auto elapsed = [&] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    };
    for (auto& c : clips) {
        while (c->player != nullptr && !c->initialized.load() && c->errorCode.load() == 0 &&
               elapsed() < 15.0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            if (!c->initialized.load() && c->player->getState() == LxNode::DEAD) {
                // Failed before its events could be followed (the error event came first).
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
                if (c->errorCode.load() == 0) {
                    c->errorCode = LX_ERR_UNSUPPORTED;
                }
            }
        }
        if (c->player == nullptr || c->errorCode.load() != 0) {
            continue;
        }
        if (!c->initialized.load()) {
            fail("%s: the player did not initialise", c->options.file.c_str());
            c->errorCode = LX_ERR_GENERIC;
            continue;
        }
        const long r = c->support->finishInitializingPlayer();
        if (r != LX_OK) {
            fail("%s: cannot connect the player: %s (0x%lx)", c->options.file.c_str(), LxResultDescription(r),
                 r);
            c->errorCode = r;
            continue;
        }
        c->ready = true;
        c->video = c->support->getVideoRenderer();
        if (c->video != nullptr && !options.framesDir.empty()) {
            c->frames.reset(new FrameWriter(options.framesDir, static_cast<int>(&c - &clips[0])));
        }
        applyFields(*c, manager);
    }

    bool anyLoop = false;
    for (auto& c : clips) {
        anyLoop = anyLoop || (c->ready && c->options.loop);
    }
    double runTime = options.runTime;
    if (runTime < 0 && anyLoop) {
        runTime = 10.0;
    }
    const bool tty = isatty(STDOUT_FILENO) != 0;
    const auto playBegin = std::chrono::steady_clock::now();
    auto playing = [&] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - playBegin).count();
    };
    const double framePeriod = 1.0 / options.frameRate;
    double nextFrame = 0.0;
    double nextProgress = 0.0;
    for (;;) {
        bool allDone = true;
        for (auto& c : clips) {
            if (c->ready && !c->finished()) {
                allDone = false;
            }
        }
        if (allDone || (runTime >= 0 && playing() >= runTime) || playing() > 6 * 3600.0) {
            break;
        }
        if (playing() >= nextFrame) {
            nextFrame += framePeriod;
            for (auto& c : clips) {
                if (c->frames && c->ready) {
                    c->frames->paint(c->video, c->player->getMediaTime());
                }
            }
        }
        if (tty && playing() >= nextProgress) {
            nextProgress += 0.2;
            std::string line;
            for (auto& c : clips) {
                if (c->ready) {
                    line += (line.empty() ? "" : " | ") + progressText(*c);
                }
            }
            printLine("\r%-100.100s", line.c_str());
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (tty) {
        printLine("\n");
    }

    // Summary, then everything is taken down in the order a browser leaving the scene would.
    int failures = 0;
    printLine("lorvex-play: %s\n", LxPlatformSound::describeOutput().c_str());
    for (auto& c : clips) {
        const long code = c->errorCode.load();
        long dropped = -1;  // unknown without a video output
        LxOutputConnectable* videoOut = nullptr;
        if (c->player != nullptr && c->player->getOutputConnectable("Video", &videoOut) == LX_OK) {
            if (auto* v = dynamic_cast<LxVideoOutputConnectable*>(videoOut)) {
                dropped = v->getDroppedFrames();
            }
        }
        if (code != 0 || !c->ready) {
            ++failures;
            printLine("  %s: FAILED: %s (0x%lx)\n", c->options.file.c_str(),
                      LxResultDescription(code != 0 ? code : LX_ERR_GENERIC),
                      code != 0 ? code : LX_ERR_GENERIC);
            continue;
        }
        const double media = c->player->getMediaTime().getValue();
        const char* how = c->ended.load()           ? "played to its end"
                          : c->stoppedAtTime.load() ? "stopped at its stop time"
                          : c->started.load()       ? "playing when stopped"
                                                    : "never started";
        if (!c->started.load() && !c->ended.load()) {
            ++failures;
        }
        printLine("  %s: %s (duration %.3f s, media time %.3f s)", c->options.file.c_str(), how,
                  c->durationSeconds.load(), media);
        if (c->frames) {
            printLine(", %d frames painted", c->frames->painted());
        }
        if (dropped >= 0) {
            printLine(", %ld frames dropped", dropped);
        }
        printLine("\n");
    }
    for (auto& c : clips) {
        if (c->frames && !options.contactSheet.empty()) {
            c->frames->writeContactSheet(options.contactSheet);
        }
        c->frames.reset();
        if (c->support) {
            c->support->stop();
            c->support.reset();  // destroys the player through the manager
        } else if (c->player != nullptr) {
            manager->destroyPlayer(c->player);
        }
    }
    manager->closeManager();
    printLine("lorvex-play: %d clip%s, %d failed\n", static_cast<int>(clips.size()),
              clips.size() == 1 ? "" : "s", failures);
    return failures == 0 ? 0 : 1;
}
