// LxNode.h - one element of a player's graph: a state, a media clock, named inputs and outputs,
// and listeners to which it posts its progress.
#ifndef LX_NODE_H
#define LX_NODE_H

#include "Kt.h"
#include "LxApi.h"
#include "LxClock.h"
#include "LxEvent.h"
#include "LxTime.h"

#include <atomic>

class LxManager;
class LxQueue;
class LxOutputConnectable;
class LxInputConnectable;
class LxEventPoster;
class LxPlayer;

/// One listener of a node: exactly one of queue and listener is set. The entries form a circular
/// doubly linked list with a sentinel.
struct LxEventListenerListEntry {
    LxEventListenerListEntry* next;
    LxEventListenerListEntry* previous;
    LxQueue* queue;
    LxEventListener* listener;
};

/// A node of a player's graph (source, parser, renderer, or the player itself).
///
/// Its clock operations forward to an owned LxBasicClock without a lock of their own: the node's
/// owner calls them from one thread or under its own lock. Listener changes and postEvent may come
/// from any thread; they are serialised by the node's mutex.
///
/// A host can only attach its listener once it holds the node, and a player starts initialising
/// as soon as it is made: so the node keeps its state events (the last duration change, the
/// initialized event, a catastrophic error) and hands them to each LxEventListener attached after
/// they were posted, as if it had been there.
class LX_API LxNode : public virtual LxClock {
  public:
    enum LxNodeState {
        DEAD = 0,
        UNINITIALIZED = 1,
        INITIALIZING = 2,
        STOPPED = 3,
        PREFETCHING = 4,
        PREFETCHED = 5,
        STARTED = 6
    };

    explicit LxNode(LxManager* manager);
    /// Ends the event poster (events it had not delivered yet are released undelivered), then
    /// releases the clock, the listener list and the kept state events. It waits for the poster
    /// thread, except on that thread itself (a listener destroying the node it listens to) or on
    /// a poster thread that thread is waiting for: the poster then frees itself once the
    /// running handler returns, and that handler must not touch the node any more.
    ~LxNode() override;

    // --- LxClock: forwarded to the node's own clock.
    long startAtTime(LxTime refTime) override;
    long stopAtTime(LxTime refTime) override;
    LxTime getStopTime() override;
    void stop() override;
    long setRate(float* rate) override;
    float getRate() override;
    long setMediaTime(LxTime mediaTime) override;
    LxTime getMediaTime() override;
    LxTime getSyncTime() override;
    /// Posts "LxNode:  setTimeBase ()\n" and forwards to the clock.
    long setTimeBase(LxTimeBase* timeBase) override;
    LxTimeBase* getTimeBase() override;

    virtual LxNodeState getState();
    /// (2147483647, 0): unknown.
    virtual LxTime getStartLatency();
    virtual LxTime getLatency();
    /// Hands out the node's own name array and its length (the array stays the node's).
    virtual long listInputs(char**& names, short* count);
    virtual long listOutputs(char**& names, short* count);
    /// The output named exactly name (case-sensitive): 1, or 0x344 with *out null.
    virtual long getOutputConnectable(const char* name, LxOutputConnectable** out);
    virtual long getInputConnectable(const char* name, LxInputConnectable** out);
    /// Adds a queue listener: every later event is ref'd and sent to it. The queue is not ref'd;
    /// remove it before it goes away. Returns 1.
    virtual long setEventListener(LxQueue* queue);
    /// Adds a listener called on this node's event-poster thread (created with the first such
    /// listener). The listener first receives, through that thread and in their posting order,
    /// the state events posted before it came (see the class comment); a listener already
    /// attached receives none again. Atomic with postEvent: every event reaches it exactly once,
    /// either so or posted. 0x203 when no poster thread can be had; nothing is added then.
    virtual long setEventListener(LxEventListener* listener);
    /// Removes the first entry of that queue; 1 also when there is none.
    virtual long removeEventListener(LxQueue* queue);
    virtual long removeEventListener(LxEventListener* listener);
    virtual void setLoop(char loop);
    virtual char getLoop();
    /// Posts an LxPrefetchCompleteEvent at once; nodes with real work to do override it.
    virtual void prefetch();

    /// The name of a state as messages show it ("STARTED"); "UNKNOWN" outside the table.
    static const char* stateName(int state);

  protected:
    friend class LxPlayer;  // the player drives its nodes' protected operations

    /// Accepts every change unless the node is DEAD.
    virtual char onChangeState(LxNodeState newState);
    virtual long setDuration(const LxTime& d);
    /// Hands the caller's reference of event to every listener in the order they were added, then
    /// releases it. Any thread.
    virtual void postEvent(LxEvent* event);

    LxNodeState getCurrentState() const { return state.load(); }
    /// 1 when onChangeState accepts; else 0 and "LxNode: rejecting state change from %s to %s\n".
    long setCurrentState(LxNodeState newState);

    /// Read from any thread (a player's guards), written by the node's own threads.
    std::atomic<LxNodeState> state;
    LxTime duration;
    char loop;
    LxManager* manager;
    /// Sentinel of the listener list; guarded by mutex.
    LxEventListenerListEntry* listenerList;
    KtMutex* mutex;
    /// Created with the first LxEventListener; guarded by mutex.
    LxEventPoster* eventPoster;
    LxBasicClock* clock;
    char** inputNames;
    char** outputNames;
    LxInputConnectable** inputs;
    LxOutputConnectable** outputs;
    short inputCount;
    short outputCount;

  private:
    /// Keeps a state event for late listeners (taking over the reference), or releases any
    /// other. Node mutex held.
    void keepOrRelease(LxEvent* event);

    /// The kept state events in posting order, at most one of each type. Guarded by mutex.
    static constexpr int kKeptTypes = 3;
    LxEvent* kept[kKeptTypes];
    int keptCount;

    LxEventListenerListEntry* findListenerInList(LxEventListener* listener);
    LxEventListenerListEntry* findListenerInList(LxQueue* queue);

    LxNode(const LxNode&) = delete;
    LxNode& operator=(const LxNode&) = delete;
};

#endif  // LX_NODE_H
