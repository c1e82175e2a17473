// Fuzz target: the WAVE header walk and the sample reads behind it, on arbitrary bytes.
#include "LxDataSource.h"
#include "LxFormat.h"
#include "LxResult.h"
#include "audio/LxWAVEParser.h"

#include "FuzzInput.h"

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    LxFilenameDataSource source(fuzzInputFile(data, size).c_str());
    LxWAVEParser parser;
    if (parser.open(nullptr, &source) != LX_OK) {
        return 0;
    }
    LxAudioFormat* format = nullptr;
    if (parser.readHeader(&format) != LX_OK) {
        return 0;
    }
    const int frameBytes =
        (format->getSampleFormat() == LxSample8 ? 1 : 2) * (format->getChannels() == LxMono ? 1 : 2);
    format->unref();
    LxAudioFrame frame;
    frame.fillable = 97;  // an odd size, so reads end in the middle of chunks and pads
    frame.data = new unsigned char[static_cast<size_t>(frame.fillable) * frameBytes];
    for (int pass = 0; pass < 2; ++pass) {
        for (int reads = 0; reads < 4096; ++reads) {
            frame.filled = 0;
            char eom = 0;
            if (parser.readFrame(&frame, &eom) != LX_OK || eom) {
                break;
            }
        }
        parser.seek(static_cast<long>(size / 3));
    }
    return 0;
}
