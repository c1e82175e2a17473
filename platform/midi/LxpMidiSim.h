// The simulated MIDI device: a recorder with virtual time, for tests.
//
// Chosen with LxPlatformSetMidiBackend(LX_MIDI_SIMULATED). Every short message that reaches
// the device (from stream buffers, midiOutShortMsg, and the All Notes Off of stop and reset) is
// recorded with its device time. Time is virtual by default: it stands still until the test
// advances it, and advancing plays everything due in between at exactly its due time, returning
// buffers through their callbacks (on the stream's device thread) before the call returns. The
// device honours the half-duplex card setting of platform/LxpDuplex.h and can be told to fail
// any operation.
#ifndef LORVEX_PLATFORM_MIDI_SIM_H
#define LORVEX_PLATFORM_MIDI_SIM_H

#include "platform/midi/LxpMidi.h"

#include <cstdint>
#include <vector>

namespace lxp {
namespace midi {
class Backend;
}

namespace midisim {

/// The backend's factory (the layer uses it when the host chose the simulated device).
midi::Backend& backend();

/// One message the device received.
struct Message {
    uint32_t message;    ///< status in the low byte, then data 1, data 2
    int64_t playMicros;  ///< device time when it was played
    int64_t dueMicros;   ///< device time it was due (equal to playMicros for direct messages)
    bool fromStream;     ///< from a stream buffer (false: midiOutShortMsg, stop, reset)
};

enum Operation { Open, Property, Prepare, Unprepare, Out, Restart, Stop, Reset, Close, ShortMsg };

/// Real time (the device time follows a monotonic clock from the moment this is set) instead of
/// virtual time. Change it only while no stream is open.
void setRealTime(bool realTime);
/// Device time now, in microseconds (virtual time starts at 0).
int64_t nowMicros();
/// Moves virtual time forward, playing everything that falls due on the way at its due time.
/// Returns when the device threads have caught up, callbacks included. Must not be called from
/// a MIDI callback, nor while a callback waits for the calling thread.
void advanceMicros(int64_t micros);
inline void advanceMs(int64_t ms) {
    advanceMicros(ms * 1000);
}

/// Everything recorded since the last clear, in the order played.
std::vector<Message> messages();
void clearMessages();

/// The next count calls of op fail with result (after their argument checks).
void failNext(Operation op, MMRESULT result, int count = 1);
/// How many streams may be open at once (1, the default, as a single synthesizer allows).
void setMaxOpenStreams(int count);

/// Virtual time back to 0, real time off, nothing recorded, no failures planned, one stream.
/// Call only while no stream is open.
void reset();

}  // namespace midisim
}  // namespace lxp

#endif
