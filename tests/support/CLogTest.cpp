#include <gtest/gtest.h>
#include <rklog.h>

#include "LogCapture.h"
#include "support/CLog.h"

TEST(SupportCLog, LowerLevelsAreFixedAtConstructionFatalAndErrorFollowTheConfiguration) {
  tqtest::LogCapture log;
  rklog_Configure("CLogCacheTest=off");
  rk::CLog early("CLogCacheTest", nullptr, true);
  rklog_Configure("CLogCacheTest=trace");
  rk::CLog late("CLogCacheTest", nullptr, true);

  for (auto level : {&rk::CLog::Warning, &rk::CLog::Info, &rk::CLog::Debug, &rk::CLog::Trace})
    (early.*level)("early");
  late.Trace("late trace %d", 32);
  // Asked at every call, so the source built while all was off writes them now.
  early.Error("error now");
  early.Fatal("fatal now");
  rklog_Configure(nullptr);  // back to the binary's own setup

  EXPECT_EQ(log.count("early"), 0u);
  EXPECT_EQ(log.countExact("late trace 32", RKLOG_TRACE), 1u);
  EXPECT_EQ(log.countExact("error now", RKLOG_ERROR), 1u);
  EXPECT_EQ(log.countExact("fatal now", RKLOG_FATAL), 1u);
}
