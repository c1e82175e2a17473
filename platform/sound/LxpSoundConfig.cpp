// The host's choice of output (LxPlatformSound) and the real backend it makes.
#include "LxPlatformSound.h"

#include "platform/sound/LxpSimulatedSound.h"
#include "platform/sound/LxpSinks.h"

#include <mutex>

namespace lxp {
namespace sound {

namespace {

enum class OutputKind { Alsa, Wav, Null };

/// The real output: the engine with its own mixing thread, opened on first use.
class RealBackend : public Backend {
  public:
    RealBackend(OutputKind kind, const std::string& target, uint32_t rate) : kind_(kind), target_(target) {
        format_.rate = rate;
        format_.channels = 2;
        format_.bits = 16;
    }

    std::shared_ptr<Engine> engine() override {
        std::lock_guard<std::mutex> guard(mutex_);
        if (!engine_) {
            std::unique_ptr<Sink> sink;
            switch (kind_) {
                case OutputKind::Alsa:
                    sink = makeAlsaSink(target_);
                    break;
                case OutputKind::Wav:
                    sink = makeWavSink(target_);
                    break;
                case OutputKind::Null:
                    sink = makeNullSink();
                    break;
            }
            engine_ = std::make_shared<Engine>(std::move(sink), format_, false, true);
        }
        return engine_;
    }
    HRESULT intercept(Op, uint32_t) override { return S_OK; }
    void finish() override {
        std::lock_guard<std::mutex> guard(mutex_);
        if (engine_) {
            engine_->shutdown();
        }
    }
    std::vector<std::string> deviceDescriptions() override {
        return {"Lorvex software mixer (" + engine()->describe() + ")"};
    }
    DeviceCaps caps() override {
        // The output is 16-bit: no 8-bit primary format is offered.
        DeviceCaps c;
        c.flags = DSCAPS_PRIMARYMONO | DSCAPS_PRIMARYSTEREO | DSCAPS_PRIMARY16BIT | DSCAPS_CONTINUOUSRATE |
                  DSCAPS_EMULDRIVER | DSCAPS_SECONDARYMONO | DSCAPS_SECONDARYSTEREO | DSCAPS_SECONDARY8BIT |
                  DSCAPS_SECONDARY16BIT;
        return c;
    }

  private:
    const OutputKind kind_;
    const std::string target_;
    OutputFormat format_;
    std::mutex mutex_;
    std::shared_ptr<Engine> engine_;
};

std::mutex gBackendMutex;
std::shared_ptr<Backend>& backendSlot() {
    static std::shared_ptr<Backend>* b = new std::shared_ptr<Backend>();
    return *b;
}

/// A host that ends without releasing its sound objects still gets a complete WAV file: the
/// output that is current when the process exits is finished then.
struct FinishAtExit {
    ~FinishAtExit();
} gFinishAtExit;

void choose(const std::shared_ptr<Backend>& backend) {
    setCurrentBackend(backend);
    registerDeviceClass();
}

}  // namespace

std::shared_ptr<Backend> currentBackend() {
    std::lock_guard<std::mutex> guard(gBackendMutex);
    if (!backendSlot()) {
        backendSlot() =
            std::make_shared<RealBackend>(OutputKind::Alsa, "default", LxPlatformSound::DEFAULT_SAMPLE_RATE);
    }
    return backendSlot();
}

namespace {
FinishAtExit::~FinishAtExit() {
    std::shared_ptr<Backend> b;
    {
        std::lock_guard<std::mutex> guard(gBackendMutex);
        b = backendSlot();
    }
    if (b) {
        b->finish();
    }
}
}  // namespace

void setCurrentBackend(const std::shared_ptr<Backend>& backend) {
    std::lock_guard<std::mutex> guard(gBackendMutex);
    backendSlot() = backend;
}

}  // namespace sound
}  // namespace lxp

using lxp::sound::OutputKind;
using lxp::sound::RealBackend;

void LxPlatformSound::useAlsa(const char* device, uint32_t sampleRate) {
    lxp::sound::choose(
        std::make_shared<RealBackend>(OutputKind::Alsa, device != nullptr ? device : "", sampleRate));
}

void LxPlatformSound::useWavFile(const char* path, uint32_t sampleRate) {
    lxp::sound::choose(
        std::make_shared<RealBackend>(OutputKind::Wav, path != nullptr ? path : "", sampleRate));
}

void LxPlatformSound::useNullOutput(uint32_t sampleRate) {
    lxp::sound::choose(std::make_shared<RealBackend>(OutputKind::Null, "", sampleRate));
}

void LxPlatformSound::useSimulated() {
    lxp::simsound::use();
}

std::string LxPlatformSound::describeOutput() {
    return lxp::sound::currentBackend()->engine()->describe();
}

bool LxPlatformSound::outputFailed() {
    return lxp::sound::currentBackend()->engine()->outputFailed();
}
