// The MIDI player on a real manager over the simulated MIDI device in virtual time: what the device
// plays and when, gain, rate, seeking, looping, the channel on a half-duplex card, bad files, failures.
#include "LxWin32MidiPlayer.h"

#include "FakeAudioPort.h"
#include "LxPlatformMidi.h"
#include "LxPlatformProbe.h"
#include "LxResult.h"
#include "LxTimeBase.h"
#include "LxVersionDetection.h"
#include "LxWin32Manager.h"
#include "LxWin32Mixer.h"
#include "MidiFiles.h"
#include "TestNodes.h"
#include "TestSupport.h"
#include "WaveFiles.h"
#include "platform/LxpDuplex.h"
#include "platform/file/LxpFile.h"
#include "platform/midi/LxpMidi.h"
#include "platform/midi/LxpMidiSim.h"
#include "platform/sound/LxpSimulatedSound.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <map>
#include <memory>
#include <thread>

namespace {

using namespace miditest;
namespace midisim = lxp::midisim;
using Message = midisim::Message;

/// n notes rising from key, each lasting half ticks with half ticks of rest between.
std::string notes(int n, uint32_t half, int channel = 0, int key = 60) {
    std::string out;
    for (int i = 0; i < n; ++i) {
        out += noteOn(i == 0 ? 0 : half, channel, key + i) + noteOff(half, channel, key + i);
    }
    return out;
}

struct Clip {
    std::unique_ptr<lxtest::GatedFileSource> source;  // opened once the listener is attached
    LxPlayer* player = nullptr;
    LxWin32MidiPlayer* midi = nullptr;
    lxtest::RecordingListener events;
};

class MidiPlayerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        lxp::simsound::use();
        LxPlatformSetMidiBackend(LX_MIDI_SIMULATED);
        midisim::reset();
        lxp::duplex::reset();
        LxPlatformProbe::useSimulated(LxSimulatedPlatform());
        LxResetDXAndWin32VersionCache();
        LxWin32Mixer::resetClassStateForTests();
        LxWin32Manager::resetExclusivityForTests();
    }
    void TearDown() override {
        for (auto& c : clips_) {
            if (c->player != nullptr) {
                manager_->destroyPlayer(c->player);
            }
        }
        clips_.clear();
        if (manager_ != nullptr) {
            manager_->closeManager();
        }
        EXPECT_EQ(0, lxp::midiLiveDeviceThreads()) << "every stream is closed";
        EXPECT_EQ(0, lxp::filetest::openHandles()) << "every file is closed";
        lxp::duplex::reset();
        LxPlatformProbe::useSystem();
        LxPlatformSetMidiBackend(LX_MIDI_FLUIDSYNTH);
    }

    void startManager(bool halfDuplex = false) {
        lxp::duplex::setHalfDuplex(halfDuplex);
        manager_ = LxManager::createManager(&threads_);
        manager_->setWindow(&window_);
        ASSERT_EQ(LX_OK, manager_->initSubSystem(INIT_TIMERS | INIT_AUDIO));
        midisim::clearMessages();
    }

    std::string file(const std::string& name, const std::string& bytes) {
        const std::string path = dir_.file(name);
        EXPECT_TRUE(lxtest::writeFile(path, bytes));
        return path;
    }

    /// Creates the player through the factory and waits until it has loaded (or died).
    Clip& load(const std::string& path) {
        clips_.push_back(std::make_unique<Clip>());
        Clip& c = *clips_.back();
        c.source = std::make_unique<lxtest::GatedFileSource>(path);
        EXPECT_EQ(LX_OK, manager_->createPlayer(c.source.get(), &c.player));
        c.midi = dynamic_cast<LxWin32MidiPlayer*>(c.player);
        EXPECT_NE(nullptr, c.midi);
        c.player->setEventListener(&c.events);
        c.source->open();
        EXPECT_TRUE(lxtest::waitUntil([&] {
            return c.events.count(LxInitializedEventType) + c.events.count(LxCatastrophicErrorEventType) > 0;
        }));
        c.player->setTimeBase(manager_->getMasterTimeBase());
        return c;
    }

    /// Messages since index from: those of the stream buffers, or those sent directly whose
    /// status and first data byte match kind (0x07B0 channel volume, 0x7BB0 all notes off).
    static std::vector<Message> since(size_t from, bool fromStream, uint32_t kind = 0) {
        const std::vector<Message> all = midisim::messages();
        std::vector<Message> out;
        for (size_t i = from; i < all.size(); ++i) {
            if (all[i].fromStream == fromStream && (fromStream || (all[i].message & 0xFFF0) == kind)) {
                out.push_back(all[i]);
            }
        }
        return out;
    }
    static std::vector<Message> volumes(size_t from) { return since(from, false, 0x07B0); }
    /// The stream's note-ons on channel since index from.
    static std::vector<Message> onsets(size_t from, int channel = 0) {
        std::vector<Message> out;
        for (const Message& m : since(from, true)) {
            if ((m.message & 0xFF) == 0x90u + channel && (m.message >> 16) != 0) {
                out.push_back(m);
            }
        }
        return out;
    }
    static size_t mark() { return midisim::messages().size(); }

    /// Starts the player now and waits until the device plays: the device time of the start.
    int64_t start(Clip& c) {
        const size_t from = mark();
        EXPECT_EQ(LX_OK, c.player->startAtTime(manager_->getMasterTimeBase()->getRefTime()));
        EXPECT_TRUE(lxtest::waitUntil([&] { return volumes(from).size() >= 16; }));
        return midisim::nowMicros();
    }
    KtDefaultThreadManager threads_;
    LxWin32Window window_;
    LxManager* manager_ = nullptr;
    lxtest::TempDir dir_;
    std::vector<std::unique_ptr<Clip>> clips_;
};

TEST_F(MidiPlayerTest, GainScalesEveryChannelVolumeAndIsCheckedForRange) {
    startManager();
    // Channels 0 and 9 only; channel 0 turns its volume to 90 at 2.5 s, after the first two buffers.
    Clip& c =
        load(file("two.mid", smf(1, 96,
                                 {track(tempoEvent(0, 500000) + notes(2, 96) + controller(192, 0, 7, 90) +
                                        noteOn(0, 0, 64) + noteOff(96, 0, 64)),
                                  track(noteOn(0, 9, 36) + noteOff(96, 9, 36))})));
    EXPECT_EQ(3.0, c.player->getDuration().getValue());
    EXPECT_EQ(LX_ERR_GENERIC, c.midi->setGain(1.5f));
    EXPECT_EQ(LX_ERR_GENERIC, c.midi->setGain(-0.1f));
    EXPECT_EQ(1.0f, c.midi->getGain()) << "out of range changes nothing";
    EXPECT_EQ(LX_ERR_GENERIC, c.midi->setGain(0.5f)) << "stored for the next start";
    EXPECT_EQ(0.5f, c.midi->getGain());

    auto expectVolumes = [](size_t from, int ch0, int ch9) {  // every channel's, once
        std::map<int, int> sent;
        for (const Message& m : volumes(from)) {
            EXPECT_EQ(0u, sent.count(m.message & 0x0F));
            sent[m.message & 0x0F] = m.message >> 16;
        }
        for (int ch = 0; ch < 16; ++ch) {
            EXPECT_EQ(ch == 0 ? ch0 : ch == 9 ? ch9 : 0, sent[ch]) << "channel " << ch;
        }
    };
    size_t from = mark();
    start(c);
    expectVolumes(from, 50, 50);
    midisim::advanceMs(2600);
    const std::vector<Message> played = since(from, true);
    EXPECT_TRUE(std::any_of(played.begin(), played.end(), [](const Message& m) {
        return m.message == shortMsg(0xB0, 7, 45);
    })) << "the file's 90 reaches the device as 45";

    from = mark();
    EXPECT_EQ(LX_OK, c.midi->setGain(1.0f));
    ASSERT_TRUE(lxtest::waitUntil([&] { return volumes(from).size() >= 16; }));
    expectVolumes(from, 90, 100);
}

// Forty notes, then an event cut short: what comes before the damage plays, then the clip ends.
TEST_F(MidiPlayerTest, RateChangeWhilePlayingReachesTheDeviceWithTheNextBuffer) {
    startManager();
    Clip& c = load(
        file("even.mid", smf(0, 96, {track(tempoEvent(0, 500000) + notes(40, 24) + "\x00\x90\x3C", false)})));
    const size_t from = mark();
    start(c);
    midisim::advanceMs(2000);
    float rate = 2.0f;
    ASSERT_EQ(LX_OK, c.player->setRate(&rate));
    ASSERT_TRUE(lxtest::waitUntil([&] { return c.midi->getTempoScale() == 2.0f; }));
    midisim::advanceMs(8000);
    ASSERT_TRUE(lxtest::waitUntil([&] { return c.events.count(LxEndOfMediaEventType) == 1; }));
    // Every gap between onsets is 250 ms before the change and 125 ms after it, but one.
    const std::vector<Message> on = onsets(from);
    ASSERT_EQ(40u, on.size());
    std::vector<int64_t> gaps(1, 0);  // in ms
    for (size_t i = 1; i < on.size(); ++i) {
        gaps.push_back((on[i].playMicros - on[i - 1].playMicros + 500) / 1000);
    }
    const long k = std::find(gaps.begin(), gaps.end(), 125) - gaps.begin();
    EXPECT_GE(k, 9) << "the rate was changed after the note at 2 s";
    EXPECT_LE(k, 12) << "within two buffers";
    EXPECT_GE(std::count(gaps.begin() + 1, gaps.begin() + k, 250), k - 2);
    EXPECT_EQ(40 - k, std::count(gaps.begin() + k, gaps.end(), 125));
}

std::string longNoteClip() {
    // A 5-second note, then short ones; the stream buffers reach at most into the third.
    return smf(0, 96,
               {track(tempoEvent(0, 500000) + noteOn(0, 0, 60) + noteOff(960, 0, 60) + noteOn(0, 0, 62) +
                      noteOff(96, 0, 62) + noteOn(0, 0, 64) + noteOff(96, 0, 64) + noteOn(0, 0, 67) +
                      noteOff(96, 0, 67))});
}

// On a card that cannot run MIDI beside sampled audio, sampled audio takes the channel from the music
// and gives it back, then does so on another thread while the player stops, starts and changes gain
// and the device returns buffers: one lock order for all (ThreadSanitizer checks; a deadlock hangs).
TEST_F(MidiPlayerTest, HalfDuplexCardSampledAudioTakesTheChannelAndGivesItBack) {
    startManager(true);
    Clip& c = load(file("long.mid", longNoteClip()));
    c.player->setLoop(1);
    start(c);
    midisim::advanceMs(500);
    lxtest::FakeAudioPort sampled(LxRawChannel, 1.0f);
    const LxTime now = manager_->getMasterTimeBase()->getRefTime();
    ASSERT_EQ(LX_OK, manager_->requestPortChannel(&sampled, now));
    ASSERT_EQ(LX_OK, manager_->updatePortChannel(&sampled, now, 1));  // waits: RAW is not running
    EXPECT_EQ(1, lxp::duplex::openCount(lxp::duplex::Midi));
    size_t from = mark();
    ASSERT_EQ(LX_OK, manager_->updatePortChannel(&sampled, now, 1));  // pre-empts the music
    EXPECT_EQ(1, sampled.hasChannel());
    EXPECT_EQ(0, c.midi->hasChannel());
    EXPECT_GE(since(from, false, 0x7BB0).size(), 16u) << "all notes off";
    EXPECT_EQ(0, lxp::duplex::openCount(lxp::duplex::Midi)) << "closed before sampled audio opened";
    EXPECT_EQ(1, lxp::duplex::openCount(lxp::duplex::SampledAudio));
    midisim::advanceMs(1000);
    EXPECT_TRUE(since(from, true).empty());

    from = mark();
    manager_->releasePortChannel(&sampled);
    EXPECT_EQ(1, c.midi->hasChannel());
    EXPECT_EQ(0, lxp::duplex::openCount(lxp::duplex::SampledAudio));
    EXPECT_EQ(16u, volumes(from).size()) << "started again inside the grant";
    const int64_t t0 = midisim::nowMicros();
    midisim::advanceMs(10);
    const std::vector<Message> played = since(from, true);
    ASSERT_FALSE(played.empty());
    EXPECT_EQ(shortMsg(0x90, 60, 100), played.front().message)
        << "the long note held across the clock's point";
    EXPECT_EQ(t0, played.front().playMicros);

    auto takeAndGiveBack = [this, &sampled] {
        const LxTime now = manager_->getMasterTimeBase()->getRefTime();
        manager_->requestPortChannel(&sampled, now);
        manager_->updatePortChannel(&sampled, now, 1);
        manager_->updatePortChannel(&sampled, now, 1);
        manager_->releasePortChannel(&sampled);
    };
    std::atomic<bool> done{false};
    std::thread arbitration([&] {
        for (int i = 0; i < 25; ++i) {
            takeAndGiveBack();
        }
        done = true;
    });
    for (int i = 0; !done; ++i) {
        midisim::advanceMs(7);
        c.midi->setGain(i % 2 ? 0.5f : 1.0f);
        if (i % 7 == 0) {
            c.player->stop();
            c.player->startAtTime(manager_->getMasterTimeBase()->getRefTime());
        }
    }
    arbitration.join();
    // A player that asked to sound while sampled audio held the card waits for a sampled port to
    // let go; one more round, after the player has asked, settles who holds the channel.
    c.player->stop();
    c.player->startAtTime(manager_->getMasterTimeBase()->getRefTime());
    c.player->getState();  // answered on the pass after the one that asked the manager
    takeAndGiveBack();
    EXPECT_EQ(1, c.midi->hasChannel()) << "the channel came back";
    EXPECT_EQ(LxNode::STARTED, c.player->getState());
    from = mark();
    ASSERT_TRUE(lxtest::waitUntil([&] {
        midisim::advanceMs(10);
        return !since(from, true).empty();
    })) << "still playing";
    c.player->stop();
}

TEST_F(MidiPlayerTest, FilesThatCannotBeOpenedFailWith0x433AndLeakNothing) {
    startManager();
    const std::string good =
        smf(1, 96,
            {track(tempoEvent(0, 500000) + noteOn(0, 0, 60) + noteOff(96, 0, 60)), track(noteOn(0, 1, 64))});
    std::vector<std::string> bad;
    for (size_t cut = 0; cut < good.size(); ++cut) {
        bad.push_back(good.substr(0, cut));
    }
    // The first track claiming more bytes than the file holds, or fewer than it has (the next
    // chunk is not where it says); a header shorter than its 6 bytes.
    bad.push_back(good.substr(0, 21) + '\x40' + good.substr(22));
    bad.push_back(good.substr(0, 18) + be32(4) + good.substr(22));
    bad.push_back(good.substr(0, 7) + '\x05' + good.substr(8));
    bad.push_back("RIFF" + good.substr(4));
    for (int division : {0, 0xE700, 0xE928}) {  // none, no ticks per frame, 23 frames a second
        bad.push_back(smf(0, division, {track(noteOn(0, 0, 60))}));
    }
    for (size_t i = 0; i < bad.size(); ++i) {
        SCOPED_TRACE(i);
        Clip& c = load(file("bad" + std::to_string(i) + ".mid", bad[i]));
        const auto entries = c.events.entries();
        ASSERT_FALSE(entries.empty());
        EXPECT_EQ(LxCatastrophicErrorEventType, entries.back().type);
        EXPECT_EQ(LX_ERR_MIDI_OPEN, entries.back().result);
    }
    Clip& missing = load(dir_.file("none.mid"));
    EXPECT_EQ(LX_ERR_MIDI_OPEN, missing.events.entries().back().result);
}

// Two players at once, each under its own manager as two hosts of one process would have them, with
// tempo events carried over between buffers: each stream carries exactly its own clip at its times.
TEST_F(MidiPlayerTest, TwoPlayersAtOnceEachPlayTheirOwnClip) {
    startManager();
    midisim::setMaxOpenStreams(2);
    LxManager* managers[2] = {manager_, LxManager::createManager(&threads_)};
    managers[1]->setWindow(&window_);
    ASSERT_EQ(LX_OK, managers[1]->initSubSystem(INIT_TIMERS | INIT_AUDIO));
    std::string clips[2];
    for (int i = 0; i < 120; ++i) {  // channel 0 every 50 ms, channel 1 every 30 ms
        clips[0] += tempoEvent(i == 0 ? 0 : 10, 500000 + i % 2) + noteOn(0, 0, 40 + i % 40);
        clips[1] += noteOn(i == 0 ? 0 : 6, 1, 80 - i % 40);
    }
    Clip* c[2];
    const size_t from = mark();
    for (int k = 0; k < 2; ++k) {
        manager_ = managers[k];
        c[k] = &load(file("c" + std::to_string(k) + ".mid", smf(0, 96, {track(clips[k])})));
        start(*c[k]);
    }
    const int64_t t0 = midisim::nowMicros();
    midisim::advanceMs(7000);
    for (int k = 0; k < 2; ++k) {
        SCOPED_TRACE(k);
        EXPECT_TRUE(lxtest::waitUntil([&] { return c[k]->events.count(LxEndOfMediaEventType) == 1; }));
        const RefFile ref = readReference(smf(0, 96, {track(clips[k])}));
        const std::vector<Message> played = onsets(from, k);
        ASSERT_EQ(ref.events.size(), played.size());
        for (size_t i = 0; i < played.size(); ++i) {
            EXPECT_EQ(ref.events[i].message, played[i].message) << i;
            EXPECT_NEAR(ref.seconds(ref.events[i].tick), (played[i].playMicros - t0) / 1e6, 2e-3) << i;
        }
    }
    managers[1]->destroyPlayer(c[1]->player);
    c[1]->player = nullptr;
    managers[1]->closeManager();
    manager_ = managers[0];
}

// A clip joined late starts with what the music set before the point (program, controllers, wheel,
// pressure) and the notes held across it, then goes on at the tempo map's times: set while stopped or
// playing, at two rates, wrapped by the loop; past the end a clip ends at once.
TEST_F(MidiPlayerTest, AClipJoinedLatePlaysTheMusicAtThatPointWithWhatCameBeforeChased) {
    startManager();
    const std::string bytes =
        smf(1, 96,
            {track(tempoEvent(0, 500000)),  // 250000 from tick 192 in the next track: 3 s long
             track(std::string("\x00\xC0\x05", 3) + controller(0, 0, 7, 90) + controller(0, 0, 10, 30) +
                   std::string("\x00\xE0\x00\x50\x00\xD0\x3C", 7) + noteOn(0, 0, 60) +
                   tempoEvent(192, 250000) + controller(96, 0, 7, 80) + noteOff(672, 0, 60)),
             track(notes(20, 24, 1, 70))});
    const RefFile ref = readReference(bytes);
    Clip& c = load(file("late.mid", bytes));
    ASSERT_DOUBLE_EQ(3.0, c.player->getDuration().getValue());
    const struct {
        double set;  // the media time set
        bool loop, whilePlaying;
        float rate;
        int64_t tick;     // where the music goes on (-1: past the end)
        int volume = 80;  // channel 0's at the point
    } rows[] = {
        {2.01, false, false, 1.0f, 580},     // 1 s + 387.84 ticks of 2604 us
        {0.6, false, false, 1.0f, 116, 90},  // 115.2 ticks of 5208 us
        {2.01, false, true, 1.0f, 580},     {2.01, false, false, 2.0f, 580},
        {5.01, true, false, 1.0f, 580},  // 3 s later, wrapped
        {4.0, false, false, 1.0f, -1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        const int held = 70 + static_cast<int>(row.tick / 48);  // channel 1's note cut by the point
        const std::vector<uint32_t> chased = {shortMsg(0xC0, 5),        shortMsg(0xB0, 7, row.volume),
                                              shortMsg(0xB0, 10, 30),   shortMsg(0xE0, 0, 0x50),
                                              shortMsg(0xD0, 0x3C),     shortMsg(0x90, 60, 100),
                                              shortMsg(0x91, held, 100)};
        float rate = row.rate;
        ASSERT_EQ(LX_OK, c.player->setRate(&rate));
        c.player->setLoop(row.loop ? 1 : 0);
        const size_t eoms = c.events.count(LxEndOfMediaEventType);
        if (row.whilePlaying) {
            start(c);
            midisim::advanceMs(300);
        }
        const size_t from = mark();
        const auto before = std::chrono::steady_clock::now();
        ASSERT_EQ(LX_OK, c.player->setMediaTime(LxTime(row.set)));
        const int64_t t0 = row.whilePlaying ? midisim::nowMicros() : start(c);
        const double media = c.player->getMediaTime().getValue();
        const std::chrono::duration<double> waited = std::chrono::steady_clock::now() - before;
        if (row.tick < 0) {
            midisim::advanceMs(10);
            ASSERT_TRUE(lxtest::waitUntil([&] { return c.events.count(LxEndOfMediaEventType) == eoms + 1; }));
            EXPECT_TRUE(since(from, true).empty());
            EXPECT_DOUBLE_EQ(3.0, c.player->getMediaTime().getValue());
            continue;
        }
        const double at = std::fmod(row.set, 3.0);
        EXPECT_GE(media, at - 1e-6) << "the media time is what is heard";
        EXPECT_LE(media, at + (waited.count() + 0.01) * row.rate);
        midisim::advanceMicros(static_cast<int64_t>((3.0 - at) / row.rate * 1e6));  // to the end
        if (!row.loop) {  // it ends there, before the stop below can race its end
            midisim::advanceMs(10);
            ASSERT_TRUE(lxtest::waitUntil([&] { return c.events.count(LxEndOfMediaEventType) == eoms + 1; }));
        }
        std::vector<Message> played = since(from, true);
        size_t i = 0;
        for (; i < chased.size() && i < played.size(); ++i) {
            EXPECT_EQ(chased[i], played[i].message) << i;
            EXPECT_EQ(t0, played[i].playMicros) << i;
        }
        for (const RefEvent& e : ref.events) {
            const double due = (ref.seconds(e.tick) - ref.seconds(row.tick)) / row.rate;
            if (e.tick >= row.tick && due <= 0.5) {
                ASSERT_LT(i, played.size());
                EXPECT_EQ(e.message, played[i].message) << i;
                EXPECT_NEAR(due, (played[i].playMicros - t0) / 1e6, 1e-3) << i;
                ++i;
            }
        }
        if (row.loop) {  // the next pass plays the clip from its first event, the last note ended
            ASSERT_TRUE(lxtest::waitUntil([&] { return volumes(from).size() >= 16 * 2; }));
            const int64_t t1 = midisim::nowMicros();
            midisim::advanceMs(10);
            played = since(from, true);
            const auto next = std::find_if(played.begin() + i, played.end(),
                                           [](const Message& m) { return m.message == shortMsg(0xC0, 5); });
            ASSERT_NE(played.end(), next);
            // The next pass starts at the clip's end: on time when the player saw the end coming, or
            // as soon as it noticed the end when the device's clock jumped past it (a loaded machine).
            const int64_t end = t0 + static_cast<int64_t>(std::llround((3.0 - at) / row.rate * 1e6));
            EXPECT_GE(next->playMicros, end - 1000);
            EXPECT_LE(next->playMicros, t1);
            EXPECT_EQ(shortMsg(0x80, 60), std::prev(next)->message);
            EXPECT_EQ(eoms, c.events.count(LxEndOfMediaEventType)) << "a looping clip does not end";
        }
        c.player->stop();
    }
}

// Tracks without an end-of-track event, SMPTE time (tempo events ignored): each note sounds at its
// time, from the start at rate 0.5 and from 2.25 notes in at rate 2; the clip ends with its last note.
TEST_F(MidiPlayerTest, FilesWithoutEndOfTrackOrInSmpteTimePlayAtTheirTimeAndEnd) {
    startManager();
    const struct {
        std::string file;
        double noteSeconds;  // from one onset to the next
    } cases[] = {
        {smf(1, 96, {track(tempoEvent(0, 500000) + notes(8, 24), false), track(noteOn(0, 1, 40), false)}),
         0.25},
        {smf(0, 0xE728, {track(tempoEvent(0, 250000) + notes(8, 100), false)}), 0.2},  // 25 fps x 40
        {smf(0, 0xE304, {track(notes(8, 16))}), 32 * 1.001001 / 120},                  // 29.97 fps x 4
        {smf(0, 0xE850, {track(notes(8, 96))}), 0.1},                                  // 24 fps x 80
    };
    for (const auto& row : cases) {
        Clip& c = load(file("t" + std::to_string(&row - cases) + ".mid", row.file));
        EXPECT_NEAR(7.5 * row.noteSeconds, c.player->getDuration().getValue(), 1e-3);
        for (const double at : {0.0, 2.25}) {
            SCOPED_TRACE(testing::Message() << "row " << &row - cases << " from note " << at);
            float rate = at == 0.0 ? 0.5f : 2.0f;
            ASSERT_EQ(LX_OK, c.player->setRate(&rate));
            ASSERT_EQ(LX_OK, c.player->setMediaTime(LxTime(at * row.noteSeconds)));
            const size_t from = mark();
            const size_t eoms = c.events.count(LxEndOfMediaEventType);
            EXPECT_EQ(0, c.midi->isSounding());
            const int64_t t0 = start(c);
            // The end is reported once the last buffer is back, which is when its last event played.
            midisim::advanceMicros(static_cast<int64_t>((7.5 - at) * row.noteSeconds / rate * 1e6) - 1000);
            EXPECT_EQ(eoms, c.events.count(LxEndOfMediaEventType));
            EXPECT_EQ(1, c.midi->isSounding());
            midisim::advanceMs(2);
            ASSERT_TRUE(lxtest::waitUntil([&] { return c.events.count(LxEndOfMediaEventType) == eoms + 1; }));
            EXPECT_EQ(LxNode::STOPPED, c.player->getState());
            EXPECT_TRUE(lxtest::waitUntil([&] { return c.midi->isSounding() == 0; }))
                << "no tail to wait for";
            const std::vector<Message> on = onsets(from);
            const int first = static_cast<int>(at);
            ASSERT_EQ(static_cast<size_t>(8 - first), on.size());
            for (size_t i = 0; i < on.size(); ++i) {
                EXPECT_NEAR(std::max(0.0, first + i - at) * row.noteSeconds / rate,
                            (on[i].playMicros - t0) / 1e6, 1e-3)
                    << i;
                EXPECT_EQ(on[i].dueMicros, on[i].playMicros) << "the device never ran dry, note " << i;
            }
        }
    }
}

// The duration is the last event of any track at the tempo map's time (the file's tempo at tick 0
// in place of the default), read past a longer header, running status, sysex and a stray status byte.
TEST_F(MidiPlayerTest, DurationIsTheLastEventOfAnyTrackAtTheTempoMapsTime) {
    startManager();
    Clip& c = load(file("d.mid", smf(1, 96,
                                     {track(tempoEvent(0, 250000) + textEvent(10, "x")),
                                      track(noteOn(0, 0, 60) + vlq(48) + "\x3E\x40" + vlq(0) +
                                            "\xF0\x02\x01\xF7" + noteOff(912, 0, 60)),
                                      track(noteOn(5, 9, 36) + vlq(0) + "\xF4" + noteOn(3, 9, 40))},
                                     10)));
    EXPECT_DOUBLE_EQ(2.5, c.player->getDuration().getValue());
}

// A device that refuses the stream ends the clip (end of media, without looping) instead of leaving
// it started and silent; a stop never hangs, even when the device refuses it.
TEST_F(MidiPlayerTest, FailuresEndTheClipAndAStopNeverHangs) {
    startManager();
    Clip& c = load(file("long.mid", longNoteClip()));
    c.player->setLoop(1);
    const midisim::Operation refused[] = {midisim::Open, midisim::Property, midisim::Out, midisim::Restart};
    size_t from = mark();
    for (size_t k = 0; k < 4; ++k) {
        SCOPED_TRACE(refused[k]);
        midisim::failNext(refused[k], lxp::MMSYSERR_ERROR);
        ASSERT_EQ(LX_OK, c.player->startAtTime(manager_->getMasterTimeBase()->getRefTime()));
        ASSERT_TRUE(lxtest::waitUntil([&] { return c.events.count(LxEndOfMediaEventType) == k + 1; }));
        EXPECT_EQ(LxNode::STOPPED, c.player->getState());
        EXPECT_EQ(0, c.midi->isSounding());
    }
    midisim::advanceMs(1000);
    EXPECT_TRUE(since(from, true).empty());
    EXPECT_EQ(0, lxp::midiLiveDeviceThreads());

    start(c);  // the device takes it now
    midisim::advanceMs(100);
    midisim::failNext(midisim::Stop, lxp::MMSYSERR_ERROR);
    from = mark();
    c.player->stop();  // the reset still returns both buffers and ends every note
    EXPECT_EQ(0, c.midi->isSounding());
    EXPECT_GE(since(from, false, 0x7BB0).size(), 16u) << "all notes off";
    EXPECT_EQ(2, c.midi->getBuffersDone());
    EXPECT_EQ(0, lxp::midiLiveDeviceThreads()) << "the stream is closed";
    midisim::advanceMs(6000);
    EXPECT_TRUE(since(from, true).empty()) << "nothing plays after the stop";

    // Stop and reset both refused: the device keeps both buffers, and the player is destroyed
    // only once they have played out (ASan sees a buffer freed under the device).
    start(c);
    midisim::advanceMs(100);
    midisim::failNext(midisim::Stop, lxp::MMSYSERR_ERROR, 3);
    midisim::failNext(midisim::Reset, lxp::MMSYSERR_ERROR, 3);
    std::atomic<bool> destroyed{false};
    std::thread clock([&] {
        while (!destroyed) {
            midisim::advanceMs(50);
            std::this_thread::yield();
        }
    });
    manager_->destroyPlayer(c.player);
    c.player = nullptr;
    destroyed = true;
    clock.join();
}

}  // namespace
