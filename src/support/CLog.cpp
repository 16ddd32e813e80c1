#include "support/CLog.h"

#include <rklog.h>

#include <cstdarg>
#include <cstring>

#include "support/StringUtils.h"

namespace rk {

CLog::CLog(const char* name, const char* parent, bool flag)
    : sourceId_(rklog_Register(name, parent, flag ? 1 : 0)),
      userId_{},
      warning_(rklog_Enabled(sourceId_, RKLOG_WARNING) != 0),
      info_(rklog_Enabled(sourceId_, RKLOG_INFO) != 0),
      debug_(rklog_Enabled(sourceId_, RKLOG_DEBUG) != 0),
      trace_(rklog_Enabled(sourceId_, RKLOG_TRACE) != 0) {}

void CLog::SetUserId(const char* id) {
  if (id == nullptr) {
    userId_[0] = '\0';
    return;
  }
  SafeStrCpy(userId_, id, sizeof(userId_));
}

#define TQ_CLOG_WRITE(level)                                  \
  do {                                                        \
    va_list args;                                             \
    va_start(args, fmt);                                      \
    rklog_WriteArgList(sourceId_, level, userId_, fmt, args); \
    va_end(args);                                             \
  } while (0)

void CLog::Fatal(const char* fmt, ...) {
  if (rklog_Enabled(sourceId_, RKLOG_FATAL)) TQ_CLOG_WRITE(RKLOG_FATAL);
}
void CLog::Error(const char* fmt, ...) {
  if (rklog_Enabled(sourceId_, RKLOG_ERROR)) TQ_CLOG_WRITE(RKLOG_ERROR);
}
void CLog::Warning(const char* fmt, ...) {
  if (warning_) TQ_CLOG_WRITE(RKLOG_WARNING);
}
void CLog::Info(const char* fmt, ...) {
  if (info_) TQ_CLOG_WRITE(RKLOG_INFO);
}
void CLog::Debug(const char* fmt, ...) {
  if (debug_) TQ_CLOG_WRITE(RKLOG_DEBUG);
}
void CLog::Trace(const char* fmt, ...) {
  if (trace_) TQ_CLOG_WRITE(RKLOG_TRACE);
}

#undef TQ_CLOG_WRITE

CLogIndent::CLogIndent() { rklog_IncIndent(this); }
CLogIndent::~CLogIndent() { rklog_DecIndent(this); }

}  // namespace rk
