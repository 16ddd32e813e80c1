#include "HidFixture.h"

namespace hidtest {

int indexOf(const std::string& serial, int video, int hidraw) {
  const std::string key =
      serial + "-/dev/video" + std::to_string(video) + "-/dev/hidraw" + std::to_string(hidraw);
  for (size_t i = 0; i < DevicePool.size(); ++i)
    if (DevicePool[i].sIdentity == key) return static_cast<int>(i);
  return -1;
}

void SimTest::TearDown() {
  for (size_t i = 0; i < DevicePool.size() && i < 256; ++i) KOR_HID_Close(static_cast<uint8_t>(i));
  SimFixture::TearDown();
}

void VexaHidTest::SetUp() {
  SimTest::SetUp();
  tqsim::CameraConfig config = cameraOn(0, 0, "VEXA");
  config.registers[0x0010] = 0xA1B2C3D4;
  config.registers[0x0020] = 222;
  config.memory[0x0520] = "Emu Model";
  config.memory[0x0540] = std::string(70, 'm');
  config.memory[0x05B0] = "short";
  sim_ = plug(config);
  ASSERT_EQ(KOR_HID_Enumerate(kVid, kPid), 1);
  int index = indexOf("VEXA", 0, 0);
  ASSERT_GE(index, 0);
  cam_ = static_cast<uint8_t>(index);
  hid_ = std::make_unique<Vexa_HID>();
  ASSERT_EQ(hid_->Init(), 0);
  ASSERT_EQ(hid_->Open(cam_), 0);
  tqsim::clearReceivedReports(sim_);
}

}  // namespace hidtest
