// One enumerated camera (its hidraw and video nodes, identity strings and open
// hidraw device) and the process-wide table of every camera seen so far. A
// camera's position in DevicePool is its camera index everywhere else.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "hid/cHid.h"

struct DeviceNode {
  int32_t nEntry = 0;     // size of the list being merged when appended; unused
  int32_t nReserved = 0;  // carried along, never assigned
  uint8_t bLinked = 0;    // seen by the latest enumeration
  std::string sHidPath;   // /dev/hidrawN
  std::string sUvcPath;   // /dev/videoN of the same camera
  std::string sSerial;
  std::string sManufacturer;
  std::string sProduct;
  std::string sIdentity;  // serial-videopath-hidrawpath: recognises a camera again
  // Open hidraw device while attached (KOR_HID_Open .. KOR_HID_Close). Shared
  // and swapped atomically: a register thread still writing through it keeps
  // it alive while another thread disconnects the camera.
  std::shared_ptr<cHid> pHid;
};

// Never shrinks: a camera index, once handed out, stays valid for the process.
// Holds at most kMaxDevicePoolRecords, so that every index fits in 8 bits.
// Not locked: enumeration must not run while other threads use it.
constexpr size_t kMaxDevicePoolRecords = 256;
// Records published to other threads: set after each append, so that a reader
// never looks at the vector's own size while enumeration appends.
extern std::atomic<size_t> DevicePoolCount;
extern std::vector<DeviceNode>& DevicePool;
// Frees the table at unload, after every camera was closed; nothing may use
// DevicePool afterwards.
void ReleaseDevicePool();
extern uint32_t gn_DeviceCount;  // linked records after the last enumeration
extern uint32_t gn_Vid;          // ids of the last enumeration (low 16 bits)
extern uint32_t gn_Pid;
