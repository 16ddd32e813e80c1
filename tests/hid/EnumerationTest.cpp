#include <gtest/gtest.h>
#include <tqsim/Sim.h>

#include <string>

#include "HidFixture.h"
#include "hid/KOR_HID.h"

namespace hidtest {
namespace {

class Enumeration : public SimTest {};

size_t linkedCount() {
  size_t n = 0;
  for (const auto& r : DevicePool) n += r.bLinked != 0;
  return n;
}

TEST_F(Enumeration, PairsHidrawWithTheFirstVideoNodeOfItsSerial) {
  tqsim::CameraConfig config = cameraOn(0, 0, "PAIR-1");
  config.manufacturer = "Emu Vendor  ";
  plug(config);
  ASSERT_EQ(KOR_HID_Enumerate(kVid, kPid), 1);
  EXPECT_EQ(gn_Vid, kVid);
  EXPECT_EQ(gn_Pid, kPid);

  // video0 (capture) and video1 (metadata) share the serial: the first wins.
  int cam = indexOf(identity("PAIR-1", 0, 0));
  ASSERT_GE(cam, 0);
  const DeviceNode& r = DevicePool[cam];
  EXPECT_EQ(r.bLinked, 1);
  EXPECT_EQ(r.sHidPath, "/dev/hidraw0");
  EXPECT_EQ(r.sUvcPath, "/dev/video0");
  EXPECT_EQ(r.sSerial, "PAIR-1");
  EXPECT_EQ(r.sManufacturer, "Emu Vendor  ");
  EXPECT_EQ(r.sProduct, "Emu Camera");
  EXPECT_FALSE(r.pHid);

  char buf[64];
  KOR_HID_GetDevicePathUVC(static_cast<uint8_t>(cam), buf, sizeof buf);
  EXPECT_STREQ(buf, "/dev/video0");
}

TEST_F(Enumeration, CamerasThatCannotBePairedAreNotListed) {
  struct Case {
    const char* name;
    void (*change)(tqsim::CameraConfig&);
  } cases[] = {
      {"video without serial", [](tqsim::CameraConfig& c) { c.udevFaults.videoWithoutSerial = true; }},
      {"video with another serial", [](tqsim::CameraConfig& c) { c.udevFaults.videoSerial = "OTHER"; }},
      {"udevadm fails", [](tqsim::CameraConfig& c) { c.udevFaults.fails = true; }},
      {"udevadm prints garbage", [](tqsim::CameraConfig& c) { c.udevFaults.garbage = true; }},
      {"other product id", [](tqsim::CameraConfig& c) { c.productId = 0x0204; }},
      {"other vendor id", [](tqsim::CameraConfig& c) { c.vendorId = 0x1234; }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    tqsim::reset();
    tqsim::CameraConfig config = cameraOn(0, 0, "UNPAIRED");
    c.change(config);
    plug(config);
    size_t before = DevicePool.size();
    EXPECT_EQ(KOR_HID_Enumerate(kVid, kPid), 0);
    EXPECT_EQ(DevicePool.size(), before);
  }
}

TEST_F(Enumeration, TwoCamerasWithOneSerialShareTheFirstVideoNode) {
  plug(cameraOn(0, 0, "TWIN"));
  plug(cameraOn(1, 2, "TWIN"));
  ASSERT_EQ(KOR_HID_Enumerate(kVid, kPid), 2);
  int first = indexOf(identity("TWIN", 0, 0));
  int second = indexOf(identity("TWIN", 0, 1));
  ASSERT_GE(first, 0);
  ASSERT_GE(second, 0);
  EXPECT_LT(first, second);
  EXPECT_EQ(DevicePool[second].sUvcPath, "/dev/video0");
}

TEST_F(Enumeration, AMissingHidrawNumberEndsTheSearch) {
  plug(cameraOn(0, 0, "GAP-0"));
  plug(cameraOn(1, 2, "GAP-1"));
  plug(cameraOn(2, 4, "GAP-2"));
  plug(cameraOn(4, 6, "GAP-4"));
  EXPECT_EQ(KOR_HID_Enumerate(kVid, kPid), 3);
  EXPECT_GE(indexOf(identity("GAP-2", 4, 2)), 0);
  EXPECT_EQ(indexOf(identity("GAP-4", 6, 4)), -1);
}

TEST_F(Enumeration, IndicesStayAcrossReEnumerationUnplugAndNoCamera) {
  plug(cameraOn(0, 0, "STABLE-A"));
  tqsim::CameraId b = plug(cameraOn(1, 2, "STABLE-B"));
  ASSERT_EQ(KOR_HID_Enumerate(kVid, kPid), 2);
  const int ia = indexOf(identity("STABLE-A", 0, 0));
  const int ib = indexOf(identity("STABLE-B", 2, 1));
  ASSERT_GE(ia, 0);
  ASSERT_GE(ib, 0);
  const size_t size = DevicePool.size();

  ASSERT_EQ(KOR_HID_Enumerate(kVid, kPid), 2);
  EXPECT_EQ(DevicePool.size(), size);
  EXPECT_EQ(indexOf(identity("STABLE-A", 0, 0)), ia);
  EXPECT_EQ(indexOf(identity("STABLE-B", 2, 1)), ib);

  // Unplugged (the last hidraw number, so no gap hides the other camera): the
  // record stays, unlinked; the other camera keeps its index.
  ASSERT_TRUE(tqsim::unplugCamera(b));
  EXPECT_EQ(KOR_HID_Enumerate(kVid, kPid), 1);
  EXPECT_EQ(gn_DeviceCount, 1u);
  EXPECT_EQ(DevicePool.size(), size);
  EXPECT_EQ(KOR_HID_IsLinked(static_cast<uint8_t>(ia)), 1);
  EXPECT_EQ(KOR_HID_IsLinked(static_cast<uint8_t>(ib)), 0);
  EXPECT_EQ(DevicePool[ib].sSerial, "STABLE-B");

  // Back on the same nodes: the same record is linked again.
  ASSERT_TRUE(tqsim::replugCamera(b));
  EXPECT_EQ(KOR_HID_Enumerate(kVid, kPid), 2);
  EXPECT_EQ(DevicePool.size(), size);
  EXPECT_EQ(KOR_HID_IsLinked(static_cast<uint8_t>(ib)), 1);

  // No camera at all: everything unlinked, nothing removed.
  tqsim::reset();
  EXPECT_EQ(KOR_HID_Enumerate(kVid, kPid), 0);
  EXPECT_EQ(gn_DeviceCount, 0u);
  EXPECT_EQ(DevicePool.size(), size);
  EXPECT_EQ(linkedCount(), 0u);
}

TEST_F(Enumeration, ACameraBackOnOtherNodesIsANewCamera) {
  plug(cameraOn(0, 0, "MOVED"));
  ASSERT_EQ(KOR_HID_Enumerate(kVid, kPid), 1);
  const int old = indexOf(identity("MOVED", 0, 0));
  tqsim::reset();
  plug(cameraOn(0, 2, "MOVED"));
  ASSERT_EQ(KOR_HID_Enumerate(kVid, kPid), 1);
  const int now = indexOf(identity("MOVED", 2, 0));
  ASSERT_GE(now, 0);
  EXPECT_NE(now, old);
  EXPECT_EQ(KOR_HID_IsLinked(static_cast<uint8_t>(old)), 0);
  EXPECT_EQ(DevicePool[now].nEntry, 1);
}

}  // namespace
}  // namespace hidtest
