// Standard MIDI files built by hand, and a reference reader written apart from the library's parsers.
#ifndef LORVEX_TESTS_SUPPORT_MIDIFILES_H
#define LORVEX_TESTS_SUPPORT_MIDIFILES_H

#include <cstdint>
#include <string>
#include <vector>

namespace miditest {

std::string vlq(uint32_t value);
std::string be32(uint32_t v);
/// An "MTrk" chunk around events (delta-time/event bytes); endOfTrack appends FF 2F 00.
std::string track(const std::string& events, bool endOfTrack = true);
/// A whole file: "MThd" with headerLength (at least 6; extra bytes are zeros), then the chunks.
std::string smf(int format, int division, const std::vector<std::string>& tracks, uint32_t headerLength = 6);
std::string noteOn(uint32_t delta, int channel, int key, int velocity = 100);
std::string noteOff(uint32_t delta, int channel, int key);
std::string tempoEvent(uint32_t delta, uint32_t usPerQuarter);
std::string textEvent(uint32_t delta, const std::string& text);
std::string controller(uint32_t delta, int channel, int number, int value);
/// A short message as the stream carries it.
inline uint32_t shortMsg(int status, int d1, int d2 = 0) {
    return status | d1 << 8 | d2 << 16;
}

/// A channel event of the reference reader at its absolute tick.
struct RefEvent {
    int64_t tick;
    uint32_t message;  // status | data1 << 8 | data2 << 16
};

/// A file read by the test's own reader: events of every track and the tempo changes.
struct RefFile {
    int division = 0;
    std::vector<RefEvent> events;                      // in time order, ties by the lower track
    std::vector<std::pair<int64_t, uint32_t>> tempos;  // (tick, us per quarter), in time order
    /// Seconds at tick, from the tempo changes (500000 us per quarter before the first).
    double seconds(int64_t tick) const;
};
/// Reads a well-formed file (no error handling beyond stopping at the end).
RefFile readReference(const std::string& bytes);

}  // namespace miditest

#endif
