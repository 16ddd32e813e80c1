// The capture functions by camera number and the Vexa_UVC facade.
#include <gtest/gtest.h>
#include <tqsim/VideoStatus.h>

#include <functional>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "VideoFixture.h"
#include "video/KOR_UVC.h"
#include "video/Vexa_UVC.h"

namespace videotest {
namespace {

class UvcFacadeTest : public VideoSimTest {};

TEST_F(UvcFacadeTest, NumbersNotOpenedOrPastTheTableAreRefusedWithMinus20) {
  _Formats list[LIST_MAX_NUM + 1] = {};
  int a = 7, b = 7, c = 7;
  char path[] = "/dev/video0";
  const std::vector<std::pair<const char*, std::function<int(unsigned char)>>> calls = {
      {"start", [](unsigned char i) { return KOR_UVC_StreamStart(i); }},
      {"callback", [](unsigned char i) { return KOR_UVC_SetCallbackStream(i, nullptr, nullptr); }},
      {"stop", [](unsigned char i) { return KOR_UVC_StreamStop(i); }},
      {"close", [](unsigned char i) { return KOR_UVC_StreamClose(i); }},
      {"list", [&](unsigned char i) { return KOR_UVC_StreamGetResolutionList(i, list, &a); }},
      {"get format", [&](unsigned char i) { return KOR_UVC_StreamGetFrameFormat(i, &a, &b, &c); }},
      {"set format", [](unsigned char i) { return KOR_UVC_StreamSetFrameFormat(i, 640, 480); }},
  };
  plugDefault();
  for (unsigned char index : {0, 5, 15, 16, 200, 255}) {
    for (const auto& [name, call] : calls) EXPECT_EQ(call(index), -20) << name << " " << int(index);
  }
  EXPECT_EQ(a, 7);
  for (unsigned char index : {16, 17, 255}) EXPECT_EQ(KOR_UVC_StreamOpen(index, path), -20);
  // Number 15 is the last one that works.
  EXPECT_EQ(KOR_UVC_StreamOpen(15, path), 0);
  EXPECT_EQ(KOR_UVC_StreamGetFrameFormat(15, &a, &b, &c), 0);
  EXPECT_EQ(KOR_UVC_StreamClose(15), 0);
  EXPECT_EQ(capture_thread[15], nullptr);
}

TEST_F(UvcFacadeTest, SecondOpenIsRefusedWithMinus21AlsoAfterAFailedOpen) {
  plugDefault();
  char good[] = "/dev/video0";
  char missing[] = "/dev/video9";
  EXPECT_EQ(KOR_UVC_StreamOpen(1, good), 0);
  EXPECT_EQ(KOR_UVC_StreamOpen(1, good), -21);
  EXPECT_EQ(KOR_UVC_StreamOpen(2, missing), -22);
  EXPECT_NE(capture_thread[2], nullptr) << "a failed open keeps its object";
  EXPECT_EQ(KOR_UVC_StreamOpen(2, good), -21);
  EXPECT_EQ(KOR_UVC_StreamClose(2), 0);
  EXPECT_EQ(KOR_UVC_StreamOpen(2, good), 0);
}

TEST_F(UvcFacadeTest, OpenListsSizesAndChosenFormatReadsBackWithLineBytes) {
  plugDefault();
  Vexa_UVC uvc;
  EXPECT_EQ(uvc.Init(), 0);
  _Formats list[LIST_MAX_NUM + 1] = {};
  int count = -1;
  char path[] = "/dev/video0";
  ASSERT_EQ(uvc.OpenStreaming(4, path, list, &count), 0);
  ASSERT_EQ(count, 3);
  EXPECT_EQ(list[0].width, 1280);
  EXPECT_EQ(list[1].height, 480);
  EXPECT_EQ(list[2].width, 320);
  EXPECT_EQ(uvc.OpenStreaming(4, path, list, &count), -21);

  uvc.SetStreamingFrameFormat(4, 640, 480);
  int w = 0, h = 0, line = 0;
  uvc.GetStreamingFrameFormat(4, &w, &h, &line);
  EXPECT_EQ(w, 640);
  EXPECT_EQ(h, 480);
  EXPECT_EQ(line, 1280);
  uvc.CloseStreaming(4);
  EXPECT_EQ(capture_thread[4], nullptr);
}

TEST_F(UvcFacadeTest, FramesWithoutACallbackAreDroppedThenDeliveredOnceOneIsRegistered) {
  tqsim::CameraId id = plugDefault();
  tqtest::LogCapture log;
  Vexa_UVC uvc;
  _Formats list[LIST_MAX_NUM + 1] = {};
  int count = 0;
  char path[] = "/dev/video0";
  ASSERT_EQ(uvc.OpenStreaming(6, path, list, &count), 0);
  uvc.SetStreamingFrameFormat(6, 320, 240);
  ASSERT_EQ(uvc.StartStreaming(6), 0);
  EXPECT_TRUE(uvc.streaming);
  EXPECT_EQ(uvc.StartStreaming(6), -23);
  ASSERT_TRUE(log.waitFor("Vexa_UVC::NewBufferCallBack: callback function not defned yet: ", 3s));
  EXPECT_EQ(uvc.frameCount, 0u);

  // Registration while streaming: the capture thread picks it up.
  FrameSink sink;
  EXPECT_EQ(uvc.RegisterNewBufferCallback(6, &FrameSink::bufferCallback, &sink), 0);
  ASSERT_TRUE(sink.waitForFrames(3, 3s));
  EXPECT_GE(uvc.frameCount, 3u);
  for (const Frame& f : sink.frames()) {
    EXPECT_EQ(f.size, 320 * 240 * 2);
    EXPECT_TRUE(f.patternOk);
  }

  EXPECT_EQ(uvc.StopStreaming(6), 0);
  EXPECT_FALSE(uvc.streaming);
  EXPECT_NE(capture_thread[6], nullptr) << "stop keeps the object";
  EXPECT_EQ(tqsim::openVideoNodes(id), 0);

  // Unregistering answers -1 and clears the slot.
  EXPECT_EQ(uvc.RegisterNewBufferCallback(6, nullptr, &sink), -1);
  EXPECT_EQ(uvc.newBufferCallbacks[6].load(), nullptr);
  uvc.CloseStreaming(6);
}

TEST_F(UvcFacadeTest, ReceiveCallbackRoutesByTheLowByteOfTheNumber) {
  tqtest::LogCapture log;
  unsigned char data[16] = {};
  EXPECT_EQ(Vexa_UVC::ReceiveCallbackStream(data, 16, 1, nullptr), 0);
  EXPECT_EQ(log.countExact("Vexa_UVC::ReceiveCallbackStream: class context not defined: (nil)"), 1u);

  Vexa_UVC uvc;
  FrameSink sink;
  uvc.RegisterNewBufferCallback(2, &FrameSink::bufferCallback, &sink);
  EXPECT_EQ(Vexa_UVC::ReceiveCallbackStream(data, 16, 0x102, &uvc), 0);
  EXPECT_EQ(sink.count(), 1u);
  EXPECT_EQ(uvc.frameCount, 1u);
  EXPECT_EQ(Vexa_UVC::ReceiveCallbackStream(data, 16, 3, &uvc), 0);
  EXPECT_EQ(sink.count(), 1u);
  EXPECT_EQ(log.countExact("Vexa_UVC::NewBufferCallBack: callback function not defned yet: (nil)"), 1u);
}

TEST_F(UvcFacadeTest, CloseOfAStreamingNumberStopsItsThread) {
  tqsim::CameraId id = plugDefault();
  Vexa_UVC uvc;
  FrameSink sink;
  uvc.RegisterNewBufferCallback(0, &FrameSink::bufferCallback, &sink);
  _Formats list[LIST_MAX_NUM + 1] = {};
  int count = 0;
  char path[] = "/dev/video0";
  ASSERT_EQ(uvc.OpenStreaming(0, path, list, &count), 0);
  uvc.SetStreamingFrameFormat(0, 640, 480);
  ASSERT_EQ(uvc.StartStreaming(0), 0);
  ASSERT_TRUE(sink.waitForFrames(1, 3s));
  const auto begin = std::chrono::steady_clock::now();
  uvc.CloseStreaming(0);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 3s);
  EXPECT_EQ(capture_thread[0], nullptr);
  EXPECT_EQ(tqsim::openVideoNodes(id), 0);
  EXPECT_EQ(tqsim::videoMappings(id), 0u);
}

}  // namespace
}  // namespace videotest
