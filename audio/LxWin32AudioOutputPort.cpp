// The mixer port handle, the port configuration and the mixer's port record.
#include "LxWin32AudioOutputPort.h"

#include "LxLog.h"
#include "LxWin32AudioPortData.h"
#include "LxWin32Mixer.h"

LxWin32AudioPortConfig::LxWin32AudioPortConfig()
    : channels(LxMono), format(LxSample8), rate(0.0f), bufferSize(0), isStreaming(0), isResident(0) {}

LxWin32AudioPortConfig::LxWin32AudioPortConfig(LxAudioChannels_s c, LxSampleFormat_s f, float r, int32_t size,
                                               char streaming, char resident)
    : channels(c), format(f), rate(r), bufferSize(size), isStreaming(streaming), isResident(resident) {}

LxWin32AudioPortData::LxWin32AudioPortData(const LxWin32AudioPortConfig& config)
    : rate(config.rate),
      channels(config.channels),
      format(config.format),
      writePosition(0),
      tempo(1.0f),
      gain(1.0f),
      volume(0),
      pan(0.0f),
      panValue(0),
      bufferSize(config.bufferSize),
      bytesPerSecond(0),
      bytesPerFrame(static_cast<int16_t>((config.channels == LxStereo ? 2 : 1) *
                                         (config.format == LxSample16 ? 2 : 1))),
      soundBuffer(nullptr),
      buffer3D(nullptr),
      location{0.0f, 0.0f, 0.0f},
      priority(0.0f),
      spatialize(1),
      needsReset(1),
      playing(0),
      isStreaming(config.isStreaming),
      isResident(config.isResident),
      noChannel(1),
      looping(0),
      masterPort(LX_PORT_OWNS_BUFFER) {
    for (int16_t& d : duplicates) {
        d = LX_NO_DUPLICATE;
    }
}

LxWin32AudioOutputPort::LxWin32AudioOutputPort() : mixer(nullptr), portNumber(-1) {}

LxWin32AudioOutputPort::LxWin32AudioOutputPort(LxWin32Mixer* m) : mixer(m), portNumber(-1) {}

LxWin32AudioOutputPort::LxWin32AudioOutputPort(const LxWin32AudioOutputPort& other)
    : LxAudioOutputPort(other), mixer(other.mixer), portNumber(other.portNumber) {}

LxWin32AudioOutputPort& LxWin32AudioOutputPort::operator=(const LxWin32AudioOutputPort& other) {
    LxAudioOutputPort::operator=(other);
    mixer = other.mixer;
    portNumber = other.portNumber;
    return *this;
}

LxWin32AudioOutputPort::~LxWin32AudioOutputPort() {}

long LxWin32AudioOutputPort::openPort(LxWin32AudioPortConfig* config) {
    short n = -1;
    const long r = mixer->openPort(config, n);
    portNumber = n;
    return r;
}

long LxWin32AudioOutputPort::duplicatePort(LxWin32AudioOutputPort* newPort) {
    short n = -1;
    const long r = mixer->duplicatePort(portNumber, n);
    if (newPort != nullptr && n >= 0) {
        newPort->portNumber = n;
    }
    return r;
}

long LxWin32AudioOutputPort::setSoundLocation(const float* xyz) {
    return mixer->setSoundLocation(portNumber, xyz);
}
const float* LxWin32AudioOutputPort::getLocation() const {
    return mixer->getLocation(portNumber);
}
long LxWin32AudioOutputPort::setGain(float gain) {
    return mixer->setGain(portNumber, gain);
}
long LxWin32AudioOutputPort::setPan(float pan) {
    return mixer->setPan(portNumber, pan);
}
float LxWin32AudioOutputPort::getPan() const {
    return mixer->getPan(portNumber);
}
float LxWin32AudioOutputPort::getGain() const {
    return mixer->getGain(portNumber);
}
long LxWin32AudioOutputPort::setPriority(float priority) {
    return mixer->setPriority(portNumber, priority);
}
float LxWin32AudioOutputPort::getPriority() const {
    return mixer->getPriority(portNumber);
}
long LxWin32AudioOutputPort::setSpatialize(char on) {
    return mixer->setSpatialize(portNumber, on);
}
char LxWin32AudioOutputPort::getSpatialize() const {
    return mixer->getSpatialize(portNumber);
}

long LxWin32AudioOutputPort::writeFrames(unsigned char* data, long byteOffset, long frames) {
    return mixer->writeFrames(portNumber, data, byteOffset, frames);
}

long LxWin32AudioOutputPort::writeResidentFrames(unsigned char* data, long byteOffset, long frames) {
    return mixer->writeResidentFrames(portNumber, data, byteOffset, frames);
}

long LxWin32AudioOutputPort::fillSilence(long frames) {
    return mixer->fillSilence(portNumber, frames);
}
long LxWin32AudioOutputPort::fillSilence(const LxTime& duration) {
    return mixer->fillSilence(portNumber, duration);
}
long LxWin32AudioOutputPort::playPort(char loop) {
    return mixer->playPort(portNumber, loop);
}
long LxWin32AudioOutputPort::playPortFrom(char loop, long position) {
    return mixer->playPortFrom(portNumber, loop, position);
}
long LxWin32AudioOutputPort::scheduleStart(double seconds) {
    return mixer->scheduleStart(portNumber, seconds);
}
void LxWin32AudioOutputPort::stopPort() {
    mixer->stopPort(portNumber, 1);
}
long LxWin32AudioOutputPort::discardFrames() {
    return mixer->discardFrames(portNumber);
}
long LxWin32AudioOutputPort::getFillable() {
    return mixer->getFillable(portNumber);
}
long LxWin32AudioOutputPort::getFilled() {
    return mixer->getFilled(portNumber);
}
long LxWin32AudioOutputPort::setTempo(float tempo) {
    return mixer->setTempo(portNumber, tempo);
}
float LxWin32AudioOutputPort::getTempo() {
    return mixer->getTempo(portNumber);
}

long LxWin32AudioOutputPort::grantChannel() {
    LxLog::postDebug("LxWin32AOP: grantChannel()\n");
    const long r = mixer->acquireChannel(portNumber);
    if (r != 1) {
        LxLog::postDebug("LxWin32AOP: failed to acquire channel from mixer!");
        return r;
    }
    channelHeld = 1;
    return 1;
}

long LxWin32AudioOutputPort::revokeChannel() {
    LxLog::postDebug("LxWin32AOP: revokeChannel()\n");
    const long r = mixer->releaseChannel(portNumber, 0);
    if (r == 1) {
        channelHeld = 0;
    }
    return r;
}

char LxWin32AudioOutputPort::isSounding() const {
    return mixer != nullptr ? mixer->isPortSounding(portNumber) : 0;
}
