// Shared set-up of the control and bootstrap tests: the process-wide camera
// objects, plugged emulated cameras, and real devices built from a discovery
// packet the way the device scan builds them. The ini file and the
// description-file cache live in a temporary directory for the whole binary.
#pragma once

#include <gtest/gtest.h>
#include <tqsim/Sim.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "control/TqUvcCtrlChan.h"
#include "pool/TqUvcDevice.h"

namespace ctltest {

constexpr std::chrono::milliseconds kWait{10000};

// The default camera on hidraw n and video 2n (metadata 2n + 1).
tqsim::CameraConfig cameraOn(int n, const std::string& serial);
const std::string& tempDir();
// Ends with '/'.
const std::string& cacheDir();
// Rewrites the ini file; devices read it when they are constructed.
void writeIni(bool autoConnect);
bool waitUntil(const std::function<bool()>& pred, std::chrono::milliseconds timeout = kWait);
// 40 lower-case hex digits.
std::string shaText(tqsim::CameraId id);

class ControlTest : public ::testing::Test {
 protected:
  void SetUp() override;
  // Destroys the devices (which unlink), then the camera objects, and empties the cache.
  void TearDown() override;

  tqsim::CameraId plug(const tqsim::CameraConfig& config);
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
