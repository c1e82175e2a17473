// LxWin32AudioRenderer.h - the node that makes a sampled-audio clip audible through the mixer.
#ifndef LX_WIN32_AUDIO_RENDERER_H
#define LX_WIN32_AUDIO_RENDERER_H

#include "Kt.h"
#include "LxApi.h"
#include "LxAudioRendererNode.h"
#include "LxConnectable.h"
#include "LxFormat.h"
#include "LxTime.h"

#include <atomic>
#include <cstdint>

class LxQueue;
class LxWin32Mixer;
class LxWin32AudioOutputPort;
class LxWin32AudioPortConfig;

/// Renders the "Audio" output of a player: pulls filled frames from a pull-style producer and
/// writes them into the clip's mixer ports (a master port opened with the clip's format, and one
/// duplicate port for every further sound source that plays the same clip).
///
/// Clips shorter than two seconds are loaded whole into a resident buffer; longer ones (and clips
/// of unknown length) stream through a circular buffer that the renderer thread keeps filled,
/// padding an imminent under-run with silence. The node reports start, stop by request, stop time
/// and end of media as events, and asks the manager's arbitration for a channel for every port.
/// End of media comes before the last sample is heard (a resident clip's once it is loaded):
/// the ports give their channels up only when the sound has ended. A start asked for ahead of
/// time is written early and set to begin at its exact sample.
///
/// Threads. Three kinds meet here: the producer's thread (getEmptyFrame, putEmptyFrame,
/// notifyEndOfMedia), the threads that drive the node (the player thread; host threads through
/// getNewAudioPort), and the renderer's own thread. waitNotify guards the state, the flags, the
/// node's clock and the port table. The renderer thread holds it while it writes, but it never
/// sleeps inside the mixer with it held: it writes only what the buffer takes without waiting
/// and keeps the rest of a frame for its next pass, so stop, setRate and the others get the lock
/// within a pass. Lock order: waitNotify before the manager's channel lock before the mixer's
/// locks; the producer's output queue and the empty-frame pool are leaves.
class LX_API LxWin32AudioRenderer : public LxAudioRendererNode, public LxInputConnectable {
  public:
    /// State STOPPED, with the renderer thread created through the manager's thread manager and
    /// waiting. mixer is not owned.
    LxWin32AudioRenderer(LxManager* manager, LxWin32Mixer* mixer);
    /// Stops the sound at once, ends the thread (releasing every port's channel), closes the
    /// mixer ports and frees the frames. Not on the renderer thread.
    ~LxWin32AudioRenderer() override;

    // ---- Node. Player thread, except getNewAudioPort (any thread). ----
    /// Starts the clock at refTime, posts an LxStartEvent and wakes the thread (STARTED).
    long startAtTime(LxTime refTime) override;
    /// The clock's stop time; the thread stops the sound when it is reached.
    long stopAtTime(LxTime refTime) override;
    /// Stops the sound at once (STOPPED) and posts an LxStopByRequestEvent.
    void stop() override;
    /// The clock's rate, and the tempo of every port: pitch and speed change together.
    long setRate(float* rate) override;
    long setMediaTime(LxTime mediaTime) override;
    long setTimeBase(LxTimeBase* timeBase) override;
    LxTime getStopTime() override;
    float getRate() override;
    LxTime getMediaTime() override;
    LxTime getSyncTime() override;
    LxTimeBase* getTimeBase() override;
    void setLoop(char loop) override;
    /// PREFETCHING until the thread has set up (if it had not) and posted LxPrefetchCompleteEvent.
    void prefetch() override;
    /// The first call gives the master port, later calls a new duplicate port of the clip that
    /// competes for a channel of its own. 0x201 before the set-up, past 32 ports, or when the
    /// manager refuses the new port a place; 0x203 when out of memory.
    long getNewAudioPort(LxAudioOutputPort** port) override;

    // ---- Connectable (manager thread while connecting). ----
    KtResult connectTo(LxOutputConnectable* output) override;
    LxOutputConnectable* connectedTo() override;
    /// Keeps an audio format (0x2A4 for another type, or a rate outside 1 Hz .. 384 kHz).
    KtResult setFormat(LxFormat* format) override;
    LxFormat* getFormat() override;
    /// One format: any sample format, channels and rate, pull style.
    KtResult listFormats(LxFormat**& list, short* count) override;
    LxNode* getNode() override;
    /// Gives the producer's queued frames (and a frame half written) back to the pool.
    void flush() override;

    // ---- Producer side (the producer's thread). ----
    /// A frame from the pool (creating up to six in all). While the clip plays, a producer waits
    /// here at most 10 ms whatever its timeout: one that is that far ahead of the sound loses
    /// nothing by going back to its own queues, where a stop request must reach it quickly.
    LxFrame* getEmptyFrame(const LxTime& timeout) override;
    void putEmptyFrame(LxFrame* frame) override;
    void notifyEndOfMedia() override;
    /// Does nothing: this renderer pulls.
    void putFrame(LxFrame* frame) override;

    /// At most this many ports per clip (the master and its duplicates).
    static constexpr int kMaxPorts = 32;
    /// The frame pool: six frames of half a second each.
    static constexpr int kPoolFrames = 6;
    /// The sampling rates setFormat accepts.
    static constexpr float kMinRate = 1.0f;
    static constexpr float kMaxRate = 384000.0f;

  protected:
    /// Silences the clip and ends the renderer thread (DEAD); later calls do nothing. The
    /// destructor calls it; a subclass calls it first in its own destructor, so that the thread
    /// never runs while the object is taken apart. Not on the renderer thread.
    void stopThread();
    /// Accepts DEAD, STOPPED, PREFETCHING and STARTED.
    char onChangeState(LxNodeState newState) override;
    /// Records the duration and, the first time only, sets the renderer up: resident or
    /// streaming, the master port and its channel request, the frame pool. A failed set-up makes
    /// the node DEAD. Player thread. Always 1.
    long setDuration(const LxTime& duration) override;

    // The renderer's state. threadRunning, the flags and the sizes are guarded by waitNotify.
    char threadRunning;
    LxWin32Mixer* mixer;
    LxAudioFormat* acceptedFormat;
    LxOutputConnectable* source;
    LxAudioFormat* format;
    int32_t bufferSize;
    int32_t frameBytes;
    int32_t bytesPerSecond;
    int32_t bytesPerFrame;
    char isResident;
    char residentStarted;
    char prefillSilence;
    char residentDone;
    float rate;
    int32_t lowWaterMark;
    LxWin32AudioOutputPort** ports;
    LxWin32AudioOutputPort* masterPort;
    char masterHandedOut;
    LxWin32AudioPortConfig* portConfig;
    int16_t portCount;
    KtThread* thread;
    KtWaitNotify waitNotify;
    char hasWritten;
    LxQueue* emptyFrames;
    int16_t framesCreated;
    char eomReceived;
    char eomDone;

    // Further state, guarded by waitNotify unless said otherwise.
    /// The frame being written: what the buffer had no room for stays here for the next pass.
    LxAudioFrame* currentFrame;
    /// The ports were told they want to play (updatePortChannel with 1) since the last stop.
    char portsActive;
    /// The next streaming write starts the buffer again from its start (it was stopped, never
    /// written, or its channel changed hands); the buffer's old fill level means nothing.
    char resetPending;
    /// Nothing can be heard (no channel, gain 0, no device, a failing buffer): frames are
    /// consumed at the playing speed without being written, from silentSince on.
    char silentPacing;
    LxTime silentSince;
    int64_t silentFrames;
    /// A write failed: the clip goes on silently until its channel changes or it is restarted.
    char writeFailed;
    /// Channel grants and revocations of the master port seen so far.
    uint32_t channelEventsSeen;
    /// The reference time of the latest start.
    LxTime startRefTime;
    /// End of media of a streaming clip: the event goes out at drainPostAt, while the last
    /// samples still play; the ports stop at tailStopAt, once they have been heard. A resident
    /// clip's tail is its buffer playing out after its end of media, until residentEndAt. While
    /// a tail is pending the ports keep (or keep waiting for) their channels and a stop time
    /// still ends the sound.
    char draining;
    LxTime drainPostAt;
    char tailPending;
    LxTime tailStopAt;
    /// The tail is followed by the buffer's play cursor (a device may run behind the clock): it
    /// is over once the cursor has covered tailQueued bytes, the buffer stopped, or, for a device
    /// that stalled, at tailGiveUpAt.
    int32_t tailQueued;
    int32_t tailPlayed;
    int32_t tailLastFillable;
    LxTime tailGiveUpAt;
    /// A resident clip began to sound at residentSoundStart; without looping its last sample
    /// is heard at residentEndAt. A port granted its channel meanwhile joins at the place the
    /// clip has reached; portEventsSeen[i] is ports[i]'s grant count the renderer acted on.
    char residentEndSet;
    LxTime residentEndAt;
    LxTime residentSoundStart;
    uint32_t portEventsSeen[kMaxPorts];
    /// Bit i: ports[i] is registered with the manager's arbitration.
    uint32_t registeredPorts;
    /// prepareAheadMs() as the latest start found it.
    double prepareMs;
    /// 1 from a start until the renderer has nothing more to make heard (stopped, or the tail
    /// of the clip played, a port that waits for its channel included). Written under
    /// waitNotify, read by the ports' isSounding on any thread.
    std::atomic<char> soundPending;
    /// Guards framesCreated and the frame sizes for the producer (a leaf lock).
    KtMutex* poolLock;

  private:
    static long threadEntry(void* renderer);
    /// The renderer thread's loop.
    void run();
    /// The set-up. waitNotify held.
    long setUp();
    /// A new frame of frameBytes, or null. poolLock held.
    LxAudioFrame* createFrame();
    /// Clears a frame and sends it to the pool. Any thread, no lock needed.
    void returnFrame(LxFrame* frame);
    /// How long before a start asked for ahead of time the renderer goes active and writes its
    /// first samples, set to be heard at the start's exact sample.
    double prepareAheadMs();
    /// One pass of the STARTED state; returns the wait before the next. waitNotify held.
    uint32_t startedPass();
    uint32_t streamingStep(const LxTime& now);
    uint32_t residentStep(const LxTime& now);
    /// Writes what the buffer takes of frame; true when the whole frame is out. waitNotify held.
    bool writeFromFrame(LxAudioFrame* frame, const LxTime& now);
    /// The under-run check after a frame or a missing frame (tag 1 or 2). waitNotify held.
    uint32_t checkLowWater(int tag, uint32_t lowResult);
    /// Stops the sound without draining. waitNotify held.
    void handleStop();
    /// End of media of a streaming clip without looping: the draining stop. waitNotify held.
    uint32_t beginDrain(const LxTime& now);
    void finishDrain();
    /// Whether the last samples of a drained clip have been played. waitNotify held.
    bool tailPlayedOut(const LxTime& now);
    /// The wait before the next look at what a stopped clip still plays (its drained tail, or
    /// a resident buffer playing out); 0 once it is over or its stop time has come. waitNotify
    /// held.
    uint32_t tailWait(const LxTime& now);
    /// A resident clip starts sounding now on every port that holds a channel.
    void startResident(const LxTime& now);
    /// Ports of a sounding resident clip granted a channel since last seen play from where the
    /// clip is now; true when some port still waits for one. waitNotify held.
    bool joinGrantedPorts(const LxTime& now);
    /// End of a resident clip: STOPPED and end of media, the buffer plays out by itself.
    void finishResident();
    void stopAllPorts();
    void playAllPorts(char loopIt);
    /// updatePortChannel for the ports in order, up to the first refusal. waitNotify held.
    void updateChannels(const LxTime& time, char wantsChannel);
    void releaseChannels();
    LxTime refTime();
    uint32_t masterChannelEvents() const;
    bool masterHasChannel() const;

    LxWin32AudioRenderer(const LxWin32AudioRenderer&) = delete;
    LxWin32AudioRenderer& operator=(const LxWin32AudioRenderer&) = delete;
};

#endif  // LX_WIN32_AUDIO_RENDERER_H
