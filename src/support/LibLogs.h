// The library's own log sources, created at load in the order UVC, UVCAPI,
// UVCLib, UVCPool. Everything below the exported functions logs to LIBLog.
#pragma once

#include "support/CLog.h"

extern rk::CLog Log;      // "UVC", the root
extern rk::CLog APILog;   // "UVCAPI"
extern rk::CLog LIBLog;   // "UVCLib": camera access and below
extern rk::CLog PoolLog;  // "UVCPool"
