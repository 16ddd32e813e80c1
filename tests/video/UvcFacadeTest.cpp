// The capture functions by camera number and the Vexa_UVC facade.
#include <atomic>
#include <functional>
#include <thread>
#include <utility>
#include <vector>

#include "VideoFixture.h"
#include "video/Vexa_UVC.h"

namespace videotest {
namespace {

class UvcFacadeTest : public VideoSimTest {
 protected:
  _Formats list_[LIST_MAX_NUM + 1] = {};
  int count_ = -1;
  char path_[16] = "/dev/video0";
};

TEST_F(UvcFacadeTest, NumbersNotOpenedOrPastTheTableAreRefusedWithMinus20) {
  int a = 7, b = 7, c = 7;
  const std::vector<std::pair<const char*, std::function<int(unsigned char)>>> calls = {
      {"start", [](unsigned char i) { return KOR_UVC_StreamStart(i); }},
      {"callback", [](unsigned char i) { return KOR_UVC_SetCallbackStream(i, nullptr, nullptr); }},
      {"stop", [](unsigned char i) { return KOR_UVC_StreamStop(i); }},
      {"close", [](unsigned char i) { return KOR_UVC_StreamClose(i); }},
      {"list", [&](unsigned char i) { return KOR_UVC_StreamGetResolutionList(i, list_, &a); }},
      {"get format", [&](unsigned char i) { return KOR_UVC_StreamGetFrameFormat(i, &a, &b, &c); }},
      {"set format", [](unsigned char i) { return KOR_UVC_StreamSetFrameFormat(i, 640, 480); }},
  };
  plug();
  for (unsigned char index : {0, 15, 16, 255}) {
    for (const auto& [name, call] : calls) EXPECT_EQ(call(index), -20) << name << " " << int(index);
  }
  EXPECT_EQ(a, 7);
  for (unsigned char index : {16, 255}) EXPECT_EQ(KOR_UVC_StreamOpen(index, path_), -20);
  // Number 15 is the last one that works.
  EXPECT_EQ(KOR_UVC_StreamOpen(15, path_), 0);
  EXPECT_EQ(KOR_UVC_StreamClose(15), 0);
}

TEST_F(UvcFacadeTest, SecondOpenIsRefusedWithMinus21AlsoAfterAFailedOpen) {
  plug();
  char missing[] = "/dev/video9";
  EXPECT_EQ(KOR_UVC_StreamOpen(1, path_), 0);
  EXPECT_EQ(KOR_UVC_StreamOpen(1, path_), -21);
  EXPECT_EQ(KOR_UVC_StreamOpen(2, missing), -22);
  EXPECT_EQ(KOR_UVC_StreamOpen(2, path_), -21);
  EXPECT_EQ(KOR_UVC_StreamClose(2), 0);
  EXPECT_EQ(KOR_UVC_StreamOpen(2, path_), 0);
}

TEST_F(UvcFacadeTest, OpenListsSizesAndFramesWithoutCallbackAreDroppedUntilOneIsRegistered) {
  tqsim::CameraId id = plug();
  tqtest::LogCapture log;
  Vexa_UVC uvc;
  FrameSink other, sink;
  uvc.RegisterNewBufferCallback(5, &FrameSink::bufferCallback, &other);
  ASSERT_EQ(uvc.OpenStreaming(6, path_, list_, &count_), 0);
  ASSERT_EQ(count_, 3);
  EXPECT_EQ(list_[1].width, 640);
  EXPECT_EQ(list_[1].height, 480);
  uvc.SetStreamingFrameFormat(6, 640, 480);
  int w = 0, h = 0, line = 0;
  uvc.GetStreamingFrameFormat(6, &w, &h, &line);
  EXPECT_EQ(std::vector<int>({w, h, line}), std::vector<int>({640, 480, 1280}));
  ASSERT_EQ(uvc.StartStreaming(6), 0);
  EXPECT_EQ(uvc.StartStreaming(6), -23);
  ASSERT_TRUE(log.waitFor("Vexa_UVC::NewBufferCallBack: callback function not defned yet: ", 3s));
  EXPECT_EQ(uvc.frameCount(), 0u);

  // Registration while streaming: the capture thread picks it up.
  uvc.RegisterNewBufferCallback(6, &FrameSink::bufferCallback, &sink);
  ASSERT_TRUE(sink.waitForFrames(3));
  for (const Frame& f : sink.frames()) {
    EXPECT_EQ(f.size, 640 * 480 * 2);
    EXPECT_TRUE(f.patternOk);
  }
  EXPECT_TRUE(other.frames().empty());

  EXPECT_EQ(uvc.StopStreaming(6), 0);
  EXPECT_EQ(uvc.frameCount(), sink.frames().size()) << "every frame passed on is counted, dropped ones not";
  EXPECT_NE(capture_thread[6], nullptr) << "stop keeps the object";
  EXPECT_EQ(tqsim::openVideoNodes(id), 0);
  uvc.CloseStreaming(6);
  EXPECT_EQ(capture_thread[6], nullptr);
}

TEST_F(UvcFacadeTest, DestroyingTheFacadeStopsTheCapturesThatDeliverToIt) {
  tqsim::CameraId id = plug();
  FrameSink sink;
  auto* uvc = new Vexa_UVC();
  ASSERT_EQ(uvc->OpenStreaming(4, path_, list_, &count_), 0);
  uvc->SetStreamingFrameFormat(4, 320, 240);
  uvc->RegisterNewBufferCallback(4, &FrameSink::bufferCallback, &sink);
  ASSERT_EQ(uvc->StartStreaming(4), 0);
  ASSERT_TRUE(sink.waitForFrames(2));
  delete uvc;
  // Stopped and joined by the destructor: nothing calls into the freed object.
  ASSERT_NE(capture_thread[4], nullptr);
  EXPECT_FALSE(capture_thread[4]->running());
  EXPECT_EQ(tqsim::openVideoNodes(id), 0);
  // A later start of the number no longer reaches the gone facade.
  const size_t delivered = sink.frames().size();
  const uint32_t produced = tqsim::videoFramesProduced(id);
  ASSERT_EQ(KOR_UVC_StreamStart(4), 0);
  waitUntil([&] { return tqsim::videoFramesProduced(id) >= produced + 3; });
  EXPECT_EQ(sink.frames().size(), delivered);
  EXPECT_EQ(KOR_UVC_StreamClose(4), 0);
}

// Re-registration while frames flow: each frame reaches a callback together
// with that callback's own context, never the other registration's.
TEST_F(UvcFacadeTest, CallbackAndContextArriveAsOnePair) {
  tqsim::CameraConfig config = tqsim::defaultCameraConfig();
  config.video.freeRun = true;
  plug(config);
  struct Receiver {
    std::atomic<int> frames{0}, mismatched{0};
  };
  static Receiver a, b;
  a.frames = b.frames = a.mismatched = b.mismatched = 0;
  auto onA = [](char*, int, void* context) {
    ++a.frames;
    if (context != &a) ++a.mismatched;
  };
  auto onB = [](char*, int, void* context) {
    ++b.frames;
    if (context != &b) ++b.mismatched;
  };
  Vexa_UVC uvc;
  ASSERT_EQ(uvc.OpenStreaming(7, path_, list_, &count_), 0);
  uvc.SetStreamingFrameFormat(7, 1, 1);  // the smallest size: many frames
  uvc.RegisterNewBufferCallback(7, onA, &a);
  ASSERT_EQ(uvc.StartStreaming(7), 0);
  const auto deadline = std::chrono::steady_clock::now() + 2s;
  while ((a.frames + b.frames < 3000) && std::chrono::steady_clock::now() < deadline) {
    uvc.RegisterNewBufferCallback(7, onB, &b);
    uvc.RegisterNewBufferCallback(7, onA, &a);
  }
  EXPECT_EQ(uvc.StopStreaming(7), 0);
  EXPECT_GT(a.frames + b.frames, 0);
  EXPECT_EQ(a.mismatched + b.mismatched, 0);
  uvc.CloseStreaming(7);
}

}  // namespace
}  // namespace videotest
