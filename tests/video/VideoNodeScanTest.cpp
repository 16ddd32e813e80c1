// The video pass of the camera enumeration: every /dev/video0..15 is probed,
// so a camera whose capture node sits above missing numbers is still paired.
#include <gtest/gtest.h>
#include <tqsim/Sim.h>

#include <string>
#include <vector>

#include "hid/HidEnumerate.h"

namespace {

TEST(VideoNodeScanTest, PairsVideoNodesAboveGapsUpToTheLastNumber) {
  tqsim::reset();
  struct Camera {
    const char* serial;
    int hidraw, video, metadata;
  };
  // No /dev/video0..4; the second camera's capture node is the last probed.
  const std::vector<Camera> cameras = {{"SN-GAP", 0, 5, 7}, {"SN-LAST", 1, 15, -1}};
  for (const auto& c : cameras) {
    tqsim::CameraConfig config = tqsim::defaultCameraConfig();
    config.serial = c.serial;
    config.hidrawNumber = c.hidraw;
    config.videoNumber = c.video;
    config.metadataVideoNumber = c.metadata;
    std::string error;
    ASSERT_NE(tqsim::plugCamera(config, &error), tqsim::kNoCamera) << error;
  }
  const std::vector<DeviceNode> nodes = GetInterfaceList(0x7A3D, 0x0203);
  std::vector<std::string> paths;
  for (const auto& n : nodes) paths.push_back(n.sSerial + " " + n.sUvcPath);
  EXPECT_EQ(paths, (std::vector<std::string>{"SN-GAP /dev/video5", "SN-LAST /dev/video15"}));
  tqsim::reset();
}

}  // namespace
