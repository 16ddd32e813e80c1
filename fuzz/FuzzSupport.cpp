#include "FuzzSupport.h"

#include <errno.h>  // program_invocation_short_name (GNU)
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace {

// Before the library's log sources are built: everything at trace level (so the
// trace-only paths run too), into a bounded file instead of the fuzzer's output.
__attribute__((constructor(101))) void configureLogging() {
  setenv("TQ_LOG", "UVC=trace,OSDEP=trace", 0);
  const std::string file = std::string(program_invocation_short_name) + ".log";
  setenv("TQ_LOG_FILE", file.c_str(), 0);
  setenv("TQ_LOG_FILE_MAX", "4194304", 0);
}

struct Scratch {
  std::string path;
  Scratch() {
    const char* dir = std::getenv("TMPDIR");
    path = std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") + "/tq-fuzz-XXXXXX";
    const int fd = mkstemp(path.data());
    if (fd < 0) fuzz::fail("cannot create the scratch file");
    ::close(fd);
  }
  ~Scratch() { ::unlink(path.c_str()); }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
};

}  // namespace

namespace fuzz {

std::vector<uint8_t> Input::bytes(size_t n) {
  std::vector<uint8_t> out(n, 0);
  for (size_t i = 0; i < n && !empty(); ++i) out[i] = data_[pos_++];
  return out;
}

std::string Input::rest() {
  std::string out;
  if (!empty()) out.assign(reinterpret_cast<const char*>(data_ + pos_), size_ - pos_);
  pos_ = size_;
  return out;
}

const std::string& scratchFile() {
  static const Scratch scratch;
  return scratch.path;
}

bool writeScratch(const void* data, size_t size) {
  const int fd = ::open(scratchFile().c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
  if (fd < 0) return false;
  const auto* p = static_cast<const char*>(data);
  bool ok = true;
  while (size > 0) {
    const ssize_t n = ::write(fd, p, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      ok = false;
      break;
    }
    p += n;
    size -= static_cast<size_t>(n);
  }
  ::close(fd);
  return ok;
}

void fail(const char* what) {
  std::fprintf(stderr, "fuzz property broken: %s\n", what);
  std::fflush(stderr);
  std::abort();
}

}  // namespace fuzz
