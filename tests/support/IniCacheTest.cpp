#include <fcntl.h>
#include <gtest/gtest.h>
#include <rklog.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "LogCapture.h"
#include "support/TqUvcIni.h"

namespace {

// The ini path may be resolved once per process, so all tests share one file
// and change only its content and modification time.
class SupportIni : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    char dir[] = "/tmp/tq_support_ini_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    dir_ = dir;
    path_ = dir_ + "/tarquel.ini";
    setenv("TQ_INI_FILE", path_.c_str(), 1);
  }
  static void TearDownTestSuite() {
    unlink(path_.c_str());
    rmdir(dir_.c_str());
  }
  // Each test starts as a fresh process would: no file, nothing loaded.
  void SetUp() override {
    unlink(path_.c_str());
    IniModificationTime = 0;
  }
  void TearDown() override { TqUvcCloseIni(); }

  // Stamps the file with an explicit time, so a change never depends on the
  // file system's timestamp granularity.
  static void writeIni(int timeout, time_t stamp) {
    std::ofstream(path_, std::ios::trunc) << "[Tq.Uvc]\nAcquisitionTimeout=" << timeout << "\n";
    setStamp(stamp);
  }
  static void setStamp(time_t stamp) {
    const timespec times[2] = {{stamp, 0}, {stamp, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path_.c_str(), times, 0), 0);
  }
  static int timeout() { return TqUvcGetIniIntCached("Tq.Uvc", "AcquisitionTimeout", 6000); }
  static std::string cannotLoad() { return "TqUvcGetIniIntCached: cannot load ini file:\"" + path_ + "\""; }

  static std::string dir_;
  static std::string path_;
};

std::string SupportIni::dir_;
std::string SupportIni::path_;

TEST_F(SupportIni, ReloadsOnlyWhenTheModificationTimeChanges) {
  writeIni(100, 1000000000);
  tqtest::LogCapture log;
  EXPECT_EQ(timeout(), 100);
  EXPECT_STREQ(g_IniFile, path_.c_str());

  writeIni(200, 1000000000);  // new content, old stamp: the cache stands
  EXPECT_EQ(timeout(), 100);
  EXPECT_EQ(log.count("has changed"), 0u);

  setStamp(1000000001);
  EXPECT_EQ(timeout(), 200);
  EXPECT_EQ(timeout(), 200);
  const std::string changed = "TqUvcGetIniIntCached: ini file \"" + path_ + "\" has changed. Loading new";
  EXPECT_EQ(log.countExact(changed, RKLOG_DEBUG), 1u);
  EXPECT_EQ(log.count("has changed"), 1u);

  // Closing drops the cache: the next read parses the file whatever its stamp.
  writeIni(300, 1000000001);
  TqUvcCloseIni();
  EXPECT_EQ(g_hIni, nullptr);
  EXPECT_EQ(timeout(), 300);
}

TEST_F(SupportIni, MissingFileWarnsOnEveryRead) {
  tqtest::LogCapture log;
  EXPECT_EQ(timeout(), 6000);
  EXPECT_EQ(timeout(), 6000);
  EXPECT_EQ(log.countExact(cannotLoad(), RKLOG_WARNING), 2u);
  writeIni(250, 1100000000);
  EXPECT_EQ(timeout(), 250);

  // Removed after a load: the old values stay, and every read warns again.
  unlink(path_.c_str());
  EXPECT_EQ(timeout(), 250);
  EXPECT_EQ(timeout(), 250);
  EXPECT_EQ(log.countExact(cannotLoad(), RKLOG_WARNING), 4u);
}

TEST_F(SupportIni, IntegerFormats) {
  std::ofstream(path_) << "[Tq.Uvc]\nDecimal=42\nHex=0x2A\nNegative=-7\nText=abc\n";
  setStamp(1300000000);
  const struct {
    const char* key;
    int expected;
  } cases[] = {{"Decimal", 42}, {"Hex", 42}, {"Negative", -7}, {"Text", 99}, {"Missing", 99}};
  for (const auto& c : cases) EXPECT_EQ(TqUvcGetIniIntCached("Tq.Uvc", c.key, 99), c.expected) << c.key;
}

}  // namespace
