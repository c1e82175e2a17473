// LxEvent.h - the progress reports nodes post, and the listener interface hosts implement.
//
// An event is a small reference-counted object. It reaches a listener either as a message on an
// LxQueue (each queue listener receives its own reference and unrefs it when done) or through
// LxEventListener::handleEvent on the posting node's event-poster thread (the event is borrowed
// for the call). Every holder has its own reference, so the reader of a queue and the poster may
// release one event at the same moment.
#ifndef LX_EVENT_H
#define LX_EVENT_H

#include "LxApi.h"
#include "LxTime.h"

#include <cstdint>

class LxNode;

/// The type of an event, as getEventType() reports it. The numbers are fixed; the underlying type
/// is fixed too, so that a host may define further types of its own.
enum LxEventType_s : int32_t {
    LxEndOfMediaEventType = 1,
    LxDurationChangedEventType = 2,
    LxPrefetchCompleteEventType = 3,
    LxStartEventType = 4,
    LxActiveEventType = 5,
    LxStopEventType = 6,
    LxStopAtTimeEventType = 7,
    LxStopByRequestEventType = 8,
    LxInitializedEventType = 9,
    LxShutdownEventType = 10,
    LxSetGainEventType = 11,
    LxCatastrophicErrorEventType = -100
};

/// Base of all events: the node that posts it and its type. Created with a count of 1 (the
/// creator's), destroyed by the last unref.
class LX_API LxEvent : public LxRefCount {
  public:
    /// Sets only the source (null here); each subclass sets its type.
    LxEvent() : source(nullptr), type(static_cast<LxEventType_s>(0)) {}
    explicit LxEvent(LxNode* node) : source(node), type(static_cast<LxEventType_s>(0)) {}

    LxNode* getSource() const { return source; }
    LxEventType_s getEventType() const { return type; }

    LxNode* source;
    LxEventType_s type;

  protected:
    ~LxEvent() override {}
};

/// The node has delivered its last media. The time argument of the constructor is not stored; the
/// time carried is always zero.
class LX_API LxEndOfMediaEvent : public LxEvent {
  public:
    explicit LxEndOfMediaEvent(LxNode* node, LxTime = LxTime()) : LxEvent(node), time() {
        type = LxEndOfMediaEventType;
    }
    LxTime getTime() const { return time; }

    LxTime time;
};

class LX_API LxDurationChangedEvent : public LxEvent {
  public:
    LxDurationChangedEvent(LxNode* node, LxTime oldDur, LxTime newDur)
        : LxEvent(node), oldDuration(oldDur), newDuration(newDur) {
        type = LxDurationChangedEventType;
    }
    LxTime getOldDuration() const { return oldDuration; }
    LxTime getNewDuration() const { return newDuration; }

    LxTime oldDuration;
    LxTime newDuration;
};

class LX_API LxPrefetchCompleteEvent : public LxEvent {
  public:
    explicit LxPrefetchCompleteEvent(LxNode* node) : LxEvent(node) { type = LxPrefetchCompleteEventType; }
};

/// The node has started: the media time it starts from and the reference time of the start.
class LX_API LxStartEvent : public LxEvent {
  public:
    LxStartEvent(LxNode* node, LxTime media, LxTime start)
        : LxEvent(node), mediaTime(media), startTime(start) {
        type = LxStartEventType;
    }
    LxTime getMediaTime() const { return mediaTime; }
    LxTime getStartTime() const { return startTime; }

    LxTime mediaTime;
    LxTime startTime;
};

/// The node has begun delivering media.
class LX_API LxActiveEvent : public LxEvent {
  public:
    explicit LxActiveEvent(LxNode* node) : LxEvent(node) { type = LxActiveEventType; }
};

/// The node has stopped at the media time carried.
class LX_API LxStopEvent : public LxEvent {
  public:
    LxStopEvent(LxNode* node, LxTime t) : LxEvent(node), time(t) { type = LxStopEventType; }
    LxTime getTime() const { return time; }

    LxTime time;
};

/// The node has reached its stop time: the media time reached, then the stop time.
class LX_API LxStopAtTimeEvent : public LxStopEvent {
  public:
    LxStopAtTimeEvent(LxNode* node, LxTime media, LxTime stop) : LxStopEvent(node, media), stopTime(stop) {
        type = LxStopAtTimeEventType;
    }
    LxTime getStopTime() const { return stopTime; }

    LxTime stopTime;
};

/// The node was stopped by a request (a player's stop()).
class LX_API LxStopByRequestEvent : public LxStopEvent {
  public:
    LxStopByRequestEvent(LxNode* node, LxTime t) : LxStopEvent(node, t) { type = LxStopByRequestEventType; }
};

/// The node has finished initialising; the result says what it has (0xE1 audio, 0xE2 video, 0xE3
/// both).
class LX_API LxInitializedEvent : public LxEvent {
  public:
    LxInitializedEvent(LxNode* node, long r) : LxEvent(node), result(r) { type = LxInitializedEventType; }
    long getResult() const { return result; }

    long result;
};

class LX_API LxShutdownEvent : public LxEvent {
  public:
    explicit LxShutdownEvent(LxNode* node) : LxEvent(node) { type = LxShutdownEventType; }
};

class LX_API LxSetGainEvent : public LxEvent {
  public:
    LxSetGainEvent(LxNode* node, float g) : LxEvent(node), gain(g) { type = LxSetGainEventType; }
    float getGain() const { return gain; }

    float gain;
};

/// The node cannot go on; the result code says why.
class LX_API LxCatastrophicErrorEvent : public LxEvent {
  public:
    LxCatastrophicErrorEvent(LxNode* node, long r) : LxEvent(node), result(r) {
        type = LxCatastrophicErrorEventType;
    }
    long getResult() const { return result; }

    long result;
};

/// Implemented by hosts that want a node's events through a call rather than a queue.
class LX_API LxEventListener {
  public:
    virtual ~LxEventListener() {}
    /// Called on the posting node's event-poster thread, never on the thread that posted, one
    /// event at a time and in posting order. The event is borrowed for the call: ref it to keep it.
    ///
    /// A handler may call anything in the library: requests to any player, the manager (verify,
    /// create or destroy players, connect), the scene support, and it may destroy the very node
    /// it listens to (through the manager or the scene support). No library lock is held while
    /// it runs. Once it has destroyed its own node (or one whose handler is, in turn, destroying
    /// this handler's node) it must not touch that node again: its remaining events are dropped
    /// and the poster thread ends after the handler returns.
    virtual void handleEvent(LxEvent* event) = 0;
};

#endif  // LX_EVENT_H
