#include "UdevWalk.h"

#include <algorithm>
#include <cstdio>
#include <map>

namespace tqsim {

namespace {

using Attributes = std::map<std::string, std::string>;  // sorted by name, as udevadm prints them

constexpr const char* kHeader =
    "\n"
    "Udevadm info starts with the device specified by the devpath and then\n"
    "walks up the chain of parent devices. It prints for every device\n"
    "found, all possible attributes in the udev rules key format.\n"
    "A rule to match, can be composed by the attributes of the device\n"
    "and the attributes from one single parent device.\n"
    "\n";

constexpr const char* kPlatform = "/devices/platform";
constexpr const char* kHostController = "/devices/platform/vhci_hcd.0";
constexpr const char* kRootHub = "/devices/platform/vhci_hcd.0/usb1";

std::string hex4(unsigned value, bool upper) {
  char text[8];
  std::snprintf(text, sizeof text, upper ? "%04X" : "%04x", value & 0xFFFFu);
  return text;
}

std::string usbDevicePath(const StateCamera& camera) {
  return std::string(kRootHub) + "/1-" + std::to_string(camera.port);
}

std::string interfaceName(const StateCamera& camera, WalkNode node) {
  return "1-" + std::to_string(camera.port) + (node == WalkNode::Hidraw ? ":1.2" : ":1.0");
}

std::string hidDeviceName(const StateCamera& camera) {
  return "0003:" + hex4(camera.vendorId, true) + ":" + hex4(camera.productId, true) + "." +
         hex4(static_cast<unsigned>(camera.hidSequence), true);
}

int nodeNumber(const StateCamera& camera, WalkNode node) {
  switch (node) {
    case WalkNode::Hidraw:
      return camera.hidrawNumber;
    case WalkNode::Capture:
      return camera.videoNumber;
    case WalkNode::Metadata:
      return camera.metadataVideoNumber;
  }
  return -1;
}

Attributes nodePower() {
  return {{"power/async", "disabled"},           {"power/control", "auto"},
          {"power/runtime_active_kids", "0"},    {"power/runtime_active_time", "0"},
          {"power/runtime_enabled", "disabled"}, {"power/runtime_status", "unsupported"},
          {"power/runtime_suspended_time", "0"}, {"power/runtime_usage", "0"}};
}

void block(std::string& out, const std::string& path, bool parent, const std::string& kernel,
           const std::string& subsystem, const std::string& driver, const Attributes& attributes) {
  const char* suffix = parent ? "S" : "";
  out += parent ? "  looking at parent device '" : "  looking at device '";
  out += path + "':\n";
  out += std::string("    KERNEL") + suffix + "==\"" + kernel + "\"\n";
  out += std::string("    SUBSYSTEM") + suffix + "==\"" + subsystem + "\"\n";
  out += std::string("    DRIVER") + suffix + "==\"" + driver + "\"\n";
  for (const auto& [name, value] : attributes) {
    out += std::string("    ATTR") + suffix + "{" + name + "}==\"" + value + "\"\n";
  }
  out += "\n";
}

}  // namespace

bool findByDeviceName(const State& state, const std::string& name, FoundNode& found) {
  std::string bare = name.rfind("/dev/", 0) == 0 ? name.substr(5) : name;
  for (const StateCamera& camera : state.cameras) {
    for (WalkNode node : {WalkNode::Hidraw, WalkNode::Capture, WalkNode::Metadata}) {
      const int number = nodeNumber(camera, node);
      if (number < 0) continue;
      const std::string kernel = (node == WalkNode::Hidraw ? "hidraw" : "video") + std::to_string(number);
      if (bare == kernel) {
        found = {&camera, node};
        return true;
      }
    }
  }
  return false;
}

bool findByDevicePath(const State& state, const std::string& path, FoundNode& found) {
  std::string bare = path.rfind("/sys/", 0) == 0 ? path.substr(4) : path;
  while (bare.size() > 1 && bare.back() == '/') bare.pop_back();
  for (const StateCamera& camera : state.cameras) {
    for (WalkNode node : {WalkNode::Hidraw, WalkNode::Capture, WalkNode::Metadata}) {
      if (nodeNumber(camera, node) < 0) continue;
      if (bare == devicePath(camera, node)) {
        found = {&camera, node};
        return true;
      }
    }
  }
  return false;
}

std::string devicePath(const StateCamera& camera, WalkNode node) {
  const std::string interface = usbDevicePath(camera) + "/" + interfaceName(camera, node);
  if (node == WalkNode::Hidraw) {
    return interface + "/" + hidDeviceName(camera) + "/hidraw/hidraw" + std::to_string(camera.hidrawNumber);
  }
  return interface + "/video4linux/video" + std::to_string(nodeNumber(camera, node));
}

std::string attributeWalk(const State& state, const StateCamera& camera, WalkNode node, int64_t nowMs) {
  std::string out = kHeader;
  const std::string interfacePath = usbDevicePath(camera) + "/" + interfaceName(camera, node);
  const int number = nodeNumber(camera, node);

  if (node == WalkNode::Hidraw) {
    const std::string hidPath = interfacePath + "/" + hidDeviceName(camera);
    block(out, devicePath(camera, node), false, "hidraw" + std::to_string(number), "hidraw", "", nodePower());
    Attributes hid = nodePower();
    hid["country"] = "00";
    hid["power/async"] = "enabled";
    block(out, hidPath, true, hidDeviceName(camera), "hid", "hid-generic", hid);
    block(out, interfacePath, true, interfaceName(camera, node), "usb", "usbhid",
          {{"authorized", "1"},
           {"bAlternateSetting", " 0"},
           {"bInterfaceClass", "03"},
           {"bInterfaceNumber", "02"},
           {"bInterfaceProtocol", "00"},
           {"bInterfaceSubClass", "00"},
           {"bNumEndpoints", "02"},
           {"power/async", "enabled"},
           {"power/runtime_active_kids", "0"},
           {"power/runtime_enabled", "enabled"},
           {"power/runtime_status", "suspended"},
           {"power/runtime_usage", "0"},
           {"supports_autosuspend", "1"}});
  } else {
    Attributes video = nodePower();
    video["dev_debug"] = "0";
    video["index"] = node == WalkNode::Capture ? "0" : "1";
    video["name"] = camera.product;
    block(out, devicePath(camera, node), false, "video" + std::to_string(number), "video4linux", "", video);
    block(out, interfacePath, true, interfaceName(camera, node), "usb", "uvcvideo",
          {{"authorized", "1"},
           {"bAlternateSetting", " 0"},
           {"bInterfaceClass", "0e"},
           {"bInterfaceNumber", "00"},
           {"bInterfaceProtocol", "00"},
           {"bInterfaceSubClass", "01"},
           {"bNumEndpoints", "00"},
           {"iad_bFirstInterface", "00"},
           {"iad_bFunctionClass", "0e"},
           {"iad_bFunctionProtocol", "00"},
           {"iad_bFunctionSubClass", "03"},
           {"iad_bInterfaceCount", "02"},
           {"power/async", "enabled"},
           {"power/runtime_active_kids", "0"},
           {"power/runtime_enabled", "enabled"},
           {"power/runtime_status", "suspended"},
           {"power/runtime_usage", "0"},
           {"supports_autosuspend", "1"}});
  }

  const int64_t pluggedFor = std::max<int64_t>(0, nowMs - camera.plugTimeMs);
  Attributes usb = {
      {"authorized", "1"},
      {"avoid_reset_quirk", "0"},
      {"bConfigurationValue", "1"},
      {"bDeviceClass", "ef"},
      {"bDeviceProtocol", "01"},
      {"bDeviceSubClass", "02"},
      {"bMaxPacketSize0", "64"},
      {"bMaxPower", "500mA"},
      {"bNumConfigurations", "1"},
      {"bNumInterfaces", " 3"},
      {"bcdDevice", "0100"},
      {"bmAttributes", "80"},
      {"busnum", "1"},
      {"configuration", ""},
      {"devnum", std::to_string(camera.devnum)},
      {"devpath", std::to_string(camera.port)},
      {"idProduct", hex4(camera.productId, false)},
      {"idVendor", hex4(camera.vendorId, false)},
      {"ltm_capable", "no"},
      {"manufacturer", camera.manufacturer},
      {"maxchild", "0"},
      {"power/active_duration", std::to_string(pluggedFor)},
      {"power/async", "enabled"},
      {"power/autosuspend", "2"},
      {"power/autosuspend_delay_ms", "2000"},
      {"power/connected_duration", std::to_string(pluggedFor)},
      {"power/control", "auto"},
      {"power/level", "auto"},
      {"power/persist", "1"},
      {"power/runtime_active_kids", "0"},
      {"power/runtime_active_time", std::to_string(pluggedFor / 2)},
      {"power/runtime_enabled", "enabled"},
      {"power/runtime_status", "active"},
      {"power/runtime_suspended_time", "0"},
      {"power/runtime_usage", "0"},
      {"product", camera.product},
      {"quirks", "0x0"},
      {"removable", "unknown"},
      {"remove", "(not readable)"},
      {"rx_lanes", "1"},
      {"serial", camera.serial},
      {"speed", "480"},
      {"tx_lanes", "1"},
      {"urbnum", "17"},
      {"version", " 2.00"},
  };
  // The video side's serial faults: the same USB device shown with another or
  // no serial to the video nodes only.
  if (node != WalkNode::Hidraw) {
    if (camera.videoWithoutSerial) {
      usb.erase("serial");
    } else if (!camera.videoSerial.empty()) {
      usb["serial"] = camera.videoSerial;
    }
  }
  block(out, usbDevicePath(camera), true, "1-" + std::to_string(camera.port), "usb", "usb", usb);

  const int64_t up = std::max<int64_t>(0, nowMs - state.startTimeMs);
  block(out, kRootHub, true, "usb1", "usb", "usb",
        {{"authorized", "1"},
         {"authorized_default", "1"},
         {"avoid_reset_quirk", "0"},
         {"bConfigurationValue", "1"},
         {"bDeviceClass", "09"},
         {"bDeviceProtocol", "01"},
         {"bDeviceSubClass", "00"},
         {"bMaxPacketSize0", "64"},
         {"bMaxPower", "0mA"},
         {"bNumConfigurations", "1"},
         {"bNumInterfaces", " 1"},
         {"bcdDevice", "0601"},
         {"bmAttributes", "e0"},
         {"busnum", "1"},
         {"configuration", ""},
         {"devnum", "1"},
         {"devpath", "0"},
         {"idProduct", "0002"},
         {"idVendor", "1d6b"},
         {"interface_authorized_default", "1"},
         {"ltm_capable", "no"},
         {"manufacturer", "Linux 6.1.0-56-amd64 vhci_hcd"},
         {"maxchild", "15"},
         {"power/active_duration", std::to_string(up)},
         {"power/async", "enabled"},
         {"power/autosuspend", "0"},
         {"power/autosuspend_delay_ms", "0"},
         {"power/connected_duration", std::to_string(up)},
         {"power/control", "auto"},
         {"power/level", "auto"},
         {"power/runtime_active_kids", state.cameras.empty() ? "0" : "1"},
         {"power/runtime_active_time", std::to_string(up)},
         {"power/runtime_enabled", "enabled"},
         {"power/runtime_status", "active"},
         {"power/runtime_suspended_time", "0"},
         {"power/runtime_usage", "0"},
         {"power/wakeup", "disabled"},
         {"power/wakeup_abort_count", ""},
         {"power/wakeup_active", ""},
         {"power/wakeup_active_count", ""},
         {"power/wakeup_count", ""},
         {"power/wakeup_expire_count", ""},
         {"power/wakeup_last_time_ms", ""},
         {"power/wakeup_max_time_ms", ""},
         {"power/wakeup_total_time_ms", ""},
         {"product", "USB/IP Virtual Host Controller"},
         {"quirks", "0x0"},
         {"removable", "unknown"},
         {"remove", "(not readable)"},
         {"rx_lanes", "1"},
         {"serial", "vhci_hcd.0"},
         {"speed", "480"},
         {"tx_lanes", "1"},
         {"urbnum", "69"},
         {"version", " 2.00"}});

  Attributes controller = nodePower();
  controller["attach"] = "(not readable)";
  controller["detach"] = "(not readable)";
  controller["driver_override"] = "(null)";
  controller["nports"] = "240";
  controller["power/runtime_active_kids"] = "1";
  controller["usbip_debug"] = "0";
  block(out, kHostController, true, "vhci_hcd.0", "platform", "vhci_hcd", controller);
  block(out, kPlatform, true, "platform", "", "", nodePower());
  return out;
}

}  // namespace tqsim
