// The stream parser: merge order, conversion, buffer limits, real files from abc2midi, bad files.
#include "midi/LxWin32MidiParser.h"

#include "MidiFiles.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

namespace {

using namespace miditest;
using lxp::MEVT_TEMPO;

class MidiParserTest : public ::testing::Test {
  protected:
    std::string write(const std::string& name, const std::string& bytes) {
        const std::string path = dir_.file(name);
        EXPECT_TRUE(lxtest::writeFile(path, bytes));
        return path;
    }

    void TearDown() override {
        EXPECT_EQ(0, lxp::filetest::openHandles()) << "every file is closed";
        lxp::filetest::reset();
    }

    lxtest::TempDir dir_;
    FakeOwner owner_;
};

uint32_t shortMsg(int status, int d1, int d2 = 0) {
    return status | d1 << 8 | d2 << 16;
}

TEST_F(MidiParserTest, MergesTracksByTimeWithTheLowerTrackFirstOnATie) {
    // Header length 10: the 4 extra bytes are skipped. Track 1 and 2 both have a note at tick
    // 240; a text event between notes writes no record, its time goes into the next delta.
    const std::string file =
        smf(1, 480,
            {track(noteOn(0, 0, 60) + textEvent(240, "hello") + noteOn(240, 0, 62)),
             track(noteOn(240, 1, 64) + noteOff(480, 1, 64)), track(noteOn(240, 2, 67, 90))},
            10);
    LxWin32MidiParser parser(&owner_);
    ASSERT_EQ(1, parser.openFile(write("a.mid", file).c_str()));
    std::vector<Record> out;
    EXPECT_EQ(LxWin32MidiParser::PARSE_END_REACHED, drain(parser, &out));
    ASSERT_EQ(5u, out.size());
    const uint32_t expected[][2] = {{0, shortMsg(0x90, 60, 100)},
                                    {240, shortMsg(0x91, 64, 100)},
                                    {0, shortMsg(0x92, 67, 90)},
                                    {240, shortMsg(0x90, 62, 100)},
                                    {240, shortMsg(0x81, 64)}};
    for (size_t i = 0; i < out.size(); ++i) {
        EXPECT_EQ(expected[i][0], out[i].event.dwDeltaTime) << i;
        EXPECT_EQ(expected[i][1], out[i].event.dwEvent) << i;
    }
    parser.closeFile();
    EXPECT_EQ(0, parser.getEventDataBlocks());
}

TEST_F(MidiParserTest, AppliesGainToChannelVolumeAndScalesTempo) {
    owner_.gain = 0.5f;
    owner_.tempoScale = 2.0f;
    const std::string file =
        smf(0, 480,
            {track(tempoEvent(0, 500000) + vlq(0) + "\xB3\x07\x64" + vlq(10) + "\xB3\x0A\x64" +
                   std::string("\x00\xC3\x05", 3) + tempoEvent(10, 0x07A120))});
    LxWin32MidiParser parser(&owner_);
    ASSERT_EQ(1, parser.openFile(write("g.mid", file).c_str()));
    std::vector<Record> out;
    drain(parser, &out);
    ASSERT_EQ(5u, out.size());
    EXPECT_EQ((MEVT_TEMPO << 24) | 250000u, out[0].event.dwEvent);
    EXPECT_EQ(57u, parser.getTicksPerBuffer()) << "480 x 60000 / 500000";
    EXPECT_EQ(shortMsg(0xB3, 7, 50), out[1].event.dwEvent) << "controller 7 halved";
    EXPECT_EQ(100u, owner_.volumes[3].load()) << "the volume before gain is kept";
    EXPECT_EQ(shortMsg(0xB3, 10, 100), out[2].event.dwEvent) << "other controllers untouched";
    EXPECT_EQ(shortMsg(0xC3, 5), out[3].event.dwEvent) << "one data byte";
    EXPECT_EQ((MEVT_TEMPO << 24) | 250000u, out[4].event.dwEvent) << "07 A1 20 is 500000";
    EXPECT_EQ(500000u, parser.getTempo());
}

// Room for 3 records per buffer: the refused event is pending and starts the next buffer with its
// full delta from the last record of the buffer before.
TEST_F(MidiParserTest, FullBuffersCarryTheNextEventOverWithItsDelta) {
    std::string events = tempoEvent(0, 500000) + noteOn(1, 0, 60) + noteOn(1, 0, 61) + tempoEvent(5, 400000);
    for (int i = 0; i < 5; ++i) {
        events += noteOn(1, 0, 62 + i);
    }
    events += noteOn(7, 0, 80);
    LxWin32MidiParser parser(&owner_);
    ASSERT_EQ(1, parser.openFile(write("r.mid", smf(0, 480, {track(events)})).c_str()));
    std::vector<Record> out;
    EXPECT_EQ(LxWin32MidiParser::PARSE_END_REACHED, drain(parser, &out, 36));
    ASSERT_EQ(10u, out.size());
    int64_t tick = 0;
    for (size_t i = 0; i < out.size(); ++i) {
        EXPECT_EQ(static_cast<int>(i / 3), out[i].buffer);
        tick += out[i].event.dwDeltaTime;
    }
    EXPECT_EQ(19, tick);
    EXPECT_EQ((MEVT_TEMPO << 24) | 400000u, out[3].event.dwEvent) << "the tempo event waits too";
    EXPECT_EQ(5u, out[3].event.dwDeltaTime);
    EXPECT_EQ(0, parser.getEventDataBlocks());
    StreamBuffer buf;
    EXPECT_EQ(LxWin32MidiParser::PARSE_END_REACHED, parser.parseNewBuffer(false, &buf.b));
}

TEST_F(MidiParserTest, SysExAndMetaEventsWriteNoRecordsButTheirTimeCounts) {
    const std::string events = noteOn(0, 0, 60) + vlq(100) + "\xF0" + vlq(3) + "\x7E\x7F\xF7" + vlq(50) +
                               "\xF7" + vlq(1) + "\xF7" + textEvent(30, "marker") + vlq(20) +
                               "\xFF\x51\x02\x07\xA1" + noteOff(0, 0, 60);
    LxWin32MidiParser parser(&owner_);
    ASSERT_EQ(1, parser.openFile(write("s.mid", smf(0, 96, {track(events)})).c_str()));
    std::vector<Record> out;
    EXPECT_EQ(LxWin32MidiParser::PARSE_END_REACHED, drain(parser, &out));
    ASSERT_EQ(2u, out.size()) << "a tempo event without its three bytes is passed over";
    EXPECT_EQ(200u, out[1].event.dwDeltaTime);
    EXPECT_EQ(0, parser.getEventDataBlocks());
}

TEST_F(MidiParserTest, RunningStatusWithinATrack) {
    const std::string good =
        vlq(0) + "\x90\x3C\x40" + vlq(10) + "\x3E\x40" + vlq(10) + "\xC1\x05" + vlq(5) + "\x06";
    LxWin32MidiParser parser(&owner_);
    ASSERT_EQ(1, parser.openFile(write("rs.mid", smf(0, 96, {track(good)})).c_str()));
    std::vector<Record> out;
    EXPECT_EQ(LxWin32MidiParser::PARSE_END_REACHED, drain(parser, &out));
    ASSERT_EQ(4u, out.size());
    EXPECT_EQ(shortMsg(0x90, 0x3E, 0x40), out[1].event.dwEvent);
    EXPECT_EQ(shortMsg(0xC1, 6), out[3].event.dwEvent);
}

// Files that open but break in the parse keep what came before the damage, and stay failed.
TEST_F(MidiParserTest, RunningStatusAtATracksStartAndATrackWithoutItsEndFailThePass) {
    const struct {
        std::string file;
        size_t records;
    } cases[] = {
        {smf(0, 96, {track(vlq(0) + "\x3C\x40" + noteOn(10, 0, 60))}), 0},
        {smf(1, 96, {track(noteOn(0, 0, 60) + noteOn(10, 0, 62), false), track(noteOn(500, 1, 70))}), 1},
    };
    for (const auto& c : cases) {
        LxWin32MidiParser parser(&owner_);
        ASSERT_EQ(1, parser.openFile(write("bad.mid", c.file).c_str()));
        std::vector<Record> out;
        EXPECT_EQ(LxWin32MidiParser::PARSE_CORRUPT, drain(parser, &out));
        EXPECT_EQ(c.records, out.size());
        StreamBuffer buf;
        EXPECT_EQ(LxWin32MidiParser::PARSE_FAILED_BEFORE, parser.parseNewBuffer(false, &buf.b));
    }
}

TEST_F(MidiParserTest, HugeDeltaTimesKeepTheirOrderAndTheirDelta) {
    // 0x0FFFFFFF is the largest four-byte quantity; twenty of them pass 2^32 ticks.
    std::string a;
    std::string b;
    for (int i = 0; i < 20; ++i) {
        a += noteOn(0x0FFFFFFF, 0, 60);
        b += noteOn(i == 0 ? 0x0FFFFFFE : 0x0FFFFFFF, 1, 61);
    }
    LxWin32MidiParser parser(&owner_);
    ASSERT_EQ(1, parser.openFile(write("h.mid", smf(1, 96, {track(a), track(b)})).c_str()));
    std::vector<Record> out;
    EXPECT_EQ(LxWin32MidiParser::PARSE_END_REACHED, drain(parser, &out));
    ASSERT_EQ(40u, out.size());
    for (size_t i = 0; i < out.size(); ++i) {
        EXPECT_EQ(i % 2 == 0 ? 0x91u : 0x90u, out[i].event.dwEvent & 0xFF)
            << "track 2 is always one tick ahead";
        EXPECT_EQ(i % 2 == 1 ? 1u : 0x0FFFFFFEu, out[i].event.dwDeltaTime) << i;
    }
}

TEST_F(MidiParserTest, EveryCutAndWrongLengthFailsCleanly) {
    std::string events =
        tempoEvent(0, 400000) + vlq(0) + "\xF0" + vlq(4) + "\x01\x02\x03\xF7" + textEvent(0, "t");
    for (int i = 0; i < 40; ++i) {
        events += noteOn(12, i % 16, 40 + i) + vlq(6) + std::string{static_cast<char>(0x40 + i), 0};
    }
    const std::string good = smf(1, 96, {track(events), track(noteOn(3, 9, 36) + tempoEvent(100, 300000))});
    LxWin32MidiParser parser(&owner_);
    std::vector<Record> whole;
    ASSERT_EQ(1, parser.openFile(write("w.mid", good).c_str()));
    ASSERT_EQ(LxWin32MidiParser::PARSE_END_REACHED, drain(parser, &whole));
    // Every proper prefix is a bad file: it fails to open or its parse fails; never more records
    // than the whole file gives, no payload left allocated, no file left open.
    for (size_t n = 0; n < good.size(); ++n) {
        SCOPED_TRACE(n);
        const std::string path = write("cut.mid", good.substr(0, n));
        if (parser.openFile(path.c_str()) == 1) {
            std::vector<Record> out;
            EXPECT_EQ(LxWin32MidiParser::PARSE_CORRUPT, drain(parser, &out));
            EXPECT_LE(out.size(), whole.size());
        }
        parser.closeFile();
        EXPECT_EQ(0, parser.getEventDataBlocks());
        EXPECT_EQ(0, lxp::filetest::openHandles());
    }
    // Wrong chunk lengths: a header shorter than 6, a track longer than the file, a track length
    // that cuts the first track short so that the second chunk is not where it says; no "MThd".
    std::string bad[4] = {good, good, good, good};
    bad[0][7] = 5;
    bad[1].replace(18, 4, be32(0x7FFFFFF0));
    bad[2].replace(18, 4, be32(20));
    bad[3][0] = 'X';
    for (const std::string& b : bad) {
        EXPECT_EQ(0, parser.openFile(write("x.mid", b).c_str()));
    }
    EXPECT_EQ(0, parser.openFile(dir_.file("missing.mid").c_str()));
    // A track chunk longer than its track buffer, with a meta event that claims more than the
    // file holds: refused without allocating its declared size.
    const std::string big =
        smf(0, 96, {"MTrk" + be32(5000) + vlq(0) + "\xFF\x01" + vlq(0x0FFFFFFF) + std::string(2000, 'x')});
    ASSERT_EQ(1, parser.openFile(write("x5.mid", big).c_str()));
    std::vector<Record> out;
    EXPECT_EQ(LxWin32MidiParser::PARSE_CORRUPT, drain(parser, &out));
    parser.closeFile();
}

TEST_F(MidiParserTest, FileLayerFailuresCloseEverything) {
    std::string events;
    for (int i = 0; i < 600; ++i) {
        events += noteOn(1, 0, 60);  // more than one track buffer
    }
    const std::string path = write("f.mid", smf(0, 96, {track(events)}));
    LxWin32MidiParser parser(&owner_);
    lxp::filetest::failAfter(lxp::filetest::Size, 0);
    EXPECT_EQ(0, parser.openFile(path.c_str()));
    lxp::filetest::failAfter(lxp::filetest::Open, 0);
    EXPECT_EQ(0, parser.openFile(path.c_str()));
    ASSERT_EQ(1, parser.openFile(path.c_str()));
    lxp::filetest::failAfter(lxp::filetest::Read, 0);
    std::vector<Record> out;
    EXPECT_EQ(LxWin32MidiParser::PARSE_CORRUPT, drain(parser, &out));
    EXPECT_GT(out.size(), 100u);
    ASSERT_EQ(1, parser.openFile(path.c_str()));
    lxp::filetest::failAfter(lxp::filetest::Seek, 0);
    out.clear();
    EXPECT_EQ(LxWin32MidiParser::PARSE_CORRUPT, drain(parser, &out));
    parser.closeFile();
}

TEST_F(MidiParserTest, ThePendingEventOfADestroyedParserIsFreedAndAnotherThreadParsesOn) {
    std::string events;
    for (int i = 0; i < 30; ++i) {
        events += noteOn(0, 0, 60) + tempoEvent(0, 500000 + i);
    }
    const std::string path = write("p.mid", smf(0, 96, {track(events)}));
    auto* a = new LxWin32MidiParser(&owner_);
    ASSERT_EQ(1, a->openFile(path.c_str()));
    StreamBuffer small(12);
    ASSERT_EQ(0, a->parseNewBuffer(true, &small.b));
    EXPECT_EQ(1, a->getEventDataBlocks()) << "a tempo event is pending with its payload";
    std::thread([a] { delete a; }).join();  // the leak checker would see a lost payload

    std::thread([&] {
        LxWin32MidiParser b(&owner_);
        ASSERT_EQ(1, b.openFile(path.c_str()));
        std::vector<Record> out;
        EXPECT_EQ(LxWin32MidiParser::PARSE_END_REACHED, drain(b, &out));
        EXPECT_EQ(60u, out.size());
        // Without a restart of its own, a parser does not continue another's pass.
        LxWin32MidiParser c(&owner_);
        ASSERT_EQ(1, c.openFile(path.c_str()));
        StreamBuffer buf;
        EXPECT_EQ(LxWin32MidiParser::PARSE_FAILED_BEFORE, c.parseNewBuffer(false, &buf.b));
    }).join();
}

// Real files written by abc2midi: formats 0 and 1, several tracks, tempo changes, controllers,
// program changes and meta events. Every note must come out in time order at the time the
// file's tempo map gives, at rates 0.5, 1 and 2.
class AbcFiles : public MidiParserTest {
  protected:
    void SetUp() override {
        if (!lxtest::haveTool("abc2midi")) {
            GTEST_SKIP() << "abc2midi (package abcmidi) is not installed";
        }
    }

    std::string make(const std::string& name, const std::string& abc) {
        const std::string src = write(name + ".abc", abc);
        const std::string mid = dir_.file(name + ".mid");
        EXPECT_EQ(0, lxtest::run("abc2midi '" + src + "' -o '" + mid + "' -silent >/dev/null 2>&1"));
        return mid;
    }

    void check(const std::string& mid, int expectFormat, int expectTracks) {
        const std::string bytes = lxtest::readFile(mid);
        const RefFile ref = readReference(bytes);
        ASSERT_EQ(expectFormat, ref.format);
        ASSERT_EQ(expectTracks, ref.tracks);
        ASSERT_GE(ref.tempos.size(), 2u) << "the tune changes tempo";
        // Expected: every channel event with its time, in time order (stable: track order on ties).
        std::vector<RefEvent> events = ref.events;
        std::stable_sort(events.begin(), events.end(), [](const RefEvent& x, const RefEvent& y) {
            return x.tick < y.tick || (x.tick == y.tick && x.track < y.track);
        });
        for (float rate : {0.5f, 1.0f, 2.0f}) {
            SCOPED_TRACE(rate);
            owner_.tempoScale = rate;
            LxWin32MidiParser parser(&owner_);
            ASSERT_EQ(1, parser.openFile(mid.c_str()));
            std::vector<Record> out;
            ASSERT_EQ(LxWin32MidiParser::PARSE_END_REACHED, drain(parser, &out));
            int buffers = out.empty() ? 0 : out.back().buffer + 1;
            EXPECT_GT(buffers, 1) << "the tune spans several buffers";
            const std::vector<Played> played = playStream(out, ref.division);
            ASSERT_EQ(events.size(), played.size());
            for (size_t i = 0; i < played.size(); ++i) {
                EXPECT_EQ(events[i].message, played[i].message) << i;
                // Scaled tempi are whole microseconds: allow a microsecond per quarter note.
                EXPECT_NEAR(ref.seconds(events[i].tick) / rate, played[i].micros / 1e6, 0.002) << i;
            }
        }
    }
};

TEST_F(AbcFiles, FormatZeroWithTempoChanges) {
    const std::string mid = make("one",
                                 "X:1\nT:Single\nM:4/4\nL:1/8\nQ:1/4=120\nK:C\nCDEF GABc|[Q:1/4=90]\n"
                                 "cBAG FEDC|[Q:1/4=200]\nC2E2 G2c2|CDEF GABc|cBAG FEDC|]\n");
    check(mid, 0, 1);
}

TEST_F(AbcFiles, FormatOneWithSeveralVoicesProgramsControllersAndLyrics) {
    const std::string mid =
        make("multi",
             "X:1\nT:Multi\nM:3/4\nL:1/8\nQ:1/4=100\n%%MIDI control 7 90\nK:G\nV:1\n"
             "%%MIDI program 73\nGABc dB|[Q:1/4=140]e2 d2 B2|c2 A2 F2|G6|GABc dB|e2 d2 B2|]\n"
             "V:2\n%%MIDI program 32\nG,2 D,2 G,2|C,2 E,2 C,2|D,2 F,2 A,2|G,6|G,2 D,2 G,2|"
             "C,2 E,2 C,2|]\nw:la la la la la la la la la la la la la la la la la la\n");
    check(mid, 1, 3);
}

}  // namespace
