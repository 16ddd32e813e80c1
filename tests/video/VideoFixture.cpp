#include "VideoFixture.h"

#include <tqsim/FramePattern.h>

#include <thread>

#include "video/KOR_UVC.h"

namespace videotest {

bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(2ms);
  }
  return true;
}

void FrameSink::add(const unsigned char* data, int size, int cameraIndex) {
  Frame frame;
  frame.size = size;
  frame.cameraIndex = cameraIndex;
  frame.patternOk = data && size > 0 && tqsim::verifyFrame(data, static_cast<size_t>(size), &frame.number);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    frames_.push_back(frame);
  }
  added_.notify_all();
}

std::vector<Frame> FrameSink::frames() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return frames_;
}

size_t FrameSink::count() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return frames_.size();
}

bool FrameSink::waitForFrames(size_t n, std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return added_.wait_for(lock, timeout, [&] { return frames_.size() >= n; });
}

int FrameSink::captureCallback(unsigned char* data, int size, int cameraIndex, void* context) {
  static_cast<FrameSink*>(context)->add(data, size, cameraIndex);
  return 0;
}

void FrameSink::bufferCallback(char* data, int size, void* context) {
  static_cast<FrameSink*>(context)->add(reinterpret_cast<unsigned char*>(data), size, -1);
}

void VideoSimTest::SetUp() { tqsim::reset(); }

void VideoSimTest::TearDown() {
  for (unsigned char i = 0; i < KOR_UVC_MAX_CAMERAS; ++i)
    if (capture_thread[i]) KOR_UVC_StreamClose(i);
  tqsim::reset();
}

tqsim::CameraId VideoSimTest::plug(const tqsim::CameraConfig& config) {
  std::string error;
  tqsim::CameraId id = tqsim::plugCamera(config, &error);
  EXPECT_NE(id, tqsim::kNoCamera) << error;
  return id;
}

void VideoSimTest::setFaults(tqsim::CameraId id, const std::function<void(tqsim::VideoFaults&)>& change) {
  tqsim::CameraConfig config;
  ASSERT_TRUE(tqsim::cameraConfig(id, config));
  change(config.videoFaults);
  ASSERT_TRUE(tqsim::setVideoFaults(id, config.videoFaults));
}

}  // namespace videotest
