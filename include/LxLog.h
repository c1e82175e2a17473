// LxLog.h - the library's diagnostic message sink.
//
// Every message of the library goes through LxLog::postDebug or LxLog::postTrace. In the shipped
// build both do nothing: the format is not expanded and no state changes. A build configured with
// LORVEX_KEEP_LOG=ON formats each message and keeps it in a bounded in-memory sink (LxLogSink)
// that tests read; the sink can also echo messages to standard error.
#ifndef LX_LOG_H
#define LX_LOG_H

#include "LxApi.h"

#include <cstddef>
#include <string>
#include <vector>

class LX_API LxLog {
  public:
    LxLog() {}
    ~LxLog() {}
    LxLog(const LxLog&) {}
    LxLog& operator=(const LxLog&) { return *this; }

#if defined(LORVEX_KEEP_LOG)
    static void postDebug(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void postTrace(const char* format, ...) __attribute__((format(printf, 1, 2)));
#else
    static void postDebug(const char*, ...) {}
    static void postTrace(const char*, ...) {}
#endif
};

/// Where kept messages go. All operations are thread-safe. In a build that does not keep
/// messages, enabled() is false and the sink stays empty.
class LX_API LxLogSink {
  public:
    /// Whether this build keeps messages at all.
    static bool enabled();
    /// Every kept message, oldest first, exactly as formatted (with their trailing newlines).
    static std::vector<std::string> messages();
    /// Forgets every kept message.
    static void clear();
    /// Number of kept messages that contain text.
    static std::size_t count(const char* text);
    /// Whether some kept message contains text.
    static bool contains(const char* text) { return count(text) > 0; }
    /// Also write every message to standard error as it arrives (off by default).
    static void setEcho(bool echo);
    /// The sink keeps at most this many messages and drops the oldest beyond it (default 200000).
    static void setCapacity(std::size_t messages);
};

#endif  // LX_LOG_H
