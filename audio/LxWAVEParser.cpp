// The WAVE header walk and sample reads. The file is read with the C library's buffered
// functions, which is all a sequential walk over a local file needs. Sizes and offsets are worked
// out in 64 bits: a hostile header must not wrap a product or make a length negative.
#include "audio/LxWAVEParser.h"

#include "LxDataSource.h"
#include "LxLog.h"
#include "LxResult.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

namespace {

// A chunk id as the log shows it: four characters, anything unprintable as '?'.
void printable(const char id[5], char out[5]) {
    for (int i = 0; i < 4; ++i) {
        const unsigned char c = static_cast<unsigned char>(id[i]);
        out[i] = c >= 0x20 && c < 0x7F ? static_cast<char>(c) : '?';
    }
    out[4] = '\0';
}

constexpr uint16_t kTagPcm = 1;
constexpr uint16_t kTagFloat = 3;
constexpr uint16_t kTagAlaw = 6;
constexpr uint16_t kTagMulaw = 7;
constexpr uint16_t kTagExtensible = 0xFFFE;

// G.711 expansions to 16-bit linear.
int16_t alawToLinear(uint8_t a) {
    a ^= 0x55;
    int t = (a & 0x0F) << 4;
    const int seg = (a & 0x70) >> 4;
    t += seg == 0 ? 8 : 0x108;
    if (seg > 1) {
        t <<= seg - 1;
    }
    return static_cast<int16_t>((a & 0x80) != 0 ? t : -t);
}

int16_t mulawToLinear(uint8_t u) {
    u = static_cast<uint8_t>(~u);
    int t = ((u & 0x0F) << 3) + 0x84;
    t <<= (u & 0x70) >> 4;
    return static_cast<int16_t>((u & 0x80) != 0 ? 0x84 - t : t - 0x84);
}

int16_t fromDouble(double v) {
    if (!(v == v)) {
        return 0;  // not a number
    }
    v = std::max(-1.0, std::min(1.0, v));
    return static_cast<int16_t>(std::lround(v * 32767.0));
}

// Speaker bits of a channel mask, grouped by the side they are heard on.
constexpr uint32_t kLeftSpeakers = 0x1 | 0x10 | 0x40 | 0x200 | 0x1000 | 0x8000;
constexpr uint32_t kRightSpeakers = 0x2 | 0x20 | 0x80 | 0x400 | 0x4000 | 0x20000;
constexpr uint32_t kLowFrequency = 0x8;

/// The speakers of files that do not name theirs, by channel count (the usual layouts from
/// mono to 7.1).
uint32_t defaultMask(uint16_t channels) {
    static const uint32_t masks[] = {0, 0x4, 0x3, 0x7, 0x33, 0x37, 0x3F, 0x70F, 0x63F};
    return channels < sizeof masks / sizeof masks[0] ? masks[channels] : 0;
}

}  // namespace

LxWAVEParser::LxWAVEParser()
    : waveFormat(nullptr),
      file(nullptr),
      dataStart(0),
      dataLength(0),
      position(0),
      encoding(PCM_INT),
      sampleBytes(0),
      copyAsIs(true),
      outChannels(0),
      outFrameBytes(0),
      dataEnd(0) {}

LxWAVEParser::~LxWAVEParser() {
    if (file != nullptr) {
        std::fclose(file);
    }
    delete waveFormat;
}

KtResult LxWAVEParser::open(LxNode* owner, LxDataSource* source) {
    node = owner;
    dataSource = source;
    LxPullDataSource* pull = dynamic_cast<LxPullDataSource*>(source);
    const char* name = pull != nullptr ? pull->getLocalFileName() : nullptr;
    if (file != nullptr) {
        std::fclose(file);
        file = nullptr;
    }
    if (name != nullptr) {
        file = std::fopen(name, "rb");
    }
    if (file == nullptr) {
        LxLog::postDebug("LxWAVEParser: could not open file %s\n", name != nullptr ? name : "(null)");
        return LX_ERR_WAVE_OPEN;
    }
    LxLog::postDebug("LxWAVEParser: opened file %s\n", name);
    return LX_OK;
}

KtResult LxWAVEParser::fail(KtResult result, const char* message, const char* chunk) {
    LxLog::postDebug("%s", message);
    LxLog::postDebug("LxWAVEParser: header walk stopped at byte %ld in chunk \"%s\"\n",
                     file != nullptr ? std::ftell(file) : -1L, chunk);
    return result;
}

bool LxWAVEParser::readTag(char tag[5]) {
    const size_t n = std::fread(tag, 1, 4, file);
    tag[n < 4 ? n : 4] = '\0';
    return n == 4;
}

bool LxWAVEParser::readU32(uint32_t* value) {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) {
        const int c = std::fgetc(file);
        if (c == EOF) {
            return false;
        }
        v |= static_cast<uint32_t>(c) << (8 * i);
    }
    *value = v;
    return true;
}

bool LxWAVEParser::readU16(uint16_t* value) {
    const int lo = std::fgetc(file);
    if (lo == EOF) {
        return false;
    }
    const int hi = std::fgetc(file);
    if (hi == EOF) {
        return false;
    }
    *value = static_cast<uint16_t>(lo | (hi << 8));
    return true;
}

bool LxWAVEParser::skip(uint32_t length) {
    // RIFF chunks occupy an even number of bytes: an odd length is followed by a pad byte. A skip
    // past the end is not an error here; the next read finds the end of the file.
    const long bytes = static_cast<long>(length) + static_cast<long>(length & 1u);
    return std::fseek(file, bytes, SEEK_CUR) == 0;
}

KtResult LxWAVEParser::checkFormat(uint32_t channelMask, const char* chunk) {
    const LxWaveFormat& wf = *waveFormat;
    switch (encoding) {
        case PCM_INT:
            if (wf.bitsPerSample != 8 && wf.bitsPerSample != 16 && wf.bitsPerSample != 24 &&
                wf.bitsPerSample != 32) {
                LxLog::postDebug("LxWAVEParser: %u-bit integer samples\n",
                                 static_cast<unsigned>(wf.bitsPerSample));
                return fail(LX_ERR_INVALID_WAVE,
                            "LxWAVEParser: inconsistent format information for PCM WAVE file\n", chunk);
            }
            break;
        case PCM_FLOAT:
            if (wf.bitsPerSample != 32 && wf.bitsPerSample != 64) {
                LxLog::postDebug("LxWAVEParser: %u-bit floating-point samples\n",
                                 static_cast<unsigned>(wf.bitsPerSample));
                return fail(LX_ERR_INVALID_WAVE,
                            "LxWAVEParser: inconsistent format information for float WAVE file\n", chunk);
            }
            break;
        case ALAW:
        case MULAW:
            if (wf.bitsPerSample != 8) {
                return fail(LX_ERR_INVALID_WAVE, "LxWAVEParser: A-law and mu-law samples are 8 bits\n",
                            chunk);
            }
            break;
    }
    sampleBytes = wf.bitsPerSample / 8;
    if (wf.channels == 0 || wf.channels > kMaxChannels) {
        LxLog::postDebug("LxWAVEParser: cannot play %u channels\n", static_cast<unsigned>(wf.channels));
        return fail(LX_ERR_INVALID_WAVE, "LxWAVEParser: invalid channel count for WAVE file\n", chunk);
    }
    if (wf.samplesPerSec < kMinRate || wf.samplesPerSec > kMaxRate) {
        LxLog::postDebug("LxWAVEParser: sampling rate %u is outside 1 Hz .. 384 kHz\n",
                         static_cast<unsigned>(wf.samplesPerSec));
        return fail(LX_ERR_INVALID_WAVE, "LxWAVEParser: invalid sampling rate for WAVE file\n", chunk);
    }
    if (wf.blockAlign != sampleBytes * wf.channels ||
        static_cast<uint64_t>(wf.avgBytesPerSec) != static_cast<uint64_t>(wf.samplesPerSec) * wf.blockAlign) {
        LxLog::postDebug(
            "LxWAVEParser: block alignment %u, byte rate %u for %u channels of %u bits at %u Hz\n",
            static_cast<unsigned>(wf.blockAlign), static_cast<unsigned>(wf.avgBytesPerSec),
            static_cast<unsigned>(wf.channels), static_cast<unsigned>(wf.bitsPerSample),
            static_cast<unsigned>(wf.samplesPerSec));
        return fail(LX_ERR_INVALID_WAVE, "LxWAVEParser: inconsistent format information for PCM WAVE file\n",
                    chunk);
    }

    copyAsIs = encoding == PCM_INT && sampleBytes <= 2 && wf.channels <= 2;
    outChannels = wf.channels == 1 ? 1 : 2;
    outFrameBytes = copyAsIs ? wf.blockAlign : 2 * outChannels;
    leftGain.assign(wf.channels, 0.0f);
    rightGain.assign(wf.channels, 0.0f);
    if (wf.channels > 2) {
        // The file's channels follow the set bits of its mask, lowest first; channels beyond the
        // mask, or a mask naming too few speakers, are heard in the middle. The low-frequency
        // channel is left out, as a stereo down-mix does. Each side is scaled so that it cannot
        // clip.
        uint32_t mask = channelMask != 0 ? channelMask : defaultMask(wf.channels);
        for (int c = 0; c < wf.channels; ++c) {
            const uint32_t speaker = mask & (~mask + 1);  // lowest bit left
            mask &= ~speaker;
            if (speaker == kLowFrequency) {
                continue;
            }
            const bool left = (speaker & kLeftSpeakers) != 0;
            const bool right = (speaker & kRightSpeakers) != 0;
            const bool front = speaker == 0x1 || speaker == 0x2;
            leftGain[c] = left ? (front ? 1.0f : 0.7071f) : (right ? 0.0f : 0.7071f);
            rightGain[c] = right ? (front ? 1.0f : 0.7071f) : (left ? 0.0f : 0.7071f);
        }
        float sumL = 0.0f;
        float sumR = 0.0f;
        for (int c = 0; c < wf.channels; ++c) {
            sumL += leftGain[c];
            sumR += rightGain[c];
        }
        for (int c = 0; c < wf.channels; ++c) {
            leftGain[c] = sumL > 1.0f ? leftGain[c] / sumL : leftGain[c];
            rightGain[c] = sumR > 1.0f ? rightGain[c] / sumR : rightGain[c];
        }
    }
    return LX_OK;
}

KtResult LxWAVEParser::readHeader(LxAudioFormat** format) {
    if (format != nullptr) {
        *format = nullptr;
    }
    if (file == nullptr) {
        return LX_ERR_WAVE_OPEN;
    }
    delete waveFormat;
    waveFormat = new (std::nothrow) LxWaveFormat();
    if (waveFormat == nullptr) {
        return LX_ERR_OUT_OF_MEMORY;
    }

    char tag[5];
    if (!readTag(tag) || std::memcmp(tag, "RIFF", 4) != 0) {
        return fail(LX_ERR_INVALID_WAVE, "LxWAVEParser: not a valid audio file\n", "RIFF");
    }
    uint32_t riffLength = 0;
    if (!readU32(&riffLength)) {
        return fail(LX_ERR_INVALID_WAVE, "LxWAVEParser: unable to read RIFF length\n", "RIFF");
    }
    LxLog::postDebug("LxWAVEParser: len = %u\n", riffLength);
    if (!readTag(tag) || std::memcmp(tag, "WAVE", 4) != 0) {
        return fail(LX_ERR_INVALID_WAVE, "LxWAVEParser: invalid WAVE audio file\n", "RIFF");
    }

    // Chunks before "fmt " are passed over.
    char id[5];
    char shown[5] = "RIFF";
    uint32_t length = 0;
    if (!readTag(id)) {
        return fail(LX_ERR_INVALID_WAVE, "LxWAVEParser: unable to find format chunk\n", shown);
    }
    for (;;) {
        printable(id, shown);
        if (!readU32(&length)) {
            return fail(LX_ERR_INVALID_WAVE, "LxWAVEParser: unable to read chunk length\n", shown);
        }
        LxLog::postDebug("LxWAVEParser: chunk %s, len = %u\n", shown, length);
        if (std::memcmp(id, "fmt ", 4) == 0) {
            break;
        }
        if (!skip(length) || !readTag(id)) {
            return fail(LX_ERR_INVALID_WAVE, "LxWAVEParser: unable to find format chunk\n", shown);
        }
    }

    if (length < 16) {
        return fail(LX_ERR_INVALID_WAVE, "LxWAVEParser: found truncated format chunk\n", shown);
    }
    LxWaveFormat& wf = *waveFormat;
    if (!readU16(&wf.formatTag) || !readU16(&wf.channels) || !readU32(&wf.samplesPerSec) ||
        !readU32(&wf.avgBytesPerSec) || !readU16(&wf.blockAlign) || !readU16(&wf.bitsPerSample)) {
        return fail(LX_ERR_INVALID_WAVE, "LxWAVEParser: error reading format chunk\n", shown);
    }
    uint32_t consumed = 16;
    uint32_t channelMask = 0;
    uint16_t tag16 = wf.formatTag;
    if (wf.formatTag == kTagExtensible) {
        // The extension: its size, valid bits, the speakers, and a GUID whose first two bytes are
        // the format tag of the samples.
        uint16_t validBits = 0;
        uint16_t subTag = 0;
        unsigned char rest[14];
        if (length < 40 || !readU16(&wf.extraSize) || wf.extraSize < 22 || !readU16(&validBits) ||
            !readU32(&channelMask) || !readU16(&subTag) || std::fread(rest, 1, 14, file) != 14) {
            return fail(LX_ERR_INVALID_WAVE, "LxWAVEParser: extensible format chunk too short\n", shown);
        }
        static const unsigned char kGuidTail[14] = {0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x80,
                                                    0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};
        if (std::memcmp(rest, kGuidTail, 14) != 0) {
            return fail(LX_ERR_UNSUPPORTED, "LxWAVEParser: unknown sub-format in extensible WAVE file\n",
                        shown);
        }
        if (validBits > wf.bitsPerSample) {
            return fail(LX_ERR_INVALID_WAVE, "LxWAVEParser: more valid bits than the sample holds\n", shown);
        }
        if (channelMask != 0 && static_cast<int>(__builtin_popcount(channelMask)) < wf.channels) {
            channelMask = 0;  // too few speakers named: the usual layout for the count instead
        }
        tag16 = subTag;
        consumed = 40;
    }
    if (tag16 == kTagPcm) {
        encoding = PCM_INT;
    } else if (tag16 == kTagFloat) {
        encoding = PCM_FLOAT;
    } else if (tag16 == kTagAlaw) {
        encoding = ALAW;
    } else if (tag16 == kTagMulaw) {
        encoding = MULAW;
    } else {
        LxLog::postDebug("LxWAVEParser: format tag 0x%04x\n", static_cast<unsigned>(tag16));
        return fail(LX_ERR_UNSUPPORTED,
                    "LxWAVEParser: Can only decode PCM, float, A-law and mu-law WAVE files\n", shown);
    }
    const KtResult checked = checkFormat(channelMask, shown);
    if (checked != LX_OK) {
        return checked;
    }

    // The rest of "fmt " (an extra-size field, say), then the chunks up to "data".
    if (!skip(length - consumed) || !readTag(id)) {
        return fail(LX_ERR_INVALID_WAVE, "LxWAVEParser: unable to find data chunk\n", shown);
    }
    for (;;) {
        printable(id, shown);
        if (!readU32(&length)) {
            return fail(LX_ERR_INVALID_WAVE, "LxWAVEParser: unable to read chunk length\n", shown);
        }
        LxLog::postDebug("LxWAVEParser: chunk %s, len = %u\n", shown, length);
        if (std::memcmp(id, "data", 4) == 0) {
            break;
        }
        if (!skip(length) || !readTag(id)) {
            return fail(LX_ERR_INVALID_WAVE, "LxWAVEParser: unable to find data chunk\n", shown);
        }
    }
    dataStart = std::ftell(file);
    position = dataStart;
    // Only what the file holds counts: a length beyond its end (a truncated file, or a writer
    // that never filled the length in) would give a duration of sound that is not there.
    int64_t fileSize = -1;
    if (std::fseek(file, 0, SEEK_END) == 0) {
        fileSize = std::ftell(file);
    }
    if (dataStart < 0 || fileSize < 0 || std::fseek(file, dataStart, SEEK_SET) != 0) {
        return fail(LX_ERR_WAVE_READ, "LxWAVEParser: cannot position the file\n", shown);
    }
    int64_t present = std::min<int64_t>(length, fileSize - dataStart);
    if (present < static_cast<int64_t>(length)) {
        LxLog::postDebug("LxWAVEParser: data chunk declares %u bytes, the file holds %lld\n", length,
                         static_cast<long long>(present));
    }
    present -= present % wf.blockAlign;  // whole sample frames only
    dataLength = static_cast<uint32_t>(present);
    dataEnd = dataStart + present;

    const double seconds = static_cast<double>(present / wf.blockAlign) / wf.samplesPerSec;
    const int32_t whole = static_cast<int32_t>(std::min(seconds, 2147483647.0));
    duration = LxTime(whole, static_cast<int32_t>(std::min((seconds - whole) * 1000000.0, 999999.0)));

    const LxSampleFormat_s sampleFormat = copyAsIs && sampleBytes == 1 ? LxSample8 : LxSample16;
    LxAudioFormat* made =
        new (std::nothrow) LxAudioFormat(sampleFormat, outChannels == 1 ? LxMono : LxStereo,
                                         static_cast<float>(wf.samplesPerSec), 0, LxFormat::PullStream);
    if (made == nullptr) {
        return LX_ERR_OUT_OF_MEMORY;
    }
    LxLog::postDebug("LxWAVEParser: wave file %s %s %i\n", sampleFormat == LxSample8 ? "PCM_8" : "PCM_16",
                     outChannels == 1 ? "Mono" : "Stereo", static_cast<int>(wf.samplesPerSec));
    if (format != nullptr) {
        *format = made;
    } else {
        made->unref();
    }
    return LX_OK;
}

int16_t LxWAVEParser::sampleAt(const unsigned char* p) const {
    switch (encoding) {
        case ALAW:
            return alawToLinear(p[0]);
        case MULAW:
            return mulawToLinear(p[0]);
        case PCM_FLOAT:
            if (sampleBytes == 4) {
                float f;
                std::memcpy(&f, p, 4);
                return fromDouble(f);
            } else {
                double d;
                std::memcpy(&d, p, 8);
                return fromDouble(d);
            }
        case PCM_INT:
            break;
    }
    // Integer samples keep their top 16 bits (8-bit samples are unsigned).
    if (sampleBytes == 1) {
        return static_cast<int16_t>((p[0] - 128) * 256);
    }
    return static_cast<int16_t>(p[sampleBytes - 2] | (p[sampleBytes - 1] << 8));
}

KtResult LxWAVEParser::seek(long byteOffset) {
    if (file == nullptr || waveFormat == nullptr || outFrameBytes <= 0) {
        return LX_ERR_GENERIC;
    }
    const int64_t frames = std::max<int64_t>(0, byteOffset) / outFrameBytes;
    const int64_t target = std::min<int64_t>(dataStart + frames * waveFormat->blockAlign, dataEnd);
    if (std::fseek(file, static_cast<long>(target), SEEK_SET) != 0) {
        return LX_ERR_GENERIC;
    }
    position = static_cast<long>(target);
    return LX_OK;
}

KtResult LxWAVEParser::readFrame(LxAudioFrame* frame, char* endOfMedia) {
    if (file == nullptr || waveFormat == nullptr || frame == nullptr || outFrameBytes <= 0) {
        return LX_ERR_WAVE_READ;
    }
    const int block = waveFormat->blockAlign;
    const int64_t room = frame->data != nullptr ? std::max<int64_t>(0, frame->fillable - frame->filled) : 0;
    const int64_t left = std::max<int64_t>(0, dataEnd - position) / block;
    const int64_t want = std::min(room, left);
    unsigned char* out = frame->data + static_cast<int64_t>(frame->filled) * outFrameBytes;
    unsigned char* in = out;
    if (!copyAsIs && want > 0) {
        if (scratch.size() < static_cast<size_t>(want * block)) {
            scratch.resize(static_cast<size_t>(want * block));
        }
        in = scratch.data();
    }
    const size_t n = want > 0 ? std::fread(in, 1, static_cast<size_t>(want * block), file) : 0;
    if (std::ferror(file)) {
        LxLog::postDebug("LxWAVEParser: error reading file\n");
        return LX_ERR_WAVE_READ;
    }
    const int64_t got = static_cast<int64_t>(n) / block;
    if (!copyAsIs) {
        int16_t* dst = reinterpret_cast<int16_t*>(out);
        const int channels = waveFormat->channels;
        for (int64_t i = 0; i < got; ++i) {
            const unsigned char* src = in + i * block;
            if (channels <= 2) {
                for (int c = 0; c < channels; ++c) {
                    const int16_t v = sampleAt(src + c * sampleBytes);
                    std::memcpy(dst + i * channels + c, &v, 2);
                }
                continue;
            }
            float l = 0.0f;
            float r = 0.0f;
            for (int c = 0; c < channels; ++c) {
                const float v = sampleAt(src + c * sampleBytes);
                l += v * leftGain[c];
                r += v * rightGain[c];
            }
            const int16_t lr[2] = {
                static_cast<int16_t>(std::lround(std::max(-32768.0f, std::min(32767.0f, l)))),
                static_cast<int16_t>(std::lround(std::max(-32768.0f, std::min(32767.0f, r))))};
            std::memcpy(dst + i * 2, lr, 4);
        }
    }
    position += static_cast<long>(n);
    if (static_cast<int64_t>(n) < want * block) {
        // The file ended (or shrank) inside the data: what is left of a sample frame is dropped.
        std::fseek(file, position, SEEK_SET);
    }
    const bool ended = got < want || dataEnd - position < block;
    if (ended) {
        LxLog::postDebug("LxWAVEParser: hit eof\n");
    }
    if (endOfMedia != nullptr) {
        *endOfMedia = ended ? 1 : 0;
    }
    frame->filled += static_cast<int32_t>(got);
    return LX_OK;
}
