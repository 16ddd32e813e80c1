#include "hid/cHid.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/hidraw.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <mutex>

#include "hid/HidProtocol.h"
#include "support/LibLogs.h"
#include "support/UniqueFd.h"

namespace {
constexpr uint8_t kMaxReportData = hidproto::kOutputBufferSize - 2;
constexpr int kReadTimeoutMs = 1000;
constexpr int kErrorPauseMs = 10;

enum ReadResult : unsigned int { kRead = 0, kPollFailed = 1, kTimedOut = 2, kReadFailed = 3 };
}  // namespace

struct cHid::Node {
  UniqueFd fd;
  // Lets _close wake the reader at once instead of after its poll time-out.
  UniqueFd wake;
  std::atomic<bool> stop{false};
  // Guards the callback pair so the reader never sees a new function with an
  // old context.
  std::mutex callbackLock;
  cHidCallback callback = nullptr;
  void* callbackCtx = nullptr;

  unsigned int read(uint8_t* buf);
  void pauseAfterError();
  void run();
};

unsigned int cHid::Node::read(uint8_t* buf) {
  // poll rather than select: the same wait, without the FD_SETSIZE ceiling
  // on the descriptor numbers of a busy process.
  pollfd fds[2] = {{fd.get(), POLLIN, 0}, {wake.get(), POLLIN, 0}};
  const nfds_t count = wake.valid() ? 2 : 1;
  const int r = ::poll(fds, count, kReadTimeoutMs);
  if (r < 0) return kPollFailed;
  // A gone node reports POLLERR | POLLHUP; the read then says why.
  if (r == 0 || (fds[0].revents & (POLLIN | POLLERR | POLLHUP | POLLNVAL)) == 0) return kTimedOut;
  const ssize_t n = ::read(fd.get(), buf, hidproto::kInputReportSize);
  if (n > 0) return kRead;
  // hidraw never ends a stream with 0 bytes; a node that does is gone as well.
  if (n == 0) errno = EIO;
  return kReadFailed;
}

void cHid::Node::pauseAfterError() {
  // A failing poll would otherwise retry at once and spin a core.
  pollfd w = {wake.get(), POLLIN, 0};
  ::poll(&w, wake.valid() ? 1 : 0, kErrorPauseMs);
}

void cHid::Node::run() {
  LIBLog.Trace("cHid::ThreadRoutine started\n");
  for (;;) {
    uint8_t buffer[hidproto::kInputReportSize] = {};
    const unsigned int r = read(buffer);
    if (r == kRead) {
      cHidCallback fn;
      void* ctx;
      {
        std::lock_guard<std::mutex> guard(callbackLock);
        fn = callback;
        ctx = callbackCtx;
      }
      if (fn != nullptr)
        fn(buffer, ctx);
      else
        LIBLog.Error("cHid::ThreadRoutine callback undefined\n");
    } else if (r == kReadFailed) {
      const int err = errno;
      // EIO (or ENODEV, EBADF) does not go away: the camera was unplugged and
      // its node will never deliver again. The owner closes this object and a
      // reconnect opens the new node.
      if (err != EAGAIN && err != EINTR) {
        if (!stop) LIBLog.Error("cHid::ThreadRoutine read error %d: the node is gone, reader stops\n", err);
        break;
      }
    } else if (r == kPollFailed && errno != EINTR) {
      pauseAfterError();
    }
    if (stop) break;
  }
  LIBLog.Debug("cHid::ThreadRoutine terminating thread\n");
  LIBLog.Trace("cHid::ThreadRoutine finished\n");
}

cHid::cHid(unsigned char index) : nIndex(index) {}

cHid::~cHid() {
  if (std::atomic_load(&node_) || thread != 0) _close();
}

int cHid::_open(const std::string& path) {
  // Opening twice would orphan the first descriptor and reader thread.
  if (std::atomic_load(&node_) || thread != 0) _close();

  UniqueFd fd(::open(path.c_str(), O_RDWR | O_CLOEXEC));
  if (!fd.valid()) {
    LIBLog.Error("cHid::_open: error");
    return 1;
  }
  auto node = std::make_shared<Node>();
  node->fd = std::move(fd);
  node->wake = UniqueFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  std::atomic_store(&node_, node);

  // The thread gets its own share of the node state and drops it when it ends.
  auto* share = new std::shared_ptr<Node>(std::move(node));
  const int err = pthread_create(&thread, nullptr, &cHid::cHidThreadRoutineStatic, share);
  if (err != 0) {
    delete share;
    LIBLog.Error("cHid::_open: error creating thread: %d\n", err);
    thread = 0;
    return 0;
  }
  LIBLog.Trace("cHid::_open: created thread\n");
  return 0;
}

void cHid::_close() {
  std::shared_ptr<Node> node = std::atomic_exchange(&node_, std::shared_ptr<Node>());
  if (thread != 0) {
    if (node) {
      node->stop = true;
      if (node->wake.valid()) {
        const uint64_t one = 1;
        // A failed wake only costs one poll interval.
        [[maybe_unused]] const ssize_t n = ::write(node->wake.get(), &one, sizeof one);
      }
    }
    if (pthread_equal(thread, pthread_self()) != 0) {
      // Called from the callback: the reader cannot wait for itself. It sees
      // the stop flag when the callback returns and closes the node when it
      // drops its share.
      LIBLog.Debug("cHid::_close: on the reader thread, it ends after the callback\n");
      pthread_detach(thread);
    } else {
      LIBLog.Debug("cHid::_close: pthread_join. waiting...\n");
      pthread_join(thread, nullptr);
      LIBLog.Debug("cHid::_close: pthread_join. done\n");
    }
    thread = 0;
  }
  // Without a running reader this was the last share: the node closes here.
}

bool cHid::IsOpen() const { return descriptor() > 0; }

int cHid::descriptor() const {
  const std::shared_ptr<Node> node = std::atomic_load(&node_);
  return node ? node->fd.get() : -1;
}

void cHid::setCallback(cHidCallback fn, void* ctx) {
  const std::shared_ptr<Node> node = std::atomic_load(&node_);
  if (!node) return;
  std::lock_guard<std::mutex> guard(node->callbackLock);
  node->callback = fn;
  node->callbackCtx = ctx;
}

int cHid::hidReport(uint8_t reportId, uint8_t cmd, const uint8_t* data, uint8_t len) {
  // The local reference keeps the descriptor open (and its number ours) even
  // if another thread closes the device meanwhile.
  const std::shared_ptr<Node> node = std::atomic_load(&node_);
  const int fd = node ? node->fd.get() : -1;
  if (fd < 0) return fd;
  // The write buffer holds 254 data bytes after the id and command.
  if (len > kMaxReportData) len = kMaxReportData;
  uint8_t buffer[hidproto::kOutputBufferSize] = {};
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
  const std::shared_ptr<Node> node = std::atomic_load(&node_);
  const int fd = node ? node->fd.get() : -1;
  if (fd < 0) return fd;
  uint8_t buffer[hidproto::kFeatureReportSize] = {};
  buffer[0] = reportId;
  if (::ioctl(fd, HIDIOCGFEATURE(hidproto::kFeatureReportSize), buffer) < 0) {
    LIBLog.Error("cHid::hidFeatureRd error in ioctl: HIDIOCSFEATURE");
    return 1;
  }
  const size_t n = len < hidproto::kFeatureReportSize ? len : hidproto::kFeatureReportSize;
  if (buf != nullptr) std::memcpy(buf, buffer, n);
  return 0;
}

unsigned int cHid::read_report(uint8_t* buf) {
  const std::shared_ptr<Node> node = std::atomic_load(&node_);
  if (!node) return static_cast<unsigned int>(-1);
  return node->read(buf);
}

void* cHid::cHidThreadRoutineStatic(void* arg) {
  if (arg == nullptr) return nullptr;
  // Owned from here on; released when the loop ends, which closes the node
  // if the object let go of it meanwhile.
  std::unique_ptr<std::shared_ptr<Node>> share(static_cast<std::shared_ptr<Node>*>(arg));
  try {
    (*share)->run();
  } catch (...) {
    // Nothing may leave the thread; the owner notices the silence by time-outs.
  }
  return nullptr;
}
