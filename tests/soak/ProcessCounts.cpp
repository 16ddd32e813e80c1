#include "ProcessCounts.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

namespace soak {
namespace {

// Entries of a /proc directory other than "." and "..", and other than the
// descriptor the listing itself holds open.
std::vector<std::string> listDirectory(const char* path, int* ownFd) {
  std::vector<std::string> names;
  DIR* dir = opendir(path);
  if (dir == nullptr) return names;
  if (ownFd != nullptr) *ownFd = dirfd(dir);
  while (const dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(dir);
  return names;
}

std::string linkTarget(const std::string& path) {
  char buffer[4096];
  const ssize_t n = readlink(path.c_str(), buffer, sizeof buffer - 1);
  if (n < 0) return "?";
  return std::string(buffer, static_cast<size_t>(n));
}

// The path column of a /proc/self/maps line, or "" for an anonymous or
// kernel-provided ([heap], [stack], [vdso], ...) mapping.
std::string mappedFile(const std::string& line) {
  std::istringstream in(line);
  std::string range, perms, offset, device, inode;
  in >> range >> perms >> offset >> device >> inode;
  std::string path;
  std::getline(in >> std::ws, path);
  if (path.empty() || path[0] == '[') return "";
  // Shared libraries come once per process: the emulation loads libv4l2 (and
  // with it libv4lconvert, libjpeg) the first time it passes a call through.
  const size_t so = path.find(".so");
  if (so != std::string::npos && (so + 3 == path.size() || path[so + 3] == '.')) return "";
  return path;
}

}  // namespace

ProcessCounts countProcess() {
  ProcessCounts counts;
  int listingFd = -1;
  for (const std::string& name : listDirectory("/proc/self/fd", &listingFd)) {
    if (std::atoi(name.c_str()) == listingFd) continue;
    counts.descriptors.push_back(name + " -> " + linkTarget("/proc/self/fd/" + name));
  }
  std::sort(counts.descriptors.begin(), counts.descriptors.end());
  counts.threads = static_cast<int>(listDirectory("/proc/self/task", nullptr).size());
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    std::string file = mappedFile(line);
    if (!file.empty()) counts.mappings.push_back(std::move(file));
  }
  std::sort(counts.mappings.begin(), counts.mappings.end());
  return counts;
}

std::vector<std::string> extraEntries(const std::vector<std::string>& before,
                                      const std::vector<std::string>& after) {
  std::vector<std::string> a = before;
  std::vector<std::string> b = after;
  std::sort(a.begin(), a.end());
  std::sort(b.begin(), b.end());
  std::vector<std::string> extra;
  std::set_difference(b.begin(), b.end(), a.begin(), a.end(), std::back_inserter(extra));
  return extra;
}

}  // namespace soak
