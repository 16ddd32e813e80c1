// One emulated camera and one device on it, built the way the pool builds
// them. The ini file and the description-file cache live in a temporary
// directory for the whole binary ($TQ_INI_FILE, $TQ_XML_CACHE).
#pragma once

#include <gtest/gtest.h>
#include <tqsim/Sim.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "LogCapture.h"
#include "pool/TqUvcDevice.h"

namespace bstest {

// The temporary directory and the cache directory inside it (ends with '/').
const std::string& tempDir();
const std::string& cacheDir();
// Rewrites the ini file; devices read it when they are constructed.
void writeIni(bool autoConnect);

// Polls pred every few milliseconds until it holds or the time-out passed.
bool waitUntil(const std::function<bool()>& pred, std::chrono::milliseconds timeout);

// The camera's SHA-1 as 40 lower-case hex digits.
std::string shaText(tqsim::CameraId id);

class DeviceTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  // Called before the camera is plugged: change what a test needs.
  virtual void configure(tqsim::CameraConfig& /*config*/) {}
  // Settings the device reads at construction.
  virtual bool autoConnect() const { return false; }

  // Connects the device's control channel; failure fails the test.
  void connect();

  tqsim::CameraId sim_ = tqsim::kNoCamera;
  std::unique_ptr<TqUvcDevice> dev_;
  tqtest::LogCapture log_;
};

}  // namespace bstest
