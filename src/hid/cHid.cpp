#include "hid/cHid.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/hidraw.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstring>

#include "support/LibLogs.h"

namespace {
constexpr size_t kWriteBufferSize = 256;
constexpr uint8_t kMaxReportData = kWriteBufferSize - 2;
constexpr size_t kFeatureSize = 1024;
constexpr size_t kInputReportSize = 64;
constexpr int kReadTimeoutMs = 1000;
constexpr int kErrorPauseMs = 10;
}  // namespace

cHid::cHid(unsigned char index)
    : nIndex(index), fd(-1), thread(0), bStop(0), pCallbackCtx(nullptr), pCallback(nullptr) {}

cHid::~cHid() {
  if (thread != 0 || fd >= 0) _close();
}

int cHid::_open(const std::string& path) {
  // Opening twice would orphan the first descriptor and reader thread.
  if (thread != 0 || fd >= 0) _close();

  fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    fd = -1;
    LIBLog.Error("cHid::_open: error");
    return 1;
  }
  wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  bStop = 0;
  int err = pthread_create(&thread, nullptr, &cHid::cHidThreadRoutineStatic, this);
  if (err != 0) {
    LIBLog.Error("cHid::_open: error creating thread: %d\n", err);
    thread = 0;
    return 0;
  }
  LIBLog.Trace("cHid::_open: created thread\n");
  return 0;
}

void cHid::_close() {
  if (thread != 0) {
    bStop = 1;
    if (wakeFd_ >= 0) {
      uint64_t one = 1;
      ssize_t n = ::write(wakeFd_, &one, sizeof one);
      (void)n;  // a failed wake only costs one poll interval
    }
    LIBLog.Debug("cHid::_close: pthread_join. waiting...\n");
    pthread_join(thread, nullptr);
    LIBLog.Debug("cHid::_close: pthread_join. done\n");
    thread = 0;
  }
  if (fd >= 0) ::close(fd);
  fd = -1;
  if (wakeFd_ >= 0) ::close(wakeFd_);
  wakeFd_ = -1;
}

bool cHid::IsOpen() const { return fd > 0; }

void cHid::setCallback(cHidCallback fn, void* ctx) {
  std::lock_guard<std::mutex> guard(callbackLock_);
  pCallback = fn;
  pCallbackCtx = ctx;
}

int cHid::hidReport(uint8_t reportId, uint8_t cmd, const uint8_t* data, uint8_t len) {
  if (fd < 0) return fd;
  // The write buffer holds 254 data bytes after the id and command.
  if (len > kMaxReportData) len = kMaxReportData;
  uint8_t buffer[kWriteBufferSize] = {};
  buffer[0] = reportId;
  buffer[1] = cmd;
  if (data != nullptr && len > 0) std::memcpy(buffer + 2, data, len);
  if (::write(fd, buffer, static_cast<size_t>(len) + 2) < 0) {
    LIBLog.Error("cHid::hidReport: Error: %d fd:%d\n", errno, fd);
    return 1;
  }
  return 0;
}

int cHid::hidFeatureRd(uint8_t reportId, uint8_t* buf, uint16_t len) {
  if (fd < 0) return fd;
  uint8_t buffer[kFeatureSize] = {};
  buffer[0] = reportId;
  if (::ioctl(fd, HIDIOCGFEATURE(kFeatureSize), buffer) < 0) {
    LIBLog.Error("cHid::hidFeatureRd error in ioctl: HIDIOCSFEATURE");
    return 1;
  }
  size_t n = len < kFeatureSize ? len : kFeatureSize;
  if (buf != nullptr) std::memcpy(buf, buffer, n);
  return 0;
}

unsigned int cHid::read_report(uint8_t* buf) {
  if (fd < 0) return static_cast<unsigned int>(fd);
  // poll rather than select: same wait, but no FD_SETSIZE ceiling on the
  // descriptor numbers of a busy process.
  pollfd fds[2] = {{fd, POLLIN, 0}, {wakeFd_, POLLIN, 0}};
  nfds_t count = wakeFd_ >= 0 ? 2 : 1;
  int r = ::poll(fds, count, kReadTimeoutMs);
  if (r < 0) return 1;
  if (r == 0 || (fds[0].revents & (POLLIN | POLLERR | POLLHUP | POLLNVAL)) == 0) return 2;
  // End of file (the node went away) delivers no report either.
  if (::read(fd, buf, kInputReportSize) <= 0) return 3;
  return 0;
}

void cHid::pauseAfterError() {
  // A vanished node fails at once on every round; without a pause the reader
  // would spin a core until it is closed.
  // Without a wake descriptor the pause is a plain sleep of the same length.
  pollfd wake = {wakeFd_, POLLIN, 0};
  ::poll(&wake, wakeFd_ >= 0 ? 1 : 0, kErrorPauseMs);
}

void* cHid::cHidThreadRoutineStatic(void* self) {
  if (self == nullptr) return nullptr;
  try {
    static_cast<cHid*>(self)->threadRoutine();
  } catch (...) {
    // Nothing may leave the thread; the owner notices the silence by time-outs.
  }
  return nullptr;
}

void cHid::threadRoutine() {
  LIBLog.Trace("cHid::ThreadRoutine started\n");
  for (;;) {
    uint8_t buffer[kInputReportSize] = {};
    unsigned int r = read_report(buffer);
    if (r == 0) {
      cHidCallback fn;
      void* ctx;
      {
        std::lock_guard<std::mutex> guard(callbackLock_);
        fn = pCallback;
        ctx = pCallbackCtx;
      }
      if (fn != nullptr)
        fn(buffer, ctx);
      else
        LIBLog.Error("cHid::ThreadRoutine callback undefined\n");
    } else if (r != 2) {
      pauseAfterError();
    }
    if (bStop != 0) break;
  }
  LIBLog.Debug("cHid::ThreadRoutine terminating thread\n");
  LIBLog.Trace("cHid::ThreadRoutine finished\n");
}
