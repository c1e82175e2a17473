#include "LxVersion.h"

#include "LxDiagnostics.h"
#include "LxLog.h"

#include <cstdlib>
#include <cstring>

unsigned long LxCheckVersion(long major, long minor) {
    if (major == LX_VERSION_MAJOR && minor == LX_VERSION_MINOR) {
        return 1;
    }
    LxLog::postDebug("Lorvex Version Mismatch.  Have %d.%d, Need %d.%d\n", static_cast<int>(LX_VERSION_MAJOR),
                     static_cast<int>(LX_VERSION_MINOR), static_cast<int>(major), static_cast<int>(minor));
    return 0;
}

void LxGetVersion(long* major, long* minor) {
    if (major != nullptr) {
        *major = LX_VERSION_MAJOR;
    }
    if (minor != nullptr) {
        *minor = LX_VERSION_MINOR;
    }
}

void LxGetVersion(long& major, long& minor) {
    LxGetVersion(&major, &minor);
}

namespace {

// Replaces target with a fresh copy of source when source is set. An old text of the target is
// released first: the record owns its texts and must not lose one.
void copyText(char*& target, const char* source) {
    if (source == nullptr) {
        return;
    }
    char* copy = strdup(source);
    std::free(target);
    target = copy;  // stays null when the copy could not be made
}

}  // namespace

LxDiagnostics::LxDiagnostics()
    : mediaFrameworkName(nullptr),
      mediaFrameworkVersion(0),
      soundSystemName(nullptr),
      soundSystemVersion(0),
      soundDevice(nullptr),
      otherInfo(nullptr),
      midiCapable(0) {}

LxDiagnostics::LxDiagnostics(const LxDiagnostics& other) : LxDiagnostics() {
    *this = other;
}

LxDiagnostics::~LxDiagnostics() {
    std::free(mediaFrameworkName);
    mediaFrameworkName = nullptr;
    std::free(soundSystemName);
    soundSystemName = nullptr;
    std::free(soundDevice);
    soundDevice = nullptr;
    std::free(otherInfo);
    otherInfo = nullptr;
}

LxDiagnostics& LxDiagnostics::operator=(const LxDiagnostics& other) {
    if (this == &other) {
        return *this;
    }
    copyText(mediaFrameworkName, other.mediaFrameworkName);
    copyText(soundSystemName, other.soundSystemName);
    copyText(soundDevice, other.soundDevice);
    copyText(otherInfo, other.otherInfo);
    mediaFrameworkVersion = other.mediaFrameworkVersion;
    soundSystemVersion = other.soundSystemVersion;
    midiCapable = other.midiCapable;
    return *this;
}
