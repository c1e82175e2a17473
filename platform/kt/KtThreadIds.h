// Thread ids shared by every KtThreadManager of the library's own making.
#ifndef LORVEX_PLATFORM_KT_THREADIDS_H
#define LORVEX_PLATFORM_KT_THREADIDS_H

#include "Kt.h"

/// The calling thread's id: the id of its KtThread when the default manager made it, otherwise an
/// id assigned on first use.
KtThreadId ktCurrentThreadId();

#endif
