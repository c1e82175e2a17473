// LxAMPlayer: the filter-graph player's thread loop, graph construction, graph control and
// shutdown.
#include "LxAMPlayer.h"

#include "LxConnectable.h"
#include "LxDataSource.h"
#include "LxEvent.h"
#include "LxLog.h"
#include "LxQueue.h"
#include "LxResult.h"
#include "LxTimeBase.h"
#include "platform/com/LxpCom.h"
#include "platform/dshow/LxpGraph.h"
#include "platform/dshow/LxpGraphIds.h"
#include "platform/dshow/LxpRendererFilter.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace lxp;

// Times the graph is never asked to seek to (later positions go to the start instead).
const LxTime kLatestSeek(7000, 0);
// How long a delivery thread waits for the filter gate.
constexpr unsigned long kGateWaitMs = 1000;
// How often the graph is polled for its events while it plays, and near its end.
constexpr unsigned long kGraphPollMs = 100;
constexpr unsigned long kEndPollMs = 5;
// A graph of sound alone runs this long before a start asked for ahead of time, as the WAVE
// player reads ahead: the audio renderer then has the first samples in time to set them for the
// start's exact sample (it prepares a start 150 ms ahead). Run at the start itself, the graph's
// first samples would reach the renderer after it and be heard at the next mixing block.
constexpr unsigned long kCueLeadMs = 100;
// A clip shorter than this is a short clip.
const LxTime kShortClip(2, 0);

/// The graph's 100-ns count for a time: (seconds x 1000000 + microseconds) x 10.
REFERENCE_TIME toGraphTime(const LxTime& t) {
    return (static_cast<int64_t>(t.sec()) * 1000000 + t.usec()) * 10;
}

/// A graph count as a time: whole seconds, and the microseconds of the fraction.
LxTime fromGraphTime(REFERENCE_TIME units) {
    return LxTime(static_cast<int32_t>(units / UNITS), static_cast<int32_t>(units % UNITS / 10));
}

std::string narrow(const WCHAR* name) {
    char text[256];
    if (name == nullptr ||
        WideCharToMultiByte(CP_ACP, 0, name, -1, text, sizeof text, nullptr, nullptr) == 0) {
        return std::string();
    }
    return text;
}

std::string filterName(IBaseFilter* filter) {
    FILTER_INFO info;
    if (filter == nullptr || FAILED(filter->QueryFilterInfo(&info))) {
        return std::string();
    }
    if (info.pGraph != nullptr) {
        info.pGraph->Release();
    }
    return narrow(info.achName);
}

std::string pinName(IPin* pin, IBaseFilter** owner) {
    PIN_INFO info;
    if (owner != nullptr) {
        *owner = nullptr;
    }
    if (pin == nullptr || FAILED(pin->QueryPinInfo(&info))) {
        return std::string();
    }
    if (owner != nullptr) {
        *owner = info.pFilter;
    } else if (info.pFilter != nullptr) {
        info.pFilter->Release();
    }
    return narrow(info.achName);
}

}  // namespace

LxAMPlayer::LxAMPlayer(LxManager* manager, LxDataSource* source)
    : LxPlayer(manager, source),
      graph(nullptr),
      sourceFilter(nullptr),
      mediaControl(nullptr),
      mediaSeeking(nullptr),
      mediaEvent(nullptr),
      audioRendererFilter(nullptr),
      audioRendererObject(nullptr),
      videoRendererFilter(nullptr),
      videoRendererObject(nullptr),
      mpegAudioDecoder(nullptr),
      shortClip(0),
      hasAudio(0),
      hasVideo(0),
      filterGate(nullptr),
      graphRunning(0),
      activeOwed(0),
      audioOutput(nullptr),
      videoOutput(nullptr),
      comInitialized(0),
      streamEpoch(0),
      soughtSinceLoad(0),
      gateUsers(0) {
    if (source == nullptr || source->getSourceType() != LxDataSource::PullSource) {
        LxLog::postDebug("LxAMPlayer:  cannot deal with push data source!\n");
    }
    KtGateLock* gate = KtGateLock::create();
    if (gate != nullptr) {
        gate->open();
    }
    filterGate = gate;
    startThread(&LxAMPlayer::callPlayerRunLoop);
}

LxAMPlayer::~LxAMPlayer() {
    LxLog::postDebug("LxAMPlayer:  destructor\n");
    waitAndShutdown();
    // The renderers go before the outputs that feed them, and the outputs (which detach from
    // their filters) before the gate their filters may still be waiting on.
    destroyAll();
    deleteOutputs();
    delete filterGate.exchange(nullptr);
}

long LxAMPlayer::callPlayerRunLoop(void* player) {
    static_cast<LxAMPlayer*>(player)->run();
    return 0;
}

void LxAMPlayer::deleteOutputs() {
    for (short i = 0; i < outputCount && outputs != nullptr; ++i) {
        if (outputs[i] == audioOutput || outputs[i] == videoOutput) {
            outputs[i] = nullptr;
        }
    }
    delete audioOutput;
    delete videoOutput;
    audioOutput = nullptr;
    videoOutput = nullptr;
}

KtResult LxAMPlayer::filterGateWait() {
    // The count is raised before the gate is read, so shutdown (which takes the gate away first
    // and then waits for the count to fall) never deletes a gate a thread is waiting on.
    ++gateUsers;
    KtGateLock* gate = filterGate.load();
    const KtResult result = gate != nullptr && gate->wait(kGateWaitMs) == LX_OK ? LX_OK : LX_ERR_GENERIC;
    --gateUsers;
    return result;
}

template <class T>
void LxAMPlayer::releaseInterface(T*& object, const char* message) {
    if (object == nullptr) {
        return;
    }
    const uint32_t left = object->Release();
    object = nullptr;
    if (message != nullptr) {
        LxLog::postDebug(message, static_cast<unsigned>(left));
    }
}

// ---------------------------------------------------------------------------------------------
// Graph construction

bool LxAMPlayer::CreateGraphBuilder() {
    if (graph != nullptr) {
        LxLog::postDebug("LxAMPlayer:  Trying to create FilterGraph with existing graph!\n");
        return false;
    }
    if (FAILED(CoCreateInstance(CLSID_FilterGraph, nullptr, CLSCTX_INPROC_SERVER, IID_IGraphBuilder,
                                reinterpret_cast<void**>(&graph)))) {
        LxLog::postDebug("LxAMPlayer:  CoCreateInstance failed to create the filter graph\n");
        graph = nullptr;
        return false;
    }
    LxLog::postDebug("LxAMPlayer:  CocreateInstance succeded to create filtergraph builder\n");
    if (FAILED(graph->QueryInterface(IID_IMediaSeeking, reinterpret_cast<void**>(&mediaSeeking)))) {
        LxLog::postDebug("LxAMPlayer:  Failed to get the MediaSeeking interface\n");
        mediaSeeking = nullptr;
        return false;
    }
    LxLog::postDebug("LxAMPlayer:  Got the MediaSeeking interface!\n");
    mediaSeeking->SetTimeFormat(&TIME_FORMAT_MEDIA_TIME);
    if (FAILED(graph->QueryInterface(IID_IMediaControl, reinterpret_cast<void**>(&mediaControl)))) {
        LxLog::postDebug("LxAMPlayer:  Failed to get the MediaControl interface\n");
        mediaControl = nullptr;
        return false;
    }
    LxLog::postDebug("LxAMPlayer:  Got the MediaControl interface!\n");
    if (FAILED(graph->QueryInterface(IID_IMediaEvent, reinterpret_cast<void**>(&mediaEvent)))) {
        LxLog::postDebug("LxAMPlayer:  Failed to get the MediaEvent interface\n");
        mediaEvent = nullptr;
        return false;
    }
    LxLog::postDebug("LxAMPlayer:  Got the MediaEvent interface!\n");
    return true;
}

bool LxAMPlayer::AddSourceFilter() {
    LxPullDataSource* pull = dynamic_cast<LxPullDataSource*>(dataSource);
    const char* file = pull != nullptr ? pull->getLocalFileName() : nullptr;
    WCHAR wideName[100];
    WCHAR wideFile[256];
    // A name that does not fit (or no name at all) is a source that cannot be added.
    const bool converted = file != nullptr &&
                           MultiByteToWideChar(CP_ACP, 0, "FilterSource", -1, wideName, 100) != 0 &&
                           MultiByteToWideChar(CP_ACP, 0, file, -1, wideFile, 256) != 0;
    LxLog::postDebug("LxAMPlayer:  Opening file %s\n", file != nullptr ? file : "");
    if (graph == nullptr || !converted || FAILED(graph->AddSourceFilter(wideFile, wideName, &sourceFilter)) ||
        sourceFilter == nullptr) {
        sourceFilter = nullptr;
        LxLog::postDebug("LxAMPlayer:  Unable to add the source filter\n");
        return false;
    }
    LxLog::postDebug("LxAMPlayer:  Succeeded in adding a source filter\n");
    return true;
}

long LxAMPlayer::addRenderers() {
    WCHAR name[64];
    if (hasAudio) {
        MultiByteToWideChar(CP_ACP, 0, "LxAudioRenderer", -1, name, 64);
        if (FAILED(graph->AddFilter(audioRendererFilter, name))) {
            LxLog::postDebug("LxAMPlayer:  failed to add audio to the filter graph\n");
            hasAudio = 0;
        } else {
            const char* content = dataSource != nullptr ? dataSource->getContentName() : nullptr;
            if (content != nullptr && std::strcmp(content, "audio/mpeg") == 0) {
                // Added before rendering, so that the graph builder decodes MPEG audio with it.
                MultiByteToWideChar(CP_ACP, 0, "MPEG Layer 3 Codec", -1, name, 64);
                if (FAILED(CoCreateInstance(CLSID_MPEGLayer3Codec, nullptr, CLSCTX_INPROC_SERVER,
                                            IID_IBaseFilter, reinterpret_cast<void**>(&mpegAudioDecoder))) ||
                    FAILED(graph->AddFilter(mpegAudioDecoder, name))) {
                    LxLog::postDebug("LxAMPlayer:  failed to add mp3 codec to the filter graph\n");
                    releaseInterface(mpegAudioDecoder, nullptr);
                }
            }
        }
    }
    if (hasVideo) {
        MultiByteToWideChar(CP_ACP, 0, "LxVideoRenderer", -1, name, 64);
        if (FAILED(graph->AddFilter(videoRendererFilter, name))) {
            LxLog::postDebug("LxAMPlayer:  failed to add video to the filter graph\n");
            hasVideo = 0;
        }
    }
    const long connected = connectRendererToSource();
    if (connected != LX_OK) {
        return connected;
    }
    if (hasAudio && hasVideo) {
        return LX_OK;
    }
    if (hasAudio) {
        return LX_GRAPH_AUDIO_ONLY;
    }
    if (hasVideo) {
        return LX_GRAPH_VIDEO_ONLY;
    }
    return LX_ERR_GENERIC;
}

long LxAMPlayer::connectRendererToSource() {
    IEnumPins* pins = nullptr;
    if (sourceFilter == nullptr || FAILED(sourceFilter->EnumPins(&pins)) || pins == nullptr) {
        LxLog::postDebug("LxAMPlayer:  Couldn't enumerate sourceFilter's pin!?!\n");
        return LX_ERR_GENERIC;
    }
    IPin* pin = nullptr;
    uint32_t fetched = 0;
    const HRESULT next = pins->Next(1, &pin, &fetched);
    pins->Release();
    if (next != S_OK || pin == nullptr) {
        LxLog::postDebug("LxAMPlayer:  Couldn't get sourceFilter's pin!?!\n");
        return LX_ERR_GENERIC;
    }
    const HRESULT rendered = graph->Render(pin);
    pin->Release();
    if (FAILED(rendered)) {
        LxLog::postDebug("LxAMPlayer:  Failed to render source's pin\n");
        return LX_ERR_UNSUPPORTED;
    }
    if (hasAudio && !checkForConnection(audioRendererFilter)) {
        graph->RemoveFilter(audioRendererFilter);
        releaseInterface(audioRendererObject, nullptr);
        releaseInterface(audioRendererFilter, nullptr);
        hasAudio = 0;
        if (mpegAudioDecoder != nullptr) {
            graph->RemoveFilter(mpegAudioDecoder);
            releaseInterface(mpegAudioDecoder, nullptr);
        }
    }
    if (hasVideo && !checkForConnection(videoRendererFilter)) {
        graph->RemoveFilter(videoRendererFilter);
        releaseInterface(videoRendererObject, nullptr);
        releaseInterface(videoRendererFilter, nullptr);
        hasVideo = 0;
    }
    return LX_OK;
}

char LxAMPlayer::checkForConnection(IBaseFilter* filter) {
    IEnumPins* pins = nullptr;
    if (filter == nullptr || FAILED(filter->EnumPins(&pins)) || pins == nullptr) {
        return 0;
    }
    IPin* pin = nullptr;
    uint32_t fetched = 0;
    const bool got = pins->Next(1, &pin, &fetched) == S_OK && pin != nullptr;
    pins->Release();
    if (!got) {
        return 0;
    }
    IPin* peer = nullptr;
    const bool connected = SUCCEEDED(pin->ConnectedTo(&peer)) && peer != nullptr;
    if (peer != nullptr) {
        peer->Release();
    }
    pin->Release();
    return connected ? 1 : 0;
}

void LxAMPlayer::updateDurationFromMedia() {
    GUID original = TIME_FORMAT_MEDIA_TIME;
    mediaSeeking->GetTimeFormat(&original);
    if (mediaSeeking->IsFormatSupported(&TIME_FORMAT_FRAME) == S_OK &&
        SUCCEEDED(mediaSeeking->SetTimeFormat(&TIME_FORMAT_FRAME))) {
        LONGLONG frames = 0;
        if (FAILED(mediaSeeking->GetDuration(&frames))) {
            LxLog::postDebug("LxAMPlayer: failed to get frame/sample duration\n");
        } else {
            KtScopedLock guard(signal);
            numFrames = static_cast<long>(frames);
        }
        if (FAILED(mediaSeeking->SetTimeFormat(&original))) {
            LxLog::postDebug("LxAMPlayer: failed to reset time format to original\n");
        }
    } else {
        LxLog::postDebug("LxAMPlayer: frame/sample format unsupported or failed to set\n");
    }
    LONGLONG length = 0;
    if (FAILED(mediaSeeking->GetDuration(&length))) {
        LxLog::postDebug("LxAMPlayer: failed to get duration\n");
        return;
    }
    LxLog::postDebug("LxAMPlayer:  got the duration!\n");
    LxTime old;
    LxTime now;
    {
        KtScopedLock guard(signal);
        old = duration;
        duration = fromGraphTime(length);
        now = duration;
    }
    postEvent(new (std::nothrow) LxDurationChangedEvent(this, old, now));
}

void LxAMPlayer::initializeOutputConnectable() {
    char* name = nullptr;
    LxOutputConnectable* out = nullptr;
    if (audioRendererObject != nullptr && hasAudio) {
        char* copy = nullptr;
        if (SUCCEEDED(audioRendererObject->GetOutputConnectable(this, &name, &out)) && out != nullptr &&
            name != nullptr && (copy = strdup(name)) != nullptr && addOutputConnectable(copy, out) == LX_OK) {
            audioOutput = out;
        } else {
            std::free(copy);
            delete out;
            LxLog::postDebug("initOutputConnectable: failed to initialize audio connectable.");
        }
    }
    name = nullptr;
    out = nullptr;
    if (videoRendererObject != nullptr && hasVideo) {
        char* copy = nullptr;
        if (SUCCEEDED(videoRendererObject->GetOutputConnectable(this, &name, &out)) && out != nullptr &&
            name != nullptr && (copy = strdup(name)) != nullptr && addOutputConnectable(copy, out) == LX_OK) {
            videoOutput = out;
        } else {
            std::free(copy);
            delete out;
            LxLog::postDebug("initOutputConnectable: failed to initialize video connectable.");
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Graph control

long LxAMPlayer::pauseFilterGraph() {
    LxLog::postDebug("LxAMPlayer:: pauseFilterGraph ()\n");
    if (mediaControl == nullptr) {
        return LX_OK;
    }
    KtGateLock* gate = filterGate.load();
    if (gate != nullptr) {
        gate->close();
    }
    const HRESULT hr = mediaControl->Pause();
    if (gate != nullptr) {
        gate->open();
    }
    if (FAILED(hr)) {
        LxLog::postDebug("LxAMPlayer:  Couldn't pause the filter graph\n");
        return LX_ERR_GENERIC;
    }
    LxLog::postDebug("LxAMPlayer: issued pause to media control interface\n");
    return LX_OK;
}

long LxAMPlayer::stopFilterGraph() {
    LxLog::postDebug("LxAMPlayer:: stopFilterGraph ()\n");
    if (mediaControl == nullptr) {
        return LX_OK;
    }
    KtGateLock* gate = filterGate.load();
    if (gate != nullptr) {
        gate->close();
    }
    const HRESULT hr = mediaControl->Stop();
    if (gate != nullptr) {
        gate->open();
    }
    if (FAILED(hr)) {
        LxLog::postDebug("LxAMPlayer:  Couldn't stop the filter graph\n");
        return LX_ERR_GENERIC;
    }
    LxLog::postDebug("LxAMPlayer: issued stop to media control interface\n");
    return LX_OK;
}

long LxAMPlayer::startFilterGraph() {
    LxLog::postDebug("LxAMPlayer::startFilterGraph ()\n");
    if (mediaControl == nullptr) {
        return LX_OK;
    }
    if (FAILED(mediaControl->Run())) {
        LxLog::postDebug("LxAMPlayer:  Couldn't run the filter graph\n");
        return LX_ERR_GENERIC;
    }
    return LX_OK;
}

long LxAMPlayer::seekFilterGraph(LxTime t) {
    REFERENCE_TIME position = toGraphTime(t);
    LxLog::postDebug("LxAMPlayer:  seeking the filter graph to %8.3f 100-nanosecs\n",
                     static_cast<double>(position));
    if (mediaSeeking == nullptr ||
        FAILED(mediaSeeking->SetPositions(&position, AM_SEEKING_AbsolutePositioning, nullptr,
                                          AM_SEEKING_NoPositioning))) {
        LxLog::postDebug("LxAMPlayer:  Failed to setMediaTime\n");
        return LX_ERR_GENERIC;
    }
    return LX_OK;
}

long LxAMPlayer::reposition(LxTime t) {
    // Raised before the seek flushes the graph, so that the outputs see the new epoch together
    // with the flush and do not take the samples that follow for a repeat of what they hold.
    ++streamEpoch;
    soughtSinceLoad = 1;
    return seekFilterGraph(t);
}

// ---------------------------------------------------------------------------------------------
// Overrides of the player's operations

long LxAMPlayer::setTimeAll(LxTime t) {
    LxLog::postDebug("LxAMPlayer:  setTimeAll (%8.3f)\n", t.getValue());
    const long result = LxPlayer::setTimeAll(t);
    if (result != LX_OK) {
        return result;
    }
    // The graph belongs to the player's thread; a call from elsewhere (the destroying thread
    // while no loop runs) has no graph to move.
    if (apiSanityCheck()) {
        return LX_OK;
    }
    return reposition(t > kLatestSeek ? LxTime::zero() : t);
}

long LxAMPlayer::setRateAll(float* rate) {
    LxLog::postDebug("LxAMPlayer:  setRateAll()\n");
    const long result = LxPlayer::setRateAll(rate);
    if (result != LX_OK) {
        return result;
    }
    if (*rate <= 0.0f) {
        // A stopped clock pauses the graph on the next pass of the loop; the graph plays forward
        // only.
        LxLog::postDebug("LxAMPlayer: rate <= 0.0\n");
        return LX_OK;
    }
    // Audio alone follows the rate through its renderer's port; a graph with video is re-rated so
    // that its pictures come at the new pace.
    if (hasVideo && mediaSeeking != nullptr && !apiSanityCheck() &&
        FAILED(mediaSeeking->SetRate(static_cast<double>(*rate)))) {
        LxLog::postDebug("LxAMPlayer:  Unable to setRate\n");
    }
    return LX_OK;
}

long LxAMPlayer::stopAll() {
    const bool onThread = !apiSanityCheck();
    if (getCurrentState() == STARTED && onThread) {
        pauseFilterGraph();  // a failure leaves the graph where it is; the nodes stop regardless
        graphRunning = 0;
    }
    const long result = LxPlayer::stopAll();
    if (onThread && graph != nullptr) {
        reposition(clock->getMediaTime());
        // The renderer filters may have handed over samples they still held between the nodes'
        // stop and the seek: only what came after the seek belongs to the new position.
        flushAll();
    }
    return result;
}

void LxAMPlayer::handleSuspend() {
    LxLog::postDebug("LxAMPlayer: handleSuspend - iAmSuspended = %i\n", static_cast<int>(suspended));
    if (apiSanityCheck()) {
        return;  // no loop runs: there is no graph to suspend
    }
    if (suspended) {
        const long result = pauseFilterGraph();
        if (result != LX_OK) {
            LxLog::postDebug("LxAMPlayer: handle suspend - error %d from pauseFilterGraph()\n",
                             static_cast<int>(result));
        }
        return;
    }
    if (getCurrentState() != STARTED || !graphRunning) {
        return;
    }
    reposition(clock->getMediaTime());
    const long result = startFilterGraph();
    if (result != LX_OK) {
        LxLog::postDebug("LxAMPlayer: handle suspend - error %d from startFilterGraph()\n",
                         static_cast<int>(result));
    }
}

void LxAMPlayer::shutdown() {
    if (mediaControl != nullptr) {
        // When the stop returns, no renderer filter is inside a delivery any more: the renderers
        // can go.
        stopFilterGraph();
    }
    destroyAll();
    releaseInterface(mediaEvent, nullptr);
    releaseInterface(mediaSeeking, nullptr);
    releaseInterface(mediaControl, nullptr);
    releaseInterface(sourceFilter, "LxAMPlayer:  Releasing source filter object with %u refs\n");
    releaseInterface(audioRendererObject, "LxAMPlayer:  Releasing audio renderer object with %u refs\n");
    releaseInterface(audioRendererFilter, "LxAMPlayer:  Releasing audio filter interface with %u refs\n");
    releaseInterface(videoRendererObject, "LxAMPlayer:  Releasing video renderer object with %u refs\n");
    releaseInterface(videoRendererFilter, "LxAMPlayer:  Releasing video filter interface with %u refs\n");
    releaseInterface(mpegAudioDecoder, nullptr);
    releaseInterface(graph, "LxAMPlayer:  Releasing filter graph with %u refs\n");
    // The gate goes once no delivery thread is inside filterGateWait; later calls find none and
    // answer 0x201.
    KtGateLock* gate = filterGate.exchange(nullptr);
    if (gate != nullptr) {
        gate->open();
        while (gateUsers.load() > 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        delete gate;
    }
    if (comInitialized) {
        comInitialized = 0;
        CoUninitialize();
    }
}

// ---------------------------------------------------------------------------------------------
// Diagnostics

void LxAMPlayer::printFilterInfo(IBaseFilter* filter) {
    LxLog::postDebug("This filter is named %s\n", filterName(filter).c_str());
}

void LxAMPlayer::enumerateFilters() {
    IEnumFilters* filters = nullptr;
    if (graph == nullptr || FAILED(graph->EnumFilters(&filters)) || filters == nullptr) {
        return;
    }
    IBaseFilter* filter = nullptr;
    uint32_t fetched = 0;
    while (filters->Next(1, &filter, &fetched) == S_OK && filter != nullptr) {
        printFilterInfo(filter);
        filter->Release();
        filter = nullptr;
    }
    filters->Release();
}

void LxAMPlayer::printPinInfo(IPin* pin) {
    AM_MEDIA_TYPE type = makeMajorType(GUID_NULL);
    pin->ConnectionMediaType(&type);
    const std::string name = pinName(pin, nullptr);
    LxLog::postDebug("    This pin is named %s, has mediaType Major:%x Minor:%x Format:%x\n", name.c_str(),
                     static_cast<unsigned>(type.majortype.Data1), static_cast<unsigned>(type.subtype.Data1),
                     static_cast<unsigned>(type.formattype.Data1));
    FreeMediaType(type);
}

void LxAMPlayer::walkTheGraph(IBaseFilter* start) {
    LxLog::postDebug("LxAMPlayer:  Walking the filter graph\n");
    // Downstream only, from output pins to the filters they feed: a graph has no cycles that way.
    std::vector<IBaseFilter*> pending;
    if (start != nullptr) {
        start->AddRef();
        pending.push_back(start);
    }
    while (!pending.empty()) {
        IBaseFilter* filter = pending.back();
        pending.pop_back();
        const std::string name = filterName(filter);
        LxLog::postDebug("  This filter is named %s\n", name.c_str());
        IEnumPins* pins = nullptr;
        if (SUCCEEDED(filter->EnumPins(&pins)) && pins != nullptr) {
            IPin* pin = nullptr;
            uint32_t fetched = 0;
            while (pins->Next(1, &pin, &fetched) == S_OK && pin != nullptr) {
                printPinInfo(pin);
                IPin* peer = nullptr;
                PIN_DIRECTION direction = PINDIR_INPUT;
                pin->QueryDirection(&direction);
                if (SUCCEEDED(pin->ConnectedTo(&peer)) && peer != nullptr) {
                    IBaseFilter* owner = nullptr;
                    const std::string peerName = pinName(peer, &owner);
                    LxLog::postDebug("    %s is connected to %s\n", pinName(pin, nullptr).c_str(),
                                     peerName.c_str());
                    LxLog::postDebug("    which is associated with filter %s\n", filterName(owner).c_str());
                    if (owner != nullptr && direction == PINDIR_OUTPUT) {
                        owner->AddRef();
                        pending.push_back(owner);
                    }
                    LxLog::postDebug(" releasing pin: %u refs\n", static_cast<unsigned>(peer->Release()));
                    if (owner != nullptr) {
                        LxLog::postDebug(" releasing filter: %u refs\n",
                                         static_cast<unsigned>(owner->Release()));
                    }
                }
                pin->Release();
                pin = nullptr;
            }
            pins->Release();
        }
        LxLog::postDebug("  ---done with %s\n", name.c_str());
        filter->Release();
    }
}

// ---------------------------------------------------------------------------------------------
// The player's thread

long LxAMPlayer::loadClip() {
    LxPullDataSource* pull = dynamic_cast<LxPullDataSource*>(dataSource);
    const char* file = pull != nullptr ? pull->getLocalFileName() : nullptr;
    LxLog::postDebug("LxAMPlayer:  local file name is %s\n", file != nullptr ? file : "");
    if (!CreateGraphBuilder()) {
        return LX_ERR_FILTER_GRAPH;
    }
    if (!AddSourceFilter()) {
        return LX_ERR_SOURCE_FILTER;
    }
    if (FAILED(CoCreateInstance(CLSID_LxAudioRenderer, nullptr, CLSCTX_INPROC_SERVER, IID_ILxRenderer,
                                reinterpret_cast<void**>(&audioRendererObject)))) {
        LxLog::postDebug("LxAMPlayer:  Failed to create instance of audio renderer\n");
        audioRendererObject = nullptr;
    } else if (FAILED(audioRendererObject->QueryInterface(IID_IBaseFilter,
                                                          reinterpret_cast<void**>(&audioRendererFilter)))) {
        LxLog::postDebug("LxAMPlayer:  Failed to get IFilter interface from audio renderer.\n");
        audioRendererFilter = nullptr;
    }
    hasAudio = audioRendererObject != nullptr && audioRendererFilter != nullptr ? 1 : 0;
    if (FAILED(CoCreateInstance(CLSID_LxVideoRenderer, nullptr, CLSCTX_INPROC_SERVER, IID_ILxRenderer,
                                reinterpret_cast<void**>(&videoRendererObject)))) {
        LxLog::postDebug("LxAMPlayer:  Failed to create instance of video renderer\n");
        videoRendererObject = nullptr;
    } else if (FAILED(videoRendererObject->QueryInterface(IID_IBaseFilter,
                                                          reinterpret_cast<void**>(&videoRendererFilter)))) {
        LxLog::postDebug("LxAMPlayer:  Failed to get IFilter interface from video renderer.\n");
        videoRendererFilter = nullptr;
    }
    hasVideo = videoRendererObject != nullptr && videoRendererFilter != nullptr ? 1 : 0;
    if (!hasAudio && !hasVideo) {
        return LX_ERR_NO_RENDERER_FILTER;
    }
    const long added = addRenderers();
    if (added == LX_ERR_UNSUPPORTED || added == LX_ERR_GENERIC) {
        return added;
    }
    walkTheGraph(sourceFilter);
    updateDurationFromMedia();
    {
        KtScopedLock guard(signal);
        shortClip = duration >= LxTime::zero() && duration < kShortClip ? 1 : 0;
    }
    initializeOutputConnectable();
    if (!hasAudio && !hasVideo) {
        return LX_ERR_UNSUPPORTED;
    }
    return LX_OK;
}

long LxAMPlayer::initializedKind() {
    return 0xE0 + (hasAudio ? 1 : 0) + (hasVideo ? 2 : 0);
}

unsigned long LxAMPlayer::prefetchStep() {
    char started = 0;
    {
        KtScopedLock guard(signal);
        started = prefetchStarted;
    }
    if (!started) {
        LxLog::postDebug("LxAMPlayer: prefetching\n");
        if (!soughtSinceLoad) {
            // The graph was cued while the clip loaded, before the renderers were connected, and
            // a paused graph cues nothing new: cue it again where the clock stands.
            reposition(clock->getMediaTime());
        }
        pauseFilterGraph();  // the cue: the renderer filters receive their first samples
        KtScopedLock guard(signal);
        prefetchStarted = 1;
    }
    char complete = 0;
    {
        KtScopedLock guard(signal);
        complete = prefetchComplete();
    }
    if (complete) {
        LxLog::postDebug("LxAMPlayer: prefetch complete\n");
        setCurrentState(PREFETCHED);
        pauseFilterGraph();
        postEvent(new (std::nothrow) LxPrefetchCompleteEvent(this));
    }
    return KT_INFINITE;  // the nodes' events wake the loop
}

bool LxAMPlayer::holdStart(unsigned long* wait) {
    float rate = 0.0f;
    {
        KtScopedLock guard(signal);
        rate = clock->getRate();
    }
    if (rate != 0.0f) {
        return false;
    }
    if (graphRunning) {
        pauseFilterGraph();
        graphRunning = 0;
    }
    *wait = KT_INFINITE;  // a new rate arrives as a request and wakes the loop
    return true;
}

void LxAMPlayer::silenceAtStopTime() {
    pauseFilterGraph();
    graphRunning = 0;
}

unsigned long LxAMPlayer::cueLead() {
    // A graph with pictures runs at the start: its pictures go out as its own clock reaches
    // them, so running it early would show them early.
    if (!hasAudio || hasVideo) {
        return 0;
    }
    KtScopedLock guard(signal);
    return clock->getRate() > 0.0f ? kCueLeadMs : 0;
}

unsigned long LxAMPlayer::playStep(unsigned long toStart) {
    // The player goes active at the start itself, also when its graph runs ahead of it.
    bool goesActive = false;
    if (!graphRunning) {
        LxLog::postDebug("LxAMPlayer:  Just moving to started - posting LxActiveEvent\n");
        startFilterGraph();
        graphRunning = 1;
        activeOwed = toStart > 0 ? 1 : 0;
        goesActive = toStart == 0;
    } else if (activeOwed && toStart == 0) {
        activeOwed = 0;
        goesActive = true;
    }
    if (goesActive) {
        postEvent(new (std::nothrow) LxActiveEvent(this));
    }
    pollGraphEvent();
    float rate = 0.0f;
    {
        KtScopedLock guard(signal);
        rate = clock->getRate();
    }
    const unsigned long poll = nextPoll(rate);
    return activeOwed ? std::min(poll, toStart) : poll;
}

void LxAMPlayer::pollGraphEvent() {
    int32_t code = 0;
    LONG_PTR param1 = 0;
    LONG_PTR param2 = 0;
    if (mediaEvent == nullptr || mediaEvent->GetEvent(&code, &param1, &param2, 0) != S_OK) {
        return;
    }
    if (code == EC_COMPLETE) {
        LxLog::postDebug("LxAMPlayer:  received EC_COMPLETE from filterGraph\n");
        pauseFilterGraph();
        KtScopedLock guard(signal);
        if (loop) {
            // The clip restarts inside the graph: the player stays STARTED and its clock runs on.
            guard.unlock();
            reposition(LxTime::zero());
            startFilterGraph();
        } else {
            guard.unlock();
            // A renderer that reached an end while the clip still looped took it for a loop
            // point and waits for more: it hears again that nothing follows.
            for (LxOutputConnectable* out : {audioOutput, videoOutput}) {
                LxInputConnectable* in = out != nullptr ? out->connectedTo() : nullptr;
                if (in != nullptr) {
                    in->notifyEndOfMedia();
                }
            }
            guard.lock();
            ownEndReached = 1;
            graphRunning = 0;
            handleEOM(this);
        }
    }
    mediaEvent->FreeEventParams(code, param1, param2);
}

long LxAMPlayer::setDurationAll(const LxTime& d) {
    // A compressed stream's length is the demuxer's estimate, often tens of milliseconds short.
    // An audio renderer takes a short clip's length for exact: it sizes a one-shot buffer to it
    // and drops what does not fit, cutting the clip's end. Told nothing, it streams the clip and
    // plays every sample the decoder gives.
    const char* content = dataSource != nullptr ? dataSource->getContentName() : nullptr;
    bool exact = false;
    for (const char* name : {"audio/wav", "audio/x-wav", "audio/x-aiff", "audio/aiff"}) {
        exact = exact || (content != nullptr && std::strcmp(content, name) == 0);
    }
    return LxPlayer::setDurationAll(exact ? d : LxTime(-1, 0));
}

unsigned long LxAMPlayer::nextPoll(float rate) {
    // Polled every 100 ms, and sooner when the clip's end is nearer than that: a loop restarts
    // the graph once its end is seen, so every millisecond the end goes unseen is a millisecond
    // the clip runs late from then on.
    LxTime length;
    char paused = 0;
    {
        KtScopedLock guard(signal);
        length = duration;
        paused = suspended;
    }
    LONGLONG position = 0;
    if (!graphRunning || paused || rate <= 0.0f || length < LxTime::zero() || mediaSeeking == nullptr ||
        FAILED(mediaSeeking->GetCurrentPosition(&position))) {
        return kGraphPollMs;
    }
    const double left = static_cast<double>(toGraphTime(length) - position) / 10000.0 / rate;
    if (left >= static_cast<double>(kGraphPollMs)) {
        return kGraphPollMs;
    }
    return left > static_cast<double>(kEndPollMs) ? static_cast<unsigned long>(left) + 1 : kEndPollMs;
}

unsigned long LxAMPlayer::startWait(long stall, float rate) {
    if (stall > 0 && rate > 0.0f) {
        return LxPlayer::startWait(stall, rate);
    }
    // A backward clock before its start: the graph plays forward only, so the wait is (nearly)
    // without end, until a request changes the clock.
    return static_cast<uint32_t>(static_cast<int32_t>(stall));
}

void LxAMPlayer::run() {
    LxLog::postDebug("LxAMPlayer:  in run loop\n");
    graphRunning = 0;
    runLoop();
    LxLog::postDebug("LxAMPlayer:  Goodbye cruel world!\n");
}

long LxAMPlayer::prepareThread() {
    if (FAILED(CoInitialize(nullptr))) {
        return LX_ERR_DSHOW_COM;
    }
    comInitialized = 1;
    LxLog::postDebug("LxAMPlayer: Starting dataSource transfer\n");
    return LX_OK;
}

unsigned long LxAMPlayer::dataPollMs() {
    return 250;
}
