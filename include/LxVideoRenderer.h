// LxVideoRenderer.h - the interface through which the browser takes a clip's video frames.
#ifndef LX_VIDEO_RENDERER_H
#define LX_VIDEO_RENDERER_H

#include "LxApi.h"
#include "LxConnectable.h"
#include "LxFormat.h"
#include "LxNode.h"

/// The node at the end of a clip's video path. It does not draw: the browser asks it for the
/// frame of the current media time, reads the pixels and hands the frame back.
class LX_API LxVideoRenderer : public LxNode, public LxInputConnectable {
  public:
    explicit LxVideoRenderer(LxManager* manager) : LxNode(manager) {}

    long startAtTime(LxTime refTime) override = 0;
    void stop() override = 0;
    void prefetch() override = 0;

    /// The frame to show at curTime, waiting up to timeout; null keeps the previous picture. The
    /// caller holds the frame until releaseFrame. Called on the browser's painting thread.
    virtual LxFrame* attachFrameFromTime(const LxTime& curTime, const LxTime& timeout) = 0;
    virtual void releaseFrame(LxFrame* frame) = 0;
    /// Replaces the allocator that makes the renderer's frames (the renderer owns it).
    virtual long setFrameAllocator(LxFrameAllocator* allocator) = 0;
};

#endif  // LX_VIDEO_RENDERER_H
