// LxVersionDetection.h - which platform generation the library runs on.
#ifndef LX_VERSION_DETECTION_H
#define LX_VERSION_DETECTION_H

#include "Kt.h"
#include "LxApi.h"

/// The DirectX version (0 for unknown or none, 0x100, 0x200, 0x300, 0x500, 0x501), the platform
/// (0 unknown or Windows NT before 4.0, 1 Windows 95 family, 2 Windows NT family) and whether a
/// DirectShow filter graph can be created (1) or not (0). Worked out once per process, under the
/// library's probe lock, and answered from that cache afterwards. Any thread.
LX_API void GetDXAndWin32Version(unsigned long* dxVersion, unsigned long* platform,
                                 unsigned long* directShow);

/// Forgets the cached answer, so that the next call probes again. For tests only.
void LxResetDXAndWin32VersionCache();
/// The probe lock itself (null after the library unloads). For tests only.
KtMutex* LxVersionProbeLock();

#endif  // LX_VERSION_DETECTION_H
