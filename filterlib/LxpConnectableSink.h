// The outputs a renderer filter hands the DirectShow player: output connectables that are also the
// filter's LxpRendererSink, so that what the filter delivers goes straight into the connection the
// manager made to a renderer node.
//
// Audio leaves in pull style: decoded samples are copied into the consumer's empty LxAudioFrames
// and queued for it to pull. Video leaves in push style: each picture is copied (rows unpadded)
// into an empty LxVideoFrame of the consumer and pushed to it with its presentation time.
//
// Flushes. A seek flushes the graph; samples on their way before it are dropped. What happens to
// what the outputs already handed over depends on why the graph was flushed, which the player's
// stream epoch tells (LxAMPlayer::getStreamEpoch):
// - a new epoch (seek, stop, loop restart): what follows starts a new stream and is delivered as
//   it comes; the player drops the stale part with its flush of the outputs (flush below);
// - the same epoch (a rate change): the graph repeats from its position what the consumer already
//   holds, so samples before the end of what was delivered are skipped and the stream goes on
//   without a jump.
//
// Threads: the sink operations come from the filter's delivery thread (beginFlush and endFlush
// from the thread that seeks or stops the graph); the connectable operations from the player's
// thread and the consumer's threads. One short lock per output guards its state; it is never held
// while waiting for the consumer's frames or while telling the consumer of the end of media.
#ifndef LORVEX_PLATFORM_DSHOW_FILTERLIB_CONNECTABLE_SINK_H
#define LORVEX_PLATFORM_DSHOW_FILTERLIB_CONNECTABLE_SINK_H

#include "LxConnectable.h"
#include "filterlib/LxpRendererSink.h"

class LxAMPlayer;

namespace lxp {

/// A new pull-style audio output for spec (8- or 16-bit, mono or stereo), owned by player (the
/// node it reports as its owner, and whose filter gate and stream epoch it follows; null: no gate,
/// every flush starts a new stream). The output references host and attaches itself as its sink;
/// its destructor detaches and releases it. Null when spec cannot be carried.
LxOutputConnectable* createAudioOutput(ILxpRendererSinkHost* host, LxAMPlayer* player,
                                       const LxpAudioSpec& spec);
/// A new push-style video output for spec, likewise.
LxOutputConnectable* createVideoOutput(ILxpRendererSinkHost* host, LxAMPlayer* player,
                                       const LxpVideoSpec& spec);

/// Audio is queued for the consumer in frames of at least this length (or full frames, or at the
/// end): a renderer that starts from a frame shorter than its low-water mark pads it with silence.
constexpr double kAudioChunkSeconds = 0.1;

}  // namespace lxp

#endif
