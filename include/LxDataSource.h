// LxDataSource.h - how a clip reaches the library: a source that names the clip, says what kind of
// content it is, and hands out its bytes.
#ifndef LX_DATA_SOURCE_H
#define LX_DATA_SOURCE_H

#include "LxApi.h"

#include <cstdint>

class LxManager;

/// A clip. The content name (MIME-style) decides which player the manager's factory creates;
/// players then read a local file by the name the source gives.
class LX_API LxDataSource {
  public:
    enum SourceTypes { PushSource = 0, PullSource = 1 };

    LxDataSource() : sourceType(PullSource), url(nullptr), manager(nullptr) {}
    /// url is neither copied nor owned.
    LxDataSource(LxManager* m, const char* u) : sourceType(PullSource), url(u), manager(m) {}
    LxDataSource(const LxDataSource& other)
        : sourceType(other.sourceType), url(other.url), manager(other.manager) {}
    LxDataSource& operator=(const LxDataSource& other) {
        sourceType = other.sourceType;
        url = other.url;
        manager = other.manager;
        return *this;
    }
    virtual ~LxDataSource() {}

    virtual SourceTypes getSourceType() { return sourceType; }
    /// Prepares the source; players call it first, then start().
    virtual long connect() = 0;
    virtual long close() = 0;
    /// Begins delivering data.
    virtual long start() = 0;
    virtual long stop() = 0;
    virtual const char* getURL() = 0;
    /// MIME-style content name ("audio/wav"); drives the player factory.
    virtual const char* getContentName() = 0;

  protected:
    SourceTypes sourceType;
    const char* url;
    LxManager* manager;
};

/// A source the player reads from: by position and length, or through a local file name.
/// Hosts may supply their own.
class LX_API LxPullDataSource : public LxDataSource {
  public:
    LxPullDataSource() : reserved(0) { sourceType = PullSource; }
    LxPullDataSource(LxManager* m, const char* u) : LxDataSource(m, u), reserved(0) {
        sourceType = PullSource;
    }
    LxPullDataSource(const LxPullDataSource& other) : LxDataSource(other), reserved(other.reserved) {
        sourceType = PullSource;
    }
    LxPullDataSource& operator=(const LxPullDataSource& other) {
        LxDataSource::operator=(other);
        reserved = other.reserved;
        return *this;
    }

    /// Whether data can be read now; players wait until it can.
    virtual char dataAvailable() = 0;
    virtual long getPosition() = 0;
    virtual long setPosition(long position) = 0;
    /// length: the room of buffer on entry, the bytes read on return.
    virtual long read(char* buffer, long* length) = 0;
    /// A file name the player may open itself, or null.
    virtual const char* getLocalFileName() = 0;

  protected:
    /// Kept for hosts' sources; not used by the library.
    int32_t reserved;
};

class LxPushSourceStream;
class LxTransferHandler;

/// A source that pushes its data to the library. The library implements no push source and no
/// player accepts one; the interface exists for hosts that define their own.
class LX_API LxPushDataSource : public LxDataSource {
  public:
    LxPushDataSource() { sourceType = PushSource; }
    LxPushDataSource(LxManager* m, const char* u) : LxDataSource(m, u) { sourceType = PushSource; }
    LxPushDataSource(const LxPushDataSource& other) : LxDataSource(other) { sourceType = PushSource; }

    virtual long getStreamCount() = 0;
    virtual LxPushSourceStream* getStream(long index) = 0;
    virtual long setTransferHandler(LxTransferHandler* handler) = 0;
};

/// One stream of a push source.
class LX_API LxPushSourceStream {
  public:
    virtual ~LxPushSourceStream() {}
    virtual long read(char* buffer, long* length) = 0;
    virtual long getContentLength() = 0;
    virtual char endOfStream() = 0;
    virtual long setTransferHandler(LxTransferHandler* handler) = 0;
};

/// Told by a push stream that data has arrived.
class LX_API LxTransferHandler {
  public:
    virtual ~LxTransferHandler() {}
    virtual void transferData(LxPushSourceStream* stream) = 0;
};

/// A local file. Its URL is "file:" followed by the file name; the content name comes from the
/// file name's extension (see getContentName).
class LX_API LxFilenameDataSource : public LxPullDataSource {
  public:
    explicit LxFilenameDataSource(const char* fileName);
    ~LxFilenameDataSource() override;

    /// These four do nothing and return 1.
    long connect() override { return 1; }
    long close() override { return 1; }
    long start() override { return 1; }
    long stop() override { return 1; }
    /// "file:" + the file name.
    const char* getURL() override { return urlBuffer; }
    /// From the text after the last '.' of the URL, matched against the extension table by prefix
    /// and case-sensitively; "text/html" when nothing matches.
    const char* getContentName() override;

    char dataAvailable() override { return 1; }
    long getPosition() override { return 0; }
    long setPosition(long) override { return 1; }
    /// 0x201: players read a local file by its name, not through the source.
    long read(char* buffer, long* length) override;
    /// The file name (the URL without "file:"), or null.
    const char* getLocalFileName() override { return urlBuffer != nullptr ? urlBuffer + 5 : nullptr; }

  protected:
    char* urlBuffer;

  private:
    LxFilenameDataSource(const LxFilenameDataSource&) = delete;
    LxFilenameDataSource& operator=(const LxFilenameDataSource&) = delete;
};

#endif  // LX_DATA_SOURCE_H
