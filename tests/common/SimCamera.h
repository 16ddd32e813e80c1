// Emulated cameras for tests: a fixture that starts and ends with none
// plugged, and cameras moved to other node numbers.
#pragma once

#include <gtest/gtest.h>
#include <tqsim/Sim.h>

#include <cstdio>
#include <string>

namespace tqtest {

// The default camera on other nodes (metadata on video + 1), with its own
// serial unless `serial` is empty.
inline tqsim::CameraConfig cameraOn(int hidraw, int video, const std::string& serial = {}) {
  tqsim::CameraConfig config = tqsim::defaultCameraConfig();
  config.hidrawNumber = hidraw;
  config.videoNumber = video;
  config.metadataVideoNumber = video + 1;
  if (!serial.empty()) config.serial = serial;
  return config;
}

// Plugs a camera; a refusal fails the test.
inline tqsim::CameraId plug(const tqsim::CameraConfig& config = tqsim::defaultCameraConfig()) {
  std::string error;
  const tqsim::CameraId id = tqsim::plugCamera(config, &error);
  EXPECT_NE(id, tqsim::kNoCamera) << error;
  return id;
}

// The description file's SHA-1 as 40 lower-case hex digits.
inline std::string shaText(tqsim::CameraId id) {
  std::string text;
  char digits[3];
  for (uint8_t b : tqsim::xmlSha1(id)) {
    std::snprintf(digits, sizeof digits, "%02x", b);
    text += digits;
  }
  return text;
}

class SimFixture : public ::testing::Test {
 protected:
  void SetUp() override { tqsim::reset(); }
  void TearDown() override { tqsim::reset(); }
};

}  // namespace tqtest
