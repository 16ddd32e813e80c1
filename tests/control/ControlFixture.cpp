#include "ControlFixture.h"

#include <cstring>

#include "control/VexaHID_Interface.h"
#include "pool/TqUvcDiscPkt.h"

namespace ctltest {

tqsim::CameraConfig cameraOn(int n, const std::string& serial) {
  tqsim::CameraConfig config = tqsim::defaultCameraConfig();
  config.hidrawNumber = n;
  config.videoNumber = 2 * n;
  config.metadataVideoNumber = 2 * n + 1;
  config.serial = serial;
  return config;
}

void ControlTest::SetUp() {
  tqsim::reset();
  ASSERT_EQ(TqUvcCreateHidDevice(), 0);
}

void ControlTest::TearDown() {
  devices_.clear();
  TqUvcDeleteHidDevice();
  tqsim::reset();
}

tqsim::CameraId ControlTest::plug(const tqsim::CameraConfig& config) {
  std::string error;
  tqsim::CameraId id = tqsim::plugCamera(config, &error);
  EXPECT_NE(id, tqsim::kNoCamera) << error;
  return id;
}

int ControlTest::enumerate(const std::string& serial) {
  int count = 0;
  if (TqUvcEnumerateHidDevice(&count) != 0) return -1;
  int found = -1;
  int index = -1;
  for (int rc = TqUvcGetFirstHidDevice(&index); rc == 0; rc = TqUvcGetNextHidDevice(&index)) {
    char text[64] = {};
    TqUvcGetSerialNumberHidDevice(index, text, sizeof text);
    if (serial == text) found = index;
  }
  return found;
}

TqUvcDevice& ControlTest::makeDevice(const std::string& serial, int camIndex, const char* interfaceText) {
  TqUvcDiscPkt pkt;
  _tagTqUvccpDiscData* disc = pkt.GetDiscData();
  disc->Vid = kVid;
  disc->Pid = kPid;
  disc->HIDCamIndex = static_cast<uint32_t>(camIndex);
  std::strncpy(disc->SerialNr, serial.c_str(), sizeof disc->SerialNr - 1);
  std::strncpy(disc->InterfaceText, interfaceText, sizeof disc->InterfaceText - 1);
  devices_.push_back(std::make_unique<TqUvcDevice>(&pkt));
  return *devices_.back();
}

TqUvcDevice& ControlTest::deviceFor(const tqsim::CameraConfig& config) {
  plug(config);
  const int index = enumerate(config.serial);
  EXPECT_GE(index, 0);
  return makeDevice(config.serial, index);
}

}  // namespace ctltest
