#include <gtest/gtest.h>
#include <rklog.h>

#include "LogCapture.h"
#include "support/CLog.h"

namespace {

class SupportCLog : public ::testing::Test {
 protected:
  void TearDown() override { rklog_Configure(nullptr); }  // back to the binary's own setup
};

TEST_F(SupportCLog, LowerLevelsAreFixedAtConstructionFatalAndErrorFollowTheConfiguration) {
  tqtest::LogCapture log;
  rklog_Configure("CLogCacheTest=off");
  rk::CLog early("CLogCacheTest", nullptr, true);
  rklog_Configure("CLogCacheTest=trace");
  rk::CLog late("CLogCacheTest", nullptr, true);

  early.Warning("early");
  early.Info("early");
  early.Debug("early");
  early.Trace("early");
  EXPECT_EQ(log.count("early"), 0u);

  late.Info("late info");
  late.Trace("late trace %d", 32);
  EXPECT_EQ(log.countExact("late info", RKLOG_INFO), 1u);
  EXPECT_EQ(log.countExact("late trace 32", RKLOG_TRACE), 1u);

  // Asked at every call, so the source built while all was off writes them now.
  early.Error("error now");
  early.Fatal("fatal now");
  EXPECT_EQ(log.countExact("error now", RKLOG_ERROR), 1u);
  EXPECT_EQ(log.countExact("fatal now", RKLOG_FATAL), 1u);
}

TEST_F(SupportCLog, UserIdIsCutToThreeCharactersAndClearedByNull) {
  tqtest::LogCapture log;
  rklog_Configure("CLogUserTest=info");
  rk::CLog source("CLogUserTest", nullptr, true);
  for (const char* id : {"D07", "ABCDEF", static_cast<const char*>(nullptr)}) {
    source.SetUserId(id);
    source.Info("line");
  }
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].userId, "D07");
  EXPECT_EQ(lines[1].userId, "ABC");
  EXPECT_EQ(lines[2].userId, "");
}

}  // namespace
