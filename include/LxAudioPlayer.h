// LxAudioPlayer.h - the player of uncompressed WAVE clips, and the parser interface it reads
// them through.
#ifndef LX_AUDIO_PLAYER_H
#define LX_AUDIO_PLAYER_H

#include "Kt.h"
#include "LxApi.h"
#include "LxConnectable.h"
#include "LxFormat.h"
#include "LxPlayer.h"
#include "LxTime.h"

class LxDataSource;
class LxNode;

/// Reads a clip's header and copies its samples into frames. Used on the player thread only.
class LX_API LxAudioParser {
  public:
    virtual ~LxAudioParser() {}

    /// Remembers the owner and the source and opens the clip.
    virtual KtResult open(LxNode* node, LxDataSource* source) = 0;
    /// Reads the header; on success *format receives a new format (one reference, the caller's).
    virtual KtResult readHeader(LxAudioFormat** format) = 0;
    /// (-1 s, 0) until readHeader has set it.
    virtual LxTime getDuration() { return duration; }
    /// Positions the next read at byteOffset from the first sample byte.
    virtual KtResult seek(long byteOffset) = 0;
    /// Appends whole sample frames to frame, as many as fit; *endOfMedia tells whether the clip
    /// ended.
    virtual KtResult readFrame(LxAudioFrame* frame, char* endOfMedia) = 0;

  protected:
    LxAudioParser() : node(nullptr), duration(-1, 0), dataSource(nullptr) {}
    LxAudioParser(const LxAudioParser& other)
        : node(other.node), duration(other.duration), dataSource(other.dataSource) {}
    LxAudioParser& operator=(const LxAudioParser& other) {
        node = other.node;
        duration = other.duration;
        dataSource = other.dataSource;
        return *this;
    }

    LxNode* node;
    LxTime duration;
    LxDataSource* dataSource;
};

/// The WAVE player: one pull-style output "Audio" that the audio renderer empties.
///
/// Its thread initialises the player by itself (UNINITIALIZED -> INITIALIZING -> STOPPED, with a
/// duration change and an initialized event), and while STARTED keeps the renderer supplied with
/// frames, loops back to the start at the end of the file when looping, and stops the player at
/// its stop time. The parser and the file are touched on that thread only.
class LX_API LxAudioPlayer : public LxPlayer {
  public:
    LxAudioPlayer(LxManager* manager, LxDataSource* dataSource);
    /// Ends the thread, then destroys the graph's nodes, the parser and the output.
    ~LxAudioPlayer() override;

    /// The base step, then the parser is positioned at t. Player thread, signal held.
    long setTimeAll(LxTime t) override;

    /// Byte offset of media time t from the first sample byte: floor(bytesPerSecond x t), aligned
    /// down to a whole sample frame (a seek into the middle of one would swap channels or bytes
    /// of every later sample) and never before the first sample byte.
    long offsetForTime(const LxTime& t) const;

  protected:
    /// The parser for the source's content name ("audio/wav" or "audio/x-wav", exactly); 0x2A4
    /// for any other name.
    virtual KtResult createParser();
    /// Opens the parser, reads the header, announces the duration, sets up the output.
    KtResult initPlayer();
    void run() override;
    // Steps of the shared run loop (player thread, signal not held).
    long loadClip() override;
    unsigned long cueLead() override;
    void silenceAtStopTime() override;
    /// Goes active at the start, then keeps the renderer supplied (unless suspended).
    unsigned long playStep(unsigned long toStart) override;
    static long callPlayerRunLoop(void* player);
    KtResult seekToTime(const LxTime& t);
    /// On resume, the parser goes to the clock's media time. Player thread, signal held.
    void handleSuspend() override;
    /// Releases the parser (closing the file). The output goes too when nothing is connected to
    /// it; a connected output stays until the player is destroyed, because its renderer's thread
    /// may still be pulling from it.
    void shutdown() override;

    LxAudioParser* parser;
    LxDataSource* dataSource;
    LxAudioOutputConnectable* output;
    char activePosted;
    long bytesPerSecond;
    /// Bytes of one sample frame as the output carries it.
    short sampleFrameBytes;

  private:
    /// Reads one frame into the renderer's next empty frame; the wait before the next pass.
    unsigned long fillFrame(unsigned long toStart);
    /// The clip's last frame went out: back to its start when looping, otherwise the end.
    unsigned long endOfClip();
    /// The wait after filled bytes went out: paced by the clock, read a little ahead.
    unsigned long fillPace(int32_t filled, unsigned long toStart);
    void releaseOutput();

    LxAudioPlayer(const LxAudioPlayer&) = delete;
    LxAudioPlayer& operator=(const LxAudioPlayer&) = delete;
};

#endif  // LX_AUDIO_PLAYER_H
