// LxWin32AudioRenderer: the audio renderer node, its thread, its frame pool and its mixer ports.
#include "LxWin32AudioRenderer.h"

#include "LxEvent.h"
#include "LxLog.h"
#include "LxManagerServices.h"
#include "LxQueue.h"
#include "LxResult.h"
#include "LxTimeBase.h"
#include "LxWin32AudioOutputPort.h"
#include "LxWin32AudioPortConfig.h"
#include "LxWin32Mixer.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

/// Before the first frame of a start is written, a missing frame is asked for again this soon:
/// the producer starts reading at the same instant as the renderer starts pulling, and the usual
/// 50 ms wait would start every clip late by that much.
constexpr uint32_t kFirstFramePollMs = 2;
/// How long after its start a clip counts as waiting for its first frame.
constexpr double kFirstFrameWindow = 1.0;
/// A producer that is ahead of a playing clip waits for an empty frame at most this long.
const LxTime kStartedPoolWait(0, 10000);
/// One streaming write copies at most this much sound, so that a write the mixer decides to
/// time instead of copy (its channel went away a moment ago) cannot hold the lock for long.
constexpr double kMaxWriteSeconds = 0.1;
/// The ports of a drained clip stop this long after its last sample has played.
constexpr double kTailMarginSeconds = 0.05;

/// A mixer port of the renderer. It keeps its channel record in an atomic, because the manager
/// grants and revokes channels on other threads while the renderer thread looks at it, and it
/// counts the grants and revocations: either stops and rewinds the mixer's buffer, so the
/// renderer must start writing it afresh.
class LxRendererPort : public LxWin32AudioOutputPort {
  public:
    LxRendererPort(LxWin32Mixer* m, const std::atomic<char>* pending)
        : LxWin32AudioOutputPort(m), held(0), events(0), pending(pending) {}

    char hasChannel() const override { return held.load(); }

    /// The renderer's word first (started, scheduled, waiting for a channel, feeding or draining
    /// the buffer), then the buffer itself, which a resident clip leaves playing out alone.
    char isSounding() const override {
        return pending->load() != 0 || LxWin32AudioOutputPort::isSounding() ? 1 : 0;
    }

    long grantChannel() override {
        const long r = LxWin32AudioOutputPort::grantChannel();
        if (r == LX_OK) {
            held.store(1);
        }
        events.fetch_add(1);
        return r;
    }

    long revokeChannel() override {
        // Cleared before the mixer releases the channel, so that the renderer never starts a
        // write it expects to be heard on a channel that is going away.
        held.store(0);
        events.fetch_add(1);
        return LxWin32AudioOutputPort::revokeChannel();
    }

    std::atomic<char> held;
    std::atomic<uint32_t> events;
    const std::atomic<char>* pending;
};

uint32_t clampMs(double ms) {
    if (!(ms > 0.0)) {
        return 0;
    }
    return ms >= 4294967294.0 ? 4294967294u : static_cast<uint32_t>(std::ceil(ms));
}

/// Milliseconds from now until target (0 when it has passed).
uint32_t msUntil(const LxTime& target, const LxTime& now) {
    return clampMs((target.getValue() - now.getValue()) * 1000.0);
}

LxTime later(const LxTime& t, double seconds) {
    return LxTime(t.getValue() + seconds);
}

/// The speed at which a clip's samples play at a rate (a rate of 0 counts as 1).
double speedOf(float rate) {
    return rate != 0.0f ? std::fabs(static_cast<double>(rate)) : 1.0;
}

/// A start asked for ahead of time is prepared at least this long before it, and 50 ms more
/// than the manager's start-up latency, by which its producer has its first frames ready.
constexpr double kPrepareMs = 150.0;

/// A port of a sounding resident clip that waits for its channel is looked at this often.
constexpr uint32_t kJoinPollMs = 10;

}  // namespace

LxWin32AudioRenderer::LxWin32AudioRenderer(LxManager* m, LxWin32Mixer* mx)
    : LxAudioRendererNode(m),
      threadRunning(0),
      mixer(mx),
      acceptedFormat(new (std::nothrow)
                         LxAudioFormat(LxAnySampleFormat, LxAnyChannels, -1.0f, 0, LxFormat::PullStream)),
      source(nullptr),
      format(nullptr),
      bufferSize(0),
      frameBytes(0),
      bytesPerSecond(0),
      bytesPerFrame(0),
      isResident(0),
      residentStarted(0),
      prefillSilence(0),
      residentDone(0),
      rate(1.0f),
      lowWaterMark(0),
      ports(new (std::nothrow) LxWin32AudioOutputPort*[kMaxPorts]()),
      masterPort(nullptr),
      masterHandedOut(0),
      portConfig(nullptr),
      portCount(0),
      thread(nullptr),
      hasWritten(0),
      emptyFrames(new (std::nothrow) LxQueue()),
      framesCreated(0),
      eomReceived(0),
      eomDone(0),
      currentFrame(nullptr),
      portsActive(0),
      resetPending(1),
      silentPacing(0),
      silentFrames(0),
      writeFailed(0),
      channelEventsSeen(0),
      draining(0),
      tailPending(0),
      tailQueued(0),
      tailPlayed(0),
      tailLastFillable(0),
      residentEndSet(0),
      registeredPorts(0),
      prepareMs(kPrepareMs),
      soundPending(0),
      poolLock(KtMutex::create()) {
    std::fill(portEventsSeen, portEventsSeen + kMaxPorts, 0u);
    inputNames = new (std::nothrow) char*[1];
    inputs = new (std::nothrow) LxInputConnectable*[1];
    if (inputNames != nullptr && inputs != nullptr) {
        inputNames[0] = strdup("Audio");
        inputs[0] = this;
        inputCount = inputNames[0] != nullptr ? 1 : 0;
    }
    setCurrentState(STOPPED);

    {
        KtScopedLock<KtWaitNotify> guard(waitNotify);
        KtThreadManager* tm = manager != nullptr ? LxManagerServices::threadManager(manager) : nullptr;
        thread =
            tm != nullptr ? tm->createThread(&LxWin32AudioRenderer::threadEntry, this, 4, 1, 2) : nullptr;
        if (thread != nullptr) {
            threadRunning = 1;
        }
    }
    if (thread != nullptr && thread->start() != LX_OK) {
        KtScopedLock<KtWaitNotify> guard(waitNotify);
        threadRunning = 0;
    }
}

LxWin32AudioRenderer::~LxWin32AudioRenderer() {
    LxLog::postDebug("LxWin32AudioRenderer:  destructor\n");
    stopThread();

    {
        KtScopedLock<KtWaitNotify> guard(waitNotify);
        // Ports registered after the thread left (or when it never ran) go out of the arbitration
        // here. Ports are then closed, so that the mixer's slots and buffers do not outlive the
        // clip: a browser plays many clips, and the mixer's port table is finite.
        releaseChannels();
        if (ports != nullptr) {
            for (int i = kMaxPorts - 1; i >= 0; --i) {
                LxWin32AudioOutputPort* p = ports[i];
                if (p == nullptr) {
                    continue;
                }
                if (mixer != nullptr && p->getPortNumber() >= 0) {
                    mixer->closePort(p->getPortNumber());
                }
                delete p;
                ports[i] = nullptr;
            }
            delete[] ports;
            ports = nullptr;
        }
        masterPort = nullptr;
        portCount = 0;
        delete portConfig;
        portConfig = nullptr;
        delete currentFrame;
        currentFrame = nullptr;
    }

    if (emptyFrames != nullptr) {
        while (LxFrame* f = static_cast<LxFrame*>(emptyFrames->receive(0, LxTime()))) {
            delete f;
        }
        emptyFrames->unref();
        emptyFrames = nullptr;
    }
    if (format != nullptr) {
        format->unref();
        format = nullptr;
    }
    if (acceptedFormat != nullptr) {
        acceptedFormat->unref();
        acceptedFormat = nullptr;
    }
    if (inputNames != nullptr) {
        std::free(inputNames[0]);
        delete[] inputNames;
        inputNames = nullptr;
    }
    delete[] inputs;
    inputs = nullptr;
    inputCount = 0;
    delete poolLock;
}

void LxWin32AudioRenderer::stopThread() {
    char running;
    KtThread* t;
    {
        KtScopedLock<KtWaitNotify> guard(waitNotify);
        if (getCurrentState() == STARTED) {
            handleStop();
            setCurrentState(STOPPED);
        }
        if (tailPending) {
            stopAllPorts();
            tailPending = 0;
        }
        running = threadRunning;
        if (running) {
            setCurrentState(DEAD);
            waitNotify.notifyAll();
        }
        t = thread;
        thread = nullptr;
    }
    KtThreadManager* tm = manager != nullptr ? LxManagerServices::threadManager(manager) : nullptr;
    if (t != nullptr && tm != nullptr) {
        if (running) {
            tm->waitForThread(t, KT_INFINITE);
        }
        tm->releaseThread(t);
    }
}

// ---------------------------------------------------------------------------------------------
// Connectable

KtResult LxWin32AudioRenderer::connectTo(LxOutputConnectable* output) {
    KtScopedLock<KtWaitNotify> guard(waitNotify);
    source = output;
    return LX_OK;
}

LxOutputConnectable* LxWin32AudioRenderer::connectedTo() {
    KtScopedLock<KtWaitNotify> guard(waitNotify);
    return source;
}

KtResult LxWin32AudioRenderer::setFormat(LxFormat* f) {
    LxAudioFormat* audio =
        f != nullptr && f->formatType == LxAudioType ? dynamic_cast<LxAudioFormat*>(f) : nullptr;
    if (audio == nullptr) {
        return LX_ERR_UNSUPPORTED;
    }
    const float samplingRate = audio->getSamplingRate();
    if (!(samplingRate >= kMinRate && samplingRate <= kMaxRate)) {
        // Buffer and frame sizes follow from the rate: one outside what any clip can have (or
        // not a number) would size them absurdly.
        LxLog::postDebug("LxWin32AudioRenderer:  cannot render a sampling rate of %f\n", samplingRate);
        return LX_ERR_UNSUPPORTED;
    }
    audio->ref();
    LxAudioFormat* old;
    {
        KtScopedLock<KtWaitNotify> guard(waitNotify);
        old = format;
        format = audio;
    }
    if (old != nullptr) {
        old->unref();
    }
    return audio->getStreamStyle() == LxFormat::PullStream ? LX_OK : LX_ERR_UNSUPPORTED;
}

LxFormat* LxWin32AudioRenderer::getFormat() {
    KtScopedLock<KtWaitNotify> guard(waitNotify);
    return format;
}

KtResult LxWin32AudioRenderer::listFormats(LxFormat**& list, short* count) {
    list = acceptedFormat != nullptr ? new (std::nothrow) LxFormat*[1] : nullptr;
    if (list != nullptr) {
        list[0] = acceptedFormat;
    }
    if (count != nullptr) {
        *count = list != nullptr ? 1 : 0;
    }
    return LX_OK;
}

LxNode* LxWin32AudioRenderer::getNode() {
    LxLog::postDebug("LxWin32AudioRenderer:  getNode()\n");
    return this;
}

void LxWin32AudioRenderer::flush() {
    LxLog::postDebug("LxWin32AudioRenderer:  flush\n");
    KtScopedLock<KtWaitNotify> guard(waitNotify);
    if (currentFrame != nullptr) {
        returnFrame(currentFrame);
        currentFrame = nullptr;
    }
    if (source != nullptr) {
        while (LxFrame* f = source->getFrameForTime(LxTime(), LxTime())) {
            returnFrame(f);
        }
    }
}

// ---------------------------------------------------------------------------------------------
// The frame pool

LxAudioFrame* LxWin32AudioRenderer::createFrame() {
    LxAudioFrame* f = new (std::nothrow) LxAudioFrame();
    if (f == nullptr) {
        return nullptr;
    }
    LxLog::postDebug("LxWin32AudioRenderer:  Creating audioData buffer of size %d\n",
                     static_cast<int>(frameBytes));
    f->data = new (std::nothrow) unsigned char[frameBytes > 0 ? frameBytes : 1];
    if (f->data == nullptr) {
        LxLog::postDebug("LxWin32AudioRenderer:  Unable to allocate memory for audioData\n");
        delete f;
        return nullptr;
    }
    f->fillable = bytesPerFrame > 0 ? frameBytes / bytesPerFrame : 0;
    ++framesCreated;
    return f;
}

void LxWin32AudioRenderer::returnFrame(LxFrame* frame) {
    LxLog::postDebug("LxWin32AudioRenderer:  putting empty frame\n");
    LxAudioFrame* f = dynamic_cast<LxAudioFrame*>(frame);
    if (f == nullptr) {
        delete frame;  // not one of ours: its last holder is us now
        return;
    }
    f->filled = 0;
    f->consumed = 0;
    emptyFrames->send(f);
}

LxFrame* LxWin32AudioRenderer::getEmptyFrame(const LxTime& timeout) {
    {
        KtScopedLock<KtMutex> guard(poolLock);
        // Frames are made only once the set-up has fixed their size.
        if (emptyFrames->length() == 0 && framesCreated < kPoolFrames && frameBytes > 0) {
            LxLog::postDebug("LxWin32AudioRenderer:  creating another frame\n");
            return createFrame();
        }
    }
    LxLog::postDebug("LxWin32AudioRenderer:  waiting for an empty frame\n");
    LxTime wait = timeout;
    if (getCurrentState() == STARTED && kStartedPoolWait < wait) {
        wait = kStartedPoolWait;
    }
    return static_cast<LxFrame*>(emptyFrames->receive(1, wait));
}

void LxWin32AudioRenderer::putEmptyFrame(LxFrame* frame) {
    LxLog::postDebug("LxWin32AudioRenderer:  getting empty frame back\n");
    if (frame != nullptr) {
        returnFrame(frame);
    }
}

void LxWin32AudioRenderer::notifyEndOfMedia() {
    KtScopedLock<KtWaitNotify> guard(waitNotify);
    LxLog::postDebug("LxWin32AudioRenderer:  notifyEndOfMedia() for %5.3f\n", duration.getValue());
    LxLog::postDebug("LxWin32AudioRenderer:  got the lock and set the EOM flag\n");
    eomReceived = 1;
    eomDone = 0;
}

void LxWin32AudioRenderer::putFrame(LxFrame*) {}

// ---------------------------------------------------------------------------------------------
// Node operations

char LxWin32AudioRenderer::onChangeState(LxNodeState newState) {
    if (newState == DEAD || newState == STOPPED || newState == PREFETCHING || newState == STARTED) {
        return LxNode::onChangeState(newState);
    }
    LxLog::postDebug("LxWin32AudioRenderer: rejecting state change\n");
    return 0;
}

long LxWin32AudioRenderer::setDuration(const LxTime& d) {
    KtScopedLock<KtWaitNotify> guard(waitNotify);
    LxNode::setDuration(d);
    // The set-up runs once: a later duration (a player that learns its length) must not open a
    // second master port and a second pool behind the first one's back.
    if (portCount < 1 && getCurrentState() != DEAD) {
        if (setUp() != LX_OK) {
            setCurrentState(DEAD);
            waitNotify.notifyAll();
        }
    }
    return LX_OK;
}

void LxWin32AudioRenderer::prefetch() {
    LxLog::postDebug("LxWin32AudioRenderer: in prefetch\n");
    {
        KtScopedLock<KtWaitNotify> guard(waitNotify);
        if (getCurrentState() == STOPPED) {
            setCurrentState(PREFETCHING);
        } else {
            LxLog::postDebug("LxWin32AudioRenderer: skipping prefetch because was not in STOPPED state\n");
        }
        waitNotify.notifyAll();
    }
    LxLog::postDebug("LxWin32AudioRenderer: leaving prefetch()\n");
}

long LxWin32AudioRenderer::startAtTime(LxTime refTime) {
    LxLog::postDebug("LxWin32AudioRenderer:  startAtTime ()\n");
    KtScopedLock<KtWaitNotify> guard(waitNotify);
    const long r = LxNode::startAtTime(refTime);
    postEvent(new (std::nothrow) LxStartEvent(this, clock->getMediaTime(), refTime));
    if (tailPending) {
        // The last samples of the previous run are still playing: the new run starts clean.
        stopAllPorts();
        tailPending = 0;
    }
    draining = 0;
    resetPending = 1;
    soundPending.store(1);
    startRefTime = refTime;
    prepareMs = prepareAheadMs();
    setCurrentState(STARTED);
    eomReceived = 0;
    eomDone = 0;
    waitNotify.notifyAll();
    return r;
}

long LxWin32AudioRenderer::stopAtTime(LxTime refTime) {
    KtScopedLock<KtWaitNotify> guard(waitNotify);
    const long r = LxNode::stopAtTime(refTime);
    waitNotify.notifyAll();  // the thread's wait must end at the new stop time
    return r;
}

void LxWin32AudioRenderer::stop() {
    LxLog::postDebug("LxWin32AudioRenderer:  stop()\n");
    LxTime media;
    {
        KtScopedLock<KtWaitNotify> guard(waitNotify);
        if (getCurrentState() == STARTED) {
            handleStop();
            setCurrentState(STOPPED);
            waitNotify.notifyAll();
        }
        // A drained clip's last samples play on: the player itself stops every node once all
        // have reported their end, and that must not cut what is still to be heard.
        media = clock->getMediaTime();
    }
    postEvent(new (std::nothrow) LxStopByRequestEvent(this, media));
}

long LxWin32AudioRenderer::setRate(float* newRate) {
    LxLog::postDebug("LxWin32AudioRenderer:  setRate()\n");
    if (newRate == nullptr) {
        return LX_ERR_GENERIC;
    }
    KtScopedLock<KtWaitNotify> guard(waitNotify);
    if (getCurrentState() == STARTED) {
        clock->stop();
        clock->setRate(newRate);
        clock->startAtTime(refTime());
    } else {
        clock->setRate(newRate);
    }
    rate = *newRate;
    silentPacing = 0;  // its count was made at the old speed
    long result = LX_OK;
    for (int i = 0; i < portCount && result == LX_OK; ++i) {
        const long r = ports[i]->setTempo(rate);
        if (r != LX_OK) {
            result = r;
        }
    }
    return result;
}

long LxWin32AudioRenderer::setMediaTime(LxTime mediaTime) {
    KtScopedLock<KtWaitNotify> guard(waitNotify);
    return LxNode::setMediaTime(mediaTime);
}

long LxWin32AudioRenderer::setTimeBase(LxTimeBase* timeBase) {
    KtScopedLock<KtWaitNotify> guard(waitNotify);
    return LxNode::setTimeBase(timeBase);
}

LxTime LxWin32AudioRenderer::getStopTime() {
    KtScopedLock<KtWaitNotify> guard(waitNotify);
    return LxNode::getStopTime();
}

float LxWin32AudioRenderer::getRate() {
    KtScopedLock<KtWaitNotify> guard(waitNotify);
    return LxNode::getRate();
}

LxTime LxWin32AudioRenderer::getMediaTime() {
    KtScopedLock<KtWaitNotify> guard(waitNotify);
    return LxNode::getMediaTime();
}

LxTime LxWin32AudioRenderer::getSyncTime() {
    KtScopedLock<KtWaitNotify> guard(waitNotify);
    return LxNode::getSyncTime();
}

LxTimeBase* LxWin32AudioRenderer::getTimeBase() {
    KtScopedLock<KtWaitNotify> guard(waitNotify);
    return LxNode::getTimeBase();
}

void LxWin32AudioRenderer::setLoop(char l) {
    KtScopedLock<KtWaitNotify> guard(waitNotify);
    LxNode::setLoop(l);
    if (getCurrentState() == STARTED && isResident) {
        playAllPorts(l);
        residentEndSet = 0;  // a clip that stops looping ends one clip length from now at most
    }
}

long LxWin32AudioRenderer::getNewAudioPort(LxAudioOutputPort** out) {
    if (out == nullptr) {
        return LX_ERR_GENERIC;
    }
    KtScopedLock<KtWaitNotify> guard(waitNotify);
    if (portCount < 1) {
        LxLog::postDebug("LxWin32AudioRenderer:  failed to create masterPort\n");
        *out = nullptr;
        return LX_ERR_GENERIC;
    }
    if (portCount == 1 && !masterHandedOut) {
        LxLog::postDebug("LxWin32AudioRenderer:  getNewAudioPort() returning masterPort\n");
        *out = masterPort;
        masterHandedOut = 1;
        return LX_OK;
    }
    // The mixer keeps at most 32 duplicates of a buffer and the port table has room for 32: a
    // further sound source of the clip is refused rather than left with a port that cannot be.
    if (portCount >= kMaxPorts) {
        LxLog::postDebug("LxWin32AudioRenderer:  no room for another port\n");
        *out = nullptr;
        return LX_ERR_GENERIC;
    }
    LxLog::postDebug("LxWin32AudioRenderer:  getNewAudioPort() creating an additional port\n");
    LxRendererPort* p = new (std::nothrow) LxRendererPort(mixer, &soundPending);
    if (p == nullptr) {
        *out = nullptr;
        return LX_ERR_OUT_OF_MEMORY;
    }
    const int slot = portCount;
    ports[slot] = p;
    const long r = masterPort->duplicatePort(p);
    if (r != LX_OK) {
        LxLog::postDebug("LxWin32AudioRenderer:  Unable to open an additional port to the mixer\n");
        if (p->getPortNumber() >= 0) {
            mixer->closePort(p->getPortNumber());
        }
        ports[slot] = nullptr;
        delete p;
        *out = nullptr;
        return r;
    }
    LxLog::postDebug("LxWin32AudioRenderer:  Created a total of %d ports for this audio clip\n", slot + 1);
    if (manager == nullptr ||
        LxManagerServices::channels(manager)->requestPortChannel(p, LxTime(0, 0)) != LX_OK) {
        LxLog::postDebug("LxWin32AudioRenderer:  Failed to get channel for additional port\n");
        // A refused port is not kept half alive: its mixer port and buffer go at once.
        mixer->closePort(p->getPortNumber());
        ports[slot] = nullptr;
        delete p;
        *out = nullptr;
        return LX_ERR_GENERIC;
    }
    registeredPorts |= 1u << slot;
    p->setTempo(rate);
    *out = p;
    portCount = static_cast<int16_t>(slot + 1);
    if (portsActive) {
        // The clip is playing: the new port wants its channel now, like the others.
        LxManagerServices::channels(manager)->updatePortChannel(p, refTime(), 1);
        if (isResident && (residentStarted || tailPending)) {
            portEventsSeen[slot] = 0;  // joins where the clip is, once it holds a channel
            joinGrantedPorts(refTime());
        }
    }
    return LX_OK;
}

// ---------------------------------------------------------------------------------------------
// Set-up

long LxWin32AudioRenderer::setUp() {
    if (format == nullptr || mixer == nullptr || ports == nullptr || emptyFrames == nullptr) {
        return mixer == nullptr ? LX_ERR_NO_MIXER : LX_ERR_GENERIC;
    }
    const LxSampleFormat_s sampleFormat = format->getSampleFormat();
    const LxAudioChannels_s channels = format->getChannels();
    const float samplingRate = format->getSamplingRate();
    const char streaming = format->getIsStreaming();
    const double d = duration.getValue();

    // Every size is a whole number of sample frames, worked out in 64 bits from a rate that
    // setFormat has bounded: a buffer or frame that ends inside a sample frame would leave the
    // producer a frame with no room at all (at a rate of 1 Hz, half a second holds none).
    const int32_t bpf = (channels != LxMono ? 2 : 1) * (sampleFormat != LxSample8 ? 2 : 1);
    const int64_t rateWhole = std::max<int64_t>(1, static_cast<int64_t>(samplingRate));
    const int32_t bps = static_cast<int32_t>(rateWhole * bpf);
    auto wholeFrames = [&](double frames) {
        return static_cast<int32_t>(std::max<int64_t>(1, static_cast<int64_t>(std::ceil(frames))) * bpf);
    };
    int32_t size;
    char resident;
    if (d > 0.0 && d < 2.0) {
        // In whole numbers: a duration such as 1.9 s is not exact in binary, and its product
        // with the rate must not round up past the clip.
        const int64_t usec = duration.usec();
        const int64_t frames =
            static_cast<int64_t>(duration.sec()) * rateWhole + (usec * rateWhole + 999999) / 1000000;
        size = wholeFrames(static_cast<double>(frames));
        resident = 1;
        LxLog::postDebug("LxWin32AudioRenderer:  creating resident audio clip with size %d bytes\n",
                         static_cast<int>(size));
    } else {
        size = wholeFrames(static_cast<double>(rateWhole) * (streaming ? 6.0 : 1.5));
        resident = 0;
        LxLog::postDebug("LxWin32AudioRenderer:  creating streaming audio buffer of size %d\n",
                         static_cast<int>(size));
    }
    {
        KtScopedLock<KtMutex> guard(poolLock);
        bytesPerFrame = bpf;
        bytesPerSecond = bps;
        bufferSize = size;
        isResident = resident;
        frameBytes = wholeFrames(0.5 * static_cast<double>(rateWhole));
    }
    lowWaterMark = static_cast<int32_t>(static_cast<int64_t>(bps) * 75 / 1000);  // 75 ms
    LxLog::postDebug("LxWin32AudioRenderer:  lowWaterMark = %d\n", static_cast<int>(lowWaterMark));

    portConfig = new (std::nothrow)
        LxWin32AudioPortConfig(channels, sampleFormat, samplingRate, bufferSize, streaming, isResident);
    if (portConfig == nullptr) {
        return LX_ERR_OUT_OF_MEMORY;
    }
    LxRendererPort* port = new (std::nothrow) LxRendererPort(mixer, &soundPending);
    if (port == nullptr) {
        return LX_ERR_OUT_OF_MEMORY;
    }
    ports[0] = port;
    masterPort = port;
    const long opened = port->openPort(portConfig);
    if (opened != LX_OK) {
        LxLog::postDebug("LxWin32AudioRenderer:  Unable to open a port to the mixer\n");
        return opened;  // the caller makes the node DEAD
    }
    portCount = 1;
    port->setTempo(rate);

    LxLog::postDebug("LxWin32AudioRenderer: requesting port channel\n");
    if (manager != nullptr &&
        LxManagerServices::channels(manager)->requestPortChannel(port, LxTime(0, 0)) == LX_OK) {
        registeredPorts |= 1u;
    } else {
        LxLog::postDebug("LxWin32AudioRenderer: manager refused port channel request\n");
        setCurrentState(DEAD);
        waitNotify.notifyAll();
    }

    KtScopedLock<KtMutex> guard(poolLock);
    for (int i = 0; i < kPoolFrames; ++i) {
        if (LxAudioFrame* f = createFrame()) {
            emptyFrames->send(f);
        }
    }
    return LX_OK;
}

// ---------------------------------------------------------------------------------------------
// The renderer thread

long LxWin32AudioRenderer::threadEntry(void* renderer) {
    static_cast<LxWin32AudioRenderer*>(renderer)->run();
    return 0;
}

LxTime LxWin32AudioRenderer::refTime() {
    LxTimeBase* tb = clock->getTimeBase();
    return tb != nullptr ? tb->getRefTime() : LxTime();
}

uint32_t LxWin32AudioRenderer::masterChannelEvents() const {
    return masterPort != nullptr ? static_cast<LxRendererPort*>(masterPort)->events.load() : 0;
}

bool LxWin32AudioRenderer::masterHasChannel() const {
    return masterPort != nullptr && masterPort->hasChannel();
}

void LxWin32AudioRenderer::run() {
    LxLog::postDebug("LxWin32AudioRenderer:  In run ()\n");
    uint32_t w = 0;
    // The lock is held from the moment the state is read until the thread waits again, so that a
    // state change made meanwhile always finds the thread waiting and wakes it.
    {
        KtScopedLock<KtWaitNotify> guard(waitNotify);
        for (;;) {
            if (getCurrentState() != DEAD) {
                waitNotify.wait(w);
            }
            const LxNodeState s = getCurrentState();
            if (s == DEAD) {
                soundPending.store(0);
                break;
            }
            if (s == STOPPED) {
                w = KT_INFINITE;
                if (tailPending) {
                    const uint32_t tail = tailWait(refTime());
                    if (tail > 0) {
                        w = tail;
                        continue;
                    }
                    stopAllPorts();
                    tailPending = 0;
                    soundPending.store(0);
                }
                if (portsActive) {
                    LxLog::postDebug("LxWin32AudioRenderer: updating channels - going inactive\n");
                    updateChannels(LxTime(0, 0), 0);
                    portsActive = 0;
                }
                continue;
            }
            if (s == PREFETCHING) {
                if (portCount < 1 && setUp() != LX_OK) {
                    setCurrentState(DEAD);
                    continue;
                }
                postEvent(new (std::nothrow) LxPrefetchCompleteEvent(this));
                setCurrentState(STOPPED);
                w = 0;
                continue;
            }
            if (s == STARTED) {
                w = startedPass();
            }
        }
    }
    LxLog::postDebug("LxWin32AudioRenderer: asking manager to release all channels\n");
    {
        KtScopedLock<KtWaitNotify> guard(waitNotify);
        releaseChannels();
        threadRunning = 0;
        waitNotify.notifyAll();
    }
    LxLog::postDebug("LxWin32AudioRenderer:  goodbye cruel world!\n");
}

double LxWin32AudioRenderer::prepareAheadMs() {
    const double latency = manager != nullptr
                               ? LxManagerServices::channels(manager)->getStartUpLatency().getValue() * 1000.0
                               : 0.0;
    return std::max(kPrepareMs, latency + 50.0);
}

uint32_t LxWin32AudioRenderer::startedPass() {
    LxTimeBase* tb = clock->getTimeBase();
    const LxTime media = clock->getMediaTime();
    const LxTime sync = clock->getSyncTime();
    const long lead = static_cast<long>((media.getValue() - sync.getValue()) * 1000.0);
    if (lead != 0) {
        // The lead is counted in media time, which the clock covers at |rate| media milliseconds
        // per millisecond. A negative lead (a backward clock before its start) is waited for by
        // its magnitude as well: read as an unsigned count it would be a wait of weeks.
        double ms = std::fabs(static_cast<double>(lead));
        const float clockRate = clock->getRate();
        if (clockRate != 0.0f) {
            ms /= std::fabs(static_cast<double>(clockRate));
        }
        // A forward clock's start is prepared a little ahead: the first samples go into the
        // buffer early, set to be heard at the start's exact sample (see scheduleStart).
        const bool forward = lead > 0 && clockRate > 0.0f;
        if (!forward || ms > prepareMs) {
            return std::max<uint32_t>(1, clampMs(forward ? ms - prepareMs : ms));
        }
    }

    LxTime now = tb != nullptr ? tb->getRefTime() : LxTime();
    const LxTime stopTime = clock->getStopTime();
    if (tb != nullptr && now >= stopTime) {
        LxLog::postDebug("LxWin32AudioRenderer:  passed stopTime\n");
        handleStop();
        setCurrentState(STOPPED);
        postEvent(new (std::nothrow) LxStopAtTimeEvent(this, clock->getMediaTime(), clock->getStopTime()));
        return 0;
    }

    if (!portsActive) {
        LxLog::postDebug("LxWin32AudioRenderer: updating channel - going active\n");
        updateChannels(now, 1);
        portsActive = 1;
        if (format != nullptr && format->getIsStreaming()) {
            prefillSilence = 1;
        }
        if (now < startRefTime && tb != nullptr) {
            const float tempo = tb->getTempo();
            const double ahead = tempo > 0.0f ? (startRefTime.getValue() - now.getValue()) / tempo : 0.0;
            for (int i = 0; i < portCount; ++i) {
                ports[i]->scheduleStart(ahead);
            }
        }
    }
    if (getCurrentState() != STARTED) {
        return 0;
    }

    uint32_t w;
    if (draining) {
        if (now >= drainPostAt) {
            finishDrain();
            return 0;
        }
        w = msUntil(drainPostAt, now);
    } else if (isResident) {
        w = residentStep(now);
    } else {
        w = streamingStep(now);
        if (w == kFirstFramePollMs || draining) {
            // keep it: the first frame is due any moment, or the end's wait is set
        } else if (w < 25) {
            w = 25;
        } else {
            now = refTime();
            w = streamingStep(now);
        }
        if (draining) {
            w = msUntil(drainPostAt, now);
        }
    }
    // Wake at the stop time rather than up to a pass after it.
    if (getCurrentState() == STARTED && tb != nullptr && stopTime != LxTime::maxTime()) {
        w = std::min(w, msUntil(stopTime, refTime()));
    }
    return w;
}

bool LxWin32AudioRenderer::writeFromFrame(LxAudioFrame* f, const LxTime& now) {
    int64_t remaining = static_cast<int64_t>(f->filled) - f->consumed;
    if (remaining <= 0) {
        return true;
    }
    const uint32_t events = masterChannelEvents();
    if (events != channelEventsSeen) {
        // A grant or revocation stopped the buffer and rewound it in the mixer.
        channelEventsSeen = events;
        resetPending = 1;
        writeFailed = 0;
    }
    const long fillable = masterPort->getFillable();
    const bool silent = fillable < 0 || writeFailed ||
                        (portCount <= 1 && (!masterHasChannel() || masterPort->getGain() <= 0.000001f));
    if (silent) {
        // Nobody hears this port: the frames go at the speed they would play at, so that the
        // producer keeps its pace and the clip is at the right place when it becomes audible.
        if (!silentPacing) {
            silentPacing = 1;
            silentSince = now < startRefTime ? startRefTime : now;  // nothing plays before the start
            silentFrames = 0;
        }
        const double speed = format != nullptr ? format->getSamplingRate() * std::fabs(rate) : 0.0;
        const int64_t due =
            static_cast<int64_t>(std::floor((now.getValue() - silentSince.getValue()) * speed)) -
            silentFrames;
        const int64_t n = std::max<int64_t>(0, std::min(due, remaining));
        f->consumed += static_cast<int32_t>(n);
        silentFrames += n;
        return f->consumed >= f->filled;
    }
    if (silentPacing) {
        // Audible again: whatever the buffer held while it was not heard is stale.
        silentPacing = 0;
        stopAllPorts();
        resetPending = 1;
    }

    // Write only what goes in without the mixer having to wait for room: its throttle would
    // otherwise hold this thread, and with it the lock, for up to a frame's length.
    int32_t limit = static_cast<int32_t>(std::floor(0.75 * bufferSize));
    if (format != nullptr && format->getIsStreaming()) {
        // A streaming buffer more than half a second full is rewound by the mixer.
        limit = std::min(limit, static_cast<int32_t>(std::floor(0.5 * bytesPerSecond)));
    }
    const int32_t level = resetPending ? 0 : bufferSize - static_cast<int32_t>(fillable);
    int64_t room = bytesPerFrame > 0 ? (limit - level) / bytesPerFrame : 0;
    const int64_t maxChunk = std::max<int64_t>(
        1, static_cast<int64_t>(kMaxWriteSeconds * bytesPerSecond) / std::max(1, bytesPerFrame));
    while (remaining > 0 && room > 0) {
        const int64_t n = std::min(std::min(remaining, room), maxChunk);
        const long r = masterPort->writeFrames(f->data, static_cast<long>(f->consumed) * bytesPerFrame,
                                               static_cast<long>(n));
        f->consumed += static_cast<int32_t>(n);
        remaining -= n;
        room -= n;
        resetPending = 0;
        if (r != LX_OK) {
            // The samples are lost either way; the clip goes on silently rather than racing
            // through its frames against a buffer that refuses them.
            writeFailed = 1;
            break;
        }
    }
    return remaining <= 0;
}

uint32_t LxWin32AudioRenderer::streamingStep(const LxTime& now) {
    LxAudioFrame* f = currentFrame;
    if (f == nullptr) {
        LxFrame* got = source != nullptr ? source->getFrameForTime(now, LxTime()) : nullptr;
        f = dynamic_cast<LxAudioFrame*>(got);
        if (got != nullptr && f == nullptr) {
            returnFrame(got);
        }
        if (f == nullptr) {
            if (!eomReceived) {
                const long fillable = masterPort->getFillable();
                const int32_t level = bufferSize - static_cast<int32_t>(fillable);
                if (level > lowWaterMark || !hasWritten || silentPacing || resetPending) {
                    LxLog::postDebug("LxWin32AudioRenderer:  NULL frame\n");
                    const bool firstFrame =
                        !hasWritten && now.getValue() - startRefTime.getValue() < kFirstFrameWindow;
                    return firstFrame ? kFirstFramePollMs : 50;
                }
                LxLog::postDebug("LxWin32AudioRenderer:  mixerBufferSize = %d, fillable = %d\n",
                                 static_cast<int>(bufferSize), static_cast<int>(fillable));
                LxLog::postDebug("LxWin32AudioRenderer:  bytesInBuffer = %d, lowWaterMark = %d\n",
                                 static_cast<int>(level), static_cast<int>(lowWaterMark));
                LxLog::postDebug("LxWin32AudioRenderer:  buffer is %d quarts low #1\n",
                                 static_cast<int>(lowWaterMark - level));
                if (level <= 0.75 * lowWaterMark && bytesPerFrame > 0) {
                    masterPort->fillSilence(static_cast<long>((lowWaterMark - level) / bytesPerFrame));
                }
                return 25;
            }
            LxLog::postDebug("LxWin32AudioRenderer:  Got EOM frame\n");
            eomDone = 1;
        } else {
            currentFrame = f;
        }
    }

    if (f != nullptr) {
        if (prefillSilence) {
            masterPort->fillSilence(LxTime(0.5));
            prefillSilence = 0;
            resetPending = 0;  // the silence went in from the buffer's start
        }
        const bool done = writeFromFrame(f, now);
        hasWritten = 1;
        if (!done) {
            return 0;  // the rest waits for room; the buffer holds enough meanwhile
        }
    }

    uint32_t result = 0;
    if (eomDone) {
        if (!loop) {
            LxLog::postDebug("LxWin32AudioRenderer:  handleEOM ()\n");
            result = beginDrain(now);
        } else {
            eomDone = 0;
            eomReceived = 0;
            result = 0;
        }
    } else if (!silentPacing) {
        result = checkLowWater(2, 25);
    }
    LxLog::postDebug("LxWin32AudioRenderer:  Done with frame, putting it back  on the queue\n");
    if (f != nullptr) {
        returnFrame(f);
        currentFrame = nullptr;
    }
    return result;
}

uint32_t LxWin32AudioRenderer::checkLowWater(int tag, uint32_t lowResult) {
    const long fillable = masterPort->getFillable();
    if (fillable < 0) {
        return 0;
    }
    const int32_t level = bufferSize - static_cast<int32_t>(fillable);
    if (level >= lowWaterMark) {
        return 0;
    }
    if (level <= 0.75 * lowWaterMark) {
        LxLog::postDebug("LxWin32AudioRenderer:  mixerBufferSize = %d, fillable = %d\n",
                         static_cast<int>(bufferSize), static_cast<int>(fillable));
        LxLog::postDebug("LxWin32AudioRenderer:  bytesInBuffer = %d, lowWaterMark = %d\n",
                         static_cast<int>(level), static_cast<int>(lowWaterMark));
        LxLog::postDebug(tag == 1 ? "LxWin32AudioRenderer:  buffer is %d quarts low #1\n"
                                  : "LxWin32AudioRenderer:  buffer is %d quarts low #2\n",
                         static_cast<int>(lowWaterMark - level));
        if (bytesPerFrame > 0) {
            masterPort->fillSilence(static_cast<long>((lowWaterMark - level) / bytesPerFrame));
        }
    }
    return lowResult;
}

uint32_t LxWin32AudioRenderer::residentStep(const LxTime& now) {
    // A port still waiting for its channel is looked at often, so that it joins on time.
    const uint32_t most = residentStarted && joinGrantedPorts(now) ? kJoinPollMs : 100;
    if (residentDone) {
        LxLog::postDebug("LxAR: resident buffer full\n");
        if (!residentStarted) {
            LxLog::postDebug("LxWin32AudioRenderer:  starting resident clip\n");
            // A buffer that played out by itself still counts as playing in the mixer; stopping it
            // first makes the new start begin at the clip's first sample.
            stopAllPorts();
            startResident(now);
        }
        if (!loop) {
            if (!residentEndSet) {
                residentEndAt = later(now, duration.getValue() / speedOf(rate));
                residentEndSet = 1;
            }
            if (now >= residentEndAt) {
                finishResident();
                return 0;
            }
            return std::min(most, std::max<uint32_t>(1, msUntil(residentEndAt, now)));
        }
        LxFrame* tossed = source != nullptr ? source->getFrameForTime(now, LxTime()) : nullptr;
        if (tossed != nullptr) {
            LxLog::postDebug("LxAR:  pull and toss\n");
            returnFrame(tossed);
        }
        return most;
    }

    LxFrame* got = source != nullptr ? source->getFrameForTime(now, LxTime()) : nullptr;
    LxAudioFrame* f = dynamic_cast<LxAudioFrame*>(got);
    if (got != nullptr && f == nullptr) {
        returnFrame(got);
    }
    if (f == nullptr) {
        if (eomReceived) {
            LxLog::postDebug("LxAR:  Got the EOM frame\n");
            eomDone = 1;
        } else {
            LxLog::postDebug("LxAR:  Got a NULL frame!\n");
            const bool firstFrame =
                !residentStarted && now.getValue() - startRefTime.getValue() < kFirstFrameWindow;
            return firstFrame ? kFirstFramePollMs : 50;
        }
    } else if (f->filled > 0) {
        if (masterPort->writeResidentFrames(f->data, 0, f->filled) == LX_ERR_RESIDENT_FULL) {
            eomReceived = 1;
            eomDone = 1;
        }
    }
    if (!residentStarted) {
        LxLog::postDebug("LxAR: starting resident clip in pullsomemore\n");
        startResident(now);
    }
    uint32_t w = std::min<uint32_t>(25, most);
    if (eomDone) {
        LxLog::postDebug("LxWin32AudioRenderer:  Done sending resident to buffer, got the EOM for %5.3f\n",
                         duration.getValue());
        residentDone = 1;
        if (!loop) {
            finishResident();
            w = 0;
        }
    }
    LxLog::postDebug("LxWin32AudioRenderer:  Done with frame, putting it back on the queue\n");
    if (f != nullptr) {
        returnFrame(f);
    }
    return w;
}

void LxWin32AudioRenderer::startResident(const LxTime& now) {
    residentStarted = 1;
    playAllPorts(loop);
    residentSoundStart = now < startRefTime ? startRefTime : now;  // a start ahead is scheduled
    residentEndAt = later(residentSoundStart, duration.getValue() / speedOf(rate));
    residentEndSet = 1;
    for (int i = 0; i < portCount; ++i) {
        portEventsSeen[i] = static_cast<LxRendererPort*>(ports[i])->events.load();
    }
}

bool LxWin32AudioRenderer::joinGrantedPorts(const LxTime& now) {
    const double elapsed = now.getValue() - residentSoundStart.getValue();
    const double samplingRate = format != nullptr ? format->getSamplingRate() : 0.0;
    int64_t position =
        static_cast<int64_t>(std::floor(elapsed * samplingRate * speedOf(rate))) * bytesPerFrame;
    if (loop && bufferSize > 0) {
        position %= bufferSize;
    }
    if (position < 0 || position >= bufferSize) {
        return false;  // the clip has played out: nothing is left to join
    }
    bool waiting = false;
    for (int i = 0; i < portCount; ++i) {
        LxRendererPort* p = static_cast<LxRendererPort*>(ports[i]);
        const uint32_t events = p->events.load();
        if (!p->hasChannel()) {
            waiting = true;
        } else if (events != portEventsSeen[i]) {
            // The grant rewound and stopped the buffer (or it never played): it starts where
            // the clip would be now, so that it ends with the clip and stays in step with the
            // ports that held their channels all along.
            portEventsSeen[i] = events;
            p->playPortFrom(loop, static_cast<long>(position));
        }
    }
    return waiting;
}

void LxWin32AudioRenderer::finishResident() {
    setCurrentState(STOPPED);
    clock->stop();
    flush();
    residentStarted = 0;
    residentEndSet = 0;
    // The buffer, played without looping, plays out by itself. Until its last sample is heard
    // the ports keep their channels (or keep waiting for one, to join on time), the clip counts
    // as sounding, and its stop time still ends it.
    tailPending = 1;
    tailStopAt = residentEndAt;
    tailGiveUpAt = later(residentEndAt, 1.0);
    postEvent(new (std::nothrow) LxEndOfMediaEvent(this));
}

void LxWin32AudioRenderer::handleStop() {
    LxLog::postDebug("LxWin32AudioRenderer:  handleStop ()\n");
    clock->stop();
    draining = 0;
    tailPending = 0;
    soundPending.store(0);
    residentEndSet = 0;
    if (isResident) {
        stopAllPorts();
        residentStarted = 0;
        hasWritten = 0;
        return;
    }
    stopAllPorts();
    hasWritten = 0;
    resetPending = 1;
    silentPacing = 0;
    writeFailed = 0;
    flush();
}

uint32_t LxWin32AudioRenderer::beginDrain(const LxTime& now) {
    LxLog::postDebug("LxWin32AudioRenderer:  handleStop ()\n");
    clock->stop();
    const long fillable = masterPort->getFillable();
    const int32_t queued =
        fillable < 0 || silentPacing || resetPending ? 0 : bufferSize - static_cast<int32_t>(fillable);
    LxLog::postDebug("LxWin32AudioRenderer:  fillable = %d mixerBufferSize = %d bytesToWrite = %d\n",
                     static_cast<int>(fillable), static_cast<int>(bufferSize), static_cast<int>(queued));
    const double speed = rate > 0.0f ? static_cast<double>(rate) : 1.0;
    const double playMs = bytesPerSecond > 0 ? queued * 1000.0 / bytesPerSecond / speed : 0.0;
    const long stall = std::max(0L, static_cast<long>(std::floor(playMs - 300.0)));
    LxLog::postDebug("LxWin32AudioRenderer:  handleStop(), stalling %d\n", static_cast<int>(stall));
    masterPort->fillSilence(LxTime(0.1));
    if (fillable > 0 && bytesPerSecond > 0) {
        // Silence over the rest of the ring as well: the ports stop only once the last samples
        // have played, and a late stop must find silence there, not the clip's older samples.
        const long rest = fillable - static_cast<long>(std::floor(0.1 * bytesPerSecond)) - bytesPerFrame;
        if (rest > 0) {
            masterPort->fillSilence(LxTime(static_cast<double>(rest) / bytesPerSecond));
        }
    }
    // The end-of-media event goes out when 300 ms of the clip are left to play, as the stall
    // says; the ports, unlike a stop, keep playing until the last sample has been heard.
    draining = 1;
    drainPostAt = later(now, stall / 1000.0);
    tailStopAt = later(now, playMs / 1000.0 + kTailMarginSeconds);
    tailGiveUpAt = later(tailStopAt, 1.0);
    tailQueued = queued;
    tailPlayed = 0;
    tailLastFillable = static_cast<int32_t>(masterPort->getFillable());
    hasWritten = 0;
    return static_cast<uint32_t>(stall);
}

void LxWin32AudioRenderer::finishDrain() {
    draining = 0;
    flush();
    setCurrentState(STOPPED);
    tailPending = 1;
    LxLog::postDebug("LxWin32AudioRenderer:  posting EOM event\n");
    postEvent(new (std::nothrow) LxEndOfMediaEvent(this));
}

uint32_t LxWin32AudioRenderer::tailWait(const LxTime& now) {
    const LxTime stopTime = clock->getStopTime();
    const bool hasStop = stopTime != LxTime::maxTime();
    if (hasStop && now >= stopTime) {
        LxLog::postDebug("LxWin32AudioRenderer:  passed stopTime while playing out\n");
        return 0;
    }
    uint32_t w;
    if (isResident) {
        // A port that plays is over when its buffer stops by itself after the last sample (the
        // device's own count, which may run behind the clock); one that waits for a channel
        // has sound to play until the clip's end by the clock.
        const bool waiting = joinGrantedPorts(now) && now < tailStopAt;
        bool sounding = false;
        for (int i = 0; i < portCount && !sounding; ++i) {
            sounding = mixer->isPortSounding(ports[i]->getPortNumber()) != 0;
        }
        if (now >= tailGiveUpAt || (!sounding && !waiting)) {
            return 0;
        }
        w = waiting ? std::min(kJoinPollMs, msUntil(tailStopAt, now)) : 25;
    } else {
        if (tailPlayedOut(now)) {
            return 0;
        }
        w = std::min<uint32_t>(25, msUntil(tailStopAt, now));
    }
    if (hasStop) {
        w = std::min(w, msUntil(stopTime, now));
    }
    return std::max<uint32_t>(1, w);
}

bool LxWin32AudioRenderer::tailPlayedOut(const LxTime& now) {
    if (now >= tailGiveUpAt || masterPort == nullptr || bufferSize <= 0 ||
        !mixer->isPortSounding(masterPort->getPortNumber())) {
        return true;
    }
    // Nothing is written any more, so the room grows exactly as the play cursor moves; polled
    // more often than the cursor covers the ring, the steps add up to the distance played.
    const long fillable = masterPort->getFillable();
    if (fillable < 0 || tailLastFillable < 0) {
        return true;
    }
    tailPlayed += static_cast<int32_t>((fillable - tailLastFillable + bufferSize) % bufferSize);
    tailLastFillable = static_cast<int32_t>(fillable);
    return tailPlayed >= tailQueued;
}

void LxWin32AudioRenderer::stopAllPorts() {
    for (int i = 0; i < portCount; ++i) {
        ports[i]->stopPort();
    }
}

void LxWin32AudioRenderer::playAllPorts(char loopIt) {
    for (int i = 0; i < portCount; ++i) {
        ports[i]->playPort(loopIt);
    }
}

void LxWin32AudioRenderer::updateChannels(const LxTime& time, char wantsChannel) {
    if (manager == nullptr) {
        return;
    }
    for (int i = 0; i < portCount; ++i) {
        if (LxManagerServices::channels(manager)->updatePortChannel(ports[i], time, wantsChannel) != LX_OK) {
            break;
        }
    }
}

void LxWin32AudioRenderer::releaseChannels() {
    if (manager == nullptr || ports == nullptr) {
        return;
    }
    for (int i = 0; i < kMaxPorts; ++i) {
        if ((registeredPorts & (1u << i)) != 0 && ports[i] != nullptr) {
            LxManagerServices::channels(manager)->releasePortChannel(ports[i]);
        }
    }
    registeredPorts = 0;
}
