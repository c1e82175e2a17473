// Runs a fuzz target's entry function over every file of its checked-in corpus, so that each
// test build replays the inputs that once mattered (a crash or a sanitizer report fails).
#include <gtest/gtest.h>

#include <dirent.h>
#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

std::vector<std::string> corpusFiles() {
    std::vector<std::string> files;
    if (DIR* dir = opendir(LORVEX_FUZZ_CORPUS)) {
        while (dirent* entry = readdir(dir)) {
            const std::string name = entry->d_name;
            if (name != "." && name != "..") {
                files.push_back(std::string(LORVEX_FUZZ_CORPUS) + "/" + name);
            }
        }
        closedir(dir);
    }
    return files;
}

TEST(FuzzReplay, EveryCorpusInputRunsCleanly) {
    const std::vector<std::string> files = corpusFiles();
    ASSERT_FALSE(files.empty()) << "no corpus in " << LORVEX_FUZZ_CORPUS;
    for (const std::string& file : files) {
        SCOPED_TRACE(file);
        std::ifstream in(file, std::ios::binary);
        std::ostringstream bytes;
        bytes << in.rdbuf();
        const std::string input = bytes.str();
        const auto* data = reinterpret_cast<const uint8_t*>(input.data());
        EXPECT_EQ(0, LLVMFuzzerTestOneInput(data, input.size()));
        // Every prefix too: the cheapest way to cover the cut-off cases.
        for (size_t n = 0; n < input.size() && n < 128; ++n) {
            LLVMFuzzerTestOneInput(data, n);
        }
    }
}

}  // namespace
