// The file layer: reads, seeks, sizes, failures and handle accounting.
#include "platform/file/LxpFile.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

namespace {

using namespace lxp;

HANDLE openFile(const std::string& path, uint32_t access = GENERIC_READ) {
    return CreateFileA(path.c_str(), access, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL,
                       nullptr);
}

TEST(File, ReadsSeeksAndReportsTheEndAsAShortRead) {
    lxtest::TempDir dir;
    ASSERT_TRUE(lxtest::writeFile(dir.file("a"), "0123456789"));
    const int before = filetest::openHandles();
    HANDLE f = openFile(dir.file("a"));
    ASSERT_NE(INVALID_HANDLE_VALUE, f);
    EXPECT_EQ(before + 1, filetest::openHandles());
    uint32_t high = 7;
    EXPECT_EQ(10u, GetFileSize(f, &high));
    EXPECT_EQ(0u, high);
    char buf[8] = {};
    uint32_t got = 0;
    ASSERT_TRUE(ReadFile(f, buf, 4, &got, nullptr));
    EXPECT_EQ("0123", std::string(buf, got));
    EXPECT_EQ(8u, SetFilePointer(f, 4, nullptr, FILE_CURRENT));
    ASSERT_TRUE(ReadFile(f, buf, 8, &got, nullptr));
    EXPECT_EQ(2u, got) << "a read across the end returns what is there";
    ASSERT_TRUE(ReadFile(f, buf, 8, &got, nullptr));
    EXPECT_EQ(0u, got);
    EXPECT_EQ(INVALID_SET_FILE_POINTER, SetFilePointer(f, -20, nullptr, FILE_END));
    EXPECT_EQ(3u, SetFilePointer(f, 3, nullptr, FILE_BEGIN));
    EXPECT_EQ(20u, SetFilePointer(f, 20, nullptr, FILE_BEGIN)) << "past the end is allowed, reads give 0";
    EXPECT_TRUE(CloseHandle(f));
    EXPECT_EQ(before, filetest::openHandles());
    EXPECT_FALSE(CloseHandle(INVALID_HANDLE_VALUE));
}

// (Each injected failure at once, and what a reader makes of it, the MIDI parser's tests show.)
TEST(File, RefusesWhatItCannotDoAndFailsOnDemand) {
    lxtest::TempDir dir;
    const std::string a = dir.file("a");
    ASSERT_TRUE(lxtest::writeFile(a, "xyz"));
    EXPECT_EQ(INVALID_HANDLE_VALUE, openFile("/nonexistent/file"));
    EXPECT_EQ(INVALID_HANDLE_VALUE, openFile(dir.path())) << "a directory";
    EXPECT_EQ(INVALID_HANDLE_VALUE, openFile(a, 0x40000000u)) << "for writing";
    HANDLE f = openFile(a);
    ASSERT_NE(INVALID_HANDLE_VALUE, f);
    char c;
    uint32_t got = 9;
    filetest::failAfter(filetest::Read, 1);
    EXPECT_TRUE(ReadFile(f, &c, 1, &got, nullptr));
    EXPECT_FALSE(ReadFile(f, &c, 1, &got, nullptr)) << "the second read fails";
    EXPECT_EQ(0u, got);
    EXPECT_TRUE(ReadFile(f, &c, 1, &got, nullptr));
    EXPECT_EQ('y', c) << "one read fails, the next goes on where it was";
    EXPECT_TRUE(CloseHandle(f));
    filetest::reset();
}

}  // namespace
