// LxWin32NewMidiParser - the file model: reads a whole Standard MIDI File once into per-track
// event lists and a tempo map, so that the player can learn the clip's tracks, duration and
// channels when it loads it.
#ifndef LX_WIN32_NEW_MIDI_PARSER_H
#define LX_WIN32_NEW_MIDI_PARSER_H

#include "Kt.h"
#include "platform/file/LxpFile.h"

#include <cstdint>
#include <vector>

/// One event of a track, linked to its neighbours in time order.
struct LxMidiFileEvent {
    enum Kind { CHANNEL = 0, META = 1, SYSEX = 2 };

    int64_t tick;  ///< absolute tick
    LxMidiFileEvent* prev;
    LxMidiFileEvent* next;
    Kind kind;
    uint8_t message[3];  ///< channel event: status, data 1, data 2
    uint8_t messageLength;
    uint8_t metaType;  ///< meta event
    int64_t metaLength;
    uint8_t* metaData;  ///< null when metaLength is 0; system-exclusive payloads are not kept
};

/// The events of one track in tick order.
struct LxMidiEventList {
    LxMidiFileEvent* first;
    LxMidiFileEvent* last;
    LxMidiFileEvent* cursor;  ///< the first event after loading
    long count;
};

/// One tempo of the tempo map.
struct LxMidiTempoEntry {
    uint32_t tempo;     ///< microseconds per quarter note
    int64_t tick;       ///< where it starts
    int64_t startTime;  ///< nanoseconds from the start of the file
};

/// The tempo map: entries in tick order, the first at tick 0.
typedef std::vector<LxMidiTempoEntry> LxMidiTempoMap;

class LxWin32NewMidiParser {
  public:
    static constexpr uint32_t kReadBufferSize = 4000;
    static constexpr uint32_t kDefaultTempo = 500000;

    LxWin32NewMidiParser();
    /// Closes the file and frees every event, list and the tempo map.
    ~LxWin32NewMidiParser();

    /// Reads the file: 1; 0x201 when it cannot be opened or holds no track; 0x203 when memory
    /// runs out. Called once, on the player's thread. Without keepEvents no event is kept: the
    /// tracks' last ticks, the channels and the tempo map are all there is, and the memory used
    /// stays a small part of the file's size (what the player needs to learn a clip's length).
    KtResult loadFile(const char* fileName, bool keepEvents = true);

    /// Tracks the header declares (missing ones have empty lists).
    long getTrackCount() const { return declaredTracks_; }
    /// The event list of track i (empty without keepEvents and for tracks the file lacks); null
    /// past the end.
    const LxMidiEventList* getTrackEvents(long i) const;
    /// The tick of the last event of track i; -1 for an empty (or missing) track.
    int64_t getLastTick(long i) const;
    /// 16 flags, one per MIDI channel, set when a channel event uses that channel.
    const uint8_t* getChannelsUsed() const { return channelsUsed_; }
    const LxMidiTempoMap& getTempoMap() const { return tempoMap_; }
    uint32_t getDivision() const { return division_; }
    uint32_t getFormat() const { return format_; }

    /// Nanoseconds from the start of the file to tick, by the tempo map (see the .cpp). A
    /// division of 0 gives 0.
    static int64_t tickToTime(int64_t tick, uint32_t division, const LxMidiTempoMap& tempoMap);

  private:
    bool readByte(uint8_t* byte);
    bool readBytes(int n, uint32_t* value);
    bool readVarLen(uint64_t* value);
    bool skip(uint64_t n);
    KtResult readTrack(LxMidiEventList* list, int64_t* lastTick);
    bool append(LxMidiEventList* list, LxMidiFileEvent* event);
    void freeAll();

    lxp::HANDLE file_;
    uint8_t* readBuffer_ = nullptr;
    uint32_t fill_ = 0;
    uint32_t readPos_ = 0;
    uint64_t fileLeft_ = 0;  // bytes of the file not yet in the read buffer
    int64_t chunkLeft_ = 0;
    long tracksRead_ = 0;
    long declaredTracks_ = 0;
    bool keepEvents_ = true;
    std::vector<LxMidiEventList> tracks_;  ///< the tracks read, with events when kept
    std::vector<int64_t> lastTicks_;       ///< of the tracks read
    uint32_t format_ = 0;
    uint32_t division_ = 0;
    LxMidiTempoMap tempoMap_;
    uint32_t currentTempo_ = kDefaultTempo;
    uint8_t channelsUsed_[16] = {};
};

#endif
