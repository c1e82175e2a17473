# The library's layers, bottom to top, and the layer each public header belongs to.
#
# A folder may include headers of its own layer (its own folder only) and of lower layers; the
# four media folders share one rank and none includes another. filterlib/ and tools/ sit above the
# library. Read by cmake/LayerCheck.cmake (the include checker) and by the build, which gives each
# folder's objects only the public headers they may include.

# Folder and rank.
set(LORVEX_LAYER_RANKS
    platform=0
    foundation=1
    timing=2
    graph=3
    player=4
    audio=5 midi=5 video=5 dshow=5
    manager=6
    vrml=7
    filterlib=8 tools=8)

# Public header (in include/) and the folder that owns it: the one that implements it or, for a
# pure interface, the lowest one that needs it.
set(LORVEX_HEADER_OWNERS
    LxApi.h=platform
    Kt.h=platform
    LxPlatform.h=platform
    LxPlatformGraph.h=platform
    LxPlatformMidi.h=platform
    LxPlatformProbe.h=platform
    LxPlatformSound.h=platform
    LxLog.h=platform
    LxMediaTypes.h=platform
    LxResult.h=foundation
    LxTime.h=foundation
    LxVersion.h=foundation
    LxDiagnostics.h=foundation
    LxQueue.h=foundation
    LxVersionDetection.h=foundation
    LxTimeBase.h=timing
    LxClock.h=timing
    LxManagerServices.h=timing
    LxFormat.h=graph
    LxNode.h=graph
    LxEvent.h=graph
    LxConnectable.h=graph
    LxPlayer.h=player
    LxDataSource.h=player
    LxAudioOutputPort.h=player
    LxAudioRendererNode.h=player
    LxVideoRenderer.h=player
    LxAudioPlayer.h=audio
    LxMixer.h=audio
    LxWin32AudioOutputPort.h=audio
    LxWin32AudioPortConfig.h=audio
    LxWin32AudioPortData.h=audio
    LxWin32AudioRenderer.h=audio
    LxWin32Mixer.h=audio
    LxWin32MidiPlayer.h=midi
    LxBaseVideoRenderer.h=video
    LxAMPlayer.h=dshow
    LxManager.h=manager
    LxWin32Manager.h=manager
    LxVrmlSupport.h=vrml
    Lorvex.h=vrml)

# lorvex_layer_rank(<folder> <out>): the folder's rank, or empty when it is not a layer.
function(lorvex_layer_rank folder out)
    set(rank "")
    foreach(entry ${LORVEX_LAYER_RANKS})
        if(entry MATCHES "^${folder}=([0-9]+)$")
            set(rank ${CMAKE_MATCH_1})
        endif()
    endforeach()
    set(${out} "${rank}" PARENT_SCOPE)
endfunction()

# lorvex_header_owner(<header> <out>): the owner folder of a public header, or empty.
function(lorvex_header_owner header out)
    set(owner "")
    foreach(entry ${LORVEX_HEADER_OWNERS})
        string(FIND "${entry}" "${header}=" pos)
        if(pos EQUAL 0)
            string(LENGTH "${header}=" len)
            string(SUBSTRING "${entry}" ${len} -1 owner)
        endif()
    endforeach()
    set(${out} "${owner}" PARENT_SCOPE)
endfunction()
