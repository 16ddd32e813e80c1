// libc entry points interposed for the emulated device nodes. Whatever is not
// an emulated node goes to the next definition (libc, or a sanitizer that
// called us), so programs behave as usual for every other path and descriptor.
#undef _FORTIFY_SOURCE

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "Emulation.h"
#include "RealCalls.h"

using tqsim::Emulation;

namespace {

template <typename Fn>
Fn nextDefinition(std::atomic<void*>& slot, const char* name) {
  void* fn = slot.load(std::memory_order_acquire);
  if (fn == nullptr) {
    fn = dlsym(RTLD_NEXT, name);
    slot.store(fn, std::memory_order_release);
  }
  return reinterpret_cast<Fn>(fn);
}

// Calls the next definition of the enclosing function, ENOSYS if none exists.
#define TQSIM_NEXT(name, type, ...)              \
  do {                                           \
    static std::atomic<void*> slot{nullptr};     \
    auto fn = nextDefinition<type>(slot, #name); \
    if (fn == nullptr) {                         \
      errno = ENOSYS;                            \
      return -1;                                 \
    }                                            \
    return fn(__VA_ARGS__);                      \
  } while (0)

bool maybeNode(const char* path) { return path != nullptr && std::strncmp(path, "/dev/", 5) == 0; }

bool needsMode(int flags) { return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE; }

// Opens an emulated node; handled = false when path is not one of ours.
int openEmulated(const char* path, int flags, bool& handled) {
  handled = false;
  if (!maybeNode(path)) return -1;
  try {
    return Emulation::instance().openNode(path, flags, handled);
  } catch (...) {
    handled = true;
    errno = ENOMEM;
    return -1;
  }
}

// buf is a struct stat or stat64: one layout on x86-64, filled by memcpy.
bool statEmulated(const char* path, void* buf, int& result) {
  if (!maybeNode(path)) return false;
  try {
    struct stat st {};
    if (!Emulation::instance().statNode(path, st)) return false;
    if (buf == nullptr) {
      errno = EFAULT;
      result = -1;
    } else {
      std::memcpy(buf, &st, sizeof st);
      result = 0;
    }
    return true;
  } catch (...) {
    return false;
  }
}

bool accessEmulated(const char* path) {
  struct stat st {};
  int result = 0;
  return statEmulated(path, &st, result);
}

}  // namespace

// The __xstat family is what binaries built against glibc before 2.33 call.
extern "C" {
int __xstat(int ver, const char* path, struct stat* buf);
int __lxstat(int ver, const char* path, struct stat* buf);
int __xstat64(int ver, const char* path, struct stat64* buf);
int __lxstat64(int ver, const char* path, struct stat64* buf);
int __fxstatat(int ver, int dirfd, const char* path, struct stat* buf, int flags);
int __fxstatat64(int ver, int dirfd, const char* path, struct stat64* buf, int flags);
int __open_2(const char* path, int flags);
int __open64_2(const char* path, int flags);
int __openat_2(int dirfd, const char* path, int flags);
int __openat64_2(int dirfd, const char* path, int flags);
}

// The optional mode argument of the open family (read only when flags say it
// was passed); a macro because va_start must run in the variadic function.
#define TQSIM_MODE_ARGUMENT(mode, flags) \
  mode_t mode = 0;                       \
  if (needsMode(flags)) {                \
    va_list args;                        \
    va_start(args, flags);               \
    mode = va_arg(args, mode_t);         \
    va_end(args);                        \
  }

// Returns from the enclosing open-family function when the path is ours.
#define TQSIM_OPEN_EMULATED(path, flags)               \
  do {                                                 \
    bool handled = false;                              \
    const int fd = openEmulated(path, flags, handled); \
    if (handled) return fd;                            \
  } while (0)

static_assert(sizeof(struct stat) == sizeof(struct stat64), "x86-64 has one stat layout");

extern "C" {

int open(const char* path, int flags, ...) {
  TQSIM_MODE_ARGUMENT(mode, flags);
  TQSIM_OPEN_EMULATED(path, flags);
  TQSIM_NEXT(open, int (*)(const char*, int, ...), path, flags, mode);
}

int open64(const char* path, int flags, ...) {
  TQSIM_MODE_ARGUMENT(mode, flags);
  TQSIM_OPEN_EMULATED(path, flags);
  TQSIM_NEXT(open64, int (*)(const char*, int, ...), path, flags, mode);
}

int __open_2(const char* path, int flags) {
  TQSIM_OPEN_EMULATED(path, flags);
  TQSIM_NEXT(__open_2, int (*)(const char*, int), path, flags);
}

int __open64_2(const char* path, int flags) {
  TQSIM_OPEN_EMULATED(path, flags);
  TQSIM_NEXT(__open64_2, int (*)(const char*, int), path, flags);
}

int openat(int dirfd, const char* path, int flags, ...) {
  TQSIM_MODE_ARGUMENT(mode, flags);
  TQSIM_OPEN_EMULATED(path, flags);  // absolute paths only: dirfd does not matter
  TQSIM_NEXT(openat, int (*)(int, const char*, int, ...), dirfd, path, flags, mode);
}

int openat64(int dirfd, const char* path, int flags, ...) {
  TQSIM_MODE_ARGUMENT(mode, flags);
  TQSIM_OPEN_EMULATED(path, flags);
  TQSIM_NEXT(openat64, int (*)(int, const char*, int, ...), dirfd, path, flags, mode);
}

int __openat_2(int dirfd, const char* path, int flags) {
  TQSIM_OPEN_EMULATED(path, flags);
  TQSIM_NEXT(__openat_2, int (*)(int, const char*, int), dirfd, path, flags);
}

int __openat64_2(int dirfd, const char* path, int flags) {
  TQSIM_OPEN_EMULATED(path, flags);
  TQSIM_NEXT(__openat64_2, int (*)(int, const char*, int), dirfd, path, flags);
}

int close(int fd) {
  // No node can exist before the emulation is up, so never construct it here.
  if (Emulation* emulation = Emulation::ifReady()) {
    try {
      if (emulation->closeNode(fd)) return 0;
    } catch (...) {
    }
  }
  return tqsim::real::close(fd);
}

int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list args;
  va_start(args, request);
  void* arg = va_arg(args, void*);
  va_end(args);
  if (Emulation* emulation = Emulation::ifReady()) {
    try {
      bool handled = false;
      const int result = emulation->ioctlNode(fd, request, arg, handled);
      if (handled) return result;
    } catch (...) {
      errno = ENOMEM;
      return -1;
    }
  }
  return tqsim::real::ioctl(fd, request, arg);
}

// read, write and poll pass straight through except on a hidraw descriptor
// whose camera was unplugged, which answers as the kernel's gone node does:
// queued reports first, then EIO; write ENODEV; poll POLLERR | POLLHUP (and
// POLLOUT, POLLIN while reports are queued). Without such a descriptor the
// only cost is one atomic load.
ssize_t read(int fd, void* buf, size_t count) {
  static std::atomic<void*> slot{nullptr};
  auto next = nextDefinition<ssize_t (*)(int, void*, size_t)>(slot, "read");
  if (next == nullptr) {
    errno = ENOSYS;
    return -1;
  }
  const ssize_t n = next(fd, buf, count);
  // Our side of a dead node only shuts its sending half, so the socket ends
  // in end of file once the queue is drained; hidraw says EIO there.
  if (n == 0 && count > 0) {
    if (Emulation* emulation = Emulation::ifReady(); emulation != nullptr && emulation->deadNode(fd)) {
      errno = EIO;
      return -1;
    }
  }
  return n;
}

ssize_t write(int fd, const void* buf, size_t count) {
  if (Emulation* emulation = Emulation::ifReady(); emulation != nullptr && emulation->deadNode(fd)) {
    errno = ENODEV;
    return -1;
  }
  TQSIM_NEXT(write, ssize_t(*)(int, const void*, size_t), fd, buf, count);
}

int poll(struct pollfd* fds, nfds_t count, int timeout) {
  static std::atomic<void*> slot{nullptr};
  auto next = nextDefinition<int (*)(struct pollfd*, nfds_t, int)>(slot, "poll");
  if (next == nullptr) {
    errno = ENOSYS;
    return -1;
  }
  const int ready = next(fds, count, timeout);
  Emulation* emulation = Emulation::ifReady();
  if (ready < 0 || fds == nullptr || emulation == nullptr || !emulation->anyDeadNode()) return ready;
  // A dead node wakes a waiting poll (its socket reads end of file); report
  // it as hidraw does.
  int result = 0;
  for (nfds_t i = 0; i < count; ++i) {
    pollfd& p = fds[i];
    if (p.fd >= 0 && emulation->deadNode(p.fd)) {
      short revents = POLLERR | POLLHUP;
      revents = static_cast<short>(revents | (p.events & (POLLOUT | POLLWRNORM)));
      char byte = 0;
      if (::recv(p.fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) > 0)
        revents = static_cast<short>(revents | (p.events & (POLLIN | POLLRDNORM)));
      p.revents = revents;
    }
    if (p.revents != 0) ++result;
  }
  return result;
}

int stat(const char* path, struct stat* buf) noexcept {
  int result = 0;
  if (statEmulated(path, buf, result)) return result;
  TQSIM_NEXT(stat, int (*)(const char*, struct stat*), path, buf);
}

int stat64(const char* path, struct stat64* buf) noexcept {
  int result = 0;
  if (statEmulated(path, buf, result)) return result;
  TQSIM_NEXT(stat64, int (*)(const char*, struct stat64*), path, buf);
}

int lstat(const char* path, struct stat* buf) noexcept {
  int result = 0;
  if (statEmulated(path, buf, result)) return result;
  TQSIM_NEXT(lstat, int (*)(const char*, struct stat*), path, buf);
}

int lstat64(const char* path, struct stat64* buf) noexcept {
  int result = 0;
  if (statEmulated(path, buf, result)) return result;
  TQSIM_NEXT(lstat64, int (*)(const char*, struct stat64*), path, buf);
}

int fstatat(int dirfd, const char* path, struct stat* buf, int flags) noexcept {
  int result = 0;
  if (statEmulated(path, buf, result)) return result;
  TQSIM_NEXT(fstatat, int (*)(int, const char*, struct stat*, int), dirfd, path, buf, flags);
}

int fstatat64(int dirfd, const char* path, struct stat64* buf, int flags) noexcept {
  int result = 0;
  if (statEmulated(path, buf, result)) return result;
  TQSIM_NEXT(fstatat64, int (*)(int, const char*, struct stat64*, int), dirfd, path, buf, flags);
}

int statx(int dirfd, const char* path, int flags, unsigned int mask, struct statx* buf) noexcept {
  if (maybeNode(path)) {
    try {
      struct statx st {};
      if (Emulation::instance().statxNode(path, st)) {
        std::memcpy(static_cast<void*>(buf), &st, sizeof st);
        return 0;
      }
    } catch (...) {
    }
  }
  TQSIM_NEXT(statx, int (*)(int, const char*, int, unsigned int, struct statx*), dirfd, path, flags, mask,
             buf);
}

int access(const char* path, int mode) noexcept {
  if (accessEmulated(path)) return 0;
  TQSIM_NEXT(access, int (*)(const char*, int), path, mode);
}

int faccessat(int dirfd, const char* path, int mode, int flags) noexcept {
  if (accessEmulated(path)) return 0;
  TQSIM_NEXT(faccessat, int (*)(int, const char*, int, int), dirfd, path, mode, flags);
}

// Device nodes in devtmpfs carry no extended attributes; ls -l asks for the
// SELinux label and ACLs and would report the node missing otherwise.
ssize_t getxattr(const char* path, const char* name, void* value, size_t size) noexcept {
  if (accessEmulated(path)) {
    errno = ENODATA;
    return -1;
  }
  TQSIM_NEXT(getxattr, ssize_t(*)(const char*, const char*, void*, size_t), path, name, value, size);
}

ssize_t lgetxattr(const char* path, const char* name, void* value, size_t size) noexcept {
  if (accessEmulated(path)) {
    errno = ENODATA;
    return -1;
  }
  TQSIM_NEXT(lgetxattr, ssize_t(*)(const char*, const char*, void*, size_t), path, name, value, size);
}

ssize_t listxattr(const char* path, char* list, size_t size) noexcept {
  if (accessEmulated(path)) return 0;
  TQSIM_NEXT(listxattr, ssize_t(*)(const char*, char*, size_t), path, list, size);
}

ssize_t llistxattr(const char* path, char* list, size_t size) noexcept {
  if (accessEmulated(path)) return 0;
  TQSIM_NEXT(llistxattr, ssize_t(*)(const char*, char*, size_t), path, list, size);
}

int __xstat(int ver, const char* path, struct stat* buf) {
  int result = 0;
  if (statEmulated(path, buf, result)) return result;
  TQSIM_NEXT(__xstat, int (*)(int, const char*, struct stat*), ver, path, buf);
}

int __lxstat(int ver, const char* path, struct stat* buf) {
  int result = 0;
  if (statEmulated(path, buf, result)) return result;
  TQSIM_NEXT(__lxstat, int (*)(int, const char*, struct stat*), ver, path, buf);
}

int __xstat64(int ver, const char* path, struct stat64* buf) {
  int result = 0;
  if (statEmulated(path, buf, result)) return result;
  TQSIM_NEXT(__xstat64, int (*)(int, const char*, struct stat64*), ver, path, buf);
}

int __lxstat64(int ver, const char* path, struct stat64* buf) {
  int result = 0;
  if (statEmulated(path, buf, result)) return result;
  TQSIM_NEXT(__lxstat64, int (*)(int, const char*, struct stat64*), ver, path, buf);
}

int __fxstatat(int ver, int dirfd, const char* path, struct stat* buf, int flags) {
  int result = 0;
  if (statEmulated(path, buf, result)) return result;
  TQSIM_NEXT(__fxstatat, int (*)(int, int, const char*, struct stat*, int), ver, dirfd, path, buf, flags);
}

int __fxstatat64(int ver, int dirfd, const char* path, struct stat64* buf, int flags) {
  int result = 0;
  if (statEmulated(path, buf, result)) return result;
  TQSIM_NEXT(__fxstatat64, int (*)(int, int, const char*, struct stat64*, int), ver, dirfd, path, buf, flags);
}

}  // extern "C"

// Bring the emulation up before main, while the process has one thread, so
// that the environment it sets is in place before anything reads it.
__attribute__((constructor)) static void startEmulation() {
  try {
    Emulation::instance();
  } catch (...) {
  }
}
