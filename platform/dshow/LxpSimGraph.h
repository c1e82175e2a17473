// The simulated (scripted) backend of the filter-graph layer.
//
// Nothing is decoded: Render connects the streams a script describes to the renderer filters in
// the graph, and a streaming thread delivers made-up samples to them at their media times, paced by
// lxp::clock() (install a ManualClock to run through a clip in virtual time), with EC_COMPLETE
// when every rendered stream has ended. The streaming thread sleeps on that clock: with a
// ManualClock that does not advance on sleep, advance it (or switch it to advancing) before
// releasing a running graph, or the release waits for it. Every call the graph receives is logged, and the
// calls that can fail can be made to fail.
//
// Sample contents, for tests that check what arrived:
// - video frame n: every byte is n & 0xFF, except the first four, which hold n (32 bits, little
//   endian);
// - audio sample frame n (counted from the start of the clip): every channel holds n & 0x7FFF
//   (16-bit) or n & 0xFF (8-bit).
#ifndef LORVEX_PLATFORM_DSHOW_SIM_GRAPH_H
#define LORVEX_PLATFORM_DSHOW_SIM_GRAPH_H

#include "platform/dshow/LxpGraph.h"

#include <string>
#include <vector>

namespace lxp {
namespace simgraph {

enum class Outcome {
    AudioOnly,   // one audio stream
    VideoOnly,   // one video stream
    AudioVideo,  // both
    None,        // Render succeeds, but the clip has no stream a renderer takes
    Failure      // Render fails with Script::renderFailure
};

struct Script {
    Outcome outcome = Outcome::AudioVideo;
    double durationSeconds = 4.0;
    /// Video frames over the duration (the frame rate follows).
    int32_t frameCount = 100;
    int32_t width = 64;
    int32_t height = 48;
    int32_t audioRate = 22050;
    int32_t audioChannels = 2;
    int32_t audioBits = 16;
    /// Length of one audio buffer, and how long before its time it is delivered.
    double audioBufferSeconds = 0.1;
    double audioLeadSeconds = 0.2;
    /// False: GetDuration fails (a clip whose length the source cannot tell).
    bool durationKnown = true;
    HRESULT renderFailure = VFW_E_CANNOT_RENDER;
};

/// The script of every file without its own.
void setScript(const Script& script);
/// The script of one file (by the path given to AddSourceFilter).
void setScriptForFile(const std::string& path, const Script& script);

/// Operations whose failure can be injected.
enum class Op {
    AddSourceFilter,
    Render,
    Run,
    Pause,
    Stop,
    SetPositions,
    SetRate,
    GetDuration,
    SetTimeFormat
};
/// The next count calls of op (on any simulated graph) fail with hr.
void failNext(Op op, int count, HRESULT hr = E_FAIL);

/// The calls simulated graphs received, oldest first: "AddSourceFilter(<path>)",
/// "AddFilter(<name>)", "RemoveFilter(<name>)", "Render", "Run", "Pause", "Stop",
/// "SetPositions(<current or ->,<stop or ->)" in media time, "SetRate(<rate %.3f>)",
/// "SetTimeFormat(MEDIA_TIME|FRAME|other)", "GetDuration".
std::vector<std::string> calls();
/// Back to the default script, no per-file scripts, no injected failures, an empty call log.
void reset();

/// A new simulated graph asked for iid.
HRESULT createFilterGraph(const IID& iid, void** out);

}  // namespace simgraph
}  // namespace lxp

#endif
