// The WAVE header walk and sample reads, on clips written by sox and on hand-broken files.
#include "audio/LxWAVEParser.h"

#include "LxDataSource.h"
#include "LxLog.h"
#include "LxResult.h"
#include "TestSupport.h"
#include "WaveFiles.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

using lxtest::RiffChunk;

struct Parsed {
    KtResult open = 0;
    KtResult header = 0;
    LxAudioFormat* format = nullptr;
    std::unique_ptr<LxFilenameDataSource> source;
    std::unique_ptr<LxWAVEParser> parser;
    ~Parsed() {
        if (format != nullptr) {
            format->unref();
        }
    }
};

std::unique_ptr<Parsed> parseFile(const std::string& path) {
    auto p = std::make_unique<Parsed>();
    p->source = std::make_unique<LxFilenameDataSource>(path.c_str());
    p->parser = std::make_unique<LxWAVEParser>();
    p->open = p->parser->open(nullptr, p->source.get());
    p->header = p->open == LX_OK ? p->parser->readHeader(&p->format) : p->open;
    return p;
}

// Reads every sample the parser gives, frame by frame (frames of framesPerRead sample frames).
std::string readAll(LxWAVEParser& parser, int sampleFrameBytes, int framesPerRead) {
    std::string all;
    LxAudioFrame frame;
    frame.data = new unsigned char[framesPerRead * sampleFrameBytes];
    frame.fillable = framesPerRead;
    char eom = 0;
    for (int guard = 0; !eom && guard < 1000000; ++guard) {
        frame.filled = 0;
        if (parser.readFrame(&frame, &eom) != LX_OK) {
            ADD_FAILURE() << "read error";
            break;
        }
        all.append(reinterpret_cast<char*>(frame.data), static_cast<size_t>(frame.filled) * sampleFrameBytes);
    }
    return all;
}

class WaveParser : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!lxtest::haveTool("sox")) {
            GTEST_SKIP() << "sox is not installed (scripts/install-deps.sh test installs it)";
        }
    }
    std::string write(const std::string& name, const std::string& bytes) {
        const std::string path = dir.file(name);
        EXPECT_TRUE(lxtest::writeFile(path, bytes));
        return path;
    }
    // A small valid clip in chunks: "fmt " then "data".
    std::vector<RiffChunk> clip(uint16_t channels = 2, uint32_t rate = 8000, uint16_t bits = 16,
                                size_t bytes = 64) {
        std::string data;
        for (size_t i = 0; i < bytes; ++i) {
            data += static_cast<char>(i * 7 + 3);
        }
        return {{"fmt ", lxtest::pcmFmtBody(channels, rate, bits)}, {"data", data}};
    }
    KtResult headerOf(const std::string& bytes) {
        static int n = 0;
        return parseFile(write("h" + std::to_string(n++) + ".wav", bytes))->header;
    }

    lxtest::TempDir dir;
};

TEST_F(WaveParser, ExtraChunksOddLengthsAndLongFormatChunksArePassedOver) {
    const std::string path = lxtest::soxClip(dir, "s.wav", 22050, 16, 2, 0.2);
    std::vector<RiffChunk> chunks;
    ASSERT_TRUE(lxtest::splitWave(lxtest::readFile(path), &chunks));
    ASSERT_EQ(2u, chunks.size());
    const std::string data = chunks[1].body;
    // LIST before "fmt ", an odd-length chunk (with its pad byte) before and after it, fact in
    // between, and an 18-byte "fmt " with an extra-size field.
    RiffChunk list{"LIST", std::string("INFOISFT") + lxtest::le32(6) + "sox\0\0\0"};
    RiffChunk odd{"junk", "abcde"};
    RiffChunk fact{"fact", lxtest::le32(static_cast<uint32_t>(data.size() / 4))};
    RiffChunk fmt18{"fmt ", chunks[0].body + lxtest::le16(0)};
    // Behind the data, another LIST: it is not played.
    auto p =
        parseFile(write("spliced.wav", lxtest::joinWave({list, odd, fmt18, odd, fact, chunks[1], list})));
    ASSERT_EQ(LX_OK, p->header);
    EXPECT_EQ(12 + (8 + 16) + 2 * (8 + 6) + (8 + 18) + (8 + 4) + 8, p->parser->getDataStart());
    EXPECT_EQ(data, readAll(*p->parser, 4, 4096));
    // An odd-sized 8-bit data chunk: its pad byte is not a sample.
    const std::vector<RiffChunk> oddData = clip(1, 8000, 8, 101);
    p = parseFile(write("odd.wav", lxtest::joinWave(oddData)));
    ASSERT_EQ(LX_OK, p->header);
    EXPECT_EQ(oddData[1].body, readAll(*p->parser, 1, 64));
}

// A file cut anywhere in its header (LIST with a 12-byte body, "fmt ", then the data chunk's
// 8-byte head, 64 bytes in all) is refused, and the log says where the walk stopped.
TEST_F(WaveParser, EveryCutOfAHeaderFailsSayingWhere) {
    lxtest::requireLog();
    const std::string file = lxtest::joinWave({{"LIST", "INFOabcdefgh"}, clip()[0], clip()[1]});
    size_t cut = 0;
    for (; cut < 64; ++cut) {
        SCOPED_TRACE(testing::Message() << "cut at " << cut);
        LxLogSink::clear();
        EXPECT_EQ(LX_ERR_INVALID_WAVE, headerOf(file.substr(0, cut)));
        EXPECT_TRUE(LxLogSink::contains("LxWAVEParser: header walk stopped at byte "));
    }
    // From the data chunk's length on, the header is whole; samples missing behind it only make
    // the clip end early.
    for (; cut <= file.size(); ++cut) {
        SCOPED_TRACE(testing::Message() << "cut at " << cut);
        auto p = parseFile(write("whole.wav", file.substr(0, cut)));
        ASSERT_EQ(LX_OK, p->header);
        EXPECT_EQ(64, p->parser->getDataStart());
        EXPECT_EQ((cut - 64) / 4 * 4, readAll(*p->parser, 4, 5).size());  // whole sample frames
    }
    EXPECT_EQ(LX_ERR_WAVE_OPEN, parseFile(dir.file("no-such-file.wav"))->open);
}

// 8- and 16-bit clips in mono or stereo come out byte for byte. Integer samples of 24 and 32
// bits, floats, A-law and mu-law, extensible headers and more than two channels come out as 16-bit
// samples, mono or stereo (more channels mixed down), matching sox's own conversion of the first
// channel. Frames of an awkward size: whole sample frames only, nothing lost at the seams.
TEST_F(WaveParser, EveryEncodingIsDeliveredAsItIsOrAsSixteenBitMonoOrStereo) {
    const struct {
        const char* encoding;
        int bits, channels, rate;
    } kinds[] = {{"unsigned-integer", 8, 1, 11025},
                 {"unsigned-integer", 8, 2, 22050},
                 {"signed-integer", 16, 1, 8000},
                 {"signed-integer", 16, 2, 44100},
                 {"signed-integer", 24, 2, 44100},
                 {"signed-integer", 32, 1, 8000},
                 {"floating-point", 32, 2, 22050},
                 {"floating-point", 64, 1, 11025},
                 {"mu-law", 8, 1, 8000},
                 {"a-law", 8, 2, 8000},
                 {"signed-integer", 16, 6, 48000},
                 {"unsigned-integer", 8, 8, 11025},
                 {"signed-integer", 16, 2, 384000}};
    for (const auto& k : kinds) {
        SCOPED_TRACE(testing::Message()
                     << k.encoding << " " << k.bits << " bits, " << k.channels << " ch, " << k.rate << " Hz");
        const std::string path = lxtest::soxClip(dir, "e.wav", k.rate, k.bits, k.channels, 0.3, k.encoding);
        ASSERT_FALSE(path.empty());
        ASSERT_EQ(0, lxtest::run("sox -D '" + path + "' -e signed-integer -b 16 '" + dir.file("ref.wav") +
                                 "' remix 1"));
        const std::string ref = lxtest::dataOf(lxtest::readFile(dir.file("ref.wav")));
        auto p = parseFile(path);
        ASSERT_EQ(LX_OK, p->header);
        EXPECT_EQ(static_cast<float>(k.rate), p->format->getSamplingRate());
        const int out = k.channels == 1 ? 1 : 2;
        EXPECT_NEAR(0.3, p->parser->getDuration().getValue(), 1e-4);
        if (k.bits <= 16 && k.channels <= 2 && std::strstr(k.encoding, "integer") != nullptr) {
            const std::string data = lxtest::dataOf(lxtest::readFile(path));
            EXPECT_EQ(k.bits == 8 ? LxSample8 : LxSample16, p->format->getSampleFormat());
            EXPECT_EQ(data.size(), p->parser->getDataLength());
            EXPECT_EQ(lxtest::checksum(data),
                      lxtest::checksum(readAll(*p->parser, k.bits / 8 * k.channels, 997)));
            continue;
        }
        EXPECT_EQ(LxSample16, p->format->getSampleFormat());
        EXPECT_EQ(out == 1 ? LxMono : LxStereo, p->format->getChannels());
        const std::string got = readAll(*p->parser, 2 * out, 997);
        ASSERT_EQ(ref.size() * out, got.size());
        int worst = 0;
        for (size_t i = 0; i < got.size() / 2; ++i) {
            int16_t a, b;
            std::memcpy(&a, got.data() + 2 * i, 2);
            std::memcpy(&b, ref.data() + 2 * (i / out), 2);
            worst = std::max(worst, std::abs(a - b));
        }
        EXPECT_LE(worst, 2) << "samples differ from sox's conversion";
    }
}

// What no encoding above covers is refused, with 0x2A4 for an encoding and 0x435 for a header
// that contradicts itself or that no clip can have (and whose products wrap in 32 bits).
TEST_F(WaveParser, HeadersOutsideTheEncodingsAndLimitsAreRefused) {
    const struct {
        uint16_t tag, channels;
        uint32_t rate, avg;
        uint16_t align, bits;
        KtResult result;
    } fmts[] = {
        {2, 2, 8000, 32000, 4, 16, LX_ERR_UNSUPPORTED},        // ADPCM
        {0xFFFE, 2, 8000, 32000, 4, 16, LX_ERR_INVALID_WAVE},  // extensible without its extension
        {1, 2, 8000, 32001, 4, 16, LX_ERR_INVALID_WAVE},       // byte rate off by one
        {1, 2, 8000, 16000, 2, 16, LX_ERR_INVALID_WAVE},       // block alignment of mono
        {1, 1, 8000, 16000, 2, 12, LX_ERR_INVALID_WAVE},
        {3, 1, 8000, 16000, 2, 16, LX_ERR_INVALID_WAVE},  // 16-bit float
        {7, 1, 8000, 16000, 2, 16, LX_ERR_INVALID_WAVE},  // 16-bit mu-law
        {1, 0, 8000, 0, 0, 16, LX_ERR_INVALID_WAVE},
        {1, 9, 8000, 144000, 18, 16, LX_ERR_INVALID_WAVE},
        {1, 1, 0, 0, 2, 16, LX_ERR_INVALID_WAVE},
        {1, 1, 384001, 768002, 2, 16, LX_ERR_INVALID_WAVE},
        {1, 2, 0x80000000u, 0, 4, 16, LX_ERR_INVALID_WAVE},  // rate x alignment wraps to 0
        {1, 1, 1, 1, 1, 8, LX_OK},
        {1, 8, 384000, 24576000, 64, 64, LX_ERR_INVALID_WAVE},
        {3, 8, 384000, 24576000, 64, 64, LX_OK},
    };
    for (const auto& f : fmts) {
        const std::string fmt = lxtest::fmtBody(f.tag, f.channels, f.rate, f.avg, f.align, f.bits);
        EXPECT_EQ(f.result, headerOf(lxtest::joinWave({{"fmt ", fmt}, clip()[1]})))
            << "tag " << f.tag << ", " << f.channels << " ch, " << f.rate << " Hz, " << f.bits << " bits";
    }
}

// A data chunk longer than the file (a truncated file, a length never filled in, one past 2 GiB)
// lasts as long as the samples the file holds.
TEST_F(WaveParser, DataLongerThanTheFileLastsAsLongAsItsSamples) {
    for (const uint32_t declared : {16000u, 0x80000000u, 0xFFFFFFFFu}) {
        std::vector<RiffChunk> chunks = clip(1, 8000, 8, 100);
        std::string file = lxtest::joinWave(chunks);
        file.replace(40, 4, lxtest::le32(declared));
        auto p = parseFile(write("long.wav", file));
        ASSERT_EQ(LX_OK, p->header);
        EXPECT_EQ(LxTime(0, 12500), p->parser->getDuration()) << declared;
        EXPECT_EQ(chunks[1].body, readAll(*p->parser, 1, 64));
    }
}

}  // namespace
