// LxManager: the platform-neutral manager. The concrete LxWin32Manager and the operations that
// need players, connectables and the mixer are added with the manager subsystem; until then
// those operations answer with the generic failure.
#include "LxManager.h"

#include "LxLog.h"
#include "LxResult.h"

LxManager::LxManager(KtThreadManager* tm)
    : suspended(0),
      masterTimeBase(nullptr),
      mixer(nullptr),
      window(nullptr),
      windowState(LxWindowStateDefault),
      initialisedSubSystems(0),
      threadManager(tm),
      playerList(nullptr),
      playerListLock(KtMutex::create()),
      channelLock(KtMutex::create()),
      maxAudioChannels(AUTO_MAX_CHANNELS),
      audibleMode(LxAudibleWithFocus),
      speakerConfig(),
      spatializeSounds(0),
      startUpLatency(0, 100000) {}

LxManager::~LxManager() {
    delete channelLock;
    delete playerListLock;
}

LxManager* LxManager::createManager(KtThreadManager*) { return nullptr; }

long LxManager::initSubSystem(unsigned long) { return LX_ERR_GENERIC; }
void LxManager::closeManager() { delete this; }
long LxManager::setWindow(LxWindow*) { return LX_ERR_GENERIC; }
long LxManager::setWindowState(LxManager::LxWindowState state) {
    windowState = state;
    return LX_OK;
}
LxManager::LxWindowState LxManager::getWindowState() { return windowState; }
long LxManager::createPlayer(char*, LxPlayer** player) {
    if (player != nullptr) {
        *player = nullptr;
    }
    return LX_ERR_GENERIC;
}
long LxManager::addPlayer(LxPlayer*) { return LX_ERR_GENERIC; }
long LxManager::destroyPlayer(LxPlayer*) { return LX_ERR_UNKNOWN_PLAYER; }
long LxManager::verifyPlayer(LxPlayer*) { return LX_ERR_UNKNOWN_PLAYER; }
void LxManager::useThisDataSourceCreator(long (*)(char*, LxDataSource**)) {}
void LxManager::suspendAll() {}
void LxManager::resumeAll() {}
char LxManager::isSuspended() { return suspended; }
LxTimeBase* LxManager::getMasterTimeBase() { return masterTimeBase; }
LxMixer* LxManager::getMixer() { return mixer; }
long LxManager::setListenerLocation(const float*, const float*, const float*) { return LX_ERR_GENERIC; }
long LxManager::setAudibleMode(LxAudibleMode_s mode) {
    audibleMode = mode;
    return LX_ERR_NO_MIXER;
}
LxAudibleMode_s LxManager::getAudibleMode() { return audibleMode; }
long LxManager::setSpatializeSounds(char on) {
    spatializeSounds = on;
    return LX_ERR_NO_MIXER;
}
char LxManager::getSpatializeSounds() { return spatializeSounds; }
long LxManager::setSpeakerConfig(LxSpeakerConfiguration config) {
    speakerConfig = config;
    return LX_ERR_NO_MIXER;
}
LxSpeakerConfiguration LxManager::getSpeakerConfig() { return speakerConfig; }
long LxManager::setMaxAudioChannels(short channels) {
    maxAudioChannels = channels;
    return LX_OK;
}
short LxManager::getMaxAudioChannels() { return maxAudioChannels; }
long LxManager::setStartUpLatency(const LxTime& latency) {
    startUpLatency = latency;
    return LX_OK;
}
const LxTime& LxManager::getStartUpLatency() { return startUpLatency; }
long LxManager::connectAllUnconnected(LxPlayer*) { return LX_ERR_CONNECT_OUTPUTS; }
long LxManager::connect(LxOutputConnectable*, LxInputConnectable*) { return LX_ERR_GENERIC; }
long LxManager::requestPortChannel(LxAudioOutputPort*, const LxTime&) { return LX_ERR_GENERIC; }
long LxManager::updatePortChannel(LxAudioOutputPort*, const LxTime&, char) { return LX_ERR_GENERIC; }
void LxManager::releasePortChannel(LxAudioOutputPort*) {}
long LxManager::destroyAllPlayers() { return LX_OK; }
long LxManager::updateChannelInfo() { return LX_OK; }
long LxManager::deleteChannelInfo() { return LX_OK; }
char LxManager::excludingChannelActive(LxAudioChannelType_s, LxAudioChannelType_s& other) {
    other = static_cast<LxAudioChannelType_s>(2);
    return 0;
}
char LxManager::excludedChannelWaiting(LxAudioChannelType_s, LxAudioChannelType_s& other) {
    other = static_cast<LxAudioChannelType_s>(2);
    return 0;
}
long LxManager::releaseWaitingPort(LxAudioChannelType_s) { return LX_OK; }
LxFormat* LxManager::findMatchingFormat(LxOutputConnectable*, LxInputConnectable*) { return nullptr; }
