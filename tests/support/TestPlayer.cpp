#include "TestPlayer.h"

#include "LxEvent.h"
#include "LxQueue.h"
#include "LxResult.h"
#include "TestSupport.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace lxtest {

namespace {

// A node event that carries work for the player thread. Its type lies outside the library's.
constexpr LxEventType_s kCommandType = static_cast<LxEventType_s>(1000);

class CommandEvent : public LxEvent {
  public:
    explicit CommandEvent(std::function<void()> f) : fn(std::move(f)) { type = kCommandType; }
    std::function<void()> fn;
};

}  // namespace

TestPlayer::TestPlayer(LxManager* manager, const Options& options)
    : LxPlayer(manager, nullptr), options_(options) {
    if (options_.audioOutput) {
        audio_ = new LxAudioOutputConnectable();
        audio_->initFormats(LxSample16, LxStereo, 44100.0f, 4, LxFormat::PullStream, 0);
        audio_->initConnectable(this);
        adoptOutput("Audio", audio_);
    }
    if (options_.startThread) {
        startThread(&TestPlayer::entry);
    }
}

TestPlayer::~TestPlayer() {
    waitAndShutdown();
}

long TestPlayer::entry(void* player) {
    static_cast<TestPlayer*>(player)->run();
    return 0;
}

void TestPlayer::run() {
    while (beginPass(KT_INFINITE)) {
        KtScopedLock<KtWaitNotify> guard(signal);
        if (options_.initialize && getCurrentState() == UNINITIALIZED) {
            setCurrentState(INITIALIZING);
            duration = options_.duration;
            postEvent(new LxDurationChangedEvent(this, LxTime(), duration));
            postEvent(new LxInitializedEvent(this, 0xE1));
            setCurrentState(STOPPED);
        }
    }
    endRun();
}

void TestPlayer::shutdown() {
    // Nodes first: a renderer may still be reading from an output.
    destroyAll();
    audio_ = nullptr;
    for (LxOutputConnectable* out : adopted_) {
        delete out;
    }
    adopted_.clear();
    for (short i = 0; i < outputCount; ++i) {
        std::free(outputNames[i]);
        outputNames[i] = nullptr;
        outputs[i] = nullptr;
    }
    outputCount = 0;
}

void TestPlayer::adoptOutput(const char* name, LxOutputConnectable* out) {
    adopted_.push_back(out);
    addOutputConnectable(strdup(name), out);
}

void TestPlayer::handleNodeEvent(LxEvent* event) {
    if (event->getEventType() == kCommandType) {
        static_cast<CommandEvent*>(event)->fn();
        event->unref();
        return;
    }
    LxPlayer::handleNodeEvent(event);
}

bool TestPlayer::onPlayerThread(const std::function<void()>& fn) {
    auto done = std::make_shared<std::atomic<bool>>(false);
    {
        KtScopedLock<KtWaitNotify> guard(signal);
        if (!threadRunning || getCurrentState() == DEAD) {
            return false;
        }
        nodeEventQueue->send(new CommandEvent([fn, done] {
            fn();
            *done = true;
        }));
    }
    return waitUntil([&] { return done->load(); }, 20000);
}

void TestPlayer::reachOwnEnd() {
    onPlayerThread([this] {
        ownEndReached = 1;
        handleEOM(this);
    });
}

void TestPlayer::reachOwnStopTime() {
    onPlayerThread([this] {
        ownEndReached = 1;
        handleStopTime(this);
    });
}

TestPlayer::Flags TestPlayer::flagsOf(LxNode* node) {
    Flags flags;
    onPlayerThread([&] {
        if (LxNodeListEntry* e = findNodeEntry(node)) {
            flags.started = e->started;
            flags.ended = e->ended;
        }
    });
    return flags;
}

}  // namespace lxtest
