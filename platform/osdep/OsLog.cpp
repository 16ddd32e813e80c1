#include "OsLog.h"

#include <cstdarg>
#include <ctime>

namespace tqos {

void osLog(unsigned level, const char* fmt, ...) {
  static const unsigned source = rklog_Register("OSDEP", nullptr, 1);
  if (!rklog_Enabled(source, level)) return;
  va_list args;
  va_start(args, fmt);
  rklog_WriteArgList(source, level, nullptr, fmt, args);
  va_end(args);
}

timespec deadlineAfter(unsigned ms) {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  ts.tv_sec += static_cast<time_t>(ms / 1000);
  ts.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
  if (ts.tv_nsec >= 1000000000L) {
    ts.tv_sec += 1;
    ts.tv_nsec -= 1000000000L;
  }
  return ts;
}

}  // namespace tqos
