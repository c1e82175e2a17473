// LxConnectable.h - connection points of nodes, and the two concrete outputs producers use.
//
// A producer owns output connectables, a consumer (a renderer) is an input connectable. Every
// connection carries one negotiated format whose stream style decides how frames flow: in push
// style the producer hands each filled frame to the input (putFrame); in pull style the output
// keeps filled frames in its queue until the consumer asks for one (getFrameForTime). Empty frames
// always come from the consumer (getEmptyFrame) and go back to it (putEmptyFrame), so the
// consumer's pool bounds the memory in flight. A frame has exactly one holder at a time.
//
// Exported for hosts and as the filter plug-in's interface: its renderer filters feed the two
// concrete outputs.
#ifndef LX_CONNECTABLE_H
#define LX_CONNECTABLE_H

#include "Kt.h"
#include "LxApi.h"
#include "LxFormat.h"
#include "LxTime.h"

#include <atomic>

class LxNode;
class LxQueue;
class LxInputConnectable;

class LX_API LxConnectable {
  public:
    virtual ~LxConnectable() {}
    virtual KtResult setFormat(LxFormat* format) = 0;
    /// The format agreed for this connection, or null before one is set.
    virtual LxFormat* getFormat() = 0;
    /// list receives a new array (the caller frees it with delete[]) of borrowed format pointers.
    virtual KtResult listFormats(LxFormat**& list, short* count) = 0;
    virtual LxNode* getNode() = 0;
    virtual void flush() = 0;
};

class LX_API LxOutputConnectable : public virtual LxConnectable {
  public:
    virtual KtResult connectTo(LxInputConnectable* input) = 0;
    virtual LxInputConnectable* connectedTo() = 0;
    virtual KtResult setSuggestedFrameRate(float rate) = 0;
    virtual void setActive(char active) = 0;
    virtual char isActive() = 0;
    /// A timeout of zero never waits; any other value is the longest wait.
    virtual LxFrame* getFrameForTime(LxTime a, LxTime b, LxTime timeout) = 0;
    virtual LxFrame* getFrameForTime(LxTime curTime, LxTime timeout) = 0;
};

class LX_API LxInputConnectable : public virtual LxConnectable {
  public:
    virtual KtResult connectTo(LxOutputConnectable* output) = 0;
    virtual LxOutputConnectable* connectedTo() = 0;
    /// An empty frame of the consumer's format, waiting up to timeout for one; null when none.
    /// Called on the producer's thread.
    virtual LxFrame* getEmptyFrame(const LxTime& timeout) = 0;
    /// Takes back a frame that was never filled or was skipped.
    virtual void putEmptyFrame(LxFrame* frame) = 0;
    /// No further frames will come.
    virtual void notifyEndOfMedia() = 0;
    /// A filled frame, in push style.
    virtual void putFrame(LxFrame* frame) = 0;
};

/// The output of an audio producer (the WAVE player; the filter library's decoded audio).
///
/// Set up on the producer's or manager's thread (initFormats, initConnectable, setFormat,
/// connectTo) before frames flow; afterwards the producer's thread calls queueFrame and the
/// consumer's thread getFrameForTime and flush. The frame queue is the only shared structure.
class LX_API LxAudioOutputConnectable : public LxOutputConnectable {
  public:
    LxAudioOutputConnectable();
    /// In pull style, destroys the frames still queued (they are not given back).
    ~LxAudioOutputConnectable() override;

    KtResult setFormat(LxFormat* format) override;
    LxFormat* getFormat() override;
    KtResult listFormats(LxFormat**& list, short* count) override;
    LxNode* getNode() override { return node; }
    /// Pull style with an input connected: every queued frame goes back to the input's pool.
    void flush() override;

    KtResult connectTo(LxInputConnectable* input) override;
    LxInputConnectable* connectedTo() override { return connectedInput; }
    /// Not supported: 0x201.
    KtResult setSuggestedFrameRate(float rate) override;
    /// No effect; isActive() is always false.
    void setActive(char active) override;
    char isActive() override { return active; }
    /// Always null.
    LxFrame* getFrameForTime(LxTime a, LxTime b, LxTime timeout) override;
    /// Pull style: the oldest queued frame, without waiting and whatever the times (null when the
    /// queue is empty). Other styles: null.
    LxFrame* getFrameForTime(LxTime curTime, LxTime timeout) override;

    /// Records the values of the offered format; bytesPerSample is the size of one sample frame.
    KtResult initFormats(LxSampleFormat_s sampleFormat, LxAudioChannels_s channels, float rate,
                         short bytesPerSample, LxFormat::StreamStyle style, char isStreaming);
    /// Records the owner and builds the offered format (after initFormats).
    KtResult initConnectable(LxNode* owner);
    short getBytesPerSample() { return bytesPerSample; }
    /// Pull style: appended to the queue; other styles: handed to the input's putFrame at once.
    /// The caller gives the frame up. Called on the producer's thread.
    KtResult queueFrame(LxAudioFrame* frame);

  protected:
    void flushQueue();

    LxNode* node;
    char active;
    LxSampleFormat_s sampleFormat;
    LxAudioChannels_s channels;
    float samplingRate;
    short bytesPerSample;
    LxFormat::StreamStyle streamStyle;
    char isStreaming;
    LxQueue* frameQueue;
    char formatIsSet;
    /// One entry: the offered format (one reference held), null before initConnectable.
    LxFormat** formats;
    LxInputConnectable* connectedInput;

  private:
    LxAudioOutputConnectable(const LxAudioOutputConnectable&) = delete;
    LxAudioOutputConnectable& operator=(const LxAudioOutputConnectable&) = delete;
};

/// The output of a video producer (the filter library's decoded video).
///
/// The producer's thread calls queueFrame and dropFrame; the consumer (the browser's painting
/// thread or the video renderer's thread) calls getFrameForTime. Appends and drops hold the
/// frame queue's own lock, so a drop never interleaves with an append.
class LX_API LxVideoOutputConnectable : public LxOutputConnectable {
  public:
    LxVideoOutputConnectable();
    /// Frames still queued are destroyed: nobody else can reach them any more.
    ~LxVideoOutputConnectable() override;

    KtResult setFormat(LxFormat* format) override;
    LxFormat* getFormat() override;
    KtResult listFormats(LxFormat**& list, short* count) override;
    LxNode* getNode() override { return node; }
    /// Does nothing.
    void flush() override {}

    KtResult connectTo(LxInputConnectable* input) override;
    LxInputConnectable* connectedTo() override { return connectedInput; }
    KtResult setSuggestedFrameRate(float rate) override;
    void setActive(char a) override { active = a; }
    char isActive() override { return active; }
    /// The oldest queued frame (a and b are ignored).
    LxFrame* getFrameForTime(LxTime a, LxTime b, LxTime timeout) override;
    /// The queued frame whose presentation time covers curTime; frames that are too late go back
    /// to the input's pool and count as dropped. Called on the consumer's thread.
    LxFrame* getFrameForTime(LxTime curTime, LxTime timeout) override;

    KtResult initFormats(short width, short height, LxPixelFormat_s pixelFormat, LxFormat::StreamStyle style);
    /// Records the owner only.
    KtResult initConnectable(LxNode* owner);
    /// Pull style: appended under the queue's lock; other styles: handed to the input's putFrame.
    /// Called on the producer's thread.
    KtResult queueFrame(LxVideoFrame* frame);
    /// Gives the oldest queued frame back to the input's pool, counted as dropped.
    KtResult dropFrame();
    float getSuggestedFrameRate() { return suggestedFrameRate; }
    /// The curTime of the latest getFrameForTime(curTime, timeout). A copy taken under the queue's
    /// lock, because the producer asks while the consumer's thread records it.
    LxTime getLastRequestedFrameTime();
    int32_t getDroppedFrames() { return droppedFrames.load(); }

  protected:
    LxNode* node;
    char active;
    LxVideoFormat* currentFormat;
    LxQueue* frameQueue;
    char formatIsSet;
    LxFormat** formats;
    LxFormat::StreamStyle streamStyle;
    LxInputConnectable* connectedInput;
    float suggestedFrameRate;
    /// Counted by the consumer's thread (late frames) and the producer's (dropFrame).
    std::atomic<int32_t> droppedFrames;
    /// Guarded by the frame queue's lock.
    LxTime lastRequestedFrameTime;

  private:
    LxVideoOutputConnectable(const LxVideoOutputConnectable&) = delete;
    LxVideoOutputConnectable& operator=(const LxVideoOutputConnectable&) = delete;
};

#endif  // LX_CONNECTABLE_H
