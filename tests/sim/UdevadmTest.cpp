// The emulated udevadm, run as the library runs it, against the walks a real
// kernel printed for the same camera (data/udevadm-walk-*.txt).
#include <cstring>
#include <fstream>
#include <sstream>

#include "SimTestUtil.h"

using simtest::run;

namespace {

using tqtest::plug;

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// Durations depend on when the walk is taken; everything else must match.
std::string withoutDurations(const std::string& walk) {
  static const char* const kDurations[] = {"{power/active_duration}", "{power/connected_duration}",
                                           "{power/runtime_active_time}", "{power/runtime_suspended_time}"};
  std::istringstream in(walk);
  std::string out;
  std::string line;
  while (std::getline(in, line)) {
    for (const char* key : kDurations) {
      const size_t at = line.find(key);
      if (at != std::string::npos) line = line.substr(0, at + std::strlen(key)) + "==\"#\"";
    }
    out += line + "\n";
  }
  return out;
}

std::string devicePath(const std::string& node) {
  const auto result = run({"udevadm", "info", "-q", "path", "-n", node});
  EXPECT_EQ(result.status, 0) << result.err;
  std::string path = result.out;
  if (!path.empty() && path.back() == '\n') path.pop_back();
  return path;
}

std::string walk(const std::string& node) {
  return run({"udevadm", "info", "-a", "-p", devicePath(node)}).out;
}

// The value of the first (nearest) occurrence of key, as the library reads it.
std::string firstAttribute(const std::string& text, const std::string& key) {
  const size_t at = text.find(key + "==\"");
  if (at == std::string::npos) return "<none>";
  const size_t begin = at + key.size() + 3;
  return text.substr(begin, text.find('"', begin) - begin);
}

using Udevadm = simtest::SimTest;

TEST_F(Udevadm, WalksMatchTheRealKernelsForTheDefaultCamera) {
  plug();
  const struct {
    const char* node;
    const char* reference;
  } cases[] = {
      {"/dev/hidraw0", "udevadm-walk-hidraw.txt"},
      {"/dev/video0", "udevadm-walk-video-capture.txt"},
      {"/dev/video1", "udevadm-walk-video-metadata.txt"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.node);
    const std::string expected = readFile(std::string(TQSIM_TEST_DATA) + "/" + c.reference);
    ASSERT_FALSE(expected.empty());
    EXPECT_EQ(withoutDurations(walk(c.node)), withoutDurations(expected));
  }
  EXPECT_EQ(devicePath("hidraw0"),
            "/devices/platform/vhci_hcd.0/usb1/1-1/1-1:1.2/0003:7A3D:0203.0001/hidraw/hidraw0");
  // A /sys prefix names the same device.
  const auto sys = run({"udevadm", "info", "-a", "-p", "/sys" + devicePath("/dev/video0")});
  EXPECT_EQ(sys.status, 0);
  EXPECT_EQ(withoutDurations(sys.out), withoutDurations(walk("/dev/video0")));
}

TEST_F(Udevadm, UnknownNodesFailLikeTheRealTool) {
  const tqsim::CameraId id = plug();
  ASSERT_TRUE(tqsim::unplugCamera(id));
  for (const char* node : {"/dev/hidraw0", "/dev/video0", "/dev/hidraw7"}) {
    SCOPED_TRACE(node);
    const auto result = run({"udevadm", "info", "-q", "path", "-n", node});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, std::string("Unknown device \"") + node + "\": No such device\n");
  }
  // $(...) came back empty: -p without its argument.
  const auto empty = run({"sh", "-c", "udevadm info -a -p $(udevadm info -q path -n /dev/hidraw0)"});
  EXPECT_NE(empty.status, 0);
  EXPECT_EQ(empty.out, "");
}

TEST_F(Udevadm, FaultsChangeWhatTheWalksShow) {
  const tqsim::CameraId id = plug();
  const std::string hidPath = devicePath("/dev/hidraw0");
  const std::string videoPath = devicePath("/dev/video0");

  const struct {
    const char* name;
    tqsim::UdevFaults faults;
    std::string hidSerial;    // first serial in the hidraw walk
    std::string videoSerial;  // first serial in the capture node's walk
  } cases[] = {
      {"none", {}, "CAM-SN-0042", "CAM-SN-0042"},
      {"video without serial", {false, false, true, ""}, "CAM-SN-0042", "vhci_hcd.0"},
      {"video with another serial", {false, false, false, "OTHER"}, "CAM-SN-0042", "OTHER"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(tqsim::setUdevFaults(id, c.faults));
    EXPECT_EQ(firstAttribute(run({"udevadm", "info", "-a", "-p", hidPath}).out, "ATTRS{serial}"),
              c.hidSerial);
    EXPECT_EQ(firstAttribute(run({"udevadm", "info", "-a", "-p", videoPath}).out, "ATTRS{serial}"),
              c.videoSerial);
  }

  tqsim::UdevFaults fails;
  fails.fails = true;
  ASSERT_TRUE(tqsim::setUdevFaults(id, fails));
  for (const auto& argv : {std::vector<std::string>{"udevadm", "info", "-q", "path", "-n", "/dev/hidraw0"},
                           std::vector<std::string>{"udevadm", "info", "-a", "-p", hidPath}}) {
    const auto result = run(argv);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
  }

  tqsim::UdevFaults garbage;
  garbage.garbage = true;
  ASSERT_TRUE(tqsim::setUdevFaults(id, garbage));
  const auto result = run({"udevadm", "info", "-a", "-p", hidPath});
  EXPECT_FALSE(result.out.empty());
  EXPECT_EQ(result.out.find('"'), std::string::npos) << "garbage must hold no quoted value";
}

TEST_F(Udevadm, SecondCameraSitsOnTheNextPortWithItsOwnIdentity) {
  plug();
  tqsim::CameraConfig second = tqtest::cameraOn(1, 2, "SECOND");
  second.manufacturer = "Emu Vendor  ";  // trailing blanks are part of it
  const tqsim::CameraId id = plug(second);

  EXPECT_EQ(devicePath("/dev/hidraw1"),
            "/devices/platform/vhci_hcd.0/usb1/1-2/1-2:1.2/0003:7A3D:0203.0002/hidraw/hidraw1");
  EXPECT_EQ(devicePath("/dev/video3"), "/devices/platform/vhci_hcd.0/usb1/1-2/1-2:1.0/video4linux/video3");
  const std::string text = walk("/dev/video2");
  EXPECT_EQ(firstAttribute(text, "ATTRS{serial}"), "SECOND");
  EXPECT_EQ(firstAttribute(text, "ATTRS{manufacturer}"), "Emu Vendor  ");
  EXPECT_EQ(firstAttribute(text, "ATTRS{devpath}"), "2");

  // Identity changes show in the next run.
  ASSERT_TRUE(tqsim::modifyCamera(id, [](tqsim::CameraConfig& c) { c.serial = "RENAMED"; }));
  EXPECT_EQ(firstAttribute(walk("/dev/hidraw1"), "ATTRS{serial}"), "RENAMED");
}

}  // namespace
