#include "platform/file/LxpFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <cstdint>

namespace lxp {

struct FileObject {
    int fd;
};

HANDLE const INVALID_HANDLE_VALUE = reinterpret_cast<HANDLE>(~static_cast<uintptr_t>(0));

namespace {

std::atomic<int> gOpenHandles{0};
// Countdown per operation: -1 none planned, 0 the next call fails.
std::atomic<int> gFailAfter[4] = {{-1}, {-1}, {-1}, {-1}};

bool plannedFailure(filetest::Operation op) {
    int left = gFailAfter[op].load();
    while (left >= 0) {
        if (gFailAfter[op].compare_exchange_weak(left, left - 1)) {
            return left == 0;
        }
    }
    return false;
}

bool valid(HANDLE file) {
    return file != nullptr && file != INVALID_HANDLE_VALUE && file->fd >= 0;
}

}  // namespace

HANDLE CreateFileA(const char* fileName, uint32_t desiredAccess, uint32_t, void*,
                   uint32_t creationDisposition, uint32_t, HANDLE) {
    if (fileName == nullptr || desiredAccess != GENERIC_READ || creationDisposition != OPEN_EXISTING ||
        plannedFailure(filetest::Open)) {
        return INVALID_HANDLE_VALUE;
    }
    int fd;
    do {
        fd = ::open(fileName, O_RDONLY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        return INVALID_HANDLE_VALUE;
    }
    struct stat st;
    if (::fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) {
        ::close(fd);
        return INVALID_HANDLE_VALUE;
    }
    ++gOpenHandles;
    return new FileObject{fd};
}

bool ReadFile(HANDLE file, void* buffer, uint32_t toRead, uint32_t* bytesRead, void* overlapped) {
    if (bytesRead != nullptr) {
        *bytesRead = 0;
    }
    if (!valid(file) || overlapped != nullptr || (buffer == nullptr && toRead > 0) ||
        plannedFailure(filetest::Read)) {
        return false;
    }
    uint32_t total = 0;
    char* out = static_cast<char*>(buffer);
    while (total < toRead) {
        const ssize_t n = ::read(file->fd, out + total, toRead - total);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return false;
        }
        if (n == 0) {
            break;  // end of file: a short read, not an error
        }
        total += static_cast<uint32_t>(n);
    }
    if (bytesRead != nullptr) {
        *bytesRead = total;
    }
    return true;
}

uint32_t SetFilePointer(HANDLE file, int32_t distance, int32_t* distanceHigh, uint32_t moveMethod) {
    if (!valid(file) || moveMethod > FILE_END || plannedFailure(filetest::Seek)) {
        return INVALID_SET_FILE_POINTER;
    }
    int64_t offset = distance;
    if (distanceHigh != nullptr) {
        // With a high part the two halves form one signed 64-bit distance.
        offset = static_cast<int64_t>((static_cast<uint64_t>(static_cast<uint32_t>(*distanceHigh)) << 32) |
                                      static_cast<uint32_t>(distance));
    }
    const int whence = moveMethod == FILE_BEGIN ? SEEK_SET : moveMethod == FILE_CURRENT ? SEEK_CUR : SEEK_END;
    const off_t pos = ::lseek(file->fd, static_cast<off_t>(offset), whence);
    if (pos < 0) {
        return INVALID_SET_FILE_POINTER;
    }
    if (distanceHigh != nullptr) {
        *distanceHigh = static_cast<int32_t>(static_cast<uint64_t>(pos) >> 32);
    }
    return static_cast<uint32_t>(pos);
}

uint32_t GetFileSize(HANDLE file, uint32_t* sizeHigh) {
    struct stat st;
    if (!valid(file) || plannedFailure(filetest::Size) || ::fstat(file->fd, &st) != 0) {
        return INVALID_FILE_SIZE;
    }
    if (sizeHigh != nullptr) {
        *sizeHigh = static_cast<uint32_t>(static_cast<uint64_t>(st.st_size) >> 32);
    }
    return static_cast<uint32_t>(st.st_size);
}

bool CloseHandle(HANDLE file) {
    if (!valid(file)) {
        return false;
    }
    ::close(file->fd);
    file->fd = -1;
    delete file;
    --gOpenHandles;
    return true;
}

namespace filetest {

void failAfter(Operation op, int skip) {
    gFailAfter[op].store(skip < 0 ? -1 : skip);
}

int openHandles() {
    return gOpenHandles.load();
}

void reset() {
    for (auto& f : gFailAfter) {
        f.store(-1);
    }
}

}  // namespace filetest
}  // namespace lxp
