// The exported C functions of libtq.log.
#include <pthread.h>
#include <rklog.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "LogOutput.h"
#include "LogRegistry.h"

#define TQ_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

constexpr int kMaxPrintedIndent = 64;  // keeps runaway nesting from bloating lines

// A thread cancelled inside write() would leave a torn line and a held
// mutex; logging defers cancellation until it is done.
class NoCancel {
 public:
  NoCancel() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old_); }
  ~NoCancel() { pthread_setcancelstate(old_, nullptr); }
  NoCancel(const NoCancel&) = delete;
  NoCancel& operator=(const NoCancel&) = delete;

 private:
  int old_ = PTHREAD_CANCEL_ENABLE;
};

thread_local int indentSteps = 0;
// Not cached: a forked child would go on printing its parent's id.
unsigned long threadId() { return static_cast<unsigned long>(syscall(SYS_gettid)); }

const char* levelName(unsigned level) {
  if (level & RKLOG_FATAL) return "Fatal";
  if (level & RKLOG_ERROR) return "Error";
  if (level & RKLOG_WARNING) return "Warning";
  if (level & RKLOG_INFO) return "Info";
  if (level & RKLOG_DEBUG) return "Debug";
  return "Trace";
}

// Formats into a growing buffer, so long texts are written whole.
std::string formatText(const char* fmt, va_list args) {
  if (!fmt) return std::string();
  char small[512];
  va_list copy;
  va_copy(copy, args);
  int n = vsnprintf(small, sizeof(small), fmt, copy);
  va_end(copy);
  if (n < 0) return std::string("(unformattable log text: ") + fmt + ")";
  if (static_cast<size_t>(n) < sizeof(small)) return std::string(small, static_cast<size_t>(n));
  std::string big(static_cast<size_t>(n) + 1, '\0');
  va_copy(copy, args);
  vsnprintf(&big[0], big.size(), fmt, copy);
  va_end(copy);
  big.resize(static_cast<size_t>(n));
  return big;
}

void writeLine(unsigned source, unsigned level, const char* userId, const char* fmt, va_list args) {
  const char* name = tqlog::sourceName(source);
  if (!name || level == 0 || (tqlog::enabledLevels(source) & level) == 0) return;
  std::string text = formatText(fmt, args);
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  const char* user = userId ? userId : "";
  unsigned long tid = threadId();
  int indent = indentSteps;
  int printed = indent < kMaxPrintedIndent ? indent : kMaxPrintedIndent;

  char head[160];
  snprintf(head, sizeof(head), "%lu %s%s%s %s ", tid, name, user[0] ? ":" : "", user, levelName(level));
  std::string prefix(head);
  prefix.append(static_cast<size_t>(printed) * 2, ' ');

  rklog_Record record{};
  record.source = name;
  record.userId = user;
  record.level = level;
  record.threadId = tid;
  record.indent = indent;
  record.text = text.c_str();
  tqlog::emit(&record, prefix.c_str(), text.c_str());
}

}  // namespace

TQ_EXPORT unsigned int rklog_Register(const char* name, const char* parent, int flag) {
  try {
    return tqlog::registerSource(name, parent, flag == 0);
  } catch (...) {
    return 0;
  }
}

TQ_EXPORT int rklog_Enabled(unsigned int source, unsigned int level) {
  return (tqlog::enabledLevels(source) & level) != 0;
}

TQ_EXPORT void rklog_WriteArgList(unsigned int source, unsigned int level, const char* userId,
                                  const char* fmt, va_list args) {
  if ((tqlog::enabledLevels(source) & level) == 0) return;
  NoCancel noCancel;
  try {
    writeLine(source, level, userId, fmt, args);
  } catch (...) {
    // Out of memory while logging: losing the line is the only safe choice.
  }
}

TQ_EXPORT void rklog_IncIndent(const void*) { ++indentSteps; }

TQ_EXPORT void rklog_DecIndent(const void*) {
  if (indentSteps > 0) --indentSteps;
}

TQ_EXPORT void rklog_Configure(const char* levels) {
  NoCancel noCancel;
  try {
    tqlog::configure(levels);
    if (!levels) tqlog::resetOutput();
  } catch (...) {
  }
}

TQ_EXPORT int rklog_AddSink(rklog_SinkFn fn, void* ctx) {
  try {
    return tqlog::addSink(fn, ctx);
  } catch (...) {
    return 0;
  }
}

TQ_EXPORT void rklog_RemoveSink(int id) {
  try {
    tqlog::removeSink(id);
  } catch (...) {
  }
}
