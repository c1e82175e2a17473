#include "TestRenderer.h"

namespace lxtest {

TestRendererNode::~TestRendererNode() {
    while (void* f = pool_->receive(0, LxTime::zero())) {
        delete static_cast<LxFrame*>(f);
    }
    pool_->unref();
    if (format_ != nullptr) {
        format_->unref();
    }
    accepted_->unref();
}

long TestRendererNode::startAtTime(LxTime refTime) {
    const long result = LxNode::startAtTime(refTime);
    state = STARTED;
    ++starts;
    if (startMode_.load() == ConfirmStart) {
        postEvent(new LxStartEvent(this, LxTime(), refTime));
    } else if (startMode_.load() == ConfirmEnd) {
        postEvent(new LxEndOfMediaEvent(this));
    }
    return result;
}

void TestRendererNode::stop() {
    LxNode::stop();
    if (state != DEAD) {
        state = STOPPED;
    }
    ++stops;
}

long TestRendererNode::getNewAudioPort(LxAudioOutputPort** port) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto* p = new FakeAudioPort(LxRawChannel, 0.0f);
    ports_.emplace_back(p);
    *port = p;
    return LX_OK;
}

KtResult TestRendererNode::setFormat(LxFormat* format) {
    if (format == nullptr || format->formatType != LxAudioType) {
        return LX_ERR_WRONG_FORMAT;
    }
    format->ref();
    if (format_ != nullptr) {
        format_->unref();
    }
    format_ = format;
    return LX_OK;
}

KtResult TestRendererNode::listFormats(LxFormat**& list, short* count) {
    list = new LxFormat* [1] { accepted_ };
    *count = 1;
    return LX_OK;
}

int TestRendererNode::bytesPerSampleFrame() {
    auto* af = dynamic_cast<LxAudioFormat*>(format_);
    if (af == nullptr) {
        return 4;
    }
    return (af->getChannels() == LxMono ? 1 : 2) * (af->getSampleFormat() == LxSample8 ? 1 : 2);
}

LxFrame* TestRendererNode::getEmptyFrame(const LxTime& timeout) {
    if (void* f = pool_->receive(0, LxTime::zero())) {
        return static_cast<LxFrame*>(f);
    }
    if (framesCreated.load() < maxFrames_) {
        ++framesCreated;
        auto* frame = new LxAudioFrame();
        frame->data = new unsigned char[frameBytes_];
        frame->fillable = frameBytes_ / bytesPerSampleFrame();
        return frame;
    }
    return static_cast<LxFrame*>(pool_->receive(timeout == LxTime::zero() ? 0 : 1, timeout));
}

void TestRendererNode::putEmptyFrame(LxFrame* frame) {
    if (auto* af = dynamic_cast<LxAudioFrame*>(frame)) {
        af->filled = 0;
        af->consumed = 0;
    }
    pool_->send(frame);
}

void TestRendererNode::consume(LxFrame* frame) {
    if (auto* af = dynamic_cast<LxAudioFrame*>(frame)) {
        std::lock_guard<std::mutex> lock(mutex_);
        received_.append(reinterpret_cast<const char*>(af->data),
                         static_cast<size_t>(af->filled) * static_cast<size_t>(bytesPerSampleFrame()));
    }
    putEmptyFrame(frame);
}

int TestRendererNode::pull() {
    int n = 0;
    while (LxFrame* f = output_ ? output_->getFrameForTime(LxTime::zero(), LxTime::zero()) : nullptr) {
        consume(f);
        ++n;
    }
    return n;
}

}  // namespace lxtest
