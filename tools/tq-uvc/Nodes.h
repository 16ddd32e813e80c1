// The device nodes of the cameras. The library's device record does not carry
// them, so the tool asks udev the way a user would: every present
// /dev/hidrawN and /dev/videoN is looked up with `udevadm info -a -n`, and its
// USB device's serial number ties it to a camera.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace tool {

struct CameraNodes {
  std::vector<std::string> hidraw;
  std::vector<std::string> video;
};

// Serial number of the USB device a node belongs to (the first ATTRS{serial}
// of the attribute walk, which starts at the node). Empty when udevadm fails.
std::string serialOfNode(const std::string& node);

// Nodes of USB devices with this vendor and product id, by serial number.
std::map<std::string, CameraNodes> findCameraNodes(unsigned vendor, unsigned product);

// Extracts the first value of `ATTRS{key}=="value"` from an attribute walk.
std::string firstAttribute(const std::string& walk, const std::string& key);

}  // namespace tool
