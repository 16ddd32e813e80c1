// Collects what the log library writes while the object lives, so a test can
// assert the exact texts the library logs.
#pragma once

#include <rklog.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace tqtest {

struct LogLine {
  std::string source;
  unsigned level = 0;
  std::string text;
  std::string line;  // as written, with time, thread and indentation
};

class LogCapture {
 public:
  LogCapture() { id_ = rklog_AddSink(&LogCapture::sink, this); }
  ~LogCapture() { rklog_RemoveSink(id_); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogLine> lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
  }
  // Lines whose text contains `part` (optionally only at `level`).
  size_t count(std::string_view part, unsigned level = 0) const {
    std::lock_guard<std::mutex> lock(mutex_);
    size_t n = 0;
    for (const auto& l : lines_)
      if ((level == 0 || l.level == level) && l.text.find(part) != std::string::npos) ++n;
    return n;
  }
  bool contains(std::string_view part, unsigned level = 0) const { return count(part, level) > 0; }
  // Lines whose text equals `text` exactly (trailing newline already removed).
  size_t countExact(std::string_view text, unsigned level = 0) const {
    std::lock_guard<std::mutex> lock(mutex_);
    size_t n = 0;
    for (const auto& l : lines_)
      if ((level == 0 || l.level == level) && l.text == text) ++n;
    return n;
  }
  // Waits until a line containing `part` was written, or the time-out passed.
  bool waitFor(std::string_view part, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] {
      for (const auto& l : lines_)
        if (l.text.find(part) != std::string::npos) return true;
      return false;
    });
  }

 private:
  static void sink(void* ctx, const rklog_Record* r) {
    auto* self = static_cast<LogCapture*>(ctx);
    LogLine l{r->source, r->level, r->text, r->line};
    {
      std::lock_guard<std::mutex> lock(self->mutex_);
      self->lines_.push_back(std::move(l));
    }
    self->changed_.notify_all();
  }

  int id_ = 0;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<LogLine> lines_;
};

}  // namespace tqtest
