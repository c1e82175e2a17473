// The MIDI stream calls: handle checks and dispatch to the stream scheduler.
#include "platform/midi/LxpMidi.h"

#include "platform/midi/LxpMidiBackend.h"

#include <map>
#include <memory>
#include <mutex>

namespace lxp {

namespace {

// Open streams by handle. A call holds its stream for its duration, so a concurrent close by
// another thread cannot free it under the call (such a call then simply finds the handle gone).
struct Registry {
    std::mutex mutex;
    std::map<MidiStreamObject*, std::shared_ptr<midi::Stream>> streams;
};

Registry& registry() {
    static Registry* r = new Registry();  // never destroyed: device threads may outlive statics
    return *r;
}

// Serialises opening, so that a device's "already open" check and its open are one step.
std::mutex gOpenMutex;

std::shared_ptr<midi::Stream> find(HMIDISTRM handle) {
    Registry& r = registry();
    std::lock_guard<std::mutex> guard(r.mutex);
    auto it = r.streams.find(handle);
    return it == r.streams.end() ? nullptr : it->second;
}

}  // namespace

MMRESULT midiStreamOpen(HMIDISTRM* stream, uint32_t* deviceId, uint32_t cMidi, MidiCallback callback,
                        uintptr_t instance, uint32_t flags) {
    if (stream == nullptr) {
        return MMSYSERR_INVALPARAM;
    }
    *stream = nullptr;
    if (deviceId == nullptr || cMidi != 1) {
        return MMSYSERR_INVALPARAM;
    }
    if (*deviceId != MIDI_MAPPER && *deviceId != 0) {
        return MMSYSERR_BADDEVICEID;
    }
    if (flags != CALLBACK_NULL && flags != CALLBACK_FUNCTION) {
        return MMSYSERR_INVALFLAG;
    }
    if (flags == CALLBACK_FUNCTION && callback == nullptr) {
        return MMSYSERR_INVALPARAM;
    }
    midi::reapDeviceThreads();
    std::lock_guard<std::mutex> openGuard(gOpenMutex);
    std::unique_ptr<midi::StreamOutput> output;
    const MMRESULT opened = midi::chosenBackend().open(&output);
    if (opened != MMSYSERR_NOERROR) {
        return opened;
    }
    std::shared_ptr<midi::Stream> s = std::make_shared<midi::Stream>(
        std::move(output), flags == CALLBACK_FUNCTION ? callback : nullptr, instance);
    if (!s->startThread()) {
        s->discard();
        return MMSYSERR_NOMEM;
    }
    Registry& r = registry();
    {
        std::lock_guard<std::mutex> guard(r.mutex);
        r.streams[s.get()] = s;
    }
    *stream = s.get();
    return MMSYSERR_NOERROR;
}

MMRESULT midiStreamProperty(HMIDISTRM stream, uint8_t* propData, uint32_t property) {
    std::shared_ptr<midi::Stream> s = find(stream);
    return s ? s->property(propData, property) : MMSYSERR_INVALHANDLE;
}

MMRESULT midiOutPrepareHeader(HMIDIOUT out, MIDIHDR* header, uint32_t headerSize) {
    std::shared_ptr<midi::Stream> s = find(out);
    return s ? s->prepare(header, headerSize) : MMSYSERR_INVALHANDLE;
}

MMRESULT midiOutUnprepareHeader(HMIDIOUT out, MIDIHDR* header, uint32_t headerSize) {
    std::shared_ptr<midi::Stream> s = find(out);
    return s ? s->unprepare(header, headerSize) : MMSYSERR_INVALHANDLE;
}

MMRESULT midiStreamOut(HMIDISTRM stream, MIDIHDR* header, uint32_t headerSize) {
    std::shared_ptr<midi::Stream> s = find(stream);
    return s ? s->out(header, headerSize) : MMSYSERR_INVALHANDLE;
}

MMRESULT midiStreamRestart(HMIDISTRM stream) {
    std::shared_ptr<midi::Stream> s = find(stream);
    return s ? s->restart() : MMSYSERR_INVALHANDLE;
}

MMRESULT midiStreamStop(HMIDISTRM stream) {
    std::shared_ptr<midi::Stream> s = find(stream);
    return s ? s->stop(midi::Call::Stop) : MMSYSERR_INVALHANDLE;
}

MMRESULT midiOutReset(HMIDIOUT out) {
    std::shared_ptr<midi::Stream> s = find(out);
    return s ? s->stop(midi::Call::Reset) : MMSYSERR_INVALHANDLE;
}

MMRESULT midiOutShortMsg(HMIDIOUT out, uint32_t message) {
    std::shared_ptr<midi::Stream> s = find(out);
    return s ? s->shortMsg(message) : MMSYSERR_INVALHANDLE;
}

bool midiOutIsSounding(HMIDIOUT out) {
    std::shared_ptr<midi::Stream> s = find(out);
    return s && s->sounding();
}

MMRESULT midiStreamClose(HMIDISTRM stream) {
    std::shared_ptr<midi::Stream> s = find(stream);
    if (!s) {
        return MMSYSERR_INVALHANDLE;
    }
    const MMRESULT result = s->beginClose();
    if (result != MMSYSERR_NOERROR) {
        return result;
    }
    {
        Registry& r = registry();
        std::lock_guard<std::mutex> guard(r.mutex);
        r.streams.erase(stream);
    }
    s->finishClose();
    return MMSYSERR_NOERROR;
}

int midiLiveDeviceThreads() {
    midi::reapDeviceThreads();
    return midi::liveDeviceThreads();
}

}  // namespace lxp
