// The camera access layer's own logic: the enumeration cursor and the few
// functions that answer without a camera.
#include <LogCapture.h>

#include "ControlFixture.h"
#include "control/VexaHID_Interface.h"

namespace ctltest {
namespace {

using AccessLayerTest = ControlTest;

TEST_F(AccessLayerTest, CursorWalksAllIndexesAndStopsAt255WithoutCamera) {
  int count = 0x7F00;  // only the low byte is the count
  ASSERT_EQ(TqUvcEnumerateHidDevice(&count), 0);
  EXPECT_EQ(count, 0x7F00);

  tqtest::LogCapture log;
  int index = -1;
  EXPECT_EQ(TqUvcGetFirstHidDevice(&index), -102);
  EXPECT_EQ(indexCamAbs, 255);
  EXPECT_EQ(nrCam, 0);
  EXPECT_EQ(index, -1);
  EXPECT_EQ(log.countExact("TqUvcGetNextHidDevice: error: cannot open cam at index:255"), 1U);
  // A further call looks at 255 again and stays there.
  EXPECT_EQ(TqUvcGetNextHidDevice(&index), -102);
  EXPECT_EQ(indexCamAbs, 255);
}

TEST_F(AccessLayerTest, CursorHandsOutEachLinkedCameraOnce) {
  plug(cameraOn(0, "ACC-A"));
  plug(cameraOn(1, "ACC-B"));
  int count = 0;
  ASSERT_EQ(TqUvcEnumerateHidDevice(&count), 0);
  EXPECT_EQ(count & 0xFF, 2);

  std::vector<int> seen;
  int index = -1;
  for (int rc = TqUvcGetFirstHidDevice(&index); rc == 0; rc = TqUvcGetNextHidDevice(&index))
    seen.push_back(index);
  ASSERT_EQ(seen.size(), 2U);
  EXPECT_LT(seen[0], seen[1]);
  EXPECT_EQ(nrCam, 2);
  EXPECT_EQ(indexCamAbs, 255);
}

TEST_F(AccessLayerTest, AnswersWithoutCamera) {
  for (int index : {0, 7, 255}) {
    int address = 0;
    EXPECT_EQ(TqUvcGetXMLAddress(index, &address), 0);
    EXPECT_EQ(address, 0x100000) << index;
  }
  // Stop and close on a camera number that was never opened.
  EXPECT_EQ(TqUvcCloseUvcDevice(5), 0);
  EXPECT_EQ(TqUvcIsOpenUvcDevice(5), 0);
  EXPECT_EQ(TqUvcIsOpenUvcDevice(300), 0);
  EXPECT_EQ(TqUvcHidInterfaceAvailable(), 1);
  EXPECT_TRUE(TqUvcIsAvailableUvcDevice(12345));
}

}  // namespace
}  // namespace ctltest
