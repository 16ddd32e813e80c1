#include "support/LibLogs.h"

// One translation unit fixes the construction order of the four sources.
rk::CLog Log("UVC", nullptr, true);
rk::CLog APILog("UVCAPI", "UVC", true);
rk::CLog LIBLog("UVCLib", "UVC", true);
rk::CLog PoolLog("UVCPool", "UVC", true);
