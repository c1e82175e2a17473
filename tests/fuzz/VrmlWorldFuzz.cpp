// Fuzz target: lorvex-play's VRML97 world reader on arbitrary text, a world from the web.
#include "VrmlWorld.h"

#include <unistd.h>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The reader takes a path, so each input goes through one scratch file of this process.
    static const std::string path = [] {
        char name[] = "/tmp/lorvex-fuzz-world-XXXXXX.wrl";
        const int fd = mkstemps(name, 4);
        if (fd >= 0) {
            close(fd);
        }
        std::atexit([] { std::remove(path.c_str()); });
        return std::string(name);
    }();
    if (FILE* f = std::fopen(path.c_str(), "wb")) {
        std::fwrite(data, 1, size, f);
        std::fclose(f);
    }
    WorldOptions options;
    options.maxBytes = 1 << 20;
    options.maxInlineDepth = 3;  // an input may Inline itself or any file it can name
    options.startAt["A"] = 1.0;
    World world;
    readWorld(path, options, &world);
    return 0;
}
