#include "midi/LxWin32NewMidiParser.h"

#include "midi/LxMidiVarLen.h"

#include "LxLog.h"
#include "LxResult.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

using namespace lxp;

namespace {

// start + span nanoseconds; times past the 64-bit range (ticks of centuries) saturate there.
int64_t addNanos(int64_t start, double span) {
    const double t = static_cast<double>(start) + span;
    if (t >= 9.2e18) {
        return INT64_MAX;
    }
    return start + static_cast<int64_t>(span);
}

}  // namespace

LxWin32NewMidiParser::LxWin32NewMidiParser() : file_(INVALID_HANDLE_VALUE) {}

LxWin32NewMidiParser::~LxWin32NewMidiParser() {
    freeAll();
}

void LxWin32NewMidiParser::freeAll() {
    if (file_ != INVALID_HANDLE_VALUE) {
        CloseHandle(file_);
        file_ = INVALID_HANDLE_VALUE;
    }
    std::free(readBuffer_);
    readBuffer_ = nullptr;
    for (LxMidiEventList& list : tracks_) {
        for (LxMidiFileEvent* e = list.first; e != nullptr;) {
            LxMidiFileEvent* next = e->next;
            std::free(e->metaData);
            delete e;
            e = next;
        }
    }
    tracks_.clear();
    lastTicks_.clear();
    declaredTracks_ = 0;
    tempoMap_.clear();
}

bool LxWin32NewMidiParser::readByte(uint8_t* byte) {
    if (readPos_ == fill_) {
        // Refill; the file's size bounds the reads, so no byte past its end is asked for.
        uint32_t got = 0;
        const uint32_t want = static_cast<uint32_t>(std::min<uint64_t>(fileLeft_, kReadBufferSize));
        if (want == 0 || !ReadFile(file_, readBuffer_, want, &got, nullptr) || got == 0) {
            fileLeft_ = 0;
            return false;
        }
        fileLeft_ -= got;
        fill_ = got;
        readPos_ = 0;
    }
    *byte = readBuffer_[readPos_++];
    --chunkLeft_;
    return true;
}

bool LxWin32NewMidiParser::readBytes(int n, uint32_t* value) {
    uint32_t v = 0;
    for (int i = 0; i < n; ++i) {
        uint8_t b;
        if (!readByte(&b)) {
            return false;
        }
        v = (v << 8) | b;
    }
    *value = v;
    return true;
}

bool LxWin32NewMidiParser::readVarLen(uint64_t* value) {
    return lxReadMidiVarLen([this](uint8_t* b) { return readByte(b); }, UINT64_C(1) << 40, value);
}

bool LxWin32NewMidiParser::skip(uint64_t n) {
    uint8_t b;
    for (uint64_t i = 0; i < n; ++i) {
        if (!readByte(&b)) {
            return false;
        }
    }
    return true;
}

bool LxWin32NewMidiParser::append(LxMidiEventList* list, LxMidiFileEvent* e) {
    // In tick order; an event with the same tick as earlier ones goes after them.
    LxMidiFileEvent* after = list->last;
    while (after != nullptr && after->tick > e->tick) {
        after = after->prev;
    }
    e->prev = after;
    e->next = after != nullptr ? after->next : list->first;
    if (e->next != nullptr) {
        e->next->prev = e;
    } else {
        list->last = e;
    }
    if (after != nullptr) {
        after->next = e;
    } else {
        list->first = e;
    }
    ++list->count;
    return true;
}

KtResult LxWin32NewMidiParser::readTrack(LxMidiEventList* list, int64_t* lastTick) {
    // Find the chunk: the next "M" followed by "Trk". The end of the file ends the search and
    // leaves the track empty.
    for (;;) {
        uint8_t b;
        if (!readByte(&b)) {
            return LX_OK;
        }
        if (b != 'M') {
            continue;
        }
        uint8_t t[3];
        if (!readByte(&t[0]) || !readByte(&t[1]) || !readByte(&t[2])) {
            return LX_OK;
        }
        if (t[0] == 'T' && t[1] == 'r' && t[2] == 'k') {
            break;
        }
    }
    uint32_t length = 0;
    if (!readBytes(4, &length)) {
        return LX_OK;
    }
    chunkLeft_ = length;
    int64_t tick = 0;
    uint8_t running = 0;
    // A track that the end of the file cuts short keeps the events read whole up to that point;
    // the partial event is dropped.
    while (chunkLeft_ > 0) {
        uint64_t delta = 0;
        uint8_t status = 0;
        if (!readVarLen(&delta) || !readByte(&status)) {
            return LX_OK;
        }
        tick = std::min<int64_t>(tick + static_cast<int64_t>(delta), INT64_C(1) << 62);
        if (status < 0xF0) {
            uint8_t msg[3] = {status, 0, 0};
            int have = 1;
            if (status < 0x80) {
                if (running == 0) {
                    continue;  // a data byte with nothing to continue: passed over
                }
                msg[0] = running;
                msg[1] = status;
                have = 2;
            } else {
                running = status;
            }
            const uint8_t kind = msg[0] & 0xF0;
            const int length = (kind == 0xC0 || kind == 0xD0) ? 2 : 3;
            for (; have < length; ++have) {
                if (!readByte(&msg[have])) {
                    return LX_OK;
                }
            }
            channelsUsed_[msg[0] & 0x0F] = 1;
            *lastTick = std::max(*lastTick, tick);
            if (keepEvents_) {
                LxMidiFileEvent* e = new (std::nothrow) LxMidiFileEvent();
                if (e == nullptr) {
                    return LX_ERR_OUT_OF_MEMORY;
                }
                e->tick = tick;
                e->kind = LxMidiFileEvent::CHANNEL;
                std::memcpy(e->message, msg, 3);
                e->messageLength = static_cast<uint8_t>(length);
                append(list, e);
            }
        } else if (status == 0xF0 || status == 0xF7) {
            uint64_t n = 0;
            if (!readVarLen(&n) || !skip(n)) {
                return LX_OK;
            }
            *lastTick = std::max(*lastTick, tick);
            if (keepEvents_) {
                LxMidiFileEvent* e = new (std::nothrow) LxMidiFileEvent();
                if (e == nullptr) {
                    return LX_ERR_OUT_OF_MEMORY;
                }
                e->tick = tick;
                e->kind = LxMidiFileEvent::SYSEX;
                append(list, e);
            }
        } else if (status == 0xFF) {
            uint8_t type = 0;
            uint64_t n = 0;
            if (!readByte(&type) || !readVarLen(&n)) {
                return LX_OK;
            }
            // A payload longer than what the file still holds is cut short by its end.
            if (n > fileLeft_ + (fill_ - readPos_)) {
                return LX_OK;
            }
            // Only a tempo's payload is needed when the events are not kept.
            const bool keep = keepEvents_ || type == 0x51;
            uint8_t* data = nullptr;
            if (n > 0 && keep) {
                data = static_cast<uint8_t*>(std::malloc(n));
                if (data == nullptr) {
                    return LX_ERR_OUT_OF_MEMORY;
                }
                for (uint64_t i = 0; i < n; ++i) {
                    if (!readByte(&data[i])) {
                        std::free(data);
                        return LX_OK;
                    }
                }
            } else if (!skip(n)) {
                return LX_OK;
            }
            *lastTick = std::max(*lastTick, tick);
            if (type == 0x51 && n >= 3) {
                currentTempo_ =
                    (static_cast<uint32_t>(data[0]) << 16) | (static_cast<uint32_t>(data[1]) << 8) | data[2];
                try {
                    tempoMap_.push_back({currentTempo_, tick, 0});
                } catch (const std::bad_alloc&) {
                    std::free(data);
                    return LX_ERR_OUT_OF_MEMORY;
                }
            }
            if (!keepEvents_) {
                std::free(data);
                continue;
            }
            LxMidiFileEvent* e = new (std::nothrow) LxMidiFileEvent();
            if (e == nullptr) {
                std::free(data);
                return LX_ERR_OUT_OF_MEMORY;
            }
            e->tick = tick;
            e->kind = LxMidiFileEvent::META;
            e->metaType = type;
            e->metaLength = static_cast<int64_t>(n);
            e->metaData = data;
            append(list, e);
        }
        // Other status bytes (0xF1-0xFE) are passed over.
    }
    return LX_OK;
}

KtResult LxWin32NewMidiParser::loadFile(const char* fileName, bool keepEvents) {
    freeAll();
    keepEvents_ = keepEvents;
    file_ = CreateFileA(fileName, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                        FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file_ == INVALID_HANDLE_VALUE) {
        LxLog::postDebug("LxWin32NewMidiParser:  Couldn't open input file\n");
        return LX_ERR_GENERIC;
    }
    uint32_t high = 0;
    const uint32_t low = GetFileSize(file_, &high);
    fileLeft_ = low == INVALID_FILE_SIZE ? 0 : (static_cast<uint64_t>(high) << 32) | low;
    readBuffer_ = static_cast<uint8_t*>(std::malloc(kReadBufferSize));
    if (readBuffer_ == nullptr) {
        freeAll();
        return LX_ERR_OUT_OF_MEMORY;
    }
    fill_ = readPos_ = 0;

    uint8_t magic[4] = {};
    uint32_t numTracks = 0;
    bool header = true;
    for (uint8_t& b : magic) {
        header = header && readByte(&b);
    }
    if (!header || std::memcmp(magic, "MThd", 4) != 0) {
        LxLog::postDebug("LxWin32NewMidiParser:  failed to find MThd\n");
    } else {
        uint32_t length = 0;
        if (readBytes(4, &length) && readBytes(2, &format_) && readBytes(2, &numTracks) &&
            readBytes(2, &division_)) {
            LxLog::postDebug("LxWin32NewMidiParser:  format = %d, numTracks = %d, division = %d\n",
                             static_cast<int>(format_), static_cast<int>(numTracks),
                             static_cast<int>(division_));
            if (length > 6) {
                LxLog::postDebug("LxWin32NewMidiParser:  header more than 6 bytes.  ignoring %d bytes\n",
                                 static_cast<int>(length - 6));
                skip(length - 6);
            }
        } else {
            numTracks = 0;
        }
    }
    if (numTracks == 0) {
        freeAll();
        return LX_ERR_GENERIC;
    }
    declaredTracks_ = static_cast<long>(numTracks);
    // Lists only for the tracks the file holds: a header may declare far more than there are.
    for (tracksRead_ = 0; tracksRead_ < declaredTracks_ && (fileLeft_ > 0 || readPos_ < fill_);
         ++tracksRead_) {
        try {
            tracks_.push_back(LxMidiEventList{nullptr, nullptr, nullptr, 0});
            lastTicks_.push_back(-1);
        } catch (const std::bad_alloc&) {
            freeAll();
            return LX_ERR_OUT_OF_MEMORY;
        }
        const KtResult r = readTrack(&tracks_.back(), &lastTicks_.back());
        if (r != LX_OK) {
            freeAll();
            return r;
        }
    }
    std::free(readBuffer_);
    readBuffer_ = nullptr;
    CloseHandle(file_);
    file_ = INVALID_HANDLE_VALUE;

    // Tempo map: tick order (tempo events of one tick keep file order), the default tempo at
    // tick 0 unless the file sets its own there, then every entry's start time.
    std::stable_sort(tempoMap_.begin(), tempoMap_.end(),
                     [](const LxMidiTempoEntry& a, const LxMidiTempoEntry& b) { return a.tick < b.tick; });
    try {
        if (tempoMap_.empty() || tempoMap_.front().tick != 0) {
            tempoMap_.insert(tempoMap_.begin(), LxMidiTempoEntry{kDefaultTempo, 0, 0});
        }
    } catch (const std::bad_alloc&) {
        freeAll();
        return LX_ERR_OUT_OF_MEMORY;
    }
    for (size_t i = 1; i < tempoMap_.size(); ++i) {
        const LxMidiTempoEntry& p = tempoMap_[i - 1];
        const double span = division_ == 0 ? 0.0
                                           : static_cast<double>(tempoMap_[i].tick - p.tick) *
                                                 (p.tempo / static_cast<double>(division_)) * 1000.0;
        tempoMap_[i].startTime = addNanos(p.startTime, span);
    }
    for (LxMidiEventList& list : tracks_) {
        list.cursor = list.first;
    }
    return LX_OK;
}

const LxMidiEventList* LxWin32NewMidiParser::getTrackEvents(long i) const {
    static const LxMidiEventList kEmpty{nullptr, nullptr, nullptr, 0};
    if (i < 0 || i >= declaredTracks_) {
        return nullptr;
    }
    return i < static_cast<long>(tracks_.size()) ? &tracks_[i] : &kEmpty;
}

int64_t LxWin32NewMidiParser::getLastTick(long i) const {
    return i >= 0 && i < static_cast<long>(lastTicks_.size()) ? lastTicks_[i] : -1;
}

int64_t LxWin32NewMidiParser::tickToTime(int64_t tick, uint32_t division, const LxMidiTempoMap& tempoMap) {
    // The last entry strictly before tick (one exactly at tick gives the same time through the
    // entry before it); none: time 0.
    const LxMidiTempoEntry* entry = nullptr;
    for (const LxMidiTempoEntry& e : tempoMap) {
        if (e.tick < tick) {
            entry = &e;
        } else {
            break;
        }
    }
    if (division & 0x8000) {
        // SMPTE: a fixed number of ticks per second, whatever the tempo map says.
        const int fps = -static_cast<int8_t>(division >> 8);
        const double perSecond = (fps == 29 ? 29.97 : fps) * static_cast<double>(division & 0xFF);
        return perSecond > 0.0 && tick > 0 ? addNanos(0, static_cast<double>(tick) * 1e9 / perSecond) : 0;
    }
    if (entry == nullptr || division == 0) {
        return 0;
    }
    const double span =
        static_cast<double>(tick - entry->tick) * (entry->tempo / static_cast<double>(division)) * 1000.0;
    return addNanos(entry->startTime, span);
}
