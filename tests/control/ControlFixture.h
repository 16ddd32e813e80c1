// Shared set-up of the control tests: the process-wide camera objects, plugged
// emulated cameras, and real devices built from a discovery packet the way the
// device scan builds them.
#pragma once

#include <gtest/gtest.h>
#include <tqsim/Sim.h>

#include <memory>
#include <string>
#include <vector>

#include "control/TqUvcCtrlChan.h"
#include "pool/TqUvcDevice.h"

namespace ctltest {

constexpr unsigned short kVid = 0x7A3D;
constexpr unsigned short kPid = 0x0203;
constexpr char kHidProduct[] = "UVC HID Device";

// The default camera on hidraw n and video 2n (metadata 2n + 1).
tqsim::CameraConfig cameraOn(int n, const std::string& serial);

class ControlTest : public ::testing::Test {
 protected:
  void SetUp() override;
  // Destroys the devices (which unlink), then the camera objects.
  void TearDown() override;

  tqsim::CameraId plug(const tqsim::CameraConfig& config);
  // Enumerates through the access layer; the camera index of serial, -1 if none.
  int enumerate(const std::string& serial);
  // A device for the camera at index, as the scan would make it.
  TqUvcDevice& makeDevice(const std::string& serial, int camIndex, const char* interfaceText = kHidProduct);
  // Plugs the camera, enumerates it and makes its device.
  TqUvcDevice& deviceFor(const tqsim::CameraConfig& config);

  std::vector<std::unique_ptr<TqUvcDevice>> devices_;
};

}  // namespace ctltest
