// The local-file data source and its table of extensions.
#include "LxDataSource.h"

#include "LxResult.h"

#include <cstring>
#include <new>

namespace {

// Rows of (key, second key, content name), walked as one flat sequence of strings. The order is
// part of the behaviour: the first string that the extension begins with decides, so of rows with
// the same keys only the first is ever chosen.
const char* const kExtensionTable[][3] = {
    {"wav", "WAV", "audio/wav"},       {"wav", "WAV", "audio/x-wav"},
    {"mid", "MIDI", "x-music/x-midi"}, {"mid", "MIDI", "music/midi"},
    {"aif", "AIFF", "audio/aiff"},     {"aiff", "AIFF", "audio/aiff"},
    {"aiff", "AIFF", "audio/x-aiff"},  {"mpa", "MPEG", "audio/mpeg"},
    {"mpa", "MPEG", "audio/x-mpeg"},   {"mpeg", "MPEG", "video/mpeg"},
    {"mpg", "MPEG", "video/mpeg"},     {"mpe", "MPEG", "video/mpeg"},
    {"mpv", "MPEG", "video/x-mpeg"},   {"mps", "MPEG", "video/x-mpeg-system"},
    {"mov", "MOV", "video/quicktime"}, {"qt", "MOV", "video/quicktime"},
    {"gif", "GIF", "image/gif"},       {nullptr, nullptr, nullptr},
};

const char* const kDefaultContentName = "text/html";

}  // namespace

LxFilenameDataSource::LxFilenameDataSource(const char* fileName) : urlBuffer(nullptr) {
    sourceType = PullSource;
    if (fileName == nullptr) {
        return;
    }
    const size_t n = std::strlen(fileName);
    urlBuffer = new (std::nothrow) char[n + 6];
    if (urlBuffer != nullptr) {
        std::memcpy(urlBuffer, "file:", 5);
        std::memcpy(urlBuffer + 5, fileName, n + 1);
    }
}

LxFilenameDataSource::~LxFilenameDataSource() {
    delete[] urlBuffer;
}

const char* LxFilenameDataSource::getContentName() {
    if (urlBuffer == nullptr) {
        return kDefaultContentName;
    }
    const char* dot = std::strrchr(urlBuffer, '.');
    const char* extension = dot != nullptr ? dot + 1 : urlBuffer;
    for (int row = 0; kExtensionTable[row][0] != nullptr; ++row) {
        for (int column = 0; column < 3; ++column) {
            const char* key = kExtensionTable[row][column];
            if (std::strncmp(extension, key, std::strlen(key)) == 0) {
                return kExtensionTable[row][2];
            }
        }
    }
    return kDefaultContentName;
}

long LxFilenameDataSource::read(char*, long*) {
    return LX_ERR_GENERIC;
}
