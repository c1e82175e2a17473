// LxWin32MidiPlayer: loading a MIDI clip, the channel protocol, the stream and its two buffers.
#include "LxWin32MidiPlayer.h"

#include "LxDataSource.h"
#include "LxEvent.h"
#include "LxLog.h"
#include "LxManagerServices.h"
#include "LxQueue.h"
#include "LxResult.h"
#include "LxTimeBase.h"
#include "midi/LxWin32MidiParser.h"
#include "midi/LxWin32NewMidiParser.h"
#include "platform/midi/LxpMidi.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <new>

using lxp::HMIDISTRM;
using lxp::MIDIHDR;
using lxp::MMSYSERR_NOERROR;

namespace {

// The General MIDI power-on channel volume, also used for channels of a clip whose file model
// could not be read: a used channel left at 0 would be silent for the whole clip.
constexpr uint32_t kDefaultChannelVolume = 100;

// parseNewBuffer's result when the data had already ended before the call.
constexpr int kParseEndReached = LxWin32MidiParser::PARSE_END_REACHED;

// How often the player thread asks the device whether a tail has died away.
constexpr unsigned long kTailPollMs = 10;

int64_t steadyMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

/// The parser's view of the player: the settings it reads and the volume table it writes, all
/// atomics, as the parser runs on the device's callback thread too.
class LxWin32MidiPlayer::ParserLink : public LxMidiParserOwner {
  public:
    explicit ParserLink(LxWin32MidiPlayer* p) : player(p) {}
    float getParserGain() override { return player->gain.load(); }
    float getParserTempoScale() override { return player->tempoScale.load(); }
    bool takeTempoChanged() override { return player->tempoChanged.exchange(false); }
    void storeChannelVolume(unsigned channel, uint32_t value) override {
        if (channel < 16) {
            player->channelVolumes[channel].store(value);
        }
    }

  private:
    LxWin32MidiPlayer* player;
};

LxWin32MidiPlayer::LxWin32MidiPlayer(LxManager* m, LxDataSource* source)
    : LxPlayer(m, source),
      LxAudioOutputPort(),
      stream(nullptr),
      parser(nullptr),
      deviceId(lxp::MIDI_MAPPER),
      gain(1.0f),
      tempoScale(1.0f),
      tempoChanged(false),
      streamBuffers(nullptr),
      buffersDone(2),
      current(0),
      headersPrepared(0),
      streamState(STREAM_RUNNING),
      active(0),
      fileOpen(0),
      priority(0.0f),
      streamStarted(0),
      endOfDataPending(false),
      inactivePending(false),
      holdingChannel(0),
      parserLink(nullptr),
      playing(false),
      tailing(false),
      tailEndMs(0),
      endingPass(0),
      startFailed(false),
      seekPosition(0.0),
      positionPending(1),
      streamFrom(0.0) {
    channelType = LxMidiChannel;
    channelHeld = 0;
    for (int c = 0; c < 16; ++c) {
        channelVolumes[c].store(kDefaultChannelVolume);
        startVolumes[c] = kDefaultChannelVolume;
    }
    streamBuffers = new (std::nothrow) LxMidiStreamBuffer[2]();
    parserLink = new (std::nothrow) ParserLink(this);
    startThread(&LxWin32MidiPlayer::callRunLoop);
}

LxWin32MidiPlayer::~LxWin32MidiPlayer() {
    LxLog::postDebug("LxWin32MidiPlayer:  LxWin32MidiPlayer:  destructor\n");
    waitAndShutdown();
    // Normally the thread's shutdown() has released all of it already. A device that refused to
    // stop still holds buffers: they are freed only once they are back, as they come back by
    // playing out.
    for (int tries = 0; stream.load() != nullptr; ++tries) {
        {
            KtScopedLock guard(signal);
            stopStreamLocked();
        }
        if (stream.load() == nullptr) {
            break;
        }
        if (tries == 100) {
            LxLog::postDebug("LxWin32MidiPlayer:  the device keeps its buffers; leaving them to it\n");
            return;
        }
        KtScopedLock wait(stopWait);
        if (buffersDone.load() < 2) {
            stopWait.wait(100);
        }
    }
    delete parser;
    parser = nullptr;
    if (streamBuffers != nullptr) {
        for (int i = 0; i < 2; ++i) {
            std::free(streamBuffers[i].header.lpData);
        }
        delete[] streamBuffers;
        streamBuffers = nullptr;
    }
    delete parserLink;
    parserLink = nullptr;
}

long LxWin32MidiPlayer::callRunLoop(void* player) {
    static_cast<LxWin32MidiPlayer*>(player)->run();
    return 0;
}

void LxWin32MidiPlayer::deviceCallback(lxp::MidiStreamObject* handle, uint32_t message, uintptr_t instance,
                                       uintptr_t param1, uintptr_t) {
    reinterpret_cast<LxWin32MidiPlayer*>(instance)->handleMidiCallback(handle, message, param1);
}

// ---------------------------------------------------------------------------------------------
// The port

long LxWin32MidiPlayer::setSoundLocation(const float*) {
    return LX_OK;
}

const float* LxWin32MidiPlayer::getLocation() const {
    return nullptr;
}

long LxWin32MidiPlayer::setGain(float g) {
    LxLog::postDebug("LxWin32MidiPlayer:  setGain %5.3f\n", static_cast<double>(g));
    if (!(g >= 0.0f && g <= 1.0f)) {  // NaN included
        return LX_ERR_GENERIC;
    }
    gain.store(g);
    if (getCurrentState() != STARTED) {
        return LX_ERR_GENERIC;  // applied by the next start
    }
    LxSetGainEvent* event = new (std::nothrow) LxSetGainEvent(this, g);
    if (event == nullptr) {
        return LX_ERR_OUT_OF_MEMORY;
    }
    nodeEventQueue->send(event);
    return LX_OK;
}

long LxWin32MidiPlayer::setPan(float) {
    return LX_OK;
}

float LxWin32MidiPlayer::getPan() const {
    return 0.0f;
}

float LxWin32MidiPlayer::getGain() const {
    return gain.load();
}

long LxWin32MidiPlayer::setPriority(float p) {
    priority.store(p);
    return LX_OK;
}

float LxWin32MidiPlayer::getPriority() const {
    return priority.load();
}

long LxWin32MidiPlayer::setSpatialize(char) {
    return LX_OK;
}

char LxWin32MidiPlayer::getSpatialize() const {
    return 0;
}

char LxWin32MidiPlayer::hasChannel() const {
    return holdingChannel.load();
}

char LxWin32MidiPlayer::isSounding() const {
    return playing.load() || tailing.load() ? 1 : 0;
}

long LxWin32MidiPlayer::grantChannel() {
    LxLog::postDebug("LxWin32MidiPlayer:  we are told that we can acquire the channel\n");
    KtScopedLock guard(signal);
    holdingChannel.store(1);
    channelHeld = 1;
    if (active) {
        startStreamLocked();
    }
    return LX_OK;
}

long LxWin32MidiPlayer::revokeChannel() {
    LxLog::postDebug("LxWin32MidiPlayer:  we are told we have to give up our channel\n");
    KtScopedLock guard(signal);
    holdingChannel.store(0);
    channelHeld = 0;
    // The player still wants to sound: a later grant plays the clip on from where its clock has
    // got to. A stream left open by a refused stop goes too: a port without the channel holds no
    // device.
    if (active || stream.load() != nullptr) {
        stopStreamLocked();
    }
    return LX_OK;
}

// ---------------------------------------------------------------------------------------------
// Player operations

long LxWin32MidiPlayer::getNewAudioPort(LxAudioOutputPort** port) {
    if (port == nullptr) {
        return LX_ERR_GENERIC;
    }
    *port = this;
    return LX_OK;
}

long LxWin32MidiPlayer::setRateAll(float* rate) {
    LxLog::postDebug("LxWin32MidiPlayer:  setRateAll %5.3f\n",
                     rate != nullptr ? static_cast<double>(*rate) : 0.0);
    const long result = LxPlayer::setRateAll(rate);
    if (result != LX_OK) {
        return result;
    }
    setTempoScale(*rate);
    return LX_OK;
}

void LxWin32MidiPlayer::handleNodeEvent(LxEvent* event) {
    if (event->getEventType() == LxSetGainEventType) {
        setAllChannelVolume();
        event->unref();
        return;
    }
    event->ref();
    LxPlayer::handleNodeEvent(event);
    event->unref();
}

long LxWin32MidiPlayer::stopAll() {
    if (active) {
        active = 0;
        stopStreamLocked();
        // The caller holds the signal: the manager hears of it from the player thread.
        inactivePending.store(true);
    } else if (tailing.load() && !endingPass) {
        stopStreamLocked();  // a stop asked for cuts the release tails too
    }
    playing.store(false);
    const bool wasStarted = getCurrentState() == STARTED;
    const long result = LxPlayer::stopAll();
    // A later start without a new position goes on from where the clock stopped, as heard; after
    // the clip's own end it plays the clip again from its start (a stop after that keeps it so).
    if (wasStarted) {
        seekPosition = endingPass ? 0.0 : clock->getMediaTime().getValue();
        positionPending = 1;
    }
    return result;
}

long LxWin32MidiPlayer::startAll(LxTime t) {
    playing.store(true);
    return LxPlayer::startAll(t);
}

long LxWin32MidiPlayer::setTimeAll(LxTime t) {
    // A loop's new pass (endingPass) finds the clock stopped and starts it itself.
    if (getCurrentState() != STARTED || endingPass) {
        const long result = LxPlayer::setTimeAll(t);
        if (result == LX_OK) {
            seekPosition = t.getValue();
            positionPending = 1;
        }
        return result;
    }
    // The running clock refuses a new media time: it is stopped and started again. While the
    // music plays the stream goes with it and starts again at once from t; a start still to come
    // keeps its reference time (read back from the clock: the sync time runs from its start,
    // while the media time waits at the origin).
    LxTimeBase* tb = clock->getTimeBase();
    const LxTime now = tb != nullptr ? tb->getRefTime() : LxTime::zero();
    LxTime startAt = now;
    const float rate = clock->getRate();
    if (!active && rate > 0.0f) {
        const double ahead = (clock->getSyncTime().getValue() - clock->getMediaTime().getValue()) / rate;
        startAt = LxTime(now.getValue() - ahead);
    }
    const bool wasStreaming = streamStarted != 0;
    if (wasStreaming) {
        stopStreamLocked();
    }
    clock->stop();
    const long result = LxPlayer::setTimeAll(t);
    if (result == LX_OK) {
        seekPosition = t.getValue();
        positionPending = 1;
    }
    clock->startAtTime(active ? now : startAt);
    if (wasStreaming && active && holdingChannel.load()) {
        startStreamLocked();
    }
    return result;
}

// ---------------------------------------------------------------------------------------------
// The stream

void LxWin32MidiPlayer::setTempoScale(float scale) {
    tempoScale.store(scale);
    if (getCurrentState() == STARTED && stream.load() != nullptr) {
        tempoChanged.store(true);
    }
}

long LxWin32MidiPlayer::getChannelVolume(unsigned long channel) const {
    return channel < 16 ? static_cast<long>(channelVolumes[channel].load()) : -1;
}

bool LxWin32MidiPlayer::sendChannelVolume(unsigned c) {
    HMIDISTRM s = stream.load();
    if (getCurrentState() != STARTED || s == nullptr) {
        return false;
    }
    uint32_t value = static_cast<uint32_t>(static_cast<float>(channelVolumes[c].load()) * gain.load());
    value = std::min<uint32_t>(value, 127);  // a data byte; only a broken file stores more
    const uint32_t message = (value << 16) | 0x0700u | 0xB0u | c;
    if (lxp::midiOutShortMsg(s, message) != MMSYSERR_NOERROR) {
        LxLog::postDebug("LxWin32MidiPlayer:  Failed to set channel volume\n");
        return false;
    }
    return true;
}

long LxWin32MidiPlayer::setAllChannelVolume() {
    LxLog::postDebug("LxWin32MidiPlayer:  setAllChannelVolume()");
    KtScopedLock guard(signal);
    for (unsigned c = 0; c < 16; ++c) {
        sendChannelVolume(c);
    }
    return LX_OK;
}

long LxWin32MidiPlayer::setChannelVolume(unsigned long channel) {
    if (channel >= 16) {
        return LX_ERR_GENERIC;
    }
    KtScopedLock guard(signal);
    return sendChannelVolume(static_cast<unsigned>(channel)) ? LX_OK : LX_ERR_GENERIC;
}

int LxWin32MidiPlayer::fillAndQueueLocked(int i, bool restart) {
    LxMidiStreamBuffer& b = streamBuffers[i];
    HMIDISTRM s = stream.load();
    b.writeBase = 0;
    b.capacity = kStreamBufferBytes;
    b.startTick = 0;
    b.overLimit = 0;
    b.bytesUsed = 0;
    b.header.dwBufferLength = kStreamBufferBytes;
    if ((b.header.dwFlags & lxp::MHDR_PREPARED) == 0) {
        b.header.dwFlags = 0;
    }
    const int parsed = parser->parseNewBuffer(restart, &b);
    if (parsed != 0 && parsed != kParseEndReached) {
        LxLog::postDebug("LxWin32MidiPlayer:  Initial parse pass failed\n");
        return parsed;
    }
    b.header.dwBytesRecorded = b.bytesUsed;
    if ((b.header.dwFlags & lxp::MHDR_PREPARED) == 0 &&
        lxp::midiOutPrepareHeader(s, &b.header, sizeof(MIDIHDR)) != MMSYSERR_NOERROR) {
        LxLog::postDebug("LxWin32MidiPlayer:  Failed to prepare buffer headers\n");
        return LxWin32MidiParser::PARSE_ADD_FAILED;
    }
    if (lxp::midiStreamOut(s, &b.header, sizeof(MIDIHDR)) != MMSYSERR_NOERROR) {
        LxLog::postDebug("LxWin32MidiPlayer:  Failed to send out MIDI stream\n");
        return LxWin32MidiParser::PARSE_ADD_FAILED;
    }
    buffersDone.fetch_sub(1);
    return parsed;
}

long LxWin32MidiPlayer::initPlayer() {
    LxLog::postDebug("LxWin32MidiPlayer:  initPlayer()\n");
    KtScopedLock guard(signal);
    bool ok = true;
    // The clip opened at load is at its start; a pass that begins elsewhere reads it afresh.
    if (!fileOpen || streamFrom > 0.0) {
        LxPullDataSource* pull = dynamic_cast<LxPullDataSource*>(dataSource);
        const char* name = pull != nullptr ? pull->getLocalFileName() : nullptr;
        if (parser == nullptr || name == nullptr || parser->openFile(name) != 1) {
            return 0;
        }
        fileOpen = 1;
        // The volumes the music had set go with the pass that set them; those before the point
        // are chased again.
        for (int c = 0; c < 16; ++c) {
            channelVolumes[c].store(startVolumes[c]);
        }
        // Media time runs at the file's own tempo: the tempo scale paces only what is heard.
        if (!parser->seekTo(streamFrom * 1e6)) {
            stopStreamLocked();
            return 0;
        }
    }
    if (stream.load() == nullptr) {
        HMIDISTRM s = nullptr;
        auto open = [&] {
            return lxp::midiStreamOpen(&s, &deviceId, 1, &LxWin32MidiPlayer::deviceCallback,
                                       reinterpret_cast<uintptr_t>(this), lxp::CALLBACK_FUNCTION);
        };
        lxp::MMRESULT opened = 0;
        if (KtMutex* access = midiAccessMutex()) {
            KtScopedLock device(*access);
            opened = open();
        } else {
            opened = open();
        }
        if (opened != MMSYSERR_NOERROR) {
            LxLog::postDebug("LxWin32MidiPlayer:  Failed to open midi stream\n");
            ok = false;
        } else {
            stream.store(s);
            buffersDone.store(2);
            headersPrepared = 0;
            streamState.store(STREAM_RUNNING);
        }
    }
    if (ok) {
        for (int i = 0; ok && i < 2; ++i) {
            if (streamBuffers == nullptr) {
                ok = false;
            } else if (streamBuffers[i].header.lpData == nullptr) {
                streamBuffers[i].header.lpData = static_cast<char*>(std::calloc(kStreamBufferBytes, 1));
                ok = streamBuffers[i].header.lpData != nullptr;
            }
        }
        if (!ok) {
            LxLog::postDebug("LxWin32MidiPlayer:  Failed to allocate memory for streamBuffers\n");
        }
    }
    if (ok) {
        lxp::MIDIPROPTIMEDIV division{sizeof(lxp::MIDIPROPTIMEDIV), parser->getStreamDivision()};
        if (lxp::midiStreamProperty(stream.load(), reinterpret_cast<uint8_t*>(&division),
                                    lxp::MIDIPROP_SET | lxp::MIDIPROP_TIMEDIV) != MMSYSERR_NOERROR) {
            LxLog::postDebug("LxWin32MidiPlayer:  Failed to set the time division\n");
            ok = false;
        }
    }
    if (ok) {
        // With the stop wait's lock held, a buffer the device hands back early is counted only
        // after it was counted out here.
        KtScopedLock wait(stopWait);
        current = 0;
        for (int i = 0; i < 2; ++i) {
            const int parsed = fillAndQueueLocked(i, i == 0);
            if (parsed == kParseEndReached) {
                break;
            }
            if (parsed != 0) {
                ok = false;
                break;
            }
        }
    }
    if (!ok) {
        // Everything opened here goes again, so that a later grant or start begins afresh and no
        // stream is left holding the single MIDI device.
        stopStreamLocked();
        return 0;
    }
    headersPrepared = 1;
    return 1;
}

long LxWin32MidiPlayer::startMidi() {
    KtScopedLock guard(signal);
    if (stream.load() == nullptr && initPlayer() != 1) {
        LxLog::postDebug("LxWin32MidiPlayer:  failed to initialize the MIDI player\n");
        return 0;
    }
    {
        KtScopedLock wait(stopWait);
        streamState.store(STREAM_RUNNING);
    }
    long result = 1;
    if (lxp::midiStreamRestart(stream.load()) != MMSYSERR_NOERROR) {
        LxLog::postDebug("LxWin32MidiPlayer:  failed to restart the stream\n");
        result = 0;
    }
    streamStarted = 1;
    setAllChannelVolume();
    return result;
}

double LxWin32MidiPlayer::streamStartPosition() {
    double position = positionPending ? seekPosition : clock->getMediaTime().getValue();
    positionPending = 0;
    const double length = duration.getValue();
    if (loop && length > 0.0 && position >= length) {
        position = std::fmod(position, length);
    }
    return std::max(position, 0.0);
}

void LxWin32MidiPlayer::startStreamLocked() {
    // The same decision may arrive twice (from the grant made inside the manager's answer and
    // from the answer itself): the stream is started once.
    if (streamStarted) {
        return;
    }
    // A stream left open by a stop the device refused is closed first, so that the clip starts
    // again from where it is to play.
    if (stream.load() != nullptr) {
        stopStreamLocked();
    }
    streamFrom = streamStartPosition();
    if (startMidi() != 1) {
        // The device refused the stream or the clip's first buffers: this pass cannot make
        // progress. The player thread ends it (the manager may be calling from elsewhere now).
        startFailed.store(true);
        if (LxEvent* wake = new (std::nothrow) LxEvent(this)) {
            nodeEventQueue->send(wake);
        }
        return;
    }
    // The music begins at streamFrom now, and so does the media time: a start time in the past
    // has run the clock on from the position asked for, and opening the device (loading its
    // sounds) may take a while.
    LxTimeBase* tb = clock->getTimeBase();
    if (tb != nullptr && clock->getRate() > 0.0f) {
        clock->stop();
        clock->setMediaTime(LxTime(streamFrom));
        clock->startAtTime(tb->getRefTime());
    }
}

void LxWin32MidiPlayer::endFailedPass() {
    if (!startFailed.load()) {
        return;
    }
    KtScopedLock guard(signal);
    const bool wasActive = startFailed.exchange(false) && active;
    if (!wasActive) {
        return;
    }
    active = 0;
    stopStreamLocked();
    guard.unlock();
    LxLog::postDebug("LxWin32MidiPlayer:  the MIDI device refused the clip; ending it\n");
    if (manager != nullptr) {
        LxManagerServices::channels(manager)->updatePortChannel(this, LxTime::zero(), 0);
    }
    guard.lock();
    if (getCurrentState() == STARTED) {
        // An end without the loop: starting again would fail the same way.
        ownEndReached = 1;
        clock->stop();
        stopAll();
        postEvent(new (std::nothrow) LxEndOfMediaEvent(this));
    }
}

long LxWin32MidiPlayer::stopMidi(char tellManager) {
    long result = LX_OK;
    {
        KtScopedLock guard(signal);
        result = stopStreamLocked();
    }
    if (tellManager && result == LX_OK && manager != nullptr) {
        LxLog::postDebug("LxWin32MidiPlayer:  telling manager we are going inactive\n");
        LxManagerServices::channels(manager)->updatePortChannel(this, LxTime::zero(), 0);
    }
    return result;
}

long LxWin32MidiPlayer::stopStreamLocked() {
    HMIDISTRM s = stream.load();
    streamStarted = 0;
    if (s != nullptr) {
        bool mustWait = false;
        KtScopedLock wait(stopWait);
        if (streamState.load() != STREAM_STOPPED) {
            // Set before the device is stopped, so that the callback does not queue a buffer
            // again into the stopped stream. A stop also overrides a pending end of data.
            if (buffersDone.load() >= 2) {
                streamState.store(STREAM_STOPPED);
            } else {
                streamState.store(STREAM_STOPPING);
                mustWait = true;
            }
        }
        wait.unlock();
        // Stopped and reset even when no buffer is out: both end every sounding note, and either
        // hands every buffer back.
        const bool stopped = lxp::midiStreamStop(s) == MMSYSERR_NOERROR;
        if (!stopped) {
            LxLog::postDebug("LxWin32MidiPlayer:  Failed to stop MIDI stream\n");
        }
        const bool reset = lxp::midiOutReset(s) == MMSYSERR_NOERROR;
        if (!reset) {
            LxLog::postDebug("LxWin32MidiPlayer:  Failed to reset MIDI stream\n");
        }
        if (!stopped && !reset && buffersDone.load() < 2) {
            // The device keeps buffers: they stay allocated and registered, the stream open, until
            // they come back by playing out (the callback does not queue them again while
            // stopping) and a later stop closes it.
            return LX_ERR_GENERIC;
        }
        if (mustWait) {
            wait.lock();
            while (streamState.load() != STREAM_STOPPED) {
                stopWait.wait(KT_INFINITE);
            }
            wait.unlock();
        }
    }
    streamState.store(STREAM_RUNNING);
    // This stream's end of data (if the callback reported one) is no longer news.
    endOfDataPending.store(false);
    if (fileOpen) {
        if (parser != nullptr) {
            parser->closeFile();
        }
        fileOpen = 0;
    }
    freeBuffers();
    if (s != nullptr) {
        if (lxp::midiStreamClose(s) != MMSYSERR_NOERROR) {
            LxLog::postDebug("LxWin32MidiPlayer:  Failed to close MIDI stream\n");
        }
        stream.store(nullptr);
        buffersDone.store(2);
    }
    tailing.store(false);
    return LX_OK;
}

void LxWin32MidiPlayer::freeBuffers() {
    KtScopedLock guard(signal);
    HMIDISTRM s = stream.load();
    bool keep[2] = {false, false};
    for (int i = 0; streamBuffers != nullptr && i < 2; ++i) {
        MIDIHDR& h = streamBuffers[i].header;
        if (s != nullptr && (h.dwFlags & lxp::MHDR_PREPARED) != 0 &&
            lxp::midiOutUnprepareHeader(s, &h, sizeof(MIDIHDR)) != MMSYSERR_NOERROR) {
            LxLog::postDebug("LxWin32MidiPlayer:  Failed to unprepare MIDI header\n");
            keep[i] = (h.dwFlags & lxp::MHDR_INQUEUE) != 0;  // the device still reads it
        }
    }
    headersPrepared = 0;
    for (int i = 0; streamBuffers != nullptr && i < 2; ++i) {
        if (!keep[i]) {
            std::free(streamBuffers[i].header.lpData);
            streamBuffers[i].header.lpData = nullptr;
            streamBuffers[i].header.dwFlags = 0;
        }
    }
}

void LxWin32MidiPlayer::handleMidiCallback(void* handle, uint32_t message, uintptr_t parameter) {
    if (message != lxp::MOM_DONE) {
        return;
    }
    LxLog::postDebug("LxWin32MidiPlayer:  MOM_DONE\n");
    // The refill runs here, on the device's thread, without the signal: it takes only the stop
    // wait's lock, which no one holds for long, and allocates nothing but the wake-up at the end
    // of the data.
    KtScopedLock wait(stopWait);
    if (streamState.load() == STREAM_STOPPED) {
        LxLog::postDebug("LxWin32MidiPlayer:    CALLBACKDEAD\n");
        return;
    }
    buffersDone.fetch_add(1);
    if (streamState.load() == STREAM_RUNNING && getCurrentState() == STARTED && parser != nullptr &&
        streamBuffers != nullptr) {
        const MIDIHDR* back = reinterpret_cast<const MIDIHDR*>(parameter);
        const int i = back == &streamBuffers[1].header ? 1 : back == &streamBuffers[0].header ? 0 : current;
        LxMidiStreamBuffer& b = streamBuffers[i];
        b.writeBase = 0;
        b.capacity = kStreamBufferBytes;
        b.startTick = 0;
        b.bytesUsed = 0;
        b.overLimit = 0;
        const int parsed = parser->parseNewBuffer(false, &b);
        // A buffer that cannot be parsed or sent ends the clip where it is, as the end of its
        // data would: once the other buffer is back the pass ends instead of running dry.
        if (parsed == 0) {
            b.header.dwBytesRecorded = b.bytesUsed;
            if (lxp::midiStreamOut(static_cast<HMIDISTRM>(handle), &b.header, sizeof(MIDIHDR)) ==
                MMSYSERR_NOERROR) {
                current = 1 - i;
                buffersDone.fetch_sub(1);
            } else {
                LxLog::postDebug("LxWin32MidiPlayer:  Failed to send out MIDI stream buffer\n");
                streamState.store(STREAM_DATA_END);
            }
        } else if (parsed == kParseEndReached) {
            streamState.store(STREAM_DATA_END);
        } else {
            LxLog::postDebug("LxWin32MidiPlayer:  parseNewBuffer() failed from MIDI callback\n");
            streamState.store(STREAM_DATA_END);
        }
    }
    if (buffersDone.load() == 2) {
        if (streamState.load() == STREAM_STOPPING) {
            streamState.store(STREAM_STOPPED);
            stopWait.notifyAll();
        } else if (streamState.load() == STREAM_DATA_END) {
            // Both buffers have played out. Closing the stream and reporting the end are the
            // player thread's: it holds the signal for them and may call the manager after.
            streamState.store(STREAM_STOPPED);
            endOfDataPending.store(true);
            if (LxEvent* wake = new (std::nothrow) LxEvent(this)) {
                nodeEventQueue->send(wake);
            }
        }
    }
}

// ---------------------------------------------------------------------------------------------
// The player thread

long LxWin32MidiPlayer::readFileModel(const char* fileName) {
    LxWin32NewMidiParser* model = new (std::nothrow) LxWin32NewMidiParser();
    if (model == nullptr) {
        return LX_ERR_OUT_OF_MEMORY;
    }
    // A file the model cannot read leaves the duration unknown and the channel volumes as they
    // are; the stream parser then decides whether the clip can be played.
    if (fileName != nullptr && model->loadFile(fileName, false) == LX_OK) {
        LxLog::postDebug("LxWin32MidiPlayer:  loaded the file.  We have %d tracks\n",
                         static_cast<int>(model->getTrackCount()));
        int64_t lastTick = 0;
        for (long i = 0; i < model->getTrackCount(); ++i) {
            lastTick = std::max(lastTick, model->getLastTick(i));
        }
        const int64_t ns =
            LxWin32NewMidiParser::tickToTime(lastTick, model->getDivision(), model->getTempoMap());
        const LxTime length(static_cast<double>(ns) * 1e-9);
        LxLog::postDebug("LxWin32MidiPlayer:  duration is %5.3f secs\n", length.getValue());
        LxTime old;
        {
            KtScopedLock guard(signal);
            old = duration;
            duration = length;
        }
        postEvent(new (std::nothrow) LxDurationChangedEvent(this, old, length));
        const uint8_t* used = model->getChannelsUsed();
        for (int c = 0; c < 16; ++c) {
            startVolumes[c] = used[c] ? kDefaultChannelVolume : 0;
            channelVolumes[c].store(startVolumes[c]);
        }
    }
    delete model;
    return LX_OK;
}

long LxWin32MidiPlayer::loadClip() {
    LxPullDataSource* pull = dynamic_cast<LxPullDataSource*>(dataSource);
    const char* fileName = pull != nullptr ? pull->getLocalFileName() : nullptr;
    const long modelResult = readFileModel(fileName);
    if (modelResult != LX_OK) {
        return modelResult;
    }
    if (parserLink == nullptr || streamBuffers == nullptr) {
        return LX_ERR_OUT_OF_MEMORY;
    }
    LxWin32MidiParser* p = new (std::nothrow) LxWin32MidiParser(parserLink);
    if (p == nullptr) {
        return LX_ERR_OUT_OF_MEMORY;
    }
    {
        KtScopedLock guard(signal);
        parser = p;
    }
    if (fileName == nullptr || p->openFile(fileName) != 1) {
        return LX_ERR_MIDI_OPEN;
    }
    LxLog::postDebug("LxWin32MidiPlayer:  telling manager we want a channel\n");
    {
        KtScopedLock guard(signal);
        fileOpen = 1;
    }
    const long result = manager != nullptr
                            ? LxManagerServices::channels(manager)->requestPortChannel(this, LxTime::zero())
                            : LX_ERR_CHANNEL_TYPE_UNAVAILABLE;
    if (result == LX_ERR_CHANNEL_TYPE_UNAVAILABLE) {
        LxLog::postDebug("LxWin32MidiPlayer: manager told us can't render MIDI\n");
        return LX_ERR_MIDI_RENDER;
    }
    return LX_OK;
}

unsigned long LxWin32MidiPlayer::stopTimeWait() {
    LxTimeBase* tb = nullptr;
    LxTime stop;
    {
        KtScopedLock guard(signal);
        tb = timeBase;
        stop = clock->getStopTime();
    }
    if (tb == nullptr || stop == LxTime::maxTime()) {
        return KT_INFINITE;
    }
    // Nothing else wakes the loop while the music plays, so it sleeps until the stop time.
    return clampWait((stop.getValue() - tb->getRefTime().getValue()) * 1000.0, 1.0);
}

unsigned long LxWin32MidiPlayer::playStep(unsigned long) {
    goActive();
    return stopTimeWait();
}

void LxWin32MidiPlayer::goActive() {
    KtScopedLock guard(signal);
    if (active) {
        return;
    }
    LxLog::postDebug("LxWin32MidiPlayer:  Just moving to started\n");
    postEvent(new (std::nothrow) LxActiveEvent(this));
    LxLog::postDebug("LxWin32MidiPlayer:  telling manager we are going active\n");
    // Set before the manager is asked, so that a grant made while it decides (on this thread or
    // another) starts the stream itself.
    active = 1;
    const LxTime now = timeBase != nullptr ? timeBase->getRefTime() : LxTime::zero();
    guard.unlock();
    if (manager != nullptr) {
        LxManagerServices::channels(manager)->updatePortChannel(this, now, 1);
    }
    guard.lock();
    if (active && holdingChannel.load() && getCurrentState() == STARTED) {
        startStreamLocked();
    }
}

void LxWin32MidiPlayer::silenceAtStopTime() {
    LxLog::postDebug("LxWin32MidiPlayer:  auto-stopping\n");
    bool wasActive = false;
    {
        KtScopedLock guard(signal);
        wasActive = active != 0;
        // Cleared first: a grant arriving while the manager is told must not start the music again.
        active = 0;
        if (wasActive) {
            stopStreamLocked();
        }
    }
    if (wasActive && manager != nullptr) {
        LxLog::postDebug("LxWin32MidiPlayer:  telling manager we are going inactive\n");
        LxManagerServices::channels(manager)->updatePortChannel(this, LxTime::zero(), 0);
    }
}

void LxWin32MidiPlayer::finishEndOfData() {
    if (!endOfDataPending.load()) {
        return;
    }
    KtScopedLock guard(signal);
    // A stop or revoke that closed the stream meanwhile has made the report stale.
    if (!endOfDataPending.exchange(false)) {
        return;
    }
    active = 0;  // cleared before the manager is told, as in autoStop
    // Every buffer is back, but the synthesizer's last notes are still in their release: the
    // stream stays open (paused, nothing queued) until they have died away, and the clip is
    // closed now. A restart, a stop or the loss of the channel closes the stream at once.
    streamStarted = 0;
    if (fileOpen) {
        if (parser != nullptr) {
            parser->closeFile();
        }
        fileOpen = 0;
    }
    if (stream.load() != nullptr) {
        tailEndMs = steadyMs() + static_cast<int64_t>(kTailLimitMs);
        tailing.store(true);
    }
    guard.unlock();
    if (manager != nullptr) {
        LxLog::postDebug("LxWin32MidiPlayer:  telling manager we are going inactive\n");
        LxManagerServices::channels(manager)->updatePortChannel(this, LxTime::zero(), 0);
    }
    guard.lock();
    ownEndReached = 1;
    endingPass = 1;
    handleEOM(this);  // loops by starting again, which makes the port active on the next pass
    endingPass = 0;
    signal.notifyAll();
}

void LxWin32MidiPlayer::endTailIfSilent() {
    if (!tailing.load()) {
        return;
    }
    KtScopedLock guard(signal);
    HMIDISTRM s = stream.load();
    if (tailing.load() && !active &&
        (s == nullptr || !lxp::midiOutIsSounding(s) || steadyMs() >= tailEndMs)) {
        stopStreamLocked();
    }
}

void LxWin32MidiPlayer::tellManagerIfStopped() {
    if (inactivePending.exchange(false) && manager != nullptr) {
        LxLog::postDebug("LxWin32MidiPlayer:  telling manager we are going inactive\n");
        LxManagerServices::channels(manager)->updatePortChannel(this, LxTime::zero(), 0);
    }
}

void LxWin32MidiPlayer::run() {
    LxLog::postDebug("LxWin32MidiPlayer:  in run loop\n");
    runLoop();
    LxLog::postDebug("LxWin32MidiPlayer:  Goodbye cruel world!\n");
}

void LxWin32MidiPlayer::housekeeping() {
    tellManagerIfStopped();
    finishEndOfData();
    endFailedPass();
    endTailIfSilent();
}

unsigned long LxWin32MidiPlayer::passWait(unsigned long w) {
    // While the tail rings out, the device is asked every few milliseconds whether it has gone
    // silent (it has no way to say so by itself).
    return tailing.load() ? std::min(w, kTailPollMs) : w;
}

void LxWin32MidiPlayer::leaveLoop() {
    LxLog::postDebug("LxWin32MidiPlayer:  releasing port channel\n");
    if (manager != nullptr) {
        LxManagerServices::channels(manager)->releasePortChannel(this);
    }
}

void LxWin32MidiPlayer::shutdown() {
    LxWin32MidiParser* p = nullptr;
    {
        KtScopedLock guard(signal);
        stopStreamLocked();
        p = parser;
        parser = nullptr;
    }
    delete p;
}
