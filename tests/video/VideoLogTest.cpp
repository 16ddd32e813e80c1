// Exact text, level and source of the video side's less common log lines, each
// provoked through the emulated camera (or, for the missing context, through
// the capture path with a null context).
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "VideoFixture.h"
#include "video/Vexa_UVC.h"

namespace videotest {
namespace {

constexpr unsigned kError = RKLOG_ERROR;
constexpr unsigned kDebug = RKLOG_DEBUG;

class VideoLogTest : public VideoSimTest {
 protected:
  char path_[16] = "/dev/video0";
};

// Lists the sizes of a camera whose driver answers the size listing with one
// range of the given kind instead of discrete sizes.
void listRangeSizes(tqsim::SizeKind kind, const tqtest::LogCapture& log, const char* text) {
  tqsim::CameraConfig config = tqsim::defaultCameraConfig();
  config.video.sizeKind = kind;
  plug(config);
  CaptureThread capture;
  char path[] = "/dev/video0";
  EXPECT_EQ(capture.open(path), 0);
  EXPECT_EQ(capture.frameSizeCount(), 0) << "a range is no size the library can offer";
  EXPECT_TRUE(log.waitFor(text, 0ms));
}

// The capture thread's id, taken from inside its frame callback.
struct ThreadProbe {
  std::atomic<bool> seen{false};
  pthread_t thread{};
  static int callback(unsigned char*, int, int, void* context) {
    auto* self = static_cast<ThreadProbe*>(context);
    if (!self->seen.load()) {
      self->thread = pthread_self();
      self->seen.store(true);
    }
    return 0;
  }
};

void ignoreSignal(int) {}

// Signals the capture thread until one lands in its wait (EINTR; poll is never restarted).
void interruptTheWait(const tqtest::LogCapture& log, const char* text) {
  plug();
  struct sigaction action {};
  struct sigaction previous {};
  action.sa_handler = ignoreSignal;
  sigemptyset(&action.sa_mask);
  ASSERT_EQ(sigaction(SIGUSR2, &action, &previous), 0);

  char path[] = "/dev/video0";
  ThreadProbe probe;
  ASSERT_EQ(KOR_UVC_StreamOpen(0, path), 0);
  KOR_UVC_StreamSetFrameFormat(0, 320, 240);
  KOR_UVC_SetCallbackStream(0, &ThreadProbe::callback, &probe);
  ASSERT_EQ(KOR_UVC_StreamStart(0), 0);
  EXPECT_TRUE(waitUntil([&] { return probe.seen.load(); })) << "no frame arrived";
  // The thread runs until the close below, so its id stays valid meanwhile.
  waitUntil([&] {
    if (!probe.seen.load()) return true;
    pthread_kill(probe.thread, SIGUSR2);
    return log.waitFor(text, 20ms);
  });
  EXPECT_EQ(KOR_UVC_StreamClose(0), 0);
  sigaction(SIGUSR2, &previous, nullptr);
}

// Streams through the facade with no buffer callback registered for the
// camera: every frame is dropped with an error line.
void streamWithoutBufferCallback(const tqtest::LogCapture& log, const char* text) {
  plug();
  Vexa_UVC uvc;
  _Formats list[LIST_MAX_NUM + 1] = {};
  int count = 0;
  char path[] = "/dev/video0";
  ASSERT_EQ(uvc.OpenStreaming(3, path, list, &count), 0);
  uvc.SetStreamingFrameFormat(3, 320, 240);
  ASSERT_EQ(uvc.StartStreaming(3), 0);
  EXPECT_TRUE(log.waitFor(text, 3s));
  uvc.StopStreaming(3);
  uvc.CloseStreaming(3);
}

// The facade's stream callback registered for a camera without the facade as
// its context.
void streamIntoFacadeWithoutContext(const tqtest::LogCapture& log, const char* text) {
  plug();
  char path[] = "/dev/video0";
  ASSERT_EQ(KOR_UVC_StreamOpen(2, path), 0);
  KOR_UVC_StreamSetFrameFormat(2, 320, 240);
  KOR_UVC_SetCallbackStream(2, &Vexa_UVC::ReceiveCallbackStream, nullptr);
  ASSERT_EQ(KOR_UVC_StreamStart(2), 0);
  EXPECT_TRUE(log.waitFor(text, 3s));
  EXPECT_EQ(KOR_UVC_StreamClose(2), 0);
}

TEST_F(VideoLogTest, RareLinesKeepTheirTextLevelAndSource) {
  using Provoke = std::function<void(const tqtest::LogCapture&, const char*)>;
  struct Case {
    const char* text;
    unsigned level;
    Provoke provoke;
  };
  const std::vector<Case> cases = {
      {"  fsize.type not supported: 3", kDebug,
       [](const tqtest::LogCapture& log, const char* text) {
         listRangeSizes(tqsim::SizeKind::Stepwise, log, text);
       }},
      {"  fsize.type not supported: 2", kDebug,
       [](const tqtest::LogCapture& log, const char* text) {
         listRangeSizes(tqsim::SizeKind::Continuous, log, text);
       }},
      {"CaptureThread::ThreadRoutine: interrupted system call", kError, interruptTheWait},
      {"Vexa_UVC::NewBufferCallBack: callback function not defned yet: (nil)", kError,
       streamWithoutBufferCallback},
      {"Vexa_UVC::ReceiveCallbackStream: class context not defined: (nil)", kError,
       streamIntoFacadeWithoutContext},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    tqsim::reset();
    tqtest::LogCapture log;
    c.provoke(log, c.text);
    EXPECT_GE(log.countExact(c.text), 1u) << "never logged with this exact text";
    expectLoggedAs(log, {{c.text, c.level}});
  }
}

}  // namespace
}  // namespace videotest
