#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "HidFixture.h"
#include "LogCapture.h"
#include "TestUtil.h"
#include "hid/cHid.h"

namespace hidtest {
namespace {

using namespace std::chrono_literals;

class cHidDevice : public SimTest {};

// Counts answer reports handed to the callback; optionally closes the camera
// from inside the callback, as a client stopping from its answer would.
struct Answers {
  std::mutex mutex;
  std::condition_variable changed;
  int count = 0;
  bool closeFromCallback = false;
  uint8_t cam = 0;
  std::atomic<bool> callbackReturned{false};

  static int callback(unsigned char* report, void* ctx) {
    auto* self = static_cast<Answers*>(ctx);
    if (self->closeFromCallback) KOR_HID_Close(self->cam);  // deletes the cHid running this callback
    {
      std::lock_guard<std::mutex> lock(self->mutex);
      if (report[0] == 1) ++self->count;
    }
    self->changed.notify_all();
    self->callbackReturned = true;
    return 0;
  }
  bool waitFor(int n) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, 3s, [&] { return count >= n; });
  }
};

const uint8_t kReadRegister[6] = {0, 0x10, 0, 0, 0, 0};

TEST_F(cHidDevice, OpenReportFeatureReadAndClose) {
  const tqsim::CameraId cam = plug(cameraOn(0, 0, "CHID"));
  cHid hid(0);
  EXPECT_EQ(hid._open("/dev/hidraw7"), 1);
  EXPECT_FALSE(hid.IsOpen());
  uint8_t data[4] = {};
  EXPECT_EQ(hid.hidReport(1, 0x5C, data, 4), -1);
  EXPECT_EQ(hid.hidFeatureRd(1, data, 4), -1);

  ASSERT_EQ(hid._open("/dev/hidraw0"), 0);
  // Opening again must not leak the first descriptor.
  ASSERT_EQ(hid._open("/dev/hidraw0"), 0);
  EXPECT_EQ(tqsim::openHidNodes(cam), 1);

  // Written as report id, command and len data bytes, at most 254 of them.
  uint8_t report[300] = {7, 0x42};
  for (int i = 2; i < 300; ++i) report[i] = static_cast<uint8_t>(i);
  for (uint8_t len : {uint8_t{0}, uint8_t{3}, uint8_t{255}}) {
    tqsim::clearReceivedReports(cam);
    ASSERT_EQ(hid.hidReport(7, 0x42, report + 2, len), 0);
    ASSERT_TRUE(tqsim::waitForReports(cam, 1, 2000ms));
    const std::vector<uint8_t> expected(report, report + 2 + std::min(len, uint8_t{254}));
    EXPECT_EQ(tqsim::receivedReports(cam).at(0), expected) << "len " << int(len);
  }

  // The first chunk of the description file as feature report: len bytes of
  // it are copied, never more than the 1024-byte report.
  std::vector<uint8_t> file(1500);
  for (size_t i = 0; i < file.size(); ++i) file[i] = static_cast<uint8_t>(i * 13 + 1);
  ASSERT_TRUE(tqsim::modifyCamera(cam, [&](tqsim::CameraConfig& c) { c.xmlFile = file; }));
  const uint8_t firstChunk[4] = {0, 0, 0, 0};
  tqsim::clearReceivedReports(cam);
  ASSERT_EQ(hid.hidReport(1, 0x4E, firstChunk, 4), 0);
  ASSERT_TRUE(tqsim::waitForReports(cam, 1, 2000ms));
  for (uint16_t len : {uint16_t{10}, uint16_t{2000}}) {
    std::vector<uint8_t> buf(2100, 0xEE);
    ASSERT_EQ(hid.hidFeatureRd(1, buf.data(), len), 0);
    const size_t copied = std::min<size_t>(len, 1024);
    EXPECT_TRUE(std::equal(buf.begin(), buf.begin() + copied, file.begin())) << "len " << len;
    EXPECT_EQ(buf[copied], 0xEE) << "len " << len;
  }

  // Closing joins the reader without waiting out its poll interval.
  const auto start = std::chrono::steady_clock::now();
  hid._close();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms);
  EXPECT_FALSE(hid.IsOpen());
  EXPECT_FALSE(hid.hasReader());
  EXPECT_EQ(tqsim::openHidNodes(cam), 0);
}

// A process with many files open gets node descriptors past FD_SETSIZE; the
// reader must still wait on them and deliver answers.
TEST_F(cHidDevice, ServesDescriptorsAbove1023) {
  rlimit old{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
  if (old.rlim_max < 1200) GTEST_SKIP() << "descriptor limit " << old.rlim_max;
  rlimit raised = old;
  raised.rlim_cur = std::max<rlim_t>(old.rlim_cur, 1200);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
  std::vector<int> filler;
  while (filler.empty() || filler.back() < 1100) filler.push_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));

  plug(cameraOn(0, 0, "HIGHFD"));
  Answers answers;
  {
    cHid hid(0);
    ASSERT_EQ(hid._open("/dev/hidraw0"), 0);
    EXPECT_GE(hid.descriptor(), 1024);
    hid.setCallback(&Answers::callback, &answers);
    for (int i = 1; i <= 3; ++i) {
      ASSERT_EQ(hid.hidReport(1, 0x5C, kReadRegister, sizeof kReadRegister), 0);
      EXPECT_TRUE(answers.waitFor(i)) << "answer " << i;
    }
  }
  for (int fd : filler) ::close(fd);
  setrlimit(RLIMIT_NOFILE, &old);
}

// Unplugged, the reader says so once and ends instead of spinning; close and reconnect work.
TEST_F(cHidDevice, UnplugEndsTheReaderOnce) {
  const tqsim::CameraId sim = plug(cameraOn(0, 0, "GONE"));
  ASSERT_EQ(KOR_HID_Enumerate(kVid, kPid), 1);
  const auto cam = static_cast<uint8_t>(indexOf("GONE", 0, 0));
  ASSERT_EQ(KOR_HID_Open(cam), 0);
  EXPECT_TRUE(KOR_HID_IsOpen(cam));

  tqtest::LogCapture log;
  ASSERT_TRUE(tqsim::unplugCamera(sim));
  ASSERT_TRUE(log.waitFor("cHid::ThreadRoutine terminating thread", 3000ms));
  EXPECT_EQ(log.countExact("cHid::ThreadRoutine read error 5: the node is gone, reader stops", RKLOG_ERROR),
            1u);

  // The node is still attached and open, but the camera is no longer linked.
  EXPECT_TRUE(KOR_HID_IsOpen(cam));
  EXPECT_EQ(KOR_HID_Enumerate(kVid, kPid), 0);
  EXPECT_FALSE(KOR_HID_IsOpen(cam));
  EXPECT_EQ(KOR_HID_Report(cam, 1, 0x5C, kReadRegister, sizeof kReadRegister), 1);
  EXPECT_TRUE(log.contains("cHid::hidReport: Error: 19 fd:", RKLOG_ERROR));

  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(KOR_HID_Close(cam), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms);

  ASSERT_TRUE(tqsim::replugCamera(sim));
  ASSERT_EQ(KOR_HID_Enumerate(kVid, kPid), 1);
  ASSERT_EQ(KOR_HID_Open(cam), 0);
  Answers answers;
  ASSERT_EQ(KOR_HID_SetCallbackHid(cam, &Answers::callback, &answers), 0);
  ASSERT_EQ(KOR_HID_Report(cam, 1, 0x5C, kReadRegister, sizeof kReadRegister), 0);
  EXPECT_TRUE(answers.waitFor(1));
  EXPECT_EQ(KOR_HID_Close(cam), 0);  // the reader calls into `answers`
}

// Closing the device from its own answer callback neither deadlocks nor pulls the node
// from under the callback; the camera opens again afterwards.
TEST_F(cHidDevice, CloseFromTheAnswerCallback) {
  const tqsim::CameraId sim = plug(cameraOn(0, 0, "SELF"));
  ASSERT_EQ(KOR_HID_Enumerate(kVid, kPid), 1);
  Answers answers;
  answers.cam = static_cast<uint8_t>(indexOf("SELF", 0, 0));
  answers.closeFromCallback = true;
  ASSERT_EQ(KOR_HID_Open(answers.cam), 0);
  ASSERT_EQ(KOR_HID_SetCallbackHid(answers.cam, &Answers::callback, &answers), 0);

  tqtest::LogCapture log;
  ASSERT_EQ(KOR_HID_Report(answers.cam, 1, 0x5C, kReadRegister, sizeof kReadRegister), 0);
  ASSERT_TRUE(answers.waitFor(1));
  EXPECT_TRUE(tqtest::waitUntil([&] { return answers.callbackReturned.load(); }));
  EXPECT_FALSE(KOR_HID_IsOpen(answers.cam));
  EXPECT_TRUE(log.waitFor("cHid::ThreadRoutine terminating thread", 3000ms));
  EXPECT_TRUE(tqtest::waitUntil([&] { return tqsim::openHidNodes(sim) == 0; }));

  answers.closeFromCallback = false;
  ASSERT_EQ(KOR_HID_Open(answers.cam), 0);
  ASSERT_EQ(KOR_HID_SetCallbackHid(answers.cam, &Answers::callback, &answers), 0);
  ASSERT_EQ(KOR_HID_Report(answers.cam, 1, 0x5C, kReadRegister, sizeof kReadRegister), 0);
  EXPECT_TRUE(answers.waitFor(2));
  EXPECT_EQ(KOR_HID_Close(answers.cam), 0);  // the reader calls into `answers`
}

}  // namespace
}  // namespace hidtest
