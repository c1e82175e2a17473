// Lorvex.h - everything a host needs: include this one header and link Lorvex::lorvex.
#ifndef LORVEX_H
#define LORVEX_H

#include "Kt.h"
#include "LxDiagnostics.h"
#include "LxLog.h"
#include "LxQueue.h"
#include "LxResult.h"
#include "LxTime.h"
#include "LxVersion.h"

#endif  // LORVEX_H
