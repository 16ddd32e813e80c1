#include "hid/DeviceNode.h"

// Not a static object: the library's unload guard closes the cameras through
// it, and static objects of other files are destroyed in no defined order. The
// guard frees it last (ReleaseDevicePool).
// Room for every record up front: appending never moves the records that other
// threads are reading.
std::atomic<size_t> DevicePoolCount{0};

std::vector<DeviceNode>& DevicePool = *[] {
  auto* pool = new std::vector<DeviceNode>;
  pool->reserve(kMaxDevicePoolRecords);
  return pool;
}();

void ReleaseDevicePool() { delete &DevicePool; }
uint32_t gn_DeviceCount = 0;
uint32_t gn_Vid = 0;
uint32_t gn_Pid = 0;
