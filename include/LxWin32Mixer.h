// LxWin32Mixer.h - the mixer on the DirectSound-shaped sound device: ports and their buffers,
// the data path that fills them, the device with its primary buffer and 3D listener, and the
// per-sound controls.
#ifndef LX_WIN32_MIXER_H
#define LX_WIN32_MIXER_H

#include "Kt.h"
#include "LxApi.h"
#include "LxDiagnostics.h"
#include "LxFormat.h"
#include "LxMixer.h"
#include "LxTime.h"
#include "LxWin32AudioPortConfig.h"
#include "LxWin32AudioPortData.h"

#include <atomic>
#include <cstdint>

namespace lxp {
struct GUID;
struct WAVEFORMATEX;
class IDirectSound;
class IDirectSoundBuffer;
class IDirectSound3DListener;
typedef struct SoundModuleTag* HSOUNDMODULE;
}  // namespace lxp

/// Handle of the host's window (opaque).
typedef void* LxHwnd;

constexpr int LX_MAX_PORTS = 256;

/// Locks and threads.
///
/// Three kinds of lock, always taken in this order and never the other way round: the device lock
/// (only initDirectSound, closeDirectSound and closeMixer take it, first), then a port's slot lock,
/// then the mixer lock; and no thread holds two slot locks at once. So a slot lock is never
/// requested while the mixer lock is held: openPort reserves its slot under the mixer lock, lets it
/// go, and only then locks the slot; duplicatePort completes the new port's record before it
/// enters the table, under the source's slot lock alone; closeDirectSound walks the ports one at a
/// time without the mixer lock. The mixer lock is held only for
/// short reads and changes of the state, the port table, the duplicates lists and the buffer
/// pointers (which group operations read under it, taking a reference, so that a buffer released by
/// its own port meanwhile stays valid). Both kinds of lock are re-entrant.
///
/// Every operation may be called from any thread. Port operations hold the port's slot lock for
/// their whole run, except that a streaming write lets it go while it sleeps. Sleeps go through
/// the platform clock. No operation waits for the sound device's mixing thread.
class LX_API LxWin32Mixer : public LxMixer {
  public:
    enum LxMixerState_s { CLOSED = 0, UNINITIALIZED = 1, READY = 2 };

    LxWin32Mixer();
    /// Frees the ports, buffers and locks. A mixer still holding DirectSound (closeMixer not
    /// called) closes it first rather than leaking it.
    ~LxWin32Mixer() override;

    // ---- Device (LxMixer) ----
    /// A window is required: 0x201.
    long initMixer() override;
    /// Stores the window, initialises COM, asks the platform version detection whether 3D sound
    /// is available and fills the diagnostics record; stays UNINITIALIZED.
    long initMixer(LxHwnd window);
    /// closeDirectSound(1), then COM is released: CLOSED for good.
    long closeMixer() override;
    /// Only while UNINITIALIZED; 0x3E9 otherwise.
    long setAudibleMode(LxAudibleMode_s mode) override;
    LxAudibleMode_s getAudibleMode() override;
    long setSpatializeSounds(char on) override;
    char getSpatializeSounds() override;
    long setSpeakerConfig(LxSpeakerConfiguration config) override;
    LxSpeakerConfiguration getSpeakerConfig() override;
    /// Position, top and front vectors in the scene's coordinates (stored with z negated).
    long setListenerLocation(const float* position, const float* top, const float* front) override;

    /// Brings up the sound device, primary buffer and (in 3D) listener: READY, or CLOSED with
    /// 0x2A6, 0x3F0, 0x3F1 or 0x3F2.
    long initDirectSound();
    /// Releases every port's buffers and the device: UNINITIALIZED with the ports kept, or, with
    /// destroyPorts, CLOSED with the ports gone.
    void closeDirectSound(char destroyPorts);
    void setMidiCapable(char capable);
    /// Copies the library's diagnostics record into record, waiting up to 5 s for the device
    /// enumeration to have named the sound device.
    long getDiagnostics(LxDiagnostics& record);
    LxMixerState_s getState() const { return static_cast<LxMixerState_s>(state.load()); }

    // ---- Ports ----
    /// A port with its own buffer (created now when READY, else at acquireChannel); the number goes
    /// to portNumber (-1 on failure). Allowed while UNINITIALIZED.
    long openPort(LxWin32AudioPortConfig* config, short& portNumber);
    /// A port sharing port's buffer memory with its own cursor, volume and pan.
    long duplicatePort(short port, short& newPort);
    long closePort(short port);
    /// The port may sound: its buffer exists, a looping resident clip plays again.
    long acquireChannel(short port);
    /// The port must be silent: its buffer stops (or, with destroy, is released).
    long releaseChannel(short port, char destroy);
    long playPort(short port, char loop);
    /// playPort from byte position (rounded down to a sample frame), whether or not the buffer
    /// plays: a clip that gets its channel late joins where it would be by now.
    long playPortFrom(short port, char loop, long position);
    /// The port's next start (playPort, or the first write after a stop, which starts its
    /// group) is heard `seconds` from now, at the exact sample, rather than when it is made:
    /// a clip asked to start ahead of time is written early and begins on time. 0 or less:
    /// at once.
    long scheduleStart(short port, double seconds);
    void stopPort(short port, char clearLoop);
    /// 1 while the port's buffer plays (a buffer played without looping stops by itself after
    /// its last sample has been mixed). Takes only the mixer lock, briefly; any thread.
    char isPortSounding(short port);

    // ---- Data path ----
    /// Streaming write of frames sample frames from data + byteOffset into the circular buffer;
    /// returns once every byte is in the buffer, pacing itself by the playback rate. 0x3E7 when
    /// the port lost its channel or buffer while the write slept.
    long writeFrames(short port, unsigned char* data, long byteOffset, long frames);
    /// Appends a resident clip's frames from the buffer's start on; 0x3EB once it is full.
    long writeResidentFrames(short port, unsigned char* data, long byteOffset, long frames);
    long fillSilence(short port, long frames);
    /// The duration is taken in whole sample frames (rounded down).
    long fillSilence(short port, const LxTime& duration);
    /// Discards nothing: the checks, then 1.
    long discardFrames(short port);
    /// Bytes that can be written now / bytes queued; -1 when not READY or no such port.
    long getFillable(short port);
    long getFilled(short port);

    // ---- Per-port controls ----
    long setSoundLocation(short port, const float* xyz);
    /// The stored location (z negated), or null when not READY or no such port.
    const float* getLocation(short port);
    long setGain(short port, float gain);
    float getGain(short port);
    long setPan(short port, float pan);
    float getPan(short port);
    long setPriority(short port, float priority);
    float getPriority(short port);
    long setSpatialize(short port, char on);
    char getSpatialize(short port);
    long setTempo(short port, float tempo);
    float getTempo(short port);

    /// Conversions into DirectSound units.
    /// Hundredths of a decibel, truncated toward zero; no lower clamp (gain must be above 0).
    static int32_t gainToVolume(float gain);
    /// DirectSound pan, truncated toward zero. Where the formula has no value (|pan| >= 1, or not
    /// a number) the result is hard left or right (-10000 / 10000; 0 for not a number).
    static int32_t panToPanValue(float pan);

    /// The library's diagnostics record and the enumeration state (class-wide).
    static LxDiagnostics diagnostics;
    static std::atomic<char> enumerateRequested;
    /// Forgets the class-wide state (diagnostics texts, enumeration done, gate closed). Tests only.
    static void resetClassStateForTests();

  protected:
    /// Device enumeration callback: names the first device that is not "Primary Sound Driver".
    static int DSEnumCallBack(lxp::GUID* guid, const char* description, const char* module, void* context);

    /// Called with the record's slot lock held.
    long initSecondarySoundBuffer(LxWin32AudioPortData* record);
    /// Called with both ports' slot locks held.
    long duplicateSoundBuffer(short sourcePort, short newPort);
    /// The same into a record not yet in the table; called with the source's slot lock held.
    long duplicateInto(LxWin32AudioPortData* source, LxWin32AudioPortData* record);
    /// Called with the record's slot lock held.
    long adjustPrimaryBuffer(LxWin32AudioPortData* record);
    long doFillSilence(short port, long bytes);
    /// Starts, or positions, a master and every duplicate in its list. Called with the record's
    /// slot lock held; the other ports' slot locks are not taken.
    long playAllPorts(LxWin32AudioPortData* record);
    long setPositionAllPorts(LxWin32AudioPortData* record, uint32_t position);
    long setDSSpeakerConfig();
    void lock();
    void unlock();

    std::atomic<int32_t> state;
    LxAudibleMode_s audibleMode;
    KtMutex* mutex;
    LxHwnd window;
    // Set and cleared under the mixer lock; read under a port's slot lock alone (a port's own
    // operations) or under the mixer lock (walks over the table).
    std::atomic<LxWin32AudioPortData*> ports[LX_MAX_PORTS];
    std::atomic<KtMutex*> portLocks[LX_MAX_PORTS];
    char spatializeSounds;
    LxSpeakerConfiguration speakerConfig;
    lxp::IDirectSound* directSound;
    char has3D;
    lxp::HSOUNDMODULE soundLibrary;
    lxp::IDirectSoundBuffer* primaryBuffer;
    lxp::IDirectSound3DListener* listener;
    float listenerPosition[3];
    float listenerFront[3];
    float listenerTop[3];
    lxp::WAVEFORMATEX* primaryFormat;

  private:
    LxWin32Mixer(const LxWin32Mixer&) = delete;
    LxWin32Mixer& operator=(const LxWin32Mixer&) = delete;

    long initPrimaryBuffer();
    void releaseDevice();
    /// The slot lock of port, or null for a number that was never used.
    KtMutex* slotLock(short port);
    /// The record of port (null for none); the caller holds the slot lock or the mixer lock.
    LxWin32AudioPortData* record(short port);
    /// The record of port for an operation that needs the device ready: LX_OK with *rec set,
    /// LX_ERR_MIXER_NOT_READY, or LX_ERR_NO_PORT (slotHeld false: the port has no slot). The
    /// caller holds the slot lock.
    long readyRecord(bool slotHeld, short port, LxWin32AudioPortData** rec);
    /// The record of port for an operation that only needs the mixer open: LX_OK with *rec set,
    /// LX_ERR_MIXER_STATE, or LX_ERR_NO_PORT. The caller holds the slot lock.
    long openRecord(bool slotHeld, short port, LxWin32AudioPortData** rec);
    /// As readyRecord, and LX_ERR_NO_PORT too for a port whose channel is revoked.
    long channelRecord(bool slotHeld, short port, LxWin32AudioPortData** rec);
    /// Fill level with the play cursor; the caller holds the slot lock.
    long fillableLocked(LxWin32AudioPortData* record);
    /// The buffers of a master and its listed duplicates, each with a reference the caller
    /// releases (at most 1 + LX_MAX_DUPLICATES).
    int groupBuffers(LxWin32AudioPortData* record, lxp::IDirectSoundBuffer** out, short* numbers);
    /// Milliseconds bytes take to play at the port's rate and tempo.
    uint32_t playMillis(LxWin32AudioPortData* record, double bytes);
    void destroyRecord(short port, LxWin32AudioPortData* record);
    /// Puts the stored gain, pan, tempo, location and spatialisation on the record's buffer.
    /// Slot lock held.
    void applyStoredSettings(LxWin32AudioPortData* record);

    /// Serialises initDirectSound and closeDirectSound (before any slot lock).
    KtMutex* deviceLock;
    /// COM initialisations of initMixer not yet undone.
    int comInits;
    /// Slots handed out by openPort/duplicatePort whose record is not stored yet (mixer lock).
    bool reserved[LX_MAX_PORTS];
    /// Reserves the lowest free slot, creating its lock; -1 when all are used. Mixer lock held.
    short reserveSlotLocked();
    /// Stores a reserved slot's record unless the mixer was closed meanwhile. Slot lock held.
    bool storeReserved(short port, LxWin32AudioPortData* record);
};

#endif  // LX_WIN32_MIXER_H
