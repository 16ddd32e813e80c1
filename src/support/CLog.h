// Log front end: one object per log source, a thin layer over the SDK's log
// library. Warning..Trace are decided by flags cached at construction (a
// disabled line costs one byte test); Fatal and Error ask the log library at
// every call, so they can never be silenced by a stale cache.
#pragma once

namespace rk {

class CLog {
 public:
  CLog(const char* name, const char* parent, bool flag);
  // Trivial, so the sources stay usable from other objects' static destructors.
  ~CLog() = default;
  CLog(const CLog&) = delete;
  CLog& operator=(const CLog&) = delete;

  // null clears the user id; otherwise at most three characters are kept.
  void SetUserId(const char* id);

  void Fatal(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  void Error(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  void Warning(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  void Info(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  void Debug(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  void Trace(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

  // The cached switches, for callers that must skip work when a level is off.
  bool WarningEnabled() const { return warning_ != 0; }
  bool InfoEnabled() const { return info_ != 0; }
  bool DebugEnabled() const { return debug_ != 0; }
  bool TraceEnabled() const { return trace_ != 0; }

  unsigned int SourceId() const { return sourceId_; }
  const char* UserId() const { return userId_; }

 private:
  unsigned int sourceId_;
  char userId_[4];
  unsigned char warning_;
  unsigned char info_;
  unsigned char debug_;
  unsigned char trace_;
};

// Scope guard for one step of the calling thread's log indentation.
class CLogIndent {
 public:
  CLogIndent();
  ~CLogIndent();
  CLogIndent(const CLogIndent&) = delete;
  CLogIndent& operator=(const CLogIndent&) = delete;
};

}  // namespace rk
