#include "hid/DeviceNode.h"

// Never destroyed: the library's unload guard closes the cameras through it,
// and static objects of other files are destroyed in no defined order.
std::vector<DeviceNode>& DevicePool = *new std::vector<DeviceNode>;
uint32_t gn_DeviceCount = 0;
uint32_t gn_Vid = 0;
uint32_t gn_Pid = 0;
