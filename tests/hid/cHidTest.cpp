#include <algorithm>
#include <chrono>
#include <vector>

#include "HidFixture.h"
#include "hid/cHid.h"

namespace hidtest {
namespace {

using namespace std::chrono_literals;

class cHidDevice : public SimTest {};

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
  EXPECT_EQ(hid.thread, pthread_t{});
  EXPECT_EQ(tqsim::openHidNodes(cam), 0);
}

}  // namespace
}  // namespace hidtest
