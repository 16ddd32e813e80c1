// The sysfs entries a real kernel has for the emulated video nodes, as far as
// V4L2 tools read them: /sys/dev/char/81:N and /sys/class/video4linux/videoN
// (links to the node's device directory), its uevent, name, index and dev
// files, its device link and the USB interface's uevent. Built from the state
// file, so every process of a launcher's tree sees the same.
#pragma once

#include <dirent.h>
#include <sys/stat.h>

#include <string>
#include <vector>

namespace tqsim::sysfs {

enum class Kind { None, File, Link, Directory };

struct Entry {
  Kind kind = Kind::None;
  std::string content;  // a file's text, a link's target
  std::string real;     // the path with every link resolved
};

// What path is in the emulated sysfs; Kind::None when it is not ours.
Entry lookup(const std::string& path);

// A descriptor to read a file's content from (a sealed memfd), -1 with errno.
int openFile(const Entry& entry, int flags);

// stat of an entry (follow: links as what they point to).
bool stat(const std::string& path, bool follow, struct stat& out);

// The names of the emulated nodes that a listing of /dev adds.
std::vector<std::string> deviceNames();

}  // namespace tqsim::sysfs
