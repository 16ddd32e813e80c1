// Shared set-up of the capture tests: an emulated camera on /dev/video0 (with
// its metadata node on /dev/video1) and a frame sink that checks every frame
// against the test pattern.
#pragma once

#include <gtest/gtest.h>
#include <tqsim/Sim.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <vector>

namespace videotest {

using namespace std::chrono_literals;

constexpr const char* kCapturePath = "/dev/video0";
constexpr const char* kMetadataPath = "/dev/video1";

// Polls `done` until it holds or the deadline passes.
bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);

// One frame as a callback saw it.
struct Frame {
  int size = 0;
  int cameraIndex = -1;
  bool patternOk = false;
  uint32_t number = 0;
};

// Collects frames from any callback; thread-safe.
class FrameSink {
 public:
  void add(const unsigned char* data, int size, int cameraIndex);
  std::vector<Frame> frames() const;
  size_t count() const;
  bool waitForFrames(size_t n, std::chrono::milliseconds timeout) const;

  // Capture-thread callback; context is the sink.
  static int captureCallback(unsigned char* data, int size, int cameraIndex, void* context);
  // Facade callback; context is the sink.
  static void bufferCallback(char* data, int size, void* context);

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable added_;
  std::vector<Frame> frames_;
};

class VideoSimTest : public ::testing::Test {
 protected:
  void SetUp() override;
  // Closes every capture object left in the table and forgets the cameras.
  void TearDown() override;
  tqsim::CameraId plug(const tqsim::CameraConfig& config);
  tqsim::CameraId plugDefault() { return plug(tqsim::defaultCameraConfig()); }
  void setFaults(tqsim::CameraId id, const std::function<void(tqsim::VideoFaults&)>& change);
};

}  // namespace videotest
