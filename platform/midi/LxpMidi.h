// The MIDI stream layer: the Win32 MIDI stream output calls the library makes, over our own
// stream scheduler.
//
// A stream is opened paused on the MIDI mapper; the caller sets its time division, prepares
// buffer headers, queues buffers of 12-byte records with midiStreamOut and starts playback with
// midiStreamRestart. Each buffer comes back through the callback (MOM_DONE, on the stream's own
// device thread) once its last event has played, or at once on midiStreamStop/midiOutReset.
// Which device plays the messages (the FluidSynth synthesizer or the simulated recorder) is the
// host's choice in LxPlatformMidi.h.
#ifndef LORVEX_PLATFORM_MIDI_H
#define LORVEX_PLATFORM_MIDI_H

#include <cstddef>
#include <cstdint>

namespace lxp {

typedef uint32_t MMRESULT;

constexpr MMRESULT MMSYSERR_NOERROR = 0;
constexpr MMRESULT MMSYSERR_ERROR = 1;
constexpr MMRESULT MMSYSERR_BADDEVICEID = 2;
constexpr MMRESULT MMSYSERR_ALLOCATED = 4;
constexpr MMRESULT MMSYSERR_INVALHANDLE = 5;
constexpr MMRESULT MMSYSERR_NODRIVER = 6;
constexpr MMRESULT MMSYSERR_NOMEM = 7;
constexpr MMRESULT MMSYSERR_INVALFLAG = 10;
constexpr MMRESULT MMSYSERR_INVALPARAM = 11;
constexpr MMRESULT MIDIERR_UNPREPARED = 64;
constexpr MMRESULT MIDIERR_STILLPLAYING = 65;
constexpr MMRESULT MIDIERR_NODEVICE = 68;

/// The device id of the MIDI mapper, the only device the layer offers.
constexpr uint32_t MIDI_MAPPER = 0xFFFFFFFFu;

// midiStreamOpen flags: no notification, or a function callback.
constexpr uint32_t CALLBACK_NULL = 0x00000000u;
constexpr uint32_t CALLBACK_FUNCTION = 0x00030000u;

/// The callback message that hands a buffer back (param1 is its MIDIHDR*). It is the only
/// message the layer sends.
constexpr uint32_t MOM_DONE = 0x3C9;

// MIDIHDR flags.
constexpr uint32_t MHDR_DONE = 0x1;
constexpr uint32_t MHDR_PREPARED = 0x2;
constexpr uint32_t MHDR_INQUEUE = 0x4;
constexpr uint32_t MHDR_ISSTRM = 0x8;

// midiStreamProperty.
constexpr uint32_t MIDIPROP_SET = 0x80000000u;
constexpr uint32_t MIDIPROP_GET = 0x40000000u;
constexpr uint32_t MIDIPROP_TIMEDIV = 0x00000001u;

// Event types in the high byte of a record's event word.
constexpr uint32_t MEVT_SHORTMSG = 0x00;
constexpr uint32_t MEVT_TEMPO = 0x01;
constexpr uint32_t MEVT_NOP = 0x02;
/// Flag of an event whose parameters follow the record (the low 24 bits give their length).
constexpr uint32_t MEVT_F_LONG = 0x80000000u;

inline uint32_t MEVT_EVENTTYPE(uint32_t event) {
    return (event >> 24) & 0xFF;
}
inline uint32_t MEVT_EVENTPARM(uint32_t event) {
    return event & 0x00FFFFFFu;
}

/// One record of a stream buffer (MIDIEVENT without parameters): 12 bytes, in host byte order.
struct MIDIEVENT {
    uint32_t dwDeltaTime;  ///< ticks since the previous record of the stream
    uint32_t dwStreamID;   ///< always 0
    uint32_t dwEvent;      ///< type << 24 | short message (status in the low byte) or tempo (us per quarter)
};
static_assert(sizeof(MIDIEVENT) == 12, "stream records are 12 bytes");

/// A stream buffer's header. The caller owns it and its data; the layer writes only dwFlags
/// (and reads the rest) between prepare and unprepare.
struct MIDIHDR {
    char* lpData;              ///< the records
    uint32_t dwBufferLength;   ///< size of the data block in bytes
    uint32_t dwBytesRecorded;  ///< bytes of records in it (a multiple of 12; 0 is allowed)
    uintptr_t dwUser;          ///< the caller's
    uint32_t dwFlags;          ///< MHDR_*
    MIDIHDR* lpNext;           ///< reserved
    uintptr_t reserved;        ///< reserved
    uint32_t dwOffset;         ///< reserved (no position callbacks)
    uintptr_t dwReserved[8];   ///< reserved
};

/// Time-division property (MIDIPROP_TIMEDIV): ticks per quarter note in the low 15 bits.
struct MIDIPROPTIMEDIV {
    uint32_t cbStruct;
    uint32_t dwTimeDiv;
};

struct MidiStreamObject;
typedef MidiStreamObject* HMIDISTRM;
/// A stream handle is also the output handle for midiOut* calls (as a cast one is on Win32).
typedef HMIDISTRM HMIDIOUT;

/// Function callback: called on the stream's device thread (never inside a call of this layer
/// on another thread), one call at a time per stream. It may call any function of this layer,
/// midiStreamClose on its own stream included; it must not wait for another thread that is
/// itself waiting inside midiStreamClose of this stream.
typedef void (*MidiCallback)(HMIDIOUT handle, uint32_t message, uintptr_t instance, uintptr_t param1,
                             uintptr_t param2);

/// Opens a stream on *deviceId (MIDI_MAPPER or 0) with cMidi == 1, paused, time division 96 and
/// tempo 500000 us per quarter note. flags is CALLBACK_NULL or CALLBACK_FUNCTION. Returns
/// MMSYSERR_ALLOCATED while the device is already open, MIDIERR_NODEVICE when no synthesizer
/// can be made (or the simulated half-duplex card has sampled audio open), MMSYSERR_NOMEM when
/// the device thread cannot be started. Any thread.
MMRESULT midiStreamOpen(HMIDISTRM* stream, uint32_t* deviceId, uint32_t cMidi, MidiCallback callback,
                        uintptr_t instance, uint32_t flags);
/// Sets (MIDIPROP_SET) or reads (MIDIPROP_GET) the time division, with MIDIPROP_TIMEDIV and a
/// MIDIPROPTIMEDIV. Divisions of 0 and SMPTE divisions (high bit of the low word) are refused.
/// A new division applies from the next record the stream reaches.
MMRESULT midiStreamProperty(HMIDISTRM stream, uint8_t* propData, uint32_t property);
MMRESULT midiOutPrepareHeader(HMIDIOUT out, MIDIHDR* header, uint32_t headerSize);
/// Fails with MIDIERR_STILLPLAYING while the buffer is queued.
MMRESULT midiOutUnprepareHeader(HMIDIOUT out, MIDIHDR* header, uint32_t headerSize);
/// Queues a prepared buffer (MIDIERR_UNPREPARED otherwise; MIDIERR_STILLPLAYING when it is
/// already queued). Its first record's delta counts from the last record of the stream.
MMRESULT midiStreamOut(HMIDISTRM stream, MIDIHDR* header, uint32_t headerSize);
/// Starts or resumes playback.
MMRESULT midiStreamRestart(HMIDISTRM stream);
/// Stops playback, sends All Notes Off on the 16 channels, rewinds the stream's time to 0 and
/// marks every queued buffer done; their callbacks follow on the device thread. The stream is
/// paused afterwards (midiStreamRestart plays again).
MMRESULT midiStreamStop(HMIDISTRM stream);
/// As midiStreamStop (the layer keeps no other device state to reset).
MMRESULT midiOutReset(HMIDIOUT out);
/// Closes the stream (MIDIERR_STILLPLAYING while buffers are queued). Callbacks already due are
/// delivered first; when called from another thread it returns after the device thread ended,
/// when called from the stream's own callback the thread ends right after the callback returns.
MMRESULT midiStreamClose(HMIDISTRM stream);
/// Sends one short message at once (status in the low byte).
MMRESULT midiOutShortMsg(HMIDIOUT out, uint32_t message);
/// Whether what the stream sent is still to be heard: buffers queued or playing, or the device
/// still sounding (a synthesizer's notes in their release and its reverb dying away). False for
/// a bad handle. Not a Win32 call: a hardware port gives no such answer. Any thread; takes the
/// scheduler lock only briefly and never waits for the device thread.
bool midiOutIsSounding(HMIDIOUT out);

/// Device threads of streams that are still running (0 once every closed stream's thread has
/// ended): for tests that check nothing is left behind.
int midiLiveDeviceThreads();

}  // namespace lxp

#endif
