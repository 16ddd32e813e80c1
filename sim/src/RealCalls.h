// The next definitions (libc's, or a sanitizer's before it) of the calls the
// library interposes. Resolved on first use, safe from any thread. Code inside
// the library calls these, never the plain names, which would land in our own
// interposers.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/types.h>

struct statx;

namespace tqsim::real {

int open(const char* path, int flags, mode_t mode);
int openat(int dirfd, const char* path, int flags, mode_t mode);
int close(int fd);
int ioctl(int fd, unsigned long request, void* arg);
ssize_t read(int fd, void* buffer, size_t count);
ssize_t write(int fd, const void* buffer, size_t count);
int ppoll(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask);
void* mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset);
int munmap(void* addr, size_t length);

}  // namespace tqsim::real
