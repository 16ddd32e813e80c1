#include <tqsim/Sim.h>

#include "Camera.h"

namespace tqsim {

extern const unsigned char kEmbeddedXml[];
extern const size_t kEmbeddedXmlSize;

const std::vector<uint8_t>& builtInXml() {
  static const std::vector<uint8_t> xml(kEmbeddedXml, kEmbeddedXml + kEmbeddedXmlSize);
  return xml;
}

CameraConfig defaultCameraConfig() {
  CameraConfig config;
  config.registers = {
      {kRegAcquisitionStart, 0}, {kRegLinePitch, 1280 * 2}, {kRegWidth, 1280},
      {kRegHeight, 960},         {kRegOffsetX, 0},          {kRegOffsetY, 0},
  };
  // Version 1.2.3.42: bytes 3 and 4 form the last number (high, low).
  config.memory = {
      {kMemManufacturer, config.manufacturer},
      {kMemModel, config.product},
      {kMemFamily, "Emu UVC"},
      {kMemManufacturerInfo, "Emulated camera"},
      {kMemDeviceVersion, "1.2.3.42"},
      {kMemVersionBytes, std::string("\x01\x02\x03\x00\x2A", 5)},
      {kMemSerial, config.serial},
  };
  config.xmlFile = builtInXml();
  config.video.sizeKind = SizeKind::Discrete;
  for (auto [width, height] : {std::pair<uint32_t, uint32_t>{1280, 960}, {640, 480}, {320, 240}}) {
    FrameSize size;
    size.width = width;
    size.height = height;
    size.intervals = {{1, 30}, {1, 15}};
    config.video.sizes.push_back(size);
  }
  return config;
}

}  // namespace tqsim
