// LxEventPoster: the thread on which a node calls its LxEventListeners.
//
// Handlers of one node run one at a time, in posting order, on this thread and never on the
// thread that posts, so a slow host handler cannot hold up a renderer or the player thread.
#ifndef LORVEX_GRAPH_LXEVENTPOSTER_H
#define LORVEX_GRAPH_LXEVENTPOSTER_H

#include "Kt.h"

class LxManager;
class LxQueue;
class LxEvent;
class LxEventListener;

class LxEventPoster {
  public:
    /// A poster with its thread running, or null when the manager, the queue or the thread cannot
    /// be had. A poster without a thread would keep every event it is given, so none is made.
    static LxEventPoster* create(LxManager* manager);
    /// Ends the thread and waits for it. Events not delivered by then are released undelivered.
    ~LxEventPoster();

    /// Queues (listener, event) with a reference of its own on event. Any thread.
    void post(LxEventListener* listener, LxEvent* event);

  private:
    struct Record {
        LxEventListener* listener;
        LxEvent* event;
    };

    explicit LxEventPoster(LxManager* manager);
    static long callRunLoop(void* poster);
    void run();

    LxManager* manager;
    LxQueue* queue;
    KtWaitNotify signal;
    KtThread* thread;
    char running;
    char timeToDie;

    LxEventPoster(const LxEventPoster&) = delete;
    LxEventPoster& operator=(const LxEventPoster&) = delete;
};

#endif
