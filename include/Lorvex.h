// Lorvex.h - everything a host needs: include this one header and link Lorvex::lorvex.
#ifndef LORVEX_H
#define LORVEX_H

#include "Kt.h"
#include "LxAudioOutputPort.h"
#include "LxAudioPlayer.h"
#include "LxAudioRendererNode.h"
#include "LxClock.h"
#include "LxConnectable.h"
#include "LxDataSource.h"
#include "LxDiagnostics.h"
#include "LxEvent.h"
#include "LxFormat.h"
#include "LxLog.h"
#include "LxManager.h"
#include "LxMixer.h"
#include "LxNode.h"
#include "LxPlatform.h"
#include "LxPlayer.h"
#include "LxQueue.h"
#include "LxResult.h"
#include "LxTime.h"
#include "LxTimeBase.h"
#include "LxVersion.h"
#include "LxVersionDetection.h"
#include "LxVideoRenderer.h"
#include "LxVrmlSupport.h"
#include "LxWin32AudioOutputPort.h"
#include "LxWin32AudioPortConfig.h"
#include "LxWin32AudioPortData.h"
#include "LxWin32Mixer.h"

#endif  // LORVEX_H
