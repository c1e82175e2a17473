// LxAudioRendererNode.h - the node that renders a player's "Audio" output and hands out the
// ports its sound goes out through.
#ifndef LX_AUDIO_RENDERER_NODE_H
#define LX_AUDIO_RENDERER_NODE_H

#include "LxApi.h"
#include "LxAudioOutputPort.h"
#include "LxNode.h"

/// Abstract audio renderer. Implementations also derive from LxInputConnectable (whose
/// LxConnectable base is virtual, so the two bases share one connectable part).
class LX_API LxAudioRendererNode : public LxNode {
  public:
    explicit LxAudioRendererNode(LxManager* manager) : LxNode(manager) {}

    /// A port that plays this renderer's clip for one more sound source: the first call gives the
    /// renderer's master port, later calls a new port sharing the clip. 1 with *port set.
    /// Called on host threads through the player.
    virtual long getNewAudioPort(LxAudioOutputPort** port) = 0;
};

#endif  // LX_AUDIO_RENDERER_NODE_H
