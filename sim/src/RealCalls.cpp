#include "RealCalls.h"

#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace tqsim::real {

namespace {

// dlsym is thread-safe; two threads resolving at once store the same value.
template <typename Fn>
Fn next(std::atomic<void*>& slot, const char* name) {
  void* fn = slot.load(std::memory_order_acquire);
  if (fn == nullptr) {
    fn = dlsym(RTLD_NEXT, name);
    slot.store(fn, std::memory_order_release);
  }
  return reinterpret_cast<Fn>(fn);
}

}  // namespace

int open(const char* path, int flags, mode_t mode) {
  static std::atomic<void*> slot{nullptr};
  auto fn = next<int (*)(const char*, int, ...)>(slot, "open");
  if (fn == nullptr) return static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path, flags, mode));
  return fn(path, flags, mode);
}

int openat(int dirfd, const char* path, int flags, mode_t mode) {
  static std::atomic<void*> slot{nullptr};
  auto fn = next<int (*)(int, const char*, int, ...)>(slot, "openat");
  if (fn == nullptr) return static_cast<int>(::syscall(SYS_openat, dirfd, path, flags, mode));
  return fn(dirfd, path, flags, mode);
}

int close(int fd) {
  static std::atomic<void*> slot{nullptr};
  auto fn = next<int (*)(int)>(slot, "close");
  if (fn == nullptr) return static_cast<int>(::syscall(SYS_close, fd));
  return fn(fd);
}

int ioctl(int fd, unsigned long request, void* arg) {
  static std::atomic<void*> slot{nullptr};
  auto fn = next<int (*)(int, unsigned long, ...)>(slot, "ioctl");
  if (fn == nullptr) return static_cast<int>(::syscall(SYS_ioctl, fd, request, arg));
  return fn(fd, request, arg);
}

}  // namespace tqsim::real
