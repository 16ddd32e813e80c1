#include <gtest/gtest.h>
#include <tqsim/Sim.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "HidFixture.h"
#include "LogCapture.h"
#include "hid/cHid.h"

namespace hidtest {
namespace {

using namespace std::chrono_literals;

class cHidDevice : public SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    cam_ = plug(cameraOn(0, 0, "CHID"));
  }
  tqsim::CameraId cam_ = tqsim::kNoCamera;
};

// Collects the reports the reader thread delivers.
struct Inbox {
  std::mutex lock;
  std::condition_variable arrived;
  std::vector<std::vector<uint8_t>> reports;

  static int take(unsigned char* report, void* ctx) {
    auto* self = static_cast<Inbox*>(ctx);
    {
      std::lock_guard<std::mutex> g(self->lock);
      self->reports.emplace_back(report, report + 64);
    }
    self->arrived.notify_all();
    return 0;
  }
  bool waitFor(size_t n) {
    std::unique_lock<std::mutex> g(lock);
    return arrived.wait_for(g, 3s, [&] { return reports.size() >= n; });
  }
};

TEST_F(cHidDevice, OpenFailureLeavesItClosed) {
  cHid hid(0);
  EXPECT_EQ(hid._open("/dev/hidraw7"), 1);
  EXPECT_EQ(hid.fd, -1);
  EXPECT_EQ(hid.thread, pthread_t{});
  EXPECT_FALSE(hid.IsOpen());
  uint8_t data[4] = {};
  EXPECT_EQ(hid.hidReport(1, 0x5C, data, 4), -1);
  EXPECT_EQ(hid.hidFeatureRd(1, data, 4), -1);
  hid._close();
  EXPECT_EQ(tqsim::receivedReports(cam_).size(), 0u);
}

TEST_F(cHidDevice, ReportsAreWrittenAsIdCommandAndLenBytes) {
  cHid hid(0);
  ASSERT_EQ(hid._open("/dev/hidraw0"), 0);
  EXPECT_TRUE(hid.IsOpen());
  EXPECT_NE(hid.thread, pthread_t{});
  EXPECT_EQ(tqsim::openHidNodes(cam_), 1);

  uint8_t data[300];
  for (int i = 0; i < 300; ++i) data[i] = static_cast<uint8_t>(i + 1);
  struct {
    uint8_t len;
    size_t written;
  } cases[] = {{0, 2}, {3, 5}, {254, 256}, {255, 256}};
  for (const auto& c : cases) {
    tqsim::clearReceivedReports(cam_);
    ASSERT_EQ(hid.hidReport(7, 0x42, data, c.len), 0);
    ASSERT_TRUE(tqsim::waitForReports(cam_, 1, 2000ms));
    auto got = tqsim::receivedReports(cam_);
    ASSERT_EQ(got.size(), 1u);
    std::vector<uint8_t> expected = {7, 0x42};
    expected.insert(expected.end(), data, data + (c.written - 2));
    EXPECT_EQ(got[0], expected) << "len " << int(c.len);
  }
  hid._close();
  EXPECT_FALSE(hid.IsOpen());
  EXPECT_EQ(hid.thread, pthread_t{});
  EXPECT_EQ(tqsim::openHidNodes(cam_), 0);
}

TEST_F(cHidDevice, FeatureReadsCopyLenBytesOfTheReport) {
  std::vector<uint8_t> file(1500);
  for (size_t i = 0; i < file.size(); ++i) file[i] = static_cast<uint8_t>(i * 13 + 1);
  ASSERT_TRUE(tqsim::modifyCamera(cam_, [&](tqsim::CameraConfig& c) { c.xmlFile = file; }));
  cHid hid(0);
  ASSERT_EQ(hid._open("/dev/hidraw0"), 0);
  const uint8_t firstChunk[4] = {0, 0, 0, 0};
  ASSERT_EQ(hid.hidReport(1, 0x4E, firstChunk, 4), 0);
  ASSERT_TRUE(tqsim::waitForReports(cam_, 1, 2000ms));

  // len beyond the 1024-byte report copies the report and nothing more.
  for (uint16_t len : {uint16_t{10}, uint16_t{1024}, uint16_t{2000}}) {
    std::vector<uint8_t> buf(2100, 0xEE);
    ASSERT_EQ(hid.hidFeatureRd(1, buf.data(), len), 0);
    size_t copied = std::min<size_t>(len, 1024);
    EXPECT_TRUE(std::equal(buf.begin(), buf.begin() + copied, file.begin())) << "len " << len;
    EXPECT_EQ(buf[copied], 0xEE) << "len " << len;
  }
  hid._close();
}

TEST_F(cHidDevice, InputReportsReachTheCallbackOnTheReaderThread) {
  tqtest::LogCapture log;
  cHid hid(0);
  ASSERT_EQ(hid._open("/dev/hidraw0"), 0);

  // No consumer yet: the report is dropped with an error.
  ASSERT_TRUE(tqsim::sendEvent(cam_, {9, 8, 7}));
  EXPECT_TRUE(log.waitFor("cHid::ThreadRoutine callback undefined", 3000ms));

  Inbox inbox;
  hid.setCallback(&Inbox::take, &inbox);
  ASSERT_TRUE(tqsim::sendEvent(cam_, {1, 2, 3}));
  ASSERT_TRUE(inbox.waitFor(1));
  {
    std::lock_guard<std::mutex> g(inbox.lock);
    EXPECT_EQ(inbox.reports[0][0], 2);
    EXPECT_EQ(inbox.reports[0][1], 1);
    EXPECT_EQ(inbox.reports[0][3], 3);
    EXPECT_EQ(inbox.reports[0][4], 0);
  }

  // Closing joins the reader without waiting out its poll interval.
  auto start = std::chrono::steady_clock::now();
  hid._close();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms);
  EXPECT_TRUE(log.contains("cHid::ThreadRoutine finished"));
}

}  // namespace
}  // namespace hidtest
