// LxAudioPlayer: the WAVE player's thread loop, initialisation, seeking and shutdown.
#include "LxAudioPlayer.h"

#include "LxDataSource.h"
#include "LxLog.h"
#include "LxQueue.h"
#include "LxResult.h"
#include "LxTimeBase.h"
#include "audio/LxWAVEParser.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

// How long the loop sleeps when it has nothing to do until a request or node event arrives.
constexpr unsigned long kWaitForEvent = KT_INFINITE;
// The renderer may take up to this long to give back an empty frame.
const LxTime kEmptyFrameTimeout(0, 500000);
// A start asked for ahead of time has its first frames read this long before it (the renderer
// prepares such a start up to 150 ms ahead).
constexpr unsigned long kReadAheadMs = 100;

}  // namespace

LxAudioPlayer::LxAudioPlayer(LxManager* m, LxDataSource* source)
    : LxPlayer(m, source),
      parser(nullptr),
      dataSource(source),
      output(nullptr),
      activePosted(0),
      bytesPerSecond(0),
      sampleFrameBytes(0) {
    output = new (std::nothrow) LxAudioOutputConnectable();
    if (output == nullptr) {
        return;
    }
    char* name = strdup("Audio");
    if (name == nullptr || addOutputConnectable(name, output) != LX_OK) {
        std::free(name);
        delete output;
        output = nullptr;
        return;
    }
    startThread(&LxAudioPlayer::callPlayerRunLoop);
}

LxAudioPlayer::~LxAudioPlayer() {
    LxLog::postDebug("LxAudioPlayer:  LxAudioPlayer:  destructor\n");
    waitAndShutdown();
    // The renderers go before the output they pull from.
    destroyAll();
    releaseOutput();
    delete parser;
    parser = nullptr;
}

void LxAudioPlayer::releaseOutput() {
    if (output == nullptr) {
        return;
    }
    delete output;
    output = nullptr;
    if (outputNames != nullptr) {
        std::free(outputNames[0]);
        outputNames[0] = nullptr;
    }
    if (outputs != nullptr) {
        outputs[0] = nullptr;
    }
    outputCount = 0;
}

long LxAudioPlayer::callPlayerRunLoop(void* player) {
    static_cast<LxAudioPlayer*>(player)->run();
    return 0;
}

KtResult LxAudioPlayer::createParser() {
    const char* name = dataSource != nullptr ? dataSource->getContentName() : nullptr;
    delete parser;
    parser = nullptr;
    if (name != nullptr && (std::strcmp(name, "audio/wav") == 0 || std::strcmp(name, "audio/x-wav") == 0)) {
        parser = new (std::nothrow) LxWAVEParser();
        return parser != nullptr ? LX_OK : LX_ERR_OUT_OF_MEMORY;
    }
    LxLog::postDebug("LxAudioPlayer: unsupported mime type %s\n", name != nullptr ? name : "(null)");
    return LX_ERR_UNSUPPORTED;
}

KtResult LxAudioPlayer::initPlayer() {
    LxLog::postDebug("LxAudioPlayer:  initPlayer()\n");
    KtResult result = createParser();
    if (result != LX_OK) {
        return result;
    }
    result = parser->open(this, dataSource);
    if (result != LX_OK) {
        return result;
    }
    LxAudioFormat* format = nullptr;
    result = parser->readHeader(&format);
    if (result != LX_OK) {
        return result;
    }
    lock();
    duration = parser->getDuration();
    const LxTime announced = duration;
    unlock();
    postEvent(new (std::nothrow) LxDurationChangedEvent(this, LxTime(0, 0), announced));

    const short n = static_cast<short>((format->getChannels() != LxMono ? 2 : 1) *
                                       (format->getSampleFormat() != LxSample8 ? 2 : 1));
    output->initFormats(format->getSampleFormat(), format->getChannels(), format->getSamplingRate(), n,
                        LxFormat::PullStream, 0);
    output->initConnectable(this);
    bytesPerSecond = static_cast<long>(format->getSamplingRate()) * n;
    sampleFrameBytes = n;
    format->unref();
    return LX_OK;
}

long LxAudioPlayer::offsetForTime(const LxTime& t) const {
    double bytes = std::floor(static_cast<double>(bytesPerSecond) * t.getValue());
    if (bytes < 0.0) {
        bytes = 0.0;  // no media time lies before the first sample
    }
    long offset = static_cast<long>(bytes);
    if (sampleFrameBytes > 0) {
        offset -= offset % sampleFrameBytes;
    }
    return offset;
}

KtResult LxAudioPlayer::seekToTime(const LxTime& t) {
    const long offset = offsetForTime(t);
    LxLog::postDebug("LxAudioPlayer: setting time to %8.3f, seek offset %i\n", t.getValue(),
                     static_cast<int>(offset));
    return parser != nullptr ? parser->seek(offset) : LX_ERR_GENERIC;
}

long LxAudioPlayer::setTimeAll(LxTime t) {
    const long result = LxPlayer::setTimeAll(t);
    if (result != LX_OK) {
        LxLog::postDebug("LxAudioPlayer: setTimeAll - failed to LxPlayer::setTimeAll()\n");
        return result;
    }
    return seekToTime(t);
}

void LxAudioPlayer::handleSuspend() {
    if (suspended) {
        return;
    }
    seekToTime(clock->getMediaTime());
    signal.notifyAll();
}

void LxAudioPlayer::shutdown() {
    delete parser;
    parser = nullptr;
    if (output != nullptr && output->connectedTo() == nullptr) {
        releaseOutput();
    }
}

unsigned long LxAudioPlayer::leadWait() {
    lock();
    const LxTime media = clock->getMediaTime();
    const LxTime sync = clock->getSyncTime();
    const float rate = clock->getRate();
    const LxTime latency = startLatency;
    unlock();
    LxLog::postDebug("LxAudioPlayer; mediaTime = %8.3f syncTime = %8.3f\n", media.getValue(),
                     sync.getValue());
    const long lead = static_cast<long>((media.getValue() - sync.getValue() - latency.getValue()) * 1000.0);
    if (lead == 0) {
        return 0;
    }
    // The lead is counted in media time; the clock covers it at |rate| media milliseconds per
    // millisecond. A negative lead (a negative rate before the clock starts) is waited for by its
    // magnitude too: read as an unsigned count it would be a wait of weeks.
    double ms = std::fabs(static_cast<double>(lead));
    if (rate != 0.0f) {
        ms /= std::fabs(static_cast<double>(rate));
    }
    if (ms < 1.0) {
        ms = 1.0;
    }
    if (ms > 4294967294.0) {
        ms = 4294967294.0;
    }
    return static_cast<unsigned long>(ms);
}

void LxAudioPlayer::run() {
    LxLog::postDebug("LxAudioPlayer:  in run loop\n");
    lock();
    activePosted = 0;
    unlock();
    unsigned long w = 0;
    for (;;) {
        if (!beginPass(w)) {
            break;
        }

        LxNodeState s = getCurrentState();
        if (s == UNINITIALIZED) {
            setCurrentState(INITIALIZING);
            if (dataSource != nullptr) {
                dataSource->connect();
                dataSource->start();
            }
            s = getCurrentState();
        }
        if (s == INITIALIZING) {
            LxPullDataSource* pull = dynamic_cast<LxPullDataSource*>(dataSource);
            if (pull != nullptr && !pull->dataAvailable()) {
                w = 100;
                continue;
            }
            const KtResult result = initPlayer();
            if (result != LX_OK) {
                catastrophicError(result);
                break;
            }
            postEvent(new (std::nothrow) LxInitializedEvent(this, LX_INITIALIZED_AUDIO));
            setCurrentState(STOPPED);
            s = getCurrentState();
        }
        if (s == STOPPED) {
            w = kWaitForEvent;
            continue;
        }
        if (s == DEAD) {
            break;
        }
        if (s == PREFETCHING || s == PREFETCHED) {
            LxLog::postDebug("LxAudioPlayer:  entered state %d and we didn't expect it\n",
                             static_cast<int>(s));
            w = kWaitForEvent;
            continue;
        }
        if (s != STARTED) {
            w = kWaitForEvent;
            continue;
        }

        // Started: wait for the start time, watch the stop time, then fill.
        lock();
        const char ended = ownEndReached;
        unlock();
        if (ended) {
            w = kWaitForEvent;
            continue;
        }
        // A start ahead is read kReadAheadMs early: the renderer sets the first frames to be heard
        // at the start's exact sample. The player goes active only at the start itself.
        const unsigned long toStart = leadWait();
        lock();
        const bool forward = clock->getRate() > 0.0f;
        unlock();
        if (toStart > 0 && (!forward || toStart > kReadAheadMs)) {
            w = forward ? toStart - kReadAheadMs : toStart;
            continue;
        }
        w = 0;

        lock();
        LxTimeBase* tb = timeBase;
        const bool stopNow = tb != nullptr && tb->getRefTime() >= clock->getStopTime();
        unlock();
        if (tb == nullptr) {
            LxLog::postDebug("LxAudioPlayer:  timeBase is NULL!\n");
        }
        if (stopNow) {
            LxLog::postDebug("LxAudioPlayer:  auto-stopping\n");
            lock();
            ownEndReached = 1;
            handleStopTime(this);
            activePosted = 0;
            unlock();
            w = kWaitForEvent;
            continue;
        }

        if (!activePosted && toStart == 0) {
            LxLog::postDebug("LxAudioPlayer:  Just moving to started\n");
            activePosted = 1;
            postEvent(new (std::nothrow) LxActiveEvent(this));
        }
        if (suspended) {
            w = kWaitForEvent;
            continue;
        }
        LxInputConnectable* input = output != nullptr ? output->connectedTo() : nullptr;
        LxFrame* empty = input != nullptr ? input->getEmptyFrame(kEmptyFrameTimeout) : nullptr;
        LxAudioFrame* frame = dynamic_cast<LxAudioFrame*>(empty);
        if (frame == nullptr) {
            if (empty != nullptr) {
                input->putEmptyFrame(empty);
            }
            LxLog::postDebug("LxAudioPlayer: no empty frame available\n");
            w = activePosted || toStart == 0 ? 250 : std::min<unsigned long>(250, toStart);
            continue;
        }
        LxLog::postDebug("LxAudioPlayer: curframe filled = %i  fillable = %i\n",
                         static_cast<int>(frame->filled), static_cast<int>(frame->fillable));
        const int32_t before = frame->filled;
        char eom = 0;
        const KtResult read = parser != nullptr ? parser->readFrame(frame, &eom) : LX_ERR_WAVE_READ;
        if (read != LX_OK) {
            input->putEmptyFrame(frame);  // never filled: back to its pool
            catastrophicError(read);
            continue;
        }
        const int32_t d = frame->filled - before;
        LxLog::postDebug("LxAudioPlayer: sending frame with %i filldiff\n", static_cast<int>(d));
        output->queueFrame(frame);

        if (eom) {
            LxLog::postDebug("LxAudioPlayer: queued EOM frame\n");
            input->notifyEndOfMedia();
            lock();
            const char looping = loop;
            unlock();
            if (looping) {
                LxLog::postDebug("LxAudioPlayer: setting time to %8.3f, seek offset %i\n", 0.0, 0);
                parser->seek(0);
                continue;
            }
            if (!activePosted) {
                // The whole clip was read ahead of its start: active still comes before the end.
                postEvent(new (std::nothrow) LxActiveEvent(this));
            }
            lock();
            ownEndReached = 1;
            activePosted = 0;
            handleEOM(this);
            unlock();
            w = kWaitForEvent;
            continue;
        }

        lock();
        const float rate = clock->getRate();
        unlock();
        const long seconds = bytesPerSecond > 0 ? d / bytesPerSecond : 0;
        if (seconds == 0 || (!activePosted && toStart > 0)) {
            w = seconds == 0 ? 0 : std::min<unsigned long>(toStart, 1000);
        } else if (rate <= 0.0f) {
            w = 1000;  // a stopped or backward clock gives no pace to fill at
        } else {
            const double ms = 1000.0 * static_cast<double>(seconds) / static_cast<double>(rate);
            w = ms > 4294967294.0 ? 4294967294ul : static_cast<unsigned long>(ms);
            if (w > 1000) {
                w = 1000;
            } else if (w > 100) {
                w -= 100;
            }
        }
    }
    LxLog::postDebug("LxAudioPlayer:  Goodbye cruel world!\n");
    endRun();
}
