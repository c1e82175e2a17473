// LxWAVEParser: RIFF/WAVE files with PCM data, read with the C library's buffered file functions.
#ifndef LORVEX_AUDIO_LXWAVEPARSER_H
#define LORVEX_AUDIO_LXWAVEPARSER_H

#include "LxAudioPlayer.h"

#include <cstdint>
#include <cstdio>

/// The fields of a WAVE "fmt " chunk, laid out as the platform's WAVEFORMATEX.
struct LxWaveFormat {
    uint16_t formatTag;
    uint16_t channels;
    uint32_t samplesPerSec;
    uint32_t avgBytesPerSec;
    uint16_t blockAlign;
    uint16_t bitsPerSample;
    /// Not read from the file.
    uint16_t extraSize;
};

class LxWAVEParser : public LxAudioParser {
  public:
    LxWAVEParser();
    /// Closes the file.
    ~LxWAVEParser() override;

    /// Opens the source's local file ("rb"): 1, or 0x204.
    KtResult open(LxNode* node, LxDataSource* source) override;
    /// Walks the chunks up to "data". 0x435 for a file that is not a usable WAVE file, 0x2A4 for a
    /// format other than PCM, 0x203 when memory runs out. Failures log where they happened.
    KtResult readHeader(LxAudioFormat** format) override;
    /// 0x201 when the file cannot be positioned there.
    KtResult seek(long byteOffset) override;
    /// Reads the frame's free room from the file; 0x205 on a read error (frame untouched).
    KtResult readFrame(LxAudioFrame* frame, char* endOfMedia) override;

    /// After readHeader: the header record, and where the samples start.
    const LxWaveFormat* getWaveFormat() const { return waveFormat; }
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
    /// Logs message, then where the walk stood, and returns result.
    KtResult fail(KtResult result, const char* message, const char* chunk);
    bool readTag(char tag[5]);
    bool readU32(uint32_t* value);
    bool readU16(uint16_t* value);
    bool skip(uint32_t length);

    LxWAVEParser(const LxWAVEParser&) = delete;
    LxWAVEParser& operator=(const LxWAVEParser&) = delete;
};

#endif
