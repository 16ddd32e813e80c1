// tq-uvc-sim runs other programs with the emulated cameras preloaded.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "SimTestUtil.h"

using simtest::run;

namespace {

// Programs run under the launcher get an emulation of their own, in a private
// directory of TMPDIR that must be gone when they end.
class Launcher : public simtest::SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    char dir[] = "/tmp/tqsim-launcher-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    tmp_ = dir;
  }
  void TearDown() override {
    // Shells end with _exit and leave their state directory behind.
    std::error_code ignored;
    std::filesystem::remove_all(tmp_, ignored);
    SimTest::TearDown();
  }
  simtest::RunResult launch(std::vector<std::string> argv) {
    argv.insert(argv.begin(), TQSIM_LAUNCHER);
    // Leak reports of foreign programs (ls, sh) in sanitizer builds are not ours.
    return run(argv, {"TMPDIR=" + tmp_, "ASAN_OPTIONS=detect_leaks=0"});
  }
  bool tmpIsEmpty() const { return std::filesystem::is_empty(tmp_); }

  std::string tmp_;
};

TEST_F(Launcher, ProgramsSeeTheDefaultCamera) {
  auto result = launch({"--", "ls", "-l", "/dev/hidraw0", "/dev/video0", "/dev/video1"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out.rfind("crw", 0), 0u) << result.out;
  EXPECT_NE(result.out.find("/dev/video1"), std::string::npos);
  EXPECT_TRUE(tmpIsEmpty()) << "state directory left behind";

  // The program may be udevadm itself.
  result = launch({"--", "udevadm", "info", "-q", "path", "-n", "/dev/video1"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "/devices/platform/vhci_hcd.0/usb1/1-1/1-1:1.0/video4linux/video1\n");

  // The program's shell children run our udevadm against its cameras.
  result = launch({"--", "sh", "-c", "udevadm info -a -p $(udevadm info -q path -n /dev/hidraw0)"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.out.find("ATTRS{serial}==\"CAM-SN-0042\""), std::string::npos);
}

TEST_F(Launcher, ConfigFileChoosesTheCameras) {
  std::ofstream(tmp_ + "/cameras.conf") << "[camera]\nhidraw = 2\nvideo = 4\nserial = \"FROM-FILE\"\n";
  auto result = launch({"--config", tmp_ + "/cameras.conf", "--", "sh", "-c",
                        "udevadm info -a -p $(udevadm info -q path -n /dev/video4)"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.out.find("ATTRS{serial}==\"FROM-FILE\""), std::string::npos) << result.out;

  result = launch({"--config", tmp_ + "/cameras.conf", "--", "ls", "/dev/hidraw2"});
  EXPECT_EQ(result.status, 0) << result.err;
  result = launch({"--config", tmp_ + "/cameras.conf", "--", "ls", "/dev/hidraw0"});
  EXPECT_NE(result.status, 0);
}

TEST_F(Launcher, ReportsWhatItCannotDo) {
  auto result = launch({"--", "/nonexistent/program"});
  EXPECT_EQ(result.status, 127);
  EXPECT_NE(result.err.find("cannot run /nonexistent/program"), std::string::npos) << result.err;

  result = launch({"--config", tmp_ + "/missing.conf", "--", "true"});
  EXPECT_NE(result.status, 0);

  std::ofstream(tmp_ + "/cameras.conf") << "[camera]\nhidraw = many\n";
  result = launch({"--config", tmp_ + "/cameras.conf", "--", "ls", "/dev/hidraw0"});
  EXPECT_NE(result.err.find("cameras.conf:2:"), std::string::npos) << result.err;
  EXPECT_NE(result.status, 0) << "a bad file leaves no cameras";
}

}  // namespace
