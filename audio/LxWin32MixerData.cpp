// LxWin32Mixer: the data path. Streaming writes into a port's circular buffer, resident writes
// from the buffer's start, silence, and the fill level.
#include "LxWin32Mixer.h"

#include "LxLog.h"
#include "LxResult.h"
#include "audio/LxWin32MixerInternal.h"
#include "platform/clock/LxpClock.h"
#include "platform/sound/LxpSound.h"

#include <algorithm>
#include <cmath>
#include <cstring>

using lxmixer::Hold;
using namespace lxp;

namespace {

void sleepMs(double ms) {
    if (ms >= 1.0) {
        lxp::clock().sleep(static_cast<uint32_t>(std::min(ms, 4.0e9)));
    }
}

void logLockFailure(HRESULT hr) {
    if (hr == DSERR_BUFFERLOST) {
        LxLog::postDebug("LxWin32Mixer: DirectSound buffer lost\n");
    } else {
        LxLog::postDebug("LxWin32Mixer: couldn't lock secondary buffer\n");
    }
}

/// The (at most two, at the wrap) parts of a secondary buffer's locked region.
struct LockedParts {
    void* p1 = nullptr;
    void* p2 = nullptr;
    uint32_t n1 = 0;
    uint32_t n2 = 0;
};

/// Locks bytes of the port's buffer from its write position.
HRESULT lockAtWritePosition(LxWin32AudioPortData* rec, long bytes, LockedParts* parts) {
    return rec->soundBuffer->Lock(static_cast<uint32_t>(rec->writePosition), static_cast<uint32_t>(bytes),
                                  &parts->p1, &parts->n1, &parts->p2, &parts->n2, 0);
}

/// Writes bytes at the port's write position, fill(part, size, offset) supplying each of the
/// (at most two, at the wrap) parts of the locked region, and moves the write position past them.
/// *copied: the bytes written; LX_ERR_GENERIC when the buffer cannot be locked.
template <class Fill>
long writeAtWritePosition(LxWin32AudioPortData* rec, long bytes, Fill fill, long* copied) {
    LockedParts r;
    const HRESULT hr = lockAtWritePosition(rec, bytes, &r);
    if (FAILED(hr)) {
        logLockFailure(hr);
        return LX_ERR_GENERIC;
    }
    fill(r.p1, r.n1, 0);
    if (r.p2 != nullptr && r.n2 > 0) {
        fill(r.p2, r.n2, r.n1);
    }
    rec->soundBuffer->Unlock(r.p1, r.n1, r.p2, r.n2);
    *copied = static_cast<long>(r.n1) + static_cast<long>(r.n2);
    rec->writePosition += static_cast<int32_t>(*copied);
    if (rec->writePosition >= rec->bufferSize) {
        rec->writePosition -= rec->bufferSize;
    }
    return LX_OK;
}

}  // namespace

uint32_t LxWin32Mixer::playMillis(LxWin32AudioPortData* rec, double bytes) {
    // Before its buffer exists a port has no byte rate yet: its own rate and frame size give it.
    // A tempo of 0 or below (a stopped port) paces at normal speed rather than never returning.
    double bps = rec->bytesPerSecond;
    if (bps <= 0) {
        bps = static_cast<double>(lxmixer::wholeRate(rec->rate)) * rec->bytesPerFrame;
    }
    const double tempo = rec->tempo > 0 ? rec->tempo : 1.0;
    if (!(bps > 0) || !(bytes > 0)) {
        return 0;
    }
    return static_cast<uint32_t>(std::min(std::floor(bytes * 1000.0 / (bps * tempo)), 4.0e9));
}

long LxWin32Mixer::fillableLocked(LxWin32AudioPortData* rec) {
    if (rec->soundBuffer == nullptr) {
        return 0;
    }
    uint32_t play = 0;
    if (FAILED(rec->soundBuffer->GetCurrentPosition(&play, nullptr))) {
        // A cursor that cannot be read (a lost buffer) reports all room, so that a writer goes
        // on to Lock, which reports the failure, instead of waiting for room forever.
        return rec->bufferSize;
    }
    const long p = static_cast<long>(play);
    const long w = rec->writePosition;
    return p >= w ? p - w : rec->bufferSize - w + p;
}

long LxWin32Mixer::getFillable(short port) {
    Hold slot(slotLock(port));
    LxWin32AudioPortData* rec = slot.valid() ? record(port) : nullptr;
    if (state.load() != READY || rec == nullptr) {
        return -1;
    }
    return fillableLocked(rec);
}

long LxWin32Mixer::getFilled(short port) {
    Hold slot(slotLock(port));
    LxWin32AudioPortData* rec = slot.valid() ? record(port) : nullptr;
    if (state.load() != READY || rec == nullptr) {
        return -1;
    }
    return rec->bufferSize - fillableLocked(rec);
}

long LxWin32Mixer::discardFrames(short port) {
    Hold slot(slotLock(port));
    if (state.load() != READY) {
        return LX_ERR_MIXER_NOT_READY;
    }
    return slot.valid() && record(port) != nullptr ? LX_OK : LX_ERR_NO_PORT;
}

long LxWin32Mixer::writeFrames(short port, unsigned char* data, long byteOffset, long frames) {
    Hold slot(slotLock(port));
    LxWin32AudioPortData* rec = nullptr;
    const long ready = readyRecord(slot.valid(), port, &rec);
    if (ready != LX_OK) {
        return ready;
    }
    const long total = static_cast<long>(rec->bytesPerFrame) * frames;
    if (rec->duplicates[0] == LX_NO_DUPLICATE &&
        (rec->gain <= 0.000001f || rec->noChannel || rec->soundBuffer == nullptr)) {
        // Nobody can hear it: no copy, only the time the samples would take to play.
        const uint32_t ms = playMillis(rec, static_cast<double>(total));
        slot.unlock();
        sleepMs(ms);
        return LX_OK;
    }
    const unsigned char* src = data + byteOffset;
    const long threshold = static_cast<long>(0.75 * rec->bufferSize);
    long written = 0;
    // Gives up when the port lost its channel or buffer, or was closed, while the slot was let go.
    auto stillThere = [&]() {
        rec = record(port);
        return state.load() == READY && rec != nullptr && !rec->noChannel && rec->soundBuffer != nullptr;
    };
    while (written < total) {
        long fillable = fillableLocked(rec);
        const long level = rec->bufferSize - fillable;
        if (rec->isStreaming) {
            if (level > 0.5 * rec->bytesPerSecond) {
                LxLog::postDebug("LxWin32Mixer:  buffer level up to %d, resetting!\n",
                                 static_cast<int>(level));
                rec->needsReset = 1;
            }
        } else if (level > threshold && !rec->needsReset) {
            const double ms = rec->bytesPerSecond > 0
                                  ? std::floor(static_cast<double>(level - threshold) / rec->bytesPerSecond *
                                               1000.0 / (rec->tempo > 0 ? rec->tempo : 1.0))
                                  : 0.0;
            {
                KtScopedUnlock<Hold> away(slot);
                sleepMs(ms);
            }
            if (!stillThere()) {
                return LX_ERR_WRITE_ABANDONED;
            }
        }
        if (rec->needsReset) {
            fillable = rec->bufferSize;
            rec->writePosition = 0;
            setPositionAllPorts(rec, 0);
            rec->needsReset = 0;
        }
        if (fillable == 0) {
            // Waits for room without the slot lock, so that a revocation, a close or the device
            // going down can come in meanwhile, and gives up when one did.
            {
                KtScopedUnlock<Hold> away(slot);
                lxp::clock().sleep(50);
            }
            if (!stillThere()) {
                return LX_ERR_WRITE_ABANDONED;
            }
            continue;
        }
        if (rec->soundBuffer == nullptr) {
            return LX_ERR_WRITE_ABANDONED;  // a duplicated master whose own buffer is gone
        }
        const long chunk = std::min(total - written, fillable);
        long copied = 0;
        const long result = writeAtWritePosition(
            rec, chunk,
            [&](void* part, uint32_t size, uint32_t at) { std::memcpy(part, src + written + at, size); },
            &copied);
        if (result != LX_OK) {
            return result;
        }
        written += copied;
        if (!rec->playing.load()) {
            playAllPorts(rec);
        }
        if (written < total) {
            const double ms = rec->bytesPerSecond > 0
                                  ? std::floor(static_cast<double>(copied) / rec->bytesPerSecond * 1000.0 /
                                                   (rec->tempo > 0 ? rec->tempo : 1.0) -
                                               50.0)
                                  : 0.0;
            {
                KtScopedUnlock<Hold> away(slot);
                sleepMs(std::max(0.0, ms));
            }
            if (!stillThere()) {
                return LX_ERR_WRITE_ABANDONED;
            }
        }
    }
    return LX_OK;
}

long LxWin32Mixer::writeResidentFrames(short port, unsigned char* data, long byteOffset, long frames) {
    Hold slot(slotLock(port));
    LxWin32AudioPortData* rec = nullptr;
    const long ready = readyRecord(slot.valid(), port, &rec);
    if (ready != LX_OK) {
        return ready;
    }
    long bytes = static_cast<long>(rec->bytesPerFrame) * frames;
    if (rec->writePosition >= rec->bufferSize) {
        LxLog::postDebug("LxWin32Mixer:  asking to write more bytes after buffer is full, port %d\n", port);
        return LX_ERR_RESIDENT_FULL;
    }
    if (bytes <= 0) {
        return LX_OK;
    }
    if (rec->soundBuffer == nullptr) {
        return LX_ERR_WRITE_ABANDONED;  // no channel yet, or the buffer was destroyed
    }
    // Only the room left is locked: bytes past the buffer's end are dropped, and the buffer ends
    // exactly full even when one call brings more than the whole buffer holds.
    bytes = std::min(bytes, static_cast<long>(rec->bufferSize - rec->writePosition));
    LockedParts r;
    const HRESULT hr = lockAtWritePosition(rec, bytes, &r);
    if (FAILED(hr)) {
        if (hr == DSERR_BUFFERLOST) {
            LxLog::postDebug("LxWin32Mixer: DirectSound buffer lost\n");
            return LX_ERR_GENERIC;
        }
        LxLog::postDebug("LxWin32Mixer: couldn't lock secondary buffer, port %d hr 0x%x\n", port,
                         static_cast<unsigned>(hr));
        return LX_ERR_RESIDENT_FULL;
    }
    std::memcpy(r.p1, data + byteOffset, r.n1);
    rec->soundBuffer->Unlock(r.p1, r.n1, r.p2, 0);
    rec->writePosition += static_cast<int32_t>(r.n1);
    return LX_OK;
}

long LxWin32Mixer::fillSilence(short port, long frames) {
    Hold slot(slotLock(port));
    LxWin32AudioPortData* rec = nullptr;
    const long ready = channelRecord(slot.valid(), port, &rec);
    if (ready != LX_OK) {
        return ready;
    }
    LxLog::postDebug("LxWin32Mixer:  fillSilence %d zeros\n", static_cast<int>(frames));
    const long bytes = (rec->format != LxSample8 ? 2 : 1) * (rec->channels != LxMono ? 2 : 1) * frames;
    return doFillSilence(port, bytes);
}

long LxWin32Mixer::fillSilence(short port, const LxTime& duration) {
    Hold slot(slotLock(port));
    LxWin32AudioPortData* rec = nullptr;
    const long ready = channelRecord(slot.valid(), port, &rec);
    if (ready != LX_OK) {
        return ready;
    }
    // Whole sample frames only, so that the write position never lands inside a frame.
    long bytes = static_cast<long>(std::floor(duration.getValue() * rec->bytesPerSecond));
    if (rec->bytesPerFrame > 0) {
        bytes -= bytes % rec->bytesPerFrame;
    }
    return doFillSilence(port, bytes);
}

long LxWin32Mixer::doFillSilence(short port, long bytes) {
    Hold slot(slotLock(port));
    LxWin32AudioPortData* rec = slot.valid() ? record(port) : nullptr;
    if (bytes <= 0) {
        LxLog::postDebug("LxWin32Mixer: numBytes <= 0\n");
        return LX_OK;
    }
    if (rec == nullptr || rec->soundBuffer == nullptr) {
        return LX_ERR_NO_PORT;
    }
    const int silence = rec->format == LxSample8 ? 0x80 : 0x00;
    if (rec->needsReset) {
        rec->writePosition = 0;
        setPositionAllPorts(rec, 0);
        rec->needsReset = 0;
    }
    // More silence than the buffer holds fills it once: the rest would overwrite itself.
    bytes = std::min(bytes, static_cast<long>(rec->bufferSize));
    long copied = 0;
    const long result = writeAtWritePosition(
        rec, bytes, [silence](void* part, uint32_t size, uint32_t) { std::memset(part, silence, size); },
        &copied);
    if (result != LX_OK) {
        return result;
    }
    if (!rec->playing.load()) {
        playAllPorts(rec);
    }
    return LX_OK;
}
