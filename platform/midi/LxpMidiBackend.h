// How a MIDI device plugs into the stream layer (internal to platform/midi).
#ifndef LORVEX_PLATFORM_MIDI_BACKEND_H
#define LORVEX_PLATFORM_MIDI_BACKEND_H

#include "platform/midi/LxpMidiStream.h"

#include <memory>

namespace lxp {
namespace midi {

/// One kind of MIDI device.
class Backend {
  public:
    virtual ~Backend() {}
    /// Opens the device for a new stream: the stream's output, or an MMRESULT when the device
    /// cannot be opened. Any thread, serialised by the layer.
    virtual MMRESULT open(std::unique_ptr<StreamOutput>* output) = 0;
};

/// The backend the host chose (LxPlatformMidi.h).
Backend& chosenBackend();

/// Joins the threads of streams closed from their own callback (never the calling thread).
void reapDeviceThreads();
/// Device threads that have not ended yet.
int liveDeviceThreads();

}  // namespace midi
}  // namespace lxp

#endif
