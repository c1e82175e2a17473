// Helpers for video renderer tests: a bounded frame allocator, an event recorder, and a producer
// that stamps frames at 30 frames per second.
#ifndef LORVEX_TESTS_VIDEO_VIDEOTESTKIT_H
#define LORVEX_TESTS_VIDEO_VIDEOTESTKIT_H

#include "LxBaseVideoRenderer.h"
#include "LxConnectable.h"
#include "LxEvent.h"
#include "LxFormat.h"
#include "LxQueue.h"
#include "LxResult.h"

#include <atomic>
#include <cstring>

namespace lxtest {

/// The media time of frame k at 30 frames per second.
inline LxTime frameTime(int k) {
    return LxTime(k / 30.0);
}

/// Makes up to `limit` frames of the format it is given, then answers 0x481 like the default
/// allocator. refuse makes setFormat fail with that code.
class BoundedAllocator : public LxFrameAllocator {
  public:
    explicit BoundedAllocator(int limit, KtResult refuse = LX_OK) : limit_(limit), refuse_(refuse) {}
    ~BoundedAllocator() override {
        if (format_ != nullptr) {
            format_->unref();
        }
    }
    KtResult allocateFrame(LxFrame** out) override {
        if (created_.load() >= limit_) {
            return LX_ERR_ALREADY_TAKEN;
        }
        if (format_ == nullptr) {
            return LX_ERR_NO_FORMAT;
        }
        *out = new LxVideoFrame(format_->getWidth(), format_->getHeight(), format_->getPixelFormat());
        ++created_;
        return LX_OK;
    }
    KtResult setFormat(LxFormat* f) override {
        if (refuse_ != LX_OK) {
            return refuse_;
        }
        f->ref();
        if (format_ != nullptr) {
            format_->unref();
        }
        format_ = static_cast<LxVideoFormat*>(f);
        return LX_OK;
    }
    long getFramesCreated() override { return created_.load(); }

  private:
    const int limit_;
    const KtResult refuse_;
    std::atomic<int> created_{0};
    LxVideoFormat* format_ = nullptr;
};

/// Collects a node's events through a queue listener.
class EventRecorder {
  public:
    explicit EventRecorder(LxNode* node) : node_(node), queue_(new LxQueue()) {
        node_->setEventListener(queue_);
    }
    ~EventRecorder() {
        node_->removeEventListener(queue_);
        while (void* e = queue_->receive(0, LxTime::zero())) {
            static_cast<LxEvent*>(e)->unref();
        }
        queue_->unref();
    }
    /// The next event of that type within ms milliseconds (events of other types before it are
    /// dropped), or null. The caller unrefs it.
    LxEvent* next(LxEventType_s type, int ms = 3000) {
        const LxTime limit(ms / 1000.0);
        for (;;) {
            LxEvent* e = static_cast<LxEvent*>(queue_->receive(1, limit));
            if (e == nullptr || e->getEventType() == type) {
                return e;
            }
            e->unref();
        }
    }
    /// Whether an event of that type arrives within ms.
    bool sees(LxEventType_s type, int ms = 3000) {
        LxEvent* e = next(type, ms);
        if (e == nullptr) {
            return false;
        }
        e->unref();
        return true;
    }

  private:
    LxNode* node_;
    LxQueue* queue_;
};

/// Writes k into the first pixel bytes and stamps the frame with frame k's time.
inline void stampFrame(LxFrame* frame, int k) {
    LxVideoFrame* v = static_cast<LxVideoFrame*>(frame);
    v->setPresentationTime(frameTime(k));
    const int32_t mark = k;
    std::memcpy(v->getPixelData(), &mark, sizeof(mark));
}

/// The stamp stampFrame wrote.
inline int32_t frameMark(LxFrame* frame) {
    int32_t mark;
    std::memcpy(&mark, static_cast<LxVideoFrame*>(frame)->getPixelData(), sizeof(mark));
    return mark;
}

}  // namespace lxtest

#endif
