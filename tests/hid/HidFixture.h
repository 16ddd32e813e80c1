// Shared set-up of the tests that run against the emulated camera. DevicePool
// lives for the whole binary, so tests find their cameras by identity instead
// of assuming indices.
#pragma once

#include <gtest/gtest.h>
#include <tqsim/Sim.h>

#include <string>

namespace hidtest {

constexpr unsigned short kVid = 0x7A3D;
constexpr unsigned short kPid = 0x0203;

// The default camera moved to other node numbers, with its own serial.
tqsim::CameraConfig cameraOn(int hidraw, int video, const std::string& serial);

// Identity key of a camera as enumeration builds it.
std::string identity(const std::string& serial, int video, int hidraw);

// Index of the DevicePool record with that identity, -1 when there is none.
int indexOf(const std::string& identityKey);

class SimTest : public ::testing::Test {
 protected:
  void SetUp() override;
  // Closes every attached device and forgets the cameras.
  void TearDown() override;
  // Plugs a camera; a failure to plug fails the test.
  tqsim::CameraId plug(const tqsim::CameraConfig& config);
};

}  // namespace hidtest
