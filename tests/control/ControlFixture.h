// Control, bootstrap and stream tests: devices built from a discovery packet as the scan
// builds them; the ini file and description-file cache in a temporary directory.
#pragma once

#include <gtest/gtest.h>
#include <tqsim/Sim.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "SimCamera.h"
#include "TestUtil.h"
#include "control/TqUvcCtrlChan.h"
#include "pool/TqUvcDevice.h"

namespace ctltest {

constexpr std::chrono::milliseconds kWait{10000};

using tqtest::plug;
using tqtest::shaText;
using tqtest::waitUntil;

// The default camera on hidraw n and video 2n (metadata 2n + 1).
inline tqsim::CameraConfig cameraOn(int n, const std::string& serial) {
  return tqtest::cameraOn(n, 2 * n, serial);
}
const std::string& tempDir();
// Ends with '/'.
const std::string& cacheDir();
// Rewrites the ini file; devices read it when they are constructed.
void writeIni(bool autoConnect);

class ControlTest : public ::testing::Test {
 protected:
  void SetUp() override;
  // Destroys the devices (which unlink), then the camera objects, and empties the cache.
  void TearDown() override;

  // The camera index of serial, -1 if none.
  int enumerate(const std::string& serial);
  TqUvcDevice& makeDevice(const std::string& serial, int camIndex,
                          const char* interfaceText = "UVC HID Device");
  // Plugs the camera (remembered in sim_), enumerates it and makes its device.
  TqUvcDevice& deviceFor(const tqsim::CameraConfig& config);
  size_t reports() { return tqsim::receivedReports(sim_).size(); }

  tqsim::CameraId sim_ = tqsim::kNoCamera;
  std::vector<std::unique_ptr<TqUvcDevice>> devices_;
  tqtest::LogCapture log_;
};

// One camera and its device, made with the ini's AutoConnect set as asked.
class DeviceTest : public ControlTest {
 protected:
  void SetUp() override;
  virtual void configure(tqsim::CameraConfig& /*config*/) {}
  virtual bool autoConnect() const { return false; }
  void connect() { ASSERT_EQ(dev_->GetCtrlChan()->Connect(dev_->GetDiscData(), true), 0U); }
  TqUvcCtrlChan& chan() { return *dev_->GetCtrlChan(); }

  TqUvcDevice* dev_ = nullptr;
};

}  // namespace ctltest
