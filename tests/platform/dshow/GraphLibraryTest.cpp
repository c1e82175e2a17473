// The layer's plumbing: the simulated graph's events and the decoder class, and name conversions.
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

TEST(GraphText, NamesSurviveTheRoundTripThroughWideStrings) {
    const char* names[] = {"/tmp/clip.mpg", "/tmp/K\xC3\xA4se \xE2\x82\xAC.mov", "/tmp/bad\xFF\xC3(.mp3", ""};
    for (const char* name : names) {
        SCOPED_TRACE(name);
        const int32_t wideLength = MultiByteToWideChar(CP_ACP, 0, name, -1, nullptr, 0);
        ASSERT_GT(wideLength, 0);
        std::vector<WCHAR> wide(static_cast<size_t>(wideLength));
        ASSERT_EQ(wideLength, MultiByteToWideChar(CP_ACP, 0, name, -1, wide.data(), wideLength));
        EXPECT_EQ(0, wide.back());
        char back[256];
        int32_t usedDefault = -1;
        const int32_t n =
            WideCharToMultiByte(CP_ACP, 0, wide.data(), -1, back, sizeof back, nullptr, &usedDefault);
        ASSERT_EQ(static_cast<int32_t>(std::strlen(name)) + 1, n);
        EXPECT_STREQ(name, back);
        EXPECT_EQ(0, usedDefault);
    }
    WCHAR euro[2];
    EXPECT_EQ(1, MultiByteToWideChar(CP_ACP, 0, "\xE2\x82\xAC", 3, euro, 2));
    EXPECT_EQ(0x20AC, euro[0]);
    EXPECT_EQ(0, MultiByteToWideChar(CP_ACP, 0, "abc", -1, euro, 2)) << "too small a buffer";
    EXPECT_EQ(0, MultiByteToWideChar(1252, 0, "abc", -1, nullptr, 0)) << "only the ANSI page and UTF-8";

    WCHAR fixed[4];
    copyName(fixed, 4, L"LxAudioRenderer");
    EXPECT_EQ(std::wstring(L"LxA"), std::wstring(fixed));
    EXPECT_EQ(std::string("LxVideoRenderer"), narrowName(L"LxVideoRenderer"));
}

}  // namespace
