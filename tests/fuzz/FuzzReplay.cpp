// Runs a fuzz target's entry function over every file of its checked-in corpus, so that each
// test build replays the inputs that once mattered (a crash or a sanitizer report fails).
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

TEST(FuzzReplay, EveryCorpusInputRunsCleanly) {
    std::error_code error;
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(LORVEX_FUZZ_CORPUS, error)) {
        SCOPED_TRACE(entry.path().string());
        ++files;
        const std::string input = lxtest::readFile(entry.path().string());
        const auto* data = reinterpret_cast<const uint8_t*>(input.data());
        EXPECT_EQ(0, LLVMFuzzerTestOneInput(data, input.size()));
        // Every prefix too: the cheapest way to cover the cut-off cases.
        for (size_t n = 0; n < input.size() && n < 128; ++n) {
            LLVMFuzzerTestOneInput(data, n);
        }
    }
    EXPECT_NE(0, files) << "no corpus in " << LORVEX_FUZZ_CORPUS;
}

}  // namespace
