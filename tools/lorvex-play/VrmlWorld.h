// VrmlWorld.h - reads a VRML97 world and finds what its media core has to play: every AudioClip
// and MovieTexture with its timing fields, the Sound nodes that place it, and the listener.
//
// The reader is small on purpose: it parses the whole VRML97 syntax (nodes, fields, DEF/USE,
// PROTO and EXTERNPROTO declarations, ROUTEs, comments) but only interprets the nodes that decide
// what is heard and where: grouping nodes and Transforms, Inline, Viewpoint, Sound, AudioClip,
// Shape/Appearance/MovieTexture. Everything else is parsed and ignored. A fault in one node is
// reported with its file and line and the rest of the world is still read.
#ifndef LORVEX_PLAY_VRML_WORLD_H
#define LORVEX_PLAY_VRML_WORLD_H

#include <map>
#include <string>
#include <vector>

/// One Sound node that plays a clip, already resolved against the listener.
struct WorldSound {
    std::string where;  ///< file:line of the Sound node
    /// Where the mixer places the sound: one unit from the listener in the sound's direction, so
    /// that the mixer's own distance model leaves the level alone and only the ellipse applies.
    float mixerLocation[3] = {0, 0, -1};
    float worldLocation[3] = {0, 0, 0};  ///< the Sound's location after its Transforms
    float gain = 1.0f;                   ///< intensity x the ellipse attenuation at the listener
    double attenuationDb = 0.0;          ///< 0 inside the minimum ellipse, -20 at the maximum
    bool audible = true;                 ///< false beyond the maximum ellipse
    float priority = 0.0f;
    bool spatialize = true;
};

/// One AudioClip or MovieTexture node (a node used in several places appears once).
struct WorldMedia {
    std::string name;  ///< its DEF name, or "" when it has none
    std::string type;  ///< "AudioClip" or "MovieTexture"
    std::string where;
    std::vector<std::string> urls;
    std::string path;  ///< the first url that names an existing file; empty when none does
    double startTime = 0.0;
    double stopTime = 0.0;
    bool loop = false;
    float rate = 1.0f;     ///< pitch (AudioClip) or speed (MovieTexture)
    bool texture = false;  ///< painted on a Shape
    std::vector<WorldSound> sounds;
};

struct WorldOptions {
    /// Browser time at which the world loads (seconds since 1970).
    double loadTime = 0.0;
    /// --at NAME=SECONDS: startTime of the DEF-named clip becomes loadTime + SECONDS.
    std::map<std::string, double> startAt;
    bool hasViewpoint = false;
    float viewpoint[3] = {0, 0, 10};
    /// Files over this size are refused, Inlines nested deeper than maxInlineDepth are not read.
    long maxBytes = 64L << 20;
    int maxInlineDepth = 16;
};

struct World {
    std::vector<WorldMedia> media;
    float listenerPosition[3] = {0, 0, 10};
    float listenerFront[3] = {0, 0, -1};
    float listenerUp[3] = {0, 1, 0};
    std::vector<std::string> messages;  ///< "file:line: what", in the order found
    std::vector<std::string> unusedAt;  ///< --at names that match no clip
};

/// True when the path looks like a world: .wrl, .wrl.gz, .wrz, or a file starting "#VRML".
bool isWorldFile(const std::string& path);

/// Reads the world at path (plain or gzip-compressed). Returns false only when the top file
/// cannot be read as a VRML97 world at all; faults inside it are in world->messages.
bool readWorld(const std::string& path, const WorldOptions& options, World* world);

/// VRML97 sound attenuation at a point given in the Sound's own coordinates: 0 dB inside the
/// minimum ellipsoid, falling linearly in dB to -20 dB at the maximum one. Returns false (and
/// -20 dB) beyond the maximum ellipsoid, where the sound is not heard.
bool ellipseAttenuation(const float* location, const float* direction, float minFront, float minBack,
                        float maxFront, float maxBack, const double* point, double* db);

#endif  // LORVEX_PLAY_VRML_WORLD_H
