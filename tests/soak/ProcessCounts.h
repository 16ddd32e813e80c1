// What a process holds that a library could leak: open descriptors, threads
// and mappings of files (memfds and device memory included), read from
// /proc/self. Anonymous mappings are left out (malloc arenas, cached thread
// stacks and sanitizer shadow come and go with load, not with leaks), and so
// are shared libraries, which a process loads once and keeps.
#pragma once

#include <string>
#include <vector>

namespace soak {

struct ProcessCounts {
  std::vector<std::string> descriptors;  // "fd -> target", sorted
  std::vector<std::string> mappings;     // mapped path per mapping, sorted
  int threads = 0;
};

ProcessCounts countProcess();

// Entries of `after` that `before` does not have (one per extra entry).
std::vector<std::string> extraEntries(const std::vector<std::string>& before,
                                      const std::vector<std::string>& after);

}  // namespace soak
