// Shared set-up of the capture tests: an emulated camera on /dev/video0 and a
// frame sink that checks every frame against the emulated test pattern.
#pragma once

#include <gtest/gtest.h>
#include <tqsim/FramePattern.h>
#include <tqsim/Sim.h>
#include <tqsim/VideoStatus.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <vector>

#include "LogCapture.h"
#include "SimCamera.h"
#include "TestUtil.h"
#include "video/KOR_UVC.h"

namespace videotest {

using namespace std::chrono_literals;
using tqtest::plug;
using tqtest::waitUntil;

// One frame as a callback saw it.
struct Frame {
  int size, cameraIndex;
  bool patternOk;
  uint32_t number;
};

// Collects frames from either kind of callback; thread-safe.
class FrameSink {
 public:
  void add(const void* data, int size, int cameraIndex) {
    Frame f{size, cameraIndex, false, 0};
    f.patternOk =
        data && size > 0 && tqsim::verifyFrame(static_cast<const uint8_t*>(data), size_t(size), &f.number);
    std::lock_guard<std::mutex> lock(mutex_);
    frames_.push_back(f);
    added_.notify_all();
  }
  std::vector<Frame> frames() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return frames_;
  }
  bool waitFor(const std::function<bool(const std::vector<Frame>&)>& done,
               std::chrono::milliseconds timeout = 3s) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return added_.wait_for(lock, timeout, [&] { return done(frames_); });
  }
  bool waitForFrames(size_t n) const {
    return waitFor([n](const std::vector<Frame>& f) { return f.size() >= n; });
  }

  static int captureCallback(unsigned char* data, int size, int cameraIndex, void* context) {
    static_cast<FrameSink*>(context)->add(data, size, cameraIndex);
    return 0;
  }
  static void bufferCallback(char* data, int size, void* context) {
    static_cast<FrameSink*>(context)->add(data, size, -1);
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable added_;
  std::vector<Frame> frames_;
};

// Every line starting with `prefix` comes from the library's "UVCLib" source
// at `level`, and at least one was written.
struct LoggedAs {
  const char* prefix;
  unsigned level;
};
inline void expectLoggedAs(const tqtest::LogCapture& log, const std::vector<LoggedAs>& expected) {
  const auto lines = log.lines();
  for (const auto& e : expected) {
    size_t seen = 0;
    for (const auto& l : lines) {
      if (l.text.rfind(e.prefix, 0) != 0) continue;
      ++seen;
      EXPECT_EQ(l.source, "UVCLib") << l.text;
      EXPECT_EQ(l.level, e.level) << l.text;
    }
    EXPECT_GT(seen, 0u) << "never logged: " << e.prefix;
  }
}

class VideoSimTest : public tqtest::SimFixture {
 protected:
  // Closes every capture object a test left in the table.
  void TearDown() override {
    for (unsigned char i = 0; i < KOR_UVC_MAX_CAMERAS; ++i)
      if (capture_thread[i]) KOR_UVC_StreamClose(i);
    SimFixture::TearDown();
  }
  static void setFaults(tqsim::CameraId id, const std::function<void(tqsim::VideoFaults&)>& change) {
    tqsim::CameraConfig config;
    ASSERT_TRUE(tqsim::cameraConfig(id, config));
    change(config.videoFaults);
    ASSERT_TRUE(tqsim::setVideoFaults(id, config.videoFaults));
  }
};

}  // namespace videotest
