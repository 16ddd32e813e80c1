// CaptureThread against the emulated node: size and rate listing, the format
// choice, the capture thread's frames, stop and its early ends.
#include <algorithm>
#include <cerrno>
#include <tuple>
#include <vector>

#include "VideoFixture.h"
#include "video/CaptureThread.h"

namespace videotest {
namespace {

using tqsim::FrameSize;
using tqsim::IntervalKind;
using tqsim::VideoFaults;
using Size = std::tuple<int, int, std::vector<int>>;  // width, height, rates

FrameSize frameSize(uint32_t w, uint32_t h, const std::vector<uint32_t>& fps,
                    IntervalKind kind = IntervalKind::Discrete) {
  FrameSize size{w, h, kind, {}};
  for (uint32_t f : fps) size.intervals.push_back(tqsim::FrameInterval{1, f});
  return size;
}

// The first ten of twelve sizes 768x576 down to 64x48, and the zeroed spare
// entry that a count of eleven reaches.
std::vector<Size> tenOfTwelvePlusSpare() {
  std::vector<Size> out;
  for (int i = 12; i >= 3; --i) out.push_back({64 * i, 48 * i, {30}});
  out.push_back({0, 0, {}});
  return out;
}

// The oracle every frame check relies on must see a damaged frame.
TEST(FramePatternTest, VerifyRejectsDamagedFrames) {
  constexpr size_t kSize = 320 * 240 * 2;
  std::vector<uint8_t> frame(kSize), next(kSize);
  tqsim::fillFrame(frame.data(), kSize, 41);
  tqsim::fillFrame(next.data(), kSize, 42);
  uint32_t number = 0;
  ASSERT_TRUE(tqsim::verifyFrame(frame.data(), kSize, &number));
  EXPECT_EQ(number, 41u);
  // Torn copies: the tail comes from the next frame.
  for (size_t from : {size_t(5000), size_t(100000), kSize - 1}) {
    std::vector<uint8_t> torn = frame;
    std::copy(next.begin() + from, next.end(), torn.begin() + from);
    size_t bad = 0;
    EXPECT_FALSE(tqsim::verifyFrame(torn.data(), kSize, nullptr, &bad));
    EXPECT_EQ(bad, from);
  }
  std::vector<uint8_t> zeroed(kSize);
  EXPECT_FALSE(tqsim::verifyFrame(zeroed.data(), kSize));
}

class CaptureThreadTest : public VideoSimTest {};

TEST_F(CaptureThreadTest, ListsDiscreteSizesAndRatesAndClosesTheNode) {
  std::vector<FrameSize> twelveSizes;
  for (uint32_t i = 12; i >= 1; --i) twelveSizes.push_back(frameSize(64 * i, 48 * i, {30}));
  struct Case {
    std::vector<FrameSize> sizes;
    std::vector<Size> expected;  // nFrameSizes entries
    const char* logText;         // a line the listing must log, or null
  };
  const std::vector<Case> cases = {
      {{}, {}, nullptr},
      {twelveSizes, tenOfTwelvePlusSpare(), nullptr},
      {{frameSize(640, 480, {60, 55, 50, 45, 40, 35, 30, 25, 20, 15, 10, 5})},
       {{640, 480, {60, 55, 50, 45, 40, 35, 30, 25, 20, 15, 10}}},
       "---> list_fps_len(%) > LIST_MAX_NUM(11)"},
      {{frameSize(800, 600, {5, 30}, IntervalKind::Stepwise), frameSize(640, 480, {30})},
       {{800, 600, {}}, {640, 480, {30}}},
       "  error: enum_frame_intervals"},
      {{frameSize(800, 600, {5, 30}, IntervalKind::Continuous)},
       {{800, 600, {}}},
       "  error: enum_frame_intervals"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.expected));
    tqsim::reset();
    tqsim::CameraConfig config = tqsim::defaultCameraConfig();
    config.video.sizes = c.sizes;
    tqsim::CameraId id = plug(config);
    tqtest::LogCapture log;
    CaptureThread capture;
    char path[] = "/dev/video0";
    EXPECT_EQ(capture.open(path), 0);
    std::vector<Size> listed;
    for (int i = 0; i < std::min(capture.nFrameSizes, LIST_MAX_NUM + 1); ++i) {
      const FrameSizeEntry& e = capture.frameSizes[i];
      listed.push_back({e.width, e.height, std::vector<int>(e.frameRates, e.frameRates + e.nFrameRates)});
    }
    EXPECT_EQ(capture.nFrameSizes, int(c.expected.size()));
    EXPECT_EQ(listed, c.expected);
    if (c.logText) {
      EXPECT_EQ(log.countExact(c.logText), 1u) << c.logText;
    }
    EXPECT_EQ(tqsim::openVideoNodes(id), 0) << "open must close the node again";
  }
}

TEST_F(CaptureThreadTest, FormatChoiceTakesTheLastCoveringEntryOfTheLeadingRun) {
  struct Case {
    std::vector<Size> list;
    int requestW, requestH;
    int width, height, rate;
  };
  const std::vector<Size> three = {{1280, 960, {30, 15}}, {640, 480, {25}}, {320, 240, {15, 5}}};
  const std::vector<Case> cases = {
      {three, 4000, 4000, 1280, 960, 30},  // larger than every entry: entry 0
      {three, 10, 961, 1280, 960, 30},
      {three, 600, 400, 640, 480, 25},
      {three, 641, 480, 1280, 960, 30},
      {three, 1, 1, 320, 240, 15},
      // the run stops at the first entry that does not cover the request
      {{{1280, 960, {30}}, {320, 240, {15}}, {640, 480, {10}}}, 600, 400, 1280, 960, 30},
      {tenOfTwelvePlusSpare(), 1, 1, 192, 144, 30},  // never the zeroed spare
      {{}, 640, 480, 0, 0, 0},                       // nothing listed: entry 0 as it is
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message()
                 << c.list.size() << " sizes, request " << c.requestW << "x" << c.requestH);
    CaptureThread capture;
    capture.nFrameSizes = int(c.list.size());
    for (size_t i = 0; i < c.list.size(); ++i) {
      const auto& [w, h, rates] = c.list[i];
      capture.frameSizes[i] = {w, h, int(rates.size()), {}};
      std::copy(rates.begin(), rates.end(), capture.frameSizes[i].frameRates);
    }
    EXPECT_EQ(capture.SetStreamingFormat(c.requestW, c.requestH), 0);
    int w = -1, h = -1;
    EXPECT_EQ(capture.GetStreamingFormat(&w, &h), 0);
    EXPECT_EQ(w, c.width);
    EXPECT_EQ(h, c.height);
    EXPECT_EQ(capture.frameRate, c.rate);
  }
}

// A capture object opened on the default camera with a size chosen and the
// sink as its callback.
class StreamingTest : public CaptureThreadTest {
 protected:
  void SetUp() override {
    CaptureThreadTest::SetUp();
    id_ = plug();
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

TEST_F(StreamingTest, CallbackGetsConsecutivePatternFramesAndAClosedStreamStartsAgain) {
  tqtest::LogCapture log;
  CaptureThread capture;
  openAndChoose(capture);
  ASSERT_EQ(capture.start(), 0);
  ASSERT_TRUE(sink_.waitForFrames(6));
  EXPECT_EQ(capture.start(), -23);
  closeInTime(capture);
  EXPECT_EQ(log.countExact("CaptureThread::ThreadRoutine: CLEANUP cap thread"), 1u);
  const auto frames = sink_.frames();
  for (size_t i = 0; i < frames.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(frames[i].size, 640 * 480 * 2);
    EXPECT_EQ(frames[i].cameraIndex, 3);
    EXPECT_TRUE(frames[i].patternOk);
    EXPECT_EQ(frames[i].number, uint32_t(i)) << "frames lost or repeated";
  }

  EXPECT_EQ(capture.close(), 0) << "a second close finds nothing to stop";
  ASSERT_EQ(capture.start(), 0);
  ASSERT_TRUE(sink_.waitForFrames(frames.size() + 2));
  closeInTime(capture);
  EXPECT_EQ(sink_.frames()[frames.size()].number, 0u) << "a fresh stream starts from frame 0";
}

TEST_F(StreamingTest, UnplugEndsTheThreadAndCloseReleasesWhatItLeft) {
  tqtest::LogCapture log;
  CaptureThread capture;
  openAndChoose(capture);
  ASSERT_EQ(capture.start(), 0);
  ASSERT_TRUE(sink_.waitForFrames(2));
  ASSERT_TRUE(tqsim::unplugCamera(id_));
  ASSERT_TRUE(log.waitFor(
      "CaptureThread::ThreadRoutine: select returned error: \"Bad file descriptor\" (errno:9)", 3s));
  // The early end keeps `running`: a new start is refused until close.
  EXPECT_TRUE(capture.running);
  EXPECT_EQ(capture.start(), -23);
  EXPECT_EQ(tqsim::openVideoNodes(id_), 1);
  closeInTime(capture);
  EXPECT_EQ(log.count("CLEANUP cap thread"), 0u);
}

TEST_F(StreamingTest, EarlyEndsBeforeStreamingLeaveRunningSetAndCloseCleansUp) {
  const std::vector<std::pair<std::function<void(VideoFaults&)>, const char*>> cases = {
      {[](VideoFaults& f) { f.openFails = true; }, "---> Cannot open device"},
      {[](VideoFaults& f) { f.formatError = EBUSY; }, "---> Error xioctl "},
      {[](VideoFaults& f) { f.answerPixelFormat = 0x47504A4D; }, "---> Error format "},
  };
  for (const auto& [fault, logText] : cases) {
    SCOPED_TRACE(logText);
    tqtest::LogCapture log;
    CaptureThread capture;
    openAndChoose(capture);
    setFaults(id_, fault);
    ASSERT_EQ(capture.start(), 0);
    ASSERT_TRUE(log.waitFor(logText, 3s));
    EXPECT_TRUE(capture.running);
    EXPECT_EQ(capture.start(), -23);
    closeInTime(capture);
    EXPECT_EQ(log.count("CLEANUP cap thread"), 0u);
    setFaults(id_, [](VideoFaults& f) { f = VideoFaults{}; });
  }
  EXPECT_TRUE(sink_.frames().empty());
}

// One stream through the faults a camera shows: every frame reaches the
// callback with the bytes the driver delivered, and the thread carries on.
TEST_F(StreamingTest, ThreadPassesOnWhatTheDriverDeliversAndOutlivesItsFaults) {
  tqtest::LogCapture log;
  CaptureThread capture;
  openAndChoose(capture);
  setFaults(id_, [](VideoFaults& f) {
    f.answerWidth = 320;
    f.answerHeight = 240;
  });
  ASSERT_EQ(capture.start(), 0);
  auto lastFrameIs = [&](int size, bool patternOk) {
    return sink_.waitFor([&](const std::vector<Frame>& f) {
      return !f.empty() && f.back().size == size && f.back().patternOk == patternOk;
    });
  };
  EXPECT_TRUE(lastFrameIs(320 * 240 * 2, true)) << "the size the driver answered";
  EXPECT_EQ(log.countExact("---> Error size 320x240"), 1u);
  setFaults(id_, [](VideoFaults& f) { f.shortFrameBytes = 1000; });
  EXPECT_TRUE(lastFrameIs(1000, true)) << "a short frame";
  setFaults(id_, [](VideoFaults& f) { f.dqbufErrno = EIO; });
  EXPECT_TRUE(lastFrameIs(0, false)) << "a failing dequeue still calls back, with no bytes";
  EXPECT_TRUE(log.contains("xioctl VIDIOC_DQBUF returned error: \"Input/output error\" (errno:5)"));
  setFaults(id_, [](VideoFaults& f) { f.dqbufErrno = 0, f.shortFrameBytes = 0, f.stopSending = true; });
  EXPECT_TRUE(log.waitFor("CaptureThread::ThreadRoutine: error in select: timeout expired", 4s));
  setFaults(id_, [](VideoFaults& f) { f.stopSending = false; });
  EXPECT_TRUE(lastFrameIs(320 * 240 * 2, true)) << "frames come back";
  setFaults(id_, [](VideoFaults& f) { f.stopSending = true; });
  closeInTime(capture);  // from inside a select that would wait its full time-out
  EXPECT_EQ(log.countExact("CaptureThread::ThreadRoutine: CLEANUP cap thread"), 1u);
}

TEST_F(StreamingTest, DestroyingAStreamingObjectStopsAndReleasesIt) {
  {
    CaptureThread capture;
    openAndChoose(capture);
    ASSERT_EQ(capture.start(), 0);
    ASSERT_TRUE(sink_.waitForFrames(1));
  }
  EXPECT_EQ(tqsim::openVideoNodes(id_), 0);
  EXPECT_EQ(tqsim::videoMappings(id_), 0u);
}

}  // namespace
}  // namespace videotest
