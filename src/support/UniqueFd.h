// Owns one descriptor and closes it exactly once. Descriptors opened through a
// wrapper library (libv4l2) must be closed through it too, so the closer is
// part of the owner: UniqueFd(v4l2_open(...), v4l2_close).
#pragma once

#include <unistd.h>

#include <utility>

class UniqueFd {
 public:
  using Closer = int (*)(int);

  UniqueFd() = default;
  explicit UniqueFd(int fd, Closer closer = &::close) : fd_(fd), closer_(closer) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)), closer_(other.closer_) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
      Closer closer = other.closer_;
      reset(std::exchange(other.fd_, -1), closer);
    }
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { reset(); }

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  explicit operator bool() const { return valid(); }

  // Gives the descriptor up without closing it.
  int release() { return std::exchange(fd_, -1); }

  // Closes the current descriptor (if any) and takes fd. Returns the close
  // result, 0 when there was nothing to close.
  int reset(int fd = -1, Closer closer = &::close) {
    int result = 0;
    if (fd_ >= 0) result = closer_(fd_);
    fd_ = fd;
    closer_ = closer;
    return result;
  }

 private:
  int fd_ = -1;
  Closer closer_ = &::close;
};
