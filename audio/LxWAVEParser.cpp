// The WAVE header walk and sample reads. The file is read with the C library's buffered
// functions, which is all a sequential walk over a local file needs.
#include "audio/LxWAVEParser.h"

#include "LxDataSource.h"
#include "LxLog.h"
#include "LxResult.h"

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

}  // namespace

LxWAVEParser::LxWAVEParser() : waveFormat(nullptr), file(nullptr), dataStart(0), dataLength(0), position(0) {}

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
    if (wf.formatTag != 1) {
        return fail(LX_ERR_UNSUPPORTED, "LxWAVEParser: Can only decode PCM-format WAVE files\n", shown);
    }
    if (wf.avgBytesPerSec != wf.samplesPerSec * wf.blockAlign ||
        wf.blockAlign != (wf.bitsPerSample / 8) * wf.channels ||
        (wf.bitsPerSample != 8 && wf.bitsPerSample != 16)) {
        return fail(LX_ERR_INVALID_WAVE, "LxWAVEParser: inconsistent format information for PCM WAVE file\n",
                    shown);
    }
    // The rules above let through headers no format can describe: formats carry mono and stereo
    // only and frame buffers are sized for them, and a rate of 0 gives no duration and no time
    // to play at. Such files are refused as invalid rather than played wrongly.
    if (wf.channels == 0 || wf.channels > 2) {
        LxLog::postDebug("LxWAVEParser: cannot play %u channels\n", static_cast<unsigned>(wf.channels));
        return fail(LX_ERR_INVALID_WAVE, "LxWAVEParser: invalid channel count for PCM WAVE file\n", shown);
    }
    if (wf.samplesPerSec == 0) {
        return fail(LX_ERR_INVALID_WAVE, "LxWAVEParser: sampling rate of 0 in PCM WAVE file\n", shown);
    }

    // The rest of "fmt " (an extra-size field, say), then the chunks up to "data".
    if (!skip(length - 16) || !readTag(id)) {
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
    dataLength = length;
    dataStart = std::ftell(file);
    position = dataStart;

    const int16_t frameSize = static_cast<int16_t>((wf.bitsPerSample / 8) * wf.channels);
    const double seconds = static_cast<int32_t>(dataLength) /
                           (static_cast<double>(wf.samplesPerSec) * static_cast<double>(frameSize));
    const int32_t whole = static_cast<int32_t>(seconds);
    duration = LxTime(whole, static_cast<int32_t>((seconds - whole) * 1000000.0));

    LxAudioFormat* made = new (std::nothrow)
        LxAudioFormat(wf.bitsPerSample == 8 ? LxSample8 : LxSample16, wf.channels == 1 ? LxMono : LxStereo,
                      static_cast<float>(wf.samplesPerSec), 0, LxFormat::PullStream);
    if (made == nullptr) {
        return LX_ERR_OUT_OF_MEMORY;
    }
    LxLog::postDebug("LxWAVEParser: wave file %s %s %i\n", wf.bitsPerSample == 8 ? "PCM_8" : "PCM_16",
                     wf.channels == 1 ? "Mono" : "Stereo", static_cast<int>(wf.samplesPerSec));
    if (format != nullptr) {
        *format = made;
    } else {
        made->unref();
    }
    return LX_OK;
}

KtResult LxWAVEParser::seek(long byteOffset) {
    if (file == nullptr || std::fseek(file, dataStart + byteOffset, SEEK_SET) != 0) {
        return LX_ERR_GENERIC;
    }
    position = dataStart + byteOffset;
    return LX_OK;
}

KtResult LxWAVEParser::readFrame(LxAudioFrame* frame, char* endOfMedia) {
    if (file == nullptr || waveFormat == nullptr || frame == nullptr) {
        return LX_ERR_WAVE_READ;
    }
    const int16_t s = static_cast<int16_t>((waveFormat->bitsPerSample / 8) * waveFormat->channels);
    if (s <= 0) {
        return LX_ERR_WAVE_READ;
    }
    long room = static_cast<long>(frame->fillable - frame->filled) * s;
    if (room < 0 || frame->data == nullptr) {
        room = 0;
    }
    const size_t n = room > 0 ? std::fread(frame->data + static_cast<long>(frame->filled) * s, 1,
                                           static_cast<size_t>(room), file)
                              : 0;
    if (std::ferror(file)) {
        LxLog::postDebug("LxWAVEParser: error reading file\n");
        return LX_ERR_WAVE_READ;
    }
    if (std::feof(file)) {
        LxLog::postDebug("LxWAVEParser: hit eof\n");
        if (endOfMedia != nullptr) {
            *endOfMedia = 1;
        }
    } else if (endOfMedia != nullptr) {
        *endOfMedia = 0;
    }
    frame->filled += static_cast<int32_t>(n / static_cast<size_t>(s));
    position = std::ftell(file);
    return LX_OK;
}
