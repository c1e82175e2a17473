// Fuzz entry for the Standard MIDI File readers: the stream parser (a whole pass, with roomy and
// with tiny stream buffers so that events are carried over) and the file model with its tempo map,
// with and without its events.
#include "midi/LxWin32MidiParser.h"
#include "midi/LxWin32NewMidiParser.h"

#include "FuzzInput.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace {

class Owner : public LxMidiParserOwner {
  public:
    float getParserGain() override { return 0.5f; }
    float getParserTempoScale() override { return 1.5f; }
    bool takeTempoChanged() override { return (++calls_ % 7) == 0; }
    void storeChannelVolume(unsigned channel, uint32_t) override {
        if (channel > 15) {
            __builtin_trap();
        }
    }

  private:
    unsigned calls_ = 0;
};

void parseStream(const char* path, uint32_t capacity) {
    Owner owner;
    LxWin32MidiParser parser(&owner);
    if (parser.openFile(path) != 1) {
        return;
    }
    std::vector<char> data(capacity);
    LxMidiStreamBuffer buffer{};
    for (int n = 0; n < 1000000; ++n) {
        buffer = LxMidiStreamBuffer{};
        buffer.header.lpData = data.data();
        buffer.header.dwBufferLength = capacity;
        buffer.capacity = capacity;
        if (parser.parseNewBuffer(n == 0, &buffer) != 0 || buffer.bytesUsed > capacity) {
            break;
        }
    }
    parser.closeFile();
    if (parser.getEventDataBlocks() != 0) {
        __builtin_trap();  // a payload was lost
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string& path = fuzzInputFile(data, size, ".mid");
    parseStream(path.c_str(), 1024);
    parseStream(path.c_str(), 24);

    // The model with its events and the summary the player reads must agree.
    LxWin32NewMidiParser model;
    LxWin32NewMidiParser summary;
    const KtResult loaded = model.loadFile(path.c_str());
    if (loaded != summary.loadFile(path.c_str(), false)) {
        __builtin_trap();
    }
    if (loaded == 1) {
        int64_t last = -1;
        for (long i = 0; i < model.getTrackCount(); ++i) {
            last = std::max(last, model.getLastTick(i));
            if (model.getLastTick(i) != summary.getLastTick(i)) {
                __builtin_trap();
            }
        }
        if (model.getTrackCount() != summary.getTrackCount() ||
            model.getTempoMap().size() != summary.getTempoMap().size() ||
            std::memcmp(model.getChannelsUsed(), summary.getChannelsUsed(), 16) != 0) {
            __builtin_trap();
        }
        LxWin32NewMidiParser::tickToTime(last, model.getDivision(), model.getTempoMap());
    }
    return 0;
}
