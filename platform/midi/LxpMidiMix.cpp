// The output mix as the MIDI layer sees it. Sources are kept here and mixed by pull(); the sound
// engine's mixing thread (or a test) calls pull() once per period.
#include "platform/midi/LxpMidiMix.h"

#include <algorithm>
#include <mutex>
#include <vector>

namespace lxp {
namespace midimix {

namespace {

struct Mix {
    // Held by pull() for one period and by add/remove for a moment, so that remove() can promise
    // that the source is no longer being mixed.
    std::mutex mutex;
    std::vector<Source*> sources;
};

Mix& mix() {
    static Mix* m = new Mix();
    return *m;
}

}  // namespace

bool add(Source* source) {
    Mix& m = mix();
    std::lock_guard<std::mutex> guard(m.mutex);
    if (std::find(m.sources.begin(), m.sources.end(), source) == m.sources.end()) {
        m.sources.push_back(source);
    }
    return true;
}

void remove(Source* source) {
    Mix& m = mix();
    std::lock_guard<std::mutex> guard(m.mutex);
    m.sources.erase(std::remove(m.sources.begin(), m.sources.end(), source), m.sources.end());
}

uint32_t sampleRate() {
    return 44100;
}

void pull(float* interleaved, uint32_t frames, uint32_t channels, uint32_t sampleRate) {
    Mix& m = mix();
    std::lock_guard<std::mutex> guard(m.mutex);
    for (Source* s : m.sources) {
        s->mixInto(interleaved, frames, channels, sampleRate);
    }
}

}  // namespace midimix
}  // namespace lxp
