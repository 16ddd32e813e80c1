#include "Sysfs.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "Protocol.h"
#include "RealCalls.h"
#include "StateFile.h"
#include "UdevWalk.h"

namespace tqsim::sysfs {

namespace {

constexpr unsigned kVideoMajor = 81;
constexpr unsigned kHidrawMajor = 242;

bool loadState(State& state) {
  const std::string path = stateFileAddress();
  return !path.empty() && readStateFile(path, state, nullptr);
}

std::string hex4(unsigned value) {
  char text[8];
  std::snprintf(text, sizeof text, "%04X", value & 0xFFFF);
  return text;
}

std::string lowerHex(unsigned value) {
  char text[8];
  std::snprintf(text, sizeof text, "%x", value & 0xFFFF);
  return text;
}

// A node's directory below /sys and the files in it.
struct NodeDir {
  std::string path;  // /sys/devices/.../videoN
  std::string name;  // videoN or hidrawN
  unsigned major = 0;
  int number = 0;
  int index = 0;
  bool video = true;
  const StateCamera* camera = nullptr;
};

std::vector<NodeDir> nodeDirs(const State& state) {
  std::vector<NodeDir> dirs;
  for (const StateCamera& camera : state.cameras) {
    for (WalkNode node : {WalkNode::Capture, WalkNode::Metadata, WalkNode::Hidraw}) {
      NodeDir dir;
      dir.camera = &camera;
      dir.video = node != WalkNode::Hidraw;
      dir.number = node == WalkNode::Capture    ? camera.videoNumber
                   : node == WalkNode::Metadata ? camera.metadataVideoNumber
                                                : camera.hidrawNumber;
      if (dir.number < 0) continue;
      dir.index = node == WalkNode::Metadata ? 1 : 0;
      dir.major = dir.video ? kVideoMajor : kHidrawMajor;
      dir.name = (dir.video ? "video" : "hidraw") + std::to_string(dir.number);
      dir.path = "/sys" + devicePath(camera, node);
      dirs.push_back(dir);
    }
  }
  return dirs;
}

std::string interfaceUevent(const StateCamera& camera) {
  return "DEVTYPE=usb_interface\nDRIVER=uvcvideo\nPRODUCT=" + lowerHex(camera.vendorId) + "/" +
         lowerHex(camera.productId) + "/100\nTYPE=239/2/1\nINTERFACE=14/1/0\nMODALIAS=usb:v" +
         hex4(camera.vendorId) + "p" + hex4(camera.productId) + "d0100dcEFdsc02dp01ic0Eisc01ip00in00\n";
}

// An entry inside a node directory: rest is "" or "/name"...
Entry inside(const NodeDir& dir, const std::string& rest) {
  Entry entry;
  const std::string dev = std::to_string(dir.major) + ":" + std::to_string(dir.number);
  const std::string interface = dir.path.substr(0, dir.path.rfind(dir.video ? "/video4linux/" : "/"));
  entry.real = dir.path + rest;
  if (rest.empty()) {
    entry.kind = Kind::Directory;
  } else if (rest == "/uevent") {
    entry.kind = Kind::File;
    entry.content = "MAJOR=" + std::to_string(dir.major) + "\nMINOR=" + std::to_string(dir.number) +
                    "\nDEVNAME=" + dir.name + "\n";
  } else if (rest == "/dev") {
    entry.kind = Kind::File;
    entry.content = dev + "\n";
  } else if (rest == "/name" && dir.video) {
    entry.kind = Kind::File;
    entry.content = dir.camera->product + "\n";
  } else if (rest == "/index" && dir.video) {
    entry.kind = Kind::File;
    entry.content = std::to_string(dir.index) + "\n";
  } else if (rest == "/device" && dir.video) {
    entry.kind = Kind::Link;
    entry.content = "../../../" + interface.substr(interface.rfind('/') + 1);
    entry.real = interface;
  } else if (rest == "/device/uevent" && dir.video) {
    entry.kind = Kind::File;
    entry.content = interfaceUevent(*dir.camera);
    entry.real = interface + "/uevent";
  } else if (rest == "/subsystem") {
    entry.kind = Kind::Link;
    entry.content = std::string(dir.video ? "../../../../../../../../class/video4linux"
                                          : "../../../../../../../../../class/hidraw");
    entry.real = std::string("/sys/class/") + (dir.video ? "video4linux" : "hidraw");
  }
  return entry;
}

std::string relativeToSys(const std::string& from, const std::string& target) {
  // from: a link's directory below /sys, e.g. /sys/dev/char
  std::string up;
  for (size_t i = 4; i < from.size(); ++i)
    if (from[i] == '/') up += "../";
  return up + target.substr(5);
}

}  // namespace

Entry lookup(const std::string& path) {
  if (path.rfind("/sys/", 0) != 0) return {};
  State state;
  if (!loadState(state)) return {};
  for (const NodeDir& dir : nodeDirs(state)) {
    const std::string dev = std::to_string(dir.major) + ":" + std::to_string(dir.number);
    const std::string links[] = {
        "/sys/dev/char/" + dev,
        std::string(dir.video ? "/sys/class/video4linux/" : "/sys/class/hidraw/") + dir.name};
    for (const std::string& link : links) {
      if (path == link) {
        Entry entry;
        entry.kind = Kind::Link;
        entry.content = relativeToSys(link.substr(0, link.rfind('/')), dir.path);
        entry.real = dir.path;
        return entry;
      }
      if (path.rfind(link + "/", 0) == 0) return inside(dir, path.substr(link.size()));
    }
    if (path == dir.path || path.rfind(dir.path + "/", 0) == 0)
      return inside(dir, path.substr(dir.path.size()));
  }
  return {};
}

int openFile(const Entry& entry, int flags) {
  if ((flags & O_ACCMODE) != O_RDONLY) {
    errno = EACCES;
    return -1;
  }
  const int fd = ::memfd_create("tqsim-sysfs", (flags & O_CLOEXEC) != 0 ? MFD_CLOEXEC : 0);
  if (fd < 0) return -1;
  size_t done = 0;
  while (done < entry.content.size()) {
    const ssize_t n = real::write(fd, entry.content.data() + done, entry.content.size() - done);
    if (n <= 0) {
      const int error = errno;
      ::close(fd);
      errno = error;
      return -1;
    }
    done += static_cast<size_t>(n);
  }
  ::lseek(fd, 0, SEEK_SET);
  return fd;
}

bool stat(const std::string& path, bool follow, struct stat& out) {
  Entry entry = lookup(path);
  if (entry.kind == Kind::None) return false;
  if (follow && entry.kind == Kind::Link) {
    const Entry target = lookup(entry.real);
    entry.kind = target.kind == Kind::None ? Kind::Directory : target.kind;
  }
  out = {};
  out.st_nlink = 1;
  out.st_blksize = 4096;
  if (entry.kind == Kind::Directory) {
    out.st_mode = S_IFDIR | 0755;
    out.st_nlink = 2;
  } else if (entry.kind == Kind::Link) {
    out.st_mode = S_IFLNK | 0777;
    out.st_size = static_cast<off_t>(entry.content.size());
  } else {
    out.st_mode = S_IFREG | 0444;
    out.st_size = 4096;  // sysfs reports a page for every attribute
  }
  return true;
}

std::vector<std::string> deviceNames() {
  std::vector<std::string> names;
  State state;
  if (!loadState(state)) return names;
  for (const StateCamera& camera : state.cameras) {
    names.push_back("hidraw" + std::to_string(camera.hidrawNumber));
    names.push_back("video" + std::to_string(camera.videoNumber));
    if (camera.metadataVideoNumber >= 0)
      names.push_back("video" + std::to_string(camera.metadataVideoNumber));
  }
  return names;
}

}  // namespace tqsim::sysfs
