#include <utility>

#include "HidFixture.h"
#include "LogCapture.h"

namespace hidtest {
namespace {

class Enumeration : public SimTest {};

TEST_F(Enumeration, PairsEachHidrawWithTheFirstVideoNodeOfItsSerial) {
  // Both cameras carry one serial, so both pair with video0 (video1, the
  // metadata node of the first, has that serial too).
  tqsim::CameraConfig first = cameraOn(0, 0, "TWIN");
  first.manufacturer = "Emu Vendor  ";
  plug(first);
  plug(cameraOn(1, 2, "TWIN"));
  ASSERT_EQ(KOR_HID_Enumerate(kVid, kPid), 2);
  const int a = indexOf("TWIN", 0, 0);
  const int b = indexOf("TWIN", 0, 1);
  ASSERT_GE(a, 0);
  ASSERT_GT(b, a);
  const DeviceNode& r = DevicePool[a];
  EXPECT_EQ(r.sUvcPath, "/dev/video0");
  EXPECT_EQ(r.sSerial, "TWIN");
  EXPECT_EQ(r.sManufacturer, "Emu Vendor  ");
  EXPECT_EQ(r.sProduct, "Emu Camera");
}

TEST_F(Enumeration, CamerasThatCannotBePairedAreNotListed) {
  const std::pair<const char*, void (*)(tqsim::CameraConfig&)> cases[] = {
      {"video without serial", [](tqsim::CameraConfig& c) { c.udevFaults.videoWithoutSerial = true; }},
      {"video with another serial", [](tqsim::CameraConfig& c) { c.udevFaults.videoSerial = "OTHER"; }},
      {"udevadm fails", [](tqsim::CameraConfig& c) { c.udevFaults.fails = true; }},
      {"other product id", [](tqsim::CameraConfig& c) { c.productId = 0x0204; }},
  };
  for (const auto& [name, change] : cases) {
    SCOPED_TRACE(name);
    tqsim::reset();
    tqsim::CameraConfig config = cameraOn(0, 0, "UNPAIRED");
    change(config);
    plug(config);
    const size_t before = DevicePool.size();
    EXPECT_EQ(KOR_HID_Enumerate(kVid, kPid), 0);
    EXPECT_EQ(DevicePool.size(), before);
  }
}

TEST_F(Enumeration, AMissingHidrawNumberEndsTheSearch) {
  for (int hidraw : {0, 1, 2, 4}) plug(cameraOn(hidraw, 2 * hidraw, "GAP-" + std::to_string(hidraw)));
  EXPECT_EQ(KOR_HID_Enumerate(kVid, kPid), 3);
  EXPECT_GE(indexOf("GAP-2", 4, 2), 0);
  EXPECT_EQ(indexOf("GAP-4", 8, 4), -1);
}

TEST_F(Enumeration, RecordsKeepTheirIndexAcrossUnplugAndNoCamera) {
  plug(cameraOn(0, 0, "STABLE-A"));
  tqsim::CameraId b = plug(cameraOn(1, 2, "STABLE-B"));
  ASSERT_EQ(KOR_HID_Enumerate(kVid, kPid), 2);
  const int ia = indexOf("STABLE-A", 0, 0);
  const int ib = indexOf("STABLE-B", 2, 1);
  ASSERT_GE(ia, 0);
  ASSERT_GE(ib, 0);
  const size_t size = DevicePool.size();
  ASSERT_EQ(KOR_HID_Enumerate(kVid, kPid), 2);
  EXPECT_EQ(indexOf("STABLE-A", 0, 0), ia);
  EXPECT_EQ(indexOf("STABLE-B", 2, 1), ib);

  // The last hidraw number goes, so no gap hides the other camera: its record
  // stays, unlinked, and is linked again when it is back.
  ASSERT_TRUE(tqsim::unplugCamera(b));
  EXPECT_EQ(KOR_HID_Enumerate(kVid, kPid), 1);
  EXPECT_EQ(DevicePool.size(), size);
  EXPECT_EQ(KOR_HID_IsLinked(static_cast<uint8_t>(ia)), 1);
  EXPECT_EQ(KOR_HID_IsLinked(static_cast<uint8_t>(ib)), 0);
  ASSERT_TRUE(tqsim::replugCamera(b));
  EXPECT_EQ(KOR_HID_Enumerate(kVid, kPid), 2);
  EXPECT_EQ(KOR_HID_IsLinked(static_cast<uint8_t>(ib)), 1);

  tqsim::reset();
  EXPECT_EQ(KOR_HID_Enumerate(kVid, kPid), 0);
  EXPECT_EQ(DevicePool.size(), size);
  EXPECT_EQ(KOR_HID_IsLinked(static_cast<uint8_t>(ia)), 0);
}

// Indices are 8-bit: past 256 records a new identity is refused, not wrapped onto index 0.
TEST_F(Enumeration, TheTableStopsAt256Records) {
  const size_t before = DevicePool.size();
  ASSERT_LT(before, 255u);
  // Cameras seen earlier, long gone: only their records are needed.
  while (DevicePool.size() < 255) {
    DevicePool.emplace_back();
    DevicePoolCount = DevicePool.size();
    DevicePool.back().sIdentity = "OLD-" + std::to_string(DevicePool.size());
  }
  tqtest::LogCapture log;
  tqsim::CameraId cam = plug(cameraOn(0, 0, "FULL"));
  EXPECT_EQ(KOR_HID_Enumerate(kVid, kPid), 1);
  EXPECT_EQ(indexOf("FULL", 0, 0), 255);

  // Back under other node numbers: a new identity, and no room for it.
  ASSERT_TRUE(tqsim::unplugCamera(cam));
  tqsim::reset();
  plug(cameraOn(1, 2, "FULL"));
  plug(cameraOn(0, 4, "NEW"));
  EXPECT_EQ(KOR_HID_Enumerate(kVid, kPid), 0);
  EXPECT_EQ(DevicePool.size(), 256u);
  EXPECT_EQ(KOR_HID_IsLinked(255), 0);
  EXPECT_EQ(log.countExact(
                "KOR_HID_Enumerate: device table full (256 cameras), FULL-/dev/video2-/dev/hidraw1 not added",
                RKLOG_ERROR),
            1u);
  EXPECT_EQ(log.count("device table full", RKLOG_ERROR), 2u);

  // Records already there are still found and linked again.
  tqsim::reset();
  plug(cameraOn(0, 0, "FULL"));
  EXPECT_EQ(KOR_HID_Enumerate(kVid, kPid), 1);
  EXPECT_EQ(KOR_HID_IsLinked(255), 1);

  for (size_t i = before; i < DevicePool.size(); ++i) KOR_HID_Close(static_cast<uint8_t>(i));
  DevicePool.resize(before);
  DevicePoolCount = DevicePool.size();
}

}  // namespace
}  // namespace hidtest
