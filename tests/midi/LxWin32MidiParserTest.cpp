// The stream parser: merge order, conversion, buffer limits, bad files. The file model is seen
// through the player's duration and channel volumes.
#include "midi/LxWin32MidiParser.h"

#include "MidiFiles.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>

namespace {

using namespace miditest;
using lxp::MEVT_TEMPO;

/// The player side of the stream parser, with settings a test sets.
class FakeOwner : public LxMidiParserOwner {
  public:
    float gain = 1.0f;

    float getParserGain() override { return gain; }
    float getParserTempoScale() override { return 1.0f; }
    bool takeTempoChanged() override { return false; }
    void storeChannelVolume(unsigned, uint32_t) override {}
};

/// A stream buffer with its own data, set up as the player does.
struct StreamBuffer {
    std::vector<char> data;
    LxMidiStreamBuffer b{};
    explicit StreamBuffer(uint32_t capacity = 1024) : data(capacity) {
        b.header.lpData = data.data();
        b.header.dwBufferLength = b.capacity = capacity;
    }
    std::vector<lxp::MIDIEVENT> records() const {
        std::vector<lxp::MIDIEVENT> out(b.bytesUsed / sizeof(lxp::MIDIEVENT));
        if (!out.empty()) {
            std::memcpy(out.data(), data.data() + b.writeBase, out.size() * sizeof(lxp::MIDIEVENT));
        }
        return out;
    }
};

/// Parses a whole pass (restart, then until the end) with buffers of capacity bytes; returns
/// the last result (-103 at a clean end) and appends the records to out.
int drain(LxWin32MidiParser& parser, std::vector<lxp::MIDIEVENT>* out, uint32_t capacity = 1024) {
    int result = 0;
    for (int n = 0; n < 100000 && result == 0; ++n) {
        StreamBuffer buf(capacity);
        result = parser.parseNewBuffer(n == 0, &buf.b);
        const std::vector<lxp::MIDIEVENT> records = buf.records();
        out->insert(out->end(), records.begin(), records.end());
    }
    return result;
}

class MidiParserTest : public ::testing::Test {
  protected:
    std::string write(const std::string& bytes) {
        const std::string path = dir_.file("m" + std::to_string(n_++) + ".mid");
        EXPECT_TRUE(lxtest::writeFile(path, bytes));
        return path;
    }
    /// Opens bytes and parses the whole pass; the result of the last buffer.
    int parse(const std::string& bytes, std::vector<lxp::MIDIEVENT>* out, uint32_t capacity = 1024) {
        LxWin32MidiParser parser(&owner_);
        if (parser.openFile(write(bytes).c_str()) != 1) {
            return 1;
        }
        const int result = drain(parser, out, capacity);
        StreamBuffer buf;
        EXPECT_EQ(
            result == LxWin32MidiParser::PARSE_END_REACHED ? result : LxWin32MidiParser::PARSE_FAILED_BEFORE,
            parser.parseNewBuffer(false, &buf.b))
            << "an end stays an end, a failure stays a failure";
        parser.closeFile();
        EXPECT_EQ(0, parser.getEventDataBlocks()) << "no payload is left allocated";
        return result;
    }

    void TearDown() override {
        EXPECT_EQ(0, lxp::filetest::openHandles()) << "every file is closed";
        lxp::filetest::reset();
    }

    lxtest::TempDir dir_;
    int n_ = 0;
    FakeOwner owner_;
};

// Many tracks with events on shared ticks and text events between them, in small buffers, after a
// 10-byte header: the reference reader's events in time order, ties by the lower track.
TEST_F(MidiParserTest, ManyTracksMergeInTimeOrderAcrossBuffers) {
    const unsigned seed = lxtest::testSeed();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    std::vector<std::string> tracks;
    for (int t = 0; t < 300; ++t) {
        std::string events;
        for (int i = 0, n = random() % 6; i < n; ++i) {
            events += random() % 4 == 0 ? textEvent(random() % 3 * 24, "x")
                                        : noteOn(random() % 3 * 24, t % 16, 30 + random() % 60);
        }
        tracks.push_back(track(events, t % 3 != 0));  // every third without its end-of-track event
    }
    const std::string file = smf(1, 96, tracks, 10);
    const RefFile ref = readReference(file);
    std::vector<lxp::MIDIEVENT> out;
    ASSERT_EQ(LxWin32MidiParser::PARSE_END_REACHED, parse(file, &out, 120));
    ASSERT_EQ(ref.events.size(), out.size());
    int64_t tick = 0;
    for (size_t i = 0; i < out.size(); ++i) {
        tick += out[i].dwDeltaTime;  // a text event's time goes into the next record's delta
        ASSERT_EQ(ref.events[i].message, out[i].dwEvent) << i;
        ASSERT_EQ(ref.events[i].tick, tick) << i;
    }
}

// Gain scales channel volume (the tempo scale is heard through the player's rates); sysex and meta events, a
// short tempo event too, write nothing but their time counts, and running status goes on across them.
TEST_F(MidiParserTest, ConvertsVolumeAndTempoAndPassesOverSysExAndMeta) {
    owner_.gain = 0.5f;
    const std::string events = tempoEvent(0, 500000) + controller(0, 3, 7, 100) + controller(10, 3, 10, 100) +
                               std::string("\x00\xC3\x05", 3) + tempoEvent(10, 0x07A120) + noteOn(0, 0, 60) +
                               vlq(100) + "\xF0" + vlq(3) + "\x7E\x7F\xF7" + vlq(50) + "\xF7" + vlq(1) +
                               "\xF7" + textEvent(30, "marker") + vlq(20) + "\xFF\x51\x02\x07\xA1" + vlq(0) +
                               "\x3E\x40" + vlq(10) + "\xC1\x05" + vlq(5) + "\x06";
    LxWin32MidiParser parser(&owner_);
    ASSERT_EQ(1, parser.openFile(write(smf(0, 480, {track(events)})).c_str()));
    std::vector<lxp::MIDIEVENT> out;
    EXPECT_EQ(LxWin32MidiParser::PARSE_END_REACHED, drain(parser, &out));
    ASSERT_EQ(9u, out.size());
    EXPECT_EQ((MEVT_TEMPO << 24) | 500000u, out[0].dwEvent);
    EXPECT_EQ(57u, parser.getTicksPerBuffer()) << "480 x 60000 / 500000";
    EXPECT_EQ(shortMsg(0xB3, 7, 50), out[1].dwEvent) << "controller 7 halved";
    EXPECT_EQ(shortMsg(0xB3, 10, 100), out[2].dwEvent) << "other controllers untouched";
    EXPECT_EQ(shortMsg(0xC3, 5), out[3].dwEvent) << "one data byte";
    EXPECT_EQ((MEVT_TEMPO << 24) | 500000u, out[4].dwEvent) << "07 A1 20";
    EXPECT_EQ(500000u, parser.getTempo());
    EXPECT_EQ(200u, out[6].dwDeltaTime);
    EXPECT_EQ(shortMsg(0x90, 0x3E, 0x40), out[6].dwEvent);
    EXPECT_EQ(shortMsg(0xC1, 6), out[8].dwEvent);
}

// Files that open but break in the parse keep what came before the damage, and stay failed; a
// track that simply stops after a whole event (no end-of-track event) is not damaged.
TEST_F(MidiParserTest, DamageFailsThePassButAMissingEndOfTrackDoesNot) {
    const struct {
        std::string file;
        int result;
        size_t records;
    } cases[] = {
        {smf(0, 96, {track(vlq(0) + "\x3C\x40" + noteOn(10, 0, 60))}), LxWin32MidiParser::PARSE_CORRUPT, 0},
        {smf(1, 96, {track(noteOn(0, 0, 60) + noteOn(10, 0, 62), false), track(noteOn(500, 1, 70))}),
         LxWin32MidiParser::PARSE_END_REACHED, 3},
        {smf(1, 96, {track(noteOn(0, 0, 60) + noteOn(10, 0, 62) + "\x81", false), track(noteOn(500, 1, 70))}),
         LxWin32MidiParser::PARSE_CORRUPT, 1},
    };
    for (const auto& c : cases) {
        std::vector<lxp::MIDIEVENT> out;
        EXPECT_EQ(c.result, parse(c.file, &out));
        EXPECT_EQ(c.records, out.size());
    }
}

TEST_F(MidiParserTest, FileLayerFailuresCloseEverything) {
    std::string events;
    for (int i = 0; i < 600; ++i) {
        events += noteOn(1, 0, 60);  // more than one track buffer
    }
    const std::string path = write(smf(0, 96, {track(events)}));
    LxWin32MidiParser parser(&owner_);
    lxp::filetest::failAfter(lxp::filetest::Size, 0);
    EXPECT_EQ(0, parser.openFile(path.c_str()));
    lxp::filetest::failAfter(lxp::filetest::Open, 0);
    EXPECT_EQ(0, parser.openFile(path.c_str()));
    ASSERT_EQ(1, parser.openFile(path.c_str()));
    lxp::filetest::failAfter(lxp::filetest::Read, 0);
    std::vector<lxp::MIDIEVENT> out;
    EXPECT_EQ(LxWin32MidiParser::PARSE_CORRUPT, drain(parser, &out));
    EXPECT_GT(out.size(), 100u);
    ASSERT_EQ(1, parser.openFile(path.c_str()));
    lxp::filetest::failAfter(lxp::filetest::Seek, 0);
    out.clear();
    EXPECT_EQ(LxWin32MidiParser::PARSE_CORRUPT, drain(parser, &out));
    parser.closeFile();
}

// A parser destroyed while it holds an event carried over frees its payload (the leak checker).
TEST_F(MidiParserTest, APendingEventIsFreedWithItsParser) {
    std::string events;
    for (int i = 0; i < 4; ++i) {
        events += noteOn(0, 0, 60) + tempoEvent(0, 500000 + i);
    }
    auto* parser = new LxWin32MidiParser(&owner_);
    ASSERT_EQ(1, parser->openFile(write(smf(0, 96, {track(events)})).c_str()));
    StreamBuffer small(12);
    ASSERT_EQ(0, parser->parseNewBuffer(true, &small.b));
    EXPECT_EQ(1, parser->getEventDataBlocks()) << "a tempo event is pending with its payload";
    delete parser;
}

}  // namespace
