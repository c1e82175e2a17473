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
#include "LxPlatformMidi.h"
#include "LxPlatformSound.h"

#include "FrameWriter.h"
#include "Options.h"
#include "VrmlWorld.h"

#ifdef LORVEX_PLAY_ALSA
#include <alsa/asoundlib.h>
#endif
#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

std::mutex gPrintMutex;
bool gQuiet = false;   // --quiet: nothing on standard output
float gVolume = 1.0f;  // --volume: every Sound node's gain is scaled by it

void printLine(const char* format, ...) __attribute__((format(printf, 1, 2)));
void printLine(const char* format, ...) {
    std::lock_guard<std::mutex> guard(gPrintMutex);
    if (gQuiet) {
        return;
    }
    va_list args;
    va_start(args, format);
    std::vfprintf(stdout, format, args);
    va_end(args);
    std::fflush(stdout);
}

// A Sound-node stand-in: receives the audio port the scene support hands it and sets what the
// node's fields say.
class SoundNode : public LxSoundNodeNotifier {
  public:
    explicit SoundNode(const SoundSettings& s) : settings(s) {}

    void audioPortChanged(LxAudioOutputPort* newPort) override {
        port.store(newPort);
        if (newPort == nullptr) {
            return;
        }
        newPort->setPriority(settings.priority);
        if (settings.hasLocation) {
            newPort->setSoundLocation(settings.location);
        }
        newPort->setGain(settings.gain * gVolume);
    }

    SoundSettings settings;
    std::atomic<LxAudioOutputPort*> port{nullptr};
};

// One clip on its way through the library: the player, its scene-node support, the Sound nodes
// that receive its audio ports, and what the player reported.
class Clip : public LxEventListener {
  public:
    Clip(const ClipOptions& o, int index, bool verbose) : options(o), index_(index), verbose_(verbose) {
        if (!o.absolute) {
            SoundSettings own;
            own.gain = o.gain;
            own.priority = o.priority;
            own.hasLocation = o.hasLocation;
            std::copy(o.location, o.location + 3, own.location);
            sounds.emplace_back(new SoundNode(own));
        }
        for (const SoundSettings& s : o.sounds) {
            sounds.emplace_back(new SoundNode(s));
        }
    }

    /// The port of its first Sound node, or null.
    LxAudioOutputPort* port() const { return sounds.empty() ? nullptr : sounds.front()->port.load(); }

    /// Whether any of its ports still has sound to be heard.
    bool sounding() const {
        return std::any_of(sounds.begin(), sounds.end(), [](const std::unique_ptr<SoundNode>& n) {
            LxAudioOutputPort* p = n->port.load();
            return p != nullptr && p->isSounding() != 0;
        });
    }

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

    /// Played to an end that needs nothing more: its end of media or its stop time, or it failed.
    /// What it sent out may still be playing (see isSounding()).
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
    std::vector<std::unique_ptr<SoundNode>> sounds;
    bool ready = false;
    LxVideoRenderer* video = nullptr;
    std::unique_ptr<FrameWriter> frames;
    // Followed by the main thread only, in seconds of play time.
    double endSeenAt = -1;    // when finished() was first seen
    double lastMedia = -2;    // the media time at the last look
    double progressAt = 0;    // when it last made progress
    bool done = false;        // finished and heard, or given up on
    bool timePassed = false;  // a world's clip that ended before the world was loaded
    bool givenUp = false;     // ended by this tool: it could make no progress

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
        printLine("[%d] %s: %s%s\n", index_, options.label.c_str(), name, detail);
    }

    int index_;
    bool verbose_;
};

// Ctrl-C and SIGTERM are blocked in every thread (the library's threads inherit the mask from
// main) and taken synchronously by the main thread, which waits in sigtimedwait instead of a
// plain sleep: a signal then ends the run through the normal take-down, and the WAV file is
// finished, rather than killing the process in the middle of a write.
sigset_t gStopSignals;
int gStopSignal = 0;
bool gOutputFailed = false;  // a device the user named could not be opened

/// Waits up to ms milliseconds; true when a stop signal came (gStopSignal says which).
bool pauseFor(long ms) {
    if (gStopSignal != 0) {
        return true;
    }
    struct timespec wait = {ms / 1000, (ms % 1000) * 1000000L};
    const int sig = sigtimedwait(&gStopSignals, nullptr, &wait);
    if (sig > 0) {
        gStopSignal = sig;
        return true;
    }
    return false;
}

/// Many clips at once need many descriptors (files, sound and graph threads' pipes).
void raiseFileLimit() {
    struct rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
            limit.rlim_cur = 65536;  // an unlimited hard limit may exceed the kernel's ceiling
            setrlimit(RLIMIT_NOFILE, &limit);
        }
    }
}

/// True when path names the same file as one of the clips (also through links), so that writing
/// there would destroy an input.
bool isAnInput(const std::string& path, const std::vector<ClipOptions>& clips) {
    struct stat out;
    if (path.empty() || stat(path.c_str(), &out) != 0) {
        return false;
    }
    for (const ClipOptions& c : clips) {
        struct stat in;
        if (stat(c.file.c_str(), &in) == 0 && in.st_dev == out.st_dev && in.st_ino == out.st_ino) {
            return true;
        }
    }
    return false;
}

bool configureOutput(const Options& options) {
    const std::string& output = options.output;
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
        if (isAnInput(path, options.clips)) {
            fail("the output file %s is one of the clips; refusing to overwrite it", path.c_str());
            return false;
        }
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

/// False, with the reason said once, when the output is an ALSA device that could not be opened:
/// a device the user named is an error; the default one falls back to a null output and goes on.
bool outputUsable(const Options& options) {
    static bool said = false;
    const std::string& output = options.output;
    if (output.rfind("alsa", 0) != 0 || said) {
        return true;
    }
    if (LxPlatformSound::outputFailed()) {
        said = true;
        fail("cannot open the ALSA device %s: %s", output.substr(5).c_str(),
             LxPlatformSound::describeOutput().c_str());
        return false;
    }
    if (LxPlatformSound::describeOutput().find("null output") != std::string::npos) {
        said = true;
        fail("no ALSA device; playing into a null output");
    }
    return true;
}

double now(LxManager* manager) {
    return manager->getMasterTimeBase()->getRefTime().getValue();
}

// Applies the clip's fields in one batch, as a browser's event cascade does; t is the scene's
// now, the same for every clip so that their start and stop times keep their distances. A plain
// clip's times count from t (with no start-up latency, --start -1.3 is heard from 1.3 s into the
// clip); a world's are scene times already.
void applyFields(Clip& clip, double t) {
    LxVrmlSupport& s = *clip.support;
    const double base = clip.options.absolute ? 0.0 : t;
    s.beginChangingFields(LxTime(t));
    s.setLoop(clip.options.loop ? 1 : 0);
    s.setRate(clip.options.rate);
    if (clip.options.hasStop) {
        s.setStopTime(LxTime(base + clip.options.stop));
    }
    s.setStartTime(LxTime(base + clip.options.start));
    s.doneChangingFields();
}

/// A world's clip that the scene's timing rules leave silent: not looping, and its startTime so
/// far past that it ended before the world was loaded.
bool endedBeforeLoad(const Clip& c, double sceneNow) {
    const double duration = c.durationSeconds.load();
    return c.options.absolute && !c.options.loop && c.options.start <= sceneNow && duration >= 0 &&
           (sceneNow - c.options.start) * c.options.rate >= duration;
}

std::string progressText(Clip& clip) {
    char line[160];
    const double media = clip.player->getMediaTime().getValue();
    LxAudioOutputPort* port = clip.port();
    const char* channel = port == nullptr ? "no audio" : (port->hasChannel() ? "channel" : "waiting");
    std::snprintf(line, sizeof line, "%s %.1f/%.1f s %s", clip.options.label.c_str(), media,
                  clip.durationSeconds.load(), channel);
    return line;
}

void reportFailure(const Clip& clip, const char* what, long code) {
    fail("%s: %s: %s (0x%lx)", clip.options.label.c_str(), what, LxResultDescription(code), code);
}

// A clip that makes no progress for this long is ended and counted as failed. Generous: under a
// sanitizer on a loaded machine a filter graph may take seconds to preroll.
constexpr double kStallSeconds = 10.0;

/// One look at a playing clip: notes its end, whether what it sent out has been heard, and
/// whether it is stuck. anotherHasChannel: some other clip's port holds a channel now.
void followClip(Clip& c, double t, double startIn, bool anotherHasChannel) {
    const double media = c.player->getMediaTime().getValue();
    if (media == -1.0 && c.errorCode.load() == 0) {
        c.errorCode = LX_ERR_PLAYER_DEAD;  // the player died without an error event
    }
    LxAudioOutputPort* port = c.port();
    const bool sounding = c.sounding();
    if (c.finished()) {
        if (c.endSeenAt < 0) {
            c.endSeenAt = t;
            if (c.errorCode.load() != 0) {
                reportFailure(c, "failed while playing", c.errorCode.load());
            }
        }
        // A resident clip reports its end as soon as it is loaded, a streaming one shortly before
        // its last sample: the end is only reached when the port has played everything out.
        const double bound = 5.0 + std::max(0.0, c.durationSeconds.load()) / c.options.rate;
        if (!sounding) {
            c.done = true;
        } else if (t - c.endSeenAt > bound) {
            fail("%s: still sounding %.1f s after its end; ended", c.options.label.c_str(), t - c.endSeenAt);
            c.done = c.givenUp = true;
        }
        return;
    }
    // Waiting is progress while the start time is still to come or another clip holds the
    // channel this one waits for; a port that waits while no other holds one waits for ever.
    const bool waitsForChannel = port != nullptr && port->hasChannel() == 0 && sounding;
    const bool due = t >= std::max(0.0, startIn) + 0.5;
    const bool moving = media != c.lastMedia && !(waitsForChannel && !anotherHasChannel);
    c.lastMedia = media;
    const double duration = c.durationSeconds.load();
    if (!c.options.loop && duration > 0 && media > duration + kStallSeconds) {
        fail("%s: no end of media at media time %.3f s of %.3f s; ended", c.options.label.c_str(), media,
             duration);
        c.done = c.givenUp = true;
    } else if (moving || !due || (waitsForChannel && anotherHasChannel)) {
        c.progressAt = t;
    } else if (t - c.progressAt > kStallSeconds) {
        fail("%s: no progress for %.0f s (%s at media time %.3f s); ended", c.options.label.c_str(),
             kStallSeconds,
             waitsForChannel    ? "waiting for a channel"
             : c.started.load() ? "started"
                                : "not started",
             media);
        c.done = c.givenUp = true;
    }
}

#ifdef LORVEX_PLAY_ALSA
constexpr bool kHaveAlsa = true;
#else
constexpr bool kHaveAlsa = false;
#endif
#ifdef LORVEX_PLAY_GSTREAMER
constexpr bool kHaveGStreamer = true;
#else
constexpr bool kHaveGStreamer = false;
#endif
#ifdef LORVEX_PLAY_FLUIDSYNTH
constexpr bool kHaveFluidSynth = true;
#else
constexpr bool kHaveFluidSynth = false;
#endif

/// --list-devices: the ALSA devices that take sound, as -o alsa:NAME names them.
int listDevices() {
#ifdef LORVEX_PLAY_ALSA
    void** hints = nullptr;
    if (snd_device_name_hint(-1, "pcm", &hints) != 0) {
        fail("cannot list the ALSA devices");
        return 1;
    }
    for (void** h = hints; *h != nullptr; ++h) {
        char* name = snd_device_name_get_hint(*h, "NAME");
        char* description = snd_device_name_get_hint(*h, "DESC");
        char* direction = snd_device_name_get_hint(*h, "IOID");
        if (name != nullptr && (direction == nullptr || std::strcmp(direction, "Output") == 0)) {
            std::string text = description != nullptr ? description : "";
            std::replace(text.begin(), text.end(), '\n', ' ');
            std::printf("alsa:%-30s %s\n", name, text.c_str());
        }
        std::free(name);
        std::free(description);
        std::free(direction);
    }
    snd_device_name_free_hint(hints);
    return 0;
#else
    fail("this lorvex-play was built without ALSA; it plays into WAV files or a null output");
    return 1;
#endif
}

std::string worldLabel(const WorldMedia& m) {
    return m.name.empty() ? m.type + " at " + m.where : m.name + " (" + m.type + ")";
}

bool gWorldFailed = false;  // a world could not be read at all

/// Reads the worlds named on the command line and adds each of their clips, with the Sound nodes
/// that place it, to the clips to play. The listener stands at the first world's Viewpoint.
/// False when nothing at all can be played.
bool loadWorlds(Options* options, LxManager* manager, std::vector<WorldMedia>* unplayable) {
    bool listenerSet = false;
    for (const std::string& path : options->worlds) {
        WorldOptions wo;
        wo.loadTime = now(manager);
        wo.startAt = options->startAt;
        wo.hasViewpoint = options->hasViewpoint;
        std::copy(options->viewpoint, options->viewpoint + 3, wo.viewpoint);
        World world;
        const bool read = readWorld(path, wo, &world);
        for (const std::string& m : world.messages) {
            fail("%s", m.c_str());
        }
        if (!read) {
            gWorldFailed = true;
            continue;
        }
        for (const std::string& name : world.unusedAt) {
            fail("--at %s: %s has no AudioClip or MovieTexture of that name", name.c_str(), path.c_str());
        }
        if (!listenerSet) {
            manager->setListenerLocation(world.listenerPosition, world.listenerUp, world.listenerFront);
            listenerSet = true;
        }
        for (const WorldMedia& m : world.media) {
            if (m.path.empty()) {
                fail("%s: %s: no url names a file", m.where.c_str(),
                     (m.name.empty() ? m.type : m.name + " (" + m.type + ")").c_str());
                unplayable->push_back(m);
                continue;
            }
            ClipOptions c;
            c.file = m.path;
            c.label = worldLabel(m) + " " + m.path;
            c.absolute = true;
            c.start = m.startTime;
            c.stop = m.stopTime;
            c.hasStop = true;
            c.loop = m.loop;
            // The player takes positive rates; a world may ask for a reversed or frozen movie.
            c.rate = std::min(100.0f, std::max(0.01f, std::fabs(m.rate)));
            if (c.rate != m.rate) {
                fail("%s: %s: rate %g played as %g", m.where.c_str(), worldLabel(m).c_str(), m.rate, c.rate);
            }
            for (const WorldSound& ws : m.sounds) {
                SoundSettings ss;
                ss.gain = ws.gain;
                ss.priority = ws.priority;
                ss.hasLocation = true;
                std::copy(ws.mixerLocation, ws.mixerLocation + 3, ss.location);
                c.sounds.push_back(ss);
            }
            options->clips.push_back(c);
        }
    }
    return !options->clips.empty() || !unplayable->empty();
}

typedef std::vector<std::unique_ptr<Clip>> Clips;

void printVersion() {
    long major = 0;
    long minor = 0;
    LxGetVersion(&major, &minor);
    std::printf("lorvex-play: Lorvex interface %ld.%ld, thread services 1.16 %s\n", major, minor,
                KtCheckVersion(1, 16) ? "supported" : "not supported");
    std::printf("lorvex-play: backends: ALSA %s, GStreamer %s, FluidSynth %s\n", kHaveAlsa ? "yes" : "no",
                kHaveGStreamer ? "yes" : "no", kHaveFluidSynth ? "yes" : "no");
    std::printf("lorvex-play: MIDI SoundFont %s\n", LxPlatformGetMidiSoundFont().c_str());
}

/// The exit status for a command line that names nothing to play or cannot be acted on, or -1
/// when the run can go ahead.
int checkInputs(const Options& options) {
    if (options.clips.empty() && options.worlds.empty()) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    if (options.worlds.empty() && (!options.startAt.empty() || options.hasViewpoint)) {
        fail("--at and --viewpoint apply to worlds only");
        return 2;
    }
    for (const ClipOptions& c : options.clips) {
        struct stat st;
        errno = 0;
        if (stat(c.file.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
            fail("cannot open %s: %s", c.file.c_str(), errno != 0 ? std::strerror(errno) : "not a file");
            return 1;
        }
    }
    if (isAnInput(options.contactSheet, options.clips)) {
        fail("the contact sheet %s is one of the clips; refusing to overwrite it",
             options.contactSheet.c_str());
        return 1;
    }
    if (!options.framesDir.empty() && ::mkdir(options.framesDir.c_str(), 0755) != 0 && errno != EEXIST) {
        fail("cannot make the frames folder %s: %s", options.framesDir.c_str(), std::strerror(errno));
        return 1;
    }
    return -1;
}

/// The manager with its sub-systems started and the worlds loaded (their clips added to
/// options); null when any of it failed, said already.
LxManager* startManager(KtDefaultThreadManager* threads, LxWin32Window* window, Options* options,
                        std::vector<WorldMedia>* unplayable) {
    LxManager* manager = LxManager::createManager(threads);
    if (manager == nullptr) {
        fail("cannot create the manager");
        return nullptr;
    }
    manager->setWindow(window);
    // Sounds are placed in 3D, as a browser's Sound nodes are; the mixer takes this setting only
    // before audio starts.
    manager->setSpatializeSounds(1);
    const long started = manager->initSubSystem(INIT_TIMERS | INIT_AUDIO | INIT_VIDEO);
    if (started != LX_OK) {
        fail("cannot start the media sub-systems: %s (0x%lx)", LxResultDescription(started), started);
        manager->closeManager();
        return nullptr;
    }
    if (!outputUsable(*options)) {
        manager->closeManager();
        return nullptr;
    }
    // The scene support starts a clip of 2 s or more the start-up latency into its media, to keep
    // it on the scene's clock while the output starts; a listener hears that as the clip's first
    // 0.1 s cut off. Here every clip is to be heard whole, from the point its start time names.
    manager->setStartUpLatency(LxTime(0.0));
    if (options->channels > 0) {
        manager->setMaxAudioChannels(static_cast<short>(options->channels));
    }
    if (!loadWorlds(options, manager, unplayable)) {
        manager->closeManager();
        return nullptr;
    }
    return manager;
}

/// A clip and its player (or its error) for every clip option.
void createPlayers(const Options& options, LxManager* manager, Clips* clips,
                   std::vector<std::unique_ptr<LxFilenameDataSource>>* sources) {
    for (size_t i = 0; i < options.clips.size(); ++i) {
        clips->emplace_back(new Clip(options.clips[i], static_cast<int>(i), options.verbose));
        Clip& clip = *clips->back();
        sources->emplace_back(new LxFilenameDataSource(clip.options.file.c_str()));
        if (manager->createPlayer(sources->back().get(), &clip.player) != LX_OK || clip.player == nullptr) {
            fail("%s: no player for content type %s", clip.options.label.c_str(),
                 sources->back()->getContentName());
            clip.errorCode = LX_ERR_UNSUPPORTED;
            clip.player = nullptr;
            continue;
        }
        clip.player->setEventListener(static_cast<LxEventListener*>(&clip));
        clip.support.reset(new LxVrmlSupport(clip.player, manager));
        for (auto& sound : clip.sounds) {
            clip.support->addSoundNode(sound.get());
        }
    }
}

/// Waits for every player's initialisation and connects the ready ones.
void initializePlayers(const Options& options, Clips& clips) {
    const auto begin = std::chrono::steady_clock::now();
    auto elapsed = [&] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    };
    // Each player initialises on its own thread, possibly before its listener was attached, so
    // its state is asked as well: the player answers once its initialisation is over. A clip
    // that neither initialises nor fails within 15 s counts as failed.
    for (auto& c : clips) {
        if (c->player == nullptr || gStopSignal != 0) {
            continue;
        }
        const LxNode::LxNodeState state = c->player->getState();
        if (state >= LxNode::STOPPED) {
            c->initialized = true;
        }
        while (!c->initialized.load() && c->errorCode.load() == 0 && elapsed() < 15.0 && !pauseFor(10)) {
            if (c->player->getMediaTime().getValue() == -1.0) {
                // Dead: its error event, if it comes, names the cause.
                const double deadline = elapsed() + 1.0;
                while (c->errorCode.load() == 0 && elapsed() < deadline && !pauseFor(10)) {
                }
                if (c->errorCode.load() == 0) {
                    c->errorCode = LX_ERR_PLAYER_DEAD;
                }
            }
        }
        if (c->errorCode.load() != 0) {
            reportFailure(*c, "cannot play it", c->errorCode.load());
            continue;
        }
        if (!c->initialized.load()) {
            if (gStopSignal == 0) {
                fail("%s: the player did not initialise", c->options.label.c_str());
                c->errorCode = LX_ERR_GENERIC;
            }
            continue;
        }
        const long r = c->support->finishInitializingPlayer();
        if (r != LX_OK) {
            reportFailure(*c, "cannot connect the player", r);
            c->errorCode = r;
            continue;
        }
        c->ready = true;
        c->video = c->support->getVideoRenderer();
        if (c->video != nullptr && !options.framesDir.empty()) {
            c->frames.reset(new FrameWriter(options.framesDir, static_cast<int>(&c - &clips[0])));
        }
    }
}

/// Follows the ready clips from the scene's time sceneNow until all are done, the run time is
/// over, a signal came or the output failed; paints frames and shows progress on a terminal.
void playClips(const Options& options, Clips& clips, double sceneNow, bool anyLoop) {
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
    while (gStopSignal == 0 && !gOutputFailed) {
        const double t = playing();
        if (runTime >= 0 && t >= runTime) {
            break;
        }
        bool allDone = true;
        for (auto& c : clips) {
            if (!c->ready || c->done) {
                continue;
            }
            bool anotherHasChannel = false;
            for (auto& o : clips) {
                LxAudioOutputPort* p = o->port();
                anotherHasChannel =
                    anotherHasChannel || (o != c && o->ready && p != nullptr && p->hasChannel());
            }
            if (endedBeforeLoad(*c, sceneNow) && !c->started.load()) {
                c->done = c->timePassed = true;
                continue;
            }
            followClip(*c, t, c->options.absolute ? c->options.start - sceneNow : c->options.start,
                       anotherHasChannel);
            allDone = allDone && c->done;
        }
        if (allDone) {
            break;
        }
        if (t >= nextFrame) {
            nextFrame += framePeriod;
            for (auto& c : clips) {
                if (c->frames && c->ready) {
                    c->frames->paint(c->video, c->player->getMediaTime());
                }
            }
        }
        if (tty && t >= nextProgress) {
            nextProgress += 0.2;
            std::string line;
            for (auto& c : clips) {
                if (c->ready) {
                    line += (line.empty() ? "" : " | ") + progressText(*c);
                }
            }
            printLine("\r%-100.100s", line.c_str());
        }
        pauseFor(5);
    }
    if (tty) {
        printLine("\n");
    }
}

/// One line for a clip that played; whether it counts as failed.
bool summarizeClip(Clip& c, double sceneNow) {
    long dropped = -1;  // unknown without a video output
    LxOutputConnectable* videoOut = nullptr;
    if (c.player->getOutputConnectable("Video", &videoOut) == LX_OK) {
        if (auto* v = dynamic_cast<LxVideoOutputConnectable*>(videoOut)) {
            dropped = v->getDroppedFrames();
        }
    }
    const double media = c.player->getMediaTime().getValue();
    const bool waited = c.options.absolute && !c.started.load() && c.options.start > sceneNow;
    const char* how = c.errorCode.load() != 0  ? "FAILED"
                      : c.timePassed           ? "silent: its time had passed when the world loaded"
                      : c.givenUp              ? "ended without progress"
                      : c.ended.load()         ? "played to its end"
                      : c.stoppedAtTime.load() ? "stopped at its stop time"
                      : c.started.load()       ? "playing when stopped"
                      : waited                 ? "waiting for its start time when stopped"
                                               : "never started";
    const bool failed = c.errorCode.load() != 0 || c.givenUp ||
                        (!c.started.load() && !c.ended.load() && !c.timePassed && !waited);
    printLine("  %s: %s (duration %.3f s, media time %.3f s)", c.options.label.c_str(), how,
              c.durationSeconds.load(), media);
    if (c.frames) {
        printLine(", %d frames painted", c.frames->painted());
    }
    if (dropped >= 0) {
        printLine(", %ld frames dropped", dropped);
    }
    printLine("\n");
    return failed;
}

/// Takes every clip down in the order a browser leaving the scene would, then the manager.
void takeDown(const Options& options, Clips& clips, LxManager* manager) {
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
}

}  // namespace

int main(int argc, char** argv) {
    // First of all, so that a signal that comes while the output is being set up is not lost.
    sigemptyset(&gStopSignals);
    sigaddset(&gStopSignals, SIGINT);
    sigaddset(&gStopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &gStopSignals, nullptr);
    Options options;
    bool showVersion = false;
    if (!parseArgs(argc, argv, &options, &showVersion)) {
        return 2;
    }
    if (options.help) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    gQuiet = options.quiet;
    if (!options.soundFont.empty()) {
        LxPlatformSetMidiSoundFont(options.soundFont.c_str());
    }
    gVolume = static_cast<float>(options.volume);
    if (showVersion) {
        printVersion();
        return 0;
    }
    if (options.listDevices) {
        return listDevices();
    }
    const int refused = checkInputs(options);
    if (refused >= 0) {
        return refused;
    }
    if (!configureOutput(options)) {
        return 1;
    }
    raiseFileLimit();

    KtDefaultThreadManager threads;
    LxWin32Window window;
    std::vector<WorldMedia> unplayable;  // a world's clips without a file, for the summary
    LxManager* manager = startManager(&threads, &window, &options, &unplayable);
    if (manager == nullptr) {
        return 1;
    }
    Clips clips;
    std::vector<std::unique_ptr<LxFilenameDataSource>> sources;
    createPlayers(options, manager, &clips, &sources);
    initializePlayers(options, clips);

    // The output device is opened when the first port gets a channel.
    if (!outputUsable(options)) {
        gOutputFailed = true;
    }

    // Every clip's fields at one moment of the scene's clock.
    const double sceneNow = now(manager);
    bool anyReady = false;
    bool anyLoop = false;
    for (auto& c : clips) {
        if (c->ready) {
            applyFields(*c, sceneNow);
        }
        anyReady = anyReady || c->ready;
        anyLoop = anyLoop || (c->ready && c->options.loop);
    }
    if (anyReady) {
        playClips(options, clips, sceneNow, anyLoop);
    }

    // Summary of the clips that played (those that could not start said so already).
    int failures = 0;
    if (anyReady) {
        printLine("lorvex-play: %s\n", LxPlatformSound::describeOutput().c_str());
    }
    for (const WorldMedia& m : unplayable) {
        printLine("  %s: no file for its url (%s)\n", worldLabel(m).c_str(),
                  m.urls.empty() ? "none given" : m.urls.front().c_str());
    }
    for (auto& c : clips) {
        if (!c->ready) {
            failures += gStopSignal == 0 ? 1 : 0;
        } else if (summarizeClip(*c, sceneNow)) {
            ++failures;
        }
    }
    takeDown(options, clips, manager);
    if (gStopSignal != 0) {
        fail("stopped by signal %d; the output is complete up to here", gStopSignal);
        return 128 + gStopSignal;
    }
    if (anyReady) {
        printLine("lorvex-play: %d clip%s, %d failed\n", static_cast<int>(clips.size()),
                  clips.size() == 1 ? "" : "s", failures);
    }
    return failures == 0 && !gOutputFailed && !gWorldFailed && outputUsable(options) ? 0 : 1;
}
