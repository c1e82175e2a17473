// LxWin32MidiPlayer.h - the player of Standard MIDI File clips, which is also its own audio port.
#ifndef LX_WIN32_MIDI_PLAYER_H
#define LX_WIN32_MIDI_PLAYER_H

#include "Kt.h"
#include "LxApi.h"
#include "LxAudioOutputPort.h"
#include "LxPlayer.h"
#include "LxTime.h"

#include <atomic>
#include <cstdint>

class LxDataSource;
class LxEvent;
class LxManager;
class LxWin32MidiParser;
struct LxMidiStreamBuffer;
namespace lxp {
struct MidiStreamObject;
}

/// Plays a MIDI clip through the platform's MIDI stream device. It has no renderer node: it is
/// itself the clip's audio output port and competes for the manager's MIDI channel.
///
/// Three threads meet here. The player thread loads the clip, asks the manager for the channel
/// and starts and stops the stream. The device's callback thread refills the two stream buffers
/// while music plays. The manager's arbitration calls grantChannel()/revokeChannel() on whatever
/// thread asked the manager, with the manager's channel lock held.
///
/// Lock order: the manager's channel lock, then the player's signal, then the stop wait, then
/// the manager's MIDI access mutex. To keep it, no thread calls into the manager's arbitration
/// while it holds the signal: the player thread records a decision under the signal and tells the
/// manager after releasing it. The callback thread takes only the stop wait; the step at the end
/// of the clip's data, which reports end of media, is handed to the player thread, which keeps
/// the stream open until the synthesizer's last notes have died away and then closes it. A
/// stream that fails (refused by the device, or damage found in the file) ends the clip the same
/// way. Grant and revoke act on the stream at once, so that a revoked stream is closed before
/// the manager starts sampled audio on a card that cannot run both.
class LX_API LxWin32MidiPlayer : public LxPlayer, public LxAudioOutputPort {
  public:
    /// Stream states (streamState).
    static constexpr int32_t STREAM_RUNNING = 0;
    static constexpr int32_t STREAM_STOPPING = 100;
    /// No buffer is with the device.
    static constexpr int32_t STREAM_STOPPED = 200;
    /// The parser has reached the end of the clip's data; the last buffers are still playing.
    static constexpr int32_t STREAM_DATA_END = 300;

    /// Bytes of data of each stream buffer.
    static constexpr uint32_t kStreamBufferBytes = 1024;
    /// Longest time the stream is kept open after the clip's data for the synthesizer's notes to
    /// die away (a note held by a pedal would sound for ever).
    static constexpr unsigned long kTailLimitMs = 2000;

    /// Held around every attempt to open a MIDI stream, by the players and by the manager's
    /// sound-card test, so that two opens never race for the one device. Exists while the library
    /// is loaded (null after unload).
    static KtMutex* midiAccessMutex();

    /// Starts the player thread, which loads the clip from the source's local file.
    LxWin32MidiPlayer(LxManager* manager, LxDataSource* dataSource);
    /// Ends the thread (the stream is stopped and closed on the way), then frees what is left.
    ~LxWin32MidiPlayer() override;

    // --- The port (any thread).
    long setSoundLocation(const float* xyz) override;
    const float* getLocation() const override;
    /// 0x201 outside 0..1 (nothing changed) and while not STARTED (stored for the next start);
    /// while STARTED the player thread re-sends every channel volume and 1 is returned.
    long setGain(float gain) override;
    long setPan(float pan) override;
    float getPan() const override;
    float getGain() const override;
    long setPriority(float priority) override;
    float getPriority() const override;
    long setSpatialize(char on) override;
    char getSpatialize() const override;
    char hasChannel() const override;
    /// 1 from a start request until the clip's last buffer has played and the synthesizer has
    /// gone silent (at most kTailLimitMs after the end of the clip's data), or until a stop.
    char isSounding() const override;
    /// Called by the manager with its channel lock held. While the player wants to sound, the
    /// stream is opened (where the clock stands, what comes before chased) and started before
    /// this returns. Returns 1.
    long grantChannel() override;
    /// Called by the manager with its channel lock held. While the player wants to sound, the
    /// stream is stopped (all notes off), both buffers are waited for and the stream is closed
    /// before this returns. Returns 1.
    long revokeChannel() override;

    // --- Player operations.
    /// The player's own port; 1.
    long getNewAudioPort(LxAudioOutputPort** port) override;
    /// The base step, then the rate becomes the tempo scale. Player thread, signal held.
    long setRateAll(float* rate) override;
    /// A gain event re-sends the channel volumes; others go to the base. Player thread, signal
    /// held.
    void handleNodeEvent(LxEvent* event) override;
    /// Also stops the music (all notes off) and closes the stream; the manager is told that the
    /// port went inactive once the signal is released. Signal held.
    long stopAll() override;
    /// Marks the port sounding, then the base step. Player thread, signal held.
    long startAll(LxTime t) override;
    /// The base step, then the music goes on from t (through the file's tempo map, with what
    /// comes before t chased): at the next start, or at once while the stream plays (stopped,
    /// repositioned and started again; a start still to come keeps its time). Player thread,
    /// signal held.
    long setTimeAll(LxTime t) override;

    // --- The stream. Any thread but the device's callback thread; each takes the signal (the
    // caller may hold it already, except for stopMidi(true)).
    /// Opens the clip and the stream (paused) and queues the first two buffers: 1, or 0.
    long initPlayer();
    /// Opens the stream if needed, starts it and sends the channel volumes: 1, or 0.
    long startMidi();
    /// Stops the stream, waits until both buffers are back and closes stream and clip; with
    /// tellManager the manager then learns that the port is inactive (call it without the
    /// signal held then). 1, or 0x201 when the device refused to stop.
    long stopMidi(char tellManager);
    /// Unregisters both buffers from the device and frees their data.
    void freeBuffers();
    /// Sends every channel's volume x gain (only while STARTED with an open stream); 1.
    long setAllChannelVolume();
    /// Sends one channel's volume x gain: 1, or 0x201 (bad channel, not sounding, or refused).
    long setChannelVolume(unsigned long channel);
    /// Tempo values are divided by scale; re-sent with the next buffer while playing.
    void setTempoScale(float scale);
    /// The device's report that a buffer came back (MOM_DONE; other messages are ignored).
    /// The device's callback thread only.
    void handleMidiCallback(void* handle, uint32_t message, uintptr_t parameter);

    // --- Read-outs for diagnostics and tests (any thread).
    int32_t getStreamState() const { return streamState.load(); }
    /// Buffers that are not with the device (2 when none is).
    int32_t getBuffersDone() const { return buffersDone.load(); }
    /// The last volume (before gain) the clip set on channel 0-15; -1 for a bad channel.
    long getChannelVolume(unsigned long channel) const;
    float getTempoScale() const { return tempoScale.load(); }

  protected:
    void run() override;
    /// Closes the stream and the clip and destroys the stream parser. Player thread, at the end.
    void shutdown() override;

  private:
    class ParserLink;
    friend class ParserLink;

    static long callRunLoop(void* player);
    static void deviceCallback(lxp::MidiStreamObject* handle, uint32_t message, uintptr_t instance,
                               uintptr_t param1, uintptr_t param2);

    // Steps of the run loop (player thread, signal not held unless said).
    /// Loads the clip and asks the manager for the channel: LX_OK, or the catastrophic error.
    long loadClip() override;
    /// The stream's own business first: the manager told of a stop, the end of the data, a
    /// refused stream, a tail that has died away.
    void housekeeping() override;
    /// A ringing tail is polled every kTailPollMs.
    unsigned long passWait(unsigned long w) override;
    /// Goes active; then sleeps until the stop time.
    unsigned long playStep(unsigned long toStart) override;
    /// Stops the stream and tells the manager the port went inactive.
    void silenceAtStopTime() override;
    /// Gives the channel back to the manager.
    void leaveLoop() override;
    /// Sets the duration and the starting channel volumes from the file model: 1, or 0x203 when
    /// the model cannot be made.
    long readFileModel(const char* fileName);
    /// Going active: tells the manager, then starts the stream if the port holds the channel.
    void goActive();
    /// The callback found the clip's data played out: closes, tells the manager, ends the pass.
    void finishEndOfData();
    /// Tells the manager about a stop done under the signal, if one is pending.
    void tellManagerIfStopped();
    /// Ends a pass whose stream the device refused (end of media, without looping) and gives the
    /// channel back.
    void endFailedPass();
    /// Closes the stream kept open for the release tails once the device is silent or the limit
    /// has passed.
    void endTailIfSilent();
    /// Milliseconds until the clock's stop time, KT_INFINITE when none is set.
    unsigned long stopTimeWait();

    // Signal held.
    /// Opens (if needed) and starts the stream unless it is already started.
    void startStreamLocked();
    /// The stream part of stopMidi.
    long stopStreamLocked();
    /// Parses and queues buffer i on the stream; the stop wait's lock is held. 0 queued, -103
    /// the data had already ended (the empty buffer is queued too), other values failed.
    int fillAndQueueLocked(int i, bool restart);
    /// Sends one channel's volume message; false when refused.
    bool sendChannelVolume(unsigned channel);
    /// Where a stream started now begins, in media seconds: the position asked for, or, for a
    /// stream started again within a pass, the clock's media time; a looping clip's position past
    /// its end wraps. Once the stream runs, the clock is set to run from there.
    double streamStartPosition();

    /// The open stream (null when none). Written with the signal held.
    std::atomic<lxp::MidiStreamObject*> stream;
    LxWin32MidiParser* parser;
    uint32_t deviceId;
    /// Channel-volume values before gain; written by the parser on whichever thread parses.
    std::atomic<uint32_t> channelVolumes[16];
    std::atomic<float> gain;
    std::atomic<float> tempoScale;
    std::atomic<bool> tempoChanged;
    /// Two buffers (an array made at construction, null when that failed).
    LxMidiStreamBuffer* streamBuffers;
    /// Buffers not with the device. Changed with the stop wait's lock held.
    std::atomic<int32_t> buffersDone;
    int32_t current;
    /// Signal held.
    char headersPrepared;
    /// Changed with the stop wait's lock held.
    std::atomic<int32_t> streamState;
    /// The player wants to sound (it told the manager so). Signal held.
    char active;
    /// Signalled by the callback when the last buffer came back after a stop.
    KtWaitNotify stopWait;
    /// The parser has the clip open. Signal held.
    char fileOpen;
    std::atomic<float> priority;

    /// The stream has been started and not stopped since. Signal held.
    char streamStarted;
    /// Set by the callback when the data's end has played out; taken by the player thread.
    std::atomic<bool> endOfDataPending;
    /// A stop under the signal still has to be told to the manager.
    std::atomic<bool> inactivePending;
    /// The port's record of holding the channel, readable without a lock.
    std::atomic<char> holdingChannel;
    ParserLink* parserLink;
    /// A start was asked for and no stop has come since. Written on the player thread.
    std::atomic<bool> playing;
    /// The clip's data has played out and the open stream is left to ring out. Signal held to
    /// change it.
    std::atomic<bool> tailing;
    /// Steady-clock milliseconds at which the tail is cut in any case. Signal held.
    int64_t tailEndMs;
    /// The pass is ending by itself: the stop that ends it keeps the tail. Signal held.
    char endingPass;
    /// Starting the stream failed; the player thread ends the pass.
    std::atomic<bool> startFailed;
    /// Media seconds the next pass's stream begins at. Signal held.
    double seekPosition;
    /// seekPosition is new: the next stream start begins there and sets the clock to it. Signal
    /// held.
    char positionPending;
    /// Where the stream being opened begins, in media seconds. Signal held.
    double streamFrom;
    /// The channel volumes before the clip's first event. Written at load.
    uint32_t startVolumes[16];

    LxWin32MidiPlayer(const LxWin32MidiPlayer&) = delete;
    LxWin32MidiPlayer& operator=(const LxWin32MidiPlayer&) = delete;
};

#endif  // LX_WIN32_MIDI_PLAYER_H
