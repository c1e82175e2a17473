// The local-file data source: its URL and file name, and content names by extension.
#include "LxDataSource.h"

#include "LxResult.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(LxFilenameDataSource, ContentNamesComeFromTheFirstMatchingPrefixInTableOrder) {
    struct Case {
        const char* file;
        const char* content;
    };
    const Case cases[] = {
        {"x.wav", "audio/wav"},        {"x.WAV", "audio/wav"},       {"x.WAVE", "audio/wav"},
        {"x.mid", "x-music/x-midi"},   {"x.midi", "x-music/x-midi"}, {"x.MIDI", "x-music/x-midi"},
        {"x.MID", "text/html"},        {"x.aif", "audio/aiff"},      {"x.aiff", "audio/aiff"},
        {"x.AIFF", "audio/aiff"},      {"x.mpa", "audio/mpeg"},      {"x.MPEG", "audio/mpeg"},
        {"x.mpeg", "video/mpeg"},      {"x.mpg", "video/mpeg"},      {"x.MPG", "text/html"},
        {"x.mpe", "video/mpeg"},       {"x.mpv", "video/x-mpeg"},    {"x.mps", "video/x-mpeg-system"},
        {"x.mov", "video/quicktime"},  {"x.MOV", "video/quicktime"}, {"x.qt", "video/quicktime"},
        {"x.gif", "image/gif"},        {"x.GIF", "image/gif"},       {"x.Wav", "text/html"},
        {"x.txt", "text/html"},        {"noextension", "text/html"}, {"dir.mov/clip", "video/quicktime"},
        {"a.b.mid", "x-music/x-midi"}, {"x.", "text/html"},          {"", "text/html"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(std::string(c.content), LxFilenameDataSource(c.file).getContentName()) << c.file;
    }
}

}  // namespace
