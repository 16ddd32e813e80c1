#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "LogCapture.h"
#include "support/StringUtils.h"

TEST(SupportStrings, SafeStrCpyCopiesBoundedAndNeverWritesPastMaxlen) {
  const struct {
    const char* src;
    size_t maxlen;
    const char* expected;  // null: dst must stay untouched; empty or untouched comes with a debug break
  } cases[] = {
      {"abcdef", 4, "abc"}, {"abc", 4, "abc"}, {"abcdef", 1, ""}, {nullptr, 8, ""}, {"abc", 0, nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.src ? c.src : "(null)") + " / " + std::to_string(c.maxlen));
    tqtest::LogCapture log;
    char buf[16];
    memset(buf, 'X', sizeof(buf));
    rk::SafeStrCpy(buf, c.src, c.maxlen);
    EXPECT_STREQ(c.expected ? buf : nullptr, c.expected);  // untouched: checked by the loop below
    for (size_t i = c.maxlen; i < sizeof(buf); ++i) ASSERT_EQ(buf[i], 'X') << "written at " << i;
    EXPECT_EQ(log.count("should not happen! let qz know about it!"), c.expected && *c.expected ? 0u : 1u);
  }
}

TEST(SupportStrings, FileNamesAndMakers) {
  const auto clean = [](std::string s) {
    rk::ReplaceInvalidFileNameChars(s);
    return s;
  };
  EXPECT_EQ(clean("a/b:c d"), "a.b.c d");
  // Bytes above 0x7f and control characters go too, whatever the locale.
  EXPECT_EQ(clean("Az09_~\\*\xc3\xa4\t"), "Az09_~.....");

  EXPECT_TRUE(IsOwnDevice("KOR GmbH") && IsOwnDevice("made by Kormand Sensor Works Ltd"));
  EXPECT_FALSE(IsOwnDevice("kor gmbh"));
  EXPECT_FALSE(IsOwnDevice(nullptr));
}
