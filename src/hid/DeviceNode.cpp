#include "hid/DeviceNode.h"

std::vector<DeviceNode> DevicePool;
uint32_t gn_DeviceCount = 0;
uint32_t gn_Vid = 0;
uint32_t gn_Pid = 0;
