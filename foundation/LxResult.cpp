#include "LxResult.h"

const char* LxResultDescription(KtResult result) {
    switch (result) {
        case LX_OK:
            return "success";
        case LX_CONNECTED_AUDIO:
            return "audio output connected";
        case LX_CONNECTED_VIDEO:
            return "video output connected";
        case LX_CONNECTED_AUDIO_VIDEO:
            return "audio and video outputs connected";
        case LX_CONNECTED_NO_OUTPUTS:
            return "the player has no outputs";
        case LX_QUEUE_HAS_MESSAGE:
            return "a watched queue has a message";
        case LX_QUEUE_WAIT_TIMED_OUT:
            return "queue-set wait timed out";
        case LX_INITIALIZED_AUDIO:
            return "initialized with audio";
        case LX_INITIALIZED_VIDEO:
            return "initialized with video";
        case LX_INITIALIZED_AUDIO_VIDEO:
            return "initialized with audio and video";
        case LX_ERR_GENERIC:
            return "generic failure";
        case LX_ERR_PLAYER_DEAD:
            return "the player is dead";
        case LX_ERR_OUT_OF_MEMORY:
            return "out of memory, or an object could not be created";
        case LX_ERR_WAVE_OPEN:
            return "the WAVE file could not be opened";
        case LX_ERR_WAVE_READ:
            return "read error on a WAVE file";
        case LX_ERR_ON_PLAYER_THREAD:
            return "a player request was called on the player's own thread";
        case LX_ERR_NOT_QUEUE_WAITER:
            return "not the queue's waiter";
        case LX_ERR_CLOCK_RUNNING:
            return "the media clock is running";
        case LX_ERR_CONNECT_OUTPUTS:
            return "the player's outputs could not be connected";
        case LX_ERR_UNSUPPORTED:
            return "unsupported content type or format";
        case LX_ERR_MIXER_COM:
            return "COM could not be initialised for the mixer";
        case LX_ERR_CHANNEL_TYPE_UNAVAILABLE:
            return "the channel type cannot be rendered";
        case LX_ERR_UNKNOWN_PLAYER:
            return "unknown player";
        case LX_ERR_NO_MIXER:
            return "no mixer";
        case LX_ERR_NO_COMMON_FORMAT:
            return "no common format between output and input";
        case LX_ERR_WRONG_FORMAT:
            return "wrong format type, or format mismatch";
        case LX_ERR_NO_FORMAT:
            return "the frame allocator has no format yet";
        case LX_ERR_NO_CONNECTABLE:
            return "no connectable of that name";
        case LX_ERR_NEGATIVE_TEMPO:
            return "negative tempo";
        case LX_ERR_NO_TIMER:
            return "no timer with that id";
        case LX_ERR_NO_PORT:
            return "no such mixer port, or the port holds no channel";
        case LX_ERR_MIXER_NOT_READY:
            return "the mixer is not ready";
        case LX_ERR_SECONDARY_BUFFER:
            return "a secondary sound buffer could not be created";
        case LX_ERR_NO_3D_BUFFER:
            return "the 3D interface of a sound buffer is not available";
        case LX_ERR_WRITE_ABANDONED:
            return "streaming write abandoned: the port lost its channel or buffer";
        case LX_ERR_PAN_IN_3D:
            return "pan requested while the mixer works in 3D";
        case LX_ERR_MIXER_STATE:
            return "the mixer is in the wrong state for the operation";
        case LX_ERR_GAIN_CLAMPED:
            return "gain outside 0..1, clamped";
        case LX_ERR_RESIDENT_FULL:
            return "resident buffer full, or it could not be locked";
        case LX_ERR_DSOUND_CREATE:
            return "the sound device could not be created or initialised";
        case LX_ERR_DSOUND_COOPERATIVE:
            return "the sound device's cooperative level was refused";
        case LX_ERR_PRIMARY_BUFFER:
            return "the primary sound buffer could not be created or started";
        case LX_GRAPH_VIDEO_ONLY:
            return "the filter graph kept only video";
        case LX_GRAPH_AUDIO_ONLY:
            return "the filter graph kept only audio";
        case LX_ERR_MIDI_OPEN:
            return "the MIDI player cannot open its clip";
        case LX_ERR_MIDI_RENDER:
            return "MIDI cannot be rendered";
        case LX_ERR_INVALID_WAVE:
            return "invalid or corrupt WAVE file";
        case LX_ERR_DSHOW_COM:
            return "COM could not be initialised for the filter-graph player";
        case LX_ERR_NO_RENDERER_FILTER:
            return "neither renderer filter could be created";
        case LX_ERR_FILTER_GRAPH:
            return "the filter graph could not be created";
        case LX_ERR_SOURCE_FILTER:
            return "the source filter could not be added";
        case LX_ERR_ALREADY_TAKEN:
            return "already taken";
        case KT_TIMEOUT:
            return "wait timed out";
        default:
            return "unknown result code";
    }
}
