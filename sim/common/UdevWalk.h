// What udevadm shows for the emulated nodes: the sysfs device path of a node
// and the attribute walk from the node up to /devices/platform, in the real
// tool's text format, for a camera attached to a USB/IP root hub (vhci_hcd).
#pragma once

#include <string>

#include "StateFile.h"

namespace tqsim {

enum class WalkNode { Hidraw, Capture, Metadata };

struct FoundNode {
  const StateCamera* camera = nullptr;
  WalkNode node = WalkNode::Hidraw;
};

// name: /dev/hidrawN, /dev/videoN or the bare hidrawN / videoN.
bool findByDeviceName(const State& state, const std::string& name, FoundNode& found);
// path: /devices/... or /sys/devices/... of a node.
bool findByDevicePath(const State& state, const std::string& path, FoundNode& found);

// The node's device path without /sys, e.g.
// /devices/platform/vhci_hcd.0/usb1/1-1/1-1:1.2/0003:7A3D:0203.0001/hidraw/hidraw0
std::string devicePath(const StateCamera& camera, WalkNode node);

// The whole output of "udevadm info -a" for the node, header paragraph
// included. nowMs is CLOCK_REALTIME in ms, for the duration attributes.
std::string attributeWalk(const State& state, const StateCamera& camera, WalkNode node, int64_t nowMs);

}  // namespace tqsim
