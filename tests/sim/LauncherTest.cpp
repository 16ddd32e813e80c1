// tq-uvc-sim runs other programs with the emulated cameras preloaded.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "SimTestUtil.h"
#include "TestUtil.h"

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

  // A bad file ends the launcher with its line before the program starts.
  std::ofstream(tmp_ + "/cameras.conf") << "[camera]\nhidraw = many\n";
  result = launch({"--config", tmp_ + "/cameras.conf", "--", "sh", "-c", "echo started"});
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find("cameras.conf:2: 'many' is not a number"), std::string::npos) << result.err;
  EXPECT_EQ(result.out, "") << "the program ran";
}

// Every process of the tree sees the same cameras: a shell's own lines (bash
// keeps its own environment), its children, one camera state for all.
TEST_F(Launcher, TheWholeProcessTreeSharesTheCameras) {
  std::ofstream(tmp_ + "/two.conf") << "\xEF\xBB\xBF# two cameras\n[camera]\n[camera]\nserial = \"B#2;x\"\n";
  auto result = launch({"--config", tmp_ + "/two.conf", "--", "bash", "-c",
                        "test -e /dev/hidraw1 && echo yes; sh -c 'test -e /dev/video3 && echo child'; true"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "yes\nchild\n");

  // A register written by one process is read back by another.
  const std::string write = "printf '\\001\\135\\000\\120\\006\\007\\000\\000\\000\\000' > /dev/hidraw0";
  const std::string read =
      "exec 3<>/dev/hidraw0; printf '\\001\\134\\000\\120\\006\\000\\000\\000' >&3; "
      "head -c 64 <&3 | od -An -tx1 | head -1";
  result = launch({"--", "sh", "-c", "sh -c \"" + write + "\"; sh -c \"" + read + "\""});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out.substr(0, 27), " 01 5c 00 00 00 07 00 00 00") << result.out;

  // Quoted values keep '#' and ';'.
  result = launch({"--config", tmp_ + "/two.conf", "--", "sh", "-c",
                   "udevadm info -a -n /dev/hidraw1 | grep -c 'ATTRS{serial}==\"B#2;x\"'"});
  EXPECT_EQ(result.out, "1\n") << result.err;
}

// What a new user tries first: the V4L2 tools find, describe and stream the
// camera, from a shell script's middle line.
TEST_F(Launcher, V4l2ToolsFindDescribeAndStreamTheCamera) {
  if (access("/usr/bin/v4l2-ctl", X_OK) != 0)
    GTEST_SKIP() << "v4l2-ctl is not installed (apt-get install v4l-utils)";
  const auto result =
      launch({"--", "bash", "-c",
              "v4l2-ctl --list-devices; "
              "v4l2-ctl -d /dev/video0 --all | grep -E 'Bus info|Width/Height'; "
              "v4l2-ctl -d /dev/video0 --stream-mmap --stream-count=10 && echo streamed; true"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out.rfind("Emu Camera (usb-vhci_hcd.0-1):\n\t/dev/video0\n\t/dev/video1\n", 0), 0u)
      << result.out;
  EXPECT_NE(result.out.find("Bus info         : usb-vhci_hcd.0-1\n"), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("Width/Height      : 1280/960\n"), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("streamed\n"), std::string::npos) << result.out << result.err;
}

// Two processes on one node: while one streams, the other can neither change
// the format nor the rate (the queue is the node's, as with uvcvideo).
TEST_F(Launcher, AStreamingProcessKeepsItsFormatAndRate) {
  if (access("/usr/bin/v4l2-ctl", X_OK) != 0)
    GTEST_SKIP() << "v4l2-ctl is not installed (apt-get install v4l-utils)";
  const auto result =
      launch({"--", "sh", "-c",
              "v4l2-ctl -d /dev/video0 --stream-mmap --stream-count=60 >\"$TMPDIR/frames\" 2>&1 & "
              "i=0; until [ -s \"$TMPDIR/frames\" ] || [ $i -gt 400 ]; do i=$((i+1)); sleep 0.025; done; "
              "v4l2-ctl -d /dev/video0 --set-fmt-video=width=640,height=480 || echo format refused; "
              "v4l2-ctl -d /dev/video0 --set-parm=15 || echo rate refused; "
              "wait; v4l2-ctl -d /dev/video0 --set-fmt-video=width=640,height=480 && echo format taken"});
  EXPECT_EQ(result.out,
            "VIDIOC_S_FMT: failed: Device or resource busy\nformat refused\n"
            "VIDIOC_S_PARM: failed: Device or resource busy\nrate refused\nformat taken\n")
      << result.err;
}

// The V4L2 conformance tool finds nothing to fail, with and without streaming.
TEST_F(Launcher, V4l2ComplianceFindsNoFailure) {
  if (access("/usr/bin/v4l2-compliance", X_OK) != 0)
    GTEST_SKIP() << "v4l2-compliance is not installed (apt-get install v4l-utils)";
  for (const char* streaming : {"", "-s"}) {
    SCOPED_TRACE(streaming);
    std::vector<std::string> argv{"--", "v4l2-compliance", "-d", "/dev/video0"};
    if (*streaming != '\0') argv.push_back(streaming);
    const auto result = launch(argv);
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_NE(result.out.find(", Failed: 0, "), std::string::npos) << result.out << result.err;
  }
}

// plug, unplug, replug and fault reach a running launcher from outside.
TEST_F(Launcher, CommandsFromOutsideActOnTheRunningCameras) {
  // Each step waits (bounded) for what the next command changes.
  const std::string script =
      "until_() { i=0; while ! eval \"$1\"; do i=$((i+1)); [ $i -gt 400 ] && return 1; sleep 0.025; done; }; "
      "step() { echo $1; echo $1 >> \"$TMPDIR/progress\"; }; "
      "until_ '[ ! -e /dev/hidraw0 ]' && step unplugged; "
      "until_ '[ -e /dev/hidraw0 ]' && step plugged; "
      "until_ '! udevadm info -q path -n /dev/hidraw0 >/dev/null 2>&1' && step udev-fails; "
      "until_ '[ -e /dev/hidraw1 ] && [ ! -e /dev/hidraw0 ]' && step new-nodes; true";
  simtest::RunResult program;
  std::thread running([&] { program = launch({"--", "sh", "-c", script}); });
  auto control = [&](std::vector<std::string> words) {
    words.insert(words.begin(), TQSIM_LAUNCHER);
    return run(words, {"TMPDIR=" + tmp_});
  };
  simtest::RunResult status;
  tqtest::waitUntil([&] { return (status = control({"status"})).status == 0; });
  EXPECT_EQ(status.out, "CAM-SN-0042 plugged /dev/hidraw0 /dev/video0 /dev/video1 usb 1-1\n") << status.err;

  // The program has seen the step when its line is in the progress file.
  auto seen = [&](const std::string& step) {
    return tqtest::waitUntil([&] {
      std::ifstream progress(tmp_ + "/progress");
      for (std::string line; std::getline(progress, line);)
        if (line == step) return true;
      return false;
    });
  };
  EXPECT_EQ(control({"unplug", "CAM-SN-0042"}).status, 0);
  EXPECT_TRUE(seen("unplugged"));
  EXPECT_EQ(control({"status"}).out, "CAM-SN-0042 unplugged /dev/hidraw0 /dev/video0 /dev/video1\n");
  EXPECT_EQ(control({"plug", "CAM-SN-0042"}).status, 0);
  EXPECT_TRUE(seen("plugged"));
  EXPECT_EQ(control({"fault", "CAM-SN-0042", "udev-fails", "true"}).status, 0);
  EXPECT_TRUE(seen("udev-fails"));

  // Mistakes name themselves and change nothing.
  auto result = control({"unplug", "NO-SUCH"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "tq-uvc-sim: no camera with serial NO-SUCH\n");
  result = control({"fault", "CAM-SN-0042", "sideways", "1"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err, "tq-uvc-sim: unknown fault 'sideways'\n");

  EXPECT_EQ(control({"replug", "CAM-SN-0042", "--new-nodes"}).status, 0);
  running.join();
  EXPECT_EQ(program.out, "unplugged\nplugged\nudev-fails\nnew-nodes\n") << program.err;

  result = control({"status"});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("no running launcher"), std::string::npos) << result.err;
}

}  // namespace
