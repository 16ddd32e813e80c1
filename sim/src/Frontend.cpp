#include "Frontend.h"

#include <fcntl.h>
#include <linux/videodev2.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>

#include "Emulation.h"
#include "Protocol.h"
#include "RealCalls.h"
#include "StateFile.h"

namespace tqsim {

namespace {

std::string initialEnvironment(const char* name) {
  // Straight from the kernel: a shell's getenv only knows its own variables.
  const int fd = real::open("/proc/self/environ", O_RDONLY | O_CLOEXEC, 0);
  std::string text;
  if (fd >= 0) {
    char chunk[4096];
    ssize_t n = 0;
    while ((n = real::read(fd, chunk, sizeof chunk)) > 0) text.append(chunk, static_cast<size_t>(n));
    real::close(fd);
  }
  const std::string key = std::string(name) + "=";
  size_t at = 0;
  while (at < text.size()) {
    const size_t end = text.find('\0', at);
    const std::string entry = text.substr(at, end == std::string::npos ? std::string::npos : end - at);
    if (entry.rfind(key, 0) == 0) return entry.substr(key.size());
    if (end == std::string::npos) break;
    at = end + 1;
  }
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

}  // namespace

std::string serverAddress() {
  static const std::string address = initialEnvironment(kEnvServer);
  return address;
}

std::string stateFileAddress() {
  // The hosting process sets it at run time; its clients inherit it.
  const char* value = std::getenv(kEnvStateFile);
  if (value != nullptr && *value != '\0') return value;
  static const std::string inherited = initialEnvironment(kEnvStateFile);
  return inherited;
}

namespace front {

namespace {

struct FdEntry {
  int node = -1;
  NodeKind kind = NodeKind::None;
  CameraId camera = kNoCamera;
  const std::atomic<int>* pollBits = nullptr;  // video in the hosting process
  // Inherited through fork: the node belongs to the parent, which closes it.
  bool inherited = false;
  struct stat st {};  // what fstat answers: the node, not our socket or eventfd
};

struct MapEntry {
  size_t length = 0;
  CameraId camera = kNoCamera;
};

// A blocking DQBUF looks again this often for a frame, or for a STREAMOFF by
// another thread.
constexpr int kDequeueWaitMs = 50;

// Set while this thread holds the table lock: a call that comes back into us
// from under it (a sanitizer's report maps files) passes straight through.
thread_local volatile bool tInsideTable = false;  // volatile: the set before a lookup must not be dropped

class TableLock {
 public:
  explicit TableLock(std::mutex& mutex) : lock_(mutex) { tInsideTable = true; }
  ~TableLock() { tInsideTable = false; }
  TableLock(const TableLock&) = delete;
  TableLock& operator=(const TableLock&) = delete;

 private:
  std::lock_guard<std::mutex> lock_;
};

class Frontend {
 public:
  static Frontend& instance() {
    // Never destroyed: interposed calls may come from static destructors.
    static Frontend* frontend = new Frontend();
    return *frontend;
  }

  bool remote() {
    // A process that hosts the cameras serves itself.
    return !Emulation::instance().active() && !serverAddress().empty();
  }

  // One request and its reply. fd: a descriptor that came with the reply
  // (-1 if none), the caller's to close.
  Reply call(const Request& request, const void* payload, void* replyPayload, size_t replyCapacity,
             int* fd = nullptr, int recvFlags = 0) {
    Reply reply;
    if (fd) *fd = -1;
    std::lock_guard<std::mutex> lock(connectionMutex_);
    if (connection_ < 0 && !connectLocked()) {
      reply.error = ENODEV;
      return reply;
    }
    Request header = request;
    iovec out[2] = {{&header, sizeof header}, {const_cast<void*>(payload), request.size}};
    msghdr message{};
    message.msg_iov = out;
    message.msg_iovlen = request.size != 0 ? 2 : 1;
    if (::sendmsg(connection_, &message, MSG_NOSIGNAL) < 0) {
      dropLocked();
      reply.error = ENODEV;
      return reply;
    }
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    iovec in[2] = {{&reply, sizeof reply}, {replyPayload, replyCapacity}};
    msghdr answer{};
    answer.msg_iov = in;
    answer.msg_iovlen = replyCapacity != 0 ? 2 : 1;
    answer.msg_control = control;
    answer.msg_controllen = sizeof control;
    ssize_t n = 0;
    do {
      n = ::recvmsg(connection_, &answer, recvFlags);
    } while (n < 0 && errno == EINTR);
    if (n < static_cast<ssize_t>(sizeof reply)) {
      dropLocked();
      reply = Reply{};
      reply.error = ENODEV;
      return reply;
    }
    for (cmsghdr* c = CMSG_FIRSTHDR(&answer); c != nullptr; c = CMSG_NXTHDR(&answer, c)) {
      if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_RIGHTS) {
        int received = -1;
        std::memcpy(&received, CMSG_DATA(c), sizeof received);
        if (fd) {
          *fd = received;
        } else {
          ::close(received);
        }
      }
    }
    return reply;
  }

  void add(int fd, const FdEntry& entry) {
    if (tInsideTable) return;
    TableLock lock(tableMutex_);
    fds_[fd] = entry;
    ++references_[entry.node];
    mirrorLocked(fd, &entry);
    fdCount_.store(fds_.size(), std::memory_order_release);
  }

  // A second descriptor of the same open node (dup, dup2, F_DUPFD).
  bool duplicate(int from, int to) {
    if (from < 0 || to < 0 || fdCount_.load(std::memory_order_acquire) == 0) return false;
    if (tInsideTable) return {};
    TableLock lock(tableMutex_);
    auto it = fds_.find(from);
    if (it == fds_.end()) return false;
    const FdEntry entry = it->second;
    fds_[to] = entry;
    ++references_[entry.node];
    mirrorLocked(to, &entry);
    fdCount_.store(fds_.size(), std::memory_order_release);
    return true;
  }

  bool find(int fd, FdEntry& entry) {
    if (fd < 0 || fdCount_.load(std::memory_order_acquire) == 0) return false;
    if (tInsideTable) return {};
    TableLock lock(tableMutex_);
    auto it = fds_.find(fd);
    if (it == fds_.end()) return false;
    entry = it->second;
    return true;
  }

  // last: no other descriptor of this process names the node any more.
  bool remove(int fd, FdEntry& entry, bool& last) {
    if (fd < 0 || fdCount_.load(std::memory_order_acquire) == 0) return false;
    if (tInsideTable) return {};
    TableLock lock(tableMutex_);
    auto it = fds_.find(fd);
    if (it == fds_.end()) return false;
    entry = it->second;
    fds_.erase(it);
    mirrorLocked(fd, nullptr);
    last = --references_[entry.node] <= 0;
    if (last) references_.erase(entry.node);
    fdCount_.store(fds_.size(), std::memory_order_release);
    return true;
  }

  void addMapping(void* addr, const MapEntry& entry) {
    if (tInsideTable) return;
    TableLock lock(tableMutex_);
    maps_[addr] = entry;
    mapCount_.store(maps_.size(), std::memory_order_release);
  }

  bool removeMapping(void* addr) {
    if (mapCount_.load(std::memory_order_acquire) == 0) return false;
    if (tInsideTable) return {};
    TableLock lock(tableMutex_);
    const bool found = maps_.erase(addr) != 0;
    mapCount_.store(maps_.size(), std::memory_order_release);
    return found;
  }

  int countFds(CameraId camera) {
    if (tInsideTable) return {};
    TableLock lock(tableMutex_);
    int count = 0;
    for (const auto& [fd, entry] : fds_) {
      if (entry.kind == NodeKind::Video && entry.camera == camera) ++count;
    }
    return count;
  }

  size_t countMappings(CameraId camera) {
    if (tInsideTable) return {};
    TableLock lock(tableMutex_);
    size_t count = 0;
    for (const auto& [addr, entry] : maps_) {
      if (entry.camera == camera) ++count;
    }
    return count;
  }

  // What read, write, poll and select need, without a lock: they run inside
  // a sanitizer's blocking-call region, where locks are not seen.
  struct Quick {
    NodeKind kind = NodeKind::None;
    int node = -1;
    const std::atomic<int>* pollBits = nullptr;
  };
  bool quick(int fd, Quick& out) const {
    if (fd < 0 || fdCount_.load(std::memory_order_acquire) == 0) return false;
    if (fd >= kQuickFds) {
      FdEntry entry;
      if (!const_cast<Frontend*>(this)->find(fd, entry)) return false;
      out = {entry.kind, entry.node, entry.pollBits};
      return true;
    }
    const uint64_t word = quick_[fd].load(std::memory_order_acquire);
    if (word == 0) return false;
    out.kind = static_cast<NodeKind>(word >> 32);
    out.node = static_cast<int>(word & 0xFFFFFFFFu);
    out.pollBits = pollBits_[fd].load(std::memory_order_acquire);
    return true;
  }

  bool anyFd() const { return fdCount_.load(std::memory_order_acquire) != 0; }
  bool anyMap() const { return mapCount_.load(std::memory_order_acquire) != 0; }

 private:
  Frontend() { ::pthread_atfork(&beforeFork, &afterForkParent, &afterForkChild); }

  bool connectLocked() {
    const std::string address = serverAddress();
    if (address.empty() || address.size() >= sizeof(sockaddr_un{}.sun_path)) return false;
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    sockaddr_un where{};
    where.sun_family = AF_UNIX;
    std::memcpy(where.sun_path, address.c_str(), address.size());
    if (::connect(fd, reinterpret_cast<sockaddr*>(&where), sizeof where) != 0) {
      real::close(fd);
      return false;
    }
    // Out of the way of the low numbers shells hand out and dup2 onto
    // (exec 3<>...): the program never sees our socket under a number it uses.
    rlimit limit{};
    const rlim_t high =
        ::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur > 100 && limit.rlim_cur != RLIM_INFINITY
            ? limit.rlim_cur - 64
            : 64;
    const int moved = static_cast<int>(
        ::syscall(SYS_fcntl, fd, F_DUPFD_CLOEXEC, static_cast<int>(std::min<rlim_t>(high, 4000))));
    if (moved >= 0) {
      real::close(fd);
      connection_ = moved;
    } else {
      connection_ = fd;
    }
    return true;
  }

 public:
  // The program closed or reused our socket's number: it is not ours any more.
  void released(int fd) {
    if (fd < 0 || fd != connection_.load(std::memory_order_relaxed)) return;
    std::lock_guard<std::mutex> lock(connectionMutex_);
    if (connection_ == fd) connection_ = -1;
  }

 private:
  void dropLocked() {
    if (connection_ >= 0) real::close(connection_);
    connection_ = -1;
  }

  // Neither lock may be held by another thread across fork, or the child
  // would inherit it locked for good.
  static void beforeFork() {
    Frontend& self = instance();
    self.connectionMutex_.lock();
    self.tableMutex_.lock();
  }
  static void afterForkParent() {
    Frontend& self = instance();
    self.tableMutex_.unlock();
    self.connectionMutex_.unlock();
  }
  static void afterForkChild() {
    Frontend& self = instance();
    // The child talks on a connection of its own; the nodes it inherited stay
    // the parent's (the launcher closes them with the parent's connection).
    self.dropLocked();
    for (auto& [fd, entry] : self.fds_) entry.inherited = true;
    self.tableMutex_.unlock();
    self.connectionMutex_.unlock();
  }

  std::mutex connectionMutex_;  // taken before tableMutex_ (fork only)
  std::atomic<int> connection_{-1};
  std::mutex tableMutex_;
  std::map<int, FdEntry> fds_;
  std::map<int, int> references_;  // descriptors per node
  static constexpr int kQuickFds = 4096;
  // Mirrors of fds_ for the first descriptor numbers: kind << 32 | node, 0 = none.
  std::atomic<uint64_t> quick_[kQuickFds] = {};
  std::atomic<const std::atomic<int>*> pollBits_[kQuickFds] = {};
  void mirrorLocked(int fd, const FdEntry* entry) {
    if (fd < 0 || fd >= kQuickFds) return;
    pollBits_[fd].store(entry != nullptr ? entry->pollBits : nullptr, std::memory_order_release);
    quick_[fd].store(entry != nullptr
                         ? (static_cast<uint64_t>(entry->kind) << 32) | static_cast<uint32_t>(entry->node)
                         : 0,
                     std::memory_order_release);
  }
  std::map<void*, MapEntry> maps_;
  std::atomic<size_t> fdCount_{0};
  std::atomic<size_t> mapCount_{0};
};

Frontend& frontend() { return Frontend::instance(); }

bool maybeNode(const char* path) { return path != nullptr && std::strncmp(path, "/dev/", 5) == 0; }

// The node's ioctl, here or at the launcher: >= 0 result, < 0 minus errno.
int64_t nodeIoctl(const FdEntry& entry, unsigned long request, void* arg) {
  if (!frontend().remote()) return Emulation::instance().nodeIoctl(entry.node, request, arg);
  // Only requests with a direction carry an argument to copy.
  const size_t size = _IOC_DIR(request) == _IOC_NONE ? 0 : _IOC_SIZE(request);
  if (size != 0 && arg == nullptr) return -EFAULT;
  if (size > kMaxPayload) return -EINVAL;
  Request header;
  header.op = Op::Ioctl;
  header.node = entry.node;
  header.request = request;
  header.size = static_cast<uint32_t>(size);
  const bool copiesBack = (_IOC_DIR(request) & _IOC_READ) != 0;
  const Reply reply = frontend().call(header, arg, copiesBack ? arg : nullptr, copiesBack ? size : 0);
  if (reply.error != 0) return -reply.error;
  return reply.result;
}

template <typename Entry>
int nodePollState(const Entry& entry) {
  // In the hosting process the node's own bits, without a lock.
  if (entry.pollBits != nullptr) return entry.pollBits->load(std::memory_order_acquire);
  if (!frontend().remote()) return Emulation::instance().nodePollState(entry.node);
  Request header;
  header.op = Op::PollState;
  header.node = entry.node;
  const Reply reply = frontend().call(header, nullptr, nullptr, 0);
  return reply.error != 0 ? POLLERR | POLLHUP : static_cast<int>(reply.result);
}

void closeNode(const FdEntry& entry) {
  if (!frontend().remote()) {
    Emulation::instance().closeNode(entry.node);
    return;
  }
  Request header;
  header.op = Op::Close;
  header.node = entry.node;
  frontend().call(header, nullptr, nullptr, 0);
}

bool isFileLevelRequest(unsigned long request) {
  // Served by the kernel's file layer for every descriptor, before a driver.
  return request == FIONBIO || request == FIOASYNC || request == FIOCLEX || request == FIONCLEX;
}

}  // namespace

bool anyOpen() { return frontend().anyFd(); }
bool anyMapped() { return frontend().anyMap(); }

bool open(const char* path, int flags, int& result) {
  if (!maybeNode(path)) return false;
  FdEntry entry;
  int fd = -1;
  if (!frontend().remote()) {
    bool handled = false;
    const OpenedNode opened = Emulation::instance().openNode(path, flags, 0, handled);
    if (!handled) return false;
    if (opened.error != 0) {
      errno = opened.error;
      result = -1;
      return true;
    }
    fd = opened.fd;
    entry.node = opened.node;
    entry.kind = opened.kind;
    entry.camera = opened.camera;
    entry.pollBits = opened.pollBits;
  } else {
    if (parseNodePath(path).kind == NodeKind::None) return false;
    Request header;
    header.op = Op::Open;
    header.flags = flags;
    header.size = static_cast<uint32_t>(std::strlen(path) + 1);
    if (header.size > kMaxPayload) return false;
    const Reply reply =
        frontend().call(header, path, nullptr, 0, &fd, (flags & O_CLOEXEC) != 0 ? MSG_CMSG_CLOEXEC : 0);
    if (reply.error == ENOENT && reply.extra == 0) return false;  // not an emulated node
    if (reply.error != 0 || fd < 0) {
      if (fd >= 0) real::close(fd);
      errno = reply.error != 0 ? reply.error : EIO;
      result = -1;
      return true;
    }
    entry.node = static_cast<int>(reply.result);
    entry.kind = static_cast<NodeKind>(reply.extra);
    entry.camera = reply.camera;
  }
  stat(path, entry.st);
  frontend().add(fd, entry);
  result = fd;
  return true;
}

bool fstat(int fd, struct stat& out) {
  FdEntry entry;
  if (!frontend().find(fd, entry)) return false;
  out = entry.st;
  return true;
}

bool close(int fd, int& result) {
  FdEntry entry;
  bool last = false;
  if (!frontend().remove(fd, entry, last)) return false;
  // Our bookkeeping first, then the number: once closed it may be reused.
  if (last && !entry.inherited) closeNode(entry);
  result = real::close(fd);
  return true;
}

void released(int fd) { frontend().released(fd); }

void duplicated(int from, int to) {
  if (from == to) return;
  frontend().released(to);
  // dup2 onto an emulated descriptor closes that one first.
  FdEntry old;
  bool last = false;
  if (frontend().remove(to, old, last) && last && !old.inherited) closeNode(old);
  frontend().duplicate(from, to);
}

bool ioctl(int fd, unsigned long request, void* arg, int& result) {
  FdEntry entry;
  if (!frontend().find(fd, entry) || isFileLevelRequest(request)) return false;
  bool wasReady = false;
  for (;;) {
    const int64_t answer = nodeIoctl(entry, request, arg);
    if (answer == -EAGAIN && request == VIDIOC_DQBUF && entry.kind == NodeKind::Video) {
      const int status = ::fcntl(fd, F_GETFL);
      if (status >= 0 && (status & O_NONBLOCK) == 0) {
        // A blocking descriptor waits for the next frame, as the driver does;
        // readable without a frame (a fault) waits the full period instead of
        // spinning.
        pollfd ready{fd, POLLIN, 0};
        const timespec wait{0, kDequeueWaitMs * 1000000L};
        if (wasReady) {
          real::ppoll(nullptr, 0, &wait, nullptr);
        }
        wasReady = real::ppoll(&ready, 1, &wait, nullptr) == 1;
        continue;
      }
    }
    if (answer < 0) {
      errno = static_cast<int>(-answer);
      result = -1;
    } else {
      result = static_cast<int>(answer);
    }
    return true;
  }
}

bool mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset, void*& result) {
  FdEntry entry;
  if (!frontend().find(fd, entry)) return false;
  int memory = -1;
  int error = 0;
  if (!frontend().remote()) {
    error = Emulation::instance().nodeMapFd(entry.node, static_cast<uint64_t>(offset), length, prot, flags,
                                            memory);
  } else {
    Request header;
    header.op = Op::Map;
    header.node = entry.node;
    header.offset = static_cast<uint64_t>(offset);
    header.length = length;
    header.flags = flags;
    header.request = static_cast<uint64_t>(prot);
    const Reply reply = frontend().call(header, nullptr, nullptr, 0, &memory, MSG_CMSG_CLOEXEC);
    error = reply.error != 0 ? reply.error : (memory < 0 ? EIO : 0);
  }
  if (error != 0) {
    if (memory >= 0) ::close(memory);
    errno = error;
    result = MAP_FAILED;
    return true;
  }
  result = real::mmap(addr, length, prot, flags, memory, offset);
  const int mapError = errno;
  ::close(memory);
  if (result == MAP_FAILED) {
    errno = mapError;
    return true;
  }
  frontend().addMapping(result, MapEntry{length, entry.camera});
  return true;
}

bool forgetMapping(void* addr) { return frontend().removeMapping(addr); }

bool read(int fd, void* buffer, size_t count, ssize_t& result) {
  Frontend::Quick entry;
  if (!frontend().quick(fd, entry)) return false;
  if (entry.kind == NodeKind::Video) {
    // uvcvideo has no read(): streaming I/O only.
    errno = EINVAL;
    result = -1;
    return true;
  }
  result = real::read(fd, buffer, count);
  if (result == 0 && count != 0) {
    // Our end closed: the camera is gone, and the kernel says EIO.
    errno = EIO;
    result = -1;
  } else if (result < 0 && (errno == ECONNRESET || errno == EPIPE)) {
    errno = EIO;
  }
  return true;
}

bool write(int fd, const void* buffer, size_t count, ssize_t& result) {
  Frontend::Quick entry;
  if (!frontend().quick(fd, entry)) return false;
  result = -1;
  if (entry.kind == NodeKind::Video) {
    errno = EINVAL;
    return true;
  }
  // The kernel takes reports of 2 to 16384 bytes.
  constexpr size_t kMaxReport = 16384;
  if (count < 2 || count > kMaxReport) {
    errno = EINVAL;
    return true;
  }
  result = ::send(fd, buffer, count, MSG_NOSIGNAL);
  if (result < 0 && (errno == EPIPE || errno == ECONNRESET || errno == ENOTCONN)) errno = ENODEV;
  return true;
}

bool isNode(int fd) {
  Frontend::Quick entry;
  return frontend().quick(fd, entry);
}

int poll(pollfd* fds, nfds_t count, int timeoutMs, const sigset_t* mask) {
  std::vector<Frontend::Quick> entries(count);
  std::vector<bool> ours(count, false);
  std::vector<int> state(count, 0);
  bool anyState = false;
  for (nfds_t i = 0; i < count; ++i) {
    if (!frontend().quick(fds[i].fd, entries[i])) continue;
    ours[i] = true;
    if (entries[i].kind == NodeKind::Video) {
      state[i] = nodePollState(entries[i]);
      if (state[i] < 0) state[i] = POLLERR | POLLHUP;
      anyState = anyState || state[i] != 0;
    }
  }
  // A node in an error state answers at once; the others are only looked at.
  timespec wait{};
  const timespec* timeout = nullptr;
  if (anyState) {
    timeout = &wait;
  } else if (timeoutMs >= 0) {
    wait = {timeoutMs / 1000, (timeoutMs % 1000) * 1000000L};
    timeout = &wait;
  }
  std::vector<short> asked(count);
  for (nfds_t i = 0; i < count; ++i) {
    asked[i] = fds[i].events;
    if (state[i] != 0) fds[i].fd = ~fds[i].fd;  // skipped by the kernel
  }
  int ready = real::ppoll(fds, count, timeout, mask);
  if (ready < 0) {
    for (nfds_t i = 0; i < count; ++i)
      if (state[i] != 0) fds[i].fd = ~fds[i].fd;
    return ready;
  }
  ready = 0;
  for (nfds_t i = 0; i < count; ++i) {
    if (state[i] != 0) {
      fds[i].fd = ~fds[i].fd;
      fds[i].revents = static_cast<short>(state[i] & (POLLERR | POLLHUP | asked[i]));
    } else if (ours[i] && entries[i].kind == NodeKind::Video) {
      // The eventfd is always writable; a capture node never is. A node that
      // went away while we waited made it readable.
      fds[i].revents = static_cast<short>(fds[i].revents & ~(POLLOUT | POLLWRNORM));
      if ((fds[i].revents & POLLIN) != 0) {
        const int now = nodePollState(entries[i]);
        if (now != 0) {
          fds[i].revents =
              static_cast<short>((now < 0 ? POLLERR | POLLHUP : now) & (POLLERR | POLLHUP | asked[i]));
        }
      }
    } else if (ours[i] && (fds[i].revents & POLLHUP) != 0) {
      // A gone hidraw node: error and hang-up, always writable, readable while
      // reports queued before the unplug are left.
      char byte = 0;
      const bool queued = ::recv(fds[i].fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) > 0;
      fds[i].revents = static_cast<short>(POLLERR | POLLHUP | (asked[i] & (POLLOUT | POLLWRNORM)) |
                                          (queued ? asked[i] & (POLLIN | POLLRDNORM) : 0));
    }
    if (fds[i].revents != 0) ++ready;
  }
  return ready;
}

bool stat(const char* path, struct stat& out) {
  if (!maybeNode(path)) return false;
  if (!frontend().remote()) return Emulation::instance().statNode(path, out);
  if (parseNodePath(path).kind == NodeKind::None) return false;
  Request header;
  header.op = Op::Stat;
  header.size = static_cast<uint32_t>(std::strlen(path) + 1);
  if (header.size > kMaxPayload) return false;
  const Reply reply = frontend().call(header, path, &out, sizeof out);
  return reply.error == 0 && reply.size == sizeof out;
}

int control(const std::string& address, const std::vector<std::string>& words, std::string& out) {
  const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    out = std::string("socket: ") + std::strerror(errno) + "\n";
    return 1;
  }
  sockaddr_un where{};
  where.sun_family = AF_UNIX;
  if (address.size() >= sizeof where.sun_path) {
    ::close(fd);
    out = "socket path too long: " + address + "\n";
    return 1;
  }
  std::memcpy(where.sun_path, address.c_str(), address.size());
  if (::connect(fd, reinterpret_cast<sockaddr*>(&where), sizeof where) != 0) {
    out = "cannot reach " + address + ": " + std::strerror(errno) + "\n";
    ::close(fd);
    return 1;
  }
  std::string payload;
  for (const std::string& word : words) payload += word + '\0';
  Request header;
  header.op = Op::Control;
  header.size = static_cast<uint32_t>(payload.size());
  iovec parts[2] = {{&header, sizeof header}, {payload.data(), payload.size()}};
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = 2;
  std::vector<char> text(kMaxPayload);
  Reply reply;
  iovec in[2] = {{&reply, sizeof reply}, {text.data(), text.size()}};
  msghdr answer{};
  answer.msg_iov = in;
  answer.msg_iovlen = 2;
  const bool sent = payload.size() <= kMaxPayload && ::sendmsg(fd, &message, MSG_NOSIGNAL) >= 0;
  const ssize_t n = sent ? ::recvmsg(fd, &answer, 0) : -1;
  ::close(fd);
  if (n < static_cast<ssize_t>(sizeof reply)) {
    out = "no answer from " + address + "\n";
    return 1;
  }
  out.assign(text.data(), std::min<size_t>(reply.size, text.size()));
  return static_cast<int>(reply.result);
}

int openVideoNodes(CameraId id) { return frontend().countFds(id); }
size_t videoMappings(CameraId id) { return frontend().countMappings(id); }

}  // namespace front
}  // namespace tqsim
