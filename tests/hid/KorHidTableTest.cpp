// The function set's results for indices past the table, records without a
// device and the identity string copy, without any camera attached.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "hid/KOR_HID.h"

namespace {

class KorHidTable : public ::testing::Test {
 protected:
  void SetUp() override {
    base_ = DevicePool.size();
    DeviceNode node;
    node.bLinked = 1;
    node.sSerial = "SER123";
    node.sHidPath = "/nonexistent/hidraw0";
    node.sUvcPath = "/nonexistent/video0";
    node.sManufacturer = "Maker";
    node.sProduct = "Product";
    DevicePool.push_back(std::move(node));
  }
  void TearDown() override { KOR_HID_Close(cam()); }
  uint8_t cam() const { return static_cast<uint8_t>(base_); }
  uint8_t pastTable() const { return static_cast<uint8_t>(DevicePool.size()); }

  size_t base_ = 0;
};

using Getter = int32_t (*)(uint8_t, char*, int32_t);

TEST_F(KorHidTable, GettersCopyAtMostLenMinusOneAndTerminate) {
  struct {
    Getter fn;
    const char* full;
  } getters[] = {
      {KOR_HID_GetSerialNumber, "SER123"},
      {KOR_HID_GetDevicePath, "/nonexistent/hidraw0"},
      {KOR_HID_GetDevicePathUVC, "/nonexistent/video0"},
      {KOR_HID_GetManufacturer, "Maker"},
      {KOR_HID_GetProduct, "Product"},
  };
  for (const auto& g : getters) {
    const std::string full = g.full;
    const int32_t lens[] = {1, 2, static_cast<int32_t>(full.size()), static_cast<int32_t>(full.size()) + 1,
                            64};
    for (int32_t len : lens) {
      char buf[80];
      std::memset(buf, '#', sizeof buf);
      EXPECT_EQ(g.fn(cam(), buf, len), 0);
      size_t n = std::min<size_t>(full.size(), static_cast<size_t>(len - 1));
      EXPECT_EQ(std::string(buf), full.substr(0, n)) << full << " len " << len;
      EXPECT_EQ(buf[len], '#') << "wrote past len for " << full;
    }
    // No room for a terminator, or an index past the table: buffer untouched.
    char buf[8];
    std::memset(buf, '#', sizeof buf);
    EXPECT_EQ(g.fn(cam(), buf, 0), 0);
    EXPECT_EQ(g.fn(cam(), buf, -5), 0);
    EXPECT_EQ(g.fn(pastTable(), buf, sizeof buf), 0);
    EXPECT_EQ(std::string(buf, sizeof buf), "########");
  }
}

TEST_F(KorHidTable, FixedResultsWithoutDevice) {
  uint8_t data[4] = {};
  for (uint8_t c : {cam(), pastTable()}) {
    SCOPED_TRACE(static_cast<int>(c));
    EXPECT_FALSE(KOR_HID_IsOpen(c));
    EXPECT_EQ(KOR_HID_Close(c), 0);
    EXPECT_EQ(KOR_HID_Report(c, 1, 0x5C, data, 4), 1);
    EXPECT_EQ(KOR_HID_FeatureRd(c, 1, data, 4), 1);
    EXPECT_EQ(KOR_HID_SetCallbackHid(c, nullptr, nullptr), 1);
  }
  EXPECT_EQ(KOR_HID_IsLinked(cam()), 1);
  EXPECT_EQ(KOR_HID_IsLinked(pastTable()), 0);
  EXPECT_EQ(KOR_HID_Open(pastTable()), 0);
  EXPECT_EQ(KOR_HID_Init(), 0);
}

TEST_F(KorHidTable, FailedOpenLeavesAClosedDeviceAttached) {
  EXPECT_EQ(KOR_HID_Open(cam()), 1);
  ASSERT_TRUE(DevicePool[cam()].pHid);
  EXPECT_FALSE(KOR_HID_IsOpen(cam()));
  uint8_t data[4] = {};
  // Closed descriptor: cHid answers with its fd.
  EXPECT_EQ(KOR_HID_Report(cam(), 1, 0x5C, data, 4), -1);
  EXPECT_EQ(KOR_HID_FeatureRd(cam(), 1, data, 4), -1);
  EXPECT_EQ(KOR_HID_SetCallbackHid(cam(), nullptr, nullptr), 0);
  // A second open reuses the attached object.
  cHid* first = DevicePool[cam()].pHid.get();
  EXPECT_EQ(KOR_HID_Open(cam()), 1);
  EXPECT_EQ(DevicePool[cam()].pHid.get(), first);
  EXPECT_EQ(KOR_HID_Close(cam()), 0);
  EXPECT_FALSE(DevicePool[cam()].pHid);
}

}  // namespace
