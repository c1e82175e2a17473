// The file model: track lists, last ticks, channels, the tempo map and tickToTime.
#include "midi/LxWin32NewMidiParser.h"

#include "LxResult.h"
#include "MidiFiles.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

namespace {

using namespace miditest;

class MidiFileModelTest : public ::testing::Test {
  protected:
    std::string write(const std::string& bytes) {
        const std::string path = dir_.file("m" + std::to_string(n_++) + ".mid");
        EXPECT_TRUE(lxtest::writeFile(path, bytes));
        return path;
    }
    void TearDown() override { EXPECT_EQ(0, lxp::filetest::openHandles()); }

    lxtest::TempDir dir_;
    int n_ = 0;
};

TEST_F(MidiFileModelTest, ReadsTracksChannelsAndLastTicks) {
    const std::string file = smf(
        1, 96,
        {track(tempoEvent(0, 0x07A120) + textEvent(10, "x")),
         track(noteOn(0, 0, 60) + vlq(48) + "\x3E\x40" + vlq(0) + "\xF0\x02\x01\xF7" + noteOff(912, 0, 60)),
         track(noteOn(5, 9, 36) + noteOn(0, 9, 38) + vlq(0) + "\xF4" + noteOn(3, 9, 40))},
        10);
    LxWin32NewMidiParser model;
    ASSERT_EQ(LX_OK, model.loadFile(write(file).c_str()));  // a 10-byte header: 4 bytes passed over
    ASSERT_EQ(3, model.getTrackCount());
    EXPECT_EQ(nullptr, model.getTrackEvents(3));
    EXPECT_EQ(10, model.getLastTick(0)) << "the end-of-track event stands at tick 10 too";
    EXPECT_EQ(960, model.getLastTick(1));
    const LxMidiEventList* t1 = model.getTrackEvents(1);
    ASSERT_EQ(5, t1->count);
    const LxMidiFileEvent* e = t1->first->next;
    EXPECT_EQ(48, e->tick);
    EXPECT_EQ(0x90, e->message[0]) << "running status";
    EXPECT_EQ(0x3E, e->message[1]);
    EXPECT_EQ(LxMidiFileEvent::SYSEX, e->next->kind);
    // The stray 0xF4 of track 2 is passed over; the next bytes are read as a new event.
    EXPECT_GE(model.getLastTick(2), 5);
    for (int c = 0; c < 16; ++c) {
        EXPECT_EQ(c == 0 || c == 9 ? 1 : 0, model.getChannelsUsed()[c]) << c;
    }
    ASSERT_EQ(1u, model.getTempoMap().size()) << "the file's own tempo at tick 0 replaces the default";
    EXPECT_EQ(500000u, model.getTempoMap()[0].tempo);
    EXPECT_EQ(5000000000, LxWin32NewMidiParser::tickToTime(960, 96, model.getTempoMap()));
}

// No tempo at tick 0: the default 500000 stands there; 250000 from tick 192 (in track 2), 1000000
// from tick 288. Nanoseconds at ticks across both changes and at them.
TEST_F(MidiFileModelTest, TickToTimeFollowsTheTempoMap) {
    const std::string file =
        smf(1, 96, {track(tempoEvent(288, 1000000)), track(tempoEvent(192, 250000) + noteOn(400, 3, 1))});
    LxWin32NewMidiParser model;
    ASSERT_EQ(LX_OK, model.loadFile(write(file).c_str()));
    ASSERT_EQ(3u, model.getTempoMap().size());
    const int64_t times[][2] = {
        {0, 0}, {96, 500000000}, {192, 1000000000}, {240, 1125000000}, {288, 1250000000}, {672, 5250000000}};
    for (const auto& t : times) {
        EXPECT_EQ(t[1], LxWin32NewMidiParser::tickToTime(t[0], model.getDivision(), model.getTempoMap()))
            << t[0];
    }
    EXPECT_EQ(0, LxWin32NewMidiParser::tickToTime(100, 0, model.getTempoMap())) << "no division, no time";
    EXPECT_EQ(5208333, LxWin32NewMidiParser::tickToTime(1, 96, {{500000, 0, 0}})) << "truncated";
}

TEST_F(MidiFileModelTest, MissingTracksAndBadFilesNeverReadPastTheEnd) {
    LxWin32NewMidiParser model;
    EXPECT_EQ(LX_ERR_GENERIC, model.loadFile(dir_.file("none.mid").c_str()));
    EXPECT_EQ(LX_ERR_GENERIC, model.loadFile(write("RIFF....").c_str()));
    EXPECT_EQ(LX_ERR_GENERIC, model.loadFile(write(smf(0, 96, {})).c_str())) << "no track";
    EXPECT_EQ(0, model.getTrackCount());

    // The header promises 4 tracks, the file holds 2: the missing ones are empty.
    std::string file = smf(1, 96, {track(noteOn(0, 1, 60)), track(noteOn(7, 2, 60))});
    file[11] = 4;
    ASSERT_EQ(LX_OK, model.loadFile(write(file).c_str()));
    EXPECT_EQ(4, model.getTrackCount());
    EXPECT_EQ(7, model.getLastTick(1));
    EXPECT_EQ(-1, model.getLastTick(2));
    EXPECT_EQ(nullptr, model.getTrackEvents(3)->first);
}

}  // namespace
