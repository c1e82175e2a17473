// LxLog and its sink. With LORVEX_KEEP_LOG the messages are formatted into a bounded deque; without
// it the two post operations are empty inline functions in the header and the sink stays empty.
#include "LxLog.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>

namespace {

#if defined(LORVEX_KEEP_LOG)
struct Sink {
    std::mutex mutex;
    std::deque<std::string> messages;
    std::size_t capacity = 200000;
    bool echo = false;
};

Sink& sink() {
    static Sink* s = new Sink();  // never destroyed: threads may still log during static teardown
    return *s;
}

void keep(const char* format, va_list args) {
    char small[512];
    va_list copy;
    va_copy(copy, args);
    const int needed = std::vsnprintf(small, sizeof small, format, copy);
    va_end(copy);
    std::string text;
    if (needed < 0) {
        text = format;
    } else if (static_cast<std::size_t>(needed) < sizeof small) {
        text.assign(small, static_cast<std::size_t>(needed));
    } else {
        text.resize(static_cast<std::size_t>(needed) + 1);
        std::vsnprintf(&text[0], text.size(), format, args);
        text.resize(static_cast<std::size_t>(needed));
    }
    Sink& s = sink();
    std::lock_guard<std::mutex> guard(s.mutex);
    if (s.echo) {
        std::fputs(text.c_str(), stderr);
    }
    s.messages.push_back(std::move(text));
    while (s.messages.size() > s.capacity) {
        s.messages.pop_front();
    }
}
#endif

}  // namespace

#if defined(LORVEX_KEEP_LOG)
void LxLog::postDebug(const char* format, ...) {
    va_list args;
    va_start(args, format);
    keep(format, args);
    va_end(args);
}

void LxLog::postTrace(const char* format, ...) {
    va_list args;
    va_start(args, format);
    keep(format, args);
    va_end(args);
}

bool LxLogSink::enabled() {
    return true;
}

std::vector<std::string> LxLogSink::messages() {
    Sink& s = sink();
    std::lock_guard<std::mutex> guard(s.mutex);
    return std::vector<std::string>(s.messages.begin(), s.messages.end());
}

void LxLogSink::clear() {
    Sink& s = sink();
    std::lock_guard<std::mutex> guard(s.mutex);
    s.messages.clear();
}

std::size_t LxLogSink::count(const char* text) {
    Sink& s = sink();
    std::lock_guard<std::mutex> guard(s.mutex);
    std::size_t n = 0;
    for (const std::string& m : s.messages) {
        if (m.find(text) != std::string::npos) {
            ++n;
        }
    }
    return n;
}

void LxLogSink::setEcho(bool echo) {
    Sink& s = sink();
    std::lock_guard<std::mutex> guard(s.mutex);
    s.echo = echo;
}

void LxLogSink::setCapacity(std::size_t messages) {
    Sink& s = sink();
    std::lock_guard<std::mutex> guard(s.mutex);
    s.capacity = messages == 0 ? 1 : messages;
}
#else
bool LxLogSink::enabled() {
    return false;
}
std::vector<std::string> LxLogSink::messages() {
    return {};
}
void LxLogSink::clear() {}
std::size_t LxLogSink::count(const char*) {
    return 0;
}
void LxLogSink::setEcho(bool) {}
void LxLogSink::setCapacity(std::size_t) {}
#endif
