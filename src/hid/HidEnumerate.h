// Finds the cameras of one vendor/product id through udev and pairs each
// camera's hidraw node with its video node by USB serial number.
#pragma once

#include <cstdint>
#include <vector>

#include "hid/DeviceNode.h"

// Paired nodes in hidraw-number order (nEntry, nReserved, bLinked, pHid left
// 0/null). Probes /dev/video0..15 and /dev/hidraw0.. up to the first missing
// hidraw number; nodes that cannot be opened, queried or paired are skipped.
// Also stores vid/pid in gn_Vid/gn_Pid.
std::vector<DeviceNode> GetInterfaceList(unsigned short vid, unsigned short pid);

// Merges a fresh GetInterfaceList into DevicePool: known cameras (same
// identity) are relinked in place, new ones appended while the table has room
// (kMaxDevicePoolRecords; a camera past that is logged and left out). Returns the number of
// linked cameras (gn_DeviceCount, cut to 8 bits).
uint8_t KOR_HID_Enumerate(unsigned short vid, unsigned short pid);
