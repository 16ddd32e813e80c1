#include "hid/DeviceNode.h"

// Not a static object: the library's unload guard closes the cameras through
// it, and static objects of other files are destroyed in no defined order. The
// guard frees it last (ReleaseDevicePool).
std::vector<DeviceNode>& DevicePool = *new std::vector<DeviceNode>;

void ReleaseDevicePool() { delete &DevicePool; }
uint32_t gn_DeviceCount = 0;
uint32_t gn_Vid = 0;
uint32_t gn_Pid = 0;
