// The layer's plumbing: registering the filter library, creating graphs by class id with and
// without GStreamer, the decoder class and name conversions.
#include "LxPlatformGraph.h"
#include "platform/dshow/LxpGraphBase.h"
#include "platform/dshow/LxpGraphConfig.h"
#include "platform/dshow/LxpSimGraph.h"

#include "GraphKit.h"

namespace {

using namespace lxp;

class GraphLibrary : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(SUCCEEDED(CoInitialize(nullptr))); }
    void TearDown() override {
        graphtest::refuseFilterRegistration(false);
        graphtest::simulateGStreamerMissing(false);
        LxPlatformGraph::useGStreamer();
        CoUninitialize();
    }
    static HRESULT create(const CLSID& clsid, const IID& iid, IUnknown** out) {
        return CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, iid, reinterpret_cast<void**>(out));
    }
};

// Runs first in this executable: nothing has registered the filter library yet.
TEST_F(GraphLibrary, TheFilterLibraryRegistersItsRenderersOrRefusesCleanly) {
    IUnknown* object = nullptr;
    EXPECT_EQ(REGDB_E_CLASSNOTREG, create(CLSID_LxAudioRenderer, IID_ILxRenderer, &object));
    KtModule module = KtWin32Library::LoadWin32Library("qlm13_dshow.dll");
    ASSERT_NE(nullptr, module) << "libqlm13_dshow.so beside liblorvex.so";
    typedef HRESULT (*EntryFn)();
    EntryFn reg = reinterpret_cast<EntryFn>(KtWin32Library::GetProcAddress(module, "DllRegisterServer"));
    ASSERT_NE(nullptr, reg);
    graphtest::refuseFilterRegistration(true);
    EXPECT_EQ(static_cast<HRESULT>(0x80040201u), reg());
    EXPECT_FALSE(isClassRegistered(CLSID_LxAudioRenderer));
    EXPECT_FALSE(isClassRegistered(CLSID_LxVideoRenderer));
    graphtest::refuseFilterRegistration(false);
    EXPECT_EQ(S_OK, reg());
    KtWin32Library::FreeLibrary(module);

    // The factories outlive the loader's handle.
    for (const CLSID* clsid : {&CLSID_LxAudioRenderer, &CLSID_LxVideoRenderer}) {
        ASSERT_EQ(S_OK, create(*clsid, IID_ILxRenderer, &object));
        IBaseFilter* filter = nullptr;
        EXPECT_EQ(S_OK, object->QueryInterface(IID_IBaseFilter, reinterpret_cast<void**>(&filter)));
        filter->Release();
        object->Release();
    }
}

TEST_F(GraphLibrary, AGraphExistsExactlyWhenTheChosenBackendCanRun) {
    IUnknown* graph = nullptr;
    if (LxPlatformGraph::gstreamerAvailable()) {
        ASSERT_EQ(S_OK, create(CLSID_FilterGraph, IID_IGraphBuilder, &graph));
        graph->Release();
    }
    graphtest::simulateGStreamerMissing(true);
    EXPECT_FALSE(LxPlatformGraph::gstreamerAvailable());
    EXPECT_EQ(REGDB_E_CLASSNOTREG, create(CLSID_FilterGraph, IID_IGraphBuilder, &graph));
    EXPECT_EQ(nullptr, graph);
    EXPECT_EQ(REGDB_E_CLASSNOTREG, create(CLSID_MPEGLayer3Codec, IID_IBaseFilter, &graph));

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
