#include "HidFixture.h"

#include "VexaHidFixture.h"
#include "hid/KOR_HID.h"

namespace hidtest {

tqsim::CameraConfig cameraOn(int hidraw, int video, const std::string& serial) {
  tqsim::CameraConfig config = tqsim::defaultCameraConfig();
  config.hidrawNumber = hidraw;
  config.videoNumber = video;
  config.metadataVideoNumber = video + 1;
  config.serial = serial;
  return config;
}

std::string identity(const std::string& serial, int video, int hidraw) {
  return serial + "-/dev/video" + std::to_string(video) + "-/dev/hidraw" + std::to_string(hidraw);
}

int indexOf(const std::string& identityKey) {
  for (size_t i = 0; i < DevicePool.size(); ++i)
    if (DevicePool[i].sIdentity == identityKey) return static_cast<int>(i);
  return -1;
}

void SimTest::SetUp() { tqsim::reset(); }

void SimTest::TearDown() {
  for (size_t i = 0; i < DevicePool.size() && i < 256; ++i) KOR_HID_Close(static_cast<uint8_t>(i));
  tqsim::reset();
}

tqsim::CameraId SimTest::plug(const tqsim::CameraConfig& config) {
  std::string error;
  tqsim::CameraId id = tqsim::plugCamera(config, &error);
  EXPECT_NE(id, tqsim::kNoCamera) << error;
  return id;
}

void VexaHidTest::SetUp() {
  SimTest::SetUp();
  tqsim::CameraConfig config = cameraOn(0, 0, "VEXA");
  configure(config);
  sim_ = plug(config);
  ASSERT_EQ(KOR_HID_Enumerate(kVid, kPid), 1);
  int index = indexOf(identity("VEXA", 0, 0));
  ASSERT_GE(index, 0);
  cam_ = static_cast<uint8_t>(index);
  hid_ = std::make_unique<Vexa_HID>();
  ASSERT_EQ(hid_->Init(), 0);
  ASSERT_EQ(hid_->Open(cam_), 0);
  tqsim::clearReceivedReports(sim_);
}

void VexaHidTest::TearDown() {
  hid_.reset();
  SimTest::TearDown();
}

}  // namespace hidtest
