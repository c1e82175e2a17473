// Fuzz target: lorvex-play's VRML97 world reader on arbitrary text, a world from the web.
#include "VrmlWorld.h"

#include "FuzzInput.h"

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string& path = fuzzInputFile(data, size, ".wrl");
    WorldOptions options;
    options.maxBytes = 1 << 20;
    options.maxInlineDepth = 3;  // an input may Inline itself or any file it can name
    options.startAt["A"] = 1.0;
    World world;
    readWorld(path, options, &world);
    return 0;
}
