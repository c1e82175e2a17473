// LxWAVEParser: RIFF/WAVE files, read with the C library's buffered file functions.
#ifndef LORVEX_AUDIO_LXWAVEPARSER_H
#define LORVEX_AUDIO_LXWAVEPARSER_H

#include "LxAudioPlayer.h"

#include <cstdint>
#include <cstdio>
#include <vector>

/// The fields of a WAVE "fmt " chunk, laid out as the platform's WAVEFORMATEX.
struct LxWaveFormat {
    uint16_t formatTag;
    uint16_t channels;
    uint32_t samplesPerSec;
    uint32_t avgBytesPerSec;
    uint16_t blockAlign;
    uint16_t bitsPerSample;
    /// The extension's size when the chunk has one (WAVE_FORMAT_EXTENSIBLE needs 22), else 0.
    uint16_t extraSize;
};

/// Plays integer PCM of 8, 16, 24 and 32 bits, IEEE float of 32 and 64 bits, A-law and mu-law,
/// plain or in WAVE_FORMAT_EXTENSIBLE, with 1 to 8 channels at 1 Hz to 384 kHz. 8- and 16-bit PCM
/// in mono or stereo reach the renderer as the file holds them; everything else is converted to
/// 16-bit samples, and more than two channels are mixed down to stereo. Only the "data" chunk is
/// played: whatever follows it in the file (a LIST chunk, a pad byte) is not.
class LxWAVEParser : public LxAudioParser {
  public:
    /// The rates and channel counts a clip may have.
    static constexpr uint32_t kMinRate = 1;
    static constexpr uint32_t kMaxRate = 384000;
    static constexpr uint16_t kMaxChannels = 8;

    LxWAVEParser();
    /// Closes the file.
    ~LxWAVEParser() override;

    /// Opens the source's local file ("rb"): 1, or 0x204.
    KtResult open(LxNode* node, LxDataSource* source) override;
    /// Walks the chunks up to "data". 0x435 for a file that is not a usable WAVE file, 0x2A4 for a
    /// sample encoding it cannot play, 0x203 when memory runs out. Failures log what was wrong and
    /// the byte offset and chunk where the walk stood.
    KtResult readHeader(LxAudioFormat** format) override;
    /// byteOffset counts in the delivered format (the one readHeader describes); it is taken to
    /// whole sample frames and to the end of the data. 0x201 when the file cannot be positioned.
    KtResult seek(long byteOffset) override;
    /// Fills the frame's free room with delivered sample frames; the end of media comes with the
    /// data chunk's last whole sample frame. 0x205 on a read error (frame untouched).
    KtResult readFrame(LxAudioFrame* frame, char* endOfMedia) override;

    /// After readHeader: where the samples start and how many bytes of them the file holds (the
    /// declared length, cut to the file's end).
    long getDataStart() const { return dataStart; }
    uint32_t getDataLength() const { return dataLength; }
    long getPosition() const { return position; }

  protected:
    LxWaveFormat* waveFormat;
    FILE* file;
    long dataStart;
    uint32_t dataLength;
    long position;

  private:
    /// How the file's samples are encoded, after an extensible format is resolved.
    enum Encoding { PCM_INT, PCM_FLOAT, ALAW, MULAW };

    /// Logs message, then where the walk stood, and returns result.
    KtResult fail(KtResult result, const char* message, const char* chunk);
    bool readTag(char tag[5]);
    bool readU32(uint32_t* value);
    bool readU16(uint16_t* value);
    bool skip(uint32_t length);
    /// Checks the format record and works out the delivered format. 1, or a failure (logged).
    KtResult checkFormat(uint32_t channelMask, const char* chunk);
    /// One source sample as a 16-bit value.
    int16_t sampleAt(const unsigned char* p) const;

    Encoding encoding;
    /// Bytes of one sample of one channel in the file.
    int sampleBytes;
    /// The file's samples are copied as they are (8- or 16-bit PCM, mono or stereo).
    bool copyAsIs;
    /// Channels delivered (1 or 2) and the bytes of one delivered sample frame.
    int outChannels;
    int outFrameBytes;
    /// Down-mix weights of every source channel into the left and right output.
    std::vector<float> leftGain;
    std::vector<float> rightGain;
    /// One past the last byte of the data chunk that the file holds.
    int64_t dataEnd;
    std::vector<unsigned char> scratch;

    LxWAVEParser(const LxWAVEParser&) = delete;
    LxWAVEParser& operator=(const LxWAVEParser&) = delete;
};

#endif
