// LxAMPlayer.h - the player of every clip that is neither WAVE nor MIDI (MPEG audio and video,
// QuickTime, MP4 and the like), built on a DirectShow-shaped filter graph.
#ifndef LX_AM_PLAYER_H
#define LX_AM_PLAYER_H

#include "Kt.h"
#include "LxApi.h"
#include "LxPlayer.h"
#include "LxTime.h"

#include <atomic>
#include <cstdint>

class LxDataSource;
class LxManager;
class LxOutputConnectable;

namespace lxp {
class IBaseFilter;
class IGraphBuilder;
class ILxRenderer;
class IMediaControl;
class IMediaEvent;
class IMediaSeeking;
class IPin;
}  // namespace lxp

/// Plays a local file through a filter graph whose ends are the filter library's renderer
/// filters. Those filters hand decoded audio (pull style) and video (push style) to the player's
/// "Audio" and "Video" outputs, which the manager connects to its default renderers.
///
/// Threads. The player's thread builds and drives the graph: every graph call below runs there
/// (requests from other threads reach it through the request queue). The filter library's
/// delivery threads call only filterGateWait and getStreamEpoch. The graph is paused to cue,
/// run once the start time has come (a graph of sound alone just before it, see cueLead), paused
/// on a stop, seeked, looped inside the graph and polled for its end.
///
/// Exported also as the filter plug-in's interface: its renderer filters wait at the filter gate.
class LX_API LxAMPlayer : public LxPlayer {
  public:
    /// Starts the player's thread, which initialises the player from the source by itself.
    LxAMPlayer(LxManager* manager, LxDataSource* dataSource);
    /// Ends the thread (the graph is stopped and released there), then destroys the renderers and
    /// the two outputs. Not on the player's thread.
    ~LxAMPlayer() override;

    /// For the renderer filters, before each delivery: waits up to 1000 ms for the filter gate to
    /// be open (it is closed while the graph pauses or stops). 1 when open, 0x201 otherwise (also
    /// once the player is shutting down). Any thread.
    KtResult filterGateWait();

    /// Counts the times the player moved the graph to a position that does not continue what the
    /// renderer filters delivered before (a seek, a stop, a loop restart, a resume). A graph flush
    /// that does not change it (a rate change) re-delivers samples the outputs already hold. Any
    /// thread.
    uint32_t getStreamEpoch() const { return streamEpoch.load(); }

    // Overrides of the player's operations; each runs on the player's thread with the signal held.
    /// The clock and nodes first; then the graph is seeked to t (to 0 for t past 7000 s).
    long setTimeAll(LxTime t) override;
    /// The clock and nodes first; a graph with video is re-rated (positive rates only).
    long setRateAll(float* rate) override;
    /// A started graph is paused first; after the nodes stop, the graph is seeked to the clock's
    /// media time and what the outputs held from before is dropped.
    long stopAll() override;

  protected:
    static long callPlayerRunLoop(void* player);
    void run() override;
    void handleSuspend() override;
    /// Stops the graph, destroys the renderers and releases every graph interface. Runs on the
    /// player's thread as it leaves its loop (or on the destroying thread when none ran).
    void shutdown() override;

    // Graph construction; player's thread.
    bool CreateGraphBuilder();
    bool AddSourceFilter();
    /// 1 both renderers stayed, 0x432 audio only, 0x431 video only, 0x201 neither, 0x2A4 the
    /// source could not be rendered.
    long addRenderers();
    long connectRendererToSource();
    /// Whether the filter's first pin is connected.
    char checkForConnection(lxp::IBaseFilter* filter);
    void initializeOutputConnectable();
    void updateDurationFromMedia();

    // Graph control; player's thread. 1, or 0x201 after the failure message.
    long pauseFilterGraph();
    long startFilterGraph();
    long stopFilterGraph();
    long seekFilterGraph(LxTime t);

    // Diagnostics: they only post messages.
    void enumerateFilters();
    void walkTheGraph(lxp::IBaseFilter* filter);
    void printPinInfo(lxp::IPin* pin);
    void printFilterInfo(lxp::IBaseFilter* filter);

    lxp::IGraphBuilder* graph;
    lxp::IBaseFilter* sourceFilter;
    lxp::IMediaControl* mediaControl;
    lxp::IMediaSeeking* mediaSeeking;
    lxp::IMediaEvent* mediaEvent;
    lxp::IBaseFilter* audioRendererFilter;
    lxp::ILxRenderer* audioRendererObject;
    lxp::IBaseFilter* videoRendererFilter;
    lxp::ILxRenderer* videoRendererObject;
    lxp::IBaseFilter* mpegAudioDecoder;
    char shortClip;
    char hasAudio;
    char hasVideo;
    /// Created open. Read by delivery threads through filterGateWait.
    std::atomic<KtGateLock*> filterGate;
    char graphRunning;
    /// The graph runs ahead of its start and the active event is still to come. Player thread.
    char activeOwed;

    // Steps of the shared run loop; player's thread, signal not held.
    /// COM for the player's thread.
    long prepareThread() override;
    unsigned long dataPollMs() override;
    /// Builds the graph from the source with a renderer filter for each kind of stream.
    long loadClip() override;
    /// 0xE1 audio, 0xE2 video, 0xE3 both.
    long initializedKind() override;
    /// Cues the graph (paused) until every node has prefetched.
    unsigned long prefetchStep() override;
    /// At rate 0 the graph is paused and the player waits for a request.
    bool holdStart(unsigned long* wait) override;
    /// A backward clock waits (nearly) for ever: the graph plays forward only.
    unsigned long startWait(long stall, float rate) override;
    void silenceAtStopTime() override;
    /// A graph of sound alone runs a little ahead of a start (forward rates only).
    unsigned long cueLead() override;
    /// Runs the graph and goes active at the start; then polls the graph for its end.
    unsigned long playStep(unsigned long toStart) override;
    /// The nodes learn the clip's length only where it is exact (uncompressed WAVE or AIFF).
    long setDurationAll(const LxTime& d) override;

  private:
    /// Takes one event from the graph: its end loops the clip inside the graph or ends it.
    void pollGraphEvent();
    /// The wait before the graph is polled again while it plays at rate.
    unsigned long nextPoll(float rate);
    /// Moves the graph to t after bumping the stream epoch.
    long reposition(LxTime t);
    /// Releases an interface, posting message with the count left when message is not null.
    template <class T>
    void releaseInterface(T*& object, const char* message);
    void deleteOutputs();

    /// The outputs the renderer filters made (owned; deleted after the renderers).
    LxOutputConnectable* audioOutput;
    LxOutputConnectable* videoOutput;
    /// The player's thread initialised COM (and uninitialises it at shutdown).
    char comInitialized;
    std::atomic<uint32_t> streamEpoch;
    // Whether the graph has been sought since it was built (player thread only): the cue made
    // while the clip loaded went out before anything was connected to the outputs.
    char soughtSinceLoad;
    /// Delivery threads inside filterGateWait, so that the gate outlives them.
    std::atomic<int> gateUsers;

    LxAMPlayer(const LxAMPlayer&) = delete;
    LxAMPlayer& operator=(const LxAMPlayer&) = delete;
};

#endif  // LX_AM_PLAYER_H
