// The simulated sound backend: the real mixing engine with a manual output that a test drives.
//
// The test renders output by advancing time (or lets every buffer operation catch the output up to
// lxp::clock()), reads the mixed output and the bytes each buffer's play cursor passed, makes any
// operation fail, loses buffers, and reads back what each buffer and device is set to. The
// simulated card is half duplex when lxp::duplex says so: a device binds only when the MIDI side
// lets it.
//
// Rendering happens on the thread that advances (or on the thread whose buffer operation catches
// the output up); one render runs at a time.
#ifndef LORVEX_PLATFORM_SIMULATED_SOUND_H
#define LORVEX_PLATFORM_SIMULATED_SOUND_H

#include "platform/sound/LxpSoundBackend.h"

#include <string>
#include <vector>

namespace lxp {
namespace simsound {

using sound::BufferInfo;
using sound::DeviceInfo;
using sound::Op;
using sound::OutputFormat;

struct Config {
    /// Devices enumeration reports after "Primary Sound Driver".
    std::vector<std::string> devices{"Simulated Sound Card"};
    uint32_t capsFlags = DSCAPS_PRIMARYMONO | DSCAPS_PRIMARYSTEREO | DSCAPS_PRIMARY8BIT |
                         DSCAPS_PRIMARY16BIT | DSCAPS_CONTINUOUSRATE | DSCAPS_SECONDARYMONO |
                         DSCAPS_SECONDARYSTEREO | DSCAPS_SECONDARY8BIT | DSCAPS_SECONDARY16BIT;
    uint32_t minSecondaryRate = DSBFREQUENCY_MIN;
    uint32_t maxSecondaryRate = DSBFREQUENCY_MAX;
    /// Whether "DSOUND.DLL" loads.
    bool libraryPresent = true;
    /// The output's format follows the primary buffer's (as the hardware of the time did), or
    /// stays fixedFormat.
    bool followPrimary = true;
    OutputFormat fixedFormat{48000, 2, 16};
    /// Keep the mixed output / the bytes each buffer's cursor passed.
    bool captureOutput = true;
    bool recordConsumed = true;
    /// Before every buffer operation, render the output up to lxp::clock()'s present. The clock's
    /// time at the first such operation is time 0 of the output.
    bool syncToClock = false;
};

/// Makes a fresh simulated backend the current one: new engine, no failures, no records, no
/// output. Objects made before keep their own backend.
void use(const Config& config = Config());

/// The next count calls of op fail with hr (count < 0: every call until cleared).
void failNext(Op op, int count = 1, HRESULT hr = E_FAIL);
void clearFailures();
/// "Operation#object" for every call so far (object 0: a call on no object).
std::vector<std::string> calls();
void clearCalls();

/// Renders frames of output / the output of ms milliseconds.
void advanceFrames(uint32_t frames);
void advanceMs(uint32_t ms);
/// Renders the output up to lxp::clock()'s present (with syncToClock set; nothing otherwise).
void catchUp();
/// Milliseconds of output rendered so far.
double renderedMs();

/// The output format now and the captured output: every frame rendered since use() or
/// clearOutput(), as floats of full scale +-1.0 (whatever the format it was rendered in).
OutputFormat outputFormat();
std::vector<float> outputChannel(int channel);
/// The captured output's raw bytes (meaningful while the format did not change).
std::vector<uint8_t> outputBytes();
void clearOutput();

bool describe(IDirectSoundBuffer* buffer, BufferInfo* info);
/// The bytes (in the buffer's format) that buffer's play cursor has passed, in order.
std::vector<uint8_t> consumed(IDirectSoundBuffer* buffer);
void clearConsumed(IDirectSoundBuffer* buffer);
int liveBuffers();
std::vector<DeviceInfo> devices();
int loadedLibraries();
/// Every live buffer of the backend becomes lost (it stops; Lock, Play and GetCurrentPosition
/// report DSERR_BUFFERLOST).
void loseBuffers();

/// The backend's engine (benchmarks render it directly).
sound::Engine& engine();

}  // namespace simsound
}  // namespace lxp

#endif
