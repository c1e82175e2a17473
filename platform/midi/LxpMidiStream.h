// The stream scheduler shared by every MIDI backend (internal to platform/midi).
//
// A Stream is one open MIDI stream: its queue of buffers, its time line and its device thread.
// The device thread turns the records' delta ticks into device time by the time division and the
// tempo records, hands each short message to the backend's StreamOutput when it is due (or a
// look-ahead before), and calls the client back with MOM_DONE once a buffer's last event has
// played. Backends only supply the time line and the message sink.
#ifndef LORVEX_PLATFORM_MIDI_STREAM_H
#define LORVEX_PLATFORM_MIDI_STREAM_H

#include "platform/midi/LxpMidi.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

namespace lxp {

struct MidiStreamObject {
    virtual ~MidiStreamObject() {}
};

namespace midi {

/// Device time that means "never" (paused streams, nothing queued).
constexpr int64_t kNever = INT64_C(1) << 61;

class Stream;

/// Operations a backend can be told to fail (the simulated backend's failure plan).
enum class Call { Open, Property, Prepare, Unprepare, Out, Restart, Stop, Reset, Close, ShortMsg };

/// A backend's half of one open stream: the device's time line and where messages go.
class StreamOutput {
  public:
    virtual ~StreamOutput() {}
    /// The device's time in microseconds. Any thread.
    virtual int64_t nowMicros() = 0;
    /// True when device time moves only when a test advances it: the device thread then sleeps
    /// until Stream::settle() wakes it. False for a time line that runs by itself.
    virtual bool virtualTime() = 0;
    /// Longest sleep of the device thread between looks at a running time line (a synthesizer's
    /// time moves in rendering blocks, not continuously).
    virtual int64_t pollMicros() = 0;
    /// How long before its due time a message is handed to play().
    virtual int64_t lookaheadMicros() = 0;
    /// Plays a short message due at dueMicros of device time. Device thread, scheduler lock
    /// held: must not call the layer.
    virtual void play(uint32_t message, int64_t dueMicros) = 0;
    /// midiOutShortMsg: plays the message now. Any thread, scheduler lock held.
    virtual MMRESULT sendNow(uint32_t message) = 0;
    /// Stop and reset: All Notes Off on every channel, and anything handed over by play() that is
    /// not yet due is dropped. Scheduler lock held.
    virtual void silence() = 0;
    /// Whether the device still sounds what it was sent (voices in their release, reverb). Any
    /// thread, scheduler lock held: must not wait for the device.
    virtual bool sounding() { return false; }
    /// A planned failure of call, or MMSYSERR_NOERROR. Scheduler lock held.
    virtual MMRESULT failure(Call) { return MMSYSERR_NOERROR; }
    /// The stream exists (after open) / is going away (before close()).
    virtual void attached(const std::shared_ptr<Stream>&) {}
    /// Releases the device; play() is not called any more. Once, without the scheduler lock.
    virtual void close() = 0;
};

class Stream : public MidiStreamObject, public std::enable_shared_from_this<Stream> {
  public:
    Stream(std::unique_ptr<StreamOutput> output, MidiCallback callback, uintptr_t instance);
    ~Stream() override;

    /// Starts the device thread; false when it cannot be made.
    bool startThread();

    // The layer's operations (LxpMidi.h), any thread unless said otherwise.
    MMRESULT property(uint8_t* data, uint32_t property);
    MMRESULT prepare(MIDIHDR* header, uint32_t size);
    MMRESULT unprepare(MIDIHDR* header, uint32_t size);
    MMRESULT out(MIDIHDR* header, uint32_t size);
    MMRESULT restart();
    /// midiStreamStop and midiOutReset.
    MMRESULT stop(Call call);
    MMRESULT shortMsg(uint32_t message);
    /// midiOutIsSounding: buffers still queued or playing, or the device still sounding.
    bool sounding();
    /// First half of midiStreamClose: refuses while buffers are queued, else marks the stream
    /// closing (every further call fails with MMSYSERR_INVALHANDLE).
    MMRESULT beginClose();
    /// Second half: ends the device thread (or, from the stream's own callback, lets it end after
    /// the callback) and releases the device.
    void finishClose();
    /// Releases the device of a stream whose thread never started.
    void discard();

    /// Device time of the next thing the device thread will do (play, hand over or return a
    /// buffer), kNever when there is none.
    int64_t nextDueMicros();
    /// Wakes the device thread to look at the time again and waits until it has done everything
    /// due by then, callbacks included. For virtual time lines; a no-op on the device thread.
    void settle();

  private:
    struct Dispatched {
        MIDIHDR* header;
        int64_t doneStream;  // stream time of its last record
    };

    void run();
    bool step_Locked(int64_t deviceNow);
    int64_t nextDue_Locked();
    /// Due stream time of the record at the cursor (computed once per record).
    int64_t cursorDue_Locked();
    /// Whether the front buffer has a record at the cursor.
    bool cursorAtRecord_Locked();
    void returnAll_Locked();
    void wake_Locked();
    int64_t streamNow_Locked(int64_t deviceNow) const { return anchorStream_ + (deviceNow - anchorDevice_); }
    int64_t toDevice_Locked(int64_t streamTime) const;

    std::unique_ptr<StreamOutput> output_;
    const MidiCallback callback_;
    const uintptr_t instance_;

    std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable settled_;
    std::thread thread_;
    std::thread::id threadId_;

    uint32_t division_ = 96;
    uint32_t tempo_ = 500000;
    bool running_ = false;
    bool closing_ = false;
    bool exited_ = false;
    int64_t anchorDevice_ = 0;  // device time at which ...
    int64_t anchorStream_ = 0;  // ... the stream's time was this (while running)
    int64_t pausedStream_ = 0;  // stream time while paused

    std::deque<MIDIHDR*> queue_;  // queued, not all records handed over; front is the cursor's
    uint32_t cursorOffset_ = 0;   // byte offset of the next record in queue_.front()
    bool cursorDueValid_ = false;
    int64_t cursorDue_ = 0;
    uint64_t cursorFrac_ = 0;
    int64_t lastDue_ = 0;                // stream time of the last record handed over
    uint64_t lastFrac_ = 0;              // its remainder, in microseconds / division
    std::deque<Dispatched> dispatched_;  // every record handed over, waiting for the last to play
    std::deque<MIDIHDR*> returned_;      // done, callback not yet made

    uint64_t wakeSeq_ = 0;
    uint64_t settledSeq_ = 0;
};

}  // namespace midi
}  // namespace lxp

#endif
