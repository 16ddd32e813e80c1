// CaptureThread against the emulated node: size and rate listing, the format
// choice, the capture thread's frames, stop and its early ends.
#include <gtest/gtest.h>
#include <tqsim/VideoStatus.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "VideoFixture.h"
#include "video/CaptureThread.h"

namespace videotest {
namespace {

using tqsim::CameraConfig;
using tqsim::FrameInterval;
using tqsim::FrameSize;
using tqsim::IntervalKind;

struct Size {
  int width;
  int height;
  std::vector<int> rates;
};

FrameSize discreteSize(uint32_t w, uint32_t h, const std::vector<uint32_t>& fps) {
  FrameSize size;
  size.width = w;
  size.height = h;
  for (uint32_t f : fps) size.intervals.push_back(FrameInterval{1, f});
  return size;
}

std::vector<Size> listed(const CaptureThread& capture, int entries) {
  std::vector<Size> out;
  for (int i = 0; i < entries; ++i) {
    const FrameSizeEntry& e = capture.frameSizes[i];
    out.push_back({e.width, e.height, std::vector<int>(e.frameRates, e.frameRates + e.nFrameRates)});
  }
  return out;
}

bool operator==(const Size& a, const Size& b) {
  return a.width == b.width && a.height == b.height && a.rates == b.rates;
}

void PrintTo(const Size& s, std::ostream* os) {
  *os << s.width << "x" << s.height << " rates " << s.rates.size();
}

class CaptureThreadTest : public VideoSimTest {};

TEST_F(CaptureThreadTest, ListsDiscreteSizesAndRatesAsTheNodeOffersThem) {
  struct Case {
    const char* name;
    std::function<void(CameraConfig&)> change;
    const char* path;
    int expectedCount;
    std::vector<Size> expected;  // the filled entries
    const char* logText;         // a line the listing must log, or null
  };
  std::vector<Size> twelve;
  std::vector<FrameSize> twelveSizes;
  for (uint32_t i = 12; i >= 1; --i) {
    twelveSizes.push_back(discreteSize(64 * i, 48 * i, {30}));
    if (twelve.size() < 10) twelve.push_back({int(64 * i), int(48 * i), {30}});
  }
  std::vector<uint32_t> twelveRates{60, 55, 50, 45, 40, 35, 30, 25, 20, 15, 10, 5};

  const std::vector<Case> cases = {
      {"default camera",
       [](CameraConfig&) {},
       kCapturePath,
       3,
       {{1280, 960, {30, 15}}, {640, 480, {30, 15}}, {320, 240, {30, 15}}},
       nullptr},
      {"no sizes", [](CameraConfig& c) { c.video.sizes.clear(); }, kCapturePath, 0, {}, nullptr},
      {"metadata node", [](CameraConfig&) {}, kMetadataPath, 0, {}, nullptr},
      {"twelve sizes", [&](CameraConfig& c) { c.video.sizes = twelveSizes; }, kCapturePath, 11, twelve,
       nullptr},
      {"stepwise sizes",
       [](CameraConfig& c) { c.video.sizeKind = tqsim::SizeKind::Stepwise; },
       kCapturePath,
       0,
       {},
       "  fsize.type not supported: 3"},
      {"continuous sizes",
       [](CameraConfig& c) { c.video.sizeKind = tqsim::SizeKind::Continuous; },
       kCapturePath,
       0,
       {},
       "  fsize.type not supported: 2"},
      {"stepwise interval",
       [](CameraConfig& c) {
         c.video.sizes = {discreteSize(800, 600, {5, 30}), discreteSize(640, 480, {30})};
         c.video.sizes[0].intervalKind = IntervalKind::Stepwise;
       },
       kCapturePath,
       2,
       {{800, 600, {}}, {640, 480, {30}}},
       "  error: enum_frame_intervals"},
      {"continuous interval",
       [](CameraConfig& c) {
         c.video.sizes = {discreteSize(800, 600, {5, 30})};
         c.video.sizes[0].intervalKind = IntervalKind::Continuous;
       },
       kCapturePath,
       1,
       {{800, 600, {}}},
       "  error: enum_frame_intervals"},
      {"twelve rates",
       [&](CameraConfig& c) { c.video.sizes = {discreteSize(640, 480, twelveRates)}; },
       kCapturePath,
       1,
       {{640, 480, {60, 55, 50, 45, 40, 35, 30, 25, 20, 15, 10}}},
       "---> list_fps_len(11) > LIST_MAX_NUM(10)"},
      {"enumeration error",
       [](CameraConfig& c) { c.videoFaults.enumSizesErrno = EIO; },
       kCapturePath,
       0,
       {{1280, 960, {30, 15}}, {640, 480, {30, 15}}, {320, 240, {30, 15}}},
       "VIDIOC_ENUM_FRAMESIZES - Error enumerating frame sizes"},
  };

  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    tqsim::reset();
    CameraConfig config = tqsim::defaultCameraConfig();
    c.change(config);
    tqsim::CameraId id = plug(config);
    tqtest::LogCapture log;
    CaptureThread capture;
    char path[64];
    snprintf(path, sizeof(path), "%s", c.path);
    EXPECT_EQ(capture.open(path), 0);
    EXPECT_EQ(capture.nFrameSizes, c.expectedCount);
    EXPECT_EQ(listed(capture, int(c.expected.size())), c.expected);
    EXPECT_STREQ(capture.devicePath, c.path);
    if (c.logText) {
      EXPECT_EQ(log.countExact(c.logText), 1u) << c.logText;
    }
    EXPECT_EQ(log.countExact(std::string("CaptureThread::open close video device: \"") + c.path + "\""), 1u);
    EXPECT_EQ(tqsim::openVideoNodes(id), 0) << "open must close the node again";
  }
}

TEST_F(CaptureThreadTest, OpenOfAMissingOrFailingNodeReturnsMinus22) {
  tqsim::CameraConfig config = tqsim::defaultCameraConfig();
  config.videoFaults.openFails = true;
  plug(config);
  tqtest::LogCapture log;
  CaptureThread capture;
  char failing[] = "/dev/video0";
  EXPECT_EQ(capture.open(failing), -22);
  EXPECT_EQ(log.countExact("---> Cannot open device: \"/dev/video0\". error=19"), 1u);
  char missing[] = "/dev/video77";
  EXPECT_EQ(capture.open(missing), -22);
  EXPECT_EQ(capture.open(nullptr), -22);
}

TEST_F(CaptureThreadTest, FormatChoiceTakesTheLastCoveringEntryOfTheLeadingRun) {
  struct Case {
    std::vector<Size> list;
    int requestW, requestH;
    int width, height, rate;
  };
  const std::vector<Size> three = {{1280, 960, {30, 15}}, {640, 480, {25}}, {320, 240, {15, 5}}};
  const std::vector<Case> cases = {
      {three, 4000, 4000, 1280, 960, 30},  // larger than the first entry: entry 0
      {three, 1281, 10, 1280, 960, 30},
      {three, 10, 961, 1280, 960, 30},
      {three, 1280, 960, 1280, 960, 30},
      {three, 600, 400, 640, 480, 25},
      {three, 640, 480, 640, 480, 25},
      {three, 641, 480, 1280, 960, 30},
      {three, 320, 240, 320, 240, 15},
      {three, 1, 1, 320, 240, 15},
      // the run stops at the first entry that does not cover the request
      {{{1280, 960, {30}}, {320, 240, {15}}, {640, 480, {10}}}, 600, 400, 1280, 960, 30},
      {{}, 640, 480, 0, 0, 0},  // nothing listed: entry 0 as it is
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message()
                 << c.list.size() << " sizes, request " << c.requestW << "x" << c.requestH);
    CaptureThread capture;
    capture.nFrameSizes = int(c.list.size());
    for (size_t i = 0; i < c.list.size(); ++i) {
      capture.frameSizes[i].width = c.list[i].width;
      capture.frameSizes[i].height = c.list[i].height;
      capture.frameSizes[i].nFrameRates = int(c.list[i].rates.size());
      for (size_t r = 0; r < c.list[i].rates.size(); ++r)
        capture.frameSizes[i].frameRates[r] = c.list[i].rates[r];
    }
    EXPECT_EQ(capture.SetStreamingFormat(c.requestW, c.requestH), 0);
    int w = -1, h = -1;
    EXPECT_EQ(capture.GetStreamingFormat(&w, &h), 0);
    EXPECT_EQ(w, c.width);
    EXPECT_EQ(h, c.height);
    EXPECT_EQ(capture.frameRate, c.rate);
  }
}

TEST_F(CaptureThreadTest, ElevenCountedSizesStayInsideTheList) {
  // More than ten sizes: the count says eleven; a tiny request walks to the
  // end of the filled entries and no further than the zeroed spare.
  tqsim::CameraConfig config = tqsim::defaultCameraConfig();
  config.video.sizes.clear();
  for (uint32_t i = 12; i >= 1; --i) config.video.sizes.push_back(discreteSize(64 * i, 48 * i, {30}));
  plug(config);
  CaptureThread capture;
  char path[] = "/dev/video0";
  ASSERT_EQ(capture.open(path), 0);
  ASSERT_EQ(capture.nFrameSizes, 11);
  capture.SetStreamingFormat(192, 144);
  int w = 0, h = 0;
  capture.GetStreamingFormat(&w, &h);
  EXPECT_EQ(w, 192);
  EXPECT_EQ(h, 144);
  capture.SetStreamingFormat(1, 1);
  capture.GetStreamingFormat(&w, &h);
  EXPECT_EQ(w, 192) << "ten filled entries end at 192x144";
}

// A capture object opened on the default camera with 640x480 chosen and the
// sink as its callback.
class StreamingTest : public CaptureThreadTest {
 protected:
  void SetUp() override {
    CaptureThreadTest::SetUp();
    id_ = plugDefault();
  }
  void openAndChoose(CaptureThread& capture, int w = 640, int h = 480) {
    char path[] = "/dev/video0";
    ASSERT_EQ(capture.open(path), 0);
    capture.SetStreamingFormat(w, h);
    capture.cameraIndex = 3;
    capture.callbackContext = &sink_;
    capture.callback = &FrameSink::captureCallback;
  }
  // Close must come back within one select time-out (2 s) plus a callback;
  // the margin is for loaded machines.
  void closeInTime(CaptureThread& capture) {
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(capture.close(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 3s);
    EXPECT_FALSE(capture.running);
    EXPECT_EQ(tqsim::openVideoNodes(id_), 0);
    EXPECT_EQ(tqsim::videoMappings(id_), 0u);
  }
  tqsim::CameraId id_ = tqsim::kNoCamera;
  FrameSink sink_;
};

TEST_F(StreamingTest, CallbackReceivesEveryByteOfConsecutivePatternFrames) {
  tqtest::LogCapture log;
  CaptureThread capture;
  openAndChoose(capture);
  ASSERT_EQ(capture.start(), 0);
  ASSERT_TRUE(sink_.waitForFrames(6, 3s));
  closeInTime(capture);
  EXPECT_EQ(log.countExact("--> CaptureThread::run (640x480) "), 1u);
  EXPECT_EQ(log.countExact("CaptureThread::ThreadRoutine: CLEANUP cap thread"), 1u);
  EXPECT_EQ(capture.imageSize, 640u * 480u * 2u);

  const auto frames = sink_.frames();
  ASSERT_GE(frames.size(), 6u);
  for (size_t i = 0; i < frames.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(frames[i].size, 640 * 480 * 2);
    EXPECT_EQ(frames[i].cameraIndex, 3);
    EXPECT_TRUE(frames[i].patternOk);
    EXPECT_EQ(frames[i].number, uint32_t(i)) << "frames lost or repeated";
  }
}

TEST_F(StreamingTest, SecondStartIsRefusedUntilCloseThenStreamsAgain) {
  CaptureThread capture;
  openAndChoose(capture, 320, 240);
  ASSERT_EQ(capture.start(), 0);
  ASSERT_TRUE(waitUntil([&] { return capture.running.load(); }, 2s));
  EXPECT_EQ(capture.start(), -23);
  ASSERT_TRUE(sink_.waitForFrames(2, 3s));
  closeInTime(capture);
  EXPECT_EQ(capture.close(), 0) << "a second close finds nothing to stop";

  const size_t before = sink_.count();
  ASSERT_EQ(capture.start(), 0);
  ASSERT_TRUE(sink_.waitForFrames(before + 2, 3s));
  closeInTime(capture);
  const auto frames = sink_.frames();
  EXPECT_EQ(frames[before].number, 0u) << "a fresh stream starts from frame 0";
  EXPECT_EQ(frames[before].size, 320 * 240 * 2);
}

TEST_F(StreamingTest, UnplugEndsTheThreadAndCloseReleasesWhatItLeft) {
  tqtest::LogCapture log;
  CaptureThread capture;
  openAndChoose(capture);
  ASSERT_EQ(capture.start(), 0);
  ASSERT_TRUE(sink_.waitForFrames(2, 3s));
  ASSERT_TRUE(tqsim::unplugCamera(id_));
  ASSERT_TRUE(
      log.waitFor("CaptureThread::ThreadRoutine: select returned error: \"Bad file "
                  "descriptor\" (errno:9)",
                  3s));
  // The early end keeps `running`: a new start is refused until close.
  EXPECT_TRUE(capture.running);
  EXPECT_EQ(capture.start(), -23);
  EXPECT_EQ(tqsim::openVideoNodes(id_), 1);
  closeInTime(capture);
  EXPECT_EQ(log.count("CLEANUP cap thread"), 0u);
}

TEST_F(StreamingTest, EarlyEndsLeaveRunningSetAndCloseCleansUp) {
  struct Case {
    const char* name;
    std::function<void(tqsim::VideoFaults&)> fault;
    const char* logText;
  };
  const std::vector<Case> cases = {
      {"open fails", [](tqsim::VideoFaults& f) { f.openFails = true; }, "---> Cannot open device"},
      {"format refused", [](tqsim::VideoFaults& f) { f.formatError = EBUSY; }, "---> Error xioctl "},
      {"other pixel format", [](tqsim::VideoFaults& f) { f.answerPixelFormat = 0x47504A4D; },
       "---> Error format "},
      {"select fails", [](tqsim::VideoFaults& f) { f.selectFails = true; },
       "CaptureThread::ThreadRoutine: select returned error: \"Bad file descriptor\" (errno:9)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    tqtest::LogCapture log;
    CaptureThread capture;
    openAndChoose(capture);
    setFaults(id_, c.fault);
    ASSERT_EQ(capture.start(), 0);
    ASSERT_TRUE(log.waitFor(c.logText, 3s));
    EXPECT_TRUE(capture.running);
    EXPECT_EQ(capture.start(), -23);
    closeInTime(capture);
    EXPECT_EQ(log.count("CLEANUP cap thread"), 0u);
    setFaults(id_, [](tqsim::VideoFaults& f) { f = tqsim::VideoFaults{}; });
  }
  EXPECT_EQ(sink_.count(), 0u);
}

TEST_F(StreamingTest, DriverSizeChangeIsLoggedAndStreamingGoesOn) {
  tqtest::LogCapture log;
  CaptureThread capture;
  openAndChoose(capture);
  setFaults(id_, [](tqsim::VideoFaults& f) {
    f.answerWidth = 320;
    f.answerHeight = 240;
  });
  ASSERT_EQ(capture.start(), 0);
  ASSERT_TRUE(sink_.waitForFrames(2, 3s));
  closeInTime(capture);
  EXPECT_EQ(log.countExact("---> Error size 320x240"), 1u);
  int w = 0, h = 0;
  capture.GetStreamingFormat(&w, &h);
  EXPECT_EQ(w, 640) << "the chosen size is kept";
  EXPECT_EQ(capture.imageSize, 320u * 240u * 2u);
  EXPECT_EQ(sink_.frames()[0].size, 320 * 240 * 2);
  EXPECT_TRUE(sink_.frames()[0].patternOk);
}

TEST_F(StreamingTest, ShortFramesAndDequeueErrorsReachTheCallbackAsTheDriverSaysThem) {
  tqtest::LogCapture log;
  CaptureThread capture;
  openAndChoose(capture, 320, 240);
  setFaults(id_, [](tqsim::VideoFaults& f) { f.shortFrameBytes = 1000; });
  ASSERT_EQ(capture.start(), 0);
  ASSERT_TRUE(sink_.waitForFrames(2, 3s));
  EXPECT_EQ(sink_.frames()[0].size, 1000);
  EXPECT_TRUE(sink_.frames()[0].patternOk);

  // A failing dequeue still calls back, with buffer 0 and no bytes.
  setFaults(id_, [](tqsim::VideoFaults& f) {
    f = {};
    f.dqbufErrno = EIO;
  });
  ASSERT_TRUE(
      log.waitFor("CaptureThread::ThreadRoutine: xioctl VIDIOC_DQBUF returned error: \"Input/output error\" "
                  "(errno:5)",
                  3s));
  ASSERT_TRUE(waitUntil(
      [&] {
        auto f = sink_.frames();
        return !f.empty() && f.back().size == 0;
      },
      3s));
  EXPECT_TRUE(log.contains("(rc = 1 retval = -1)"));

  // The thread carried on: clearing the fault brings frames back.
  setFaults(id_, [](tqsim::VideoFaults& f) { f = {}; });
  const size_t before = sink_.count();
  ASSERT_TRUE(waitUntil(
      [&] {
        auto f = sink_.frames();
        return f.size() > before && f.back().size == 320 * 240 * 2 && f.back().patternOk;
      },
      3s));
  closeInTime(capture);
}

TEST_F(StreamingTest, SilentCameraTimesOutSelectAndStillClosesInTime) {
  tqtest::LogCapture log;
  CaptureThread capture;
  openAndChoose(capture, 320, 240);
  setFaults(id_, [](tqsim::VideoFaults& f) { f.stopSending = true; });
  ASSERT_EQ(capture.start(), 0);
  ASSERT_TRUE(log.waitFor("CaptureThread::ThreadRoutine: error in select: timeout expired", 4s));
  EXPECT_EQ(sink_.count(), 0u);
  EXPECT_EQ(tqsim::videoFramesProduced(id_), 0u);
  closeInTime(capture);
  EXPECT_EQ(log.countExact("CaptureThread::ThreadRoutine: CLEANUP cap thread"), 1u);
}

TEST_F(StreamingTest, DestroyingAStreamingObjectStopsAndReleasesIt) {
  {
    CaptureThread capture;
    openAndChoose(capture);
    ASSERT_EQ(capture.start(), 0);
    ASSERT_TRUE(sink_.waitForFrames(1, 3s));
  }
  EXPECT_EQ(tqsim::openVideoNodes(id_), 0);
  EXPECT_EQ(tqsim::videoMappings(id_), 0u);
}

}  // namespace
}  // namespace videotest
