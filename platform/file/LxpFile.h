// The file layer: the few Win32 file calls the MIDI readers make, over POSIX files.
//
// Only reading is supported (the callers open clips, never write them). Handles are objects of
// ours; INVALID_HANDLE_VALUE reports a failed open as Win32 does. Tests can make any operation
// fail and count the handles left open.
#ifndef LORVEX_PLATFORM_FILE_H
#define LORVEX_PLATFORM_FILE_H

#include <cstdint>

namespace lxp {

struct FileObject;
typedef FileObject* HANDLE;

/// The failed-open handle (all bits set, as on Win32).
extern HANDLE const INVALID_HANDLE_VALUE;

constexpr uint32_t GENERIC_READ = 0x80000000u;
constexpr uint32_t FILE_SHARE_READ = 0x1u;
constexpr uint32_t OPEN_EXISTING = 3;
constexpr uint32_t FILE_ATTRIBUTE_NORMAL = 0x80u;
constexpr uint32_t FILE_BEGIN = 0;
constexpr uint32_t FILE_CURRENT = 1;
constexpr uint32_t FILE_END = 2;
constexpr uint32_t INVALID_FILE_SIZE = 0xFFFFFFFFu;
constexpr uint32_t INVALID_SET_FILE_POINTER = 0xFFFFFFFFu;

/// Opens an existing file for reading. Any access other than GENERIC_READ and any creation mode
/// other than OPEN_EXISTING is refused (INVALID_HANDLE_VALUE), as is a directory.
/// Any thread; each handle is used by one thread at a time.
HANDLE CreateFileA(const char* fileName, uint32_t desiredAccess, uint32_t shareMode, void* securityAttributes,
                   uint32_t creationDisposition, uint32_t flagsAndAttributes, HANDLE templateFile);
/// Reads up to toRead bytes at the file pointer; *bytesRead is what was read (0 at the end of
/// the file, which is not a failure). False on an error. overlapped must be null.
bool ReadFile(HANDLE file, void* buffer, uint32_t toRead, uint32_t* bytesRead, void* overlapped);
/// Moves the file pointer; returns its new low 32 bits, or INVALID_SET_FILE_POINTER on failure
/// (a position before the start of the file fails). distanceHigh may be null.
uint32_t SetFilePointer(HANDLE file, int32_t distance, int32_t* distanceHigh, uint32_t moveMethod);
/// The file's size: low 32 bits returned, high 32 bits in *sizeHigh when it is not null;
/// INVALID_FILE_SIZE on failure.
uint32_t GetFileSize(HANDLE file, uint32_t* sizeHigh);
/// Closes the handle; false for a handle that is not open.
bool CloseHandle(HANDLE file);

/// Test controls of the file layer.
namespace filetest {

enum Operation { Open = 0, Read = 1, Seek = 2, Size = 3 };

/// The (skip + 1)-th call of op from now fails (once); skip 0 fails the next call.
void failAfter(Operation op, int skip);
/// Handles currently open through this layer.
int openHandles();
/// Forgets every planned failure.
void reset();

}  // namespace filetest
}  // namespace lxp

#endif
