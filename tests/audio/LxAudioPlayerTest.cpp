// The WAVE player over sox clips: looping, stop time, suspend and resume, and failures (what is
// heard from it, seeks included, is the audio renderer's tests' business).
#include "LxAudioPlayer.h"

#include "LxLog.h"
#include "LxResult.h"
#include "TestNodes.h"
#include "TestPlayer.h"
#include "TestRenderer.h"
#include "TestSupport.h"
#include "WaveFiles.h"
#include "platform/kt/KtRecordingThreadManager.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

namespace {

using lxtest::GatedFileSource;
using lxtest::RecordingListener;
using lxtest::TestRendererNode;

class AudioPlayerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!lxtest::haveTool("sox")) {
            GTEST_SKIP() << "sox is not installed (scripts/install-deps.sh test installs it)";
        }
    }
    void TearDown() override {
        delete player;
        player = nullptr;
        EXPECT_EQ(0, threads.liveThreads());
    }

    // A player over the clip at path, heard by listener from the start.
    void openPlayer(const std::string& path, const std::string& contentName = "") {
        source = std::make_unique<GatedFileSource>(path);
        source->setContentName(contentName);
        player = new LxAudioPlayer(manager.get(), source.get());
        ASSERT_EQ(LX_OK, player->setEventListener(&listener));
        source->open();
    }
    // An initialised player over a clip sox makes (its samples in data), with a renderer whose
    // pool holds frames of frameBytes connected to it.
    TestRendererNode* ready(const std::string& name, int rate, int bits, int channels, double seconds,
                            int frameBytes) {
        const std::string path = lxtest::soxClip(dir, name, rate, bits, channels, seconds);
        EXPECT_FALSE(path.empty());
        data = lxtest::dataOf(lxtest::readFile(path));
        openPlayer(path);
        EXPECT_TRUE(lxtest::waitUntil([&] { return player->getState() == LxNode::STOPPED; }));
        auto* r = new TestRendererNode(manager.get(), 4, frameBytes);
        LxOutputConnectable* out = nullptr;
        EXPECT_EQ(LX_OK, player->getOutputConnectable("Audio", &out));
        EXPECT_TRUE(lxtest::connectAudio(out, r));
        return r;
    }
    void startNow() {
        ASSERT_EQ(LX_OK, player->setTimeBase(&timeBase));
        ASSERT_EQ(LX_OK, player->startAtTime(timeBase.getRefTime()));
    }
    // Pulls frames until pred holds (or timeoutMs passes); returns pred's last value.
    bool pumpUntil(TestRendererNode* r, const std::function<bool()>& pred, int timeoutMs = 20000) {
        return lxtest::waitUntil(
            [&] {
                r->pull();
                return pred();
            },
            timeoutMs);
    }
    KtRecordingThreadManager threads;
    lxtest::ScopedTestManager manager{&threads};
    lxtest::StepTimeBase timeBase{manager.get()};
    lxtest::TempDir dir;
    RecordingListener listener;
    std::unique_ptr<GatedFileSource> source;
    LxAudioPlayer* player = nullptr;
    std::string data;
};

TEST_F(AudioPlayerTest, LoopingDeliversTheClipAgainWithoutAGap) {
    TestRendererNode* r = ready("loop.wav", 8000, 8, 1, 0.3, 1000);
    player->setLoop(1);
    startNow();
    const size_t want = data.size() * 5 / 2;
    ASSERT_TRUE(pumpUntil(r, [&] { return r->received().size() >= want; }));
    const std::string got = r->received();
    std::string expected;
    while (expected.size() < got.size() + data.size()) {
        expected += data;
    }
    EXPECT_EQ(lxtest::checksum(expected.substr(0, got.size())), lxtest::checksum(got));
    EXPECT_GE(r->endOfMediaNotes.load(), 2);
    EXPECT_EQ(LxNode::STARTED, player->getState());
}

TEST_F(AudioPlayerTest, TheStopTimeStopsDelivery) {
    lxtest::requireLog();
    TestRendererNode* r = ready("long.wav", 44100, 16, 2, 1.0, 4096);
    timeBase.set(100.0);
    startNow();
    ASSERT_EQ(LX_OK, player->stopAtTime(LxTime(100, 500000)));
    ASSERT_TRUE(pumpUntil(r, [&] { return r->received().size() >= 3 * 4096; }));
    timeBase.set(100.6);  // past the stop time
    ASSERT_TRUE(pumpUntil(r, [&] { return LxLogSink::contains("LxAudioPlayer:  auto-stopping\n"); }));
    r->pull();
    const size_t stoppedAt = r->received().size();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    r->pull();
    EXPECT_EQ(stoppedAt, r->received().size());  // nothing more comes
    EXPECT_LT(stoppedAt, data.size());
    EXPECT_EQ(data.substr(0, stoppedAt), r->received());
    // The player waits for its renderer to reach the stop time too.
    EXPECT_EQ(LxNode::STARTED, player->getState());
    r->postStopAtTime();
    EXPECT_TRUE(lxtest::waitUntil([&] { return player->getState() == LxNode::STOPPED; }));
    EXPECT_TRUE(lxtest::waitUntil([&] { return listener.count(LxStopAtTimeEventType) == 1; }));
}

TEST_F(AudioPlayerTest, ResumingSeeksToTheClocksMediaTime) {
    lxtest::requireLog();
    TestRendererNode* r = ready("r.wav", 22050, 8, 1, 1.0, 4096);
    timeBase.set(100.0);
    startNow();
    // The pool's four frames are filled from the start of the clip before anything is pulled.
    ASSERT_TRUE(
        lxtest::waitUntil([&] { return LxLogSink::count("LxAudioPlayer: sending frame with") >= 4; }));
    player->suspend();
    EXPECT_EQ(1, player->isSuspended());  // answered on the player thread: the suspend is done
    timeBase.set(100.5);                  // the clock is at 0.5 s of media time
    player->resume();
    EXPECT_EQ(0, player->isSuspended());
    ASSERT_TRUE(pumpUntil(r, [&] { return r->endOfMediaNotes.load() == 1; }));
    r->pull();
    EXPECT_EQ(lxtest::checksum(data.substr(0, 4 * 4096) + data.substr(11025)),
              lxtest::checksum(r->received()));
}

TEST_F(AudioPlayerTest, UnsupportedContentAndBadFilesEndInCatastrophicErrors) {
    struct Case {
        std::string bytes;
        const char* contentName;
        KtResult result;
    };
    const std::string good = lxtest::joinWave({{"fmt ", lxtest::pcmFmtBody(1, 8000, 8)}, {"data", "abcd"}});
    const Case cases[] = {
        {good, "audio/WAV", LX_ERR_UNSUPPORTED},  // a content name the player does not take
        {good.substr(0, 30), "", LX_ERR_INVALID_WAVE},
        {lxtest::joinWave({{"fmt ", lxtest::fmtBody(2, 1, 8000, 8000, 1, 8)}, {"data", "abcd"}}), "",
         LX_ERR_UNSUPPORTED},
        {"", "", LX_ERR_WAVE_OPEN},  // no file at all
    };
    int i = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(i);
        const std::string file = dir.file("bad" + std::to_string(i++) + ".wav");
        if (!c.bytes.empty()) {
            lxtest::writeFile(file, c.bytes);
        }
        openPlayer(file, c.contentName);
        ASSERT_TRUE(lxtest::waitUntil([&] { return listener.count(LxCatastrophicErrorEventType) == 1; }));
        EXPECT_EQ(c.result, listener.entries().back().result);
        delete player;
        player = nullptr;
        listener.clear();
    }
}

}  // namespace
