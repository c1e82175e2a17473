// Half-duplex sound cards, simulated: sampled audio and MIDI that cannot be open at the same time.
//
// The simulated sound-device and MIDI backends ask here before they open their device. In the
// default full-duplex mode every request is granted; in half-duplex mode a device is refused while
// the other one is open. Real backends on Linux are always full duplex and never call this.
#ifndef LORVEX_PLATFORM_DUPLEX_H
#define LORVEX_PLATFORM_DUPLEX_H

namespace lxp {
namespace duplex {

enum Device { SampledAudio = 0, Midi = 1 };

/// Switches the simulated card between full duplex (false, the default) and half duplex.
void setHalfDuplex(bool halfDuplex);
/// Records one more open of device; false (nothing recorded) when half duplex and the other
/// device is open.
bool tryOpen(Device device);
/// Records that one open of device ended.
void close(Device device);
/// Opens of device currently recorded.
int openCount(Device device);
/// Back to full duplex with nothing open (tests).
void reset();

}  // namespace duplex
}  // namespace lxp

#endif
