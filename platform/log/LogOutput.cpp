#include "LogOutput.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>

namespace tqlog {
namespace {

struct Sink {
  rklog_SinkFn fn;
  void* ctx;
  int id;
};

// Trivially destructible, like the registry: logging must keep working while
// other libraries' static destructors run.
std::mutex outputMutex;
Sink sinks[kMaxSinks];
int nextSinkId = 1;
bool outputOpen = false;
int outputFd = -1;  // -1: stderr
bool outputRegular = false;
unsigned long long outputSize = 0;
unsigned long long outputMax = kDefaultFileMax;
char outputPath[4096];

// Set while this thread holds outputMutex, so a sink that logs (or removes
// itself) does not deadlock.
thread_local bool insideEmit = false;

int openLogFile(const char* path) {
  // O_NONBLOCK only for the open: a fifo without a reader must not hang us.
  int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0644);
  if (fd < 0) return -1;
  int flags = fcntl(fd, F_GETFL);
  if (flags >= 0) fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
  return fd;
}

void closeOutputLocked() {
  if (outputFd >= 0) close(outputFd);
  outputFd = -1;
  outputRegular = false;
  outputSize = 0;
  outputOpen = false;
}

void openOutputLocked() {
  outputOpen = true;
  outputFd = -1;
  outputMax = kDefaultFileMax;
  if (const char* max = getenv("TQ_LOG_FILE_MAX")) {
    char* end = nullptr;
    errno = 0;
    unsigned long long v = strtoull(max, &end, 0);
    if (errno == 0 && end != max && *end == '\0' && v > 0) outputMax = v;
  }
  const char* path = getenv("TQ_LOG_FILE");
  if (!path || !path[0] || strlen(path) >= sizeof(outputPath)) return;
  memcpy(outputPath, path, strlen(path) + 1);
  outputFd = openLogFile(outputPath);
  if (outputFd < 0) {
    dprintf(2, "tq.log: cannot open log file \"%s\" (%s), logging to stderr\n", outputPath, strerror(errno));
    return;
  }
  struct stat st;
  if (fstat(outputFd, &st) == 0 && S_ISREG(st.st_mode)) {
    outputRegular = true;
    outputSize = static_cast<unsigned long long>(st.st_size);
  }
}

void rotateLocked() {
  // Renaming a device or fifo would break whoever else uses it.
  if (!outputRegular) return;
  std::string old = std::string(outputPath) + ".1";
  close(outputFd);
  outputFd = -1;
  if (rename(outputPath, old.c_str()) != 0)
    dprintf(2, "tq.log: cannot rotate \"%s\" (%s)\n", outputPath, strerror(errno));
  outputFd = openLogFile(outputPath);
  outputSize = 0;
  if (outputFd < 0) {
    outputRegular = false;
    dprintf(2, "tq.log: cannot reopen \"%s\" (%s), logging to stderr\n", outputPath, strerror(errno));
  }
}

void writeAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return;  // nowhere left to report it
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
}

// A pipe or fifo whose reader went away must not kill the process through
// SIGPIPE: the signal is held back for this write and a fresh one dropped.
void writeWithoutSigpipe(int fd, const char* data, size_t size) {
  sigset_t pipeOnly, old, pending;
  sigemptyset(&pipeOnly);
  sigaddset(&pipeOnly, SIGPIPE);
  if (pthread_sigmask(SIG_BLOCK, &pipeOnly, &old) != 0) {
    writeAll(fd, data, size);
    return;
  }
  sigpending(&pending);
  bool alreadyPending = sigismember(&pending, SIGPIPE) == 1;
  writeAll(fd, data, size);
  if (!alreadyPending) {
    sigpending(&pending);
    if (sigismember(&pending, SIGPIPE) == 1) {
      struct timespec zero = {0, 0};
      sigtimedwait(&pipeOnly, nullptr, &zero);
    }
  }
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

void formatTime(char* buf, size_t size) {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  struct tm tm;
  localtime_r(&ts.tv_sec, &tm);
  size_t n = strftime(buf, size, "%Y-%m-%d %H:%M:%S", &tm);
  snprintf(buf + n, size - n, ".%03ld", ts.tv_nsec / 1000000);
}

void emitLocked(rklog_Record* record, const char* prefixAfterTime, const char* text, bool toSinks) {
  if (!outputOpen) openOutputLocked();
  char stamp[48];
  formatTime(stamp, sizeof(stamp));
  std::string line;
  line.reserve(strlen(stamp) + strlen(prefixAfterTime) + strlen(text) + 2);
  line.append(stamp).append(" ").append(prefixAfterTime).append(text);
  record->line = line.c_str();
  line.push_back('\n');
  if (outputFd >= 0) {
    if (outputSize > 0 && outputSize + line.size() > outputMax) rotateLocked();
  }
  if (outputFd >= 0 && outputRegular)
    writeAll(outputFd, line.data(), line.size());
  else
    writeWithoutSigpipe(outputFd >= 0 ? outputFd : 2, line.data(), line.size());
  if (outputFd >= 0) outputSize += line.size();
  line.pop_back();
  record->line = line.c_str();
  if (!toSinks) return;
  for (size_t i = 0; i < kMaxSinks; ++i) {
    // Re-read each slot: a sink may add or remove sinks while we walk.
    if (sinks[i].fn) sinks[i].fn(sinks[i].ctx, record);
  }
}

}  // namespace

void emit(rklog_Record* record, const char* prefixAfterTime, const char* text) {
  if (insideEmit) {
    emitLocked(record, prefixAfterTime, text, false);
    return;
  }
  std::lock_guard<std::mutex> lock(outputMutex);
  struct InsideEmit {
    InsideEmit() { insideEmit = true; }
    ~InsideEmit() { insideEmit = false; }
  } inside;
  emitLocked(record, prefixAfterTime, text, true);
}

int addSink(rklog_SinkFn fn, void* ctx) {
  if (!fn) return 0;
  std::unique_lock<std::mutex> lock(outputMutex, std::defer_lock);
  if (!insideEmit) lock.lock();
  for (Sink& s : sinks) {
    if (!s.fn) {
      s.fn = fn;
      s.ctx = ctx;
      s.id = nextSinkId++;
      if (nextSinkId <= 0) nextSinkId = 1;
      return s.id;
    }
  }
  return 0;
}

void removeSink(int id) {
  if (id <= 0) return;
  // Holding the mutex means no sink is running on another thread.
  std::unique_lock<std::mutex> lock(outputMutex, std::defer_lock);
  if (!insideEmit) lock.lock();
  for (Sink& s : sinks) {
    if (s.id == id) s = Sink{nullptr, nullptr, 0};
  }
}

void resetOutput() {
  std::unique_lock<std::mutex> lock(outputMutex, std::defer_lock);
  if (!insideEmit) lock.lock();
  closeOutputLocked();
}

}  // namespace tqlog
