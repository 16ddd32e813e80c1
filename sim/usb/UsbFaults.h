// Faults of the USB camera below the camera model: stalled requests, frames
// changed on their way out, a connection that drops mid-stream, a feature
// report answered short.
#pragma once

#include <set>
#include <string>

namespace tqsim::usb {

struct UsbFaults {
  std::set<std::string> stalls;    // control requests answered with a stall, by name (kStallNames)
  int shortFeatureBytes = -1;      // feature GET_REPORT answers this many bytes (-1: off)
  bool corruptFrame = false;       // every frame's first line changed (past the frame number)
  bool shortPayload = false;       // every frame ends early (EOF set)...
  int shortPayloadBytes = -1;      // ...after this many bytes (-1: three quarters of the frame)
  int disconnectAfterFrames = -1;  // the connection drops after this many frames (-1: off)
};

// Names `stall=` takes.
extern const char* const kStallNames[];

// Applies one "NAME" or "NAME=VALUE" USB-level fault. False with the reason in
// why for a name that is not a USB-level fault (*known false) or a bad value.
bool applyUsbFault(UsbFaults& faults, const std::string& name, const std::string& value, bool hasValue,
                   bool* known, std::string& why);

}  // namespace tqsim::usb
