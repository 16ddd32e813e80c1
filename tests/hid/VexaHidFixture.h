// One camera on hidraw0/video0, enumerated, with a Vexa_HID opened on it.
#pragma once

#include <memory>

#include "HidFixture.h"
#include "hid/Vexa_HID.h"

namespace hidtest {

class VexaHidTest : public SimTest {
 protected:
  void SetUp() override;
  void TearDown() override;
  // Configuration of the camera before it is plugged.
  virtual void configure(tqsim::CameraConfig&) {}

  tqsim::CameraId sim_ = tqsim::kNoCamera;
  uint8_t cam_ = 0;
  std::unique_ptr<Vexa_HID> hid_;
};

}  // namespace hidtest
