// The layer's plumbing: the simulated graph's events and the decoder class. (Names that are not
// ASCII reach the graph through the player's tests, whose clips are named so.)
#include "LxPlatformGraph.h"
#include "platform/dshow/LxpGraphBase.h"
#include "platform/dshow/LxpSimGraph.h"

#include "GraphKit.h"

namespace {

using namespace lxp;

class GraphLibrary : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(SUCCEEDED(CoInitialize(nullptr))); }
    void TearDown() override {
        LxPlatformGraph::useGStreamer();
        CoUninitialize();
    }
    static HRESULT create(const CLSID& clsid, const IID& iid, IUnknown** out) {
        return CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, iid, reinterpret_cast<void**>(out));
    }
};

// (Registering the filter library, and no graph without GStreamer, are the manager's factory tests'.)
TEST_F(GraphLibrary, TheSimulatedGraphPollsEventsAndTakesTheDecoderOnce) {
    // The simulated backend does not need GStreamer; its events are polled with or without a wait.
    LxPlatformGraph::useSimulated();
    lxtest::GraphRig rig;
    ASSERT_TRUE(rig.create());
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(E_ABORT, rig.nextEvent(0));
    EXPECT_EQ(E_ABORT, rig.nextEvent(100));
    EXPECT_GE(lxtest::msSince(start), 90);
    EXPECT_EQ(VFW_E_WRONG_STATE, rig.control->Run()) << "nothing rendered yet";

    // The decoder filter the player adds for MPEG audio: a filter without pins, in the graph once.
    IBaseFilter* decoder = nullptr;
    ASSERT_EQ(S_OK, create(CLSID_MPEGLayer3Codec, IID_IBaseFilter, reinterpret_cast<IUnknown**>(&decoder)));
    EXPECT_EQ(S_OK, rig.graph->AddFilter(decoder, L"MPEG Layer 3 Codec"));
    EXPECT_EQ(E_INVALIDARG, rig.graph->AddFilter(decoder, L"again"));
    IEnumPins* pins = nullptr;
    IPin* pin = nullptr;
    decoder->EnumPins(&pins);
    EXPECT_EQ(S_FALSE, pins->Next(1, &pin, nullptr));
    pins->Release();
    EXPECT_EQ(S_OK, rig.graph->RemoveFilter(decoder));
    decoder->Release();
}

}  // namespace
