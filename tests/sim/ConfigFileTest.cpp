// The configuration file: what a file sets, and that mistakes are reported
// with their line instead of being half applied.
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "SimTestUtil.h"

namespace {

using tqtest::plug;

// A file in a private directory, removed with the object.
class TempFile {
 public:
  explicit TempFile(const std::string& text) {
    char dir[] = "/tmp/tqsim-test-XXXXXX";
    dir_ = mkdtemp(dir) != nullptr ? dir : "/tmp";
    path_ = dir_ + "/cameras.conf";
    std::ofstream(path_) << text;
  }
  ~TempFile() {
    for (const std::string& extra : extras_) std::remove(extra.c_str());
    std::remove(path_.c_str());
    rmdir(dir_.c_str());
  }
  std::string add(const std::string& name, const std::string& text) {
    extras_.push_back(dir_ + "/" + name);
    std::ofstream(extras_.back()) << text;
    return extras_.back();
  }
  const std::string& path() const { return path_; }

 private:
  std::string dir_;
  std::string path_;
  std::vector<std::string> extras_;
};

using ConfigFile = simtest::SimTest;

TEST_F(ConfigFile, SetsEveryPartOfACamera) {
  TempFile file(R"(# two cameras
[camera]
serial = "ABC 1"
manufacturer = "Emu Vendor  "   # trailing blanks kept inside quotes
product = Plain words
hid-product = AB#12;x   ; a comment needs a blank before it
register 0x0A04 = 640
memory 0x05D0 = hex 01 02 03 00 2a
xml = desc.xml
size = 800x600 25 5
size = 400x300 stepwise 1/30 1/5 1/30
size-kind = discrete
fault status = 5
fault video-answer-format = "MJPG"
fault video-answer-size = 320x200
fault video-serial = "OTHER"

[camera]
hidraw = 4
video = 6
metadata = -1
xml = none
)");
  file.add("desc.xml", "<x/>");
  std::vector<tqsim::CameraConfig> cameras;
  std::string error;
  ASSERT_TRUE(tqsim::parseConfigFile(file.path(), cameras, &error)) << error;
  ASSERT_EQ(cameras.size(), 2u);

  const tqsim::CameraConfig& a = cameras[0];
  EXPECT_EQ(a.serial, "ABC 1");
  EXPECT_EQ(a.manufacturer, "Emu Vendor  ");
  EXPECT_EQ(a.product, "Plain words");
  EXPECT_EQ(a.hidProductText, "AB#12;x") << "bare values keep '#' and ';' inside a word";
  EXPECT_EQ(a.memory.at(0x0500), "Emu Vendor  ") << "identity memory follows the identity";
  EXPECT_EQ(a.memory.at(0x05F0), "ABC 1");
  EXPECT_EQ(a.memory.at(0x05D0), std::string("\x01\x02\x03\x00\x2a", 5));
  EXPECT_EQ(a.registers.at(0x0A04), 640u);
  EXPECT_EQ(a.registers.at(0x0A08), 960u) << "unset registers keep their defaults";
  EXPECT_EQ(std::string(a.xmlFile.begin(), a.xmlFile.end()), "<x/>");
  ASSERT_EQ(a.video.sizes.size(), 2u);
  EXPECT_EQ(a.video.sizes[0].width, 800u);
  ASSERT_EQ(a.video.sizes[0].intervals.size(), 2u);
  EXPECT_EQ(a.video.sizes[0].intervals[1].denominator, 5u);
  EXPECT_EQ(a.video.sizes[1].intervalKind, tqsim::IntervalKind::Stepwise);
  ASSERT_EQ(a.video.sizes[1].intervals.size(), 3u);
  EXPECT_EQ(a.video.sizes[1].intervals[1].denominator, 5u);
  EXPECT_EQ(a.videoFaults.answerPixelFormat, 0x47504A4Du);
  EXPECT_EQ(a.videoFaults.answerWidth, 320u);
  EXPECT_EQ(a.videoFaults.answerHeight, 200u);
  EXPECT_EQ(a.hidFaults.status, 5);
  EXPECT_EQ(a.udevFaults.videoSerial, "OTHER");
  EXPECT_EQ(a.hidrawNumber, 0);
  EXPECT_EQ(a.videoNumber, 0);
  EXPECT_EQ(a.metadataVideoNumber, 1);

  const tqsim::CameraConfig& b = cameras[1];
  EXPECT_EQ(b.serial, "CAM-SN-0042");
  EXPECT_EQ(b.hidrawNumber, 4);
  EXPECT_EQ(b.videoNumber, 6);
  EXPECT_EQ(b.metadataVideoNumber, -1);
  EXPECT_TRUE(b.xmlFile.empty());
  EXPECT_EQ(b.video.sizes.size(), 3u) << "the default sizes";

  // Loading plugs them.
  ASSERT_TRUE(tqsim::loadConfigFile(file.path(), &error)) << error;
  const auto ids = tqsim::cameras();
  ASSERT_EQ(ids.size(), 2u);
  EXPECT_EQ(tqsim::xmlFile(ids[0]).size(), 4u);
}

TEST_F(ConfigFile, MistakesNameTheirLineAndChangeNothing) {
  const tqsim::CameraId existing = plug();
  const struct {
    const char* text;
    const char* reason;
  } cases[] = {
      {"serial = x\n", ":1: setting outside a [camera] section"},
      {"[camera]\nserial = \"open\n", ":2: missing closing quote"},
      {"[camera]\n\nhidraw = 300\n", ":3: '300' is not a number in 0..255"},
      {"[camera]\nregister = 5\n", ":2: register needs an address"},
      {"[camera]\nsize = 640 30\n", ":2: size must be WIDTHxHEIGHT"},
      {"[camera]\nsize = 65535x65535 30\n", ":2: size must be WIDTHxHEIGHT (1..16384 each)"},
      {"[camera]\nsize = 640x480 stepwise 1/30\n", ":2: a stepwise or continuous size needs"},
      {"[camera]\nfault sideways = 1\n", ":2: unknown fault 'sideways'"},
      {"[camera]\ncolour = red\n", ":2: unknown key 'colour'"},
      {"[camera]\nxml = missing.xml\n", ":2: cannot read"},
      {"[cameras]\n", ":1: unknown section [cameras]"},
      {"\xEF\xBB\xBF[camera]\n[camera]\nhidraw = 0\n", "share a node"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    TempFile file(c.text);
    std::string error;
    EXPECT_FALSE(tqsim::loadConfigFile(file.path(), &error));
    EXPECT_NE(error.find(c.reason), std::string::npos) << error;
    EXPECT_EQ(tqsim::cameras(), std::vector<tqsim::CameraId>{existing});
    EXPECT_TRUE(tqsim::isPlugged(existing));
  }
}

}  // namespace
