#include "Nodes.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace tool {
namespace {

// Node numbers probed for each kind. Wider than the library's own scan (0 to 15,
// hidraw stopping at the first gap) on purpose: the listing then also shows
// nodes of a camera that the library does not reach.
constexpr int kMaxNodeNumber = 256;

bool isCharacterDevice(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISCHR(st.st_mode);
}

std::string attributeWalk(const std::string& node) {
  const std::string command = "udevadm info -a -n " + node + " 2>/dev/null";
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen(command.c_str(), "r"), ::pclose);
  if (!pipe) return {};
  std::string text;
  char buffer[4096];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, pipe.get())) > 0) text.append(buffer, n);
  return text;
}

void collect(const std::string& prefix, unsigned vendor, unsigned product,
             std::map<std::string, CameraNodes>& cameras, bool video) {
  for (int i = 0; i < kMaxNodeNumber; ++i) {
    const std::string node = prefix + std::to_string(i);
    if (!isCharacterDevice(node)) continue;
    const std::string walk = attributeWalk(node);
    const std::string vid = firstAttribute(walk, "idVendor");
    const std::string pid = firstAttribute(walk, "idProduct");
    if (vid.empty() || pid.empty()) continue;
    if (std::strtoul(vid.c_str(), nullptr, 16) != vendor || std::strtoul(pid.c_str(), nullptr, 16) != product)
      continue;
    CameraNodes& nodes = cameras[firstAttribute(walk, "serial")];
    (video ? nodes.video : nodes.hidraw).push_back(node);
  }
}

}  // namespace

std::string firstAttribute(const std::string& walk, const std::string& key) {
  const std::string marker = "ATTRS{" + key + "}==\"";
  const size_t at = walk.find(marker);
  if (at == std::string::npos) return {};
  const size_t start = at + marker.size();
  const size_t end = walk.find('"', start);
  return end == std::string::npos ? std::string() : walk.substr(start, end - start);
}

std::string serialOfNode(const std::string& node) { return firstAttribute(attributeWalk(node), "serial"); }

std::map<std::string, CameraNodes> findCameraNodes(unsigned vendor, unsigned product) {
  std::map<std::string, CameraNodes> cameras;
  collect("/dev/hidraw", vendor, product, cameras, false);
  collect("/dev/video", vendor, product, cameras, true);
  return cameras;
}

}  // namespace tool
