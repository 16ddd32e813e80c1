#include <fcntl.h>
#include <gtest/gtest.h>
#include <rklog.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "LogCapture.h"
#include "support/TqUvcIni.h"

namespace {

// The ini path may be resolved once per process, so every test uses the same
// file and only changes its content and modification time.
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
  // Each test starts as a fresh process would: no file, nothing loaded yet.
  void SetUp() override {
    unlink(path_.c_str());
    IniModificationTime = 0;
  }
  void TearDown() override { TqUvcCloseIni(); }

  // Writes the file and stamps it with `second` (seconds since the epoch), so
  // that a change never depends on the file system's timestamp granularity.
  static void writeIni(const std::string& text, time_t second) {
    {
      std::ofstream out(path_, std::ios::trunc);
      out << text;
    }
    setMtime(second);
  }
  static void setMtime(time_t second) {
    const timespec times[2] = {{second, 0}, {second, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path_.c_str(), times, 0), 0);
  }
  static std::string changedLine() {
    return "TqUvcGetIniIntCached: ini file \"" + path_ + "\" has changed. Loading new";
  }
  static std::string cannotLoadLine() {
    return "TqUvcGetIniIntCached: cannot load ini file:\"" + path_ + "\"";
  }

  static int timeout() { return TqUvcGetIniIntCached("Tq.Uvc", "AcquisitionTimeout", 6000); }

  static std::string dir_;
  static std::string path_;
};

std::string SupportIni::dir_;
std::string SupportIni::path_;

TEST_F(SupportIni, ReloadsOnlyWhenTheModificationTimeChanges) {
  writeIni("[Tq.Uvc]\nAcquisitionTimeout=100\n", 1000000000);
  tqtest::LogCapture log;

  EXPECT_EQ(timeout(), 100);
  EXPECT_STREQ(g_IniFile, path_.c_str());
  EXPECT_EQ(timeout(), 100);

  // New content under the old time stamp: the cached values stay.
  writeIni("[Tq.Uvc]\nAcquisitionTimeout=200\n", 1000000000);
  EXPECT_EQ(timeout(), 100);
  EXPECT_EQ(log.count("has changed"), 0u);

  setMtime(1000000001);
  EXPECT_EQ(timeout(), 200);
  EXPECT_EQ(timeout(), 200);
  EXPECT_EQ(log.countExact(changedLine(), RKLOG_DEBUG), 1u);
  EXPECT_EQ(log.count("has changed"), 1u);
  EXPECT_EQ(log.count("cannot load"), 0u);

  // Closing drops the cache: the next read parses the file again whatever its time.
  writeIni("[Tq.Uvc]\nAcquisitionTimeout=300\n", 1000000001);
  TqUvcCloseIni();
  EXPECT_EQ(g_hIni, nullptr);
  EXPECT_EQ(timeout(), 300);
  EXPECT_NE(g_hIni, nullptr);
}

TEST_F(SupportIni, MissingFileWarnsOnEveryReadUntilItAppears) {
  tqtest::LogCapture log;
  for (int i = 0; i < 3; ++i) EXPECT_EQ(timeout(), 6000);
  EXPECT_EQ(log.countExact(cannotLoadLine(), RKLOG_WARNING), 3u);

  writeIni("[Tq.Uvc]\nAcquisitionTimeout=250\n", 1100000000);
  EXPECT_EQ(timeout(), 250);
  EXPECT_EQ(timeout(), 250);
  EXPECT_EQ(log.count("cannot load"), 3u);
}

TEST_F(SupportIni, FileRemovedAfterLoadKeepsValuesAndWarnsOnEveryRead) {
  writeIni("[Tq.Uvc]\nAcquisitionTimeout=120\n", 1200000000);
  EXPECT_EQ(timeout(), 120);

  tqtest::LogCapture log;
  unlink(path_.c_str());
  EXPECT_EQ(timeout(), 120);
  EXPECT_EQ(timeout(), 120);
  EXPECT_EQ(log.countExact(cannotLoadLine(), RKLOG_WARNING), 2u);

  writeIni("[Tq.Uvc]\nAcquisitionTimeout=130\n", 1200000005);
  EXPECT_EQ(timeout(), 130);
}

TEST_F(SupportIni, IntegerFormats) {
  writeIni(
      "; settings\n"
      "[MISC.Options]\nMISC.AutoConnect=1\n"
      "[Tq.Uvc]\n"
      "Decimal=42\nHex=0x2A\nNegative=-7\nText=abc\nEmpty=\n",
      1300000000);
  struct Case {
    const char* section;
    const char* key;
    int expected;
  };
  const Case cases[] = {
      {"MISC.Options", "MISC.AutoConnect", 1},
      {"Tq.Uvc", "Decimal", 42},
      {"Tq.Uvc", "Hex", 42},
      {"Tq.Uvc", "Negative", -7},
      {"Tq.Uvc", "Text", 99},   // not a number: default
      {"Tq.Uvc", "Empty", 99},  // no value: default
      {"Tq.Uvc", "Missing", 99},
      {"No.Such.Section", "Decimal", 99},
      {"tq.uvc", "decimal", 42},  // names compare without case
  };
  for (const auto& c : cases)
    EXPECT_EQ(TqUvcGetIniIntCached(c.section, c.key, 99), c.expected) << c.section << "/" << c.key;
}

}  // namespace
