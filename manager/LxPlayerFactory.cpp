// The player factory: a data source's content name picks the player class.
#include "LxAMPlayer.h"
#include "LxAudioPlayer.h"
#include "LxDataSource.h"
#include "LxLog.h"
#include "LxResult.h"
#include "LxWin32Manager.h"
#include "LxWin32MidiPlayer.h"

#include <cstring>
#include <new>

namespace {

// The optional plug-in's entry point: (manager, source) -> new player or null.
typedef LxPlayer* (*CreatePlayerFn)(LxManager*, LxDataSource*);

}  // namespace

long LxWin32Manager::createPlayer(LxDataSource* source, LxPlayer** out) {
    const char* name = source != nullptr ? source->getContentName() : nullptr;
    if (name == nullptr) {
        name = "";
    }
    LxLog::postDebug("LxWin32Manager:  creating player for MIME: %s\n", name);
    LxPlayer* player = nullptr;
    if (std::strcmp(name, "music/midi") == 0 || std::strcmp(name, "x-music/x-midi") == 0) {
        LxLog::postDebug("LxWin32Manager:  creating a MIDI player\n");
        player = new (std::nothrow) LxWin32MidiPlayer(this, source);
    } else if (std::strcmp(name, "application/x-sva") == 0) {
        LxLog::postDebug("LxWin32Manager:  attempting to load RMA core dll\n");
        KtModule library = KtWin32Library::LoadWin32Library("lx12_rmaplayer.dll");
        if (library == nullptr) {
            return LX_ERR_GENERIC;
        }
        CreatePlayerFn create =
            reinterpret_cast<CreatePlayerFn>(KtWin32Library::GetProcAddress(library, "CreatePlayer"));
        if (create == nullptr) {
            KtWin32Library::FreeLibrary(library);
            return LX_ERR_GENERIC;
        }
        player = create(this, source);  // the library stays loaded: its players use its code
    } else if (directShowAvailable) {
        LxLog::postDebug("LxWin32Manager:  creating an ActiveMovie player\n");
        player = new (std::nothrow) LxAMPlayer(this, source);
    } else {
        LxLog::postDebug("LxWin32Manager:  creating an non-ActiveMovie AudioPlayer\n");
        player = new (std::nothrow) LxAudioPlayer(this, source);
    }
    if (out != nullptr) {
        *out = player;
    }
    if (player == nullptr) {
        LxLog::postDebug("LxWin32Manager:  failed to new a player\n");
        return LX_ERR_GENERIC;
    }
    addPlayer(player);
    return LX_OK;
}
