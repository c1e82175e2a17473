#include "LxManager.h"

#include "LxConnectable.h"
#include "LxFormat.h"
#include "LxPlayer.h"
#include "LxResult.h"

#include "LxLog.h"
#include "TestManager.h"
#include "TestPlayer.h"
#include "TestSupport.h"
#include "graph/LxEventPoster.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

std::vector<std::string> gCalls;  // what the formats and connectables were asked, in order

// A format that agrees only with the formats it was told to accept.
class ProbeFormat : public LxFormat {
  public:
    explicit ProbeFormat(std::string name, std::vector<std::string> accepts = {})
        : LxFormat(LxAudioType, LxFormat::PullStream), name_(std::move(name)), accepts_(std::move(accepts)) {}
    LxFormat* match(LxFormat* other) override {
        const std::string& o = static_cast<ProbeFormat*>(other)->name_;
        gCalls.push_back(name_ + ".match(" + o + ")");
        for (const auto& a : accepts_) {
            if (a == o) {
                return new ProbeFormat(name_ + "+" + o);
            }
        }
        return nullptr;
    }
    const std::string& name() const { return name_; }

  private:
    std::string name_;
    std::vector<std::string> accepts_;
};

/// What both ends of a test connection share: the formats it offers (handed out as a connectable
/// does, in an array the caller deletes) and the end it is connected to.
template <class Base, class Peer>
class FakeEnd : public Base {
  public:
    std::vector<LxFormat*> formats;
    Peer* peer = nullptr;

    LxFormat* getFormat() override { return nullptr; }
    KtResult listFormats(LxFormat**& list, short* count) override {
        list = new LxFormat*[formats.size() + 1];
        std::copy(formats.begin(), formats.end(), list);
        *count = static_cast<short>(formats.size());
        return LX_OK;
    }
    LxNode* getNode() override { return nullptr; }
    void flush() override {}
    KtResult connectTo(Peer* other) override {
        peer = other;
        return LX_OK;
    }
    Peer* connectedTo() override { return peer; }
};

class FakeOutput : public FakeEnd<LxOutputConnectable, LxInputConnectable> {
  public:
    std::string agreed;
    KtResult setFormat(LxFormat* f) override {
        agreed = static_cast<ProbeFormat*>(f)->name();
        return LX_OK;
    }
    KtResult setSuggestedFrameRate(float) override { return LX_ERR_GENERIC; }
    void setActive(char) override {}
    char isActive() override { return 0; }
    LxFrame* getFrameForTime(LxTime, LxTime, LxTime) override { return nullptr; }
    LxFrame* getFrameForTime(LxTime, LxTime) override { return nullptr; }
};

class FakeInput : public FakeEnd<LxInputConnectable, LxOutputConnectable> {
  public:
    long setFormatResult = LX_OK;
    KtResult setFormat(LxFormat*) override { return setFormatResult; }
    LxFrame* getEmptyFrame(const LxTime&) override { return nullptr; }
    void putEmptyFrame(LxFrame*) override {}
    void notifyEndOfMedia() override {}
    void putFrame(LxFrame*) override {}
};

// A player whose outputs the test hands in; it never runs a thread.
class OutputsPlayer : public LxPlayer {
  public:
    explicit OutputsPlayer(LxManager* m) : LxPlayer(m, nullptr) {}
    void add(const char* name, LxOutputConnectable* out) { addOutputConnectable(strdup(name), out); }
    void run() override {}
};

// A manager that counts the default renderers it is asked for and refuses them.
class CountingManager : public lxtest::TestManager {
  public:
    using lxtest::TestManager::TestManager;
    int audioRenderers = 0;
    int videoRenderers = 0;
    long addDefaultAudioRenderer(LxPlayer*) override {
        ++audioRenderers;
        return LX_ERR_GENERIC;
    }
    long addDefaultVideoRenderer(LxPlayer*) override {
        ++videoRenderers;
        return LX_ERR_GENERIC;
    }
    LxFormat* negotiate(LxOutputConnectable* o, LxInputConnectable* i) { return findMatchingFormat(o, i); }
};

class ManagerCoreTest : public ::testing::Test {
  protected:
    void SetUp() override { gCalls.clear(); }
    void TearDown() override { manager->closeManager(); }
    KtDefaultThreadManager threads;
    CountingManager* manager = new CountingManager(&threads);
};

TEST_F(ManagerCoreTest, NegotiationPrefersTheSmallestIndexSumThenTheOutputsPreference) {
    ProbeFormat o0("o0", {"i1"}), o1("o1", {"i0"}), i0("i0"), i1("i1");
    FakeOutput out;
    FakeInput in;
    out.formats = {&o0, &o1};
    in.formats = {&i0, &i1};
    LxFormat* agreed = manager->negotiate(&out, &in);
    ASSERT_NE(nullptr, agreed);
    EXPECT_EQ("o0+i1", static_cast<ProbeFormat*>(agreed)->name()) << "index sum 1, output index 0";
    EXPECT_EQ((std::vector<std::string>{"o0.match(i0)", "i0.match(o0)", "o0.match(i1)"}), gCalls);
    agreed->unref();

    // Only the input side agrees: the input's match is asked second and its answer taken.
    gCalls.clear();
    ProbeFormat p("p"), q("q", {"p"});
    out.formats = {&p};
    in.formats = {&q};
    agreed = manager->negotiate(&out, &in);
    ASSERT_NE(nullptr, agreed);
    EXPECT_EQ("q+p", static_cast<ProbeFormat*>(agreed)->name());
    agreed->unref();

    in.formats = {};
    EXPECT_EQ(nullptr, manager->negotiate(&out, &in));
}

TEST_F(ManagerCoreTest, ConnectSetsTheAgreedFormatOnBothSidesAndStopsAtTheFirstRefusal) {
    ProbeFormat a("a", {"b"}), b("b");
    FakeOutput out;
    FakeInput in;
    out.formats = {&a};
    in.formats = {&b};
    ASSERT_EQ(LX_OK, manager->connect(&out, &in));
    EXPECT_EQ("a+b", out.agreed);
    EXPECT_EQ(&in, out.connectedTo());
    EXPECT_EQ(&out, in.connectedTo());

    // A refusal ends the attempt with its result (the format is released: LeakSanitizer watches).
    out.peer = nullptr;
    in.peer = nullptr;
    in.setFormatResult = LX_ERR_WRONG_FORMAT;
    EXPECT_EQ(LX_ERR_WRONG_FORMAT, manager->connect(&out, &in));
    EXPECT_EQ(nullptr, out.connectedTo());
    ProbeFormat lonely("x");
    out.formats = {&lonely};
    EXPECT_EQ(LX_ERR_NO_COMMON_FORMAT, manager->connect(&out, &in));
}

TEST_F(ManagerCoreTest, ConnectAllUnconnectedSummarises) {
    OutputsPlayer* player = new OutputsPlayer(manager);
    EXPECT_EQ(LX_ERR_CONNECT_OUTPUTS, manager->connectAllUnconnected(player)) << "not registered";
    manager->addPlayer(player);
    EXPECT_EQ(LX_CONNECTED_NO_OUTPUTS, manager->connectAllUnconnected(player));

    FakeOutput audio, video, other;
    FakeInput rendererA, rendererV;
    audio.peer = &rendererA;
    video.peer = &rendererV;
    player->add("Audio", &audio);
    player->add("Video", &video);
    player->add("Subtitles", &other);
    EXPECT_EQ(LX_CONNECTED_AUDIO_VIDEO, manager->connectAllUnconnected(player));
    EXPECT_EQ(0, manager->audioRenderers) << "connected outputs get no second renderer";
    EXPECT_EQ(0, manager->videoRenderers);

    video.peer = nullptr;  // the default video renderer is refused
    EXPECT_EQ(LX_CONNECTED_AUDIO, manager->connectAllUnconnected(player));
    EXPECT_EQ(1, manager->videoRenderers);
    audio.peer = nullptr;
    EXPECT_EQ(LX_ERR_CONNECT_OUTPUTS, manager->connectAllUnconnected(player));
    EXPECT_EQ(1, manager->audioRenderers);
    EXPECT_EQ(LX_OK, manager->destroyPlayer(player));
}

TEST_F(ManagerCoreTest, SettingsAreKeptUntilAudioStarts) {
    EXPECT_EQ(LX_OK, manager->initSubSystem(0));
    EXPECT_EQ(-1, manager->getMaxAudioChannels()) << "automatic until set";
    const struct { short asked, kept; } limits[] = {{0, 1}, {-5, 1}, {8, 8}, {-1, -1}};
    for (const auto& l : limits) {
        EXPECT_EQ(LX_OK, manager->setMaxAudioChannels(l.asked));
        EXPECT_EQ(l.kept, manager->getMaxAudioChannels()) << l.asked;
    }
    // Without a mixer the settings are kept for when audio starts.
    EXPECT_EQ(LX_ERR_NO_MIXER, manager->setAudibleMode(LxAudibleAlways));
    EXPECT_EQ(LxAudibleAlways, manager->getAudibleMode());
    EXPECT_EQ(LX_OK, manager->setStartUpLatency(LxTime(1, 2500000)));
    EXPECT_EQ(LxTime(3, 500000), manager->getStartUpLatency()) << "kept normalised";

    LxWin32Window w1, w2;
    EXPECT_EQ(LX_ERR_GENERIC, manager->setWindow(nullptr));
    EXPECT_EQ(LX_OK, manager->setWindow(&w1));
    EXPECT_EQ(LX_ERR_GENERIC, manager->setWindow(&w2)) << "a window is set once";
}

/// Runs fn in the handler of the first event it is given, on the player's event thread.
class CallingListener : public LxEventListener {
  public:
    std::function<void()> fn;
    std::atomic<bool> inside{false}, done{false};
    void handleEvent(LxEvent*) override {
        if (!inside.exchange(true)) {
            fn();
            done = true;
        }
    }
};

void orAbort(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "hang: %s\n", what);
        std::abort();  // the hung threads would keep the test from ever ending
    }
}

// The host destroys a player while its listener asks the manager about it: the destroy waits for
// the listener's thread, so it must not hold the registry meanwhile.
TEST_F(ManagerCoreTest, ListenerMayAskTheManagerWhileItsPlayerIsDestroyed) {
    lxtest::requireLog();
    lxtest::TestPlayer* p = new lxtest::TestPlayer(manager);
    manager->addPlayer(p);
    CallingListener listener;
    std::atomic<long> verified{0};
    listener.fn = [&] {
        // The player's nodes go (and wait for this thread) once the destroy is well under way.
        lxtest::waitUntil([] { return LxLogSink::contains("LxNode:  destructor\n"); });
        verified = manager->verifyPlayer(p);
    };
    p->setEventListener(&listener);
    p->getState();  // the test player initialises on its first pass
    ASSERT_TRUE(lxtest::waitUntil([&] { return listener.inside.load(); }));
    std::atomic<long> destroyed{0};
    std::thread host([&] { destroyed = manager->destroyPlayer(p); });
    orAbort(lxtest::waitUntil([&] { return destroyed.load() != 0; }, 20000),
            "destroyPlayer and verifyPlayer");
    host.join();
    EXPECT_EQ(LX_OK, destroyed.load());
    EXPECT_EQ(LX_ERR_UNKNOWN_PLAYER, verified.load()) << "unregistered before it goes";
}

// A listener destroys its own player: the player's event thread cannot wait for itself.
TEST_F(ManagerCoreTest, ListenerMayDestroyItsOwnPlayer) {
    const int posters = LxEventPoster::alive();
    lxtest::TestPlayer* p = new lxtest::TestPlayer(manager);
    manager->addPlayer(p);
    CallingListener listener;
    std::atomic<long> destroyed{0};
    listener.fn = [&] { destroyed = manager->destroyPlayer(p); };
    // Initialised before the listener comes, so the destroy runs from the kept events' replay: a host
    // still inside getState() while its own listener frees the player would use freed memory.
    p->getState();
    p->setEventListener(&listener);
    orAbort(lxtest::waitUntil([&] { return listener.done && LxEventPoster::alive() == posters; }, 20000),
            "destroyPlayer from the player's own listener");
    EXPECT_EQ(LX_OK, destroyed.load());
    EXPECT_EQ(LX_ERR_UNKNOWN_PLAYER, manager->verifyPlayer(p));
    EXPECT_EQ(LX_ERR_UNKNOWN_PLAYER, manager->destroyPlayer(p)) << "a second destroy is refused";
}

}  // namespace
