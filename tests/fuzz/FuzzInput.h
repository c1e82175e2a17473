// The readers under fuzzing take file names: each input goes through one scratch file of this
// process (named with the suffix a reader may look at), removed at exit.
#ifndef LORVEX_TESTS_FUZZ_FUZZINPUT_H
#define LORVEX_TESTS_FUZZ_FUZZINPUT_H

#include <unistd.h>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

/// Writes the input to the scratch file and returns its path.
inline const std::string& fuzzInputFile(const uint8_t* data, size_t size, const char* suffix = "") {
    static const std::string path = [suffix] {
        std::string name = std::string("/tmp/lorvex-fuzz-XXXXXX") + suffix;
        const int fd = mkstemps(&name[0], static_cast<int>(std::strlen(suffix)));
        if (fd >= 0) {
            close(fd);
        }
        std::atexit([] { std::remove(path.c_str()); });
        return name;
    }();
    if (FILE* f = std::fopen(path.c_str(), "wb")) {
        std::fwrite(data, 1, size, f);
        std::fclose(f);
    }
    return path;
}

#endif
