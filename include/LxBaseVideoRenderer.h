// LxBaseVideoRenderer.h - the video renderer the manager attaches to a player's "Video" output.
#ifndef LX_BASE_VIDEO_RENDERER_H
#define LX_BASE_VIDEO_RENDERER_H

#include "Kt.h"
#include "LxApi.h"
#include "LxConnectable.h"
#include "LxFormat.h"
#include "LxVideoRenderer.h"

#include <atomic>
#include <cstdint>

class LxQueue;

/// Keeps a clip's pool of video frames and hands the browser the frame of the current media time.
///
/// Threads and what each may call:
/// - the browser's painting thread: attachFrameFromTime, releaseFrame;
/// - the producer's thread: getEmptyFrame, putEmptyFrame, putFrame, notifyEndOfMedia;
/// - the player's (or manager's) thread: the node and clock operations, setFormat, connectTo,
///   setFrameAllocator, flush, destruction;
/// - the renderer's own thread: prefetching, stop time and end of media.
///
/// Frames change hands whole (pool -> producer -> filled queue or the output's queue -> browser ->
/// pool) and are never copied. A frame belongs to exactly one holder: a frame the browser has
/// attached is not in the pool, so the producer cannot get it before releaseFrame. The pool is
/// bounded by the allocator (two frames with the default one), so a producer that runs ahead
/// blocks in getEmptyFrame until the browser gives a frame back.
///
/// The painting path takes no renderer lock: the pending frame is taken by an atomic exchange and
/// the stream style and connected output are published atomically when the connection is made.
/// It only takes the frame queues' own short locks, so a player thread that holds the renderer's
/// lock (stop, flush) never keeps the browser from painting for long.
///
/// The renderer's thread starts in the constructor and may call its virtual operations (flush,
/// handleStop, handleEOM); do not derive from this class.
class LX_API LxBaseVideoRenderer : public LxVideoRenderer {
  public:
    /// Builds the pool, the "Video" input and the accepted formats, then starts the renderer's
    /// thread through the manager's thread manager. The node starts STOPPED.
    explicit LxBaseVideoRenderer(LxManager* manager);
    /// Ends the thread, then destroys the frames it still has (pool, queued, pending) and the
    /// allocator. Frames the browser still holds are its own to delete; the producer must not
    /// call in any more. Player's thread.
    ~LxBaseVideoRenderer() override;

    /// Makes and starts the renderer's thread if none was made yet: 1, or 0x201 when the thread
    /// manager gives no thread.
    long startThread();

    // --- Connectable (LxInputConnectable).
    /// Records the output (frames are pulled from it in pull style). Returns 1.
    KtResult connectTo(LxOutputConnectable* output) override;
    LxOutputConnectable* connectedTo() override;
    /// 0x2A4 for a format that is not video; else keeps it (one reference), makes the default
    /// allocator when there is none (0x203 on failure) and returns the allocator's setFormat.
    KtResult setFormat(LxFormat* format) override;
    /// The format set on the connection (borrowed), null before setFormat.
    LxFormat* getFormat() override;
    /// A new array of the three accepted formats (borrowed; the caller frees it with delete[]).
    KtResult listFormats(LxFormat**& list, short* count) override;
    LxNode* getNode() override;
    /// A free frame: from the pool, else a new one from the allocator, else (allocator at its
    /// limit) the next frame given back, waiting up to timeout (zero: no wait). Null when none.
    /// Producer's thread.
    LxFrame* getEmptyFrame(const LxTime& timeout) override;
    /// Puts a frame at the head of the pool, so the most recently returned frame is reused first.
    void putEmptyFrame(LxFrame* frame) override;
    /// Appends a filled frame (push style). Producer's thread.
    void putFrame(LxFrame* frame) override;
    /// The producer has sent its last frame; the renderer's thread reports the end when started.
    void notifyEndOfMedia() override;
    /// Every frame the renderer or its output still queues, and the pending frame, go back to the
    /// pool. Player's or renderer's thread.
    void flush() override;

    // --- Video renderer.
    /// The pending (prefetched) frame first, whatever curTime; then in push style the queued
    /// frame whose interval [its time, next frame's time) holds curTime, giving late frames back
    /// to the pool; in pull style whatever the output's getFrameForTime selects. Null when no frame
    /// fits (an early frame stays queued for its time). Painting thread.
    LxFrame* attachFrameFromTime(const LxTime& curTime, const LxTime& timeout) override;
    /// Gives an attached frame back to the pool. Painting thread.
    void releaseFrame(LxFrame* frame) override;
    /// Replaces the allocator (the renderer takes ownership) once it accepts the current format;
    /// otherwise returns its result and keeps the old one. A null allocator is refused (0x201).
    long setFrameAllocator(LxFrameAllocator* allocator) override;

    // --- Node. Player's thread.
    void prefetch() override;
    long startAtTime(LxTime refTime) override;
    void stop() override;
    // The clock operations take the renderer's lock: the renderer's thread reads the clock (stop
    // time, reference time) while the player's thread sets it.
    long stopAtTime(LxTime refTime) override;
    LxTime getStopTime() override;
    long setRate(float* rate) override;
    float getRate() override;
    long setMediaTime(LxTime mediaTime) override;
    LxTime getMediaTime() override;
    LxTime getSyncTime() override;
    long setTimeBase(LxTimeBase* timeBase) override;
    LxTimeBase* getTimeBase() override;
    void setLoop(char loop) override;
    char getLoop() override;

    // --- The renderer's lock (re-entrant; the renderer's thread sleeps on it).
    void lock();
    void unlock();
    /// Waits on the lock up to ms milliseconds; the caller holds it.
    KtResult wait(unsigned long ms);
    /// Wakes every waiter. Takes the lock itself, so any thread may call it.
    void notifyAll();

    // --- Statistics for hosts and tests (any thread; each value is a snapshot).
    /// Push-style frames given back unshown because a later frame's time had come. In pull style
    /// the output connectable counts them (LxVideoOutputConnectable::getDroppedFrames).
    int32_t getDroppedFrames() const { return droppedFrames.load(); }
    /// Frames in the free pool.
    short getFreeFrameCount();
    /// Frames pushed in and not yet taken.
    short getQueuedFrameCount();
    /// Frames the current allocator has made (0 without one).
    long getFramesCreated();
    /// Whether a prefetched frame waits for the first attachFrameFromTime.
    bool hasPendingFrame() const { return pendingFrame.load() != nullptr; }

  protected:
    /// Stops the clock. Called with the renderer's lock held.
    virtual void handleStop();
    /// End of media while started: flush, then an LxEndOfMediaEvent. The state does not change:
    /// the player decides what follows. Renderer's thread.
    virtual void handleEOM();
    /// Every state change is accepted.
    char onChangeState(LxNodeState newState) override;

  private:
    static long threadEntry(void* renderer);
    /// The thread's loop. Not virtual: the thread starts while the object is being built.
    void run();
    /// The prefetch step of one pass: gets the first frame without holding the lock.
    void prefetchFrame();
    /// Push-style selection from the filled-frame queue.
    LxFrame* selectPushedFrame(const LxTime& curTime, const LxTime& timeout);
    /// notifyAll with the lock already held.
    void wakeLocked();

    LxBaseVideoRenderer(const LxBaseVideoRenderer&) = delete;
    LxBaseVideoRenderer& operator=(const LxBaseVideoRenderer&) = delete;

    /// The stream style before a format is set: frame operations do nothing then.
    static constexpr int kNoStyle = -1;

    /// Guarded by renderLock.
    char threadRunning;
    /// Owned; guarded by renderLock.
    LxFrameAllocator* frameAllocator;
    int32_t formatCount;
    /// One reference held on each.
    LxFormat** acceptedFormats;
    /// Written on the connecting thread, read on the painting and renderer threads.
    std::atomic<LxOutputConnectable*> connectedOutput;
    /// One reference held; guarded by renderLock.
    LxFormat* currentFormat;
    KtThread* thread;
    /// Guards the node state changes, the allocator, the flags and the clock; the thread sleeps
    /// on it.
    KtWaitNotify renderLock;
    LxQueue* emptyFrames;
    LxQueue* filledFrames;
    /// The frame taken by prefetch, handed out first. Exchanged atomically so that the painting
    /// thread needs no lock for it; set only under renderLock.
    std::atomic<LxFrame*> pendingFrame;
    /// Guarded by renderLock.
    char endOfMedia;
    char prefetched;
    /// The current format's stream style (kNoStyle before one is set), for the painting thread.
    std::atomic<int> streamStyle;
    std::atomic<int32_t> droppedFrames;
    /// Counts the wake-ups under renderLock, so that the thread does not go to sleep on a state
    /// change that happened while it was busy outside the lock.
    uint64_t wakeups;
    bool setupOk;
};

#endif  // LX_BASE_VIDEO_RENDERER_H
