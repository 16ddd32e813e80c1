// The next definitions (libc's, or a sanitizer's before it) of the calls the
// library interposes. Resolved on first use, safe from any thread. Code inside
// the library calls these, never the plain names, which would land in our own
// interposers.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

struct statx;

namespace tqsim::real {

int open(const char* path, int flags, mode_t mode);
int openat(int dirfd, const char* path, int flags, mode_t mode);
int close(int fd);
int ioctl(int fd, unsigned long request, void* arg);

}  // namespace tqsim::real
