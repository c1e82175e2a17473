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
    LxTime announced;
    {
        KtScopedLock guard(signal);
        duration = parser->getDuration();
        announced = duration;
    }
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

void LxAudioPlayer::run() {
    LxLog::postDebug("LxAudioPlayer:  in run loop\n");
    {
        KtScopedLock guard(signal);
        activePosted = 0;
    }
    runLoop();
    LxLog::postDebug("LxAudioPlayer:  Goodbye cruel world!\n");
}

long LxAudioPlayer::loadClip() {
    return initPlayer();
}

unsigned long LxAudioPlayer::cueLead() {
    // A start ahead is read kReadAheadMs early: the renderer sets the first frames to be heard at
    // the start's exact sample. A backward clock is not read ahead.
    KtScopedLock guard(signal);
    return clock->getRate() > 0.0f ? kReadAheadMs : 0;
}

void LxAudioPlayer::silenceAtStopTime() {
    LxLog::postDebug("LxAudioPlayer:  auto-stopping\n");
    activePosted = 0;
}

unsigned long LxAudioPlayer::playStep(unsigned long toStart) {
    // The player goes active only at the start itself, whatever was read ahead of it.
    if (!activePosted && toStart == 0) {
        LxLog::postDebug("LxAudioPlayer:  Just moving to started\n");
        activePosted = 1;
        postEvent(new (std::nothrow) LxActiveEvent(this));
    }
    if (suspended) {
        return KT_INFINITE;
    }
    return fillFrame(toStart);
}

unsigned long LxAudioPlayer::fillFrame(unsigned long toStart) {
    LxInputConnectable* input = output != nullptr ? output->connectedTo() : nullptr;
    LxFrame* empty = input != nullptr ? input->getEmptyFrame(kEmptyFrameTimeout) : nullptr;
    LxAudioFrame* frame = dynamic_cast<LxAudioFrame*>(empty);
    if (frame == nullptr) {
        if (empty != nullptr) {
            input->putEmptyFrame(empty);
        }
        LxLog::postDebug("LxAudioPlayer: no empty frame available\n");
        return activePosted || toStart == 0 ? 250 : std::min<unsigned long>(250, toStart);
    }
    const int32_t before = frame->filled;
    char eom = 0;
    const KtResult read = parser != nullptr ? parser->readFrame(frame, &eom) : LX_ERR_WAVE_READ;
    if (read != LX_OK) {
        input->putEmptyFrame(frame);  // never filled: back to its pool
        catastrophicError(read);
        return 0;
    }
    const int32_t filled = frame->filled - before;
    LxLog::postDebug("LxAudioPlayer: sending frame with %i filldiff\n", static_cast<int>(filled));
    output->queueFrame(frame);
    if (eom) {
        input->notifyEndOfMedia();
        return endOfClip();
    }
    return fillPace(filled, toStart);
}

unsigned long LxAudioPlayer::endOfClip() {
    LxLog::postDebug("LxAudioPlayer: queued EOM frame\n");
    KtScopedLock guard(signal);
    if (loop) {
        guard.unlock();
        LxLog::postDebug("LxAudioPlayer: setting time to %8.3f, seek offset %i\n", 0.0, 0);
        parser->seek(0);
        return 0;
    }
    if (!activePosted) {
        // The whole clip was read ahead of its start: active still comes before the end.
        guard.unlock();
        postEvent(new (std::nothrow) LxActiveEvent(this));
        guard.lock();
    }
    ownEndReached = 1;
    activePosted = 0;
    handleEOM(this);
    return KT_INFINITE;
}

unsigned long LxAudioPlayer::fillPace(int32_t filled, unsigned long toStart) {
    float rate = 0.0f;
    {
        KtScopedLock guard(signal);
        rate = clock->getRate();
    }
    const long seconds = bytesPerSecond > 0 ? filled / bytesPerSecond : 0;
    if (seconds == 0) {
        return 0;  // less than a second queued: the renderer wants more now
    }
    if (!activePosted && toStart > 0) {
        return std::min<unsigned long>(toStart, 1000);
    }
    if (rate <= 0.0f) {
        return 1000;  // a stopped or backward clock gives no pace to fill at
    }
    // A second or more went out: the next frame is read 100 ms before the renderer needs it.
    const unsigned long ms = clampWait(1000.0 * static_cast<double>(seconds) / static_cast<double>(rate));
    return ms > 1000 ? 1000 : ms > 100 ? ms - 100 : ms;
}
