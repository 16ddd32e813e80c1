#include <gtest/gtest.h>
#include <rklog.h>

#include "LogCapture.h"
#include "support/CLog.h"

namespace {

// Restores the test binary's own configuration whatever a test changed.
class SupportCLog : public ::testing::Test {
 protected:
  void TearDown() override { rklog_Configure(nullptr); }
};

TEST_F(SupportCLog, LowerLevelsAreFixedAtConstructionFatalAndErrorFollowTheConfiguration) {
  tqtest::LogCapture log;
  rklog_Configure("CLogCacheTest=off");
  rk::CLog early("CLogCacheTest", nullptr, true);
  EXPECT_FALSE(early.WarningEnabled());

  rklog_Configure("CLogCacheTest=trace");
  rk::CLog late("CLogCacheTest", nullptr, true);
  EXPECT_TRUE(late.TraceEnabled());

  // The source built while all was off keeps Warning..Trace off.
  early.Warning("early warning");
  early.Info("early info");
  early.Debug("early debug");
  early.Trace("early trace");
  EXPECT_EQ(log.count("early"), 0u);

  late.Warning("late warning");
  late.Info("late info");
  late.Debug("late debug %d", 16);
  late.Trace("late trace %s", "x");
  EXPECT_EQ(log.countExact("late warning", RKLOG_WARNING), 1u);
  EXPECT_EQ(log.countExact("late info", RKLOG_INFO), 1u);
  EXPECT_EQ(log.countExact("late debug 16", RKLOG_DEBUG), 1u);
  EXPECT_EQ(log.countExact("late trace x", RKLOG_TRACE), 1u);

  // Error and Fatal are asked at every call, so the old source writes them now.
  early.Error("error %s", "now");
  early.Fatal("fatal %s", "now");
  EXPECT_EQ(log.countExact("error now", RKLOG_ERROR), 1u);
  EXPECT_EQ(log.countExact("fatal now", RKLOG_FATAL), 1u);
}

TEST_F(SupportCLog, UserIdIsCutToThreeCharactersAndClearedByNull) {
  tqtest::LogCapture log;
  rklog_Configure("CLogUserTest=info");
  rk::CLog source("CLogUserTest", nullptr, true);
  EXPECT_STREQ(source.UserId(), "");

  source.SetUserId("D07");
  source.Info("one");
  source.SetUserId("ABCDEF");
  source.Info("two");
  source.SetUserId(nullptr);
  source.Info("three");

  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].userId, "D07");
  EXPECT_EQ(lines[0].source, "CLogUserTest");
  EXPECT_EQ(lines[1].userId, "ABC");
  EXPECT_EQ(lines[2].userId, "");
}

TEST_F(SupportCLog, IndentGuardNestsAndUnwinds) {
  tqtest::LogCapture log;
  rklog_Configure("CLogIndentTest=info");
  rk::CLog source("CLogIndentTest", nullptr, true);
  source.Info("outer");
  {
    rk::CLogIndent a;
    rk::CLogIndent b;
    source.Info("inner");
  }
  source.Info("after");
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[1].indent - lines[0].indent, 2);
  EXPECT_EQ(lines[2].indent, lines[0].indent);
}

}  // namespace
