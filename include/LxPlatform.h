// LxPlatform.h - how a host chooses the platform backends (sound output, MIDI synthesizer,
// filter graph, probes) before it creates the manager. Every choice has a documented default; a
// host that does nothing gets the real backends.
#ifndef LX_PLATFORM_H
#define LX_PLATFORM_H

#if __has_include("LxPlatformSound.h")
#include "LxPlatformSound.h"
#endif
#if __has_include("LxPlatformMidi.h")
#include "LxPlatformMidi.h"
#endif
#if __has_include("LxPlatformGraph.h")
#include "LxPlatformGraph.h"
#endif
#if __has_include("LxPlatformProbe.h")
#include "LxPlatformProbe.h"
#endif

#endif  // LX_PLATFORM_H
