// libc entry points interposed for the emulated device nodes. Whatever is not
// an emulated node goes to the next definition (libc, or a sanitizer that
// called us), so programs behave as usual for every other path and descriptor.
#undef _FORTIFY_SOURCE

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "Emulation.h"
#include "Frontend.h"
#include "RealCalls.h"
#include "Sysfs.h"

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

bool emptyText(const char* path) { return path != nullptr && *path == '\0'; }

bool isDevDirectory(const char* path) {
  return path != nullptr && (std::strcmp(path, "/dev") == 0 || std::strcmp(path, "/dev/") == 0);
}

bool maybeSysfs(const char* path) { return path != nullptr && std::strncmp(path, "/sys/", 5) == 0; }

bool needsMode(int flags) { return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE; }

// Opens an emulated node; handled = false when path is not one of ours.
int openEmulated(const char* path, int flags, bool& handled) {
  handled = false;
  if (maybeSysfs(path)) {
    try {
      const tqsim::sysfs::Entry entry = tqsim::sysfs::lookup(path);
      if (entry.kind == tqsim::sysfs::Kind::File) {
        handled = true;
        return tqsim::sysfs::openFile(entry, flags);
      }
    } catch (...) {
    }
    return -1;
  }
  if (!maybeNode(path)) return -1;
  try {
    int fd = -1;
    handled = tqsim::front::open(path, flags, fd);
    return fd;
  } catch (...) {
    handled = true;
    errno = ENOMEM;
    return -1;
  }
}

// buf is a struct stat or stat64: one layout on x86-64, filled by memcpy.
bool statEmulated(const char* path, void* buf, int& result, bool follow = true) {
  if (!maybeNode(path) && !maybeSysfs(path)) return false;
  try {
    struct stat st {};
    if (maybeSysfs(path) ? !tqsim::sysfs::stat(path, follow, st) : !tqsim::front::stat(path, st))
      return false;
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

bool fstatEmulated(int fd, void* buf, int& result) {
  struct stat st {};
  if (fd < 0 || !tqsim::front::anyOpen() || !tqsim::front::fstat(fd, st)) return false;
  if (buf == nullptr) {
    errno = EFAULT;
    result = -1;
  } else {
    std::memcpy(buf, &st, sizeof st);
    result = 0;
  }
  return true;
}

// Listings of /dev get the emulated nodes after the real entries.
struct DevListing {
  std::vector<std::string> names;
  size_t next = 0;
  dirent entry{};
};
std::mutex gListingsMutex;
std::map<DIR*, DevListing>& listings() {
  static auto* map = new std::map<DIR*, DevListing>();
  return *map;
}
std::atomic<int> gListings{0};

dirent* nextExtra(DIR* dir) {
  std::lock_guard<std::mutex> lock(gListingsMutex);
  auto it = listings().find(dir);
  if (it == listings().end()) return nullptr;
  DevListing& listing = it->second;
  if (listing.next >= listing.names.size()) return nullptr;
  const std::string& name = listing.names[listing.next++];
  listing.entry = {};
  listing.entry.d_ino = 0x20000 + listing.next;
  listing.entry.d_type = DT_CHR;
  listing.entry.d_reclen = sizeof listing.entry;
  std::snprintf(listing.entry.d_name, sizeof listing.entry.d_name, "%s", name.c_str());
  return &listing.entry;
}

bool accessEmulated(const char* path) {
  struct stat st {};
  int result = 0;
  return statEmulated(path, &st, result);
}

void toStatx(const struct stat& st, struct statx& out) {
  out = {};
  out.stx_mask = STATX_BASIC_STATS;
  out.stx_blksize = static_cast<uint32_t>(st.st_blksize);
  out.stx_nlink = static_cast<uint32_t>(st.st_nlink);
  out.stx_uid = st.st_uid;
  out.stx_gid = st.st_gid;
  out.stx_mode = static_cast<uint16_t>(st.st_mode);
  out.stx_ino = st.st_ino;
  auto stamp = [](const timespec& ts) {
    statx_timestamp t{};
    t.tv_sec = ts.tv_sec;
    t.tv_nsec = static_cast<uint32_t>(ts.tv_nsec);
    return t;
  };
  out.stx_atime = stamp(st.st_atim);
  out.stx_ctime = stamp(st.st_ctim);
  out.stx_mtime = stamp(st.st_mtim);
  out.stx_rdev_major = major(st.st_rdev);
  out.stx_rdev_minor = minor(st.st_rdev);
  out.stx_dev_major = major(st.st_dev);
  out.stx_dev_minor = minor(st.st_dev);
}

// select and pselect over poll, when an emulated node is in the sets: the
// node's own state (before STREAMON, gone) decides, as a driver's poll does.
int selectThroughPoll(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, int timeoutMs,
                      const sigset_t* mask) {
  std::vector<pollfd> fds;
  for (int fd = 0; fd < nfds && fd < FD_SETSIZE; ++fd) {
    short events = 0;
    if (readfds != nullptr && FD_ISSET(fd, readfds)) events |= POLLIN;
    if (writefds != nullptr && FD_ISSET(fd, writefds)) events |= POLLOUT;
    if (exceptfds != nullptr && FD_ISSET(fd, exceptfds)) events |= POLLPRI;
    if (events != 0) fds.push_back({fd, events, 0});
  }
  const int ready = tqsim::front::poll(fds.data(), fds.size(), timeoutMs, mask);
  if (ready < 0) return ready;
  for (const pollfd& p : fds) {
    if ((p.revents & POLLNVAL) != 0) {
      errno = EBADF;
      return -1;
    }
  }
  int count = 0;
  for (const pollfd& p : fds) {
    const bool r = (p.events & POLLIN) != 0 && (p.revents & (POLLIN | POLLHUP | POLLERR)) != 0;
    const bool w = (p.events & POLLOUT) != 0 && (p.revents & (POLLOUT | POLLERR)) != 0;
    const bool x = (p.events & POLLPRI) != 0 && (p.revents & POLLPRI) != 0;
    if (readfds != nullptr && !r) FD_CLR(p.fd, readfds);
    if (writefds != nullptr && !w) FD_CLR(p.fd, writefds);
    if (exceptfds != nullptr && !x) FD_CLR(p.fd, exceptfds);
    count += static_cast<int>(r) + static_cast<int>(w) + static_cast<int>(x);
  }
  return count;
}

bool setsHoldNode(int nfds, const fd_set* readfds, const fd_set* writefds, const fd_set* exceptfds) {
  if (!tqsim::front::anyOpen()) return false;
  for (int fd = 0; fd < nfds && fd < FD_SETSIZE; ++fd) {
    const bool asked = (readfds != nullptr && FD_ISSET(fd, readfds)) ||
                       (writefds != nullptr && FD_ISSET(fd, writefds)) ||
                       (exceptfds != nullptr && FD_ISSET(fd, exceptfds));
    if (asked && tqsim::front::isNode(fd)) return true;
  }
  return false;
}

bool pollHoldsNode(const pollfd* fds, nfds_t count) {
  if (!tqsim::front::anyOpen()) return false;
  for (nfds_t i = 0; i < count; ++i) {
    if (tqsim::front::isNode(fds[i].fd)) return true;
  }
  return false;
}

int toMs(const timespec* ts) {
  if (ts == nullptr) return -1;
  const int64_t ms = static_cast<int64_t>(ts->tv_sec) * 1000 + (ts->tv_nsec + 999999) / 1000000;
  return static_cast<int>(std::min<int64_t>(ms, INT32_MAX));
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
int __fxstat(int ver, int fd, struct stat* buf);
int __fxstat64(int ver, int fd, struct stat64* buf);
int __open_2(const char* path, int flags);
int __open64_2(const char* path, int flags);
int __openat_2(int dirfd, const char* path, int flags);
int __openat64_2(int dirfd, const char* path, int flags);
ssize_t __read_chk(int fd, void* buffer, size_t count, size_t size);
int fcntl64(int fd, int command, ...);
int __poll_chk(pollfd* fds, nfds_t count, int timeoutMs, size_t size);
void* mmap64(void* addr, size_t length, int prot, int flags, int fd, off_t offset) noexcept;
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
  tqsim::front::released(fd);
  if (tqsim::front::anyOpen()) {
    try {
      int result = 0;
      if (tqsim::front::close(fd, result)) return result;
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
  if (tqsim::front::anyOpen()) {
    try {
      int result = 0;
      if (tqsim::front::ioctl(fd, request, arg, result)) return result;
    } catch (...) {
      errno = ENOMEM;
      return -1;
    }
  }
  return tqsim::real::ioctl(fd, request, arg);
}

int dup(int fd) noexcept {
  const int result = static_cast<int>(::syscall(SYS_dup, fd));
  if (result >= 0) tqsim::front::duplicated(fd, result);
  return result;
}

int dup2(int fd, int to) noexcept {
  if (fd == to) return fcntl(fd, F_GETFD) < 0 ? -1 : to;
  const int result = static_cast<int>(::syscall(SYS_dup3, fd, to, 0));
  if (result >= 0) tqsim::front::duplicated(fd, result);
  return result;
}

int dup3(int fd, int to, int flags) noexcept {
  const int result = static_cast<int>(::syscall(SYS_dup3, fd, to, flags));
  if (result >= 0) tqsim::front::duplicated(fd, result);
  return result;
}

int fcntl(int fd, int command, ...) {
  va_list args;
  va_start(args, command);
  void* arg = va_arg(args, void*);
  va_end(args);
  const int result = static_cast<int>(::syscall(SYS_fcntl, fd, command, arg));
  if (result >= 0 && (command == F_DUPFD || command == F_DUPFD_CLOEXEC)) {
    tqsim::front::duplicated(fd, result);
  }
  return result;
}

int fcntl64(int fd, int command, ...) {
  va_list args;
  va_start(args, command);
  void* arg = va_arg(args, void*);
  va_end(args);
  return fcntl(fd, command, arg);
}

ssize_t read(int fd, void* buffer, size_t count) {
  ssize_t result = 0;
  if (tqsim::front::anyOpen() && tqsim::front::read(fd, buffer, count, result)) return result;
  return tqsim::real::read(fd, buffer, count);
}

ssize_t __read_chk(int fd, void* buffer, size_t count, size_t size) {
  (void)size;
  return read(fd, buffer, count);
}

ssize_t write(int fd, const void* buffer, size_t count) {
  ssize_t result = 0;
  if (tqsim::front::anyOpen() && tqsim::front::write(fd, buffer, count, result)) return result;
  return tqsim::real::write(fd, buffer, count);
}

void* mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset) noexcept {
  if (fd >= 0 && tqsim::front::anyOpen()) {
    try {
      void* result = nullptr;
      if (tqsim::front::mmap(addr, length, prot, flags, fd, offset, result)) return result;
    } catch (...) {
      errno = ENOMEM;
      return MAP_FAILED;
    }
  }
  return tqsim::real::mmap(addr, length, prot, flags, fd, offset);
}

void* mmap64(void* addr, size_t length, int prot, int flags, int fd, off_t offset) noexcept {
  return mmap(addr, length, prot, flags, fd, offset);
}

int munmap(void* addr, size_t length) noexcept {
  if (tqsim::front::anyMapped()) tqsim::front::forgetMapping(addr);
  return tqsim::real::munmap(addr, length);
}

int poll(pollfd* fds, nfds_t count, int timeoutMs) {
  if (pollHoldsNode(fds, count)) return tqsim::front::poll(fds, count, timeoutMs, nullptr);
  const timespec wait{timeoutMs / 1000, (timeoutMs % 1000) * 1000000L};
  return tqsim::real::ppoll(fds, count, timeoutMs < 0 ? nullptr : &wait, nullptr);
}

int __poll_chk(pollfd* fds, nfds_t count, int timeoutMs, size_t size) {
  (void)size;
  return poll(fds, count, timeoutMs);
}

int ppoll(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask) {
  if (pollHoldsNode(fds, count)) return tqsim::front::poll(fds, count, toMs(timeout), mask);
  return tqsim::real::ppoll(fds, count, timeout, mask);
}

int select(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, timeval* timeout) {
  if (setsHoldNode(nfds, readfds, writefds, exceptfds)) {
    const int ms =
        timeout == nullptr ? -1 : static_cast<int>(timeout->tv_sec * 1000 + (timeout->tv_usec + 999) / 1000);
    return selectThroughPoll(nfds, readfds, writefds, exceptfds, ms, nullptr);
  }
  TQSIM_NEXT(select, int (*)(int, fd_set*, fd_set*, fd_set*, timeval*), nfds, readfds, writefds, exceptfds,
             timeout);
}

int pselect(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, const timespec* timeout,
            const sigset_t* mask) {
  if (setsHoldNode(nfds, readfds, writefds, exceptfds)) {
    return selectThroughPoll(nfds, readfds, writefds, exceptfds, toMs(timeout), mask);
  }
  TQSIM_NEXT(pselect, int (*)(int, fd_set*, fd_set*, fd_set*, const timespec*, const sigset_t*), nfds,
             readfds, writefds, exceptfds, timeout, mask);
}

FILE* fopen(const char* path, const char* mode) {
  if (maybeSysfs(path) && mode != nullptr && mode[0] == 'r' && std::strchr(mode, '+') == nullptr) {
    bool handled = false;
    const int fd =
        openEmulated(path, O_RDONLY | (std::strchr(mode, 'e') != nullptr ? O_CLOEXEC : 0), handled);
    if (handled) return fd < 0 ? nullptr : fdopen(fd, "r");
  }
  using Fn = FILE* (*)(const char*, const char*);
  static std::atomic<void*> slot{nullptr};
  auto fn = nextDefinition<Fn>(slot, "fopen");
  return fn != nullptr ? fn(path, mode) : nullptr;
}

FILE* fopen64(const char* path, const char* mode) { return fopen(path, mode); }

ssize_t readlink(const char* path, char* buffer, size_t size) noexcept {
  if (maybeSysfs(path)) {
    const tqsim::sysfs::Entry entry = tqsim::sysfs::lookup(path);
    if (entry.kind != tqsim::sysfs::Kind::None) {
      if (entry.kind != tqsim::sysfs::Kind::Link) {
        errno = EINVAL;
        return -1;
      }
      // As readlink(2): no terminator.
      const size_t count = std::min(size, entry.content.size());
      std::copy_n(entry.content.begin(), count, buffer);
      return static_cast<ssize_t>(count);
    }
  }
  TQSIM_NEXT(readlink, ssize_t(*)(const char*, char*, size_t), path, buffer, size);
}

ssize_t readlinkat(int dirfd, const char* path, char* buffer, size_t size) noexcept {
  if (maybeSysfs(path)) return readlink(path, buffer, size);
  TQSIM_NEXT(readlinkat, ssize_t(*)(int, const char*, char*, size_t), dirfd, path, buffer, size);
}

char* realpath(const char* path, char* resolved) noexcept {
  if (maybeSysfs(path)) {
    const tqsim::sysfs::Entry entry = tqsim::sysfs::lookup(path);
    if (entry.kind != tqsim::sysfs::Kind::None) {
      if (resolved == nullptr) return strdup(entry.real.c_str());
      std::snprintf(resolved, PATH_MAX, "%s", entry.real.c_str());
      return resolved;
    }
  }
  using Fn = char* (*)(const char*, char*);
  static std::atomic<void*> slot{nullptr};
  auto fn = nextDefinition<Fn>(slot, "realpath");
  if (fn == nullptr) {
    errno = ENOSYS;
    return nullptr;
  }
  return fn(path, resolved);
}

DIR* opendir(const char* path) {
  using Fn = DIR* (*)(const char*);
  static std::atomic<void*> slot{nullptr};
  auto fn = nextDefinition<Fn>(slot, "opendir");
  if (fn == nullptr) {
    errno = ENOSYS;
    return nullptr;
  }
  DIR* dir = fn(path);
  if (dir != nullptr && isDevDirectory(path)) {
    try {
      std::vector<std::string> names = tqsim::sysfs::deviceNames();
      if (!names.empty()) {
        std::lock_guard<std::mutex> lock(gListingsMutex);
        listings()[dir].names = std::move(names);
        ++gListings;
      }
    } catch (...) {
    }
  }
  return dir;
}

dirent* readdir(DIR* dir) {
  using Fn = dirent* (*)(DIR*);
  static std::atomic<void*> slot{nullptr};
  auto fn = nextDefinition<Fn>(slot, "readdir");
  const int saved = errno;
  dirent* entry = fn != nullptr ? fn(dir) : nullptr;
  if (entry == nullptr && gListings.load() != 0) {
    if (dirent* extra = nextExtra(dir)) {
      errno = saved;
      return extra;
    }
  }
  return entry;
}

dirent64* readdir64(DIR* dir) {
  static_assert(sizeof(dirent) == sizeof(dirent64), "x86-64 has one dirent layout");
  return reinterpret_cast<dirent64*>(readdir(dir));
}

int closedir(DIR* dir) {
  if (gListings.load() != 0) {
    std::lock_guard<std::mutex> lock(gListingsMutex);
    if (listings().erase(dir) != 0) --gListings;
  }
  using Fn = int (*)(DIR*);
  static std::atomic<void*> slot{nullptr};
  auto fn = nextDefinition<Fn>(slot, "closedir");
  return fn != nullptr ? fn(dir) : -1;
}

int fstat(int fd, struct stat* buf) noexcept {
  int result = 0;
  if (fstatEmulated(fd, buf, result)) return result;
  TQSIM_NEXT(fstat, int (*)(int, struct stat*), fd, buf);
}

int fstat64(int fd, struct stat64* buf) noexcept {
  int result = 0;
  if (fstatEmulated(fd, buf, result)) return result;
  TQSIM_NEXT(fstat64, int (*)(int, struct stat64*), fd, buf);
}

int __fxstat(int ver, int fd, struct stat* buf) {
  int result = 0;
  if (fstatEmulated(fd, buf, result)) return result;
  TQSIM_NEXT(__fxstat, int (*)(int, int, struct stat*), ver, fd, buf);
}

int __fxstat64(int ver, int fd, struct stat64* buf) {
  int result = 0;
  if (fstatEmulated(fd, buf, result)) return result;
  TQSIM_NEXT(__fxstat64, int (*)(int, int, struct stat64*), ver, fd, buf);
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
  if (statEmulated(path, buf, result, false)) return result;
  TQSIM_NEXT(lstat, int (*)(const char*, struct stat*), path, buf);
}

int lstat64(const char* path, struct stat64* buf) noexcept {
  int result = 0;
  if (statEmulated(path, buf, result, false)) return result;
  TQSIM_NEXT(lstat64, int (*)(const char*, struct stat64*), path, buf);
}

int fstatat(int dirfd, const char* path, struct stat* buf, int flags) noexcept {
  int result = 0;
  if ((flags & AT_EMPTY_PATH) != 0 && emptyText(path) && fstatEmulated(dirfd, buf, result)) return result;
  if (statEmulated(path, buf, result, (flags & AT_SYMLINK_NOFOLLOW) == 0)) return result;
  TQSIM_NEXT(fstatat, int (*)(int, const char*, struct stat*, int), dirfd, path, buf, flags);
}

int fstatat64(int dirfd, const char* path, struct stat64* buf, int flags) noexcept {
  int result = 0;
  if ((flags & AT_EMPTY_PATH) != 0 && emptyText(path) && fstatEmulated(dirfd, buf, result)) return result;
  if (statEmulated(path, buf, result, (flags & AT_SYMLINK_NOFOLLOW) == 0)) return result;
  TQSIM_NEXT(fstatat64, int (*)(int, const char*, struct stat64*, int), dirfd, path, buf, flags);
}

int statx(int dirfd, const char* path, int flags, unsigned int mask, struct statx* buf) noexcept {
  const bool emptyPath = (flags & AT_EMPTY_PATH) != 0 && emptyText(path);
  if (maybeNode(path) || maybeSysfs(path) || emptyPath) {
    try {
      struct stat st {};
      int result = 0;
      if (emptyPath ? fstatEmulated(dirfd, &st, result)
                    : statEmulated(path, &st, result, (flags & AT_SYMLINK_NOFOLLOW) == 0)) {
        struct statx converted {};
        toStatx(st, converted);
        std::memcpy(static_cast<void*>(buf), &converted, sizeof converted);
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
  if (statEmulated(path, buf, result, false)) return result;
  TQSIM_NEXT(__lxstat, int (*)(int, const char*, struct stat*), ver, path, buf);
}

int __xstat64(int ver, const char* path, struct stat64* buf) {
  int result = 0;
  if (statEmulated(path, buf, result)) return result;
  TQSIM_NEXT(__xstat64, int (*)(int, const char*, struct stat64*), ver, path, buf);
}

int __lxstat64(int ver, const char* path, struct stat64* buf) {
  int result = 0;
  if (statEmulated(path, buf, result, false)) return result;
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
