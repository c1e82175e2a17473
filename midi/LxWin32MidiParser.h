// LxWin32MidiParser - the stream parser: merges the tracks of a Standard MIDI File by time into
// the MIDI stream's 12-byte records, a buffer at a time, applying the player's gain and tempo
// scale on the way.
#ifndef LX_WIN32_MIDI_PARSER_H
#define LX_WIN32_MIDI_PARSER_H

#include "platform/file/LxpFile.h"
#include "platform/midi/LxpMidi.h"

#include <cstdint>
#include <vector>

/// What the stream parser reads from and writes to its player. The MIDI player implements it;
/// the parser calls it on the thread that parses (the player's thread or the device's callback
/// thread) while the player's thread may change the settings, so implementations keep them in
/// atomics.
class LxMidiParserOwner {
  public:
    virtual ~LxMidiParserOwner() {}
    /// Port gain, 0.0 to 1.0, applied to channel-volume controllers.
    virtual float getParserGain() = 0;
    /// Playback rate: tempo values are divided by it.
    virtual float getParserTempoScale() = 0;
    /// Reads and clears the flag that asks for the tempo to be re-sent with the next record.
    virtual bool takeTempoChanged() = 0;
    /// Remembers a channel-volume (controller 7) value of channel 0-15, before gain.
    virtual void storeChannelVolume(unsigned channel, uint32_t value) = 0;
};

/// One of the player's stream buffers: the platform header, then the parser's bookkeeping.
struct LxMidiStreamBuffer {
    lxp::MIDIHDR header;
    uint32_t writeBase;  ///< offset of the first record in header.lpData (the player sets 0)
    uint32_t capacity;   ///< bytes the records may take (the player sets 1024)
    uint32_t bytesUsed;  ///< bytes of records written
    uint32_t startTick;  ///< tick of the buffer's first record (low 32 bits)
    uint32_t overLimit;  ///< the buffer took its one event beyond its time span
};

/// One event read from a track.
struct LxMidiEvent {
    int64_t tick;      ///< absolute tick
    uint8_t status;    ///< channel status, 0xF0/0xF7 (system exclusive) or 0xFF (meta)
    uint8_t data1;     ///< first data byte; the type of a meta event
    uint8_t data2;     ///< second data byte
    uint32_t length;   ///< payload bytes (system exclusive and meta events)
    uint8_t* payload;  ///< null when length is 0
};

/// Read state of one track.
struct LxMidiTrack {
    uint32_t flags;         ///< bit 0: the track has ended
    uint32_t length;        ///< the chunk's declared length
    uint32_t bufferLeft;    ///< bytes not yet taken from buffer
    uint8_t* buffer;        ///< bufferSize bytes
    uint32_t bufferSize;    ///< the track's length, at most kTrackBufferSize
    uint32_t readPos;       ///< next byte in buffer
    uint64_t dataOffset;    ///< file offset of the track's data
    uint64_t refillOffset;  ///< file offset of the next refill
    uint32_t unread;        ///< bytes of the track not yet read from the file
    int64_t nextEventDue;   ///< absolute tick of the next event
    uint8_t runningStatus;  ///< 0 when none
};

/// The stream parser. Each parser has its own merge state (end, error, pending event), so streams
/// of several players may be parsed at the same time; one parser is used by one thread at a time.
class LxWin32MidiParser {
  public:
    static constexpr uint32_t kTrackBufferSize = 1024;

    // parseNewBuffer results.
    static constexpr int PARSE_OK = 0;
    static constexpr int PARSE_ADD_FAILED = -100;
    static constexpr int PARSE_CORRUPT = -101;
    static constexpr int PARSE_FAILED_BEFORE = -102;
    static constexpr int PARSE_END_REACHED = -103;

    explicit LxWin32MidiParser(LxMidiParserOwner* player);
    /// Closes the file and frees what closeFile frees.
    ~LxWin32MidiParser();

    /// Opens a Standard MIDI File and reads the start of every track: 1, or 0 (after closing
    /// whatever it opened). Player's thread.
    int openFile(const char* fileName);
    /// Fills one stream buffer with the next records in time order: 0 when the buffer is complete
    /// (full, or the end of the data reached), -100 when an event could not be added, -101 when
    /// the file turned out corrupt, -102 when an earlier call failed, -103 when the end had
    /// already been reached. restart resets the merge state (not the tracks' positions). On the
    /// thread that owns the stream: the player's, or the device's callback thread.
    int parseNewBuffer(bool restart, LxMidiStreamBuffer* buffer);
    /// Closes the file and frees every track buffer, the track array and a pending event of this
    /// parser.
    void closeFile();
    /// Right after openFile: moves to the first tick at or after media time us (microseconds at
    /// rate 1, through the file's tempo map) and "chases" what comes before it, so that the next
    /// pass begins with the tempo, programs, controllers, pitch bends and channel pressures in
    /// force there, then the notes held across it, all at once, and goes on from the point.
    /// true, or false when the file turned out corrupt on the way (the pass then fails).
    bool seekTo(double us);

    /// The header's division as written (an SMPTE division has its high bit set).
    uint32_t getDivision() const { return division_; }
    /// The division to give the stream: ticks per quarter note, or for an SMPTE division the
    /// ticks per second (per 1.001 s at 29.97 frames), paced by a fixed tempo the parser writes.
    uint32_t getStreamDivision() const;
    uint32_t getFormat() const { return format_; }
    uint32_t getTrackCount() const { return numTracks_; }
    /// Meta and system-exclusive payloads currently allocated (0 after closeFile).
    long getEventDataBlocks() const { return eventDataBlocks_; }
    /// Current tempo in microseconds per quarter note (0 until a tempo event was converted).
    uint32_t getTempo() const { return tempo_; }
    uint32_t getTicksPerBuffer() const { return ticksPerBuffer_; }

  private:
    enum AddResult { ADDED, SKIPPED, BUFFER_FULL };

    bool refillTrackBuffer(LxMidiTrack* track);
    bool getTrackByte(LxMidiTrack* track, uint8_t* byte);
    bool readVarLen(LxMidiTrack* track, uint32_t* value);
    uint64_t bytesLeft(const LxMidiTrack* track) const;
    bool readPayload(LxMidiTrack* track, uint32_t length, uint8_t** payload, const char* truncated,
                     const char* noMemory);
    bool readEvent(LxMidiTrack* track, LxMidiEvent* event);
    AddResult addEvent(LxMidiEvent* event, LxMidiStreamBuffer* buffer);
    void freePayload(LxMidiEvent* event);
    bool seek(uint64_t offset);
    int failOpen();
    bool checkChunks(uint64_t offset);
    bool earlier(uint32_t a, uint32_t b) const;
    void pushTrack(uint32_t track);
    uint32_t popTrack();

    LxMidiParserOwner* const player_;
    lxp::HANDLE file_;
    uint64_t fileSize_ = 0;
    uint32_t division_ = 0;
    uint32_t format_ = 0;
    uint32_t numTracks_ = 0;
    LxMidiTrack* tracks_ = nullptr;
    int64_t currentTick_ = 0;
    uint32_t ticksPerBuffer_ = 0;
    uint32_t tempo_ = 0;
    /// Microseconds per quarter note that pace an SMPTE division; 0 for ticks per quarter note.
    uint32_t smpteTempo_ = 0;
    /// The tempo (the SMPTE pace, or the one a seek chased) is still to be written at the start of
    /// the pass.
    bool tempoDue_ = false;
    /// Short messages a seek chased, still to be written at the seek's tick, and the next one.
    std::vector<uint32_t> chase_;
    size_t chaseNext_ = 0;
    long eventDataBlocks_ = 0;
    // The merge: tracks that have not ended, in a heap by their next event's tick (then by track
    // number), so that taking the next event costs log(tracks), not tracks.
    uint32_t* heap_ = nullptr;
    uint32_t heapSize_ = 0;
    uint32_t mergeFlags_ = 0;
    LxMidiEvent pending_{};
};

#endif
