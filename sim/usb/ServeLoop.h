// The one loop that serves the USB devices of a process: waits for requests
// on their links and for the time the next frame or input report is due.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "UsbCamera.h"

namespace tqsim::usb {

struct LoopEnd {
  bool stopped = false;  // onWake asked to stop; otherwise a link ended
  size_t device = 0;     // the device whose link ended
  std::string reason;
};

// Serves until a link ends or onWake (called when wakeFd is readable; -1:
// none) returns false. Errors of poll itself end it as a link end.
LoopEnd serveDevices(const std::vector<UsbCamera*>& devices, int wakeFd, const std::function<bool()>& onWake);

}  // namespace tqsim::usb
