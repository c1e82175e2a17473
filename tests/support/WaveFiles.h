// WAVE files for tests: clips written by sox, and the means to take them apart and splice or
// break chunks.
#ifndef LORVEX_TESTS_SUPPORT_WAVEFILES_H
#define LORVEX_TESTS_SUPPORT_WAVEFILES_H

#include "LxDataSource.h"
#include "TestSupport.h"

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace lxtest {

/// One RIFF chunk: its four-character id and its body (without the pad byte).
struct RiffChunk {
    std::string id;
    std::string body;
};

std::string le16(uint16_t v);
std::string le32(uint32_t v);

/// The chunks behind "RIFF" <length> "WAVE"; false when the bytes are not such a file.
bool splitWave(const std::string& file, std::vector<RiffChunk>* chunks);
/// A RIFF/WAVE file of the chunks, odd bodies padded, the RIFF length right.
std::string joinWave(const std::vector<RiffChunk>& chunks);
/// A "fmt " body; extra is appended (an 18-byte chunk has two extra bytes).
std::string fmtBody(uint16_t tag, uint16_t channels, uint32_t rate, uint32_t avgBytes, uint16_t align,
                    uint16_t bits, const std::string& extra = "");
/// A consistent PCM "fmt " body.
std::string pcmFmtBody(uint16_t channels, uint32_t rate, uint16_t bits);
/// The body of the first "data" chunk (empty when there is none).
std::string dataOf(const std::string& file);
/// A 64-bit FNV-1a checksum, for comparing sample streams in failure messages.
uint64_t checksum(const std::string& bytes);

/// Writes a clip with sox into dir; returns its path, or "" when sox is missing or fails. Without
/// an encoding: 8-bit unsigned or 16-bit signed, tones of 440 and 660 Hz in turn on the channels;
/// with one ("floating-point", "mu-law" ...): 440 Hz at half scale on every channel, undithered.
std::string soxClip(const TempDir& dir, const std::string& name, int rate, int bits, int channels,
                    double seconds, const char* encoding = nullptr);

/// A local file whose data is only available once the test says so (so listeners can be attached
/// before the player initialises), and whose content name the test may replace.
class GatedFileSource : public LxFilenameDataSource {
  public:
    explicit GatedFileSource(const std::string& path, bool available = false)
        : LxFilenameDataSource(path.c_str()), available_(available) {}
    char dataAvailable() override { return available_.load() ? 1 : 0; }
    const char* getContentName() override {
        return contentName_.empty() ? LxFilenameDataSource::getContentName() : contentName_.c_str();
    }
    void open() { available_ = true; }
    void setContentName(const std::string& name) { contentName_ = name; }

  private:
    std::atomic<bool> available_;
    std::string contentName_;
};

}  // namespace lxtest

#endif
