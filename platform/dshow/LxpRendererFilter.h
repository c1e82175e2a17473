// The renderer filters of the DirectShow filter library: their class ids and their own interface.
//
// The filter library ("qlm13_dshow.dll" by the loader's name rule, libqlm13_dshow.so) registers two
// classes with DllRegisterServer: an audio renderer and a video renderer. The DirectShow player
// creates each with CoCreateInstance for IID_ILxRenderer, asks it for IBaseFilter, adds it to its
// graph and, once the graph is rendered, asks it for its output connectable. The filters then
// deliver decoded audio (8- or 16-bit PCM, mono or stereo, pull style) and video (32- or 24-bit
// pixels, push style) into those connectables while the graph runs, waiting on the player's filter
// gate before each delivery.
#ifndef LORVEX_PLATFORM_DSHOW_RENDERER_FILTER_H
#define LORVEX_PLATFORM_DSHOW_RENDERER_FILTER_H

#include "platform/com/LxpCom.h"

class LxAMPlayer;
class LxOutputConnectable;

namespace lxp {

/// {6C4D2A10-7F3B-4E21-9A58-51D0C8B7E301}: the audio renderer filter. Its registration is what
/// the manager's probe looks for.
inline constexpr CLSID CLSID_LxAudioRenderer = {
    0x6C4D2A10, 0x7F3B, 0x4E21, {0x9A, 0x58, 0x51, 0xD0, 0xC8, 0xB7, 0xE3, 0x01}};
/// {6C4D2A11-7F3B-4E21-9A58-51D0C8B7E301}: the video renderer filter.
inline constexpr CLSID CLSID_LxVideoRenderer = {
    0x6C4D2A11, 0x7F3B, 0x4E21, {0x9A, 0x58, 0x51, 0xD0, 0xC8, 0xB7, 0xE3, 0x01}};
/// {6C4D2A12-7F3B-4E21-9A58-51D0C8B7E301}: ILxRenderer.
inline constexpr IID IID_ILxRenderer = {
    0x6C4D2A12, 0x7F3B, 0x4E21, {0x9A, 0x58, 0x51, 0xD0, 0xC8, 0xB7, 0xE3, 0x01}};

/// Video subtypes with red, green, blue byte order (LxPixel24Alt, LxPixel32Alt); the Windows
/// subtypes MEDIASUBTYPE_RGB24/RGB32 are blue, green, red (LxPixel24, LxPixel32).
inline constexpr GUID MEDIASUBTYPE_LxRGB24Alt = {
    0x6C4D2A20, 0x7F3B, 0x4E21, {0x9A, 0x58, 0x51, 0xD0, 0xC8, 0xB7, 0xE3, 0x01}};
inline constexpr GUID MEDIASUBTYPE_LxRGB32Alt = {
    0x6C4D2A21, 0x7F3B, 0x4E21, {0x9A, 0x58, 0x51, 0xD0, 0xC8, 0xB7, 0xE3, 0x01}};

/// The renderer filters' own interface.
class ILxRenderer : public IUnknown {
  public:
    /// Slot 3. Creates the filter's output connectable for player (its owning node), initialises
    /// it with the format the graph negotiated (initFormats, initConnectable) and starts feeding
    /// it; *name receives "Audio" or "Video" (a constant string), *output the connectable, which
    /// the player owns from then on. Call after the graph has been rendered. Player thread.
    virtual HRESULT GetOutputConnectable(LxAMPlayer* player, char** name, LxOutputConnectable** output) = 0;
};

}  // namespace lxp

#endif
