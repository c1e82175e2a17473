// LxBaseVideoRenderer: the frame pool, push and pull delivery, and the renderer's thread that
// prefetches and watches stop time and end of media.
#include "LxBaseVideoRenderer.h"

#include "LxEvent.h"
#include "LxLog.h"
#include "LxManagerServices.h"
#include "LxQueue.h"
#include "LxResult.h"
#include "LxTimeBase.h"

#include <cstring>
#include <new>

namespace {

const char kInputName[] = "Video";

// The longest the renderer's thread waits for the first frame when prefetching.
const LxTime kPrefetchWait(1, 0);
// How often a started renderer looks at its stop time and the end of media.
constexpr unsigned long kStartedPollMs = 100;

LxFrame* takeFrame(LxQueue* queue, const LxTime& timeout) {
    const char block = timeout == LxTime::zero() ? 0 : 1;
    return static_cast<LxFrame*>(queue->receive(block, timeout));
}

}  // namespace

LxBaseVideoRenderer::LxBaseVideoRenderer(LxManager* m)
    : LxVideoRenderer(m),
      threadRunning(0),
      frameAllocator(nullptr),
      formatCount(3),
      acceptedFormats(nullptr),
      connectedOutput(nullptr),
      currentFormat(nullptr),
      thread(nullptr),
      renderLock(),
      emptyFrames(new (std::nothrow) LxQueue()),
      filledFrames(new (std::nothrow) LxQueue()),
      pendingFrame(nullptr),
      endOfMedia(0),
      prefetched(0),
      streamStyle(kNoStyle),
      droppedFrames(0),
      wakeups(0),
      setupOk(false) {
    bool ok = emptyFrames != nullptr && filledFrames != nullptr;
    if (ok) {
        inputNames = new (std::nothrow) char*[1];
        inputs = new (std::nothrow) LxInputConnectable*[1];
        char* name = new (std::nothrow) char[sizeof(kInputName)];
        if (inputNames != nullptr && inputs != nullptr && name != nullptr) {
            std::memcpy(name, kInputName, sizeof(kInputName));
            inputNames[0] = name;
            inputs[0] = this;
            inputCount = 1;
        } else {
            delete[] name;
            ok = false;
        }
    }
    if (ok) {
        acceptedFormats = new (std::nothrow) LxFormat*[3];
        ok = acceptedFormats != nullptr;
    }
    if (ok) {
        // The manager tries these in order: the two "Alt" layouts first.
        const LxPixelFormat_s kinds[3] = {LxPixel32Alt, LxPixel24Alt, LxPixel32};
        for (int i = 0; i < 3; ++i) {
            acceptedFormats[i] = new (std::nothrow) LxVideoFormat(-1, -1, kinds[i], LxFormat::PushStream);
            ok = ok && acceptedFormats[i] != nullptr;
        }
    }
    setCurrentState(STOPPED);
    setupOk = ok;
    if (!ok) {
        LxLog::postDebug("LxBaseVideoRenderer constructor failed to init\n");
        return;
    }
    startThread();
}

long LxBaseVideoRenderer::startThread() {
    KtThreadManager* tm = manager != nullptr ? LxManagerServices::threadManager(manager) : nullptr;
    renderLock.lock();
    if (thread == nullptr && tm != nullptr) {
        thread = tm->createThread(&LxBaseVideoRenderer::threadEntry, this, 4, 1, 1);
        if (thread != nullptr) {
            threadRunning = 1;
            thread->start();
        }
    }
    const long result = thread != nullptr ? LX_OK : LX_ERR_GENERIC;
    renderLock.unlock();
    return result;
}

LxBaseVideoRenderer::~LxBaseVideoRenderer() {
    LxLog::postDebug("LxBaseVideoRenderer:  destructor\n");
    renderLock.lock();
    if (getCurrentState() == STARTED) {
        LxLog::postDebug("LxBaseVideoRenderer:  handleStop ()\n");
        clock->stop();
    }
    if (threadRunning) {
        setCurrentState(DEAD);
        wakeLocked();
        renderLock.unlock();
        KtThreadManager* tm = LxManagerServices::threadManager(manager);
        tm->waitForThread(thread, KT_INFINITE);
        tm->releaseThread(thread);
        thread = nullptr;
    } else {
        renderLock.unlock();
        if (thread != nullptr) {
            LxManagerServices::threadManager(manager)->releaseThread(thread);
            thread = nullptr;
        }
    }

    if (inputNames != nullptr) {
        for (short i = 0; i < inputCount; ++i) {
            delete[] inputNames[i];
        }
    }
    delete[] inputNames;
    delete[] inputs;
    inputNames = nullptr;
    inputs = nullptr;
    inputCount = 0;

    // The pending frame and frames pushed in but never shown are this renderer's too: they are
    // destroyed with the pool rather than leaked.
    int deleted = 0;
    if (LxFrame* pending = pendingFrame.exchange(nullptr)) {
        delete pending;
        ++deleted;
    }
    if (filledFrames != nullptr) {
        while (LxFrame* f = takeFrame(filledFrames, LxTime::zero())) {
            delete f;
            ++deleted;
        }
    }
    if (emptyFrames != nullptr) {
        while (LxFrame* f = takeFrame(emptyFrames, LxTime::zero())) {
            delete f;
            ++deleted;
        }
    }
    LxLog::postDebug("LxBaseVideoRenderer: deleted %i frames out of %i created\n", deleted,
                     frameAllocator != nullptr ? static_cast<int>(frameAllocator->getFramesCreated()) : 0);
    delete frameAllocator;
    if (acceptedFormats != nullptr) {
        for (int32_t i = 0; i < formatCount; ++i) {
            if (acceptedFormats[i] != nullptr) {
                acceptedFormats[i]->unref();
            }
        }
        delete[] acceptedFormats;
    }
    if (emptyFrames != nullptr) {
        emptyFrames->unref();
    }
    if (filledFrames != nullptr) {
        filledFrames->unref();
    }
    if (currentFormat != nullptr) {
        currentFormat->unref();
    }
}

// --- Connectable ---------------------------------------------------------------------------------

KtResult LxBaseVideoRenderer::connectTo(LxOutputConnectable* output) {
    connectedOutput.store(output);
    return LX_OK;
}

LxOutputConnectable* LxBaseVideoRenderer::connectedTo() {
    return connectedOutput.load();
}

KtResult LxBaseVideoRenderer::setFormat(LxFormat* f) {
    if (f == nullptr || f->formatType != LxVideoType) {
        LxLog::postDebug("LxBaseVideoRenderer: tried to set non-video format\n");
        return LX_ERR_UNSUPPORTED;
    }
    renderLock.lock();
    f->ref();
    if (currentFormat != nullptr) {
        currentFormat->unref();
    }
    currentFormat = f;
    streamStyle.store(f->getStreamStyle());
    KtResult result = LX_OK;
    if (frameAllocator == nullptr) {
        frameAllocator = new (std::nothrow) LxDefVideoFrameAllocator();
        if (frameAllocator == nullptr) {
            result = LX_ERR_OUT_OF_MEMORY;
        }
    }
    if (result == LX_OK) {
        result = frameAllocator->setFormat(f);
    }
    renderLock.unlock();
    return result;
}

LxFormat* LxBaseVideoRenderer::getFormat() {
    renderLock.lock();
    LxFormat* f = currentFormat;
    renderLock.unlock();
    return f;
}

KtResult LxBaseVideoRenderer::listFormats(LxFormat**& list, short* count) {
    list = new (std::nothrow) LxFormat*[3];
    if (list == nullptr) {
        if (count != nullptr) {
            *count = 0;
        }
        return LX_ERR_OUT_OF_MEMORY;
    }
    for (int32_t i = 0; i < 3; ++i) {
        list[i] = acceptedFormats != nullptr ? acceptedFormats[i] : nullptr;
    }
    if (count != nullptr) {
        *count = acceptedFormats != nullptr ? static_cast<short>(formatCount) : 0;
    }
    return LX_OK;
}

LxNode* LxBaseVideoRenderer::getNode() {
    LxLog::postDebug("LxBaseVideoRenderer:  getNode()\n");
    return this;
}

LxFrame* LxBaseVideoRenderer::getEmptyFrame(const LxTime& timeout) {
    if (LxFrame* f = takeFrame(emptyFrames, LxTime::zero())) {
        return f;
    }
    LxFrame* frame = nullptr;
    renderLock.lock();
    const KtResult result =
        frameAllocator != nullptr ? frameAllocator->allocateFrame(&frame) : LX_ERR_NO_FORMAT;
    renderLock.unlock();
    if (result == LX_OK && frame != nullptr) {
        LxLog::postDebug("LxBaseVideoRenderer: created another frame\n");
        return frame;
    }
    frame = nullptr;
    if (result == LX_ERR_ALREADY_TAKEN) {
        // The pool is at its bound: wait for a frame the browser or a flush gives back.
        frame = takeFrame(emptyFrames, timeout);
    }
    LxLog::postDebug("LxBaseVideoRenderer: after trying for empty frame, cvf is %s\n",
                     frame == nullptr ? "NULL" : "non-NULL");
    return frame;
}

void LxBaseVideoRenderer::putEmptyFrame(LxFrame* frame) {
    LxLog::postDebug("LxBaseVideoRenderer: putting back empty frame\n");
    if (frame != nullptr) {
        emptyFrames->push(frame);
    }
}

void LxBaseVideoRenderer::putFrame(LxFrame* frame) {
    if (frame == nullptr) {
        return;
    }
    filledFrames->lock();
    filledFrames->send(frame);
    filledFrames->unlock();
}

void LxBaseVideoRenderer::notifyEndOfMedia() {
    renderLock.lock();
    endOfMedia = 1;
    wakeLocked();
    renderLock.unlock();
}

void LxBaseVideoRenderer::flush() {
    renderLock.lock();
    if (LxFrame* pending = pendingFrame.exchange(nullptr)) {
        emptyFrames->push(pending);
    }
    // The filled-frame queue is drained whatever the style: a frame pushed into a pull-style
    // connection would otherwise never find its way back to the pool.
    filledFrames->lock();
    while (LxFrame* f = takeFrame(filledFrames, LxTime::zero())) {
        emptyFrames->push(f);
    }
    filledFrames->unlock();
    LxOutputConnectable* out = connectedOutput.load();
    if (streamStyle.load() != kNoStyle && streamStyle.load() != LxFormat::PushStream && out != nullptr) {
        while (LxFrame* f = out->getFrameForTime(LxTime::zero(), LxTime::maxTime(), LxTime::zero())) {
            LxLog::postDebug("LxBaseVideoRenderer: flushed frame\n");
            emptyFrames->push(f);
        }
    }
    renderLock.unlock();
}

// --- Frame selection -----------------------------------------------------------------------------

LxFrame* LxBaseVideoRenderer::attachFrameFromTime(const LxTime& curTime, const LxTime& timeout) {
    if (LxFrame* pending = pendingFrame.exchange(nullptr)) {
        return pending;
    }
    const int style = streamStyle.load();
    if (style == kNoStyle) {
        return nullptr;
    }
    LxFrame* frame = nullptr;
    if (style != LxFormat::PushStream) {
        LxOutputConnectable* out = connectedOutput.load();
        frame = out != nullptr ? out->getFrameForTime(curTime, timeout) : nullptr;
    } else {
        frame = selectPushedFrame(curTime, timeout);
    }
    if (frame != nullptr) {
        // A host that paints while the renderer prefetches may take the cue before the renderer's
        // thread does. The renderer is then as ready as if it held the frame itself; its thread
        // would otherwise wait for a first frame that a paused graph never sends again, and the
        // player would never hear that the prefetch is complete.
        renderLock.lock();
        if (getCurrentState() == PREFETCHING && !prefetched) {
            prefetched = 1;
            wakeLocked();
        }
        renderLock.unlock();
    }
    return frame;
}

LxFrame* LxBaseVideoRenderer::selectPushedFrame(const LxTime& curTime, const LxTime& timeout) {
    const bool block = !(timeout == LxTime::zero());
    for (;;) {
        // A blocking take runs without the queue's lock (the producer needs it to append). Without
        // waiting, the take and the look at the next frame happen under one lock hold, so that a
        // flush cannot slip in between.
        LxFrame* frame;
        if (block) {
            frame = takeFrame(filledFrames, timeout);
            filledFrames->lock();
        } else {
            filledFrames->lock();
            frame = takeFrame(filledFrames, LxTime::zero());
        }
        if (frame == nullptr) {
            filledFrames->unlock();
            LxLog::postDebug("LxBVR: no frame in queue\n");
            return nullptr;
        }
        LxVideoFrame* next = static_cast<LxVideoFrame*>(static_cast<LxFrame*>(filledFrames->peek()));
        if (next == nullptr) {
            filledFrames->unlock();
            LxLog::postDebug("LxBVR: no next frame, returning current\n");
            return frame;
        }
        const LxTime pt = static_cast<LxVideoFrame*>(frame)->getPresentationTime();
        const LxTime nextPt = next->getPresentationTime();
        if (pt <= curTime && curTime < nextPt) {
            filledFrames->unlock();
            LxLog::postDebug("LxBVR: curFrame <= curTime <= nextFrame\n");
            return frame;
        }
        if (curTime >= nextPt) {
            filledFrames->unlock();
            LxLog::postDebug("LxBVR: skipping frame, too late. Giving back.\n");
            ++droppedFrames;
            emptyFrames->push(frame);
            continue;
        }
        // The frame is early: its time has not come and a later frame waits behind it. As on the
        // pull side, it goes back to the head of the queue for a later request: the texture keeps
        // its previous picture meanwhile instead of showing this one too soon or losing it.
        filledFrames->push(frame);
        filledFrames->unlock();
        LxLog::postDebug("LxBVR: frame is early, keeping it queued\n");
        return nullptr;
    }
}

void LxBaseVideoRenderer::releaseFrame(LxFrame* frame) {
    putEmptyFrame(frame);
}

long LxBaseVideoRenderer::setFrameAllocator(LxFrameAllocator* allocator) {
    LxLog::postDebug("LxBaseVideoRenderer: setFrameAllocator\n");
    if (allocator == nullptr) {
        return LX_ERR_GENERIC;
    }
    renderLock.lock();
    if (currentFormat != nullptr) {
        const long result = allocator->setFormat(currentFormat);
        if (result != LX_OK) {
            renderLock.unlock();
            LxLog::postDebug("LxBaseVideoRenderer: setFrameAllocator - could not set required format\n");
            return result;
        }
    }
    if (frameAllocator != nullptr) {
        LxLog::postDebug("LxBaseVideoRenderer: deleting old frame factory\n");
        delete frameAllocator;
    }
    frameAllocator = allocator;
    renderLock.unlock();
    return LX_OK;
}

// --- Node ----------------------------------------------------------------------------------------

void LxBaseVideoRenderer::prefetch() {
    LxLog::postDebug("LxBaseVideoRenderer: in prefetch()\n");
    renderLock.lock();
    if (getCurrentState() == STOPPED) {
        prefetched = 0;
        setCurrentState(PREFETCHING);
    } else {
        LxLog::postDebug("LxBaseVideoRenderer: skipping prefetch because was not in STOPPED state\n");
    }
    wakeLocked();
    renderLock.unlock();
    LxLog::postDebug("LxBaseVideoRenderer: leaving prefetch()\n");
}

long LxBaseVideoRenderer::startAtTime(LxTime t) {
    LxLog::postDebug("LxBaseVideoRenderer:  startAtTime ()\n");
    // The state changes before the start is reported, so that whoever acts on the event finds
    // the renderer started (a stop right after it must flush).
    renderLock.lock();
    const long result = LxNode::startAtTime(t);
    const LxTime media = clock->getMediaTime();
    setCurrentState(STARTED);
    wakeLocked();
    renderLock.unlock();
    postEvent(new (std::nothrow) LxStartEvent(this, media, t));
    return result;
}

void LxBaseVideoRenderer::stop() {
    LxLog::postDebug("LxBaseVideoRenderer:  stop()\n");
    renderLock.lock();
    if (getCurrentState() == STARTED) {
        handleStop();
        flush();
        setCurrentState(STOPPED);
        wakeLocked();
    }
    const LxTime media = clock->getMediaTime();
    renderLock.unlock();
    postEvent(new (std::nothrow) LxStopByRequestEvent(this, media));
}

void LxBaseVideoRenderer::handleStop() {
    LxLog::postDebug("LxBaseVideoRenderer:  handleStop ()\n");
    renderLock.lock();
    clock->stop();
    renderLock.unlock();
}

void LxBaseVideoRenderer::handleEOM() {
    LxLog::postDebug("LxBaseVideoRenderer:  handleEOM ()\n");
    renderLock.lock();
    handleStop();
    flush();
    endOfMedia = 0;
    const LxTime media = clock->getMediaTime();
    renderLock.unlock();
    LxLog::postDebug("LxBaseVideoRenderer: posting EOM event\n");
    postEvent(new (std::nothrow) LxEndOfMediaEvent(this, media));
}

char LxBaseVideoRenderer::onChangeState(LxNodeState) {
    return 1;
}

long LxBaseVideoRenderer::stopAtTime(LxTime refTime) {
    renderLock.lock();
    const long r = LxNode::stopAtTime(refTime);
    wakeLocked();  // the thread looks at the new stop time at once
    renderLock.unlock();
    return r;
}

LxTime LxBaseVideoRenderer::getStopTime() {
    renderLock.lock();
    const LxTime t = LxNode::getStopTime();
    renderLock.unlock();
    return t;
}

long LxBaseVideoRenderer::setRate(float* rate) {
    renderLock.lock();
    long r;
    if (getCurrentState() == STARTED) {
        // A running clock refuses a new rate: it is stopped, given the rate and started again now,
        // so that media time goes on without a jump (as the player's and the audio renderer's).
        clock->stop();
        r = clock->setRate(rate);
        LxTimeBase* tb = clock->getTimeBase();
        clock->startAtTime(tb != nullptr ? tb->getRefTime() : LxTime::zero());
    } else {
        r = LxNode::setRate(rate);
    }
    renderLock.unlock();
    return r;
}

float LxBaseVideoRenderer::getRate() {
    renderLock.lock();
    const float r = LxNode::getRate();
    renderLock.unlock();
    return r;
}

long LxBaseVideoRenderer::setMediaTime(LxTime mediaTime) {
    renderLock.lock();
    const long r = LxNode::setMediaTime(mediaTime);
    renderLock.unlock();
    return r;
}

LxTime LxBaseVideoRenderer::getMediaTime() {
    renderLock.lock();
    const LxTime t = LxNode::getMediaTime();
    renderLock.unlock();
    return t;
}

LxTime LxBaseVideoRenderer::getSyncTime() {
    renderLock.lock();
    const LxTime t = LxNode::getSyncTime();
    renderLock.unlock();
    return t;
}

long LxBaseVideoRenderer::setTimeBase(LxTimeBase* timeBase) {
    renderLock.lock();
    const long r = LxNode::setTimeBase(timeBase);
    renderLock.unlock();
    return r;
}

LxTimeBase* LxBaseVideoRenderer::getTimeBase() {
    renderLock.lock();
    LxTimeBase* tb = LxNode::getTimeBase();
    renderLock.unlock();
    return tb;
}

void LxBaseVideoRenderer::setLoop(char l) {
    renderLock.lock();
    loop = l;
    renderLock.unlock();
}

char LxBaseVideoRenderer::getLoop() {
    renderLock.lock();
    const char l = loop;
    renderLock.unlock();
    return l;
}

// --- The renderer's lock and statistics -----------------------------------------------------------

void LxBaseVideoRenderer::lock() {
    renderLock.lock();
}

void LxBaseVideoRenderer::unlock() {
    renderLock.unlock();
}

KtResult LxBaseVideoRenderer::wait(unsigned long ms) {
    return renderLock.wait(ms);
}

void LxBaseVideoRenderer::notifyAll() {
    renderLock.lock();
    wakeLocked();
    renderLock.unlock();
}

void LxBaseVideoRenderer::wakeLocked() {
    ++wakeups;
    renderLock.notifyAll();
}

short LxBaseVideoRenderer::getFreeFrameCount() {
    return emptyFrames->length();
}

short LxBaseVideoRenderer::getQueuedFrameCount() {
    return filledFrames->length();
}

long LxBaseVideoRenderer::getFramesCreated() {
    renderLock.lock();
    const long n = frameAllocator != nullptr ? frameAllocator->getFramesCreated() : 0;
    renderLock.unlock();
    return n;
}

// --- The renderer's thread -----------------------------------------------------------------------

long LxBaseVideoRenderer::threadEntry(void* renderer) {
    static_cast<LxBaseVideoRenderer*>(renderer)->run();
    return 0;
}

void LxBaseVideoRenderer::run() {
    LxLog::postDebug("LxBaseVideoRenderer:  In run ()\n");
    unsigned long waitMs = 0;
    uint64_t seen = 0;
    for (;;) {
        renderLock.lock();
        // Sleep only when nothing woke the renderer since the last pass looked at its state: a
        // notification given while the thread was busy outside the lock would otherwise be lost
        // and a STOPPED renderer would sleep through its prefetch.
        if (getCurrentState() != DEAD && waitMs != 0 && seen == wakeups) {
            renderLock.wait(waitMs);
        }
        seen = wakeups;
        const LxNodeState s = getCurrentState();
        if (s == DEAD) {
            renderLock.unlock();
            break;
        }
        switch (s) {
            case STOPPED:
                renderLock.unlock();
                waitMs = KT_INFINITE;
                break;
            case PREFETCHING:
                if (prefetched) {
                    // The state changes before the event goes out: a player that starts the node
                    // on the event must not have its STARTED overwritten afterwards.
                    setCurrentState(STOPPED);
                    renderLock.unlock();
                    postEvent(new (std::nothrow) LxPrefetchCompleteEvent(this));
                    LxLog::postDebug("LxBaseVideoRenderer: posted prefetchComplete event\n");
                    waitMs = KT_INFINITE;
                } else {
                    renderLock.unlock();
                    LxLog::postDebug("LxBaseVideoRenderer: prefetching\n");
                    waitMs = 0;
                    prefetchFrame();
                }
                break;
            case STARTED: {
                LxTimeBase* tb = clock->getTimeBase();
                const LxTime stopTime = clock->getStopTime();
                const bool stopSet = !(stopTime == LxTime::maxTime());
                if (tb != nullptr && stopSet && tb->getRefTime() >= stopTime) {
                    LxLog::postDebug("LxBaseVideoRenderer:  passed stopTime\n");
                    handleStop();
                    flush();
                    setCurrentState(STOPPED);
                    const LxTime media = clock->getMediaTime();
                    renderLock.unlock();
                    postEvent(new (std::nothrow) LxStopAtTimeEvent(this, media, stopTime));
                    waitMs = 0;
                } else if (endOfMedia && !loop) {
                    renderLock.unlock();
                    handleEOM();
                    waitMs = 0;
                } else {
                    renderLock.unlock();
                    waitMs = kStartedPollMs;
                }
                break;
            }
            default:
                renderLock.unlock();
                break;
        }
    }
    renderLock.lock();
    threadRunning = 0;
    renderLock.unlock();
}

void LxBaseVideoRenderer::prefetchFrame() {
    renderLock.lock();
    const int style = streamStyle.load();
    LxOutputConnectable* out = connectedOutput.load();
    // Nothing to wait for: a renderer without a format, or one that already holds a prefetched
    // frame (a second prefetch before anything was shown must not take a frame over the first).
    if (style == kNoStyle || pendingFrame.load() != nullptr) {
        prefetched = 1;
        renderLock.unlock();
        return;
    }
    renderLock.unlock();

    // The wait for the first frame (up to a second) happens without the renderer's lock, so that
    // the player's thread (stop, start) is never held up by a slow producer.
    LxFrame* frame = nullptr;
    if (style == LxFormat::PushStream) {
        frame = takeFrame(filledFrames, kPrefetchWait);
    } else {
        frame =
            out != nullptr ? out->getFrameForTime(LxTime::zero(), LxTime::maxTime(), kPrefetchWait) : nullptr;
        if (frame == nullptr) {
            LxLog::postDebug("LxBaseVideoRenderer: failed to prefetch frame\n");
        }
    }

    renderLock.lock();
    const LxNodeState s = getCurrentState();
    if (frame != nullptr) {
        if ((s == PREFETCHING || s == STARTED) && pendingFrame.load() == nullptr) {
            pendingFrame.store(frame);
        } else {
            // Stopped, flushed or destroyed meanwhile: the frame is stale.
            emptyFrames->push(frame);
        }
    }
    // Pull style completes whether or not a frame came, so a silent producer never holds the
    // player up; push style tries again unless the producer has said it has no more.
    if (frame != nullptr || style != LxFormat::PushStream || endOfMedia) {
        prefetched = 1;
    }
    renderLock.unlock();
}
