// LxEventPoster: the thread on which a node calls its LxEventListeners.
//
// Handlers of one node run one at a time, in posting order, on this thread and never on the
// thread that posts, so a slow host handler cannot hold up a renderer or the player thread.
#ifndef LORVEX_GRAPH_LXEVENTPOSTER_H
#define LORVEX_GRAPH_LXEVENTPOSTER_H

#include "Kt.h"

#include <atomic>

class LxManager;
class LxQueue;
class LxEvent;
class LxEventListener;

class LxEventPoster {
  public:
    /// A poster with its thread running, or null when the manager, the queue or the thread cannot
    /// be had. A poster without a thread would keep every event it is given, so none is made.
    static LxEventPoster* create(LxManager* manager);
    /// Ends the poster; events not delivered by then are released undelivered. Normally it waits
    /// for the thread and frees the poster, so that no handler of the node runs once this returns.
    /// It cannot wait when called on the poster's own thread (a handler destroying the node it
    /// listens to), nor on a poster thread that the poster's thread is itself waiting for (two
    /// handlers destroying each other's nodes): then the poster is left to its thread, which frees
    /// it when the handler it is in returns. Any thread, once per poster.
    static void end(LxEventPoster* poster);

    /// Queues (listener, event) with a reference of its own on event. Any thread.
    void post(LxEventListener* listener, LxEvent* event);

    /// Posters not freed yet, those left to their threads included (for tests of their end).
    static int alive() { return aliveCount.load(); }

  private:
    struct Record {
        LxEventListener* listener;
        LxEvent* event;
    };

    explicit LxEventPoster(LxManager* manager);
    /// Releases the thread object (the thread has ended, or it is the caller and about to), the
    /// records not delivered and the queue.
    ~LxEventPoster();
    static long callRunLoop(void* poster);
    void run();

    KtThreadManager* threads;
    LxQueue* queue;
    KtWaitNotify signal;
    KtThread* thread;
    char running;
    char timeToDie;
    /// Set by end() when it cannot wait: the thread frees the poster. Guarded by signal.
    char orphaned;
    /// The poster whose end this poster's thread is waiting for (inside a handler), or null.
    /// Guarded by the process-wide lock of end().
    LxEventPoster* waitingFor;

    static std::atomic<int> aliveCount;

    LxEventPoster(const LxEventPoster&) = delete;
    LxEventPoster& operator=(const LxEventPoster&) = delete;
};

#endif
