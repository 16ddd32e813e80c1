#include "Descriptors.h"

#include <algorithm>
#include <iterator>

#include "Camera.h"

namespace tqsim::usb {

namespace {

void put16(std::vector<uint8_t>& out, uint32_t value) {
  out.push_back(static_cast<uint8_t>(value));
  out.push_back(static_cast<uint8_t>(value >> 8));
}

void put32(std::vector<uint8_t>& out, uint32_t value) {
  put16(out, value & 0xFFFF);
  put16(out, value >> 16);
}

void set16(std::vector<uint8_t>& out, size_t at, size_t value) {
  out[at] = static_cast<uint8_t>(value);
  out[at + 1] = static_cast<uint8_t>(value >> 8);
}

uint32_t toHundredNs(const FrameInterval& interval) {
  if (interval.denominator == 0) return 0xFFFFFFFFu;
  const uint64_t value = (static_cast<uint64_t>(interval.numerator) * 10000000u + interval.denominator / 2) /
                         interval.denominator;
  return static_cast<uint32_t>(std::clamp<uint64_t>(value, 1, 0xFFFFFFFFu));
}

// The YUY2 GUID of the uncompressed format.
constexpr uint8_t kGuidYuy2[16] = {'Y',  'U',  'Y',  '2',  0x00, 0x00, 0x10, 0x00,
                                   0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};

void appendInterface(std::vector<uint8_t>& out, int number, uint8_t endpoints, uint8_t cls,
                     uint8_t subclass) {
  out.insert(out.end(), {9, 0x04, static_cast<uint8_t>(number), 0, endpoints, cls, subclass, 0, 0});
}

void appendEndpoint(std::vector<uint8_t>& out, uint8_t address, uint8_t attributes, uint16_t packetSize,
                    uint8_t interval) {
  out.insert(out.end(), {7, 0x05, address, attributes});
  put16(out, packetSize);
  out.push_back(interval);
}

void appendVideo(std::vector<uint8_t>& out, const CameraConfig& config, const InterfaceNumbers& numbers) {
  // Interface association: the two video interfaces form one function.
  out.insert(out.end(), {8, 0x0B, static_cast<uint8_t>(numbers.videoControl), 2, 0x0E, 0x03, 0x00, 0});

  // Video control: header, camera terminal, output terminal; no status
  // endpoint (the camera has no controls that change by themselves).
  appendInterface(out, numbers.videoControl, 0, 0x0E, 0x01);
  const size_t header = out.size();
  out.insert(out.end(), {13, 0x24, 0x01});
  put16(out, kUvcVersion);
  put16(out, 0);  // total length, set below
  put32(out, kUvcClockHz);
  out.insert(out.end(), {1, static_cast<uint8_t>(numbers.videoStreaming)});
  out.insert(out.end(), {18, 0x24, 0x02, kCameraTerminalId});
  put16(out, 0x0201);  // camera sensor
  out.insert(out.end(), {0, 0});
  put16(out, 0);
  put16(out, 0);
  put16(out, 0);
  out.insert(out.end(), {3, 0, 0, 0});
  out.insert(out.end(), {9, 0x24, 0x03, kOutputTerminalId});
  put16(out, 0x0101);  // USB streaming
  out.insert(out.end(), {0, kCameraTerminalId, 0});
  set16(out, header + 5, out.size() - header);

  // Video streaming: one alternate setting with the bulk endpoint.
  const std::vector<UvcFrame> frames = uvcFrames(config.video);
  appendInterface(out, numbers.videoStreaming, 1, 0x0E, 0x02);
  const size_t input = out.size();
  out.insert(out.end(), {14, 0x24, 0x01, 1});
  put16(out, 0);  // total length, set below
  out.insert(out.end(), {kVideoEndpoint, 0, kOutputTerminalId, 0, 0, 0, 1, 0});
  out.insert(out.end(), {27, 0x24, 0x04, 1, static_cast<uint8_t>(frames.size())});
  out.insert(out.end(), std::begin(kGuidYuy2), std::end(kGuidYuy2));
  out.insert(out.end(), {16, 1, 0, 0, 0, 0});
  for (size_t i = 0; i < frames.size(); ++i) {
    const UvcFrame& frame = frames[i];
    const size_t count = frame.continuous ? 3 : frame.intervals.size();
    out.insert(out.end(), {static_cast<uint8_t>(26 + 4 * count), 0x24, 0x05, static_cast<uint8_t>(i + 1), 0});
    put16(out, frame.width);
    put16(out, frame.height);
    const uint64_t bitsPerFrame = static_cast<uint64_t>(frame.frameBytes()) * 8;
    // A continuous range is min, max, step: the step is no rate.
    const auto rates =
        frame.intervals.begin() + (frame.continuous ? 2 : static_cast<long>(frame.intervals.size()));
    const uint32_t slowest = *std::max_element(frame.intervals.begin(), rates);
    const uint32_t fastest = *std::min_element(frame.intervals.begin(), rates);
    put32(out, static_cast<uint32_t>(std::min<uint64_t>(bitsPerFrame * 10000000u / slowest, 0xFFFFFFFFu)));
    put32(out, static_cast<uint32_t>(std::min<uint64_t>(bitsPerFrame * 10000000u / fastest, 0xFFFFFFFFu)));
    put32(out, frame.frameBytes());
    put32(out, frame.defaultInterval);
    out.push_back(frame.continuous ? 0 : static_cast<uint8_t>(count));
    for (uint32_t interval : frame.intervals) put32(out, interval);
  }
  out.insert(out.end(), {6, 0x24, 0x0D, 1, 1, 4});  // BT.709 primaries and transfer, SMPTE 170M matrix
  set16(out, input + 4, out.size() - input);
  appendEndpoint(out, kVideoEndpoint, 0x02, kBulkPacketSize, 0);
}

void appendHid(std::vector<uint8_t>& out, const InterfaceNumbers& numbers) {
  appendInterface(out, numbers.hid, 2, 0x03, 0x00);
  out.insert(out.end(), {9, 0x21});
  put16(out, 0x0111);
  out.insert(out.end(), {0, 1, 0x22});
  put16(out, sizeof kReportDescriptor);
  // bInterval 4 at high speed: every 8 microframes, 1 ms.
  appendEndpoint(out, kHidInEndpoint, 0x03, kHidPacketSize, 4);
  appendEndpoint(out, kHidOutEndpoint, 0x03, kHidPacketSize, 4);
}

}  // namespace

InterfaceNumbers interfaceNumbers(const Functions& functions) {
  InterfaceNumbers numbers;
  int next = 0;
  if (functions.video) {
    numbers.videoControl = next++;
    numbers.videoStreaming = next++;
  }
  if (functions.hid) numbers.hid = next;
  return numbers;
}

std::vector<UvcFrame> uvcFrames(const VideoConfig& video) {
  std::vector<UvcFrame> frames;
  for (const FrameSize& size : video.sizes) {
    if (frames.size() == 255) break;
    UvcFrame frame;
    frame.width = static_cast<uint16_t>(std::min<uint32_t>(size.width, 0xFFFF));
    frame.height = static_cast<uint16_t>(std::min<uint32_t>(size.height, 0xFFFF));
    frame.continuous = size.intervalKind != IntervalKind::Discrete && size.intervals.size() >= 3;
    const size_t count = frame.continuous ? 3 : std::min(size.intervals.size(), kMaxDiscreteIntervals);
    for (size_t i = 0; i < count; ++i) frame.intervals.push_back(toHundredNs(size.intervals[i]));
    if (frame.intervals.empty()) frame.intervals.push_back(toHundredNs(FrameInterval{}));
    frame.defaultInterval = frame.intervals.front();
    frames.push_back(std::move(frame));
  }
  return frames;
}

std::vector<uint8_t> deviceDescriptor(const CameraConfig& config, const Functions& functions) {
  std::vector<uint8_t> out = {18, 0x01};
  put16(out, 0x0200);
  // With the video function the device announces interface associations.
  if (functions.video) {
    out.insert(out.end(), {0xEF, 0x02, 0x01});
  } else {
    out.insert(out.end(), {0x00, 0x00, 0x00});
  }
  out.push_back(64);
  put16(out, config.vendorId);
  put16(out, config.productId);
  put16(out, 0x0100);
  out.push_back(config.manufacturer.empty() ? 0 : kStringManufacturer);
  out.push_back(config.product.empty() ? 0 : kStringProduct);
  out.push_back(kStringSerial);
  out.push_back(1);
  return out;
}

std::vector<uint8_t> deviceQualifier(const Functions& functions) {
  std::vector<uint8_t> out = {10, 0x06};
  put16(out, 0x0200);
  if (functions.video) {
    out.insert(out.end(), {0xEF, 0x02, 0x01});
  } else {
    out.insert(out.end(), {0x00, 0x00, 0x00});
  }
  out.insert(out.end(), {64, 1, 0});
  return out;
}

std::vector<uint8_t> configurationDescriptor(const CameraConfig& config, const Functions& functions) {
  const InterfaceNumbers numbers = interfaceNumbers(functions);
  const int interfaces = (functions.video ? 2 : 0) + (functions.hid ? 1 : 0);
  // Bus powered, 500 mA.
  std::vector<uint8_t> out = {9, 0x02, 0, 0, static_cast<uint8_t>(interfaces), 1, 0, 0x80, 250};
  if (functions.video) appendVideo(out, config, numbers);
  if (functions.hid) appendHid(out, numbers);
  set16(out, 2, out.size());
  return out;
}

std::vector<uint8_t> otherSpeedConfiguration(const CameraConfig& config, const Functions& functions) {
  std::vector<uint8_t> out = configurationDescriptor(config, functions);
  out[1] = 0x07;
  for (size_t at = 0; at + 6 < out.size() && out[at] != 0; at += out[at]) {
    if (out[at + 1] != 0x05) continue;
    const uint8_t transfer = out[at + 3] & 0x03;
    if (transfer == 0x02) set16(out, at + 4, 64);
    if (transfer == 0x03) out[at + 6] = 1;
  }
  return out;
}

const std::vector<uint8_t>& hidReportDescriptor() {
  static const std::vector<uint8_t> descriptor(std::begin(kReportDescriptor), std::end(kReportDescriptor));
  return descriptor;
}

std::vector<uint8_t> utf16Descriptor(const std::string& text) {
  std::vector<uint16_t> units;
  for (size_t i = 0; i < text.size() && units.size() < 126;) {
    const auto byte = static_cast<uint8_t>(text[i]);
    uint32_t code = 0xFFFD;
    size_t length = 1;
    if (byte < 0x80) {
      code = byte;
    } else if ((byte & 0xE0) == 0xC0) {
      length = 2;
    } else if ((byte & 0xF0) == 0xE0) {
      length = 3;
    } else if ((byte & 0xF8) == 0xF0) {
      length = 4;
    }
    if (length > 1) {
      if (i + length > text.size()) {
        length = 1;
      } else {
        code = byte & (0x7F >> length);
        for (size_t k = 1; k < length; ++k) {
          const auto next = static_cast<uint8_t>(text[i + k]);
          if ((next & 0xC0) != 0x80) {
            code = 0xFFFD;
            length = 1;
            break;
          }
          code = (code << 6) | (next & 0x3F);
        }
      }
    }
    i += length;
    if (code >= 0x10000 && code <= 0x10FFFF) {
      if (units.size() + 2 > 126) break;
      code -= 0x10000;
      units.push_back(static_cast<uint16_t>(0xD800 | (code >> 10)));
      units.push_back(static_cast<uint16_t>(0xDC00 | (code & 0x3FF)));
    } else {
      units.push_back(static_cast<uint16_t>(code > 0xFFFF ? 0xFFFD : code));
    }
  }
  std::vector<uint8_t> out = {static_cast<uint8_t>(2 + 2 * units.size()), 0x03};
  for (uint16_t unit : units) put16(out, unit);
  return out;
}

std::vector<uint8_t> stringDescriptor(const CameraConfig& config, const std::string& serial, uint8_t index) {
  switch (index) {
    case 0:
      return {4, 0x03, 0x09, 0x04};  // English (US)
    case kStringManufacturer:
      return config.manufacturer.empty() ? std::vector<uint8_t>{} : utf16Descriptor(config.manufacturer);
    case kStringProduct:
      return config.product.empty() ? std::vector<uint8_t>{} : utf16Descriptor(config.product);
    case kStringSerial:
      return utf16Descriptor(serial);
    default:
      return {};
  }
}

}  // namespace tqsim::usb
