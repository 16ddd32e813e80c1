#include "hid/HidEnumerate.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/hidraw.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "hid/UdevText.h"
#include "support/LibLogs.h"
#include "support/UniqueFd.h"

namespace {

constexpr int kMaxNodes = 16;

// The whole attribute walk (node and every parent), so that the first match
// of an attribute is the nearest device that carries it.
std::string udevWalkCommand(const std::string& node) {
  return "udevadm info -a -p $(udevadm info -q path -n " + node + ")";
}

// A walk is mostly process start-up (a shell and two udevadm): two at a time
// per CPU keep every CPU busy; the results do not depend on the overlap.
size_t parallelWalks() {
  cpu_set_t set;
  CPU_ZERO(&set);
  const int cpus = ::sched_getaffinity(0, sizeof set, &set) == 0 ? CPU_COUNT(&set) : 1;
  return std::min<size_t>(8, 2 * static_cast<size_t>(cpus > 0 ? cpus : 1));
}

std::string hex4(unsigned short id) {
  char text[8];
  std::snprintf(text, sizeof text, "%4.4x", id);
  return text;
}

}  // namespace

std::vector<DeviceNode> GetInterfaceList(unsigned short vid, unsigned short pid) {
  gn_Vid = vid;
  gn_Pid = pid;
  const std::string vidText = hex4(vid);
  const std::string pidText = hex4(pid);

  std::vector<std::string> videoPaths;
  for (int n = 0; n < kMaxNodes; ++n) {
    std::string path = "/dev/video" + std::to_string(n);
    struct stat st;
    if (::stat(path.c_str(), &st) == 0) videoPaths.push_back(std::move(path));
  }

  // Each probe's descriptor closes at its end: nothing reads the node, and an
  // open hidraw node keeps the device's input transfers running.
  std::vector<std::string> hidraws;
  for (int n = 0; n < kMaxNodes; ++n) {
    std::string path = "/dev/hidraw" + std::to_string(n);
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) {
      // hidraw numbers have no gaps: the first missing node ends the search.
      if (errno == ENOENT) break;
      continue;
    }
    hidraw_devinfo info{};
    if (::ioctl(fd.get(), HIDIOCGRAWINFO, &info) < 0) {
      std::perror("HIDIOCGRAWINFO");
      continue;
    }
    if (static_cast<uint16_t>(info.vendor) != static_cast<uint16_t>(gn_Vid) ||
        static_cast<uint16_t>(info.product) != static_cast<uint16_t>(gn_Pid))
      continue;
    hidraws.push_back(std::move(path));
  }

  // Every walk of both passes, overlapped: a scan costs about the longest
  // walks rather than their sum.
  std::vector<std::string> commands;
  for (const auto& path : videoPaths) commands.push_back(udevWalkCommand(path));
  for (const auto& path : hidraws) commands.push_back(udevWalkCommand(path));
  const std::vector<std::string> walks = sExecAll(commands, parallelWalks());

  struct VideoNode {
    std::string path;
    std::string serial;
  };
  std::vector<VideoNode> videos;
  for (size_t i = 0; i < videoPaths.size(); ++i) {
    const std::string& walk = walks[i];
    if (sGetString(walk, "ATTRS{idVendor}") != vidText || sGetString(walk, "ATTRS{idProduct}") != pidText)
      continue;
    videos.push_back({videoPaths[i], sGetString(walk, "ATTRS{serial}")});
  }

  std::vector<DeviceNode> result;
  for (size_t i = 0; i < hidraws.size(); ++i) {
    const std::string& path = hidraws[i];
    const std::string& walk = walks[videoPaths.size() + i];
    std::string serial = sGetString(walk, "ATTRS{serial}");
    std::string uvcPath;
    for (const auto& v : videos) {
      if (v.serial == serial) {
        uvcPath = v.path;
        break;
      }
    }
    if (uvcPath.empty()) continue;

    DeviceNode node;
    node.sHidPath = path;
    node.sUvcPath = uvcPath;
    node.sIdentity = serial + "-" + uvcPath + "-" + path;
    node.sManufacturer = sGetString(walk, "ATTRS{manufacturer}");
    node.sSerial = sGetString(walk, "ATTRS{serial}");
    node.sProduct = sGetString(walk, "ATTRS{product}");
    result.push_back(std::move(node));
  }
  return result;
}

uint8_t KOR_HID_Enumerate(unsigned short vid, unsigned short pid) {
  std::vector<DeviceNode> list = GetInterfaceList(vid, pid);
  const auto listSize = static_cast<int32_t>(list.size());

  for (auto& p : DevicePool) p.bLinked = 0;

  for (auto& r : list) {
    DeviceNode* known = nullptr;
    for (auto& p : DevicePool) {
      if (p.sIdentity == r.sIdentity) {
        known = &p;
        break;
      }
    }
    if (known != nullptr) {
      known->bLinked = 1;
      if (known->sHidPath != r.sHidPath) known->sHidPath = r.sHidPath;
      if (known->sUvcPath != r.sUvcPath) known->sUvcPath = r.sUvcPath;
      continue;
    }
    // Camera indices are 8-bit: a record past 255 would be addressed as
    // another camera's.
    if (DevicePool.size() >= kMaxDevicePoolRecords) {
      LIBLog.Error("KOR_HID_Enumerate: device table full (%u cameras), %s not added\n",
                   static_cast<unsigned>(kMaxDevicePoolRecords), r.sIdentity.c_str());
      continue;
    }
    r.nEntry = listSize;
    r.bLinked = 1;
    r.pHid.reset();
    DevicePool.push_back(std::move(r));
    DevicePoolCount.store(DevicePool.size(), std::memory_order_release);
  }

  gn_Vid = vid;
  gn_Pid = pid;
  uint32_t linked = 0;
  for (const auto& p : DevicePool)
    if (p.bLinked != 0) ++linked;
  gn_DeviceCount = linked;
  return static_cast<uint8_t>(gn_DeviceCount);
}
