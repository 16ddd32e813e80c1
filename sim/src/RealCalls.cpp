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

ssize_t read(int fd, void* buffer, size_t count) {
  static std::atomic<void*> slot{nullptr};
  auto fn = next<ssize_t (*)(int, void*, size_t)>(slot, "read");
  if (fn == nullptr) return ::syscall(SYS_read, fd, buffer, count);
  return fn(fd, buffer, count);
}

ssize_t write(int fd, const void* buffer, size_t count) {
  static std::atomic<void*> slot{nullptr};
  auto fn = next<ssize_t (*)(int, const void*, size_t)>(slot, "write");
  if (fn == nullptr) return ::syscall(SYS_write, fd, buffer, count);
  return fn(fd, buffer, count);
}

int ppoll(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask) {
  static std::atomic<void*> slot{nullptr};
  auto fn = next<int (*)(pollfd*, nfds_t, const timespec*, const sigset_t*)>(slot, "ppoll");
  if (fn == nullptr) return static_cast<int>(::syscall(SYS_ppoll, fds, count, timeout, mask, _NSIG / 8));
  return fn(fds, count, timeout, mask);
}

void* mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset) {
  static std::atomic<void*> slot{nullptr};
  auto fn = next<void* (*)(void*, size_t, int, int, int, off_t)>(slot, "mmap");
  if (fn == nullptr)
    return reinterpret_cast<void*>(::syscall(SYS_mmap, addr, length, prot, flags, fd, offset));
  return fn(addr, length, prot, flags, fd, offset);
}

int munmap(void* addr, size_t length) {
  static std::atomic<void*> slot{nullptr};
  auto fn = next<int (*)(void*, size_t)>(slot, "munmap");
  if (fn == nullptr) return static_cast<int>(::syscall(SYS_munmap, addr, length));
  return fn(addr, length);
}

}  // namespace tqsim::real
