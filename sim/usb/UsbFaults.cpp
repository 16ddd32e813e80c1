#include "UsbFaults.h"

#include <cerrno>
#include <cstdlib>

namespace tqsim::usb {

const char* const kStallNames[] = {
    "set-configuration",
    "set-interface",
    "clear-halt",
    "string",
    "report-descriptor",
    "get-report",
    "set-report",
    "set-idle",
    "probe",
    "commit",
    nullptr,
};

namespace {

bool parseCount(const std::string& text, int& out) {
  if (text.empty()) return false;
  errno = 0;
  char* end = nullptr;
  const long value = std::strtol(text.c_str(), &end, 0);
  if (errno != 0 || *end != '\0' || value < 0 || value > 0x7FFFFFFF) return false;
  out = static_cast<int>(value);
  return true;
}

}  // namespace

bool applyUsbFault(UsbFaults& faults, const std::string& name, const std::string& value, bool hasValue,
                   bool* known, std::string& why) {
  *known = true;
  if (name == "stall") {
    for (const char* const* n = kStallNames; *n != nullptr; ++n) {
      if (value == *n) {
        faults.stalls.insert(value);
        return true;
      }
    }
    why =
        "stall takes one of: set-configuration, set-interface, clear-halt, string, report-descriptor, "
        "get-report, set-report, set-idle, probe, commit";
    return false;
  }
  if (name == "short-feature") {
    faults.shortFeatureBytes = 512;
    if (hasValue && !parseCount(value, faults.shortFeatureBytes)) {
      why = "short-feature takes a byte count";
      return false;
    }
    return true;
  }
  if (name == "corrupt-frame") {
    faults.corruptFrame = true;
    return true;
  }
  if (name == "short-payload") {
    faults.shortPayload = true;
    if (hasValue && !parseCount(value, faults.shortPayloadBytes)) {
      why = "short-payload takes a byte count";
      return false;
    }
    return true;
  }
  if (name == "disconnect-after-frames") {
    if (!hasValue || !parseCount(value, faults.disconnectAfterFrames)) {
      why = "disconnect-after-frames takes a frame count";
      return false;
    }
    return true;
  }
  *known = false;
  why = "unknown fault '" + name + "'";
  return false;
}

}  // namespace tqsim::usb
