// The USB descriptors of the camera as a high-speed device: device,
// configuration (IAD + UVC 1.1 video control and streaming, vendor HID),
// strings and the HID report descriptor, built from a camera record.
#pragma once

#include <tqsim/CameraConfig.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tqsim::usb {

// Endpoint addresses.
constexpr uint8_t kVideoEndpoint = 0x81;   // bulk IN, the video stream
constexpr uint8_t kHidInEndpoint = 0x82;   // interrupt IN, input reports
constexpr uint8_t kHidOutEndpoint = 0x02;  // interrupt OUT, output reports
constexpr uint16_t kBulkPacketSize = 512;
constexpr uint16_t kHidPacketSize = 64;

// Terminal ids of the video function.
constexpr uint8_t kCameraTerminalId = 1;
constexpr uint8_t kOutputTerminalId = 2;

// String indexes.
constexpr uint8_t kStringManufacturer = 1;
constexpr uint8_t kStringProduct = 2;
constexpr uint8_t kStringSerial = 3;

constexpr uint16_t kUvcVersion = 0x0110;
constexpr uint32_t kUvcClockHz = 48000000;

// Which functions one USB device carries. The camera is normally one device
// with both; a fault can split them over two devices.
struct Functions {
  bool video = true;
  bool hid = true;
};

// Interface numbers of a layout: video control, video streaming, HID (-1
// when the function is absent).
struct InterfaceNumbers {
  int videoControl = -1;
  int videoStreaming = -1;
  int hid = -1;
};
InterfaceNumbers interfaceNumbers(const Functions& functions);

// The frame sizes the video function offers, in descriptor order (frame
// index i + 1), and the interval (100 ns units) lists per size: discrete
// lists, or min/max/step for stepwise and continuous rates.
struct UvcFrame {
  uint16_t width = 0;
  uint16_t height = 0;
  bool continuous = false;          // intervals holds min, max, step
  std::vector<uint32_t> intervals;  // 100 ns units
  uint32_t defaultInterval = 0;
  uint32_t frameBytes() const { return static_cast<uint32_t>(width) * height * 2; }
};
// At most 255 frames, sides up to 65535, and as many discrete intervals a
// size as fit a frame descriptor's one-byte length (26 + 4 per interval).
constexpr size_t kMaxDiscreteIntervals = (255 - 26) / 4;
std::vector<UvcFrame> uvcFrames(const VideoConfig& video);

std::vector<uint8_t> deviceDescriptor(const CameraConfig& config, const Functions& functions);
std::vector<uint8_t> deviceQualifier(const Functions& functions);
// The configuration as it would be at full speed (the qualifier says the
// device can run there): bulk packets of 64 bytes, interrupt every 1 ms.
std::vector<uint8_t> otherSpeedConfiguration(const CameraConfig& config, const Functions& functions);
std::vector<uint8_t> configurationDescriptor(const CameraConfig& config, const Functions& functions);
const std::vector<uint8_t>& hidReportDescriptor();
// String descriptor `index` (0: the language list); empty when there is none.
std::vector<uint8_t> stringDescriptor(const CameraConfig& config, const std::string& serial, uint8_t index);

// UTF-8 to a string descriptor (UTF-16LE, at most 126 units); invalid bytes
// become U+FFFD.
std::vector<uint8_t> utf16Descriptor(const std::string& text);

}  // namespace tqsim::usb
