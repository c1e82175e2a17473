// Video renderer tests' rig: a renderer connected in push or pull style, a producer that stamps
// frames at 30 frames per second, an event recorder, and an allocator with a larger pool.
#ifndef LORVEX_TESTS_VIDEO_VIDEOTESTKIT_H
#define LORVEX_TESTS_VIDEO_VIDEOTESTKIT_H

#include "LxBaseVideoRenderer.h"
#include "LxQueue.h"
#include "LxResult.h"

#include <cmath>
#include <cstring>

namespace lxtest {

/// Makes up to `limit` frames, then answers 0x481 as the default allocator does.
class BoundedAllocator : public LxFrameAllocator {
  public:
    explicit BoundedAllocator(int limit, KtResult setFormatResult = LX_OK)
        : limit_(limit), result_(setFormatResult) {}
    KtResult allocateFrame(LxFrame** out) override {
        if (created_ >= limit_) {
            return LX_ERR_ALREADY_TAKEN;
        }
        *out = new LxVideoFrame(16, 8, LxPixel32);
        ++created_;
        return LX_OK;
    }
    KtResult setFormat(LxFormat*) override { return result_; }
    long getFramesCreated() override { return created_; }

  private:
    const int limit_;
    const KtResult result_;
    int created_ = 0;
};

/// The media time of frame k at 30 frames per second.
inline LxTime frameTime(int k) {
    return LxTime(k / 30.0);
}

/// The frame number written into the first pixel bytes by VideoRig::produce.
inline int32_t frameMark(LxFrame* frame) {
    int32_t mark;
    std::memcpy(&mark, static_cast<LxVideoFrame*>(frame)->getPixelData(), sizeof(mark));
    return mark;
}

/// A renderer with 16 x 8 32-bit frames; in pull style connected to an output of its own.
struct VideoRig {
    VideoRig(LxManager* manager, LxFormat::StreamStyle s)
        : style(s), renderer(new LxBaseVideoRenderer(manager)), events(new LxQueue()) {
        renderer->setEventListener(events);
        LxVideoFormat* f = new LxVideoFormat(16, 8, LxPixel32, style);
        if (style == LxFormat::PullStream) {
            output.initFormats(16, 8, LxPixel32, style);
            output.setFormat(f);
            output.connectTo(renderer);
            renderer->connectTo(&output);
        }
        renderer->setFormat(f);
        f->unref();
    }
    ~VideoRig() {
        delete renderer;  // before the output it may read from
        while (void* e = events->receive(0, LxTime::zero())) {
            static_cast<LxEvent*>(e)->unref();
        }
        events->unref();
    }

    /// A pool frame marked and stamped as frame k (at time t when given), handed in; null when
    /// the pool gives none within timeout.
    LxFrame* produce(int k, double t = -1, const LxTime& timeout = LxTime::zero()) {
        LxFrame* f = renderer->getEmptyFrame(timeout);
        if (f != nullptr) {
            std::memcpy(static_cast<LxVideoFrame*>(f)->getPixelData(), &k, sizeof(k));
            static_cast<LxVideoFrame*>(f)->setPresentationTime(t < 0 ? frameTime(k) : LxTime(t));
            if (style == LxFormat::PullStream) {
                output.queueFrame(static_cast<LxVideoFrame*>(f));
            } else {
                renderer->putFrame(f);
            }
        }
        return f;
    }
    /// The mark of the frame shown at t seconds (released again), or -1 for none.
    int show(double t) {
        LxFrame* f = renderer->attachFrameFromTime(LxTime(t), LxTime::zero());
        const int mark = f != nullptr ? frameMark(f) : -1;
        renderer->releaseFrame(f);
        return mark;
    }
    int32_t dropped() {
        return style == LxFormat::PushStream ? renderer->getDroppedFrames() : output.getDroppedFrames();
    }
    /// Whether an event of that type comes within ms (other events before it are dropped).
    bool sees(LxEventType_s type, int ms = 3000) {
        for (;;) {
            LxEvent* e = static_cast<LxEvent*>(events->receive(1, LxTime(ms / 1000.0)));
            if (e == nullptr) {
                return false;
            }
            const bool match = e->getEventType() == type;
            e->unref();
            if (match) {
                return true;
            }
        }
    }
    /// Every frame made is back in the pool, nothing queued or pending.
    bool allFree() {
        LxFrame* left = output.getFrameForTime(LxTime::zero(), LxTime::maxTime(), LxTime::zero());
        renderer->putEmptyFrame(left);
        return left == nullptr && renderer->getQueuedFrameCount() == 0 && !renderer->hasPendingFrame() &&
               renderer->getFreeFrameCount() == renderer->getFramesCreated();
    }

    const LxFormat::StreamStyle style;
    LxVideoOutputConnectable output;
    LxBaseVideoRenderer* renderer;
    LxQueue* events;
};

}  // namespace lxtest

#endif
