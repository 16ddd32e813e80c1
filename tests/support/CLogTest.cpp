#include "support/CLog.h"

#include <gtest/gtest.h>
#include <rklog.h>

#include "LogCapture.h"

namespace {

// Restores the test binary's own configuration whatever a test changed.
class SupportCLog : public ::testing::Test {
 protected:
  void TearDown() override { rklog_Configure(nullptr); }
};

TEST_F(SupportCLog, LowerLevelsAreFixedAtConstructionFatalAndErrorFollowTheConfiguration) {
  tqtest::LogCapture log;
  rklog_Configure("CLogCacheTest=warning");
  rk::CLog early("CLogCacheTest", nullptr, true);
  EXPECT_TRUE(early.WarningEnabled());
  EXPECT_FALSE(early.DebugEnabled());

  rklog_Configure("CLogCacheTest=trace");
  rk::CLog late("CLogCacheTest", nullptr, true);
  early.Debug("early debug");
  early.Trace("early trace");
  late.Debug("late debug");
  late.Trace("late trace");
  late.Info("late info");
  EXPECT_EQ(log.count("early"), 0u);
  EXPECT_EQ(log.countExact("late debug", RKLOG_DEBUG), 1u);
  EXPECT_EQ(log.countExact("late trace", RKLOG_TRACE), 1u);
  EXPECT_EQ(log.countExact("late info", RKLOG_INFO), 1u);

  // Switching everything off silences Error and Fatal at once, but not the
  // cached Warning of a source built while it was on.
  rklog_Configure("CLogCacheTest=off");
  early.Error("error while off");
  early.Fatal("fatal while off");
  early.Warning("cached warning %d", 4);
  EXPECT_EQ(log.count("while off"), 0u);
  EXPECT_EQ(log.countExact("cached warning 4", RKLOG_WARNING), 1u);

  rklog_Configure("CLogCacheTest=error");
  early.Error("error %s", "back");
  early.Fatal("fatal %s", "back");
  EXPECT_EQ(log.countExact("error back", RKLOG_ERROR), 1u);
  EXPECT_EQ(log.countExact("fatal back", RKLOG_FATAL), 1u);
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
