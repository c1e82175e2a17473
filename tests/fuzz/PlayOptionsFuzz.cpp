// Fuzz target: lorvex-play's command line, any words (the input split at NUL bytes into argv).
#include "Options.h"

#include <cstdint>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::string> words{"lorvex-play", ""};
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == 0) {
            words.emplace_back();
        } else {
            words.back() += static_cast<char>(data[i]);
        }
    }
    std::vector<char*> argv;
    for (std::string& w : words) {
        argv.push_back(&w[0]);
    }
    argv.push_back(nullptr);
    Options options;
    bool version = false;
    if (parseArgs(static_cast<int>(words.size()), argv.data(), &options, &version)) {
        // What was taken stays inside the ranges the library can be given.
        for (const ClipOptions& c : options.clips) {
            if (!(c.rate >= 0.01f && c.rate <= 100.0f) || !(c.gain >= 0.0f && c.gain <= 1.0f)) {
                __builtin_trap();
            }
        }
        if (options.channels != -1 && (options.channels < 1 || options.channels > 1024)) {
            __builtin_trap();
        }
    }
    return 0;
}
