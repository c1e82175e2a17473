#include "platform/LxpDuplex.h"

#include <mutex>

namespace lxp {
namespace duplex {

namespace {
std::mutex gMutex;
bool gHalfDuplex = false;
int gOpen[2] = {0, 0};
}  // namespace

void setHalfDuplex(bool halfDuplex) {
    std::lock_guard<std::mutex> guard(gMutex);
    gHalfDuplex = halfDuplex;
}

bool tryOpen(Device device) {
    std::lock_guard<std::mutex> guard(gMutex);
    const int other = device == SampledAudio ? Midi : SampledAudio;
    if (gHalfDuplex && gOpen[other] > 0) {
        return false;
    }
    ++gOpen[device];
    return true;
}

void close(Device device) {
    std::lock_guard<std::mutex> guard(gMutex);
    if (gOpen[device] > 0) {
        --gOpen[device];
    }
}

int openCount(Device device) {
    std::lock_guard<std::mutex> guard(gMutex);
    return gOpen[device];
}

void reset() {
    std::lock_guard<std::mutex> guard(gMutex);
    gHalfDuplex = false;
    gOpen[0] = gOpen[1] = 0;
}

}  // namespace duplex
}  // namespace lxp
