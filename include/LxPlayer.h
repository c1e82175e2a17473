// LxPlayer.h - the base of every player: requests carried out on the player's own thread, and
// the orchestration of the nodes of its graph.
#ifndef LX_PLAYER_H
#define LX_PLAYER_H

#include "Kt.h"
#include "LxApi.h"
#include "LxNode.h"
#include "LxTime.h"

#include <atomic>
#include <cstdint>

class LxDataSource;
class LxTimeBase;
class LxQueue;
class LxQueueSet;
class LxAudioOutputPort;
class LxVideoRenderer;
class LxOutputConnectable;

/// One request to a player, sent on its API queue by a thread other than the player's own.
/// Requests that return a result carry a reply queue; the last release of a request also releases
/// its reply queue.
class LX_API LxPlayerAPIEvent : public LxRefCount {
  public:
    enum LxPlayerAPIEventType {
        SET_LOOP = 0,
        SUSPEND = 1,
        RESUME = 2,
        SET_MASTER = 3,
        START_AT_TIME = 4,
        STOP_AT_TIME = 5,
        STOP = 6,
        SET_RATE = 7,
        SET_MEDIA_TIME = 8,
        SET_TIME_BASE = 9,
        GET_STATE = 10,
        PREFETCH = 11
    };

    /// replyQueue: null for requests without a reply; the request takes over that reference.
    explicit LxPlayerAPIEvent(long type, LxQueue* replyQueue = nullptr);

    long type;
    LxQueue* replyQueue;
    LxTime time;
    LxTimeBase* timeBase;
    char flag;
    /// SET_RATE: the rate asked for; setRateAll may change it, and the requester reads it back.
    float rate;

  protected:
    ~LxPlayerAPIEvent() override;
};

/// One node of a player's graph, with what it has reported since the last prefetch or start.
struct LxNodeListEntry {
    LxNode* node;
    char prefetched;
    char started;
    char ended;
    LxNodeListEntry* next;
};

/// Base of the WAVE, MIDI and filter-graph players.
///
/// Every operation that changes playback runs on the player thread. A public request operation
/// called from another thread becomes an LxPlayerAPIEvent on the API queue; those with a result
/// wait for it on a private reply queue. Called on the player thread they would wait on
/// themselves, so they refuse (0x206; getters answer their dead value). Nodes report through the
/// node-event queue. The signal is the player's one lock: the player thread holds it while it
/// handles the queues, so the operations documented "player thread, signal held" below run with
/// it held.
///
/// A player class builds its graph, then calls startThread() with an entry that calls run().
/// The WAVE, MIDI and filter-graph players run the one loop runLoop() and fill in its steps; a
/// pass takes the signal, handles what is queued (processEventQueues) or, with nothing queued,
/// ends the loop when DEAD and otherwise sleeps in waitForEventOrTime(ms) (beginPass); then it
/// runs the step of the player's state. When the loop ends it calls genericShutdown() and
/// shutdown(), then clears threadRunning and notifies, both under the signal: endRun(). Its
/// destructor calls waitAndShutdown() before anything else.
class LX_API LxPlayer : public LxNode {
  public:
    LxPlayer(LxManager* manager, LxDataSource* dataSource);
    /// Destroys the nodes still in the graph, the queues and what they still hold. The player
    /// class has already ended the thread (waitAndShutdown) in its own destructor.
    ~LxPlayer() override;

    // --- Requests (any thread but the player's). On a DEAD player they return 0x202, on the
    // player thread 0x206; 0x203 when a request cannot be made; 0x201 when no player thread runs.
    /// START_AT_TIME; returns once every node has confirmed its start or its end (see startAll).
    long startAtTime(LxTime refTime) override;
    long stopAtTime(LxTime refTime) override;
    /// STOP, then posts an LxStopByRequestEvent to the player's listeners.
    void stop() override;
    /// SET_RATE; a null rate gives 0x201 and sends nothing. *rate receives the rate applied.
    long setRate(float* rate) override;
    /// SET_MEDIA_TIME, followed by a flush of the player's outputs.
    long setMediaTime(LxTime mediaTime) override;
    long setTimeBase(LxTimeBase* timeBase) override;
    /// GET_STATE; DEAD when dead, on the player thread, or when the request cannot be made.
    LxNodeState getState() override;
    // Requests without a reply: sent and not waited for (nothing happens on a dead player).
    void setLoop(char loop) override;
    void prefetch() override;
    virtual void suspend();
    virtual void resume();
    virtual void setMaster(char master);

    // --- Getters (any thread but the player's): they wait until every request sent before is
    // handled. Dead values: times (-1, 0), rate -1.0, frames -1, flags false, pointers null.
    LxTime getStopTime() override;
    float getRate() override;
    LxTime getMediaTime() override;
    LxTime getSyncTime() override;
    LxTimeBase* getTimeBase() override;
    /// Zero (not the dead value) when asked on the player thread.
    LxTime getStartLatency() override;
    char getLoop() override;
    virtual LxTime getDuration();
    virtual long getNumFrames();
    virtual char isSuspended();
    virtual char isMaster();

    // --- The graph, read directly (host threads, through the manager or scene support).
    /// The port of the renderer behind the "Audio" output (an LxAudioRendererNode); 0x201 when
    /// there is no such output or it is not connected to one.
    virtual long getNewAudioPort(LxAudioOutputPort** port);
    /// The video renderer behind the "Video" output: 1 with null when there is no such output,
    /// 0x201 when it dangles or out is null.
    virtual long getVideoRenderer(LxVideoRenderer** out);
    /// Registers an output of the player. The player takes over name, which must come from
    /// malloc (strdup), and frees it when it is destroyed. 0x201 when the arrays cannot grow.
    virtual long addOutputConnectable(char* name, LxOutputConnectable* out);

    // --- Orchestration. Player thread, signal held (waitAndShutdown: the destroying thread).
    virtual void startThread(long (*entry)(void*));
    /// Caller holds the signal: waits while the API queue is not empty (and a thread serves it).
    virtual void waitForEventQueue();
    virtual void handlePlayerEvent(LxPlayerAPIEvent* request);
    /// Dispatches a node's event and releases it.
    virtual void handleNodeEvent(LxEvent* event);
    /// A node's end of media, or the player's own (node == this, ownEndReached set first).
    virtual void handleEOM(LxNode* node);
    /// A node's stop time, or the player's own (node == this, ownEndReached set first).
    virtual void handleStopTime(LxNode* node);
    virtual void flushAll();
    /// Starts the clock and every node at reference time t, then waits until each node has
    /// posted its start or its end. The wait for each next event is bounded by startWaitLimit: a
    /// node silent for that long is logged and treated as ended, so a broken renderer cannot
    /// hang the player thread (and the host thread waiting in startAtTime) for ever.
    virtual long startAll(LxTime t);
    virtual long stopAtTimeAll(LxTime t);
    virtual long stopAll();
    /// Rates above 0 and below 0.001 become 0.0 (written back through rate).
    virtual long setRateAll(float* rate);
    virtual void setLoopAll(char loop);
    virtual long setTimeAll(LxTime t);
    /// All or nothing: a node refusing the time base puts the clock and the nodes before it back.
    virtual long setTimeBaseAll(LxTimeBase* tb);
    virtual long setDurationAll(const LxTime& d);
    virtual long prefetchAll();
    virtual char prefetchComplete();
    virtual void findAllDownStream();
    virtual void findDownStreamNodes(LxOutputConnectable* out);
    /// The player becomes DEAD, its listeners get an LxCatastrophicErrorEvent(result), and every
    /// request still queued is answered. Player thread.
    virtual void catastrophicError(long result);
    /// Ends the player: stops it, makes the thread leave its loop and joins it (or, when no thread
    /// runs, shuts down here). Called by the player class's destructor; the player is DEAD after.
    virtual void waitAndShutdown();
    virtual void genericShutdown();
    /// Each node stops reporting to the player and is destroyed.
    virtual void destroyAll();

  protected:
    /// The player class's thread loop (see the class comment).
    virtual void run() = 0;

    // --- The shared run loop. Player thread, signal not held, hooks included.
    /// Longest wait the loop sleeps that still ends (KT_INFINITE is one more).
    static constexpr unsigned long kLongestWait = 4294967294ul;
    /// ms as a wait: at least least, at most kLongestWait.
    static unsigned long clampWait(double ms, double least = 0.0);
    /// Passes until the player is DEAD with nothing queued, then leaveLoop() and endRun(). The
    /// steps: UNINITIALIZED becomes INITIALIZING (prepareThread, the source connected and
    /// started); INITIALIZING waits for a pull source's data, then loadClip(), an
    /// LxInitializedEvent(initializedKind()) and STOPPED; PREFETCHING runs prefetchStep();
    /// STARTED runs startedStep(); other states wait for a request. A failed step makes the
    /// player DEAD through catastrophicError.
    void runLoop();
    /// While STARTED: nothing after the player's own end; holdStart(); the wait for the start
    /// (up to cueLead() early); the stop time, which silenceAtStopTime() and handleStopTime end;
    /// then playStep().
    unsigned long startedStep();
    /// Milliseconds until the clock reaches its start point (startWait), 0 once it has.
    unsigned long leadWait();

    /// UNINITIALIZED: what the thread needs before the clip is touched; LX_OK or the error.
    virtual long prepareThread();
    /// How long INITIALIZING waits before it asks a pull source for its data again.
    virtual unsigned long dataPollMs();
    /// INITIALIZING once the data is there: opens the clip and reads what it needs; LX_OK or the
    /// catastrophic error.
    virtual long loadClip();
    /// The code the initialized event carries.
    virtual long initializedKind();
    /// At the start of every pass, whatever the state.
    virtual void housekeeping();
    /// The wait the pass sleeps when asked for w.
    virtual unsigned long passWait(unsigned long w);
    /// PREFETCHING: the wait before the next pass. Only logs here.
    virtual unsigned long prefetchStep();
    /// STARTED before anything else: true, with the wait, while the player holds still.
    virtual bool holdStart(unsigned long* wait);
    /// How many milliseconds before the start playStep() begins (0: at the start).
    virtual unsigned long cueLead();
    /// The wait for a start lead media milliseconds ahead (non-zero) with the clock at rate: the
    /// clock covers |rate| media milliseconds per millisecond (a stopped one counts as 1).
    virtual unsigned long startWait(long lead, float rate);
    /// The stop time has come: the player quietens before the stop is reported.
    virtual void silenceAtStopTime();
    /// STARTED, toStart ms before the start (at most cueLead()) or at it: the player's work; the
    /// wait before the next pass.
    virtual unsigned long playStep(unsigned long toStart);
    /// The loop has ended; before endRun().
    virtual void leaveLoop();
    /// After SUSPEND or RESUME changed the suspended flag. Player thread, signal held.
    virtual void handleSuspend();
    /// The player class releases its own resources. Empty here.
    virtual void shutdown();

    void lock() { signal.lock(); }
    void unlock() { signal.unlock(); }
    /// False on the player thread.
    char apiSanityCheck();
    /// Handles every queued request, then every node event, then wakes waiting getters. Player
    /// thread, signal held.
    void processEventQueues();
    /// Sleeps until either queue has a message or ms milliseconds passed (0xFFFFFFFF: no limit).
    /// Player thread, signal not held.
    long waitForEventOrTime(unsigned long ms);
    /// The start of one pass of a run loop, as the class comment describes it: handles what is
    /// queued, or sleeps up to ms for it. False when the player is DEAD with nothing queued (the
    /// loop ends). Player thread, signal not held.
    bool beginPass(unsigned long ms);
    /// The end of a run loop: genericShutdown(), shutdown(), then threadRunning cleared and the
    /// waiters woken under the signal. Player thread, signal not held.
    void endRun();

    /// The entry of node in the node list, or null.
    LxNodeListEntry* findNodeEntry(LxNode* node);

    /// Guarded by the signal.
    char threadRunning;
    KtThread* thread;
    KtThreadManager* threadManager;
    char master;
    char suspended;
    LxTimeBase* timeBase;
    LxDataSource* dataSource;
    int32_t reserved;
    char ownEndReached;
    char prefetchStarted;
    LxQueue* apiQueue;
    LxQueue* nodeEventQueue;
    LxQueueSet* queueSet;
    long numFrames;
    LxTime startLatency;
    char downstreamFound;
    LxNodeListEntry* nodeList;
    KtWaitNotify signal;
    /// The player thread's id (0 before it exists), for the guards of other threads.
    std::atomic<KtThreadId> playerThreadId;
    /// How long startAll waits for the next confirmation from its nodes (5 s).
    LxTime startWaitLimit;

  private:
    /// Queues a request. False (with *result the code) when the player is dead or has no thread.
    bool sendRequest(LxPlayerAPIEvent* request, long* result);
    /// Waits without limit for the answer to a sent request with a reply.
    long awaitReply(LxPlayerAPIEvent* request);
    /// Both of the above. The caller releases the request either way.
    bool sendAndWait(LxPlayerAPIEvent* request, long* result);
    /// Sends a request without a reply (released here when it cannot be sent).
    void sendNoReply(LxPlayerAPIEvent* request);
    /// LX_OK when the calling thread may ask the player now; otherwise the code to return (dead,
    /// or called on the player thread, which would wait on itself).
    long refusal();
    /// Sends a request of this type carrying a time or a time base, waits without limit for the
    /// player thread's result and returns it. The caller has checked refusal() first.
    long requestAndWait(long type, LxTime time, LxTimeBase* tb = nullptr);
    /// Sends a request without a reply carrying a flag, unless refusal() forbids it.
    void requestNoReply(long type, char flag = 0);
    /// An event taken while startAll waits for its nodes.
    void handleStartWaitEvent(LxEvent* event);

    LxPlayer(const LxPlayer&) = delete;
    LxPlayer& operator=(const LxPlayer&) = delete;
};

#endif  // LX_PLAYER_H
