// A renderer node for player tests: it posts start, end-of-media and stop-at-time events as the
// test tells it, hands out empty audio frames from a bounded pool and keeps every byte it consumes.
#ifndef LORVEX_TESTS_SUPPORT_TESTRENDERER_H
#define LORVEX_TESTS_SUPPORT_TESTRENDERER_H

#include "FakeAudioPort.h"
#include "LxAudioRendererNode.h"
#include "LxConnectable.h"
#include "LxManager.h"
#include "LxQueue.h"
#include "LxResult.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace lxtest {

class TestRendererNode : public LxAudioRendererNode, public LxInputConnectable {
  public:
    /// What the node posts when it is started.
    enum StartMode { ConfirmStart, ConfirmEnd, Silent };

    explicit TestRendererNode(LxManager* manager, int maxFrames = 4, int frameBytes = 4096)
        : LxAudioRendererNode(manager), maxFrames_(maxFrames), frameBytes_(frameBytes) {
        inputNames = inputNameList_;
        inputs = inputList_;
        inputCount = 1;
        state = STOPPED;
    }
    ~TestRendererNode() override;

    // Node (called on the player thread).
    long startAtTime(LxTime refTime) override;
    void stop() override;
    long stopAtTime(LxTime refTime) override {
        ++stopAtTimes;
        return LxNode::stopAtTime(refTime);
    }
    long setRate(float* rate) override {
        lastRate = *rate;
        return rateResult_.load();
    }
    long setMediaTime(LxTime t) override {
        lastMediaTimeUsec = static_cast<long>(t.sec()) * 1000000L + t.usec();
        return LX_OK;
    }
    long setTimeBase(LxTimeBase* timeBase) override {
        return timeBaseResult_.load() != LX_OK ? timeBaseResult_.load() : LxNode::setTimeBase(timeBase);
    }
    void setLoop(char loop) override {
        lastLoop = loop;
        LxNode::setLoop(loop);
    }
    void prefetch() override {
        if (startMode_.load() != Silent) {
            postEvent(new LxPrefetchCompleteEvent(this));
        }
    }
    long getNewAudioPort(LxAudioOutputPort** port) override;

    // Connectable.
    KtResult setFormat(LxFormat* format) override;
    LxFormat* getFormat() override { return format_; }
    KtResult listFormats(LxFormat**& list, short* count) override;
    LxNode* getNode() override { return this; }
    void flush() override {}
    KtResult connectTo(LxOutputConnectable* output) override {
        output_ = output;
        return LX_OK;
    }
    LxOutputConnectable* connectedTo() override { return output_; }
    /// From the pool, creating up to maxFrames, else waiting up to timeout. Producer's thread.
    LxFrame* getEmptyFrame(const LxTime& timeout) override;
    void putEmptyFrame(LxFrame* frame) override;
    void notifyEndOfMedia() override { ++endOfMediaNotes; }
    /// Push style: consumed at once.
    void putFrame(LxFrame* frame) override { consume(frame); }

    // Test controls (any thread).
    void setStartMode(StartMode mode) { startMode_ = mode; }
    /// The results the node's setTimeBase / setRate give (LX_OK accepts).
    void setTimeBaseResult(long r) { timeBaseResult_ = r; }
    void setRateResult(long r) { rateResult_ = r; }
    /// Gives the node output names and connectables of its own (borrowed; null to take them away).
    void setOutputs(char** names, LxOutputConnectable** outs, short n) {
        outputNames = names;
        outputs = outs;
        outputCount = n;
    }
    void postStart() { postEvent(new LxStartEvent(this, LxTime(), LxTime())); }
    void postEndOfMedia() { postEvent(new LxEndOfMediaEvent(this)); }
    void postStopAtTime() { postEvent(new LxStopAtTimeEvent(this, LxTime(), LxTime())); }
    /// Pulls (and keeps the bytes of) every frame the output has queued; how many. Consumer side.
    int pull();
    long connectThroughManager(LxOutputConnectable* output) { return manager->connect(output, this); }
    std::string received() {
        std::lock_guard<std::mutex> lock(mutex_);
        return received_;
    }
    void clearReceived() {
        std::lock_guard<std::mutex> lock(mutex_);
        received_.clear();
    }

    std::atomic<int> starts{0};
    std::atomic<int> stops{0};
    std::atomic<int> stopAtTimes{0};
    std::atomic<int> endOfMediaNotes{0};
    std::atomic<float> lastRate{1.0f};
    std::atomic<char> lastLoop{0};
    std::atomic<long> lastMediaTimeUsec{-1};
    std::atomic<int> framesCreated{0};

  private:
    void consume(LxFrame* frame);
    int bytesPerSampleFrame();

    std::atomic<StartMode> startMode_{ConfirmStart};
    std::atomic<long> timeBaseResult_{LX_OK};
    std::atomic<long> rateResult_{LX_OK};
    const int maxFrames_;
    const int frameBytes_;
    LxQueue* pool_ = new LxQueue();
    LxFormat* format_ = nullptr;
    LxAudioFormat* accepted_ =
        new LxAudioFormat(LxAnySampleFormat, LxAnyChannels, -1.0f, 0, LxFormat::PullStream);
    LxOutputConnectable* output_ = nullptr;
    char inputName_[6] = "Audio";
    char* inputNameList_[1] = {inputName_};
    LxInputConnectable* inputList_[1] = {this};
    std::mutex mutex_;
    std::string received_;
    std::vector<std::unique_ptr<FakeAudioPort>> ports_;
};

/// Connects as a host does, through the renderer's manager; false when they agree on no format.
inline bool connectAudio(LxOutputConnectable* output, TestRendererNode* renderer) {
    return renderer->connectThroughManager(output) == LX_OK;
}

}  // namespace lxtest

#endif
