// libv4l2 talks to devices with direct system calls, so a program that uses
// it (this library does) would miss the emulated video nodes: its entry points
// are taken over too. Descriptors of emulated nodes go where the plain calls
// go (Frontend), everything else to the real libv4l2.
#include <dlfcn.h>
#include <sys/mman.h>
#include <tqsim/VideoStatus.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>

#include "Emulation.h"
#include "Frontend.h"
#include "RealCalls.h"

namespace tqsim {
namespace {

using OpenFn = int (*)(const char*, int, ...);
using CloseFn = int (*)(int);
using IoctlFn = int (*)(int, unsigned long, ...);
using MmapFn = void* (*)(void*, size_t, int, int, int, int64_t);
using MunmapFn = int (*)(void*, size_t);

template <typename Fn>
Fn nextSymbol(const char* name) {
  void* sym = dlsym(RTLD_NEXT, name);
  if (!sym) {
    // libv4l2 not yet in the lookup scope (loaded later by dlopen): ask it.
    void* handle = dlopen("libv4l2.so.0", RTLD_LAZY | RTLD_NOLOAD);
    if (!handle) handle = dlopen("libv4l2.so.0", RTLD_LAZY);
    if (handle) sym = dlsym(handle, name);
  }
  return reinterpret_cast<Fn>(sym);
}

}  // namespace

int openVideoNodes(CameraId id) { return front::openVideoNodes(id); }
size_t videoMappings(CameraId id) { return front::videoMappings(id); }
uint32_t videoFramesProduced(CameraId id) { return Emulation::instance().videoFramesProduced(id); }
VideoRequests videoRequests(CameraId id) { return Emulation::instance().videoRequests(id); }

}  // namespace tqsim

extern "C" {

__attribute__((visibility("default"))) int v4l2_open(const char* file, int oflag, ...) {
  va_list ap;
  va_start(ap, oflag);
  const mode_t mode = static_cast<mode_t>(va_arg(ap, int));
  va_end(ap);
  int fd = -1;
  if (tqsim::front::open(file, oflag, fd)) return fd;
  static const auto next = tqsim::nextSymbol<tqsim::OpenFn>("v4l2_open");
  if (!next) {
    errno = ENOSYS;
    return -1;
  }
  return next(file, oflag, mode);
}

__attribute__((visibility("default"))) int v4l2_close(int fd) {
  int result = 0;
  if (tqsim::front::close(fd, result)) return result;
  static const auto next = tqsim::nextSymbol<tqsim::CloseFn>("v4l2_close");
  return next ? next(fd) : tqsim::real::close(fd);
}

__attribute__((visibility("default"))) int v4l2_ioctl(int fd, unsigned long request, ...) {
  va_list ap;
  va_start(ap, request);
  void* arg = va_arg(ap, void*);
  va_end(ap);
  int result = 0;
  if (tqsim::front::ioctl(fd, request, arg, result)) return result;
  if (tqsim::front::isNode(fd)) return tqsim::real::ioctl(fd, request, arg);  // FIONBIO and the like
  static const auto next = tqsim::nextSymbol<tqsim::IoctlFn>("v4l2_ioctl");
  if (!next) {
    errno = ENOSYS;
    return -1;
  }
  return next(fd, request, arg);
}

__attribute__((visibility("default"))) void* v4l2_mmap(void* start, size_t length, int prot, int flags,
                                                       int fd, int64_t offset) {
  void* result = nullptr;
  if (tqsim::front::mmap(start, length, prot, flags, fd, static_cast<off_t>(offset), result)) return result;
  static const auto next = tqsim::nextSymbol<tqsim::MmapFn>("v4l2_mmap");
  if (!next) {
    errno = ENOSYS;
    return MAP_FAILED;
  }
  return next(start, length, prot, flags, fd, offset);
}

__attribute__((visibility("default"))) int v4l2_munmap(void* start, size_t length) {
  if (tqsim::front::forgetMapping(start)) return tqsim::real::munmap(start, length);
  static const auto next = tqsim::nextSymbol<tqsim::MunmapFn>("v4l2_munmap");
  return next ? next(start, length) : tqsim::real::munmap(start, length);
}

}  // extern "C"
