// CaptureThread against the emulated node: size and rate listing, the format
// choice, the capture thread's frames and what it asks of the node, stop from
// any thread (the callback included), unplug and the other early ends.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <future>
#include <iterator>
#include <string>
#include <thread>
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
constexpr unsigned kError = RKLOG_ERROR;
constexpr unsigned kDebug = RKLOG_DEBUG;
constexpr unsigned kTrace = RKLOG_TRACE;

using tqtest::openDescriptors;

FrameSize frameSize(uint32_t w, uint32_t h, const std::vector<uint32_t>& fps,
                    IntervalKind kind = IntervalKind::Discrete) {
  FrameSize size{w, h, kind, {}};
  for (uint32_t f : fps) size.intervals.push_back(tqsim::FrameInterval{1, f});
  return size;
}

std::vector<FrameSize> sizesOf(const std::vector<Size>& list) {
  std::vector<FrameSize> out;
  for (const auto& [w, h, rates] : list)
    out.push_back(frameSize(uint32_t(w), uint32_t(h), std::vector<uint32_t>(rates.begin(), rates.end())));
  return out;
}

std::vector<FrameSize> twelveSizes() {
  std::vector<FrameSize> out;
  for (uint32_t i = 12; i >= 1; --i) out.push_back(frameSize(64 * i, 48 * i, {30}));
  return out;
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
  const std::vector<LoggedAs> openLines = {
      {"CaptureThread::open video device: \"/dev/video0\"", kDebug},
      {"CaptureThread::enum_frame_sizes[0] wxh = ", kDebug},
      {"CaptureThread::enum_frame_intervals[1] num/denom = 1/", kDebug},
      {"CaptureThread::open close video device: \"/dev/video0\"", kDebug}};
  struct Case {
    std::vector<FrameSize> sizes;
    std::vector<Size> expected;   // nFrameSizes entries
    std::vector<LoggedAs> lines;  // lines the listing must log
    int enumErrno = 0;            // the size listing ends with this instead of EINVAL
  };
  const std::vector<Case> cases = {
      {{}, {}, {}},
      {tqsim::defaultCameraConfig().video.sizes,
       {{1280, 960, {30, 15}}, {640, 480, {30, 15}}, {320, 240, {30, 15}}},
       openLines},
      {twelveSizes(), tenOfTwelvePlusSpare(), {}},
      {{frameSize(640, 480, {60, 55, 50, 45, 40, 35, 30, 25, 20, 15, 10, 5})},
       {{640, 480, {60, 55, 50, 45, 40, 35, 30, 25, 20, 15, 10}}},
       {{"---> list_fps_len(%) > LIST_MAX_NUM(11)", kError}}},
      {{frameSize(800, 600, {5, 30}, IntervalKind::Stepwise), frameSize(640, 480, {30})},
       {{800, 600, {}}, {640, 480, {30}}},
       {{"  error: enum_frame_intervals", kError}}},
      {{frameSize(800, 600, {5, 30}, IntervalKind::Continuous)},
       {{800, 600, {}}},
       {{"  error: enum_frame_intervals", kError}}},
      // An error other than EINVAL leaves the count as it was (0 here).
      {{frameSize(640, 480, {30})},
       {},
       {{"VIDIOC_ENUM_FRAMESIZES - Error enumerating frame sizes", kDebug}},
       EIO},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.expected));
    tqsim::reset();
    tqsim::CameraConfig config = tqsim::defaultCameraConfig();
    config.video.sizes = c.sizes;
    config.videoFaults.enumSizesErrno = c.enumErrno;
    tqsim::CameraId id = plug(config);
    tqtest::LogCapture log;
    CaptureThread capture;
    char path[] = "/dev/video0";
    EXPECT_EQ(capture.open(path), 0);
    std::vector<Size> listed;
    for (int i = 0; i < std::min(capture.frameSizeCount(), LIST_MAX_NUM + 1); ++i) {
      const FrameSizeEntry& e = capture.frameSize(i);
      listed.push_back({e.width, e.height, std::vector<int>(e.frameRates, e.frameRates + e.nFrameRates)});
    }
    EXPECT_EQ(capture.frameSizeCount(), int(c.expected.size()));
    EXPECT_EQ(listed, c.expected);
    // The fault lines come once per listing.
    for (const auto& line : c.lines) {
      if (line.prefix[0] != 'C') {
        EXPECT_EQ(log.countExact(line.prefix), 1u) << line.prefix;
      }
    }
    expectLoggedAs(log, c.lines);
    EXPECT_EQ(tqsim::openVideoNodes(id), 0) << "open must close the node again";
  }
}

TEST_F(CaptureThreadTest, FormatChoiceTakesTheLastCoveringEntryOfTheLeadingRun) {
  struct Case {
    std::vector<FrameSize> sizes;
    int requestW, requestH;
    int width, height, rate;
  };
  const auto three = sizesOf({{1280, 960, {30, 15}}, {640, 480, {25}}, {320, 240, {15, 5}}});
  const std::vector<Case> cases = {
      {three, 4000, 4000, 1280, 960, 30},  // larger than every entry: entry 0
      {three, 10, 961, 1280, 960, 30},
      {three, 600, 400, 640, 480, 25},
      {three, 641, 480, 1280, 960, 30},
      {three, 1, 1, 320, 240, 15},
      // the run stops at the first entry that does not cover the request
      {sizesOf({{1280, 960, {30}}, {320, 240, {15}}, {640, 480, {10}}}), 600, 400, 1280, 960, 30},
      {twelveSizes(), 1, 1, 192, 144, 30},  // never the zeroed spare
      {{}, 640, 480, 0, 0, 0},              // nothing listed: entry 0 as it is
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message()
                 << c.sizes.size() << " sizes, request " << c.requestW << "x" << c.requestH);
    tqsim::reset();
    tqsim::CameraConfig config = tqsim::defaultCameraConfig();
    config.video.sizes = c.sizes;
    plug(config);
    CaptureThread capture;
    char path[] = "/dev/video0";
    ASSERT_EQ(capture.open(path), 0);
    EXPECT_EQ(capture.SetStreamingFormat(c.requestW, c.requestH), 0);
    int w = -1, h = -1;
    EXPECT_EQ(capture.GetStreamingFormat(&w, &h), 0);
    EXPECT_EQ(w, c.width);
    EXPECT_EQ(h, c.height);
    EXPECT_EQ(capture.frameRate(), c.rate);
  }
}

// A capture object opened on the default camera with a size chosen and a sink
// as its callback.
class StreamingTest : public CaptureThreadTest {
 protected:
  void SetUp() override {
    CaptureThreadTest::SetUp();
    id_ = plug();
  }
  void openAndChoose(CaptureThread& capture, int w = 640, int h = 480, FrameSink* sink = nullptr) {
    char path[] = "/dev/video0";
    ASSERT_EQ(capture.open(path), 0);
    capture.SetStreamingFormat(w, h);
    capture.setCallback(&FrameSink::captureCallback, sink ? sink : &sink_, 3);
  }
  // Close must come back within one wait time-out (2 s) plus a callback; the
  // margin is for loaded machines.
  void closeInTime(CaptureThread& capture, std::chrono::milliseconds limit = 3s) {
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(capture.close(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, limit);
    EXPECT_FALSE(capture.running());
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

  // What the thread asked of the node.
  const tqsim::VideoRequests asked = tqsim::videoRequests(id_);
  EXPECT_EQ(asked.openFlags & O_ACCMODE, O_RDWR);
  EXPECT_NE(asked.openFlags & O_NONBLOCK, 0) << "a blocking node would hang the wait";
  EXPECT_EQ(asked.buffersAsked, 4u);
  EXPECT_EQ(asked.mapProtection, PROT_READ) << "the frames are mapped read-only";
  EXPECT_EQ(asked.parmSets, 1u);
  EXPECT_EQ(std::make_pair(asked.intervalNumerator, asked.intervalDenominator), std::make_pair(1u, 30u))
      << "the chosen rate is applied";
  EXPECT_EQ(asked.streamOffs, 1u) << "streaming is switched off before the node is closed";
  expectLoggedAs(log, {{"CaptureThread::start: capture thread started", kDebug},
                       {"--> CaptureThread::run (640x480) ", kDebug},
                       {"VIDIOC_DQBUF: id nr:", kTrace},
                       {"CaptureThread::close()", kDebug},
                       {"CaptureThread::close() pthread_join: waiting", kDebug},
                       {"CaptureThread::close() pthread_join: done", kDebug},
                       {"CaptureThread::ThreadRoutine: CLEANUP cap thread", kDebug}});

  EXPECT_EQ(capture.close(), 0) << "a second close finds nothing to stop";
  ASSERT_EQ(capture.start(), 0);
  ASSERT_TRUE(sink_.waitForFrames(frames.size() + 2));
  closeInTime(capture);
  EXPECT_EQ(sink_.frames()[frames.size()].number, 0u) << "a fresh stream starts from frame 0";
}

// A lost node (POLLERR|POLLHUP, ENODEV everywhere): one error line, then the thread ends
// instead of spinning until close.
TEST_F(StreamingTest, LostNodeEndsTheThreadAfterOneErrorAndCloseReleasesWhatItLeft) {
  const std::vector<std::pair<const char*, std::function<void(tqsim::CameraId)>>> cases = {
      {"unplug", [](tqsim::CameraId id) { ASSERT_TRUE(tqsim::unplugCamera(id)); }},
      {"driver lost the device",
       [](tqsim::CameraId id) { setFaults(id, [](VideoFaults& f) { f.selectFails = true; }); }},
  };
  for (const auto& [name, lose] : cases) {
    SCOPED_TRACE(name);
    tqsim::reset();
    id_ = plug();
    tqtest::LogCapture log;
    FrameSink sink;
    CaptureThread capture;
    openAndChoose(capture, 640, 480, &sink);
    const size_t descriptors = openDescriptors();
    ASSERT_EQ(capture.start(), 0);
    ASSERT_TRUE(sink.waitForFrames(2));
    lose(id_);
    const char* dequeueFailed =
        "CaptureThread::ThreadRoutine: xioctl VIDIOC_DQBUF returned error: \"No such device\" (errno:19)";
    ASSERT_TRUE(log.waitFor(dequeueFailed, 3s));
    // A thread that carried on would have written thousands of lines by now.
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(log.count("VIDIOC_DQBUF returned error"), 1u);
    EXPECT_LE(log.count("VIDIOC_QBUF returned error"), 1u)
        << "an unplug during the callback fails its requeue";
    EXPECT_EQ(log.count("select returned error"), 0u);
    expectLoggedAs(log, {{dequeueFailed, kError}});
    // The early end keeps `running`: a new start is refused until close.
    EXPECT_TRUE(capture.running());
    EXPECT_EQ(capture.start(), -23);
    EXPECT_EQ(tqsim::openVideoNodes(id_), 1);
    closeInTime(capture);
    EXPECT_EQ(log.count("CLEANUP cap thread"), 0u);
    // The object outlives its stream (a table entry a failed open left behind
    // does): once closed it holds no descriptor, the wake descriptor included.
    EXPECT_EQ(openDescriptors(), descriptors);
  }
}

TEST_F(StreamingTest, EarlyEndsBeforeStreamingLeaveRunningSetAndCloseCleansUp) {
  const std::vector<std::tuple<std::function<void(VideoFaults&)>, const char*, unsigned>> cases = {
      {[](VideoFaults& f) { f.openFails = true; }, "---> Cannot open device", kError},
      {[](VideoFaults& f) { f.formatError = EBUSY; }, "---> Error xioctl ", kError},
      {[](VideoFaults& f) { f.answerPixelFormat = 0x47504A4D; }, "---> Error format ", kDebug},
  };
  for (const auto& [fault, logText, level] : cases) {
    SCOPED_TRACE(logText);
    tqtest::LogCapture log;
    CaptureThread capture;
    openAndChoose(capture);
    setFaults(id_, fault);
    const size_t descriptors = openDescriptors();
    ASSERT_EQ(capture.start(), 0);
    ASSERT_TRUE(log.waitFor(logText, 3s));
    expectLoggedAs(log, {{logText, level}});
    EXPECT_TRUE(capture.running());
    EXPECT_EQ(capture.start(), -23);
    closeInTime(capture);
    EXPECT_EQ(log.count("CLEANUP cap thread"), 0u);
    EXPECT_EQ(openDescriptors(), descriptors);
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
  const char* timedOut = "CaptureThread::ThreadRoutine: error in select: timeout expired";
  EXPECT_TRUE(log.waitFor(timedOut, 4s));
  setFaults(id_, [](VideoFaults& f) { f.stopSending = false; });
  EXPECT_TRUE(lastFrameIs(320 * 240 * 2, true)) << "frames come back";
  expectLoggedAs(log, {{"---> Error size 320x240", kDebug},
                       {"CaptureThread::ThreadRoutine: xioctl VIDIOC_DQBUF returned error: ", kError},
                       {timedOut, kError}});

  // Closing from another thread wakes the wait at once instead of waiting
  // out the time-out that has just begun.
  setFaults(id_, [](VideoFaults& f) { f.stopSending = true; });
  const size_t timeouts = log.count(timedOut);
  ASSERT_TRUE(waitUntil([&] { return log.count(timedOut) > timeouts; }, 4s));
  closeInTime(capture, 1s);
  EXPECT_EQ(log.countExact("CaptureThread::ThreadRoutine: CLEANUP cap thread"), 1u);
}

// A camera running free whose every dequeue fails: each frame lost that way
// reaches the callback once without data and is logged once, also a frame that
// was already waiting when the thread came round for the next. EBADF on a
// descriptor that is there is a failed dequeue too, not a gone descriptor.
TEST_F(StreamingTest, EveryFrameLostToAFailingDequeueIsReportedOnce) {
  for (const int error : {EIO, EBADF}) {
    SCOPED_TRACE(strerror(error));
    tqsim::reset();
    tqsim::CameraConfig config = tqsim::defaultCameraConfig();
    config.video.freeRun = true;
    id_ = plug(config);
    FrameSink sink;
    tqtest::LogCapture log;
    CaptureThread capture;
    openAndChoose(capture, 320, 240, &sink);
    // A client slower than the camera: frames are waiting at every turn.
    capture.setCallback(
        [](unsigned char* data, int size, int index, void* context) {
          std::this_thread::sleep_for(2ms);
          return FrameSink::captureCallback(data, size, index, context);
        },
        &sink, 3);
    ASSERT_EQ(capture.start(), 0);
    ASSERT_TRUE(sink.waitForFrames(3));
    setFaults(id_, [&](VideoFaults& f) { f.dqbufErrno = error; });
    auto failures = [](const std::vector<Frame>& frames) {
      return std::count_if(frames.begin(), frames.end(), [](const Frame& f) { return f.size == 0; });
    };
    // Generous: the waits end as soon as the frames are there.
    ASSERT_TRUE(sink.waitFor([&](const std::vector<Frame>& f) { return failures(f) >= 50; }, 30s));
    setFaults(id_, [](VideoFaults& f) { f.dqbufErrno = 0; });
    ASSERT_TRUE(sink.waitFor([&](const std::vector<Frame>& f) { return f.back().patternOk; }, 30s));
    closeInTime(capture);

    // The driver numbers the frames it fills: the failures are the frames
    // missing between the last good frame before and the first after.
    const auto frames = sink.frames();
    const auto failed = [](const Frame& f) { return f.size == 0; };
    const auto firstFailed = std::find_if(frames.begin(), frames.end(), failed);
    ASSERT_NE(firstFailed, frames.begin());
    ASSERT_NE(firstFailed, frames.end());
    const auto nextGood = std::find_if_not(firstFailed, frames.end(), failed);
    ASSERT_NE(nextGood, frames.end());
    const auto before = std::prev(firstFailed);
    ASSERT_TRUE(before->patternOk && nextGood->patternOk);
    const auto reported = static_cast<uint32_t>(nextGood - firstFailed);
    EXPECT_EQ(reported, nextGood->number - before->number - 1) << "frames lost without a word";
    const std::string line =
        std::string("CaptureThread::ThreadRoutine: xioctl VIDIOC_DQBUF returned error: \"") + strerror(error);
    EXPECT_EQ(log.count(line), static_cast<size_t>(failures(frames)));
    EXPECT_EQ(log.count("select returned error"), 0u);
  }
}

// A node that polls readable while every dequeue answers EAGAIN: the retry
// must notice the stop, or close waits for ever.
TEST_F(StreamingTest, CloseEndsADequeueThatKeepsAnsweringAgain) {
  CaptureThread capture;
  openAndChoose(capture);
  ASSERT_EQ(capture.start(), 0);
  ASSERT_TRUE(sink_.waitForFrames(1));
  setFaults(id_, [](VideoFaults& f) { f.dqbufAgain = true; });
  // The thread is retrying its dequeue.
  const uint64_t dequeues = tqsim::videoRequests(id_).dequeues;
  ASSERT_TRUE(waitUntil([&] { return tqsim::videoRequests(id_).dequeues > dequeues + 100; }));
  auto closed = std::async(std::launch::async, [&] { return capture.close(); });
  const bool inTime = closed.wait_for(1500ms) == std::future_status::ready;
  // Lets a thread stuck in the retry go on, so that the test can end.
  if (!inTime) setFaults(id_, [](VideoFaults& f) { f.dqbufAgain = false; });
  EXPECT_EQ(closed.get(), 0);
  EXPECT_TRUE(inTime) << "close waited for a dequeue that never succeeds";
  EXPECT_EQ(tqsim::openVideoNodes(id_), 0);
}

// An SDK process may hold many files: the node's number can be past what an
// fd_set describes.
TEST_F(StreamingTest, StreamsFromADescriptorNumberedPast1024) {
  constexpr int kFloor = 1100;
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit saved = limit;
  if (limit.rlim_cur < kFloor + 64) {
    if (limit.rlim_max < kFloor + 64) GTEST_SKIP() << "descriptor limit too low";
    limit.rlim_cur = kFloor + 64;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  }
  // Every free number below the floor taken, so the node lands above it.
  std::vector<int> fillers;
  const int devNull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(devNull, 0);
  for (int n = 0; n < kFloor; ++n)
    if (fcntl(n, F_GETFD) == -1 && dup2(devNull, n) == n) fillers.push_back(n);

  CaptureThread capture;
  openAndChoose(capture);
  ASSERT_EQ(capture.start(), 0);
  EXPECT_TRUE(sink_.waitForFrames(3));
  closeInTime(capture);
  for (const Frame& f : sink_.frames()) EXPECT_TRUE(f.patternOk);

  for (int fd : fillers) ::close(fd);
  ::close(devNull);
  setrlimit(RLIMIT_NOFILE, &saved);
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

// A client that stops (or closes, or restarts) its stream from the frame
// callback, on the capture thread itself.
class StopFromCallbackTest : public StreamingTest {
 protected:
  static constexpr unsigned char kCamera = 2;
  struct Client {
    std::function<void()> onThirdFrame;
    FrameSink sink;
    std::atomic<int> calls{0};
  };
  // After acting it still reads the whole frame it was handed: stopping must
  // not take the buffer away under it.
  static int callback(unsigned char* data, int size, int cameraIndex, void* context) {
    auto* client = static_cast<Client*>(context);
    if (++client->calls == 3) client->onThirdFrame();
    client->sink.add(data, size, cameraIndex);
    return 0;
  }
  void openAndStart(Client& client) {
    char path[] = "/dev/video0";
    ASSERT_EQ(KOR_UVC_StreamOpen(kCamera, path), 0);
    ASSERT_EQ(KOR_UVC_StreamSetFrameFormat(kCamera, 320, 240), 0);
    ASSERT_EQ(KOR_UVC_SetCallbackStream(kCamera, &callback, &client), 0);
    ASSERT_EQ(KOR_UVC_StreamStart(kCamera), 0);
  }
  // The thread let go of the node and its mappings by itself.
  void expectReleased() {
    EXPECT_TRUE(waitUntil([&] { return tqsim::openVideoNodes(id_) == 0 && tqsim::videoMappings(id_) == 0; }));
  }
};

TEST_F(StopFromCallbackTest, StopOrCloseFromTheCallbackEndsTheThreadAfterItAndALaterStartWorks) {
  const std::vector<std::pair<const char*, std::function<void()>>> cases = {
      {"stop", [] { EXPECT_EQ(KOR_UVC_StreamStop(kCamera), 0); }},
      {"close", [] { EXPECT_EQ(KOR_UVC_StreamClose(kCamera), 0); }},
  };
  for (const auto& [name, action] : cases) {
    SCOPED_TRACE(name);
    Client client;
    client.onThirdFrame = action;
    openAndStart(client);
    ASSERT_TRUE(client.sink.waitForFrames(3));
    expectReleased();
    ASSERT_EQ(client.sink.frames().size(), 3u) << "no frame after the stop";
    EXPECT_TRUE(client.sink.frames().back().patternOk) << "the frame in hand stayed intact";

    // The camera number works again.
    if (capture_thread[kCamera]) {
      EXPECT_FALSE(capture_thread[kCamera]->running());
      client.onThirdFrame = [] {};
      ASSERT_EQ(KOR_UVC_StreamStart(kCamera), 0);
    } else {
      Client fresh;
      fresh.onThirdFrame = [] {};
      openAndStart(fresh);
      EXPECT_TRUE(fresh.sink.waitForFrames(2));
      ASSERT_EQ(KOR_UVC_StreamClose(kCamera), 0);
      continue;
    }
    EXPECT_TRUE(client.sink.waitForFrames(5));
    ASSERT_EQ(KOR_UVC_StreamClose(kCamera), 0);
    expectReleased();
  }
}

TEST_F(StopFromCallbackTest, RestartFromTheCallbackStreamsAfreshOnOneNode) {
  Client client;
  client.onThirdFrame = [] {
    EXPECT_EQ(KOR_UVC_StreamStop(kCamera), 0);
    EXPECT_EQ(KOR_UVC_StreamStart(kCamera), 0);
  };
  openAndStart(client);
  ASSERT_TRUE(client.sink.waitForFrames(6));
  const auto frames = client.sink.frames();
  EXPECT_TRUE(frames[2].patternOk);
  EXPECT_EQ(frames[3].number, 0u) << "the new stream starts from frame 0";
  EXPECT_TRUE(waitUntil([&] { return tqsim::openVideoNodes(id_) == 1; }))
      << "the old stream let go of its node";
  ASSERT_EQ(KOR_UVC_StreamClose(kCamera), 0);
  EXPECT_EQ(tqsim::openVideoNodes(id_), 0);
  EXPECT_EQ(tqsim::videoMappings(id_), 0u);
}

}  // namespace
}  // namespace videotest
