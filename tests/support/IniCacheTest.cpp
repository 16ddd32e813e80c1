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

// Stamps the file with an explicit time, so a change never depends on the
// file system's timestamp granularity.
static void writeIni(const std::string& path, const char* value, time_t stamp) {
  std::ofstream(path, std::ios::trunc) << "[Tq.Uvc]\nAcquisitionTimeout=" << value << "\n";
  const timespec times[2] = {{stamp, 0}, {stamp, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

static int timeout() { return TqUvcGetIniIntCached("Tq.Uvc", "AcquisitionTimeout", 6000); }

// One test: the ini path may be resolved once per process.
TEST(SupportIni, ReloadsOnlyWhenTheModificationTimeChangesAndWarnsWhileTheFileIsMissing) {
  const std::string path = "support_tests.ini";  // in the binary's own working directory
  setenv("TQ_INI_FILE", path.c_str(), 1);
  const std::string changed = "TqUvcGetIniIntCached: ini file \"" + path + "\" has changed. Loading new";
  const std::string cannotLoad = "TqUvcGetIniIntCached: cannot load ini file:\"" + path + "\"";
  tqtest::LogCapture log;

  writeIni(path, "100", 1000000000);
  EXPECT_EQ(timeout(), 100);
  writeIni(path, "0xC8", 1000000000);  // new content, old stamp: the cache stands
  EXPECT_EQ(timeout(), 100);
  writeIni(path, "0xC8", 1000000001);
  EXPECT_EQ(timeout(), 200);
  EXPECT_EQ(timeout(), 200);
  EXPECT_EQ(log.countExact(changed, RKLOG_DEBUG), 1u);

  // Removed after a load: the old values stay, and every read warns.
  unlink(path.c_str());
  EXPECT_EQ(timeout(), 200);
  EXPECT_EQ(timeout(), 200);
  EXPECT_EQ(log.countExact(cannotLoad, RKLOG_WARNING), 2u);
  // Closing drops the cache; missing from the start, the default comes back.
  TqUvcCloseIni();
  EXPECT_EQ(timeout(), 6000);
  EXPECT_EQ(log.countExact(cannotLoad, RKLOG_WARNING), 3u);
  TqUvcCloseIni();
}
