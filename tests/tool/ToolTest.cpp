// The tq-uvc program end to end: each subcommand under tq-uvc-sim, with the
// output a user reads and the exit status a script tests.
#include <png.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <tqsim/FramePattern.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <thread>

#include "Image.h"
#include "SimTestUtil.h"

namespace {

namespace fs = std::filesystem;

class Tool : public ::testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/tq-uvc-tool-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    tmp_ = dir;
    std::ofstream(tmp_ + "/tarquel.ini") << "";
  }
  void TearDown() override {
    std::error_code ignored;
    fs::remove_all(tmp_, ignored);
  }
  std::vector<std::string> environment() const {
    return {"TMPDIR=" + tmp_,
            "TQ_INI_FILE=" + tmp_ + "/tarquel.ini",
            "TQ_XML_CACHE=" + tmp_ + "/cache/",
            "TQ_LOG=",
            "TQ_LOG_FILE=",
            "ASAN_OPTIONS=detect_leaks=0"};
  }
  // Runs the tool under the launcher, with a camera configuration when given.
  simtest::RunResult tool(std::vector<std::string> args, const std::string& config = {}) {
    std::vector<std::string> argv{TQSIM_LAUNCHER};
    if (!config.empty()) {
      const std::string path = tmp_ + "/cameras.conf";
      std::ofstream(path) << config;
      argv.insert(argv.end(), {"--config", path});
    }
    argv.insert(argv.end(), {"--", TQ_UVC_TOOL});
    argv.insert(argv.end(), args.begin(), args.end());
    return simtest::run(argv, environment());
  }
  std::string tmp_;
};

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

TEST_F(Tool, SubcommandsPrintWhatTheCameraHolds) {
  struct Case {
    std::vector<std::string> args;
    std::vector<std::string> expected;
  };
  const Case cases[] = {
      {{}, {"CAM-SN-0042", "Emu Camera", "Emu Vendor", "1.2.3.42", "/dev/hidraw0", "/dev/video0"}},
      {{"list"}, {"1      CAM-SN-0042"}},
      {{"info"},
       {"7a3d:0203", "serial          CAM-SN-0042", "1280x960, 2560 bytes per line",
        "local:TQ_Emu_Camera_1.0.05_", "0x00100000"}},
      {{"read", "40A04"}, {"0x00040A04 = 0x00000500"}},
      {{"read", "0x40A04", "40a08", "40708"},
       {"0x00040A04 = 0x00000500\n0x00040A08 = 0x000003C0\n0x00040708 = 0x00000A00"}},
      {{"write", "40A04", "280", "40A08", "1E0"}, {"0x00040A04 <- 0x00000280", "0x00040A08 <- 0x000001E0"}},
      {{"read-mem", "40500", "10"}, {"00040500  45 6D 75", "Emu Vendor"}},
      // The library writes 12 bytes at an identity address whatever the length.
      {{"read-mem", "4", "1"}, {"00000004  45 "}},
      // Longer than one memory request serves.
      {{"read-mem", "40500", "64"}, {"00040500  45 6D 75", "00040560 "}},
      {{"-c", "CAM-SN-0042", "read", "40A08"}, {"= 0x000003C0"}},
      {{"-c", "1", "read", "40A08"}, {"= 0x000003C0"}},
  };
  for (const Case& c : cases) {
    const auto result = tool(c.args);
    const std::string label = c.args.empty() ? "(none)" : c.args[0];
    EXPECT_EQ(result.status, 0) << label << ": " << result.err;
    for (const std::string& e : c.expected)
      EXPECT_TRUE(contains(result.out, e)) << label << ": " << result.out;
  }
}

TEST_F(Tool, ErrorsExitNonZeroWithTheStatusNamed) {
  struct Case {
    std::vector<std::string> args;
    std::string config;
    int status;
    std::string expected;  // in stderr
  };
  const std::string none = "# no cameras\n";
  const Case cases[] = {
      {{"read", "12345"}, {}, 1, "status 0xFFFFFF9B (-101) ADDRESS_NOT_SERVED"},
      {{"write", "12345", "1"}, {}, 1, "ADDRESS_NOT_SERVED"},
      {{"read", "xyz"}, {}, 1, "not a 32-bit hex number"},
      {{"write", "40A04"}, {}, 1, "ADDR VALUE pairs"},
      {{"read-mem", "40500", "0"}, {}, 1, "length must be"},
      {{"-c", "NOPE", "info"}, {}, 1, "no camera with serial number or handle \"NOPE\""},
      {{"-c", "7", "read", "40A04"}, {}, 1, "no camera with serial number or handle \"7\""},
      {{"info"}, none, 1, "no camera found"},
      {{"xml"}, none, 1, "no camera found"},
      {{"grab", "-o", "x.png"}, none, 1, "no camera found"},
      {{"xml", "-o", "bad.xml"}, "[camera]\nfault feature-fails = true\n", 1, "SHA-1 mismatch"},
      {{"bogus"}, {}, 2, "bogus"},
      {{"grab", "-n", "1"}, {}, 2, "--output is required"},
      {{"stream", "--seconds", "1", "--frames", "2"}, {}, 2, "excludes"},
  };
  for (const Case& c : cases) {
    const auto result = tool(c.args, c.config);
    EXPECT_EQ(result.status, c.status) << c.args[0] << ": " << result.err;
    EXPECT_TRUE(contains(result.err, c.expected)) << c.args[0] << ": " << result.err;
  }
  // No camera is not an error for the listing itself.
  const auto listing = tool({"list"}, none);
  EXPECT_EQ(listing.status, 0) << listing.err;
  EXPECT_EQ(listing.out, "no cameras found\n");
}

TEST_F(Tool, XmlIsTheCamerasFileCheckedAgainstTheManifest) {
  const auto result = tool({"xml", "-o", tmp_ + "/camera.xml"});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_TRUE(contains(result.out, "5647 bytes")) << result.out;
  EXPECT_TRUE(contains(result.out, "matches the manifest")) << result.out;
  std::ifstream file(tmp_ + "/camera.xml", std::ios::binary);
  const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  EXPECT_EQ(bytes, tqsim::builtInXml());
}

// Reads an RGB PNG; empty on failure.
std::vector<uint8_t> readPng(const std::string& path, uint32_t* width, uint32_t* height) {
  png_image image;
  std::memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  if (png_image_begin_read_from_file(&image, path.c_str()) == 0) return {};
  image.format = PNG_FORMAT_RGB;
  std::vector<uint8_t> rgb(PNG_IMAGE_SIZE(image));
  if (png_image_finish_read(&image, nullptr, rgb.data(), 0, nullptr) == 0) return {};
  *width = image.width;
  *height = image.height;
  return rgb;
}

// The PNG is the test pattern of one of the first frames, converted in the
// geometry the camera's registers give.
TEST_F(Tool, GrabSavesThePatternInTheCamerasGeometry) {
  struct Case {
    std::string config;
    uint32_t width, height;
  };
  const Case cases[] = {
      {"", 1280, 960},
      {"[camera]\nregister 0x0A04 = 640\nregister 0x0A08 = 480\nregister 0x0708 = 1280\n", 640, 480},
  };
  for (const Case& c : cases) {
    const std::string png = tmp_ + "/frame.png";
    const auto result = tool({"grab", "-n", "2", "-o", png}, c.config);
    ASSERT_EQ(result.status, 0) << result.err;
    uint32_t width = 0, height = 0;
    const std::vector<uint8_t> rgb = readPng(png, &width, &height);
    ASSERT_FALSE(rgb.empty());
    EXPECT_EQ(width, c.width);
    EXPECT_EQ(height, c.height);
    bool matched = false;
    std::vector<uint8_t> yuyv(static_cast<size_t>(c.width) * 2 * c.height);
    for (uint32_t n = 0; n < 30 && !matched; ++n) {
      tqsim::fillFrame(yuyv.data(), yuyv.size(), n);
      const auto expected = tool::yuyvToRgb(yuyv.data(), yuyv.size(), c.width, c.height, c.width * 2);
      // The frame header carries the frame number; compare from the second line.
      const size_t skip = static_cast<size_t>(c.width) * 3;
      matched = std::equal(expected.begin() + skip, expected.end(), rgb.begin() + skip);
    }
    EXPECT_TRUE(matched) << c.width << "x" << c.height << " is not the test pattern";
  }

  // %d in the name saves every frame.
  const auto result = tool({"grab", "-n", "3", "-o", tmp_ + "/f%d.png"});
  ASSERT_EQ(result.status, 0) << result.err;
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(fs::exists(tmp_ + "/f" + std::to_string(i) + ".png")) << i;
  EXPECT_FALSE(fs::exists(tmp_ + "/f3.png"));
}

TEST_F(Tool, StreamPrintsLiveLinesAndASummary) {
  auto result = tool({"stream", "--frames", "20"});
  ASSERT_EQ(result.status, 0) << result.err;
  std::smatch m;
  ASSERT_TRUE(std::regex_search(
      result.out, m, std::regex(R"(summary: (\d+) frames in [0-9.]+ s .* (\d+) incomplete, (\d+) lost)")))
      << result.out;
  EXPECT_GE(std::stoi(m[1]), 20);
  EXPECT_EQ(m[2], "0");
  EXPECT_EQ(m[3], "0");

  result = tool({"stream", "--seconds", "2.2"});
  ASSERT_EQ(result.status, 0) << result.err;
  const std::regex live(
      R"(\d+\.\d fps +\d+\.\d\d MiB/s  frames \d+  incomplete 0  lost \(all buffers locked\) 0\n)");
  EXPECT_EQ(
      std::distance(std::sregex_iterator(result.out.begin(), result.out.end(), live), std::sregex_iterator()),
      2)
      << result.out;
  EXPECT_FALSE(contains(result.out, "\r")) << "no progress bar when the output is not a terminal";
}

TEST_F(Tool, LogLevelsFromTheCommandLine) {
  auto result = tool({"--log", "UVCAPI=trace", "read", "40A04"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_TRUE(contains(result.err, "UVCAPI Trace")) << result.err;
  EXPECT_TRUE(contains(result.out, "0x00040A04 = 0x00000500")) << "output once, not per exec";
  EXPECT_EQ(result.out.find("0x00040A04"), result.out.rfind("0x00040A04"));

  result = tool({"-vv", "read", "40A04"});
  EXPECT_TRUE(contains(result.err, " Debug ")) << result.err;
  result = tool({"read", "40A04"});
  EXPECT_EQ(result.err, "");
}

// monitor runs until interrupted and then exits cleanly.
TEST_F(Tool, MonitorEndsOnInterrupt) {
  int out[2];
  ASSERT_EQ(pipe(out), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_addclose(&actions, out[0]);
  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; ++e) env.emplace_back(*e);
  for (const std::string& extra : environment()) env.push_back(extra);
  std::vector<char*> envp;
  for (std::string& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);
  std::string launcher = TQSIM_LAUNCHER, dashes = "--", program = TQ_UVC_TOOL, command = "monitor";
  char* argv[] = {launcher.data(), dashes.data(), program.data(), command.data(), nullptr};
  pid_t pid = -1;
  ASSERT_EQ(posix_spawn(&pid, argv[0], &actions, nullptr, argv, envp.data()), 0);
  posix_spawn_file_actions_destroy(&actions);
  close(out[1]);

  std::string text;
  char buffer[256];
  while (!contains(text, "present  handle 1  serial CAM-SN-0042")) {
    const ssize_t n = read(out[0], buffer, sizeof buffer);  // the tool flushes each report
    if (n <= 0) break;
    text.append(buffer, static_cast<size_t>(n));
  }
  EXPECT_TRUE(contains(text, "present  handle 1  serial CAM-SN-0042")) << text;
  kill(pid, SIGINT);
  int status = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  pid_t done = 0;
  while ((done = waitpid(pid, &status, WNOHANG)) == 0 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  if (done == 0) kill(pid, SIGKILL), waitpid(pid, &status, 0);
  close(out[0]);
  ASSERT_EQ(done, pid) << "monitor did not end on SIGINT";
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

}  // namespace
