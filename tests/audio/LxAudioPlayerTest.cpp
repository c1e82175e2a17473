// The WAVE player end to end over sox clips: initialisation, every byte delivered, looping,
// seeking, stop time, suspend and resume, the wait before a start, and failures.
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

    // A player over the clip at path, heard by listener from the start, and initialised.
    void openPlayer(const std::string& path, const std::string& contentName = "") {
        source = std::make_unique<GatedFileSource>(path);
        if (!contentName.empty()) {
            source->setContentName(contentName);
        }
        player = new LxAudioPlayer(manager.get(), source.get());
        ASSERT_EQ(LX_OK, player->setEventListener(&listener));
        source->open();
    }
    bool initialised() {
        return lxtest::waitUntil([&] { return player->getState() == LxNode::STOPPED; });
    }
    // A renderer with a pool of frames of frameBytes, connected and owned by the player.
    TestRendererNode* connectRenderer(int frames = 4, int frameBytes = 4096) {
        auto* r = new TestRendererNode(manager.get(), frames, frameBytes);
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
    std::string clip(const std::string& name, int rate, int bits, int channels, double seconds) {
        const std::string path = lxtest::soxClip(dir, name, rate, bits, channels, seconds);
        EXPECT_FALSE(path.empty());
        data = lxtest::dataOf(lxtest::readFile(path));
        return path;
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

// One-second clips: the player initialises by itself, announcing the duration (0 -> 1 s) first,
// delivers exactly the file's samples and stops at the clip's end.
TEST_F(AudioPlayerTest, InitialisesByItselfAndDeliversExactlyTheSamplesOfTheFile) {
    struct Kind {
        int rate, bits, channels;
    };
    for (const Kind& k : {Kind{44100, 16, 2}, Kind{11025, 8, 2}}) {
        SCOPED_TRACE(testing::Message() << k.bits << " bits " << k.channels << " ch");
        openPlayer(clip("k.wav", k.rate, k.bits, k.channels, 1.0));
        ASSERT_TRUE(initialised());
        ASSERT_TRUE(listener.waitForCount(2));
        const auto entries = listener.entries();
        EXPECT_EQ(LxDurationChangedEventType, entries[0].type);
        EXPECT_EQ(LxTime(0, 0), entries[0].oldDuration);
        EXPECT_EQ(LxTime(1, 0), entries[0].newDuration);
        EXPECT_EQ(LxInitializedEventType, entries[1].type);
        EXPECT_EQ(LX_INITIALIZED_AUDIO, entries[1].result);

        TestRendererNode* r = connectRenderer();
        startNow();
        ASSERT_TRUE(pumpUntil(r, [&] { return r->endOfMediaNotes.load() == 1; }));
        r->pull();  // the last frame was queued before the end was announced
        EXPECT_EQ(data.size(), r->received().size());
        EXPECT_EQ(lxtest::checksum(data), lxtest::checksum(r->received()));
        // The renderer drains and reports its own end: the player stops at the clip's end.
        EXPECT_EQ(LxNode::STARTED, player->getState());
        r->postEndOfMedia();
        EXPECT_TRUE(lxtest::waitUntil([&] { return player->getState() == LxNode::STOPPED; }));
        EXPECT_TRUE(lxtest::waitUntil([&] { return listener.count(LxEndOfMediaEventType) == 1; }));
        EXPECT_EQ(LxTime(1, 0), player->getMediaTime());
        delete player;
        player = nullptr;
        listener.clear();
    }
}

TEST_F(AudioPlayerTest, LoopingDeliversTheClipAgainWithoutAGap) {
    openPlayer(clip("loop.wav", 8000, 8, 1, 0.3));
    ASSERT_TRUE(initialised());
    TestRendererNode* r = connectRenderer(4, 1000);
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

// A seek lands on the byte of its time, aligned down to a whole sample frame: floor(176400 x
// 0.123457) = 21777 would split one.
TEST_F(AudioPlayerTest, SetMediaTimeSeeksToTheWholeSampleFrameOfThatTime) {
    struct Seek {
        int rate, bits, channels;
        LxTime at;
        long offset;
    };
    const Seek seeks[] = {{22050, 8, 1, LxTime(0, 500000), 11025}, {44100, 16, 2, LxTime(0, 123457), 21776}};
    for (const Seek& s : seeks) {
        SCOPED_TRACE(s.offset);
        openPlayer(clip("m.wav", s.rate, s.bits, s.channels, 0.6));
        ASSERT_TRUE(initialised());
        EXPECT_EQ(s.offset, player->offsetForTime(s.at));
        EXPECT_EQ(0, player->offsetForTime(LxTime(-1, 0)));
        TestRendererNode* r = connectRenderer();
        ASSERT_EQ(LX_OK, player->setMediaTime(s.at));
        startNow();
        ASSERT_TRUE(pumpUntil(r, [&] { return r->endOfMediaNotes.load() == 1; }));
        r->pull();
        EXPECT_EQ(lxtest::checksum(data.substr(s.offset)), lxtest::checksum(r->received()));
        delete player;
        player = nullptr;
    }
}

TEST_F(AudioPlayerTest, TheStopTimeStopsDelivery) {
    lxtest::requireLog();
    openPlayer(clip("long.wav", 44100, 16, 2, 1.0));
    ASSERT_TRUE(initialised());
    TestRendererNode* r = connectRenderer(4, 4096);
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
    openPlayer(clip("r.wav", 22050, 8, 1, 1.0));
    ASSERT_TRUE(initialised());
    TestRendererNode* r = connectRenderer(4, 4096);
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

TEST_F(AudioPlayerTest, ANegativeLeadIsWaitedForByItsMagnitude) {
    openPlayer(clip("n.wav", 8000, 8, 1, 0.2));
    ASSERT_TRUE(initialised());
    TestRendererNode* r = connectRenderer();
    float rate = -1.0f;
    ASSERT_EQ(LX_OK, player->setRate(&rate));
    ASSERT_EQ(LX_OK, player->setTimeBase(&timeBase));
    timeBase.set(100.0);
    // Backward from 0.3 s ahead: the lead is -300 ms. Read as an unsigned count it would put
    // the thread to sleep for weeks; by its magnitude the thread looks again after 300 ms.
    ASSERT_EQ(LX_OK, player->startAtTime(LxTime(100, 300000)));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(0u, r->received().size());
    timeBase.set(100.5);  // the start time has passed
    EXPECT_TRUE(pumpUntil(
        r, [&] { return !r->received().empty(); }, 10000));
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
        EXPECT_EQ(0u, listener.count(LxInitializedEventType));
        EXPECT_EQ(LxNode::DEAD, player->getState());
        EXPECT_EQ(LX_ERR_PLAYER_DEAD, player->startAtTime(LxTime()));
        delete player;
        player = nullptr;
        listener.clear();
    }
}

TEST_F(AudioPlayerTest, DestroyedWhileStreamingItJoinsItsThreadAndFreesEverything) {
    openPlayer(clip("d.wav", 44100, 16, 2, 1.0));
    ASSERT_TRUE(initialised());
    TestRendererNode* r = connectRenderer();
    player->setLoop(1);
    startNow();
    std::atomic<bool> stop{false};
    std::thread consumer([&] {
        while (!stop.load()) {
            r->pull();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    EXPECT_TRUE(lxtest::waitUntil([&] { return r->received().size() > data.size(); }));
    // Requests from the host thread meanwhile.
    EXPECT_EQ(LX_OK, player->setMediaTime(LxTime(0, 250000)));
    EXPECT_NE(LxTime(-1, 0), player->getMediaTime());
    stop = true;
    consumer.join();
    delete player;  // the renderer, the output and the queued frames go with it
    player = nullptr;
}

}  // namespace
