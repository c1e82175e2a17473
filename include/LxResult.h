// LxResult.h - every result code of the library, by name.
//
// Operations return a KtResult; 1 is success. Values are stable: a code is never reused for
// another meaning. LxResultDescription() turns a code into words for logs and the command line.
#ifndef LX_RESULT_H
#define LX_RESULT_H

#include "Kt.h"
#include "LxApi.h"

constexpr KtResult LX_OK = 1;

// connectAllUnconnected summaries (not failures)
constexpr KtResult LX_CONNECTED_AUDIO = 0x41;
constexpr KtResult LX_CONNECTED_VIDEO = 0x42;
constexpr KtResult LX_CONNECTED_AUDIO_VIDEO = 0x43;
constexpr KtResult LX_CONNECTED_NO_OUTPUTS = 0x44;

// LxQueueSet::waitForAny
constexpr KtResult LX_QUEUE_HAS_MESSAGE = 0x121;
constexpr KtResult LX_QUEUE_WAIT_TIMED_OUT = 0x123;

// results carried by LxInitializedEvent: 0xE0 plus 1 for audio plus 2 for video
constexpr KtResult LX_INITIALIZED_AUDIO = 0xE1;
constexpr KtResult LX_INITIALIZED_VIDEO = 0xE2;
constexpr KtResult LX_INITIALIZED_AUDIO_VIDEO = 0xE3;

constexpr KtResult LX_ERR_GENERIC = 0x201;
constexpr KtResult LX_ERR_PLAYER_DEAD = 0x202;
constexpr KtResult LX_ERR_OUT_OF_MEMORY = 0x203;
constexpr KtResult LX_ERR_WAVE_OPEN = 0x204;
constexpr KtResult LX_ERR_WAVE_READ = 0x205;
constexpr KtResult LX_ERR_ON_PLAYER_THREAD = 0x206;
constexpr KtResult LX_ERR_NOT_QUEUE_WAITER = 0x207;
constexpr KtResult LX_ERR_CLOCK_RUNNING = 0x251;
constexpr KtResult LX_ERR_CONNECT_OUTPUTS = 0x2A3;
constexpr KtResult LX_ERR_UNSUPPORTED = 0x2A4;
constexpr KtResult LX_ERR_MIXER_COM = 0x2A6;
constexpr KtResult LX_ERR_CHANNEL_TYPE_UNAVAILABLE = 0x2A9;
constexpr KtResult LX_ERR_UNKNOWN_PLAYER = 0x2AA;
constexpr KtResult LX_ERR_NO_MIXER = 0x2AB;
constexpr KtResult LX_ERR_NO_COMMON_FORMAT = 0x2AC;
constexpr KtResult LX_ERR_WRONG_FORMAT = 0x341;
constexpr KtResult LX_ERR_NO_FORMAT = 0x342;
constexpr KtResult LX_ERR_NO_CONNECTABLE = 0x344;
constexpr KtResult LX_ERR_NEGATIVE_TEMPO = 0x391;
constexpr KtResult LX_ERR_NO_TIMER = 0x392;
constexpr KtResult LX_ERR_NO_PORT = 0x3E3;
constexpr KtResult LX_ERR_MIXER_NOT_READY = 0x3E4;
constexpr KtResult LX_ERR_SECONDARY_BUFFER = 0x3E5;
constexpr KtResult LX_ERR_NO_3D_BUFFER = 0x3E6;
constexpr KtResult LX_ERR_WRITE_ABANDONED = 0x3E7;
constexpr KtResult LX_ERR_PAN_IN_3D = 0x3E8;
constexpr KtResult LX_ERR_MIXER_STATE = 0x3E9;
constexpr KtResult LX_ERR_GAIN_CLAMPED = 0x3EA;
constexpr KtResult LX_ERR_RESIDENT_FULL = 0x3EB;
constexpr KtResult LX_ERR_DSOUND_CREATE = 0x3F0;
constexpr KtResult LX_ERR_DSOUND_COOPERATIVE = 0x3F1;
constexpr KtResult LX_ERR_PRIMARY_BUFFER = 0x3F2;
constexpr KtResult LX_GRAPH_VIDEO_ONLY = 0x431;
constexpr KtResult LX_GRAPH_AUDIO_ONLY = 0x432;
constexpr KtResult LX_ERR_MIDI_OPEN = 0x433;
constexpr KtResult LX_ERR_MIDI_RENDER = 0x434;
constexpr KtResult LX_ERR_INVALID_WAVE = 0x435;
constexpr KtResult LX_ERR_DSHOW_COM = 0x440;
constexpr KtResult LX_ERR_NO_RENDERER_FILTER = 0x441;
constexpr KtResult LX_ERR_FILTER_GRAPH = 0x442;
constexpr KtResult LX_ERR_SOURCE_FILTER = 0x443;
constexpr KtResult LX_ERR_ALREADY_TAKEN = 0x481;
// KT_TIMEOUT (0xE0010003), the thread services' time-out, is declared in Kt.h.

/// A short English description of a result code ("unsupported content type or format"); never null.
/// Unknown codes give "unknown result code".
LX_API const char* LxResultDescription(KtResult result);

#endif  // LX_RESULT_H
