// Paints a clip's video the way a browser draws a movie texture, into PNG files.
#ifndef LORVEX_TOOLS_FRAMEWRITER_H
#define LORVEX_TOOLS_FRAMEWRITER_H

#include "LxTime.h"

#include <cstdint>
#include <string>
#include <vector>

class LxPlayer;
class LxVideoRenderer;

/// Writes an RGB image as a PNG file (uncompressed deflate blocks: no library needed).
bool writePng(const std::string& path, int width, int height, const std::vector<uint8_t>& rgb);

class FrameWriter {
  public:
    FrameWriter(const std::string& directory, int clipIndex);

    /// Attaches the frame for mediaTime, writes it as frame-<clip>-<n>.png and releases it.
    void paint(LxVideoRenderer* renderer, const LxTime& mediaTime);
    /// Tiles a thumbnail of every painted frame into one PNG.
    bool writeContactSheet(const std::string& path) const;
    int painted() const { return painted_; }
    /// Frames the player's video output gave back unseen (set with the player once known).
    long dropped() const { return dropped_; }
    void noteDropped(long dropped) { dropped_ = dropped; }

  private:
    struct Thumb {
        int width;
        int height;
        std::vector<uint8_t> rgb;
    };
    std::string directory_;
    int clip_;
    int painted_ = 0;
    long dropped_ = 0;
    std::vector<Thumb> thumbs_;
};

#endif
