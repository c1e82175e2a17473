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
    KtScopedLock<KtWaitNotify> guard(renderLock);
    if (thread == nullptr && tm != nullptr) {
        thread = tm->createThread(&LxBaseVideoRenderer::threadEntry, this, 4, 1, 1);
        if (thread != nullptr) {
            threadRunning = 1;
            thread->start();
        }
    }
    return thread != nullptr ? LX_OK : LX_ERR_GENERIC;
}

LxBaseVideoRenderer::~LxBaseVideoRenderer() {
    LxLog::postDebug("LxBaseVideoRenderer:  destructor\n");
    bool join = false;
    {
        KtScopedLock<KtWaitNotify> guard(renderLock);
        if (getCurrentState() == STARTED) {
            LxLog::postDebug("LxBaseVideoRenderer:  handleStop ()\n");
            clock->stop();
        }
        if (threadRunning) {
            setCurrentState(DEAD);
            wakeLocked();
            join = true;
        }
    }
    // The thread is joined without the lock: its last pass needs it to see DEAD.
    if (join) {
        KtThreadManager* tm = LxManagerServices::threadManager(manager);
        tm->waitForThread(thread, KT_INFINITE);
        tm->releaseThread(thread);
        thread = nullptr;
    } else if (thread != nullptr) {
        LxManagerServices::threadManager(manager)->releaseThread(thread);
        thread = nullptr;
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
    KtScopedLock<KtWaitNotify> guard(renderLock);
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
    return result;
}

LxFormat* LxBaseVideoRenderer::getFormat() {
    KtScopedLock<KtWaitNotify> guard(renderLock);
    return currentFormat;
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
    KtResult result;
    {
        KtScopedLock<KtWaitNotify> guard(renderLock);
        result = frameAllocator != nullptr ? frameAllocator->allocateFrame(&frame) : LX_ERR_NO_FORMAT;
    }
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
    KtScopedLock<LxQueue> guard(filledFrames);
    filledFrames->send(frame);
}

void LxBaseVideoRenderer::notifyEndOfMedia() {
    KtScopedLock<KtWaitNotify> guard(renderLock);
    endOfMedia = 1;
    wakeLocked();
}

void LxBaseVideoRenderer::flush() {
    KtScopedLock<KtWaitNotify> guard(renderLock);
    if (LxFrame* pending = pendingFrame.exchange(nullptr)) {
        emptyFrames->push(pending);
    }
    // The filled-frame queue is drained whatever the style: a frame pushed into a pull-style
    // connection would otherwise never find its way back to the pool.
    {
        KtScopedLock<LxQueue> queueGuard(filledFrames);
        while (LxFrame* f = takeFrame(filledFrames, LxTime::zero())) {
            emptyFrames->push(f);
        }
    }
    LxOutputConnectable* out = connectedOutput.load();
    if (streamStyle.load() != kNoStyle && streamStyle.load() != LxFormat::PushStream && out != nullptr) {
        while (LxFrame* f = out->getFrameForTime(LxTime::zero(), LxTime::maxTime(), LxTime::zero())) {
            LxLog::postDebug("LxBaseVideoRenderer: flushed frame\n");
            emptyFrames->push(f);
        }
    }
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
        KtScopedLock<KtWaitNotify> guard(renderLock);
        if (getCurrentState() == PREFETCHING && !prefetched) {
            prefetched = 1;
            wakeLocked();
        }
    }
    return frame;
}

LxFrame* LxBaseVideoRenderer::selectPushedFrame(const LxTime& curTime, const LxTime& timeout) {
    const bool block = !(timeout == LxTime::zero());
    for (;;) {
        // A blocking take runs without the queue's lock (the producer needs it to append). Without
        // waiting, the take and the look at the next frame happen under one lock hold, so that a
        // flush cannot slip in between.
        LxFrame* frame = block ? takeFrame(filledFrames, timeout) : nullptr;
        KtScopedLock<LxQueue> guard(filledFrames);
        if (!block) {
            frame = takeFrame(filledFrames, LxTime::zero());
        }
        if (frame == nullptr) {
            guard.unlock();
            LxLog::postDebug("LxBVR: no frame in queue\n");
            return nullptr;
        }
        LxVideoFrame* next = static_cast<LxVideoFrame*>(static_cast<LxFrame*>(filledFrames->peek()));
        if (next == nullptr) {
            guard.unlock();
            LxLog::postDebug("LxBVR: no next frame, returning current\n");
            return frame;
        }
        const LxTime pt = static_cast<LxVideoFrame*>(frame)->getPresentationTime();
        const LxTime nextPt = next->getPresentationTime();
        if (pt <= curTime && curTime < nextPt) {
            guard.unlock();
            LxLog::postDebug("LxBVR: curFrame <= curTime <= nextFrame\n");
            return frame;
        }
        if (curTime >= nextPt) {
            guard.unlock();
            LxLog::postDebug("LxBVR: skipping frame, too late. Giving back.\n");
            ++droppedFrames;
            emptyFrames->push(frame);
            continue;
        }
        // The frame is early: its time has not come and a later frame waits behind it. As on the
        // pull side, it goes back to the head of the queue for a later request: the texture keeps
        // its previous picture meanwhile instead of showing this one too soon or losing it.
        filledFrames->push(frame);
        guard.unlock();
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
    KtScopedLock<KtWaitNotify> guard(renderLock);
    if (currentFormat != nullptr) {
        const long result = allocator->setFormat(currentFormat);
        if (result != LX_OK) {
            guard.unlock();
            LxLog::postDebug("LxBaseVideoRenderer: setFrameAllocator - could not set required format\n");
            return result;
        }
    }
    if (frameAllocator != nullptr) {
        LxLog::postDebug("LxBaseVideoRenderer: deleting old frame factory\n");
        delete frameAllocator;
    }
    frameAllocator = allocator;
    return LX_OK;
}

// --- Node ----------------------------------------------------------------------------------------

void LxBaseVideoRenderer::prefetch() {
    LxLog::postDebug("LxBaseVideoRenderer: in prefetch()\n");
    {
        KtScopedLock<KtWaitNotify> guard(renderLock);
        if (getCurrentState() == STOPPED) {
            prefetched = 0;
            setCurrentState(PREFETCHING);
        } else {
            LxLog::postDebug("LxBaseVideoRenderer: skipping prefetch because was not in STOPPED state\n");
        }
        wakeLocked();
    }
    LxLog::postDebug("LxBaseVideoRenderer: leaving prefetch()\n");
}

long LxBaseVideoRenderer::startAtTime(LxTime t) {
    LxLog::postDebug("LxBaseVideoRenderer:  startAtTime ()\n");
    // The state changes before the start is reported, so that whoever acts on the event finds
    // the renderer started (a stop right after it must flush).
    long result;
    LxTime media;
    {
        KtScopedLock<KtWaitNotify> guard(renderLock);
        result = LxNode::startAtTime(t);
        media = clock->getMediaTime();
        setCurrentState(STARTED);
        wakeLocked();
    }
    postEvent(new (std::nothrow) LxStartEvent(this, media, t));
    return result;
}

void LxBaseVideoRenderer::stop() {
    LxLog::postDebug("LxBaseVideoRenderer:  stop()\n");
    LxTime media;
    {
        KtScopedLock<KtWaitNotify> guard(renderLock);
        if (getCurrentState() == STARTED) {
            handleStop();
            flush();
            setCurrentState(STOPPED);
            wakeLocked();
        }
        media = clock->getMediaTime();
    }
    postEvent(new (std::nothrow) LxStopByRequestEvent(this, media));
}

void LxBaseVideoRenderer::handleStop() {
    LxLog::postDebug("LxBaseVideoRenderer:  handleStop ()\n");
    KtScopedLock<KtWaitNotify> guard(renderLock);
    clock->stop();
}

void LxBaseVideoRenderer::handleEOM() {
    LxLog::postDebug("LxBaseVideoRenderer:  handleEOM ()\n");
    LxTime media;
    {
        KtScopedLock<KtWaitNotify> guard(renderLock);
        handleStop();
        flush();
        endOfMedia = 0;
        media = clock->getMediaTime();
    }
    LxLog::postDebug("LxBaseVideoRenderer: posting EOM event\n");
    postEvent(new (std::nothrow) LxEndOfMediaEvent(this, media));
}

char LxBaseVideoRenderer::onChangeState(LxNodeState) {
    return 1;
}

long LxBaseVideoRenderer::stopAtTime(LxTime refTime) {
    KtScopedLock<KtWaitNotify> guard(renderLock);
    const long r = LxNode::stopAtTime(refTime);
    wakeLocked();  // the thread looks at the new stop time at once
    return r;
}

LxTime LxBaseVideoRenderer::getStopTime() {
    KtScopedLock<KtWaitNotify> guard(renderLock);
    return LxNode::getStopTime();
}

long LxBaseVideoRenderer::setRate(float* rate) {
    KtScopedLock<KtWaitNotify> guard(renderLock);
    if (getCurrentState() == STARTED) {
        // A running clock refuses a new rate: it is stopped, given the rate and started again now,
        // so that media time goes on without a jump (as the player's and the audio renderer's).
        clock->stop();
        const long r = clock->setRate(rate);
        LxTimeBase* tb = clock->getTimeBase();
        clock->startAtTime(tb != nullptr ? tb->getRefTime() : LxTime::zero());
        return r;
    }
    return LxNode::setRate(rate);
}

float LxBaseVideoRenderer::getRate() {
    KtScopedLock<KtWaitNotify> guard(renderLock);
    return LxNode::getRate();
}

long LxBaseVideoRenderer::setMediaTime(LxTime mediaTime) {
    KtScopedLock<KtWaitNotify> guard(renderLock);
    return LxNode::setMediaTime(mediaTime);
}

LxTime LxBaseVideoRenderer::getMediaTime() {
    KtScopedLock<KtWaitNotify> guard(renderLock);
    return LxNode::getMediaTime();
}

LxTime LxBaseVideoRenderer::getSyncTime() {
    KtScopedLock<KtWaitNotify> guard(renderLock);
    return LxNode::getSyncTime();
}

long LxBaseVideoRenderer::setTimeBase(LxTimeBase* timeBase) {
    KtScopedLock<KtWaitNotify> guard(renderLock);
    return LxNode::setTimeBase(timeBase);
}

LxTimeBase* LxBaseVideoRenderer::getTimeBase() {
    KtScopedLock<KtWaitNotify> guard(renderLock);
    return LxNode::getTimeBase();
}

void LxBaseVideoRenderer::setLoop(char l) {
    KtScopedLock<KtWaitNotify> guard(renderLock);
    loop = l;
}

char LxBaseVideoRenderer::getLoop() {
    KtScopedLock<KtWaitNotify> guard(renderLock);
    return loop;
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
    KtScopedLock<KtWaitNotify> guard(renderLock);
    wakeLocked();
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
    KtScopedLock<KtWaitNotify> guard(renderLock);
    return frameAllocator != nullptr ? frameAllocator->getFramesCreated() : 0;
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
        // Each pass decides under the lock and lets go of it before it posts an event or waits
        // for a frame, so that neither a listener nor a slow producer runs under it.
        KtScopedLock<KtWaitNotify> guard(renderLock);
        // Sleep only when nothing woke the renderer since the last pass looked at its state: a
        // notification given while the thread was busy outside the lock would otherwise be lost
        // and a STOPPED renderer would sleep through its prefetch.
        if (getCurrentState() != DEAD && waitMs != 0 && seen == wakeups) {
            renderLock.wait(waitMs);
        }
        seen = wakeups;
        const LxNodeState s = getCurrentState();
        if (s == DEAD) {
            break;
        }
        switch (s) {
            case STOPPED:
                waitMs = KT_INFINITE;
                break;
            case PREFETCHING:
                if (prefetched) {
                    // The state changes before the event goes out: a player that starts the node
                    // on the event must not have its STARTED overwritten afterwards.
                    setCurrentState(STOPPED);
                    guard.unlock();
                    postEvent(new (std::nothrow) LxPrefetchCompleteEvent(this));
                    LxLog::postDebug("LxBaseVideoRenderer: posted prefetchComplete event\n");
                    waitMs = KT_INFINITE;
                } else {
                    guard.unlock();
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
                    guard.unlock();
                    postEvent(new (std::nothrow) LxStopAtTimeEvent(this, media, stopTime));
                    waitMs = 0;
                } else if (endOfMedia && !loop) {
                    guard.unlock();
                    handleEOM();
                    waitMs = 0;
                } else {
                    waitMs = kStartedPollMs;
                }
                break;
            }
            default:
                break;
        }
    }
    KtScopedLock<KtWaitNotify> guard(renderLock);
    threadRunning = 0;
}

void LxBaseVideoRenderer::prefetchFrame() {
    int style;
    LxOutputConnectable* out;
    {
        KtScopedLock<KtWaitNotify> guard(renderLock);
        style = streamStyle.load();
        out = connectedOutput.load();
        // Nothing to wait for: a renderer without a format, or one that already holds a
        // prefetched frame (a second prefetch before anything was shown must not take a frame
        // over the first).
        if (style == kNoStyle || pendingFrame.load() != nullptr) {
            prefetched = 1;
            return;
        }
    }

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

    KtScopedLock<KtWaitNotify> guard(renderLock);
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
}
