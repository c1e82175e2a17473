#include "midi/LxWin32MidiParser.h"

#include "midi/LxMidiVarLen.h"

#include "LxLog.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <new>

using namespace lxp;

namespace {

constexpr uint32_t kTrackEnded = 0x1;
constexpr uint32_t kMergeEnd = 0x1;
constexpr uint32_t kMergeError = 0x2;
constexpr uint32_t kMergePending = 0x4;
constexpr uint32_t kRecordSize = sizeof(MIDIEVENT);

uint32_t be32(const uint8_t* p) {
    return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
           (static_cast<uint32_t>(p[2]) << 8) | p[3];
}

uint16_t be16(const uint8_t* p) {
    return static_cast<uint16_t>((p[0] << 8) | p[1]);
}

bool readExactly(HANDLE file, void* buffer, uint32_t size) {
    uint32_t got = 0;
    return ReadFile(file, buffer, size, &got, nullptr) && got == size;
}

bool isEndOfTrack(const LxMidiEvent& e) {
    return e.status == 0xFF && e.data1 == 0x2F;
}

}  // namespace

LxWin32MidiParser::LxWin32MidiParser(LxMidiParserOwner* player)
    : player_(player), file_(INVALID_HANDLE_VALUE) {}

LxWin32MidiParser::~LxWin32MidiParser() {
    closeFile();
}

void LxWin32MidiParser::freePayload(LxMidiEvent* event) {
    if (event->payload != nullptr) {
        std::free(event->payload);
        event->payload = nullptr;
        --eventDataBlocks_;
    }
}

bool LxWin32MidiParser::seek(uint64_t offset) {
    int32_t high = static_cast<int32_t>(offset >> 32);
    const uint32_t low =
        SetFilePointer(file_, static_cast<int32_t>(static_cast<uint32_t>(offset)), &high, FILE_BEGIN);
    return !(low == INVALID_SET_FILE_POINTER &&
             (static_cast<uint64_t>(static_cast<uint32_t>(high)) << 32 | low) != offset);
}

int LxWin32MidiParser::failOpen() {
    closeFile();
    return 0;
}

int LxWin32MidiParser::openFile(const char* fileName) {
    closeFile();
    currentTick_ = 0;
    fileSize_ = 0;
    division_ = 0;
    format_ = 0;
    numTracks_ = 0;
    ticksPerBuffer_ = 0;
    tempo_ = 0;
    smpteTempo_ = 0;
    tempoDue_ = false;
    mergeFlags_ = 0;
    chase_.clear();
    chaseNext_ = 0;

    file_ = CreateFileA(fileName, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                        FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file_ == INVALID_HANDLE_VALUE) {
        LxLog::postDebug("LxWin32MidiParser:  Coudln't open input file\n");
        return failOpen();
    }
    uint32_t sizeHigh = 0;
    const uint32_t sizeLow = GetFileSize(file_, &sizeHigh);
    if (sizeLow == INVALID_FILE_SIZE) {
        LxLog::postDebug("LxWin32MidiParser:  File system error on input file.\n");
        return failOpen();
    }
    fileSize_ = (static_cast<uint64_t>(sizeHigh) << 32) | sizeLow;

    uint8_t chunk[8];
    if (!readExactly(file_, chunk, 4) || std::memcmp(chunk, "MThd", 4) != 0) {
        LxLog::postDebug("LxWin32MidiParser:  Failed to read in MThd\n");
        return failOpen();
    }
    uint8_t header[6];
    if (!readExactly(file_, chunk, 4) || be32(chunk) < 6 || !readExactly(file_, header, 6)) {
        LxLog::postDebug("LxWin32MidiParser:  Failed to read the header\n");
        return failOpen();
    }
    const uint32_t headerLength = be32(chunk);
    format_ = be16(header);
    numTracks_ = be16(header + 2);
    division_ = be16(header + 4);
    // Ticks per quarter note, or (high bit set) minus the frames per second in the high byte and
    // ticks per frame in the low byte. A zero division, or an SMPTE rate the standard does not
    // name, gives events no time at all: such a file cannot be played.
    if (division_ & 0x8000) {
        const int fps = -static_cast<int8_t>(division_ >> 8);
        if ((division_ & 0xFF) == 0 || (fps != 24 && fps != 25 && fps != 29 && fps != 30)) {
            LxLog::postDebug("LxWin32MidiParser:  Unusable SMPTE division 0x%04x\n",
                             static_cast<int>(division_));
            return failOpen();
        }
        // The stream counts fps x ticks-per-frame ticks in a "quarter note" of one second;
        // 29.97 frames (drop frame) count 30 frames in 1.001 s.
        smpteTempo_ = fps == 29 ? 1001001 : 1000000;
    } else if (division_ == 0) {
        LxLog::postDebug("LxWin32MidiParser:  Division is zero\n");
        return failOpen();
    }
    // Every declared track must be there before anything is allocated for it: a short file
    // cannot make the parser reserve memory for tracks it does not hold.
    if (!checkChunks(8 + static_cast<uint64_t>(headerLength))) {
        LxLog::postDebug("LxWin32MidiParser:  Error reading MTrk\n");
        return failOpen();
    }
    if (!seek(8 + static_cast<uint64_t>(headerLength))) {
        LxLog::postDebug("LxWin32MidiParser:  Failed to read the header\n");
        return failOpen();
    }
    tracks_ = new (std::nothrow) LxMidiTrack[numTracks_ > 0 ? numTracks_ : 1]();
    heap_ = new (std::nothrow) uint32_t[numTracks_ > 0 ? numTracks_ : 1];
    if (tracks_ == nullptr || heap_ == nullptr) {
        LxLog::postDebug("LxWin32MidiParser:  Failed to alloc memory for tracks\n");
        return failOpen();
    }
    uint64_t chunkOffset = 8 + static_cast<uint64_t>(headerLength);
    for (uint32_t i = 0; i < numTracks_; ++i) {
        LxMidiTrack* t = &tracks_[i];
        if (!readExactly(file_, chunk, 8) || std::memcmp(chunk, "MTrk", 4) != 0) {
            LxLog::postDebug("LxWin32MidiParser:  Error reading MTrk\n");
            return failOpen();
        }
        t->length = be32(chunk + 4);
        t->dataOffset = chunkOffset + 8;
        const uint64_t size = std::min<uint64_t>({t->length, kTrackBufferSize, fileSize_});
        // A short track gets a short buffer and an empty one none: many small tracks cost what
        // they hold.
        t->bufferSize = static_cast<uint32_t>(size);
        t->buffer = size > 0 ? static_cast<uint8_t*>(std::malloc(size)) : nullptr;
        if (size > 0 && t->buffer == nullptr) {
            LxLog::postDebug("LxWin32MidiParser:  Failed to allocate memory for track\n");
            return failOpen();
        }
        const uint32_t first = std::min(t->length, t->bufferSize);
        if (first > 0 && !readExactly(file_, t->buffer, first)) {
            LxLog::postDebug("LxWin32MidiParser:  Failed reading track from file\n");
            return failOpen();
        }
        t->bufferLeft = first;
        t->unread = t->length - first;
        t->refillOffset = t->dataOffset + first;
        t->readPos = 0;
        t->runningStatus = 0;
        t->flags = 0;
        t->nextEventDue = 0;
        LxLog::postDebug("LxWin32MidiParser:  Read in track %d\n", static_cast<int>(i));
        if (t->length > 0) {
            uint32_t delta = 0;
            if (!readVarLen(t, &delta)) {
                LxLog::postDebug("LxWin32MidiParser:  Error reading track nextEventDue\n");
                return failOpen();
            }
            t->nextEventDue = delta;
            pushTrack(i);
        } else {
            t->flags |= kTrackEnded;
        }
        chunkOffset = t->dataOffset + t->length;
        if (!seek(chunkOffset)) {
            LxLog::postDebug("LxWin32MidiParser:  Error reading MTrk\n");
            return failOpen();
        }
    }
    return 1;
}

bool LxWin32MidiParser::checkChunks(uint64_t offset) {
    uint8_t chunk[8];
    for (uint32_t i = 0; i < numTracks_; ++i) {
        if (offset + 8 > fileSize_ || !seek(offset) || !readExactly(file_, chunk, 8) ||
            std::memcmp(chunk, "MTrk", 4) != 0) {
            return false;
        }
        offset += 8 + static_cast<uint64_t>(be32(chunk + 4));
    }
    return true;
}

bool LxWin32MidiParser::earlier(uint32_t a, uint32_t b) const {
    const int64_t da = tracks_[a].nextEventDue;
    const int64_t db = tracks_[b].nextEventDue;
    return da < db || (da == db && a < b);
}

void LxWin32MidiParser::pushTrack(uint32_t track) {
    heap_[heapSize_++] = track;
    std::push_heap(heap_, heap_ + heapSize_, [this](uint32_t a, uint32_t b) { return earlier(b, a); });
}

uint32_t LxWin32MidiParser::popTrack() {
    std::pop_heap(heap_, heap_ + heapSize_, [this](uint32_t a, uint32_t b) { return earlier(b, a); });
    return heap_[--heapSize_];
}

void LxWin32MidiParser::closeFile() {
    if (mergeFlags_ & kMergePending) {
        freePayload(&pending_);
        mergeFlags_ &= ~kMergePending;
    }
    delete[] heap_;
    heap_ = nullptr;
    heapSize_ = 0;
    if (file_ != INVALID_HANDLE_VALUE) {
        CloseHandle(file_);
        file_ = INVALID_HANDLE_VALUE;
    }
    if (tracks_ != nullptr) {
        for (uint32_t i = 0; i < numTracks_; ++i) {
            std::free(tracks_[i].buffer);
        }
        delete[] tracks_;
        tracks_ = nullptr;
    }
}

bool LxWin32MidiParser::refillTrackBuffer(LxMidiTrack* track) {
    if (track->unread == 0) {
        return false;
    }
    if (!seek(track->refillOffset)) {
        LxLog::postDebug(
            "LxWin32MidiParser:  Unable to seek to track buffer location in refillTrackBuffer()\n");
        return false;
    }
    uint32_t got = 0;
    if (!ReadFile(file_, track->buffer, std::min(track->unread, track->bufferSize), &got, nullptr) ||
        got == 0) {
        LxLog::postDebug("LxWin32MidiParser:  Read operation failed\n");
        return false;
    }
    track->unread -= got;
    track->refillOffset += got;
    track->bufferLeft = got;
    track->readPos = 0;
    return true;
}

bool LxWin32MidiParser::getTrackByte(LxMidiTrack* track, uint8_t* byte) {
    if (track->bufferLeft == 0 && !refillTrackBuffer(track)) {
        return false;
    }
    *byte = track->buffer[track->readPos++];
    --track->bufferLeft;
    return true;
}

bool LxWin32MidiParser::readVarLen(LxMidiTrack* track, uint32_t* value) {
    // Beyond 32 bits (more than the standard's four bytes) a number saturates.
    uint64_t v = 0;
    if (!lxReadMidiVarLen([&](uint8_t* b) { return getTrackByte(track, b); }, 0xFFFFFFFFu, &v)) {
        return false;
    }
    *value = static_cast<uint32_t>(v);
    return true;
}

uint64_t LxWin32MidiParser::bytesLeft(const LxMidiTrack* track) const {
    // What is left of the track: its buffer, and its unread bytes as far as the file really holds
    // them (a chunk length beyond the end of the file must not size an allocation).
    const uint64_t inFile = fileSize_ > track->refillOffset ? fileSize_ - track->refillOffset : 0;
    return track->bufferLeft + std::min<uint64_t>(track->unread, inFile);
}

bool LxWin32MidiParser::readPayload(LxMidiTrack* track, uint32_t length, uint8_t** payload,
                                    const char* truncated, const char* noMemory) {
    *payload = nullptr;
    if (length == 0) {
        return true;
    }
    if (length > bytesLeft(track)) {
        LxLog::postDebug("%s", truncated);
        track->flags |= kTrackEnded;
        return false;
    }
    uint8_t* p = static_cast<uint8_t*>(std::malloc(length));
    if (p == nullptr) {
        LxLog::postDebug("%s", noMemory);
        track->flags |= kTrackEnded;
        return false;
    }
    ++eventDataBlocks_;
    for (uint32_t i = 0; i < length; ++i) {
        if (!getTrackByte(track, &p[i])) {
            std::free(p);
            --eventDataBlocks_;
            LxLog::postDebug("%s", truncated);
            track->flags |= kTrackEnded;
            return false;
        }
    }
    *payload = p;
    return true;
}

bool LxWin32MidiParser::readEvent(LxMidiTrack* track, LxMidiEvent* event) {
    *event = LxMidiEvent{};
    if ((track->flags & kTrackEnded) || bytesLeft(track) == 0) {
        return false;
    }
    uint8_t status = 0;
    if (!getTrackByte(track, &status)) {
        return false;
    }
    if (status < 0x80) {
        if (track->runningStatus == 0) {
            LxLog::postDebug("LxWin32MidiParser:  Toasted!  We didn't have a running status\n");
            return false;
        }
        event->status = track->runningStatus;
        event->data1 = status;
        const uint8_t kind = event->status & 0xF0;
        if (kind != 0xC0 && kind != 0xD0 && !getTrackByte(track, &event->data2)) {
            track->flags |= kTrackEnded;
            LxLog::postDebug("LxWin32MidiParser:  Running status message truncated\n");
            return false;
        }
    } else if (status < 0xF0) {
        track->runningStatus = status;
        event->status = status;
        const uint8_t kind = status & 0xF0;
        const uint32_t need = (kind == 0xC0 || kind == 0xD0) ? 1 : 2;
        if (bytesLeft(track) < need) {
            LxLog::postDebug("LxWin32MidiParser:  Channel message truncated\n");
            track->flags |= kTrackEnded;
            return false;
        }
        if (!getTrackByte(track, &event->data1) || (need == 2 && !getTrackByte(track, &event->data2))) {
            LxLog::postDebug("LxWin32MidiParser:  Channel message truncated\n");
            track->flags |= kTrackEnded;
            return false;
        }
    } else if (status == 0xF0 || status == 0xF7) {
        event->status = status;
        if (!readVarLen(track, &event->length)) {
            LxLog::postDebug("LxWin32MidiParser:  SysEx message truncated\n");
            track->flags |= kTrackEnded;
            return false;
        }
        if (!readPayload(track, event->length, &event->payload,
                         "LxWin32MidiParser:  SysEx message truncated\n",
                         "LxWin32MidiParser:  Failed to malloc memory for event dat\n")) {
            return false;
        }
    } else if (status == 0xFF) {
        event->status = status;
        if (!getTrackByte(track, &event->data1)) {
            LxLog::postDebug("LxWin32MidiParser:  No class for Meta message\n");
            track->flags |= kTrackEnded;
            return false;
        }
        if (!readVarLen(track, &event->length)) {
            LxLog::postDebug("LxWin32MidiParser:  Truncated meta length\n");
            track->flags |= kTrackEnded;
            return false;
        }
        if (!readPayload(track, event->length, &event->payload,
                         "LxWin32MidiParser:  Truncated Meta message\n",
                         "LxWin32MidiParser:  Failed to malloc memory for event data\n")) {
            return false;
        }
        if (event->data1 == 0x2F) {
            track->flags |= kTrackEnded;
        }
    } else {
        return false;  // 0xF1-0xFE are not events of a file
    }
    event->tick = track->nextEventDue;
    if (!(track->flags & kTrackEnded) && bytesLeft(track) == 0) {
        // The data ends after a whole event: many files in the wild leave out the end-of-track
        // event, and their last event is as good as any.
        track->flags |= kTrackEnded;
    } else if (!(track->flags & kTrackEnded)) {
        uint32_t delta = 0;
        if (!readVarLen(track, &delta)) {
            track->flags |= kTrackEnded;
            freePayload(event);
            return false;
        }
        track->nextEventDue += delta;
    }
    return true;
}

LxWin32MidiParser::AddResult LxWin32MidiParser::addEvent(LxMidiEvent* event, LxMidiStreamBuffer* buffer) {
    // The records go at the buffer's base plus what is used; the room is bounded by the data block
    // as well as by the declared capacity.
    const uint64_t end = std::min<uint64_t>(static_cast<uint64_t>(buffer->writeBase) + buffer->capacity,
                                            buffer->header.dwBufferLength);
    const uint64_t at = static_cast<uint64_t>(buffer->writeBase) + buffer->bytesUsed;
    auto room = [&]() -> uint64_t { return end > at ? end - at : 0; };
    if (buffer->bytesUsed == 0) {
        buffer->startTick = static_cast<uint32_t>(currentTick_);
    }
    if (static_cast<uint32_t>(static_cast<uint32_t>(currentTick_) - buffer->startTick) > ticksPerBuffer_) {
        if (buffer->overLimit) {
            buffer->overLimit = 0;
            LxLog::postDebug("LxWin32MidiParser:  buf full #1\n");
            return BUFFER_FULL;
        }
        buffer->overLimit = 1;
    }
    auto write = [&](uint32_t delta, uint32_t word) {
        const MIDIEVENT record{delta, 0, word};
        std::memcpy(buffer->header.lpData + at, &record, kRecordSize);
        buffer->bytesUsed += kRecordSize;
    };
    // A gap wider than a record's 32 bits is clamped: music that far away is never reached.
    const uint32_t delta = static_cast<uint32_t>(std::min<int64_t>(event->tick - currentTick_, 0xFFFFFFFFll));
    const float scale = player_->getParserTempoScale();
    // A scale of 0 or below would divide by zero: such a rate plays at the file's own tempo.
    auto scaled = [&](uint32_t tempo) -> uint32_t {
        const double t = scale > 0.0f ? tempo / static_cast<double>(scale) : tempo;
        return static_cast<uint32_t>(std::min(t, static_cast<double>(0xFFFFFF)));  // the record holds 24 bits
    };

    if (tempoDue_) {
        // The fixed pace of an SMPTE division, or the tempo in force at a seek's point, goes
        // first, with the record of the first event.
        if (room() < 2 * kRecordSize) {
            return BUFFER_FULL;
        }
        player_->takeTempoChanged();
        tempoDue_ = false;
        write(0, (MEVT_TEMPO << 24) | scaled(tempo_));
    } else if (player_->takeTempoChanged()) {
        if (room() < kRecordSize) {
            LxLog::postDebug("LxWin32MidiParser:  buf ful #2\n");
            return BUFFER_FULL;
        }
        if (tempo_ != 0) {
            write(0, (MEVT_TEMPO << 24) | scaled(tempo_));
        }
    }
    const uint64_t at2 = static_cast<uint64_t>(buffer->writeBase) + buffer->bytesUsed;
    auto roomNow = [&]() -> uint64_t { return end > at2 ? end - at2 : 0; };
    auto writeNow = [&](uint32_t d, uint32_t word) {
        const MIDIEVENT record{d, 0, word};
        std::memcpy(buffer->header.lpData + at2, &record, kRecordSize);
        buffer->bytesUsed += kRecordSize;
    };

    if (event->status >= 0x80 && event->status < 0xF0) {
        if (roomNow() < kRecordSize) {
            LxLog::postDebug("LxWin32MidiParser:  buf ful #3\n");
            return BUFFER_FULL;
        }
        uint32_t data2 = event->data2;
        if ((event->status & 0xF0) == 0xB0 && event->data1 == 7) {
            player_->storeChannelVolume(event->status & 0x0F, data2);
            const float gain = std::min(std::max(player_->getParserGain(), 0.0f), 1.0f);
            data2 = static_cast<uint32_t>(data2 * gain);
        }
        writeNow(delta, event->status | (static_cast<uint32_t>(event->data1) << 8) | (data2 << 16));
        currentTick_ = event->tick;
        return ADDED;
    }
    if (event->status == 0xFF) {
        // A tempo event shorter than its three bytes carries no tempo: it is passed over as
        // other meta events are. Under an SMPTE division time does not follow the tempo.
        if (event->data1 == 0x51 && event->length >= 3 && smpteTempo_ == 0) {
            if (roomNow() < kRecordSize) {
                LxLog::postDebug("LxWin32MidiParser:  buf ful #4\n");
                return BUFFER_FULL;
            }
            const uint8_t* p = event->payload;
            tempo_ = (static_cast<uint32_t>(p[0]) << 16) | (static_cast<uint32_t>(p[1]) << 8) | p[2];
            writeNow(delta, (MEVT_TEMPO << 24) | scaled(tempo_));
            // Ticks of 60 ms at this tempo (a zero tempo counts as 1 us per quarter note).
            ticksPerBuffer_ =
                static_cast<uint32_t>(static_cast<uint64_t>(division_) * 60000u / std::max(tempo_, 1u));
            currentTick_ = event->tick;
            freePayload(event);
            return ADDED;
        }
        freePayload(event);
        return SKIPPED;
    }
    LxLog::postDebug("LxWin32MidiParser:  ignoring sysex event\n");
    freePayload(event);
    return ADDED;
}

uint32_t LxWin32MidiParser::getStreamDivision() const {
    if (smpteTempo_ == 0) {
        return division_;
    }
    const int fps = -static_cast<int8_t>(division_ >> 8);
    return static_cast<uint32_t>(fps == 29 ? 30 : fps) * (division_ & 0xFF);
}

int LxWin32MidiParser::parseNewBuffer(bool restart, LxMidiStreamBuffer* buffer) {
    buffer->bytesUsed = 0;
    if (restart) {
        if (mergeFlags_ & kMergePending) {
            freePayload(&pending_);  // left over from a pass that is over
        }
        mergeFlags_ = 0;
        pending_ = LxMidiEvent{};
        if (smpteTempo_ != 0) {
            tempo_ = smpteTempo_;
            ticksPerBuffer_ =
                static_cast<uint32_t>(static_cast<uint64_t>(getStreamDivision()) * 60000u / tempo_);
            tempoDue_ = true;
        }
    } else if (mergeFlags_ & kMergeEnd) {
        return PARSE_END_REACHED;
    }
    if (mergeFlags_ & kMergeError) {
        return PARSE_FAILED_BEFORE;
    }
    if (tracks_ == nullptr) {
        mergeFlags_ |= kMergeError;
        return PARSE_FAILED_BEFORE;
    }

    // What a seek chased comes before anything from the point on, at the point's tick.
    while (chaseNext_ < chase_.size()) {
        const uint32_t m = chase_[chaseNext_];
        LxMidiEvent event{currentTick_,
                          static_cast<uint8_t>(m),
                          static_cast<uint8_t>(m >> 8),
                          static_cast<uint8_t>(m >> 16),
                          0,
                          nullptr};
        if (addEvent(&event, buffer) == BUFFER_FULL) {
            return PARSE_OK;
        }
        ++chaseNext_;
    }
    if (mergeFlags_ & kMergePending) {
        mergeFlags_ &= ~kMergePending;
        if (!isEndOfTrack(pending_)) {
            const AddResult r = addEvent(&pending_, buffer);
            if (r == BUFFER_FULL) {
                mergeFlags_ |= kMergePending;
                return PARSE_OK;
            }
        } else {
            freePayload(&pending_);
        }
    }
    for (;;) {
        if (heapSize_ == 0) {
            mergeFlags_ |= kMergeEnd;
            return PARSE_OK;
        }
        const uint32_t index = popTrack();
        LxMidiTrack* next = &tracks_[index];
        LxMidiEvent event;
        const bool read = readEvent(next, &event);
        if (!(next->flags & kTrackEnded)) {
            pushTrack(index);
        }
        if (!read) {
            LxLog::postDebug("LxWin32MidiParser:  MIDI file is corrupt!\n");
            mergeFlags_ |= kMergeError;
            return PARSE_CORRUPT;
        }
        if (isEndOfTrack(event)) {
            freePayload(&event);
            continue;
        }
        const AddResult r = addEvent(&event, buffer);
        if (r == BUFFER_FULL) {
            LxLog::postDebug("LxWin32MidiParser:  Buffer full adding event to stream\n");
            pending_ = event;
            mergeFlags_ |= kMergePending;
            return PARSE_OK;
        }
    }
}

namespace {

/// What the music has set on one channel up to a seek's point (-1: never set).
struct ChannelChase {
    int16_t controller[128];
    int16_t program;
    int32_t bend;
    int16_t pressure;
    uint8_t held[128];  ///< velocity of a note sounding at the point, 0 when silent
};

void chaseChannelEvent(ChannelChase& c, const LxMidiEvent& e) {
    switch (e.status & 0xF0) {
        case 0x90:
            c.held[e.data1 & 0x7F] = e.data2;  // velocity 0 is a note-off
            break;
        case 0x80:
            c.held[e.data1 & 0x7F] = 0;
            break;
        case 0xB0:
            if (e.data1 == 120 || e.data1 == 123) {  // all sound / all notes off
                std::memset(c.held, 0, sizeof c.held);
            } else if (e.data1 == 121) {  // reset all controllers: the device's defaults again
                for (int k : {1, 11, 64, 65, 66, 67, 68, 69}) {
                    c.controller[k] = -1;
                }
                c.bend = -1;
                c.pressure = -1;
            } else if (e.data1 < 120) {
                c.controller[e.data1] = e.data2;
            }
            break;
        case 0xC0:
            c.program = e.data1;
            break;
        case 0xD0:
            c.pressure = e.data1;
            break;
        case 0xE0:
            c.bend = e.data1 | (e.data2 << 8);
            break;
        default:
            break;  // polyphonic pressure belongs to a note already started
    }
}

}  // namespace

bool LxWin32MidiParser::seekTo(double us) {
    chase_.clear();
    chaseNext_ = 0;
    if (tracks_ == nullptr || !(us > 0.0)) {
        return tracks_ != nullptr;
    }
    // Media times are whole microseconds: a point less than one after a tick's time is that
    // tick's, so that the time of any tick finds it again.
    us -= 1.0;
    ChannelChase* channels = new (std::nothrow) ChannelChase[16];
    if (channels == nullptr) {
        return false;
    }
    for (int ch = 0; ch < 16; ++ch) {
        std::fill(std::begin(channels[ch].controller), std::end(channels[ch].controller), int16_t{-1});
        channels[ch].program = -1;
        channels[ch].bend = -1;
        channels[ch].pressure = -1;
        std::memset(channels[ch].held, 0, sizeof channels[ch].held);
    }
    // The time of a tick counts from the last tempo change before it: a quarter note lasts the
    // tempo's microseconds (500,000 until the file sets one); an SMPTE division keeps its pace.
    const double ticksPerQuarter = getStreamDivision();
    double tempo = smpteTempo_ != 0 ? smpteTempo_ : 500000.0;
    int64_t baseTick = 0;
    double baseUs = 0.0;
    auto timeOf = [&](int64_t tick) {
        return baseUs + static_cast<double>(tick - baseTick) * tempo / ticksPerQuarter;
    };
    bool tempoSeen = false;
    bool ok = true;
    while (heapSize_ > 0 && timeOf(tracks_[heap_[0]].nextEventDue) < us) {
        const uint32_t index = popTrack();
        LxMidiTrack* track = &tracks_[index];
        LxMidiEvent event;
        const bool read = readEvent(track, &event);
        if (!(track->flags & kTrackEnded)) {
            pushTrack(index);
        }
        if (!read) {
            LxLog::postDebug("LxWin32MidiParser:  MIDI file is corrupt!\n");
            mergeFlags_ |= kMergeError;
            ok = false;
            break;
        }
        if (event.status >= 0x80 && event.status < 0xF0) {
            chaseChannelEvent(channels[event.status & 0x0F], event);
        } else if (event.status == 0xFF && event.data1 == 0x51 && event.length >= 3 && smpteTempo_ == 0) {
            const uint8_t* p = event.payload;
            baseUs = timeOf(event.tick);
            baseTick = event.tick;
            tempo_ = (static_cast<uint32_t>(p[0]) << 16) | (static_cast<uint32_t>(p[1]) << 8) | p[2];
            tempo = std::max(tempo_, 1u);
            ticksPerBuffer_ =
                static_cast<uint32_t>(static_cast<uint64_t>(division_) * 60000u / std::max(tempo_, 1u));
            tempoSeen = true;
        }
        freePayload(&event);
    }
    // The first whole tick at or after the point; it never passes the next event, which lies at
    // or after the point too.
    // (A time beyond any tick a file can reach is held to one.)
    const double ahead = std::ceil((us - baseUs) * ticksPerQuarter / tempo);
    int64_t tick = baseTick + static_cast<int64_t>(std::min(ahead, 1e15));
    tick = std::max(tick, baseTick);
    if (heapSize_ > 0) {
        tick = std::min(tick, tracks_[heap_[0]].nextEventDue);
    }
    if (ok && heapSize_ == 0) {
        // The point lies past the music: the pass ends at once, with nothing to sound.
        currentTick_ = tick;
    } else if (ok) {
        currentTick_ = tick;
        tempoDue_ = tempoDue_ || tempoSeen;
        // Bank and program first, as an instrument is chosen, then the controllers (a parameter
        // number before its data entry), the wheel and the pressure; the held notes last.
        static const uint8_t kFirst[] = {0, 32};
        static const uint8_t kLast[] = {101, 100, 99, 98, 6, 38};
        auto isOrdered = [](int k) {
            return std::find(std::begin(kFirst), std::end(kFirst), k) != std::end(kFirst) ||
                   std::find(std::begin(kLast), std::end(kLast), k) != std::end(kLast);
        };
        for (uint32_t ch = 0; ch < 16; ++ch) {
            const ChannelChase& c = channels[ch];
            auto controller = [&](int k) {
                if (c.controller[k] >= 0) {
                    chase_.push_back(0xB0u | ch | (static_cast<uint32_t>(k) << 8) |
                                     (static_cast<uint32_t>(c.controller[k]) << 16));
                }
            };
            for (uint8_t k : kFirst) {
                controller(k);
            }
            if (c.program >= 0) {
                chase_.push_back(0xC0u | ch | (static_cast<uint32_t>(c.program) << 8));
            }
            for (int k = 0; k < 120; ++k) {
                if (!isOrdered(k)) {
                    controller(k);
                }
            }
            for (uint8_t k : kLast) {
                controller(k);
            }
            if (c.bend >= 0) {
                chase_.push_back(0xE0u | ch | (static_cast<uint32_t>(c.bend) << 8));
            }
            if (c.pressure >= 0) {
                chase_.push_back(0xD0u | ch | (static_cast<uint32_t>(c.pressure) << 8));
            }
        }
        for (uint32_t ch = 0; ch < 16; ++ch) {
            for (uint32_t n = 0; n < 128; ++n) {
                if (channels[ch].held[n] != 0) {
                    chase_.push_back(0x90u | ch | (n << 8) |
                                     (static_cast<uint32_t>(channels[ch].held[n]) << 16));
                }
            }
        }
    }
    delete[] channels;
    return ok;
}
