// Shared set-up of the tests that run against the emulated camera. DevicePool
// lives for the whole binary, so tests find their cameras by identity instead
// of assuming indices.
#pragma once

#include <gtest/gtest.h>
#include <tqsim/Sim.h>

#include <memory>
#include <string>

#include "SimCamera.h"
#include "hid/KOR_HID.h"
#include "hid/Vexa_HID.h"

namespace hidtest {

constexpr unsigned short kVid = 0x7A3D;
constexpr unsigned short kPid = 0x0203;

using tqtest::cameraOn;
using tqtest::plug;

// Index of the DevicePool record enumeration made for that camera, -1 if none.
int indexOf(const std::string& serial, int video, int hidraw);

class SimTest : public tqtest::SimFixture {
 protected:
  // Closes every attached device and forgets the cameras.
  void TearDown() override;
};

// One camera on hidraw0/video0, enumerated, with a Vexa_HID opened on it.
class VexaHidTest : public SimTest {
 protected:
  void SetUp() override;
  void TearDown() override {
    hid_.reset();
    SimTest::TearDown();
  }

  tqsim::CameraId sim_ = tqsim::kNoCamera;
  uint8_t cam_ = 0;
  std::unique_ptr<Vexa_HID> hid_;
};

}  // namespace hidtest
