// LxVersion.h - the interface version check a client makes against the library.
#ifndef LX_VERSION_H
#define LX_VERSION_H

#include "LxApi.h"

/// The library's interface version.
constexpr long LX_VERSION_MAJOR = 1;
constexpr long LX_VERSION_MINOR = 11;

/// 1 when major.minor is exactly the library's interface version (1.11); otherwise posts
/// "Lorvex Version Mismatch.  Have %d.%d, Need %d.%d\n" and returns 0.
LX_API unsigned long LxCheckVersion(long major, long minor);

/// Stores the library's interface version (1 and 11).
LX_API void LxGetVersion(long* major, long* minor);
LX_API void LxGetVersion(long& major, long& minor);

#endif  // LX_VERSION_H
